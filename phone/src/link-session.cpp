/* The link to the service on this machine's session bus: it may start, stop and restart; a bus that is gone is the end
   of the login, and of this process with it. link-connection.cpp starts it; nothing else calls it. */
#include <algorithm>
#include <cstring>

#include "link-parts.h"

namespace {

void connect_now(phone_link *link);

int retry_cb(sd_event_source *source, uint64_t usec, void *user_data) {
  auto *link = static_cast<phone_link *>(user_data);
  if (!link->connected) connect_now(link);
  return 0;
}

/* One try later, not a beat: with the service in place this timer is off. */
void retry_later(phone_link *link) {
  link->delay = std::clamp(link->delay * 2, kShortestDelay, kLongestDelay);
  link_timer(link, &link->retry, link->delay, retry_cb);
}

void connect_now(phone_link *link) {
  std::string error;
  int result = host_introduce(link->bus.get(), link->me, &error);
  if (result == HOST_OK) result = host_connect(link->bus.get(), &error);
  if (result == HOST_OK) {
    if (link->retry) sd_event_source_set_enabled(link->retry, SD_EVENT_OFF);
    link_is_up(link);
    return;
  }
  if (!sd_bus_is_open(link->bus->bus)) {
    link_fail(link, "the session bus is gone");
    return;
  }
  link_is_down(link, result == HOST_BUSY ? "the watch is busy: " + error : error);
  retry_later(link);
}

/* A copy of this phone, on another machine, is linked now: not at once, or the two would take turns without end. */
int replaced_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  auto *link = static_cast<phone_link *>(user_data);
  const char *sender = sd_bus_message_get_sender(m);
  if (!link->connected || !sender || link->owner != sender) return 0;
  link_is_down(link, link_replaced);
  link->delay = kLongestDelay;
  retry_later(link);
  return 0;
}

int owner_changed_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  auto *link = static_cast<phone_link *>(user_data);
  const char *name = nullptr, *before = nullptr, *after = nullptr;
  if (sd_bus_message_read(m, "sss", &name, &before, &after) < 0) return 0;
  /* News of a process before the one that is connected came late: what this one sent must not be forgotten for it, as
     it is not sent again. */
  if (link->connected && (link->owner == after || link->owner != before)) return 0;
  bool had = link->connected;
  link->bus->owner.clear();
  link_is_down(link, "");
  if (*after) {
    link->delay = 0;
    link_timer(link, &link->retry, 0, retry_cb);
  } else if (had) {
    /* It is started again at once, unless it keeps falling over. */
    uint64_t now = 0;
    sd_event_now(link->event, CLOCK_MONOTONIC, &now);
    if (now - link->connected_at > 5 * kUsecPerSecond) link->delay = 0;
    retry_later(link);
  }
  return 0;
}

int disconnected_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  auto *link = static_cast<phone_link *>(user_data);
  link_is_down(link, "");
  link_fail(link, "the session bus is gone");
  return 0;
}

int follow_bus(phone_link *link) {
  int r = link_follow(link, replaced_cb, disconnected_cb);
  if (r < 0) return r;
  return sd_bus_add_match(link->bus->bus, nullptr,
                          "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
                          "member='NameOwnerChanged',arg0='com.vextora.brisel.Host'",
                          owner_changed_cb, link);
}

}  // namespace

int session_start(phone_link *link, std::string *error) {
  link->bus = host_open_session(error);
  if (!link->bus) return -1;
  int r = follow_bus(link);
  if (r < 0) {
    *error = std::string("the session bus cannot be used: ") + strerror(-r);
    return -1;
  }
  connect_now(link);
  if (!link->failed) return 0;
  *error = link->failure;
  return -1;
}
