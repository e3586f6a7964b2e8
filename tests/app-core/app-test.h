/* What the application's in-process tests share: the application in the framework's main loop, a phone on the bus that
   fills the store through the service, fingers and keys on the canvas, the log. Every test
   program runs in a private session. */
#ifndef BRISEL_APP_TEST_H
#define BRISEL_APP_TEST_H

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "brisel-app-lifecycle.h"
#include "brisel-app-utils.h"
#include "brisel-app.h"

/* Runs the main loop until done() holds; false when it does not within the patience of a slow machine. */
bool run_until(const std::function<bool()> &done);
/* Runs the main loop until everything that is ready now has been handled. */
void settle(void);

/* --- the log ------------------------------------------------------------------------------------------------------ */

/* The lines of the application ("P/TEXT", without file, function and line) since the last mark. */
void log_mark(void);
std::vector<std::string> log_lines(void);
bool logged(const std::string &line);

/* --- the phone ---------------------------------------------------------------------------------------------------- */

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

struct test_phone {
  sd_bus *bus = nullptr;

  test_phone();
  ~test_phone();
  int add_account(const std::string &address, const std::string &name, unsigned rgba = 0x3366CCFF, int id = 0);
  void remove_account(int id);
  std::vector<int> accounts(void);
  void set_account_count(bool known);
  std::vector<int> add_mails(const std::vector<test_mail> &mails);
  int add_mail(const test_mail &mail) { return add_mails({mail}).at(0); }
  void set_flag(int mail_id, const char *field, int value);
  void set_text(int mail_id, const char *field, const std::string &text);
  /* Takes every mail and account away. */
  void clear(void);
};

/* A phone that the watch is linked to: what the watch asks of it reaches it and is acknowledged. */
struct linked_phone : test_phone {
  struct request_heard {
    int64_t id;
    nlohmann::json json;
  };
  std::vector<request_heard> requests;

  linked_phone();
  void connect(void);
  /* Leaves the bus, and with it the link. */
  void leave(void);
  /* Hears what has come meanwhile. */
  void drain(void);
  void delete_mails(const std::vector<int> &ids);
  /* The newest request of that kind, waiting for it; null when none comes. */
  nlohmann::json request(const std::string &kind);
};

/* --- the application -----------------------------------------------------------------------------------------------
 */

/* The state of the application under test; zero between tests. */
extern appdata test_ad;

/* As the framework does it: create, a launch request (extra data may name a mail), terminate. */
void app_start(const char *mail_id = nullptr);
void app_launch(const char *mail_id = nullptr);
void app_stop(void);

/* What is on screen. */
/* The model's rows, checked to be the genlist's items in the same order. */
std::vector<int> listed_mails(void);
std::string header_title(void);
std::string header_count(void);
/* The text of a part of a genlist item as it is drawn; "" when the item is out of sight. */
std::string drawn_text(Elm_Object_Item *item, const char *part);
Elm_Object_Item *item_of_mail(int mail_id);
bool delete_button_enabled(void);
bool nocontents_on_screen(void);
/* Visible plain texts of the window's canvas. */
std::vector<std::string> visible_texts(void);
/* Waits for the text to come, or to go: popups and rows do both in their own time. */
bool visible(const std::string &text);
bool gone(const std::string &text);

/* Fingers and keys on the canvas of the window. */
struct point {
  int x, y;
};
point middle_of_item(Elm_Object_Item *item);
point middle_of(Evas_Object *object);
void touch(point at);
void release(point at);
void tap(point at);
void press_long(point at);
void drag(point from, point to);
void key(const char *name);
/* The centre of the visible text, as a finger aims at it. */
point text_at(const std::string &text);

/* gtest in the framework's main loop. */
int app_test_main(int argc, char **argv);

#endif
