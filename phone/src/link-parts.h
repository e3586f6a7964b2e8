/* The link from inside: only link-*.cpp may include it. */
#ifndef BRISEL_PHONE_LINK_PARTS_H
#define BRISEL_PHONE_LINK_PARTS_H

#include <deque>

#include "link.h"

/* A request as it came, until there is time for it: the bus may bring one while an answer is waited for. */
struct waiting_request {
  int64_t id = 0, have = 0;
  std::string line, peer;
};

struct phone_link {
  phone_state *state = nullptr;
  const link_handlers *handlers = nullptr;
  void *user_data = nullptr;
  host_bus_holder bus;
  sd_event *event = nullptr;
  int stop_fd = -1; /* written to by SIGTERM and SIGINT */
  sd_event_source *retry = nullptr, *take = nullptr, *resend = nullptr;
  std::deque<waiting_request> requests;
  bool connected = false;
  std::string owner; /* the service process that is connected */
  uint64_t connected_at = 0;
  uint64_t delay = 0;        /* before the next try, in microseconds */
  uint64_t resend_delay = 0; /* before requests that could not be kept are asked for again */
  std::string failure;
  bool failed = false;
  bool told = false; /* that requests cannot be acknowledged; they come again with the next connection */
};

/* --- link-requests.cpp --- */

/* Makes the sources that requests need. Returns 0, or an errno below 0. */
int requests_start(phone_link *link);
int request_cb(sd_bus_message *m, void *user_data, sd_bus_error *error);
/* The connection is another one: what came over the old one is sent again. */
void requests_forget(phone_link *link);

/* --- link-connection.cpp --- */

/* Sets the timer `source`, which it makes when it is not there yet, to `delay` microseconds from now. */
void link_timer(phone_link *link, sd_event_source **source, uint64_t delay, sd_event_time_handler_t callback);

#endif
