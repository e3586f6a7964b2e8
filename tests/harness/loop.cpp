#include "loop.h"

#include <Ecore.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>

/* Far more than anything here takes; only a failure waits so long. */
static constexpr std::chrono::seconds patience(20);

static std::map<int, std::function<void()>> others;

int loop_also(const std::function<void()> &work) {
  const int number = others.empty() ? 1 : others.rbegin()->first + 1;
  others[number] = work;
  return number;
}

void loop_no_more(int number) {
  others.erase(number);
}

static Eina_Bool wake_cb(void *data) {
  return ECORE_CALLBACK_RENEW;
}

bool run_until(const std::function<bool()> &done, std::source_location at) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  Ecore_Timer *wake = ecore_timer_add(0.005, wake_cb, nullptr);
  bool held = done();
  while (!held && std::chrono::steady_clock::now() < deadline) {
    ecore_main_loop_iterate_may_block(1);
    for (const auto &[number, work] : others) work();
    held = done();
  }
  ecore_timer_del(wake);
  if (!held) fprintf(stderr, "waited in vain in %s at %s:%u\n", at.function_name(), at.file_name(), at.line());
  return held;
}

void settle(void) {
  int turns = 0;
  run_until([&] { return turns++ > 12; });
}

void run_for(double seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  run_until([&] { return std::chrono::steady_clock::now() >= end; });
}

bool in_child(const std::function<bool()> &work) {
  const pid_t child = fork();
  if (child == 0) _exit(work() ? 0 : 1);
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
