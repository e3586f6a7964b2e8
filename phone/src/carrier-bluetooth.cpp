/*
 * The program behind a Bluetooth address. BlueZ makes the connection, over the system bus, and only to a device that
 * was paired with; encryption is the radio's. What is left for this program is to carry bytes between that connection
 * and its standard input and output, asleep while there are none.
 */
#include <fcntl.h>
#include <poll.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "bluez.h"
#include "brisel-bus.h"
#include "carrier.h"

namespace {

constexpr uint64_t kConnectUsec = 30000000;
constexpr int kProfileTries = 10, kProfilePauseMs = 300;
constexpr char kProfilePath[] = "/com/vextora/brisel/phone";

struct joining {
  int fd = -1; /* the connection, when it is there */
  bool released = false;
  std::string failed; /* why there will be none */
};

int complain(const std::string &text) {
  fprintf(stderr, "%s\n", text.c_str());
  return 1;
}

/* --- what BlueZ asks of a profile --- */

int new_connection_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  auto *j = static_cast<joining *>(user_data);
  const char *device = nullptr;
  int fd = -1;
  int r = sd_bus_message_read(m, "oh", &device, &fd);
  if (r < 0) return r;
  if (j->fd < 0) j->fd = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  if (j->fd < 0) return sd_bus_error_set(error, "org.bluez.Error.Rejected", "the connection cannot be taken");
  return sd_bus_reply_method_return(m, "");
}

int end_connection_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  static_cast<joining *>(user_data)->released = true;
  return sd_bus_reply_method_return(m, "");
}

const sd_bus_vtable profile_vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("NewConnection", "oha{sv}", "", new_connection_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("RequestDisconnection", "o", "", end_connection_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Release", "", "", end_connection_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int connected_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  if (const sd_bus_error *why = sd_bus_message_get_error(m))
    static_cast<joining *>(user_data)->failed = why->message && *why->message ? why->message : why->name;
  return 0;
}

/* BlueZ takes a profile from one program only. A command has it for a moment, which is waited for. */
int register_profile(sd_bus *bus, sd_bus_error *why) {
  int r = -1;
  for (int tries = 0; r < 0 && tries < kProfileTries; tries++) {
    if (tries > 0) poll(nullptr, 0, kProfilePauseMs);
    sd_bus_error_free(why);
    r = sd_bus_call_method(bus, bluez_name, "/org/bluez", "org.bluez.ProfileManager1", "RegisterProfile", why, nullptr,
                           "osa{sv}", kProfilePath, pair_profile, 3, "Name", "s", "Brisel", "Role", "s", "client",
                           "RequireAuthentication", "b", 1);
    if (!sd_bus_error_has_names(why, "org.bluez.Error.NotPermitted", "org.bluez.Error.AlreadyExists")) return r;
  }
  return r;
}

/* Waits for the connection. Returns 0, or -1 with j->failed set. */
int join(sd_bus *bus, const std::string &device, joining *j) {
  sd_bus_message *m = nullptr;
  int r = sd_bus_add_object_vtable(bus, nullptr, kProfilePath, "org.bluez.Profile1", profile_vtable, j);
  sd_bus_error why = SD_BUS_ERROR_NULL;
  if (r >= 0) r = register_profile(bus, &why);
  if (r < 0) {
    j->failed =
        std::string("the Bluetooth profile cannot be registered: ") + (why.message ? why.message : strerror(-r));
    sd_bus_error_free(&why);
    return -1;
  }
  r = sd_bus_message_new_method_call(bus, &m, bluez_name, device.c_str(), "org.bluez.Device1", "ConnectProfile");
  if (r >= 0) r = sd_bus_message_append(m, "s", pair_profile);
  if (r >= 0) r = sd_bus_call_async(bus, nullptr, m, connected_cb, j, kConnectUsec);
  sd_bus_message_unref(m);
  while (r >= 0 && j->fd < 0 && j->failed.empty()) {
    r = sd_bus_process(bus, nullptr);
    if (r == 0) r = sd_bus_wait(bus, kConnectUsec);
    if (r == 0) j->failed = "the watch does not answer over Bluetooth";
    if (r == -EINTR) r = 0;
  }
  if (r < 0) j->failed = std::string("Bluetooth: ") + strerror(-r);
  return j->fd >= 0 ? 0 : -1;
}

/* --- carrying --- */

/* What came from one side and the other has not taken yet. */
struct way {
  int from, to;
  std::array<char, 16384> bytes;
  size_t at = 0, end = 0;
};

/* Takes and gives what is possible now. Returns 0, or -1 when a side is gone. */
int carry(way *w) {
  if (w->at == w->end) {
    ssize_t n = read(w->from, w->bytes.data(), w->bytes.size());
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) return -1;
    if (n < 0) return 0;
    w->at = 0;
    w->end = static_cast<size_t>(n);
  }
  ssize_t n = write(w->to, w->bytes.data() + w->at, w->end - w->at);
  if (n < 0) return errno == EAGAIN || errno == EINTR ? 0 : -1;
  w->at += static_cast<size_t>(n);
  return 0;
}

void wants(const way &w, pollfd *from, pollfd *to) {
  if (w.at == w.end)
    from->events |= POLLIN;
  else
    to->events |= POLLOUT;
}

/* Until either side ends. The bus is listened to as well: BlueZ says when the profile must let go. */
void carry_on(sd_bus *bus, joining *j) {
  for (int fd : {0, 1, j->fd}) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  way out = {0, j->fd, {}}, in = {j->fd, 1, {}};
  while (!j->released) {
    while (sd_bus_process(bus, nullptr) > 0) {
    }
    pollfd fds[] = {{0, 0, 0}, {1, 0, 0}, {j->fd, 0, 0}, {sd_bus_get_fd(bus), POLLIN, 0}};
    wants(out, &fds[0], &fds[2]);
    wants(in, &fds[2], &fds[1]);
    if (poll(fds, 4, -1) < 0 && errno != EINTR) return;
    if (fds[3].revents & (POLLHUP | POLLERR)) return;
    if (carry(&out) < 0 || carry(&in) < 0) return;
  }
}

}  // namespace

int carrier_serve_bluetooth(const std::string &address) {
  sd_bus *bus = nullptr;
  int r = sd_bus_open_system(&bus);
  if (r < 0) return complain(std::string("the system bus, and Bluetooth with it, cannot be reached: ") + strerror(-r));
  std::string error;
  bluez_device device;
  joining j;
  int result = bluez_find(bus, address, &device, &error);
  if (result == 0 && !device.paired) {
    error = address + " is not paired with (brisel-phone pair bluetooth:" + address + ")";
    result = -1;
  }
  if (result == 0 && join(bus, device.path, &j) < 0) {
    error = j.failed;
    result = -1;
  }
  if (result == 0) carry_on(bus, &j);
  if (j.fd >= 0) close(j.fd);
  sd_bus_close_unref(bus);
  return result == 0 ? 0 : complain(error);
}
