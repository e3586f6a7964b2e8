/* The phone's end: what it may say, and what is said to it. */
#include <cstring>

#include "brisel-bus.h"
#include "gate.h"

namespace {

struct said {
  const char *name;
  const char *types;
};
#include "phone-table.h"

const said *find(const said *table, size_t count, const char *name) {
  for (size_t i = 0; i < count; i++)
    if (name && !strcmp(table[i].name, name)) return &table[i];
  return nullptr;
}

bool same(const char *text, const char *wanted) {
  return text && !strcmp(text, wanted);
}

int refuse(sd_bus_message *m, const char *name, const char *text) {
  const sd_bus_error error = {name, text, 0};
  return sd_bus_reply_method_error(m, &error);
}

int answer_call(gate *g, sd_bus_message *m) {
  const char *to = sd_bus_message_get_destination(m), *interface = sd_bus_message_get_interface(m);
  if (to && strcmp(to, host_name) != 0) return refuse(m, SD_BUS_ERROR_ACCESS_DENIED, "no one else can be reached here");
  if (same(interface, "org.freedesktop.DBus.Peer") && same(sd_bus_message_get_member(m), "Ping"))
    return sd_bus_reply_method_return(m, "");
  if (!same(sd_bus_message_get_path(m), host_path) || !same(interface, phone_interface))
    return refuse(m, SD_BUS_ERROR_ACCESS_DENIED, "a phone can call com.vextora.brisel.Phone1 only");
  const said *method = find(phone_methods, sizeof phone_methods / sizeof *phone_methods, sd_bus_message_get_member(m));
  if (!method) return refuse(m, SD_BUS_ERROR_UNKNOWN_METHOD, "there is no such method");
  if (!sd_bus_message_has_signature(m, method->types))
    return refuse(m, SD_BUS_ERROR_INVALID_ARGS, "the method takes other arguments");
  /* Arguments that are not what they claim to be are found when they are copied. */
  return host_ask(g, m) < 0 ? refuse(m, SD_BUS_ERROR_INVALID_ARGS, "the call cannot be passed on") : 0;
}

/* Sees everything before sd-bus's own answers would: none of those is for a phone. */
int from_phone_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *g = static_cast<gate *>(data);
  uint8_t type = 0;
  sd_bus_message_get_type(m, &type);
  if (type != SD_BUS_MESSAGE_METHOD_CALL) return 1; /* nobody asked it anything, and nobody listens to it */
  const int r = answer_call(g, m);
  return r < 0 ? r : 1;
}

}  // namespace

int phone_start(gate *g, int fd) {
  sd_id128_t id;
  int r = sd_id128_randomize(&id);
  if (r >= 0) r = sd_bus_new(&g->phone);
  if (r >= 0) r = sd_bus_set_fd(g->phone, fd, fd);
  if (r >= 0) r = sd_bus_set_server(g->phone, 1, id);
  if (r >= 0) r = sd_bus_set_anonymous(g->phone, 1);
  if (r >= 0) r = sd_bus_negotiate_fds(g->phone, 0);
  if (r >= 0) r = sd_bus_add_filter(g->phone, nullptr, from_phone_cb, g);
  return r >= 0 ? sd_bus_start(g->phone) : r;
}

int phone_tell(gate *g, sd_bus_message *signal) {
  const char *name = sd_bus_message_get_member(signal);
  const said *known = find(phone_signals, sizeof phone_signals / sizeof *phone_signals, name);
  if (!known || !sd_bus_message_has_signature(signal, known->types)) return 0;
  sd_bus_message *m = nullptr;
  int r = sd_bus_message_new_signal(g->phone, &m, host_path, phone_interface, name);
  if (r >= 0) r = sd_bus_message_copy(m, signal, 1);
  if (r >= 0) r = sd_bus_send(g->phone, m, nullptr);
  sd_bus_message_unref(m);
  if (r < 0) return r;
  if (!strcmp(name, "Replaced"))
    gate_end(g, nullptr);
  else if (!strcmp(name, "Free"))
    return 0;
  else if (g->asked == 0)
    g->asked = gate_now();
  return 0;
}
