/* The relay's start, what wakes it, and the order of its work. */
#include "relay.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "post-mirror.h"
#include "relay-parts.h"
#include "watch-each.h"

namespace {

constexpr uint64_t kUnfinished = 6000000; /* microseconds; longer than a file counts as just being written */
constexpr uint64_t kSettle = 30000;       /* microseconds that changes are collected: one delivery is several events */

/* --- when to compare --- */

void sync_in(relay *r, uint64_t delay) {
  int enabled = SD_EVENT_OFF;
  uint64_t now = 0, set = 0;
  sd_event_source *timer = r->sync_timer.get();
  sd_event_source_get_enabled(timer, &enabled);
  sd_event_source_get_time(timer, &set);
  sd_event_now(link_event(r->link), CLOCK_MONOTONIC, &now);
  if (enabled != SD_EVENT_OFF && set <= now + delay) return;
  sd_event_source_set_time(timer, now + delay);
  sd_event_source_set_enabled(timer, SD_EVENT_ONESHOT);
}

/* Something could not be done: not again before a pause that grows, and then without being asked. */
void sync_after_pause(relay *r) {
  r->sync_pause = link_longer(r->sync_pause);
  sync_in(r, r->sync_pause);
}

bool all_listed(const relay &r) {
  for (const auto &a : r.accounts)
    if (!a->listed) return false;
  return true;
}

/* Follows the mailbox. One that a configuration names may come later: then what it would come into is followed. Returns
   0, or -1 with a reason. */
int follow(followed *a, std::string *error);

/* One account's turn. Returns whether all of it was done. */
bool sync_account(followed *a) {
  std::string error;
  a->dirty = a->unfinished = a->again = false;
  if (a->missing && (follow(a, &error) < 0 || a->missing)) return true; /* its coming is heard of */
  bool done = sync_mailbox(a) == 0 && !a->again;
  if (!done) a->dirty = true;
  if (a->unfinished) { /* one more look, when it is either whole or broken */
    a->dirty = true;
    sync_in(a->r, kUnfinished);
  }
  return done;
}

void sync_all(relay *r) {
  if (!link_is_connected(r->link)) return;
  bool matched = all_listed(*r), done = true;
  if (!matched) {
    matched = known_match(r) == 0;
    for (auto &a : r->accounts) a->dirty = true;
  }
  for (auto &a : r->accounts)
    if (matched && a->dirty) done = sync_account(a.get()) && done;
  status_write(r);
  if (!matched || !done)
    sync_after_pause(r);
  else
    r->sync_pause = 0;
  /* A list that has to be looked at again is looked at now, once: the next failure waits. */
  if (matched && !all_listed(*r) && r->sync_pause <= link_longer(0) && link_is_connected(r->link))
    sd_event_source_set_enabled(r->sync_defer.get(), SD_EVENT_ONESHOT);
}

int sync_defer_cb(sd_event_source *source, void *user_data) {
  sync_all(static_cast<relay *>(user_data));
  return 0;
}

int sync_timer_cb(sd_event_source *source, uint64_t usec, void *user_data) {
  sync_all(static_cast<relay *>(user_data));
  return 0;
}

int changed_cb(sd_event_source *source, const inotify_event *event, void *user_data) {
  auto *a = static_cast<followed *>(user_data);
  std::string name = event->len > 0 ? event->name : "";
  if (a->missing) {
    a->dirty = true;
    sync_in(a->r, kSettle);
    return 0;
  }
  if (event->mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
    /* Nothing would ever be heard of it again; whoever runs the relay starts it anew. Its mails stay on the watch. */
    link_fail(a->r->link, a->settings.name + ": its mailbox is gone: " + a->settings.path);
    return 0;
  }
  if (a->settings.kind == &mbox_kind) {
    /* Its folder is watched: other files in it mean nothing. */
    if (name != a->settings.path.substr(a->settings.path.rfind('/') + 1) && !(event->mask & IN_Q_OVERFLOW)) return 0;
  } else if (event->mask & IN_CLOSE_WRITE) {
    size_t colon = name.rfind(":2,");
    a->rewritten.insert(colon == std::string::npos ? name : name.substr(0, colon));
  }
  a->dirty = true;
  sync_in(a->r, kSettle);
  return 0;
}

/* --- the link --- */

void connected_cb(phone_link *link, void *user_data) {
  auto *r = static_cast<relay *>(user_data);
  for (auto &a : r->accounts) a->listed = false;
  r->sync_pause = 0;
  /* After the requests that waited: they come first in the loop. */
  if (r->sync_defer) sd_event_source_set_enabled(r->sync_defer.get(), SD_EVENT_ONESHOT);
  replies_connected(r);
}

int keep_cb(phone_link *link, const nlohmann::json &request, const std::string &uid, void *user_data) {
  return relay_keep_request(static_cast<relay *>(user_data)->state.get(), request, uid);
}

bool leave_others_cb(phone_link *link, nlohmann::json *request, void *user_data) {
  auto *r = static_cast<relay *>(user_data);
  return relay_leave_others(r->state.get(), r->settings, request);
}

void kept_cb(phone_link *link, const nlohmann::json &request, const std::string &line, void *user_data) {
  auto *r = static_cast<relay *>(user_data);
  std::string kind = request.is_object() ? request.value("request", std::string()) : "";
  if ((kind == "delete_notis" || kind == "update_ind") && request.contains("id_list")) {
    for (const auto &id : request["id_list"])
      if (kind == "delete_notis") r->just_deleted.insert(id.get<int>());
    for (const auto &id : request["id_list"])
      for (auto &a : r->accounts) known_reload(a.get(), id.get<int>());
    for (auto &a : r->accounts) a->dirty = true;
    sync_in(r, kSettle);
  }
  if (kind == "reply") replies_next(r);
  if (kind == "show") show_mails(r, request);
}

/* --- start --- */

int watch_folder(followed *a, const std::string &folder, uint32_t mask) {
  sd_event_source *source = nullptr;
  int r = sd_event_add_inotify(link_event(a->r->link), &source, folder.c_str(), mask | IN_ONLYDIR, changed_cb, a);
  if (r >= 0) a->watches.emplace_back(source);
  return r;
}

int watch_folders(followed *a, std::string *error) {
  /* When a folder above the mailbox gets another name, no event comes from the mailbox itself, and what is delivered
     under the old name is never heard of. Watched for nothing but that; a folder that may not be watched is not. */
  std::string path = a->settings.path + "/";
  while (path.size() > 1) {
    path.resize(std::max<size_t>(path.rfind('/'), 1));
    watch_folder(a, path, IN_MOVE_SELF | IN_DELETE_SELF);
  }
  for (const std::string &folder : a->settings.kind->watched(a->settings.path)) {
    int r = watch_folder(
        a, folder,
        IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF);
    if (r >= 0) continue;
    *error = folder + ": cannot be watched: " + strerror(-r);
    return -1;
  }
  return 0;
}

void wait_for_mailbox(followed *a) {
  std::string path = a->settings.path + "/";
  for (size_t end = 0; end != std::string::npos; end = path.find('/', end + 1))
    watch_folder(a, path.substr(0, std::max<size_t>(end, 1)), IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF);
}

int follow(followed *a, std::string *error) {
  /* What comes between the two looks is heard of, or seen by the second. */
  for (int look = 0; look < 2; look++) {
    a->watches.clear();
    a->missing = false;
    if (a->settings.kind->check(a->settings.path, error) == 0) return watch_folders(a, error);
    if (a->settings.given) return -1;
    a->missing = true;
    wait_for_mailbox(a);
    if (a->settings.kind->check(a->settings.path, error) < 0) break;
  }
  if (a->error != *error) link_log(a->settings.name + ": " + *error + "; waiting for it");
  a->error = *error;
  return 0;
}

int add_event_sources(relay *r, std::string *error) {
  sd_event *event = link_event(r->link);
  sd_event_source *defer = nullptr, *timer = nullptr;
  int result = sd_event_add_defer(event, &defer, sync_defer_cb, r);
  r->sync_defer.reset(defer);
  if (result >= 0) result = sd_event_source_set_priority(defer, SD_EVENT_PRIORITY_IDLE);
  if (result >= 0) result = sd_event_add_time(event, &timer, CLOCK_MONOTONIC, UINT64_MAX, 1, sync_timer_cb, r);
  r->sync_timer.reset(timer);
  if (result >= 0) result = sd_event_source_set_priority(timer, SD_EVENT_PRIORITY_IDLE);
  if (result >= 0) result = sd_event_source_set_enabled(timer, SD_EVENT_OFF);
  if (result >= 0) result = replies_start(r);
  if (result < 0) *error = std::string("the event loop cannot be set up: ") + strerror(-result);
  return result < 0 ? -1 : 0;
}

int open_mailboxes(relay *r, std::string *error) {
  for (const relay_account_settings &settings : r->settings.accounts) {
    auto a = std::make_unique<followed>();
    a->r = r;
    a->settings = settings;
    if (settings.path.empty()) {
      *error = settings.name + ": it has no mailbox";
      return -1;
    }
    if (settings.given && settings.kind->check(settings.path, error) < 0) return -1;
    if (settings.address.empty())
      link_log(settings.name + ": no address is known; replies go out under the mail system's own (see --address)");
    if (known_load(a.get()) < 0) {
      *error = phone_state_error(r->state.get());
      return -1;
    }
    r->accounts.push_back(std::move(a));
  }
  if (!r->accounts.empty()) return 0;
  *error = "no mailbox is given: --maildir NAME=DIR, --mbox NAME=FILE or --config FILE";
  return -1;
}

int start(relay *r, const link_handlers *handlers, std::string *error) {
  if (open_mailboxes(r, error) < 0) return -1;
  r->link = link_open(r->state.get(), handlers, r, error);
  if (!r->link || add_event_sources(r, error) < 0) return -1;
  for (auto &a : r->accounts)
    if (follow(a.get(), error) < 0) return -1;
  if (relay_note_set(r->state.get(), note_pid, std::to_string(getpid())) < 0 ||
      relay_note_set(r->state.get(), note_started, std::to_string(relay_now())) < 0)
    link_log(phone_state_error(r->state.get()));
  outbox_inherit_orphans();
  /* The link may have connected before the sources were there; the first look is due in any case. */
  sd_event_source_set_enabled(r->sync_defer.get(), SD_EVENT_ONESHOT);
  replies_next(r);
  return 0;
}

/* The mirrors of accounts on servers that the relay needs. */
std::vector<post_mirror_order> mirror_orders(const relay_settings &settings) {
  std::vector<post_mirror_order> orders;
  if (!settings.mirrors) return orders;
  for (const relay_account_settings &a : settings.accounts)
    for (const std::string &folder : a.folders)
      orders.push_back({a.imap_config, a.name, folder, a.newest >= 0 ? a.newest : settings.newest});
  return orders;
}

}  // namespace

relay::~relay() {
  accounts.clear();
  for (event_source *source : {&sync_timer, &sync_defer, &reply_timer, &child, &wake}) source->reset();
  link_close(link);
}

int64_t relay_now() {
  return static_cast<int64_t>(time(nullptr));
}

namespace {

/* Until it is ended, or its configuration changes. */
int run_once(const relay_settings &settings, post_mirrors **mirrors) {
  std::string error;
  link_handlers handlers = {connected_cb, keep_cb, kept_cb, leave_others_cb, true};
  relay r;
  r.settings = settings;
  r.bar = isatty(STDERR_FILENO) != 0;
  r.state.reset(phone_state_open(&error));
  int lock = r.state ? status_take_lock(&error) : -1;
  int result = lock < 0 ? -1 : start(&r, &handlers, &error);
  if (result == 0) *mirrors = post_mirrors_start(link_event(r.link), mirror_orders(settings));
  if (result == 0) result = link_run(r.link, &error);
  if (lock >= 0) close(lock);
  if (result == 0 || post_mirrors_outdated(*mirrors)) return 0;
  link_log(error);
  return 1;
}

/* Everything is closed: an account that is in the configuration no more is left, a new one followed. */
void end_mirrors(post_mirrors *mirrors) {
  bool again = post_mirrors_outdated(mirrors);
  post_mirrors_stop(mirrors);
  if (!again) return;
  link_log("its configuration changed: it begins anew");
  post_mirrors_begin_again();
}

}  // namespace

int relay_run(const relay_settings &settings) {
  mime_init();
  post_mirrors *mirrors = nullptr;
  int code = run_once(settings, &mirrors);
  end_mirrors(mirrors);
  return code;
}

int relay_run_each(const relay_settings &settings, const std::vector<std::string> &watches,
                   const std::vector<std::string> &arguments) {
  post_mirrors *mirrors = nullptr;
  std::vector<std::string> own = arguments;
  own.emplace_back("--no-mirrors");
  int code = watch_run_each(watches, own,
                            [&](sd_event *event) { mirrors = post_mirrors_start(event, mirror_orders(settings)); });
  end_mirrors(mirrors);
  return code;
}
