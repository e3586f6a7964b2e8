/*
 * The relay from inside: its records, and what its parts offer each other. Only the files relay-*.cpp may
 * include it. Thread: the relay's one.
 *
 *   relay-loop.cpp      start, what wakes it, the order of work
 *   relay-known.cpp     what is known of each message: rows, and matching them with the watch's list
 *   relay-sync.cpp      comparing a mailbox with the watch, deletions and read marks
 *   relay-send.cpp      reading messages and bringing them to the watch
 *   relay-requests.cpp  what a request of the watch changes on disk
 *   relay-replies.cpp   when a reply is handed over
 *   relay-show.cpp      mails that the watch hands over
 *   relay-status.cpp    what it tells: status and progress
 */
#ifndef BRISEL_PHONE_RELAY_PARTS_H
#define BRISEL_PHONE_RELAY_PARTS_H

#include <systemd/sd-event.h>

#include <map>
#include <memory>
#include <set>
#include <unordered_map>

#include "../mime.h"
#include "link.h"
#include "relay.h"
#include "state-relay.h"
#include "state-replies.h"

struct event_source_closer {
  void operator()(sd_event_source *source) const { sd_event_source_disable_unref(source); }
};
using event_source = std::unique_ptr<sd_event_source, event_source_closer>;

struct relay;

/* One mailbox and the account of the watch that it belongs to. */
struct followed {
  relay *r = nullptr;
  relay_account_settings settings;
  int account_id = 0;
  relay_rows rows;
  std::unordered_map<std::string, int> unclaimed; /* message_uid to mail id: on the watch, and not matched yet */
  bool known_before = false;                      /* it was relayed as a whole once */
  bool listed = false;                            /* the watch's list was matched since it connected */
  bool just_listed = false;                       /* ... and nothing was sent since */
  bool missing = false;                           /* the mailbox is not there yet; its folders are watched for it */
  bool dirty = true;                              /* something may have changed in the mailbox */
  bool unfinished = false;                        /* a file is perhaps still being written */
  bool again = false;                             /* something could not be done that may be possible later */
  bool beginnings = false;                        /* it may hold messages of which only the beginning is here */
  bool checked = false;                           /* mails were refused, and the watch's list was looked at since */
  int64_t last_batch = 0;                         /* of this run */
  std::set<std::string> rewritten;                /* files that were written to in place */
  std::string error;
  int64_t files = 0, relayed = 0, synced = 0;
  std::vector<event_source> watches;
};

/* A reply that waits, by the clock that nobody sets. */
struct reply_wait {
  int attempts = -1;  /* of the entry when the time was set */
  uint64_t due = 0;   /* microseconds of CLOCK_BOOTTIME */
  uint64_t pause = 0; /* after tries that left no trace on disk; grows */
};

struct relay {
  relay_settings settings;
  std::set<int> just_deleted; /* mails that the user deleted since the watch's list was asked for */
  phone_state_holder state;
  phone_link *link = nullptr;
  std::vector<std::unique_ptr<followed>> accounts;
  event_source sync_timer, sync_defer, reply_timer, child, wake;
  uint64_t sync_pause = 0; /* microseconds until what failed is tried again */
  int64_t delivering = 0;  /* the reply that the child hands over */
  std::map<int64_t, reply_wait> waits;
  std::set<int64_t> told; /* replies whose trouble was reported */
  reply_wait telling;     /* when the watch can be told again what came of replies */
  bool bar = false;       /* standard error is a terminal */
  std::string last_status;

  relay() = default;
  ~relay();
  relay(const relay &) = delete;
  relay &operator=(const relay &) = delete;
};

/* A mailbox as it is now. */
struct listing {
  std::vector<mailbox_item> items;
  std::unordered_map<std::string, size_t> by_key;
  std::vector<relay_row *> rows; /* of each item what is known of it; NULL: nothing yet */
  std::vector<size_t> window;    /* the newest ones, newest first */
};

int64_t relay_now(); /* seconds since the epoch */

/* --- relay-known.cpp --- */

std::string relay_tag(const followed &a); /* the host_tag of its mails */
int known_load(followed *a);
/* Writes down that the mailbox is relayed for the first time, and that it was. As known_save(). */
int known_first(followed *a, bool under_way);
/* Writes down the rows that changed, forgets those in `gone`, and what `also` (may be empty) changes besides, as a
   whole. Returns 0, or -1 with a->error set. */
int known_save(followed *a, const std::vector<std::string> &gone, const std::function<int()> &also = nullptr);
/* Writes down the rows that changed, without waiting for the disk: for what the watch's list and the mailbox tell again
   when the power failed, and what is done twice to the same effect. As known_save(). */
int known_note(followed *a);
/* Takes over what a request changed on disk. */
void known_reload(followed *a, int mail_id);
/* Settles what the last run or connection left open, for all accounts, from what the watch lists. Returns 0, or -1. */
int known_match(relay *r);

/* --- relay-sync.cpp --- */

/* Makes watch and mailbox equal. Returns 0, or -1: then it is done again. */
int sync_mailbox(followed *a);

/* --- relay-send.cpp --- */

/* Reads one message. Returns 0; 1 when it may be readable later; -1 with the reason why it is none. The one place where
   the relay calls the reader of mail. */
int read_message(followed *a, const mailbox_item &item, mime_mail *mail, int64_t *size, std::string *error);
/* When new messages arrived, in seconds since the epoch: as the last mail server on its way wrote, else when it says it
   was written, else as its file says; 0 for one that cannot be read now. */
std::vector<int64_t> read_arrivals(followed *a, const std::vector<const mailbox_item *> &items);
/* Brings to the watch what it lacks of the window. Returns 0, or -1. */
int send_window(followed *a, const listing &l);

/* --- relay-requests.cpp: see relay.h --- */

/* --- relay-show.cpp --- */

/* Runs the command for each mail that the watch hands over. */
void show_mails(relay *r, const nlohmann::json &request);

/* --- relay-replies.cpp --- */

/* Starts what is due, one at a time, and sleeps until the next is. */
void replies_next(relay *r);
/* The watch is there: it hears what came of replies meanwhile. */
void replies_connected(relay *r);
/* Before the event loop runs. */
int replies_start(relay *r);
/* The file whose writing makes a running relay look at its replies again. */
std::string replies_wake_path();

/* --- relay-status.cpp --- */

struct progress {
  relay *r;
  std::string what;
  size_t total, done = 0, told = 0;
};
void progress_advance(progress *p, size_t count);
void status_write(relay *r);
/* Returns a locked file, or -1 with a reason. */
int status_take_lock(std::string *error);

#endif
