#include "host.h"

#include <cstring>
#include <string_view>

namespace {

/* The service may have to be started and to open its store first. */
constexpr uint64_t kTimeout = 60 * 1000000ull;

class message {
 public:
  message() = default;
  ~message() { sd_bus_message_unref(m); }
  message(const message &) = delete;
  message &operator=(const message &) = delete;
  sd_bus_message *m = nullptr;
};

class bus_error {
 public:
  bus_error() = default;
  ~bus_error() { sd_bus_error_free(&e); }
  bus_error(const bus_error &) = delete;
  bus_error &operator=(const bus_error &) = delete;
  sd_bus_error e = SD_BUS_ERROR_NULL;
};

std::string explain(const sd_bus_error &error, int result) {
  if (error.name && strstr(error.name, ".ServiceUnknown"))
    return "the host service is not running and cannot be started";
  if (error.name && strstr(error.name, ".Disconnected")) return "the session bus is gone";
  if (result == -ECONNRESET || result == -ENOTCONN) return "the session bus is gone";
  if (error.name && strstr(error.name, ".Spawn."))
    return std::string("the host service cannot be started: ") + (error.message ? error.message : error.name);
  if (error.message && *error.message) return error.message;
  return std::string("the host service does not answer: ") + strerror(-result);
}

int begin(sd_bus *bus, message *call, const char *method, std::string *error) {
  int result = sd_bus_message_new_method_call(bus, &call->m, host_name, host_path, host_phone_interface, method);
  if (result < 0) *error = std::string("the bus message cannot be made: ") + strerror(-result);
  return result < 0 ? -1 : 0;
}

/* `filled` is what filling the call in gave: below 0 means that it could not be made. */
int finish(sd_bus *bus, const message &call, int filled, message *reply, std::string *error) {
  if (filled < 0) {
    *error = std::string("the bus message cannot be made: ") + strerror(-filled);
    return HOST_REFUSED;
  }
  bus_error why;
  int result = sd_bus_call(bus, call.m, kTimeout, &why.e, &reply->m);
  if (result >= 0) return HOST_OK;
  *error = explain(why.e, result);
  std::string_view name = why.e.name ? why.e.name : "";
  if (name == "com.vextora.brisel.Error.Busy") return HOST_BUSY;
  if (name.substr(0, 25) == "com.vextora.brisel.Error.") return HOST_REFUSED;
  bool nobody =
      name.find(".ServiceUnknown") != std::string_view::npos || name.find(".Spawn.") != std::string_view::npos;
  return nobody ? HOST_NOBODY : HOST_AWAY;
}

/* It was done, but what came of it is not known. */
int unreadable(int result, std::string *error) {
  *error = std::string("the host service's answer cannot be read: ") + strerror(-result);
  return HOST_AWAY;
}

int append_text(sd_bus_message *m, const char *key, const std::string &value) {
  return sd_bus_message_append(m, "{sv}", key, "s", value.c_str());
}

int append_number(sd_bus_message *m, const char *key, int value) {
  return sd_bus_message_append(m, "{sv}", key, "i", value);
}

int append_mail(sd_bus_message *m, const watch_mail &mail) {
  int r = sd_bus_message_open_container(m, 'a', "{sv}");
  if (r >= 0) r = append_text(m, "host_tag", mail.host_tag);
  if (r >= 0) r = append_number(m, "host_state", mail.host_state);
  if (r >= 0) r = sd_bus_message_append(m, "{sv}", "received_time", "x", mail.received_time);
  if (r >= 0) r = append_text(m, "subject", mail.subject);
  if (r >= 0) r = append_text(m, "body", mail.body);
  if (r >= 0) r = append_text(m, "from_address", mail.from_address);
  if (r >= 0) r = append_text(m, "from_name", mail.from_name);
  if (r >= 0) r = append_text(m, "message_uid", mail.message_uid);
  if (r >= 0) r = append_number(m, "attachment_count", mail.attachment_count);
  if (r >= 0) r = append_number(m, "has_image", mail.has_image);
  if (r >= 0) r = append_number(m, "is_new", mail.is_new);
  if (r >= 0) r = append_number(m, "account_id", mail.account_id);
  if (r >= 0) r = append_number(m, "security_locked", mail.security_locked);
  if (r >= 0) r = append_number(m, "is_read", mail.is_read);
  if (r >= 0) r = sd_bus_message_close_container(m);
  return r;
}

int append_ids(sd_bus_message *m, const std::vector<int> &ids) {
  return sd_bus_message_append_array(m, 'i', ids.data(), ids.size() * sizeof(int));
}

int read_contacts(sd_bus_message *m, host_record *record) {
  int r = sd_bus_message_enter_container(m, 'a', "(is)");
  while (r >= 0) {
    int type = 0;
    const char *number = nullptr;
    r = sd_bus_message_read(m, "(is)", &type, &number);
    if (r <= 0) break;
    record->contacts.emplace_back(type, number);
  }
  return r < 0 ? r : sd_bus_message_exit_container(m);
}

int read_value(sd_bus_message *m, const std::string &key, host_record *record) {
  char type = 0;
  const char *contents = nullptr;
  int r = sd_bus_message_peek_type(m, &type, &contents);
  if (r < 0) return r;
  r = sd_bus_message_enter_container(m, 'v', contents);
  if (r < 0) return r;
  int32_t i = 0;
  uint32_t u = 0;
  int64_t x = 0;
  int b = 0;
  const char *s = nullptr;
  std::string signature = contents;
  if (signature == "i") {
    r = sd_bus_message_read(m, "i", &i);
    record->numbers[key] = i;
  } else if (signature == "u") {
    r = sd_bus_message_read(m, "u", &u);
    record->numbers[key] = u;
  } else if (signature == "x") {
    r = sd_bus_message_read(m, "x", &x);
    record->numbers[key] = x;
  } else if (signature == "b") {
    r = sd_bus_message_read(m, "b", &b);
    record->numbers[key] = b;
  } else if (signature == "s") {
    r = sd_bus_message_read(m, "s", &s);
    if (r >= 0) record->texts[key] = s;
  } else if (signature == "a(is)") {
    r = read_contacts(m, record);
  } else {
    r = sd_bus_message_skip(m, contents);
  }
  return r < 0 ? r : sd_bus_message_exit_container(m);
}

/* Reads an aa{sv}. */
int read_records(sd_bus_message *m, std::vector<host_record> *records) {
  int r = sd_bus_message_enter_container(m, 'a', "a{sv}");
  if (r < 0) return r;
  while ((r = sd_bus_message_enter_container(m, 'a', "{sv}")) > 0) {
    host_record record;
    while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
      const char *key = nullptr;
      r = sd_bus_message_read(m, "s", &key);
      if (r < 0) return r;
      r = read_value(m, key, &record);
      if (r < 0) return r;
      r = sd_bus_message_exit_container(m);
      if (r < 0) return r;
    }
    if (r < 0) return r;
    r = sd_bus_message_exit_container(m);
    if (r < 0) return r;
    records->push_back(std::move(record));
  }
  return r < 0 ? r : sd_bus_message_exit_container(m);
}

}  // namespace

sd_bus *host_open_bus(std::string *error) {
  sd_bus *bus = nullptr;
  int result = sd_bus_open_user(&bus);
  if (result < 0) *error = std::string("the session bus cannot be reached: ") + strerror(-result);
  return result < 0 ? nullptr : bus;
}

int host_connect(sd_bus *bus, std::string *owner, std::string *error) {
  message call, reply;
  if (begin(bus, &call, "Connect", error) < 0) return -1;
  int result = finish(bus, call, 0, &reply, error);
  if (result == 0 && owner) {
    const char *sender = sd_bus_message_get_sender(reply.m);
    *owner = sender ? sender : "";
  }
  return result;
}

int host_add_account(sd_bus *bus, int id, const std::string &address, const std::string &name, uint32_t rgba,
                     std::string *error) {
  message call, reply;
  if (begin(bus, &call, "AddAccount", error) < 0) return -1;
  int filled = sd_bus_message_append(call.m, "issu", id, address.c_str(), name.c_str(), rgba);
  int result = finish(bus, call, filled, &reply, error);
  if (result != HOST_OK) return result;
  int32_t given = 0;
  result = sd_bus_message_read(reply.m, "i", &given);
  return result < 0 ? unreadable(result, error) : given;
}

int host_remove_account(sd_bus *bus, int id, std::string *error) {
  message call, reply;
  if (begin(bus, &call, "RemoveAccount", error) < 0) return -1;
  return finish(bus, call, sd_bus_message_append(call.m, "i", id), &reply, error);
}

int host_list_accounts(sd_bus *bus, std::vector<host_record> *accounts, std::string *error) {
  message call, reply;
  if (begin(bus, &call, "ListAccounts", error) < 0) return HOST_REFUSED;
  int result = finish(bus, call, 0, &reply, error);
  if (result != HOST_OK) return result;
  result = read_records(reply.m, accounts);
  return result < 0 ? unreadable(result, error) : 0;
}

int host_set_account_count(sd_bus *bus, bool known, std::string *error) {
  message call, reply;
  if (begin(bus, &call, "SetAccountCount", error) < 0) return -1;
  return finish(bus, call, sd_bus_message_append(call.m, "b", static_cast<int>(known)), &reply, error);
}

int host_add_mails(sd_bus *bus, const std::vector<watch_mail> &mails, std::vector<int> *ids, std::string *error) {
  message call, reply;
  if (begin(bus, &call, "AddMails", error) < 0) return -1;
  int filled = sd_bus_message_open_container(call.m, 'a', "a{sv}");
  for (const watch_mail &mail : mails)
    if (filled >= 0) filled = append_mail(call.m, mail);
  if (filled >= 0) filled = sd_bus_message_close_container(call.m);
  int result = finish(bus, call, filled, &reply, error);
  if (result != HOST_OK) return result;
  const void *data = nullptr;
  size_t size = 0;
  result = sd_bus_message_read_array(reply.m, 'i', &data, &size);
  if (result < 0) return unreadable(result, error);
  ids->clear();
  if (size > 0) ids->assign(static_cast<const int *>(data), static_cast<const int *>(data) + size / sizeof(int));
  if (ids->size() == mails.size()) return 0;
  *error =
      "the host service gave " + std::to_string(ids->size()) + " ids for " + std::to_string(mails.size()) + " mails";
  return HOST_AWAY;
}

int host_update_mail(sd_bus *bus, int id, const mail_change &change, std::string *error) {
  message call, reply;
  if (begin(bus, &call, "UpdateMail", error) < 0) return -1;
  int r = sd_bus_message_append(call.m, "i", id);
  if (r >= 0) r = sd_bus_message_open_container(call.m, 'a', "{sv}");
  if (r >= 0 && change.is_read >= 0) r = append_number(call.m, "is_read", change.is_read);
  if (r >= 0 && change.is_new >= 0) r = append_number(call.m, "is_new", change.is_new);
  if (r >= 0 && change.has_subject) r = append_text(call.m, "subject", change.subject);
  if (r >= 0) r = sd_bus_message_close_container(call.m);
  return finish(bus, call, r, &reply, error);
}

int host_delete_mails(sd_bus *bus, const std::vector<int> &ids, std::string *error) {
  message call, reply;
  if (begin(bus, &call, "DeleteMails", error) < 0) return -1;
  return finish(bus, call, append_ids(call.m, ids), &reply, error);
}

int host_list_mails(sd_bus *bus, std::vector<host_record> *mails, std::string *error) {
  /* In portions: all mails of a large store would not fit one bus message. */
  for (int after = 0;;) {
    message call, reply;
    if (begin(bus, &call, "ListMails", error) < 0) return -1;
    int result = finish(bus, call, sd_bus_message_append(call.m, "ii", after, 500), &reply, error);
    if (result != HOST_OK) return result;
    size_t before = mails->size();
    result = read_records(reply.m, mails);
    if (result < 0) return unreadable(result, error);
    if (mails->size() == before) return 0;
    int last = static_cast<int>(mails->back().number("mail_id"));
    if (last <= after) return 0;
    after = last;
  }
}

int host_set_templates(sd_bus *bus, const std::vector<std::string> &texts, std::string *error) {
  message call, reply;
  if (begin(bus, &call, "SetTemplates", error) < 0) return -1;
  int r = sd_bus_message_open_container(call.m, 'a', "s");
  for (const std::string &text : texts)
    if (r >= 0) r = sd_bus_message_append(call.m, "s", text.c_str());
  if (r >= 0) r = sd_bus_message_close_container(call.m);
  return finish(bus, call, r, &reply, error);
}

int host_list_templates(sd_bus *bus, std::vector<std::pair<int, std::string>> *templates, std::string *error) {
  message call, reply;
  if (begin(bus, &call, "ListTemplates", error) < 0) return HOST_REFUSED;
  int r = finish(bus, call, 0, &reply, error);
  if (r != HOST_OK) return r;
  r = sd_bus_message_enter_container(reply.m, 'a', "(is)");
  while (r >= 0) {
    int id = 0;
    const char *text = nullptr;
    r = sd_bus_message_read(reply.m, "(is)", &id, &text);
    if (r <= 0) break;
    templates->emplace_back(id, text);
  }
  return r < 0 ? unreadable(r, error) : 0;
}

int host_set_status(sd_bus *bus, const char *kind, int value, std::string *error) {
  message call, reply;
  if (begin(bus, &call, "SetStatus", error) < 0) return -1;
  return finish(bus, call, sd_bus_message_append(call.m, "si", kind, value), &reply, error);
}

int host_acknowledge(sd_bus *bus, int64_t id, std::string *error) {
  message call, reply;
  if (begin(bus, &call, "Ack", error) < 0) return -1;
  return finish(bus, call, sd_bus_message_append(call.m, "x", id), &reply, error);
}

int host_answer_more(sd_bus *bus, int64_t id, int phone_error, const std::string &piece, bool complete,
                     std::string *error) {
  message call, reply;
  if (begin(bus, &call, "AnswerMore", error) < 0) return -1;
  int filled = sd_bus_message_append(call.m, "xisb", id, phone_error, piece.c_str(), static_cast<int>(complete));
  return finish(bus, call, filled, &reply, error);
}
