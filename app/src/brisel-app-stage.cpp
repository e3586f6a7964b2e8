#include "brisel-app-stage.h"

#include <Elementary.h>

#include <cstdlib>
#include <cstring>

#include "brisel-app-utils.h"

static const char stage_key[] = "brisel/stage";

/* Up to which scale factor letters grow. Half as large again, a toast would be as high as the display; a circle's stage
   is two thirds of it, and has no room for larger dates either. */
constexpr double toast_scale = 1.2, round_scale = 1.0;

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
