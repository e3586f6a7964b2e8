#include "keypad.h"

#include <Ecore.h>
#include <Edje.h>
#include <Elementary.h>
#include <glib.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "app_efl.h"
#include "brisel-settings.h"
#include "dlog.h"
#include "efl_assist.h"
#include "keypad-compose.h"
#include "keypad-find.h"
#include "keypad-internal.h"
#include "keypad-layouts.h"
#include "keypad-spoken.h"
#include "platform-paths.h"
#include "vconf.h"

/*
 * Six columns and four rows: a key is at least 48 pixels wide and high on a window of 320, which a whole row of ten
 * letters would not be. The letters come on pages of fifteen, turned by a key or by a swipe. The keys are plain
 * pictures; the ground under them takes the touches, so that no touch ever takes the focus from the entry, and a finger
 * that slipped onto the next key before it was lifted types what it was lifted from.
 */

namespace {

constexpr const char *LOG_TAG = "KEYPAD";
constexpr const char *THEME_FILE = "/usr/apps/com.vextora.brisel/res/edje/platform.edj";
constexpr const char *CONFORMANT_PART = "elm.swallow.virtualkeypad";
constexpr int COLUMNS = 6;
constexpr int ROWS = 4;
constexpr int KEYS = KEYPAD_PAGE_KEYS + 3 + 6; /* the page, the column beside it, the row below it */
constexpr int KEY_HEIGHT_MIN = 50;
constexpr int KEY_HEIGHT_MAX = 64;
constexpr int SWIPE_DISTANCE = 40;
constexpr double REPEAT_AFTER = 0.5;
constexpr double REPEAT_EVERY = 0.08;

enum class mode { letters, symbols, emoticons };
enum class shift { off, once, lock };
enum class action {
  none,
  text,
  backspace,
  shift,
  next_page,
  previous_page,
  letters,
  symbols,
  emoticons,
  language,
  enter,
  hide
};

struct key {
  Evas_Object *picture = nullptr;
  action does = action::none;
  std::string text;
};

struct keypad {
  Evas_Object *win = nullptr;
  Evas_Object *ground = nullptr; /* made at the first showing */
  Evas_Object *table = nullptr;
  std::array<key, KEYS> keys;
  Evas_Object *watched = nullptr;    /* the conformant whose touches are followed */
  Evas_Object *conformant = nullptr; /* where the keypad is shown; NULL: it is hidden */
  Evas_Object *displaced = nullptr;  /* what the conformant had in the place */
  Evas_Object *entry = nullptr;      /* the entry that is served; may be NULL while shown */
  int height = 0;

  mode shows = mode::letters;
  shift shifted = shift::off;
  size_t page = 0;
  bool english = false; /* chosen over the layout of the language */
  const keypad_layout *own = nullptr;
  std::string pending; /* see keypad-compose.h */

  int pressed = -1; /* the key under the finger */
  int down_x = 0;
  bool swiped = false;
  bool repeated = false;
  Ecore_Timer *repeat = nullptr;

  Evas_Object *ring = nullptr; /* made when a keyboard first comes down to the keys */
  int ringed = -1;             /* the key it is around */
};

keypad pad;

/* --- typing --- */

/* As key events, the way any keyboard types: the entry's own filters decide what it takes. */
void feed(const char *name, const char *text) {
  Evas *canvas = evas_object_evas_get(pad.win);
  const auto now = static_cast<unsigned>(ecore_loop_time_get() * 1000);
  evas_event_feed_key_down(canvas, name, name, text, nullptr, now, nullptr);
  evas_event_feed_key_up(canvas, name, name, text, nullptr, now, nullptr);
}

bool can_type() {
  return pad.entry != nullptr && app_efl_focused(pad.win) == pad.entry;
}

void type(const keypad_edit &edit) {
  /* Each event may end in the entry losing the focus, or its life. */
  for (int i = 0; i < edit.take_back && can_type(); i++) feed("BackSpace", "\b");
  if (!edit.insert.empty() && can_type()) feed(edit.insert == " " ? "space" : edit.insert.c_str(), edit.insert.c_str());
}

/* --- what the keys are called --- */

constexpr const char *KEY_TEXTS[] = {"", /* by what the key does */
                                     "",
                                     "IDS_EMAIL_BODY_KEY_BACKSPACE",
                                     "IDS_EMAIL_BODY_KEY_SHIFT",
                                     "IDS_EMAIL_BODY_KEY_NEXT_KEYS",
                                     "IDS_EMAIL_BODY_KEY_PREVIOUS_KEYS",
                                     "IDS_EMAIL_BODY_KEY_LETTERS",
                                     "IDS_EMAIL_BODY_KEY_NUMBERS",
                                     "IDS_EMAIL_BODY_KEY_EMOTICONS",
                                     "IDS_EMAIL_BODY_KEY_LANGUAGE",
                                     "IDS_EMAIL_BODY_KEY_ENTER",
                                     "IDS_EMAIL_BODY_KEY_HIDE"};
static_assert(std::size(KEY_TEXTS) == static_cast<size_t>(action::hide) + 1);

void say_key(int index) {
  const key &one = pad.keys[static_cast<size_t>(index)];
  const bool is_shift = one.does == action::shift, has_text = one.does == action::text || one.does == action::next_page;
  const char *id = one.text == " "                          ? "IDS_EMAIL_BODY_KEY_SPACE"
                   : is_shift && pad.shifted == shift::lock ? "IDS_EMAIL_BODY_KEY_CAPS_LOCK"
                                                            : KEY_TEXTS[static_cast<size_t>(one.does)];
  keypad_spoken_key(index, id, has_text ? one.text : "", is_shift ? pad.shifted != shift::off : -1);
}

void use_key(int index);

void tell_keys() {
  if (pad.conformant == nullptr || !keypad_spoken_begin(pad.conformant, pad.ground)) return;
  for (int i = 0; i < KEYS; i++) {
    keypad_spoken_add(i, pad.keys[static_cast<size_t>(i)].picture, use_key);
    say_key(i);
  }
}

/* --- what the keys show --- */

const keypad_layout &layout() {
  if (pad.shows == mode::symbols) return keypad_layout_symbols();
  if (pad.shows == mode::emoticons) return keypad_layout_emoticons();
  return pad.english || pad.own == nullptr ? keypad_layout_english() : *pad.own;
}

std::string shifted(const std::string &text) {
  if (pad.shifted == shift::off || !layout().has_case) return text;
  /* Turkish has a capital of its own for each of its two letters i. */
  if (strcmp(layout().language, "tr") == 0 && text == "i") return "İ";
  if (text == "ß") return "ẞ";
  const std::unique_ptr<char, decltype(&g_free)> upper(g_utf8_strup(text.c_str(), -1), g_free);
  return upper.get();
}

void signal(int index, const char *what) {
  edje_object_signal_emit(pad.keys[static_cast<size_t>(index)].picture, what, "platform");
}

void ring(int index);

void signal_kind(int index) {
  const key &one = pad.keys[static_cast<size_t>(index)];
  const bool letter = one.does == action::text && one.text != " ";
  const bool picture = letter && pad.shows == mode::emoticons && static_cast<unsigned char>(one.text[0]) >= 0x80;
  const bool is_long = letter && g_utf8_strlen(one.text.c_str(), -1) > 2;
  signal(index, picture ? "key,picture" : is_long ? "key,long" : letter ? "key,letter" : "key,special");
}

void set_key(int index, action does, const std::string &text, const char *icon = "none") {
  key &one = pad.keys[static_cast<size_t>(index)];
  one.does = does;
  one.text = text;
  edje_object_part_text_set(one.picture, "text", text.c_str());
  signal(index, (std::string("icon,") + icon).c_str());
  signal_kind(index);
  /* A key without a use is not there. */
  if (does == action::none) {
    evas_object_hide(one.picture);
  } else {
    evas_object_show(one.picture);
  }
  say_key(index);
}

void place_key(int index, int column, int row, int columns) {
  evas_object_table_pack(pad.table, pad.keys[static_cast<size_t>(index)].picture, static_cast<unsigned short>(column),
                         static_cast<unsigned short>(row), static_cast<unsigned short>(columns), 1);
}

void refresh() {
  tell_keys();
  const keypad_layout &now = layout();
  pad.page = std::min(pad.page, now.pages.size() - 1);
  const std::vector<std::string> page = keypad_page_keys(now, pad.page);
  for (int i = 0; i < KEYPAD_PAGE_KEYS; i++) {
    const bool used = static_cast<size_t>(i) < page.size();
    set_key(i, used ? action::text : action::none, used ? shifted(page[static_cast<size_t>(i)]) : "");
  }
  int next = KEYPAD_PAGE_KEYS;
  set_key(next++, action::backspace, "", "backspace");
  if (now.has_case) {
    set_key(next++, action::shift, "",
            pad.shifted == shift::off    ? "shift"
            : pad.shifted == shift::once ? "shift_on"
                                         : "shift_lock");
  } else {
    set_key(next++, now.pages.size() > 2 ? action::previous_page : action::none, "‹");
  }
  set_key(next++, now.pages.size() > 1 ? action::next_page : action::none,
          std::to_string(pad.page + 1) + "/" + std::to_string(now.pages.size()));

  const bool letters = pad.shows == mode::letters;
  /* Where the own letters include the English ones there is nothing to change to. */
  const bool choice = letters && pad.own != nullptr && static_cast<unsigned char>(pad.own->pages[0][0]) >= 0x80;
  set_key(next++, pad.shows == mode::symbols ? action::letters : action::symbols,
          pad.shows == mode::symbols ? "ABC" : "123");
  set_key(next++, pad.shows == mode::emoticons ? action::letters : action::emoticons,
          pad.shows == mode::emoticons ? "ABC" : ":-)");
  set_key(next++, choice ? action::language : action::none, "", "globe");
  const int space = next++;
  set_key(space, action::text, " ");
  edje_object_part_text_set(pad.keys[static_cast<size_t>(space)].picture, "text", now.name != nullptr ? now.name : "␣");
  place_key(space, choice ? 3 : 2, ROWS - 1, choice ? 1 : 2);
  set_key(next++, action::enter, "", "enter");
  set_key(next++, action::hide, "", "hide");
  if (pad.ringed >= 0) ring(pad.keys[static_cast<size_t>(pad.ringed)].does == action::none ? 0 : pad.ringed);
}

void show_mode(mode shows) {
  pad.shows = shows;
  pad.page = 0;
  pad.shifted = shift::off;
  pad.pending.clear();
  if (pad.ringed >= 0) pad.ringed = 0;
  refresh();
}

/* A new text begins with a capital, where the letters have them. */
void begin_with_capital() {
  if (pad.shows != mode::letters || pad.entry == nullptr || *elm_entry_entry_get(pad.entry) != '\0') return;
  pad.shifted = layout().has_case ? shift::once : shift::off;
  refresh();
}

void turn_page(int by) {
  const size_t pages = layout().pages.size();
  pad.page = (pad.page + pages + static_cast<size_t>(by < 0 ? pages - 1 : 1)) % pages;
  refresh();
}

void use_key(int index) {
  /* A copy: typing may end in anything. */
  const action does = pad.keys[static_cast<size_t>(index)].does;
  const std::string text = pad.keys[static_cast<size_t>(index)].text;
  switch (does) {
    case action::text:
      type(keypad_compose_key(layout().compose, text, &pad.pending));
      if (pad.shifted == shift::once && text != " ") {
        pad.shifted = shift::off;
        if (pad.conformant != nullptr) refresh();
      }
      break;
    case action::backspace:
      type(keypad_compose_backspace(layout().compose, &pad.pending));
      break;
    case action::enter:
      pad.pending.clear();
      if (can_type()) feed("Return", "\n");
      break;
    case action::shift:
      pad.shifted = pad.shifted == shift::off ? shift::once : pad.shifted == shift::once ? shift::lock : shift::off;
      refresh();
      break;
    case action::next_page:
      turn_page(1);
      break;
    case action::previous_page:
      turn_page(-1);
      break;
    case action::letters:
      show_mode(mode::letters);
      break;
    case action::symbols:
      show_mode(mode::symbols);
      break;
    case action::emoticons:
      show_mode(mode::emoticons);
      break;
    case action::language:
      pad.english = !pad.english;
      show_mode(mode::letters);
      begin_with_capital();
      break;
    case action::hide:
      keypad_hide();
      break;
    case action::none:
      break;
  }
}

/* --- a keyboard's keys --- */

/* Down from the text's last line comes to the keys, Up from their first row goes back. Letters are typed all the while:
   the focus stays in the entry, and its cursor says where they go; but the ring is around one thing. */
constexpr const char *ring_keys[] = {"Up",     "KP_Up",    "Left", "KP_Left", "Right", "KP_Right",
                                     "Return", "KP_Enter", "Home", "End",     "Prior", "Next"};
constexpr const char *down_keys[] = {"Down", "KP_Down"};

void hear(const char *key, bool wanted) {
  if (!wanted)
    evas_object_key_ungrab(pad.ground, key, 0, 0);
  else if (!evas_object_key_grab(pad.ground, key, 0, 0, EINA_TRUE))
    __dlog_print(DLOG_WARN, LOG_TAG, "the key %s cannot be taken", key);
}

void ring(int index) {
  if ((pad.ringed >= 0) != (index >= 0))
    for (const char *name : ring_keys) hear(name, index >= 0);
  pad.ringed = index;
  if (index < 0) {
    evas_object_hide(pad.ring);
    elm_win_focus_highlight_enabled_set(pad.win, EINA_TRUE);
    return;
  }
  elm_win_focus_highlight_enabled_set(pad.win, EINA_FALSE);
  if (pad.ring == nullptr) {
    pad.ring = edje_object_add(evas_object_evas_get(pad.win));
    edje_object_file_set(pad.ring, platform_path(THEME_FILE), "elm/focus_highlight/top/default");
    edje_object_signal_emit(pad.ring, "elm,action,focus,show", "elm");
    evas_object_size_hint_align_set(pad.ring, EVAS_HINT_FILL, EVAS_HINT_FILL);
    evas_object_pass_events_set(pad.ring, EINA_TRUE);
  }
  unsigned short column = 0, row = 0, columns = 1, rows = 1;
  evas_object_table_pack_get(pad.table, pad.keys[static_cast<size_t>(index)].picture, &column, &row, &columns, &rows);
  evas_object_table_pack(pad.table, pad.ring, column, row, columns, rows);
  evas_object_show(pad.ring);
}

void touched() {
  if (pad.ringed < 0) return;
  ring(-1);
  elm_win_focus_highlight_enabled_set(pad.win, EINA_FALSE); /* a finger needs none */
}

int key_beside(int from, int dx, int dy) {
  std::vector<Evas_Object *> pictures;
  for (const key &one : pad.keys) pictures.push_back(one.does == action::none ? nullptr : one.picture);
  return keypad_find_beside(pictures, static_cast<size_t>(from), dx, dy);
}

void key_down_cb(void *, Evas *, Evas_Object *, void *info) {
  const std::string_view name = static_cast<const Evas_Event_Key_Down *>(info)->key;
  if (pad.conformant == nullptr || pad.entry == nullptr || !can_type()) return;
  if (pad.ringed < 0) {
    pad.pending.clear();
    if (!elm_entry_cursor_down(pad.entry)) ring(0);
  } else if (name == "Return" || name == "KP_Enter") {
    use_key(pad.ringed);
  } else {
    const int dx = name.ends_with("Right") ? 1 : name.ends_with("Left") ? -1 : 0;
    const int dy = name.ends_with("Down") ? 1 : name.ends_with("Up") ? -1 : 0;
    const int next = key_beside(pad.ringed, dx, dy);
    if (next >= 0 || dy < 0) ring(next);
  }
}

void hear_keyboard(bool wanted) {
  if (pad.ringed >= 0) ring(-1);
  for (const char *name : down_keys) hear(name, wanted);
}

/* --- touches --- */

int key_at(int x, int y) {
  for (int i = 0; i < KEYS; i++) {
    const key &one = pad.keys[static_cast<size_t>(i)];
    int kx, ky, kw, kh;
    evas_object_geometry_get(one.picture, &kx, &ky, &kw, &kh);
    if (one.does != action::none && x >= kx && x < kx + kw && y >= ky && y < ky + kh) return i;
  }
  return -1;
}

void stop_repeat() {
  if (pad.repeat != nullptr) ecore_timer_del(pad.repeat);
  pad.repeat = nullptr;
}

void press(int index) {
  if (pad.pressed == index) return;
  if (pad.pressed >= 0) signal_kind(pad.pressed);
  stop_repeat();
  pad.pressed = index;
  if (index >= 0) signal(index, "key,press");
}

Eina_Bool repeat_cb(void *) {
  pad.repeated = true;
  use_key(pad.pressed);
  if (pad.repeat == nullptr) return ECORE_CALLBACK_CANCEL; /* the keypad is gone by now */
  ecore_timer_interval_set(pad.repeat, REPEAT_EVERY);
  return ECORE_CALLBACK_RENEW;
}

void touch_down_cb(void *, Evas *, Evas_Object *, void *info) {
  const auto *event = static_cast<const Evas_Event_Mouse_Down *>(info);
  if (event->button != 1) return;
  pad.down_x = event->canvas.x;
  pad.swiped = false;
  pad.repeated = false;
  touched();
  press(key_at(event->canvas.x, event->canvas.y));
  if (pad.pressed >= 0 && pad.keys[static_cast<size_t>(pad.pressed)].does == action::backspace)
    pad.repeat = ecore_timer_add(REPEAT_AFTER, repeat_cb, nullptr);
}

void touch_move_cb(void *, Evas *, Evas_Object *, void *info) {
  const auto *event = static_cast<const Evas_Event_Mouse_Move *>(info);
  if ((event->buttons & 1) == 0 || pad.swiped) return;
  const int moved = event->cur.canvas.x - pad.down_x;
  const bool can_swipe = layout().pages.size() > 1 && !pad.repeated;
  if (can_swipe && std::abs(moved) >= SWIPE_DISTANCE * elm_config_scale_get()) {
    press(-1);
    pad.swiped = true;
    turn_page(moved < 0 ? 1 : -1);
  } else if (!pad.repeated) {
    press(key_at(event->cur.canvas.x, event->cur.canvas.y));
  }
}

void touch_up_cb(void *, Evas *, Evas_Object *, void *info) {
  const auto *event = static_cast<const Evas_Event_Mouse_Up *>(info);
  if (event->button != 1) return;
  const int index = pad.pressed;
  const bool use = index >= 0 && !pad.swiped && !pad.repeated;
  press(-1);
  if (use) use_key(index);
}

/* --- showing and hiding --- */

void tell_size() {
  int w = 0;
  int h = 0;
  evas_object_geometry_get(pad.win, nullptr, nullptr, &w, &h);
  Evas_Coord_Rectangle place = {0, h - pad.height, w, pad.height};
  if (pad.conformant != nullptr) evas_object_smart_callback_call(pad.conformant, "virtualkeypad,size,changed", &place);
}

bool make_keys() {
  if (pad.ground != nullptr) return true;
  Evas *canvas = evas_object_evas_get(pad.win);
  const char *file = platform_path(THEME_FILE);
  pad.ground = edje_object_add(canvas);
  if (!edje_object_file_set(pad.ground, file, "platform/keypad/base")) {
    __dlog_print(DLOG_ERROR, LOG_TAG, "the keypad's look is missing in \"%s\"", file);
    evas_object_del(pad.ground);
    pad.ground = nullptr;
    return false;
  }
  pad.table = evas_object_table_add(canvas);
  evas_object_table_homogeneous_set(pad.table, EVAS_OBJECT_TABLE_HOMOGENEOUS_TABLE);
  for (int i = 0; i < KEYS; i++) {
    Evas_Object *picture = edje_object_add(canvas);
    edje_object_file_set(picture, file, "platform/keypad/key");
    evas_object_size_hint_weight_set(picture, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
    evas_object_size_hint_align_set(picture, EVAS_HINT_FILL, EVAS_HINT_FILL);
    evas_object_pass_events_set(picture, EINA_TRUE);
    pad.keys[static_cast<size_t>(i)].picture = picture;
    if (i < KEYPAD_PAGE_KEYS) {
      place_key(i, i % (COLUMNS - 1), i / (COLUMNS - 1), 1);
    } else if (i < KEYPAD_PAGE_KEYS + ROWS - 1) {
      place_key(i, COLUMNS - 1, i - KEYPAD_PAGE_KEYS, 1);
    } else {
      place_key(i, i - KEYPAD_PAGE_KEYS - (ROWS - 1), ROWS - 1, 1);
    }
  }
  edje_object_part_swallow(pad.ground, "keys", pad.table);
  evas_object_pass_events_set(pad.table, EINA_TRUE);
  /* The window's widgets are not to see these touches: they would move the focus. */
  evas_object_propagate_events_set(pad.ground, EINA_FALSE);
  evas_object_event_callback_add(pad.ground, EVAS_CALLBACK_MOUSE_DOWN, touch_down_cb, nullptr);
  evas_object_event_callback_add(pad.ground, EVAS_CALLBACK_MOUSE_MOVE, touch_move_cb, nullptr);
  evas_object_event_callback_add(pad.ground, EVAS_CALLBACK_MOUSE_UP, touch_up_cb, nullptr);
  evas_object_event_callback_add(pad.ground, EVAS_CALLBACK_KEY_DOWN, key_down_cb, nullptr);
  return true;
}

void fit_height() {
  int h = 0;
  /* Its room is the conformant's, which is less than the window on a round display. */
  Evas_Object *room = keypad_find(pad.win, keypad_is_conformant);
  evas_object_geometry_get(room ? room : pad.win, nullptr, nullptr, nullptr, &h);
  const double scale = elm_config_scale_get();
  const double row = std::clamp(h * 0.156, KEY_HEIGHT_MIN * scale, KEY_HEIGHT_MAX * scale);
  /* The text being written must stay in sight, whatever the scale. */
  pad.height = static_cast<int>(std::min(row * ROWS + 4 * scale, h * 0.66));
  evas_object_size_hint_min_set(pad.ground, 0, pad.height);
}

void entry_unfocused_cb(void *, Evas_Object *, void *) {
  keypad_hide();
}

void entry_cursor_moved_cb(void *, Evas_Object *, void *) {
  pad.pending.clear();
}

void entry_deleted_cb(void *, Evas *, Evas_Object *, void *) {
  pad.entry = nullptr;
  keypad_hide();
}

void serve(Evas_Object *entry) {
  if (entry == pad.entry) return;
  if (pad.entry != nullptr) {
    evas_object_smart_callback_del_full(pad.entry, "unfocused", entry_unfocused_cb, nullptr);
    evas_object_smart_callback_del_full(pad.entry, "cursor,changed,manual", entry_cursor_moved_cb, nullptr);
    evas_object_event_callback_del_full(pad.entry, EVAS_CALLBACK_DEL, entry_deleted_cb, nullptr);
  }
  pad.entry = entry;
  pad.pending.clear();
  if (entry == nullptr) return;
  evas_object_smart_callback_add(entry, "unfocused", entry_unfocused_cb, nullptr);
  evas_object_smart_callback_add(entry, "cursor,changed,manual", entry_cursor_moved_cb, nullptr);
  evas_object_event_callback_add(entry, EVAS_CALLBACK_DEL, entry_deleted_cb, nullptr);
}

void back_cb(void *, Evas_Object *, void *) {
  keypad_hide();
}

void load_language() {
  const std::unique_ptr<char, decltype(&free)> language(vconf_get_str(BRISEL_KEY_LANGUAGE), free);
  const keypad_layout *own = &keypad_layout_for(language != nullptr ? language.get() : "");
  if (own != pad.own) pad.english = false;
  pad.own = own;
}

/* Someone who changes the language while writing goes on in the new one. */
void language_changed_cb(keynode_t *, void *) {
  load_language();
  show_mode(mode::letters);
  begin_with_capital();
}

void conformant_deleted_cb(void *, Evas *, Evas_Object *, void *) {
  pad.conformant = nullptr;
  pad.displaced = nullptr;
  vconf_ignore_key_changed(BRISEL_KEY_LANGUAGE, language_changed_cb);
  hear_keyboard(false);
  keypad_spoken_end(true);
  serve(nullptr);
  press(-1);
  evas_object_hide(pad.ground);
}

void watched_deleted_cb(void *, Evas *, Evas_Object *, void *) {
  pad.watched = nullptr;
}

/* A touch that was no drag and ended on an entry that has, or has just got, the focus. */
void touched_cb(void *, Evas *, Evas_Object *, void *info) {
  const auto *event = static_cast<const Evas_Event_Mouse_Up *>(info);
  touched();
  if (event->button != 1 || (event->event_flags & EVAS_EVENT_FLAG_ON_HOLD) != 0) return;
  Evas_Object *focused = app_efl_focused(pad.win);
  if (!keypad_is_editable_entry(focused)) return;
  Eina_Rectangle at;
  evas_object_geometry_get(focused, &at.x, &at.y, &at.w, &at.h);
  if (eina_rectangle_coords_inside(&at, event->canvas.x, event->canvas.y)) keypad_show();
}

/* Touches reach the conformant after the widgets in it. It comes later than the window, but before any focus. */
void focus_came_cb(void *, Evas *, void *) {
  if (pad.watched != nullptr) return;
  pad.watched = keypad_find(pad.win, keypad_is_conformant);
  if (pad.watched == nullptr) return;
  evas_object_event_callback_add(pad.watched, EVAS_CALLBACK_MOUSE_UP, touched_cb, nullptr);
  evas_object_event_callback_add(pad.watched, EVAS_CALLBACK_DEL, watched_deleted_cb, nullptr);
}

void window_resized_cb(void *, Evas *, Evas_Object *, void *) {
  if (pad.conformant == nullptr) return;
  fit_height();
  tell_size();
}

void window_deleted_cb(void *, Evas *, Evas_Object *, void *) {
  serve(nullptr);
  vconf_ignore_key_changed(BRISEL_KEY_LANGUAGE, language_changed_cb);
  if (pad.conformant != nullptr)
    evas_object_event_callback_del_full(pad.conformant, EVAS_CALLBACK_DEL, conformant_deleted_cb, nullptr);
  if (pad.watched != nullptr) {
    evas_object_event_callback_del_full(pad.watched, EVAS_CALLBACK_MOUSE_UP, touched_cb, nullptr);
    evas_object_event_callback_del_full(pad.watched, EVAS_CALLBACK_DEL, watched_deleted_cb, nullptr);
  }
  stop_repeat();
  /* The ground may have died with the conformant that showed it; what is left goes with the canvas. */
  pad = {};
}

}  // namespace

void keypad_attach(Evas_Object *win) {
  if (win == nullptr || pad.win != nullptr) return;
  pad.win = win;
  evas_event_callback_add(evas_object_evas_get(win), EVAS_CALLBACK_CANVAS_OBJECT_FOCUS_IN, focus_came_cb, nullptr);
  evas_object_event_callback_add(win, EVAS_CALLBACK_RESIZE, window_resized_cb, nullptr);
  evas_object_event_callback_add(win, EVAS_CALLBACK_DEL, window_deleted_cb, nullptr);
}

void keypad_show(void) {
  if (pad.win == nullptr) return;
  Evas_Object *entry = app_efl_focused(pad.win);
  if (!keypad_is_editable_entry(entry)) {
    /* Asked for by hand: the keypad then is for the entry that is in sight. */
    entry = keypad_find(pad.win, keypad_is_editable_entry);
    if (entry != nullptr) elm_object_focus_set(entry, EINA_TRUE);
  }
  if (pad.conformant == nullptr) {
    Evas_Object *conformant = keypad_find(pad.win, keypad_is_conformant);
    if (conformant == nullptr || !make_keys()) return;
    Evas_Object *frame = elm_layout_edje_get(conformant);
    load_language();
    show_mode(mode::letters);
    fit_height();
    /* Not through the widget, which would delete the stand-in that it keeps there. */
    pad.displaced = edje_object_part_swallow_get(frame, CONFORMANT_PART);
    if (pad.displaced != nullptr) {
      edje_object_part_unswallow(frame, pad.displaced);
      evas_object_hide(pad.displaced);
    }
    if (!edje_object_part_swallow(frame, CONFORMANT_PART, pad.ground)) {
      __dlog_print(DLOG_ERROR, LOG_TAG, "the window's frame has no place for the keypad");
      return;
    }
    evas_object_show(pad.ground);
    pad.conformant = conformant;
    evas_object_event_callback_add(conformant, EVAS_CALLBACK_DEL, conformant_deleted_cb, nullptr);
    ea_object_event_callback_add(pad.ground, EA_CALLBACK_BACK, back_cb, nullptr);
    vconf_notify_key_changed(BRISEL_KEY_LANGUAGE, language_changed_cb, nullptr);
    hear_keyboard(true);
    tell_keys();
    serve(entry);
    begin_with_capital();
    tell_size();
  } else {
    serve(entry);
  }
}

void keypad_hide(void) {
  if (pad.conformant == nullptr) return;
  Evas_Object *conformant = pad.conformant;
  Evas_Object *frame = elm_layout_edje_get(conformant);
  hear_keyboard(false);
  keypad_spoken_end(false);
  serve(nullptr);
  press(-1);
  ea_object_event_callback_del(pad.ground, EA_CALLBACK_BACK, back_cb);
  vconf_ignore_key_changed(BRISEL_KEY_LANGUAGE, language_changed_cb);
  evas_object_event_callback_del_full(conformant, EVAS_CALLBACK_DEL, conformant_deleted_cb, nullptr);
  edje_object_part_unswallow(frame, pad.ground);
  evas_object_hide(pad.ground);
  if (pad.displaced != nullptr) edje_object_part_swallow(frame, CONFORMANT_PART, pad.displaced);
  pad.displaced = nullptr;
  pad.height = 0;
  tell_size();
  pad.conformant = nullptr;
}

Eina_Bool keypad_shown(void) {
  return pad.conformant != nullptr ? EINA_TRUE : EINA_FALSE;
}

Eina_Bool keypad_ringed(void) {
  return pad.ringed >= 0 ? EINA_TRUE : EINA_FALSE;
}
