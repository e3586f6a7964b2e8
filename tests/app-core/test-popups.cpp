/* The popup kit on a real window: buttons, back key, time, parents, refusals. */
#include <algorithm>

#include "../../app/src/brisel-app-view-common.h"
#include "app-test.h"
#include "vconf.h"

static std::vector<Evas_Object *> answers;
static std::vector<void *> answer_data;

static void answer_cb(void *data, Evas_Object *obj, void *event_info) {
  answers.push_back(obj);
  answer_data.push_back(data);
}

struct popups : testing::Test {
  test_phone phone;
  void SetUp() override {
    vconf_set_bool(BRISEL_KEY_BT_CONNECTED, 1);
    phone.clear();
    phone.add_account("a@example.org", "A");
    phone.set_account_count(true);
    answers.clear();
    answer_data.clear();
    app_start();
    ASSERT_NE(test_ad.naviframe, nullptr);
  }
  void TearDown() override { app_stop(); }
};

TEST_F(popups, ButtonsAndBackAnswerThroughOneFunction) {
  const struct {
    const char *btn1, *btn2;
    bool respond;
    size_t buttons;
  } cases[] = {{nullptr, nullptr, true, 0},
               {"Yes", nullptr, true, 1},
               {"Yes", "No", true, 2},
               {"Yes", nullptr, false, 1},
               {nullptr, nullptr, false, 0}};
  for (const auto &c : cases) {
    answers.clear();
    int data = 0;
    Evas_Object *popup = brisel_util_popup_create(&data, test_ad.win_main, nullptr, "A question",
                                                  c.respond ? answer_cb : nullptr, 0.0, nullptr, c.btn1, c.btn2);
    settle();
    EXPECT_TRUE(visible("A question"));
    Evas_Object *btn1 = elm_object_part_content_get(popup, "button1"),
                *btn2 = elm_object_part_content_get(popup, "button2");
    EXPECT_EQ((btn1 != nullptr) + (btn2 != nullptr), (int)c.buttons);
    if (c.btn1) {
      EXPECT_STREQ(elm_object_style_get(btn1), "popup");
      tap(text_at(c.btn1));
    }
    if (c.btn2) tap(text_at(c.btn2));
    key("XF86Back");
    std::vector<Evas_Object *> expected;
    if (c.respond) {
      if (btn1) expected.push_back(btn1);
      if (btn2) expected.push_back(btn2);
      expected.push_back(popup);
    }
    EXPECT_EQ(answers, expected);
    EXPECT_EQ(std::count(answer_data.begin(), answer_data.end(), &data), (long)answer_data.size());
    answer_data.clear();
    evas_object_del(popup);
    settle();
    EXPECT_TRUE(gone("A question"));
  }
}

TEST_F(popups, TheRestOfATouchIsNotForWhatItOpened) {
  const auto open = [] {
    return brisel_util_popup_create(nullptr, test_ad.win_main, nullptr, "A question", answer_cb, 0.0, nullptr, "Yes",
                                    "No");
  };
  Evas_Object *popup = open();
  settle();
  ASSERT_TRUE(visible("A question"));
  const point yes = text_at("Yes"), no = text_at("No");
  evas_object_del(popup);
  EXPECT_TRUE(gone("A question"));
  touch(yes);
  release(yes);
  popup = open();
  settle();
  tap({yes.x + 5, yes.y - 5});
  EXPECT_TRUE(answers.empty()) << "the second tap of a double tap";
  tap(no);
  EXPECT_EQ(answers.size(), 1u) << "another touch is at once for the popup";
  EXPECT_TRUE(run_until([&] {
    tap(yes);
    return answers.size() == 2;
  }));
  evas_object_del(popup);
  /* A long press opens while the finger is down: the time begins when it lifts. */
  touch(yes);
  popup = open();
  run_for(0.4); /* longer than the rest of a touch is kept away */
  release(yes);
  tap(yes);
  EXPECT_EQ(answers.size(), 2u);
  evas_object_del(popup);
  popup = open();
  settle();
  EXPECT_TRUE(run_until([&] {
    tap(yes);
    return answers.size() == 3;
  }));
  evas_object_del(popup);
}

TEST_F(popups, WhatCouldNotBeKeptIsOfferedUntilItIs) {
  static int tries, dropped;
  tries = dropped = 0;
  const auto offer = [] {
    brisel_view_offer_again(
        &test_ad, [](void *data) { return ++tries < 2 ? -1 : 0; }, [](void *data) { dropped++; }, nullptr);
  };
  const std::string text = brisel_util_get_text("IDS_EMAIL_POP_THIS_COULD_NOT_BE_SAVED_ON_THE_ZOLT");
  offer();
  EXPECT_TRUE(visible(text));
  tap(text_at(brisel_util_get_text("IDS_EMAIL_SK_TRY_AGAIN")));
  EXPECT_EQ(tries, 1);
  EXPECT_TRUE(visible(text)) << "it failed again";
  EXPECT_EQ(dropped, 0);
  tap(text_at(brisel_util_get_text("IDS_EMAIL_SK_TRY_AGAIN")));
  EXPECT_EQ(tries, 2);
  EXPECT_EQ(dropped, 1);
  EXPECT_TRUE(gone(text));
  offer();
  offer();
  EXPECT_EQ(dropped, 2) << "the newer one takes the place";
  brisel_view_offer_again(
      &test_ad, [](void *data) { return 0; }, nullptr, nullptr);
  EXPECT_EQ(dropped, 2) << "what is kept anyway takes no place";
  settle();
  key("XF86Back");
  EXPECT_EQ(dropped, 3);
  EXPECT_TRUE(gone(text));
}

TEST_F(popups, ADeletionThatWasNotKeptIsOfferedAgain) {
  const int id = phone.add_mail({.account = phone.accounts().at(0), .received = 1700000000, .from_name = "Name"});
  brisel_ipc_client_deinit();
  EXPECT_NE(brisel_util_request_delete(&id, 1), 0);
  EXPECT_TRUE(visible(brisel_util_get_text("IDS_EMAIL_POP_THIS_COULD_NOT_BE_SAVED_ON_THE_ZOLT")));
  EXPECT_EQ(brisel_ipc_client_init(), 0);
  tap(text_at(brisel_util_get_text("IDS_EMAIL_SK_TRY_AGAIN")));
  EXPECT_TRUE(gone(brisel_util_get_text("IDS_EMAIL_POP_THIS_COULD_NOT_BE_SAVED_ON_THE_ZOLT")));
  EXPECT_TRUE(run_until([&] {
    int count = 0;
    brisel_db_get_full_noti_data_count_by_account_id(0, &count);
    return count == 0;
  })) << "the mail is gone from the watch";
}

TEST_F(popups, LongTextsScrollAndTimeRunsOut) {
  std::string text;
  for (int i = 0; i < 300; i++) text += "word ";
  Evas_Object *popup = brisel_util_scroll_popup_create(nullptr, test_ad.win_main, nullptr, text.c_str(), nullptr, 1.0,
                                                       answer_cb, "OK", nullptr);
  settle();
  Evas_Object *scroller = elm_object_content_get(popup);
  ASSERT_NE(scroller, nullptr);
  EXPECT_STREQ(elm_object_style_get(scroller), "effect");
  Evas_Object *label = elm_object_content_get(scroller);
  const int y = text_at("OK").y;
  int shown = 0, whole = 0, window = 0;
  evas_object_geometry_get(test_ad.win_main, nullptr, nullptr, nullptr, &window);
  EXPECT_TRUE(run_until([&] {
    elm_scroller_region_get(scroller, nullptr, nullptr, nullptr, &shown);
    evas_object_geometry_get(label, nullptr, nullptr, nullptr, &whole);
    return whole > shown && shown > 0;
  })) << "the text is longer than what is shown of it";
  EXPECT_LT(y, window) << "the button stays on screen";
  Eina_Bool sideways = EINA_TRUE;
  elm_scroller_bounce_get(scroller, &sideways, nullptr);
  EXPECT_FALSE(sideways);
  EXPECT_TRUE(run_until([] { return !answers.empty(); }));
  EXPECT_EQ(answers.front(), popup);
  evas_object_del(popup);
}

TEST_F(popups, KeysLeaveATextWithoutAnError) {
  Evas_Object *popup = brisel_util_scroll_popup_create(nullptr, test_ad.win_main, nullptr, "A text", answer_cb, 0.0,
                                                       nullptr, "OK", "No");
  EXPECT_TRUE(visible("A text"));
  static int errors;
  eina_log_print_cb_set([](const Eina_Log_Domain *, Eina_Log_Level level, const char *, const char *, int, const char *,
                           void *, va_list) { errors += level <= EINA_LOG_LEVEL_ERR; },
                        nullptr);
  for (const char *name : {"Down", "Down", "Down", "Up"}) key(name);
  eina_log_print_cb_set(eina_log_print_cb_stderr, nullptr);
  EXPECT_EQ(errors, 0) << "the toolkit complained";
  evas_object_del(popup);
}

TEST_F(popups, TwoButtonPopupFollowsTheLanguage) {
  const char *const ids[] = {"IDS_EMAIL_HEADER_SET_UP_EMAIL", "IDS_EMAIL_BODY_NO_EMAILS", "IDS_EMAIL_SK_CANCEL_ABB",
                             "IDS_COM_SK_OK"};
  Evas_Object *popup = brisel_util_create_basic_2button_popup_with_app_data(&test_ad, ids[0], ids[1], answer_cb,
                                                                            answer_cb, ids[2], answer_cb, ids[3]);
  const std::string english = brisel_util_get_text(ids[1]);
  for (const char *language : {"en_US.UTF-8", "de_DE.UTF-8"}) {
    vconf_set_str(BRISEL_KEY_LANGUAGE, language);
    EXPECT_TRUE(run_until([&] { return (*language == 'e') == (english == brisel_util_get_text(ids[1])); }));
    for (const char *id : ids) EXPECT_TRUE(visible(brisel_util_get_text(id))) << id;
  }
  tap(text_at(brisel_util_get_text(ids[3])));
  tap(text_at(brisel_util_get_text(ids[2])));
  key("Escape");
  EXPECT_EQ(answers, (std::vector<Evas_Object *>{elm_object_part_content_get(popup, "button2"),
                                                 elm_object_part_content_get(popup, "button1"), popup}));
  EXPECT_EQ(answer_data, std::vector<void *>(3, &test_ad));
  evas_object_del(popup);
  vconf_set_str(BRISEL_KEY_LANGUAGE, "en_US.UTF-8");
  EXPECT_TRUE(run_until([&] { return english == brisel_util_get_text(ids[1]); }));
}

static int letters(Evas_Object *popup, const char *button) {
  Evas_Object *drawing = elm_layout_edje_get(elm_object_part_content_get(popup, button));
  const char *font = nullptr;
  int size = 0;
  evas_object_text_font_get(edje_object_part_object_get(drawing, "elm.text"), &font, &size);
  return size;
}

TEST_F(popups, TwoButtonsHaveLettersOfOneSize) {
  Evas_Object *popup = brisel_util_popup_create(nullptr, test_ad.naviframe, nullptr, "A question", answer_cb, 0.0,
                                                nullptr, "OK", "Unmistakably");
  settle();
  const int small = letters(popup, "button2");
  EXPECT_EQ(letters(popup, "button1"), small);
  elm_object_text_set(elm_object_part_content_get(popup, "button2"), "No");
  evas_object_smart_callback_call(popup, "language,changed", nullptr);
  settle();
  EXPECT_GT(letters(popup, "button1"), small);
  evas_object_del(popup);
}

TEST_F(popups, ToastsGoByThemselvesByTouchAndByBack) {
  const struct {
    const char *way;
    std::function<void()> leave;
  } cases[] = {
      {"touch",
       [] {
         tap({160, 20});
       }},
      {"back", [] { key("XF86Back"); }},
      {"time", [] {}},
  };
  for (const auto &c : cases) {
    brisel_create_toast_popup(&test_ad, "Done &amp; gone");
    settle();
    EXPECT_TRUE(visible("Done & gone")) << c.way;
    c.leave();
    EXPECT_TRUE(gone("Done & gone")) << c.way;
  }
}
