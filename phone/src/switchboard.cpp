#include "switchboard.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <list>

#include "bluez.h"
#include "local-socket.h"
#include "state.h"

namespace {

constexpr char kSocket[] = "bluetooth.socket", kLock[] = "bluetooth.lock", kProfilePath[] = "/com/vextora/brisel/phone";
constexpr uint64_t kConnectUsec = 30000000, kLingerUsec = 5000000, kProfilePauseUsec = 300000;
constexpr int kProfileTries = 10; /* while another program has the profile */
constexpr char kTaken[] = "another program of this phone has the connection to it";
constexpr size_t kCallersMax = 16, kAddressMax = 64, kReasonMax = 1024;

/* A process that wants a connection, or has it. */
struct caller {
  struct switchboard *board = nullptr;
  int fd = -1;
  std::string device; /* its path at BlueZ; empty: nothing was asked for yet */
  bool joined = false;
  sd_bus_slot *connecting = nullptr;
  sd_event_source *source = nullptr;
  caller() = default;
  ~caller() {
    sd_bus_slot_unref(connecting);
    sd_event_source_disable_unref(source);
    if (fd >= 0) close(fd);
  }
  caller(const caller &) = delete;
  caller &operator=(const caller &) = delete;
};

enum class profile_is { nowhere, asked_for, taken };

struct switchboard {
  sd_bus *bus = nullptr;
  sd_event *event = nullptr;
  sd_event_source *timer = nullptr; /* to the end when nobody is there, else to the next try to get the profile */
  std::list<caller> callers;
  profile_is profile = profile_is::nowhere;
  int tries = 0;
  std::string failed; /* why there is no Bluetooth at all */
};

/* --- who calls --- */

int timer_cb(sd_event_source *source, uint64_t usec, void *user_data);

void set_timer(switchboard *b, uint64_t delay) {
  b->timer = sd_event_source_disable_unref(b->timer);
  sd_event_add_time_relative(b->event, &b->timer, CLOCK_BOOTTIME, delay, 0, timer_cb, b);
}

void drop(caller *one) {
  switchboard *b = one->board;
  b->callers.remove_if([one](const caller &c) { return &c == one; });
  if (b->callers.empty()) set_timer(b, kLingerUsec);
}

/* The answer: a connection, or a reason. */
void answer(caller *one, const std::string &reason, int line = -1) {
  const std::string text = reason.empty() ? " " : reason.substr(0, kReasonMax);
  iovec part = {const_cast<char *>(text.data()), text.size()};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof line)> room = {};
  msghdr m = {};
  m.msg_iov = &part;
  m.msg_iovlen = 1;
  if (line >= 0) {
    m.msg_control = room.data();
    m.msg_controllen = room.size();
    cmsghdr *c = CMSG_FIRSTHDR(&m);
    *c = {CMSG_LEN(sizeof line), SOL_SOCKET, SCM_RIGHTS};
    memcpy(CMSG_DATA(c), &line, sizeof line);
  }
  one->joined = sendmsg(one->fd, &m, MSG_NOSIGNAL | MSG_DONTWAIT) > 0 && line >= 0;
  if (!one->joined) drop(one);
}

caller *find(switchboard *b, const std::string &device) {
  for (caller &one : b->callers)
    if (one.device == device) return &one;
  return nullptr;
}

/* --- what is asked of BlueZ --- */

int connected_cb(sd_bus_message *m, void *user_data, sd_bus_error *ignored) {
  auto *one = static_cast<caller *>(user_data);
  one->connecting = sd_bus_slot_unref(one->connecting);
  if (const sd_bus_error *why = sd_bus_message_get_error(m); why && !one->joined)
    answer(one, why->message && *why->message ? why->message : why->name);
  return 0;
}

void connect_device(caller *one) {
  sd_bus_message *m = nullptr;
  int r = sd_bus_message_new_method_call(one->board->bus, &m, bluez_name, one->device.c_str(), "org.bluez.Device1",
                                         "ConnectProfile");
  if (r >= 0) r = sd_bus_message_append(m, "s", pair_profile);
  if (r >= 0) r = sd_bus_call_async(one->board->bus, &one->connecting, m, connected_cb, one, kConnectUsec);
  sd_bus_message_unref(m);
  if (r < 0) answer(one, std::string("Bluetooth: ") + strerror(-r));
}

/* For each that waits for it; it may leave meanwhile. */
void profile_settled(switchboard *b, const std::string &trouble) {
  for (auto next = b->callers.begin(); next != b->callers.end();) {
    caller *one = &*next++;
    if (one->device.empty() || one->connecting || one->joined) continue;
    if (trouble.empty())
      connect_device(one);
    else
      answer(one, "the Bluetooth profile cannot be registered: " + trouble);
  }
}

/* Another user of this machine may have it, or a switchboard that has just ended. */
int registered_cb(sd_bus_message *m, void *user_data, sd_bus_error *ignored) {
  auto *b = static_cast<switchboard *>(user_data);
  const sd_bus_error *why = sd_bus_message_get_error(m);
  b->profile = why ? profile_is::nowhere : profile_is::taken;
  if (why && sd_bus_error_has_names(why, "org.bluez.Error.NotPermitted", "org.bluez.Error.AlreadyExists") &&
      ++b->tries < kProfileTries)
    set_timer(b, kProfilePauseUsec);
  else
    profile_settled(b, !why ? "" : why->message && *why->message ? why->message : why->name);
  return 0;
}

void want_profile(switchboard *b) {
  if (b->profile != profile_is::nowhere) return;
  int r = bluez_register_profile(b->bus, kProfilePath, false, registered_cb, b);
  if (r < 0)
    profile_settled(b, strerror(-r));
  else
    b->profile = profile_is::asked_for;
}

int timer_cb(sd_event_source *source, uint64_t usec, void *user_data) {
  auto *b = static_cast<switchboard *>(user_data);
  if (b->callers.empty()) return sd_event_exit(b->event, 0);
  want_profile(b);
  return 0;
}

/* --- what BlueZ asks of a profile --- */

int new_connection_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  const char *device = nullptr;
  int fd = -1;
  int r = sd_bus_message_read(m, "oh", &device, &fd);
  if (r < 0) return r;
  caller *one = find(static_cast<switchboard *>(user_data), device);
  if (!one || one->joined) return sd_bus_error_set(error, bluez_rejected, "nobody here asked for it");
  answer(one, "", fd);
  return sd_bus_reply_method_return(m, "");
}

int end_connection_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  const char *device = nullptr;
  int r = sd_bus_message_read(m, "o", &device);
  if (r < 0) return r;
  if (caller *one = find(static_cast<switchboard *>(user_data), device)) drop(one);
  return sd_bus_reply_method_return(m, "");
}

int release_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  sd_event_exit(static_cast<switchboard *>(user_data)->event, 0);
  return sd_bus_reply_method_return(m, "");
}

/* Another BlueZ knows nothing of the profile, nor of the connections: they are all made anew. */
int bluez_came_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  const char *before = nullptr;
  if (sd_bus_message_read(m, "sss", nullptr, &before, nullptr) >= 0 && *before)
    sd_event_exit(static_cast<switchboard *>(user_data)->event, 0);
  return 0;
}

/* --- calls --- */

/* Whoever left without being noticed yet does not keep the next one out. */
bool is_taken(switchboard *b, const std::string &device) {
  char byte;
  caller *one = find(b, device);
  if (one && recv(one->fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0) drop(one);
  return find(b, device);
}

void take_call(caller *one, const std::string &address) {
  switchboard *b = one->board;
  bluez_device device;
  std::string error = b->failed;
  if (error.empty() && bluez_find(b->bus, address, &device, &error) == 0) {
    if (!device.paired) error = address + " is not paired with (brisel-phone pair bluetooth:" + address + ")";
    if (device.paired && is_taken(b, device.path)) error = kTaken;
  }
  if (!error.empty()) return answer(one, error);
  one->device = device.path;
  if (b->profile == profile_is::taken) return connect_device(one);
  b->tries = 0;
  want_profile(b);
}

int caller_cb(sd_event_source *source, int fd, uint32_t revents, void *user_data) {
  auto *one = static_cast<caller *>(user_data);
  std::array<char, kAddressMax> text;
  ssize_t size = recv(fd, text.data(), text.size(), MSG_DONTWAIT);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return 0;
  if (size <= 0)
    drop(one);
  else if (one->device.empty())
    take_call(one, std::string(text.data(), static_cast<size_t>(size)));
  return 0;
}

int came_cb(sd_event_source *source, int fd, uint32_t revents, void *user_data) {
  auto *b = static_cast<switchboard *>(user_data);
  int came = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (came < 0) return 0;
  caller *one = &b->callers.emplace_back();
  one->board = b;
  one->fd = came;
  if (b->callers.size() > kCallersMax || sd_event_add_io(b->event, &one->source, came, EPOLLIN, caller_cb, one) < 0)
    drop(one);
  return 0;
}

/* --- the process --- */

int reach_bus(switchboard *b) {
  int r = sd_bus_open_system(&b->bus);
  if (r >= 0) r = sd_bus_set_exit_on_disconnect(b->bus, 1);
  if (r >= 0)
    r = bluez_serve_profile(b->bus, kProfilePath, bluez_profile<new_connection_cb, end_connection_cb, release_cb>,
                            bluez_came_cb, b);
  return r < 0 ? r : sd_bus_attach_event(b->bus, b->event, SD_EVENT_PRIORITY_NORMAL);
}

/* Nothing of whoever started it is kept: neither its streams, nor its end. */
[[noreturn]] void run(int listener) {
  setsid();
  prctl(PR_SET_NAME, "brisel-bluez");
  int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (int fd : {0, 1, 2})
    if (dup2(nothing, fd) < 0) _exit(1);
  switchboard board;
  if (sd_event_new(&board.event) < 0 || sd_event_add_io(board.event, nullptr, listener, EPOLLIN, came_cb, &board) < 0)
    _exit(1);
  if (int r = reach_bus(&board); r < 0)
    board.failed = std::string("the system bus, and Bluetooth with it, cannot be reached: ") + strerror(-r);
  set_timer(&board, kLingerUsec);
  sd_event_loop(board.event);
  _exit(0);
}

void start(const std::string &folder) {
  if (folder.empty()) return;
  int lock = open((folder + "/" + kLock).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  int listener = lock >= 0 && flock(lock, LOCK_EX | LOCK_NB) == 0 ? local_listen(folder, kSocket, SOCK_SEQPACKET) : -1;
  if (listener >= 0 && fork() == 0) run(listener); /* the lock is its own from now on */
  if (listener >= 0) close(listener);
  if (lock >= 0) close(lock);
}

/* Waits for the answer: 1, or 0 when the switchboard ended without one. */
int hear(int call, int *line, std::string *error) {
  std::array<char, kReasonMax> text;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof *line)> room = {};
  iovec part = {text.data(), text.size()};
  msghdr m = {};
  m.msg_iov = &part;
  m.msg_iovlen = 1;
  m.msg_control = room.data();
  m.msg_controllen = room.size();
  pollfd wait = {call, POLLIN, 0};
  while (poll(&wait, 1, -1) < 0 && errno == EINTR) {
  }
  ssize_t size = recvmsg(call, &m, MSG_CMSG_CLOEXEC);
  if (size <= 0) return 0;
  error->clear();
  cmsghdr *c = CMSG_FIRSTHDR(&m);
  if (c && c->cmsg_type == SCM_RIGHTS && c->cmsg_len == CMSG_LEN(sizeof *line))
    memcpy(line, CMSG_DATA(c), sizeof *line);
  else
    error->assign(text.data(), static_cast<size_t>(size));
  return 1;
}

}  // namespace

int switchboard_connect(const std::string &address, int *line, int *call, std::string *error) {
  constexpr int tries = 30, pause_ms = 100;
  const std::string folder = phone_base_path("");
  *error = "the phone's other processes cannot be reached for Bluetooth";
  *line = -1;
  /* One that is just ending answers nobody: there is another one a moment later. And a command has its connection for a
     moment only. */
  for (int n = 0; n < tries; n++) {
    *call = local_connect(folder, kSocket, SOCK_SEQPACKET);
    if (*call < 0) start(folder);
    if (*call < 0) *call = local_connect(folder, kSocket, SOCK_SEQPACKET);
    bool asked = *call >= 0 && send(*call, address.data(), address.size(), MSG_NOSIGNAL) > 0;
    if (asked && hear(*call, line, error) > 0 && *error != kTaken) break;
    if (*call >= 0) close(*call);
    *call = -1;
    poll(nullptr, 0, pause_ms);
  }
  if (*line >= 0) return 0;
  if (*call >= 0) close(*call);
  *call = -1;
  return -1;
}
