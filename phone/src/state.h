/*
 * The phone's own memory: one SQLite file for each watch, shared by every command, `serve` and `relay`. The one of the
 * watch on the session bus is in the phone's state folder, every other one in a folder of its own below it.
 *
 * Every function that changes something returns after it is on disk (or, inside phone_state_change, with it) unless it
 * says otherwise; or it returns -1, and phone_state_error says why. Several processes work on the file side by side.
 * state-relay.h and state-replies.h are the rest of it. Thread: the one that opened it.
 */
#ifndef BRISEL_PHONE_STATE_H
#define BRISEL_PHONE_STATE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct phone_state;

/* What the phone keeps of a mail that it sent: enough to go on with its text and to answer it. */
struct sent_mail {
  int64_t row = 0;    /* the phone's own number for it */
  int mail_id = 0;    /* the watch's number; 0: not known (yet) */
  int account_id = 0; /* the watch's */
  std::string message_uid;
  int64_t first = 0; /* size of a piece in bytes; 0: it went as a whole */
  bool has_body = false;
  std::string body;   /* the readable text, when has_body */
  std::string source; /* where the message itself is when the text is not kept here; see mail-files.h */
  std::string message_id, references, reply_to;
};

struct stored_request {
  int64_t id = 0; /* the service's number */
  int64_t time = 0;
  std::string json;
};

/* The state folder's path, with `name` below it when not empty. Empty when the folder cannot be made, or is not this
   user's own. The first is the phone's, the second that of the watch that phone_state_use named last. */
std::string phone_base_path(const char *name);
std::string phone_state_path(const char *name);
/* `folder`: below the state folder; empty, as at first: the state folder itself. */
void phone_state_use(const std::string &folder);
const std::string &phone_state_used();
/* From now on no state is opened, for this reason; empty: it is again. */
void phone_state_refuse(const std::string &reason);
const std::string &phone_state_refused();
constexpr int phone_lock_tries = 20;
/* Locks the file `name` for this process. Returns the descriptor to close in the end, or -1: when another process has
   it, without a reason. */
int phone_state_lock(const char *name, std::string *error, int tries = phone_lock_tries);

/* Opens (and makes, and brings up to date) the state. NULL with a one-line reason. */
phone_state *phone_state_open(std::string *error);
void phone_state_close(phone_state *state);
struct phone_state_closer {
  void operator()(phone_state *state) const { phone_state_close(state); }
};
using phone_state_holder = std::unique_ptr<phone_state, phone_state_closer>;
const char *phone_state_error(phone_state *state);

/* What `work` changes is kept as a whole when it returns 0, and not at all otherwise. Returns 0, or -1. */
int phone_state_change(phone_state *state, const std::function<int()> &work);
/* The same, without waiting for the disk: a machine that loses its power may lose it, as a whole and with all that was
   changed later. For what can be found out again. */
int phone_state_note(phone_state *state, const std::function<int()> &work);

/* --- mails that were sent --- */

/* Adds a row and sets mail->row. */
int phone_state_add_mail(phone_state *state, sent_mail *mail);
/* Says which number the watch gave the row's mail. */
int phone_state_set_mail_id(phone_state *state, int64_t row, int mail_id);
int phone_state_drop_row(phone_state *state, int64_t row);
/* Forgets mails that are gone from the watch; *known (may be NULL): how many were known. */
int phone_state_drop_mails(phone_state *state, const std::vector<int> &mail_ids, int *known = nullptr);
/* The mail that a request means: both numbers when they agree, else the newest of that message_uid (the watch's
   numbers start again when its store is new). Returns 1 found, 0 not known, -1 error. */
int phone_state_find_mail(phone_state *state, int mail_id, const std::string &message_uid, sent_mail *mail);
/* The same, where only the watch's number is known. */
int phone_state_find_number(phone_state *state, int mail_id, sent_mail *mail);

/* --- requests that came --- */

/* Keeps a request that arrived from the service whose bus name is `peer`. Returns 1 when it is new, 0 when it was kept
   before, -1 error. A request that `peer` sent is the same one when number and text are; one that another service
   process sent is the same only while it was not acknowledged, as what was acknowledged is never sent again and a new
   store starts its numbers again. */
int phone_state_add_request(phone_state *state, int64_t id, const std::string &peer, const std::string &json);
/* Without waiting for the disk. */
int phone_state_set_acknowledged(phone_state *state, int64_t id);
int phone_state_list_requests(phone_state *state, std::vector<stored_request> *requests);

#endif
