/* What a notification's buttons do, with or without the application: the same requests that it would make. */
#include <libintl.h>
#include <systemd/sd-id128.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstring>

#include "brisel-bus.h"
#include "brisel-reply.h"
#include "brisel-settings.h"
#include "brisel-template-uses.h"
#include "notify-priv.h"
#include "platform-files.h"
#include "platform-paths.h"
#include "vconf.h"

namespace {

constexpr char own_client[] = "notification"; /* for its share of what may wait for a phone */
constexpr size_t replies_offered = 2;
/* Bytes of a reply: nothing is sent that its button does not show whole. */
constexpr size_t reply_bytes = 80;
/* Bytes of a reply's subject and recipient. */
constexpr size_t field_bytes = 1023;

std::string cut(std::string text) {
  if (text.size() <= field_bytes) return text;
  size_t end = field_bytes;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) end--;
  return text.substr(0, end);
}

std::string new_uid(void) {
  sd_id128_t id;
  char text[SD_ID128_STRING_MAX];
  if (sd_id128_randomize(&id) < 0) return {};
  return std::string("notification-") + sd_id128_to_string(id, text);
}

brisel_template_uses read_uses(void) {
  const platform_folder folder(platform_app_state_dir());
  std::string bytes;
  if (folder.fd < 0 ||
      platform_file_read(folder.fd, brisel_template_uses_file, brisel_template_uses_bytes, &bytes) != 0)
    return {};
  return brisel_template_uses_read(bytes);
}

int launched_cb(sd_bus_message *m, void *data, sd_bus_error *unused) {
  if (const sd_bus_error *error = sd_bus_message_get_error(m))
    fprintf(stderr, "brisel-hostd: the application was not opened: %s\n",
            error->message ? error->message : error->name);
  return 0;
}

/* mail_id 0: the list; below 0: what waits and was sent. */
int open_application(notifier *n, int mail_id) {
  sd_bus_message *m = nullptr;
  int r = sd_bus_message_new_method_call(n->h->bus, &m, application_name, application_path, application_interface,
                                         "Launch");
  const std::string id = mail_id < 0 ? BRISEL_EVENT_ID_JOURNAL : std::to_string(mail_id);
  if (r >= 0)
    r = mail_id ? sd_bus_message_append(m, "a{ss}", 1, BRISEL_EVENT_ID_KEY, id.c_str())
                : sd_bus_message_append(m, "a{ss}", 0);
  if (r >= 0) r = sd_bus_call_async(n->h->bus, nullptr, m, launched_cb, nullptr, 0);
  sd_bus_message_unref(m);
  return r;
}

/* Each mail has a state of the phone's of its own. */
int mark_read(notifier *n, const std::vector<int> &ids, sd_bus_error *error) {
  for (const int id : ids) {
    noticed_mail mail;
    if (store_notify_mail(n->h->st, id, &mail) != store_ok) continue; /* gone meanwhile */
    if (const int r = host_mark_read(n->h, new_uid(), own_client, {id}, mail.host_state, error); r < 0) return r;
  }
  return 0;
}

int reply(notifier *n, int mail_id, const std::string &text, sd_bus_error *error) {
  noticed_mail mail;
  const store_status status = store_notify_mail(n->h->st, mail_id, &mail);
  if (status) return host_fail(n->h, status, error);
  host_reply_request request;
  request.host_tag = mail.host_tag;
  request.action = reply_action;
  request.message_uid = mail.message_uid;
  request.recipient =
      cut(mail.from_name.empty() ? mail.from_address : mail.from_address + reply_name_separator + mail.from_name);
  request.text = text;
  request.mail_id = mail_id;
  request.subject = cut(mail.subject);
  const int r = host_reply(n->h, new_uid(), own_client, request, error);
  /* Who answers has read it. */
  return r < 0 ? r : host_mark_read(n->h, new_uid(), own_client, {mail_id}, mail.host_state, error);
}

}  // namespace

bool notify_can_reply(notifier *n, const noticed_mail &mail) {
  return reply_has_recipient(mail.from_address) && store_get_state(n->h->st, "reply_status", 0) == 0;
}

std::vector<std::string> notify_replies(notifier *n) {
  std::vector<std::pair<int, std::string>> templates;
  if (store_list_templates(n->h->st, &templates) != store_ok) return {};
  int as_the_phone = 0;
  const bool sorted = vconf_get_int(BRISEL_KEY_TEMPLATE_ORDER, &as_the_phone) != 0 || !as_the_phone;
  const brisel_template_uses uses = sorted ? read_uses() : brisel_template_uses();
  std::vector<std::pair<int, std::string>> offered;
  for (const auto &[id, text] : templates) {
    const std::string shown = text.empty() ? "" : dcgettext("message", text.c_str(), LC_MESSAGES);
    if (id < 0 || shown.empty() || shown.size() > reply_bytes || shown.find('\n') != std::string::npos) continue;
    const auto used = uses.empty() ? uses.end() : uses.find(brisel_template_uses_name(text.c_str()));
    offered.emplace_back(used == uses.end() ? 0 : used->second, shown);
  }
  std::stable_sort(offered.begin(), offered.end(), [](const auto &a, const auto &b) { return a.first > b.first; });
  std::vector<std::string> texts;
  for (size_t i = 0; i < offered.size() && i < replies_offered; i++) texts.push_back(offered[i].second);
  return texts;
}

void notify_do(notifier *n, const std::string &key, const std::vector<int> &ids) {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  int r = 0;
  if (key == notify_key_open)
    r = open_application(n, ids.size() == 1 ? ids.front() : 0);
  else if (key == notify_key_read)
    r = mark_read(n, ids, &error);
  else if (key == notify_key_delete)
    r = host_delete(n->h, new_uid(), own_client, ids, &error);
  else if (key == notify_key_again && ids.size() == 1 && ids.front() < 0)
    r = host_repeat(n->h, new_uid(), own_client, -ids.front(), nullptr, &error);
  else if (key.starts_with(notify_key_reply) && ids.size() == 1)
    r = reply(n, ids.front(), key.substr(strlen(notify_key_reply)), &error);
  if (r < 0)
    fprintf(stderr, "brisel-hostd: a notification's button did nothing: %s\n",
            error.message ? error.message : strerror(-r));
  sd_bus_error_free(&error);
}
