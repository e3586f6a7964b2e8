/* Hears what a screen reader would: hear ADDRESS EVENT... prints each event of the accessibility bus as "member detail
   value path", until it is ended. */
#include <systemd/sd-bus.h>

#include <cstdio>

static int event_cb(sd_bus_message *m, void *, sd_bus_error *) {
  const char *detail = "";
  int value = 0;
  if (sd_bus_message_read(m, "si", &detail, &value) < 0) return 0;
  printf("%s %s %d %s\n", sd_bus_message_get_member(m), detail, value, sd_bus_message_get_path(m));
  fflush(stdout);
  return 0;
}

int main(int argc, char **argv) {
  sd_bus *bus = nullptr;
  if (argc < 2 || sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, argv[1]) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
      sd_bus_start(bus) < 0 ||
      sd_bus_add_match(bus, nullptr, "type='signal',interface='org.a11y.atspi.Event.Object'", event_cb, nullptr) < 0)
    return 1;
  for (int i = 2; i < argc; i++)
    if (sd_bus_call_method(bus, "org.a11y.atspi.Registry", "/org/a11y/atspi/registry", "org.a11y.atspi.Registry",
                           "RegisterEvent", nullptr, nullptr, "s", argv[i]) < 0)
      return 1;
  puts("ready");
  fflush(stdout);
  while (sd_bus_process(bus, nullptr) > 0 || sd_bus_wait(bus, UINT64_MAX) >= 0) {
  }
  return 0;
}
