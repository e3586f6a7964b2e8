/* The gestures on a page and the sizes of its text. The main file calls it. */
#include "brisel-app-detail.h"

#include "brisel-app-detail-body.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"

void __brisel_detail_update_font_size(brisel_detail_view *view_data, int size) {
  static const char *const signals[] = {"do-set-fontsize-small", "do-set-fontsize-normal", "do-set-fontsize-large"};
  if (!view_data) {
    BRISEL_ERROR("Invalid parameter: data is NULL!");
    return;
  }
  for (page_data *page : view_data->page_data) {
    if (!page || !page->detail_layout) continue;
    if (size >= 0 && size <= 2) {
      __brisel_detail_signal(page->detail_layout, signals[size]);
      view_data->font_size = size;
      __brisel_detail_process_signals(page->detail_layout);
      brisel_detail_body_set_font_size(page->detail_layout, size);
    } else {
      BRISEL_ERROR("Invalid font-size: [%d]", size);
    }
    __brisel_detail_set_subject(page);
    __brisel_detail_set_body(page);
  }
  __brisel_detail_build_soon(view_data); /* smaller texts may end in sight */
}

static bool __brisel_detail_is_gesture_valid(const brisel_detail_view *view_data, const void *event_info) {
  const char *invalid = nullptr;
  if (!view_data)
    invalid = "Invalid parameter: data is NULL!";
  else if (!event_info)
    invalid = "Invalid parameter: event_info is NULL!";
  else if (!view_data->page_data[BRISEL_DETAIL_CUR_PAGE])
    invalid = "Invalid parameter: view_data->page_data[BRISEL_DETAIL_CUR_PAGE] is NULL!";
  if (invalid) BRISEL_ERROR("%s", invalid);
  return !invalid;
}

static void __brisel_detail_unfreeze_and_settle(brisel_detail_view *view_data) {
  __brisel_detail_unfreeze_all(view_data);
  /* With a finger down still, its lift does it. */
  __brisel_detail_settle(view_data);
}

Evas_Event_Flags __brisel_detail_gesture_zoom_start_cb(void *data, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (!__brisel_detail_is_gesture_valid(view_data, event_info)) return EVAS_EVENT_FLAG_NONE;
  elm_object_scroll_freeze_push(view_data->page_scroller);
  elm_object_scroll_freeze_push(view_data->page_data[BRISEL_DETAIL_CUR_PAGE]->scroller);
  return EVAS_EVENT_FLAG_NONE;
}

Evas_Event_Flags __brisel_detail_gesture_zoom_end_cb(void *data, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (!__brisel_detail_is_gesture_valid(view_data, event_info)) return EVAS_EVENT_FLAG_NONE;
  double zoom = ((const Elm_Gesture_Zoom_Info *)event_info)->zoom;
  int size = view_data->font_size;
  if (zoom >= 1.15 && (size == 0 || size == 1))
    size++;
  else if (zoom <= 0.85 && (size == 1 || size == 2))
    size--;
  if (size != view_data->font_size) __brisel_detail_update_font_size(view_data, size);
  __brisel_detail_unfreeze_and_settle(view_data);
  return EVAS_EVENT_FLAG_NONE;
}

Evas_Event_Flags __brisel_detail_gesture_zoom_abort_cb(void *data, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (__brisel_detail_is_gesture_valid(view_data, event_info)) __brisel_detail_unfreeze_and_settle(view_data);
  return EVAS_EVENT_FLAG_NONE;
}

Evas_Event_Flags __brisel_detail_gesture_double_tab_end_cb(void *data, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (!__brisel_detail_is_gesture_valid(view_data, event_info)) return EVAS_EVENT_FLAG_NONE;
  if (__brisel_detail_touch.is_multi) return EVAS_EVENT_FLAG_NONE; /* two fingers tap nothing */
  /* Its first tap has opened what it met, its second may meet what has grown. */
  __brisel_detail_take_tap_back(view_data->page_data[BRISEL_DETAIL_CUR_PAGE]);
  view_data->stroke.is_double = 1;
  int size = view_data->font_size;
  BRISEL_INFO("tapinfo->n : %d, view_data->font_size : %d", (int)((const Elm_Gesture_Taps_Info *)event_info)->n, size);
  __brisel_detail_update_font_size(view_data, size == 0 || size == 1 ? size + 1 : 0);
  __brisel_detail_unfreeze_and_settle(view_data);
  return EVAS_EVENT_FLAG_NONE;
}

void __brisel_detail_gesture_create_gesture_layout(Evas_Object *layout, brisel_detail_view *view_data) {
  BRISEL_INFO("Enter");
  Evas_Object *gesture = elm_gesture_layer_add(layout);
  if (!gesture || !elm_gesture_layer_attach(gesture, layout)) {
    if (gesture) evas_object_del(gesture);
    BRISEL_ERROR("elm_gesture_layer_add() failed!");
    return;
  }
  brisel_view_set_spoken(gesture, false);
  brisel_widget_ref_set(&view_data->gesture_layer, gesture);
  elm_gesture_layer_cb_set(gesture, ELM_GESTURE_ZOOM, ELM_GESTURE_STATE_START, __brisel_detail_gesture_zoom_start_cb,
                           view_data);
  elm_gesture_layer_cb_set(gesture, ELM_GESTURE_ZOOM, ELM_GESTURE_STATE_ABORT, __brisel_detail_gesture_zoom_abort_cb,
                           view_data);
  elm_gesture_layer_cb_set(gesture, ELM_GESTURE_ZOOM, ELM_GESTURE_STATE_END, __brisel_detail_gesture_zoom_end_cb,
                           view_data);
  elm_gesture_layer_cb_set(gesture, ELM_GESTURE_N_DOUBLE_TAPS, ELM_GESTURE_STATE_END,
                           __brisel_detail_gesture_double_tab_end_cb, view_data);
}
