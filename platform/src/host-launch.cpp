#include "host-launch.h"

#include <systemd/sd-id128.h>

#include <algorithm>
#include <utility>
#include <vector>

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

int said_id, said_position; /* launch_host_set_position(); 0: nothing */

/* Of each mail; empty: of none. */
std::vector<int> take_positions(const int *ids, int count) {
  const int id = std::exchange(said_id, 0), *end = ids + count, *at = id ? std::find(ids, end, id) : end;
  std::vector<int> positions(at == end ? 0 : static_cast<size_t>(count));
  if (at != end) positions[static_cast<size_t>(at - ids)] = said_position;
  return positions;
}

int append_array(sd_bus_message *m, const int *numbers, size_t count) {
  return sd_bus_message_append_array(m, 'i', numbers, count * sizeof(int));
}

}  // namespace

void launch_host_set_position(int mail_id, int position) {
  said_id = position > 0 ? mail_id : 0;
  said_position = position;
}

int launch_host_predefined_application(const char *kind, const int *ids, int count) {
  if (!kind || !app_is_text(kind) || count < 0 || (count > 0 && !ids)) return -1;
  const std::vector<int> positions = take_positions(ids, count);
  sd_bus *bus = bus_loop_session();
  sd_id128_t uid;
  if (!bus || sd_id128_randomize(&uid) < 0) return -1;
  char uid_text[SD_ID128_STRING_MAX];
  sd_bus_message *m = nullptr;
  int r = sd_bus_message_new_method_call(bus, &m, host_name, host_path, watch_interface,
                                         positions.empty() ? "Show" : "ShowAt");
  if (r >= 0) r = sd_bus_message_append(m, "ss", sd_id128_to_string(uid, uid_text), kind);
  if (r >= 0) r = append_array(m, ids, static_cast<size_t>(count));
  if (r >= 0 && !positions.empty()) r = append_array(m, positions.data(), positions.size());
  if (r >= 0) r = sd_bus_call_async(bus, nullptr, m, answer_cb, nullptr, 0);
  sd_bus_message_unref(m);
  if (r < 0) __dlog_print(DLOG_ERROR, app_log_tag, "the phone cannot be asked to show: %s", strerror(-r));
  return r < 0 ? -1 : 0;
}
