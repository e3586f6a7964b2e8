/*
 * The link to a watch that is another machine: opened, kept alive, lost, and opened again without end.
 *
 * Opening waits for nothing here: the loop goes on while a program looks for the way. Life is known by what comes;
 * after a while without a word the phone asks for one. Over Bluetooth the controller watches the link, and nobody asks.
 * link-connection.cpp starts it, and it is told of the network; nothing else calls it.
 */
#include <algorithm>
#include <bit>
#include <cstring>
#include <ctime>

#include "link-parts.h"

namespace {

constexpr uint64_t kSecond = kUsecPerSecond, kOpenPatience = 30 * kSecond, kDoubtPatience = 3 * kSecond;
/* A way that was there not long ago is looked for once a second: then it is found soon after it is open. */
constexpr uint64_t kRecentSeconds = 600, kRecent = kRecentSeconds * kSecond, kLongestRecentDelay = kSecond,
                   kShortestPause = kSecond / 10;
/* A try that nobody answers is given up: the kernel repeats what it sent first ever more seldom, and a new try sends at
   once. So is one that reached somebody and takes far longer than the last that succeeded; but the tries of these
   numbers get all the time there is, for a network that became slow. */
constexpr uint64_t kKnockPatience = 5 * kSecond / 4, kTryPatience = 10 * kSecond;
constexpr unsigned kPatientTry = 4; /* and 8, 16, 32, ... */
constexpr char kSilence[] = "the watch does not answer";
constexpr uint64_t kSettle = kSecond / 5; /* changes of the network come in groups */

uint64_t boot_now() {
  timespec now = {};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * kSecond + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

void open_now(phone_link *link);

int retry_cb(sd_event_source *source, uint64_t usec, void *user_data) {
  open_now(static_cast<phone_link *>(user_data));
  return 0;
}

/* The connection is freed from the loop, not from one of its own callbacks. */
int drop_cb(sd_event_source *source, void *user_data) {
  auto *link = static_cast<phone_link *>(user_data);
  if (link->stage == link_stage::down) link->bus.reset();
  return 0;
}

/* What the next try waits for. */
enum class hope {
  way,     /* that there is one again */
  changes, /* on the watch, which was reached: each try wakes it up */
  none     /* nothing but time, people or another network will help */
};

/* From the beginning of one try to that of the next: one that took long is followed at once. */
void retry_later(phone_link *link, hope what) {
  uint64_t longest = link->target.pace.again_after * kSecond, now = boot_now(), since = now - link->opened_at;
  if (what == hope::way && now - link->lost_at < kRecent) longest = std::min(longest, kLongestRecentDelay);
  link->delay = what == hope::none ? longest : std::clamp(link->delay * 2, std::min(kShortestDelay, longest), longest);
  if (what != hope::way) since = 0;
  uint64_t left = link->delay > since ? link->delay - since : 0;
  link_timer(link, &link->retry, std::max(left, kShortestPause), retry_cb);
}

/* How late an alarm may be: there is time when life is asked for, and none in a try. */
void set_alarm(phone_link *link, uint64_t at, uint64_t late) {
  sd_event_source_set_time_accuracy(link->ping, late);
  sd_event_source_set_time(link->ping, at);
  sd_event_source_set_enabled(link->ping, SD_EVENT_ONESHOT);
}

/* However many changes follow the first one. */
void retry_soon(phone_link *link) {
  uint64_t now = 0, due = 0;
  sd_event_now(link->event, CLOCK_MONOTONIC, &now);
  bool waits = link->retry && sd_event_source_get_enabled(link->retry, nullptr) > 0 &&
               sd_event_source_get_time(link->retry, &due) >= 0;
  if (!waits || due > now + kSettle) link_timer(link, &link->retry, kSettle, retry_cb);
}

void end_stream(phone_link *link) {
  link->stage = link_stage::down;
  link->asked_at = 0;
  for (sd_bus_slot **slot : {&link->call, &link->connect}) *slot = sd_bus_slot_unref(*slot);
  knock_end(link);
  if (link->ping) sd_event_source_set_enabled(link->ping, SD_EVENT_OFF);
  if (link->bus) host_hang_up(link->bus.get());
  sd_event_source_set_enabled(link->drop, SD_EVENT_ONESHOT);
}

void lose(phone_link *link, const std::string &why, hope what) {
  if (link->stage == link_stage::down) return;
  if (link->stage != link_stage::opening) {
    link->lost_at = boot_now();
    link->delay = 0;
    link->unanswered = 0;
    network_watch_neighbours(link, true);
  }
  end_stream(link);
  link_is_down(link, why.empty() ? why : link->target.name + ": " + why);
  retry_later(link, what);
}

/* --- life --- */

/* Asks for a sign of life, until `patience` is over. */
int pong_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  auto *link = static_cast<phone_link *>(user_data);
  /* An error is a sign of life too; only what is made up here at the end of a stream is not. */
  if (link->stage != link_stage::down && sd_bus_is_open(link->bus->bus)) link->bus->heard = boot_now();
  return 0;
}

void ask_for_life(phone_link *link, uint64_t patience) {
  uint64_t now = boot_now();
  if (link->asked_at == 0) {
    int r = sd_bus_call_method_async(link->bus->bus, nullptr, nullptr, "/", "org.freedesktop.DBus.Peer", "Ping",
                                     pong_cb, link, "");
    if (r < 0) return; /* the stream is ending; its end is told of by itself */
    link->asked_at = now;
    link->answer_due = now + patience;
  }
  link->answer_due = std::min(link->answer_due, now + patience);
  sd_event_source_set_time(link->ping, link->answer_due);
  sd_event_source_set_enabled(link->ping, SD_EVENT_ONESHOT);
}

/* A try has taken long. */
void doubt_try(phone_link *link) {
  uint64_t until = link->opened_at + kTryPatience + 2 * link->took;
  sockaddr_storage to;
  bool knocks = carrier_knocks(link->bus->way, &to), tried = boot_now() >= until;
  if (!knocks && link->took == 0) return; /* nobody knows how long it takes here */
  if (!knocks && !tried) {
    set_alarm(link, until, 1);
    return;
  }
  if (!knocks && ++link->unanswered >= kPatientTry && std::has_single_bit(link->unanswered)) return;
  lose(link, link->trouble.empty() ? kSilence : "", hope::way); /* silence tells nothing new */
}

/* Comes after everything that arrived was looked at. */
int ping_cb(sd_event_source *source, uint64_t usec, void *user_data) {
  auto *link = static_cast<phone_link *>(user_data);
  if (link->stage == link_stage::opening) {
    doubt_try(link);
    return 0;
  }
  if (link->stage == link_stage::down) return 0;
  uint64_t now = boot_now();
  if (link->asked_at != 0 && link->bus->heard < link->asked_at) {
    if (now >= link->answer_due) {
      lose(link, kSilence, hope::way);
      return 0;
    }
    sd_event_source_set_time(source, link->answer_due);
    return sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
  }
  link->asked_at = 0;
  uint64_t due = link->bus->heard + link->target.pace.ping_after * kSecond;
  if (now >= due) {
    ask_for_life(link, link->target.pace.ping_answer * kSecond);
    return 0;
  }
  sd_event_source_set_time(source, due);
  return sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
}

bool pings(const phone_link &link) {
  return link.target.address.kind != carrier_kind::bluetooth && link.target.pace.ping_after > 0;
}

/* --- the first words --- */

hope hope_after_end(const phone_link &link) {
  return host_stream_was_answered(*link.bus) ? hope::changes : hope::way;
}

/* The watch was reached: open, or refused. */
void reached(phone_link *link, link_stage stage) {
  link->stage = stage;
  knock_end(link);
  link->delay = 0;
  link->asked_at = 0;
  link->unanswered = 0;
  link->took = boot_now() - link->opened_at;
  if (pings(*link))
    set_alarm(link, boot_now() + link->target.pace.ping_after * kSecond, kSecond);
  else
    sd_event_source_set_enabled(link->ping, SD_EVENT_OFF);
  network_watch_neighbours(link, false);
}

int connected_cb(sd_bus_message *m, void *user_data, sd_bus_error *ignored) {
  auto *link = static_cast<phone_link *>(user_data);
  std::string error;
  int result = host_connected(link->bus.get(), m, &error);
  for (sd_bus_slot **slot : {&link->call, &link->connect}) *slot = sd_bus_slot_unref(*slot);
  if (result == HOST_BUSY) error = "the watch is busy: " + error;
  if (result == HOST_OK) {
    reached(link, link_stage::open);
    link_is_up(link);
  } else if (result == HOST_BUSY && link->bus->watch.free) {
    reached(link, link_stage::refused);
    link_is_down(link, link->target.name + ": " + error);
    share_linked(link);
  } else {
    lose(link, error, result == HOST_AWAY ? hope_after_end(*link) : hope::changes);
  }
  return 0;
}

int free_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  auto *link = static_cast<phone_link *>(user_data);
  if (link->stage == link_stage::refused && !link->call &&
      host_connect_begin(link->bus.get(), kOpenPatience, connected_cb, link, &link->call) < 0)
    lose(link, host_stream_trouble(*link->bus), hope_after_end(*link));
  return 0;
}

int introduced_cb(sd_bus_message *m, void *user_data, sd_bus_error *ignored) {
  auto *link = static_cast<phone_link *>(user_data);
  std::string error;
  int result = host_introduced(link->bus.get(), m, &error);
  link->call = sd_bus_slot_unref(link->call);
  link->fits = result == HOST_OK;
  if (result == HOST_OK && !link->connect &&
      host_connect_begin(link->bus.get(), kOpenPatience, connected_cb, link, &link->call) < 0) {
    result = HOST_AWAY;
    error = host_stream_trouble(*link->bus);
  }
  if (result == HOST_OK) return 0;
  lose(link, error, result == HOST_REFUSED ? hope::none : hope_after_end(*link));
  return 0;
}

int gone_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  auto *link = static_cast<phone_link *>(user_data);
  if (link->stage != link_stage::down) lose(link, host_stream_trouble(*link->bus), hope_after_end(*link));
  return 0;
}

int replaced_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  auto *link = static_cast<phone_link *>(user_data);
  if (link->stage != link_stage::open) return 0;
  lose(link, link_replaced, hope::none); /* or the two would take turns without end */
  return 0;
}

int follow(phone_link *link) {
  int r = link_follow(link, replaced_cb, gone_cb);
  if (r >= 0)
    r = sd_bus_match_signal(link->bus->bus, nullptr, nullptr, host_path, phone_interface, "Free", free_cb, link);
  if (r >= 0) r = host_introduce_begin(link->bus.get(), link->me, kOpenPatience, introduced_cb, link, &link->call);
  /* It travels with the first word, where nothing else is expected: a way there and back is saved. */
  if (r >= 0 && link->fits) r = host_connect_begin(link->bus.get(), kOpenPatience, connected_cb, link, &link->connect);
  return r;
}

/* How long the kernel repeats what opens a connection once a second. */
uint64_t knocks_evenly() {
  unsigned seconds = 0;
  FILE *f = fopen("/proc/sys/net/ipv4/tcp_syn_linear_timeouts", "re");
  if (f && fscanf(f, "%u", &seconds) != 1) seconds = 0;
  if (f) fclose(f);
  return std::clamp(seconds, 1u, 8u) * kSecond;
}

/* Over Bluetooth the controller keeps calling the device until it answers: a new try would do no better. */
void give_up_in_time(phone_link *link) {
  if (link->target.address.kind != carrier_kind::bluetooth)
    set_alarm(link, link->opened_at + knocks_evenly() + kKnockPatience, 1);
}

void open_now(phone_link *link) {
  if (link->stage != link_stage::down) return;
  std::string error;
  link->opened_at = boot_now();
  link->bus = host_open_stream(link->target.address, link->target.keys, &error);
  int r = 0;
  if (link->bus) {
    link->bus->nudge_fd = link->network_fd;
    link->bus->patience = link->target.pace.call_answer * kSecond;
    link->stage = link_stage::opening;
    give_up_in_time(link);
    if (link->opened_at - link->lost_at < kRecent) knock_start(link);
    r = follow(link);
    if (r < 0) error = std::string("the link cannot be used: ") + strerror(-r);
  }
  if (link->bus && r >= 0) return;
  end_stream(link);
  link_is_down(link, link->target.name + ": " + error);
  retry_later(link, hope::changes);
}

int add_sources(phone_link *link) {
  int r = sd_event_add_defer(link->event, &link->drop, drop_cb, link);
  if (r >= 0) r = sd_event_source_set_enabled(link->drop, SD_EVENT_OFF);
  if (r >= 0) r = sd_event_add_time(link->event, &link->ping, CLOCK_BOOTTIME, UINT64_MAX, kSecond, ping_cb, link);
  if (r >= 0) r = sd_event_source_set_priority(link->ping, SD_EVENT_PRIORITY_NORMAL + 10);
  if (r >= 0) r = sd_event_source_set_enabled(link->ping, SD_EVENT_OFF);
  return r;
}

}  // namespace

int stream_start(phone_link *link, std::string *error) {
  int r = add_sources(link);
  if (r < 0) {
    *error = std::string("the event loop cannot be set up: ") + strerror(-r);
    return -1;
  }
  network_follow(link);
  network_watch_neighbours(link, true);
  share_start(link);
  link->lost_at = boot_now();
  open_now(link);
  return 0;
}

void stream_network_changed(phone_link *link, bool gone) {
  uint64_t now = boot_now();
  if (link->stage == link_stage::open || link->stage == link_stage::refused) {
    if (gone) ask_for_life(link, kDoubtPatience);
    return;
  }
  link->lost_at = now; /* there is a reason to look for it often again */
  link->delay = 0;
  link->unanswered = 0;
  link->took = 0;
  if (link->stage == link_stage::opening) {
    if (now - link->opened_at < kSecond) return; /* it knows the new network already, or will fail soon */
    end_stream(link);
  }
  retry_soon(link);
}

void stream_neighbour_came(phone_link *link) {
  if (link->stage == link_stage::down && boot_now() - link->opened_at > kSecond) retry_soon(link);
}

void stream_way_is_open(phone_link *link) {
  end_stream(link);
  open_now(link);
}

void stream_keep_alive(phone_link *link) {
  uint64_t now = boot_now();
  if (link->stage != link_stage::open || !pings(*link)) return;
  const uint64_t every = std::min<uint64_t>(pair_word_every, link->target.pace.ping_after) * kSecond;
  const uint64_t after = std::max(link->bus->heard, link->kept_alive_at) + every;
  if (now < after) return;
  link->kept_alive_at = now;
  sd_bus_call_method_async(link->bus->bus, nullptr, nullptr, "/", "org.freedesktop.DBus.Peer", "Ping", pong_cb, link,
                           "");
}

void stream_end(phone_link *link) {
  for (sd_bus_slot **slot : {&link->call, &link->connect}) *slot = sd_bus_slot_unref(*slot);
  knock_end(link);
  for (sd_event_source **source : {&link->ping, &link->drop, &link->network})
    *source = sd_event_source_disable_unref(*source);
  if (link->network_fd >= 0) close(link->network_fd);
  link->network_fd = -1;
}
