/* A phone on the session's bus, as the tests in process have it: it fills the store through the service, hears what the
   watch asks and answers. Its messages are handled while run_until() waits. */
#ifndef BRISEL_HARNESS_PHONE_H
#define BRISEL_HARNESS_PHONE_H

#include <systemd/sd-bus.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "brisel-bus.h"

struct bus_message {
  sd_bus_message *m = nullptr;
  ~bus_message() { sd_bus_message_unref(m); }
  operator sd_bus_message *() const { return m; }
};

struct test_mail {
  int account = 0;
  long received = 0;
  std::string from_name;
  std::string from_address = "someone@example.org";
  std::string subject = "Subject";
  std::string body = "Body";
  int is_new = 1;
  int locked = 0;
};

/* A connection of its own that calls the service. */
struct test_phone {
  sd_bus *bus = nullptr;

  test_phone();
  ~test_phone();
  test_phone(const test_phone &) = delete;
  test_phone &operator=(const test_phone &) = delete;

  /* Calls a method; the error's name, or "" when it went well. The answer, when wanted, is the caller's. */
  template <typename... T>
  std::string call(const char *interface, const char *member, sd_bus_message **answer, const char *types, T... values) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    bus_message own;
    const int r = sd_bus_call_method(bus, host_name, host_path, interface, member, &error, &own.m, types, values...);
    std::string name = r < 0 ? (error.name ? error.name : strerror(-r)) : "";
    if (answer) std::swap(*answer, own.m);
    sd_bus_error_free(&error);
    return name;
  }
  template <typename... T>
  std::string phone(const char *member, const char *types, T... values) {
    return call(phone_interface, member, nullptr, types, values...);
  }

  /* These must go well. */
  int add_account(const std::string &address, const std::string &name, unsigned rgba = 0x3366CCFF, int id = 0);
  void remove_account(int id);
  std::vector<int> accounts(void);
  std::vector<int> mails(void);
  void set_account_count(bool known);
  std::vector<int> add_mails(const std::vector<test_mail> &mails);
  int add_mail(const test_mail &mail) { return add_mails({mail}).at(0); }
  void set_flag(int mail_id, const char *field, int value);
  void set_text(int mail_id, const char *field, const std::string &text);
  void set_status(const char *kind, int value);
  void set_templates(const std::vector<std::string> &texts);
  void delete_mails(const std::vector<int> &ids);
  /* The process of the service; 0 while none runs. */
  pid_t service(void);
  /* Takes every mail and account away. */
  void clear(void);
};

/* A phone that the watch is linked to: what the watch asks of it reaches it and is acknowledged. */
struct linked_phone : test_phone {
  struct request_heard {
    int64_t id;
    nlohmann::json json;
    int64_t have = -1; /* bytes of the body that the watch has, of a more-message request */
  };
  bool acknowledges = true;
  std::vector<request_heard> requests;
  int beside = 0;

  linked_phone();
  ~linked_phone();
  void connect(void);
  /* Leaves the bus, and with it the link. */
  void leave(void);
  /* Hears what has come meanwhile. */
  void drain(void);
  /* The newest request of that kind, waiting for it; null when none comes. */
  nlohmann::json request(const std::string &kind);
  /* How many requests of that kind have come. */
  int count(const std::string &kind);
  /* The number of the newest more-message request, waiting for it; -1 when none comes. */
  int64_t more_request(void);
  /* Answers it as the phone does. */
  void answer_more(int64_t request, int error, const std::string &piece, bool complete);
};

#endif
