#include "brisel-app-option-common.h"

#include "brisel-app-utils.h"
#include "efl_assist.h"

static void __brisel_widget_ref_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  Evas_Object **field = (Evas_Object **)data;
  if (*field == obj) *field = NULL;
}

void brisel_widget_ref_set(Evas_Object **field, Evas_Object *widget) {
  brisel_widget_ref_clear(field);
  *field = widget;
  if (widget) evas_object_event_callback_add(widget, EVAS_CALLBACK_DEL, __brisel_widget_ref_gone_cb, field);
}

void brisel_widget_ref_clear(Evas_Object **field) {
  if (!*field) return;
  evas_object_event_callback_del_full(*field, EVAS_CALLBACK_DEL, __brisel_widget_ref_gone_cb, field);
  *field = NULL;
}

void brisel_widget_ref_drop(Evas_Object **field) {
  Evas_Object *widget = *field;
  brisel_widget_ref_clear(field);
  if (widget) evas_object_del(widget);
}

static void __brisel_widget_free_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  free(data);
}

void brisel_option_free_with_list(void *record, Evas_Object **layout, Evas_Object **genlist) {
  Evas_Object *list = *genlist;
  brisel_widget_ref_clear(genlist);
  brisel_widget_ref_clear(layout);
  if (list)
    evas_object_event_callback_add(list, EVAS_CALLBACK_DEL, __brisel_widget_free_cb, record);
  else
    free(record);
}

brisel_view_head *brisel_option_new_head(appdata *ad, int view_type, size_t size) {
  if (!ad) {
    BRISEL_ERROR("Invalid parameter: data is NULL!");
    return NULL;
  }
  brisel_view_head *head = (brisel_view_head *)calloc(1, size);
  if (!head) {
    BRISEL_ERROR("Failed to allocate memory for view_data!");
    return NULL;
  }
  head->view_type = view_type;
  head->ad = ad;
  return head;
}

static void __brisel_option_expand(Evas_Object *obj) {
  evas_object_size_hint_weight_set(obj, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_size_hint_align_set(obj, EVAS_HINT_FILL, EVAS_HINT_FILL);
}

Evas_Object *brisel_option_create_layout(Evas_Object *parent) {
  if (!parent) {
    BRISEL_ERROR("Invalid parameter: parent is NULL!");
    return NULL;
  }
  Evas_Object *layout = elm_layout_add(parent);
  if (!layout) {
    BRISEL_ERROR("elm_layout_add() failed!");
    return NULL;
  }
  elm_layout_theme_set(layout, "layout", "application", "noindicator");
  __brisel_option_expand(layout);
  evas_object_show(layout);
  return layout;
}

Evas_Object *brisel_option_create_bg(Evas_Object *layout, Evas_Object *win) {
  if (!layout) {
    BRISEL_ERROR("Invalid parameter: parent is NULL!");
    return NULL;
  }
  Evas_Object *bg = elm_bg_add(layout);
  if (!bg) {
    BRISEL_ERROR("elm_bg_add() failed!");
    return NULL;
  }
  __brisel_option_expand(bg);
  elm_win_resize_object_add(win, bg);
  evas_object_show(bg);
  elm_object_part_content_set(layout, "elm.swallow.bg", bg);
  return bg;
}

static void __brisel_option_list_language_changed_cb(void *data, Evas_Object *obj, void *event_info) {
  elm_genlist_realized_items_update(obj);
}

Evas_Object *brisel_option_create_list(Evas_Object *parent, Evas_Smart_Cb realized_cb) {
  Evas_Object *list = elm_genlist_add(parent);
  if (!list) {
    BRISEL_ERROR("elm_genlist_add() failed!");
    return NULL;
  }
  elm_genlist_mode_set(list, ELM_LIST_COMPRESS);
  elm_scroller_policy_set(list, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
  evas_object_smart_callback_add(list, "language,changed", __brisel_option_list_language_changed_cb, NULL);
  if (realized_cb) evas_object_smart_callback_add(list, "realized", realized_cb, NULL);
  return list;
}

void brisel_option_hide_last_bottomline(Evas_Object *list, Elm_Object_Item *item) {
  if (item && item == elm_genlist_last_item_get(list))
    elm_object_item_signal_emit(item, "elm,state,bottomline,hide", "");
}

Elm_Genlist_Item_Class *brisel_option_new_row_class(const char *style, Elm_Genlist_Item_Text_Get_Cb text_get,
                                                    Elm_Genlist_Item_Content_Get_Cb content_get,
                                                    Elm_Genlist_Item_Del_Cb del) {
  Elm_Genlist_Item_Class *row_class = elm_genlist_item_class_new();
  if (!row_class) return NULL;
  row_class->item_style = style;
  row_class->func.text_get = text_get;
  row_class->func.content_get = content_get;
  row_class->func.state_get = NULL;
  row_class->func.del = del;
  return row_class;
}

Elm_Object_Item *brisel_option_add_row(Evas_Object *list, Elm_Object_Item *before,
                                       const Elm_Genlist_Item_Class *row_class, const void *data,
                                       Evas_Smart_Cb selected_cb, const void *selected_data) {
  return before
             ? elm_genlist_item_insert_before(list, row_class, data, NULL, before, ELM_GENLIST_ITEM_NONE, selected_cb,
                                              selected_data)
             : elm_genlist_item_append(list, row_class, data, NULL, ELM_GENLIST_ITEM_NONE, selected_cb, selected_data);
}

int brisel_option_take_noti_data(int mail_id, full_noti_data *borrowed, full_noti_data **record, bool *own) {
  *record = borrowed;
  *own = false;
  if (borrowed) return 0;

  full_noti_data *noti_data = brisel_full_noti_data_create();
  if (!noti_data) {
    BRISEL_ERROR("brisel_db_full_noti_data_create() failed!");
    return -3;
  }
  int ret = brisel_db_get_full_noti_data_by_mail_id(mail_id, noti_data);
  if (ret != 0) {
    BRISEL_ERROR("brisel_db_get_full_noti_data_by_mail_id() failed! err:[%d]", ret);
    brisel_full_noti_data_free(noti_data);
    return ret;
  }
  *record = noti_data;
  *own = true;
  return 0;
}

char *brisel_option_sender_title(const full_noti_data *noti_data) {
  if (noti_data->from_name && noti_data->from_name[0]) return brisel_util_text_to_markup(noti_data->from_name);
  // The address is the sender's own word like the name: it must not be able to draw markup either.
  return brisel_util_text_to_markup(noti_data->from_address ? noti_data->from_address : "");
}

Elm_Object_Item *brisel_option_push(appdata *ad, Evas_Object *layout, const char *title, Evas_Object *next_btn,
                                    Elm_Naviframe_Item_Pop_Cb pop_cb, brisel_view_head *head) {
  Elm_Object_Item *item = elm_naviframe_item_push(ad->naviframe, title, NULL, next_btn, layout, NULL);
  elm_naviframe_item_pop_cb_set(item, pop_cb, head);
  elm_object_item_data_set(item, head);
  head->ad = ad;
  head->navi_item = item;
  head->pop_cb = pop_cb;
  return item;
}

bool brisel_option_on_top(const brisel_view_head *head) {
  return elm_naviframe_top_item_get(head->ad->naviframe) == head->navi_item;
}

void brisel_option_popup_translate(Evas_Object *popup, const char *button, const char *id) {
  Evas_Object *obj = button ? elm_object_part_content_get(popup, button) : popup;
  if (obj) elm_object_domain_translatable_text_set(obj, BRISEL_DOMAIN, id);
}

static void __brisel_option_add_popup_button(Evas_Object *popup, const char *part, const char *id,
                                             Evas_Smart_Cb clicked_cb, void *data) {
  Evas_Object *btn = elm_button_add(popup);
  elm_object_style_set(btn, "popup");
  elm_object_domain_translatable_text_set(btn, BRISEL_DOMAIN, id);
  evas_object_smart_callback_add(btn, "clicked", clicked_cb, data);
  elm_object_part_content_set(popup, part, btn);
  evas_object_show(btn);
}

Evas_Object *brisel_option_create_delete_popup(Evas_Object *parent, Evas_Smart_Cb cancel_cb, Evas_Smart_Cb ok_cb,
                                               void *data) {
  Evas_Object *popup = elm_popup_add(parent);
  if (!popup) return NULL;
  evas_object_size_hint_weight_set(popup, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  ea_object_event_callback_add(popup, EA_CALLBACK_BACK, cancel_cb, data);
  elm_object_domain_translatable_part_text_set(popup, "title,text", BRISEL_DOMAIN, "IDS_EMAIL_BODY_DELETE");
  __brisel_option_add_popup_button(popup, "button1", "IDS_EMAIL_SK_CANCEL_ABB", cancel_cb, data);
  __brisel_option_add_popup_button(popup, "button2", "IDS_COM_SK_OK", ok_cb, data);
  return popup;
}

bool brisel_option_phone_ready(appdata *ad) {
  if (!brisel_util_bluetooth_connection_popup(ad, brisel_util_bt_connect_error_popup_result_cb, "perform"))
    return false;
  int status = 0;
  if (brisel_util_get_conn_status(&status) == 0 && status == 0) return true;
  brisel_create_toast_popup(ad, brisel_util_get_text("IDS_EMAIL_BODY_NO_RESPONSE_TRY_LATER"));
  return false;
}
