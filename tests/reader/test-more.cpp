/* More of a body, as the phone hears of it and answers. */
#include "reader-test.h"
#include "vconf.h"

static const std::string more_tag = "<tag:thisisover500>";
static const std::string complete_tag = "<tag:thisisover-1>";

/* Text of several screens. */
static std::string long_text(const std::string &word, int words) {
  std::string text;
  for (int i = 0; i < words; i++) text += word + std::to_string(i) + (i % 30 == 29 ? "\n" : " ");
  return text;
}

struct MoreMsg : testing::Test {
  linked_phone phone;
  std::vector<int> ids;

  void open(const std::vector<std::string> &bodies, size_t mail = 0) {
    ids = mailbox_with(&phone, bodies);
    open_reader(ids.at(mail));
  }
  /* The page waits for nothing: no ring, the notice as it should be, events let through. */
  void expect_rest(const page_data *page, bool notice) {
    EXPECT_EQ(page->progress, nullptr);
    EXPECT_EQ(part_state(page, "detail.device"), notice ? "shown" : "default");
    EXPECT_EQ(part_state(page, "detail.process"), "default");
    EXPECT_EQ(part_state(page, "detail.progress_bg"), "default");
  }
  /* Hits the end of the page: the number of the request that comes of it. */
  int64_t ask(void) {
    __brisel_detail_scroller_bottom_hit_cb(reader(), current_page()->scroller, nullptr);
    const int64_t request = phone.more_request();
    EXPECT_GE(request, 0);
    return request;
  }
  bool body_becomes(const page_data *page, const std::string &text) {
    return run_until(
        [&] { return page->detail_layout && brisel_detail_body_get(page->detail_layout, nullptr) == text; });
  }
  void TearDown() override { app_stop(); }
};

TEST_F(MoreMsg, ArrivesPieceByPieceUntilComplete) {
  const std::string first = long_text("one", 150), second = long_text("two", 100), third = long_text("three", 60);
  open({first});
  expect_rest(current_page(), true);

  pull_to_end();
  int64_t request = phone.more_request();
  ASSERT_GE(request, 0);
  EXPECT_NE(current_page()->progress, nullptr);
  EXPECT_EQ(part_state(current_page(), "detail.process"), "shown");
  const int place = scrolled();
  phone.answer_more(request, 0, second, false);
  ASSERT_TRUE(body_becomes(current_page(), first + second));
  expect_rest(current_page(), true);
  EXPECT_EQ(scrolled(), place) << "the reader's place moved";

  phone.requests.clear();
  pull_to_end();
  request = phone.more_request();
  ASSERT_GE(request, 0);
  phone.answer_more(request, 0, third, true);
  ASSERT_TRUE(body_becomes(current_page(), first + second + third));
  expect_rest(current_page(), false);
  EXPECT_TRUE(logged("I/There is no more mail_body!"));

  /* Complete: the edge asks for nothing any more. */
  phone.requests.clear();
  pull_to_end();
  settle();
  EXPECT_EQ(phone.count("more_msg"), 0);
}

TEST_F(MoreMsg, AsksAtMostThreeTimesAVisit) {
  open({long_text("a", 40) + more_tag, "b"});
  for (int asked = 1; asked <= 4; asked++) {
    phone.requests.clear();
    /* At the end already, one more pull hits it again. */
    pull_to_end();
    if (asked == 4) break;
    const int64_t request = phone.more_request();
    ASSERT_GE(request, 0) << asked;
    phone.answer_more(request, 1, "", false);
    ASSERT_TRUE(run_until([&] { return !current_page()->progress; }));
  }
  settle();
  EXPECT_EQ(phone.count("more_msg"), 0);
  ASSERT_TRUE(swipe(true));
  ASSERT_TRUE(swipe(false));
  pull_to_end();
  EXPECT_GE(phone.more_request(), 0) << "a new visit may ask again";
}

/* With the display off the page is made to stand still at its end: that is no pull. */
TEST_F(MoreMsg, APauseAtTheEndAsksForNothing) {
  open({long_text("a", 200) + more_tag});
  pull_to_end();
  phone.answer_more(phone.more_request(), 1, "", false);
  ASSERT_TRUE(run_until([] { return !current_page()->progress; }));
  phone.requests.clear();
  const int left = current_page()->more_msg_count;
  app_pause(&test_ad);
  settle();
  EXPECT_EQ(phone.count("more_msg"), 0);
  EXPECT_EQ(current_page()->more_msg_count, left);
}

/* What the phone says of an opened mail: fields that its page was not made with come, and go again. */
TEST_F(MoreMsg, FieldsComeAndGo) {
  open({"whole" + complete_tag});
  const auto state = [](const char *part) {
    return current_page()->detail_layout && current_page()->is_built ? part_state(current_page(), part) : "";
  };
  phone.set_text(ids[0], "body", "first" + more_tag);
  ASSERT_TRUE(body_becomes(current_page(), "first"));
  expect_rest(current_page(), true);
  EXPECT_TRUE(elm_object_part_content_get(current_page()->detail_layout, "detail.device"));
  for (const char *field : {"attachment_count", "has_image"}) {
    const char *part = *field == 'a' ? "detail.attachment" : "detail.image";
    phone.set_flag(ids[0], field, 1);
    EXPECT_TRUE(run_until([&] { return state(part) != "" && state(part) != "default"; })) << field;
    phone.set_flag(ids[0], field, 0);
    EXPECT_TRUE(run_until([&] { return state(part) == "default"; })) << field;
  }
}

TEST_F(MoreMsg, BodiesThatMayAskAndThatMayNot) {
  struct {
    const char *body;
    bool asks;
  } const table[] = {
      {"plain", true},
      {"ends with more<tag:thisisover500>", true},
      {"complete<tag:thisisover-1>", false},
      {"tag in <tag:thisisover500> the middle", false},
      {"", true},
  };
  std::vector<std::string> bodies;
  for (const auto &row : table) bodies.push_back(row.body);
  ids = mailbox_with(&phone, bodies);
  for (size_t i = 0; i < bodies.size(); i++) {
    SCOPED_TRACE(table[i].body);
    /* The service gives every body without a tag one; this test is about the text as it stands in a record. */
    ASSERT_EQ(brisel_detail_draw_view(ids[i], 0, &test_ad), 0);
    g_free(current_page()->mail_data->body);
    current_page()->mail_data->body = g_strdup(table[i].body);
    __brisel_detail_scroller_bottom_hit_cb(reader(), current_page()->scroller, nullptr);
    settle();
    EXPECT_EQ(current_page()->progress != nullptr, table[i].asks);
    close_reader();
  }
}

TEST_F(MoreMsg, WithoutALinkNothingIsAskedAndNothingUsedUp) {
  open({"short" + more_tag});
  vconf_set_bool(BRISEL_KEY_BT_CONNECTED, 0);
  ASSERT_TRUE(run_until([] { return test_ad.bt_connected == 0; }));
  const auto notice = [] {
    return std::string(
        elm_object_text_get(elm_object_part_content_get(current_page()->detail_layout, "detail.device")));
  };
  const char *refused = brisel_util_get_text("IDS_EMAIL_BODY_MORE_WHEN_CONNECTED");
  current_page()->more_msg_count = 0;
  EXPECT_EQ(notice().find(refused), std::string::npos);
  pull_up();
  ASSERT_TRUE(run_until([&] { return notice().find(refused) != std::string::npos; })) << "the page says nothing";
  EXPECT_EQ(phone.count("more_msg"), 0);
  vconf_set_bool(BRISEL_KEY_BT_CONNECTED, 1);
  ASSERT_TRUE(run_until([&] { return notice().find(refused) == std::string::npos; }));
  EXPECT_EQ(current_page()->more_msg_count, BRISEL_DETAIL_MORE_MSG_MAX) << "the link's return starts a visit anew";
}

TEST_F(MoreMsg, APageBuiltWhileItsTextIsOnTheWaySaysSo) {
  open({"first" + more_tag, "b", "c", "d"});
  const int64_t request = ask();
  for (int turns = 0; turns < 3; turns++) show_page(true);
  for (int turns = 0; turns < 3; turns++) show_page(false);
  EXPECT_NE(current_page()->progress, nullptr);
  EXPECT_EQ(part_state(current_page(), "detail.process"), "shown");
  phone.answer_more(request, 0, " more", true);
  ASSERT_TRUE(body_becomes(current_page(), "first more"));
  expect_rest(current_page(), false);
}

TEST_F(MoreMsg, AShortPageCanAskToo) {
  open({"short" + more_tag});
  pull_up();
  EXPECT_GE(phone.more_request(), 0);
}

struct answer_case {
  const char *name;
  int error;
  const char *piece;
  bool complete;
  bool notice; /* shown afterwards */
};

TEST_F(MoreMsg, WhatThePhoneAnswers) {
  const answer_case table[] = {
      {"an error", 5, "", false, true},
      {"nothing new", 0, "", false, true},
      {"the same text again", 0, "short", false, true},
      {"nothing new, and that was all", 0, "", true, false},
  };
  open({"short" + more_tag});
  std::string body = "short";
  for (const answer_case &row : table) {
    SCOPED_TRACE(row.name);
    current_page()->more_msg_count = BRISEL_DETAIL_MORE_MSG_MAX;
    phone.requests.clear();
    const int64_t request = ask();
    phone.answer_more(request, row.error, row.piece, row.complete);
    if (!row.error) body += row.piece;
    ASSERT_TRUE(run_until([&] { return !reader()->more_msg && !current_page()->more_msg_timer; }));
    EXPECT_EQ(brisel_detail_body_get(current_page()->detail_layout, nullptr), body);
    expect_rest(current_page(), row.notice);
  }
  EXPECT_TRUE(logged("I/__brisel_detail_ipc_more_msg_cb() failed! [-8]"));
}

TEST_F(MoreMsg, AnAnswerBelongsToThePageThatAsked) {
  open({"first" + more_tag, "second" + more_tag, "third"});
  page_data *asked = current_page();
  const int64_t request = ask();
  ASSERT_TRUE(swipe(true));
  ASSERT_NE(current_page(), asked);
  phone.answer_more(request, 0, " and more", false);
  ASSERT_TRUE(body_becomes(asked, "first and more"));
  expect_rest(asked, true);
  EXPECT_STREQ(brisel_detail_body_get(current_page()->detail_layout, nullptr), "second");
}

TEST_F(MoreMsg, ANewRequestEndsTheWaitOfThePageSwipedAway) {
  open({"first" + more_tag, "second" + more_tag});
  page_data *asked = current_page();
  const int64_t old_request = ask();
  ASSERT_TRUE(swipe(true));
  phone.requests.clear();
  const int64_t request = ask();
  expect_rest(asked, true);
  /* The withdrawn answer comes all the same: it must not end up on the wrong page. */
  phone.answer_more(old_request, 0, " late", true);
  settle();
  EXPECT_STREQ(brisel_detail_body_get(current_page()->detail_layout, nullptr), "second");
  phone.answer_more(request, 0, " more", true);
  ASSERT_TRUE(body_becomes(current_page(), "second more"));
}

TEST_F(MoreMsg, AnswersForWhatIsGoneAreDropped) {
  open({"first" + more_tag, "second"});
  ask();
  /* The phone deletes the mail while it owes an answer: the reader closes with it. */
  phone.delete_mails({ids[0]});
  ASSERT_TRUE(run_until([] { return !reader(); }));

  open_reader(ids[1]);
  phone.requests.clear();
  const int64_t request = ask();
  close_reader();
  phone.answer_more(request, 0, " more", true);
  settle();
  EXPECT_EQ(reader(), nullptr);
}

TEST_F(MoreMsg, ThePhoneLeavesWithoutAnAnswer) {
  open({"first" + more_tag});
  ask();
  app_pause(&test_ad);
  EXPECT_FALSE(elm_progressbar_is_pulsing_get(current_page()->progress)) << "it turns for nobody";
  app_resume(&test_ad);
  EXPECT_TRUE(elm_progressbar_is_pulsing_get(current_page()->progress));
  phone.leave();
  ASSERT_TRUE(run_until([] { return !reader()->more_msg; }));
  expect_rest(current_page(), true);
  EXPECT_STREQ(brisel_detail_body_get(current_page()->detail_layout, nullptr), "first");
}
