#include "platform-stop.h"

#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr suseconds_t grace_microseconds = 800000;
int stop_fd = -1;
pid_t stop_pid = 0;

/* The loop ends by itself when it gets to it; when it waits for something else, the alarm ends the process. */
void stop_cb(int number) {
  if (getpid() != stop_pid) _exit(128 + number);
  const int before = errno;
  const uint64_t one = 1;
  const itimerval grace = {{0, 0}, {0, grace_microseconds}};
  if (write(stop_fd, &one, sizeof one) < 0) _exit(0);
  setitimer(ITIMER_REAL, &grace, nullptr);
  errno = before;
}

void alarm_cb(int number) {
  _exit(0);
}

}  // namespace

int platform_stop_open(void) {
  const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (fd < 0) return -1;
  stop_fd = fd;
  stop_pid = getpid();
  struct sigaction action = {};
  action.sa_flags = SA_RESTART;
  action.sa_handler = alarm_cb;
  sigaction(SIGALRM, &action, nullptr);
  action.sa_handler = stop_cb;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  struct sigaction hangup = {};
  sigaction(SIGHUP, nullptr, &hangup);
  if (hangup.sa_handler == SIG_DFL) sigaction(SIGHUP, &action, nullptr); /* else it is to outlive its terminal */
  return fd;
}

void platform_stop_close(void) {
  if (stop_fd < 0) return;
  signal(SIGTERM, SIG_DFL);
  signal(SIGINT, SIG_DFL);
  struct sigaction hangup = {};
  sigaction(SIGHUP, nullptr, &hangup);
  if (hangup.sa_handler == stop_cb) signal(SIGHUP, SIG_DFL);
  close(stop_fd);
  stop_fd = -1;
}
