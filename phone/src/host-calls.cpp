#include "host-parts.h"

#include <glib.h>
#include <poll.h>
#include <zlib.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "brisel-body.h"
#include "brisel-contact-bus.h"
#include "platform-peer.h"
#include "text.h"

namespace {

constexpr int kLooks = 100, kLookPauseMs = 50;

/* What is taken of an answer: more than any service gives. */
constexpr size_t kMostError = 1024; /* bytes of why a call failed */
constexpr size_t kMostFields = 64;  /* of one record */
constexpr size_t kMostAccounts = 1000;
constexpr size_t kMostListed = size_t{128} << 20; /* bytes of memory that all mails of a list take, about */

std::string explain(const host_bus &bus, const sd_bus_error &error, int result) {
  if (error.name && strstr(error.name, ".ServiceUnknown"))
    return "the host service is not running and cannot be started";
  bool gone = (error.name && strstr(error.name, ".Disconnected")) || result == -ECONNRESET || result == -ENOTCONN ||
              result == -EPIPE;
  bool silent = result == -ETIMEDOUT || (error.name && strcmp(error.name, SD_BUS_ERROR_NO_REPLY) == 0);
  if (bus.peer && silent && error.message && strcmp(error.message, "Connection terminated") == 0) gone = true;
  if (gone && bus.peer) return host_stream_trouble(bus);
  if (gone) return "the session bus is gone";
  if (bus.peer && silent) return "the watch does not answer";
  if (error.name && strstr(error.name, ".Spawn."))
    return std::string("the host service cannot be started: ") + (error.message ? error.message : error.name);
  if (error.message && *error.message) return std::string(error.message, strnlen(error.message, kMostError));
  return std::string("the host service does not answer: ") + strerror(-result);
}

class creds_holder {
 public:
  creds_holder() = default;
  ~creds_holder() { sd_bus_creds_unref(c); }
  creds_holder(const creds_holder &) = delete;
  creds_holder &operator=(const creds_holder &) = delete;
  sd_bus_creds *c = nullptr;
};

/* What a bus error says about the call. */
host_result result_of(const sd_bus_error &why) {
  std::string_view name = why.name ? why.name : "";
  if (name == host_error_busy) return HOST_BUSY;
  if (name == host_error_store) return HOST_LATER;
  if (name.starts_with(host_error_prefix)) return HOST_REFUSED;
  bool nobody =
      name.find(".ServiceUnknown") != std::string_view::npos || name.find(".Spawn.") != std::string_view::npos;
  return nobody ? HOST_NOBODY : HOST_AWAY;
}

}  // namespace

int host_begin(host_bus *bus, bus_message *call, const char *method, std::string *error) {
  if (!bus->peer && bus->owner.empty()) {
    int found = host_find(bus, error);
    if (found < 0) return found;
  }
  int result = sd_bus_message_new_method_call(bus->bus, &call->m, bus->peer ? nullptr : bus->owner.c_str(), host_path,
                                              phone_interface, method);
  if (result >= 0) return 0;
  *error = std::string("the bus message cannot be made: ") + strerror(-result);
  return HOST_NOBODY;
}

int host_failed(host_bus *bus, const sd_bus_error &why, int result, std::string *error) {
  *error = explain(*bus, why, result);
  host_result what = result_of(why);
  if (what == HOST_NOBODY && !bus->peer) bus->owner.clear(); /* it left; the next call looks who is there now */
  return what;
}

int host_finish(host_bus *bus, const bus_message &call, int filled, bus_message *reply, std::string *error) {
  if (filled < 0) {
    *error = std::string("the bus message cannot be made: ") + strerror(-filled);
    return HOST_REFUSED;
  }
  bus_error why;
  int result =
      bus->peer ? stream_call(bus, call, reply, &why) : sd_bus_call(bus->bus, call.m, bus->patience, &why.e, &reply->m);
  return result >= 0 ? HOST_OK : host_failed(bus, why.e, result, error);
}

int host_unreadable(int result, std::string *error) {
  *error = std::string("the host service's answer cannot be read: ") + strerror(-result);
  return HOST_AWAY;
}

/* Text that a bus takes: no half characters, no zero bytes, none of the numbers that stand for no character. What is
   replaced keeps its length, so that places in a text stay what they are. */
std::string host_bus_text(const std::string &text) {
  std::string out;
  const char *at = text.data(), *end = at + text.size();
  while (at < end) {
    const char *plain = at;
    at += text_plain_run({at, static_cast<size_t>(end - at)});
    if (!out.empty()) out.append(plain, at);
    if (at == end) break;
    gunichar c = *at ? g_utf8_get_char_validated(at, end - at) : static_cast<gunichar>(-1);
    bool valid = c < 0x110000;
    size_t length = valid ? static_cast<size_t>(g_utf8_next_char(at) - at) : 1;
    bool character = valid && (c < 0xfdd0 || c > 0xfdef) && (c & 0xfffe) != 0xfffe;
    if (!character && out.empty()) out.reserve(text.size()), out.assign(text.data(), at);
    if (!character)
      out += length == 1 ? "?" : length == 3 ? "\xef\xbf\xbd" : "\xef\xbf\xbd ";
    else if (!out.empty())
      out.append(at, length);
    at += length;
  }
  return out.empty() ? text : out;
}

namespace {

/* The bus would look through each text once more before it takes it; what is written into room of its own it leaves. */
int append_text(sd_bus_message *m, const char *key, const std::string &value) {
  const std::string text = host_bus_text(value);
  char *room = nullptr;
  int r = sd_bus_message_open_container(m, 'e', "sv");
  if (r >= 0) r = sd_bus_message_append_basic(m, 's', key);
  if (r >= 0) r = sd_bus_message_open_container(m, 'v', "s");
  if (r >= 0) r = sd_bus_message_append_string_space(m, text.size(), &room);
  if (r >= 0) memcpy(room, text.data(), text.size());
  if (r >= 0) r = sd_bus_message_close_container(m);
  return r < 0 ? r : sd_bus_message_close_container(m);
}

int append_number(sd_bus_message *m, const char *key, int value) {
  return sd_bus_message_append(m, "{sv}", key, "i", value);
}

/* The body made small, when the watch takes that, the way does not do it, and it is worth it. */
int append_body(sd_bus_message *m, const host_bus &bus, const std::string &body) {
  constexpr size_t worth = 256;
  if (!bus.peer || !bus.watch.zlib || carrier_compresses(bus.way) || body.size() < worth)
    return append_text(m, "body", body);
  std::string text = host_bus_text(body);
  uLongf size = compressBound(text.size());
  std::vector<Bytef> small(size);
  if (compress2(small.data(), &size, reinterpret_cast<const Bytef *>(text.data()), text.size(), Z_BEST_COMPRESSION) !=
          Z_OK ||
      size >= text.size())
    return append_text(m, "body", body);
  int r = sd_bus_message_open_container(m, 'e', "sv");
  if (r >= 0) r = sd_bus_message_append(m, "s", "body_zlib");
  if (r >= 0) r = sd_bus_message_open_container(m, 'v', "ay");
  if (r >= 0) r = sd_bus_message_append_array(m, 'y', small.data(), size);
  if (r >= 0) r = sd_bus_message_close_container(m);
  return r < 0 ? r : sd_bus_message_close_container(m);
}

/* What the service takes where nothing is said is not said: a field is as much work as a line of text. */
int append_unless(sd_bus_message *m, int usual, const char *key, int value) {
  return value == usual ? 0 : append_number(m, key, value);
}

int append_mail(sd_bus_message *m, const host_bus &bus, const watch_mail &mail) {
  int r = sd_bus_message_open_container(m, 'a', "{sv}");
  if (r >= 0) r = append_text(m, "host_tag", mail.host_tag);
  if (r >= 0) r = append_unless(m, 0, "host_state", mail.host_state);
  if (r >= 0) r = sd_bus_message_append(m, "{sv}", "received_time", "x", mail.received_time);
  if (r >= 0) r = append_text(m, "subject", mail.subject);
  if (r >= 0) r = append_body(m, bus, mail.body);
  if (r >= 0) r = append_text(m, "from_address", mail.from_address);
  if (r >= 0) r = append_text(m, "from_name", mail.from_name);
  if (r >= 0) r = append_text(m, "message_uid", mail.message_uid);
  if (r >= 0) r = append_unless(m, 0, "attachment_count", mail.attachment_count);
  if (r >= 0) r = append_unless(m, 0, "has_image", mail.has_image);
  if (r >= 0) r = append_unless(m, 1, "is_new", mail.is_new);
  if (r >= 0) r = append_number(m, "account_id", mail.account_id);
  if (r >= 0) r = append_unless(m, 0, "security_locked", mail.security_locked);
  if (r >= 0) r = append_unless(m, 0, "is_read", mail.is_read);
  if (r >= 0) r = sd_bus_message_close_container(m);
  return r;
}

int append_ids(sd_bus_message *m, const std::vector<int> &ids) {
  return sd_bus_message_append_array(m, 'i', ids.data(), ids.size() * sizeof(int));
}

int read_contacts(sd_bus_message *m, host_record *record) {
  return bus_read_contacts(m, [record](int type, const char *number) {
    record->contacts.emplace_back(type, number);
    return record->contacts.size() > contacts_max ? -EBADMSG : 0;
  });
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

/* Reads an aa{sv} of at most `most` records. */
int read_records(sd_bus_message *m, size_t most, std::vector<host_record> *records) {
  most += records->size();
  int r = sd_bus_message_enter_container(m, 'a', "a{sv}");
  if (r < 0) return r;
  while ((r = sd_bus_message_enter_container(m, 'a', "{sv}")) > 0) {
    host_record record;
    while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
      const char *key = nullptr;
      r = sd_bus_message_read(m, "s", &key);
      if (r < 0) return r;
      r = read_value(m, key, &record);
      if (r >= 0 && record.numbers.size() + record.texts.size() > kMostFields) r = -EBADMSG;
      if (r < 0) return r;
      r = sd_bus_message_exit_container(m);
      if (r < 0) return r;
    }
    if (r < 0) return r;
    r = sd_bus_message_exit_container(m);
    if (r < 0) return r;
    records->push_back(std::move(record));
    if (records->size() > most) return -EBADMSG;
  }
  return r < 0 ? r : sd_bus_message_exit_container(m);
}

}  // namespace

host_bus::~host_bus() {
  if (!bus) return;
  sd_bus_detach_event(bus);
  /* What stands in a stream that nobody takes would be waited for. */
  if (peer)
    sd_bus_close_unref(bus);
  else
    sd_bus_flush_close_unref(bus);
}

host_bus_holder host_open_session(std::string *error) {
  host_bus_holder bus(new host_bus);
  int result = sd_bus_open_user(&bus->bus);
  if (result >= 0) return bus;
  *error = std::string("the session bus cannot be reached: ") + strerror(-result);
  return nullptr;
}

namespace {

/* Who has the service's name, and the program it runs; neither is touched when nobody has it any more. Returns 0, or a
   host_result with a reason. */
int name_holder(host_bus *bus, std::string *holder, std::string *program, std::string *error) {
  bus_error why;
  bus_message reply;
  int result = sd_bus_call_method(bus->bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                  "StartServiceByName", &why.e, &reply.m, "su", host_name, 0);
  if (result < 0) {
    *error = explain(*bus, why.e, result);
    return result_of(why.e) == HOST_AWAY ? HOST_AWAY : HOST_NOBODY;
  }
  creds_holder creds;
  const char *name = nullptr;
  pid_t pid = 0;
  result = sd_bus_get_name_creds(bus->bus, host_name, SD_BUS_CREDS_UNIQUE_NAME | SD_BUS_CREDS_PID, &creds.c);
  if (result >= 0) result = sd_bus_creds_get_unique_name(creds.c, &name);
  if (result >= 0) result = sd_bus_creds_get_pid(creds.c, &pid);
  if (result == -ENXIO || result == -ESRCH) return 0; /* it ended, and the name went meanwhile */
  if (result < 0) {
    *error = std::string("who the host service is cannot be told: ") + strerror(-result);
    return HOST_NOBODY;
  }
  errno = 0;
  *program = platform_program_of(pid);
  if (program->empty() && errno == EACCES) *program = "a program that cannot be looked at";
  *holder = name;
  return 0;
}

}  // namespace

int host_find(host_bus *bus, std::string *error) {
  std::string holder, program;
  /* One that has just ended runs nothing any more and has the name for a moment still, on a busy machine a long one. */
  for (int look = 0; look < kLooks && program.empty(); look++) {
    if (look > 0) poll(nullptr, 0, kLookPauseMs);
    if (int result = name_holder(bus, &holder, &program, error); result < 0) return result;
  }
  if (!platform_program_is(program, BRISEL_HOSTD, "service/brisel-hostd")) {
    *error = std::string(host_name) + " is taken by " + (program.empty() ? "an unknown program" : program) +
             ", which is not the host service";
    return HOST_NOBODY;
  }
  bus->owner = holder;
  return 0;
}

int host_connect(host_bus *bus, std::string *error) {
  bus_message call, reply;
  int result = host_begin(bus, &call, "Connect", error);
  return result < 0 ? result : host_finish(bus, call, 0, &reply, error);
}

int host_add_account(host_bus *bus, int id, const std::string &address, const std::string &name, uint32_t rgba,
                     std::string *error) {
  bus_message call, reply;
  int result = host_begin(bus, &call, "AddAccount", error);
  if (result < 0) return result;
  int filled =
      sd_bus_message_append(call.m, "issu", id, host_bus_text(address).c_str(), host_bus_text(name).c_str(), rgba);
  result = host_finish(bus, call, filled, &reply, error);
  if (result != HOST_OK) return result;
  int32_t given = 0;
  result = sd_bus_message_read(reply.m, "i", &given);
  return result < 0 ? host_unreadable(result, error) : given;
}

int host_remove_account(host_bus *bus, int id, std::string *error) {
  bus_message call, reply;
  int result = host_begin(bus, &call, "RemoveAccount", error);
  if (result < 0) return result;
  return host_finish(bus, call, sd_bus_message_append(call.m, "i", id), &reply, error);
}

int host_list_accounts(host_bus *bus, std::vector<host_record> *accounts, std::string *error) {
  bus_message call, reply;
  int result = host_begin(bus, &call, "ListAccounts", error);
  if (result < 0) return result;
  result = host_finish(bus, call, 0, &reply, error);
  if (result != HOST_OK) return result;
  result = read_records(reply.m, kMostAccounts, accounts);
  return result < 0 ? host_unreadable(result, error) : 0;
}

int host_set_account_count(host_bus *bus, bool known, std::string *error) {
  bus_message call, reply;
  int result = host_begin(bus, &call, "SetAccountCount", error);
  if (result < 0) return result;
  return host_finish(bus, call, sd_bus_message_append(call.m, "b", static_cast<int>(known)), &reply, error);
}

struct host_call {
  host_bus *bus = nullptr;
  sd_bus_slot *slot = nullptr;
  bool done = false;
  int result = HOST_AWAY;
  std::string error;
  std::vector<int> ids;
  size_t bytes = 0; /* of it that are on their way */
};

namespace {

int read_ids(sd_bus_message *m, std::vector<int> *ids, std::string *error) {
  const void *data = nullptr;
  size_t size = 0;
  int result = sd_bus_message_read_array(m, 'i', &data, &size);
  if (result < 0) return host_unreadable(result, error);
  if (size > 0) ids->assign(static_cast<const int *>(data), static_cast<const int *>(data) + size / sizeof(int));
  return HOST_OK;
}

int answered_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  auto *call = static_cast<host_call *>(user_data);
  const sd_bus_error *why = sd_bus_message_get_error(m);
  call->done = true;
  stream_answered(call->bus, call->bytes);
  call->result = why ? host_failed(call->bus, *why, -sd_bus_error_get_errno(why), &call->error)
                     : read_ids(m, &call->ids, &call->error);
  return 0;
}

void end_call(host_call *call, int result, const std::string &error) {
  call->done = true;
  stream_answered(call->bus, call->bytes);
  call->result = result;
  call->error = error;
}

}  // namespace

void host_call_closer::operator()(host_call *call) const {
  sd_bus_slot_unref(call->slot);
  delete call;
}

host_call_holder host_add_mails_begin(host_bus *bus, const std::vector<const watch_mail *> &mails) {
  host_call_holder call(new host_call);
  call->bus = bus;
  bus_message m;
  std::string error;
  int found = host_begin(bus, &m, "AddMails", &error);
  if (found < 0) {
    end_call(call.get(), found, error);
    return call;
  }
  int filled = sd_bus_message_open_container(m.m, 'a', "a{sv}");
  for (const watch_mail *mail : mails)
    if (filled >= 0) filled = append_mail(m.m, *bus, *mail);
  if (filled >= 0) filled = sd_bus_message_close_container(m.m);
  if (filled < 0) {
    end_call(call.get(), HOST_REFUSED, std::string("the bus message cannot be made: ") + strerror(-filled));
    return call;
  }
  for (const watch_mail *mail : mails) call->bytes += mail->body.size() + mail->subject.size();
  bus->on_way += call->bytes;
  /* Whether a stream is still there is another matter than how long a call takes on it. */
  uint64_t patience = bus->peer ? UINT64_MAX : bus->patience;
  int sent = sd_bus_call_async(bus->bus, &call->slot, m.m, answered_cb, call.get(), patience);
  if (sent < 0) end_call(call.get(), HOST_AWAY, explain(*bus, SD_BUS_ERROR_NULL, sent));
  return call;
}

int host_add_mails_end(host_call *call, size_t count, std::vector<int> *ids, std::string *error) {
  while (!call->done) {
    host_bus *bus = call->bus;
    int r = bus->peer ? stream_wait(bus, &call->done) : sd_bus_process(bus->bus, nullptr);
    if (r == 0 && !bus->peer) r = sd_bus_wait(bus->bus, UINT64_MAX);
    if (r < 0 && r != -EINTR) end_call(call, HOST_AWAY, explain(*bus, SD_BUS_ERROR_NULL, r));
  }
  *error = call->error;
  *ids = std::move(call->ids);
  if (call->result != HOST_OK || ids->size() == count) return call->result;
  *error = "the host service gave " + std::to_string(ids->size()) + " ids for " + std::to_string(count) + " mails";
  return HOST_AWAY;
}

int host_add_mails(host_bus *bus, const std::vector<const watch_mail *> &mails, std::vector<int> *ids,
                   std::string *error) {
  host_call_holder call = host_add_mails_begin(bus, mails);
  return host_add_mails_end(call.get(), mails.size(), ids, error);
}

int host_update_mail(host_bus *bus, int id, const mail_change &change, std::string *error) {
  bus_message call, reply;
  int result = host_begin(bus, &call, "UpdateMail", error);
  if (result < 0) return result;
  int r = sd_bus_message_append(call.m, "i", id);
  if (r >= 0) r = sd_bus_message_open_container(call.m, 'a', "{sv}");
  if (r >= 0 && change.is_read >= 0) r = append_number(call.m, "is_read", change.is_read);
  if (r >= 0 && change.is_new >= 0) r = append_number(call.m, "is_new", change.is_new);
  if (r >= 0 && change.has_subject) r = append_text(call.m, "subject", change.subject);
  if (r >= 0) r = sd_bus_message_close_container(call.m);
  return host_finish(bus, call, r, &reply, error);
}

int host_delete_mails(host_bus *bus, const std::vector<int> &ids, std::string *error) {
  bus_message call, reply;
  int result = host_begin(bus, &call, "DeleteMails", error);
  if (result < 0) return result;
  return host_finish(bus, call, append_ids(call.m, ids), &reply, error);
}

namespace {

/* Calls `method` for one portion after the other, until there is no more: all mails of a large store would not fit one
   bus message, and what the watch says besides must not wait long behind one on a slow stream. take() reads a portion
   and gives the last mail's id, 0 when there was none, or an errno below 0; it adds to *held what its mails take. */
template <typename Take>
int list_in_portions(host_bus *bus, const char *method, int portion, std::string *error, Take take) {
  size_t held = 0;
  for (int after = 0;;) {
    bus_message call, reply;
    int result = host_begin(bus, &call, method, error);
    if (result < 0) return result;
    result = host_finish(bus, call, sd_bus_message_append(call.m, "ii", after, portion), &reply, error);
    if (result != HOST_OK) return result;
    int last = take(reply.m, static_cast<size_t>(portion), &held);
    if (held > kMostListed) last = -EFBIG;
    if (last < 0) return host_unreadable(last, error);
    if (last <= after) return 0;
    after = last;
  }
}

size_t bytes_of(const host_record &record) {
  constexpr size_t node = 64;
  size_t bytes = sizeof record + node * (record.numbers.size() + record.texts.size() + record.contacts.size());
  for (const auto &[key, text] : record.texts) bytes += text.size();
  return bytes;
}

int read_mail_ids(sd_bus_message *m, size_t most, std::vector<watch_mail_id> *mails, size_t *held) {
  most += mails->size();
  int last = 0, r = sd_bus_message_enter_container(m, 'a', "(iiss)");
  while (r >= 0) {
    int mail_id = 0, account_id = 0;
    const char *tag = nullptr, *uid = nullptr;
    r = sd_bus_message_read(m, "(iiss)", &mail_id, &account_id, &tag, &uid);
    if (r <= 0) break;
    mails->push_back({mail_id, account_id, tag, uid});
    *held += sizeof(watch_mail_id) + strlen(tag) + strlen(uid);
    if (mails->size() > most) return -EBADMSG;
    last = mail_id;
  }
  return r < 0 ? r : last;
}

}  // namespace

int host_list_mails(host_bus *bus, std::vector<host_record> *mails, std::string *error) {
  return list_in_portions(
      bus, "ListMails", bus->peer ? 32 : 500, error, [mails](sd_bus_message *m, size_t most, size_t *held) {
        size_t before = mails->size();
        int r = read_records(m, most, mails);
        for (size_t i = before; i < mails->size(); i++) *held += bytes_of((*mails)[i]);
        return r < 0 ? r : mails->size() == before ? 0 : static_cast<int>(mails->back().number("mail_id"));
      });
}

int host_list_mail_ids(host_bus *bus, std::vector<watch_mail_id> *mails, std::string *error) {
  if (bus->watch.mail_ids)
    return list_in_portions(
        bus, "ListMailIds", bus->peer ? 100 : 1000, error,
        [mails](sd_bus_message *m, size_t most, size_t *held) { return read_mail_ids(m, most, mails, held); });
  std::vector<host_record> all;
  int result = host_list_mails(bus, &all, error);
  for (const host_record &mail : all)
    mails->push_back({static_cast<int>(mail.number("mail_id")), static_cast<int>(mail.number("account_id")),
                      mail.text("host_tag"), mail.text("message_uid")});
  return result;
}

int host_set_templates(host_bus *bus, const std::vector<std::string> &texts, std::string *error) {
  bus_message call, reply;
  int result = host_begin(bus, &call, "SetTemplates", error);
  if (result < 0) return result;
  int r = sd_bus_message_open_container(call.m, 'a', "s");
  for (const std::string &text : texts)
    if (r >= 0) r = sd_bus_message_append(call.m, "s", host_bus_text(text).c_str());
  if (r >= 0) r = sd_bus_message_close_container(call.m);
  return host_finish(bus, call, r, &reply, error);
}

int host_list_templates(host_bus *bus, std::vector<std::pair<int, std::string>> *templates, std::string *error) {
  bus_message call, reply;
  int result = host_begin(bus, &call, "ListTemplates", error);
  if (result < 0) return result;
  int r = host_finish(bus, call, 0, &reply, error);
  if (r != HOST_OK) return r;
  r = sd_bus_message_enter_container(reply.m, 'a', "(is)");
  while (r >= 0) {
    int id = 0;
    const char *text = nullptr;
    r = sd_bus_message_read(reply.m, "(is)", &id, &text);
    if (r <= 0) break;
    templates->emplace_back(id, text);
    if (templates->size() > templates_max) return host_unreadable(-EBADMSG, error);
  }
  return r < 0 ? host_unreadable(r, error) : 0;
}

int host_set_status(host_bus *bus, const char *kind, int value, std::string *error) {
  bus_message call, reply;
  int result = host_begin(bus, &call, "SetStatus", error);
  if (result < 0) return result;
  return host_finish(bus, call, sd_bus_message_append(call.m, "si", kind, value), &reply, error);
}

int host_acknowledge(host_bus *bus, int64_t id, std::string *error) {
  bus_message call, reply;
  int result = host_begin(bus, &call, "Ack", error);
  if (result < 0) return result;
  return host_finish(bus, call, sd_bus_message_append(call.m, "x", id), &reply, error);
}

int host_acknowledge_mails(host_bus *bus, int64_t id, const std::vector<int> &mail_ids, std::string *error) {
  if (!bus->watch.ack_mails) return host_acknowledge(bus, id, error);
  bus_message call, reply;
  int result = host_begin(bus, &call, "AckMails", error);
  if (result < 0) return result;
  int filled = sd_bus_message_append(call.m, "x", id);
  if (filled >= 0)
    filled = sd_bus_message_append_array(call.m, 'i', mail_ids.data(), mail_ids.size() * sizeof(mail_ids[0]));
  return host_finish(bus, call, filled, &reply, error);
}

int host_outcome(host_bus *bus, const std::string &uid, const char *state, const std::string &reason,
                 std::string *error) {
  bus_message call, reply;
  int result = host_begin(bus, &call, "Outcome", error);
  if (result < 0) return result;
  int filled = sd_bus_message_append(call.m, "sss", host_bus_text(uid).c_str(), state, host_bus_text(reason).c_str());
  return host_finish(bus, call, filled, &reply, error);
}

int host_answer_more(host_bus *bus, int64_t id, int phone_error, const std::string &piece, bool complete,
                     std::string *error) {
  bus_message call, reply;
  int result = host_begin(bus, &call, "AnswerMore", error);
  if (result < 0) return result;
  int filled =
      sd_bus_message_append(call.m, "xisb", id, phone_error, host_bus_text(piece).c_str(), static_cast<int>(complete));
  bus->on_way += piece.size();
  result = host_finish(bus, call, filled, &reply, error);
  stream_answered(bus, piece.size());
  return result;
}
