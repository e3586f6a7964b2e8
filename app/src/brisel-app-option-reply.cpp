/* The two ways of replying: with a prepared text chosen from a list, and with typed text and emoticons. */
#include <unicode/ubrk.h>
#include <unicode/utext.h>

#include <libintl.h>
#include <clocale>
#include <cstring>

#include "brisel-app-option-common.h"
#include "brisel-app-utils.h"
#include "brisel-app.h"
#include "efl_assist.h"
#include "vconf.h"

/* Both reply views. */
struct option_reply_view_data {
  int view_type;
  appdata *ad;
  Elm_Object_Item *navi_item;
  Elm_Naviframe_Item_Pop_Cb pop_cb;
  Evas_Object *layout;
  Evas_Object *nocontent_layout; /* templates: shown when there are none */
  Evas_Object *emoticon_layout;  /* typed reply */
  Evas_Object *content_obj;      /* templates: the list; typed reply: the entry */
  Evas_Object *popup;            /* templates: the question before sending, or NULL */
  bool own_noti_data;
  int mail_id;
  full_noti_data *noti_data; /* borrowed unless own_noti_data */
  GSList *template_list;     /* template_data, owned */
  Ecore_Job *take_back_job;  /* typed reply: the start of a character whose rest was refused is to go */
  int take_back;             /* its code points */
};

static constexpr size_t BRISEL_REPLY_FIELD_MAX = 1023; /* bytes of a request's recipient and subject */
static constexpr char BRISEL_REPLY_NAME_SEPARATOR = 0x02;
static constexpr int BRISEL_TYPED_REPLY_MAX = 35; /* characters */

static void __brisel_option_reply_gl_sel_templates(void *data, Evas_Object *obj, void *event_info);
static void __brisel_option_reply_template_change_cb(keynode_t *node, void *data);
static void __brisel_virtualkeypad_size_changed_cb(void *data, Evas_Object *obj, void *event_info);

/* --- sending ------------------------------------------------------------------------------------------------------ */

static char *__brisel_option_reply_bounded(char *text) {
  brisel_util_cut_utf8(text, BRISEL_REPLY_FIELD_MAX);
  return text;
}

static char *__brisel_option_reply_recipient(const full_noti_data *noti_data) {
  const char *address = noti_data->from_address ? noti_data->from_address : "";
  const char *name = noti_data->from_name;
  char *recipient = name && name[0] ? g_strdup_printf("%s%c%s", address, BRISEL_REPLY_NAME_SEPARATOR, name)
                                    : g_strdup_printf("%s", address);
  return __brisel_option_reply_bounded(recipient);
}

static void __brisel_option_reply_send_reply_message(option_reply_view_data *vd, const char *text) {
  BRISEL_INFO("Enter");
  reply_noti_data *reply = brisel_reply_noti_data_create();
  if (!reply) {
    BRISEL_ERROR("brisel_reply_noti_data_create() failed!");
    return;
  }
  const full_noti_data *noti_data = vd->noti_data;
  reply->host_tag = g_strdup(noti_data->host_tag);
  reply->action = g_strdup("intent.action.email.notifications.reply");
  reply->message_uid = g_strdup(noti_data->message_uid);
  reply->recipient = __brisel_option_reply_recipient(noti_data);
  reply->text = g_strdup(text ? text : "");
  reply->mail_id = vd->mail_id;
  reply->subject = __brisel_option_reply_bounded(g_strdup(noti_data->subject ? noti_data->subject : ""));

  int ret = brisel_ipc_req_cancel(BRISEL_IPC_CLIENT_REQ_TYPE_REPLY);
  if (ret != 0) {
    BRISEL_ERROR("brisel_ipc_req_cancel() failed! ret:[%d]", ret);
  } else {
    ret = brisel_ipc_req_reply(reply, NULL, NULL);
    if (ret != 0) BRISEL_WARN("brisel_ipc_req_reply() failed! ret:[%d]", ret);
  }
  brisel_reply_noti_data_free(reply);
  BRISEL_INFO("Leave");
}

/* --- both views ------------------------------------------------------------------------------------------------------
 */

static Evas_Object *__brisel_option_reply_create_layout(Evas_Object *parent) {
  return brisel_option_create_layout(parent);
}

static Evas_Object *__brisel_option_reply_create_bg(Evas_Object *layout, Evas_Object *win) {
  return brisel_option_create_bg(layout, win);
}

/* Frees what the record owns and the record. */
static void __brisel_option_reply_free(option_reply_view_data *vd) {
  if (vd->own_noti_data) brisel_full_noti_data_free(vd->noti_data);
  brisel_template_data_list_free(vd->template_list);
  if (vd->take_back_job) ecore_job_del(vd->take_back_job);
  brisel_widget_ref_clear(&vd->layout);
  free(vd);
}

static Eina_Bool __brisel_option_reply_view_pop_cb(void *data, Elm_Object_Item *item) {
  BRISEL_INFO("Enter");
  option_reply_view_data *vd = (option_reply_view_data *)data;
  if (vd) {
    brisel_widget_ref_drop(&vd->popup);
    brisel_widget_ref_drop(&vd->content_obj);
    brisel_widget_ref_drop(&vd->nocontent_layout);
    // The layout may have died with its view stack item already; the keypad's callback must go in any case.
    if (vd->ad->conform)
      evas_object_smart_callback_del_full(vd->ad->conform, "virtualkeypad,size,changed",
                                          __brisel_virtualkeypad_size_changed_cb, vd);
    brisel_widget_ref_drop(&vd->emoticon_layout);
    __brisel_option_reply_free(vd);
  }
  if (vconf_ignore_key_changed(BRISEL_KEY_TEMPLATE_CHANGED, __brisel_option_reply_template_change_cb) != 0)
    BRISEL_WARN("Fail to remove vconf with [%s]", BRISEL_KEY_TEMPLATE_CHANGED);
  BRISEL_INFO("Leave");
  return EINA_TRUE;
}

/* Deletes what was built of a view that cannot be finished. */
static int __brisel_option_reply_give_up(option_reply_view_data *vd, int ret) {
  Evas_Object *layout = vd->layout;
  brisel_widget_ref_drop(&vd->content_obj);
  brisel_widget_ref_drop(&vd->nocontent_layout);
  brisel_widget_ref_drop(&vd->emoticon_layout);
  __brisel_option_reply_free(vd);
  if (layout) evas_object_del(layout);
  return ret;
}

/* The steps that both views begin with: record, mail, base layout, background. 0 and *out, or the view's result. */
static int __brisel_option_reply_begin(int mail_id, appdata *ad, full_noti_data *noti_data,
                                       option_reply_view_data **out) {
  option_reply_view_data *vd;
  if (!brisel_option_new_record(ad, BRISEL_VIEW_TYPE_OPTION_REPLY_VIEW, &vd)) return ad ? -3 : -1;
  vd->mail_id = mail_id;
  int ret = brisel_option_take_noti_data(mail_id, noti_data, &vd->noti_data, &vd->own_noti_data);
  if (ret != 0) return __brisel_option_reply_give_up(vd, ret);

  Evas_Object *layout = __brisel_option_reply_create_layout(ad->naviframe);
  if (!layout) {
    BRISEL_ERROR("__brisel_option_reply_create_layout() failed!");
    return __brisel_option_reply_give_up(vd, -3);
  }
  brisel_widget_ref_set(&vd->layout, layout);
  if (!__brisel_option_reply_create_bg(layout, ad->win_main)) {
    BRISEL_ERROR("__brisel_option_reply_create_bg() failed!");
    return __brisel_option_reply_give_up(vd, -3);
  }
  *out = vd;
  return 0;
}

/* --- templates
 * ---------------------------------------------------------------------------------------------------------- */

/* A preset is the id of a text of its own domain, what the user wrote is the text itself. */
static const char *__brisel_option_reply_template_text(const template_data *td) {
  if (!td->text || !td->text[0]) return "";  // the catalogue's own header answers to the empty id
  return dcgettext(BRISEL_MESSAGE_DOMAIN, td->text, LC_MESSAGES);
}

static const template_data *__brisel_option_reply_template(const option_reply_view_data *vd, const void *index) {
  return vd ? (template_data *)g_slist_nth_data(vd->template_list, (guint)(uintptr_t)index) : NULL;
}

static char *__brisel_option_reply_gl_text_get_templates(void *data, Evas_Object *obj, const char *part) {
  if (!obj) {
    BRISEL_ERROR("Invalid parameter: obj is NULL!");
    return NULL;
  }
  if (strcmp(part, "elm.text") != 0) return NULL;
  const template_data *td =
      __brisel_option_reply_template((option_reply_view_data *)evas_object_data_get(obj, "ViewData"), data);
  if (!td) {
    BRISEL_ERROR("Invalid parameter: td  is NULL!");
    return NULL;
  }
  return brisel_util_text_to_markup(__brisel_option_reply_template_text(td));
}

static void __brisel_option_reply_gl_realized_cb(void *data, Evas_Object *obj, void *event_info) {
  brisel_option_hide_last_bottomline(obj, (Elm_Object_Item *)event_info);
}

static void __brisel_option_reply_append_templates(option_reply_view_data *vd, Evas_Object *genlist) {
  static constexpr Elm_Genlist_Item_Class row_class =
      brisel_option_row_class("1text", __brisel_option_reply_gl_text_get_templates);
  guint count = g_slist_length(vd->template_list);
  for (guint i = 0; i < count; i++)
    brisel_option_add_row(genlist, NULL, &row_class, (void *)(uintptr_t)i, __brisel_option_reply_gl_sel_templates,
                          (void *)(uintptr_t)i);
}

static Evas_Object *__brisel_option_reply_make_list(Evas_Object *layout, option_reply_view_data *vd) {
  Evas_Object *genlist = brisel_option_create_list(layout, __brisel_option_reply_gl_realized_cb);
  if (!genlist) return NULL;
  evas_object_data_set(genlist, "ViewData", vd);
  evas_object_show(genlist);
  return genlist;
}

static Evas_Object *__brisel_option_reply_create_genlist(Evas_Object *layout, option_reply_view_data *vd) {
  // Also watched after a failed read: the next change is the chance to show the templates after all.
  if (vconf_notify_key_changed(BRISEL_KEY_TEMPLATE_CHANGED, __brisel_option_reply_template_change_cb, vd) != 0)
    BRISEL_WARN("Fail to register vconf with [%s]", BRISEL_KEY_TEMPLATE_CHANGED);
  GSList *templates = NULL;
  int ret = brisel_db_get_all_template_data(&templates);
  if (ret != 0) {
    BRISEL_ERROR("brisel_db_get_all_template_data() failed! err:[%d]", ret);
    brisel_template_data_list_free(templates);
    return NULL;
  }
  vd->template_list = templates;
  Evas_Object *genlist = __brisel_option_reply_make_list(layout, vd);
  if (genlist) __brisel_option_reply_append_templates(vd, genlist);
  return genlist;
}

static Evas_Object *__brisel_option_reply_create_nocontent_layout(Evas_Object *parent) {
  if (!parent) {
    BRISEL_ERROR("parent object is NULL");
    return NULL;
  }
  Evas_Object *layout = elm_layout_add(parent);
  if (!layout) {
    BRISEL_ERROR("elm_layout_add() failed!");
    return NULL;
  }
  elm_layout_theme_set(layout, "layout", "nocontents", "text");
  elm_object_domain_translatable_part_text_set(layout, "elm.text", BRISEL_DOMAIN, "IDS_MSG_BODY_NO_TEXT_TEMPLATES");
  evas_object_size_hint_weight_set(layout, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_size_hint_align_set(layout, EVAS_HINT_FILL, EVAS_HINT_FILL);
  return layout;
}

static void __brisel_option_reply_show_content(option_reply_view_data *vd, Evas_Object *content) {
  if (elm_object_part_content_get(vd->layout, "elm.swallow.content") != content) {
    Evas_Object *old = elm_object_part_content_unset(vd->layout, "elm.swallow.content");
    if (old) evas_object_hide(old);
    elm_object_part_content_set(vd->layout, "elm.swallow.content", content);
  }
  evas_object_show(content);
}

static void __brisel_option_reply_template_change_cb(keynode_t *node, void *data) {
  BRISEL_INFO("Enter");
  option_reply_view_data *vd = (option_reply_view_data *)data;
  brisel_template_data_list_free(vd->template_list);
  vd->template_list = NULL;
  GSList *templates = NULL;
  int ret = brisel_db_get_all_template_data(&templates);
  if (ret == 0) {
    vd->template_list = templates;
  } else {
    BRISEL_ERROR("brisel_db_get_all_template_data() failed! err:[%d]", ret);
    brisel_template_data_list_free(templates);
  }

  if (vd->template_list && !vd->content_obj)
    brisel_widget_ref_set(&vd->content_obj, __brisel_option_reply_make_list(vd->layout, vd));
  // The rows name their templates by position: they go with the old list even when there is no new one.
  if (vd->content_obj) elm_genlist_clear(vd->content_obj);
  if (vd->template_list && vd->content_obj) {
    __brisel_option_reply_append_templates(vd, vd->content_obj);
    __brisel_option_reply_show_content(vd, vd->content_obj);
  } else {
    __brisel_option_reply_show_content(vd, vd->nocontent_layout);
  }
  // The messages domain has the title as well.
  elm_object_item_domain_translatable_text_set(vd->navi_item, BRISEL_MESSAGE_DOMAIN,
                                               "IDS_EMAIL_HEADER_SELECT_REPLY_ABB");
  BRISEL_INFO("Leave");
}

/* The label that shows the text of the question before sending. NULL, and logged, when the popup has none. */
static Evas_Object *__brisel_option_reply_popup_label(Evas_Object *popup) {
  Evas_Object *scroller = elm_object_content_get(popup);
  if (!scroller) {
    BRISEL_ERROR("Invalid parameter: scroller is NULL!");
    return NULL;
  }
  Evas_Object *label = elm_object_content_get(scroller);
  if (!label) BRISEL_ERROR("Invalid parameter: label is NULL!");
  return label;
}

static void __brisel_option_reply_popup_response_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  option_reply_view_data *vd = (option_reply_view_data *)data;
  const char *pressed = obj != vd->popup ? elm_object_text_get(obj) : NULL;
  if (pressed && !strcmp(pressed, brisel_util_get_text("IDS_COM_SK_SEND"))) {
    if (!brisel_option_phone_ready(vd->ad)) return;
    Evas_Object *label = __brisel_option_reply_popup_label(vd->popup);
    if (!label) return;
    Evas_Object *naviframe = vd->ad->naviframe;
    __brisel_option_reply_send_reply_message(vd, elm_object_text_get(label));
    brisel_util_pop_view(naviframe);
  } else {
    brisel_widget_ref_drop(&vd->popup);
  }
  BRISEL_INFO("Leave");
}

/* Gives the label the template itself in place of its row's text, which was cut for the list. What the label holds is
   what is sent: markup, as from the typed view, which the phone turns back into text. */
static void __brisel_option_reply_show_template(Evas_Object *label, const template_data *td) {
  char *markup = brisel_util_text_to_markup_whole(__brisel_option_reply_template_text(td));
  // Only a text without a meaning as markup may follow the language by itself: a template is shown as it was written.
  if (td->text && td->text[0] && markup && !strcmp(markup, __brisel_option_reply_template_text(td)))
    elm_object_domain_translatable_text_set(label, BRISEL_MESSAGE_DOMAIN, td->text);
  else
    elm_object_text_set(label, markup);
  free(markup);
}

static void __brisel_option_reply_gl_sel_templates(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  Elm_Object_Item *item = (Elm_Object_Item *)event_info;
  option_reply_view_data *vd = (option_reply_view_data *)evas_object_data_get(obj, "ViewData");
  if (!vd) {
    BRISEL_ERROR("view_data is NULL");
    return;
  }
  brisel_widget_ref_drop(&vd->popup);
  Evas_Object *popup = brisel_util_scroll_popup_create(
      vd, vd->ad->naviframe, NULL, elm_object_item_part_text_get(item, "elm.text"),
      __brisel_option_reply_popup_response_cb, 0.0, NULL, brisel_util_get_text("IDS_EMAIL_SK_CANCEL_ABB"),
      brisel_util_get_text("IDS_COM_SK_SEND"));
  brisel_widget_ref_set(&vd->popup, popup);
  brisel_option_popup_translate(popup, "button1", "IDS_EMAIL_SK_CANCEL_ABB");
  brisel_option_popup_translate(popup, "button2", "IDS_COM_SK_SEND");

  const template_data *td = __brisel_option_reply_template(vd, data);
  if (td && td->template_id != -1) {
    Evas_Object *label = __brisel_option_reply_popup_label(popup);
    if (label) __brisel_option_reply_show_template(label, td);
  }
  elm_genlist_item_selected_set(item, EINA_FALSE);
  BRISEL_INFO("Leave");
}

int brisel_option_reply_templetes_draw_view(int mail_id, appdata *ad, full_noti_data *noti_data) {
  BRISEL_INFO("Enter");
  option_reply_view_data *vd = NULL;
  int ret = __brisel_option_reply_begin(mail_id, ad, noti_data, &vd);
  if (ret != 0) return ret;

  brisel_widget_ref_set(&vd->nocontent_layout, __brisel_option_reply_create_nocontent_layout(ad->naviframe));
  if (!vd->nocontent_layout) {
    BRISEL_ERROR("__brisel_option_reply_create_nocontent_layout() failed!");
    return __brisel_option_reply_give_up(vd, -3);
  }
  brisel_widget_ref_set(&vd->content_obj, __brisel_option_reply_create_genlist(vd->layout, vd));
  if (!vd->content_obj) BRISEL_ERROR("__brisel_option_reply_create_genlist() failed!");
  __brisel_option_reply_show_content(vd, vd->template_list && vd->content_obj ? vd->content_obj : vd->nocontent_layout);

  Elm_Object_Item *item = brisel_option_push(ad, vd->layout, "IDS_EMAIL_HEADER_SELECT_REPLY_ABB", NULL,
                                             __brisel_option_reply_view_pop_cb, (brisel_view_head *)vd);
  elm_object_item_domain_translatable_text_set(item, BRISEL_DOMAIN, "IDS_EMAIL_HEADER_SELECT_REPLY_ABB");
  BRISEL_INFO("Leave");
  return 0;
}

/* --- typed reply
 * ----------------------------------------------------------------------------------------------------------- */

/* The entry has refused input; told to the user when the keypad has gone. At most one such view is shown. */
static bool max_length_reached;

/* How the send button looks while the keypad is shown or hidden. */
struct keypad_state {
  const char *image;
  int w, h; /* before scaling */
  const char *signal;
};
static constexpr keypad_state keypad_hidden = {"b_email_icon_message_send_2.png", 60, 60, "hide,keypad"};
static constexpr keypad_state keypad_open = {"b_email_icon_message_s_send.png", 48, 47, "show,keypad"};

static Evas_Object *__brisel_option_reply_create_send_icon(Evas_Object *btn, const keypad_state &state) {
  Evas_Object *icon = brisel_util_load_image(btn, state.image);
  if (!icon) return NULL;
  int w = (int)(state.w * elm_config_scale_get()), h = (int)(state.h * elm_config_scale_get());
  evas_object_size_hint_min_set(icon, w, h);
  evas_object_size_hint_max_set(icon, w, h);
  evas_object_repeat_events_set(icon, EINA_TRUE);
  elm_object_content_set(btn, icon);
  return icon;
}

static void __brisel_virtualkeypad_size_changed_cb(void *data, Evas_Object *obj, void *event_info) {
  option_reply_view_data *vd = (option_reply_view_data *)data;
  const Evas_Coord_Rectangle *rect = (Evas_Coord_Rectangle *)event_info;
  if (!rect) return;
  BRISEL_INFO("[x,y = %d,%d] - [w,h = %d,%d]", rect->x, rect->y, rect->w, rect->h);
  Evas_Object *btn = vd->emoticon_layout ? elm_object_part_content_get(vd->emoticon_layout, "swallow.send_btn") : NULL;
  if (!btn) {
    BRISEL_ERROR("Invalid parameter: btn is NULL!");
    return;
  }
  Evas_Object *old_icon = elm_object_part_content_unset(btn, "elm.swallow.content");
  if (old_icon) evas_object_del(old_icon);
  const keypad_state &state = rect->h == 0 ? keypad_hidden : keypad_open;
  if (!__brisel_option_reply_create_send_icon(btn, state)) {
    BRISEL_ERROR("Invalid parameter: btn is NULL!");
    return;
  }
  evas_object_show(btn);
  elm_layout_signal_emit(vd->emoticon_layout, state.signal, "");
  if (rect->h == 0 && max_length_reached) {
    brisel_create_toast_popup(vd->ad, brisel_util_get_text("IDS_COM_POP_MAXIMUM_NUMBER_OF_CHARACTERS_REACHED"));
    max_length_reached = false;
  }
}

static void __brisel_emoticon_detail_maxlength_reached_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  option_reply_view_data *vd = (option_reply_view_data *)data;
  if (!vd) {
    BRISEL_ERROR("data is NULL!!");
    return;
  }
  max_length_reached = true;
  elm_object_focus_set(vd->content_obj, EINA_FALSE);
  BRISEL_INFO("Leave");
}

static void __brisel_optioin_send_button_clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  option_reply_view_data *vd = (option_reply_view_data *)data;
  if (!brisel_option_phone_ready(vd->ad)) return;
  Evas_Object *naviframe = vd->ad->naviframe;
  __brisel_option_reply_send_reply_message(vd, elm_entry_entry_get(vd->content_obj));
  brisel_util_pop_view(naviframe);
  BRISEL_INFO("Leave");
}

static void __brisel_option_reply_entry_back_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  // Clearing may already have ended the registration through "selection,cleared".
  if (elm_entry_selection_get(obj)) elm_entry_select_none(obj);
  if (!evas_object_data_get(obj, "ea_entry")) return;
  ea_object_event_callback_del(obj, EA_CALLBACK_BACK, __brisel_option_reply_entry_back_cb);
  evas_object_data_del(obj, "ea_entry");
}

static void __brisel_option_reply_entry_selection_start_cb(void *data, Evas_Object *obj, void *event_info) {
  if (evas_object_data_get(obj, "ea_entry")) return;
  evas_object_data_set(obj, "ea_entry", obj);
  ea_object_event_callback_add(obj, EA_CALLBACK_BACK, __brisel_option_reply_entry_back_cb, NULL);
}

static void __brisel_option_reply_entry_selection_cleared_cb(void *data, Evas_Object *obj, void *event_info) {
  if (!evas_object_data_get(obj, "ea_entry")) return;
  ea_object_event_callback_del(obj, EA_CALLBACK_BACK, __brisel_option_reply_entry_back_cb);
  evas_object_data_del(obj, "ea_entry");
}

/* The last place, in code points, at or before max where text has the end of what a reader sees as one character: an
   emoji made of several code points, or a letter and its accents, goes in whole or not at all. */
static int __brisel_option_reply_character_end(const char *text, int max) {
  UErrorCode status = U_ZERO_ERROR;
  UText *utext = utext_openUTF8(NULL, text, -1, &status);
  UBreakIterator *breaks = ubrk_open(UBRK_CHARACTER, "", NULL, 0, &status);
  ubrk_setUText(breaks, utext, &status);
  int last = 0;
  if (U_SUCCESS(status)) {
    ubrk_first(breaks);
    for (int32_t end = ubrk_next(breaks); end != UBRK_DONE; end = ubrk_next(breaks)) {
      int code_points = (int)g_utf8_strlen(text, end);
      if (code_points > max) break;
      last = code_points;
    }
  }
  ubrk_close(breaks);
  utext_close(utext);
  return last;
}

/* Takes back the code points before the cursor whose rest was refused. */
static void __brisel_option_reply_take_back_cb(void *data) {
  option_reply_view_data *vd = (option_reply_view_data *)data;
  vd->take_back_job = NULL;
  char *text = vd->content_obj ? elm_entry_markup_to_utf8(elm_entry_entry_get(vd->content_obj)) : NULL;
  int cursor = text ? elm_entry_cursor_pos_get(vd->content_obj) : 0;
  if (text && cursor >= vd->take_back && cursor <= g_utf8_strlen(text, -1)) {
    char *from = g_utf8_offset_to_pointer(text, cursor - vd->take_back);
    char *to = g_utf8_offset_to_pointer(text, cursor);
    memmove(from, to, strlen(to) + 1);
    char *markup = elm_entry_utf8_to_markup(text);
    elm_entry_entry_set(vd->content_obj, markup);
    elm_entry_cursor_pos_set(vd->content_obj, cursor - vd->take_back);
    free(markup);
  }
  free(text);
}

/* Stands before the length filter, which counts code points and would cut between those of one character. */
static void __brisel_option_reply_whole_characters_filter(void *data, Evas_Object *entry, char **text) {
  option_reply_view_data *vd = (option_reply_view_data *)data;
  char *current = *text ? elm_entry_markup_to_utf8(elm_entry_entry_get(entry)) : NULL;
  char *added = *text ? elm_entry_markup_to_utf8(*text) : NULL;
  int added_length = added ? (int)g_utf8_strlen(added, -1) : 0;
  int length = current ? (int)g_utf8_strlen(current, -1) : 0;
  int room = BRISEL_TYPED_REPLY_MAX - length;
  if (current && added && added_length > room) {
    int cursor = CLAMP(elm_entry_cursor_pos_get(entry), 0, length);
    // The text before the cursor counts too: what is added may go on with its last character.
    *g_utf8_offset_to_pointer(current, cursor) = 0;
    char *joined = g_strconcat(current, added, NULL);
    int taken = __brisel_option_reply_character_end(joined, cursor + MAX(room, 0)) - cursor;
    g_free(joined);
    *g_utf8_offset_to_pointer(added, MAX(taken, 0)) = 0;
    free(*text);
    *text = elm_entry_utf8_to_markup(added);
    if (taken < 0 && !vd->take_back_job) {
      // Not from inside the insertion that is being filtered.
      vd->take_back = -taken;
      vd->take_back_job = ecore_job_add(__brisel_option_reply_take_back_cb, vd);
    }
    evas_object_smart_callback_call(entry, "maxlength,reached", NULL);
  }
  free(current);
  free(added);
}

static Evas_Object *__brisel_option_reply_create_entry(Evas_Object *parent, option_reply_view_data *vd) {
  static Elm_Entry_Filter_Limit_Size limit = {BRISEL_TYPED_REPLY_MAX, 0};  // outlives every entry

  Evas_Object *entry = elm_entry_add(parent);
  elm_entry_editable_set(entry, EINA_TRUE);
  elm_entry_single_line_set(entry, EINA_FALSE);
  elm_entry_scrollable_set(entry, EINA_TRUE);
  elm_entry_select_allow_set(entry, EINA_FALSE);
  elm_entry_context_menu_disabled_set(entry, EINA_TRUE);
  elm_entry_selection_handler_disabled_set(entry, EINA_TRUE);  // the toolkit's only cursor handlers
  evas_object_smart_callback_add(entry, "selection,start", __brisel_option_reply_entry_selection_start_cb, NULL);
  evas_object_smart_callback_add(entry, "selection,cleared", __brisel_option_reply_entry_selection_cleared_cb, NULL);
  elm_entry_markup_filter_append(entry, __brisel_option_reply_whole_characters_filter, vd);
  elm_entry_markup_filter_append(entry, elm_entry_filter_limit_size, &limit);
  max_length_reached = false;
  evas_object_smart_callback_add(entry, "maxlength,reached", __brisel_emoticon_detail_maxlength_reached_cb, vd);
  return entry;
}

static Evas_Object *__brisel_option_reply_create_send_button(Evas_Object *parent) {
  Evas_Object *btn = elm_button_add(parent);
  if (!btn) {
    BRISEL_ERROR("elm_button_add() failed!");
    return NULL;
  }
  evas_object_size_hint_weight_set(btn, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_size_hint_align_set(btn, EVAS_HINT_FILL, EVAS_HINT_FILL);
  if (!__brisel_option_reply_create_send_icon(btn, keypad_hidden)) {
    BRISEL_ERROR("elm_image_add() failed!");
    evas_object_del(btn);
    return NULL;
  }
  evas_object_show(btn);
  return btn;
}

int brisel_option_reply_emoticons_draw_view(int mail_id, appdata *ad, full_noti_data *noti_data) {
  BRISEL_INFO("Enter");
  option_reply_view_data *vd = NULL;
  int ret = __brisel_option_reply_begin(mail_id, ad, noti_data, &vd);
  if (ret != 0) return ret;

  Evas_Object *emoticon_layout = brisel_util_load_edj(vd->layout, BRISEL_EDJ, "brisel/emoticon_view");
  if (!emoticon_layout) {
    BRISEL_ERROR("__brisel_option_reply_create_layout() failed!");
    return __brisel_option_reply_give_up(vd, -3);
  }
  brisel_widget_ref_set(&vd->emoticon_layout, emoticon_layout);
  evas_object_size_hint_align_set(emoticon_layout, EVAS_HINT_FILL, EVAS_HINT_FILL);

  Evas_Object *entry = __brisel_option_reply_create_entry(emoticon_layout, vd);
  brisel_widget_ref_set(&vd->content_obj, entry);
  Evas_Object *btn = __brisel_option_reply_create_send_button(emoticon_layout);
  if (!btn) return __brisel_option_reply_give_up(vd, -3);
  elm_object_part_content_set(emoticon_layout, "swallow.entry", entry);
  elm_object_part_content_set(emoticon_layout, "swallow.send_btn", btn);
  elm_object_part_content_set(vd->layout, "elm.swallow.content", emoticon_layout);
  elm_layout_signal_emit(emoticon_layout, keypad_hidden.signal, "");
  evas_object_smart_callback_add(btn, "clicked", __brisel_optioin_send_button_clicked_cb, vd);

  Elm_Object_Item *item =
      brisel_option_push(ad, vd->layout, NULL, NULL, __brisel_option_reply_view_pop_cb, (brisel_view_head *)vd);
  elm_naviframe_item_title_enabled_set(item, EINA_FALSE, EINA_FALSE);
  evas_object_smart_callback_add(ad->conform, "virtualkeypad,size,changed", __brisel_virtualkeypad_size_changed_cb, vd);
  BRISEL_INFO("Leave");
  return 0;
}
