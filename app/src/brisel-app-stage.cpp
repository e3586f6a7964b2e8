#include "brisel-app-stage.h"

#include <Elementary.h>

#include <cstdlib>
#include <cstring>

#include "brisel-app-utils.h"

static const char stage_key[] = "brisel/stage";

/* The class of dates in the theme, and their letters at scale 1, which are as wide as a circle has room for. */
static const char time_class[] = "brisel/time";
constexpr double time_letters = 21.0; /* pixels */

static bool _is_round() {
  const char *shape = getenv("BRISEL_SHAPE");
  return shape && !strcmp(shape, "round");
}

void brisel_stage_make(Evas_Object *window) {
  Evas_Object *frame = _is_round() ? brisel_util_load_edj(window, BRISEL_EDJ, "brisel/round") : nullptr;
  if (!frame) return;
  if (elm_config_scale_get() > 1.0)
    edje_text_class_set(time_class, "NotoSans", (int)(time_letters / elm_config_scale_get()));
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
