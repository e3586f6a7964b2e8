/* The mailbox list from inside: its model under the rows, its sweep, the account shown, and what becomes of them when
   the phone, a launch or the user goes on. */
#include <gmock/gmock.h>

#include "app-test.h"
#include "cases.h"
#include "vconf.h"

static const long base_time = 1700000000;

/* The drawing of a row in sight, or NULL. */
static Evas_Object *drawing(Elm_Object_Item *item) {
  Evas_Object *bar = elm_object_item_part_content_get(item, "elm.swallow.colorbar");
  return bar ? evas_object_smart_parent_get(bar) : nullptr;
}

struct mailbox : testing::Test {
  linked_phone phone;
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
  void sweep(int row, int from = 80, int to = 240) {
    const int y = middle_of_item(item_of_mail(ids[row])).y;
    drag({from, y}, {to, y});
  }
  bool swept(int row) { return test_ad.sweep_item && test_ad.sweep_item == item_of_mail(ids[row]); }
  void wait_for_thaw(void) {
    EXPECT_TRUE(run_until([&] { return !test_ad.sweep_timer; }));
    EXPECT_EQ(elm_object_scroll_freeze_get(test_ad.mailbox_genlist), 0);
  }
};

/* How the shown account follows accounts that come and go. */
TEST_F(mailbox, AccountsComeAndGo) {
  for (const case_row &c : table_of(CASES_DIR "/mailbox.txt",
                                    "accounts that go: what, how many there are, which is shown (-1: all together), "
                                    "which goes, which is shown then",
                                    5)) {
    SCOPED_TRACE(c[0]);
    const int count = c.number(1), shown = c.number(2), removed = c.number(3), then = c.number(4);
    phone.clear();
    accounts.clear();
    add_accounts(count);
    std::vector<int> mails;
    for (int i = 0; i < count; i++) mails.push_back(mail(i, i));
    app_start();
    for (int taps = 0; taps <= shown; taps++) tap(header());
    EXPECT_EQ(test_ad.account_id, shown < 0 ? 0 : accounts[shown]);
    log_mark();
    phone.remove_account(accounts[removed]);
    wait_for("I/BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE");
    EXPECT_TRUE(run_until([&] { return test_ad.account_id == (then < 0 ? 0 : accounts[then]); })) << test_ad.account_id;
    std::vector<int> expected;
    for (int i = count - 1; i >= 0; i--)
      if (i != removed && (then < 0 || i == then)) expected.push_back(mails[i]);
    wait_for_rows(expected);
    EXPECT_EQ(test_ad.account_cnt, count - 1);
    app_stop();
  }
}

TEST_F(mailbox, AnAccountWithoutARecordBecomesTheCombinedView) {
  add_accounts(2);
  const int id = mail(0, 1);
  app_start();
  for (const bool tapped : {true, false}) {
    test_ad.account_id = 4242;
    test_ad.nocontents_shown = !tapped;
    tapped ? tap(header()) : (void)brisel_check_mail_on_db(&test_ad);
    EXPECT_EQ(test_ad.account_id, tapped ? accounts[0] : 0);
    EXPECT_EQ(listed_mails(), std::vector<int>{id});
  }
  EXPECT_EQ(header_title(), brisel_util_get_text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"));
}

TEST_F(mailbox, TwoAccountsThatComeBackAtOnceAreCombined) {
  fill(1, 1);
  phone.remove_account(accounts[0]);
  EXPECT_TRUE(run_until([] { return test_ad.no_account_popup != nullptr; }));
  add_accounts(2);
  const std::string combined = brisel_util_get_text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB");
  EXPECT_TRUE(run_until([&] { return header_title() == combined; })) << header_title();
}

TEST_F(mailbox, FreezesPairUpWhenSweepsFollowEachOther) {
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

/* The row says that the mail is deleted: leaving it means it. */
TEST_F(mailbox, LeavingCommitsTheSweep) {
  phone.connect();
  fill(1, 3);
  app_stop();
  const struct {
    const char *what;
    std::function<void()> leave;
  } ways[] = {
      {"Back", [] { key("XF86Back"); }},
      {"pause", [] { app_pause(&test_ad); }},
      {"a touch elsewhere",
       [&] {
         tap(middle_of_item(item_of_mail(ids[0])));
         EXPECT_EQ(views(), 1) << "the row opens";
       }},
      {"another sweep", [&] { sweep(0); }}, /* its touch is spent on that */
      {"a launch", [&] { app_launch(std::to_string(ids[0]).c_str()); }},
      {"the bin", [] { tap(middle_of(test_ad.delete_btn)); }},
      {"the window's end", [] { evas_object_del(test_ad.win_main); }},
      {"the end", [] { app_terminate(&test_ad); }},
  };
  for (const auto &way : ways) {
    SCOPED_TRACE(way.what);
    const int id = mail(0, 5, "Swept");
    app_start();
    ids.insert(ids.begin(), id);
    wait_for_rows(ids);
    phone.requests.clear();
    sweep(0);
    ASSERT_TRUE(swept(0));
    ids.erase(ids.begin());
    way.leave();
    EXPECT_EQ(test_ad.sweep_item, nullptr);
    EXPECT_EQ(phone.request("delete_notis").value("id_list", std::vector<int>()), std::vector<int>{id});
    app_stop();
  }
  phone_leaves(&phone);
}

TEST_F(mailbox, LongPressOpensTheOptionsUnlessARowIsSwept) {
  fill(1, 40);
  sweep(0, 240, 80);
  wait_for_thaw();
  int x = 0;
  edje_object_part_geometry_get(drawing(item_of_mail(ids[0])), "front", &x, nullptr, nullptr, nullptr);
  EXPECT_LT(x, 0) << "the row goes the finger's way";
  for (const int row : {39, 0}) { /* the look is the row's, wherever its drawing goes meanwhile */
    elm_genlist_item_show(item_of_mail(ids[row]), ELM_GENLIST_ITEM_SCROLLTO_TOP);
    rest();
    EXPECT_TRUE((row == 0 ? visible : gone)(brisel_util_get_text("IDS_EMAIL_BODY_DELETED"))) << row;
  }
  press_long(middle_of_item(item_of_mail(ids[0])));
  EXPECT_EQ(brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_OPTION_DETAIL_VIEW, &test_ad), nullptr);
  EXPECT_TRUE(swept(0));
  EXPECT_TRUE(logged("I/sweep item is existed."));
  brisel_delete_sweep_item(&test_ad);
  settle();
  press_long(middle_of_item(item_of_mail(ids[1])));
  EXPECT_NE(brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_OPTION_DETAIL_VIEW, &test_ad), nullptr);
  key("XF86Back");
  rest();
  EXPECT_TRUE(run_until(views_stand));
  touch(middle_of_item(item_of_mail(ids[2])));
  lift(600); /* by the touch's own clock; the list was busy and sees it at once */
  settle();
  EXPECT_NE(brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_OPTION_DETAIL_VIEW, &test_ad), nullptr);
  key("XF86Back");
  rest();
  EXPECT_TRUE(run_until(views_stand));
  /* A tap whose end waits behind a busy loop: the list's own clock takes it for a long press. */
  static double began;
  began = ecore_time_get();
  touch(middle_of_item(item_of_mail(ids[2])));
  Ecore_Pipe *pipe = ecore_pipe_add(
      [](void *, void *, unsigned) { lift(50u - (unsigned)((ecore_time_get() - began) * 1000)); }, nullptr);
  ecore_pipe_write(pipe, "", 1);
  while (ecore_time_get() < began + elm_config_longpress_timeout_get() + 0.1) continue;
  EXPECT_TRUE(
      run_until([] { return brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, &test_ad) != nullptr; }));
  EXPECT_EQ(brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_OPTION_DETAIL_VIEW, &test_ad), nullptr);
  ecore_pipe_del(pipe);
}

TEST_F(mailbox, TheAccountPopupChooses) {
  fill(14, 28);
  const auto marked = [] {
    Evas_Object *list = elm_object_content_get(test_ad.account_popup);
    return elm_radio_value_get((Evas_Object *)evas_object_data_get(list, "radio_main"));
  };
  press_long(header());
  ASSERT_NE(test_ad.account_popup, nullptr);
  EXPECT_TRUE(visible("Name a"));
  EXPECT_TRUE(visible("a@example.org"));
  EXPECT_TRUE(visible(brisel_util_get_text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB")));
  EXPECT_EQ(marked(), 0) << "the combined view is on";
  tap(text_at("Name b"));
  EXPECT_EQ(test_ad.account_popup, nullptr);
  EXPECT_EQ(test_ad.account_id, accounts[1]);
  EXPECT_EQ(listed_mails(), (std::vector<int>{ids[1], ids[15]}));

  press_long(header());
  EXPECT_EQ(marked(), 2);
  Evas_Object *list = elm_object_content_get(test_ad.account_popup);
  Elm_Object_Item *row = elm_genlist_item_next_get(elm_genlist_first_item_get(list));
  tap(middle_of(elm_object_item_part_content_get(row, "elm.icon")));
  EXPECT_EQ(test_ad.account_id, accounts[0]) << "the radio is part of its row";
  EXPECT_EQ(test_ad.account_popup, nullptr);

  test_ad.account_id = accounts.back();
  brisel_check_mail_on_db(&test_ad);
  press_long(header());
  EXPECT_TRUE(visible("Name n")) << "what is shown is in view";
  EXPECT_EQ(marked(), 14);
  key("XF86Back");
  EXPECT_EQ(test_ad.account_popup, nullptr);
}

/* --- what the rows look like --- */

/* Every row in sight has its divider, but the last one of the list. */
static void expect_dividers(Evas_Object *list) {
  Elm_Object_Item *last = elm_genlist_last_item_get(list);
  settle();
  int seen = 0;
  for (Elm_Object_Item *item = elm_genlist_first_item_get(list); item; item = elm_genlist_item_next_get(item)) {
    Evas_Object *edje = drawing(item);
    if (!edje) continue;
    seen++;
    double value = 0;
    EXPECT_STREQ(edje_object_part_state_get(edje, "bottomline", &value), item == last ? "hidden" : "default") << seen;
  }
  EXPECT_GT(seen, 1);
}

TEST_F(mailbox, EveryRowButTheLastHasItsDivider) {
  fill(2, 5);
  expect_dividers(test_ad.mailbox_genlist);
  for (int taps = 0; taps < 3; taps++) {
    tap(header());
    expect_dividers(test_ad.mailbox_genlist);
  }
  ids.push_back(mail(0, -100));
  wait_for_rows(ids);
  expect_dividers(test_ad.mailbox_genlist);
  phone.delete_mails({ids.back(), ids.at(4)});
  ids.resize(4);
  wait_for_rows(ids);
  expect_dividers(test_ad.mailbox_genlist);
}

static unsigned color_of_bar(Elm_Object_Item *item) {
  int r = 0, g = 0, b = 0;
  evas_object_color_get(elm_object_item_part_content_get(item, "elm.swallow.colorbar"), &r, &g, &b, nullptr);
  return (unsigned)(r << 16 | g << 8 | b);
}

TEST_F(mailbox, AnAccountsNewAddressAndColourShowAtOnce) {
  fill(2, 2);
  tap(header());
  EXPECT_EQ(drawn_text(elm_genlist_first_item_get(test_ad.mailbox_genlist), "elm.text.1"), "a@example.org");
  phone.add_account("new@example.org", "Name", 0x102030FF, accounts[0]);
  EXPECT_TRUE(visible("new@example.org"));
  EXPECT_EQ(color_of_bar(item_of_mail(ids[0])), 0x102030u);
}

/* --- what a launch and an event change --- */

TEST_F(mailbox, ALaunchOfAnotherAccountsMailShowsItsListFromTheTop) {
  fill(2, 60);
  tap(header());
  for (int flicks = 0; flicks < 3; flicks++) stroke({160, 300}, {160, 80});
  brisel_create_account_selection_popup(&test_ad);
  app_launch(std::to_string(ids[1]).c_str());
  EXPECT_EQ(test_ad.account_popup, nullptr) << "it would lie over the mail";
  EXPECT_EQ(test_ad.account_id, accounts[1]);
  EXPECT_TRUE(visible("Body"));
  rest();
  key("XF86Back");
  EXPECT_TRUE(visible("b@example.org"));
  int y = -1;
  elm_scroller_region_get(test_ad.mailbox_genlist, nullptr, &y, nullptr, nullptr);
  EXPECT_EQ(y, 0);
}

/* An event in the turn of a refresh makes all rows at once; only those in sight may be drawn. */
TEST_F(mailbox, RowsOutOfSightAreNotDrawn) {
  fill(2, 400);
  tap(header());
  brisel_check_current_mailbox_account_by_mail_id(ids[1], &test_ad);
  GSList *updated = g_slist_prepend(nullptr, GINT_TO_POINTER(ids[1]));
  brisel_update_mailbox_list(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, updated, &test_ad);
  g_slist_free(updated);
  EXPECT_EQ(elm_genlist_items_count(test_ad.mailbox_genlist), 201u); /* and the header */
  Eina_List *drawn = elm_genlist_realized_items_get(test_ad.mailbox_genlist);
  EXPECT_LE(eina_list_count(drawn), 25u);
  eina_list_free(drawn);
}

static void row_drawn_cb(void *data, Evas_Object *obj, void *event_info) {
  int *most = (int *)data;
  Eina_List *drawn = elm_genlist_realized_items_get(obj);
  *most = std::max(*most, (int)eina_list_count(drawn));
  eina_list_free(drawn);
}

TEST_F(mailbox, RowsThatComeAtOnceAreNotAllDrawn) {
  fill(1, 40);
  int most = 0;
  evas_object_smart_callback_add(test_ad.mailbox_genlist, "realized", row_drawn_cb, &most);
  test_mail later;
  later.account = accounts[0];
  later.received = base_time + 60;
  phone.add_mails(std::vector<test_mail>(64, later));
  EXPECT_TRUE(run_until([] { return listed_mails().size() == 104u; }));
  EXPECT_LE(most, 12) << "a screenful and a few";
}

/* Nothing of a locked mail opens, since when it is locked or not; and the question about it ends with it. */
TEST_F(mailbox, ALockedMailIsAskedAboutWhileItIsThere) {
  fill(2, 4);
  for (bool account_goes : {false, true}) {
    const int id = ids[account_goes ? 1 : 0];
    phone.set_flag(id, "security_locked", 1);
    EXPECT_TRUE(run_until([&] { return ((item_data *)elm_object_item_data_get(item_of_mail(id)))->security_locked; }));
    tap(middle_of_item(item_of_mail(id)));
    ASSERT_NE(test_ad.security_popup, nullptr);
    EXPECT_EQ(test_ad.mail_id, id);
    if (account_goes)
      phone.remove_account(accounts[1]);
    else
      phone.delete_mails({id});
    EXPECT_TRUE(run_until([] { return !test_ad.security_popup; }));
    EXPECT_EQ(test_ad.mail_id, 0);
  }
}

TEST_F(mailbox, WhatIsOnScreenStaysWhereItIs) {
  fill(1, 40);
  ids.insert(ids.begin(), mail(0, 1));
  EXPECT_TRUE(visible("Name")) << "at the top, what comes is shown";
  stroke({160, 300}, {160, 120});
  rest();
  Elm_Object_Item *first = elm_genlist_at_xy_item_get(test_ad.mailbox_genlist, 160, 140, nullptr);
  const int before = middle_of_item(first).y;
  for (int i = 2; i < 4; i++) ids.insert(ids.begin(), mail(0, i, "Later"));
  ids.push_back(mail(0, -1000));
  wait_for_rows(ids);
  EXPECT_TRUE(visible("2 new"));
  EXPECT_EQ(middle_of_item(first).y, before);
  phone.delete_mails({ids[0]});
  ids.erase(ids.begin());
  EXPECT_TRUE(visible("1 new")) << "what has gone is not there to be seen";
  tap(text_at("1 new"));
  EXPECT_TRUE(visible("Later"));
  EXPECT_TRUE(gone("1 new"));
  stroke({160, 300}, {160, 120});
  rest();
  ids.insert(ids.begin(), mail(0, 5));
  EXPECT_TRUE(visible("1 new"));
  for (int flicks = 0; flicks < 3; flicks++) stroke({160, 120}, {160, 310});
  EXPECT_TRUE(gone("1 new")) << "who scrolls there sees them";
  stroke({160, 300}, {160, 120});
  first = elm_genlist_at_xy_item_get(test_ad.mailbox_genlist, 160, 200, nullptr);
  ids.insert(ids.begin(), mail(0, 6));
  wait_for_rows(ids);
  const int then = middle_of_item(first).y;
  rest();
  EXPECT_NEAR(middle_of_item(first).y, then, 20) << "a list that still runs does not jump by a row";
  touch({160, 250});
  const int held = middle_of_item(first).y;
  for (int y = 240; y >= 200; y -= 10) move_finger({160, y}); /* in one turn of the loop */
  rest();
  const int dragged = middle_of_item(first).y;
  EXPECT_EQ(dragged - held, -50) << "what is dragged stays under the finger";
  const int other = ids[1];
  ids.insert(ids.begin(), mail(0, 7));
  phone.set_flag(other, "is_read", 1);
  EXPECT_TRUE(run_until([&] { return ((item_data *)elm_object_item_data_get(item_of_mail(other)))->is_read != 0; }));
  move_finger({160, 201});
  rest();
  EXPECT_NEAR(middle_of_item(first).y, dragged, 2) << "under a finger";
  EXPECT_EQ(item_of_mail(ids[0]), nullptr) << "what comes waits for the finger to leave";
  lift();
  wait_for_rows(ids);
}

/* From each drawn row to the next, pixels. */
static std::vector<int> steps_of_rows(void) {
  std::vector<int> steps;
  Elm_Object_Item *row = elm_genlist_item_next_get(elm_genlist_first_item_get(test_ad.mailbox_genlist));
  for (; Elm_Object_Item *next = elm_genlist_item_next_get(row); row = next)
    if (drawing(row) && drawing(next)) steps.push_back(middle_of_item(next).y - middle_of_item(row).y);
  return steps;
}

TEST_F(mailbox, NoHoleIsLeftByMailsThatGo) {
  fill(1, 14);
  for (int strokes = 0; strokes < 2; strokes++) {
    stroke({160, 300}, {160, 120});
    rest();
  }
  Elm_Object_Item *first = elm_genlist_at_xy_item_get(test_ad.mailbox_genlist, 160, 200, nullptr);
  const int before = middle_of_item(first).y;
  for (int gone = 0; gone < 3; gone++) {
    phone.delete_mails({ids[0]});
    ids.erase(ids.begin());
    wait_for_rows(ids);
    rest();
    EXPECT_EQ(middle_of_item(first).y, before) << gone;
    EXPECT_THAT(steps_of_rows(), testing::Each(78)) << gone;
  }
  for (int strokes = 0; strokes < 4; strokes++) {
    stroke({160, 120}, {160, 300});
    rest();
    EXPECT_THAT(steps_of_rows(), testing::Each(78)) << strokes;
  }
}

TEST_F(mailbox, NoHoleIsLeftByRowsThatGetLower) {
  fill(1, 120);
  for (const int clock : {1, 2}) { /* of 12 hours is too long for a subject beside it */
    const Elm_Genlist_Item_Class *wanted = clock == 1 ? test_ad.itc_mail_below : test_ad.itc_mail;
    const auto last_has_it = [&] { return elm_genlist_item_item_class_get(item_of_mail(ids.back())) == wanted; };
    vconf_set_int(BRISEL_KEY_TIME_FORMAT, clock);
    EXPECT_TRUE(run_until([&] { return test_ad.time_format == clock; }));
    EXPECT_FALSE(last_has_it()) << "nobody waits for those far out of sight";
    EXPECT_TRUE(run_until(last_has_it));
    rest();
    EXPECT_THAT(steps_of_rows(), testing::Each(clock == 1 ? 104 : 78));
  }
  vconf_unset(BRISEL_KEY_TIME_FORMAT);
}

TEST_F(mailbox, ARowSaysWhatAMailIsAbout) {
  fill(1, 1);
  EXPECT_TRUE(visible("Subject"));
  const auto bold = [&] {
    double value = 0;
    return !strcmp(edje_object_part_state_get(drawing(item_of_mail(ids[0])), "elm.text.1", &value), "default");
  };
  EXPECT_TRUE(bold());
  EXPECT_TRUE(delete_button_enabled()) << "a single mail can be deleted";
  phone.set_flag(ids[0], "is_read", 1);
  EXPECT_TRUE(run_until([&] { return !bold(); }));
  EXPECT_TRUE(delete_button_enabled());
  test_ad.time_format = 1; /* too long for a subject beside it */
  phone.set_text(ids[0], "subject", "R&D\nbudget");
  EXPECT_TRUE(visible("R&D budget"));
  EXPECT_EQ(elm_genlist_item_item_class_get(item_of_mail(ids[0])), test_ad.itc_mail_below);
  vconf_set_bool(BRISEL_KEY_LIST_SUBJECT, 0);
  EXPECT_TRUE(gone("R&D budget"));
  vconf_unset(BRISEL_KEY_LIST_SUBJECT);
}
