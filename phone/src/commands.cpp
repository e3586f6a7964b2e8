#include "commands.h"

#include <glib.h>

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "link.h"
#include "mail-files.h"
#include "parser.h"
#include "relay.h"
#include "watch.h"

namespace {

using json = nlohmann::ordered_json;

constexpr size_t kBatchMails = 256, kBatchBytes = 8u << 20; /* far below what one bus message may hold */

int complain(const std::string &error) {
  link_log(error);
  return 1;
}

std::string dump(const json &value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

/* An array with one element per line: whole for programs, readable for people. */
void print_array(const std::vector<std::string> &lines) {
  printf("[");
  for (size_t i = 0; i < lines.size(); i++) printf("%s\n%s", i ? "," : "", lines[i].c_str());
  printf(lines.empty() ? "]\n" : "\n]\n");
}

json record_json(const host_record &record, std::initializer_list<const char *> numbers,
                 std::initializer_list<const char *> texts) {
  json out = json::object();
  for (const char *name : numbers) out[name] = record.number(name);
  for (const char *name : texts) out[name] = record.text(name);
  /* What the service may come to tell besides. */
  for (const auto &[name, value] : record.numbers)
    if (!out.contains(name)) out[name] = value;
  for (const auto &[name, value] : record.texts)
    if (!out.contains(name)) out[name] = value;
  return out;
}

std::string one_line(const std::string &text) {
  return mime_clean_line(text, 1024);
}

struct sending {
  host_bus *bus;
  phone_state *state;
  const send_options *options;
  std::vector<outgoing> batch;
  size_t bytes = 0;
  size_t sent = 0, broken = 0; /* mails */
  std::string error;
};

int flush_batch(sending *s) {
  std::vector<int> ids;
  if (send_batch(s->bus, s->state, &s->batch, &ids, &s->error) < 0) return -1;
  for (int id : ids) printf("%d\n", id);
  fflush(stdout);
  s->sent += ids.size();
  s->batch.clear();
  s->bytes = 0;
  return 0;
}

int send_found(const found_mail &found, void *user_data) {
  auto *s = static_cast<sending *>(user_data);
  mime_mail mail;
  std::string error;
  if (parser_read(found.raw, mime_limits(), &mail, &error) != PARSER_DONE) {
    link_log(*found.name + ": " + error);
    s->broken++;
    return 0;
  }
  /* The text is kept here, not only where it came from: a file may be gone when the watch asks for more. */
  s->batch.push_back(make_outgoing(mail, *s->options, found.source, false, found.seen || mail.seen));
  s->bytes += s->batch.back().mail.body.size() + 4096;
  return s->batch.size() >= kBatchMails || s->bytes >= kBatchBytes ? flush_batch(s) : 0;
}

}  // namespace

int command_account_add(const std::string &address, const std::string &name, const std::string &color, int id) {
  std::string error;
  uint32_t rgba = 0; /* the service chooses one that tells it from the others */
  if (!color.empty()) parse_color(color, &rgba);
  host_bus_holder bus = watch_open(&error);
  if (!bus) return complain(error);
  int given = host_add_account(bus.get(), id, address, mime_clean_line(name, SIZE_MAX), rgba, &error);
  if (given < 0) return complain(error);
  printf("%d\n", given);
  return 0;
}

int command_account_remove(int id) {
  std::string error;
  host_bus_holder bus = watch_open(&error);
  if (!bus) return complain(error);
  return host_remove_account(bus.get(), id, &error) < 0 ? complain(error) : 0;
}

int command_account_list(bool as_json) {
  std::string error;
  std::vector<host_record> accounts;
  host_bus_holder bus = watch_open(&error);
  if (!bus || host_list_accounts(bus.get(), &accounts, &error) < 0) return complain(error);
  std::vector<std::string> lines;
  for (const host_record &account : accounts) {
    char color[16];
    snprintf(color, sizeof color, "%08X", static_cast<unsigned>(account.number("color")));
    if (as_json) {
      json out = record_json(account, {"account_id", "account_value"}, {"email_address", "display_name"});
      out["color"] = color;
      lines.push_back(dump(out));
    } else {
      printf("%lld\t%s\t%s\t%s\n", static_cast<long long>(account.number("account_id")),
             one_line(account.text("email_address")).c_str(), one_line(account.text("display_name")).c_str(), color);
    }
  }
  if (as_json) print_array(lines);
  return 0;
}

int command_account_count(bool known) {
  std::string error;
  host_bus_holder bus = watch_open(&error);
  return !bus || host_set_account_count(bus.get(), known, &error) < 0 ? complain(error) : 0;
}

int command_mail_send(const std::vector<std::string> &files, const send_options &options) {
  std::string error;
  mime_init();
  phone_state_holder state(phone_state_open(&error));
  if (!state) return complain(error);
  host_bus_holder bus = watch_open(&error);
  if (!bus) return complain(error);
  sending s = {};
  s.bus = bus.get();
  s.state = state.get();
  s.options = &options;
  int result = 0;
  for (const std::string &file : files) {
    result = mail_files_each(file, send_found, &s, &error);
    if (result < 0 && s.error.empty()) {
      link_log(error);
      s.broken++;
      result = 0;
    }
    if (result < 0) break;
  }
  if (result == 0) result = flush_batch(&s);
  if (result < 0) {
    if (s.sent == 0) return complain("the mails could not be sent: " + s.error);
    return complain("only the first " + std::to_string(s.sent) + " were sent: " + s.error);
  }
  /* Each was told by name; how many only where one could lose count. */
  if (s.broken > 0 && s.broken + s.sent > 1)
    link_log(std::to_string(s.broken) + " of " + std::to_string(s.broken + s.sent) + " were not sent");
  return s.broken > 0 ? 1 : 0;
}

int command_mail_update(int id, const mail_change &change) {
  std::string error;
  host_bus_holder bus = watch_open(&error);
  if (!bus) return complain(error);
  mail_change clean = change;
  clean.subject = mime_clean_line(change.subject, 4096);
  return host_update_mail(bus.get(), id, clean, &error) < 0 ? complain(error) : 0;
}

int command_mail_delete(const std::vector<int> &ids) {
  std::string error;
  phone_state_holder state(phone_state_open(&error));
  if (!state) return complain(error);
  host_bus_holder bus = watch_open(&error);
  if (!bus || host_delete_mails(bus.get(), ids, &error) < 0) return complain("nothing was deleted: " + error);
  if (relay_forget_mails(state.get(), ids) < 0) return complain(phone_state_error(state.get()));
  return 0;
}

int command_mail_list(bool as_json) {
  std::string error;
  std::vector<host_record> mails;
  host_bus_holder bus = watch_open(&error);
  if (!bus || host_list_mails(bus.get(), &mails, &error) < 0) return complain(error);
  std::vector<std::string> lines;
  for (const host_record &mail : mails) {
    if (as_json) {
      json out = record_json(mail,
                             {"mail_id", "account_id", "received_time", "is_new", "is_read", "security_locked",
                              "attachment_count", "has_image", "host_state"},
                             {"from_name", "from_address", "subject", "body", "message_uid", "host_tag"});
      json contacts = json::array();
      for (const auto &[type, number] : mail.contacts) contacts.push_back({{"type", type}, {"number", number}});
      out["contacts"] = contacts;
      lines.push_back(dump(out));
    } else {
      std::string from = mail.text("from_name").empty() ? mail.text("from_address") : mail.text("from_name");
      printf("%lld\t%lld\t%s\t%c%c%c%c\t%s\t%s\n", static_cast<long long>(mail.number("mail_id")),
             static_cast<long long>(mail.number("account_id")), local_time(mail.number("received_time")).c_str(),
             mail.number("is_new") ? 'N' : '-', mail.number("is_read") ? 'R' : '-',
             mail.number("security_locked") ? 'L' : '-', mail.number("attachment_count") ? 'A' : '-',
             one_line(from).c_str(), one_line(mail.text("subject")).c_str());
    }
  }
  if (as_json) print_array(lines);
  return 0;
}

int command_template_set(const std::vector<std::string> &texts) {
  std::string error;
  host_bus_holder bus = watch_open(&error);
  if (!bus) return complain(error);
  std::vector<std::string> clean;
  for (const std::string &text : texts) clean.push_back(mime_to_utf8(text, "utf-8"));
  return host_set_templates(bus.get(), clean, &error) < 0 ? complain(error) : 0;
}

int command_template_list(bool as_json) {
  std::string error;
  std::vector<std::pair<int, std::string>> templates;
  host_bus_holder bus = watch_open(&error);
  if (!bus || host_list_templates(bus.get(), &templates, &error) < 0) return complain(error);
  std::vector<std::string> lines;
  for (const auto &[id, text] : templates) {
    if (as_json)
      lines.push_back(dump({{"template_id", id}, {"text", text}}));
    else
      printf("%d\t%s\n", id, one_line(text).c_str());
  }
  if (as_json) print_array(lines);
  return 0;
}

int command_status(const char *kind, int value) {
  std::string error;
  host_bus_holder bus = watch_open(&error);
  return !bus || host_set_status(bus.get(), kind, value, &error) < 0 ? complain(error) : 0;
}

int command_requests(bool as_json) {
  std::string error;
  phone_state_holder state(phone_state_open(&error));
  if (!state) return complain(error);
  std::vector<stored_request> requests;
  if (phone_state_list_requests(state.get(), &requests) < 0) return complain(phone_state_error(state.get()));
  std::vector<std::string> lines;
  for (const stored_request &request : requests) {
    if (as_json)
      lines.push_back(request.json);
    else
      printf("%s\t%s\n", local_time(request.time).c_str(), request.json.c_str());
  }
  if (as_json) print_array(lines);
  return 0;
}

namespace {

/* Reads the list of demo mails; what is missing or wrong in it is told by name. */
int read_demo(const std::string &dir, json *demo, std::string *error) {
  std::string text;
  if (mail_file_read(dir + "/demo.json", 1u << 20, &text, error) < 0) return -1;
  *demo = json::parse(text, nullptr, false);
  if (demo->is_object() && (*demo)["accounts"].is_array() && (*demo)["mails"].is_array()) return 0;
  *error = dir + "/demo.json: not a list of demo mails";
  return -1;
}

std::string text_of(const json &entry, const char *key) {
  auto found = entry.find(key);
  return found != entry.end() && found->is_string() ? found->get<std::string>() : "";
}

int64_t number_of(const json &entry, const char *key, int64_t otherwise) {
  auto found = entry.find(key);
  return found != entry.end() && found->is_number_integer() ? found->get<int64_t>() : otherwise;
}

bool flag_of(const json &entry, const char *key, bool otherwise) {
  auto found = entry.find(key);
  return found != entry.end() && found->is_boolean() ? found->get<bool>() : otherwise;
}

/* The account with this address; a new one when there is none yet. */
int demo_account(host_bus *bus, const json &entry, std::string *error) {
  std::vector<host_record> accounts;
  if (host_list_accounts(bus, &accounts, error) < 0) return -1;
  for (const host_record &account : accounts)
    if (account.text("email_address") == text_of(entry, "address"))
      return static_cast<int>(account.number("account_id"));
  uint32_t rgba = 0;
  if (parse_color(text_of(entry, "color"), &rgba) < 0) rgba = 0;
  return host_add_account(bus, 0, text_of(entry, "address"), text_of(entry, "name"), rgba, error);
}

}  // namespace

int command_demo(const std::string &dir) {
  std::string error;
  json demo;
  mime_init();
  if (read_demo(dir, &demo, &error) < 0) return complain(error);
  phone_state_holder state(phone_state_open(&error));
  if (!state) return complain(error);
  host_bus_holder bus = watch_open(&error);
  if (!bus) return complain(error);
  std::map<std::string, int> accounts;
  for (const json &entry : demo["accounts"]) {
    int id = entry.is_object() ? demo_account(bus.get(), entry, &error) : -1;
    if (id < 0) return complain("demo account: " + error);
    accounts[text_of(entry, "folder")] = id;
  }
  if (host_set_account_count(bus.get(), true, &error) < 0) return complain(error);
  std::vector<watch_mail_id> present;
  if (host_list_mail_ids(bus.get(), &present, &error) < 0) return complain(error);
  std::map<std::string, bool> there;
  for (const watch_mail_id &mail : present) there[mail.message_uid] = true;

  int64_t now = static_cast<int64_t>(time(nullptr));
  std::vector<outgoing> batch;
  for (const json &entry : demo["mails"]) {
    std::string file = entry.is_object() ? text_of(entry, "file") : "";
    size_t slash = file.find('/');
    auto account = accounts.find(file.substr(0, slash == std::string::npos ? 0 : slash));
    if (account == accounts.end()) return complain(dir + "/demo.json: '" + file + "' belongs to no account");
    std::string raw;
    mime_mail mail;
    if (mail_file_read(dir + "/" + file, mime_limits().message, &raw, &error) < 0) return complain(error);
    if (parser_read(raw, mime_limits(), &mail, &error) != PARSER_DONE) return complain(file + ": " + error);
    if (there.count(mail.message_uid)) continue; /* a second run adds nothing */
    send_options options;
    options.account_id = account->second;
    options.locked = flag_of(entry, "locked", false);
    options.is_read = flag_of(entry, "read", false);
    options.is_new = flag_of(entry, "new", false);
    options.first = number_of(entry, "first", -1);
    options.received = now - number_of(entry, "minutes", 0) * 60;
    batch.push_back(make_outgoing(mail, options, "", false, false));
  }
  std::vector<int> ids;
  if (send_batch(bus.get(), state.get(), &batch, &ids, &error) < 0)
    return complain("the mails could not be sent: " + error);
  for (int id : ids) printf("%d\n", id);
  return 0;
}

namespace {

struct serving {
  phone_state *state = nullptr;
  bool output_gone = false;
};

int keep_request(phone_link *link, const nlohmann::json &request, const std::string &uid, void *user_data) {
  return relay_keep_request(static_cast<serving *>(user_data)->state, request, uid);
}

void print_request(phone_link *link, const nlohmann::json &request, const std::string &line, void *user_data) {
  auto *serve = static_cast<serving *>(user_data);
  std::string text = line;
  for (char &c : text)
    if (c == '\n' || c == '\r') c = ' '; /* white space between the tokens of JSON: one line each, whatever came */
  if (!serve->output_gone && (printf("%s\n", text.c_str()) < 0 || fflush(stdout) != 0)) {
    serve->output_gone = true;
    link_log("standard output is gone; requests are still kept (see `brisel-phone requests`)");
  }
}

}  // namespace

int command_serve() {
  std::string error;
  mime_init();
  phone_state_holder state(phone_state_open(&error));
  if (!state) return complain(error);
  serving serve;
  serve.state = state.get();
  link_handlers handlers = {};
  handlers.keep = keep_request;
  handlers.kept = print_request;
  phone_link_holder link(link_open(state.get(), &handlers, &serve, &error));
  if (!link || link_run(link.get(), &error) < 0) return complain(error);
  return 0;
}
