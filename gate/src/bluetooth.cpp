/* The Bluetooth profile: BlueZ listens, encrypts and knows who is bonded; what comes of it is a stream for a gate, in a
   process of its own. Nothing here reads what a phone sends. */
#include "bluetooth.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "brisel-bluez.h"
#include "platform-stop.h"

extern char **environ;

namespace {

constexpr char profile_path[] = "/com/vextora/brisel/profile";
constexpr unsigned phones_max = 8, streams_max = 2; /* of one device: that which comes, and that which is to end */

/* A phone whose gate runs, or whose bond is being looked at. */
struct phone {
  struct server *all = nullptr;
  std::string device;             /* its path at BlueZ; empty: a free place */
  sd_bus_message *call = nullptr; /* NewConnection, until it is answered */
  int fd = -1;
  pid_t pid = 0;
  sd_event_source *child = nullptr;
};

struct server {
  sd_bus *bus = nullptr;
  sd_event *event = nullptr;
  phone phones[phones_max];
};

void free_place(phone *p) {
  if (p->fd >= 0) close(p->fd);
  sd_bus_message_unref(p->call);
  sd_event_source_disable_unref(p->child);
  server *all = p->all;
  *p = phone();
  p->all = all;
}

int ended_cb(sd_event_source *source, const siginfo_t *info, void *data) {
  free_place(static_cast<phone *>(data));
  return 0;
}

/* The controller watches the link: the gate needs no timers. */
int start_gate(phone *p) {
  char program[] = "brisel-gate", option[] = "--no-timers";
  std::string phone = "--phone=" + p->device;
  char *arguments[] = {program, option, phone.data(), nullptr};
  posix_spawn_file_actions_t files;
  posix_spawnattr_t how;
  sigset_t none;
  sigemptyset(&none);
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_adddup2(&files, p->fd, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&files, p->fd, STDOUT_FILENO);
  posix_spawnattr_init(&how);
  posix_spawnattr_setflags(&how, POSIX_SPAWN_SETSIGMASK);
  posix_spawnattr_setsigmask(&how, &none);
  int r = -posix_spawn(&p->pid, "/proc/self/exe", &files, &how, arguments, environ);
  posix_spawn_file_actions_destroy(&files);
  posix_spawnattr_destroy(&how);
  if (r >= 0) r = sd_event_add_child(p->all->event, &p->child, p->pid, WEXITED, ended_cb, p);
  close(p->fd);
  p->fd = -1;
  return r;
}

void reject(phone *p, const char *why) {
  const sd_bus_error error = {bluez_rejected, why, 0};
  fprintf(stderr, "brisel-gate: %s is refused: %s\n", p->device.c_str(), why);
  sd_bus_reply_method_error(p->call, &error);
  free_place(p);
}

int bond_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *p = static_cast<phone *>(data);
  int paired = 0;
  if (sd_bus_message_is_method_error(m, nullptr) || sd_bus_message_read(m, "v", "b", &paired) < 0 || !paired) {
    reject(p, "it is not paired");
    return 0;
  }
  if (start_gate(p) < 0) {
    reject(p, "no gate can be started");
    return 0;
  }
  sd_bus_reply_method_return(p->call, "");
  p->call = sd_bus_message_unref(p->call);
  return 0;
}

int new_connection(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *all = static_cast<server *>(data);
  const char *device = nullptr;
  int fd = -1;
  const int r = sd_bus_message_read(m, "oh", &device, &fd);
  if (r < 0) return r;
  phone *free_one = nullptr;
  unsigned streams = 0;
  for (phone &one : all->phones) {
    if (one.device.empty()) free_one = &one;
    if (one.device != device) continue;
    streams++;
    if (one.pid > 0) kill(one.pid, SIGTERM);
  }
  if (!free_one || streams >= streams_max) return sd_bus_error_set(error, bluez_rejected, "too many streams at once");
  free_one->device = device;
  free_one->fd = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  free_one->call = sd_bus_message_ref(m);
  if (free_one->fd < 0 ||
      sd_bus_call_method_async(all->bus, nullptr, bluez_name, device, "org.freedesktop.DBus.Properties", "Get", bond_cb,
                               free_one, "ss", "org.bluez.Device1", "Paired") < 0)
    reject(free_one, "its bond cannot be looked at");
  return 1;
}

int request_disconnection(sd_bus_message *m, void *data, sd_bus_error *error) {
  const char *device = nullptr;
  const int r = sd_bus_message_read(m, "o", &device);
  if (r < 0) return r;
  for (const phone &one : static_cast<server *>(data)->phones)
    if (one.device == device && one.pid > 0) kill(one.pid, SIGTERM);
  return sd_bus_reply_method_return(m, "");
}

int release(sd_bus_message *m, void *data, sd_bus_error *error) {
  return sd_bus_reply_method_return(m, "");
}

int registered_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  const sd_bus_error *why = sd_bus_message_get_error(m);
  if (why && why->name && !strstr(why->name, "ServiceUnknown") && !strstr(why->name, "NameHasNoOwner"))
    fprintf(stderr, "brisel-gate: the Bluetooth profile is not taken: %s\n", why->message ? why->message : why->name);
  return 0;
}

/* Without BlueZ there, nothing happens until it comes. */
int register_profile(server *all) {
  return bluez_register_profile(all->bus, profile_path, true, registered_cb, all);
}

int bluez_came_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  const char *now = nullptr;
  if (sd_bus_message_read(m, "sss", nullptr, nullptr, &now) >= 0 && *now) register_profile(static_cast<server *>(data));
  return 0;
}

int stopped_cb(sd_event_source *source, int fd, uint32_t revents, void *data) {
  return sd_event_exit(sd_event_source_get_event(source), 0);
}

int set_up(server *all) {
  for (phone &one : all->phones) one.all = all;
  int r = sd_event_default(&all->event);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGCHLD);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  const int stop = platform_stop_open(); /* a bus may be waited for that does not answer */
  if (r >= 0) r = stop < 0 ? -errno : sd_event_add_io(all->event, nullptr, stop, EPOLLIN, stopped_cb, nullptr);
  if (r >= 0) r = sd_bus_open_system(&all->bus);
  if (r >= 0) r = sd_bus_set_exit_on_disconnect(all->bus, 1);
  if (r >= 0)
    r = bluez_serve_profile(all->bus, profile_path, bluez_profile<new_connection, request_disconnection, release>,
                            bluez_came_cb, all);
  if (r >= 0) r = register_profile(all);
  if (r >= 0) r = sd_bus_attach_event(all->bus, all->event, SD_EVENT_PRIORITY_NORMAL);
  return r;
}

}  // namespace

int bluetooth_run(void) {
  static server all;
  int r = set_up(&all);
  if (r >= 0) r = sd_event_loop(all.event);
  for (const phone &one : all.phones)
    if (one.pid > 0) kill(one.pid, SIGTERM);
  if (r >= 0) return 0;
  fprintf(stderr, "brisel-gate: the system's bus cannot be used: %s\n", strerror(-r));
  return 1;
}
