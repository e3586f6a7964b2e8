/* The mailbox list: its widget, what a touch on a row opens, and the explanation of a locked mail. Its jobs beside it:
   -model (records and refresh), -live (host events), -rows (what a row shows), -sweep, -accounts (the account shown).
 */
#include "brisel-app-mailbox-list.h"

#include "app_efl.h"
#include "brisel-app-stage.h"
#include "brisel-app-touch.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"

/* --- a locked mail --- */

static void _brisel_mailbox_bt_connect_error_popup_result_cb(service_h request, service_h reply, int result,
                                                             void *data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)data;
  if (!ad) {
    BRISEL_WARN("user_data is NULL!");
    return;
  }
  if (brisel_util_link_is_up_in_reply(reply)) {
    BRISEL_INFO("BT Connected. mail_id : %d", ad->mail_id);
    if (ad->mail_id > 0) brisel_util_show_on_device(&ad->mail_id, 1); /* it may have gone meanwhile */
  } else {
    BRISEL_INFO("BT Not Connected");
  }
  ad->mail_id = 0;
  elm_win_activate(ad->win_main);
}

static void _security_alert_popup_cancel_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)data;
  brisel_util_drop_popup(&ad->security_popup);
  ad->mail_id = 0;
}

static void _security_alert_popup_ok_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)data;
  brisel_util_drop_popup(&ad->security_popup);
  if (!brisel_util_bluetooth_connection_popup(ad, _brisel_mailbox_bt_connect_error_popup_result_cb, "perform")) return;
  brisel_util_show_on_device(&ad->mail_id, 1);
  brisel_create_toast_popup(ad, brisel_util_get_text("IDS_PLEXO_POP_CHECK_MOBILE_DEVICE_TO_VIEW_CONTENT"));
  ad->mail_id = 0;
}

Evas_Object *brisel_create_security_alert_popup(appdata *ad) {
  BRISEL_INFO("Enter");
  if (!ad) {
    BRISEL_ERROR("ad is NULL!");
    return nullptr;
  }
  if (ad->security_popup) {
    BRISEL_INFO("popup is already existed. remove it.");
    brisel_util_drop_popup(&ad->security_popup);
  }
  ad->security_popup = brisel_util_create_basic_2button_popup_with_app_data(
      ad, "IDS_EMAIL_HEADER_OPEN_EMAIL_ABB",
      "IDS_EMAIL_POP_THE_CONTENT_OF_THIS_EMAIL_CANNOT_BE_DISPLAYED_ON_THE_ZOLT_FOR_SECURITY_REASONS_FOR_DETAILS_VIEW_"
      "THIS_EMAIL_ON_YOUR_MOBILE_DEVICE",
      _security_alert_popup_cancel_cb, _security_alert_popup_cancel_cb, "IDS_EMAIL_SK_CANCEL_ABB",
      _security_alert_popup_ok_cb, "IDS_COM_SK_OK");
  return ad->security_popup;
}

/* Whether a touch on the row of a mail does something: not the one that closes a swept row. */
static bool _row_takes_touch(appdata *ad, Elm_Object_Item *it) {
  if (!ad) return false;
  if (ad->sweep_item) {
    BRISEL_INFO("sweep item is existed.");
    return false;
  }
  return !_is_blocked_once(ad, it);
}

static void _gl_mail_sel(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  Elm_Object_Item *it = _take_selection(event_info);
  if (!it) return;
  item_data *item = (item_data *)data;
  if (!item) {
    BRISEL_WARN("data is NULL");
    return;
  }
  appdata *ad = item->ad;
  if (!_row_takes_touch(ad, it)) return;
  if (brisel_touch_was_long()) {
    brisel_option_detail_draw_view(item->mail_id, ad);
    return;
  }
  if (item->security_locked) {
    ad->mail_id = item->mail_id;
    brisel_create_security_alert_popup(ad);
    return;
  }
  brisel_detail_draw_view(item->mail_id, 1, ad);
}

static void _long_pressed_mail(item_data *item, Elm_Object_Item *it) {
  if (_row_takes_touch(item->ad, it)) brisel_option_detail_draw_view(item->mail_id, item->ad);
}

void _press_long(Elm_Object_Item *it) {
  item_data *item = (item_data *)elm_object_item_data_get(it);
  if (!item) {
    BRISEL_ERROR("item_data is NULL");
    return;
  }
  if (item->type == ROW_GROUP)
    _long_pressed_group(item, it);
  else
    _long_pressed_mail(item, it);
}

static brisel_touch_wait *pressed_wait; /* a press has lasted long, unless its end was only not heard of yet */
static Elm_Object_Item *pressed_item;

static void _press_is_known_cb(void *data) {
  pressed_wait = nullptr;
  /* Rows come and go by events of the phone; the one under a finger is a drawn one, or the header, which floats. */
  Eina_List *drawn = elm_genlist_realized_items_get((Evas_Object *)data);
  const bool there = pressed_item == elm_genlist_first_item_get((Evas_Object *)data) ||
                     eina_list_data_find(drawn, pressed_item) != nullptr;
  eina_list_free(drawn);
  if (!there || _touch_scrolls()) return;
  if (brisel_touch_was_short())
    elm_genlist_item_selected_set(pressed_item, EINA_TRUE); /* a tap */
  else
    _press_long(pressed_item);
}

static void _long_pressed_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  Elm_Object_Item *it = (Elm_Object_Item *)event_info;
  if (!it) {
    BRISEL_ERROR("event_info is NULL");
    return;
  }
  elm_genlist_item_selected_set(it, EINA_FALSE);
  if (_touch_scrolls()) return;
  brisel_touch_stop_waiting(pressed_wait);
  pressed_item = it;
  pressed_wait = brisel_touch_when_read(_press_is_known_cb, obj);
}

/* A mouse's right button presses as long as a finger does. */
static void _right_clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  if (event_info) _press_long((Elm_Object_Item *)event_info);
}

/* --- what who only listens does with a row --- */

/* Whoever does something with another row has gone on from the one drawn aside, as by a touch. */
static void _go_on_to(Elm_Object_Item *it) {
  appdata *ad = ((item_data *)elm_object_item_data_get(it))->ad;
  if (ad->sweep_item != it) brisel_delete_sweep_item(ad);
  ad->blocked_item = nullptr;
}

static void _do_open(Elm_Object_Item *it) {
  _go_on_to(it);
  elm_genlist_item_selected_set(it, EINA_TRUE);
}

static void _do_more(Elm_Object_Item *it) {
  _go_on_to(it);
  _press_long(it);
}

static void _do_delete(Elm_Object_Item *it) {
  _draw_aside_or_delete(((item_data *)elm_object_item_data_get(it))->ad, it);
}

static void _do_bring_back(Elm_Object_Item *it) {
  _revert_btn_select_cb(elm_object_item_data_get(it), nullptr, nullptr);
}

static const brisel_row_action *_actions_of(Elm_Object_Item *it) {
  static constexpr brisel_row_action header[] = {
      {"activate", "activate", "Return", _do_open}, {"choose", "IDS_EMAIL_HEADER_ACCOUNTS", nullptr, _do_more}, {}};
  static constexpr brisel_row_action mail[] = {{"open", "IDS_EMAIL_SK_OPEN", "Return", _do_open},
                                               {"delete", "IDS_EMAIL_BODY_DELETE", "Delete", _do_delete},
                                               {"options", "IDS_EMAIL_BODY_MORE_ACTIONS", nullptr, _do_more},
                                               {}};
  static constexpr brisel_row_action swept[] = {{"cancel", "IDS_EMAIL_SK_CANCEL_ABB", "Return", _do_bring_back},
                                                {"delete", "IDS_EMAIL_BODY_DELETE", "Delete", _do_delete},
                                                {}};
  const item_data *item = (const item_data *)elm_object_item_data_get(it);
  if (item->type == ROW_GROUP) return header;
  return it == item->ad->sweep_item ? swept : mail;
}

static void _list_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  brisel_touch_stop_waiting(pressed_wait);
  pressed_wait = nullptr;
}

/* Of the theme, at scale 1. */
constexpr int header_height = 48, row_height = 78, row_height_below = 104;

/* A wheel's or a crown's notch is a row: the one that it moves out at the top, or in. */
static void _wheel_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  const appdata *ad = (appdata *)data;
  int x = 0, y = 0, width = 0;
  evas_object_geometry_get(obj, &x, &y, &width, nullptr);
  Elm_Object_Item *row = elm_genlist_at_xy_item_get(obj, x + width / 2, y + _scaled(header_height) + 1, nullptr);
  if (row && ((Evas_Event_Mouse_Wheel *)event_info)->z < 0) row = elm_genlist_item_prev_get(row);
  const bool is_high = row && elm_genlist_item_item_class_get(row) == ad->itc_mail_below;
  elm_scroller_step_size_set(obj, 0, _scaled(is_high ? row_height_below : row_height));
}

/* --- the widget --- */

constexpr int rows_in_block = 6;
constexpr double long_press = 0.5; /* seconds */

Evas_Object *brisel_create_mailbox_list_view(Evas_Object *win_main, appdata *ad) {
  BRISEL_INFO("Enter");
  ad->itc_group = _new_group_class(_gl_group_del);
  ad->itc_mail = _new_mail_class("email/sweep", _gl_del);
  ad->itc_mail_below = _new_mail_class("email/sweep.below", _gl_del);
  _set_row_callbacks(_gl_mail_sel, _gl_group_sel);

  Evas_Object *gl = elm_genlist_add(ad->naviframe);
  ad->mailbox_genlist = gl;
  if (!gl) {
    BRISEL_WARN("gl is NULL");
    return nullptr;
  }
  brisel_view_set_row_actions(gl, _actions_of);
  brisel_stage_reach(gl);
  evas_object_smart_callback_add(gl, "drag,start,right", _drag_right, ad);
  evas_object_smart_callback_add(gl, "drag,start,left", _drag_left, ad);
  evas_object_smart_callback_add(gl, "scroll,drag,start", _scroll_start_cb, nullptr);
  evas_object_smart_callback_add(gl, "longpressed", _long_pressed_cb, nullptr);
  evas_object_smart_callback_add(gl, "clicked,right", _right_clicked_cb, nullptr);
  evas_object_event_callback_add(gl, EVAS_CALLBACK_DEL, _list_gone_cb, nullptr);
  evas_object_smart_callback_add(gl, "language,changed", _mailbox_list_language_changed_cb, nullptr);
  evas_object_smart_callback_add(gl, "realized", _row_realized_cb, ad);
  evas_object_smart_callback_add(gl, "unrealized", _row_unrealized_cb, ad);
  evas_object_event_callback_add(gl, EVAS_CALLBACK_MOUSE_DOWN, _mailbox_list_mouse_down_cb, ad);

  elm_config_longpress_timeout_set(long_press);
  _follow_row_settings(ad);
  _follow_keys(ad);
  _add_chip(ad);
  elm_scroller_policy_set(gl, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
  evas_object_event_callback_add(gl, EVAS_CALLBACK_MOUSE_WHEEL, _wheel_cb, ad);
  elm_genlist_homogeneous_set(gl, EINA_TRUE);
  elm_genlist_mode_set(gl, ELM_LIST_COMPRESS);
  /* The genlist draws a whole block of rows when one row comes to it, also those out of sight: about a screenful. */
  elm_genlist_block_count_set(gl, rows_in_block);
  evas_object_size_hint_align_set(gl, EVAS_HINT_FILL, EVAS_HINT_FILL);
  evas_object_size_hint_weight_set(gl, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);

  _refresh_mailbox_list(ad);
  evas_object_show(gl);
  return gl;
}
