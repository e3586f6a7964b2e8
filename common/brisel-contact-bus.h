/* How a mail's contacts travel on the bus: each as its type and its number. Needs sd-bus. */
#ifndef BRISEL_CONTACT_BUS_H
#define BRISEL_CONTACT_BUS_H

#include <systemd/sd-bus.h>

/* Reads them from the message; take(type, number) ends it by a negative error. The number is the message's own. Returns
   a negative error, or what is not one. */
template <typename F>
int bus_read_contacts(sd_bus_message *m, F &&take) {
  int r = sd_bus_message_enter_container(m, 'a', "(is)");
  while (r >= 0) {
    int type = 0;
    const char *number = nullptr;
    r = sd_bus_message_read(m, "(is)", &type, &number);
    if (r <= 0) break;
    r = take(type, number);
  }
  return r < 0 ? r : sd_bus_message_exit_container(m);
}

#endif
