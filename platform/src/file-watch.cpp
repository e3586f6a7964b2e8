#include "file-watch.h"

#include <Ecore.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "dlog.h"

struct file_watch {
  std::string folder;
  file_watch_cb callback;
  void *user_data;
  int wd = -1;        /* inotify's number of what is watched: the folder, or the nearest existing one above it */
  bool there = false; /* the folder itself is watched */
  bool dead = false;  /* deleted while events are handed out; freed afterwards */
};

namespace {

constexpr const char *log_tag = "FILE_WATCH";
constexpr uint32_t file_events = IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_FROM;
constexpr uint32_t folder_events = IN_CREATE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

int inotify_fd = -1;
Ecore_Fd_Handler *fd_handler;
std::vector<std::unique_ptr<file_watch>> watches;
int handing_out;

void drop_unused(int wd) {
  const bool used =
      std::any_of(watches.begin(), watches.end(), [wd](const auto &watch) { return !watch->dead && watch->wd == wd; });
  if (wd >= 0 && !used) inotify_rm_watch(inotify_fd, wd);
}

/* Watches the folder, or while it is missing the nearest one above it that exists, where its coming will show. */
void aim(file_watch *watch) {
  const int old = watch->wd;
  watch->wd = -1;
  watch->there = false;
  std::string path = watch->folder;
  while (true) {
    /* One mask for all: two watches of one folder share its number, and the mask of the later call would win. */
    watch->wd = inotify_add_watch(inotify_fd, path.c_str(), file_events | folder_events);
    if (watch->wd >= 0) {
      watch->there = path == watch->folder;
      /* The folder below may have come between the failed call for it and this one. */
      if (watch->there || access(watch->folder.c_str(), F_OK) != 0) break;
      drop_unused(watch->wd);
      path = watch->folder;
      continue;
    }
    if ((errno != ENOENT && errno != ENOTDIR && errno != EACCES) || path == "/" || path.empty()) break;
    path = path.substr(0, std::max<size_t>(path.rfind('/'), 1));
  }
  if (watch->wd < 0)
    __dlog_print(DLOG_ERROR, log_tag, "cannot watch \"%s\": %s", watch->folder.c_str(), strerror(errno));
  if (old != watch->wd) drop_unused(old);
}

void tell(file_watch *watch, const char *name) {
  if (!watch->dead) watch->callback(name, watch->user_data);
}

void hand_out(const inotify_event *event) {
  const size_t count = watches.size(); /* watches added by a callback hear of later events only */
  for (size_t i = 0; i < count; i++) {
    file_watch *watch = watches[i].get();
    if (watch->dead) continue;
    if ((event->mask & IN_Q_OVERFLOW) != 0) {
      aim(watch);
      tell(watch, nullptr);
      continue;
    }
    if (watch->wd != event->wd) continue;
    if ((event->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT)) != 0) {
      const bool was_there = watch->there;
      if ((event->mask & IN_IGNORED) != 0) watch->wd = -1;
      aim(watch);
      if (was_there || watch->there) tell(watch, nullptr);
    } else if (watch->there) {
      if (event->len > 0 && (event->mask & file_events) != 0) tell(watch, event->name);
    } else {
      aim(watch);
      if (watch->there) tell(watch, nullptr);
    }
  }
}

void close_when_unused() {
  if (!watches.empty() || inotify_fd < 0) return;
  ecore_main_fd_handler_del(fd_handler);
  close(inotify_fd);
  fd_handler = nullptr;
  inotify_fd = -1;
}

Eina_Bool readable_cb(void *, Ecore_Fd_Handler *) {
  /* One read per wake-up: what does not fit stays readable, and the interface gets its turn in between. */
  alignas(inotify_event) char buffer[8192];
  const ssize_t size = read(inotify_fd, buffer, sizeof buffer);
  if (size <= 0) return ECORE_CALLBACK_RENEW;
  handing_out++;
  for (ssize_t at = 0; at < size;) {
    const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
    hand_out(event);
    at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
  }
  handing_out--;
  if (handing_out > 0) return ECORE_CALLBACK_RENEW; /* a callback ran a main loop of its own */
  std::erase_if(watches, [](const auto &watch) { return watch->dead; });
  close_when_unused();
  return inotify_fd >= 0 ? ECORE_CALLBACK_RENEW : ECORE_CALLBACK_CANCEL;
}

}  // namespace

file_watch *file_watch_add(const char *folder, file_watch_cb callback, void *user_data) {
  if (folder == nullptr || folder[0] != '/' || callback == nullptr) return nullptr;
  if (inotify_fd < 0) {
    inotify_fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (inotify_fd >= 0)
      fd_handler = ecore_main_fd_handler_add(inotify_fd, ECORE_FD_READ, readable_cb, nullptr, nullptr, nullptr);
    if (fd_handler == nullptr) {
      __dlog_print(DLOG_ERROR, log_tag, "cannot start watching: %s", strerror(errno));
      if (inotify_fd >= 0) close(inotify_fd);
      inotify_fd = -1;
      return nullptr;
    }
  }
  watches.emplace_back(new file_watch{folder, callback, user_data});
  file_watch *watch = watches.back().get();
  aim(watch);
  if (watch->wd < 0) {
    file_watch_del(watch);
    return nullptr;
  }
  return watch;
}

void file_watch_del(file_watch *watch) {
  if (watch == nullptr || watch->dead) return;
  watch->dead = true;
  drop_unused(watch->wd);
  if (handing_out > 0) return;
  std::erase_if(watches, [watch](const auto &held) { return held.get() == watch; });
  close_when_unused();
}
