/*
 * Handing replies to the mail system. Each waits in the phone's state (state-replies.h) until `sendmail` has taken it.
 *
 * A reply is handed over by a process of its own (outbox_deliver), in a session of its own: the end of the relay does
 * not touch it, and it alone writes down what came of it. It and sendmail hold a lock while they work, so a second one
 * for the same reply waits and then finds it done. When that process is killed, sendmail, which has its whole message
 * and needs nobody, becomes a child of the relay, which waits for it instead (outbox_orphan, outbox_settle).
 * docs/phone.md tells what is left.
 */
#ifndef BRISEL_PHONE_OUTBOX_H
#define BRISEL_PHONE_OUTBOX_H

#include <signal.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

#include "state.h"

/* `brisel-phone submit` ends so for what the account's server will never take; no mail system uses this code. */
constexpr int submit_refused = 99;

struct outbox_settings {
  std::string sendmail = "/usr/sbin/sendmail -t -i";
  int64_t retry_first = 60, retry_longest = 3600; /* seconds */
};

/* The process that hands one reply over; returns its exit code: 0 when what came of it is on disk. */
int outbox_deliver(int64_t id, const outbox_settings &settings);
/* Starts that process. Returns its id, or -1 with a reason. */
int outbox_spawn(int64_t id, const outbox_settings &settings, std::string *error);
/* Makes this process the one that inherits a killed one's sendmail. */
void outbox_inherit_orphans();
/* The sendmail that the process `killed` left to this one, ended or not. Returns its id, or 0. */
pid_t outbox_orphan(int64_t id, pid_t killed);
/* Lets go of other processes that sendmail left behind and that ended; for when no reply is being handed over. */
void outbox_bury_orphans();
/* Writes down how it ended. Returns 0, or -1. */
int outbox_settle(phone_state *state, int64_t id, const siginfo_t *end, const outbox_settings &settings);

#endif
