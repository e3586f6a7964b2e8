/*
 * The phone's standing connection to the host service, for `serve` and `relay`.
 *
 * It connects as the phone, comes back when the service restarts, keeps every request on disk before it acknowledges
 * it, hands each to its user once, and answers requests for more of a body. It sleeps while nothing happens.
 * Thread: the one that runs the event loop.
 */
#ifndef BRISEL_PHONE_LINK_H
#define BRISEL_PHONE_LINK_H

#include <systemd/sd-event.h>

#include <memory>
#include <nlohmann/json_fwd.hpp>

#include "host.h"
#include "state.h"

struct phone_link;

/* What the user of a link does. Every function may be NULL. */
struct link_handlers {
  /* The service is there and has handed over what waited. */
  void (*connected)(phone_link *link, void *user_data);
  /* A new request, inside the change that keeps it: only the phone's state may be changed here. Returns 0, or -1: then
     nothing is kept and the service is asked to send it again later.
     uid: by which the service is told what came of the request; empty: it does not ask. */
  int (*keep)(phone_link *link, const nlohmann::json &request, const std::string &uid, void *user_data);
  /* The same request after it is on disk. */
  void (*kept)(phone_link *link, const nlohmann::json &request, const std::string &line, void *user_data);
  /* Takes those mails out of a request that are another phone's. They stay with the service, which sends what is left
     whenever it links: until that phone takes it. false: nothing in it is for this phone. NULL: all is. */
  bool (*leave_others)(phone_link *link, nlohmann::json *request, void *user_data);
  /* Whether keep() knows a uid again from whichever service it comes, and the service is told what came of it: mostly
     in a moment, so that it waits for its disk once and not twice. */
  bool tells_outcomes = false;
};

/* Connects to the chosen watch (watch.h). NULL with a reason when the session bus cannot be reached or another process
   of this phone is linked. A watch that is not there, or busy with another phone, is waited for. handlers and state
   outlive the link. SIGTERM and SIGINT end the process within a second from now on, whatever it waits for: everything
   that counts is on disk at any time. */
phone_link *link_open(phone_state *state, const link_handlers *handlers, void *user_data, std::string *error);
/* Runs until SIGINT or SIGTERM. Returns 0, or -1 with a reason (the session bus is gone). A stream that is lost is
   opened again without end. */
int link_run(phone_link *link, std::string *error);
/* Ends with an error. */
void link_fail(phone_link *link, const std::string &error);
void link_close(phone_link *link);
struct phone_link_closer {
  void operator()(phone_link *link) const { link_close(link); }
};
using phone_link_holder = std::unique_ptr<phone_link, phone_link_closer>;

sd_event *link_event(phone_link *link);
host_bus *link_bus(phone_link *link);
bool link_is_connected(phone_link *link);
/* Work that takes the loop's thread for long calls this now and then: the watch then knows that the phone lives, and
   who waits there for more of a text gets it. Not inside a change of the state. */
void link_stay_alive(phone_link *link);
/* Has the service send what could not be kept once more, now: before the answer of the next call. */
void link_ask_waiting(phone_link *link);
/* Takes every request that the service sent before it answered the last call, now. Returns 0, or -1 when one could not
   be kept or the connection went meanwhile. */
int link_take_waiting(phone_link *link);

/* For other commands: a stream that goes through who has the link to the watch whose state this is; -1 when nobody
   lends one. What is called there gets to the watch as over a stream of one's own. The caller closes it. */
int link_borrow();

/* What is known of the link to the watch whose state this is, whoever has it. */
struct link_report {
  int64_t linked_since = 0, last_seen = 0; /* seconds since the epoch; 0: it is not, it never was */
  std::string watch;                       /* what the watch calls itself */
  std::string trouble;                     /* why there is no link; empty: nobody looks for one */
};
link_report link_report_read(phone_state *state);
std::string link_in_words(const link_report &link);
/* A time as people here write it. */
std::string local_time(int64_t seconds);

/* How much to send before an answer is waited for. */
struct link_flow_limits {
  size_t calls; /* that may be under way at once */
  size_t bytes; /* of one */
};
link_flow_limits link_flow(phone_link *link);

/* What more of a mail's body there is for a watch that holds `have` bytes of it; *rest is set when a server has it (see
   post-rest.h). Returns 0, or -1 with a reason (the mail is not known or its file is gone). Also for tests. */
int more_of_mail(phone_state *state, int mail_id, const std::string &message_uid, int64_t have, std::string *piece,
                 bool *complete, std::string *rest, std::string *error);

/* A pause that grows from a second to a minute, in microseconds. */
uint64_t link_longer(uint64_t pause);

/* A line for people on standard error. */
void link_log(const std::string &text);

#endif
