#include "phone.h"

#include "loop.h"

test_phone::test_phone() {
  EXPECT_GE(sd_bus_open_user(&bus), 0);
}

test_phone::~test_phone() {
  sd_bus_flush_close_unref(bus);
}

static void call(test_phone *phone, sd_bus_message *request, bus_message *answer) {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  const int result = sd_bus_call(phone->bus, request, 0, &error, answer ? &answer->m : nullptr);
  EXPECT_GE(result, 0) << sd_bus_message_get_member(request) << ": " << (error.message ? error.message : "");
  sd_bus_error_free(&error);
}

static void begin(test_phone *phone, const char *method, bus_message *request) {
  ASSERT_GE(sd_bus_message_new_method_call(phone->bus, &request->m, host_name, host_path, phone_interface, method), 0);
}

int test_phone::add_account(const std::string &address, const std::string &name, unsigned rgba, int id) {
  bus_message answer;
  EXPECT_EQ("", call(phone_interface, "AddAccount", &answer.m, "issu", id, address.c_str(), name.c_str(), rgba));
  if (answer.m) sd_bus_message_read(answer, "i", &id);
  return id;
}

void test_phone::remove_account(int id) {
  EXPECT_EQ("", phone("RemoveAccount", "i", id));
}

/* The value of an int field in each record of an aa{sv}. */
static std::vector<int> ints_of(sd_bus_message *m, const char *field) {
  std::vector<int> values;
  sd_bus_message_enter_container(m, 'a', "a{sv}");
  while (sd_bus_message_enter_container(m, 'a', "{sv}") > 0) {
    while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
      const char *key = nullptr;
      sd_bus_message_read(m, "s", &key);
      int value = 0;
      if (!strcmp(key, field) && sd_bus_message_read(m, "v", "i", &value) >= 0)
        values.push_back(value);
      else
        sd_bus_message_skip(m, "v");
      sd_bus_message_exit_container(m);
    }
    sd_bus_message_exit_container(m);
  }
  return values;
}

std::vector<int> test_phone::accounts(void) {
  bus_message answer;
  EXPECT_EQ("", call(phone_interface, "ListAccounts", &answer.m, ""));
  return answer.m ? ints_of(answer, "account_id") : std::vector<int>();
}

std::vector<int> test_phone::mails(void) {
  bus_message answer;
  EXPECT_EQ("", call(phone_interface, "ListMails", &answer.m, "ii", 0, 0));
  return answer.m ? ints_of(answer, "mail_id") : std::vector<int>();
}

void test_phone::set_account_count(bool known) {
  EXPECT_EQ("", phone("SetAccountCount", "b", (int)known));
}

std::vector<int> test_phone::add_mails(const std::vector<test_mail> &mails) {
  bus_message request, answer;
  begin(this, "AddMails", &request);
  sd_bus_message_open_container(request, 'a', "a{sv}");
  int number = 0;
  for (const test_mail &mail : mails) {
    const std::string uid = "uid-" + std::to_string(number++);
    sd_bus_message_append(request, "a{sv}", 10, "account_id", "i", mail.account, "received_time", "x",
                          (int64_t)mail.received, "from_name", "s", mail.from_name.c_str(), "from_address", "s",
                          mail.from_address.c_str(), "subject", "s", mail.subject.c_str(), "body", "s",
                          mail.body.c_str(), "message_uid", "s", uid.c_str(), "is_new", "i", mail.is_new,
                          "security_locked", "i", mail.locked, "is_read", "i", 0);
  }
  sd_bus_message_close_container(request);
  ::call(this, request, &answer);
  std::vector<int> ids;
  if (!answer.m) return std::vector<int>(mails.size(), -1);
  sd_bus_message_enter_container(answer, 'a', "i");
  for (int id = 0; sd_bus_message_read(answer, "i", &id) > 0;) ids.push_back(id);
  return ids;
}

void test_phone::set_flag(int mail_id, const char *field, int value) {
  EXPECT_EQ("", phone("UpdateMail", "ia{sv}", mail_id, 1, field, "i", value));
}

void test_phone::set_text(int mail_id, const char *field, const std::string &text) {
  EXPECT_EQ("", phone("UpdateMail", "ia{sv}", mail_id, 1, field, "s", text.c_str()));
}

void test_phone::set_status(const char *kind, int value) {
  EXPECT_EQ("", phone("SetStatus", "si", kind, value));
}

void test_phone::set_templates(const std::vector<std::string> &texts) {
  bus_message request;
  begin(this, "SetTemplates", &request);
  std::vector<char *> list;
  for (const std::string &one : texts) list.push_back((char *)one.c_str());
  list.push_back(nullptr);
  sd_bus_message_append_strv(request, list.data());
  ::call(this, request, nullptr);
}

void test_phone::delete_mails(const std::vector<int> &ids) {
  bus_message request;
  begin(this, "DeleteMails", &request);
  sd_bus_message_append_array(request, 'i', ids.data(), ids.size() * sizeof(int));
  ::call(this, request, nullptr);
}

pid_t test_phone::service(void) {
  sd_bus_creds *creds = nullptr;
  pid_t pid = 0;
  if (sd_bus_get_name_creds(bus, host_name, SD_BUS_CREDS_PID, &creds) >= 0) sd_bus_creds_get_pid(creds, &pid);
  sd_bus_creds_unref(creds);
  return pid;
}

void test_phone::clear(void) {
  for (int id : accounts()) remove_account(id);
}

static int request_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  linked_phone *phone = (linked_phone *)data;
  int64_t id = 0, have = -1;
  const char *json = "null", *key = nullptr;
  sd_bus_message_read(m, "xs", &id, &json);
  sd_bus_message_enter_container(m, 'a', "{sv}");
  if (sd_bus_message_enter_container(m, 'e', "sv") > 0) sd_bus_message_read(m, "sv", &key, "x", &have);
  phone->requests.push_back({id, nlohmann::json::parse(json), have});
  if (phone->acknowledges)
    sd_bus_call_method_async(phone->bus, nullptr, host_name, host_path, phone_interface, "Ack", nullptr, nullptr, "x",
                             id);
  return 0;
}

linked_phone::linked_phone() {
  EXPECT_GE(sd_bus_match_signal(bus, nullptr, host_name, host_path, phone_interface, "Request", request_cb, this), 0);
  beside = loop_also([this] { drain(); });
}

linked_phone::~linked_phone() {
  loop_no_more(beside);
}

void linked_phone::connect(void) {
  EXPECT_EQ("", phone("Connect", ""));
}

void linked_phone::leave(void) {
  bus = sd_bus_flush_close_unref(bus);
}

void linked_phone::drain(void) {
  while (bus && sd_bus_process(bus, nullptr) > 0) {
  }
}

nlohmann::json linked_phone::request(const std::string &kind) {
  nlohmann::json found;
  run_until([&] {
    drain();
    for (const request_heard &have : requests)
      if (have.json.at("request") == kind) found = have.json;
    return !found.is_null();
  });
  return found;
}

int linked_phone::count(const std::string &kind) {
  drain();
  int count = 0;
  for (const request_heard &have : requests)
    if (have.json.at("request") == kind) count++;
  return count;
}

int64_t linked_phone::more_request(void) {
  int64_t found = -1;
  run_until([&] {
    drain();
    for (const request_heard &have : requests)
      if (have.json.at("request") == "more_msg") found = have.id;
    return found >= 0;
  });
  return found;
}

void linked_phone::answer_more(int64_t request, int error, const std::string &piece, bool complete) {
  EXPECT_EQ("", phone("AnswerMore", "xisb", request, error, piece.c_str(), (int)complete));
}
