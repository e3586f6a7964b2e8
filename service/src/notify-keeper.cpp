/* A small process beside the service while notifications stand: it has the bus start the next service when this one was
   killed, or their buttons would reach nobody. It sleeps until the service ends, and starts nothing when that was asked
   to end. */
#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "brisel-bus.h"
#include "notify-priv.h"
#include "notify.h"

extern char **environ;

namespace {

/* Seconds: a service that lived for less than the first is not followed by the next before the second. */
constexpr time_t life_s = 1;
constexpr unsigned pause_s = 5;
/* What the bus says of a name that has an owner, and how long until it is asked again: microseconds. */
constexpr uint32_t already_running = 2;
constexpr useconds_t again_us = 50000;
/* Sent on the pipe before it closes: the service ends, or no notification stands any more. */
constexpr char farewell = 'x';

void spawn(int from_service) {
  char name[] = "brisel-hostd", word[40], *arguments[] = {name, word, nullptr};
  snprintf(word, sizeof word, "--await-end=%d", (int)getpid());
  posix_spawn_file_actions_t files;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_adddup2(&files, from_service, STDIN_FILENO);
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  pid_t pid = 0;
  if (const int r = posix_spawn(&pid, "/proc/self/exe", &files, &attributes, arguments, environ))
    fprintf(stderr, "brisel-hostd: nobody will start the next service: %s\n", strerror(r));
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
}

bool has_other_owner(sd_bus *bus, pid_t killed) {
  sd_bus_creds *owner = nullptr;
  pid_t pid = 0;
  if (sd_bus_get_name_creds(bus, host_name, SD_BUS_CREDS_PID, &owner) < 0) return false;
  const bool is_killed_one = sd_bus_creds_get_pid(owner, &pid) >= 0 && pid == killed;
  sd_bus_creds_unref(owner);
  return !is_killed_one;
}

/* A process that is killed closes one file after the other: the pipe may close while the bus still takes it for the
   name's owner, and starts nobody. */
int start_next(sd_bus *bus, pid_t killed, sd_bus_error *error) {
  for (;;) {
    sd_bus_message *answer = nullptr;
    uint32_t said = 0;
    int r = sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                               "StartServiceByName", error, &answer, "su", host_name, 0u);
    if (r >= 0) r = sd_bus_message_read(answer, "u", &said);
    sd_bus_message_unref(answer);
    if (r < 0 || said != already_running || has_other_owner(bus, killed)) return r;
    usleep(again_us);
  }
}

}  // namespace

void notify_keeper_want(notifier *n, bool wanted) {
  if (wanted == (n->keeper >= 0)) return;
  if (!wanted) {
    if (write(n->keeper, &farewell, 1) < 0 && errno != EPIPE)
      fprintf(stderr, "brisel-hostd: the process beside this one: %s\n", strerror(errno));
    close(n->keeper);
    n->keeper = -1;
    return;
  }
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) < 0) {
    fprintf(stderr, "brisel-hostd: nobody will start the next service: %s\n", strerror(errno));
    return;
  }
  signal(SIGCHLD, SIG_IGN); /* it is waited for by nobody */
  signal(SIGPIPE, SIG_IGN);
  spawn(ends[0]);
  close(ends[0]);
  n->keeper = ends[1];
}

int notify_keeper_run(pid_t service) {
  char said = 0;
  ssize_t got = 0;
  timespec start, end;
  clock_gettime(CLOCK_MONOTONIC, &start);
  do got = read(STDIN_FILENO, &said, 1);
  while (got < 0 && errno == EINTR);
  if (got != 0) return 0;
  clock_gettime(CLOCK_MONOTONIC, &end);
  if (end.tv_sec - start.tv_sec < life_s) sleep(pause_s);
  sd_bus *bus = nullptr;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  int r = sd_bus_open_user(&bus);
  if (r >= 0) r = start_next(bus, service, &error);
  if (r < 0)
    fprintf(stderr, "brisel-hostd: the next service does not start: %s\n",
            error.message ? error.message : strerror(-r));
  sd_bus_error_free(&error);
  sd_bus_flush_close_unref(bus);
  return r < 0 ? 1 : 0;
}
