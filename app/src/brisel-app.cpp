/* The application core: lifecycle, main window and view stack, host events, settings watchers, launch flows. */
#include "brisel-app.h"

#include <libintl.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "brisel-app-delete-view.h"
#include "brisel-app-lifecycle.h"
#include "brisel-app-touch.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "brisel-scoped.h"
#include "contacts.h"
#include "efl_assist.h"
#include "platform-paths.h"
#include "plexo.h"
#include "vconf.h"

unsigned char launched;

/* Whether app_create came as far as the services: what was never opened needs no closing. */
static bool services_open;

/* --- view stack ------------------------------------------------------------------------------------------------- */

view_data *brisel_util_retrieve_view_data(int view_type, appdata *ad) {
  if (!ad) {
    BRISEL_ERROR("Invalid parameter: data is NULL!");
    return nullptr;
  }
  Eina_List *items = ad->naviframe ? elm_naviframe_items_get(ad->naviframe) : nullptr;
  if (!items) {
    BRISEL_ERROR("elm_naviframe_items_get() failed!");
    return nullptr;
  }
  view_data *found = nullptr;
  void *item = nullptr;
  EINA_LIST_FREE(items, item) {
    brisel_view_head *head = (brisel_view_head *)elm_object_item_data_get((Elm_Object_Item *)item);
    if (head && head->view_type == view_type) found = (view_data *)head;
  }
  BRISEL_INFO("Leave");
  return found;
}

/* Deletes the item of a view and frees the view's record; other items stay. */
static void _remove_view_item(Elm_Object_Item *item) {
  brisel_view_head *head = (brisel_view_head *)elm_object_item_data_get(item);
  if (!head || head->navi_item != item) return;
  Elm_Naviframe_Item_Pop_Cb pop_cb = head->pop_cb;
  elm_object_item_del(item);
  if (pop_cb) pop_cb(head, item);
}

static void _brisel_naviframe_pop_to_mailbox(appdata *ad) {
  BRISEL_INFO("Enter");
  Eina_List *items = ad->naviframe ? elm_naviframe_items_get(ad->naviframe) : nullptr;
  if (!items) return;
  Elm_Object_Item *bottom = elm_naviframe_bottom_item_get(ad->naviframe);
  if (eina_list_count(items) > 1 && bottom) {
    BRISEL_INFO("Remove naviframe items, navi_item_cnt : %d", (int)eina_list_count(items));
    void *item = nullptr;
    EINA_LIST_FREE(items, item) {
      if (item == bottom)
        BRISEL_INFO("This is mailbox naviframe item.");
      else
        _remove_view_item((Elm_Object_Item *)item);
    }
    ad->mail_id = 0;
  }
  eina_list_free(items);
}

static void _clear_all_naviframe_view_data(appdata *ad) {
  Eina_List *items = ad->naviframe ? elm_naviframe_items_get(ad->naviframe) : nullptr;
  void *item = nullptr;
  EINA_LIST_FREE(items, item) _remove_view_item((Elm_Object_Item *)item);
}

/* The stack takes no pop while its top view is still sliding in, and says nothing: such a pop waits for the view to
   stand. A view that has gone otherwise by then is not on top any more. */
static Elm_Object_Item *view_to_pop;

static void _transition_finished_cb(void *data, Evas_Object *obj, void *event_info) {
  Elm_Object_Item *waiting = view_to_pop;
  view_to_pop = nullptr;
  if (waiting && elm_naviframe_top_item_get(obj) == waiting) elm_naviframe_item_pop(obj);
}

void brisel_util_pop_view(Evas_Object *naviframe) {
  Elm_Object_Item *top = elm_naviframe_top_item_get(naviframe);
  elm_naviframe_item_pop(naviframe);
  if (top != elm_naviframe_bottom_item_get(naviframe) && top == elm_naviframe_top_item_get(naviframe))
    view_to_pop = top;
}

static Eina_Bool _pop_cb(void *data, Elm_Object_Item *item) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)data;
  if (ad && ad->win_main) {
    brisel_delete_sweep_item(ad);
    brisel_clear_all_new_flag();
    elm_win_lower(ad->win_main);
  }
  return EINA_FALSE;
}

static void _delete_view_cb(void *data, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  brisel_delete_sweep_item(ad);
  brisel_crete_delete_view(ad);
}

static void _naviframe_back_cb(void *data, Evas_Object *obj, void *event_info) {
  brisel_util_pop_view(obj);
}

static void _naviframe_more_cb(void *data, Evas_Object *obj, void *event_info) {
  Elm_Object_Item *top = elm_naviframe_top_item_get(obj);
  if (!top) return;
  Evas_Object *button = elm_object_item_part_content_get(top, "toolbar_more_btn");
  if (button)
    evas_object_smart_callback_call(button, "clicked", nullptr);
  else
    elm_object_item_signal_emit(top, "elm,action,more_event", "");
}

/* --- main window ---------------------------------------------------------------------------------------------------
 */

static int _create_conform(appdata *ad) {
  ad->conform = nullptr;
  if (!ad->win_main) return -1;
  ad->conform = elm_conformant_add(ad->win_main);
  evas_object_size_hint_weight_set(ad->conform, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  elm_win_resize_object_add(ad->win_main, ad->conform);
  evas_object_show(ad->conform);
  return 0;
}

static int _create_layout_main(appdata *ad) {
  ad->layout_main = elm_layout_add(ad->conform);
  if (!ad->layout_main) {
    BRISEL_WARN("layout is NULL");
    return -1;
  }
  elm_layout_theme_set(ad->layout_main, "layout", "application", "default");
  evas_object_size_hint_weight_set(ad->layout_main, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_show(ad->layout_main);
  elm_object_content_set(ad->conform, ad->layout_main);
  elm_win_conformant_set(ad->win_main, EINA_TRUE);
  return 0;
}

static void _create_naviframe_layout(appdata *ad) {
  ad->naviframe = elm_naviframe_add(ad->layout_main);
  // The device has a back key: no view has a back button.
  elm_naviframe_prev_btn_auto_pushed_set(ad->naviframe, EINA_FALSE);
  elm_object_part_content_set(ad->layout_main, "elm.swallow.content", ad->naviframe);
  evas_object_smart_callback_add(ad->naviframe, "transition,finished", _transition_finished_cb, nullptr);
  evas_object_show(ad->naviframe);
}

static Evas_Object *_create_nocontents_layout(appdata *ad) {
  Evas_Object *layout = elm_layout_add(ad->naviframe);
  elm_layout_theme_set(layout, "layout", "nocontents", "full");
  elm_object_domain_translatable_part_text_set(layout, "elm.text", BRISEL_DOMAIN, "IDS_EMAIL_BODY_NO_EMAILS");
  return layout;
}

static void _create_view_layout(appdata *ad) {
  int count = 0;
  brisel_db_get_full_noti_data_count_by_account_id(0, &count);
  ad->delete_btn = brisel_view_title_button(ad->naviframe, "b_email_history_delete_normal.png", _delete_view_cb, ad);
  brisel_create_mailbox_list_view(ad->win_main, ad);
  ad->nocontents_layout = _create_nocontents_layout(ad);

  bool empty = count < 1;
  Elm_Object_Item *item = elm_naviframe_item_push(ad->naviframe, nullptr, nullptr, ad->delete_btn,
                                                  empty ? ad->nocontents_layout : ad->mailbox_genlist, nullptr);
  elm_object_item_domain_translatable_text_set(item, BRISEL_DOMAIN, "IDS_HS_MBODY_EMAIL_M_APPLICATION_NAME_ABB3");
  if (empty) {
    evas_object_hide(ad->mailbox_genlist);
    elm_naviframe_item_title_enabled_set(item, EINA_FALSE, EINA_FALSE);
    ad->nocontents_shown = 1;
  }

  ea_object_event_callback_add(ad->naviframe, EA_CALLBACK_BACK, _naviframe_back_cb, nullptr);
  ea_object_event_callback_add(ad->naviframe, EA_CALLBACK_MORE, _naviframe_more_cb, nullptr);

  if (Evas_Object *icon = brisel_view_title_icon(ad->naviframe))
    elm_object_item_part_content_set(item, "elm.swallow.icon", icon);
  elm_naviframe_item_pop_cb_set(item, _pop_cb, ad);
}

static int _check_security_lock_mail(int mail_id);

int init_brisel(appdata *ad, int mail_id) {
  BRISEL_INFO("Enter");
  if (!ad) return -1;
  if (_create_conform(ad) < 0 || _create_layout_main(ad) < 0) return -1;
  if (ad->no_account_popup) {
    BRISEL_INFO("no account popup is existed. remove it.");
    brisel_util_drop_popup(&ad->no_account_popup);
  }
  _create_naviframe_layout(ad);

  if (ad->account_cnt == 1) {
    GSList *list = nullptr;
    brisel_db_get_all_account_data(&list);
    scoped_account_list accounts(list);
    if (list && list->data) {
      ad->account_id = ((account_data *)list->data)->account_id;
      BRISEL_INFO("ad->account_id  : %d", ad->account_id);
    }
  }
  if (ad->naviframe) _create_view_layout(ad);

  if (mail_id < 1) return 0;
  BRISEL_INFO("mail_id : %d", mail_id);
  if (_check_security_lock_mail(mail_id)) {
    ad->mail_id = mail_id;
    brisel_create_security_alert_popup(ad);
  } else {
    brisel_detail_draw_view(mail_id, 0, ad);
  }
  return 0;
}

/* --- account set-up, connecting -------------------------------------------------------------------------------------
 */

static bool _check_setup_account_popup_is_needed() {
  int count = 0;
  brisel_db_get_target_account_count(&count);
  BRISEL_INFO("target_account_cnt : %d", count);
  return count == 0;
}

static bool _check_progress_popup_is_needed() {
  int valid = 0;
  int result = brisel_db_is_valid_target_account_count(&valid);
  if (result != 0) BRISEL_WARN("brisel_db_is_valid_target_account_count failed(%d)", result);
  return valid == 0;
}

static int _check_security_lock_mail(int mail_id) {
  if (mail_id < 1) {
    BRISEL_INFO("Invalid mail_id : %d", mail_id);
    return 0;
  }
  scoped_noti mail(brisel_full_noti_data_create());
  if (!mail) {
    BRISEL_ERROR("brisel_db_full_noti_data_create() failed!");
    return 0;
  }
  int result = brisel_db_get_full_noti_data_by_mail_id(mail_id, mail.get());
  if (result != 0) {
    BRISEL_ERROR("brisel_db_get_full_noti_data_by_mail_id() failed! err:[%d]", result);
    return 0;
  }
  if (!mail->security_locked) return 0;
  BRISEL_INFO("This mail is eas policy locked");
  return 1;
}

/* Leaves for good: the window goes out of sight at once, the main loop ends. */
static void _lower_and_exit(appdata *ad) {
  if (ad->win_main) elm_win_lower(ad->win_main);
  app_efl_exit();
}

/* Whether the popup of that field is still to be made; the log says why not. */
static bool _popup_is_missing(appdata *ad, Evas_Object *appdata::*field) {
  if (!ad) {
    BRISEL_ERROR("data is NULL!");
    return false;
  }
  if (ad->*field) BRISEL_INFO("popup is already existed.");
  return !(ad->*field);
}

static bool _close_set_up_popup(appdata *ad) {
  if (!ad) {
    BRISEL_ERROR("data is NULL!");
    return false;
  }
  brisel_util_drop_popup(&ad->no_account_popup);
  return true;
}

static void _set_up_email_popup_ok_cb(void *data, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  if (!_close_set_up_popup(ad)) return;
  int result = brisel_ipc_req_no_account(nullptr, nullptr);
  if (result != 0) BRISEL_WARN("brisel_ipc_req_no_account failed(%d)", result);
  _lower_and_exit(ad);
}

static void _set_up_email_popup_cancel_cb(void *data, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  if (!_close_set_up_popup(ad)) return;
  _lower_and_exit(ad);
}

static void _set_up_email_popup_back_cb(void *data, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  if (ad && ad->win_main) elm_win_lower(ad->win_main);
}

static void _create_set_up_email_popup(appdata *ad) {
  BRISEL_INFO("Enter");
  if (!_popup_is_missing(ad, &appdata::no_account_popup)) return;
  if (ad->account_id != 0) {
    BRISEL_INFO("account id reset is needed (%d->0)", ad->account_id);
    ad->account_id = 0;
  }
  ad->no_account_popup = brisel_util_create_basic_2button_popup_with_app_data(
      ad, "IDS_EMAIL_HEADER_SET_UP_EMAIL",
      "IDS_EMAIL_POP_NO_EMAIL_ACCOUNT_HAS_BEEN_SET_UP_TAP_OK_TO_SET_UP_AN_EMAIL_ACCOUNT_ON_YOUR_MOBILE_DEVICE_NOW",
      _set_up_email_popup_back_cb, _set_up_email_popup_cancel_cb, "IDS_EMAIL_SK_CANCEL_ABB", _set_up_email_popup_ok_cb,
      "IDS_COM_SK_OK");
  ad->no_account_ok_btn = elm_object_part_content_get(ad->no_account_popup, "button2");
  if (!ad->bt_connected) elm_object_disabled_set(ad->no_account_ok_btn, EINA_TRUE);
}

static void _connecting_popup_back_cb(void *data, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  brisel_util_drop_popup(&ad->connecting_popup);
  _lower_and_exit(ad);
}

/* The first build of the main screen; it happens once. */
static void _launch(appdata *ad, int mail_id) {
  init_brisel(ad, mail_id);
  launched = 1;
  /* An account may come before the count is known: the popup stays above the new screen, and so does its back key. */
  if (ad->connecting_popup)
    ea_object_event_callback_add(ad->connecting_popup, EA_CALLBACK_BACK, _connecting_popup_back_cb, ad);
}

static void _create_connecting_popup(appdata *ad) {
  BRISEL_INFO("Enter");
  if (!_popup_is_missing(ad, &appdata::connecting_popup)) return;
  Evas_Object *popup = brisel_util_popup_add(ad->win_main);
  ea_object_event_callback_add(popup, EA_CALLBACK_BACK, _connecting_popup_back_cb, ad);
  if (Evas_Object *layout = brisel_util_load_edj(popup, BRISEL_EDJ, "brisel/popup/progress.1text")) {
    Evas_Object *bar = elm_progressbar_add(layout);
    elm_object_style_set(bar, "process");
    evas_object_size_hint_align_set(bar, EVAS_HINT_FILL, 0.5);
    evas_object_size_hint_weight_set(bar, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
    evas_object_show(bar);
    elm_progressbar_pulse_set(bar, EINA_TRUE); /* without it the next call does nothing */
    elm_progressbar_pulse(bar, EINA_TRUE);
    elm_object_part_content_set(layout, "swallow.progress", bar);
    elm_object_domain_translatable_part_text_set(layout, "text", BRISEL_DOMAIN, "IDS_EMAIL_POP_CONNECTING_ING");
    elm_object_content_set(popup, layout);
  }
  evas_object_show(popup);
  ad->connecting_popup = popup;
}

/* --- launch requests -------------------------------------------------------------------------------------------------
 */

/* The mail a launch request names, or 0: a number that is none, or no mail's, names no mail. */
static int _mail_id_of_text(const char *text) {
  if (!text) return 0;
  errno = 0;
  long id = strtol(text, nullptr, 10);
  return errno || id < 0 || id > INT_MAX ? 0 : (int)id;
}

static void _show_mail_of_launch(appdata *ad, int mail_id) {
  brisel_delete_sweep_item(ad);
  brisel_util_drop_popup(&ad->security_popup);
  brisel_util_drop_popup(&ad->account_popup);
  if (_check_security_lock_mail(mail_id)) {
    ad->mail_id = mail_id;
    brisel_create_security_alert_popup(ad);
    return;
  }
  BRISEL_INFO("Show detail view first.");
  brisel_detail_draw_view(mail_id, 0, ad);
  brisel_check_current_mailbox_account_by_mail_id(mail_id, ad);
}

static void _bt_connect_error_popup_result_cb(service_h request, service_h reply, int result, void *data) {
  appdata *ad = (appdata *)data;
  if (brisel_util_link_is_up_in_reply(reply))
    BRISEL_INFO("BT Connected");
  else
    BRISEL_INFO("BT Not Connected");

  if (_check_progress_popup_is_needed()) {
    _create_connecting_popup(ad);
  } else if (_check_setup_account_popup_is_needed()) {
    _create_set_up_email_popup(ad);
  } else if (launched) {
    BRISEL_INFO("Already launched.");
    _brisel_naviframe_pop_to_mailbox(ad);
    brisel_delete_sweep_item(ad);
    brisel_check_mail_on_db(ad);
  } else {
    _launch(ad, 0);
  }
  elm_win_activate(ad->win_main);
}

int app_reset(service_h service, void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  char *text = nullptr;
  service_get_extra_data(service, BRISEL_EVENT_ID_KEY, &text);
  scoped_text mail_text(text);
  if (!ad->win_main) return 0;
  if (!brisel_util_bluetooth_connection_popup(ad, _bt_connect_error_popup_result_cb, "refresh")) return 0;

  int mail_id = _mail_id_of_text(text);
  if (_check_progress_popup_is_needed()) {
    _create_connecting_popup(ad);
  } else if (launched) {
    BRISEL_INFO("Already launched.");
    _brisel_naviframe_pop_to_mailbox(ad);
    if (mail_id > 0) {
      _show_mail_of_launch(ad, mail_id);
    } else if (_check_setup_account_popup_is_needed()) {
      _create_set_up_email_popup(ad);
    } else {
      brisel_delete_sweep_item(ad);
      brisel_check_mail_on_db(ad);
    }
  } else if (_check_setup_account_popup_is_needed()) {
    _create_set_up_email_popup(ad);
  } else {
    _launch(ad, mail_id);
  }
  elm_win_activate(ad->win_main);
  return 0;
}

/* --- host events
 * ------------------------------------------------------------------------------------------------------ */

/* An added or deleted mail beside the opened one changes the pages that the reader turns to. */
static void _check_prev_next_mail_status_by_mail_id(GSList *ids, appdata *ad) {
  BRISEL_INFO("Enter");
  if (!ids) return;
  GList *cell = ad->mail_list;
  while (cell && ((item_data *)cell->data)->mail_id != ad->mail_id) cell = cell->next;
  if (!cell) return;
  int prev_mail_id = cell->prev ? ((item_data *)cell->prev->data)->mail_id : -1;
  int next_mail_id = cell->next ? ((item_data *)cell->next->data)->mail_id : -1;
  BRISEL_INFO("prev_mail_id : %d,  next_mail_id : %d", prev_mail_id, next_mail_id);
  for (; ids; ids = ids->next) {
    int id = GPOINTER_TO_INT(ids->data);
    /* A deleted mail is beside nothing in the list any more, but its page still is beside the opened one. */
    if (id != prev_mail_id && id != next_mail_id && !brisel_detail_shows_mail(id, ad)) continue;
    BRISEL_INFO("viewer refresh is needed");
    brisel_detail_update_neighbors(ad->mail_id, ad);
    return;
  }
}

static void _update_email_view(int type, GSList *ids, appdata *ad) {
  if (type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE && ad->naviframe) {
    Eina_List *items = elm_naviframe_items_get(ad->naviframe);
    if (eina_list_count(items) > 1 && g_slist_find(ids, GINT_TO_POINTER(ad->mail_id))) {
      BRISEL_INFO("opened mail is deleted");
      _brisel_naviframe_pop_to_mailbox(ad);
    }
    eina_list_free(items);
  }
  brisel_update_mailbox_list(type, ids, ad);
  if (ad->mail_id > 0 &&
      (type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD || type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE))
    _check_prev_next_mail_status_by_mail_id(ids, ad);
}

static void _brisel_ipc_noti_add_callback(brisel_ipc_event *event, void *reserved, void *user_data) {
  BRISEL_INFO("Enter");
  BRISEL_INFO("BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD");
  if (event) _update_email_view(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD, event->id_list, (appdata *)user_data);
}

static void _brisel_ipc_noti_update_callback(brisel_ipc_event *event, void *reserved, void *user_data) {
  BRISEL_INFO("Enter");
  BRISEL_INFO("BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE");
  if (event) _update_email_view(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, event->id_list, (appdata *)user_data);
}

static void _brisel_ipc_noti_delete_callback(brisel_ipc_event *event, void *reserved, void *user_data) {
  BRISEL_INFO("Enter");
  BRISEL_INFO("BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE");
  if (event) _update_email_view(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, event->id_list, (appdata *)user_data);
}

static void _reread_account_count(appdata *ad) {
  brisel_db_get_all_account_count(&ad->account_cnt);
  BRISEL_INFO("ad->account_cnt : %d", ad->account_cnt);
}

static void _brisel_ipc_noti_account_add_callback(brisel_ipc_event *event, void *reserved, void *user_data) {
  BRISEL_INFO("Enter");
  BRISEL_INFO("BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD");
  appdata *ad = (appdata *)user_data;
  if (!event) return;
  bool had_accounts = ad->account_cnt != 0;
  _reread_account_count(ad);
  if (had_accounts) {
    brisel_update_mailbox_accounts(ad);
    if (!ad->account_popup) return;
    brisel_create_account_selection_popup(ad);
    BRISEL_INFO("account selection popup is refreshed. account added");
    return;
  }
  if (ad->account_cnt <= 0) return;
  if (ad->no_account_popup) {
    BRISEL_INFO("no account popup is existed. remove it.");
    brisel_util_drop_popup(&ad->no_account_popup);
  }
  if (launched)
    brisel_update_mailbox_list(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD, event->id_list, ad);
  else
    _launch(ad, 0);
}

static void _brisel_ipc_account_delete_callback(brisel_ipc_event *event, void *reserved, void *user_data) {
  BRISEL_INFO("Enter");
  BRISEL_INFO("BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE");
  appdata *ad = (appdata *)user_data;
  if (!event) return;
  _reread_account_count(ad);
  if (_check_setup_account_popup_is_needed()) {
    brisel_util_drop_popup(&ad->account_popup);
    _create_set_up_email_popup(ad);
    return;
  }
  brisel_update_mailbox_list(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE, event->id_list, ad);
  if (!ad->account_popup) return;
  if (ad->account_cnt > 1) {
    brisel_create_account_selection_popup(ad);
    BRISEL_INFO("account selection popup is refreshed. account deleted");
  } else {
    brisel_util_drop_popup(&ad->account_popup);
    BRISEL_INFO("account id deleted. account selection popup is not needed");
  }
}

static void _brisel_ipc_account_count_status_callback(brisel_ipc_event *event, void *reserved, void *user_data) {
  BRISEL_INFO("Enter");
  BRISEL_INFO("BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_COUNT_STATUS");
  appdata *ad = (appdata *)user_data;
  brisel_util_drop_popup(&ad->connecting_popup);
  if (_check_setup_account_popup_is_needed()) {
    _create_set_up_email_popup(ad);
    return;
  }
  brisel_util_drop_popup(&ad->no_account_popup);
  if (!launched) _launch(ad, 0);
}

static const brisel_ipc_event_cb event_callbacks[] = {
    _brisel_ipc_noti_add_callback,       _brisel_ipc_noti_update_callback,
    _brisel_ipc_noti_delete_callback,    _brisel_ipc_noti_account_add_callback,
    _brisel_ipc_account_delete_callback, _brisel_ipc_account_count_status_callback,
};

static void _brisel_ipc_subscribe(appdata *ad) {
  BRISEL_INFO("Enter");
  for (int type = 0; type < (int)std::size(event_callbacks); type++)
    brisel_ipc_client_event_subscribe(type, event_callbacks[type], ad);
}

static void _brisel_ipc_unsubscribe() {
  for (int type = 0; type < (int)std::size(event_callbacks); type++) brisel_ipc_client_event_unsubscribe(type);
}

/* --- settings
 * ---------------------------------------------------------------------------------------------------------- */

static void _brisel_init_vconf_values(appdata *ad) {
  BRISEL_INFO("Enter");
  int result = vconf_get_bool(BRISEL_KEY_BT_CONNECTED, &ad->bt_connected);
  if (result < 0) BRISEL_WARN("vconf_get_bool returns: %d", result);
}

static void _brisel_set_date_time_format(appdata *ad) {
  BRISEL_INFO("Enter");
  if (!ad) {
    BRISEL_ERROR("data == NULL");
    return;
  }
  int result = vconf_get_int(BRISEL_KEY_DATE_FORMAT, &ad->date_format);
  if (result < 0) BRISEL_WARN("vconf_get_int returns: %d", result);
  if ((unsigned)ad->date_format > 3) {
    BRISEL_WARN("Invalid date_format value(%d)", ad->date_format);
    ad->date_format = 2;
  }
  result = vconf_get_int(BRISEL_KEY_TIME_FORMAT, &ad->time_format);
  if (result < 0) BRISEL_WARN("vconf_get_int returns: %d", result);
  BRISEL_INFO("ad->date_format : %d ad->time_format : %d", ad->date_format, ad->time_format);
}

static void _brisel_update_time_format_and_views(appdata *ad) {
  BRISEL_INFO("Enter");
  if (!ad) {
    BRISEL_ERROR("data == NULL");
    return;
  }
  brisel_close_icu_pattern_generator(ad);
  brisel_open_icu_pattern_generator(ad);
  _brisel_set_date_time_format(ad);
  if (ad->mailbox_genlist) elm_genlist_realized_items_update(ad->mailbox_genlist);
  if (ad->naviframe) {
    delete_view_data *delete_view =
        (delete_view_data *)brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DELETE_VIEW, ad);
    if (delete_view && delete_view->genlist) {
      BRISEL_INFO("delete view is also refreshed");
      elm_genlist_realized_items_update(delete_view->genlist);
    }
    brisel_detail_update_datetime_format(ad);
  }
  BRISEL_INFO("Leave");
}

static void _brisel_bt_connected_state_changed_cb(keynode_t *node, void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  if (!ad) {
    BRISEL_ERROR("data == NULL");
    return;
  }
  int connected = 0;
  int result = vconf_get_bool(BRISEL_KEY_BT_CONNECTED, &connected);
  if (result < 0) BRISEL_WARN("vconf_get_bool returns: %d", result);
  BRISEL_INFO("bt_connected : %d", connected);
  if (connected == ad->bt_connected) return;
  ad->bt_connected = connected;
  if (ad->no_account_popup) elm_object_disabled_set(ad->no_account_ok_btn, connected ? EINA_FALSE : EINA_TRUE);
}

static void _brisel_date_time_format_changed_cb(keynode_t *node, void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  if (!ad) {
    BRISEL_ERROR("data == NULL");
    return;
  }
  _brisel_update_time_format_and_views(ad);
}

static void _brisel_system_time_changed_cb(keynode_t *node, void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  if (!ad) {
    BRISEL_ERROR("data == NULL");
  } else {
    brisel_update_timezone_str();
    _brisel_update_time_format_and_views(ad);
  }
  BRISEL_INFO("Leave");
}

struct settings_watcher {
  const char *key;
  vconf_callback_fn callback;
};
static const settings_watcher settings_watchers[] = {
    {BRISEL_KEY_TIME_CHANGED, _brisel_system_time_changed_cb},
    {BRISEL_KEY_DATE_FORMAT, _brisel_date_time_format_changed_cb},
    {BRISEL_KEY_TIME_FORMAT, _brisel_date_time_format_changed_cb},
    {BRISEL_KEY_BT_CONNECTED, _brisel_bt_connected_state_changed_cb},
};

static void _brisel_register_vconf_change_notify(appdata *ad) {
  BRISEL_INFO("Enter");
  for (const settings_watcher &watcher : settings_watchers) vconf_notify_key_changed(watcher.key, watcher.callback, ad);
}

static void _brisel_unregister_vconf_change_notify() {
  BRISEL_INFO("Enter");
  for (const settings_watcher &watcher : settings_watchers) vconf_ignore_key_changed(watcher.key, watcher.callback);
}

/* --- lifecycle
 * ----------------------------------------------------------------------------------------------------------- */

static void _brisel_quit_cb(void *data, Evas_Object *obj, void *event_info) {
  elm_exit();
}

static void _window_resize_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  evas_object_geometry_get(obj, nullptr, nullptr, &ad->root_w, &ad->root_h);
  BRISEL_INFO("ad->root_w : %d ad->root_h : %d", ad->root_w, ad->root_h);
}

/* The window closes itself when its user asks: the views in it are freed while they still stand, and nothing points
   to a widget that went with the window. */
static void _window_deleted_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  brisel_delete_sweep_item(ad);
  _clear_all_naviframe_view_data(ad);
  if (ad->sweep_timer) ecore_timer_del(ad->sweep_timer);
  ad->sweep_timer = nullptr;
  ad->sweep_item = ad->blocked_item = nullptr;
  ad->security_popup = ad->account_popup = ad->connecting_popup = ad->no_account_popup = nullptr;
  ad->no_account_ok_btn = ad->delete_btn = nullptr;
  /* Its rows leave the model with it, and must not search the model for themselves one by one. */
  brisel_free_mail_list(ad);
  brisel_util_drop_popup(&ad->nocontents_layout);
  brisel_util_drop_popup(&ad->mailbox_genlist);
  ad->win_main = ad->conform = ad->layout_main = ad->naviframe = nullptr;
  ad->evas = nullptr;
}

static Evas_Object *_brisel_create_win(appdata *ad) {
  Evas_Object *win = elm_win_util_standard_add("brisel", "brisel");
  if (!win) return nullptr;
  elm_win_autodel_set(win, EINA_TRUE);
  if (elm_win_wm_rotation_supported_get(win)) {
    int rotations[4] = {0, 90, 180, 270};
    elm_win_wm_rotation_available_rotations_set(win, rotations, 4);
  }
  evas_object_smart_callback_add(win, "delete,request", _brisel_quit_cb, nullptr);
  return win;
}

bool app_create(void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  ad->win_main = _brisel_create_win(ad);
  if (!ad->win_main) return false;
  evas_object_event_callback_add(ad->win_main, EVAS_CALLBACK_RESIZE, _window_resize_cb, ad);
  evas_object_event_callback_add(ad->win_main, EVAS_CALLBACK_DEL, _window_deleted_cb, ad);
  ad->evas = evas_object_evas_get(ad->win_main);
  brisel_touch_watch(ad->evas);
  app_efl_window_attach(ad->win_main);
  evas_object_show(ad->win_main);

  /* The device's texts are UTF-8 whatever the locale's own encoding is. Preset replies have a catalogue of their own.
   */
  for (const char *domain : {BRISEL_DOMAIN, BRISEL_MESSAGE_DOMAIN}) {
    bindtextdomain(domain, platform_path(BRISEL_LOCALE_DIR));
    bind_textdomain_codeset(domain, "UTF-8");
  }
  plexo_initialize();
  services_open = true;
  brisel_full_noti_data_set_contact_free(brisel_util_contact_number_free);
  int result = brisel_db_init();
  if (result != 0) BRISEL_ERROR("brisel_db_init() failed! err:[%d]", result);
  result = brisel_ipc_client_init();
  if (result != 0) BRISEL_ERROR("brisel_ipc_client_init() failed! err:[%d]", result);
  _brisel_ipc_subscribe(ad);
  brisel_util_init_timezone();
  brisel_open_icu_pattern_generator(ad);
  _brisel_init_vconf_values(ad);
  _brisel_set_date_time_format(ad);
  _brisel_register_vconf_change_notify(ad);
  brisel_db_get_all_account_count(&ad->account_cnt);
  BRISEL_INFO("ad->account_cnt : %d", ad->account_cnt);
  result = contacts_connect2();
  if (result != 0) BRISEL_INFO("contacts_svc_connect2 failed : ct_err = [%d]", result);
  BRISEL_INFO("Leave");
  return true;
}

static void _clear_genlist_item_class(Elm_Genlist_Item_Class **itc) {
  if (!*itc) return;
  (*itc)->item_style = nullptr;
  (*itc)->func.text_get = nullptr;
  (*itc)->func.content_get = nullptr;
  (*itc)->func.del = nullptr;
  elm_genlist_item_class_free(*itc);
  *itc = nullptr;
}

static void _clear_all_genlist_item_class(appdata *ad) {
  _clear_genlist_item_class(&ad->itc_group);
  _clear_genlist_item_class(&ad->itc_mail);
}

void app_terminate(void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  /* Without a window nothing was opened, the store included. */
  if (!services_open) return;
  services_open = false;
  /* The screen said "Deleted": leaving means it. */
  brisel_delete_sweep_item(ad);
  if (ad->sweep_timer) ecore_timer_del(ad->sweep_timer);
  ad->sweep_timer = nullptr;
  /* The rows free their records through their class: they go before it is emptied, and without each searching the
     model for itself. */
  brisel_free_mail_list(ad);
  if (ad->mailbox_genlist) elm_genlist_clear(ad->mailbox_genlist);
  _clear_all_genlist_item_class(ad);
  _clear_all_naviframe_view_data(ad);
  free(ad->locale);
  ad->locale = nullptr;
  brisel_close_icu_pattern_generator(ad);
  brisel_util_drop_popup(&ad->nocontents_layout);
  brisel_util_drop_popup(&ad->mailbox_genlist);
  int result = contacts_disconnect2();
  if (result != 0) BRISEL_INFO("contacts_svc_disconnect2 failed : ct_err = [%d]", result);
  plexo_finalize();
  _brisel_unregister_vconf_change_notify();
  result = brisel_db_deinit();
  if (result != 0) BRISEL_ERROR("brisel_db_deinit() failed! err:[%d]", result);
  _brisel_ipc_unsubscribe();
  result = brisel_ipc_client_deinit();
  if (result != 0) BRISEL_ERROR("brisel_ipc_client_deinit() failed! err:[%d]", result);
}

/* Hands the open reader to fn, or says that there is none. */
static void _with_detail_view(appdata *ad, void (*fn)(view_data *)) {
  view_data *vd = brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, ad);
  if (vd)
    fn(vd);
  else
    BRISEL_WARN("view_data for BRISEL_VIEW_TYPE_DETAIL_VIEW is NULL!");
}

int app_pause(void *user_data) {
  brisel_delete_sweep_item((appdata *)user_data);
  _with_detail_view((appdata *)user_data, brisel_detail_unregister_pickover);
  return 0;
}

int app_resume(void *user_data) {
  appdata *ad = (appdata *)user_data;
  brisel_check_mail_on_db(ad);
  elm_win_activate(ad->win_main);
  _with_detail_view(ad, brisel_detail_register_pickover);
  return 0;
}

int app_lang_changed(void *user_data) {
  appdata *ad = (appdata *)user_data;
  scoped_text language(vconf_get_str(BRISEL_KEY_LANGUAGE));
  if (!language) return 0;
  elm_language_set(language.get());
  brisel_detail_update_string(ad);
  return 0;
}

int app_region_changed(void *user_data) {
  appdata *ad = (appdata *)user_data;
  if (ad) _brisel_update_time_format_and_views(ad);
  BRISEL_INFO("Leave");
  return 0;
}
