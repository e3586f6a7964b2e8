#include "brisel-app-touch.h"
#include "app_efl.h"

#include <Ecore.h>
#include <Ecore_Input.h>
#include <Elementary.h>

#include <algorithm>
#include <string_view>

#include "brisel-log.h"
#include "keypad.h"

/* Seconds from the end of the touch that opened something. */
constexpr double guard_time = 0.3;

static Evas_Object *window;
static void (*place_focus)(void *data);
static void *place_data;
static Evas_Object *pane;    /* lies over everything, sees every touch and lets it through */
static Evas_Object *shield;  /* lies over the place that a touch has opened something at, and lets nothing through */
static Evas_Object *guarded; /* what that touch has opened */
static Ecore_Event_Handler *button_handler;
static Ecore_Timer *shield_timer;
static brisel_touch_wait *shield_wait; /* its time is over, but not every touch of that time has come */
static Evas_Coord_Point touched_at;
static double lifted_time; /* of the main loop; 0: no touch yet */
static unsigned down_at;   /* ms, of the touch's own clock */
static unsigned lasted;    /* ms, the touch that was lifted last */
static bool is_down;
static bool shield_is_touched;
static unsigned revealed_at; /* ms, of the key that has made the focus visible; 0: none has */

/* --- what the loop has not come round to --- */

/* Turns of the loop in which it has looked for what waits: a window system's events take more than one to arrive. */
constexpr int turns_to_read = 3;

struct brisel_touch_wait {
  void (*read_cb)(void *data);
  void *data;
  int turns;
  Ecore_Idler *idler;
};

static Eina_Bool _turn_cb(void *data) {
  brisel_touch_wait *wait = (brisel_touch_wait *)data;
  if (++wait->turns < turns_to_read) return ECORE_CALLBACK_RENEW;
  const brisel_touch_wait done = *wait;
  delete wait;
  done.read_cb(done.data);
  return ECORE_CALLBACK_CANCEL;
}

brisel_touch_wait *brisel_touch_when_read(void (*read_cb)(void *data), void *data) {
  brisel_touch_wait *wait = new brisel_touch_wait{read_cb, data, 0, nullptr};
  wait->idler = ecore_idler_add(_turn_cb, wait);
  return wait;
}

void brisel_touch_stop_waiting(brisel_touch_wait *wait) {
  if (!wait) return;
  ecore_idler_del(wait->idler);
  delete wait;
}

/* --- the shield --- */

static void _guarded_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info);

static void _stop_shield_time() {
  if (shield_timer) ecore_timer_del(shield_timer);
  shield_timer = nullptr;
  brisel_touch_stop_waiting(shield_wait);
  shield_wait = nullptr;
}

static void _drop_shield() {
  if (guarded) evas_object_event_callback_del(guarded, EVAS_CALLBACK_DEL, _guarded_gone_cb);
  guarded = nullptr;
  _stop_shield_time();
  Evas_Object *gone = shield;
  shield = nullptr;
  if (gone) evas_object_del(gone);
}

static void _guarded_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  guarded = nullptr;
  if (!shield_is_touched) _drop_shield();
}

static void _shield_time_is_over_cb(void *data) {
  shield_wait = nullptr;
  /* A touch that began on the shield ends on it. */
  if (!shield_is_touched) _drop_shield();
}

/* Whoever touches while the loop is busy opening something has not seen it yet. */
static Eina_Bool _shield_timer_cb(void *data) {
  shield_timer = nullptr;
  shield_wait = brisel_touch_when_read(_shield_time_is_over_cb, nullptr);
  return ECORE_CALLBACK_CANCEL;
}

static void _time_shield() {
  double left = lifted_time + guard_time - ecore_loop_time_get();
  _stop_shield_time();
  shield_timer = ecore_timer_add(std::max(left, 0.0), _shield_timer_cb, nullptr);
}

/* A mouse's button on its side, which browsers go back with. */
constexpr int mouse_back = 8;

/* Not while the canvas hands the button around: the key may close what it is handed to. */
static void _press_back_cb(void *data) {
  Evas *canvas = pane ? evas_object_evas_get(pane) : nullptr;
  if (!canvas) return;
  const unsigned now = (unsigned)(ecore_loop_time_get() * 1000.0);
  evas_event_feed_key_down(canvas, "XF86Back", "XF86Back", nullptr, nullptr, now, nullptr);
  evas_event_feed_key_up(canvas, "XF86Back", "XF86Back", nullptr, nullptr, now, nullptr);
}

/* Whether it is that button. */
static bool _is_back_button(const Evas_Event_Mouse_Down *event) {
  if (event->button != mouse_back) return false;
  ecore_job_add(_press_back_cb, nullptr);
  return true;
}

/* Under Wayland that button has one of the kernel's numbers, which are above those that a canvas hands around. */
constexpr unsigned kernel_side = 0x113, kernel_back = 0x116;

static Eina_Bool _wayland_button_cb(void *data, int type, void *event_info) {
  const unsigned button = ((Ecore_Event_Mouse_Button *)event_info)->buttons;
  if (button == kernel_side || button == kernel_back) ecore_job_add(_press_back_cb, nullptr);
  return ECORE_CALLBACK_PASS_ON;
}

static void _shield_down_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  if (!_is_back_button((Evas_Event_Mouse_Down *)event_info)) shield_is_touched = true;
}

static void _shield_up_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  shield_is_touched = false;
  if (!guarded || (!shield_timer && !shield_wait && !is_down)) _drop_shield();
}

static void _shield_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  shield_is_touched = false;
  if (obj != shield) return;
  shield = nullptr;
  _drop_shield();
}

static void _pane_down_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  const Evas_Event_Mouse_Down *event = (Evas_Event_Mouse_Down *)event_info;
  if (_is_back_button(event)) return;
  is_down = true;
  touched_at = event->canvas;
  down_at = event->timestamp;
  elm_win_focus_highlight_enabled_set(window, EINA_FALSE);
  revealed_at = 0;
}

static void _pane_up_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  const Evas_Event_Mouse_Up *event = (Evas_Event_Mouse_Up *)event_info;
  if (event->button == mouse_back) return;
  is_down = false;
  touched_at = event->canvas;
  lasted = event->timestamp - down_at;
  lifted_time = ecore_loop_time_get();
  /* A long press opens while the finger is still down: its time begins now. */
  if (shield) _time_shield();
}

/* Nothing here scrolls sideways by wheel, and the toolkit would make of a list's sideways notch some rows. */
static void _pane_wheel_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  Evas_Event_Mouse_Wheel *event = (Evas_Event_Mouse_Wheel *)event_info;
  if (event->direction != 0) event->event_flags = (Evas_Event_Flags)(event->event_flags | EVAS_EVENT_FLAG_ON_HOLD);
}

static void _pane_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  pane = nullptr;
  ecore_event_handler_del(button_handler);
  button_handler = nullptr;
  is_down = false;
  lifted_time = 0;
}

/* Before its canvas, and what lies on that, goes. */
static void _window_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  if (obj == window) window = nullptr;
}

static Evas_Object *_add_invisible(Evas *canvas) {
  Evas_Object *object = evas_object_rectangle_add(canvas);
  evas_object_color_set(object, 0, 0, 0, 0);
  evas_object_layer_set(object, EVAS_LAYER_MAX);
  evas_object_show(object);
  return object;
}

/* A grab without modifiers hears nothing while one is down: Tab goes back with Shift, and many keyboards have the plus
   there. 0: the key is none of these. */
static Evas_Modifier_Mask _shift_of(Evas_Object *object, std::string_view key) {
  return key.ends_with("Tab") || key == "plus" ? evas_key_modifier_mask_get(evas_object_evas_get(object), "Shift") : 0;
}

void brisel_touch_hear_key(Evas_Object *object, const char *key, Eina_Bool alone) {
  const Evas_Modifier_Mask shift = _shift_of(object, key);
  if (!evas_object_key_grab(object, key, 0, 0, alone) || (shift && !evas_object_key_grab(object, key, shift, 0, alone)))
    BRISEL_WARN("the key %s cannot be heard", key);
}

void brisel_touch_leave_key(Evas_Object *object, const char *key) {
  const Evas_Modifier_Mask shift = _shift_of(object, key);
  evas_object_key_ungrab(object, key, 0, 0);
  if (shift) evas_object_key_ungrab(object, key, shift, 0);
}

/* Whoever moves the focus with keys sees where it is. */
static void _pane_key_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  if (elm_win_focus_highlight_enabled_get(window) || keypad_ringed()) return;
  revealed_at = ((Evas_Event_Key_Down *)event_info)->timestamp;
  if (place_focus) place_focus(place_data);
  elm_win_focus_highlight_enabled_set(window, EINA_TRUE);
}

/* The toolkit leaves the ring where it was when what had the focus goes and nothing gets it, as above the reader, and
   when a list without rows gives way to a text. */
static void _ring_job_cb(void *data) {
  if (!window) return;
  const Evas_Object *focused = app_efl_focused(window);
  if (!focused || focused == window || !evas_object_visible_get(focused))
    elm_win_focus_highlight_enabled_set(window, EINA_FALSE);
}

void brisel_touch_focus_went() {
  ecore_job_add(_ring_job_cb, nullptr);
}

bool brisel_touch_key_reveals(unsigned timestamp) {
  return revealed_at != 0 && revealed_at == timestamp;
}

void brisel_touch_watch(Evas_Object *win, void (*place)(void *data), void *data) {
  if (pane) evas_object_del(pane);
  window = win;
  evas_object_event_callback_add(win, EVAS_CALLBACK_DEL, _window_gone_cb, nullptr);
  place_focus = place;
  place_data = data;
  pane = _add_invisible(evas_object_evas_get(win));
  button_handler = ecore_event_handler_add(ECORE_EVENT_MOUSE_BUTTON_DOWN, _wayland_button_cb, nullptr);
  for (const char *key : {"Tab", "ISO_Left_Tab", "Up", "Down", "Left", "Right", "Prior", "Next", "Home", "End", "KP_Up",
                          "KP_Down", "KP_Left", "KP_Right", "KP_Prior", "KP_Next", "KP_Home", "KP_End"})
    brisel_touch_hear_key(pane, key, EINA_FALSE);
  evas_object_event_callback_add(pane, EVAS_CALLBACK_KEY_DOWN, _pane_key_cb, nullptr);
  evas_object_geometry_set(pane, 0, 0, SHRT_MAX, SHRT_MAX);
  evas_object_repeat_events_set(pane, EINA_TRUE);
  evas_object_event_callback_add(pane, EVAS_CALLBACK_MOUSE_DOWN, _pane_down_cb, nullptr);
  evas_object_event_callback_add(pane, EVAS_CALLBACK_MOUSE_UP, _pane_up_cb, nullptr);
  evas_object_event_callback_add(pane, EVAS_CALLBACK_MOUSE_WHEEL, _pane_wheel_cb, nullptr);
  evas_object_event_callback_add(pane, EVAS_CALLBACK_DEL, _pane_gone_cb, nullptr);
}

void brisel_touch_guard(Evas_Object *opened) {
  Evas *canvas = evas_object_evas_get(opened);
  bool by_touch = is_down || (lifted_time > 0 && ecore_loop_time_get() - lifted_time < guard_time);
  if (!pane || evas_object_evas_get(pane) != canvas || !by_touch) return;
  _drop_shield();
  guarded = opened;
  evas_object_event_callback_add(guarded, EVAS_CALLBACK_DEL, _guarded_gone_cb, nullptr);
  int reach = elm_config_finger_size_get();
  shield = _add_invisible(canvas);
  evas_object_geometry_set(shield, touched_at.x - reach, touched_at.y - reach, 2 * reach + 1, 2 * reach + 1);
  evas_object_event_callback_add(shield, EVAS_CALLBACK_MOUSE_DOWN, _shield_down_cb, nullptr);
  evas_object_event_callback_add(shield, EVAS_CALLBACK_MOUSE_UP, _shield_up_cb, nullptr);
  evas_object_event_callback_add(shield, EVAS_CALLBACK_DEL, _shield_gone_cb, nullptr);
  if (!is_down) _time_shield();
}

bool brisel_touch_was_long() {
  return lifted_time == ecore_loop_time_get() && lasted >= elm_config_longpress_timeout_get() * 1000.0;
}

bool brisel_touch_was_short() {
  return !is_down && lasted < elm_config_longpress_timeout_get() * 1000.0;
}

bool brisel_touch_was_low() {
  int height = 0;
  if (window) evas_object_geometry_get(window, nullptr, nullptr, nullptr, &height);
  return touched_at.y > height / 2;
}
