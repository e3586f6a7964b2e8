/* BlueZ as far as a program without a radio can stand for it, seen from the phone: devices, which it bonds with after
   the agent's yes, and whose profile is a gate behind a pair of sockets.
   usage: radio GATE BUS...; each session bus is a device's: 00:11:22:33:44:00, then ...:01 */
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <list>

#include "bluez-profile.h"

namespace {

constexpr char kAdapter[] = "/org/bluez/hci0";

struct radio;
struct one_device {
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

int tell_objects(radio *r, sd_bus_message *m) {
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

int take_agent(radio *r, sd_bus_message *m) {
  const char *path = nullptr;
  if (int e = sd_bus_message_read(m, "o", &path); e < 0) return e;
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

int pair_device(one_device *d, sd_bus_message *m) {
  radio *r = d->all;
  r->pairing = d;
  r->pairing_call = sd_bus_message_ref(m);
  int e = sd_bus_call_method_async(r->bus, nullptr, sd_bus_message_get_sender(m), r->agent.c_str(), "org.bluez.Agent1",
                                   "RequestConfirmation", answered_cb, r, "ou", d->path.c_str(), 123456u);
  return e < 0 ? e : 1;
}

int connect_device(one_device *d, sd_bus_message *m) {
  radio *r = d->all;
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) return -1;
  if (fork() == 0) {
    dup2(ends[1], 0);
    dup2(ends[1], 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", d->session, 1);
    execl(r->gate, "brisel-gate", "--no-timers", nullptr);
    _exit(127);
  }
  close(ends[1]);
  int e =
      sd_bus_call_method_async(r->bus, nullptr, r->profile.owner.c_str(), r->profile.path.c_str(), "org.bluez.Profile1",
                               "NewConnection", nullptr, nullptr, "oha{sv}", d->path.c_str(), ends[0], 0);
  close(ends[0]);
  return e < 0 ? e : sd_bus_reply_method_return(m, "");
}

int remove_device(radio *r, sd_bus_message *m) {
  const char *path = nullptr;
  if (int e = sd_bus_message_read(m, "o", &path); e < 0) return e;
  for (one_device &d : r->devices)
    if (d.path == path) d.paired = 0;
  return sd_bus_reply_method_return(m, "");
}

/* A plain handler: the library's own object manager would tell of nothing but what it holds itself. */
int call_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *r = static_cast<radio *>(data);
  const char *member = sd_bus_message_get_member(m), *path = sd_bus_message_get_path(m);
  if (sd_bus_message_is_method_call(m, nullptr, nullptr) <= 0) return 0;
  const std::string called = member;
  if (called == "GetManagedObjects") return tell_objects(r, m);
  if (called == "RegisterAgent") return take_agent(r, m);
  if (called == "RegisterProfile") return bluez_register_cb(m, &r->profile, error);
  if (called == "RemoveDevice") return remove_device(r, m);
  if (called == "Set") return sd_bus_reply_method_return(m, "");
  for (one_device &d : r->devices)
    if (d.path == path)
      return called == "Pair" ? pair_device(&d, m) : called == "ConnectProfile" ? connect_device(&d, m) : 0;
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  radio r;
  r.gate = argv[1];
  int e = sd_bus_open_system(&r.bus);
  if (e >= 0) e = sd_bus_add_filter(r.bus, nullptr, call_cb, &r);
  for (int n = 2; n < argc; n++) {
    const std::string number = "0" + std::to_string(n - 2);
    r.devices.push_back({0, &r, argv[n], kAdapter + ("/dev_" + number), "00:11:22:33:44:" + number});
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
