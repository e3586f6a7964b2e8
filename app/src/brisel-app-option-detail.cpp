/* The list of actions on one mail: call the sender, reply, show on the phone, delete. */
#include <cstring>
#include <initializer_list>
#include <string>

#include "brisel-app-option-common.h"
#include "brisel-app-utils.h"
#include "brisel-app.h"
#include "contacts.h"
#include "vconf.h"

struct option_detail_view_data : brisel_view_head {
  Evas_Object *layout;
  Evas_Object *genlist;
  Evas_Object *popup;        /* the choice of the reply method or the update notice, or NULL */
  Evas_Object *delete_popup; /* or NULL */
  Evas_Object *radio_group;  /* of the choice of the reply method */
  Elm_Object_Item *call_item;
  Elm_Object_Item *reply_item;
  Elm_Object_Item *device_item;
  int mail_id;
  full_noti_data *noti_data; /* owned; NULL once the view was popped */
  char *from_phone_number;   /* owned; the sender address, when that is a phone number */
  double called_at; /* when a call was put through last, seconds of the clock that only runs forward; 0: never */
};

/* So long after a call was put through, the call application is still taking the screen: a second tap would dial
   twice. */
static constexpr double BRISEL_CALL_PAUSE_SECONDS = 1.0;

static constexpr int BRISEL_REPLY_METHOD_TEMPLATES = 0;
static constexpr int BRISEL_REPLY_METHOD_EMOTICONS = 1;
static constexpr int BRISEL_REPLY_SUPPORTED = 0;
static constexpr int BRISEL_REPLY_UPDATE_REQUIRED = 1;
static constexpr int BRISEL_REPLY_UNKNOWN = 2;

static void __brisel_option_detail_popup_response_cb(void *data, Evas_Object *obj, void *event_info);

/* A popped list, or one that another view has begun to cover, takes no more taps: a quick second one would open the
   view twice. */
static bool __brisel_option_detail_takes_taps(const option_detail_view_data *vd) {
  return vd->noti_data && brisel_view_on_top(vd);
}

static char *__brisel_option_detail_text(const char *id) {
  return strdup(brisel_util_get_text(id));
}

static bool __brisel_option_detail_is_label(const char *part) {
  return !strcmp(part, "elm.text") || !strcmp(part, "elm.text.1");
}

/* --- rows: texts and contents --- */

static char *__brisel_option_detail_gl_text_get_call(void *data, Evas_Object *obj, const char *part) {
  option_detail_view_data *vd = (option_detail_view_data *)data;
  if (__brisel_option_detail_is_label(part)) return __brisel_option_detail_text("IDS_COM_SK_CALL");
  if (strcmp(part, "elm.text.2") != 0) return nullptr;
  // After the pop the list slides out without its mail.
  if (vd && !vd->noti_data) return nullptr;
  contact_number *contact = vd ? (contact_number *)g_slist_nth_data(vd->noti_data->sender_contact_list, 0) : nullptr;
  if (!contact) {
    BRISEL_ERROR("Failed to get phone number from sender_contact_list!");
    return nullptr;
  }
  // A number comes from a contact card, which may hold anything: it is shown as text.
  return brisel_util_text_to_markup(contact->number);
}

static char *__brisel_option_detail_gl_text_get_call_by_from_address(void *data, Evas_Object *obj, const char *part) {
  option_detail_view_data *vd = (option_detail_view_data *)data;
  if (__brisel_option_detail_is_label(part)) return __brisel_option_detail_text("IDS_COM_SK_CALL");
  if (strcmp(part, "elm.text.2") != 0) return nullptr;
  if (!vd) {
    BRISEL_ERROR("Failed to get phone number from view_data!");
    return nullptr;
  }
  return vd->from_phone_number ? strdup(vd->from_phone_number) : nullptr;
}

static char *__brisel_option_detail_gl_text_get_reply(void *data, Evas_Object *obj, const char *part) {
  if (__brisel_option_detail_is_label(part)) return __brisel_option_detail_text("IDS_EMAIL_SK_REPLY");
  if (strcmp(part, "elm.text.2") != 0) return nullptr;
  switch (brisel_util_get_reply_method()) {
    case BRISEL_REPLY_METHOD_TEMPLATES:
      return __brisel_option_detail_text("IDS_MSGF_OPT2_TEMPLATES");
    case BRISEL_REPLY_METHOD_EMOTICONS:
      return __brisel_option_detail_text("IDS_EMAIL_MBODY_EMOTICONS_ABB");
    default:
      return nullptr;
  }
}

static char *__brisel_option_detail_gl_text_get_device(void *data, Evas_Object *obj, const char *part) {
  return strcmp(part, "elm.text") ? nullptr : __brisel_option_detail_text("IDS_EMAIL_BUTTON2_SHOW_ON_DEVICE");
}

static char *__brisel_option_detail_gl_text_get_delete(void *data, Evas_Object *obj, const char *part) {
  return strcmp(part, "elm.text") ? nullptr : __brisel_option_detail_text("IDS_EMAIL_BODY_DELETE");
}

static void __brisel_option_detail_gl_realized_cb(void *data, Evas_Object *obj, void *event_info) {
  brisel_view_name_row((Elm_Object_Item *)event_info);
  brisel_view_hide_last_bottomline(obj, (Elm_Object_Item *)event_info);
}

/* --- the choice of the reply method --- */

static char *__brisel_option_detail_gl_text_get_reply_setting(void *data, Evas_Object *obj, const char *part) {
  if (strcmp(part, "elm.text") != 0) return nullptr;
  return __brisel_option_detail_text((int)(intptr_t)data == BRISEL_REPLY_METHOD_TEMPLATES
                                         ? "IDS_MSGF_OPT2_TEMPLATES"
                                         : "IDS_EMAIL_MBODY_EMOTICONS_ABB");
}

static Evas_Object *__brisel_option_detail_gl_content_get_reply_setting(void *data, Evas_Object *obj,
                                                                        const char *part) {
  if (strcmp(part, "elm.icon") != 0) return nullptr;
  option_detail_view_data *vd = (option_detail_view_data *)evas_object_data_get(obj, "ViewData");
  if (!vd || !vd->radio_group) return nullptr;
  Evas_Object *radio = elm_radio_add(obj);
  elm_object_focus_allow_set(radio, EINA_FALSE); /* keys choose the row */
  elm_radio_state_value_set(radio, (int)(intptr_t)data);
  elm_radio_group_add(radio, vd->radio_group);
  brisel_view_set_spoken(radio, false);
  // A tap on the mark itself has to mean the row, or it would move the mark and keep the method.
  evas_object_pass_events_set(radio, EINA_TRUE);
  return radio;
}

static void __brisel_option_detail_gl_sel_reply_setting(void *data, Evas_Object *obj, void *event_info) {
  option_detail_view_data *vd = (option_detail_view_data *)data;
  Elm_Object_Item *item = (Elm_Object_Item *)event_info;
  const char *text = elm_object_item_part_text_get(item, "elm.text");
  if (text && !strcmp(text, brisel_util_get_text("IDS_MSGF_OPT2_TEMPLATES"))) {
    brisel_util_set_reply_method(BRISEL_REPLY_METHOD_TEMPLATES);
  } else if (text && !strcmp(text, brisel_util_get_text("IDS_EMAIL_MBODY_EMOTICONS_ABB"))) {
    BRISEL_INFO("Emoticon!");
    brisel_util_set_reply_method(BRISEL_REPLY_METHOD_EMOTICONS);
  }
  elm_genlist_item_selected_set(item, EINA_FALSE);
  __brisel_option_detail_popup_response_cb(vd, obj, nullptr);
}

static bool __brisel_option_detail_reply_setting_is_ticked(Elm_Object_Item *row) {
  return (int)(intptr_t)elm_object_item_data_get(row) == brisel_util_get_reply_method();
}

static constexpr Elm_Genlist_Item_Class reply_setting_row =
    brisel_view_row_class("1text.1icon.1", __brisel_option_detail_gl_text_get_reply_setting,
                          __brisel_option_detail_gl_content_get_reply_setting);

static void __brisel_option_detail_create_reply_setting_popup(option_detail_view_data *vd) {
  brisel_widget_ref_drop(&vd->radio_group);
  brisel_widget_ref_drop(&vd->popup);
  Evas_Object *popup = brisel_util_popup_create_with_empty_contents(vd, vd->ad->naviframe, nullptr, nullptr,
                                                                    __brisel_option_detail_popup_response_cb, 0.0,
                                                                    nullptr, nullptr, nullptr);
  if (!popup) return;
  brisel_widget_ref_set(&vd->popup, popup);

  Evas_Object *genlist = brisel_view_new_list(popup, __brisel_option_detail_gl_realized_cb);
  if (!genlist) {
    brisel_widget_ref_drop(&vd->popup);
    return;
  }
  evas_object_data_set(genlist, "ViewData", vd);
  for (int method : {BRISEL_REPLY_METHOD_TEMPLATES, BRISEL_REPLY_METHOD_EMOTICONS})
    brisel_view_add_row(genlist, nullptr, &reply_setting_row, (void *)(intptr_t)method,
                        __brisel_option_detail_gl_sel_reply_setting, vd);
  brisel_view_set_row_ticks(genlist, __brisel_option_detail_reply_setting_is_ticked);
  evas_object_show(genlist);

  Evas_Object *radio_group = elm_radio_add(genlist);
  elm_radio_state_value_set(radio_group, -1);
  elm_radio_value_set(radio_group, brisel_util_get_reply_method());
  brisel_view_set_spoken(radio_group, false);
  brisel_view_set_spoken_id(popup, "IDS_EMAIL_HEADER_SELECT_REPLY_ABB");
  brisel_widget_ref_set(&vd->radio_group, radio_group);
  elm_object_content_set(popup, genlist);
  elm_object_focus_set(genlist, EINA_TRUE);
}

static void __brisel_option_detail_reply_setting_icon_clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  option_detail_view_data *vd = (option_detail_view_data *)data;
  if (!__brisel_option_detail_takes_taps(vd)) return;
  __brisel_option_detail_create_reply_setting_popup(vd);
  BRISEL_INFO("Leave");
}

static Evas_Object *__brisel_option_detail_gl_content_get_reply(void *data, Evas_Object *obj, const char *part) {
  if (strcmp(part, "elm.icon") != 0) return nullptr;
  Evas_Object *layout = brisel_util_load_edj(obj, BRISEL_EDJ, "brisel/list_icon_rect");
  if (!layout) return nullptr;
  Evas_Object *btn = elm_button_add(layout);
  elm_object_style_set(btn, "list_divider_btn");
  brisel_view_set_spoken_id(btn, "IDS_EMAIL_HEADER_SELECT_REPLY_ABB");
  brisel_view_row_button(obj, layout, btn);
  evas_object_size_hint_weight_set(btn, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_size_hint_align_set(btn, EVAS_HINT_FILL, EVAS_HINT_FILL);
  evas_object_smart_callback_add(btn, "clicked", __brisel_option_detail_reply_setting_icon_clicked_cb, data);

  Evas_Object *icon = brisel_util_load_image(btn, "b_email_setting.png");
  if (icon) {
    int size = (int)(50 * elm_config_scale_get());
    evas_object_size_hint_min_set(icon, size, size);
    evas_object_size_hint_max_set(icon, size, size);
    elm_object_content_set(btn, icon);
  }
  evas_object_propagate_events_set(layout, EINA_FALSE);
  evas_object_propagate_events_set(btn, EINA_FALSE);
  elm_object_part_content_set(layout, "swallow.icon", btn);
  evas_object_show(btn);
  return layout;
}

static void __brisel_option_detail_popup_response_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  option_detail_view_data *vd = (option_detail_view_data *)data;
  if (vd->genlist) elm_genlist_realized_items_update(vd->genlist);
  brisel_widget_ref_drop(&vd->radio_group);
  brisel_widget_ref_drop(&vd->popup);
  BRISEL_INFO("Leave");
}

static void __brisel_option_detail_reply_value_change_cb(keynode_t *node, void *data) {
  BRISEL_INFO("Enter");
  option_detail_view_data *vd = (option_detail_view_data *)data;
  if (!vd) {
    BRISEL_ERROR("data is NULL.");
    return;
  }
  if (vd->radio_group) elm_radio_value_set(vd->radio_group, brisel_util_get_reply_method());
  if (vd->reply_item) elm_genlist_item_update(vd->reply_item);
  brisel_view_name_row(vd->reply_item);
  BRISEL_INFO("Leave");
}

/* --- row taps --- */

static void __brisel_option_detail_call(option_detail_view_data *vd, const char *number) {
  const double now = ecore_time_get();
  if (vd->called_at > 0 && now - vd->called_at < BRISEL_CALL_PAUSE_SECONDS) return;
  if (brisel_util_launch_voice_call(number)) vd->called_at = now;
}

static void __brisel_option_detail_gl_sel_call(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  option_detail_view_data *vd = (option_detail_view_data *)data;
  if (__brisel_option_detail_takes_taps(vd)) {
    GSList *contacts = vd->noti_data->sender_contact_list;
    if (contacts && contacts->next) {
      brisel_option_call_draw_view(0, vd->ad, vd->noti_data);
    } else {
      // The last number may have gone since the row was drawn: then there is nothing to call.
      contact_number *contact = contacts ? (contact_number *)contacts->data : nullptr;
      if (contact && contact->number)
        __brisel_option_detail_call(vd, contact->number);
      else
        BRISEL_ERROR("Failed to get phone number from sender_contact_list!");
    }
  }
  elm_genlist_item_selected_set((Elm_Object_Item *)event_info, EINA_FALSE);
  BRISEL_INFO("Leave");
}

static void __brisel_option_detail_gl_sel_call_by_from_address(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  option_detail_view_data *vd = (option_detail_view_data *)data;
  if (!vd) {
    BRISEL_ERROR("Failed to get phone number from data!");
    return;
  }
  if (vd->from_phone_number && __brisel_option_detail_takes_taps(vd))
    __brisel_option_detail_call(vd, vd->from_phone_number);
  elm_genlist_item_selected_set((Elm_Object_Item *)event_info, EINA_FALSE);
  BRISEL_INFO("Leave");
}

static void __brisel_option_detail_create_update_required_popup(option_detail_view_data *vd) {
  brisel_widget_ref_drop(&vd->radio_group);
  brisel_widget_ref_drop(&vd->popup);
  brisel_widget_ref_set(&vd->popup,
                        brisel_view_update_required_popup(vd->ad, __brisel_option_detail_popup_response_cb, vd));
}

static void __brisel_option_detail_reply(option_detail_view_data *vd) {
  if (!__brisel_option_detail_takes_taps(vd)) return;
  if (!brisel_util_bluetooth_connection_popup(vd->ad, brisel_util_bt_connect_error_popup_result_cb, "perform")) return;
  int status = BRISEL_REPLY_UNKNOWN;
  if (brisel_util_get_reply_status(&status) != 0) return;
  if (status == BRISEL_REPLY_UPDATE_REQUIRED) {
    __brisel_option_detail_create_update_required_popup(vd);
  } else if (status == BRISEL_REPLY_SUPPORTED) {
    brisel_view_draw_reply(vd->mail_id, vd->ad, vd->noti_data);
  }
}

static void __brisel_option_detail_gl_sel_reply(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  __brisel_option_detail_reply((option_detail_view_data *)data);
  elm_genlist_item_selected_set((Elm_Object_Item *)event_info, EINA_FALSE);
  BRISEL_INFO("Leave");
}

static void __brisel_option_detail_gl_sel_device(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  option_detail_view_data *vd = (option_detail_view_data *)data;
  appdata *ad = vd->ad;
  elm_genlist_item_selected_set((Elm_Object_Item *)event_info, EINA_FALSE);
  if (!__brisel_option_detail_takes_taps(vd) || !brisel_view_phone_ready(ad)) return;
  brisel_detail_show_on_device(vd->noti_data->mail_id, ad);
  brisel_util_pop_view(ad->naviframe);
  brisel_create_toast_popup(ad, brisel_util_get_text("IDS_PLEXO_POP_CHECK_MOBILE_DEVICE_TO_VIEW_CONTENT"));
  BRISEL_INFO("Leave");
}

static void __brisel_option_delete_popup_cancel_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  option_detail_view_data *vd = (option_detail_view_data *)data;
  brisel_widget_ref_drop(&vd->delete_popup);
  BRISEL_INFO("Leave");
}

static void __brisel_option_delete_popup_ok_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  option_detail_view_data *vd = (option_detail_view_data *)data;
  brisel_widget_ref_drop(&vd->delete_popup);
  int mail_id = vd->noti_data->mail_id;
  // The view stays: the event of the deletion closes it.
  brisel_util_request_delete(&mail_id, 1);
  BRISEL_INFO("Leave");
}

static void __brisel_option_detail_gl_sel_delete(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  option_detail_view_data *vd = (option_detail_view_data *)data;
  elm_genlist_item_selected_set((Elm_Object_Item *)event_info, EINA_FALSE);
  brisel_widget_ref_drop(&vd->delete_popup);
  if (!__brisel_option_detail_takes_taps(vd)) return;
  brisel_view_ask_to_delete_mail(&vd->delete_popup, vd->ad->naviframe, __brisel_option_delete_popup_cancel_cb,
                                 __brisel_option_delete_popup_ok_cb, vd);
  BRISEL_INFO("Leave");
}

/* --- the call row --- */

static GSList *__brisel_option_detail_look_up(const full_noti_data *noti_data) {
  if (!noti_data->from_address) return nullptr;
  return brisel_util_get_phone_number_by_person_id(brisel_util_get_person_id_by_email_address(noti_data->from_address));
}

static void __brisel_option_detail_replace_contacts(full_noti_data *noti_data, GSList *contacts) {
  g_slist_free_full(noti_data->sender_contact_list, brisel_util_contact_number_free);
  noti_data->sender_contact_list = contacts;
}

static void __brisel_option_detail_add_contact_row(option_detail_view_data *vd, Elm_Object_Item *before) {
  static constexpr Elm_Genlist_Item_Class one_number =
      brisel_view_row_class("2text", __brisel_option_detail_gl_text_get_call);
  static constexpr Elm_Genlist_Item_Class more_numbers =
      brisel_view_row_class("1text", __brisel_option_detail_gl_text_get_call);
  vd->call_item =
      brisel_view_add_row(vd->genlist, before, vd->noti_data->sender_contact_list->next ? &more_numbers : &one_number,
                          vd, __brisel_option_detail_gl_sel_call, vd);
}

static void __brisel_option_detail_add_address_row(option_detail_view_data *vd, Elm_Object_Item *before) {
  char *number = brisel_view_phone_number(vd->noti_data->from_address);
  if (!number) return;
  free(vd->from_phone_number);
  vd->from_phone_number = number;
  static constexpr Elm_Genlist_Item_Class row_class =
      brisel_view_row_class("2text", __brisel_option_detail_gl_text_get_call_by_from_address);
  vd->call_item =
      brisel_view_add_row(vd->genlist, before, &row_class, vd, __brisel_option_detail_gl_sel_call_by_from_address, vd);
}

static void __brisel_option_detail_contacts_db_changed_cb(const char *view_uri, void *data) {
  BRISEL_INFO("Enter");
  option_detail_view_data *vd = (option_detail_view_data *)data;
  if (vd->call_item) brisel_view_delete_row(vd->call_item);
  vd->call_item = nullptr;
  __brisel_option_detail_replace_contacts(vd->noti_data, nullptr);
  Elm_Object_Item *before = vd->reply_item ? vd->reply_item : vd->device_item;
  if (vd->noti_data->from_address) {
    __brisel_option_detail_replace_contacts(vd->noti_data, __brisel_option_detail_look_up(vd->noti_data));
    if (vd->noti_data->sender_contact_list)
      __brisel_option_detail_add_contact_row(vd, before);
    else
      __brisel_option_detail_add_address_row(vd, before);
  }
  if (vd->call_item) elm_genlist_item_update(vd->call_item);
  BRISEL_INFO("Leave");
}

/* --- the view --- */

static Evas_Object *__brisel_option_detail_create_layout(Evas_Object *parent) {
  return brisel_option_create_layout(parent);
}

static Evas_Object *__brisel_option_detail_create_bg(Evas_Object *layout, Evas_Object *win) {
  return brisel_option_create_bg(layout, win);
}

static Evas_Object *__brisel_option_detail_create_genlist(option_detail_view_data *vd) {
  static constexpr Elm_Genlist_Item_Class reply_row = brisel_view_row_class(
      "2text.1icon.divider", __brisel_option_detail_gl_text_get_reply, __brisel_option_detail_gl_content_get_reply);
  static constexpr Elm_Genlist_Item_Class device_row =
      brisel_view_row_class("1text", __brisel_option_detail_gl_text_get_device);
  static constexpr Elm_Genlist_Item_Class delete_row =
      brisel_view_row_class("1text", __brisel_option_detail_gl_text_get_delete);

  Evas_Object *genlist = brisel_view_new_list(vd->layout, __brisel_option_detail_gl_realized_cb);
  if (!genlist) return nullptr;
  brisel_widget_ref_set(&vd->genlist, genlist);

  GSList *contacts = __brisel_option_detail_look_up(vd->noti_data);
  if (contacts) __brisel_option_detail_replace_contacts(vd->noti_data, contacts);
  if (vd->noti_data->sender_contact_list)
    __brisel_option_detail_add_contact_row(vd, nullptr);
  else if (vd->noti_data->from_address)
    __brisel_option_detail_add_address_row(vd, nullptr);

  int status = BRISEL_REPLY_UNKNOWN;
  if (brisel_util_get_reply_status(&status) == 0 &&
      (status == BRISEL_REPLY_SUPPORTED || status == BRISEL_REPLY_UPDATE_REQUIRED))
    vd->reply_item = brisel_view_add_row(genlist, nullptr, &reply_row, vd, __brisel_option_detail_gl_sel_reply, vd);
  vd->device_item = brisel_view_add_row(genlist, nullptr, &device_row, vd, __brisel_option_detail_gl_sel_device, vd);
  brisel_view_add_row(genlist, nullptr, &delete_row, vd, __brisel_option_detail_gl_sel_delete, vd);

  elm_object_part_content_set(vd->layout, "elm.swallow.content", genlist);
  return genlist;
}

static Evas_Object *__brisel_option_detail_create_title_icon(Evas_Object *parent) {
  return brisel_view_title_icon(parent);
}

/* Frees what the record owns and, once its list can ask for no more texts, the record. */
static void __brisel_option_detail_free(option_detail_view_data *vd) {
  brisel_full_noti_data_free(vd->noti_data);
  vd->noti_data = nullptr;
  free(vd->from_phone_number);
  vd->from_phone_number = nullptr;
  brisel_option_free_with_list(vd, &vd->layout, &vd->genlist);
}

static Eina_Bool __brisel_option_detail_view_pop_cb(void *data, Elm_Object_Item *item) {
  BRISEL_INFO("Enter");
  option_detail_view_data *vd = (option_detail_view_data *)data;
  brisel_widget_ref_drop(&vd->radio_group);
  brisel_widget_ref_drop(&vd->popup);
  brisel_widget_ref_drop(&vd->delete_popup);
  if (vconf_ignore_key_changed(BRISEL_KEY_REPLY_VALUE, __brisel_option_detail_reply_value_change_cb) != 0)
    BRISEL_WARN("Fail to ignore vconf with [%s]", BRISEL_KEY_REPLY_VALUE);
  brisel_option_leave_contacts(__brisel_option_detail_contacts_db_changed_cb, vd);
  __brisel_option_detail_free(vd);
  BRISEL_INFO("Leave");
  return EINA_TRUE;
}

static int __brisel_option_detail_give_up(option_detail_view_data *vd, int ret) {
  return brisel_option_give_up(vd, __brisel_option_detail_free, ret);
}

int brisel_option_detail_draw_view(int mail_id, appdata *ad) {
  BRISEL_INFO("Enter");
  option_detail_view_data *vd;
  if (!brisel_view_new_record(ad, BRISEL_VIEW_TYPE_OPTION_DETAIL_VIEW, &vd)) return ad ? -3 : -1;
  vd->mail_id = mail_id;
  bool own = false;
  int ret = brisel_option_take_noti_data(mail_id, nullptr, &vd->noti_data, &own);
  if (ret != 0) return __brisel_option_detail_give_up(vd, ret);

  Evas_Object *layout = __brisel_option_detail_create_layout(ad->naviframe);
  if (!layout) return __brisel_option_detail_give_up(vd, -3);
  brisel_widget_ref_set(&vd->layout, layout);
  if (!__brisel_option_detail_create_bg(layout, ad->win_main)) return __brisel_option_detail_give_up(vd, -3);
  if (!__brisel_option_detail_create_genlist(vd)) {
    BRISEL_ERROR("__brisel_option_detail_create_genlist() failed!");
    return __brisel_option_detail_give_up(vd, -3);
  }
  Evas_Object *icon = __brisel_option_detail_create_title_icon(ad->naviframe);
  if (!icon) {
    BRISEL_ERROR("__brisel_option_detail_create_title_icon() failed!");
    return __brisel_option_detail_give_up(vd, -3);
  }

  const scoped_text title(brisel_view_sender_title(vd->noti_data));
  Elm_Object_Item *item = brisel_view_push(ad, layout, title.get(), nullptr, __brisel_option_detail_view_pop_cb, vd);
  elm_object_item_part_content_set(item, "elm.swallow.icon", icon);
  ad->mail_id = mail_id;

  if (vconf_notify_key_changed(BRISEL_KEY_REPLY_VALUE, __brisel_option_detail_reply_value_change_cb, vd) != 0)
    BRISEL_WARN("Fail to register vconf with [%s]", BRISEL_KEY_REPLY_VALUE);
  brisel_option_follow_contacts(__brisel_option_detail_contacts_db_changed_cb, vd);
  BRISEL_INFO("Leave");
  return 0;
}
