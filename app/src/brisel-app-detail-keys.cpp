/* The reader by keyboard: turning, reading on, deleting, and Tab's ring around what can be pressed on the page on
   screen. The toolkit's own focus stays out of the reader: it would go to any page, and turn to it. Owns the ring. The
   main file and the touches call it. */
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "brisel-app-detail.h"
#include "brisel-app-touch.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"

/* A grabbed key is heard whatever lies over the reader: it is for the reader only when nothing does. */
static bool __brisel_detail_is_on_top(const brisel_detail_view *view_data) {
  if (!brisel_view_on_top(view_data)) return false;
  int x = 0, y = 0, w = 0, h = 0;
  evas_object_geometry_get(view_data->page_scroller_layout, &x, &y, &w, &h);
  /* The objects that a touch in the middle would reach. */
  Eina_List *reached =
      evas_tree_objects_at_xy_get(evas_object_evas_get(view_data->page_scroller_layout), nullptr, x + w / 2, y + h / 2);
  bool is_reached = false;
  for (Eina_List *cell = reached; cell && !is_reached; cell = cell->next)
    for (Evas_Object *at = (Evas_Object *)cell->data; at && !is_reached; at = evas_object_smart_parent_get(at))
      is_reached = at == view_data->page_scroller_layout;
  eina_list_free(reached);
  return is_reached;
}

/* --- the ring --- */

/* What can be pressed: a button, or a place on the mail's own texts. */
struct detail_target {
  Evas_Object *button;
  Eina_Rectangle place;
};

/* From the page's top to its end, and then the button of its title. */
static std::vector<detail_target> __brisel_detail_targets(const page_data *page) {
  std::vector<detail_target> targets;
  for (const Eina_Rectangle &place : __brisel_detail_tap_places(page)) targets.push_back({nullptr, place});
  Evas_Object *title = elm_object_part_content_get(page->page_layout, "title");
  for (Evas_Object *button : {elm_object_part_content_get(page->detail_layout, "detail.lbutton"),
                              elm_object_part_content_get(page->detail_layout, "detail.rbutton"),
                              title ? elm_object_part_content_get(title, "elm.swallow.next_btn") : nullptr})
    if (button) targets.push_back({button, {}});
  return targets;
}

static void __brisel_detail_place_ring(const brisel_detail_view *view_data, const Eina_Rectangle &place) {
  int x = 0, y = 0, w = 0, h = 0;
  evas_object_geometry_get(view_data->page_scroller_layout, &x, &y, &w, &h);
  Evas_Object *grid = elm_object_part_content_get(view_data->page_scroller_layout, "ring");
  elm_grid_size_set(grid, w, h);
  elm_grid_pack(grid, view_data->ring, place.x - x, place.y - y, place.w, place.h);
}

static void __brisel_detail_ringed_moved_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  Eina_Rectangle place = {};
  evas_object_geometry_get(obj, &place.x, &place.y, &place.w, &place.h);
  __brisel_detail_place_ring((brisel_detail_view *)data, place);
}

void __brisel_detail_drop_ring(brisel_detail_view *view_data) {
  if (view_data->ringed)
    for (Evas_Callback_Type type : {EVAS_CALLBACK_MOVE, EVAS_CALLBACK_RESIZE})
      evas_object_event_callback_del_full(view_data->ringed, type, __brisel_detail_ringed_moved_cb, view_data);
  brisel_widget_ref_clear(&view_data->ringed);
  brisel_widget_ref_drop(&view_data->ring);
}

static bool __brisel_detail_make_ring(brisel_detail_view *view_data) {
  Evas_Object *layout = view_data->page_scroller_layout;
  Evas_Object *grid = elm_object_part_content_get(layout, "ring");
  if (!grid) {
    grid = elm_grid_add(layout);
    evas_object_pass_events_set(grid, EINA_TRUE);
    elm_object_part_content_set(layout, "ring", grid);
    evas_object_show(grid);
  }
  Evas_Object *ring = elm_layout_add(grid);
  if (!ring || !elm_layout_theme_set(ring, "focus_highlight", "top", "default")) return false;
  elm_layout_signal_emit(ring, "elm,action,focus,show", "elm");
  evas_object_show(ring);
  brisel_widget_ref_set(&view_data->ring, ring);
  return true;
}

/* The ring moves on by so many, and round at the end. */
static void __brisel_detail_move_ring(brisel_detail_view *view_data, int by) {
  page_data *page = __brisel_detail_page_on_screen(view_data);
  __brisel_detail_finish_rest(view_data, page);
  const std::vector<detail_target> targets = __brisel_detail_targets(page);
  const int count = (int)targets.size();
  int at = view_data->ring ? view_data->ring_at + by : by > 0 ? 0 : count - 1;
  __brisel_detail_drop_ring(view_data);
  if (!count || !__brisel_detail_make_ring(view_data)) return;
  at = view_data->ring_at = (at + count) % count;
  const detail_target &target = targets[at];
  if (!target.button) {
    view_data->ring_place = target.place;
    __brisel_detail_place_ring(view_data, target.place);
    return;
  }
  brisel_widget_ref_set(&view_data->ringed, target.button);
  for (Evas_Callback_Type type : {EVAS_CALLBACK_MOVE, EVAS_CALLBACK_RESIZE})
    evas_object_event_callback_add(target.button, type, __brisel_detail_ringed_moved_cb, view_data);
  __brisel_detail_ringed_moved_cb(view_data, nullptr, target.button, nullptr);
  /* The page's own buttons stand at its end. */
  int width = 0, height = 0;
  evas_object_geometry_get(page->detail_layout, nullptr, nullptr, &width, &height);
  if (at < count - 1) elm_scroller_region_show(page->scroller, 0, height - 1, width, 1);
}

static void __brisel_detail_press_ringed(brisel_detail_view *view_data) {
  if (!view_data->ring) return;
  if (view_data->ringed) {
    evas_object_smart_callback_call(view_data->ringed, "clicked", nullptr);
    return;
  }
  const Eina_Rectangle at = view_data->ring_place;
  __brisel_detail_drop_ring(view_data);
  __brisel_detail_tapped(view_data, at.x + at.w / 2, at.y + at.h / 2);
}

/* --- turning and scrolling --- */

bool __brisel_detail_turn_by(brisel_detail_view *view_data, int way) {
  __brisel_detail_drop_ring(view_data);
  __brisel_detail_follow_list(view_data);
  int place = __brisel_detail_place_beside(view_data, way);
  bool turns = place != __brisel_detail_place_of_mail(view_data, view_data->aimed_id);
  __brisel_detail_aim_at(view_data, place);
  __brisel_detail_settle_soon(view_data);
  return turns;
}

/* Nobody's eyes follow over more screens than these. */
constexpr int screens_in_motion = 2;
/* How often the end is looked for again where it was guessed. */
constexpr int looks_for_end = 4;

static int __brisel_detail_last_place(const page_data *page, int h) {
  int content = 0;
  evas_object_geometry_get(page->detail_layout, nullptr, nullptr, nullptr, &content);
  return std::max(0, content - h);
}

/* To the beginning or the end at once: what lies between is not laid out, and each block of it that is not as high as
   guessed would stop a movement over it. */
static void __brisel_detail_jump(const page_data *page, bool to_end) {
  int x = 0, y = 0, w = 0, h = 0, to = -1;
  elm_scroller_region_get(page->scroller, &x, &y, &w, &h);
  for (int look = 0; look < looks_for_end; look++) {
    const int place = to_end ? __brisel_detail_last_place(page, h) : 0;
    if (place == to) return;
    to = place;
    elm_scroller_region_show(page->scroller, x, to, w, h);
    evas_smart_objects_calculate(evas_object_evas_get(page->scroller));
  }
}

/* Space reads on: a screen further, and at the end what an edge means, more of the text. */
static void __brisel_detail_scroll_by(brisel_detail_view *view_data, double screens) {
  __brisel_detail_drop_ring(view_data);
  page_data *page = __brisel_detail_page_on_screen(view_data);
  if (screens > screens_in_motion) __brisel_detail_finish_rest(view_data, page);
  int x = 0, y = 0, w = 0, h = 0;
  elm_scroller_region_get(page->scroller, &x, &y, &w, &h);
  const int last = __brisel_detail_last_place(page, h);
  if (screens > 0 && y >= last) __brisel_detail_scroller_bottom_hit_cb(view_data, page->scroller, nullptr);
  const int to = (int)std::clamp(y + screens * h, 0.0, (double)last);
  if (std::abs(to - y) > screens_in_motion * h)
    __brisel_detail_jump(page, screens > 0);
  else
    elm_scroller_region_bring_in(page->scroller, x, to, w, h);
}

/* --- keys --- */

/* How far each key scrolls, in screens. */
constexpr double to_the_end = 1e6, a_screen = 0.85, a_few_lines = 0.2;

enum detail_key { KEY_TURN, KEY_SCROLL, KEY_RING, KEY_PRESS, KEY_SIZE, KEY_DELETE };

static const struct {
  const char *name;
  detail_key does;
  double by;
} reader_keys[] = {
    /* Right is the next page in every language, as a stroke is. */
    {"Left", KEY_TURN, -1},
    {"Right", KEY_TURN, 1},
    {"space", KEY_SCROLL, a_screen},
    {"Next", KEY_SCROLL, a_screen},
    {"Prior", KEY_SCROLL, -a_screen},
    {"Down", KEY_SCROLL, a_few_lines},
    {"Up", KEY_SCROLL, -a_few_lines},
    {"End", KEY_SCROLL, to_the_end},
    {"Home", KEY_SCROLL, -to_the_end},
    {"Tab", KEY_RING, 1},
    {"ISO_Left_Tab", KEY_RING, -1},
    {"Return", KEY_PRESS, 0},
    {"KP_Enter", KEY_PRESS, 0},
    {"plus", KEY_SIZE, 1},
    {"equal", KEY_SIZE, 1}, /* the plus without Shift */
    {"KP_Add", KEY_SIZE, 1},
    {"minus", KEY_SIZE, -1},
    {"KP_Subtract", KEY_SIZE, -1},
    {"Delete", KEY_DELETE, 0},
    {"KP_Delete", KEY_DELETE, 0},
};

static void __brisel_detail_do(brisel_detail_view *view_data, detail_key what, double by) {
  switch (what) {
    case KEY_TURN:
      __brisel_detail_turn_by(view_data, (int)by);
      return;
    case KEY_SCROLL:
      __brisel_detail_scroll_by(view_data, by);
      return;
    case KEY_RING:
      __brisel_detail_move_ring(view_data, (int)by);
      return;
    case KEY_PRESS:
      __brisel_detail_press_ringed(view_data);
      return;
    case KEY_SIZE:
      __brisel_detail_drop_ring(view_data);
      __brisel_detail_update_font_size(view_data, std::clamp(view_data->font_size + (int)by, 0, 2));
      return;
    case KEY_DELETE:
      __brisel_detail_ask_to_delete(view_data);
      return;
  }
}

static void __brisel_detail_key_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  const Evas_Event_Key_Down *event = (const Evas_Event_Key_Down *)event_info;
  if (__brisel_detail_touch.is_mouse_down || !__brisel_detail_is_on_top(view_data)) return;
  for (const auto &key : reader_keys) {
    if (strcmp(key.name, event->key) != 0) continue;
    const bool is_back = key.does == KEY_RING && evas_key_modifier_is_set(event->modifiers, "Shift");
    __brisel_detail_do(view_data, key.does, is_back ? -1 : key.by);
    return;
  }
}

void __brisel_detail_watch_keys(brisel_detail_view *view_data) {
  Evas_Object *layout = view_data->page_scroller_layout;
  /* Nothing in the reader has the focus, so keys are heard without it. */
  evas_object_event_callback_add(layout, EVAS_CALLBACK_KEY_DOWN, __brisel_detail_key_cb, view_data);
  for (const auto &key : reader_keys) brisel_touch_hear_key(layout, key.name, EINA_FALSE);
}

void __brisel_detail_leave_keys(brisel_detail_view *view_data) {
  Evas_Object *layout = view_data->page_scroller_layout;
  __brisel_detail_drop_ring(view_data);
  if (!layout) return;
  evas_object_event_callback_del_full(layout, EVAS_CALLBACK_KEY_DOWN, __brisel_detail_key_cb, view_data);
  for (const auto &key : reader_keys) brisel_touch_leave_key(layout, key.name);
}
