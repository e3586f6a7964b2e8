/* What goes out from an opened mail: its buttons, the read indication, pickover. Pages, paging and the main file call
   it. */
#include "brisel-app-detail.h"

#include <cstring>
#include <vector>

#include "brisel-app-detail-body.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "pickover.h"
#include "vconf.h"

constexpr double pickover_period = 59.0;
constexpr int pickover_valid = 60;

static full_noti_data *__brisel_detail_mail_on_screen(brisel_detail_view *view_data) {
  return __brisel_detail_page_on_screen(view_data)->mail_data;
}

static void __brisel_detail_show_on_device(brisel_detail_view *view_data) {
  brisel_detail_show_on_device(__brisel_detail_mail_on_screen(view_data)->mail_id, view_data->ad);
}

void __brisel_detail_option_button_clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (__brisel_detail_touch.is_multi) return;
  brisel_option_detail_draw_view(__brisel_detail_mail_on_screen(view_data)->mail_id, view_data->ad);
}

void __brisel_detail_reply_button_clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (__brisel_detail_touch.is_multi) return;
  appdata *ad = view_data->ad;
  if (!brisel_util_bluetooth_connection_popup(ad, brisel_util_bt_connect_error_popup_result_cb, "perform")) return;
  full_noti_data *mail = __brisel_detail_mail_on_screen(view_data);
  brisel_view_draw_reply(mail->mail_id, ad, mail);
}

static void __brisel_detail_popup_response_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_widget_ref_drop(&((brisel_detail_view *)data)->popup);
}

void __brisel_detail_reply_update_required_button_clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (__brisel_detail_touch.is_multi) return;
  if (view_data->popup) {
    BRISEL_INFO("popup is already existed. remove it.");
    brisel_widget_ref_drop(&view_data->popup);
  }
  brisel_widget_ref_set(&view_data->popup,
                        brisel_view_update_required_popup(view_data->ad, __brisel_detail_popup_response_cb, view_data));
}

void __brisel_detail_show_on_device_button_clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (__brisel_detail_touch.is_multi) return;
  appdata *ad = view_data->ad;
  if (!brisel_util_bluetooth_connection_popup(ad, brisel_util_bt_connect_error_popup_result_cb, "perform")) return;
  int status = 0;
  if (brisel_util_get_conn_status(&status) == 0 && status == 0) {
    __brisel_detail_show_on_device(view_data);
    brisel_create_toast_popup(ad, brisel_util_get_text("IDS_PLEXO_POP_CHECK_MOBILE_DEVICE_TO_VIEW_CONTENT"));
    return;
  }
  brisel_create_toast_popup(ad, brisel_util_get_text("IDS_EMAIL_BODY_NO_RESPONSE_TRY_LATER"));
}

static void __brisel_detail_delete_ok_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  brisel_widget_ref_drop(&view_data->popup);
  int mail_id = __brisel_detail_mail_on_screen(view_data)->mail_id;
  /* The reader stays: the event of the deletion closes it. */
  brisel_util_request_delete(&mail_id, 1);
}

void __brisel_detail_ask_to_delete(brisel_detail_view *view_data) {
  BRISEL_INFO("Enter");
  brisel_view_ask_to_delete_mail(&view_data->popup, view_data->ad->naviframe, __brisel_detail_popup_response_cb,
                                 __brisel_detail_delete_ok_cb, view_data);
}

struct brisel_detail_mark {
  int mail_id, host_state;
};
/* Marks that could not be kept and are on offer again, all in one popup. */
static std::vector<brisel_detail_mark> __brisel_detail_unkept;

static int __brisel_detail_request_mark(const brisel_detail_mark &mark) {
  scoped_update update(brisel_update_noti_data_create());
  if (!update) {
    BRISEL_ERROR("brisel_update_noti_data_create() failed!");
    return BRISEL_COMMON_ERROR_MEMORY;
  }
  update->id_list = g_slist_append(update->id_list, GINT_TO_POINTER(mark.mail_id));
  update->host_state = mark.host_state;
  int result = brisel_ipc_req_cancel(BRISEL_IPC_CLIENT_REQ_TYPE_UPDATE_IND);
  if (result != 0) {
    BRISEL_ERROR("brisel_ipc_req_cancel() failed! ret:[%d]", result);
    return result;
  }
  result = brisel_ipc_req_update_ind(update.get(), nullptr, nullptr);
  if (result != 0) BRISEL_ERROR("brisel_ipc_req_update_ind() failed! ret:[%d]", result);
  return result;
}

static int __brisel_detail_mark_again(void *data) {
  while (!__brisel_detail_unkept.empty()) {
    const int result = __brisel_detail_request_mark(__brisel_detail_unkept.front());
    if (result != 0) return result;
    __brisel_detail_unkept.erase(__brisel_detail_unkept.begin());
  }
  return 0;
}

static void __brisel_detail_forget_marks(void *data) {
  __brisel_detail_unkept.clear();
}

void __brisel_detail_send_update_ind(brisel_detail_view *view_data) {
  BRISEL_INFO("Enter");
  const full_noti_data *mail = view_data->page_data[BRISEL_DETAIL_CUR_PAGE]->mail_data;
  const brisel_detail_mark mark = {mail->mail_id, mail->host_state};
  if (__brisel_detail_request_mark(mark) == 0) return;
  // The offer that stands gives way to the new one, and forgets what it was for.
  std::vector<brisel_detail_mark> unkept = __brisel_detail_unkept;
  unkept.push_back(mark);
  brisel_view_offer_again(view_data->ad, __brisel_detail_mark_again, __brisel_detail_forget_marks, nullptr);
  __brisel_detail_unkept = unkept;
}

static void __brisel_detail_pickover_cb(keynode_t *node, void *data) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (!node) {
    BRISEL_ERROR("Invalid parameter: node is NULL!");
    return;
  }
  if (!view_data) {
    BRISEL_ERROR("Invalid parameter: data is NULL!");
    return;
  }
  const char *name = vconf_keynode_get_name(node);
  if (!name || strcmp(name, BRISEL_KEY_PICKOVER) != 0 || vconf_keynode_get_type(node) != VCONF_TYPE_STRING) {
    BRISEL_ERROR("Invalid key name or type!");
    return;
  }
  const char *value = vconf_keynode_get_str(node);
  if (!value || strcmp(value, BRISEL_PACKAGE) != 0) return;
  /* The mail stays on the screen, so the registration goes on being renewed. */
  __brisel_detail_show_on_device(view_data);
}

static void __brisel_detail_register_pickover(brisel_detail_view *view_data) {
  int result = register_pickover(BRISEL_PACKAGE, pickover_valid);
  if (result != 0) {
    BRISEL_WARN("register_pickover() failed! err:[%d]", result);
    return;
  }
  vconf_notify_key_changed(BRISEL_KEY_PICKOVER, __brisel_detail_pickover_cb, view_data);
  view_data->is_pickover_registered = 1;
}

void __brisel_detail_unregister_pickover(brisel_detail_view *view_data) {
  if (!view_data->is_pickover_registered) return;
  int result = unregister_pickover();
  if (result != 0) BRISEL_WARN("unregister_pickover() failed! err:[%d]", result);
  vconf_ignore_key_changed(BRISEL_KEY_PICKOVER, __brisel_detail_pickover_cb);
  view_data->is_pickover_registered = 0;
}

static Eina_Bool __brisel_detail_pickover_timer_cb(void *data) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  __brisel_detail_unregister_pickover(view_data);
  __brisel_detail_register_pickover(view_data);
  return ECORE_CALLBACK_RENEW;
}

void __brisel_detail_update_pickover(brisel_detail_view *view_data) {
  BRISEL_INFO("Enter");
  if (view_data->pickover_timer) ecore_timer_del(view_data->pickover_timer);
  view_data->pickover_timer = nullptr;
  __brisel_detail_unregister_pickover(view_data);
  if (view_data->is_paused) return;
  __brisel_detail_register_pickover(view_data);
  view_data->pickover_timer = ecore_timer_add(pickover_period, __brisel_detail_pickover_timer_cb, view_data);
}

void brisel_detail_register_pickover(view_data *vd) {
  if (!vd) {
    BRISEL_ERROR("Invalid parameter: data is NULL!");
    return;
  }
  brisel_detail_view *view_data = (brisel_detail_view *)vd;
  view_data->is_paused = 0;
  __brisel_detail_update_pickover(view_data);
  __brisel_detail_turn_rings(view_data, true);
  __brisel_detail_build_soon(view_data);
  /* A page that came to rest out of sight is entered now. */
  __brisel_detail_settle(view_data);
}

void brisel_detail_unregister_pickover(view_data *vd) {
  if (!vd) {
    BRISEL_ERROR("Invalid parameter: data is NULL!");
    return;
  }
  brisel_detail_view *view_data = (brisel_detail_view *)vd;
  view_data->is_paused = 1;
  __brisel_detail_stop_building(view_data);
  __brisel_detail_end_place(view_data);
  __brisel_detail_stop_pages(view_data);
  for (const page_data *page : view_data->page_data)
    if (page) brisel_view_stop_scrolling(page->scroller);
  __brisel_detail_turn_rings(view_data, false);
  if (view_data->pickover_timer) ecore_timer_del(view_data->pickover_timer);
  view_data->pickover_timer = nullptr;
  __brisel_detail_unregister_pickover(view_data);
}
