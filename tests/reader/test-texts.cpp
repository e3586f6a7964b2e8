/* What mails say is shown and never interpreted, whatever it is and however long. */
#include "../../app/src/brisel-app-detail-fold.h"
#include "brisel-body.h"
#include "cases.h"
#include "reader-test.h"

using namespace std::string_literals;

static std::string repeat(const std::string &text, int times) {
  std::string all;
  for (int i = 0; i < times; i++) all += text;
  return all;
}

/* Without the thin lines above and below East Asian text. */
static std::string trimmed(const std::string &text) {
  const bool is_tight = text.starts_with('\n') && text.ends_with("\n ");
  return is_tight ? text.substr(1, text.size() - 3) : text;
}

/* The text of every laid-out block of the current page's body, the first one included, in order. */
static std::string laid_out_text(void) {
  std::string text = trimmed(part_text(current_page(), "detail.body"));
  Evas_Object *rest = elm_object_part_content_get(current_page()->detail_layout, "detail.body_rest");
  std::vector<std::pair<int, std::string>> blocks;
  Eina_List *members = evas_object_smart_members_get(rest);
  void *member = nullptr;
  EINA_LIST_FREE(members, member) {
    const char *markup = edje_object_part_text_get((Evas_Object *)member, "detail.body");
    if (!markup) continue; /* the object's clipper */
    int y = 0, w = 0, h = 0, needed = 0;
    evas_object_geometry_get((Evas_Object *)member, nullptr, &y, &w, &h);
    edje_object_size_min_restricted_calc((Evas_Object *)member, nullptr, &needed, w, 0);
    EXPECT_EQ(h, needed) << "a seam below the block";
    blocks.push_back({y, trimmed(plain_text(markup))});
  }
  std::sort(blocks.begin(), blocks.end());
  for (const auto &block : blocks) text += "|" + block.second;
  return text;
}

struct Texts : testing::Test {
  linked_phone phone;
  void TearDown() override { app_stop(); }
};

/* A table's texts, and what is shown of each. */
static std::vector<std::pair<std::string, std::string>> shown_of(const char *name) {
  std::vector<std::pair<std::string, std::string>> all;
  for (const case_row &row : table_of(CASES_DIR "/texts.txt", name, 2))
    all.emplace_back(row[0], row[row[1] == "=" ? 0 : 1]);
  return all;
}

TEST_F(Texts, BodiesAndSubjectsComeOutAsText) {
  const auto table = shown_of("texts: what came, what is shown (\"=\": the same)");
  std::vector<std::string> texts;
  for (const auto &row : table) texts.push_back(row.first);
  const std::vector<int> ids = mailbox_with(&phone, texts);
  for (size_t i = 0; i < ids.size(); i++) phone.set_text(ids[i], "subject", texts[i]);
  for (size_t i = 0; i < ids.size(); i++) {
    SCOPED_TRACE(texts[i]);
    ASSERT_EQ(brisel_detail_draw_view(ids[i], 0, &test_ad), 0);
    const std::string &shown = table[i].second;
    EXPECT_EQ(trimmed(part_text(current_page(), "detail.body")), shown);
    rest_reader();
    tap_in_reader("detail.title"); /* all its lines */
    EXPECT_EQ(trimmed(part_text(current_page(), "detail.title")), shown);
    /* The subject that a new text size sets as it is stored must do no harm and stay in bounds. */
    __brisel_detail_update_font_size(reader(), 2);
    elm_win_render(test_ad.win_main);
    EXPECT_LT(content_height(), 5000);
    elm_naviframe_item_pop(test_ad.naviframe);
    settle();
  }
}

TEST_F(Texts, InvalidUtf8InARecordDoesNotBreakAPage) {
  const std::vector<int> ids = mailbox_with(&phone, {"text"});
  open_reader(ids[0]);
  const std::string bad = "a\xFF\xC0\xAF b\xED\xA0\x80 c\xE2\x82";
  brisel_detail_body_set(current_page()->detail_layout, brisel_detail_plain_text(bad.data(), bad.size()));
  EXPECT_EQ(part_text(current_page(), "detail.body").substr(0, 4), "a\xEF\xBF\xBD");
  elm_win_render(test_ad.win_main);
}

TEST_F(Texts, ASubjectOfAnyLengthIsShownUpToABound) {
  const std::vector<int> ids = mailbox_with(&phone, {"body"});
  open_reader(ids[0]);
  const std::string longest = repeat("\xE2\x82\xAC", 100000 / 3);
  g_free(current_page()->mail_data->subject);
  current_page()->mail_data->subject = g_strdup(longest.c_str());
  current_page()->is_subject_whole = 1;
  __brisel_detail_update_font_size(reader(), 1);
  const std::string shown = part_text(current_page(), "detail.title");
  EXPECT_LT(shown.size(), 4096u);
  EXPECT_EQ(shown.substr(shown.size() - 3), "\xE2\x80\xA6");
  EXPECT_EQ(shown.substr(0, 300), longest.substr(0, 300));
}

/* Scrolls through the whole body and puts the blocks that come by together again: nothing is missing, nothing doubled,
   and only what is near the screen is laid out. */
static void expect_whole(const std::string &body) {
  EXPECT_EQ(brisel_detail_body_get(current_page()->detail_layout, nullptr), body);
  size_t found = 0;
  int most = 0, h = 0;
  evas_object_geometry_get(current_page()->scroller, nullptr, nullptr, nullptr, &h);
  const std::string first = trimmed(part_text(current_page(), "detail.body"));
  ASSERT_EQ(body.compare(0, first.size(), first), 0) << "the first block is not the body's start";
  found = first.size();
  for (int y = 0;; y += h / 2) {
    elm_scroller_region_show(current_page()->scroller, 0, y, 1, h);
    evas_smart_objects_calculate(test_ad.evas);
    int blocks = 0;
    brisel_detail_body_get(current_page()->detail_layout, &blocks);
    most = std::max(most, blocks);
    const std::string laid_out = laid_out_text();
    for (size_t start = laid_out.find('|'); start != std::string::npos;) {
      const size_t end = laid_out.find('|', start + 1);
      std::string block = laid_out.substr(start + 1, end == std::string::npos ? end : end - start - 1);
      for (const char *mark : {"\xE2\x80\x8E", "\xE2\x80\x8F"})
        if (block.compare(0, 3, mark) == 0) block.erase(0, 3);
      size_t at = found;
      if (at < body.size() && body[at] == '\n') at++;
      if (!block.empty() && body.compare(at, block.size(), block) == 0) found = at + block.size();
      start = end;
    }
    if (y > content_height() + 4 * h) break; /* the last block may still have been a guess */
  }
  EXPECT_GE(found + 1, body.size()) << "text is missing from the blocks";
  EXPECT_LE(most, 12) << "too much is laid out at once";
  EXPECT_TRUE(brisel_detail_body_end_is_known(current_page()->detail_layout));
}

TEST_F(Texts, LongBodiesAreAllThere) {
  /* Numbered, so that a block fits into one place of its body only, however many of them a font puts on the screen. */
  auto numbered = [](const std::string &before, const std::string &after, int count) {
    std::string text;
    for (int i = 0; i < count; i++) text += before + std::to_string(10000 + i) + after;
    return text;
  };
  std::string marks;
  for (int i = 0; i < 4000; i += 2)
    for (int mark : {0x300 + i / 64, 0x340 + i / 2 % 32})
      marks += {(char)(0xC0 | mark >> 6), (char)(0x80 | (mark & 0x3F))};
  struct {
    const char *name;
    std::string body;
  } const table[] = {
      {"lines", numbered("line ", "\n", 2000)},
      {"one line without a break", numbered("x", "y", 14000)},
      {"one paragraph of words", numbered("word ", " and so on ", 2000)},
      {"right to left", numbered("\xD7\xA9\xD7\x9C\xD7\x95\xD7\x9D ", " ", 1500)},
      {"hardly more than line breaks", numbered("\n\n\n\n\n\n", "", 300)},
      {"wide characters", numbered("\xE4\xBD\xA0\xE5\xA5\xBD", "\xE5\xA5\xBD", 1500)},
      {"joined emoji", numbered("\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA7", "", 500)},
      {"marks without a letter", marks + "end"},
  };
  std::vector<std::string> bodies;
  for (const auto &row : table) bodies.push_back(row.body);
  const std::vector<int> ids = mailbox_with(&phone, bodies);
  for (size_t i = 0; i < ids.size(); i++) {
    SCOPED_TRACE(table[i].name);
    ASSERT_EQ(brisel_detail_draw_view(ids[i], 0, &test_ad), 0);
    rest_reader();
    expect_whole(bodies[i]);
    elm_naviframe_item_pop(test_ad.naviframe);
    settle();
  }
}

TEST_F(Texts, AMegabyteIsAllThere) {
  std::string body;
  for (int i = 0; body.size() < 1000000; i++)
    body += "paragraph " + std::to_string(i) + (i % 9 ? " of a very long mail, " : "\n");
  const std::vector<int> ids = mailbox_with(&phone, {body});
  open_reader(ids[0]);
  EXPECT_EQ(brisel_detail_body_get(current_page()->detail_layout, nullptr), body);
  int blocks = 0;
  brisel_detail_body_get(current_page()->detail_layout, &blocks);
  EXPECT_LE(blocks, 6);
  /* A jump to the end lays out what is there, not what is on the way. */
  for (int tries = 0; tries < 50 && laid_out_text().find(body.substr(body.size() - 40)) == std::string::npos; tries++) {
    elm_scroller_region_show(current_page()->scroller, 0, content_height(), 1, 1);
    evas_smart_objects_calculate(test_ad.evas);
  }
  EXPECT_NE(laid_out_text().find(body.substr(body.size() - 40)), std::string::npos);
  brisel_detail_body_get(current_page()->detail_layout, &blocks);
  EXPECT_LE(blocks, 12);
}

/* Pages are built of a long body's beginning; the rest comes to the one that is read, and its notice with it. */
TEST_F(Texts, TheRestOfALongBodyComesToWhoReadsIt) {
  std::string lines, quotes;
  for (int i = 0; i < 4000; i++) lines += "line " + std::to_string(i) + "\n";
  for (int i = 0; i < 4000; i++) quotes += "> " + std::to_string(i) + "\n";
  const std::vector<int> ids = mailbox_with(&phone, {"Short", lines + tag_more, quotes + tag_more});
  const auto shown = [](int slot) {
    return std::string(brisel_detail_body_get(reader()->page_data[slot]->detail_layout, nullptr));
  };
  open_reader(ids[0]);
  const std::string begun = shown(BRISEL_DETAIL_NEXT_PAGE);
  EXPECT_GT(begun.size(), 4096u);
  EXPECT_LT(begun.size(), lines.size() / 2);
  EXPECT_TRUE(lines.starts_with(begun));
  EXPECT_EQ(shown(BRISEL_DETAIL_NEXT_NEXT_PAGE), "\xE2\x80\xA6 4,000 quoted lines\n");
  EXPECT_EQ(part_state(reader()->page_data[BRISEL_DETAIL_NEXT_NEXT_PAGE], "detail.device"), "shown");
  ASSERT_TRUE(swipe(true));
  EXPECT_EQ(shown(BRISEL_DETAIL_CUR_PAGE), lines);
  EXPECT_EQ(part_state(current_page(), "detail.device"), "shown");
  EXPECT_NE(elm_object_part_content_get(current_page()->detail_layout, "detail.device"), nullptr);
  close_reader();

  ASSERT_EQ(brisel_detail_draw_view(ids[1], 0, &test_ad), 0); /* another body, of which nobody has told yet */
  current_page()->mail_data->mail_id = ids[2];
  __brisel_detail_finish_rest(reader(), current_page());
  EXPECT_EQ(shown(BRISEL_DETAIL_CUR_PAGE), "\xE2\x80\xA6 4,000 quoted lines\n");
  close_reader();

  ASSERT_EQ(brisel_detail_draw_view(ids[1], 0, &test_ad), 0); /* a store that fails for a while */
  current_page()->mail_data->mail_id = 99999;
  rest_reader();
  EXPECT_EQ(shown(BRISEL_DETAIL_CUR_PAGE), begun);
  current_page()->mail_data->mail_id = ids[1];
  /* No further than to the end of what is there: a fling under way goes on into the rest. */
  for (int pulls = 0; pulls < 9 && current_page()->rest != DETAIL_REST_NONE; pulls++) {
    elm_scroller_region_show(current_page()->scroller, 0, content_height(), 1, 1);
    evas_smart_objects_calculate(test_ad.evas);
    pull_up();
  }
  EXPECT_TRUE(run_until([&] { return shown(BRISEL_DETAIL_CUR_PAGE) == lines; }));
  EXPECT_EQ(phone.count("more_msg"), 0) << "the phone was asked for what is in the store";
}

/* What is hidden is counted piece by piece, and tags are looked for wherever they may be. */
TEST_F(Texts, LongBodiesInPiecesAreShownAsTheWholeIs) {
  const std::string quote = repeat("> a line of the quote\r\n", 40000),
                    tagged = repeat("line\n", 5000) + tag_more + "x";
  const std::vector<std::string> table = {
      quote + tag_complete, "Yes.\n" + quote + repeat("\xE0\xA4\x95\xE0\xA4\x96 \r\n", 20000) + tag_more,
      "Yes.\n-----Original Message-----\n" + repeat("\xE0\xA4\x95\n\n", 99999),
      "Yes.\n" + quote + "-- \nEve\nInc.\n" + tagged + repeat("\n> b", 30000), tagged + repeat("more\n", 5000)};
  const std::vector<int> ids = mailbox_with(&phone, table);
  for (size_t i = 0; i < table.size(); i++) {
    SCOPED_TRACE(i);
    const size_t end = table[i].rfind(tag_start);
    std::string source = brisel_detail_plain_text(table[i].data(), std::min(end, table[i].size()));
    const std::string whole = brisel_detail_fold(&source, {}, &test_ad).text;
    open_reader(ids[i ? i - 1 : 1]); /* beside it, then itself */
    for (int slot : {i ? BRISEL_DETAIL_NEXT_PAGE : BRISEL_DETAIL_PREV_PAGE, BRISEL_DETAIL_CUR_PAGE}) {
      const page_data *page = reader()->page_data[slot];
      const std::string shown = brisel_detail_body_get(page->detail_layout, nullptr);
      EXPECT_TRUE(slot == BRISEL_DETAIL_CUR_PAGE ? shown == whole : whole.starts_with(shown)) << shown.substr(0, 99);
      EXPECT_TRUE(shown.size() > 4096 || shown == whole);
      if (shown == whole) EXPECT_EQ(part_state(page, "detail.device"), i ? "shown" : "default");
      if (slot != BRISEL_DETAIL_CUR_PAGE) ASSERT_TRUE(swipe(i > 0));
    }
    close_reader();
  }
}

/* The end of a page is the whole body's, and what the phone says of a mail goes for the whole, before the rest came. */
TEST_F(Texts, ThePageIsTheWholeBeforeTheRestCame) {
  std::string lines, quotes = "Yes.\n";
  for (int i = 0; i < 4000; i++) lines += "line " + std::to_string(i) + "\n";
  for (int i = 0; i < 4000; i++) quotes += "> " + std::to_string(i) + "\n";
  const std::vector<int> ids = mailbox_with(&phone, {"Short", lines + tag_more});
  for (const char *name : {"End", "ISO_Left_Tab"}) {
    SCOPED_TRACE(name);
    ASSERT_EQ(brisel_detail_draw_view(ids[1], 0, &test_ad), 0);
    current_page()->mail_data->mail_id = 99999; /* holds it back */
    rest_reader();
    current_page()->mail_data->mail_id = ids[1];
    ASSERT_EQ(current_page()->rest, DETAIL_REST_IN_STORE);
    key(name);
    if (*name == 'I') key(name); /* behind the title's button */
    rest();
    int view = 0;
    evas_object_geometry_get(current_page()->scroller, nullptr, nullptr, nullptr, &view);
    EXPECT_EQ(scrolled(), content_height() - view);
    EXPECT_NE(laid_out_text().find("line 3999"), std::string::npos);
    elm_scroller_region_show(current_page()->scroller, 0, 0, 1, 1); /* opened there the next time */
    settle();
    close_reader();
  }
  open_reader(ids[0]);
  const page_data *next = reader()->page_data[BRISEL_DETAIL_NEXT_PAGE];
  ASSERT_EQ(next->rest, DETAIL_REST_IN_STORE);
  phone.set_text(ids[1], "body", quotes + tag_complete);
  EXPECT_TRUE(run_until([&] {
    return next->is_built &&
           brisel_detail_body_get(next->detail_layout, nullptr) == "Yes.\n\xE2\x80\xA6 4,000 quoted lines\n"s;
  }));
}

/* The text at the top of the view stays there. */
TEST_F(Texts, APlaceStaysWhateverBecomesOfTheSize) {
  std::string lines, words;
  for (int i = 0; i < 2000; i++) lines += "line " + std::to_string(i) + "\n";
  for (int i = 0; i < 100; i++) words += "word" + std::to_string(i) + " ";
  const std::vector<int> ids = mailbox_with(&phone, {lines, words, "Short"});
  const auto top = [] { return (double)brisel_detail_body_top(current_page()->detail_layout); };
  const auto show = [](int y) {
    elm_scroller_region_show(current_page()->scroller, 0, y, 1, 300);
    settle();
  };
  for (const auto &[mail, depth, line] : {std::tuple{0, 12000, 8}, {0, 300, 8}, {1, 400, 30}}) {
    SCOPED_TRACE(testing::Message() << "mail " << mail << " at " << depth);
    open_reader(ids[mail]);
    for (int y = 0; y <= depth; y += 200) show(std::min(y, depth));
    const double before = top();
    ASSERT_LT(before, lines.size());
    ASSERT_GT(before, 10);
    for (const int size : {2, 0, 1}) {
      __brisel_detail_update_font_size(reader(), size);
      rest();
      EXPECT_NEAR(top(), before, mail == 0 ? line : line * 2) << "size " << size;
    }
    for (const int width : {240, 320}) {
      resize_window(width, 320);
      ASSERT_TRUE(run_until([&] { return reader()->page_width == width; }));
      rest();
      EXPECT_NEAR(top(), before, mail == 0 ? line : line * 2) << "width " << width;
    }
    const double left = top();
    close_reader();
    open_reader(ids[2]);
    close_reader();
    open_reader(ids[mail]);
    rest();
    EXPECT_NEAR(top(), left, line) << "opened again";
    elm_scroller_region_show(current_page()->scroller, 0, 0, 1, 1);
    settle();
    close_reader();
    open_reader(ids[mail]);
    rest();
    EXPECT_EQ(scrolled(), 0) << "left at its beginning";
    close_reader();
  }
}

/* From a place that was kept, where nothing above has been laid out yet and is as high as it was guessed. */
TEST_F(Texts, AFlingUpwardsIsNotCutShort) {
  std::string text;
  for (int i = 0; i < 6000; i++) text += i / 30 % 2 ? "short\n" : repeat("a line that wraps ", 5) + "\n";
  const std::vector<int> ids = mailbox_with(&phone, {text});
  open_reader(ids[0]);
  for (int i = 0; i < 3; i++) {
    elm_scroller_region_show(current_page()->scroller, 0, 30000, 1, 300);
    settle();
  }
  close_reader();
  open_reader(ids[0]);
  rest();
  const point middle = middle_of(reader()->page_scroller_layout);
  for (int flings = 0; flings < 8; flings++) {
    stroke({middle.x, middle.y / 2}, {middle.x, middle.y * 8 / 5});
    int last = scrolled(), gone = 0;
    rest_of([&] {
      gone += std::max(0, last - scrolled());
      last = scrolled();
      return std::to_string(last);
    });
    EXPECT_GT(gone, 400) << "fling " << flings;
  }
}

TEST_F(Texts, ALongSubjectIsCutUntilItIsTouched) {
  const std::vector<int> ids = mailbox_with(&phone, {"body"});
  const std::string whole = repeat("A subject that goes on. ", 9);
  phone.set_text(ids[0], "subject", whole);
  open_reader(ids[0]);
  const auto shown = [] { return part_text(current_page(), "detail.title"); };
  EXPECT_LT(shown().size(), 70u);
  EXPECT_TRUE(shown().ends_with("\xE2\x80\xA6"));
  EXPECT_EQ(whole.compare(0, 20, shown(), 0, 20), 0);
  const std::string narrow = shown();
  __brisel_detail_settle_soon(reader()); /* as when the pages got their places late */
  tap_in_reader("detail.title");
  EXPECT_EQ(shown(), whole);
  tap_in_reader("detail.title");
  resize_window(480, 320);
  EXPECT_TRUE(run_until([&] { return shown().size() > narrow.size(); })) << "as much as the width lets";
  __brisel_detail_update_font_size(reader(), 1);
  rest_reader();
  const Evas_Object *part =
      edje_object_part_object_get(elm_layout_edje_get(current_page()->detail_layout), "detail.title");
  Eina_Rectangle title = {};
  evas_object_geometry_get(part, &title.x, &title.y, &title.w, &title.h);
  double_tap_at({title.x + title.w / 2, title.y + title.h + 8}); /* where the subject will be when it has grown */
  ASSERT_TRUE(run_until([] { return reader()->font_size == 2; }));
  EXPECT_TRUE(shown().ends_with("\xE2\x80\xA6")) << "a double tap is about the size alone";
}

TEST_F(Texts, ASenderThatTheTitleCutsIsShownWholeWhenItIsTouched) {
  const std::string longest = "Maximiliane Alexandrina von und zu der Hohen Heide";
  const std::vector<int> ids = mailbox_with(&phone, {"body", "body"});
  phone.set_text(ids[1], "from_name", longest);
  for (int mail : {0, 1}) {
    open_reader(ids[mail]);
    rest();
    const std::string subject = part_text(current_page(), "detail.title");
    Evas_Object *title = elm_object_part_content_get(current_page()->page_layout, "title");
    int x = 0, y = 0;
    edje_object_part_geometry_get(elm_layout_edje_get(title), "elm.text.title", &x, nullptr, nullptr, nullptr);
    for (bool whole : {true, false}) {
      tap({x + 20, y + 20});
      rest();
      EXPECT_EQ(part_text(current_page(), "detail.title"), (mail && whole ? longest + "\n" : "") + subject);
    }
    close_reader();
  }
}

TEST_F(Texts, EastAsianLinesAreAsHighAsTheyAre) {
  const std::vector<int> ids = mailbox_with(&phone, {"\xE4\xBD\xA0\xE5\xA5\xBD", "ab"});
  int height[2] = {};
  for (int mail : {0, 1}) {
    open_reader(ids[mail]);
    edje_object_part_geometry_get(elm_layout_edje_get(current_page()->detail_layout), "detail.body", nullptr, nullptr,
                                  nullptr, &height[mail]);
    close_reader();
  }
  EXPECT_LT(height[0], height[1] * 3 / 2);
}

/* What folds, and what the fold looks like. */
TEST_F(Texts, QuotesSignaturesAndAddressesAreShort) {
  auto table = shown_of("folded: what came, what is shown (\"=\": the same)");
  for (const std::string &same :
       {"Hi\n--\n" + repeat("line\n", 20), "https://" + repeat("z", 80) + "/https://a.org/" + repeat("x", 50),
        repeat("a\n", 1 << 20)}) /* takes no time for the square of its lines */
    table.emplace_back(same, same);
  for (const auto &[text, shown_text] : table) {
    std::string source = text;
    const detail_shown shown = brisel_detail_fold(&source, {}, &test_ad);
    EXPECT_EQ(source, shown.pieces.empty() ? "" : text);
    EXPECT_EQ(shown.text, shown_text);
    for (const detail_piece &piece : shown.pieces) {
      EXPECT_EQ(brisel_detail_source_of(shown, piece.shown + 1), piece.source);
      EXPECT_EQ(brisel_detail_place_of(shown, piece.source + 1), piece.shown);
      EXPECT_EQ(brisel_detail_place_of(shown, brisel_detail_source_of(shown, piece.shown + piece.shown_length)),
                piece.shown + piece.shown_length);
    }
    /* What is told of a beginning holds for the whole, wherever it ends, with a fold shut and open. */
    if (text.size() > 2000) continue;
    for (std::vector<size_t> open; open.size() < 2; open.push_back(shown.pieces.empty() ? 0 : shown.pieces[0].source)) {
      source = text;
      const detail_shown whole = brisel_detail_fold(&source, open, &test_ad);
      for (size_t cut = 0; cut < text.size(); cut++) {
        detail_folding folding = {};
        detail_shown told;
        brisel_detail_fold_on(&folding, text.substr(0, cut), false, open, &test_ad, &told);
        ASSERT_TRUE(whole.text.starts_with(told.text)) << told.text << " of " << text.substr(0, cut);
        brisel_detail_fold_on(&folding, text.substr(cut), true, open, &test_ad, &told);
        ASSERT_EQ(told.text, whole.text) << "cut behind " << text.substr(0, cut);
        ASSERT_TRUE(told.pieces == whole.pieces) << "cut behind " << text.substr(0, cut);
      }
    }
  }
}

TEST_F(Texts, AFoldOpensAtATap) {
  const std::string quote = "> one\n> two\n> three";
  const std::vector<int> ids = mailbox_with(&phone, {quote + "\nand\n" + quote});
  open_reader(ids[0]);
  const std::string fold = "\xE2\x80\xA6 3 quoted lines";
  const auto shown = [] { return std::string(brisel_detail_body_get(current_page()->detail_layout, nullptr)); };
  EXPECT_EQ(shown(), fold + "\nand\n" + fold);
  const auto tap_low_on = [](int line, bool is_double = false) {
    int x = 0, y = 0, height = 0;
    Evas_Object *edje = elm_layout_edje_get(current_page()->detail_layout);
    evas_object_geometry_get((Evas_Object *)edje_object_part_object_get(edje, "detail.body"), &x, &y, nullptr, &height);
    const point at = {x + 20, y + height / 3 * line + height / 4};
    is_double ? double_tap_at(at) : tap(at);
    rest_reader();
  };
  tap_low_on(0, true);
  EXPECT_EQ(reader()->font_size, 2);
  EXPECT_EQ(shown(), fold + "\nand\n" + fold) << "a double tap is for the size";
  __brisel_detail_update_font_size(reader(), 1);
  tap_low_on(1);
  EXPECT_EQ(shown(), fold + "\nand\n" + fold) << "a line below the finger opened";
  tap_low_on(0);
  EXPECT_EQ(shown(), quote + "\nand\n" + fold);
  tap_in_reader("detail.body");
  EXPECT_EQ(shown(), quote + "\nand\n" + fold) << "what is open stays open";
}
