/* Text sizes and the two gestures that change them. */
#include "reader-test.h"
#include "vconf.h"

struct Gestures : testing::Test {
  linked_phone phone;
  std::vector<int> ids;
  void open(void) {
    ids = mailbox_with(&phone, {"Body 0", "Body 1", "Body 2", "Body 3"});
    open_reader(ids[1]);
  }
  void TearDown() override {
    app_stop();
    vconf_unset(BRISEL_KEY_FONT_SIZE);
  }
};

/* Every built page shows the size, subject and body, and nothing is frozen. */
static void expect_size(int size, const char *state) {
  EXPECT_EQ(reader()->font_size, size);
  for (const page_data *page : reader()->page_data) {
    if (!page) continue;
    EXPECT_EQ(part_state(page, "detail.body"), state);
    EXPECT_EQ(part_state(page, "detail.title"), state);
    EXPECT_EQ(elm_object_scroll_freeze_get(page->scroller), 0);
  }
  EXPECT_EQ(elm_object_scroll_freeze_get(reader()->page_scroller), 0);
}

TEST_F(Gestures, TheSettingGivesTheFirstSize) {
  struct {
    int setting;
    const char *state;
    int after_double_tap;
  } const table[] = {{0, "small", 1}, {1, "default", 2}, {2, "large", 0}, {3, "default", 0}, {-7, "default", 0}};
  ids = mailbox_with(&phone, {"Body 0", "Body 1"});
  for (const auto &row : table) {
    SCOPED_TRACE(row.setting);
    vconf_set_int(BRISEL_KEY_FONT_SIZE, row.setting);
    ASSERT_EQ(brisel_detail_draw_view(ids[0], 0, &test_ad), 0);
    settle();
    expect_size(row.setting, row.state);
    Elm_Gesture_Zoom_Info zoom = {};
    zoom.zoom = 1.5;
    Elm_Gesture_Taps_Info taps = {};
    taps.n = 2;
    if (row.setting < 0 || row.setting > 2) {
      __brisel_detail_gesture_zoom_end_cb(reader(), &zoom);
      EXPECT_EQ(reader()->font_size, row.setting) << "a pinch steps from the three sizes only";
    }
    __brisel_detail_gesture_double_tab_end_cb(reader(), &taps);
    EXPECT_EQ(reader()->font_size, row.after_double_tap);
    elm_naviframe_item_pop(test_ad.naviframe);
    settle();
  }
  vconf_unset(BRISEL_KEY_FONT_SIZE);
  log_mark();
  ASSERT_EQ(brisel_detail_draw_view(ids[0], 0, &test_ad), 0);
  EXPECT_TRUE(logged("E/vconf_get_int(BRISEL_VCONFKEY_SETAPPL_ACCESSIBILITY_FONT_SIZE) failed!"));
  EXPECT_EQ(reader()->font_size, 1);
}

TEST_F(Gestures, PinchFactorsAtTheirBounds) {
  struct {
    int from;
    double zoom;
    int to;
  } const table[] = {{1, 1.15, 2}, {1, 1.149, 1}, {1, 0.85, 0}, {1, 0.851, 1}, {2, 2.0, 2},
                     {0, 0.1, 0},  {2, 0.5, 1},   {0, 1.2, 1},  {1, 1.0, 1}};
  open();
  for (const auto &row : table) {
    SCOPED_TRACE(testing::Message() << row.from << " by " << row.zoom);
    __brisel_detail_update_font_size(reader(), row.from);
    Elm_Gesture_Zoom_Info info = {};
    info.zoom = row.zoom;
    __brisel_detail_gesture_zoom_start_cb(reader(), &info);
    EXPECT_GT(elm_object_scroll_freeze_get(reader()->page_scroller), 0);
    EXPECT_GT(elm_object_scroll_freeze_get(current_page()->scroller), 0);
    __brisel_detail_gesture_zoom_end_cb(reader(), &info);
    expect_size(row.to, row.to == 0 ? "small" : row.to == 2 ? "large" : "default");
  }
}

TEST_F(Gestures, FingersPinch) {
  open();
  pinch(2.5);
  ASSERT_TRUE(run_until([] { return reader()->font_size == 2; }));
  EXPECT_EQ(reader()->mail_id, ids[1]) << "a pinch must not turn the page";
  expect_size(2, "large");
  pinch(0.3);
  ASSERT_TRUE(run_until([] { return reader()->font_size == 1; }));
  expect_size(1, "default");
  EXPECT_EQ(reader()->mail_id, ids[1]);
  ASSERT_TRUE(swipe(true)) << "the pages are frozen";
}

TEST_F(Gestures, FingersDoubleTap) {
  open();
  for (int size : {2, 0, 1}) {
    double_tap();
    ASSERT_TRUE(run_until([&] { return reader()->font_size == size; }));
  }
  EXPECT_TRUE(logged("I/tapinfo->n : 1, view_data->font_size : 1"));
  expect_size(1, "default");
}

TEST_F(Gestures, AFreezeEndsEvenWhenThePageChangesUnderIt) {
  open();
  Elm_Gesture_Zoom_Info info = {};
  __brisel_detail_gesture_zoom_start_cb(reader(), &info);
  show_page(true);
  __brisel_detail_gesture_zoom_abort_cb(reader(), &info);
  expect_size(1, "default");
}

TEST_F(Gestures, SizesReachLaterPagesAndLeaveSubjectsAsTheyAre) {
  open();
  phone.set_text(ids[3], "subject", "");
  phone.set_text(ids[2], "subject", "<b>a</b> &amp; b");
  close_reader();
  open_reader(ids[0]);
  for (int size : {2, 0}) {
    __brisel_detail_update_font_size(reader(), size);
    EXPECT_EQ(part_text(reader()->page_data[BRISEL_DETAIL_NEXT_NEXT_PAGE], "detail.title"), "<b>a</b> &amp; b");
  }
  ASSERT_TRUE(swipe(true));
  const page_data *later = reader()->page_data[BRISEL_DETAIL_NEXT_NEXT_PAGE];
  EXPECT_EQ(part_state(later, "detail.body"), "small");
  __brisel_detail_update_font_size(reader(), 1);
  EXPECT_EQ(part_text(later, "detail.title"), brisel_util_get_text("IDS_EMAIL_BODY_HNO_SUBJECT_ABB"));
}

/* Two fingers: neither a turn nor a question, wherever they left the page. */
TEST_F(Gestures, TwoFingersTurnAndAskNothing) {
  open();
  const point middle = middle_of(reader()->page_scroller_layout);
  const point edge = {20, middle.y};
  for (const auto &[sideways, late] : {std::pair{true, false}, {true, true}, {false, false}}) {
    const point from = sideways ? point{middle.x * 2 - 20, middle.y} : point{middle.x, middle.y * 2 - 40};
    touch(from);
    if (!late) second_finger(edge, true);
    for (int step = 1; step <= 8; step++) {
      move_finger(sideways ? point{from.x - step * 30, from.y} : point{from.x, from.y - step * 25});
      settle();
    }
    if (late) second_finger(edge, true);
    second_finger(edge, false);
    lift();
    rest_reader();
    EXPECT_EQ(reader()->mail_id, ids[1]) << (late ? "held past half by the first" : "");
    EXPECT_EQ(on_screen(), current_page());
    EXPECT_FALSE(current_page()->progress || current_page()->more_msg_idler);
  }
  EXPECT_TRUE(swipe(true));
}

TEST_F(Gestures, AKeyboardTurnsAndReadsOn) {
  std::string body;
  for (int line = 0; line < 200; line++) body += "line " + std::to_string(line) + "\n";
  ids = mailbox_with(&phone, {"Body 0", body, "Body 2"});
  open_reader(ids[1]);
  struct {
    const char *name;
    int moves; /* the text: 1 on, -1 back */
    size_t to;
  } const table[] = {{"space", 1, 1}, {"Next", 1, 1}, {"Down", 1, 1}, {"Up", -1, 1},   {"Prior", -1, 1},
                     {"Home", -1, 1}, {"Left", 0, 0}, {"Left", 0, 0}, {"Right", 0, 1}, {"Right", 0, 2}};
  for (const auto &row : table) {
    SCOPED_TRACE(row.name);
    const int before = scrolled();
    key(row.name);
    if (row.moves) EXPECT_TRUE(run_until([&] { return (scrolled() - before) * row.moves > 0; }));
    rest_reader();
    EXPECT_EQ(reader()->mail_id, ids[row.to]);
  }
  brisel_option_detail_draw_view(reader()->mail_id, &test_ad);
  key("Left");
  rest_reader();
  EXPECT_EQ(reader()->mail_id, ids[2]) << "another view lies over it";
}

TEST_F(Gestures, InvalidCallsAreIgnored) {
  open();
  Elm_Gesture_Zoom_Info zoom = {};
  log_mark();
  __brisel_detail_gesture_zoom_start_cb(nullptr, &zoom);
  EXPECT_TRUE(logged("E/Invalid parameter: data is NULL!"));
  __brisel_detail_gesture_zoom_end_cb(reader(), nullptr);
  EXPECT_TRUE(logged("E/Invalid parameter: event_info is NULL!"));
  page_data *current = current_page();
  reader()->page_data[BRISEL_DETAIL_CUR_PAGE] = nullptr;
  __brisel_detail_gesture_double_tab_end_cb(reader(), &zoom);
  reader()->page_data[BRISEL_DETAIL_CUR_PAGE] = current;
  EXPECT_TRUE(logged("E/Invalid parameter: view_data->page_data[BRISEL_DETAIL_CUR_PAGE] is NULL!"));
  __brisel_detail_update_font_size(reader(), 3);
  EXPECT_TRUE(logged("E/Invalid font-size: [3]"));
  expect_size(1, "default");
}
