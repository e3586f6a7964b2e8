/* The virtual keypad under a finger, typing into real entries. */
#include "window.h" /* first: it asks the toolkit for more than its default */

#include <algorithm>
#include <map>
#include <memory>
#include <set>

#include "cases.h"
#include "efl_assist.h"
#include "keypad-compose.h"
#include "keypad-internal.h"
#include "keypad-layouts.h"
#include "keypad.h"
#include "vconf.h"

namespace {

const std::string CASES = CASES_DIR "/keypad.txt";
constexpr const char *LANGUAGE = "db/menu_widget/language";

std::vector<Evas_Object *> keys_of(const test_window &window) {
  std::vector<Evas_Object *> found;
  window.each([&](Evas_Object *obj) {
    const char *group = nullptr;
    if (strcmp(evas_object_type_get(obj), "edje") == 0) edje_object_file_get(obj, nullptr, &group);
    if (group != nullptr && strcmp(group, "platform/keypad/key") == 0) found.push_back(obj);
  });
  return found;
}

struct Keypad : testing::Test {
  test_window window;
  Evas_Object *entry = nullptr;
  Evas_Object *button = nullptr;
  std::vector<Evas_Coord_Rectangle> sizes;
  int refused = 0;
  Elm_Entry_Filter_Limit_Size limit = {35, 0};

  void SetUp() override {
    entry = elm_entry_add(window.win);
    elm_entry_scrollable_set(entry, EINA_TRUE);
    elm_entry_markup_filter_append(entry, elm_entry_filter_limit_size, &limit);
    window.put(entry);
    elm_box_pack_end(window.box, entry);
    button = elm_button_add(window.win);
    elm_object_text_set(button, "x");
    evas_object_show(button);
    elm_box_pack_end(window.box, button);
    keypad_attach(window.win);
    evas_object_smart_callback_add(
        window.conformant, "virtualkeypad,size,changed",
        [](void *data, Evas_Object *, void *info) {
          static_cast<Keypad *>(data)->sizes.push_back(*static_cast<Evas_Coord_Rectangle *>(info));
        },
        this);
    evas_object_smart_callback_add(
        entry, "maxlength,reached",
        [](void *data, Evas_Object *obj, void *) {
          static_cast<Keypad *>(data)->refused++;
          elm_object_focus_set(obj, EINA_FALSE);
        },
        this);
    window.draw();
  }
  void TearDown() override { vconf_unset(LANGUAGE); }

  Evas_Object *key_named(const std::string &label) const {
    for (Evas_Object *key : keys_of(window)) {
      const char *text = edje_object_part_text_get(key, "text");
      if (text != nullptr && label == text) return key;
    }
    return nullptr;
  }

  /* Keys with a picture instead of a text, by their place. */
  void tap_place(int column, int row) const {
    int w = 0, h = 0;
    evas_object_geometry_get(window.win, nullptr, nullptr, &w, &h);
    const int top = sizes.back().y;
    window.tap(w * (2 * column + 1) / 12, top + (h - top) * (2 * row + 1) / 8);
  }
  void backspace() const { tap_place(5, 0); }
  void shift() const { tap_place(5, 1); }
  void next_page() const { tap_place(5, 2); }
  void enter() const { tap_place(4, 3); }

  /* Taps the keys with these labels, turning pages until each is found. */
  void type(const std::vector<std::string> &labels) const {
    for (const std::string &label : labels) {
      Evas_Object *key = key_named(label);
      for (int turns = 0; key == nullptr && turns < 4; turns++) {
        next_page();
        key = key_named(label);
      }
      ASSERT_NE(key, nullptr) << "no key " << label;
      window.tap(key);
    }
  }
  std::string text() const { return elm_entry_entry_get(entry); }
  std::string plain() const { return plain_text(elm_entry_entry_get(entry)); }
};

using Labels = std::vector<std::string>;

TEST_F(Keypad, ComesWithATouchOnAnEntryAndGoesWithItsFocus) {
  elm_object_focus_set(entry, EINA_TRUE);
  window.draw();
  EXPECT_FALSE(keypad_shown()); /* a program's doing */
  window.tap(entry);
  EXPECT_TRUE(keypad_shown());
  ASSERT_EQ(sizes.size(), 1u);
  EXPECT_EQ(sizes[0].w, 320);
  EXPECT_EQ(sizes[0].y + sizes[0].h, 320);
  int y = 0, h = 0;
  evas_object_geometry_get(window.box, nullptr, &y, nullptr, &h);
  EXPECT_EQ(y + h, sizes[0].y); /* the content made room */
  window.tap(entry);
  EXPECT_EQ(sizes.size(), 1u); /* no news */
  elm_object_focus_set(button, EINA_TRUE);
  window.draw();
  EXPECT_FALSE(keypad_shown());
  ASSERT_EQ(sizes.size(), 2u);
  EXPECT_EQ(sizes[1].h, 0);
  evas_object_geometry_get(window.box, nullptr, &y, nullptr, &h);
  EXPECT_EQ(y + h, 320);

  elm_entry_editable_set(entry, EINA_FALSE);
  window.tap(entry);
  EXPECT_FALSE(keypad_shown());
  elm_entry_editable_set(entry, EINA_TRUE);
  keypad_show(); /* by hand: for the entry in sight */
  window.draw();
  type({"H", "i"}); /* a new text begins with a capital */
  EXPECT_EQ(text(), "Hi");
  keypad_hide();
  keypad_hide();
  EXPECT_EQ(sizes.size(), 4u);

  /* What ends on the entry but was a scroll is no touch. */
  Evas *canvas = evas_object_evas_get(window.win);
  elm_object_focus_set(entry, EINA_TRUE);
  window.draw();
  int x = 0, w = 0;
  evas_object_geometry_get(entry, &x, &y, &w, &h);
  window.down(x + w / 2, y + h / 2);
  evas_event_default_flags_set(canvas, EVAS_EVENT_FLAG_ON_HOLD); /* as a scroller holds what it has taken */
  window.up();
  evas_event_default_flags_set(canvas, EVAS_EVENT_FLAG_NONE);
  window.draw();
  EXPECT_FALSE(keypad_shown());
}

TEST_F(Keypad, BackClosesItBeforeAnythingElse) {
  int backs = 0;
  ea_object_event_callback_add(
      window.box, EA_CALLBACK_BACK, [](void *data, Evas_Object *, void *) { ++*static_cast<int *>(data); }, &backs);
  window.tap(entry);
  window.key("Escape");
  EXPECT_FALSE(keypad_shown());
  EXPECT_EQ(backs, 0);
  window.key("XF86Back");
  EXPECT_EQ(backs, 1);
  window.tap(entry);
  EXPECT_TRUE(keypad_shown()); /* the entry kept the focus */
}

TEST_F(Keypad, TypesWhatIsOnTheKeys) {
  window.tap(entry);
  shift();
  shift(); /* the first capital is on: locked, then off */
  type({"q", "p", "a"});
  EXPECT_EQ(text(), "qpa");
  shift();
  type({"Q"});
  type({"w"}); /* one capital only */
  shift();
  shift();
  type({"E", "R"}); /* until further notice */
  shift();
  type({"English"}); /* the space key */
  EXPECT_EQ(text(), "qpaQwER ");
  backspace();
  backspace();
  type({":-)", "😀", "<3", "ABC", "123", "1", "&", "ABC"});
  enter();
  type({"."});
  EXPECT_EQ(text(), "qpaQwE😀&lt;31&amp;<br/>.");
  EXPECT_EQ(refused, 0);
}

TEST_F(Keypad, TheEntrysOwnLimitDecides) {
  window.tap(entry);
  type({":-)"}); /* the key that leads to them */
  for (int i = 0; i < 34; i++) type({"😀"});
  EXPECT_EQ(refused, 0);
  type({":'("}); /* of three characters one fits */
  EXPECT_EQ(refused, 1);
  EXPECT_FALSE(keypad_shown());
  EXPECT_EQ(sizes.back().h, 0);
  EXPECT_EQ(g_utf8_strlen(plain().c_str(), -1), 35);
  EXPECT_TRUE(plain().ends_with("😀:")) << plain();
  window.tap(entry);
  const std::string full = text();
  type({"q"});
  EXPECT_EQ(text(), full);
  EXPECT_EQ(refused, 2);
  window.tap(entry);
  backspace();
  EXPECT_NE(text(), full); /* and on it goes */
}

TEST_F(Keypad, FingersSlideSwipeAndHold) {
  window.tap(entry);
  shift();
  shift();
  const auto at = [&](const char *label) { return middle_of(key_named(label)); };
  /* Down on one key, up on its neighbour: the neighbour. */
  const auto q = at("q"), a = at("a"), t = at("t");
  window.down(q.x, q.y);
  window.move(a.x, a.y);
  window.up();
  EXPECT_EQ(text(), "a");
  /* Off the keypad: nothing. */
  window.down(q.x, q.y);
  window.move(q.x, 20);
  window.up();
  EXPECT_EQ(text(), "a");
  /* A swipe turns the page, in both directions, and types nothing. */
  window.down(t.x, t.y);
  window.move(q.x, q.y);
  window.up();
  window.draw();
  EXPECT_EQ(text(), "a");
  EXPECT_EQ(key_named("q"), nullptr);
  ASSERT_NE(key_named("y"), nullptr);
  window.down(q.x, q.y);
  window.move(t.x, t.y);
  window.up();
  window.draw();
  ASSERT_NE(key_named("q"), nullptr);
  /* Backspace held down goes on, and stops with the finger. */
  type({"q", "w", "e", "r", "t"});
  int x, y, w, h;
  evas_object_geometry_get(keys_of(window)[0], &x, &y, &w, &h);
  window.down(293, sizes.back().y + h / 2);
  EXPECT_TRUE(run_until([&] { return text().empty(); }));
  window.up();
  type({"q"});
  EXPECT_EQ(text(), "q");
}

TEST_F(Keypad, SurvivesTheEndOfWhatItServes) {
  window.tap(entry);
  type({"Q"});
  evas_object_del(entry);
  window.draw();
  EXPECT_FALSE(keypad_shown());
  EXPECT_EQ(sizes.back().h, 0);
  keypad_show();
  window.draw();
  EXPECT_TRUE(keypad_shown()); /* nothing to type into, and nothing breaks */
  type({"q"});
  elm_object_focus_set(button, EINA_TRUE);
  evas_object_del(window.conformant);
  window.draw();
  EXPECT_FALSE(keypad_shown());
  keypad_show();
  EXPECT_FALSE(keypad_shown());
  evas_object_del(window.win);
  window.win = nullptr;
  keypad_show();
  EXPECT_FALSE(keypad_shown());
}

/* A keyboard's ring is around a key or around the text, and a touch takes it away. */
TEST_F(Keypad, OneThingIsRinged) {
  const auto rings = [&] {
    std::string found = elm_win_focus_highlight_enabled_get(window.win) ? "text " : "";
    window.each([&](Evas_Object *obj) {
      const char *group = nullptr;
      if (strcmp(evas_object_type_get(obj), "edje") == 0) edje_object_file_get(obj, nullptr, &group);
      if (group != nullptr && strcmp(group, "elm/focus_highlight/top/default") == 0) found += "key ";
    });
    return found;
  };
  window.tap(entry);
  elm_win_focus_highlight_enabled_set(window.win, EINA_TRUE);
  EXPECT_EQ(rings(), "text ");
  for (const char *key : {"Down", "Home", "Right"}) {
    window.key(key);
    EXPECT_EQ(rings(), "key ") << key;
  }
  window.key("Up");
  EXPECT_EQ(rings(), "text ");
  for (Evas_Object *touched : {entry, key_named("Q")}) {
    window.key("Down");
    window.tap(touched);
    EXPECT_EQ(rings(), "");
  }
}

TEST_F(Keypad, WritesTheLanguageOfTheSettings) {
  for (const case_row &row : table_of(CASES, "words: language, keys, what they write", 3)) {
    vconf_set_str(LANGUAGE, row.text(0));
    elm_entry_entry_set(entry, "");
    window.tap(entry);
    ASSERT_TRUE(keypad_shown());
    type(row.words(1));
    EXPECT_EQ(plain(), row[2]) << row[0];
    keypad_hide();
    window.draw();
  }
  vconf_set_str(LANGUAGE, "ru_RU");
  elm_entry_entry_set(entry, "");
  window.tap(entry);
  type({"Я"});
  tap_place(2, 3); /* the language key */
  type({"English", "a"});
  EXPECT_EQ(text(), "Я a");
}

/* Moving the cursor ends a syllable: the next letter goes where the cursor is. */
TEST_F(Keypad, ASyllableEndsWhenTheCursorMoves) {
  vconf_set_str(LANGUAGE, "ko_KR");
  window.tap(entry);
  type({"ㄱ", "ㅏ"});
  elm_entry_cursor_begin_set(entry);
  window.tap(entry);
  type({"ㄴ"});
  EXPECT_EQ(g_utf8_strlen(text().c_str(), -1), 2);
  EXPECT_NE(text().find("가"), std::string::npos);
}

TEST_F(Keypad, EndsWithItsWindowWhileShown) {
  window.tap(entry);
  window.down(293, sizes.back().y + 20); /* on backspace, which would go on */
  evas_object_del(window.win);
  window.win = nullptr;
  EXPECT_FALSE(keypad_shown());
}

TEST(KeypadSize, EveryKeyIsAsLargeAsAThumbWants) {
  for (const auto &[w, h] : {std::pair(320, 320), std::pair(360, 480)}) {
    test_window window(w, h);
    Evas_Object *entry = elm_entry_add(window.win);
    window.put(entry);
    elm_box_pack_end(window.box, entry);
    keypad_attach(window.win);
    window.draw();
    window.tap(entry);
    ASSERT_TRUE(keypad_shown());
    const std::vector<Evas_Object *> keys = keys_of(window);
    EXPECT_EQ(keys.size(), 23u);
    for (Evas_Object *key : keys) {
      int key_w, key_h;
      evas_object_geometry_get(key, nullptr, nullptr, &key_w, &key_h);
      EXPECT_GE(std::min(key_w, key_h), 48);
    }
    keypad_hide();
  }
}

/* Nobody misses a letter of the own language. */
TEST(KeypadLayouts, HoldTheWholeAlphabet) {
  for (const case_row &row : table_of(CASES, "alphabets", 2)) {
    const keypad_layout &layout = keypad_layout_for(row[0]);
    ASSERT_EQ(layout.language, row[0]);
    std::set<std::string> keys;
    size_t count = 0;
    for (size_t page = 0; page < layout.pages.size(); page++) {
      const Labels on_page = keypad_page_keys(layout, page);
      EXPECT_LE(on_page.size(), static_cast<size_t>(KEYPAD_PAGE_KEYS)) << row[0];
      keys.insert(on_page.begin(), on_page.end());
      count += on_page.size();
    }
    EXPECT_EQ(keys.size(), count) << row[0] << " has a key twice";
    for (const char *at = row.text(1); *at != '\0'; at = g_utf8_next_char(at)) {
      const std::string letter(at, static_cast<size_t>(g_utf8_next_char(at) - at));
      EXPECT_TRUE(keys.contains(letter)) << row[0] << " has no " << letter;
    }
  }
  for (const keypad_layout *layout : {&keypad_layout_symbols(), &keypad_layout_emoticons()}) {
    for (size_t page = 0; page < layout->pages.size(); page++) EXPECT_LE(keypad_page_keys(*layout, page).size(), 15u);
  }
  /* A picture is one character: none can be cut in two by a limit. */
  for (const size_t page : {0u, 2u, 3u}) {
    for (const std::string &key : keypad_page_keys(keypad_layout_emoticons(), page))
      EXPECT_EQ(g_utf8_strlen(key.c_str(), -1), 1) << key;
  }
}

/* Letters join as on any keyboard of the language. */
TEST(KeypadCompose, JoinsAndTakesApart) {
  const std::map<std::string, keypad_compose> ways = {
      {"hangul", KEYPAD_COMPOSE_HANGUL}, {"kana", KEYPAD_COMPOSE_KANA}, {"none", KEYPAD_COMPOSE_NONE}};
  for (const case_row &row : table_of(CASES, "composing: how, keys (\"<\" is backspace), what they write", 3)) {
    const keypad_compose way = ways.at(row[0]);
    std::string text, pending;
    for (const char *at = row.text(1); *at != '\0'; at = g_utf8_next_char(at)) {
      std::string key(at, static_cast<size_t>(g_utf8_next_char(at) - at));
      if (key == "゛") key = "小゛";
      const keypad_edit edit =
          key == "<" ? keypad_compose_backspace(way, &pending) : keypad_compose_key(way, key, &pending);
      for (int i = 0; i < edit.take_back && !text.empty(); i++)
        text.erase(static_cast<size_t>(g_utf8_prev_char(text.data() + text.size()) - text.data()));
      text += edit.insert;
    }
    EXPECT_EQ(text, row[2]) << row[1];
  }
}

}  // namespace
