/* The view stack and the lifecycle where only the inside shows whether they are right. What a user sees of them is
   tested from outside. */

#include <algorithm>

#include "../../app/src/brisel-app-view-common.h"
#include "app-test.h"
#include "vconf.h"

struct screens : testing::Test {
  linked_phone phone;
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

TEST_F(screens, TwoQuickBacksLeaveTheViewButNotTheApplication) {
  const int id = mail();
  phone.connect();
  app_start();
  brisel_detail_draw_view(id, 1, &test_ad);
  EXPECT_TRUE(run_until([&] { return phone.count("clear_all_new_flag") == 1; })) << "opening a mail has seen all";
  rest();
  key("XF86Back");
  EXPECT_EQ(views(), 1);
  key("XF86Back");
  settle();
  EXPECT_EQ(phone.count("clear_all_new_flag"), 1) << "the second one was the view's";
  /* Once the view is gone, Back is the mailbox's: it leaves, and all is seen. */
  EXPECT_TRUE(run_until([&] {
    key("XF86Back");
    return phone.count("clear_all_new_flag") == 2;
  }));
  app_stop();
  phone_leaves(&phone);
}

TEST_F(screens, TheMoreKeyPressesTheButtonOfTheTopView) {
  const int id = mail();
  app_start();
  brisel_option_detail_draw_view(id, &test_ad);
  rest();
  static int pressed, told;
  pressed = told = 0;
  Elm_Object_Item *mailbox = elm_naviframe_bottom_item_get(test_ad.naviframe);
  Elm_Object_Item *top = elm_naviframe_top_item_get(test_ad.naviframe);
  brisel_view_more_button(
      mailbox, [](void *, Evas_Object *, void *) { pressed += 10; }, nullptr);
  elm_object_item_signal_callback_add(
      top, "elm,action,more_event", "", [](void *, Elm_Object_Item *, const char *, const char *) { told++; }, nullptr);
  key("Menu");
  settle();
  EXPECT_TRUE(run_until([] { return told == 1; })) << "a view without a button hears of it";
  EXPECT_EQ(pressed, 0);
  Evas_Object *button = brisel_view_more_button(
      top, [](void *, Evas_Object *, void *) { pressed++; }, nullptr);
  key("F10");
  EXPECT_EQ(pressed, 1);
  EXPECT_EQ(told, 1);
  EXPECT_FALSE(evas_object_visible_get(button)) << "nobody sees it";
  Evas_Object *popup = brisel_util_popup_add(test_ad.naviframe);
  evas_object_show(popup);
  key("Menu");
  EXPECT_EQ(pressed, 1) << "what lies beneath a popup";
  evas_object_del(popup);
  EXPECT_EQ(test_ad.mail_id, id);
  key("XF86Back");
  EXPECT_TRUE(run_until([] { return test_ad.mail_id == 0; })) << "in the mailbox no mail is open";
}

TEST_F(screens, LaunchesThatWaitAreOne) {
  const int first = mail(), second = mail(), last = mail();
  phone.connect();
  app_start();
  settle();
  log_mark();
  for (int id : {first, second, second, last}) app_relaunch(std::to_string(id).c_str());
  settle();
  EXPECT_EQ(test_ad.mail_id, last);
  const std::vector<std::string> lines = log_lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "I/Show detail view first."), 2) << "the first and the last";
  app_stop();
  phone_leaves(&phone);
}

/* Whatever stands when a launch names a mail gives way to it. */
TEST_F(screens, ALaunchLeavesNothingOverWhatItOpens) {
  const int plain = mail(), locked = mail(1);
  const std::string alert = brisel_util_get_text("IDS_EMAIL_HEADER_OPEN_EMAIL_ABB");
  phone.add_account("b@example.org", "Name b");
  phone.connect();
  app_start();
  const std::function<void()> stands[] = {
      [] {},
      [&] { app_launch(std::to_string(locked).c_str()); },
      [] { brisel_create_account_selection_popup(&test_ad); },
      [&] { brisel_option_detail_draw_view(plain, &test_ad); },
  };
  for (const auto &stand : stands) {
    stand();
    settle();
    app_launch(std::to_string(plain).c_str());
    EXPECT_TRUE(visible("Subject"));
    EXPECT_EQ(test_ad.mail_id, plain);
    stand();
    settle();
    app_launch(std::to_string(locked).c_str());
    EXPECT_TRUE(visible(alert));
    EXPECT_EQ(brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, &test_ad), nullptr);
    phone.requests.clear();
    /* Just after the touch before, the popup does not take it yet. */
    EXPECT_TRUE(run_until([] {
      tap(text_at(brisel_util_get_text("IDS_COM_SK_OK")));
      return !test_ad.security_popup;
    }));
    EXPECT_EQ(phone.request("show").value("id_list", std::vector<int>()), std::vector<int>{locked});
    key("XF86Back"); /* the toast */
    EXPECT_TRUE(gone(brisel_util_get_text("IDS_PLEXO_POP_CHECK_MOBILE_DEVICE_TO_VIEW_CONTENT")));
    app_launch(std::to_string(plain).c_str());
    app_launch();
    EXPECT_EQ(test_ad.mail_id, 0) << "nothing is open any more";
  }
  app_stop();
  phone_leaves(&phone);
}

/* Events that the application did not hear: the mailbox looks for itself when its user comes back to it. */
TEST_F(screens, MailThatCameUnheardIsFoundOnTheWayBack) {
  const std::function<void()> ways[] = {[] { app_resume(&test_ad); }, [] { app_launch(); }};
  for (const auto &way : ways) {
    app_start();
    EXPECT_TRUE(nocontents_on_screen());
    brisel_ipc_client_event_unsubscribe(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD);
    const int id = mail();
    settle();
    EXPECT_TRUE(nocontents_on_screen());
    way();
    EXPECT_EQ(listed_mails(), std::vector<int>{id});
    EXPECT_FALSE(nocontents_on_screen());
    app_stop();
    phone.delete_mails({id});
  }
}

TEST_F(screens, TheSetUpPopupsButtonFollowsTheLink) {
  const int other = phone.add_account("b@example.org", "Name b");
  app_start();
  brisel_create_account_selection_popup(&test_ad);
  vconf_set_bool(BRISEL_KEY_BT_CONNECTED, 0);
  EXPECT_TRUE(run_until([] { return !test_ad.bt_connected; }));
  test_ad.account_id = account;
  phone.remove_account(other);
  EXPECT_TRUE(run_until([] { return !test_ad.account_popup; })) << "one account leaves nothing to choose";
  brisel_create_account_selection_popup(&test_ad);
  phone.remove_account(account);
  EXPECT_TRUE(run_until([] { return test_ad.no_account_popup != nullptr; }));
  EXPECT_TRUE(elm_object_disabled_get(test_ad.no_account_ok_btn)) << "it opens without a link";
  EXPECT_EQ(test_ad.account_id, 0);
  EXPECT_EQ(test_ad.account_popup, nullptr);
  for (int linked : {1, 0}) {
    vconf_set_bool(BRISEL_KEY_BT_CONNECTED, linked);
    EXPECT_TRUE(run_until([&] { return elm_object_disabled_get(test_ad.no_account_ok_btn) == !linked; }));
    const char *picture = nullptr;
    elm_image_file_get(
        elm_object_item_part_content_get(elm_naviframe_bottom_item_get(test_ad.naviframe), "elm.swallow.icon"), nullptr,
        &picture);
    EXPECT_EQ(picture && strstr(picture, "_off"), !linked) << "the envelope in the title";
  }
  /* The count alone ends it, too. */
  brisel_ipc_client_event_unsubscribe(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD);
  phone.set_account_count(false);
  phone.add_account("c@example.org", "Name c");
  settle();
  EXPECT_NE(test_ad.no_account_popup, nullptr);
  phone.set_account_count(true);
  EXPECT_TRUE(run_until([] { return !test_ad.no_account_popup; }));
}

TEST_F(screens, TheWindowIsNamedAfterTheView) {
  const int id = mail();
  app_start();
  const std::string name = elm_win_title_get(test_ad.win_main);
  EXPECT_EQ(name, brisel_util_get_text("IDS_HS_MBODY_EMAIL_M_APPLICATION_NAME_ABB3"));
  elm_object_disabled_set(test_ad.delete_btn, EINA_TRUE);
  settle();
  tap(middle_of(test_ad.delete_btn)); /* neither it nor the title beneath, which opens what waits */
  settle();
  EXPECT_EQ(elm_naviframe_top_item_get(test_ad.naviframe), elm_naviframe_bottom_item_get(test_ad.naviframe));
  brisel_option_detail_draw_view(id, &test_ad);
  EXPECT_TRUE(run_until([] { return !strcmp(elm_win_title_get(test_ad.win_main), "Name"); })) << "the options' title";
  settle();
  key("XF86Back");
  EXPECT_TRUE(run_until([&] { return elm_win_title_get(test_ad.win_main) == name; }));
}
