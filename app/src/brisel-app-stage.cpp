#include "brisel-app-stage.h"

#include <Elementary.h>

#include <cstdlib>
#include <cstring>

#include "brisel-app-utils.h"
#include "brisel-log.h"

static const char stage_key[] = "brisel/stage";

/* Up to which scale factor letters grow. Half as large again, a toast would be as high as the display; a circle's stage
   is two thirds of it, and has no room for larger dates either. */
constexpr double toast_scale = 1.2, round_scale = 1.0;
/* What is left of a round display and right of it, of its width: as in the theme's "brisel/round". */
constexpr double rim_width = 0.125;

static bool _is_round() {
  const char *shape = getenv("BRISEL_SHAPE");
  return shape && !strcmp(shape, "round");
}

/* Of a text class of the theme. */
static void _limit_letters(const char *text_class, double most) {
  const double scale = elm_config_scale_get();
  if (scale > most) edje_text_class_set(text_class, "NotoSans", -(int)(100 * most / scale)); /* percent */
}

void brisel_stage_make(Evas_Object *window) {
  _limit_letters("brisel/toast", _is_round() ? round_scale : toast_scale);
  Evas_Object *frame = _is_round() ? brisel_util_load_edj(window, BRISEL_EDJ, "brisel/round") : nullptr;
  if (!frame) return;
  _limit_letters("brisel/time", round_scale);
  Evas_Object *stage = elm_box_add(frame);
  elm_object_part_content_set(frame, "stage", stage);
  elm_win_resize_object_add(window, frame);
  evas_object_show(frame);
  evas_object_data_set(window, stage_key, stage);
}

Evas_Object *brisel_stage_get(Evas_Object *window) {
  void *stage = window ? evas_object_data_get(window, stage_key) : nullptr;
  return stage ? (Evas_Object *)stage : window;
}

const char *brisel_stage_style() {
  return _is_round() ? "round" : nullptr;
}

void brisel_stage_set_style(Evas_Object *widget, const char *usual) {
  const char *style = _is_round() ? brisel_stage_style() : usual;
  if (style) elm_object_style_set(widget, style);
}

void brisel_stage_put(Evas_Object *window, Evas_Object *object) {
  Evas_Object *stage = brisel_stage_get(window);
  if (stage == window) {
    elm_win_resize_object_add(window, object);
    return;
  }
  evas_object_size_hint_weight_set(object, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_size_hint_align_set(object, EVAS_HINT_FILL, EVAS_HINT_FILL);
  elm_box_pack_end(stage, object);
}

/* --- fingers around it --- */

/* The toolkit's scrollers hear fingers by an invisible rectangle of their own, which lies over all of them and lets
   every event through; they keep it as large as themselves. */
static Evas_Object *_touch_area_of(const Evas_Object *scroller) {
  Evas_Object *area = nullptr;
  Eina_List *members = evas_object_smart_members_get(scroller);
  void *member;
  EINA_LIST_FREE(members, member) {
    const char *type = evas_object_type_get((Evas_Object *)member);
    if (type && !strcmp(type, "rectangle") && evas_object_repeat_events_get((Evas_Object *)member))
      area = (Evas_Object *)member;
  }
  return area;
}

static void _reach_cb(void *data, Evas *canvas, Evas_Object *obj, void *event_info) {
  const Evas_Object *scroller = (Evas_Object *)data;
  Evas_Object *area = _touch_area_of(scroller);
  if (!area) return;
  int x = 0, width = 0, display_width = 0, display_height = 0;
  evas_object_geometry_get(scroller, &x, nullptr, &width, nullptr);
  evas_output_viewport_get(canvas, nullptr, nullptr, &display_width, &display_height);
  /* Not a page of the reader that lies beside the one in sight. */
  const int rim = (int)(display_width * rim_width), middle = x + width / 2;
  if (middle > rim && middle < display_width - rim) {
    x = 0;
    width = display_width;
  }
  evas_object_geometry_set(area, x, 0, width, display_height);
}

void brisel_stage_reach(Evas_Object *scroller) {
  if (!_is_round() || !scroller) return;
  Evas_Object *area = _touch_area_of(scroller);
  if (!area) {
    BRISEL_WARN("nothing of the scroller hears fingers");
    return;
  }
  /* The toolkit sets the one, then the other. */
  for (Evas_Object *one : {area, scroller})
    for (const Evas_Callback_Type change : {EVAS_CALLBACK_MOVE, EVAS_CALLBACK_RESIZE})
      evas_object_event_callback_add(one, change, _reach_cb, scroller);
  _reach_cb(scroller, evas_object_evas_get(area), area, nullptr);
}
