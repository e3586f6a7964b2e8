/* Running the main loop inside a test, and processes beside it. */
#ifndef TESTS_PLATFORM_DATA_LOOP_H
#define TESTS_PLATFORM_DATA_LOOP_H

#include <Ecore.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

/* Runs the main loop until done() holds; false when it never does. The bound only ends a hanging test. */
inline bool loop_until(const std::function<bool()> &done, double bound = 20.0) {
  struct state {
    bool over = false;
  } state;
  Ecore_Timer *timer = ecore_timer_add(
      bound,
      [](void *data) -> Eina_Bool {
        static_cast<struct state *>(data)->over = true;
        return ECORE_CALLBACK_RENEW;
      },
      &state);
  while (!done() && !state.over) ecore_main_loop_iterate_may_block(1);
  ecore_timer_del(timer);
  return done();
}

/* Runs work in a process of its own and waits for it; true when it returned true. */
inline bool in_child(const std::function<bool()> &work) {
  const pid_t child = fork();
  if (child == 0) _exit(work() ? 0 : 1);
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

#endif
