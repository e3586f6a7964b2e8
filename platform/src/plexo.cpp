#include "plexo.h"

#include "app-priv.h"
#include "bus-loop.h"
#include "dlog.h"

namespace {
int users;
}

int plexo_initialize(void) {
  if (users++ > 0) return 0;
  sd_bus *bus = bus_loop_session();
  if (!bus) return 0;
  /* Once the application is open, a desktop's note about new mail says nothing more. Told, not asked: nobody waits for
     the answer, and no notification service is started for it. */
  sd_bus_message *m = nullptr;
  int r = sd_bus_message_new_method_call(bus, &m, "org.gtk.Notifications", "/org/gtk/Notifications",
                                         "org.gtk.Notifications", "RemoveNotification");
  if (r >= 0) r = sd_bus_message_append(m, "ss", app_id(), "mail");
  if (r >= 0) r = sd_bus_message_set_auto_start(m, 0);
  if (r >= 0) r = sd_bus_message_set_expect_reply(m, 0);
  if (r >= 0) r = sd_bus_send(bus, m, nullptr);
  sd_bus_message_unref(m);
  if (r < 0) __dlog_print(DLOG_WARN, app_log_tag, "notifications cannot be withdrawn: %s", strerror(-r));
  return 0;
}

int plexo_finalize(void) {
  if (users == 0) return -1;
  users--;
  return 0;
}
