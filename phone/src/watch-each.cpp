#include "watch-each.h"

#include <glib.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "link.h"

namespace {

constexpr int kEndMs = 900; /* that the processes may take to end, all together */

struct one {
  std::string name;
  const std::vector<std::string> *arguments = nullptr;
  sd_event *event = nullptr;
  sd_event_source *child = nullptr, *pause = nullptr;
  pid_t pid = 0;
  uint64_t delay = 0; /* before the next start, in microseconds */
};

void start(one *w);

int start_cb(sd_event_source *source, uint64_t usec, void *user_data) {
  start(static_cast<one *>(user_data));
  return 0;
}

void start_later(one *w) {
  w->delay = link_longer(w->delay);
  w->pause = sd_event_source_disable_unref(w->pause);
  sd_event_add_time_relative(w->event, &w->pause, CLOCK_BOOTTIME, w->delay, 0, start_cb, w);
}

int ended_cb(sd_event_source *source, const siginfo_t *info, void *user_data) {
  auto *w = static_cast<one *>(user_data);
  w->pid = 0;
  w->child = sd_event_source_disable_unref(w->child);
  start_later(w);
  return 0;
}

void start(one *w) {
  std::vector<char *> arguments;
  for (const std::string &word : *w->arguments) arguments.push_back(const_cast<char *>(word.c_str()));
  char option[] = "--watch", name[256];
  snprintf(name, sizeof name, "%s", w->name.c_str());
  arguments.insert(arguments.end(), {option, name, nullptr});
  pid_t parent = getpid();
  w->pid = fork();
  if (w->pid == 0) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() == parent) execv("/proc/self/exe", arguments.data());
    _exit(127);
  }
  if (w->pid > 0 && sd_event_add_child(w->event, &w->child, w->pid, WEXITED, ended_cb, w) >= 0) return;
  link_log(w->name + ": its process cannot be started: " + strerror(errno));
  start_later(w);
}

int end_cb(sd_event_source *source, const signalfd_siginfo *info, void *user_data) {
  return sd_event_exit(sd_event_source_get_event(source), 0);
}

/* Each ends by itself within a second; one that is stopped does not hear of it. */
void await_end(pid_t pid, int64_t until) {
  const int process = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  pollfd end = {process, POLLIN, 0};
  const int64_t left = std::max<int64_t>(0, until - g_get_monotonic_time());
  if (process < 0 || poll(&end, 1, static_cast<int>(left / 1000)) <= 0) kill(pid, SIGKILL);
  if (process >= 0) close(process);
  waitpid(pid, nullptr, 0);
}

sd_event *make_loop() {
  sigset_t signals;
  sigemptyset(&signals);
  for (int number : {SIGTERM, SIGINT, SIGCHLD}) sigaddset(&signals, number);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  sd_event *event = nullptr;
  if (sd_event_new(&event) < 0) return nullptr;
  for (int number : {SIGTERM, SIGINT})
    if (sd_event_add_signal(event, nullptr, number, end_cb, nullptr) < 0) return sd_event_unref(event);
  return event;
}

}  // namespace

int watch_run_each(const std::vector<std::string> &names, const std::vector<std::string> &arguments,
                   const std::function<void(sd_event *)> &also) {
  sd_event *event = make_loop();
  if (!event) {
    link_log("the event loop cannot be set up");
    return 1;
  }
  std::vector<std::unique_ptr<one>> all;
  for (const std::string &name : names) {
    all.push_back(std::make_unique<one>());
    all.back()->name = name;
    all.back()->arguments = &arguments;
    all.back()->event = event;
    start(all.back().get());
  }
  if (also) also(event);
  int result = sd_event_loop(event);
  for (auto &w : all) {
    sd_event_source_disable_unref(w->child);
    sd_event_source_disable_unref(w->pause);
    if (w->pid > 0) kill(w->pid, SIGTERM);
  }
  const int64_t until = g_get_monotonic_time() + kEndMs * 1000;
  for (auto &w : all)
    if (w->pid > 0) await_end(w->pid, until);
  sd_event_unref(event);
  return result < 0 ? 1 : 0;
}
