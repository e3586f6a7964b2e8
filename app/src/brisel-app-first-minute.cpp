/* The first minute: what fills the window while a launch waits and no other screen stands, so that it is never empty.
   It says what to do, and gives way to the main screen. The launch flows call it. */
#include <string>

#include "brisel-app-core.h"
#include "brisel-app-stage.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "efl_assist.h"

static Evas_Object *screen;

static void _back_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  _lower_and_exit((appdata *)data);
}

/* Its height follows from its width. */
static void _resized_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  Evas_Object *layout = elm_object_content_get(obj);
  int width = 0, height = 0;
  evas_object_geometry_get(obj, nullptr, nullptr, &width, nullptr);
  if (!layout || width < 1) return;
  edje_object_size_min_restricted_calc(elm_layout_edje_get(layout), nullptr, &height, width, 0);
  evas_object_size_hint_min_set(layout, width, height);
}

/* What the window is called, and what is read of it. */
static void _name(appdata *ad, Evas_Object *layout) {
  const char *title = elm_object_part_text_get(layout, "title"), *text = elm_object_part_text_get(layout, "text");
  elm_win_title_set(ad->win_main, title);
  brisel_view_set_spoken_name(layout, (std::string(title) + ", " + text).c_str());
}

static void _language_cb(void *data, Evas_Object *obj, void *event_info) {
  _name((appdata *)data, elm_object_content_get(obj));
  _resized_cb(nullptr, nullptr, obj, nullptr);
}

void _show_first_minute(appdata *ad) {
  BRISEL_INFO("Enter");
  if (screen || ad->naviframe) return;
  Evas_Object *scroller = elm_scroller_add(ad->win_main);
  Evas_Object *layout = brisel_util_load_edj(scroller, BRISEL_EDJ, "brisel/first_minute");
  if (!layout) {
    evas_object_del(scroller);
    return;
  }
  elm_object_domain_translatable_part_text_set(layout, "title", BRISEL_DOMAIN, "IDS_EMAIL_HEADER_NO_PHONE_YET");
  elm_object_domain_translatable_part_text_set(layout, "text", BRISEL_DOMAIN,
                                               "IDS_EMAIL_BODY_HOW_TO_SET_UP_EMAIL_OR_SEE_THE_DEMO");
  evas_object_size_hint_align_set(layout, EVAS_HINT_FILL, EVAS_HINT_FILL);
  evas_object_show(layout);
  brisel_view_expand(scroller);
  elm_object_style_set(scroller, "effect");
  elm_scroller_bounce_set(scroller, EINA_FALSE, EINA_TRUE);
  elm_scroller_policy_set(scroller, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
  elm_object_content_set(scroller, layout);
  ea_object_event_callback_add(scroller, EA_CALLBACK_BACK, _back_cb, ad);
  brisel_stage_put(ad->win_main, scroller);
  brisel_stage_reach(scroller);
  evas_object_event_callback_add(scroller, EVAS_CALLBACK_RESIZE, _resized_cb, nullptr);
  evas_object_smart_callback_add(scroller, "language,changed", _language_cb, ad);
  evas_object_show(scroller);
  brisel_widget_ref_set(&screen, scroller);
  _name(ad, layout);
  _tell_ground(scroller);
}

void _end_first_minute() {
  brisel_widget_ref_drop(&screen);
}
