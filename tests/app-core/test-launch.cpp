/* Every way into the application, host events around it, settings from elsewhere, and every way out. */
#include <nlohmann/json.hpp>

#include "app-test.h"
#include "vconf.h"

struct launches : testing::Test {
  test_phone phone;
  void SetUp() override {
    phone.clear();
    phone.set_account_count(true);
    vconf_set_bool(BRISEL_KEY_BT_CONNECTED, 1);
  }
  void TearDown() override { app_stop(); }
  int add_mail(int account, long received, int locked = 0) {
    test_mail m;
    m.account = account;
    m.received = received;
    m.from_name = "Name";
    m.locked = locked;
    return phone.add_mail(m);
  }
  view_data *detail(void) { return brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, &test_ad); }
  unsigned depth(void) {
    Eina_List *items = elm_naviframe_items_get(test_ad.naviframe);
    const unsigned count = eina_list_count(items);
    eina_list_free(items);
    return count;
  }
};

enum screen { LINK, CONNECTING, SET_UP, EMPTY, LIST, READER, ALERT };

static screen shown_screen(void) {
  if (test_ad.connecting_popup) return CONNECTING;
  if (test_ad.no_account_popup) return SET_UP;
  if (!test_ad.naviframe) return LINK;
  if (test_ad.security_popup) return ALERT;
  if (brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, &test_ad)) return READER;
  return test_ad.nocontents_shown ? EMPTY : LIST;
}

TEST_F(launches, FirstAndSecond) {
  enum { NO_MAIL, PLAIN_MAIL, LOCKED_MAIL, GONE_MAIL };
  const struct {
    const char *what;
    bool link, known;
    int accounts, named;
    bool mails;
    screen first, second;
  } cases[] = {
      {"no link", false, true, 1, NO_MAIL, true, LINK, LINK},
      {"no link, mail named", false, true, 1, PLAIN_MAIL, true, LINK, LINK},
      {"count unknown", true, false, 0, NO_MAIL, false, CONNECTING, CONNECTING},
      {"count unknown, accounts there", true, false, 2, PLAIN_MAIL, true, CONNECTING, CONNECTING},
      {"no account", true, true, 0, NO_MAIL, false, SET_UP, SET_UP},
      {"no account, mail named", true, true, 0, GONE_MAIL, false, SET_UP, SET_UP},
      {"one account without mail", true, true, 1, NO_MAIL, false, EMPTY, EMPTY},
      {"one account", true, true, 1, NO_MAIL, true, LIST, LIST},
      {"two accounts", true, true, 2, NO_MAIL, true, LIST, LIST},
      {"mail named", true, true, 1, PLAIN_MAIL, true, READER, READER},
      {"mail named among two", true, true, 2, PLAIN_MAIL, true, READER, READER},
      {"locked mail named", true, true, 2, LOCKED_MAIL, true, ALERT, ALERT},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    phone.clear();
    phone.set_account_count(c.known);
    vconf_set_bool(BRISEL_KEY_BT_CONNECTED, c.link);
    int plain = 0, locked = 0;
    for (int i = 0; i < c.accounts; i++) {
      const int account = phone.add_account(std::to_string(i) + "@example.org", "x");
      if (!c.mails) continue;
      plain = add_mail(account, 1700000000 + i);
      locked = add_mail(account, 1700000100 + i, 1);
    }
    /* an account that is added makes the count known, unless it was said otherwise */
    phone.set_account_count(c.known);
    const std::string named = c.named == PLAIN_MAIL    ? std::to_string(plain)
                              : c.named == LOCKED_MAIL ? std::to_string(locked)
                                                       : "77777";
    app_start(c.named == NO_MAIL ? nullptr : named.c_str());
    EXPECT_EQ(shown_screen(), c.first);
    EXPECT_EQ(launched, c.first >= EMPTY);
    if (c.first >= EMPTY) {
      EXPECT_EQ(test_ad.account_id != 0, c.accounts == 1);
      const char *none = brisel_util_get_text("IDS_EMAIL_BODY_NO_EMAILS");
      EXPECT_TRUE(c.first == EMPTY ? visible(none) : gone(none));
    }
    EXPECT_TRUE(c.named != LOCKED_MAIL || test_ad.mail_id == locked);
    app_launch(c.named == NO_MAIL ? nullptr : named.c_str());
    EXPECT_EQ(shown_screen(), c.second);
    EXPECT_TRUE(c.second != READER || depth() == 2) << "the second launch replaces the first's reader";
    app_stop();
  }
}

TEST_F(launches, NumbersThatNameNoMailOpenNone) {
  add_mail(phone.add_account("a@example.org", "a"), 1700000000);
  for (const char *text : {"", "x", "-4", "0", "99999999999999999999", "4294967297"}) {
    app_start(text);
    EXPECT_EQ(shown_screen(), LIST) << text;
    app_stop();
  }
}

TEST_F(launches, AnAccountEndsTheSetUpPopupOnce) {
  app_start();
  ASSERT_EQ(shown_screen(), SET_UP);
  EXPECT_TRUE(visible(brisel_util_get_text("IDS_EMAIL_HEADER_SET_UP_EMAIL")));
  phone.add_account("a@example.org", "a");
  EXPECT_TRUE(run_until([] { return launched == 1; }));
  settle();
  EXPECT_EQ(shown_screen(), EMPTY);
  EXPECT_EQ(depth(), 1u);
  EXPECT_TRUE(gone(brisel_util_get_text("IDS_EMAIL_HEADER_SET_UP_EMAIL")));
}

TEST_F(launches, AKnownCountEndsTheConnectingPopup) {
  for (int accounts : {0, 1}) {
    phone.clear();
    if (accounts) phone.add_account("a@example.org", "a");
    phone.set_account_count(false);
    app_start();
    ASSERT_EQ(shown_screen(), CONNECTING);
    EXPECT_TRUE(visible(brisel_util_get_text("IDS_EMAIL_POP_CONNECTING_ING")));
    app_launch();
    EXPECT_TRUE(logged("I/popup is already existed."));
    phone.set_account_count(true);
    EXPECT_TRUE(run_until([] { return !test_ad.connecting_popup; }));
    settle();
    EXPECT_EQ(shown_screen(), accounts ? EMPTY : SET_UP);
    app_stop();
  }
}

TEST_F(launches, TheSetUpPopupFollowsTheLink) {
  app_start();
  ASSERT_EQ(shown_screen(), SET_UP);
  EXPECT_FALSE(elm_object_disabled_get(test_ad.no_account_ok_btn));
  for (int linked : {0, 0, 1, 0, 1}) {
    log_mark();
    vconf_set_bool(BRISEL_KEY_BT_CONNECTED, linked);
    EXPECT_TRUE(run_until([&] { return logged("I/bt_connected : " + std::to_string(linked)); }));
    EXPECT_EQ(elm_object_disabled_get(test_ad.no_account_ok_btn), !linked);
    EXPECT_EQ(test_ad.bt_connected, linked);
  }
  log_mark();
  vconf_unset(BRISEL_KEY_BT_CONNECTED);
  EXPECT_TRUE(run_until([&] { return logged("W/vconf_get_bool returns: -1"); }));
  EXPECT_TRUE(elm_object_disabled_get(test_ad.no_account_ok_btn)) << "an unreadable link is down";
}

TEST_F(launches, BackOnTheSetUpPopupKeepsIt) {
  app_start();
  key("XF86Back");
  EXPECT_EQ(shown_screen(), SET_UP);
}

TEST_F(launches, LosingEveryAccountAsksForSetUp) {
  const int account = phone.add_account("a@example.org", "a");
  add_mail(account, 1700000000);
  app_start();
  EXPECT_EQ(test_ad.account_id, account);
  phone.remove_account(account);
  EXPECT_TRUE(run_until([] { return test_ad.no_account_popup != nullptr; }));
  EXPECT_EQ(test_ad.account_id, 0);
  EXPECT_TRUE(run_until([] { return nocontents_on_screen(); }));
  const int again = phone.add_account("b@example.org", "b");
  EXPECT_TRUE(run_until([] { return !test_ad.no_account_popup; }));
  settle();
  EXPECT_EQ(test_ad.account_id, again);
  EXPECT_EQ(header_title(), "b@example.org");
  EXPECT_EQ(launched, 1);
}

TEST_F(launches, TheOpenedMailsFateMovesTheViews) {
  const int account = phone.add_account("a@example.org", "a");
  std::vector<int> ids;
  for (int i = 0; i < 5; i++) ids.push_back(add_mail(account, 1700000000 - i * 1000));
  app_start(std::to_string(ids[2]).c_str());
  ASSERT_NE(detail(), nullptr);
  EXPECT_EQ(test_ad.mail_id, ids[2]);

  const struct {
    const char *what;
    std::function<int()> change;
    bool refreshed;
  } cases[] = {
      {"a mail far away", [&] { return add_mail(account, 1700009000); }, false},
      {"a mail beside it", [&] { return add_mail(account, 1700000000 - 1500); }, true},
      {"an update beside it",
       [&] {
         phone.set_text(ids[1], "subject", "Another");
         return 0;
       },
       false},
      {"a far one deleted",
       [&] {
         phone.delete_mails({ids[4]});
         return 0;
       },
       false},
  };
  for (const auto &c : cases) {
    log_mark();
    c.change();
    EXPECT_TRUE(run_until([] {
      for (const std::string &line : log_lines())
        if (line.find("I/mail_cnt = ") == 0) return true;
      return false;
    })) << c.what;
    settle();
    EXPECT_EQ(logged("I/viewer refresh is needed"), c.refreshed) << c.what;
    EXPECT_NE(detail(), nullptr) << c.what;
  }
  brisel_option_detail_draw_view(ids[2], &test_ad);
  EXPECT_EQ(depth(), 3u);
  phone.delete_mails({ids[2]});
  EXPECT_TRUE(run_until([&] { return depth() == 1; }));
  EXPECT_TRUE(logged("I/opened mail is deleted"));
  EXPECT_EQ(test_ad.mail_id, 0);
  phone.delete_mails({ids[3]});
  EXPECT_TRUE(run_until([&] { return listed_mails().size() == 4; }));
}

TEST_F(launches, TheUpperOfTwoViewsIsFound) {
  const int account = phone.add_account("a@example.org", "a");
  const int id = add_mail(account, 1700000000);
  app_start();
  EXPECT_EQ(brisel_option_reply_templetes_draw_view(id, &test_ad, nullptr), 0);
  view_data *lower = brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_OPTION_REPLY_VIEW, &test_ad);
  EXPECT_EQ(brisel_option_reply_templetes_draw_view(id, &test_ad, nullptr), 0);
  view_data *upper = brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_OPTION_REPLY_VIEW, &test_ad);
  ASSERT_NE(upper, nullptr);
  EXPECT_NE(upper, lower);
  /* A view that is still coming in does not go yet. */
  EXPECT_TRUE(run_until([&] {
    if (brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_OPTION_REPLY_VIEW, &test_ad) == upper) key("XF86Back");
    return brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_OPTION_REPLY_VIEW, &test_ad) == lower;
  }));
  EXPECT_EQ(brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_OPTION_CALL_VIEW, &test_ad), nullptr);
}

TEST_F(launches, SettingsFromElsewhereChangeTheRowsAtOnce) {
  const int account = phone.add_account("a@example.org", "a");
  const int id = add_mail(account, 1363300927);
  vconf_set_str(BRISEL_KEY_REGION, "en_GB.UTF-8");
  vconf_set_int(BRISEL_KEY_DATE_FORMAT, 0);
  vconf_set_int(BRISEL_KEY_TIME_FORMAT, 0);
  app_start();
  settle();
  auto row_is = [&](const std::string &text) {
    const bool held = run_until([&] { return drawn_text(item_of_mail(id), "elm.text.2") == text; });
    EXPECT_EQ(drawn_text(item_of_mail(id), "elm.text.2"), text);
    return held;
  };
  EXPECT_TRUE(row_is("14/03/2013 22:42"));
  const struct {
    const char *key;
    int value;
    const char *expected;
  } cases[] = {
      {BRISEL_KEY_DATE_FORMAT, 1, "03/14/2013 22:42"},         {BRISEL_KEY_DATE_FORMAT, 7, "2013/03/14 22:42"},
      {BRISEL_KEY_DATE_FORMAT, 3, "2013/14/03 22:42"},         {BRISEL_KEY_DATE_FORMAT, -1, "2013/03/14 22:42"},
      {BRISEL_KEY_TIME_FORMAT, 1, "2013/03/14 10:42\u202Fpm"}, {BRISEL_KEY_TIME_FORMAT, 2, "2013/03/14 22:42"},
  };
  for (const auto &c : cases) {
    vconf_set_int(c.key, c.value);
    EXPECT_TRUE(row_is(c.expected)) << c.key << c.value;
  }
  EXPECT_TRUE(logged("W/Invalid date_format value(7)"));
  EXPECT_TRUE(logged("W/Invalid date_format value(-1)"));

  const std::string link = getenv("BRISEL_LOCALTIME");
  unlink(link.c_str());
  ASSERT_EQ(symlink("/usr/share/zoneinfo/Asia/Seoul", link.c_str()), 0);
  vconf_set_int(BRISEL_KEY_TIME_CHANGED, 1);
  EXPECT_TRUE(row_is("2013/03/15 07:42"));
  vconf_set_str(BRISEL_KEY_REGION, "ar_EG.UTF-8");
  EXPECT_TRUE(row_is("٢٠١٣/٠٣/١٥ ٠٧:٤٢"));
  EXPECT_EQ(header_count(), "(١)");
  vconf_set_str(BRISEL_KEY_REGION, "ko_KR.UTF-8");
  EXPECT_TRUE(row_is("2013/03/15 07:42"));
  unlink(link.c_str());
  ASSERT_EQ(symlink("/usr/share/zoneinfo/Etc/UTC", link.c_str()), 0);
  vconf_set_int(BRISEL_KEY_TIME_CHANGED, 2);
  EXPECT_TRUE(row_is("2013/03/14 22:42"));
}

TEST_F(launches, TheMoreKeyAsksTheTopView) {
  phone.add_account("a@example.org", "a");
  app_start();
  static int clicked;
  clicked = 0;
  Elm_Object_Item *item = elm_naviframe_top_item_get(test_ad.naviframe);
  key("Menu");
  Evas_Object *button = elm_button_add(test_ad.naviframe);
  evas_object_smart_callback_add(
      button, "clicked", [](void *, Evas_Object *, void *) { clicked++; }, nullptr);
  elm_object_item_part_content_set(item, "toolbar_more_btn", button);
  if (elm_object_item_part_content_get(item, "toolbar_more_btn") == button) {
    key("Menu");
    EXPECT_EQ(clicked, 1);
  }
}

TEST_F(launches, EndsFreeWhatIsOpen) {
  const int account = phone.add_account("a@example.org", "a");
  const int plain = add_mail(account, 1700000000), locked = add_mail(account, 1700000001, 1);
  const struct {
    const char *what;
    std::function<void()> open;
  } cases[] = {
      {"nothing", [] {}},
      {"reader and options",
       [&] {
         brisel_detail_draw_view(plain, 0, &test_ad);
         brisel_option_detail_draw_view(plain, &test_ad);
       }},
      {"security popup", [&] { app_launch(std::to_string(locked).c_str()); }},
      {"delete view", [] { brisel_crete_delete_view(&test_ad); }},
      {"toast", [] { brisel_create_toast_popup(&test_ad, "x"); }},
      {"template reply", [&] { brisel_option_reply_templetes_draw_view(plain, &test_ad, nullptr); }},
      {"typed reply", [&] { brisel_option_reply_emoticons_draw_view(plain, &test_ad, nullptr); }},
  };
  for (bool window_first : {false, true})
    for (const auto &c : cases) {
      SCOPED_TRACE(c.what);
      app_start();
      c.open();
      settle();
      if (window_first) {
        evas_object_del(test_ad.win_main);
        settle();
        EXPECT_EQ(test_ad.naviframe, nullptr);
      }
      app_terminate(&test_ad);
      EXPECT_EQ(test_ad.mail_list, nullptr);
      EXPECT_EQ(test_ad.locale, nullptr);
      EXPECT_EQ(test_ad.itc_mail, nullptr);
      app_stop();
    }
}

TEST_F(launches, PauseAndResumeWithoutAReaderWarn) {
  phone.add_account("a@example.org", "a");
  app_start();
  log_mark();
  EXPECT_EQ(app_pause(&test_ad), 0);
  EXPECT_EQ(app_resume(&test_ad), 0);
  int warned = 0;
  for (const std::string &line : log_lines()) warned += line == "W/view_data for BRISEL_VIEW_TYPE_DETAIL_VIEW is NULL!";
  EXPECT_EQ(warned, 2);
}
