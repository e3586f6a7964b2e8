/* What the tests of the screens that act on a mail share. */
#ifndef BRISEL_ACTIONS_TEST_H
#define BRISEL_ACTIONS_TEST_H

#include "app-test.h"
#include "cases.h"
#include "contacts.h"
#include "vconf.h"

/* A linked phone, two accounts, no mail, no contacts, presets as templates; the application is started by start(). */
struct acting : testing::Test {
  linked_phone phone;
  std::vector<int> accounts;

  void SetUp() override;
  void TearDown() override;

  /* Stores the mails (the account is set here), starts the application with them; their ids in the same order. */
  std::vector<int> start(std::vector<test_mail> mails);
  int start_one(const test_mail &mail) { return start(std::vector<test_mail>{mail}).at(0); }

  /* Replaces the contacts: that address with these "TEL" lines; none: nobody. */
  void contact(const std::string &address, const std::vector<std::string> &tels);
  void language(const char *locale);
  nlohmann::json request(const char *kind);
  /* Nothing of that kind was asked for: a request sent later arrives alone. */
  void expect_no_request(const char *kind);
};

inline std::vector<case_row> cases(const char *name, size_t fields) {
  return table_of(CASES_DIR "/actions.txt", name, fields);
}

/* The view stack: until it holds that many views and the transition is over. */
bool views_become(int count);
void back(void);
Evas_Object *top_content(const char *part = "elm.swallow.content"); /* of the top view's layout */

/* "FIRST" or "FIRST|SECOND" for each row of the top view's list, as drawn. */
std::vector<std::string> rows(Evas_Object *list = top_content());
bool rows_become(const std::vector<std::string> &wanted);
Elm_Object_Item *row(int index, Evas_Object *list = top_content());
void tap_row(int index, Evas_Object *list = top_content());
std::string text(const char *id, const char *domain = BRISEL_DOMAIN); /* in the language of now */

#endif
