/* One thread that does, while the toolkit starts on the main loop's, what needs nothing of the toolkit's. */
#include <dlfcn.h>
#include <locale.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <iterator>

#include "app-priv.h"
#include "app_efl.h"

namespace {

struct {
  void (*work)(void *data);
  void *data;
} works[APP_BESIDE_WORKS];

pthread_t thread;
bool is_running; /* the thread was started and has not been waited for */
std::atomic<int> done;

void *run_cb(void *data) {
  /* The main loop sets the process's locale meanwhile. */
  if (locale_t neutral = newlocale(LC_ALL_MASK, "C", nullptr)) uselocale(neutral);
  for (auto &one : works) {
    if (one.work) one.work(one.data);
    done++;
    done.notify_all();
  }
  return nullptr;
}

}  // namespace

void app_beside_add(app_beside_work which, void (*work)(void *data), void *data) {
  works[which] = {work, data};
}

void app_beside_start(void) {
  done = 0;
  /* Signals are the main loop's. */
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  is_running = pthread_create(&thread, nullptr, run_cb, nullptr) == 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void app_beside_wait(app_beside_work which) {
  if (!is_running) return;
  for (int now = done; now <= which; now = done) done.wait(now);
}

void app_beside_stop(void) {
  if (!is_running) return;
  is_running = false;
  pthread_join(thread, nullptr);
}

void app_efl_beside(void (*work)(void *data), void *data) {
  app_beside_add(APP_BESIDE_APPLICATION, work, data);
}

/* --- the environment --- */

/* The C library moves it when it changes, so nobody changes it while the thread looks something up there. */
extern "C" int setenv(const char *name, const char *value, int replace) noexcept {
  static const auto real = reinterpret_cast<int (*)(const char *, const char *, int)>(dlsym(RTLD_NEXT, "setenv"));
  app_beside_stop();
  return real(name, value, replace);
}

extern "C" int unsetenv(const char *name) noexcept {
  static const auto real = reinterpret_cast<int (*)(const char *)>(dlsym(RTLD_NEXT, "unsetenv"));
  app_beside_stop();
  return real(name);
}

extern "C" int putenv(char *text) noexcept {
  static const auto real = reinterpret_cast<int (*)(char *)>(dlsym(RTLD_NEXT, "putenv"));
  app_beside_stop();
  return real(text);
}
