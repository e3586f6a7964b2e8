/* Lists by keyboard: the focus goes from row to row, by pages and to the ends, and is never out of sight. The toolkit's
   own way goes into what a row holds, stops at rows not drawn yet, and hides the focused row below a header. */
#include <algorithm>
#include <cstring>
#include <string_view>

#include "app_efl.h"
#include "brisel-app-touch.h"
#include "brisel-app-view-common.h"

/* Every list that follows keys. */
static Eina_List *lists;

enum list_move { MOVE_NONE, MOVE_UP, MOVE_DOWN, MOVE_PAGE_UP, MOVE_PAGE_DOWN, MOVE_FIRST, MOVE_LAST };

static list_move _move_of(const char *key) {
  constexpr struct {
    const char *name;
    list_move move;
  } moves[] = {{"Up", MOVE_UP},          {"KP_Up", MOVE_UP},          {"Down", MOVE_DOWN},
               {"KP_Down", MOVE_DOWN},   {"Prior", MOVE_PAGE_UP},     {"KP_Prior", MOVE_PAGE_UP},
               {"Next", MOVE_PAGE_DOWN}, {"KP_Next", MOVE_PAGE_DOWN}, {"Home", MOVE_FIRST},
               {"KP_Home", MOVE_FIRST},  {"End", MOVE_LAST},          {"KP_End", MOVE_LAST}};
  for (const auto &one : moves)
    if (!strcmp(one.name, key)) return one.move;
  return MOVE_NONE;
}

static int _rows_of_page(Evas_Object *list, Elm_Object_Item *row) {
  int list_height = 0, row_height = 0;
  evas_object_geometry_get(list, nullptr, nullptr, nullptr, &list_height);
  if (Evas_Object *view = elm_object_item_track(row))
    evas_object_geometry_get(view, nullptr, nullptr, nullptr, &row_height);
  elm_object_item_untrack(row);
  /* The last row stays as the first, so that nobody loses the place. */
  return row_height > 0 ? std::max(list_height / row_height - 1, 1) : 1;
}

/* Where the keys begin: at the top, past the header, or on a row in sight. */
static Elm_Object_Item *_first_in_sight(Evas_Object *list) {
  int x = 0, y = 0, width = 0, height = 0, scrolled = 0;
  evas_object_geometry_get(list, &x, &y, &width, &height);
  elm_scroller_region_get(list, nullptr, &scrolled, nullptr, nullptr);
  Elm_Object_Item *middle =
      scrolled > 0 ? elm_genlist_at_xy_item_get(list, x + width / 2, y + height / 2, nullptr) : nullptr;
  if (middle) return middle;
  Elm_Object_Item *first = elm_genlist_first_item_get(list);
  Elm_Object_Item *second =
      first && elm_genlist_item_type_get(first) & ELM_GENLIST_ITEM_GROUP ? elm_genlist_item_next_get(first) : nullptr;
  return second ? second : first;
}

/* The row that the key leads to; NULL: out of the list. */
static Elm_Object_Item *_target_of(Evas_Object *list, Elm_Object_Item *from, list_move move) {
  if (move == MOVE_FIRST) return elm_genlist_first_item_get(list);
  if (move == MOVE_LAST) return elm_genlist_last_item_get(list);
  if (!from) return _first_in_sight(list);
  const bool goes_up = move == MOVE_UP || move == MOVE_PAGE_UP;
  const bool by_page = move == MOVE_PAGE_UP || move == MOVE_PAGE_DOWN;
  Elm_Object_Item *target = nullptr, *next = from;
  for (int left = by_page ? _rows_of_page(list, from) : 1; left > 0; left--) {
    next = goes_up ? elm_genlist_item_prev_get(next) : elm_genlist_item_next_get(next);
    if (!next) break;
    target = next;
  }
  return target || !by_page ? target : from;
}

static void _show_row(Elm_Object_Item *row, list_move move) {
  /* A header lies over the top: the row before keeps the place that it covers. */
  Elm_Object_Item *before = elm_genlist_item_parent_get(row) ? elm_genlist_item_prev_get(row) : nullptr;
  const bool goes_up = move == MOVE_UP || move == MOVE_PAGE_UP || move == MOVE_FIRST;
  elm_genlist_item_show(goes_up && before ? before : row, ELM_GENLIST_ITEM_SCROLLTO_IN);
}

/* --- a row's button --- */

static const char button_key[] = "brisel/row_button";

static void _button_unfocused_cb(void *data, Evas_Object *obj, void *event_info) {
  elm_object_focus_allow_set(obj, EINA_FALSE);
}

static void _button_key_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  Evas_Event_Key_Down *event = (Evas_Event_Key_Down *)event_info;
  const char *back = elm_object_mirrored_get((Evas_Object *)data) ? "Right" : "Left";
  if (strcmp(event->key, back) != 0 && _move_of(event->key) == MOVE_NONE) return;
  event->event_flags = (Evas_Event_Flags)(event->event_flags | EVAS_EVENT_FLAG_ON_HOLD);
  Evas_Object *list = (Evas_Object *)data;
  Elm_Object_Item *row = elm_object_focused_item_get(list);
  elm_object_focus_allow_set(obj, EINA_FALSE);
  elm_object_focus_set(list, EINA_TRUE);
  if (row) elm_object_item_focus_set(row, EINA_TRUE);
}

void brisel_view_row_button(Evas_Object *list, Evas_Object *icon, Evas_Object *button) {
  elm_object_focus_allow_set(button, EINA_FALSE);
  evas_object_data_set(icon, button_key, button);
  evas_object_smart_callback_add(button, "unfocused", _button_unfocused_cb, nullptr);
  evas_object_event_callback_priority_add(button, EVAS_CALLBACK_KEY_DOWN, EVAS_CALLBACK_PRIORITY_BEFORE, _button_key_cb,
                                          list);
}

static bool _focus_button_of(Elm_Object_Item *row) {
  Evas_Object *icon = elm_object_item_part_content_get(row, "elm.icon");
  Evas_Object *button = icon ? (Evas_Object *)evas_object_data_get(icon, button_key) : nullptr;
  if (!button) return false;
  elm_object_focus_allow_set(button, EINA_TRUE);
  elm_object_focus_set(button, EINA_TRUE);
  return true;
}

/* --- keys --- */

/* The button at the end of the title above the list; NULL: none. */
static Evas_Object *_title_button_above(Evas_Object *list) {
  for (Evas_Object *at = elm_object_parent_widget_get(list); at; at = elm_object_parent_widget_get(at)) {
    const std::string_view type = elm_object_widget_type_get(at);
    if (type == "Elm_Popup") return nullptr;
    if (type == "Elm_Naviframe")
      return elm_object_item_part_content_get(elm_naviframe_top_item_get(at), "elm.swallow.next_btn");
  }
  return nullptr;
}

static void _leave_list(Evas_Object *list, list_move move) {
  Evas_Object *above = move == MOVE_UP ? _title_button_above(list) : nullptr;
  if (above)
    elm_object_focus_set(above, EINA_TRUE);
  else if (move == MOVE_DOWN)
    elm_object_focus_next(list, ELM_FOCUS_DOWN);
}

static void _key_down_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  Evas_Event_Key_Down *event = (Evas_Event_Key_Down *)event_info;
  if (event->event_flags & EVAS_EVENT_FLAG_ON_HOLD) return;
  Elm_Object_Item *row = elm_object_focused_item_get(obj);
  const list_move move = _move_of(event->key);
  /* A step that only shows where the focus is, is none. */
  const bool is_step = move == MOVE_UP || move == MOVE_DOWN;
  Elm_Object_Item *target = row && is_step && brisel_touch_key_reveals(event->timestamp) ? row
                            : move == MOVE_NONE                                          ? nullptr
                                                                                         : _target_of(obj, row, move);
  if (target) {
    elm_object_item_focus_set(target, EINA_TRUE);
    _show_row(target, move);
  } else if (is_step) {
    _leave_list(obj, move);
  } else if (!row || strcmp(event->key, elm_object_mirrored_get(obj) ? "Left" : "Right") != 0 ||
             !_focus_button_of(row)) {
    return;
  }
  event->event_flags = (Evas_Event_Flags)(event->event_flags | EVAS_EVENT_FLAG_ON_HOLD);
}

/* --- where the focus begins --- */

/* Never the list itself: a ring around it would say nothing. */
static void _focus_in_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  if (elm_object_focused_item_get(obj)) return;
  if (Elm_Object_Item *row = _first_in_sight(obj)) elm_object_item_focus_set(row, EINA_TRUE);
}

static void _list_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  lists = eina_list_remove(lists, obj);
}

static bool _is_within(Evas_Object *object, const Evas_Object *holder) {
  while (object && object != holder) object = elm_object_parent_widget_get(object);
  return object != nullptr;
}

/* The toolkit brings what gets the focus into sight, also within the little that the keypad leaves before it goes. The
   list stays where it is: the first key shows where the focus is. */
static void _focus_row(Evas_Object *list) {
  int x = 0, y = 0, w = 0, h = 0;
  elm_scroller_region_get(list, &x, &y, &w, &h);
  elm_object_focus_set(list, EINA_TRUE);
  _focus_in_cb(nullptr, nullptr, list, nullptr);
  elm_scroller_region_show(list, x, y, w, h);
}

/* A popup that a key opens has its rows only later: until then the ring would be around all of it. */
static void _rows_stand_job_cb(void *data) {
  Evas_Object *list = (Evas_Object *)data;
  if (!eina_list_data_find(lists, list) || !elm_object_focus_get(list)) return;
  Elm_Object_Item *row = elm_object_focused_item_get(list);
  if (row) elm_object_item_focus_set(row, EINA_FALSE);
  elm_object_focus_set(list, EINA_TRUE);
  elm_object_item_focus_set(row ? row : _first_in_sight(list), EINA_TRUE);
}

static void _rows_stand_cb(void *data, Evas_Object *obj, void *event_info) {
  evas_object_smart_callback_del(obj, "realized", _rows_stand_cb);
  ecore_job_add(_rows_stand_job_cb, obj);
}

static bool _is_realized(Evas_Object *list, const Elm_Object_Item *row) {
  Eina_List *rows = elm_genlist_realized_items_get(list);
  const bool is_realized = eina_list_data_find(rows, row) != nullptr;
  eina_list_free(rows);
  return is_realized;
}

void brisel_view_refocus_row(Evas_Object *list, int place) {
  const int last = (int)elm_genlist_items_count(list) - 1;
  if (place < 0 || last < 0 || !elm_object_focus_get(list)) return;
  /* One that does not show would only scroll away from what a finger has brought here. */
  if (!elm_win_focus_highlight_enabled_get(elm_object_top_widget_get(list))) return;
  Elm_Object_Item *row = elm_genlist_nth_item_get(list, (unsigned)std::min(place, last));
  elm_object_item_focus_set(row, EINA_TRUE);
  elm_genlist_item_show(row, ELM_GENLIST_ITEM_SCROLLTO_IN); /* other rows may have pushed it out of sight */
  /* Of one that stands already none would come before a finger scrolls, and be scrolled away from. */
  if (!_is_realized(list, row)) evas_object_smart_callback_add(list, "realized", _rows_stand_cb, nullptr);
}

int brisel_view_focused_place(Evas_Object *list) {
  const Elm_Object_Item *row = elm_object_focused_item_get(list);
  return row ? elm_genlist_item_index_get(row) - 1 : -1; /* the toolkit counts from one */
}

static const Evas_Object *_popup_around(const Evas_Object *object) {
  for (; object; object = elm_object_parent_widget_get(object))
    if (!strcmp(elm_object_widget_type_get(object), "Elm_Popup")) return object;
  return nullptr;
}

/* Popups have the focus for themselves: the one that has it, or one with a list, from which a finger that was lifted
   after a long press gave it to what it lay on. NULL: there is none. */
static const Evas_Object *_popup_for_keys(Evas_Object *naviframe) {
  const Evas_Object *popup = _popup_around(app_efl_focused(naviframe));
  const Eina_List *cell;
  const void *list;
  EINA_LIST_FOREACH(lists, cell, list)
  if (!popup) popup = _popup_around((const Evas_Object *)list);
  return popup;
}

void brisel_view_focus_list(Evas_Object *naviframe) {
  Elm_Object_Item *top = elm_naviframe_top_item_get(naviframe);
  const Evas_Object *holder = _popup_for_keys(naviframe);
  if (!holder && top) holder = elm_object_item_part_content_get(top, nullptr);
  Eina_List *cell;
  void *list;
  EINA_LIST_FOREACH(lists, cell, list)
  if (holder && _is_within((Evas_Object *)list, holder)) _focus_row((Evas_Object *)list);
}

void brisel_view_stop_lists() {
  Eina_List *cell;
  void *list;
  EINA_LIST_FOREACH(lists, cell, list) brisel_view_stop_scrolling((Evas_Object *)list);
}

void brisel_view_list_keys(Evas_Object *list) {
  lists = eina_list_append(lists, list);
  evas_object_event_callback_add(list, EVAS_CALLBACK_DEL, _list_gone_cb, nullptr);
  evas_object_event_callback_add(list, EVAS_CALLBACK_FOCUS_IN, _focus_in_cb, nullptr);
  evas_object_smart_callback_add(list, "realized", _rows_stand_cb, nullptr);
  evas_object_event_callback_priority_add(list, EVAS_CALLBACK_KEY_DOWN, EVAS_CALLBACK_PRIORITY_BEFORE, _key_down_cb,
                                          nullptr);
}
