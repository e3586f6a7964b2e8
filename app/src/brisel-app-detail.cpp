/* The reader: one mail as a page, with its neighbours built beside it, more of its text on demand, and its gestures.
   This file opens and closes it, and follows the settings; the jobs are in the files brisel-app-detail-*.cpp. */
#include "brisel-app-detail.h"

#include <cstdlib>

#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "vconf.h"

static void __brisel_detail_free_view_data(brisel_detail_view *view_data) {
  BRISEL_INFO("Enter");
  brisel_widget_ref_drop(&view_data->popup);
  brisel_widget_ref_drop(&view_data->gesture_layer);
  __brisel_detail_leave_touches(view_data);
  __brisel_detail_end_offers(view_data);
  __brisel_detail_end_place(view_data);
  __brisel_detail_stop_building(view_data);
  if (view_data->page_timer) ecore_timer_del(view_data->page_timer);
  if (view_data->page_scroller)
    evas_object_smart_callback_del_full(view_data->page_scroller, "scroll", __brisel_detail_page_scroller_scroll_cb,
                                        view_data);
  if (view_data->page_scroller_layout)
    evas_object_event_callback_del_full(view_data->page_scroller_layout, EVAS_CALLBACK_RESIZE,
                                        __brisel_detail_page_layout_resize_cb, view_data);
  for (page_data *&page : view_data->page_data) {
    __brisel_detail_free_page_data(page);
    page = nullptr;
  }
  if (view_data->box)
    evas_object_event_callback_del_full(view_data->box, EVAS_CALLBACK_RESIZE, __brisel_detail_box_resize_cb, view_data);
  brisel_widget_ref_clear(&view_data->box);
  brisel_widget_ref_clear(&view_data->page_scroller);
  brisel_widget_ref_clear(&view_data->page_scroller_layout);
  free(view_data);
}

static int __brisel_detail_read_font_size() {
  int size = 1;
  if (vconf_get_int(BRISEL_KEY_FONT_SIZE, &size) == -1) {
    BRISEL_ERROR("vconf_get_int(BRISEL_VCONFKEY_SETAPPL_ACCESSIBILITY_FONT_SIZE) failed!");
    return 1;
  }
  return size;
}

static int __brisel_detail_give_up_view(brisel_detail_view *view_data, const char *what) {
  if (what) BRISEL_ERROR("%s", what);
  Evas_Object *layout = view_data->page_scroller_layout;
  __brisel_detail_free_view_data(view_data);
  if (layout) evas_object_del(layout);
  return -3;
}

static Eina_Bool __brisel_detail_view_pop_cb(void *data, Elm_Object_Item *it) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (!view_data) return EINA_TRUE;
  if (view_data->ad->naviframe)
    evas_object_smart_callback_del_full(view_data->ad->naviframe, "transition,finished",
                                        __brisel_detail_draw_neighbors_cb, view_data);
  if (view_data->pickover_timer) ecore_timer_del(view_data->pickover_timer);
  if (view_data->is_pickover_registered) __brisel_detail_unregister_pickover(view_data);
  int result = brisel_ipc_req_cancel(BRISEL_IPC_CLIENT_REQ_TYPE_MORE_MSG);
  if (result != 0) BRISEL_INFO("brisel_ipc_req_cancel() failed! ret:[%d]", result);
  __brisel_detail_abandon_more_msg(view_data, result == 0);
  __brisel_detail_free_view_data(view_data);
  return EINA_TRUE;
}

int brisel_detail_draw_view(int mail_id, int push, appdata *ad) {
  BRISEL_INFO("Enter");
  if (!ad) {
    BRISEL_ERROR("Invalid parameter: data is NULL!");
    return -1;
  }
  brisel_detail_view *view_data = (brisel_detail_view *)calloc(1, sizeof(brisel_detail_view));
  if (!view_data) {
    BRISEL_ERROR("Failed to allocate memory for view_data!:[%d]", mail_id);
    return -3;
  }
  view_data->view_type = BRISEL_VIEW_TYPE_DETAIL_VIEW;
  view_data->ad = ad;
  __brisel_detail_touch = {};
  view_data->mail_id = view_data->entered_id = view_data->aimed_id = mail_id;
  view_data->font_size = __brisel_detail_read_font_size();

  __brisel_detail_create_layout_page_scroller(view_data);
  if (!view_data->page_scroller_layout)
    return __brisel_detail_give_up_view(view_data, "__brisel_detail_create_layout_page_scroller() failed!");
  __brisel_detail_create_page_scroller(view_data);
  if (!view_data->page_scroller)
    return __brisel_detail_give_up_view(view_data, "__brisel_detail_create_scroller() failed!");
  __brisel_detail_create_box(view_data);
  if (!view_data->box) return __brisel_detail_give_up_view(view_data, "__brisel_detail_create_box() failed!");

  page_data *page = __brisel_detail_draw_single_layout_by_mail_id(view_data, mail_id);
  if (!page) {
    BRISEL_ERROR("__brisel_detail_draw_single_layout_by_mail_id() failed! for mail_id:[%d]", mail_id);
    return __brisel_detail_give_up_view(view_data, nullptr);
  }
  view_data->page_data[BRISEL_DETAIL_CUR_PAGE] = page;
  view_data->cur_page_index = 0;
  elm_box_pack_end(view_data->box, page->page_layout);

  Evas_Object *layout = view_data->page_scroller_layout;
  brisel_view_head *head = view_data;
  Elm_Object_Item *item = push ? brisel_view_push(ad, layout, nullptr, nullptr, __brisel_detail_view_pop_cb, head)
                               : brisel_view_push_at_once(ad, layout, __brisel_detail_view_pop_cb, head);
  if (!push) __brisel_detail_draw_neighbors_cb(view_data, ad->naviframe, nullptr);
  elm_naviframe_item_title_enabled_set(item, EINA_FALSE, EINA_FALSE);
  /* For the key alone: the page's title has one that can be seen. */
  if (Evas_Object *more = brisel_view_more_button(item, __brisel_detail_option_button_clicked_cb, view_data))
    brisel_view_set_spoken(more, false);
  __brisel_detail_tell_page(view_data);

  if (!page->mail_data->is_read) __brisel_detail_send_update_ind(view_data);
  __brisel_detail_update_pickover(view_data);
  __brisel_detail_gesture_create_gesture_layout(view_data->page_scroller_layout, view_data);

  brisel_clear_all_new_flag();
  ad->mail_id = mail_id;

  /* Without a transition the neighbours stand already. The next transition is some other view's: building them again
     then would cost time and throw away how far the user had scrolled in them. */
  if (push)
    evas_object_smart_callback_add(ad->naviframe, "transition,finished", __brisel_detail_draw_neighbors_cb, view_data);
  return 0;
}

void brisel_detail_update_link(appdata *ad) {
  brisel_detail_view *view_data =
      (brisel_detail_view *)brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, ad);
  if (!view_data) return;
  for (page_data *page : view_data->page_data) {
    if (!page || !page->detail_layout) continue;
    /* What the lost link took away may be asked for again. */
    if (ad->bt_connected == 1) page->more_msg_count = BRISEL_DETAIL_MORE_MSG_MAX;
    __brisel_detail_set_device_notice(view_data, page);
  }
}

void brisel_detail_update_mails(GSList *ids, appdata *ad) {
  brisel_detail_view *view_data =
      (brisel_detail_view *)brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, ad);
  if (!view_data) return;
  for (page_data *page : view_data->page_data)
    if (page && g_slist_find(ids, GINT_TO_POINTER(page->mail_data->mail_id)))
      page->is_stale = 1; /* an opened mail makes all others old: five long ones read at once would hold a frame up */
  /* A neighbour may have been locked, or a locked mail opened. */
  brisel_detail_update_neighbors(ad->mail_id, ad);
  __brisel_detail_build_soon(view_data);
}

int brisel_detail_update_datetime_format(appdata *ad) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = __brisel_detail_retrieve_view_data(ad);
  if (!view_data) return 0;
  for (page_data *page : view_data->page_data) {
    if (!page) continue;
    if (!page->detail_layout) {
      __brisel_detail_free_text(page); /* what was made ready counts lines in the old digits */
      continue;
    }
    __brisel_detail_update_datetime_string(view_data, page->mail_data->received_time, page->detail_layout);
    __brisel_detail_set_attachment_text(view_data, page); /* its digits are the region's */
    __brisel_detail_set_body(page);
  }
  return 0;
}

int brisel_detail_update_string(appdata *ad) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = __brisel_detail_retrieve_view_data(ad);
  if (!view_data) return 0;
  for (page_data *page : view_data->page_data) {
    if (!page) continue;
    if (page->detail_layout)
      __brisel_detail_update_page_string(view_data, page);
    else
      __brisel_detail_free_text(page);
  }
  __brisel_detail_offer(view_data);
  return 0;
}
