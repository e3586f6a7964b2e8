/* What the requests of the common library share with its queue. Only common-link.cpp and common-requests.cpp may
   include it. Thread: the main loop. */
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
};

/* Puts a request into the queue, which is in a file before this returns: a kill loses nothing. A power cut does not
   either once the service has the request, or a moment later. 0, also when the service refused it at once, which its
   callback is told; a negative value: it was not taken. */
int common_enqueue(request r);
/* A text as the bus takes it; "" for NULL. */
std::string common_bus_text(const char *text);

#endif
