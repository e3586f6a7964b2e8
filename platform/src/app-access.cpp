/* Screen readers: the toolkit's accessibility is on where the session has it, from the start or once it comes, and
   costs nothing elsewhere. The framework starts it when the bus is there and nothing is drawn yet. */
#include "app-priv.h"
#include "bus-loop.h"
#include "dlog.h"

namespace {

constexpr char bus_name[] = "org.freedesktop.DBus";
constexpr char access_name[] = "org.a11y.Bus";
constexpr char match_access[] =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',interface='org.freedesktop.DBus',"
    "member='NameOwnerChanged',arg0='org.a11y.Bus'";

sd_bus_slot *owner_slot;
void (*told)(void);

/* Once on, it stays: what was named for a screen reader keeps its name. */
int owner_cb(sd_bus_message *m, void *data, sd_bus_error *unused) {
  const char *name = nullptr, *before = nullptr, *after = nullptr;
  if (sd_bus_message_read(m, "sss", &name, &before, &after) < 0 || !*after) return 0;
  app_access_stop();
  elm_config_atspi_mode_set(EINA_TRUE);
  told();
  return 0;
}

}  // namespace

void app_access_start(void (*late)(void)) {
  sd_bus *bus = bus_loop_session();
  if (!bus) return;
  told = late;
  sd_bus_message *answer = nullptr;
  int there = 0;
  if (sd_bus_call_method(bus, bus_name, "/org/freedesktop/DBus", bus_name, "NameHasOwner", nullptr, &answer, "s",
                         access_name) >= 0)
    sd_bus_message_read(answer, "b", &there);
  sd_bus_message_unref(answer);
  if (there)
    elm_config_atspi_mode_set(EINA_TRUE);
  else if (const int r = sd_bus_add_match_async(bus, &owner_slot, match_access, owner_cb, nullptr, nullptr); r < 0)
    __dlog_print(DLOG_WARN, app_log_tag, "a screen reader that comes later is not heard of: %d", r);
}

void app_access_stop(void) {
  owner_slot = sd_bus_slot_unref(owner_slot);
}
