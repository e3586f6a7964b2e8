/* Fingers on the mailbox list: sweep, undo and commit, the choice of the account, locked mails; requests as the phone
   gets them. */
#include <nlohmann/json.hpp>

#include "app-test.h"
#include "vconf.h"

struct actions : testing::Test {
  test_phone phone;
  std::vector<int> accounts, ids; /* ids: newest first, as the rows stand */

  void SetUp() override {
    vconf_set_bool(BRISEL_KEY_BT_CONNECTED, 1);
    phone.clear();
    phone.set_account_count(true);
    phone.connect();
    phone.drain();
    phone.forget_requests();
  }
  void TearDown() override { app_stop(); }

  void fill(int account_count, int mail_count, int locked_index = -1) {
    for (int i = 0; i < account_count; i++) {
      const std::string name(1, (char)('a' + i));
      accounts.push_back(phone.add_account(name + "@example.org", "Name " + name));
    }
    for (int i = 0; i < mail_count; i++) {
      test_mail m;
      m.account = accounts[i % account_count];
      m.received = 1700000000 - i * 60;
      m.from_name = "Sender " + std::to_string(i);
      m.locked = i == locked_index;
      ids.push_back(phone.add_mail(m));
    }
    app_start();
  }
  void sweep(int row, int direction = 1) {
    const point from = middle_of_item(item_of_mail(ids[row]));
    drag({160 - 80 * direction, from.y}, {160 + 80 * direction, from.y});
  }
  bool swept(int row) { return test_ad.sweep_item && test_ad.sweep_item == item_of_mail(ids[row]); }
  std::string deleted_text(void) { return brisel_util_get_text("IDS_EMAIL_BODY_DELETED"); }
  int freezes(void) { return elm_object_scroll_freeze_get(test_ad.mailbox_genlist); }
  void wait_for_thaw(void) {
    EXPECT_TRUE(run_until([&] { return !test_ad.sweep_timer; }));
    EXPECT_EQ(freezes(), 0);
  }
  /* The ids of the delete request that reached the phone. */
  std::vector<int> deleted_ids(void) {
    const std::string json = phone.request("delete_notis");
    if (json.empty()) return {};
    return nlohmann::json::parse(json).at("id_list").get<std::vector<int>>();
  }
  /* Nothing to delete was asked for: a request sent later arrives alone. */
  void expect_no_delete(void) {
    brisel_clear_all_new_flag();
    EXPECT_FALSE(phone.request("clear_all_new_flag").empty());
    for (const phone_request &have : phone.requests) EXPECT_EQ(have.json.find("delete_notis"), std::string::npos);
  }
  bool detail_open(void) { return brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, &test_ad) != nullptr; }
};

TEST_F(actions, UndoBringsASweptRowBack) {
  fill(1, 3);
  for (int direction : {1, -1}) {
    sweep(1, direction);
    ASSERT_TRUE(swept(1));
    EXPECT_EQ(freezes(), 1);
    EXPECT_TRUE(visible(deleted_text()));
    wait_for_thaw();
    tap(middle_of(elm_object_item_part_content_get(item_of_mail(ids[1]), "elm.icon.sweep")));
    EXPECT_EQ(test_ad.sweep_item, nullptr);
    EXPECT_TRUE(gone(deleted_text()));
    EXPECT_FALSE(detail_open()) << "undo is not a tap on the row";
    EXPECT_EQ(listed_mails(), ids);
  }
  expect_no_delete();
}

TEST_F(actions, TouchingAnotherRowDeletesAndOpensNothing) {
  fill(1, 3);
  sweep(0);
  ASSERT_TRUE(swept(0));
  wait_for_thaw();
  tap(middle_of_item(item_of_mail(ids[0])));
  EXPECT_TRUE(swept(0)) << "a tap on the swept row decides nothing";
  EXPECT_FALSE(detail_open());
  const std::vector<int> left(ids.begin() + 1, ids.end());
  tap(middle_of_item(item_of_mail(ids[2])));
  EXPECT_EQ(test_ad.sweep_item, nullptr);
  EXPECT_EQ(listed_mails(), left);
  EXPECT_FALSE(detail_open()) << "the touch that commits opens nothing";
  EXPECT_EQ(deleted_ids(), std::vector<int>{ids[0]});
  EXPECT_TRUE(run_until([] { return logged("I/Not found on mail_list") && logged("I/Update group count(3->2)"); }));
  EXPECT_TRUE(run_until([] { return header_count() == "(2)"; }));
  EXPECT_TRUE(run_until([&] {
    tap(middle_of_item(item_of_mail(ids[2])));
    return detail_open();
  })) << "the next tap does";
}

TEST_F(actions, TheBlockedRowWaitsForItsOwnTap) {
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

TEST_F(actions, ASecondDragDeletesTheFirstRowOnly) {
  fill(1, 4);
  sweep(0);
  sweep(2, -1);
  EXPECT_EQ(test_ad.sweep_item, nullptr);
  EXPECT_EQ(deleted_ids(), std::vector<int>{ids[0]});
  EXPECT_EQ(listed_mails(), std::vector<int>(ids.begin() + 1, ids.end()));
  sweep(2, -1);
  EXPECT_TRUE(swept(2)) << "the next drag sweeps";
  wait_for_thaw();
}

TEST_F(actions, FreezesPairUpWhenSweepsFollowEachOther) {
  fill(1, 4);
  for (int i = 0; i < 3; i++) {
    sweep(1);
    ASSERT_TRUE(swept(1));
    ASSERT_NE(test_ad.sweep_timer, nullptr);
    EXPECT_EQ(freezes(), 1) << i;
    Evas_Object *undo = elm_object_item_part_content_get(item_of_mail(ids[1]), "elm.icon.sweep");
    evas_object_smart_callback_call(undo, "clicked", nullptr);
    EXPECT_EQ(test_ad.sweep_item, nullptr);
  }
  wait_for_thaw();
}

TEST_F(actions, LeavingForAnotherScreenDeletes) {
  const struct {
    const char *what;
    std::function<void()> leave;
  } cases[] = {
      {"the delete view", [] { evas_object_smart_callback_call(test_ad.delete_btn, "clicked", nullptr); }},
      {"a launch", [] { app_launch(); }},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    phone.clear();
    accounts.clear();
    ids.clear();
    fill(1, 3);
    sweep(1);
    ASSERT_TRUE(swept(1));
    phone.forget_requests();
    c.leave();
    EXPECT_EQ(test_ad.sweep_item, nullptr);
    EXPECT_EQ(listed_mails(), (std::vector<int>{ids[0], ids[2]}));
    EXPECT_EQ(deleted_ids(), std::vector<int>{ids[1]});
    app_stop();
  }
}

TEST_F(actions, ARefreshDropsASweepWithoutDeleting) {
  fill(2, 3);
  sweep(1);
  ASSERT_TRUE(swept(1));
  app_launch(std::to_string(ids[0]).c_str()); /* combined: nothing is refreshed */
  EXPECT_TRUE(swept(1));
  test_ad.account_id = accounts[1];
  brisel_check_current_mailbox_account_by_mail_id(ids[0], &test_ad);
  EXPECT_EQ(test_ad.sweep_item, nullptr);
  EXPECT_EQ(listed_mails(), (std::vector<int>{ids[0], ids[2]}));
  expect_no_delete();
}

TEST_F(actions, TheHeaderIsNotSwept) {
  fill(2, 3);
  const point header = middle_of_item(elm_genlist_first_item_get(test_ad.mailbox_genlist));
  drag({60, header.y}, {260, header.y});
  EXPECT_EQ(test_ad.sweep_item, nullptr);
  EXPECT_EQ(freezes(), 0);
  expect_no_delete();
}

TEST_F(actions, LongPressOpensTheOptionsUnlessARowIsSwept) {
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

TEST_F(actions, TheAccountPopupChoosesAndFollowsTheAccounts) {
  fill(2, 4);
  const char *combined = brisel_util_get_text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB");
  press_long(middle_of_item(elm_genlist_first_item_get(test_ad.mailbox_genlist)));
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

  press_long(middle_of_item(elm_genlist_first_item_get(test_ad.mailbox_genlist)));
  list = elm_object_content_get(test_ad.account_popup);
  EXPECT_EQ(elm_radio_value_get((Evas_Object *)evas_object_data_get(list, "radio_main")), 2);
  Elm_Object_Item *row = elm_genlist_item_next_get(elm_genlist_first_item_get(list));
  tap(middle_of(elm_object_item_part_content_get(row, "elm.icon")));
  EXPECT_EQ(test_ad.account_id, accounts[0]) << "the radio is part of its row";
  EXPECT_EQ(test_ad.account_popup, nullptr);

  press_long(middle_of_item(elm_genlist_first_item_get(test_ad.mailbox_genlist)));
  accounts.push_back(phone.add_account("c@example.org", "Name <c>"));
  EXPECT_TRUE(run_until([] { return logged("I/account selection popup is refreshed. account added"); }));
  EXPECT_EQ(elm_genlist_items_count(elm_object_content_get(test_ad.account_popup)), 4u);
  phone.remove_account(accounts[1]);
  EXPECT_TRUE(run_until([] { return logged("I/account selection popup is refreshed. account deleted"); }));
  settle();
  EXPECT_EQ(elm_genlist_items_count(elm_object_content_get(test_ad.account_popup)), 3u);
  EXPECT_TRUE(gone("Name b"));
  EXPECT_TRUE(visible("Name <c>")) << testing::PrintToString(visible_texts());
  phone.remove_account(accounts[2]);
  EXPECT_TRUE(run_until([] { return logged("I/account id deleted. account selection popup is not needed"); }));
  EXPECT_EQ(test_ad.account_popup, nullptr);
  press_long(middle_of_item(elm_genlist_first_item_get(test_ad.mailbox_genlist)));
  EXPECT_EQ(test_ad.account_popup, nullptr);
  EXPECT_TRUE(visible(brisel_util_get_text("IDS_EMAIL_TPOP_ONLY_ONE_EMAIL_ACCOUNT_REGISTERED")));
}

TEST_F(actions, BackClosesTheAccountPopup) {
  fill(2, 2);
  press_long(middle_of_item(elm_genlist_first_item_get(test_ad.mailbox_genlist)));
  ASSERT_NE(test_ad.account_popup, nullptr);
  key("XF86Back");
  EXPECT_EQ(test_ad.account_popup, nullptr);
  EXPECT_EQ(test_ad.account_id, 0);
}

TEST_F(actions, ALockedMailIsShownOnThePhoneOnly) {
  fill(1, 2, 0);
  auto open = [&] {
    tap(middle_of_item(item_of_mail(ids[0])));
    EXPECT_FALSE(detail_open());
    EXPECT_NE(test_ad.security_popup, nullptr);
    EXPECT_EQ(test_ad.mail_id, ids[0]);
  };
  for (const char *way : {"cancel", "back"}) {
    open();
    if (!strcmp(way, "cancel"))
      tap(text_at(brisel_util_get_text("IDS_EMAIL_SK_CANCEL_ABB")));
    else
      key("XF86Back");
    EXPECT_EQ(test_ad.security_popup, nullptr) << way;
    EXPECT_EQ(test_ad.mail_id, 0) << way;
  }
  phone.drain();
  for (const phone_request &have : phone.requests) EXPECT_EQ(have.json.find("\"show\""), std::string::npos);
  open();
  tap(text_at(brisel_util_get_text("IDS_COM_SK_OK")));
  EXPECT_EQ(test_ad.mail_id, 0);
  EXPECT_TRUE(visible(brisel_util_get_text("IDS_PLEXO_POP_CHECK_MOBILE_DEVICE_TO_VIEW_CONTENT")));
  const std::string json = phone.request("show");
  ASSERT_FALSE(json.empty());
  EXPECT_EQ(nlohmann::json::parse(json).at("id_list"), nlohmann::json({ids[0]}));
  EXPECT_EQ(nlohmann::json::parse(json).at("kind"), "email");
}

TEST_F(actions, BackOnTheListMarksAllSeenAndStays) {
  fill(1, 2);
  key("XF86Back");
  EXPECT_EQ(nlohmann::json::parse(phone.request("clear_all_new_flag")).at("id_list"), nlohmann::json({0}));
  EXPECT_TRUE(run_until([&] { return ((item_data *)elm_object_item_data_get(item_of_mail(ids[0])))->is_new == 0; }));
  EXPECT_EQ(eina_list_count(elm_naviframe_items_get(test_ad.naviframe)), 1u);
}
