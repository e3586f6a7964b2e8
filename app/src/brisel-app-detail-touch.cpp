/* The fingers on the pages: which page a stroke means, the pull at the end of a text. The main file and paging call it.
 */
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "brisel-app-detail.h"
#include "brisel-app-utils.h"

/* Milliseconds. A stroke sideways that ends within flick_time turns the page, however short it was. */
constexpr unsigned flick_time = 300, tap_time = 500;
/* How far back a finger's last movement is looked at, and the share of a finger's width that counts as one. */
constexpr unsigned last_time = 80;
constexpr double last_move = 0.2;

bool __brisel_detail_is_held() {
  return __brisel_detail_touch.is_mouse_down || __brisel_detail_touch.other_fingers;
}

static bool __brisel_detail_is_at_end(const page_data *page) {
  if (!page || !page->scroller) return false;
  int content = 0, top = 0, view = 0;
  evas_object_geometry_get(page->detail_layout, nullptr, nullptr, nullptr, &content);
  elm_scroller_region_get(page->scroller, nullptr, &top, nullptr, &view);
  return top + view >= content;
}

/* An edge is told when it is reached: never on a page that fits into the view, and not again on one that stays at its
   end. Pulling such a page up asks for more text. */
static void __brisel_detail_pull(brisel_detail_view *view_data) {
  page_data *page = view_data->page_data[BRISEL_DETAIL_CUR_PAGE];
  if (view_data->stroke.began_at_end && page && page->scroller)
    __brisel_detail_scroller_bottom_hit_cb(view_data, page->scroller, nullptr);
}

/* Which way the finger moved when it left: 1 to the left (the next page comes), -1 to the right, 0: it stood still. */
static int __brisel_detail_last_direction(const detail_stroke *stroke) {
  int moved = 0;
  for (const detail_stroke::point &at : stroke->recent)
    if (at.time && stroke->end_time - at.time <= last_time) {
      moved = at.x - stroke->end.x;
      break;
    }
  double least = last_move * elm_config_finger_size_get();
  return moved >= least ? 1 : moved <= -least ? -1 : 0;
}

/* Turns follow each other faster than pages come to rest: each goes on from where the last one aims, and the pages
   beyond are built when they run out. Without a page on that side, the place aimed at. */
int __brisel_detail_place_beside(brisel_detail_view *view_data, int way) {
  int place = __brisel_detail_place_of_mail(view_data, view_data->aimed_id);
  if (!__brisel_detail_page_at(view_data, place + way)) {
    __brisel_detail_turn_to_aimed(view_data);
    place = __brisel_detail_place_of_mail(view_data, view_data->aimed_id);
  }
  return __brisel_detail_page_at(view_data, place + way) ? place + way : place;
}

/* The place of the page that a touch leaves for. */
static int __brisel_detail_target_of(brisel_detail_view *view_data) {
  const detail_stroke *stroke = &view_data->stroke;
  int home = __brisel_detail_place_of_mail(view_data, view_data->aimed_id);
  if (__brisel_detail_touch.is_multi) return home; /* two fingers turn nothing */
  int left = stroke->start.x - stroke->end.x, up = stroke->start.y - stroke->end.y;
  int long_enough = 2 * elm_config_finger_size_get(), last = __brisel_detail_last_direction(stroke);
  bool is_sideways = abs(left) >= long_enough && abs(left) > abs(up);
  double place = __brisel_detail_place_on_screen(view_data);
  if (is_sideways && stroke->end_time - stroke->start_time <= flick_time) {
    int way = left > 0 ? 1 : -1;
    if (last == -way) return home;
    return __brisel_detail_place_beside(view_data, way);
  }
  double to = last > 0 ? std::ceil(place) : last < 0 ? std::floor(place) : std::round(place);
  return std::clamp((int)to, home - 1, home + 1);
}

static void __brisel_detail_unfreeze(Evas_Object *scroller) {
  while (scroller && elm_object_scroll_freeze_get(scroller) > 0) elm_object_scroll_freeze_pop(scroller);
}

void __brisel_detail_unfreeze_all(brisel_detail_view *view_data) {
  __brisel_detail_unfreeze(view_data->page_scroller);
  /* Another page than the one that was frozen may be the current one by now. */
  for (const page_data *page : view_data->page_data)
    if (page) __brisel_detail_unfreeze(page->scroller);
}

/* Taps that a touch of two fingers would have made have come by now. */
static Eina_Bool __brisel_detail_touch_over_cb(void *data) {
  ((brisel_detail_view *)data)->touch_over_idler = nullptr;
  if (!__brisel_detail_is_held()) __brisel_detail_touch.is_multi = 0;
  return ECORE_CALLBACK_CANCEL;
}

/* One finger that stayed where it came down, on a page that stood still. */
static bool __brisel_detail_is_tap(const brisel_detail_view *view_data) {
  const detail_stroke *stroke = &view_data->stroke;
  int reach = elm_config_finger_size_get() / 2;
  return !__brisel_detail_touch.is_multi && !stroke->began_in_motion && !stroke->is_double &&
         abs(stroke->start.x - stroke->end.x) < reach && abs(stroke->start.y - stroke->end.y) < reach &&
         stroke->end_time - stroke->start_time < tap_time;
}

/* What a touch that is over means. The toolkit has done with it what it does. */
static void __brisel_detail_lifted(brisel_detail_view *view_data) {
  const detail_stroke *stroke = &view_data->stroke;
  __brisel_detail_unfreeze_all(view_data);
  const double place = __brisel_detail_place_on_screen(view_data);
  const bool shows_gone = __brisel_detail_has_gone(view_data, (int)std::floor(place)) ||
                          __brisel_detail_has_gone(view_data, (int)std::ceil(place));
  /* Before a page is aimed at: one whose mail has gone is none. One that can be seen goes once it has slid out. */
  if (!shows_gone) __brisel_detail_follow_list(view_data);
  int target = __brisel_detail_target_of(view_data);
  if (shows_gone && __brisel_detail_has_gone(view_data, target))
    target = __brisel_detail_place_of_mail(view_data, view_data->mail_id);
  int up = stroke->start.y - stroke->end.y, left = stroke->start.x - stroke->end.x;
  if (!__brisel_detail_touch.is_multi && up >= 2 * elm_config_finger_size_get() && up > abs(left))
    __brisel_detail_pull(view_data);
  if (__brisel_detail_is_tap(view_data))
    __brisel_detail_tapped(view_data, stroke->end.x, stroke->end.y);
  else if (page_data *page = view_data->page_data[BRISEL_DETAIL_CUR_PAGE]) {
    page->tapped = nullptr; /* a double tap after this touch takes back nothing older */
    page->has_opened = 0;
  }
  if (target != __brisel_detail_place_on_screen(view_data) || view_data->aimed_id != view_data->mail_id) {
    __brisel_detail_aim_at(view_data, target);
    __brisel_detail_settle_soon(view_data);
  } else {
    __brisel_detail_settle(view_data);
  }
}

static void __brisel_detail_lift_job_cb(void *data) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  view_data->lift_job = nullptr;
  if (__brisel_detail_is_held()) return;
  __brisel_detail_lifted(view_data);
  if (!view_data->touch_over_idler)
    view_data->touch_over_idler = ecore_idler_add(__brisel_detail_touch_over_cb, view_data);
}

static void __brisel_detail_lift_soon(brisel_detail_view *view_data) {
  if (!view_data->lift_job) view_data->lift_job = ecore_job_add(__brisel_detail_lift_job_cb, view_data);
}

/* The timer runs also when there was nothing to move, as after the opening: a touch then is for the page. */
static bool __brisel_detail_pages_move(const brisel_detail_view *view_data) {
  int x = 0;
  elm_scroller_region_get(view_data->page_scroller, &x, nullptr, nullptr, nullptr);
  const bool is_at_page = view_data->page_width > 0 && x % view_data->page_width == 0;
  return view_data->page_timer && (!is_at_page || view_data->aimed_id != view_data->mail_id);
}

static void __brisel_detail_page_scroller_mouse_down_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  const Evas_Event_Mouse_Down *event = (const Evas_Event_Mouse_Down *)event_info;
  __brisel_detail_drop_ring(view_data);
  if (view_data->lift_job && !__brisel_detail_touch.other_fingers) {
    /* The touch before it ended in the same turn of the loop: it counts, and what it set in motion is held at once. */
    ecore_job_del(view_data->lift_job);
    view_data->lift_job = nullptr;
    __brisel_detail_lifted(view_data);
    int x = 0;
    elm_scroller_region_get(view_data->page_scroller, &x, nullptr, nullptr, nullptr);
    __brisel_detail_hold_pages(view_data, x);
  }
  __brisel_detail_touch.is_mouse_down = 1;
  __brisel_detail_touch.is_multi = __brisel_detail_touch.other_fingers > 0;
  detail_stroke *stroke = &view_data->stroke;
  *stroke = {};
  stroke->start = stroke->end = event->canvas;
  stroke->start_time = stroke->end_time = event->timestamp;
  stroke->began_in_motion = __brisel_detail_pages_move(view_data);
  stroke->is_double = 0;
  stroke->began_at_end = __brisel_detail_is_at_end(view_data->page_data[BRISEL_DETAIL_CUR_PAGE]);
}

static void __brisel_detail_page_scroller_mouse_move_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  const Evas_Event_Mouse_Move *event = (const Evas_Event_Mouse_Move *)event_info;
  if (!__brisel_detail_touch.is_mouse_down) return;
  detail_stroke *stroke = &((brisel_detail_view *)data)->stroke;
  std::move(std::begin(stroke->recent) + 1, std::end(stroke->recent), std::begin(stroke->recent));
  *std::prev(std::end(stroke->recent)) = {event->cur.canvas.x, event->timestamp};
}

static void __brisel_detail_page_scroller_mouse_up_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  const Evas_Event_Mouse_Up *event = (const Evas_Event_Mouse_Up *)event_info;
  __brisel_detail_touch.is_mouse_down = 0;
  view_data->stroke.end = event->canvas;
  view_data->stroke.end_time = event->timestamp;
  __brisel_detail_lift_soon(view_data);
}

static void __brisel_detail_page_scroller_multi_down_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  __brisel_detail_touch.is_multi = 1;
  __brisel_detail_touch.other_fingers++;
}

static void __brisel_detail_page_scroller_multi_up_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  if (__brisel_detail_touch.other_fingers > 0) __brisel_detail_touch.other_fingers--;
  __brisel_detail_lift_soon((brisel_detail_view *)data);
}

/* What the ring is around moves on without it. */
static void __brisel_detail_page_scroller_wheel_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  __brisel_detail_drop_ring((brisel_detail_view *)data);
}

static const struct {
  Evas_Callback_Type type;
  Evas_Object_Event_Cb callback;
} touch_events[] = {
    {EVAS_CALLBACK_MOUSE_DOWN, __brisel_detail_page_scroller_mouse_down_cb},
    {EVAS_CALLBACK_MOUSE_MOVE, __brisel_detail_page_scroller_mouse_move_cb},
    {EVAS_CALLBACK_MOUSE_UP, __brisel_detail_page_scroller_mouse_up_cb},
    {EVAS_CALLBACK_MULTI_DOWN, __brisel_detail_page_scroller_multi_down_cb},
    {EVAS_CALLBACK_MULTI_UP, __brisel_detail_page_scroller_multi_up_cb},
    {EVAS_CALLBACK_MOUSE_WHEEL, __brisel_detail_page_scroller_wheel_cb},
};

void __brisel_detail_watch_touches(brisel_detail_view *view_data) {
  for (const auto &event : touch_events)
    evas_object_event_callback_add(view_data->page_scroller, event.type, event.callback, view_data);
  __brisel_detail_watch_keys(view_data);
}

void __brisel_detail_leave_touches(brisel_detail_view *view_data) {
  if (view_data->lift_job) ecore_job_del(view_data->lift_job);
  if (view_data->touch_over_idler) ecore_idler_del(view_data->touch_over_idler);
  __brisel_detail_touch = {};
  __brisel_detail_leave_keys(view_data);
  if (!view_data->page_scroller) return;
  for (const auto &event : touch_events)
    evas_object_event_callback_del_full(view_data->page_scroller, event.type, event.callback, view_data);
}
