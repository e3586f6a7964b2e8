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
  /* When what came of it is on disk, what is left behind is no sendmail that has the message yet. */
  bool noted = end->si_code == CLD_EXITED && end->si_status == 0;
  pid_t orphan = noted ? 0 : outbox_orphan(r->delivering, end->si_pid);
  sd_event_source *next = nullptr;
  if (orphan > 0 && sd_event_add_child(link_event(r->link), &next, orphan, WEXITED, orphan_cb, r) >= 0) {
    r->child.reset(next);
    return 0;
  }
  outbox_bury_orphans();
  if (!noted) pause_reply(r, r->delivering);
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

/* --- what the watch is told --- */

struct reply_outcome {
  const char *state = nullptr; /* NULL: nothing yet */
  std::string reason;
};

reply_outcome outcome_of(const reply_entry &entry) {
  switch (entry.state) {
    case reply_state::sent:
      return {outcome_sent, ""};
    case reply_state::held:
      return {outcome_refused, entry.recipient.empty() ? outcome_no_address : entry.error};
    case reply_state::dropped:
      return {outcome_refused, "it was dropped on the phone"};
    default:
      return entry.error.empty() ? reply_outcome() : reply_outcome{outcome_waits, entry.error};
  }
}

/* Returns 0 when the watch has it on its disk, and that is on ours. */
int tell_outcome(relay *r, const reply_entry &entry, const reply_outcome &outcome, const std::string &told) {
  std::string error;
  int result = host_outcome(link_bus(r->link), entry.uid, outcome.state, outcome.reason, &error);
  if (result == HOST_OK || result == HOST_REFUSED) { /* what it refuses once it refuses always */
    if (result == HOST_REFUSED)
      link_log("reply " + std::to_string(entry.id) + ": the watch was told in vain: " + error);
    if (reply_set_told(r->state.get(), entry.id, told, entry.state == reply_state::dropped) == 0) return 0;
    error = phone_state_error(r->state.get());
  }
  if (r->telling.pause == 0) link_log("reply " + std::to_string(entry.id) + ": the watch is told later: " + error);
  return -1;
}

/* Tells one outcome that it does not know yet. Returns when to look again, 0 for at once: between one call and the next
   the loop hears the link, which would be taken for dead behind many of them in a row. */
uint64_t tell_outcomes(relay *r, const std::vector<reply_entry> &entries, uint64_t now) {
  if (!link_is_connected(r->link)) return UINT64_MAX; /* the next connection tells */
  if (r->telling.due > now) return r->telling.due;
  for (const reply_entry &entry : entries) {
    if (r->child && entry.id == r->delivering) continue; /* dropped perhaps, yet sent: its end brings here again */
    reply_outcome outcome = outcome_of(entry);
    if (!outcome.state || entry.uid.empty()) continue;
    std::string told = outcome.reason.empty() ? outcome.state : outcome.state + (" " + outcome.reason);
    if (told == entry.told) continue;
    if (tell_outcome(r, entry, outcome, told) == 0) {
      r->telling = {};
      return 0;
    }
    r->telling.pause = link_longer(r->telling.pause);
    return r->telling.due = now + r->telling.pause;
  }
  r->telling = {};
  return UINT64_MAX;
}

void tell_held(relay *r, const reply_entry &entry) {
  if (!r->told.insert(entry.id).second) return;
  std::string number = std::to_string(entry.id);
  link_log("reply " + number + " cannot be sent: " + entry.error + " (brisel-phone relay drop " + number +
           " forgets it)");
}

/* Starts the first that is due. Returns when the next one is; UINT64_MAX while one is handed over, for its end brings
   here again. */
uint64_t deliver_due(relay *r, const std::vector<reply_entry> &entries, uint64_t now) {
  if (r->child) return UINT64_MAX;
  uint64_t next = UINT64_MAX;
  std::map<int64_t, reply_wait> waits;
  for (const reply_entry &entry : entries) {
    if (entry.state == reply_state::held) tell_held(r, entry);
    if (entry.state != reply_state::queued && entry.state != reply_state::sending) continue;
    uint64_t due = due_time(r, entry, now);
    if (due <= now && start_delivery(r, entry)) return UINT64_MAX;
    next = std::min(next, r->waits[entry.id].due);
    waits[entry.id] = r->waits[entry.id];
  }
  if (!entries.empty()) r->waits = std::move(waits); /* what was sent or dropped is forgotten */
  return next;
}

}  // namespace

void replies_next(relay *r) {
  std::vector<reply_entry> entries;
  uint64_t now = boot_now(r), next = UINT64_MAX;
  if (reply_list(r->state.get(), &entries) < 0) {
    link_log(phone_state_error(r->state.get()));
    pause_reply(r, 0); /* 0 is no reply's number: the list itself */
    next = r->waits[0].due;
  }
  next = std::min(next, tell_outcomes(r, entries, now));
  next = std::min(next, deliver_due(r, entries, now));
  sd_event_source_set_time(r->reply_timer.get(), next);
  sd_event_source_set_enabled(r->reply_timer.get(), next == UINT64_MAX ? SD_EVENT_OFF : SD_EVENT_ONESHOT);
}

void replies_connected(relay *r) {
  r->telling = {};
  if (!r->reply_timer) return; /* the start looks by itself */
  sd_event_source_set_time(r->reply_timer.get(), 0);
  sd_event_source_set_enabled(r->reply_timer.get(), SD_EVENT_ONESHOT);
}

int replies_start(relay *r) {
  sd_event *event = link_event(r->link);
  sd_event_source *timer = nullptr, *wake = nullptr;
  int result = sd_event_add_time(event, &timer, CLOCK_BOOTTIME, UINT64_MAX, kSecond / 10, timer_cb, r);
  r->reply_timer.reset(timer);
  if (result >= 0) result = sd_event_source_set_enabled(timer, SD_EVENT_OFF);
  if (result < 0) return result;
  int fd = open(replies_wake_path().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd >= 0) close(fd);
  result = sd_event_add_inotify(event, &wake, replies_wake_path().c_str(), IN_CLOSE_WRITE, wake_cb, r);
  r->wake.reset(wake);
  return result;
}

std::string replies_wake_path() {
  return phone_state_path("wake");
}
