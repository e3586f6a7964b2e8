/* What the link's files share: the queue of requests, and the events. Only common-link.cpp, common-requests.cpp,
   common-journal.cpp and common-events.cpp may include it. Thread: the main loop. */
#ifndef BRISEL_COMMON_LINK_PRIV_H
#define BRISEL_COMMON_LINK_PRIV_H

#include <glib.h>

#include <string>
#include <vector>

#include "brisel-common.h"
#include "common-kept.h"

struct request : kept_request {
  brisel_ipc_response_cb callback = nullptr;
  void *user_data = nullptr;
  bool trouble_told = false;
  int number = 0; /* names it while it waits here */
  bool is_told = false;
};

/* Puts a request into the queue, which is in a file before this returns: a kill loses nothing. A power cut does not
   either once the service has the request, or a moment later. 0, also when the service refused it at once, which its
   callback is told; a negative value: it was not taken. */
int common_enqueue(request r);
/* What no service has answered yet, oldest first. Valid until the main loop goes on. */
std::vector<const request *> common_waiting(void);
/* Whether the reply can be taken back, as no service can have it. */
bool common_is_here_only(const request *r);
/* Changes such a reply, or without a text only tries to send it now; takes it back. 0, or a BRISEL_COMMON_ERROR_*. */
int common_change_waiting(int number, const char *text);
int common_drop_waiting(int number);
/* A text as the bus takes it; "" for NULL. */
std::string common_bus_text(const char *text);

/* From now on events are those that follow; the reader is held by the caller. */
void events_start(void);
/* Ends it, with all subscriptions; also from inside a callback of an event. */
void events_stop(void);
/* Says that requests wait here, or no longer. */
void events_tell_requests(void);
/* Reads what the store has behind the last change seen, and hands over the first of it. */
void events_read(void);

#endif
