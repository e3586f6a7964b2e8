/* What the connections of both kinds share: the loop, its end, and what follows when the watch comes and goes. Whoever
   holds the link calls link.h; the other files of the link call what link-parts.h names. */
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "link-parts.h"
#include "parser.h"
#include "platform-stop.h"
#include "state-relay.h"

namespace {

constexpr uint64_t kSecond = 1000000, kLookEvery = 10000; /* microseconds */

/* --- the end --- */

int stopped_cb(sd_event_source *source, int fd, uint32_t revents, void *user_data) {
  return sd_event_exit(static_cast<phone_link *>(user_data)->event, 0);
}

int catch_signals(phone_link *link) {
  link->stop_fd = platform_stop_open();
  if (link->stop_fd < 0) return -errno;
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  sigprocmask(SIG_BLOCK, &child, nullptr);
  return sd_event_add_io(link->event, nullptr, link->stop_fd, EPOLLIN, stopped_cb, link);
}

int set_up(phone_link *link, std::string *error) {
  if (phone_identity_load(&link->me, error) < 0) return -1;
  link->lock_fd = phone_state_lock("link.lock", error);
  if (link->lock_fd < 0) {
    if (error->empty()) *error = "this phone is linked already: another relay or serve runs";
    return -1;
  }
  int r = sd_event_new(&link->event);
  if (r >= 0) r = catch_signals(link);
  if (r >= 0) r = requests_start(link);
  if (r < 0) *error = std::string("the event loop cannot be set up: ") + strerror(-r);
  return r < 0 ? -1 : 0;
}

/* A message takes long to read. Whoever waits for more of a text waits on: that would have to be read, too. */
void reading_cb(void *user_data) {
  auto *link = static_cast<phone_link *>(user_data);
  stream_keep_alive(link);
  requests_hear(link);
}

/* What `relay status` and `watches` tell of the link. */
void note_link(phone_link *link) {
  std::string name = link->bus ? link->bus->watch.name : "";
  nlohmann::json note = {{"watch", name},
                         {"linked_since", link->connected ? link->last_seen : 0},
                         {"last_seen", link->last_seen},
                         {"trouble", link->trouble}};
  std::string text = note.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  if (relay_note_set(link->state, note_of_link, text) < 0) link_log(phone_state_error(link->state));
}

}  // namespace

void link_log(const std::string &text) {
  fprintf(stderr, "brisel-phone: %s\n", text.c_str());
}

uint64_t link_longer(uint64_t pause) {
  return std::clamp(pause * 2, kSecond, 60 * kSecond);
}

void link_timer(phone_link *link, sd_event_source **source, uint64_t delay, sd_event_time_handler_t callback,
                void *user_data) {
  uint64_t now = 0;
  sd_event_now(link->event, CLOCK_MONOTONIC, &now);
  if (!*source) {
    sd_event_add_time(link->event, source, CLOCK_MONOTONIC, now + delay, 1, callback, user_data ? user_data : link);
    return;
  }
  sd_event_source_set_time(*source, now + delay);
  sd_event_source_set_enabled(*source, SD_EVENT_ONESHOT);
}

phone_link *link_open(phone_state *state, const link_handlers *handlers, void *user_data, std::string *error) {
  phone_link_holder link(new phone_link);
  link->target = watch_chosen();
  link->state = state;
  link->handlers = handlers;
  link->user_data = user_data;
  link->me.outcomes = handlers->tells_outcomes;
  link->last_seen = link_report_read(state).last_seen;
  if (set_up(link.get(), error) < 0) return nullptr;
  parser_meanwhile(reading_cb, link.get());
  bool session = link->target.address.kind == carrier_kind::session;
  /* The loop has not run yet, but its clock is read. */
  if ((session ? session_start(link.get(), error) : stream_start(link.get(), error)) < 0) return nullptr;
  return link.release();
}

void link_is_up(phone_link *link) {
  link->connected = true;
  link->told = false;
  link->owner = link->bus->owner;
  if (!link->trouble.empty())
    link_log("linked with " + (link->bus->watch.name.empty() ? link->target.name : link->bus->watch.name));
  link->trouble.clear();
  link->last_seen = static_cast<int64_t>(time(nullptr));
  sd_event_now(link->event, CLOCK_MONOTONIC, &link->connected_at);
  note_link(link);
  share_linked(link);
  if (link->handlers->connected) link->handlers->connected(link, link->user_data);
}

void link_is_down(phone_link *link, const std::string &why) {
  bool had = link->connected, fresh = !why.empty() && why != link->trouble;
  link->connected = false;
  requests_forget(link);
  if (fresh) {
    link->trouble = why;
    link_log(why + "; waiting for it");
  }
  if (had) link->last_seen = static_cast<int64_t>(time(nullptr));
  if (had || fresh) note_link(link);
}

int link_follow(phone_link *link, sd_bus_message_handler_t replaced_cb, sd_bus_message_handler_t ended_cb) {
  constexpr char local[] = "org.freedesktop.DBus.Local";
  sd_bus *bus = link->bus->bus;
  int r = sd_bus_attach_event(bus, link->event, SD_EVENT_PRIORITY_NORMAL);
  if (r >= 0) r = sd_bus_match_signal(bus, nullptr, nullptr, host_path, phone_interface, "Request", request_cb, link);
  if (r >= 0) r = sd_bus_match_signal(bus, nullptr, nullptr, host_path, phone_interface, "Replaced", replaced_cb, link);
  return r < 0 ? r : sd_bus_match_signal(bus, nullptr, local, nullptr, local, "Disconnected", ended_cb, link);
}

int link_run(phone_link *link, std::string *error) {
  int r = sd_event_loop(link->event);
  if (link->failed) *error = link->failure;
  if (!link->failed && r < 0) *error = std::string("the event loop ended: ") + strerror(-r);
  return link->failed || r < 0 ? -1 : 0;
}

void link_fail(phone_link *link, const std::string &error) {
  if (!link->failed) link->failure = error;
  link->failed = true;
  sd_event_exit(link->event, 0);
}

void link_close(phone_link *link) {
  if (!link) return;
  parser_meanwhile(nullptr, nullptr);
  if (link->connected) link_is_down(link, "");
  for (sd_event_source *source : {link->retry, link->take, link->resend}) sd_event_source_disable_unref(source);
  share_end(link);
  stream_end(link);
  link->bus.reset();
  if (link->stop_fd >= 0) platform_stop_close();
  if (link->lock_fd >= 0) close(link->lock_fd);
  sd_event_unref(link->event);
  delete link;
}

sd_event *link_event(phone_link *link) {
  return link->event;
}
host_bus *link_bus(phone_link *link) {
  return link->bus.get();
}
bool link_is_connected(phone_link *link) {
  return link->connected;
}
void link_stay_alive(phone_link *link) {
  /* Called for every message; to look whether something came costs as much as reading one's header. */
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const uint64_t at = static_cast<uint64_t>(now.tv_sec) * kSecond + static_cast<uint64_t>(now.tv_nsec) / 1000;
  if (at - link->looked_at < kLookEvery) return;
  link->looked_at = at;
  stream_keep_alive(link);
  requests_take_urgent(link);
  share_serve(link);
}
link_flow_limits link_flow(phone_link *link) {
  /* Over a stream an answer takes its time, which the next calls need not wait for; and no call is so large that a
     slow link seems dead. */
  return link->target.address.kind == carrier_kind::session ? link_flow_limits{1, 4u << 20}
                                                            : link_flow_limits{4, 16u << 10};
}
