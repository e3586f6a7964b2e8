/* com.vextora.brisel.Phone1: what the phone's side may do. hostd.cpp puts it on the bus; nothing else calls it. */
#include <cstdio>
#include <cstring>

#include "brisel-settings.h"
#include "host.h"
#include "notify.h"
#include "store-format.h"
#include "vconf.h"

namespace {

/* Bytes of one ListMails answer as they travel: a few seconds of a slow link, so that it is known to live meanwhile. */
constexpr size_t list_bytes = 64u << 10;

int invalid(sd_bus_error *error, const char *text) {
  return sd_bus_error_set(error, HOST_ERROR "Invalid", text);
}

/* The answer of a method without results, after the store did its work. */
int finish(host *h, sd_bus_message *m, store_status status, sd_bus_error *error) {
  if (status) return host_fail(h, status, error);
  host_announce(h);
  return sd_bus_reply_method_return(m, "");
}

int connect_phone(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  int r = pair_check_program(m, error);
  if (r >= 0) r = link_connect(h, sd_bus_message_get_sender(m), error);
  if (r < 0) return r;
  r = sd_bus_reply_method_return(m, "");
  if (r >= 0) link_send_waiting(h);
  return r;
}

int add_account(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  std::string address, name;
  int id = 0;
  uint32_t rgba = 0;
  int r = sd_bus_message_read_basic(m, 'i', &id);
  if (r >= 0) r = host_read_text(m, "address", text_max, &address, error);
  if (r >= 0) r = host_read_text(m, "name", text_max, &name, error);
  if (r >= 0) r = sd_bus_message_read_basic(m, 'u', &rgba);
  if (r < 0) return r;
  const store_status status = store_add_account(h->st, &id, address, name, rgba);
  if (status) return host_fail(h, status, error);
  host_announce(h);
  return sd_bus_reply_method_return(m, "i", id);
}

int remove_account(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  int id = 0;
  const int r = sd_bus_message_read_basic(m, 'i', &id);
  if (r < 0) return r;
  return finish(h, m, store_remove_account(h->st, id), error);
}

/* Answers m with a list of what was read from the store; append puts one record into the answer. */
template <typename T, typename F>
int answer_list(sd_bus_message *m, const char *type, const std::vector<T> &records, F &&append) {
  sd_bus_message *answer = nullptr;
  int r = sd_bus_message_new_method_return(m, &answer);
  if (r >= 0) r = sd_bus_message_open_container(answer, 'a', type);
  for (const T &record : records)
    if (r >= 0) r = append(answer, record);
  if (r >= 0) r = sd_bus_message_close_container(answer);
  if (r >= 0) r = sd_bus_send(nullptr, answer, nullptr);
  sd_bus_message_unref(answer);
  return r < 0 ? r : 1;
}

/* The same for a part of a long list: m says behind which id it begins and how many it may hold. */
template <typename T, typename F>
int answer_page(sd_bus_message *m, void *data, sd_bus_error *error, const char *type,
                store_status (*read)(store *, int, size_t, size_t, std::vector<T> *), F &&append) {
  host *h = static_cast<host *>(data);
  int after_id = 0, limit = 0;
  const int r = sd_bus_message_read(m, "ii", &after_id, &limit);
  if (r < 0) return r;
  if (after_id < 0 || limit < 0) return invalid(error, "after_id and limit are not below 0");
  std::vector<T> records;
  const store_status status =
      read(h->st, after_id, limit ? static_cast<size_t>(limit) : SIZE_MAX, list_bytes, &records);
  return status ? host_fail(h, status, error) : answer_list(m, type, records, append);
}

int list_accounts(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  std::vector<account_value_record> accounts;
  const store_status status = store_list_accounts(h->st, &accounts);
  if (status) return host_fail(h, status, error);
  return answer_list(m, "a{sv}", accounts, [](sd_bus_message *answer, const account_value_record &account) {
    return sd_bus_message_append(answer, "a{sv}", 5, "account_id", "i", account.account_id, "account_value", "i",
                                 account.account_value, "email_address", "s", clean_text(account.email_address).c_str(),
                                 "display_name", "s", clean_text(account.display_name).c_str(), "color", "u",
                                 account.color);
  });
}

int set_account_count(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  int known = 0;
  const int r = sd_bus_message_read_basic(m, 'b', &known);
  if (r < 0) return r;
  return finish(h, m, store_set_account_count_known(h->st, known != 0), error);
}

int update_mail(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  int id = 0;
  mail_values values;
  int r = sd_bus_message_read_basic(m, 'i', &id);
  if (r >= 0) r = mails_read_fields(m, &values, nullptr, error);
  if (r < 0) return r;
  return finish(h, m, store_update_mail(h->st, id, values), error);
}

int delete_mails(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  std::vector<int> ids;
  const int r = host_read_ids(m, false, &ids, error);
  if (r < 0) return r;
  return finish(h, m, store_delete_mails(h->st, ids), error);
}

int append_field(sd_bus_message *answer, const field_rule &rule, const field_value &value) {
  if (rule.kind == field_kind::text)
    return sd_bus_message_append(answer, "{sv}", rule.name, "s", clean_text(value.text).c_str());
  if (rule.kind == field_kind::time) return sd_bus_message_append(answer, "{sv}", rule.name, "x", value.number);
  if (rule.kind != field_kind::contacts)
    return sd_bus_message_append(answer, "{sv}", rule.name, "i", static_cast<int32_t>(value.number));
  int r = sd_bus_message_open_container(answer, 'e', "sv");
  if (r >= 0) r = sd_bus_message_append_basic(answer, 's', rule.name);
  if (r >= 0) r = sd_bus_message_open_container(answer, 'v', "a(is)");
  if (r >= 0) r = sd_bus_message_open_container(answer, 'a', "(is)");
  for (const contact_value &contact : contacts_from_text(value.text))
    if (r >= 0) r = sd_bus_message_append(answer, "(is)", contact.type, clean_text(contact.number).c_str());
  for (int i = 0; i < 3; i++)
    if (r >= 0) r = sd_bus_message_close_container(answer);
  return r;
}

int append_mail(sd_bus_message *answer, const mail_values &mail) {
  int r = sd_bus_message_open_container(answer, 'a', "{sv}");
  if (r >= 0) r = sd_bus_message_append(answer, "{sv}", "mail_id", "i", mail.mail_id);
  for (size_t i = 0; i < mail_fields.size(); i++)
    if (r >= 0) r = append_field(answer, mail_fields[i], mail.field[i]);
  return r < 0 ? r : sd_bus_message_close_container(answer);
}

int list_mails(sd_bus_message *m, void *data, sd_bus_error *error) {
  return answer_page(m, data, error, "a{sv}", store_list_mails, append_mail);
}

int list_mail_ids(sd_bus_message *m, void *data, sd_bus_error *error) {
  return answer_page(m, data, error, "(iiss)", store_list_mail_ids, [](sd_bus_message *answer, const mail_name &mail) {
    return sd_bus_message_append(answer, "(iiss)", mail.mail_id, mail.account_id, clean_text(mail.host_tag).c_str(),
                                 clean_text(mail.message_uid).c_str());
  });
}

int set_templates(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  std::vector<std::string> texts;
  int r = sd_bus_message_enter_container(m, 'a', "s");
  while (r >= 0) {
    const char *text = nullptr;
    r = sd_bus_message_read_basic(m, 's', &text);
    if (r <= 0) break;
    texts.emplace_back(text);
    if (texts.size() > templates_max) return invalid(error, "too many templates");
  }
  if (r < 0) return r;
  const store_status status = store_set_templates(h->st, texts);
  if (status) return host_fail(h, status, error);
  int count = 0;
  if (vconf_get_int(BRISEL_KEY_TEMPLATE_CHANGED, &count) != 0 || count == INT32_MAX) count = 0;
  if (vconf_set_int(BRISEL_KEY_TEMPLATE_CHANGED, count + 1) != 0)
    fprintf(stderr, "brisel-hostd: the setting %s cannot be written\n", BRISEL_KEY_TEMPLATE_CHANGED);
  return sd_bus_reply_method_return(m, "");
}

int list_templates(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  std::vector<std::pair<int, std::string>> templates;
  const store_status status = store_list_templates(h->st, &templates);
  if (status) return host_fail(h, status, error);
  return answer_list(m, "(is)", templates, [](sd_bus_message *answer, const std::pair<int, std::string> &one) {
    return sd_bus_message_append(answer, "(is)", one.first, clean_text(one.second).c_str());
  });
}

int set_status(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  const char *kind = nullptr;
  int value = 0;
  const int r = sd_bus_message_read(m, "si", &kind, &value);
  if (r < 0) return r;
  const bool is_reply = !strcmp(kind, "reply");
  if (!is_reply && strcmp(kind, "conn") != 0) return invalid(error, "kind is neither \"reply\" nor \"conn\"");
  if (value < 0) return invalid(error, "a status is not below 0");
  return finish(h, m, store_set_state(h->st, is_reply ? "reply_status" : "conn_status", value), error);
}

bool is_phone(const host *h, sd_bus_message *m) {
  const char *sender = sd_bus_message_get_sender(m);
  return sender && !h->phone.empty() && h->phone == sender;
}

int ack(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  int64_t id = 0;
  const int r = sd_bus_message_read_basic(m, 'x', &id);
  if (r < 0) return r;
  if (!is_phone(h, m)) return invalid(error, "only the connected phone acknowledges requests");
  return finish(h, m, link_acknowledge(h, id), error);
}

int ack_mails(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  int64_t id = 0;
  std::vector<int> mail_ids;
  int r = sd_bus_message_read_basic(m, 'x', &id);
  if (r >= 0) r = host_read_ids(m, true, &mail_ids, error);
  if (r < 0) return r;
  if (!is_phone(h, m)) return invalid(error, "only the connected phone acknowledges requests");
  return finish(h, m, link_acknowledge_mails(h, id, mail_ids), error);
}

/* What came of a request that was acknowledged, as often as the phone likes. */
int outcome(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  const char *state = nullptr;
  std::string uid, reason;
  int r = host_read_text(m, "uid", uid_max, &uid, error);
  if (r >= 0) r = sd_bus_message_read_basic(m, 's', &state);
  if (r >= 0) r = host_read_text(m, "reason", token_max, &reason, error);
  if (r < 0) return r;
  if (!is_phone(h, m))
    return sd_bus_error_set(error, host_error_busy, "only the connected phone tells what came of requests");
  static const std::pair<const char *, reply_outcome> states[] = {{outcome_sent, reply_outcome::sent},
                                                                  {outcome_waits, reply_outcome::waits},
                                                                  {outcome_refused, reply_outcome::refused}};
  for (const auto &[name, known] : states) {
    if (strcmp(state, name) != 0) continue;
    bool refused = false;
    const store_status status = store_set_outcome(h->st, uid, known, reason, &refused);
    if (!status) link_outcome_kept(h, uid);
    if (!status && refused) notify_reply_refused(h);
    return finish(h, m, status, error);
  }
  return invalid(error, "state is neither \"sent\", \"waits\" nor \"refused\"");
}

int answer_more(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  int64_t id = 0;
  int phone_error = 0, complete = 0;
  std::string piece;
  int r = sd_bus_message_read(m, "xi", &id, &phone_error);
  if (r >= 0) r = host_read_text(m, "piece", body_max, &piece, error);
  if (r >= 0) r = sd_bus_message_read_basic(m, 'b', &complete);
  if (r < 0) return r;
  if (!is_phone(h, m)) return invalid(error, "only the connected phone answers requests");
  r = link_answer_more(h, id, phone_error, piece, complete != 0, error);
  return r < 0 ? r : sd_bus_reply_method_return(m, "");
}

}  // namespace

/* Keep com.vextora.brisel.Host.xml the same. */
const sd_bus_vtable phone_vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("Introduce", SD_BUS_ARGS("u", version, "s", phone_id, "s", phone_name, "as", capabilities),
                            SD_BUS_RESULT("u", version, "s", watch_id, "s", watch_name, "as", capabilities),
                            pair_introduce, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Connect", SD_BUS_NO_ARGS, SD_BUS_NO_RESULT, connect_phone, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("AddAccount", SD_BUS_ARGS("i", id, "s", address, "s", name, "u", rgba),
                            SD_BUS_RESULT("i", id), add_account, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("RemoveAccount", SD_BUS_ARGS("i", id), SD_BUS_NO_RESULT, remove_account,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("ListAccounts", SD_BUS_NO_ARGS, SD_BUS_RESULT("aa{sv}", accounts), list_accounts,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("SetAccountCount", SD_BUS_ARGS("b", known), SD_BUS_NO_RESULT, set_account_count,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("AddMails", SD_BUS_ARGS("aa{sv}", mails), SD_BUS_RESULT("ai", ids), mails_add,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("UpdateMail", SD_BUS_ARGS("i", id, "a{sv}", fields), SD_BUS_NO_RESULT, update_mail,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("DeleteMails", SD_BUS_ARGS("ai", ids), SD_BUS_NO_RESULT, delete_mails,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("ListMails", SD_BUS_ARGS("i", after_id, "i", limit), SD_BUS_RESULT("aa{sv}", mails),
                            list_mails, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("ListMailIds", SD_BUS_ARGS("i", after_id, "i", limit), SD_BUS_RESULT("a(iiss)", mails),
                            list_mail_ids, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("SetTemplates", SD_BUS_ARGS("as", texts), SD_BUS_NO_RESULT, set_templates,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("ListTemplates", SD_BUS_NO_ARGS, SD_BUS_RESULT("a(is)", templates), list_templates,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("SetStatus", SD_BUS_ARGS("s", kind, "i", value), SD_BUS_NO_RESULT, set_status,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Ack", SD_BUS_ARGS("x", id), SD_BUS_NO_RESULT, ack, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("AckMails", SD_BUS_ARGS("x", id, "ai", mail_ids), SD_BUS_NO_RESULT, ack_mails,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Outcome", SD_BUS_ARGS("s", uid, "s", state, "s", reason), SD_BUS_NO_RESULT, outcome,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("AnswerMore", SD_BUS_ARGS("x", id, "i", error, "s", piece, "b", complete), SD_BUS_NO_RESULT,
                            answer_more, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_ARGS("Request", SD_BUS_ARGS("x", id, "s", json, "a{sv}", extra), 0),
    SD_BUS_SIGNAL("Replaced", "", 0),
    SD_BUS_SIGNAL("Free", "", 0),
    SD_BUS_VTABLE_END,
};
