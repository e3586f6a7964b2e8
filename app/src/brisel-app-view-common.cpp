#include "brisel-app-view-common.h"

#include <cstring>

#include "brisel-app-stage.h"
#include "brisel-app-touch.h"
#include "brisel-app-utils.h"
#include "efl_assist.h"
#include "platform-paths.h"

/* --- widgets that a record names --- */

static void _widget_ref_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  Evas_Object **field = (Evas_Object **)data;
  if (*field == obj) *field = nullptr;
}

void brisel_widget_ref_set(Evas_Object **field, Evas_Object *widget) {
  brisel_widget_ref_clear(field);
  *field = widget;
  if (widget) evas_object_event_callback_add(widget, EVAS_CALLBACK_DEL, _widget_ref_gone_cb, field);
}

void brisel_widget_ref_clear(Evas_Object **field) {
  if (!*field) return;
  evas_object_event_callback_del_full(*field, EVAS_CALLBACK_DEL, _widget_ref_gone_cb, field);
  *field = nullptr;
}

void brisel_widget_ref_drop(Evas_Object **field) {
  Evas_Object *widget = *field;
  brisel_widget_ref_clear(field);
  if (widget) evas_object_del(widget);
}

/* --- sizes --- */

int brisel_view_scaled(int pixels) {
  return (int)(pixels * elm_config_scale_get());
}

void brisel_view_expand(Evas_Object *object) {
  evas_object_size_hint_weight_set(object, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_size_hint_align_set(object, EVAS_HINT_FILL, EVAS_HINT_FILL);
}

/* The toolkit does not tell: the line is measured without its ellipsis. */
bool brisel_view_is_cut(Evas_Object *part) {
  Evas_Object *probe = evas_object_textblock_add(evas_object_evas_get(part));
  evas_object_scale_set(probe, evas_object_scale_get(part));
  evas_object_textblock_style_set(probe, evas_object_textblock_style_get(part));
  Evas_Textblock_Style *uncut = evas_textblock_style_new();
  evas_textblock_style_set(uncut, "DEFAULT='ellipsis=-1'");
  evas_object_textblock_style_user_push(probe, uncut);
  evas_object_textblock_text_markup_set(probe, evas_object_textblock_text_markup_get(part));
  int room = 0, height = 0, width = 0;
  evas_object_geometry_get(part, nullptr, nullptr, &room, &height);
  evas_object_resize(probe, room, height);
  evas_object_textblock_size_formatted_get(probe, &width, nullptr);
  evas_object_del(probe);
  evas_textblock_style_free(uncut);
  unsigned sizes[64];
  size_t count = 0;
  evas_textblock_fit_size_array_get(part, sizes, &count, std::size(sizes));
  if (count > 0 && count <= std::size(sizes)) width = (int)((double)width * sizes[0] / sizes[count - 1]);
  return width > room;
}

/* --- a view and its record --- */

brisel_view_head *brisel_view_new_head(appdata *ad, int view_type, size_t size) {
  if (!ad) {
    BRISEL_ERROR("Invalid parameter: data is NULL!");
    return nullptr;
  }
  brisel_view_head *head = (brisel_view_head *)calloc(1, size);
  if (!head) {
    BRISEL_ERROR("Failed to allocate memory for view_data!");
    return nullptr;
  }
  head->view_type = view_type;
  head->ad = ad;
  return head;
}

static Elm_Object_Item *_link(appdata *ad, Elm_Object_Item *item, Evas_Object *layout, Elm_Naviframe_Item_Pop_Cb pop_cb,
                              brisel_view_head *head) {
  elm_naviframe_item_pop_cb_set(item, pop_cb, head);
  elm_object_item_data_set(item, head);
  head->ad = ad;
  head->navi_item = item;
  head->pop_cb = pop_cb;
  brisel_touch_guard(layout);
  brisel_tell_list_in_view(ad);
  return item;
}

Elm_Object_Item *brisel_view_push(appdata *ad, Evas_Object *layout, const char *title, Evas_Object *next_btn,
                                  Elm_Naviframe_Item_Pop_Cb pop_cb, brisel_view_head *head) {
  return _link(ad, elm_naviframe_item_push(ad->naviframe, title, nullptr, next_btn, layout, brisel_stage_style()),
               layout, pop_cb, head);
}

Elm_Object_Item *brisel_view_push_at_once(appdata *ad, Evas_Object *layout, Elm_Naviframe_Item_Pop_Cb pop_cb,
                                          brisel_view_head *head) {
  Elm_Object_Item *top = elm_naviframe_top_item_get(ad->naviframe);
  return _link(
      ad, elm_naviframe_item_insert_after(ad->naviframe, top, nullptr, nullptr, nullptr, layout, brisel_stage_style()),
      layout, pop_cb, head);
}

bool brisel_view_on_top(const brisel_view_head *head) {
  return elm_naviframe_top_item_get(head->ad->naviframe) == head->navi_item;
}

/* --- titles --- */

static Evas_Object *_title_image(Evas_Object *parent, const char *name, Evas_Aspect_Control control) {
  Evas_Object *image = brisel_util_load_image(parent, name);
  if (!image) {
    BRISEL_ERROR("elm_image_add() failed!");
    return nullptr;
  }
  evas_object_size_hint_aspect_set(image, control, 1, 1);
  elm_image_resizable_set(image, EINA_TRUE, EINA_TRUE);
  return image;
}

Evas_Object *brisel_view_title_button(Evas_Object *parent, const char *image, Evas_Smart_Cb clicked_cb, void *data) {
  Evas_Object *button = elm_button_add(parent);
  if (!button) {
    BRISEL_ERROR("elm_button_add() failed!");
    return nullptr;
  }
  elm_object_style_set(button, brisel_stage_style() ? "naviframe/title_icon/round" : "naviframe/title_icon");
  Evas_Object *picture = _title_image(button, image, EVAS_ASPECT_CONTROL_BOTH);
  if (!picture) {
    evas_object_del(button);
    return nullptr;
  }
  elm_object_content_set(button, picture);
  evas_object_smart_callback_add(button, "clicked", clicked_cb, data);
  evas_object_show(button);
  return button;
}

static bool link_is_shown = true;
static Eina_List *title_icons;

static const char *_title_icon_name() {
  return link_is_shown ? "b_email_icon_email.png" : "b_email_icon_email_off.png";
}

static void _name_title_icon(Evas_Object *icon) {
  brisel_view_set_spoken_id(
      icon, link_is_shown ? "IDS_EMAIL_BODY_THE_PHONE_IS_LINKED" : "IDS_EMAIL_BODY_THE_PHONE_IS_NOT_LINKED");
}

static void _title_icon_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  title_icons = eina_list_remove(title_icons, obj);
}

Evas_Object *brisel_view_title_icon(Evas_Object *parent) {
  Evas_Object *icon = _title_image(parent, _title_icon_name(), EVAS_ASPECT_CONTROL_VERTICAL);
  if (!icon) return nullptr;
  title_icons = eina_list_append(title_icons, icon);
  _name_title_icon(icon);
  brisel_view_set_spoken(icon, true);
  evas_object_event_callback_add(icon, EVAS_CALLBACK_DEL, _title_icon_gone_cb, nullptr);
  return icon;
}

void brisel_view_show_link(bool is_linked) {
  if (is_linked == link_is_shown) return;
  link_is_shown = is_linked;
  Eina_List *cell;
  void *icon;
  EINA_LIST_FOREACH(title_icons, cell, icon) {
    elm_image_file_set((Evas_Object *)icon, platform_path(BRISEL_IMAGES_EDJ), _title_icon_name());
    _name_title_icon((Evas_Object *)icon);
    brisel_view_say_name((Eo *)icon);
  }
  /* Once, by the view that came last. */
  if (title_icons) brisel_view_announce((Evas_Object *)eina_list_last_data_get(title_icons));
}

Evas_Object *brisel_view_more_button(Elm_Object_Item *item, Evas_Smart_Cb clicked_cb, void *data) {
  Evas_Object *button = elm_button_add(elm_object_item_widget_get(item));
  if (!button) {
    BRISEL_ERROR("elm_button_add() failed!");
    return nullptr;
  }
  elm_object_focus_allow_set(button, EINA_FALSE);
  evas_object_smart_callback_add(button, "clicked", clicked_cb, data);
  elm_object_item_part_content_set(item, "toolbar_more_btn", button);
  return button;
}

/* --- rows --- */

Elm_Genlist_Item_Class *brisel_view_new_row_class(const char *style, Elm_Genlist_Item_Text_Get_Cb text_get,
                                                  Elm_Genlist_Item_Content_Get_Cb content_get,
                                                  Elm_Genlist_Item_Del_Cb del) {
  Elm_Genlist_Item_Class *row_class = elm_genlist_item_class_new();
  if (!row_class) return nullptr;
  row_class->item_style = style;
  row_class->func.text_get = text_get;
  row_class->func.content_get = content_get;
  row_class->func.state_get = nullptr;
  row_class->func.del = del;
  return row_class;
}

Elm_Object_Item *brisel_view_add_row(Evas_Object *list, Elm_Object_Item *before,
                                     const Elm_Genlist_Item_Class *row_class, const void *data,
                                     Evas_Smart_Cb selected_cb, const void *selected_data) {
  Elm_Object_Item *row = before ? elm_genlist_item_insert_before(list, row_class, data, nullptr, before,
                                                                 ELM_GENLIST_ITEM_NONE, selected_cb, selected_data)
                                : elm_genlist_item_append(list, row_class, data, nullptr, ELM_GENLIST_ITEM_NONE,
                                                          selected_cb, selected_data);
  brisel_view_name_row(row);
  return row;
}

void brisel_view_close_holes(const Evas_Object *list) {
  Evas_Object *ground = edje_object_part_swallow_get(elm_layout_edje_get(list), "elm.swallow.content");
  if (!ground) return;
  int x = 0, y = 0;
  evas_object_geometry_get(ground, &x, &y, nullptr, nullptr);
  evas_object_move(ground, x, y + 1);
  evas_object_move(ground, x, y);
}

void brisel_view_delete_row(Elm_Object_Item *row) {
  const Evas_Object *list = elm_object_item_widget_get(row);
  elm_object_item_del(row);
  brisel_view_close_holes(list);
}

void brisel_view_hide_last_bottomline(Evas_Object *list, Elm_Object_Item *item) {
  if (item && item == elm_genlist_last_item_get(list))
    elm_object_item_signal_emit(item, "elm,state,bottomline,hide", "");
}

/* Also when a screen reader has come: then it is told of rows that stand already. */
static void _list_language_changed_cb(void *data, Evas_Object *obj, void *event_info) {
  elm_genlist_realized_items_update(obj);
  brisel_view_name_rows(obj);
}

Evas_Object *brisel_view_new_list(Evas_Object *parent, Evas_Smart_Cb realized_cb) {
  Evas_Object *list = elm_genlist_add(parent);
  if (!list) {
    BRISEL_ERROR("elm_genlist_add() failed!");
    return nullptr;
  }
  elm_genlist_mode_set(list, ELM_LIST_COMPRESS);
  elm_scroller_policy_set(list, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
  brisel_view_list_keys(list);
  brisel_stage_reach(list);
  evas_object_smart_callback_add(list, "language,changed", _list_language_changed_cb, nullptr);
  if (realized_cb) evas_object_smart_callback_add(list, "realized", realized_cb, nullptr);
  return list;
}

/* --- who wrote a mail --- */

const char *brisel_view_sender(const full_noti_data *mail) {
  return mail->from_name && *mail->from_name ? mail->from_name : mail->from_address;
}

char *brisel_view_sender_title(const full_noti_data *mail) {
  const char *sender = brisel_view_sender(mail);
  /* A name or an address is what a stranger wrote: it must not be able to draw markup. */
  return brisel_util_text_to_markup(sender ? sender : "");
}

char *brisel_view_phone_number(const char *address) {
  static constexpr size_t min_digits = 7;
  /* No network has numbers this long; what a mail claims beyond it is not kept. */
  static constexpr size_t max_digits = 255;
  if (!address || !*address) return nullptr;
  size_t digits = strspn(address, "0123456789");
  if (address[digits] == '@') {
    BRISEL_INFO("It is a phone number!");
  } else if (address[digits]) {
    BRISEL_INFO("It is not a phone number!");
    return nullptr;
  }
  return digits >= min_digits ? strndup(address, digits < max_digits ? digits : max_digits) : nullptr;
}

/* --- popups --- */

void brisel_view_popup_translate(Evas_Object *popup, const char *button, const char *id) {
  Evas_Object *widget = button ? elm_object_part_content_get(popup, button) : popup;
  if (widget) elm_object_domain_translatable_text_set(widget, BRISEL_DOMAIN, id);
}

static void _add_popup_button(Evas_Object *popup, const char *part, const char *id, Evas_Smart_Cb clicked_cb,
                              void *data) {
  Evas_Object *button = elm_button_add(popup);
  brisel_stage_set_style(button, "popup");
  elm_object_domain_translatable_text_set(button, BRISEL_DOMAIN, id);
  evas_object_smart_callback_add(button, "clicked", clicked_cb, data);
  elm_object_part_content_set(popup, part, button);
  evas_object_show(button);
}

Evas_Object *brisel_view_delete_popup(Evas_Object *parent, Evas_Smart_Cb cancel_cb, Evas_Smart_Cb ok_cb, void *data) {
  Evas_Object *popup = brisel_util_popup_add(parent);
  if (!popup) return nullptr;
  ea_object_event_callback_add(popup, EA_CALLBACK_BACK, cancel_cb, data);
  elm_object_domain_translatable_part_text_set(popup, "title,text", BRISEL_DOMAIN, "IDS_EMAIL_BODY_DELETE");
  _add_popup_button(popup, "button1", "IDS_EMAIL_SK_CANCEL_ABB", cancel_cb, data);
  _add_popup_button(popup, "button2", "IDS_COM_SK_OK", ok_cb, data);
  return popup;
}

void brisel_view_ask_to_delete_mail(Evas_Object **popup, Evas_Object *parent, Evas_Smart_Cb cancel_cb,
                                    Evas_Smart_Cb ok_cb, void *data) {
  brisel_widget_ref_drop(popup);
  Evas_Object *question = brisel_view_delete_popup(parent, cancel_cb, ok_cb, data);
  if (!question) return;
  brisel_view_popup_translate(question, nullptr, "IDS_ST_POP_1_ITEM_WILL_BE_DELETED_FROM_THE_ZOLT_ONLY");
  brisel_widget_ref_set(popup, question);
  evas_object_show(question);
}

/* --- the phone --- */

bool brisel_view_phone_ready(appdata *ad) {
  if (!brisel_util_bluetooth_connection_popup(ad, brisel_util_bt_connect_error_popup_result_cb, "perform"))
    return false;
  int status = 0;
  if (brisel_util_get_conn_status(&status) == 0 && status == 0) return true;
  brisel_create_toast_popup(ad, brisel_util_get_text("IDS_EMAIL_BODY_NO_RESPONSE_TRY_LATER"));
  return false;
}

int brisel_view_draw_reply(int mail_id, appdata *ad, full_noti_data *noti_data) {
  return brisel_util_get_reply_method() == 1 ? brisel_option_reply_emoticons_draw_view(mail_id, ad, noti_data)
                                             : brisel_option_reply_templetes_draw_view(mail_id, ad, noti_data);
}

Evas_Object *brisel_view_update_required_popup(appdata *ad, Evas_Smart_Cb response_cb, void *data) {
  static const char text[] =
      "IDS_EMAIL_POP_REPLY_IS_NOT_SUPPORTED_BY_YOUR_DEVICE_CHECK_FOR_UPDATES_IN_YOUR_DEVICE_SETTINGS";
  Evas_Object *popup = brisel_util_popup_create(data, ad->naviframe, nullptr, brisel_util_get_text(text), response_cb,
                                                0.0, nullptr, brisel_util_get_text("IDS_COM_SK_OK"), nullptr);
  if (!popup) return nullptr;
  brisel_view_popup_translate(popup, nullptr, text);
  brisel_view_popup_translate(popup, "button1", "IDS_COM_SK_OK");
  return popup;
}

/* --- what could not be kept --- */

/* At most one offer stands. */
static struct {
  Evas_Object *popup;
  int (*again)(void *data);
  void (*drop)(void *data);
  void *data;
} offer;

static void _end_offer() {
  auto drop = offer.drop;
  void *data = offer.data;
  Evas_Object *popup = offer.popup;
  offer = {};
  if (popup) evas_object_del(popup);
  if (drop) drop(data);
}

/* The popup also goes with the window or the view stack. */
static void _offer_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  if (obj != offer.popup) return;
  offer.popup = nullptr;
  _end_offer();
}

static void _offer_cancel_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  _end_offer();
}

static void _offer_again_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  int result = offer.again(offer.data);
  if (result != 0) {
    BRISEL_WARN("still not kept: %d", result);
    return;
  }
  _end_offer();
}

void brisel_view_offer_again(appdata *ad, int (*again)(void *data), void (*drop)(void *data), void *data) {
  BRISEL_INFO("Enter");
  if (!drop && offer.popup && offer.drop) return; /* what is kept anyway takes no place from what would be lost */
  _end_offer();
  Evas_Object *popup = brisel_util_create_basic_2button_popup_with_app_data(
      ad, nullptr, "IDS_EMAIL_POP_THIS_COULD_NOT_BE_SAVED_ON_THE_ZOLT", _offer_cancel_cb, _offer_cancel_cb,
      "IDS_EMAIL_SK_CANCEL_ABB", _offer_again_cb, "IDS_EMAIL_SK_TRY_AGAIN");
  offer = {popup, again, drop, data};
  evas_object_event_callback_add(popup, EVAS_CALLBACK_DEL, _offer_gone_cb, nullptr);
}

void brisel_view_withdraw_offer(int (*again)(void *data)) {
  if (offer.popup && offer.again == again) _end_offer();
}

void brisel_view_stop_scrolling(Evas_Object *scroller) {
  if (!scroller) return;
  int x = 0, y = 0, w = 0, h = 0;
  elm_scroller_region_get(scroller, &x, &y, &w, &h);
  /* A place that it shows already would let it go on. */
  elm_scroller_region_show(scroller, x, y > 0 ? y - 1 : y + 1, w, h);
  elm_scroller_region_show(scroller, x, y, w, h);
}
