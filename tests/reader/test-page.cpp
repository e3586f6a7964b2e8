/* One page: its parts and signals, its buttons, what it tells the phone, and how it follows settings. */
#define EFL_BETA_API_SUPPORT /* for what a screen reader is told */
#define EFL_ACCESS_OBJECT_PROTECTED

#include "pickover.h"
#include "reader-test.h"
#include "vconf.h"

struct Page : testing::Test {
  linked_phone phone;
  std::vector<int> ids;

  void fill(const std::vector<std::string> &bodies) { ids = mailbox_with(&phone, bodies); }
  /* The service's events reach the store reader at once; the page is built from what it holds then. */
  void reopen(size_t mail) {
    if (reader()) {
      elm_naviframe_item_pop(test_ad.naviframe);
      settle();
    }
    ASSERT_EQ(brisel_detail_draw_view(ids.at(mail), 0, &test_ad), 0);
    settle();
  }
  static Evas_Object *content(const char *part) {
    return elm_object_part_content_get(current_page()->detail_layout, part);
  }
  static std::string title(void) {
    Evas_Object *area = elm_object_part_content_get(current_page()->page_layout, "title");
    return plain_text(elm_object_part_text_get(area, "elm.text.title"));
  }
  void TearDown() override {
    app_stop();
    vconf_set_str(BRISEL_KEY_LANGUAGE, "en_US.UTF-8");
    phone.set_status("reply", 0);
    phone.set_status("conn", 0);
  }
};

TEST_F(Page, FieldsFollowTheMail) {
  fill({"plain", "rich<tag:thisisover-1>", "cut <tag:thisisover7> off<tag:thisisover500>"});
  phone.set_flag(ids[1], "has_image", 1);
  phone.set_flag(ids[1], "attachment_count", 1);
  phone.set_flag(ids[2], "attachment_count", 12);
  phone.set_flag(ids[2], "is_new", 0);
  phone.set_text(ids[1], "subject", "");
  phone.set_text(ids[1], "from_name", "");
  phone.set_text(ids[2], "from_name", std::string(3000, 'n'));

  reopen(0);
  EXPECT_EQ(part_state(current_page(), "detail.image"), "default");
  EXPECT_EQ(content("detail.image"), nullptr);
  EXPECT_EQ(part_state(current_page(), "detail.attachment"), "default");
  EXPECT_EQ(part_text(current_page(), "detail.title"), "Subject 0");
  EXPECT_EQ(part_text(current_page(), "detail.body"), "plain");
  EXPECT_EQ(part_state(current_page(), "detail.time"), "default");
  EXPECT_EQ(title(), "Sender 0");

  reopen(1);
  EXPECT_NE(content("detail.image"), nullptr);
  EXPECT_NE(part_state(current_page(), "detail.image"), "default");
  EXPECT_EQ(part_state(current_page(), "detail.device"), "default") << "the body is complete";
  EXPECT_EQ(part_text(current_page(), "detail.body"), "rich");
  EXPECT_EQ(part_text(current_page(), "detail.attachment"), brisel_util_get_text("IDS_EMAIL_BODY_1_ATTACHMENT"));
  EXPECT_EQ(part_text(current_page(), "detail.title"), brisel_util_get_text("IDS_EMAIL_BODY_HNO_SUBJECT_ABB"));
  EXPECT_EQ(title(), "someone@example.org");

  reopen(2);
  EXPECT_EQ(part_text(current_page(), "detail.body"), "cut <tag:thisisover7> off")
      << "only the text before the last tag is shown";
  EXPECT_EQ(part_state(current_page(), "detail.device"), "shown");
  EXPECT_NE(content("detail.device"), nullptr);
  EXPECT_NE(part_text(current_page(), "detail.attachment").find("12"), std::string::npos);
  EXPECT_EQ(part_state(current_page(), "detail.time"), "old");
  EXPECT_EQ(title().size(), (size_t)BRISEL_SHOWN_TEXT_MAX);
}

TEST_F(Page, ButtonsFollowTheReplyStatus) {
  fill({"body"});
  struct {
    int status;
    bool dual;
  } const table[] = {{0, true}, {1, true}, {2, false}, {3, false}};
  for (const auto &row : table) {
    SCOPED_TRACE(row.status);
    phone.set_status("reply", row.status);
    reopen(0);
    EXPECT_EQ(part_state(current_page(), "detail.rbutton"), row.dual ? "dual" : "default");
    EXPECT_EQ(content("detail.rbutton") != nullptr, row.dual);
    ASSERT_NE(content("detail.lbutton"), nullptr);
    if (!row.dual) {
      EXPECT_STREQ(elm_object_text_get(content("detail.lbutton")),
                   brisel_util_get_text("IDS_EMAIL_BUTTON2_SHOW_ON_DEVICE"));
      continue;
    }
    evas_object_smart_callback_call(content("detail.lbutton"), "clicked", nullptr);
    settle();
    EXPECT_EQ(reader()->popup != nullptr, row.status == 1);
    EXPECT_EQ(elm_naviframe_top_item_get(test_ad.naviframe) == reader()->navi_item, row.status == 1);
    if (row.status == 0) elm_naviframe_item_pop(test_ad.naviframe);
    settle();
  }
}

/* Below a text that is longer than the screen they come to the page that is read, or when they are seen. */
TEST_F(Page, ButtonsComeWhereTheyAreSeen) {
  fill({"a", "1\n2\n3\n4\n5<tag:thisisover-1>"});
  const auto has = [](brisel_detail_page slot) {
    return elm_object_part_content_get(reader()->page_data[slot]->detail_layout, "detail.lbutton") != nullptr;
  };
  vconf_set_int(BRISEL_KEY_FONT_SIZE, 2);
  open_reader(ids[0]);
  vconf_unset(BRISEL_KEY_FONT_SIZE);
  EXPECT_TRUE(has(BRISEL_DETAIL_CUR_PAGE));
  EXPECT_FALSE(has(BRISEL_DETAIL_NEXT_PAGE));
  __brisel_detail_update_font_size(reader(), 0);
  rest_reader();
  EXPECT_TRUE(has(BRISEL_DETAIL_NEXT_PAGE));
  close_reader();
  vconf_set_int(BRISEL_KEY_FONT_SIZE, 2);
  open_reader(ids[0]);
  vconf_unset(BRISEL_KEY_FONT_SIZE);
  EXPECT_FALSE(has(BRISEL_DETAIL_NEXT_PAGE));
  ASSERT_TRUE(swipe(true));
  EXPECT_TRUE(has(BRISEL_DETAIL_CUR_PAGE));
}

TEST_F(Page, ShowOnDeviceAsksThePhone) {
  fill({"body"});
  phone.set_status("reply", 2);
  reopen(0);
  for (int reachable : {0, 1}) {
    phone.set_status("conn", reachable);
    phone.requests.clear();
    evas_object_smart_callback_call(content("detail.lbutton"), "clicked", nullptr);
    const char *toast =
        reachable == 0 ? "IDS_PLEXO_POP_CHECK_MOBILE_DEVICE_TO_VIEW_CONTENT" : "IDS_EMAIL_BODY_NO_RESPONSE_TRY_LATER";
    EXPECT_TRUE(visible(brisel_util_get_text(toast)));
    if (reachable == 0) {
      const nlohmann::json request = phone.request("show");
      EXPECT_EQ(request.at("id_list"), nlohmann::json({ids[0]}));
    } else {
      EXPECT_EQ(phone.count("show"), 0);
    }
  }
}

TEST_F(Page, EachVisitToAnUnreadMailIsToldOnce) {
  fill({"a", "b", "c"});
  phone.set_flag(ids[2], "is_read", 1);
  open_reader(ids[0]);
  nlohmann::json request = phone.request("update_ind");
  EXPECT_EQ(request.at("id_list"), nlohmann::json({ids[0]}));
  phone.requests.clear();
  ASSERT_TRUE(swipe(true));
  request = phone.request("update_ind");
  EXPECT_EQ(request.at("id_list"), nlohmann::json({ids[1]}));
  EXPECT_EQ(phone.count("update_ind"), 1);
  phone.requests.clear();
  ASSERT_TRUE(swipe(true)); /* read already */
  ASSERT_TRUE(swipe(false));
  request = phone.request("update_ind");
  EXPECT_EQ(request.at("id_list"), nlohmann::json({ids[1]}));
  EXPECT_EQ(phone.count("update_ind"), 1);
}

TEST_F(Page, EveryMarkThatWasNotKeptIsOfferedAgain) {
  fill({"a", "b", "c"});
  brisel_ipc_client_deinit();
  open_reader(ids[0]);
  for (int pages = 0; pages < 2; pages++) show_page(true);
  EXPECT_EQ(brisel_ipc_client_init(), 0);
  tap(text_at(brisel_util_get_text("IDS_EMAIL_SK_TRY_AGAIN")));
  EXPECT_TRUE(run_until([&] { return phone.count("update_ind") == 3; }));
  for (size_t i = 0; i < ids.size(); i++) EXPECT_EQ(phone.requests[i].json.at("id_list"), nlohmann::json({ids[i]}));
}

TEST_F(Page, TabGoesRoundAndBackWithShift) {
  fill({"> a\n> b\n> c\nand"});
  open_reader(ids[0]);
  for (const char *back : {"Tab", "ISO_Left_Tab"}) { /* what a display server sends for Tab with Shift */
    key("Tab");
    key("Tab");
    const int at = reader()->ring_at;
    evas_key_modifier_on(test_ad.evas, "Shift");
    key(back);
    evas_key_modifier_off(test_ad.evas, "Shift");
    EXPECT_EQ(reader()->ring_at, at - 1) << back;
  }
  key("Home");
  key("Tab"); /* around all of a line that opens, until a wheel moves that away */
  Eina_Rectangle line = {};
  Evas_Object *edje = elm_layout_edje_get(current_page()->detail_layout);
  evas_object_geometry_get((Evas_Object *)edje_object_part_object_get(edje, "detail.body"), &line.x, &line.y, &line.w,
                           &line.h);
  EXPECT_GT(reader()->ring_place.h, line.h * 2 / 5);
  evas_event_feed_mouse_move(test_ad.evas, line.x + 20, line.y + 5, 0, nullptr);
  evas_event_feed_mouse_wheel(test_ad.evas, 0, 1, 0, nullptr);
  EXPECT_EQ(reader()->ring, nullptr);
}

/* Who begins to listen, or listens in another language, is offered what can be done. */
TEST_F(Page, WhatCanBeDoneIsOfferedToWhoListensLater) {
  fill({"a", "b<tag:thisisover-1>"});
  open_reader(ids[0]);
  elm_config_atspi_mode_set(EINA_TRUE);
  brisel_detail_update_string(&test_ad);
  const auto offered = [](detail_offer which) {
    Eo *button = reader()->offers[which];
    return button && efl_access_object_access_type_get(button) == EFL_ACCESS_TYPE_REGULAR;
  };
  EXPECT_TRUE(offered(DETAIL_OFFER_ON));
  EXPECT_TRUE(offered(DETAIL_OFFER_MORE));
  phone.set_text(ids[0], "body", "a and all<tag:thisisover-1>");
  EXPECT_TRUE(run_until([&] { return !offered(DETAIL_OFFER_MORE); }));
  elm_config_atspi_mode_set(EINA_FALSE);
}

TEST_F(Page, PickoverShowsTheMailOnThePhone) {
  fill({"a", "b"});
  EXPECT_EQ(pickover_take_over(), -1) << "nothing is on the screen yet";
  open_reader(ids[0]);
  EXPECT_TRUE(reader()->is_pickover_registered);
  ASSERT_NE(reader()->pickover_timer, nullptr);
  /* Other applications' ids and values that are no text mean nothing. */
  vconf_set_str(BRISEL_KEY_PICKOVER, "com.vextora.other");
  settle();
  log_mark();
  vconf_set_int(BRISEL_KEY_PICKOVER, 7);
  EXPECT_TRUE(run_until([] { return logged("E/Invalid key name or type!"); }));
  EXPECT_EQ(phone.count("show"), 0);

  ASSERT_EQ(pickover_take_over(), 0);
  EXPECT_EQ(phone.request("show").at("id_list"), nlohmann::json({ids[0]}));
  EXPECT_NE(reader()->pickover_timer, nullptr) << "the mail is on screen still: it goes on being renewed";
  EXPECT_TRUE(reader()->is_pickover_registered);

  app_pause(&test_ad);
  __brisel_detail_update_pickover(reader()); /* as when a page comes to rest out of sight */
  EXPECT_FALSE(reader()->is_pickover_registered);
  EXPECT_EQ(pickover_take_over(), -1);
  app_resume(&test_ad);
  EXPECT_TRUE(reader()->is_pickover_registered);
  EXPECT_NE(reader()->pickover_timer, nullptr);
  phone.requests.clear();
  ASSERT_TRUE(swipe(true));
  ASSERT_EQ(pickover_take_over(), 0);
  EXPECT_EQ(phone.request("show").at("id_list"), nlohmann::json({ids[1]}));
  close_reader();
  EXPECT_EQ(pickover_take_over(), -1);
  log_mark();
  brisel_detail_register_pickover(nullptr);
  EXPECT_TRUE(logged("E/Invalid parameter: data is NULL!"));
}

TEST_F(Page, PagesFollowTheMail) {
  fill({"a", "b"});
  open_reader(ids[0]);
  phone.set_text(ids[1], "subject", "Another");
  phone.set_text(ids[1], "from_name", "Someone else");
  phone.set_flag(ids[1], "attachment_count", 3);
  page_data *next = reader()->page_data[BRISEL_DETAIL_NEXT_PAGE];
  ASSERT_TRUE(run_until([&] { return part_text(next, "detail.attachment") != ""; }));
  EXPECT_EQ(part_text(next, "detail.title"), "Another");
  EXPECT_NE(part_text(next, "detail.time"), "");
  EXPECT_EQ(part_state(next, "detail.attachment"), "shown");
  ASSERT_TRUE(swipe(true));
  EXPECT_EQ(current_page(), next);
  EXPECT_EQ(title(), "2 of 2") << "for a moment, whatever comes of the mail";
  EXPECT_TRUE(run_until([&] { return title() == "Someone else"; }));
  /* The reply button changes its function with the phone's word, at the latest with the language. */
  phone.set_status("reply", 2);
  vconf_set_str(BRISEL_KEY_LANGUAGE, "de_DE.UTF-8");
  ASSERT_TRUE(run_until([&] { return part_state(next, "detail.rbutton") == "default"; }));
  EXPECT_EQ(content("detail.rbutton"), nullptr);
}

TEST_F(Page, TextsFollowTheLanguage) {
  fill({"a"});
  phone.set_flag(ids[0], "has_image", 1);
  phone.set_flag(ids[0], "attachment_count", 2);
  phone.set_text(ids[0], "subject", "");
  phone.set_status("reply", 2);
  reopen(0);
  const std::string english = part_text(current_page(), "detail.attachment");
  const std::string button = elm_object_text_get(content("detail.lbutton"));
  const std::string no_subject = part_text(current_page(), "detail.title");
  vconf_set_str(BRISEL_KEY_LANGUAGE, "de_DE.UTF-8");
  ASSERT_TRUE(run_until([&] { return part_text(current_page(), "detail.attachment") != english; }));
  EXPECT_NE(elm_object_text_get(content("detail.lbutton")), button);
  EXPECT_NE(part_text(current_page(), "detail.title"), no_subject);
  for (const char *part : {"detail.image", "detail.device"}) {
    const std::string notice = elm_object_text_get(content(part));
    EXPECT_EQ(notice.find("<font_size=24><text_class=nuvra><color=#FF9000FF>"), 0u);
    EXPECT_NE(notice.find(brisel_util_get_text(part == std::string("detail.image")
                                                   ? "IDS_EMAIL_BODY_IMAGES_ARE_NOT_SUPPORTED"
                                                   : "IDS_EMAIL_BODY_MORE_ON_MOBILE_DEVICE_ABB")),
              std::string::npos);
  }
}
