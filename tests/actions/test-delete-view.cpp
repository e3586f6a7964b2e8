/* Selecting mails and deleting them at once; and how the views end. */

#include "../../app/src/brisel-app-journal.h"
#include "actions-test.h"
#include "brisel-app-delete-view.h"

struct deleting : acting {
  std::vector<int> ids;

  void open(int count, int account = 0) {
    std::vector<test_mail> mails;
    for (int i = 0; i < count; i++) mails.push_back({.from_name = "S" + std::to_string(i + 1)});
    ids = start(mails);
    test_ad.account_id = account;
    ASSERT_EQ(brisel_crete_delete_view(&test_ad), 0);
    ASSERT_TRUE(views_become(2));
  }
  delete_view_data *view(void) {
    return (delete_view_data *)brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DELETE_VIEW, &test_ad);
  }
  Evas_Object *list(void) { return top_content("genlist"); }
  bool delete_enabled(void) { return !elm_object_disabled_get(view()->delete_btn); }
  void press(const char *part) { tap(middle_of(top_content(part))); }
  void select_all(void) {
    tap(middle_of(elm_object_item_part_content_get(elm_naviframe_top_item_get(test_ad.naviframe), "next_btn")));
  }
  /* The boxes as drawn. */
  std::string boxes(void) {
    std::string marks;
    for (Elm_Object_Item *item = elm_genlist_first_item_get(list()); item; item = elm_genlist_item_next_get(item))
      marks += elm_check_state_get(elm_object_item_part_content_get(item, "elm.icon")) ? 'x' : '.';
    return marks;
  }
};

TEST_F(deleting, RowsBoxesAndTheWholeSelection) {
  open(4);
  EXPECT_FALSE(delete_enabled());
  press("btn2");
  EXPECT_FALSE(view()->popup);
  tap_row(2, list());
  EXPECT_EQ(boxes(), "..x.");
  EXPECT_TRUE(delete_enabled());
  tap(middle_of(elm_object_item_part_content_get(row(0, list()), "elm.icon")));
  EXPECT_EQ(boxes(), "x.x.");
  tap_row(2, list());
  tap_row(0, list());
  EXPECT_EQ(boxes(), "....");
  EXPECT_FALSE(delete_enabled());
  // By hand or by the button: all is all, and the next press takes it back.
  for (bool by_hand : {true, false}) {
    if (by_hand)
      for (int i = 0; i < 4; i++) tap_row(i, list());
    else
      select_all();
    EXPECT_EQ(boxes(), "xxxx");
    EXPECT_EQ(view()->select_all, 1);
    EXPECT_TRUE(delete_enabled());
    select_all();
    EXPECT_EQ(boxes(), "....");
    EXPECT_EQ(view()->selected_cnt, 0);
    EXPECT_FALSE(delete_enabled());
  }
  tap_row(1, list());
  select_all();
  EXPECT_EQ(boxes(), "xxxx");
  EXPECT_EQ(view()->selected_cnt, 4);
  press("btn1");
  views_become(1);
  expect_no_request("delete_notis");

  ASSERT_EQ(brisel_crete_delete_view(&test_ad), 0);
  views_become(2);
  for (int i : {2, 0}) tap_row(i, list());
  press("btn2");
  EXPECT_TRUE(visible(text("IDS_COM_SK_OK")));
  EXPECT_TRUE(run_until([] {
    tap(text_at(text("IDS_COM_SK_OK"))); /* not at once, behind the touch before */
    return views() == 1;
  }));
  EXPECT_EQ(request("delete_notis").at("id_list"), (std::vector<int>{ids[2], ids[0]})) << "as they were ticked";
}

TEST_F(deleting, NothingMovesOnWhileTheDisplayIsOff) {
  open(60);
  const auto top = [&] {
    int y = 0;
    elm_scroller_region_get(list(), nullptr, &y, nullptr, nullptr);
    return y;
  };
  const point middle = middle_of(list());
  stroke({middle.x, middle.y + 60}, {middle.x, middle.y - 60});
  const int lifted = top();
  ASSERT_TRUE(run_until([&] { return top() > lifted; })) << "nothing was flung";
  app_pause(&test_ad);
  const int stood = top();
  run_for(0.2);
  EXPECT_EQ(top(), stood);
}

TEST_F(deleting, OneAccountsMailsOrAll) {
  open(4, accounts[1]);
  std::vector<std::string> shown;
  for (const std::string &one : rows(list())) shown.push_back(one.substr(0, 2));
  EXPECT_EQ(shown, (std::vector<std::string>{"S2", "S4"}));
}

TEST_F(deleting, TheRowsFollowTheStore) {
  open(4);
  const auto shown = [&] {
    std::string names;
    for (const std::string &one : rows(list())) names += one.substr(0, 2);
    return names;
  };
  const auto becomes = [&](const char *names) { return run_until([&] { return shown() == names; }); };
  tap_row(3, list());
  tap_row(1, list());
  press("btn2");
  EXPECT_TRUE(visible("2 emails will be deleted from the watch only."));
  vconf_set_str(BRISEL_KEY_REGION, "ar_EG.UTF-8");
  app_region_changed(&test_ad);
  EXPECT_TRUE(visible("٢ emails will be deleted from the watch only."));
  vconf_unset(BRISEL_KEY_REGION);
  phone.add_mails({{.account = accounts[0], .received = 1700000000 - 90, .from_name = "S7"},
                   {.account = accounts[0], .received = 1700000000 - 60, .from_name = "S8"},
                   {.account = accounts[0], .received = 1, .from_name = "S9"}});
  EXPECT_TRUE(becomes("S1S2S8S7S3S4S9")) << shown();
  EXPECT_EQ(boxes(), ".x...x.");
  phone.delete_mails({ids[3]});
  EXPECT_TRUE(visible("1 email will be deleted from the watch only.")) << "the question counts what goes";
  phone.delete_mails({ids[1], ids[2]});
  EXPECT_TRUE(becomes("S1S8S7S9")) << shown();
  EXPECT_FALSE(view()->popup) << "nothing is left to ask about";
  EXPECT_FALSE(delete_enabled());
  select_all();
  EXPECT_EQ(boxes(), "xxxx");
  phone.remove_account(accounts[0]);
  EXPECT_TRUE(becomes("")) << shown();
  EXPECT_FALSE(delete_enabled());
  EXPECT_EQ(views(), 2);
}

/* A mail that was read before is open no more: its end closes nothing. */
TEST_F(deleting, TheMailReadBeforeIsNotOpen) {
  ids = start({{.from_name = "S1"}, {.from_name = "S2"}});
  ASSERT_EQ(brisel_detail_draw_view(ids[1], 0, &test_ad), 0);
  back();
  ASSERT_TRUE(views_become(1));
  ASSERT_EQ(brisel_crete_delete_view(&test_ad), 0);
  ASSERT_TRUE(views_become(2));
  phone.delete_mails({ids[1]});
  EXPECT_TRUE(run_until([&] { return rows(list()).size() == 1; }));
  EXPECT_EQ(views(), 2);
}

TEST_F(deleting, TheCountSpeaksEveryLanguage) {
  open(5);
  for (int selected : {2, 5}) {
    for (int i = selected == 2 ? 0 : 2; i < selected; i++) tap_row(i, list());
    press("btn2");
    for (const case_row &one : cases("counts: locale, two mails, five mails", 3)) {
      SCOPED_TRACE(one[0]);
      vconf_set_str(BRISEL_KEY_REGION, one.text(0));
      EXPECT_TRUE(run_until([&] { return test_ad.locale == one[0].substr(0, 5); }));
      language(one.text(0));
      EXPECT_TRUE(visible(one[selected == 5 ? 2 : 1]));
    }
    back();
    settle();
  }
  vconf_unset(BRISEL_KEY_REGION);
}

/* Every view and popup, in a language that changed meanwhile, ended by somebody else: by a launch that returns to the
   mailbox, by the phone, by the end of the application or of its window alone. What is freed twice or never is the
   sanitizers' to tell. */
TEST_F(deleting, EveryViewEndsOnceHoweverItIsLeft) {
  enum opened { delete_question, reply_method, call, template_question, typed, on_mailbox };
  enum class end { by_launch, by_deletion, by_window, by_exit };
  int id = 0, locked = 0;
  const std::function<void()> on_the_mailbox[] = {
      [] {},
      [&] { app_launch(std::to_string(locked).c_str()); },
      [] { brisel_create_account_selection_popup(&test_ad); },
      [] { brisel_crete_delete_view(&test_ad); },
      [] { brisel_create_toast_popup(&test_ad, "x"); },
      [&] {
        brisel_detail_draw_view(id, 0, &test_ad); /* makes a row of what was sent */
        views_become(2);
        brisel_journal_draw_view(&test_ad);
        views_become(3);
        EXPECT_TRUE(run_until([] { return !rows().empty(); }));
        tap_row(0);
        language("de_DE.UTF-8");
      },
  };
  const struct {
    end how;
    std::vector<int> views;
  } table[] = {
      {end::by_launch, {call, template_question, typed, on_mailbox + 5}},
      {end::by_deletion, {reply_method, template_question, on_mailbox + 5}},
      {end::by_window,
       {typed, on_mailbox, on_mailbox + 1, on_mailbox + 2, on_mailbox + 3, on_mailbox + 4, on_mailbox + 5}},
      {end::by_exit,
       {delete_question, reply_method, call, template_question, typed, on_mailbox + 1, on_mailbox + 2, on_mailbox + 3,
        on_mailbox + 4, on_mailbox + 5}},
  };
  contact("ann@example.org", {":+1", ":+2"});
  for (const auto &one : table)
    for (const int view : one.views) {
      SCOPED_TRACE("end " + std::to_string((int)one.how) + ", view " + std::to_string(view));
      const std::vector<int> mails =
          start({{.from_name = "Ann", .from_address = "ann@example.org"}, {.from_name = "Bob", .locked = 1}});
      id = mails[0], locked = mails[1];
      if (view >= on_mailbox) {
        on_the_mailbox[view - on_mailbox]();
        settle();
      } else {
        ASSERT_EQ(brisel_detail_draw_view(id, 0, &test_ad), 0);
        ASSERT_EQ(brisel_option_detail_draw_view(id, &test_ad), 0);
        views_become(3);
        brisel_util_set_reply_method(view == typed);
        if (view == reply_method)
          tap(middle_of(elm_object_item_part_content_get(row(1), "elm.icon")));
        else
          tap_row(view == delete_question ? 3 : view == call ? 0 : 1);
        views_become(view <= reply_method ? 3 : 4);
        if (view == template_question) tap_row(0);
        language("de_DE.UTF-8");
      }
      if (one.how == end::by_launch) app_launch();
      if (one.how == end::by_deletion) phone.delete_mails({id});
      if (one.how == end::by_window) evas_object_del(test_ad.win_main);
      if (one.how <= end::by_deletion) views_become(1);
      app_stop();
      EXPECT_EQ(test_ad.mail_list, nullptr);
      if (one.how != end::by_deletion) phone.delete_mails({id});
      phone.delete_mails({locked});
      vconf_set_str(BRISEL_KEY_LANGUAGE, "en_US.UTF-8");
      settle();
    }
}
