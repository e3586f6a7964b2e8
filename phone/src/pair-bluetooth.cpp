/*
 * Pairing over Bluetooth is BlueZ's. This is what it asks people through: an agent on the terminal that shows the code,
 * or asks whether the watch shows the same one.
 */
#include <poll.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "bluez.h"
#include "pair.h"

namespace {

constexpr uint64_t kPairUsec = 90000000;
constexpr int kSearchMs = 30000, kLookMs = 1000;
constexpr char kAgentPath[] = "/com/vextora/brisel/agent", kAgentManager[] = "org.bluez.AgentManager1";

/* Whether the person says yes. */
bool agreed(const std::string &question) {
  fprintf(stderr, "%s [y/N] ", question.c_str());
  char answer[16] = "";
  return fgets(answer, sizeof answer, stdin) && (answer[0] == 'y' || answer[0] == 'Y');
}

int say_pin_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  const char *device = nullptr, *code = nullptr;
  int r = sd_bus_message_read(m, "os", &device, &code);
  if (r < 0) return r;
  fprintf(stderr, "Enter this code on the watch: %s\n", code);
  return sd_bus_reply_method_return(m, "");
}

int confirm_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  const char *device = nullptr;
  uint32_t code = 0;
  char question[80];
  int r = sd_bus_message_read(m, "ou", &device, &code);
  if (r < 0) return r;
  snprintf(question, sizeof question, "Does the watch show %06u?", code);
  if (agreed(question)) return sd_bus_reply_method_return(m, "");
  return sd_bus_error_set(error, "org.bluez.Error.Rejected", "the codes differ");
}

int allow_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  if (agreed("Pair with the watch?")) return sd_bus_reply_method_return(m, "");
  return sd_bus_error_set(error, "org.bluez.Error.Rejected", "refused");
}

int end_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  return sd_bus_reply_method_return(m, "");
}

/* DisplayPasskey comes with how many digits were typed; only the code matters. */
int passkey_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  const char *device = nullptr;
  uint32_t code = 0;
  uint16_t typed = 0;
  int r = sd_bus_message_read(m, "ouq", &device, &code, &typed);
  if (r < 0) return r;
  if (typed == 0) fprintf(stderr, "Enter this code on the watch: %06u\n", code);
  return sd_bus_reply_method_return(m, "");
}

const sd_bus_vtable agent_vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("DisplayPasskey", "ouq", "", passkey_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("DisplayPinCode", "os", "", say_pin_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("RequestConfirmation", "ou", "", confirm_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("RequestAuthorization", "o", "", allow_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Cancel", "", "", end_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Release", "", "", end_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

struct bus_holder {
  sd_bus *bus = nullptr;
  ~bus_holder() { sd_bus_flush_close_unref(bus); }
};

int open_bus(bus_holder *system, std::string *error) {
  int r = sd_bus_open_system(&system->bus);
  if (r >= 0) return 0;
  *error = std::string("the system bus, and Bluetooth with it, cannot be reached: ") + strerror(-r);
  return -1;
}

/* A call whose answer says nothing; while it lasts BlueZ asks the agent. Returns 0, or -1 with a reason. */
struct asked {
  bool done = false;
  std::string failed;
};

int asked_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  auto *a = static_cast<asked *>(user_data);
  const sd_bus_error *why = sd_bus_message_get_error(m);
  if (why) a->failed = why->message && *why->message ? why->message : why->name;
  a->done = true;
  return 0;
}

int pair_device(sd_bus *bus, const bluez_device &device, std::string *error) {
  asked a;
  sd_bus_message *m = nullptr;
  int r = sd_bus_message_new_method_call(bus, &m, bluez_name, device.path.c_str(), "org.bluez.Device1", "Pair");
  if (r >= 0) r = sd_bus_call_async(bus, nullptr, m, asked_cb, &a, kPairUsec);
  sd_bus_message_unref(m);
  while (r >= 0 && !a.done) {
    r = sd_bus_process(bus, nullptr);
    if (r == 0) r = sd_bus_wait(bus, UINT64_MAX);
    if (r == -EINTR) r = 0;
  }
  if (r >= 0 && a.failed.empty()) return 0;
  *error = "the watch was not paired with: " + (r < 0 ? std::string(strerror(-r)) : a.failed);
  return -1;
}

/* Looks for a device that was never seen, for a while. */
int search(sd_bus *bus, const std::string &address, bluez_device *device, std::string *error) {
  if (bluez_find(bus, address, device, error) == 0) return 0;
  std::string adapter;
  if (bluez_adapter(bus, &adapter, error) < 0) return -1;
  fprintf(stderr, "Looking for %s ...\n", address.c_str());
  sd_bus_call_method(bus, bluez_name, adapter.c_str(), "org.bluez.Adapter1", "StartDiscovery", nullptr, nullptr, "");
  int found = -1;
  for (int waited = 0; found < 0 && waited < kSearchMs; waited += kLookMs) {
    poll(nullptr, 0, kLookMs);
    found = bluez_find(bus, address, device, error);
  }
  sd_bus_call_method(bus, bluez_name, adapter.c_str(), "org.bluez.Adapter1", "StopDiscovery", nullptr, nullptr, "");
  return found;
}

}  // namespace

int pair_bluetooth_bond(const std::string &address, std::string *error) {
  bus_holder system;
  bluez_device device;
  if (open_bus(&system, error) < 0 || search(system.bus, address, &device, error) < 0) return -1;
  if (device.paired) return 0;
  sd_bus_error why = SD_BUS_ERROR_NULL;
  int r = sd_bus_add_object_vtable(system.bus, nullptr, kAgentPath, "org.bluez.Agent1", agent_vtable, nullptr);
  if (r >= 0)
    r = sd_bus_call_method(system.bus, bluez_name, "/org/bluez", kAgentManager, "RegisterAgent", &why, nullptr, "os",
                           kAgentPath, isatty(STDIN_FILENO) ? "DisplayYesNo" : "DisplayOnly");
  if (r < 0) *error = std::string("nobody can be asked for the code: ") + (why.message ? why.message : strerror(-r));
  sd_bus_error_free(&why);
  if (r < 0 || pair_device(system.bus, device, error) < 0) return -1;
  /* It may come back by itself. */
  r = sd_bus_set_property(system.bus, bluez_name, device.path.c_str(), "org.bluez.Device1", "Trusted", nullptr, "b", 1);
  if (r < 0) *error = std::string("the watch cannot be marked as trusted: ") + strerror(-r);
  return r < 0 ? -1 : 0;
}

int pair_bluetooth_forget(const std::string &address, std::string *error) {
  bus_holder system;
  bluez_device device;
  if (open_bus(&system, error) < 0) return -1;
  if (bluez_find(system.bus, address, &device, error) < 0) return -1;
  sd_bus_error why = SD_BUS_ERROR_NULL;
  int r = sd_bus_call_method(system.bus, bluez_name, device.adapter.c_str(), "org.bluez.Adapter1", "RemoveDevice", &why,
                             nullptr, "o", device.path.c_str());
  if (r < 0) *error = std::string("the bond cannot be removed: ") + (why.message ? why.message : strerror(-r));
  sd_bus_error_free(&why);
  return r < 0 ? -1 : 0;
}
