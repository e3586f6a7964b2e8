/* The first minute: what fills the window while a launch waits and no other screen stands, so that it is never empty.
   It says what to do, and gives way to the main screen. The launch flows call it. */
#include "brisel-app-core.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "efl_assist.h"

static Evas_Object *screen;

static void _back_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  _lower_and_exit((appdata *)data);
}

void _show_first_minute(appdata *ad) {
  BRISEL_INFO("Enter");
  if (screen || ad->naviframe) return;
  Evas_Object *layout = brisel_util_load_edj(ad->win_main, BRISEL_EDJ, "brisel/first_minute");
  if (!layout) return;
  elm_object_domain_translatable_part_text_set(layout, "title", BRISEL_DOMAIN, "IDS_EMAIL_HEADER_NO_PHONE_YET");
  elm_object_domain_translatable_part_text_set(layout, "text", BRISEL_DOMAIN,
                                               "IDS_EMAIL_BODY_HOW_TO_PAIR_A_PHONE_OR_SEE_THE_DEMO");
  ea_object_event_callback_add(layout, EA_CALLBACK_BACK, _back_cb, ad);
  elm_win_resize_object_add(ad->win_main, layout);
  evas_object_show(layout);
  brisel_widget_ref_set(&screen, layout);
}

void _end_first_minute() {
  brisel_widget_ref_drop(&screen);
}
