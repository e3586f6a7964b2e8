/* Screen readers: the toolkit's accessibility is on where the session has it, and costs nothing elsewhere. The
   framework calls it once, when the bus is there and nothing is drawn yet. */
#include "app-priv.h"
#include "bus-loop.h"

namespace {

constexpr char bus_name[] = "org.freedesktop.DBus";
constexpr char access_name[] = "org.a11y.Bus";

}  // namespace

void app_access_start(void) {
  sd_bus *bus = bus_loop_session();
  if (!bus) return;
  sd_bus_message *answer = nullptr;
  int there = 0;
  if (sd_bus_call_method(bus, bus_name, "/org/freedesktop/DBus", bus_name, "NameHasOwner", nullptr, &answer, "s",
                         access_name) >= 0)
    sd_bus_message_read(answer, "b", &there);
  sd_bus_message_unref(answer);
  if (there) elm_config_atspi_mode_set(EINA_TRUE);
}
