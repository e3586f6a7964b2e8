#include "actions-test.h"

#include <libintl.h>

void acting::SetUp() {
  setenv("BRISEL_WINDOW_SIZE", "360x480", 1);
  vconf_set_bool("db/setting/motion", 0); /* views slide in the tests from outside */
  phone.clear();
  phone.set_account_count(true);
  phone.connect();
  phone.drain();
  phone.requests.clear();
  phone.set_status("reply", 0);
  phone.set_status("conn", 0);
  brisel_util_set_reply_method(0);
  for (const char *name : {"one", "two"})
    accounts.push_back(phone.add_account(std::string(name) + "@example.net", name));
}

void acting::TearDown() {
  app_stop();
  contact("", {});
  vconf_set_str(BRISEL_KEY_LANGUAGE, "en_US.UTF-8");
  setenv("LANGUAGE", "en", 1);
}

std::vector<int> acting::start(std::vector<test_mail> mails) {
  for (size_t i = 0; i < mails.size(); i++) {
    mails[i].account = accounts[i % accounts.size()];
    if (!mails[i].received) mails[i].received = 1700000000 - (long)i * 60;
  }
  std::vector<int> ids = phone.add_mails(mails);
  vconf_set_bool(BRISEL_KEY_BT_CONNECTED, 1);
  app_start();
  EXPECT_TRUE(run_until([&] { return g_list_length(test_ad.mail_list) == mails.size(); }));
  return ids;
}

void acting::contact(const std::string &address, const std::vector<std::string> &tels) {
  static std::string known;
  int count = 0;
  if (!known.empty()) contacts_remove_by_email(known.c_str(), &count);
  known = address;
  if (address.empty()) return;
  std::string card = "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Somebody\r\nEMAIL:" + address + "\r\n";
  for (const std::string &tel : tels) card += "TEL" + tel + "\r\n";
  import_cards(card + "END:VCARD\r\n");
}

void acting::language(const char *locale) {
  const std::string before = text("IDS_EMAIL_BODY_DELETE");
  vconf_set_str(BRISEL_KEY_LANGUAGE, locale);
  EXPECT_TRUE(run_until([&] { return text("IDS_EMAIL_BODY_DELETE") != before; }));
  settle();
}

nlohmann::json acting::request(const char *kind) {
  nlohmann::json found = phone.request(kind);
  EXPECT_FALSE(found.is_null()) << kind << " did not reach the phone";
  return found.is_null() ? nlohmann::json::object() : found;
}

void acting::expect_no_request(const char *kind) {
  brisel_clear_all_new_flag();
  request("clear_all_new_flag");
  for (const auto &have : phone.requests) EXPECT_NE(have.json.at("request"), kind) << have.json;
  phone.requests.clear();
}

bool views_become(int count) {
  const bool reached = run_until([&] { return views() == count && views_stand(); });
  EXPECT_TRUE(reached) << views() << " views";
  settle();
  return reached;
}

void back(void) {
  key("XF86Back");
}

Evas_Object *top_content(const char *part) {
  Evas_Object *layout = elm_object_item_part_content_get(elm_naviframe_top_item_get(test_ad.naviframe), "default");
  return layout ? elm_object_part_content_get(layout, part) : nullptr;
}

std::vector<std::string> rows(Evas_Object *list) {
  std::vector<std::string> texts;
  for (Elm_Object_Item *item = list ? elm_genlist_first_item_get(list) : nullptr; item;
       item = elm_genlist_item_next_get(item)) {
    std::string first = drawn_text(item, "elm.text");
    if (first.empty()) first = drawn_text(item, "elm.text.1");
    const std::string second = drawn_text(item, "elm.text.2");
    texts.push_back(second.empty() ? first : first + "|" + second);
  }
  return texts;
}

bool rows_become(const std::vector<std::string> &wanted) {
  const bool reached = run_until([&] { return rows() == wanted; });
  EXPECT_EQ(rows(), wanted);
  return reached;
}

Elm_Object_Item *row(int index, Evas_Object *list) {
  return elm_genlist_nth_item_get(list, (unsigned)index);
}

void tap_row(int index, Evas_Object *list) {
  settle();
  tap(middle_of_item(row(index, list)));
}

std::string text(const char *id, const char *domain) {
  return dcgettext(domain, id, LC_MESSAGES);
}
