#include "link.h"

#include <signal.h>

#include <algorithm>
#include <cstring>

#include "../mime.h"
#include "mail-files.h"
#include "parser.h"

struct phone_link {
  phone_state *state;
  const link_handlers *handlers;
  void *user_data;
  sd_bus *bus = nullptr;
  sd_event *event = nullptr;
  sd_bus_slot *request_slot = nullptr, *owner_slot = nullptr;
  sd_event_source *retry = nullptr;
  std::string owner; /* the service's bus name while connected */
  uint64_t connected_at = 0;
  uint64_t delay = 0; /* before the next try, in microseconds */
  std::string failure;
  bool failed = false;
  bool told = false; /* that requests cannot be acknowledged; they come again with the next connection */
};

namespace {

constexpr int64_t kSmallestPiece = 512;
constexpr uint64_t kSecond = 1000000, kLongestDelay = 60 * kSecond;
constexpr int kUnknownMail = 1; /* what the service is told when there is no more to give */

int connect_now(phone_link *link);

int retry_cb(sd_event_source *source, uint64_t usec, void *user_data) {
  auto *link = static_cast<phone_link *>(user_data);
  if (link->owner.empty()) connect_now(link);
  return 0;
}

/* One try later, not a beat: with the service in place this timer is off. */
void retry_later(phone_link *link) {
  link->delay = std::clamp(link->delay * 2, kSecond / 4, kLongestDelay);
  uint64_t now = 0;
  sd_event_now(link->event, CLOCK_MONOTONIC, &now);
  if (!link->retry) {
    sd_event_add_time(link->event, &link->retry, CLOCK_MONOTONIC, now + link->delay, 0, retry_cb, link);
  } else {
    sd_event_source_set_time(link->retry, now + link->delay);
    sd_event_source_set_enabled(link->retry, SD_EVENT_ONESHOT);
  }
}

/* Returns 0; 1 when another phone is connected. */
int connect_now(phone_link *link) {
  std::string error, owner;
  int result = host_connect(link->bus, &owner, &error);
  if (result == HOST_BUSY) {
    link_fail(link, error);
    return 1;
  }
  if (result < 0) {
    if (!sd_bus_is_open(link->bus)) {
      link_fail(link, "the session bus is gone");
      return 0;
    }
    if (link->delay == 0) link_log(error + "; waiting for it");
    retry_later(link);
    return 0;
  }
  link->owner = owner;
  link->told = false;
  if (link->retry) sd_event_source_set_enabled(link->retry, SD_EVENT_OFF);
  sd_event_now(link->event, CLOCK_MONOTONIC, &link->connected_at);
  if (link->handlers->connected) link->handlers->connected(link, link->user_data);
  return 0;
}

int owner_changed_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  auto *link = static_cast<phone_link *>(user_data);
  const char *name = nullptr, *before = nullptr, *after = nullptr;
  if (sd_bus_message_read(m, "sss", &name, &before, &after) < 0) return 0;
  if (link->owner == after) return 0;
  bool had = !link->owner.empty();
  link->owner.clear();
  if (*after) {
    link->delay = 0;
    connect_now(link);
  } else if (had) {
    /* It is started again at once, unless it keeps falling over. */
    uint64_t now = 0;
    sd_event_now(link->event, CLOCK_MONOTONIC, &now);
    if (now - link->connected_at > 5 * kSecond) link->delay = 0;
    retry_later(link);
  }
  return 0;
}

void answer_more(phone_link *link, int64_t id, const nlohmann::json &request, int64_t have) {
  std::string piece, error;
  bool complete = false;
  int mail_id = request.value("mail_id", 0);
  std::string uid = request.value("message_uid", std::string());
  int result = more_of_mail(link->state, mail_id, uid, have, &piece, &complete, &error);
  if (result < 0) link_log("more of mail " + std::to_string(mail_id) + ": " + error);
  std::string why;
  if (host_answer_more(link->bus, id, result < 0 ? kUnknownMail : 0, piece, complete, &why) < 0)
    link_log("more of mail " + std::to_string(mail_id) + " was not taken: " + why);
}

/* Only the right types are looked at later: everything else in a request is passed on as it came. */
bool well_formed(const nlohmann::json &request) {
  if (!request.is_object() || !request.contains("request") || !request["request"].is_string()) return false;
  for (const char *key : {"mail_id"})
    if (request.contains(key) && !request[key].is_number_integer()) return false;
  for (const char *key : {"message_uid", "text", "subject", "recipient", "host_tag"})
    if (request.contains(key) && !request[key].is_string()) return false;
  if (request.contains("id_list")) {
    if (!request["id_list"].is_array()) return false;
    for (const auto &id : request["id_list"])
      if (!id.is_number_integer()) return false;
  }
  return true;
}

void take_request(phone_link *link, int64_t id, const char *line, int64_t have) {
  nlohmann::json request = nlohmann::json::parse(line, nullptr, false);
  bool good = well_formed(request);
  bool more = good && request["request"] == "more_msg";
  if (phone_state_begin(link->state) < 0) {
    link_log(phone_state_error(link->state));
    return;
  }
  int fresh = phone_state_add_request(link->state, id, link->owner, line);
  bool ok = fresh >= 0;
  if (ok && fresh == 1 && good && link->handlers->keep) ok = link->handlers->keep(link, request, link->user_data) == 0;
  if (!ok || phone_state_commit(link->state) < 0) {
    link_log(phone_state_error(link->state));
    phone_state_rollback(link->state);
    return;
  }
  if (fresh == 1 && link->handlers->kept)
    link->handlers->kept(link, good ? request : nlohmann::json(), line, link->user_data);
  std::string error;
  if (more) {
    answer_more(link, id, request, have);
    if (phone_state_set_acknowledged(link->state, id) < 0) link_log(phone_state_error(link->state));
    return;
  }
  if (host_acknowledge(link->bus, id, &error) < 0) {
    if (!link->told) link_log("request " + std::to_string(id) + " could not be acknowledged: " + error);
    link->told = true;
    return;
  }
  if (phone_state_set_acknowledged(link->state, id) < 0) link_log(phone_state_error(link->state));
}

int request_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  auto *link = static_cast<phone_link *>(user_data);
  const char *sender = sd_bus_message_get_sender(m);
  /* Anybody on the bus can send such a signal; only the service may. */
  if (!sender || link->owner != sender) return 0;
  int64_t id = 0, have = 0;
  const char *line = nullptr;
  int r = sd_bus_message_read(m, "xs", &id, &line);
  if (r >= 0) r = sd_bus_message_enter_container(m, 'a', "{sv}");
  while (r >= 0 && (r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
    const char *key = nullptr;
    r = sd_bus_message_read(m, "s", &key);
    if (r >= 0 && strcmp(key, "have") == 0)
      r = sd_bus_message_read(m, "v", "x", &have);
    else if (r >= 0)
      r = sd_bus_message_skip(m, "v");
    if (r >= 0) r = sd_bus_message_exit_container(m);
  }
  if (r < 0) {
    link_log(std::string("a request cannot be read: ") + strerror(-r));
    return 0;
  }
  take_request(link, id, line, have);
  return 0;
}

int disconnected_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  link_fail(static_cast<phone_link *>(user_data), "the session bus is gone");
  return 0;
}

int body_of(const sent_mail &mail, std::string *body, std::string *error) {
  if (mail.has_body) {
    *body = mail.body;
    return 0;
  }
  std::string raw;
  mime_limits limits;
  mime_mail parsed;
  if (mail.source.empty()) {
    *error = "the mail went to the watch as a whole";
    return -1;
  }
  if (mail_source_read(mail.source, limits.message, &raw, error) < 0 ||
      parser_read(raw, limits, &parsed, error) != PARSER_DONE)
    return -1;
  if (parsed.message_uid != mail.message_uid) {
    *error = "another mail is in its place";
    return -1;
  }
  *body = parsed.body;
  return 0;
}

}  // namespace

void link_log(const std::string &text) {
  fprintf(stderr, "brisel-phone: %s\n", text.c_str());
}

int more_of_mail(phone_state *state, int mail_id, const std::string &message_uid, int64_t have, std::string *piece,
                 bool *complete, std::string *error) {
  sent_mail mail;
  int found = phone_state_find_mail(state, mail_id, message_uid, &mail);
  if (found <= 0) {
    *error = found < 0 ? phone_state_error(state) : "no such mail was sent from here";
    return -1;
  }
  std::string body;
  if (body_of(mail, &body, error) < 0) return -1;
  /* From where the watch is, not from where the phone thinks it is: a piece that was lost on the way is sent again. */
  size_t from = mime_boundary(body, static_cast<size_t>(std::max<int64_t>(have, 0)));
  size_t size = mail.first > 0 ? static_cast<size_t>(std::max(mail.first, kSmallestPiece)) : body.size();
  size_t end = mime_cut(body, from, size);
  *piece = body.substr(from, end - from);
  *complete = end >= body.size();
  return 0;
}

phone_link *link_open(phone_state *state, const link_handlers *handlers, void *user_data, std::string *error) {
  auto *link = new phone_link{state, handlers, user_data};
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGCHLD);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  link->bus = host_open_bus(error);
  if (!link->bus) {
    link_close(link);
    return nullptr;
  }
  int r = sd_event_new(&link->event);
  if (r >= 0) r = sd_event_add_signal(link->event, nullptr, SIGINT, nullptr, nullptr);
  if (r >= 0) r = sd_event_add_signal(link->event, nullptr, SIGTERM, nullptr, nullptr);
  if (r >= 0) r = sd_bus_attach_event(link->bus, link->event, SD_EVENT_PRIORITY_NORMAL);
  if (r >= 0)
    r = sd_bus_match_signal(link->bus, &link->request_slot, nullptr, host_path, host_phone_interface, "Request",
                            request_cb, link);
  if (r >= 0)
    r = sd_bus_add_match(link->bus, &link->owner_slot,
                         "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
                         "member='NameOwnerChanged',arg0='com.vextora.brisel.Host'",
                         owner_changed_cb, link);
  if (r >= 0)
    r = sd_bus_match_signal(link->bus, nullptr, "org.freedesktop.DBus.Local", nullptr, "org.freedesktop.DBus.Local",
                            "Disconnected", disconnected_cb, link);
  if (r < 0) {
    *error = std::string("the session bus cannot be used: ") + strerror(-r);
    link_close(link);
    return nullptr;
  }
  /* The loop has not run yet, but its clock is read. */
  if (connect_now(link) != 0 || link->failed) {
    *error = link->failure;
    link_close(link);
    return nullptr;
  }
  return link;
}

int link_run(phone_link *link, std::string *error) {
  int r = sd_event_loop(link->event);
  if (link->failed) *error = link->failure;
  if (!link->failed && r < 0) *error = std::string("the event loop ended: ") + strerror(-r);
  return link->failed || r < 0 ? -1 : 0;
}

void link_stop(phone_link *link) {
  sd_event_exit(link->event, 0);
}

void link_fail(phone_link *link, const std::string &error) {
  if (!link->failed) link->failure = error;
  link->failed = true;
  sd_event_exit(link->event, 0);
}

void link_close(phone_link *link) {
  if (!link) return;
  sd_event_source_disable_unref(link->retry);
  sd_bus_slot_unref(link->request_slot);
  sd_bus_slot_unref(link->owner_slot);
  if (link->bus) {
    sd_bus_detach_event(link->bus);
    sd_bus_flush_close_unref(link->bus);
  }
  sd_event_unref(link->event);
  delete link;
}

sd_event *link_event(phone_link *link) {
  return link->event;
}
sd_bus *link_bus(phone_link *link) {
  return link->bus;
}
bool link_is_connected(phone_link *link) {
  return !link->owner.empty();
}
