/* The calls to the host service from inside: only host*.cpp may include it. */
#ifndef BRISEL_PHONE_HOST_PARTS_H
#define BRISEL_PHONE_HOST_PARTS_H

#include "host.h"

class bus_message {
 public:
  bus_message() = default;
  ~bus_message() { sd_bus_message_unref(m); }
  bus_message(const bus_message &) = delete;
  bus_message &operator=(const bus_message &) = delete;
  sd_bus_message *m = nullptr;
};

class bus_error {
 public:
  bus_error() = default;
  ~bus_error() { sd_bus_error_free(&e); }
  bus_error(const bus_error &) = delete;
  bus_error &operator=(const bus_error &) = delete;
  sd_bus_error e = SD_BUS_ERROR_NULL;
};

/* --- host-calls.cpp --- */

/* Begins a call of the service. Returns 0, or a host_result with a reason. */
int host_begin(host_bus *bus, bus_message *call, const char *method, std::string *error);
/* What a call that ended in `why` (or, without a name, in the errno `result`) means. */
int host_failed(host_bus *bus, const sd_bus_error &why, int result, std::string *error);
/* Sends the call and waits for its answer; `filled` is what filling the call in gave. */
int host_finish(host_bus *bus, const bus_message &call, int filled, bus_message *reply, std::string *error);
/* It was done, but what came of it is not known. */
int host_unreadable(int result, std::string *error);
/* Text that a bus takes. */
std::string host_bus_text(const std::string &text);

/* --- host-stream.cpp --- */

/* Lets what comes over a stream reach its callbacks until *done, or until the other end is silent for too long: then
   the stream is ended. Returns 0, or an errno below 0. */
int stream_wait(host_bus *bus, const bool *done);
/* sd_bus_call, waiting like that. */
int stream_call(host_bus *bus, const bus_message &call, bus_message *reply, bus_error *why);
/* Something came, and so many bytes less are on their way. */
void stream_answered(host_bus *bus, size_t bytes);

#endif
