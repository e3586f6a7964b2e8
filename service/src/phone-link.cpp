#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <set>

#include "brisel-settings.h"
#include "host.h"
#include "store-format.h"
#include "vconf.h"

namespace {

constexpr unsigned refused_max = 64; /* connections; those that end are forgotten */
/* Texts that the phone is asked for at once, and calls that wait for one: each holds a message. */
constexpr size_t more_max = 64, more_callers_max = 64;
/* Microseconds that what comes of a reply is waited for: mostly it is sent in a moment. */
constexpr uint64_t outcome_comes = 2000000;

void set_link(host *h, bool up) {
  /* The store says so first: after a kill in between, the next start knows that the setting may be ours to take back.
   */
  if (up && store_set_state(h->st, "phone_connected", 1) != store_ok)
    fprintf(stderr, "brisel-hostd: %s\n", store_error(h->st).c_str());
  if (vconf_set_bool(BRISEL_KEY_BT_CONNECTED, up) != 0)
    fprintf(stderr, "brisel-hostd: the setting %s cannot be written\n", BRISEL_KEY_BT_CONNECTED);
  if (!up && store_set_state(h->st, "phone_connected", 0) != store_ok)
    fprintf(stderr, "brisel-hostd: %s\n", store_error(h->st).c_str());
}

void answer_error(sd_bus_message *caller, const char *name, const char *text) {
  const sd_bus_error error = {name, text, 0};
  const int r = sd_bus_reply_method_error(caller, &error);
  if (r < 0) fprintf(stderr, "brisel-hostd: an answer could not be sent: %s\n", strerror(-r));
}

using more_place = std::list<more_request>::iterator;

/* Takes the request out of the list and answers all who wait for it: with the mail's id, or with an error. */
void finish_more(host *h, more_place place, const char *error, const char *text) {
  more_request request = std::move(*place);
  h->more.erase(place);
  sd_event_source_disable_unref(request.timer);
  for (sd_bus_message *caller : request.callers) {
    if (error) {
      answer_error(caller, error, text);
    } else {
      const int r = sd_bus_reply_method_return(caller, "ai", 1, request.mail_id);
      if (r < 0) fprintf(stderr, "brisel-hostd: an answer could not be sent: %s\n", strerror(-r));
    }
    sd_bus_message_unref(caller);
  }
}

int more_timeout_cb(sd_event_source *source, uint64_t usec, void *data) {
  host *h = static_cast<host *>(data);
  for (more_place place = h->more.begin(); place != h->more.end(); ++place)
    if (place->timer == source) {
      finish_more(h, place, HOST_ERROR "Timeout", "the phone did not answer in time");
      break;
    }
  return 0;
}

int track_cb(sd_bus_track *track, void *data) {
  link_disconnect(static_cast<host *>(data));
  return 0;
}

/* uid: by which the phone tells what came of it; have: bytes of a body, or -1. */
int send_request(host *h, int64_t id, const std::string &json, const std::string &uid, int64_t have) {
  sd_bus_message *m = nullptr;
  int r = sd_bus_message_new_signal(h->bus, &m, host_path, phone_interface, "Request");
  if (r >= 0) r = sd_bus_message_set_destination(m, h->phone.c_str());
  if (r >= 0) r = sd_bus_message_append(m, "xs", id, clean_text(json).c_str());
  if (r >= 0) r = sd_bus_message_open_container(m, 'a', "{sv}");
  if (r >= 0 && have >= 0) r = sd_bus_message_append(m, "{sv}", "have", "x", have);
  if (r >= 0 && !uid.empty()) r = sd_bus_message_append(m, "{sv}", "uid", "s", clean_text(uid).c_str());
  if (r >= 0) r = sd_bus_message_close_container(m);
  if (r >= 0) r = sd_bus_send(h->bus, m, nullptr);
  sd_bus_message_unref(m);
  if (r < 0) fprintf(stderr, "brisel-hostd: request %" PRId64 " could not be sent: %s\n", id, strerror(-r));
  return r;
}

bool is_stale_show(const std::string &text) {
  /* Replies of some mebibytes wait there, too: only what may be one is taken apart. */
  if (text.find("\"request\":\"show\"") == std::string::npos) return false;
  const nlohmann::json request = nlohmann::json::parse(text, nullptr, false);
  if (!request.is_object()) return false;
  const auto kind = request.find("request"), asked = request.find("asked");
  return kind != request.end() && *kind == "show" && asked != request.end() && asked->is_number_integer() &&
         time(nullptr) - asked->get<int64_t>() > show_age;
}

void tell_connection(host *h, const std::string &connection, const char *what) {
  sd_bus_message *m = nullptr;
  int r = sd_bus_message_new_signal(h->bus, &m, host_path, phone_interface, what);
  if (r >= 0) r = sd_bus_message_set_destination(m, connection.c_str());
  if (r >= 0) r = sd_bus_send(h->bus, m, nullptr);
  sd_bus_message_unref(m);
  if (r < 0) fprintf(stderr, "brisel-hostd: a connection could not be told: %s: %s\n", what, strerror(-r));
}

/* On disk, before anybody could be sent them again. What fails stays, for whoever comes next. */
store_status write_acknowledged(host *h) {
  if (h->acknowledged.empty()) return store_ok;
  const store_status status = store_outbox_remove_replies(h->st, h->acknowledged);
  if (status) return status;
  h->acknowledged.clear();
  if (h->acknowledged_turn) sd_event_source_set_enabled(h->acknowledged_turn, SD_EVENT_OFF);
  if (sd_bus_is_open(h->bus) > 0) host_announce(h); /* the end of the service closed it before: the next one tells */
  return store_ok;
}

void try_acknowledged(host *h) {
  if (write_acknowledged(h)) fprintf(stderr, "brisel-hostd: %s\n", store_error(h->st).c_str());
}

int acknowledged_cb(sd_event_source *source, uint64_t usec, void *data) {
  try_acknowledged(static_cast<host *>(data));
  return 0;
}

/* The first that waits sets the time; those behind it wait less. */
int start_acknowledged_turn(host *h) {
  if (h->acknowledged_turn && sd_event_source_get_enabled(h->acknowledged_turn, nullptr) > 0) return 0;
  uint64_t now = 0;
  int r = sd_event_now(h->event, CLOCK_MONOTONIC, &now);
  if (r < 0) return r;
  if (!h->acknowledged_turn)
    return sd_event_add_time(h->event, &h->acknowledged_turn, CLOCK_MONOTONIC, now + outcome_comes, 0, acknowledged_cb,
                             h);
  r = sd_event_source_set_time(h->acknowledged_turn, now + outcome_comes);
  return r < 0 ? r : sd_event_source_set_enabled(h->acknowledged_turn, SD_EVENT_ONESHOT);
}

/* The connection before is told, and what it was asked and did not answer has failed. The link stays up. */
void replace_phone(host *h) {
  tell_connection(h, h->phone, "Replaced");
  h->track = sd_bus_track_unref(h->track);
  while (!h->more.empty()) finish_more(h, h->more.begin(), HOST_ERROR "NoPhone", "the phone has left");
}

}  // namespace

void link_reset(host *h) {
  /* Only what the service itself said: the setting may have been made by hand. */
  if (store_get_state(h->st, "phone_connected", 0)) set_link(h, false);
}

int link_connect(host *h, const char *sender, sd_bus_error *error) {
  if (const store_status status = write_acknowledged(h)) return host_fail(h, status, error);
  if (h->phone == sender) return 0;
  const introduced_phone who = pair_identity(h, sender);
  const bool again = !who.id.empty() && who.id == h->phone_id;
  if (!h->phone.empty() && !again) {
    if (!h->refused) sd_bus_track_new(h->bus, &h->refused, nullptr, nullptr);
    if (h->refused && sd_bus_track_count(h->refused) < refused_max) sd_bus_track_add_name(h->refused, sender);
    return sd_bus_error_setf(error, HOST_ERROR "Busy", "%s is linked", h->phone_name.c_str());
  }
  sd_bus_track *track = nullptr;
  int r = sd_bus_track_new(h->bus, &track, track_cb, h);
  if (r >= 0) r = sd_bus_track_add_name(track, sender);
  if (r < 0) {
    sd_bus_track_unref(track);
    return r;
  }
  const bool was_up = !h->phone.empty();
  /* On disk before the first request goes out: what a phone may have is not taken back. */
  if (store_phone_came(h->st) != store_ok) {
    if (!was_up) store_phone_left(h->st);
    sd_bus_track_unref(track);
    return host_fail(h, store_failed, error);
  }
  if (was_up) replace_phone(h);
  h->track = track;
  h->phone = sender;
  h->phone_id = who.id;
  h->phone_name = who.name;
  h->phone_tells = who.outcomes;
  if (!was_up) set_link(h, true);
  return 0;
}

void link_send_waiting(host *h) {
  std::vector<outbox_entry> waiting;
  if (store_outbox(h->st, &waiting) != store_ok) {
    fprintf(stderr, "brisel-hostd: %s\n", store_error(h->st).c_str());
    return;
  }
  for (const outbox_entry &entry : waiting) {
    if (is_stale_show(entry.json)) {
      if (store_outbox_remove(h->st, entry.id) < 0) fprintf(stderr, "brisel-hostd: %s\n", store_error(h->st).c_str());
      continue;
    }
    /* In order, or not at all; but what can never be sent must not hold back what can. */
    if (const int r = send_request(h, entry.id, entry.json, entry.uid, -1); r < 0 && r != -EINVAL) return;
  }
}

void link_disconnect(host *h) {
  try_acknowledged(h);
  if (h->phone.empty()) return;
  h->phone.clear();
  h->phone_id.clear();
  store_phone_left(h->st);
  h->track = sd_bus_track_unref(h->track);
  while (!h->more.empty()) finish_more(h, h->more.begin(), HOST_ERROR "NoPhone", "the phone has left");
  set_link(h, false);
  for (const char *name = sd_bus_track_first(h->refused); name; name = sd_bus_track_next(h->refused))
    tell_connection(h, name, "Free");
  h->refused = sd_bus_track_unref(h->refused);
}

store_status link_acknowledge(host *h, int64_t id) {
  const std::string uid = h->phone_tells ? store_outbox_reply(h->st, id) : std::string();
  if (uid.empty()) return store_outbox_remove(h->st, id);
  if (std::find(h->acknowledged.begin(), h->acknowledged.end(), uid) == h->acknowledged.end())
    h->acknowledged.push_back(uid);
  return start_acknowledged_turn(h) < 0 ? write_acknowledged(h) : store_ok;
}

store_status link_acknowledge_mails(host *h, int64_t id, const std::vector<int> &mail_ids) {
  std::string text;
  if (const store_status status = store_outbox_json(h->st, id, &text)) return status;
  nlohmann::ordered_json request = nlohmann::ordered_json::parse(text, nullptr, false);
  /* A store's file may hold anything. */
  const auto has_list = [&](const char *list) { return request.contains(list) && request[list].is_array(); };
  if (!request.is_object() || !has_list("id_list")) return link_acknowledge(h, id);
  const nlohmann::ordered_json asked = request["id_list"];
  const std::set<int> taken(mail_ids.begin(), mail_ids.end());
  for (const char *list : {"id_list", "host_tag_list", "message_uid_list"}) {
    if (!has_list(list)) continue;
    nlohmann::ordered_json left = nlohmann::ordered_json::array();
    for (size_t i = 0; i < asked.size() && i < request[list].size(); i++)
      if (!asked[i].is_number_integer() || !taken.contains(asked[i].get<int>())) left.push_back(request[list][i]);
    request[list] = std::move(left);
  }
  if (request["id_list"].empty()) return link_acknowledge(h, id);
  return store_outbox_set_json(h->st, id, request.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

void link_outcome_kept(host *h, const std::string &uid) {
  std::erase(h->acknowledged, uid);
  if (h->acknowledged.empty() && h->acknowledged_turn) sd_event_source_set_enabled(h->acknowledged_turn, SD_EVENT_OFF);
}

void link_send(host *h, int64_t id, const std::string &json, const std::string &uid) {
  if (!h->phone.empty()) send_request(h, id, json, uid, -1);
}

static int full(sd_bus_error *error) {
  return sd_bus_error_set(error, host_error_full, "too much is asked of the phone already");
}

int link_ask_more(host *h, sd_bus_message *m, int mail_id, const std::string &message_uid, sd_bus_error *error) {
  std::string body, stored_uid;
  const store_status status = store_get_body(h->st, mail_id, &body, &stored_uid);
  if (status) return host_fail(h, status, error);
  if (stored_uid != message_uid)
    return sd_bus_error_setf(error, HOST_ERROR "Invalid", "mail %d has another message_uid", mail_id);
  if (body.ends_with(tag_complete)) return sd_bus_reply_method_return(m, "ai", 1, mail_id); /* nothing to ask for */
  if (h->phone.empty()) return sd_bus_error_set(error, HOST_ERROR "NoPhone", "no phone is connected");

  uint64_t now = 0;
  int r = sd_event_now(h->event, CLOCK_MONOTONIC, &now);
  if (r < 0) return r;
  for (more_request &request : h->more)
    if (request.mail_id == mail_id) {
      if (request.callers.size() == more_callers_max) return full(error);
      r = sd_event_source_set_time(request.timer, now + h->more_timeout_usec);
      if (r < 0) return r;
      request.callers.push_back(sd_bus_message_ref(m));
      return 1;
    }

  if (h->more.size() == more_max) return full(error);
  more_request request = {};
  request.mail_id = mail_id;
  request.have = body_length(body);
  const store_status numbered = store_new_request_id(h->st, &request.id);
  if (numbered) return host_fail(h, numbered, error);
  nlohmann::ordered_json json = {{"request", "more_msg"}, {"message_uid", message_uid}, {"mail_id", mail_id}};
  const std::string text = json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  r = sd_event_add_time(h->event, &request.timer, CLOCK_MONOTONIC, now + h->more_timeout_usec, 0, more_timeout_cb, h);
  if (r >= 0) r = send_request(h, request.id, text, "", static_cast<int64_t>(request.have));
  if (r < 0) {
    sd_event_source_disable_unref(request.timer);
    return r;
  }
  request.callers.push_back(sd_bus_message_ref(m));
  h->more.push_back(std::move(request));
  return 1;
}

int link_answer_more(host *h, int64_t id, int phone_error, const std::string &piece, bool complete,
                     sd_bus_error *error) {
  more_place place = h->more.begin();
  while (place != h->more.end() && place->id != id) ++place;
  if (place == h->more.end())
    return sd_bus_error_setf(error, HOST_ERROR "Invalid", "no request %" PRId64 " waits for an answer", id);
  if (phone_error) {
    char text[64];
    snprintf(text, sizeof(text), "the phone answered with error %d", phone_error);
    finish_more(h, place, HOST_ERROR "Phone", text);
    return 0;
  }
  const store_status status = store_append_body(h->st, place->mail_id, place->have, piece, complete);
  if (status) {
    finish_more(h, place, status == store_invalid ? HOST_ERROR "Invalid" : HOST_ERROR "Store",
                store_error(h->st).c_str());
    return host_fail(h, status, error);
  }
  finish_more(h, place, nullptr, nullptr);
  host_announce(h);
  return 0;
}
