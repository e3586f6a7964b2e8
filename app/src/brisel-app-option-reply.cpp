/* The two ways of replying: with a prepared text chosen from a list, and with typed text and emoticons. Owns the list
   of templates and what both views begin and end with; the typed view is in brisel-app-option-reply-typed.cpp. */
#include "brisel-app-option-reply.h"

#include <libintl.h>
#include <clocale>
#include <cstring>

#include "brisel-app-utils.h"
#include "brisel-scoped.h"
#include "vconf.h"

static void __brisel_option_reply_gl_sel_templates(void *data, Evas_Object *obj, void *event_info);
static void __brisel_option_reply_template_change_cb(keynode_t *node, void *data);

/* --- both views --- */

static Evas_Object *__brisel_option_reply_create_layout(Evas_Object *parent) {
  return brisel_option_create_layout(parent);
}

static Evas_Object *__brisel_option_reply_create_bg(Evas_Object *layout, Evas_Object *win) {
  return brisel_option_create_bg(layout, win);
}

static void __brisel_option_reply_free(option_reply_view_data *vd) {
  brisel_template_data_list_free(vd->template_list);
  if (vd->take_back_job) ecore_job_del(vd->take_back_job);
  if (vd->keep_job) ecore_job_del(vd->keep_job);
  brisel_widget_ref_clear(&vd->layout);
  delete vd;
}

Eina_Bool __brisel_option_reply_view_pop_cb(void *data, Elm_Object_Item *item) {
  BRISEL_INFO("Enter");
  option_reply_view_data *vd = (option_reply_view_data *)data;
  if (vd) {
    // Through a power cut too: it is written for the last time.
    if (vd->typed && !vd->request_id) brisel_reply_draft_save(vd->mail, vd->text, true);
    brisel_widget_ref_drop(&vd->popup);
    brisel_widget_ref_drop(&vd->content_obj);
    brisel_widget_ref_drop(&vd->nocontent_layout);
    // The layout may have died with its view stack item already; the keypad's callback must go in any case.
    if (vd->ad->conform)
      evas_object_smart_callback_del_full(vd->ad->conform, "virtualkeypad,size,changed",
                                          __brisel_virtualkeypad_size_changed_cb, vd);
    if (vd->ad->naviframe)
      evas_object_smart_callback_del_full(vd->ad->naviframe, "transition,finished", __brisel_option_reply_stands_cb,
                                          vd);
    brisel_widget_ref_drop(&vd->emoticon_layout);
    __brisel_option_reply_free(vd);
  }
  if (vconf_ignore_key_changed(BRISEL_KEY_TEMPLATE_CHANGED, __brisel_option_reply_template_change_cb) != 0)
    BRISEL_WARN("Fail to remove vconf with [%s]", BRISEL_KEY_TEMPLATE_CHANGED);
  BRISEL_INFO("Leave");
  return EINA_TRUE;
}

int brisel_reply_give_up(option_reply_view_data *vd, int ret) {
  brisel_widget_ref_drop(&vd->content_obj);
  brisel_widget_ref_drop(&vd->nocontent_layout);
  brisel_widget_ref_drop(&vd->emoticon_layout);
  return brisel_option_give_up(vd, __brisel_option_reply_free, ret);
}

int brisel_reply_begin(int mail_id, appdata *ad, const full_noti_data *noti_data, option_reply_view_data **out) {
  if (!ad) {
    BRISEL_ERROR("Invalid parameter: data is NULL!");
    return -1;
  }
  option_reply_view_data *vd = new (std::nothrow) option_reply_view_data;
  if (!vd) {
    BRISEL_ERROR("Failed to allocate memory for view_data!");
    return -3;
  }
  vd->view_type = BRISEL_VIEW_TYPE_OPTION_REPLY_VIEW;
  vd->ad = ad;
  const int ret = brisel_reply_mail_take(mail_id, noti_data, &vd->mail);
  if (ret != 0) return brisel_reply_give_up(vd, ret);

  Evas_Object *layout = __brisel_option_reply_create_layout(ad->naviframe);
  if (!layout) {
    BRISEL_ERROR("__brisel_option_reply_create_layout() failed!");
    return brisel_reply_give_up(vd, -3);
  }
  brisel_widget_ref_set(&vd->layout, layout);
  if (!__brisel_option_reply_create_bg(layout, ad->win_main)) {
    BRISEL_ERROR("__brisel_option_reply_create_bg() failed!");
    return brisel_reply_give_up(vd, -3);
  }
  *out = vd;
  return 0;
}

/* --- templates --- */

/* A preset is the id of a text of its own domain, what the user wrote is the text itself. */
static const char *__brisel_option_reply_template_text(const template_data *td) {
  if (!td->text || !td->text[0]) return "";  // the catalogue's own header answers to the empty id
  return dcgettext(BRISEL_MESSAGE_DOMAIN, td->text, LC_MESSAGES);
}

static const template_data *__brisel_option_reply_template(const option_reply_view_data *vd, const void *index) {
  return vd ? (template_data *)g_slist_nth_data(vd->template_list, (guint)(uintptr_t)index) : nullptr;
}

static char *__brisel_option_reply_gl_text_get_templates(void *data, Evas_Object *obj, const char *part) {
  if (!obj) {
    BRISEL_ERROR("Invalid parameter: obj is NULL!");
    return nullptr;
  }
  if (strcmp(part, "elm.text") != 0) return nullptr;
  const template_data *td =
      __brisel_option_reply_template((option_reply_view_data *)evas_object_data_get(obj, "ViewData"), data);
  if (!td) {
    BRISEL_ERROR("Invalid parameter: td  is NULL!");
    return nullptr;
  }
  return brisel_util_text_to_markup(__brisel_option_reply_template_text(td));
}

static void __brisel_option_reply_gl_realized_cb(void *data, Evas_Object *obj, void *event_info) {
  brisel_view_hide_last_bottomline(obj, (Elm_Object_Item *)event_info);
}

static void __brisel_option_reply_append_templates(option_reply_view_data *vd, Evas_Object *genlist) {
  static constexpr Elm_Genlist_Item_Class row_class =
      brisel_view_row_class("1text", __brisel_option_reply_gl_text_get_templates);
  guint count = g_slist_length(vd->template_list);
  for (guint i = 0; i < count; i++)
    brisel_view_add_row(genlist, nullptr, &row_class, (void *)(uintptr_t)i, __brisel_option_reply_gl_sel_templates,
                        (void *)(uintptr_t)i);
}

static Evas_Object *__brisel_option_reply_make_list(Evas_Object *layout, option_reply_view_data *vd) {
  Evas_Object *genlist = brisel_view_new_list(layout, __brisel_option_reply_gl_realized_cb);
  if (!genlist) return nullptr;
  evas_object_data_set(genlist, "ViewData", vd);
  evas_object_show(genlist);
  return genlist;
}

static Evas_Object *__brisel_option_reply_create_genlist(Evas_Object *layout, option_reply_view_data *vd) {
  // Also watched after a failed read: the next change is the chance to show the templates after all.
  if (vconf_notify_key_changed(BRISEL_KEY_TEMPLATE_CHANGED, __brisel_option_reply_template_change_cb, vd) != 0)
    BRISEL_WARN("Fail to register vconf with [%s]", BRISEL_KEY_TEMPLATE_CHANGED);
  GSList *templates = nullptr;
  int ret = brisel_db_get_all_template_data(&templates);
  if (ret != 0) {
    BRISEL_ERROR("brisel_db_get_all_template_data() failed! err:[%d]", ret);
    brisel_template_data_list_free(templates);
    return nullptr;
  }
  vd->template_list = brisel_reply_usage_sort(templates);
  Evas_Object *genlist = __brisel_option_reply_make_list(layout, vd);
  if (genlist) __brisel_option_reply_append_templates(vd, genlist);
  return genlist;
}

static Evas_Object *__brisel_option_reply_create_nocontent_layout(Evas_Object *parent) {
  if (!parent) {
    BRISEL_ERROR("parent object is NULL");
    return nullptr;
  }
  Evas_Object *layout = elm_layout_add(parent);
  if (!layout) {
    BRISEL_ERROR("elm_layout_add() failed!");
    return nullptr;
  }
  elm_layout_theme_set(layout, "layout", "nocontents", "text");
  elm_object_domain_translatable_part_text_set(layout, "elm.text", BRISEL_DOMAIN, "IDS_MSG_BODY_NO_TEXT_TEMPLATES");
  brisel_view_set_spoken(layout, false);
  evas_object_size_hint_weight_set(layout, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_size_hint_align_set(layout, EVAS_HINT_FILL, EVAS_HINT_FILL);
  return layout;
}

static void __brisel_option_reply_show_content(option_reply_view_data *vd, Evas_Object *content) {
  if (elm_object_part_content_get(vd->layout, "elm.swallow.content") != content) {
    Evas_Object *old = elm_object_part_content_unset(vd->layout, "elm.swallow.content");
    if (old) evas_object_hide(old);
    if (old) brisel_view_set_spoken(old, false);
    brisel_view_set_spoken(content, true);
    elm_object_part_content_set(vd->layout, "elm.swallow.content", content);
  }
  evas_object_show(content);
}

static void __brisel_option_reply_template_change_cb(keynode_t *node, void *data) {
  BRISEL_INFO("Enter");
  option_reply_view_data *vd = (option_reply_view_data *)data;
  brisel_template_data_list_free(vd->template_list);
  vd->template_list = nullptr;
  GSList *templates = nullptr;
  int ret = brisel_db_get_all_template_data(&templates);
  if (ret == 0) {
    vd->template_list = brisel_reply_usage_sort(templates);
  } else {
    BRISEL_ERROR("brisel_db_get_all_template_data() failed! err:[%d]", ret);
    brisel_template_data_list_free(templates);
  }

  if (vd->template_list && !vd->content_obj)
    brisel_widget_ref_set(&vd->content_obj, __brisel_option_reply_make_list(vd->layout, vd));
  // The rows name their templates by position: they go with the old list even when there is no new one.
  const int focused = vd->content_obj ? brisel_view_focused_place(vd->content_obj) : -1;
  if (vd->content_obj) elm_genlist_clear(vd->content_obj);
  if (vd->template_list && vd->content_obj) {
    __brisel_option_reply_append_templates(vd, vd->content_obj);
    __brisel_option_reply_show_content(vd, vd->content_obj);
    brisel_view_refocus_row(vd->content_obj, focused);
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
    return nullptr;
  }
  Evas_Object *label = elm_object_content_get(scroller);
  if (!label) BRISEL_ERROR("Invalid parameter: label is NULL!");
  return label;
}

static void __brisel_option_reply_popup_response_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  option_reply_view_data *vd = (option_reply_view_data *)data;
  const char *pressed = obj != vd->popup ? elm_object_text_get(obj) : nullptr;
  if (pressed && !strcmp(pressed, brisel_util_get_text("IDS_COM_SK_SEND"))) {
    if (!brisel_view_phone_ready(vd->ad)) return;
    Evas_Object *label = __brisel_option_reply_popup_label(vd->popup);
    if (!label) return;
    if (!__brisel_option_reply_send_reply_message(vd, elm_object_text_get(label))) return;
    brisel_reply_usage_add(vd->chosen);
    brisel_util_pop_view(vd->ad->naviframe);
  } else {
    brisel_widget_ref_drop(&vd->popup);
  }
  BRISEL_INFO("Leave");
}

/* Gives the label the template itself in place of its row's text, which was cut for the list. What the label holds is
   what is sent: markup, as from the typed view, which the phone turns back into text. */
static void __brisel_option_reply_show_template(Evas_Object *label, const template_data *td) {
  const scoped_text markup(brisel_util_text_to_markup_whole(__brisel_option_reply_template_text(td)));
  // Only a text without a meaning as markup may follow the language by itself: a template is shown as it was written.
  if (td->text && td->text[0] && markup && !strcmp(markup.get(), __brisel_option_reply_template_text(td)))
    elm_object_domain_translatable_text_set(label, BRISEL_MESSAGE_DOMAIN, td->text);
  else
    elm_object_text_set(label, markup.get());
}

static void __brisel_option_reply_popup_to_cb(void *data, Evas_Object *obj, void *event_info) {
  const scoped_text to(brisel_reply_to_markup(((const option_reply_view_data *)data)->mail));
  brisel_util_popup_set_name(obj, to.get());
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
      vd, vd->ad->naviframe, nullptr, elm_object_item_part_text_get(item, "elm.text"),
      __brisel_option_reply_popup_response_cb, 0.0, nullptr, brisel_util_get_text("IDS_EMAIL_SK_CANCEL_ABB"),
      brisel_util_get_text("IDS_COM_SK_SEND"));
  brisel_widget_ref_set(&vd->popup, popup);
  brisel_view_popup_translate(popup, "button1", "IDS_EMAIL_SK_CANCEL_ABB");
  brisel_view_popup_translate(popup, "button2", "IDS_COM_SK_SEND");
  __brisel_option_reply_popup_to_cb(vd, popup, nullptr);
  evas_object_smart_callback_add(popup, "language,changed", __brisel_option_reply_popup_to_cb, vd);

  const template_data *td = __brisel_option_reply_template(vd, data);
  vd->chosen = td && td->text ? td->text : "";
  if (td && td->template_id != -1) {
    Evas_Object *label = __brisel_option_reply_popup_label(popup);
    if (label) __brisel_option_reply_show_template(label, td);
  }
  elm_genlist_item_selected_set(item, EINA_FALSE);
  BRISEL_INFO("Leave");
}

int brisel_option_reply_templetes_draw_view(int mail_id, appdata *ad, full_noti_data *noti_data) {
  BRISEL_INFO("Enter");
  option_reply_view_data *vd = nullptr;
  int ret = brisel_reply_begin(mail_id, ad, noti_data, &vd);
  if (ret != 0) return ret;

  brisel_widget_ref_set(&vd->nocontent_layout, __brisel_option_reply_create_nocontent_layout(ad->naviframe));
  if (!vd->nocontent_layout) {
    BRISEL_ERROR("__brisel_option_reply_create_nocontent_layout() failed!");
    return brisel_reply_give_up(vd, -3);
  }
  brisel_widget_ref_set(&vd->content_obj, __brisel_option_reply_create_genlist(vd->layout, vd));
  if (!vd->content_obj) BRISEL_ERROR("__brisel_option_reply_create_genlist() failed!");
  __brisel_option_reply_show_content(vd, vd->template_list && vd->content_obj ? vd->content_obj : vd->nocontent_layout);

  Elm_Object_Item *item = brisel_view_push(ad, vd->layout, brisel_util_get_text("IDS_EMAIL_HEADER_SELECT_REPLY_ABB"),
                                           nullptr, __brisel_option_reply_view_pop_cb, vd);
  elm_object_item_domain_translatable_text_set(item, BRISEL_DOMAIN, "IDS_EMAIL_HEADER_SELECT_REPLY_ABB");
  BRISEL_INFO("Leave");
  return 0;
}
