/*
 * When a reply is handed over: one at a time, by a process of its own (outbox.h).
 *
 * Waits are counted by a clock that nobody sets and that goes on while the machine sleeps; what the state says in
 * seconds since the epoch only bounds them. A try that left no trace, for the disk is full or failing, is not made
 * again before a pause that grows.
 */
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "relay-parts.h"

namespace {

constexpr uint64_t kSecond = 1000000;

uint64_t boot_now(relay *r) {
  uint64_t now = 0;
  sd_event_now(link_event(r->link), CLOCK_BOOTTIME, &now);
  return now;
}

/* The try ended and changed nothing on disk: later. */
void pause_reply(relay *r, int64_t id) {
  reply_wait *wait = &r->waits[id];
  wait->pause = link_longer(wait->pause);
  wait->due = boot_now(r) + wait->pause;
}

/* The sendmail of a killed process ended. */
int orphan_cb(sd_event_source *source, const siginfo_t *end, void *user_data) {
  auto *r = static_cast<relay *>(user_data);
  r->child.reset();
  if (outbox_settle(r->state.get(), r->delivering, end, r->settings.outbox) < 0) {
    link_log(phone_state_error(r->state.get()));
    pause_reply(r, r->delivering);
  }
  replies_next(r);
  return 0;
}

int delivered_cb(sd_event_source *source, const siginfo_t *end, void *user_data) {
  auto *r = static_cast<relay *>(user_data);
  r->child.reset();
  pid_t orphan = outbox_orphan(r->delivering, end->si_pid);
  sd_event_source *next = nullptr;
  if (orphan > 0 && sd_event_add_child(link_event(r->link), &next, orphan, WEXITED, orphan_cb, r) >= 0) {
    r->child.reset(next);
    return 0;
  }
  outbox_bury_orphans();
  if (end->si_code != CLD_EXITED || end->si_status != 0) pause_reply(r, r->delivering);
  replies_next(r);
  return 0;
}

int timer_cb(sd_event_source *source, uint64_t usec, void *user_data) {
  replies_next(static_cast<relay *>(user_data));
  return 0;
}

int wake_cb(sd_event_source *source, const inotify_event *event, void *user_data) {
  auto *r = static_cast<relay *>(user_data);
  r->waits.clear(); /* somebody wants them tried now */
  replies_next(r);
  return 0;
}

/* When the entry is due. */
uint64_t due_time(relay *r, const reply_entry &entry, uint64_t now) {
  reply_wait *wait = &r->waits[entry.id];
  if (wait->attempts != entry.attempts) { /* seen for the first time since its last try */
    wait->attempts = entry.attempts;
    int64_t left = entry.state == reply_state::queued ? entry.next_time - relay_now() : 0;
    left = std::clamp<int64_t>(left, 0, std::min(entry.pause, r->settings.outbox.retry_longest));
    wait->due = std::max(wait->pause > 0 ? wait->due : 0, now + static_cast<uint64_t>(left) * kSecond);
    if (entry.state == reply_state::queued) wait->pause = 0;
  }
  return wait->due;
}

/* Starts the entry's process. Returns whether there is one. */
bool start_delivery(relay *r, const reply_entry &entry) {
  std::string error;
  pid_t pid = outbox_spawn(entry.id, r->settings.outbox, &error);
  sd_event_source *source = nullptr;
  if (pid > 0 && sd_event_add_child(link_event(r->link), &source, pid, WEXITED, delivered_cb, r) >= 0) {
    r->child.reset(source);
    r->delivering = entry.id;
    return true;
  }
  link_log(pid > 0 ? "a reply's process cannot be followed" : error);
  pause_reply(r, entry.id);
  return false;
}

void tell_held(relay *r, const reply_entry &entry) {
  if (!r->told.insert(entry.id).second) return;
  std::string number = std::to_string(entry.id);
  link_log("reply " + number + " cannot be sent: " + entry.error + " (brisel-phone relay drop " + number +
           " forgets it)");
}

}  // namespace

void replies_next(relay *r) {
  if (r->child) return;
  std::vector<reply_entry> entries;
  uint64_t now = boot_now(r), next = UINT64_MAX;
  if (reply_list(r->state.get(), &entries) < 0) {
    link_log(phone_state_error(r->state.get()));
    pause_reply(r, 0); /* 0 is no reply's number: the list itself */
    next = r->waits[0].due;
  }
  std::map<int64_t, reply_wait> waits;
  for (const reply_entry &entry : entries) {
    if (entry.state == reply_state::held) tell_held(r, entry);
    if (entry.state == reply_state::held || entry.state == reply_state::sent) continue;
    uint64_t due = due_time(r, entry, now);
    if (due <= now && start_delivery(r, entry)) return;
    next = std::min(next, r->waits[entry.id].due);
    waits[entry.id] = r->waits[entry.id];
  }
  if (!entries.empty()) r->waits = std::move(waits); /* what was sent or dropped is forgotten */
  sd_event_source_set_time(r->reply_timer.get(), next);
  sd_event_source_set_enabled(r->reply_timer.get(), next == UINT64_MAX ? SD_EVENT_OFF : SD_EVENT_ONESHOT);
}

int replies_start(relay *r) {
  sd_event *event = link_event(r->link);
  sd_event_source *timer = nullptr, *wake = nullptr;
  int result = sd_event_add_time(event, &timer, CLOCK_BOOTTIME, UINT64_MAX, kSecond / 10, timer_cb, r);
  r->reply_timer.reset(timer);
  if (result >= 0) result = sd_event_source_set_enabled(timer, SD_EVENT_OFF);
  if (result < 0) return result;
  int fd = open(replies_wake_path().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (fd >= 0) close(fd);
  result = sd_event_add_inotify(event, &wake, replies_wake_path().c_str(), IN_CLOSE_WRITE, wake_cb, r);
  r->wake.reset(wake);
  return result;
}

std::string replies_wake_path() {
  return phone_state_path("wake");
}
