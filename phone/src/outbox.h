/*
 * Replies on their way to the mail system. Each waits in the phone's state until `sendmail` has taken it.
 *
 * A reply is handed over by a process of its own (outbox_deliver), in a session of its own: the end of the relay does
 * not touch it, and it alone writes down what came of it. It holds a lock while it works, so a second one for the same
 * reply waits and then finds it done. What is left: when that process itself or the machine dies after sendmail took
 * the reply and before that is on disk, nobody can know, and the reply is sent again, under the same Message-ID.
 */
#ifndef BRISEL_PHONE_OUTBOX_H
#define BRISEL_PHONE_OUTBOX_H

#include <cstdint>
#include <string>
#include <vector>

#include "state.h"

enum outbox_state {
  OUTBOX_QUEUED = 0,
  OUTBOX_SENDING = 1, /* handed over now, or interrupted while it was */
  OUTBOX_SENT = 2,
  OUTBOX_HELD = 3 /* cannot be sent as it is: told to the user, not tried again by itself */
};

struct outbox_entry {
  int64_t id = 0;
  int account_id = 0;
  int64_t created = 0, next_time = 0, done_time = 0; /* seconds since the epoch */
  std::string recipient, subject, error;
  int state = OUTBOX_QUEUED, attempts = 0;
  int interrupted = 0; /* how often its fate was unknown and it was sent again */
};

struct outbox_settings {
  std::string sendmail = "/usr/sbin/sendmail -t -i";
  int64_t retry_first = 60, retry_longest = 3600; /* seconds */
};

/* Puts a reply in; state is QUEUED, or HELD with the reason in `error`. Part of the caller's transaction. */
int outbox_add(phone_state *state, int account_id, const std::string &recipient, const std::string &subject,
               const std::string &message, const std::string &error);
/* Every entry, oldest first. */
int outbox_list(phone_state *state, std::vector<outbox_entry> *entries);
/* Makes every waiting entry due now; held ones stay held. */
int outbox_retry_all(phone_state *state);
/* Forgets an unsent entry. Returns 1 done, 0 there is none, -1. */
int outbox_drop(phone_state *state, int64_t id);

/* The process that hands one reply over; returns its exit code. */
int outbox_deliver(int64_t id, const outbox_settings &settings);
/* Starts that process. Returns its id, or -1 with a reason. */
int outbox_spawn(int64_t id, const outbox_settings &settings, std::string *error);

#endif
