/* The store's file as the running service follows it: whoever deletes or replaces it is noticed at once, not at the
   next request, and while it cannot be put right it is tried again. hostd.cpp starts it; nothing else calls it. */
#include <sys/inotify.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "host.h"
#include "store-format.h"

namespace {

constexpr uint64_t retry_first_usec = 1000000, retry_last_usec = 60000000;

void look_after_file(host *h);

int retry_cb(sd_event_source *source, uint64_t usec, void *data) {
  look_after_file(static_cast<host *>(data));
  return 0;
}

void retry_later(host *h) {
  h->file_retry_usec = std::clamp(h->file_retry_usec * 2, retry_first_usec, retry_last_usec);
  sd_event_source_disable_unref(h->file_retry);
  h->file_retry = nullptr;
  const int r =
      sd_event_add_time_relative(h->event, &h->file_retry, CLOCK_MONOTONIC, h->file_retry_usec, 0, retry_cb, h);
  if (r < 0) fprintf(stderr, "brisel-hostd: the store's file is not looked at again: %s\n", strerror(-r));
}

void look_after_file(host *h) {
  if (store_keep_file(h->st) != store_ok) {
    fprintf(stderr, "brisel-hostd: %s\n", store_error(h->st).c_str());
    retry_later(h);
    return;
  }
  h->file_retry_usec = 0;
  pair_keep_id(h);
  host_announce(h);
}

int folder_cb(sd_event_source *source, const inotify_event *event, void *data) {
  host *h = static_cast<host *>(data);
  const bool folder_went = event->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED);
  if (event->len && !strcmp(event->name, pair_id_file)) pair_keep_id(h);
  if (!folder_went && (!event->len || strncmp(event->name, store_file, sizeof(store_file) - 1) != 0)) return 0;
  if (!store_file_is_there(h->st)) look_after_file(h);
  if (!folder_went) return 0;
  const int r = host_follow_file(h, std::string(h->folder));
  if (r < 0) fprintf(stderr, "brisel-hostd: the store's folder is not followed any more: %s\n", strerror(-r));
  if (!store_file_is_there(h->st)) look_after_file(h); /* what happened before it was followed tells nobody */
  return 0;
}

}  // namespace

int host_follow_file(host *h, const std::string &folder) {
  h->folder = folder;
  sd_event_source_disable_unref(h->folder_watch);
  h->folder_watch = nullptr;
  return sd_event_add_inotify(
      h->event, &h->folder_watch, folder.c_str(),
      IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR, folder_cb, h);
}
