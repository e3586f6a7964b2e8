/* What stands in for a watch at the end of a stream: a bus of one connection, whose messages all go to one function. */
#ifndef BRISEL_TESTS_STREAM_BUS_H
#define BRISEL_TESTS_STREAM_BUS_H

#include <systemd/sd-bus.h>

/* Takes what comes until the other end is gone; both descriptors are closed then. */
inline void stream_bus_serve(int in, int out, sd_bus_message_handler_t take, void *data) {
  sd_bus *bus = nullptr;
  sd_id128_t id;
  int r = sd_id128_randomize(&id);
  if (r >= 0) r = sd_bus_new(&bus);
  if (r >= 0) r = sd_bus_set_fd(bus, in, out);
  if (r >= 0) r = sd_bus_set_server(bus, 1, id);
  if (r >= 0) r = sd_bus_set_anonymous(bus, 1);
  if (r >= 0) r = sd_bus_add_filter(bus, nullptr, take, data);
  if (r >= 0) r = sd_bus_start(bus);
  while (r >= 0) {
    r = sd_bus_process(bus, nullptr);
    if (r == 0) r = sd_bus_wait(bus, UINT64_MAX);
  }
  sd_bus_close_unref(bus);
}

#endif
