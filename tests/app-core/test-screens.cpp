/* The view stack and the lifecycle where only the inside shows whether they are right. What a user sees of them is
   tested from outside. */
#include <unistd.h>

#include "app-test.h"
#include "vconf.h"

struct screens : testing::Test {
  test_phone phone;
  int account = 0;

  void SetUp() override {
    vconf_set_bool(BRISEL_KEY_BT_CONNECTED, 1);
    phone.clear();
    phone.set_account_count(true);
    account = phone.add_account("a@example.org", "Name a");
  }
  void TearDown() override { app_stop(); }
  int mail(int locked = 0) {
    return phone.add_mail(
        {.account = account, .received = 1700000000 + locked * 60, .from_name = "Name", .locked = locked});
  }
};

TEST_F(screens, TheUpperOfTwoViewsIsFoundAndGoesFirst) {
  const int id = mail();
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
  const int plain = mail(), locked = mail(1);
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
  app_start();
  log_mark();
  EXPECT_EQ(app_pause(&test_ad), 0);
  EXPECT_EQ(app_resume(&test_ad), 0);
  int warned = 0;
  for (const std::string &line : log_lines()) warned += line == "W/view_data for BRISEL_VIEW_TYPE_DETAIL_VIEW is NULL!";
  EXPECT_EQ(warned, 2);
}
