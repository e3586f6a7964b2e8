#include "bus-loop.h"

#include <Ecore.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <vector>

#include "dlog.h"

namespace {

constexpr char log_tag[] = "BRISEL_BUS";
/* What one turn of the loop handles, so that a flood cannot starve drawing and input: so many messages, and no further
   one when these have taken half of a frame. */
constexpr int messages_per_turn = 64;
constexpr uint64_t turn_usec = 8000;
/* Seconds until a bus that went is looked for, doubled each time until one that has been found stays. */
constexpr double look_first = 1, look_last = 60;

struct watch {
  bus_loop_watch_cb callback;
  void *data;
};

sd_bus *bus;
Ecore_Fd_Handler *handler;
int handler_fd = -1; /* our own copy of the connection's: it closes its own without telling when the bus goes */
Ecore_Idle_Enterer *enterer;
Ecore_Timer *timer;
uint64_t timer_due = UINT64_MAX; /* microseconds, monotonic; what the timer waits for */
Ecore_Job *job;
bool lost_once;   /* a connection existed and went away */
bool told_absent; /* the missing bus was logged */
bool dispatching;
std::vector<watch> watches;
Ecore_Timer *look; /* while there is no bus any more */
double look_delay = look_first;
double found; /* when the connection was made; the loop's clock */

void dispatch(void);

uint64_t now_usec(void) {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

void tell(bool connected) {
  /* A callback may add and delete watches: walk a copy and skip what has gone meanwhile. */
  const std::vector<watch> copy = watches;
  for (const watch &w : copy)
    for (const watch &still : watches)
      if (still.callback == w.callback && still.data == w.data) {
        w.callback(connected, w.data);
        break;
      }
}

void detach(void) {
  if (handler) ecore_main_fd_handler_del(handler);
  if (enterer) ecore_idle_enterer_del(enterer);
  if (timer) ecore_timer_del(timer);
  if (job) ecore_job_del(job);
  if (handler_fd >= 0) close(handler_fd);
  handler_fd = -1;
  handler = nullptr;
  enterer = nullptr;
  timer = nullptr;
  timer_due = UINT64_MAX;
  job = nullptr;
}

void look_later(void);

Eina_Bool look_cb(void *data) {
  look = nullptr;
  if (!bus_loop_session()) look_later();
  return ECORE_CALLBACK_CANCEL;
}

void look_later(void) {
  look = ecore_timer_loop_add(look_delay, look_cb, nullptr);
  look_delay = std::min(look_delay * 2, look_last);
}

void stop_looking(void) {
  if (look) ecore_timer_del(look);
  look = nullptr;
}

void lose(int error) {
  __dlog_print(DLOG_ERROR, log_tag, "the session bus is gone: %s", strerror(-error));
  detach();
  sd_bus *old = bus;
  bus = nullptr;
  lost_once = true;
  /* Closing answers every pending call with an error, so that nobody waits for ever. */
  sd_bus_close(old);
  while (sd_bus_process(old, nullptr) > 0) {
  }
  sd_bus_unref(old);
  tell(false);
  if (bus) return; /* somebody has found the next one already */
  if (ecore_loop_time_get() - found >= look_last) look_delay = look_first;
  look_later();
}

void job_cb(void *data) {
  job = nullptr;
  dispatch();
}

Eina_Bool timer_cb(void *data) {
  timer = nullptr;
  timer_due = UINT64_MAX;
  dispatch();
  return ECORE_CALLBACK_CANCEL;
}

/* Before the loop sleeps: ask for exactly the wake-ups that the connection needs now. Messages may have been queued by
   a blocking call, and a write may not have gone out whole. */
Eina_Bool enterer_cb(void *data) {
  if (!bus) return ECORE_CALLBACK_RENEW;
  const int events = sd_bus_get_events(bus);
  uint64_t due = UINT64_MAX;
  if (events < 0 || sd_bus_get_timeout(bus, &due) < 0) {
    if (!job) job = ecore_job_add(job_cb, nullptr);
    return ECORE_CALLBACK_RENEW;
  }
  int flags = ECORE_FD_READ;
  if (events & POLLOUT) flags |= ECORE_FD_WRITE;
  ecore_main_fd_handler_active_set(handler, static_cast<Ecore_Fd_Handler_Flags>(flags));
  if (due == timer_due) return ECORE_CALLBACK_RENEW;
  if (timer) ecore_timer_del(timer);
  timer = nullptr;
  timer_due = UINT64_MAX;
  if (due == UINT64_MAX) return ECORE_CALLBACK_RENEW;
  const uint64_t now = now_usec();
  if (due <= now) {
    if (!job) job = ecore_job_add(job_cb, nullptr);
  } else {
    timer = ecore_timer_loop_add(static_cast<double>(due - now) / 1e6, timer_cb, nullptr);
    timer_due = due;
  }
  return ECORE_CALLBACK_RENEW;
}

void dispatch(void) {
  /* A message handler that runs a nested main loop must not handle the next message before it is done. */
  if (dispatching) return;
  dispatching = true;
  const uint64_t end = now_usec() + turn_usec;
  for (int i = 0; bus && i < messages_per_turn && (i == 0 || now_usec() < end); i++) {
    const int r = sd_bus_process(bus, nullptr);
    if (r == 0) break;
    if (r < 0) {
      if (bus) lose(r);
      break;
    }
  }
  dispatching = false;
}

Eina_Bool fd_cb(void *data, Ecore_Fd_Handler *fd_handler) {
  dispatch();
  return ECORE_CALLBACK_RENEW;
}

}  // namespace

sd_bus *bus_loop_open(void) {
  if (bus) return bus;
  const int r = sd_bus_open_user(&bus);
  if (r < 0) {
    if (!told_absent) __dlog_print(DLOG_ERROR, log_tag, "no session bus: %s", strerror(-r));
    told_absent = true;
    bus = nullptr;
    return nullptr;
  }
  told_absent = false;
  return bus;
}

sd_bus *bus_loop_session(void) {
  if (bus && handler) return bus;
  if (!bus_loop_open()) return nullptr;
  handler_fd = fcntl(sd_bus_get_fd(bus), F_DUPFD_CLOEXEC, 3);
  if (handler_fd >= 0) handler = ecore_main_fd_handler_add(handler_fd, ECORE_FD_READ, fd_cb, nullptr, nullptr, nullptr);
  enterer = ecore_idle_enterer_add(enterer_cb, nullptr);
  if (!handler || !enterer) {
    __dlog_print(DLOG_ERROR, log_tag, "the session bus cannot be attached to the main loop");
    detach();
    return nullptr;
  }
  found = ecore_loop_time_get();
  stop_looking();
  if (lost_once) {
    lost_once = false;
    tell(true);
  }
  return bus;
}

void bus_loop_watch_add(bus_loop_watch_cb callback, void *data) {
  if (callback) watches.push_back({callback, data});
}

void bus_loop_watch_del(bus_loop_watch_cb callback, void *data) {
  for (size_t i = 0; i < watches.size(); i++)
    if (watches[i].callback == callback && watches[i].data == data) {
      watches.erase(watches.begin() + static_cast<long>(i));
      return;
    }
}

void bus_loop_shutdown(void) {
  stop_looking();
  detach();
  if (!bus) return;
  sd_bus *old = bus;
  bus = nullptr;
  sd_bus_flush(old);
  sd_bus_close(old);
  sd_bus_unref(old);
}
