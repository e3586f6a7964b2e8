/* The list, the view stack and the lifecycle where only the inside shows whether they are right: the model under the
   rows, freezes, blocks, what an end frees. What a user sees of them is tested from outside. */
#include <unistd.h>

#include "app-test.h"
#include "vconf.h"

static const long base_time = 1700000000;

struct screens : testing::Test {
  test_phone phone;
  std::vector<int> accounts, ids; /* ids: newest first, as the rows stand */

  void SetUp() override {
    vconf_set_bool(BRISEL_KEY_BT_CONNECTED, 1);
    phone.clear();
    phone.set_account_count(true);
  }
  void TearDown() override { app_stop(); }

  void add_accounts(int count) {
    for (int i = 0; i < count; i++) {
      const std::string name(1, (char)('a' + (int)accounts.size()));
      accounts.push_back(phone.add_account(name + "@example.org", "Name " + name));
    }
  }
  int mail(int account, long minutes, const std::string &name = "Name", int locked = 0) {
    test_mail m;
    m.account = accounts.at(account);
    m.received = base_time + minutes * 60;
    m.from_name = name;
    m.locked = locked;
    return phone.add_mail(m);
  }
  /* Accounts and mails, and the application on them. */
  void fill(int account_count, int mail_count) {
    add_accounts(account_count);
    for (int i = 0; i < mail_count; i++) ids.push_back(mail(i % account_count, -i, "Sender " + std::to_string(i)));
    app_start();
  }
  void wait_for(const std::string &line) {
    EXPECT_TRUE(run_until([&] { return logged(line); })) << line;
  }
  void wait_for_rows(const std::vector<int> &expected) {
    EXPECT_TRUE(run_until([&] { return listed_mails() == expected; })) << testing::PrintToString(listed_mails());
  }
  point header(void) { return middle_of_item(elm_genlist_first_item_get(test_ad.mailbox_genlist)); }
  void sweep(int row) {
    const point from = middle_of_item(item_of_mail(ids[row]));
    drag({80, from.y}, {240, from.y});
  }
  bool swept(int row) { return test_ad.sweep_item && test_ad.sweep_item == item_of_mail(ids[row]); }
  void wait_for_thaw(void) {
    EXPECT_TRUE(run_until([&] { return !test_ad.sweep_timer; }));
    EXPECT_EQ(elm_object_scroll_freeze_get(test_ad.mailbox_genlist), 0);
  }
};

/* How the shown account follows accounts that come and go. */
TEST_F(screens, AccountsComeAndGo) {
  const struct {
    const char *what;
    int accounts, shown /* index, -1 combined */, removed, expected /* index, -1 combined */;
  } cases[] = {
      {"the shown one of three", 3, 0, 0, -1}, {"another of three", 3, 0, 1, 0},
      {"the shown one of two", 2, 1, 1, 0},    {"another of two", 2, 1, 0, 1},
      {"one of two, combined", 2, -1, 0, 1},   {"one of three, combined", 3, -1, 0, -1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    phone.clear();
    accounts.clear();
    add_accounts(c.accounts);
    std::vector<int> mails;
    for (int i = 0; i < c.accounts; i++) mails.push_back(mail(i, i));
    app_start();
    for (int taps = 0; taps <= c.shown; taps++) tap(header());
    EXPECT_EQ(test_ad.account_id, c.shown < 0 ? 0 : accounts[c.shown]);
    log_mark();
    phone.remove_account(accounts[c.removed]);
    wait_for("I/BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE");
    EXPECT_TRUE(run_until([&] { return test_ad.account_id == (c.expected < 0 ? 0 : accounts[c.expected]); }))
        << test_ad.account_id;
    std::vector<int> expected;
    for (int i = c.accounts - 1; i >= 0; i--)
      if (i != c.removed && (c.expected < 0 || i == c.expected)) expected.push_back(mails[i]);
    wait_for_rows(expected);
    EXPECT_EQ(test_ad.account_cnt, c.accounts - 1);
    app_stop();
  }
}

TEST_F(screens, AnUnknownShownAccountStepsToTheFirst) {
  add_accounts(2);
  mail(0, 1);
  app_start();
  test_ad.account_id = 4242;
  log_mark();
  tap(header());
  EXPECT_EQ(test_ad.account_id, accounts[0]);
  EXPECT_TRUE(logged("W/account info mismatch account id is changed (4242 -> " + std::to_string(accounts[0]) + ") "));
}

TEST_F(screens, AnAccountWithoutARecordBecomesTheCombinedView) {
  add_accounts(2);
  const int id = mail(0, 1);
  app_start();
  test_ad.account_id = 4242;
  log_mark();
  test_ad.nocontents_shown = 1;
  brisel_check_mail_on_db(&test_ad);
  EXPECT_EQ(test_ad.account_id, 0);
  bool told = false;
  for (const std::string &line : log_lines())
    told |= line.find("W/brisel_db_get_account_data_by_account_id is failed! err:[") == 0;
  EXPECT_TRUE(told);
  EXPECT_EQ(listed_mails(), std::vector<int>{id}) << "the combined view shows every mail";
  EXPECT_EQ(header_title(), brisel_util_get_text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"));
  app_launch(std::to_string(id).c_str());
}

TEST_F(screens, TheBlockedRowWaitsForItsOwnTap) {
  fill(1, 3);
  sweep(0);
  wait_for_thaw();
  const point other = middle_of_item(item_of_mail(ids[2]));
  log_mark();
  touch(other);
  EXPECT_EQ(test_ad.blocked_item, item_of_mail(ids[2]));
  release(other);
  settle();
  EXPECT_TRUE(logged("I/blocked item is selected."));
  EXPECT_EQ(test_ad.blocked_item, nullptr);
}

TEST_F(screens, FreezesPairUpWhenSweepsFollowEachOther) {
  fill(1, 4);
  for (int i = 0; i < 3; i++) {
    sweep(1);
    ASSERT_TRUE(swept(1));
    ASSERT_NE(test_ad.sweep_timer, nullptr);
    EXPECT_EQ(elm_object_scroll_freeze_get(test_ad.mailbox_genlist), 1) << i;
    Evas_Object *undo = elm_object_item_part_content_get(item_of_mail(ids[1]), "elm.icon.sweep");
    evas_object_smart_callback_call(undo, "clicked", nullptr);
    EXPECT_EQ(test_ad.sweep_item, nullptr);
  }
  wait_for_thaw();
}

TEST_F(screens, LongPressOpensTheOptionsUnlessARowIsSwept) {
  fill(1, 3);
  sweep(0);
  wait_for_thaw();
  press_long(middle_of_item(item_of_mail(ids[0])));
  EXPECT_EQ(brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_OPTION_DETAIL_VIEW, &test_ad), nullptr);
  EXPECT_TRUE(swept(0));
  EXPECT_TRUE(logged("I/sweep item is existed."));
  brisel_delete_sweep_item(&test_ad);
  settle();
  press_long(middle_of_item(item_of_mail(ids[1])));
  EXPECT_NE(brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_OPTION_DETAIL_VIEW, &test_ad), nullptr);
}

TEST_F(screens, TheAccountPopupChooses) {
  fill(2, 4);
  const char *combined = brisel_util_get_text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB");
  press_long(header());
  ASSERT_NE(test_ad.account_popup, nullptr);
  EXPECT_TRUE(visible("Name a"));
  EXPECT_TRUE(visible("a@example.org"));
  EXPECT_TRUE(visible(combined));
  Evas_Object *list = elm_object_content_get(test_ad.account_popup);
  Evas_Object *radios = (Evas_Object *)evas_object_data_get(list, "radio_main");
  EXPECT_EQ(elm_radio_value_get(radios), 0) << "the combined view is on";

  tap(text_at("Name b"));
  EXPECT_EQ(test_ad.account_popup, nullptr);
  EXPECT_EQ(test_ad.account_id, accounts[1]);
  EXPECT_EQ(listed_mails(), (std::vector<int>{ids[1], ids[3]}));

  press_long(header());
  list = elm_object_content_get(test_ad.account_popup);
  EXPECT_EQ(elm_radio_value_get((Evas_Object *)evas_object_data_get(list, "radio_main")), 2);
  Elm_Object_Item *row = elm_genlist_item_next_get(elm_genlist_first_item_get(list));
  tap(middle_of(elm_object_item_part_content_get(row, "elm.icon")));
  EXPECT_EQ(test_ad.account_id, accounts[0]) << "the radio is part of its row";
  EXPECT_EQ(test_ad.account_popup, nullptr);
}

TEST_F(screens, TheUpperOfTwoViewsIsFoundAndGoesFirst) {
  add_accounts(1);
  const int id = mail(0, 0);
  app_start();
  EXPECT_EQ(brisel_option_reply_templetes_draw_view(id, &test_ad, nullptr), 0);
  view_data *lower = brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_OPTION_REPLY_VIEW, &test_ad);
  EXPECT_EQ(brisel_option_reply_templetes_draw_view(id, &test_ad, nullptr), 0);
  view_data *upper = brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_OPTION_REPLY_VIEW, &test_ad);
  ASSERT_NE(upper, nullptr);
  EXPECT_NE(upper, lower);
  /* It is still sliding in: the back key waits for that. */
  key("XF86Back");
  EXPECT_TRUE(
      run_until([&] { return brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_OPTION_REPLY_VIEW, &test_ad) == lower; }));
  EXPECT_EQ(brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_OPTION_CALL_VIEW, &test_ad), nullptr);
}

TEST_F(screens, EndsFreeWhatIsOpen) {
  add_accounts(1);
  const int plain = mail(0, 0), locked = mail(0, 1, "Name", 1);
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

TEST_F(screens, PauseAndResumeWithoutAReaderWarn) {
  add_accounts(1);
  app_start();
  log_mark();
  EXPECT_EQ(app_pause(&test_ad), 0);
  EXPECT_EQ(app_resume(&test_ad), 0);
  int warned = 0;
  for (const std::string &line : log_lines()) warned += line == "W/view_data for BRISEL_VIEW_TYPE_DETAIL_VIEW is NULL!";
  EXPECT_EQ(warned, 2);
}
