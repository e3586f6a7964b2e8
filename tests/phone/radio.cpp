/* BlueZ as far as a program without a radio can stand for it, seen from the phone: devices, which it bonds with after
   the agent's yes, and whose profile is a gate behind a pair of sockets.
   usage: radio GATE BUS...; each session bus is a device's: 00:11:22:33:44:00, then ...:01 */
#include <sys/socket.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <string>

#include "bluez-profile.h"

namespace {

constexpr char kAdapter[] = "/org/bluez/hci0";

struct radio;
struct one_device {
  int trusted = 0; /* the first: where the property is */
  int paired = 0;
  radio *all = nullptr;
  const char *session = nullptr;
  std::string path, address;
};

struct radio {
  sd_bus *bus = nullptr;
  const char *gate = nullptr;
  std::string agent;
  bluez_profile profile;
  std::list<one_device> devices;
  one_device *pairing = nullptr;
  sd_bus_message *pairing_call = nullptr;
};

/* A plain handler: the library's own object manager would tell of nothing but what it holds itself. */
int objects_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *r = static_cast<radio *>(data);
  if (!sd_bus_message_is_method_call(m, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")) return 0;
  sd_bus_message *all = nullptr;
  sd_bus_message_new_method_return(m, &all);
  sd_bus_message_open_container(all, 'a', "{oa{sa{sv}}}");
  sd_bus_message_append(all, "{oa{sa{sv}}}", kAdapter, 1, "org.bluez.Adapter1", 1, "Address", "s", "FF:FF:FF:FF:FF:FF");
  for (const one_device &d : r->devices)
    sd_bus_message_append(all, "{oa{sa{sv}}}", d.path.c_str(), 1, "org.bluez.Device1", 4, "Address", "s",
                          d.address.c_str(), "Alias", "s", "Watch", "Adapter", "o", kAdapter, "Paired", "b", d.paired);
  sd_bus_message_close_container(all);
  int e = sd_bus_send(nullptr, all, nullptr);
  sd_bus_message_unref(all);
  return e < 0 ? e : 1;
}

int agent_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *r = static_cast<radio *>(data);
  const char *path = nullptr, *capability = nullptr;
  if (int e = sd_bus_message_read(m, "os", &path, &capability); e < 0) return e;
  r->agent = path;
  return sd_bus_reply_method_return(m, "");
}

int answered_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *r = static_cast<radio *>(data);
  r->pairing->paired = !sd_bus_message_is_method_error(m, nullptr);
  const sd_bus_error no = {"org.bluez.Error.AuthenticationRejected", "the codes differ", 0};
  int e = r->pairing->paired ? sd_bus_reply_method_return(r->pairing_call, "")
                             : sd_bus_reply_method_error(r->pairing_call, &no);
  r->pairing_call = sd_bus_message_unref(r->pairing_call);
  return e;
}

int pair_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *d = static_cast<one_device *>(data);
  radio *r = d->all;
  r->pairing = d;
  r->pairing_call = sd_bus_message_ref(m);
  int e = sd_bus_call_method_async(r->bus, nullptr, sd_bus_message_get_sender(m), r->agent.c_str(), "org.bluez.Agent1",
                                   "RequestConfirmation", answered_cb, r, "ou", d->path.c_str(), 123456u);
  return e < 0 ? e : 1;
}

int connect_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *d = static_cast<one_device *>(data);
  radio *r = d->all;
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) return -1;
  if (fork() == 0) {
    dup2(ends[1], 0);
    dup2(ends[1], 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", d->session, 1);
    execl(r->gate, "brisel-gate", nullptr);
    _exit(127);
  }
  close(ends[1]);
  int e =
      sd_bus_call_method_async(r->bus, nullptr, r->profile.owner.c_str(), r->profile.path.c_str(), "org.bluez.Profile1",
                               "NewConnection", nullptr, nullptr, "oha{sv}", d->path.c_str(), ends[0], 0);
  close(ends[0]);
  return e < 0 ? e : sd_bus_reply_method_return(m, "");
}

int remove_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  const char *path = nullptr;
  if (int e = sd_bus_message_read(m, "o", &path); e < 0) return e;
  for (one_device &d : static_cast<radio *>(data)->devices)
    if (d.path == path) d.paired = 0;
  return sd_bus_reply_method_return(m, "");
}

const sd_bus_vtable agents[] = {SD_BUS_VTABLE_START(0),
                                SD_BUS_METHOD("RegisterAgent", "os", "", agent_cb, SD_BUS_VTABLE_UNPRIVILEGED),
                                SD_BUS_VTABLE_END},
                    adapter[] = {SD_BUS_VTABLE_START(0),
                                 SD_BUS_METHOD("RemoveDevice", "o", "", remove_cb, SD_BUS_VTABLE_UNPRIVILEGED),
                                 SD_BUS_VTABLE_END},
                    device[] = {SD_BUS_VTABLE_START(0),
                                SD_BUS_METHOD("Pair", "", "", pair_cb, SD_BUS_VTABLE_UNPRIVILEGED),
                                SD_BUS_METHOD("ConnectProfile", "s", "", connect_cb, SD_BUS_VTABLE_UNPRIVILEGED),
                                SD_BUS_WRITABLE_PROPERTY("Trusted", "b", nullptr, nullptr, 0, 0), SD_BUS_VTABLE_END};

}  // namespace

int main(int argc, char **argv) {
  radio r;
  r.gate = argv[1];
  int e = sd_bus_open_system(&r.bus);
  if (e >= 0) e = sd_bus_add_object(r.bus, nullptr, "/", objects_cb, &r);
  if (e >= 0) e = sd_bus_add_object_vtable(r.bus, nullptr, "/org/bluez", "org.bluez.AgentManager1", agents, &r);
  if (e >= 0)
    e = sd_bus_add_object_vtable(r.bus, nullptr, "/org/bluez", "org.bluez.ProfileManager1", bluez_profiles, &r.profile);
  if (e >= 0) e = sd_bus_add_object_vtable(r.bus, nullptr, kAdapter, "org.bluez.Adapter1", adapter, &r);
  for (int n = 2; e >= 0 && n < argc; n++) {
    const std::string number = "0" + std::to_string(n - 2);
    r.devices.push_back({0, 0, &r, argv[n], kAdapter + ("/dev_" + number), "00:11:22:33:44:" + number});
    e = sd_bus_add_object_vtable(r.bus, nullptr, r.devices.back().path.c_str(), "org.bluez.Device1", device,
                                 &r.devices.back());
  }
  if (e >= 0) e = sd_bus_request_name(r.bus, "org.bluez", 0);
  while (e >= 0) {
    e = sd_bus_process(r.bus, nullptr);
    if (e == 0) e = sd_bus_wait(r.bus, UINT64_MAX);
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
  }
  return 1;
}
