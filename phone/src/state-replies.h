/* The phone's state: replies on their way to the mail system. Results as in state.h. */
#ifndef BRISEL_PHONE_STATE_REPLIES_H
#define BRISEL_PHONE_STATE_REPLIES_H

#include "state.h"

/* The numbers are on disk. */
enum class reply_state : int {
  queued = 0,
  sending = 1, /* handed over now, or interrupted while it was */
  sent = 2,
  held = 3,   /* cannot be sent as it is: told to the user, not tried again by itself */
  dropped = 4 /* forgotten by the user, which the watch is not told yet */
};

/* How a state is called in `relay status`. */
const char *reply_state_name(reply_state state);

struct reply_entry {
  int64_t id = 0;
  int account_id = 0;
  int64_t created = 0, next_time = 0, done_time = 0; /* seconds since the epoch */
  int64_t pause = 0;                                 /* seconds before the next try: next_time is never further away */
  std::string recipient, subject, error;
  std::string uid;  /* by which the watch knows it; empty: it does not ask */
  std::string told; /* what the watch was told last */
  reply_state state = reply_state::queued;
  int attempts = 0;
  int interrupted = 0; /* how often its fate was unknown and it was sent again */
};

struct new_reply {
  std::string uid, recipient, subject, message;
  std::string error; /* not empty: why it cannot be sent */
};
/* Puts a reply in: queued, or held. One whose uid is there already is the same. */
int reply_add(phone_state *state, int account_id, const new_reply &reply);
/* Every entry, oldest first. */
int reply_list(phone_state *state, std::vector<reply_entry> *entries);
/* Says that the entry is being handed over; *entry and *message are what it was before. Returns 1 when that is the
   caller's to do, 0 when it is done, held or gone, -1. */
int reply_begin(phone_state *state, int64_t id, reply_entry *entry, std::string *message);
int reply_set_sent(phone_state *state, int64_t id);
/* Back to the queue for `pause` seconds. */
int reply_set_failed(phone_state *state, int64_t id, int64_t pause, const std::string &error);
/* Not tried again. */
int reply_set_held(phone_state *state, int64_t id, const std::string &error);
/* What the watch has on its disk of what came of it. `ends`: it was told that this one was dropped, which is forgotten
   with that. */
int reply_set_told(phone_state *state, int64_t id, const std::string &told, bool ends);
/* Makes every waiting entry due now; held ones stay held. */
int reply_retry_all(phone_state *state);
/* Forgets an unsent entry. Returns 1 done, 0 there is none, -1. */
int reply_drop(phone_state *state, int64_t id);

#endif
