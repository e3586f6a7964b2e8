#include "host-launch.h"

#include <systemd/sd-id128.h>

#include "app-priv.h"
#include "brisel-bus.h"
#include "bus-loop.h"
#include "dlog.h"

namespace {

int answer_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  const sd_bus_error *failed = sd_bus_message_get_error(m);
  if (failed)
    __dlog_print(DLOG_ERROR, app_log_tag, "the phone was not asked to show: %s",
                 failed->message ? failed->message : failed->name);
  return 0;
}

}  // namespace

int launch_host_predefined_application(const char *kind, const int *ids, int count) {
  if (!kind || !app_is_text(kind) || count < 0 || (count > 0 && !ids)) return -1;
  sd_bus *bus = bus_loop_session();
  sd_id128_t uid;
  if (!bus || sd_id128_randomize(&uid) < 0) return -1;
  char uid_text[SD_ID128_STRING_MAX];
  sd_bus_message *m = nullptr;
  int r = sd_bus_message_new_method_call(bus, &m, host_name, host_path, watch_interface, "Show");
  if (r >= 0) r = sd_bus_message_append(m, "ss", sd_id128_to_string(uid, uid_text), kind);
  if (r >= 0) r = sd_bus_message_append_array(m, 'i', ids, static_cast<size_t>(count) * sizeof(int));
  if (r >= 0) r = sd_bus_call_async(bus, nullptr, m, answer_cb, nullptr, 0);
  sd_bus_message_unref(m);
  if (r < 0) __dlog_print(DLOG_ERROR, app_log_tag, "the phone cannot be asked to show: %s", strerror(-r));
  return r < 0 ? -1 : 0;
}
