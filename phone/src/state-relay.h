/*
 * The phone's state: what the relay knows of each message of the mailboxes it follows, and what it says of itself.
 * Results as in state.h.
 */
#ifndef BRISEL_PHONE_STATE_RELAY_H
#define BRISEL_PHONE_STATE_RELAY_H

#include <map>
#include <unordered_map>

#include "state.h"

/* The numbers are on disk. */
enum class relay_mail_state : int {
  waiting = 0, /* not on the watch */
  sending = 1, /* handed to the service, whose answer is not on disk */
  relayed = 2,
  deleted = 3, /* the user removed it from the watch; it stays in the mailbox, unless that is wanted otherwise */
  broken = 4,  /* no mail at all, or one that the watch refuses: `trouble` says why */
  copy = 5     /* the same message as another file of this mailbox */
};

struct relay_row {
  std::string identity; /* message_uid; empty until the message was read */
  int64_t size = 0, time = 0, row = 0;
  int mail_id = 0;
  relay_mail_state state = relay_mail_state::waiting;
  bool seen = false;      /* as mailbox and watch last agreed */
  bool want_seen = false; /* read on the watch, to be marked in the mailbox */
  bool want_gone = false; /* deleted on the watch, to be deleted in the mailbox where that is wanted */
  std::string trouble;
  int64_t batch = 0;  /* of one that is being sent: which call it went with */
  bool fresh = false; /* arrived while the mailbox was being followed; not on disk */
  bool dirty = false; /* differs from what is on disk */
};

using relay_rows = std::unordered_map<std::string, relay_row>; /* by the message's key in its mailbox */

int relay_rows_load(phone_state *state, const std::string &account, relay_rows *rows);
int relay_row_write(phone_state *state, const std::string &account, const std::string &key, const relay_row &row);
/* Writes the dirty rows and forgets those of the keys in `gone`. The rows stay dirty: they are clean when the change
   around this is on disk. */
int relay_rows_write(phone_state *state, const std::string &account, const relay_rows &rows,
                     const std::vector<std::string> &gone);
/* Takes over what requests and other commands changed on disk of the row: number, state and what is wanted. */
int relay_row_reload(phone_state *state, const std::string &account, const std::string &key, relay_row *row);
/* The keys of the messages that the user deleted, and of each whether the mailbox is to be told still. */
int relay_rows_deleted(phone_state *state, const std::string &account, std::map<std::string, bool> *keys);
/* The mail was deleted by the user; on_watch: there, and not by a command. Returns how many messages it was, or -1. */
int relay_mail_set_deleted(phone_state *state, int mail_id, bool on_watch);
/* Returns how many messages it is, or -1. */
int relay_mail_want_seen(phone_state *state, int mail_id);
/* Returns 1 when a message is being sent, 0, or -1. */
int relay_any_sending(phone_state *state);

/* The user deleted on the watch a mail of the account whose number never reached the phone: from now on it counts as
   deleted. Returns how many rows it was, or -1. */
int relay_name_set_deleted(phone_state *state, const std::string &account, const std::string &identity);

/* How many messages have not been taken by the watch as far as is known. Returns 0, or -1. */
int relay_count_waiting(phone_state *state, int64_t *count);

struct relay_account_row {
  int account_id = 0; /* the watch's */
  std::string address, display_name;
};
/* Returns 1 found, 0 not known, -1. */
int relay_account_find(phone_state *state, const std::string &name, relay_account_row *row);
int relay_account_keep(phone_state *state, const std::string &name, const relay_account_row &row);

/* What the relay tells `relay status`, and itself at the next start. */
constexpr char note_of_link[] = "link", note_accounts[] = "accounts", note_pid[] = "pid", note_started[] = "started";
/* "1" while mails were deleted whose numbers never reached the phone. */
constexpr char note_unknown_deletions[] = "unknown-deletions";
/* The watch's numbers of mails that were read there before the numbers reached the phone, with a blank behind each. */
constexpr char note_unknown_marks[] = "unknown-marks";
/* The mailbox of that name is being relayed for the first time: what is not known of it yet was there before. */
constexpr char note_first_of[] = "first ";
int relay_note_set(phone_state *state, const char *key, const std::string &value);
/* The same for what is only shown: on disk with whatever is written next. */
int relay_note_tell(phone_state *state, const char *key, const std::string &value);
/* Returns 1 found, 0 (then *value is empty), or -1. */
int relay_note_get(phone_state *state, const char *key, std::string *value);

#endif
