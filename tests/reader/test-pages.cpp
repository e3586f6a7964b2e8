/* The page array: what is built beside an opened mail, and how it follows swipes and the list. */
#include <malloc.h>

#include "reader-test.h"

/* What the five slots must hold around position at in list, going by the list alone. */
static std::vector<int> expected_slots(const std::vector<int> &ids, const std::vector<bool> &locked, size_t at) {
  std::vector<int> before, after;
  for (size_t i = at; i-- > 0;)
    if (!locked[i]) before.push_back(ids[i]);
  for (size_t i = at + 1; i < ids.size(); i++)
    if (!locked[i]) after.push_back(ids[i]);
  before.resize(2);
  after.resize(2);
  return {before[1], before[0], ids[at], after[0], after[1]};
}

/* The box holds the filled slots' pages in slot order, side by side, and the current one is in view. */
static void expect_consistent(void) {
  brisel_detail_view *view = reader();
  evas_smart_objects_calculate(test_ad.evas);
  int width = 0, count = 0, x = 0, box_x = 0, min_width = 0;
  evas_object_geometry_get(view->page_scroller_layout, nullptr, nullptr, &width, nullptr);
  evas_object_geometry_get(view->box, &box_x, nullptr, nullptr, nullptr);
  Eina_List *packed = elm_box_children_get(view->box);
  for (const page_data *page : view->page_data) {
    if (!page) continue;
    EXPECT_EQ(eina_list_nth(packed, (unsigned)count), page->page_layout);
    evas_object_geometry_get(page->page_layout, &x, nullptr, nullptr, nullptr);
    EXPECT_EQ(x - box_x, count * width);
    if (page == view->page_data[BRISEL_DETAIL_CUR_PAGE]) {
      EXPECT_EQ(count, view->cur_page_index);
      EXPECT_EQ(x, 0) << "the current page is not the one in view";
    }
    count++;
  }
  EXPECT_EQ(eina_list_count(packed), (unsigned)count);
  eina_list_free(packed);
  evas_object_size_hint_min_get(view->box, &min_width, nullptr);
  EXPECT_EQ(min_width, count * width);
}

static int count_objects_below(Evas_Object *object) {
  int count = 1;
  Eina_List *members = evas_object_smart_members_get(object);
  void *member = nullptr;
  EINA_LIST_FREE(members, member) count += count_objects_below((Evas_Object *)member);
  return count;
}

static int count_objects(void) {
  int count = 0;
  for (Evas_Object *object = evas_object_bottom_get(test_ad.evas); object; object = evas_object_above_get(object))
    if (!evas_object_smart_parent_get(object)) count += count_objects_below(object);
  return count;
}

struct Pages : testing::Test {
  linked_phone phone;
  std::vector<int> ids;

  void fill(size_t count) {
    std::vector<std::string> bodies;
    for (size_t i = 0; i < count; i++) bodies.push_back("Body " + std::to_string(i));
    ids = mailbox_with(&phone, bodies);
  }
  /* Locks mails as the phone does, and waits until the list that the reader pages along says so. */
  void lock(const std::vector<bool> &locked) {
    for (size_t i = 0; i < locked.size(); i++) phone.set_flag(ids[i], "security_locked", locked[i]);
    ASSERT_TRUE(run_until([&] {
      size_t i = 0;
      for (GList *cell = test_ad.mail_list; cell; cell = cell->next)
        if ((((item_data *)cell->data)->security_locked != 0) != locked[i++]) return false;
      return true;
    }));
  }
  size_t position(int id) { return (size_t)(std::find(ids.begin(), ids.end(), id) - ids.begin()); }
  void TearDown() override { app_stop(); }
};

TEST_F(Pages, OpeningAndPagingGiveTheSamePagesEverywhere) {
  for (size_t size : {1u, 2u, 12u}) {
    fill(size);
    for (int pattern = 0; pattern < 3; pattern++) {
      std::vector<bool> locked(size);
      /* None; every third; a run of three and both ends. */
      for (size_t i = 0; i < size; i++)
        locked[i] = pattern == 1 ? i % 3 == 1 : pattern == 2 && (i == 0 || i + 1 == size || (i > 3 && i < 7));
      lock(locked);
      std::vector<size_t> open;
      for (size_t i = 0; i < size; i++)
        if (!locked[i]) open.push_back(i);
      for (const size_t at : open) {
        SCOPED_TRACE(testing::Message() << size << " mails, pattern " << pattern << ", at " << at);
        ASSERT_EQ(brisel_detail_draw_view(ids[at], 0, &test_ad), 0);
        ASSERT_EQ(slots(), expected_slots(ids, locked, at));
        elm_naviframe_item_pop(test_ad.naviframe);
        ecore_main_loop_iterate();
      }
      if (open.empty()) continue;
      ASSERT_EQ(brisel_detail_draw_view(ids[open[0]], 0, &test_ad), 0);
      settle();
      for (size_t i = 1; i < open.size(); i++) {
        show_page(true);
        ASSERT_EQ(slots(), expected_slots(ids, locked, open[i])) << size << " mails, forward to " << i;
        expect_consistent();
      }
      for (size_t i = open.size() - 1; i-- > 0;) {
        show_page(false);
        ASSERT_EQ(slots(), expected_slots(ids, locked, open[i])) << size << " mails, back to " << i;
      }
      for (const page_data *page : reader()->page_data)
        if (page)
          EXPECT_EQ(part_text(page, "detail.body"), "Body " + std::to_string(position(page->mail_data->mail_id)));
      close_reader();
    }
    app_stop();
  }
}

static Eina_Bool pause_with_text_cb(void *data) {
  const page_data *page = reader() ? reader()->page_data[BRISEL_DETAIL_NEXT_PAGE] : nullptr;
  if (!page || !page->text) return ECORE_CALLBACK_RENEW;
  app_pause(&test_ad);
  return ECORE_CALLBACK_CANCEL;
}

/* What is built beside, step by step: what changes or is wanted meanwhile. */
TEST_F(Pages, PagesBesideAreBuiltStepByStep) {
  fill(5);
  const auto built = [] {
    std::string slots;
    for (const page_data *page : reader()->page_data) slots += !page ? '-' : page->is_built ? 'b' : '.';
    return slots;
  };
  const auto open = [&] {
    ASSERT_EQ(brisel_detail_draw_view(ids[2], 0, &test_ad), 0);
    ASSERT_EQ(built(), "..b..") << "the mail itself is there at once, nothing waits for its neighbours";
  };
  open();
  ASSERT_TRUE(run_until([&] { return built() == "bbbbb"; }));
  for (const page_data *page : reader()->page_data)
    EXPECT_EQ(part_text(page, "detail.body"), "Body " + std::to_string(position(page->mail_data->mail_id)));
  close_reader();

  open(); /* nothing is built while the display is off */
  app_pause(&test_ad);
  run_for(0.1);
  EXPECT_EQ(built(), "..b..");
  app_resume(&test_ad);
  EXPECT_TRUE(run_until([&] { return built() == "bbbbb"; }));
  close_reader();

  open(); /* a finger that is quicker finds what it pulls in */
  elm_scroller_region_show(reader()->page_scroller, reader()->page_width * 5 / 2, 0, reader()->page_width, 1);
  EXPECT_EQ(built(), "..bb.");
  close_reader();

  open(); /* a mail that goes before it is read, and one that changes when it is */
  reader()->page_data[BRISEL_DETAIL_PREV_PAGE]->mail_data->mail_id = 99999;
  EXPECT_TRUE(run_until([&] { return built() == "b-bbb"; }));
  expect_consistent();
  close_reader();
  ecore_idler_add(pause_with_text_cb, nullptr); /* before the reader's own, so its turn comes between two steps */
  open();
  EXPECT_TRUE(run_until([] { return reader()->page_data[BRISEL_DETAIL_NEXT_PAGE]->text; }));
  ASSERT_EQ(built(), "..b..");
  phone.set_text(ids[3], "body", "Other");
  EXPECT_TRUE(run_until([] { return reader()->page_data[BRISEL_DETAIL_NEXT_PAGE]->is_stale; }));
  app_resume(&test_ad);
  EXPECT_TRUE(run_until([&] { return built() == "bbbbb" && !reader()->build_idler; }));
  EXPECT_EQ(part_text(reader()->page_data[BRISEL_DETAIL_NEXT_PAGE], "detail.body"), "Other");
}

TEST_F(Pages, EveryFlickCounts) {
  fill(8);
  const struct {
    const char *flicks; /* n(ext), p(revious), each as soon as the finger is up */
    size_t to;
  } table[] = {{"n", 3}, {"nn", 4}, {"nnnnn", 7}, {"nnnnnnn", 7}, {"np", 2}, {"npn", 3}, {"ppp", 0}, {"ppppnn", 2}};
  for (const auto &row : table) {
    SCOPED_TRACE(row.flicks);
    open_reader(ids[2]);
    for (const char *flick = row.flicks; *flick; flick++) fling(*flick == 'n');
    rest_reader();
    EXPECT_EQ(reader()->mail_id, ids[row.to]);
    EXPECT_EQ(test_ad.mail_id, ids[row.to]);
    expect_consistent();
    close_reader();
  }
}

/* A page on its way comes, whatever is heard meanwhile. */
TEST_F(Pages, AFlickIsNotUndone) {
  fill(6);
  for (const bool is_lost : {false, true}) {
    open_reader(ids[1]);
    const point at = middle_of(reader()->page_scroller_layout);
    stroke(at, {at.x - 90, at.y});
    ASSERT_TRUE(
        run_until([&] { return reader()->aimed_id == ids[2] && __brisel_detail_place_on_screen(reader()) > 1; }));
    const double before = __brisel_detail_place_on_screen(reader());
    if (is_lost) {
      __brisel_detail_lose_page(reader(), reader()->page_data[BRISEL_DETAIL_NEXT_NEXT_PAGE]);
    } else {
      brisel_detail_follow_screen(&test_ad);
      brisel_detail_update_mails(nullptr, &test_ad);
    }
    EXPECT_EQ(__brisel_detail_place_on_screen(reader()), before) << "what is on screen jumped";
    rest_reader();
    EXPECT_EQ(reader()->mail_id, ids[2]) << is_lost;
    expect_consistent();
    close_reader();
  }
  /* Nor is one that has no frame yet taken for one that was stopped. */
  open_reader(ids[1]);
  __brisel_detail_turn_by(reader(), 1);
  ASSERT_TRUE(run_until([] { return __brisel_detail_place_on_screen(reader()) > 1; }));
  __brisel_detail_settle(reader());
  __brisel_detail_turn_by(reader(), 1);
  __brisel_detail_settle(reader());
  rest_reader();
  EXPECT_EQ(reader()->mail_id, ids[3]);
}

/* However near to its place a page was left by what stopped it. */
TEST_F(Pages, APageComesToRestFromAPixelAway) {
  fill(3);
  open_reader(ids[1]);
  for (const int off : {-2, -1, 1, 2}) {
    __brisel_detail_hold_pages(reader(), reader()->page_width + off);
    __brisel_detail_settle_soon(reader());
    rest_reader();
    expect_consistent();
  }
}

TEST_F(Pages, AFingerHoldsThePagesStill) {
  fill(5);
  open_reader(ids[2]);
  const point at = middle_of(reader()->page_scroller_layout);
  touch(at);
  page_data *next = reader()->page_data[BRISEL_DETAIL_NEXT_PAGE];
  brisel_detail_update_neighbors(ids[2], &test_ad);
  EXPECT_EQ(reader()->page_data[BRISEL_DETAIL_NEXT_PAGE], next) << "rebuilt under the finger";
  release(at);
  ASSERT_TRUE(run_until([&] { return !reader()->is_neighbor_update_due; })) << "never brought up to date";
  EXPECT_EQ(slots(), expected_slots(ids, std::vector<bool>(5), 2));
}

TEST_F(Pages, TheReaderFollowsTheList) {
  fill(5);
  open_reader(ids[1]);
  /* Mails that come in beside the opened one, and two places away. */
  test_mail mail;
  mail.account = ((item_data *)test_ad.mail_list->data)->account_id;
  mail.received = 1767600000 - 90;
  mail.body = "New";
  const int added = phone.add_mail(mail);
  ASSERT_TRUE(run_until([&] { return slots()[BRISEL_DETAIL_NEXT_PAGE] == added; }));
  EXPECT_EQ(slots(), (std::vector<int>{0, ids[0], ids[1], added, ids[2]}));
  const page_data *stood = reader()->page_data[BRISEL_DETAIL_PREV_PAGE];
  mail.received = 1767600000 + 60;
  const int far = phone.add_mail(mail);
  ASSERT_TRUE(run_until([&] { return slots()[BRISEL_DETAIL_PREV_PREV_PAGE] == far; }));
  EXPECT_EQ(reader()->page_data[BRISEL_DETAIL_PREV_PAGE], stood) << "what stands is not built again";
  phone.set_flag(ids[0], "security_locked", 1);
  ASSERT_TRUE(run_until([&] { return slots()[BRISEL_DETAIL_PREV_PAGE] == far; })) << "a locked mail has no page";
  phone.set_flag(ids[0], "security_locked", 0);
  phone.delete_mails({far});
  /* Neighbours that the phone deletes. */
  phone.delete_mails({added});
  ASSERT_TRUE(run_until([&] { return slots()[BRISEL_DETAIL_NEXT_PAGE] == ids[2]; }))
      << "a deleted mail is still a page";
  /* One comes beside the opened mail while its neighbour is gone already and the word of it still on the way. */
  mail.received = 1767600000 - 30;
  const int late = phone.add_mail(mail);
  phone.delete_mails({ids[0]});
  ASSERT_TRUE(run_until([&] { return slots() == std::vector<int>({0, late, ids[1], ids[2], ids[3]}); }));
  expect_consistent();
  phone.delete_mails({late});
  ASSERT_TRUE(run_until([&] { return slots()[BRISEL_DETAIL_PREV_PAGE] == 0; }));
  expect_consistent();
  ASSERT_TRUE(swipe(true));
  EXPECT_EQ(reader()->mail_id, ids[2]);
}

/* What is on screen is what is acted on, whatever happens while a finger or a page is under way. */
TEST_F(Pages, WhatIsShownIsWhatIsActedOn) {
  fill(6);
  const auto held_half_way = [&] {
    const point at = middle_of(reader()->page_scroller_layout);
    touch({at.x * 2 - 10, at.y});
    for (int step = 1; step <= 10; step++) {
      move_finger({at.x * 2 - 10 - step * at.x / 7, at.y});
      settle();
    }
    return point{at.x * 2 - 10 - 10 * at.x / 7, at.y};
  };
  const auto is_true = [&](int mail_id) {
    rest_reader();
    EXPECT_EQ(on_screen(), current_page());
    EXPECT_EQ(reader()->mail_id, mail_id);
    EXPECT_EQ(test_ad.mail_id, mail_id);
    EXPECT_EQ(__brisel_detail_page_on_screen(reader()), current_page());
    expect_consistent();
    EXPECT_EQ(phone.request("update_ind").at("id_list"), nlohmann::json({mail_id}));
  };
  /* Dragged over the middle: the page that comes to rest, once it does. */
  open_reader(ids[1]);
  phone.request("update_ind");
  phone.requests.clear();
  point at = held_half_way();
  EXPECT_EQ(reader()->mail_id, ids[1]) << "a finger holds it still";
  for (int waits = 0; waits < 30; waits++) settle();
  release(at);
  is_true(ids[2]);
  /* Over the middle and flicked back: home, and nothing is told. */
  at = held_half_way();
  for (int step = 1; step <= 4; step++) move_finger({at.x + step * 20, at.y});
  phone.requests.clear();
  lift();
  rest_reader();
  EXPECT_EQ(reader()->mail_id, ids[2]);
  EXPECT_EQ(on_screen(), current_page());
  settle();
  EXPECT_EQ(phone.count("update_ind"), 0);
  /* The page dragged to goes: what is still there is left for. */
  at = held_half_way();
  phone.delete_mails({ids[3]});
  ASSERT_TRUE(run_until([&] { return reader()->is_neighbor_update_due; }));
  release(at);
  rest_reader();
  EXPECT_NE(reader()->mail_id, ids[3]);
  EXPECT_EQ(on_screen(), current_page());
  expect_consistent();
  /* An action before the page came to rest is for the page that comes. */
  const int before = reader()->mail_id;
  fling(true);
  settle();
  EXPECT_NE(__brisel_detail_page_on_screen(reader())->mail_data->mail_id, before);
  EXPECT_NE(test_ad.mail_id, before);
  rest_reader();
  EXPECT_EQ(on_screen(), current_page());
}

/* A mail goes while a finger drags towards its page: the current page slides back from where the finger left it. */
TEST_F(Pages, AMailGoesUnderTheFinger) {
  fill(6);
  static int left_at; /* pixels from home, once the lift has been handled */
  const auto place = [] {
    int x = 0;
    evas_object_geometry_get(current_page()->page_layout, &x, nullptr, nullptr, nullptr);
    return x;
  };
  const struct { int opened, goes; } table[] = {{2, 3}, {4, 5}, {1, 0}}; /* one of the middle, the last, the first */
  for (const auto &row : table) {
    open_reader(ids[row.opened]);
    const point at = middle_of(reader()->page_scroller_layout);
    const int way = row.goes > row.opened ? 20 : -20;
    touch({at.x + 7 * way, at.y});
    for (int step = 6; step >= -3; step--) move_finger({at.x + step * way, at.y});
    rest();
    EXPECT_EQ(place(), -10 * way);
    phone.delete_mails({ids[row.goes]});
    ASSERT_TRUE(run_until([&] { return reader()->is_neighbor_update_due; }));
    lift();
    ecore_job_add([](void *data) { left_at = (*(decltype(place) *)data)(); }, (void *)&place); /* behind the lift's */
    rest_reader();
    EXPECT_EQ(left_at, -10 * way) << "what is on screen jumped when " << row.goes << " went";
    EXPECT_EQ(reader()->mail_id, ids[row.opened]);
    EXPECT_FALSE(reader()->is_neighbor_update_due);
    EXPECT_EQ(__brisel_detail_place_of_mail(reader(), ids[row.goes]), -1);
    expect_consistent();
    close_reader();
  }
}

/* A finger moves the pages or the text, whichever it began with: told by the scrollers, because what a slanted stroke
   moves depends on when frames come. */
TEST_F(Pages, AFingerMovesOneWay) {
  fill(2);
  open_reader(ids[0]);
  for (const Evas_Object *scroller : {reader()->page_scroller, current_page()->scroller})
    EXPECT_EQ(elm_scroller_single_direction_get(scroller), ELM_SCROLLER_SINGLE_DIRECTION_HARD);
}

/* A neighbour that cannot be built leaves a hole that is turned across, until the first touch after it can be. */
TEST_F(Pages, AHoleBesideTheOpenedMail) {
  fill(5);
  item_data *row = (item_data *)g_list_nth_data(test_ad.mail_list, 1);
  row->mail_id = 99999;
  open_reader(ids[2]);
  ASSERT_EQ(slots(), (std::vector<int>{ids[0], 0, ids[2], ids[3], ids[4]}));
  EXPECT_EQ(on_screen(), current_page());
  ASSERT_TRUE(swipe(false));
  EXPECT_EQ(reader()->mail_id, ids[0]);
  row->mail_id = ids[1];
  ASSERT_TRUE(swipe(true));
  EXPECT_EQ(reader()->mail_id, ids[1]);
  expect_consistent();
}

TEST_F(Pages, APageInTheBackgroundIsNotEntered) {
  fill(3);
  open_reader(ids[0]);
  phone.request("update_ind");
  phone.requests.clear();
  fling(true);
  app_pause(&test_ad);
  rest_reader();
  EXPECT_EQ(reader()->mail_id, ids[1]);
  EXPECT_FALSE(reader()->is_pickover_registered);
  EXPECT_EQ(phone.count("update_ind"), 0);
  app_resume(&test_ad);
  EXPECT_TRUE(reader()->is_pickover_registered);
  EXPECT_EQ(phone.request("update_ind").at("id_list"), nlohmann::json({ids[1]}));
}

TEST_F(Pages, PagesFollowTheWindowsWidth) {
  fill(5);
  open_reader(ids[2]);
  for (const int width : {240, 400, 320}) {
    resize_window(width, 320);
    ASSERT_TRUE(run_until([&] { return reader()->page_width == width; }));
    rest_reader();
    expect_consistent();
    EXPECT_EQ(reader()->mail_id, ids[2]);
  }
}

TEST_F(Pages, AShiftGoesOnPastMailsThatLeftTheList) {
  fill(6);
  open_reader(ids[0]);
  /* The row goes without a word to the reader. */
  brisel_update_mailbox_list(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, g_slist_append(nullptr, GINT_TO_POINTER(ids[2])),
                             &test_ad);
  ASSERT_TRUE(swipe(true));
  EXPECT_EQ(slots(), (std::vector<int>{0, ids[0], ids[1], ids[3], ids[4]}));
  ASSERT_TRUE(swipe(true)) << "paging stopped";
  EXPECT_EQ(reader()->mail_id, ids[3]);
  /* Nothing of the list is left: the shift ends, and the pages that stand can still be turned. */
  GSList *all = nullptr;
  for (int id : ids) all = g_slist_append(all, GINT_TO_POINTER(id));
  brisel_update_mailbox_list(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, all, &test_ad);
  g_slist_free(all);
  ASSERT_TRUE(swipe(true));
  EXPECT_EQ(slots(), (std::vector<int>{ids[1], ids[3], ids[4], ids[5], 0}));
  ASSERT_TRUE(swipe(false));
  EXPECT_EQ(reader()->mail_id, ids[3]);
}

TEST_F(Pages, OpeningWithoutATransitionBuildsNeighboursOnce) {
  fill(5);
  ASSERT_EQ(brisel_detail_draw_view(ids[2], 0, &test_ad), 0);
  EXPECT_EQ(slots(), expected_slots(ids, std::vector<bool>(5), 2));
  page_data *next = reader()->page_data[BRISEL_DETAIL_NEXT_PAGE];
  rest_reader(); /* the pages must not turn by themselves while they get their places */
  EXPECT_EQ(reader()->mail_id, ids[2]);
  expect_consistent();
  evas_object_smart_callback_call(test_ad.naviframe, "transition,finished", nullptr);
  EXPECT_EQ(reader()->page_data[BRISEL_DETAIL_NEXT_PAGE], next);
}

TEST_F(Pages, ClosingLeavesNothingBehind) {
  fill(5);
  open_reader(ids[2]);
  close_reader();
  elm_win_render(test_ad.win_main);
  const int before = count_objects();
  for (int times = 0; times < 2; times++) {
    open_reader(ids[1]);
    fling(true);
    ASSERT_TRUE(run_until([] { return reader()->page_timer; }));
    close_reader();
  }
  settle();
  elm_win_render(test_ad.win_main);
  EXPECT_EQ(count_objects(), before);
}

TEST_F(Pages, HundredsOfShiftsLeaveWhatTenLeave) {
  fill(20);
  /* Read mails send nothing that could still be on its way when the memory is counted. */
  for (int id : ids) phone.set_flag(id, "is_read", 1);
  ASSERT_EQ(brisel_detail_draw_view(ids[5], 0, &test_ad), 0);
  int objects = 0;
  size_t memory = 0;
  for (int shifts = 1; shifts <= 200; shifts++) {
    show_page(shifts / 5 % 2 == 0);
    /* The canvas lets go of what was deleted when it draws. */
    ecore_main_loop_iterate();
    elm_win_render(test_ad.win_main);
    if (shifts != 10 && shifts != 200) continue;
    /* Pages that were turned away from are taken down in idle steps, and freed with a picture. */
    ASSERT_TRUE(run_until([] { return !reader()->build_idler; }));
    elm_win_render(test_ad.win_main);
    settle();
    /* What was freed waits in the toolkit's queue for an idle moment, which this loop never has. */
    eina_freeq_clear(eina_freeq_main_get());
    if (shifts == 10) {
      objects = count_objects();
      memory = mallinfo2().uordblks;
    }
  }
  EXPECT_EQ(reader()->mail_id, ids[5]);
  EXPECT_EQ(count_objects(), objects);
  /* The toolkit's pools and caches level off some 4 MiB higher; a page kept per shift would be ten times that. */
  EXPECT_LT(mallinfo2().uordblks, memory + 8 * 1024 * 1024);
}

TEST_F(Pages, Failures) {
  fill(3);
  const std::string id = std::to_string(ids[0]);
  log_mark();
  EXPECT_EQ(brisel_detail_draw_view(ids[0], 1, nullptr), -1);
  EXPECT_TRUE(logged("E/Invalid parameter: data is NULL!"));

  log_mark();
  EXPECT_EQ(brisel_detail_draw_view(99999, 1, &test_ad), -3);
  EXPECT_EQ(elm_naviframe_top_item_get(test_ad.naviframe), elm_naviframe_bottom_item_get(test_ad.naviframe));
  EXPECT_TRUE(logged("E/brisel_db_get_full_noti_data_by_mail_id() failed! err:[-2]"));
  EXPECT_TRUE(logged("E/__brisel_detail_draw_single_layout_by_mail_id() failed! for mail_id:[99999]"));

  log_mark();
  Evas_Object *naviframe = test_ad.naviframe;
  test_ad.naviframe = nullptr;
  EXPECT_EQ(brisel_detail_draw_view(ids[0], 1, &test_ad), -3);
  test_ad.naviframe = naviframe;
  EXPECT_TRUE(logged("E/Invalid parameter: parent is NULL!"));
  EXPECT_TRUE(logged("E/__brisel_detail_create_layout_page_scroller() failed!"));

  log_mark();
  EXPECT_EQ(brisel_detail_update_neighbors(ids[0], &test_ad), 0);
  EXPECT_EQ(brisel_detail_update_datetime_format(&test_ad), 0);
  EXPECT_EQ(brisel_detail_update_string(&test_ad), 0);
  EXPECT_TRUE(logged("W/view_data for BRISEL_VIEW_TYPE_DETAIL_VIEW is NULL!"));

  open_reader(ids[0]);
  page_data *current = current_page();
  log_mark();
  EXPECT_EQ(__brisel_detail_update_neighbor(test_ad.mail_list, BRISEL_DETAIL_CUR_PAGE, reader()), nullptr);
  EXPECT_EQ(current_page(), current);
  EXPECT_TRUE(logged("W/Invalid parameter: index is for current page"));

  /* A neighbour whose mail cannot be read: the walk does not try the row after it. */
  const int real = ((item_data *)test_ad.mail_list->next->data)->mail_id;
  ((item_data *)test_ad.mail_list->next->data)->mail_id = 99999;
  brisel_detail_update_neighbors(ids[0], &test_ad);
  EXPECT_EQ(slots(), (std::vector<int>{0, 0, ids[0], 0, ids[2]}));
  /* The current mail is not in the list: what stands stays. */
  ((item_data *)test_ad.mail_list->data)->mail_id = 99998;
  ((item_data *)test_ad.mail_list->next->data)->mail_id = real;
  brisel_detail_update_neighbors(ids[0], &test_ad);
  EXPECT_EQ(slots(), (std::vector<int>{0, 0, ids[0], 0, ids[2]}));
  ((item_data *)test_ad.mail_list->data)->mail_id = ids[0];
}
