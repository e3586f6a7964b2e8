/* The notification server and the feedback service as they are on the bus. Owns no rule of what is told. */
#include <cstdio>
#include <cstring>

#include "notify-priv.h"

namespace {

constexpr char server_name[] = "org.freedesktop.Notifications";
constexpr char server_path[] = "/org/freedesktop/Notifications";
constexpr char server_interface[] = "org.freedesktop.Notifications";
constexpr char match_owner[] =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',interface='org.freedesktop.DBus',"
    "member='NameOwnerChanged',arg0='org.freedesktop.Notifications'";
constexpr char match_server[] =
    "type='signal',sender='org.freedesktop.Notifications',path='/org/freedesktop/Notifications',"
    "interface='org.freedesktop.Notifications'";

constexpr char application_id[] = "com.vextora.brisel";

/* A server that answers nothing for so long is taken for absent. */
constexpr uint64_t answer_usec = 20000000;
constexpr uint8_t urgency_low = 0, urgency_normal = 1;
constexpr int32_t server_decides = -1;

int new_call(notifier *n, const char *method, sd_bus_message **m) {
  return sd_bus_message_new_method_call(n->h->bus, m, server_name, server_path, server_interface, method);
}

/* A name on the bus is used again after the bus began anew; the bus's own id is not. */
std::string server_id(notifier *n, const char *name) {
  sd_id128_t id = SD_ID128_NULL;
  char text[SD_ID128_STRING_MAX];
  if (sd_bus_get_bus_id(n->h->bus, &id) < 0) return {};
  return std::string(sd_id128_to_string(id, text)) + name;
}

void forget_server(notifier *n) {
  n->server.clear();
  n->server_name.clear();
  n->keys.clear();
}

int abilities_cb(sd_bus_message *m, void *data, sd_bus_error *unused) {
  notifier *n = static_cast<notifier *>(data);
  n->call_slot = sd_bus_slot_unref(n->call_slot);
  n->has_actions = n->has_body = n->has_markup = false;
  n->server_is_missing = true;
  const char *sender = sd_bus_message_get_sender(m), *ability = nullptr;
  if (!sd_bus_message_is_method_error(m, nullptr) && sender && sd_bus_message_enter_container(m, 'a', "s") > 0) {
    while (sd_bus_message_read(m, "s", &ability) > 0) {
      n->has_actions |= !strcmp(ability, "actions");
      n->has_body |= !strcmp(ability, "body");
      n->has_markup |= !strcmp(ability, "body-markup");
    }
    n->server_name = sender;
    n->server = server_id(n, sender);
    n->server_is_missing = n->server.empty();
  }
  notify_go_on(n);
  return 0;
}

int told_cb(sd_bus_message *m, void *data, sd_bus_error *unused) {
  notifier *n = static_cast<notifier *>(data);
  n->call_slot = sd_bus_slot_unref(n->call_slot);
  uint32_t number = 0;
  notify_outcome outcome = notify_outcome::refused;
  if (const sd_bus_error *error = sd_bus_message_get_error(m)) {
    fprintf(stderr, "brisel-hostd: a notification was not taken: %s\n", error->message ? error->message : error->name);
    if (bus_has_nobody(error->name) || sd_bus_error_has_name(error, SD_BUS_ERROR_DISCONNECTED))
      outcome = notify_outcome::absent;
    else if (sd_bus_error_has_name(error, SD_BUS_ERROR_NO_REPLY) || sd_bus_error_has_name(error, SD_BUS_ERROR_TIMEOUT))
      outcome = notify_outcome::silent;
  } else if (sd_bus_message_read(m, "u", &number) >= 0 && number) {
    const char *sender = sd_bus_message_get_sender(m);
    /* Another server has taken the place meanwhile: its abilities are asked for before anything else. */
    outcome = sender && n->server_name == sender ? notify_outcome::stands : notify_outcome::silent;
  }
  notify_answered(n, outcome, outcome == notify_outcome::stands ? number : 0);
  return 0;
}

int owner_cb(sd_bus_message *m, void *data, sd_bus_error *unused) {
  notifier *n = static_cast<notifier *>(data);
  const char *name = nullptr, *before = nullptr, *after = nullptr;
  if (sd_bus_message_read(m, "sss", &name, &before, &after) < 0 || n->server_name == after) return 0;
  forget_server(n);
  n->server_is_missing = !*after;
  if (*after) notify_look_soon(n);
  return 0;
}

int signal_cb(sd_bus_message *m, void *data, sd_bus_error *unused) {
  notifier *n = static_cast<notifier *>(data);
  const char *sender = sd_bus_message_get_sender(m), *key = nullptr;
  uint32_t number = 0;
  if (!sender) return 0;
  /* Also before its abilities are known: it may still show what an earlier service gave it. */
  const std::string server = server_id(n, sender);
  if (sd_bus_message_is_signal(m, nullptr, "NotificationClosed")) {
    if (sd_bus_message_read(m, "u", &number) >= 0) notify_closed(n, server, number);
  } else if (sd_bus_message_is_signal(m, nullptr, "ActionInvoked")) {
    if (sd_bus_message_read(m, "us", &number, &key) >= 0) notify_pressed(n, server, number, key);
  }
  return 0;
}

std::string as_markup(const std::string &text) {
  std::string out;
  for (const char c : text)
    if (c == '&')
      out += "&amp;";
    else if (c == '<')
      out += "&lt;";
    else if (c == '>')
      out += "&gt;";
    else
      out += c;
  return out;
}

int append_hints(sd_bus_message *m, const notify_event *event, bool is_quiet, bool has_sound) {
  int r = sd_bus_message_open_container(m, 'a', "{sv}");
  if (r >= 0) r = sd_bus_message_append(m, "{sv}", "category", "s", event->category);
  if (r >= 0) r = sd_bus_message_append(m, "{sv}", "desktop-entry", "s", application_id);
  if (r >= 0) r = sd_bus_message_append(m, "{sv}", "urgency", "y", is_quiet ? urgency_low : urgency_normal);
  if (r >= 0 && !is_quiet) r = sd_bus_message_append(m, "{sv}", "sound-name", "s", event->name);
  if (r >= 0 && !has_sound) r = sd_bus_message_append(m, "{sv}", "suppress-sound", "b", 1);
  return r < 0 ? r : sd_bus_message_close_container(m);
}

/* Told, not asked: nobody waits for an answer, and nobody is started for it. */
int send_without_answer(notifier *n, sd_bus_message *m) {
  int r = sd_bus_message_set_auto_start(m, 0);
  if (r >= 0) r = sd_bus_message_set_expect_reply(m, 0);
  return r < 0 ? r : sd_bus_send(n->h->bus, m, nullptr);
}

}  // namespace

int notify_server_watch(notifier *n) {
  return sd_bus_add_match_async(n->h->bus, &n->owner_slot, match_owner, owner_cb, nullptr, n);
}

void notify_server_listen(notifier *n, bool wanted) {
  if (wanted == (n->signal_slot != nullptr)) return;
  if (!wanted) {
    n->signal_slot = sd_bus_slot_unref(n->signal_slot);
    return;
  }
  const int r = sd_bus_add_match_async(n->h->bus, &n->signal_slot, match_server, signal_cb, nullptr, n);
  if (r < 0) fprintf(stderr, "brisel-hostd: the notification server is not heard: %s\n", strerror(-r));
}

int notify_server_ask(notifier *n, bool may_start) {
  sd_bus_message *m = nullptr;
  int r = new_call(n, "GetCapabilities", &m);
  if (r >= 0) r = sd_bus_message_set_auto_start(m, may_start);
  if (r >= 0) r = sd_bus_call_async(n->h->bus, &n->call_slot, m, abilities_cb, n, answer_usec);
  sd_bus_message_unref(m);
  return r;
}

int notify_server_tell(notifier *n, const notify_message &message, uint32_t replaces, bool is_quiet, bool has_sound) {
  sd_bus_message *m = nullptr;
  std::string summary = message.summary;
  if (!n->has_body && !message.body.empty()) summary += ": " + message.body.substr(0, message.body.find('\n'));
  int r = new_call(n, "Notify", &m);
  if (r >= 0)
    r = sd_bus_message_append(m, "susss", "Brisel", replaces, application_id, clean_text(summary).c_str(),
                              clean_text(n->has_markup ? as_markup(message.body) : message.body).c_str());
  if (r >= 0) r = sd_bus_message_open_container(m, 'a', "s");
  if (n->has_actions)
    for (const notify_button &button : message.buttons)
      if (r >= 0) r = sd_bus_message_append(m, "ss", clean_text(button.key).c_str(), clean_text(button.label).c_str());
  if (r >= 0) r = sd_bus_message_close_container(m);
  if (r >= 0) r = append_hints(m, message.event, is_quiet, has_sound);
  if (r >= 0) r = sd_bus_message_append(m, "i", server_decides);
  if (r >= 0) r = sd_bus_call_async(n->h->bus, &n->call_slot, m, told_cb, n, answer_usec);
  sd_bus_message_unref(m);
  return r;
}

void notify_server_close(notifier *n, uint32_t number) {
  n->keys.erase(number);
  sd_bus_message *m = nullptr;
  int r = new_call(n, "CloseNotification", &m);
  if (r >= 0) r = sd_bus_message_append(m, "u", number);
  if (r >= 0) r = send_without_answer(n, m);
  sd_bus_message_unref(m);
  if (r < 0) fprintf(stderr, "brisel-hostd: a notification could not be withdrawn: %s\n", strerror(-r));
}

void notify_feedback(notifier *n, const notify_event *event) {
  sd_bus_message *m = nullptr;
  int r = sd_bus_message_new_method_call(n->h->bus, &m, "org.sigxcpu.Feedback", "/org/sigxcpu/Feedback",
                                         "org.sigxcpu.Feedback", "TriggerFeedback");
  if (r >= 0) r = sd_bus_message_append(m, "ssa{sv}i", application_id, event->name, 0, server_decides);
  if (r >= 0) r = send_without_answer(n, m);
  sd_bus_message_unref(m);
  if (r < 0) fprintf(stderr, "brisel-hostd: no feedback: %s\n", strerror(-r));
}
