#include "plexo.h"

#include "app-priv.h"
#include "brisel-bus.h"
#include "bus-loop.h"
#include "dlog.h"

namespace {

constexpr char match_owner[] =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',interface='org.freedesktop.DBus',"
    "member='NameOwnerChanged',arg0='com.vextora.brisel.Host'";

int users;
int viewed_account = -1;
sd_bus_slot *owner_slot;

/* Told, not asked: nobody waits for the answer, and no service is started for it. */
void tell(void) {
  sd_bus *bus = bus_loop_session();
  if (!bus) return;
  sd_bus_message *m = nullptr;
  int r = sd_bus_message_new_method_call(bus, &m, host_name, host_path, watch_interface, "ListInView");
  if (r >= 0) r = sd_bus_message_append(m, "i", viewed_account);
  if (r >= 0) r = sd_bus_message_set_auto_start(m, 0);
  if (r >= 0) r = sd_bus_message_set_expect_reply(m, 0);
  if (r >= 0) r = sd_bus_send(bus, m, nullptr);
  sd_bus_message_unref(m);
  if (r < 0) __dlog_print(DLOG_WARN, app_log_tag, "the list in view cannot be told: %s", strerror(-r));
}

/* A service that has just come knows nothing yet. */
int owner_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  const char *name, *before, *after = "";
  if (sd_bus_message_read(m, "sss", &name, &before, &after) >= 0 && *after && viewed_account >= 0) tell();
  return 0;
}

void follow_service(void) {
  sd_bus *bus = owner_slot ? nullptr : bus_loop_session();
  if (!bus) return;
  const int r = sd_bus_add_match_async(bus, &owner_slot, match_owner, owner_cb, nullptr, nullptr);
  if (r < 0) __dlog_print(DLOG_WARN, app_log_tag, "the service's coming is not heard: %s", strerror(-r));
}

void bus_watch_cb(bool connected, void *data) {
  if (!connected) {
    owner_slot = sd_bus_slot_unref(owner_slot);
    return;
  }
  follow_service();
  if (viewed_account >= 0) tell();
}

}  // namespace

int plexo_initialize(void) {
  if (users++ > 0) return 0;
  bus_loop_watch_add(bus_watch_cb, nullptr);
  follow_service();
  return 0;
}

int plexo_finalize(void) {
  if (users == 0) return -1;
  if (--users > 0) return 0;
  plexo_list_in_view(-1);
  bus_loop_watch_del(bus_watch_cb, nullptr);
  owner_slot = sd_bus_slot_unref(owner_slot);
  return 0;
}

void plexo_list_in_view(int account_id) {
  if (account_id == viewed_account) return;
  viewed_account = account_id;
  tell();
}
