/* The connection itself: made, lost, made again, and ended. */
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "link-parts.h"

namespace {

constexpr uint64_t kSecond = 1000000, kShortestDelay = kSecond / 4, kLongestDelay = 60 * kSecond;
constexpr suseconds_t kGraceMicroseconds = 800000;

/* --- the end --- */

int stop_fd = -1;
pid_t stop_pid = 0;

/* The loop ends by itself when it gets to it; when it waits for something else, the alarm ends the process. */
void stop_cb(int number) {
  if (getpid() != stop_pid) _exit(128 + number); /* a child that has not become another program yet */
  int before = errno;
  const uint64_t one = 1;
  const itimerval grace = {{0, 0}, {0, kGraceMicroseconds}};
  if (write(stop_fd, &one, sizeof one) < 0) _exit(0);
  setitimer(ITIMER_REAL, &grace, nullptr);
  errno = before;
}

void alarm_cb(int number) {
  _exit(0);
}

int stopped_cb(sd_event_source *source, int fd, uint32_t revents, void *user_data) {
  return sd_event_exit(static_cast<phone_link *>(user_data)->event, 0);
}

int catch_signals(phone_link *link) {
  link->stop_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (link->stop_fd < 0) return -errno;
  stop_fd = link->stop_fd;
  stop_pid = getpid();
  struct sigaction action = {};
  action.sa_flags = SA_RESTART;
  action.sa_handler = alarm_cb;
  sigaction(SIGALRM, &action, nullptr);
  action.sa_handler = stop_cb;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  sigprocmask(SIG_BLOCK, &child, nullptr);
  return sd_event_add_io(link->event, nullptr, link->stop_fd, EPOLLIN, stopped_cb, link);
}

/* --- coming and going --- */

int connect_now(phone_link *link);

int retry_cb(sd_event_source *source, uint64_t usec, void *user_data) {
  auto *link = static_cast<phone_link *>(user_data);
  if (!link->connected) connect_now(link);
  return 0;
}

/* One try later, not a beat: with the service in place this timer is off. */
void retry_later(phone_link *link) {
  link->delay = std::clamp(link->delay * 2, kShortestDelay, kLongestDelay);
  link_timer(link, &link->retry, link->delay, retry_cb);
}

/* Returns 0; 1 when another phone is connected. */
int connect_now(phone_link *link) {
  std::string error;
  int result = host_connect(link->bus.get(), &error);
  if (result == HOST_BUSY) {
    link_fail(link, error);
    return 1;
  }
  if (result < 0) {
    if (!sd_bus_is_open(link->bus->bus)) {
      link_fail(link, "the session bus is gone");
      return 0;
    }
    if (link->delay == 0) link_log(error + "; waiting for it");
    retry_later(link);
    return 0;
  }
  link->connected = true;
  link->owner = link->bus->owner;
  link->told = false;
  if (link->retry) sd_event_source_set_enabled(link->retry, SD_EVENT_OFF);
  sd_event_now(link->event, CLOCK_MONOTONIC, &link->connected_at);
  if (link->handlers->connected) link->handlers->connected(link, link->user_data);
  return 0;
}

int owner_changed_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  auto *link = static_cast<phone_link *>(user_data);
  const char *name = nullptr, *before = nullptr, *after = nullptr;
  if (sd_bus_message_read(m, "sss", &name, &before, &after) < 0) return 0;
  /* News of a process before the one that is connected came late: what this one sent must not be forgotten for it, as
     it is not sent again. */
  if (link->connected && (link->owner == after || link->owner != before)) return 0;
  bool had = link->connected;
  link->connected = false;
  link->bus->owner.clear();
  requests_forget(link);
  if (*after) {
    link->delay = 0;
    link_timer(link, &link->retry, 0, retry_cb);
  } else if (had) {
    /* It is started again at once, unless it keeps falling over. */
    uint64_t now = 0;
    sd_event_now(link->event, CLOCK_MONOTONIC, &now);
    if (now - link->connected_at > 5 * kSecond) link->delay = 0;
    retry_later(link);
  }
  return 0;
}

int disconnected_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  auto *link = static_cast<phone_link *>(user_data);
  link->connected = false;
  link_fail(link, "the session bus is gone");
  return 0;
}

int follow_bus(phone_link *link) {
  sd_bus *bus = link->bus->bus;
  int r = sd_bus_attach_event(bus, link->event, SD_EVENT_PRIORITY_NORMAL);
  if (r >= 0) r = sd_bus_match_signal(bus, nullptr, nullptr, host_path, phone_interface, "Request", request_cb, link);
  if (r >= 0)
    r = sd_bus_add_match(bus, nullptr,
                         "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
                         "member='NameOwnerChanged',arg0='com.vextora.brisel.Host'",
                         owner_changed_cb, link);
  if (r >= 0)
    r = sd_bus_match_signal(bus, nullptr, "org.freedesktop.DBus.Local", nullptr, "org.freedesktop.DBus.Local",
                            "Disconnected", disconnected_cb, link);
  return r;
}

int set_up(phone_link *link, std::string *error) {
  link->bus = host_open_session(error);
  if (!link->bus) return -1;
  int r = sd_event_new(&link->event);
  if (r >= 0) r = catch_signals(link);
  if (r >= 0) r = requests_start(link);
  if (r >= 0) r = follow_bus(link);
  if (r < 0) *error = std::string("the session bus cannot be used: ") + strerror(-r);
  return r < 0 ? -1 : 0;
}

}  // namespace

void link_log(const std::string &text) {
  fprintf(stderr, "brisel-phone: %s\n", text.c_str());
}

uint64_t link_longer(uint64_t pause) {
  return std::clamp(pause * 2, kSecond, 60 * kSecond);
}

void link_timer(phone_link *link, sd_event_source **source, uint64_t delay, sd_event_time_handler_t callback) {
  uint64_t now = 0;
  sd_event_now(link->event, CLOCK_MONOTONIC, &now);
  if (!*source) {
    sd_event_add_time(link->event, source, CLOCK_MONOTONIC, now + delay, 1, callback, link);
    return;
  }
  sd_event_source_set_time(*source, now + delay);
  sd_event_source_set_enabled(*source, SD_EVENT_ONESHOT);
}

phone_link *link_open(phone_state *state, const link_handlers *handlers, void *user_data, std::string *error) {
  phone_link_holder link(new phone_link);
  link->state = state;
  link->handlers = handlers;
  link->user_data = user_data;
  if (set_up(link.get(), error) < 0) return nullptr;
  /* The loop has not run yet, but its clock is read. */
  if (connect_now(link.get()) != 0 || link->failed) {
    *error = link->failure;
    return nullptr;
  }
  return link.release();
}

int link_run(phone_link *link, std::string *error) {
  int r = sd_event_loop(link->event);
  if (link->failed) *error = link->failure;
  if (!link->failed && r < 0) *error = std::string("the event loop ended: ") + strerror(-r);
  return link->failed || r < 0 ? -1 : 0;
}

void link_fail(phone_link *link, const std::string &error) {
  if (!link->failed) link->failure = error;
  link->failed = true;
  sd_event_exit(link->event, 0);
}

void link_close(phone_link *link) {
  if (!link) return;
  for (sd_event_source *source : {link->retry, link->take, link->resend}) sd_event_source_disable_unref(source);
  link->bus.reset();
  if (link->stop_fd >= 0) {
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    close(link->stop_fd);
  }
  sd_event_unref(link->event);
  delete link;
}

sd_event *link_event(phone_link *link) {
  return link->event;
}
host_bus *link_bus(phone_link *link) {
  return link->bus.get();
}
bool link_is_connected(phone_link *link) {
  return link->connected;
}
link_flow_limits link_flow(phone_link *link) {
  return {1, 4u << 20};
}
