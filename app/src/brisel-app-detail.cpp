/* The reader: one mail as a page, with its neighbours built beside it, more of its text on demand, and its gestures. */
#include "brisel-app-detail.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "brisel-app-detail-body.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "brisel-scoped.h"
#include "pickover.h"
#include "platform-paths.h"
#include "vconf.h"

#define BODY_TAG_START "<tag:thisisover"
#define BODY_TAG_FORMAT BODY_TAG_START "%d>"
constexpr int body_tag_complete = -1;
constexpr int body_tag_more = 500;

/* Seconds. */
constexpr double page_shift_delay = 0.2;
constexpr double body_apply_delay = 0.5;
constexpr double pickover_period = 59.0;
/* A page that is let go must have come to rest when the shift comes, wherever the finger left it. */
constexpr double page_settle_time = page_shift_delay;
/* A stroke sideways that ends within this many milliseconds turns the page, however short it was. */
constexpr unsigned flick_time = 300;
constexpr int pickover_valid = 60;

/* The longest subject shown, in bytes: about eighty lines. The text engine would take seconds for a whole book. */
constexpr size_t subject_shown_max = 2048;

static const char part_scroller[] = "scroller";
static const char part_title[] = "detail.title";
static const char part_body[] = "detail.body";
static const char part_image[] = "detail.image";
static const char part_device[] = "detail.device";
static const char part_process[] = "detail.process";
static const char part_progress_bg[] = "detail.progress_bg";
static const char part_lbutton[] = "detail.lbutton";
static const char part_rbutton[] = "detail.rbutton";
static const char group_detail[] = "brisel/detail";

#define NOTICE_START "<font_size=24><text_class=nuvra><color=#FF9000FF>"
#define NOTICE_END "</color></text_class></font_size>"
constexpr int notice_line_height = 36;

/* One finger on the paging scroller, and a page change between its detection and its end: there is one reader. */
static unsigned char is_mouse_down;
static unsigned char is_page_moving;

static void __brisel_detail_draw_neighbors_cb(void *data, Evas_Object *obj, void *event_info);
static void __brisel_detail_send_update_ind(brisel_detail_view *view_data);
static void __brisel_detail_update_pickover(brisel_detail_view *view_data);
static void __brisel_detail_unregister_pickover(brisel_detail_view *view_data);
static void __brisel_detail_stop_more_msg(page_data *page);
static Eina_Bool __brisel_detail_more_msg_ind(void *data);
static Eina_Bool __brisel_detail_add_more_messages_cb(void *data);
static void __brisel_detail_option_button_clicked_cb(void *data, Evas_Object *obj, void *event_info);
static void __brisel_detail_reply_button_clicked_cb(void *data, Evas_Object *obj, void *event_info);
static void __brisel_detail_reply_update_required_button_clicked_cb(void *data, Evas_Object *obj, void *event_info);
static void __brisel_detail_show_on_device_button_clicked_cb(void *data, Evas_Object *obj, void *event_info);

/* --- small helpers --------------------------------------------------------------------------------------- */

static void __brisel_detail_fill_both_ways(Evas_Object *obj) {
  evas_object_size_hint_weight_set(obj, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_size_hint_align_set(obj, EVAS_HINT_FILL, EVAS_HINT_FILL);
  evas_object_show(obj);
}

static void __brisel_detail_signal(Evas_Object *layout, const char *signal) {
  elm_layout_signal_emit(layout, signal, "brisel");
}

static void __brisel_detail_process_signals(Evas_Object *layout) {
  edje_object_message_signal_process(elm_layout_edje_get(layout));
}

static brisel_detail_view *__brisel_detail_retrieve_view_data(appdata *ad) {
  view_data *found = brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, ad);
  if (!found) BRISEL_WARN("view_data for BRISEL_VIEW_TYPE_DETAIL_VIEW is NULL!");
  return (brisel_detail_view *)found;
}

static bool __brisel_detail_ends_with_tag(const char *body, int number) {
  char tag[32] = {};
  snprintf(tag, sizeof(tag), BODY_TAG_FORMAT, number);
  if (!body) return false;
  size_t length = strlen(body);
  return length >= strlen(tag) && !strcmp(body + length - strlen(tag), tag);
}

/* Only what stands before the last continuation tag is ever shown. */
static size_t __brisel_detail_shown_body_length(const char *body) {
  const char *tag = g_strrstr(body, BODY_TAG_START);
  return tag ? (size_t)(tag - body) : strlen(body);
}

static void __brisel_detail_set_body(page_data *page) {
  const char *body = page->mail_data->body ? page->mail_data->body : "";
  brisel_detail_body_set(page->detail_layout, body, __brisel_detail_shown_body_length(body));
}

static page_data *__brisel_detail_find_page(const brisel_detail_view *view_data, int mail_id) {
  for (page_data *page : view_data->page_data)
    if (page && page->mail_data->mail_id == mail_id) return page;
  return nullptr;
}

/* --- releasing ------------------------------------------------------------------------------------------- */

/* A closed page may stay on the screen while the stack moves it away; nothing on it may call back any more. */
static void __brisel_detail_disarm_page(page_data *page) {
  if (page->scroller)
    evas_object_smart_callback_del(page->scroller, "edge,bottom", __brisel_detail_scroller_bottom_hit_cb);
  if (page->page_layout) {
    Evas_Object *title = elm_object_part_content_get(page->page_layout, "title");
    Evas_Object *button = title ? elm_object_part_content_get(title, "elm.swallow.next_btn") : nullptr;
    if (button) evas_object_smart_callback_del(button, "clicked", __brisel_detail_option_button_clicked_cb);
  }
  if (!page->detail_layout) return;
  for (const char *part : {part_lbutton, part_rbutton})
    if (Evas_Object *button = elm_object_part_content_get(page->detail_layout, part)) {
      evas_object_smart_callback_del(button, "clicked", __brisel_detail_reply_button_clicked_cb);
      evas_object_smart_callback_del(button, "clicked", __brisel_detail_reply_update_required_button_clicked_cb);
      evas_object_smart_callback_del(button, "clicked", __brisel_detail_show_on_device_button_clicked_cb);
    }
}

static void __brisel_detail_free_page_data(page_data *page) {
  if (!page) return;
  __brisel_detail_disarm_page(page);
  if (page->detail_layout)
    if (Evas_Object *label = elm_object_part_content_unset(page->detail_layout, part_device)) evas_object_del(label);
  if (page->more_msg_idler) ecore_idler_del(page->more_msg_idler);
  if (page->more_msg_timer) ecore_timer_del(page->more_msg_timer);
  brisel_widget_ref_drop(&page->progress);
  brisel_widget_ref_clear(&page->detail_layout);
  brisel_widget_ref_clear(&page->scroller);
  brisel_widget_ref_clear(&page->page_layout);
  brisel_full_noti_data_free(page->mail_data);
  free(page);
}

static void __brisel_detail_page_layout_resize_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info);
static void __brisel_detail_box_resize_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info);
static void __brisel_detail_page_scroller_scroll_cb(void *data, Evas_Object *obj, void *event_info);
static bool __brisel_detail_is_at_end(const page_data *page) {
  if (!page || !page->scroller) return false;
  int content = 0, top = 0, view = 0;
  evas_object_geometry_get(page->detail_layout, nullptr, nullptr, nullptr, &content);
  elm_scroller_region_get(page->scroller, nullptr, &top, nullptr, &view);
  return top + view >= content;
}

static void __brisel_detail_page_scroller_mouse_down_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info);
static void __brisel_detail_page_scroller_mouse_up_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info);

static void __brisel_detail_free_view_data(brisel_detail_view *view_data) {
  BRISEL_INFO("Enter");
  brisel_widget_ref_drop(&view_data->popup);
  brisel_widget_ref_drop(&view_data->gesture_layer);
  if (view_data->page_scroller) {
    evas_object_smart_callback_del_full(view_data->page_scroller, "scroll", __brisel_detail_page_scroller_scroll_cb,
                                        view_data);
    evas_object_event_callback_del_full(view_data->page_scroller, EVAS_CALLBACK_MOUSE_DOWN,
                                        __brisel_detail_page_scroller_mouse_down_cb, view_data);
    evas_object_event_callback_del_full(view_data->page_scroller, EVAS_CALLBACK_MOUSE_UP,
                                        __brisel_detail_page_scroller_mouse_up_cb, view_data);
  }
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

/* --- page: texts and notices ----------------------------------------------------------------------------- */

static scoped_text __brisel_detail_image_notice() {
  return scoped_text(
      g_strconcat(NOTICE_START, brisel_util_get_text("IDS_EMAIL_BODY_IMAGES_ARE_NOT_SUPPORTED"), NOTICE_END, nullptr));
}

static scoped_text __brisel_detail_device_notice() {
  return scoped_text(g_strconcat(NOTICE_START "<valign=middle>",
                                 brisel_util_get_text("IDS_EMAIL_BODY_MORE_ON_MOBILE_DEVICE_ABB"),
                                 "</valign>" NOTICE_END, nullptr));
}

/* Puts a notice into the part, in place of the one that was there. */
static void __brisel_detail_place_notice(Evas_Object *layout, const char *part, const char *markup) {
  if (Evas_Object *old = elm_object_part_content_unset(layout, part)) evas_object_del(old);
  Evas_Object *label = elm_label_add(layout);
  elm_label_line_wrap_set(label, ELM_WRAP_MIXED);
  elm_object_text_set(label, markup);
  evas_object_show(label);
  elm_object_part_content_set(layout, part, label);
}

/* The field is as high as one or two lines of the notice need. */
static void __brisel_detail_fit_image_field(Evas_Object *layout) {
  __brisel_detail_process_signals(layout);
  int height = -1;
  if (!edje_object_part_geometry_get(elm_layout_edje_get(layout), part_image, nullptr, nullptr, nullptr, &height))
    height = -1;
  __brisel_detail_signal(layout,
                         height % notice_line_height > 0 ? "do-show-image-field-2line" : "do-hide-image-field-2line");
  __brisel_detail_process_signals(layout);
}

static void __brisel_detail_set_attachment_text(brisel_detail_view *view_data, int count, Evas_Object *layout) {
  char text[128] = {};
  if (count == 1) {
    snprintf(text, sizeof(text), "%s", brisel_util_get_text("IDS_EMAIL_BODY_1_ATTACHMENT"));
  } else {
    scoped_text counted(brisel_util_get_count_text("IDS_EMAIL_BODY_PD_ATTACHMENTS", count, view_data->ad));
    snprintf(text, sizeof(text), "%s", counted ? counted.get() : "");
  }
  brisel_util_cut_utf8(text, sizeof(text) - 1);
  elm_object_part_text_set(layout, "detail.attachment", text);
}

static void __brisel_detail_update_datetime_string(brisel_detail_view *view_data, time_t time, Evas_Object *layout) {
  static const char *const patterns[] = {"dd/MM/y", "MM/dd/y", "y/MM/dd", "y/dd/MM"};
  appdata *ad = view_data->ad;
  if (!ad) {
    BRISEL_ERROR("view_data->ad is NULL!");
    return;
  }
  const char *skeleton = ad->time_format == 1 ? "hhmm" : "Hm";
  const char *pattern = patterns[ad->date_format >= 0 && ad->date_format <= 3 ? ad->date_format : 2];
  scoped_text time_text(brisel_util_get_date_time_str_by_skeleton(skeleton, ad->locale, &time));
  scoped_text date_text(brisel_util_get_date_time_str_by_pattern(pattern, ad->locale, &time));
  scoped_text both(g_strdup_printf("%s %s", date_text ? date_text.get() : "", time_text ? time_text.get() : ""));
  elm_object_part_text_set(layout, "detail.time", both.get());
}

/* The subject, cut where it would be longer than anybody reads on a watch. */
static scoped_text __brisel_detail_shown_subject(const char *subject) {
  if (!subject) return scoped_text(strdup(""));
  size_t length = strlen(subject);
  scoped_text shown((char *)malloc(length + sizeof("\xE2\x80\xA6")));
  if (!shown) return shown;
  memcpy(shown.get(), subject, length + 1);
  brisel_util_cut_utf8(shown.get(), subject_shown_max);
  if (length > subject_shown_max) strcat(shown.get(), "\xE2\x80\xA6");
  return shown;
}

static Evas_Object *__brisel_detail_create_button(Evas_Object *parent, const char *name, int is_icon) {
  Evas_Object *button = elm_button_add(parent);
  if (!button) {
    BRISEL_ERROR("elm_button_add() failed!");
    return nullptr;
  }
  __brisel_detail_fill_both_ways(button);
  if (!is_icon) {
    elm_object_text_set(button, name);
    return button;
  }
  Evas_Object *icon = brisel_util_load_image(button, name);
  if (!icon) {
    BRISEL_ERROR("elm_image_add() failed!");
    evas_object_del(button);
    return nullptr;
  }
  int side = (int)(60 * elm_config_scale_get());
  evas_object_size_hint_min_set(icon, side, side);
  evas_object_size_hint_max_set(icon, side, side);
  evas_object_repeat_events_set(icon, EINA_TRUE);
  elm_object_content_set(button, icon);
  return button;
}

static void __brisel_detail_place_button(Evas_Object *layout, const char *part, const char *name, int is_icon,
                                         Evas_Smart_Cb clicked_cb, brisel_detail_view *view_data) {
  Evas_Object *button = __brisel_detail_create_button(layout, name, is_icon);
  if (!button) return;
  evas_object_smart_callback_add(button, "clicked", clicked_cb, view_data);
  elm_object_part_content_set(layout, part, button);
}

static void __brisel_detail_draw_buttons(brisel_detail_view *view_data, Evas_Object *layout) {
  int status = 2;
  if (brisel_util_get_reply_status(&status) == 0 && (status == 0 || status == 1)) {
    __brisel_detail_signal(layout, "do-dual-button-field");
    __brisel_detail_place_button(
        layout, part_lbutton, "b_email_icon_message_send.png", 1,
        status == 0 ? __brisel_detail_reply_button_clicked_cb : __brisel_detail_reply_update_required_button_clicked_cb,
        view_data);
    __brisel_detail_place_button(layout, part_rbutton, "b_email_icon_showonphone.png", 1,
                                 __brisel_detail_show_on_device_button_clicked_cb, view_data);
    return;
  }
  __brisel_detail_place_button(layout, part_lbutton, brisel_util_get_text("IDS_EMAIL_BUTTON2_SHOW_ON_DEVICE"), 0,
                               __brisel_detail_show_on_device_button_clicked_cb, view_data);
}

static void __brisel_detail_draw_view_components(brisel_detail_view *view_data, page_data *page) {
  BRISEL_INFO("Enter");
  full_noti_data *mail = page->mail_data;
  Evas_Object *layout = page->detail_layout;

  if (mail->has_image) {
    __brisel_detail_signal(layout, "do-show-image-field");
    __brisel_detail_place_notice(layout, part_image, __brisel_detail_image_notice().get());
    __brisel_detail_fit_image_field(layout);
  }

  __brisel_detail_update_datetime_string(view_data, mail->received_time, layout);
  if (!mail->is_new) __brisel_detail_signal(layout, "do-old-time-field");

  if (mail->subject && *mail->subject) {
    scoped_text shown = __brisel_detail_shown_subject(mail->subject);
    scoped_text markup(brisel_util_text_to_markup_whole(shown.get()));
    elm_object_part_text_set(layout, part_title, markup.get());
  } else {
    elm_object_domain_translatable_part_text_set(layout, part_title, BRISEL_DOMAIN, "IDS_EMAIL_BODY_HNO_SUBJECT_ABB");
  }

  if (!__brisel_detail_ends_with_tag(mail->body, body_tag_complete)) {
    __brisel_detail_signal(layout, "do-show-device-field");
    __brisel_detail_place_notice(layout, part_device, __brisel_detail_device_notice().get());
    __brisel_detail_process_signals(layout);
  }

  brisel_detail_body_set_font_size(layout, view_data->font_size);
  __brisel_detail_set_body(page);
  if (view_data->font_size == 0) __brisel_detail_signal(layout, "do-set-fontsize-small");
  if (view_data->font_size == 2) __brisel_detail_signal(layout, "do-set-fontsize-large");

  if (mail->attachment_count > 0) {
    __brisel_detail_signal(layout, "do-show-attachment-field");
    __brisel_detail_set_attachment_text(view_data, mail->attachment_count, layout);
  }

  __brisel_detail_draw_buttons(view_data, layout);
  __brisel_detail_process_signals(layout);
}

/* --- page: building -------------------------------------------------------------------------------------- */

static Evas_Object *__brisel_detail_create_layout(Evas_Object *parent, const char *group) {
  if (!parent) {
    BRISEL_ERROR("Invalid parameter: parent is NULL!");
    return nullptr;
  }
  Evas_Object *layout = brisel_util_load_edj(parent, BRISEL_EDJ, group);
  if (!layout) {
    BRISEL_ERROR("elm_layout_add() failed!");
    return nullptr;
  }
  __brisel_detail_fill_both_ways(layout);
  return layout;
}

static Evas_Object *__brisel_detail_create_layout_single_scroller(brisel_detail_view *view_data) {
  return __brisel_detail_create_layout(view_data->box, "brisel/detail/single_scroller");
}

static Evas_Object *__brisel_detail_create_layout_detail_view(Evas_Object *scroller) {
  return __brisel_detail_create_layout(scroller, group_detail);
}

static Evas_Object *__brisel_detail_create_account_color_bar(Evas_Object *title, int account_id) {
  Evas_Object *bar = brisel_util_create_color_bar(title, account_id);
  if (!bar) BRISEL_ERROR("evas_object_rectangle_add() failed!");
  return bar;
}

/* The title area of a page, or NULL; what it holds goes with it. */
static Evas_Object *__brisel_detail_create_layout_detail_view_title(brisel_detail_view *view_data,
                                                                    const page_data *page) {
  Evas_Object *title = elm_layout_add(page->page_layout);
  if (!title || !elm_layout_theme_set(title, "naviframe", "item", "basic/default")) {
    if (title) evas_object_del(title);
    BRISEL_ERROR("elm_layout_add() failed!");
    BRISEL_ERROR("__brisel_detail_create_layout_detail_view_title() failed!");
    return nullptr;
  }
  __brisel_detail_fill_both_ways(title);

  const full_noti_data *mail = page->mail_data;
  const char *failed = nullptr;
  Evas_Object *button =
      brisel_view_title_button(title, "b_email_icon_more.png", __brisel_detail_option_button_clicked_cb, view_data);
  if (!button) failed = "__brisel_detail_create_option_button() failed!";
  Evas_Object *icon = failed ? nullptr : brisel_view_title_icon(title);
  if (!failed && !icon) failed = "__brisel_detail_create_title_icon() failed!";
  Evas_Object *bar = failed ? nullptr : __brisel_detail_create_account_color_bar(title, mail->account_id);
  if (!failed && !bar) failed = "__brisel_detail_create_account_color_bar() failed!";
  if (failed) {
    BRISEL_ERROR("%s", failed);
    evas_object_del(title);
    return nullptr;
  }

  scoped_text markup(brisel_view_sender_title(mail));
  elm_object_part_text_set(title, "elm.text.title", markup.get());

  elm_object_part_content_set(title, "elm.swallow.next_btn", button);
  elm_object_part_content_set(title, "elm.swallow.icon", icon);
  elm_object_part_content_set(title, "title_color_bar", bar);
  for (const char *signal :
       {"elm,state,icon,show", "elm,state,title_label,show", "elm,state,next_btn,show", "elm,state,visible"})
    elm_layout_signal_emit(title, signal, "elm");
  return title;
}

/* What the paging scroller and the pages' own have in common. */
static Evas_Object *__brisel_detail_create_scroller(Evas_Object *parent) {
  Evas_Object *scroller = elm_scroller_add(parent);
  if (!scroller) {
    BRISEL_ERROR("elm_scroller_add() failed!");
    return nullptr;
  }
  elm_object_style_set(scroller, "effect");
  elm_scroller_single_direction_set(scroller, ELM_SCROLLER_SINGLE_DIRECTION_HARD);
  elm_object_focus_allow_set(scroller, EINA_FALSE);
  __brisel_detail_fill_both_ways(scroller);
  return scroller;
}

/* Logs what failed and drops the half-built page. */
static page_data *__brisel_detail_give_up_page(page_data *page, const char *what) {
  if (what) BRISEL_ERROR("%s", what);
  Evas_Object *layout = page->page_layout;
  __brisel_detail_free_page_data(page);
  if (layout) evas_object_del(layout);
  return nullptr;
}

static page_data *__brisel_detail_draw_single_layout_by_mail_id(brisel_detail_view *view_data, int mail_id) {
  BRISEL_INFO("Enter");
  page_data *page = (page_data *)calloc(1, sizeof(page_data));
  if (!page) {
    BRISEL_ERROR("Failed to allocate memory for page_data!");
    return nullptr;
  }
  page->mail_data = brisel_full_noti_data_create();
  if (!page->mail_data) return __brisel_detail_give_up_page(page, "brisel_db_full_noti_data_create() failed!");
  int result = brisel_db_get_full_noti_data_by_mail_id(mail_id, page->mail_data);
  if (result != 0) {
    BRISEL_ERROR("brisel_db_get_full_noti_data_by_mail_id() failed! err:[%d]", result);
    return __brisel_detail_give_up_page(page, nullptr);
  }

  Evas_Object *root = __brisel_detail_create_layout_single_scroller(view_data);
  if (!root) return __brisel_detail_give_up_page(page, "__brisel_detail_create_layout_single_scroller() failed!");
  brisel_widget_ref_set(&page->page_layout, root);

  Evas_Object *title = __brisel_detail_create_layout_detail_view_title(view_data, page);
  if (!title) return __brisel_detail_give_up_page(page, nullptr);

  Evas_Object *scroller = __brisel_detail_create_scroller(root);
  if (!scroller) return __brisel_detail_give_up_page(page, "__brisel_detail_create_scroller() failed!");
  brisel_widget_ref_set(&page->scroller, scroller);
  elm_scroller_bounce_set(scroller, EINA_FALSE, EINA_TRUE);
  elm_scroller_policy_set(scroller, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
  evas_object_smart_callback_add(scroller, "edge,bottom", __brisel_detail_scroller_bottom_hit_cb, view_data);

  Evas_Object *detail = __brisel_detail_create_layout_detail_view(scroller);
  if (!detail) return __brisel_detail_give_up_page(page, "__brisel_detail_create_detail_view_layout() failed!");
  brisel_widget_ref_set(&page->detail_layout, detail);
  brisel_detail_body_attach(detail, scroller);
  __brisel_detail_draw_view_components(view_data, page);

  elm_object_content_set(scroller, detail);
  elm_object_part_content_set(root, "title", title);
  elm_object_part_content_set(root, part_scroller, scroller);
  page->more_msg_count = BRISEL_DETAIL_MORE_MSG_MAX;
  return page;
}

/* --- the page array -------------------------------------------------------------------------------------- */

static GList *__brisel_detail_get_list_by_mail_id(int mail_id, GList *list) {
  for (GList *node = list; node; node = node->next) {
    const item_data *row = (item_data *)node->data;
    if (row && row->mail_id == mail_id) return node;
  }
  return nullptr;
}

static bool __brisel_detail_is_before(int index) {
  return index < BRISEL_DETAIL_CUR_PAGE;
}

static void __brisel_detail_drop_page(brisel_detail_view *view_data, int index) {
  page_data *page = view_data->page_data[index];
  if (!page) return;
  view_data->page_data[index] = nullptr;
  Evas_Object *layout = page->page_layout;
  if (layout && view_data->box) elm_box_unpack(view_data->box, layout);
  __brisel_detail_free_page_data(page);
  if (layout) evas_object_del(layout);
}

/* Lays the box out: every page as wide as the view and as high, whatever its content asks for, and the box exactly as
   wide as its pages, so that the scroller finds them at whole pages. A box's own layout would let wide content push
   the pages out of step. */
static void __brisel_detail_box_layout_cb(Evas_Object *box, Evas_Object_Box_Data *priv, void *data) {
  int x = 0, y = 0, height = 0, width = 0, count = 0;
  evas_object_geometry_get(box, &x, &y, nullptr, &height);
  elm_scroller_page_size_get((Evas_Object *)data, &width, nullptr);
  for (Eina_List *cell = priv->children; cell; cell = cell->next, count++) {
    Evas_Object *page = ((Evas_Object_Box_Option *)eina_list_data_get(cell))->obj;
    evas_object_move(page, x + count * width, y);
    evas_object_resize(page, width, height);
  }
  evas_object_size_hint_min_set(box, count * width, 0);
}

static void __brisel_detail_fit_box(brisel_detail_view *view_data) {
  if (view_data->box) elm_box_recalculate(view_data->box);
}

GList *__brisel_detail_update_neighbor(GList *node, int index, brisel_detail_view *view_data) {
  if (index == BRISEL_DETAIL_CUR_PAGE) {
    BRISEL_WARN("Invalid parameter: index is for current page");
    return nullptr;
  }
  bool before = __brisel_detail_is_before(index);
  __brisel_detail_drop_page(view_data, index);
  while (node && ((item_data *)node->data)->security_locked) node = before ? node->prev : node->next;
  if (node) {
    page_data *page = __brisel_detail_draw_single_layout_by_mail_id(view_data, ((item_data *)node->data)->mail_id);
    view_data->page_data[index] = page;
    if (page && before) elm_box_pack_start(view_data->box, page->page_layout);
    if (page && !before) elm_box_pack_end(view_data->box, page->page_layout);
  }
  __brisel_detail_fit_box(view_data);
  return node;
}

static void __brisel_detail_show_current_page(brisel_detail_view *view_data) {
  page_data **pages = view_data->page_data;
  view_data->cur_page_index = !pages[BRISEL_DETAIL_PREV_PAGE] ? 0 : pages[BRISEL_DETAIL_PREV_PREV_PAGE] ? 2 : 1;
  if (!view_data->page_scroller || !view_data->box) return;
  /* The scroller shows no place that its content has not reached yet, so the box takes its new size first. */
  elm_box_recalculate(view_data->box);
  evas_smart_objects_calculate(evas_object_evas_get(view_data->box));
  elm_scroller_page_show(view_data->page_scroller, view_data->cur_page_index, 0);
}

/* The slots on one side of the current page, from the mail's node in the list outward. */
static void __brisel_detail_build_side(brisel_detail_view *view_data, GList *node, bool before) {
  int near_slot = before ? BRISEL_DETAIL_PREV_PAGE : BRISEL_DETAIL_NEXT_PAGE;
  int far_slot = before ? BRISEL_DETAIL_PREV_PREV_PAGE : BRISEL_DETAIL_NEXT_NEXT_PAGE;
  GList *used = __brisel_detail_update_neighbor(before ? node->prev : node->next, near_slot, view_data);
  GList *further = !used ? nullptr : before ? used->prev : used->next;
  __brisel_detail_update_neighbor(further, far_slot, view_data);
}

static void __brisel_detail_build_neighbors(brisel_detail_view *view_data, int mail_id) {
  GList *node = __brisel_detail_get_list_by_mail_id(mail_id, view_data->ad->mail_list);
  if (node) {
    /* Near pages first on both sides: a page's place in the box follows from those already there. */
    GList *prev = __brisel_detail_update_neighbor(node->prev, BRISEL_DETAIL_PREV_PAGE, view_data);
    GList *next = __brisel_detail_update_neighbor(node->next, BRISEL_DETAIL_NEXT_PAGE, view_data);
    __brisel_detail_update_neighbor(prev ? prev->prev : nullptr, BRISEL_DETAIL_PREV_PREV_PAGE, view_data);
    __brisel_detail_update_neighbor(next ? next->next : nullptr, BRISEL_DETAIL_NEXT_NEXT_PAGE, view_data);
  }
  __brisel_detail_show_current_page(view_data);
}

static void __brisel_detail_draw_neighbors_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  evas_object_smart_callback_del_full(view_data->ad->naviframe, "transition,finished",
                                      __brisel_detail_draw_neighbors_cb, view_data);
  __brisel_detail_build_neighbors(view_data, view_data->mail_id);
}

int brisel_detail_update_neighbors(int mail_id, appdata *ad) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = __brisel_detail_retrieve_view_data(ad);
  if (!view_data) return 0;
  /* Pages are not pulled away from under a finger, nor while one is on its way in: the shift that is due, or the
     finger's lift, brings the neighbours up to date. */
  if (is_mouse_down || is_page_moving) {
    view_data->is_neighbor_update_due = 1;
    return 0;
  }
  __brisel_detail_build_neighbors(view_data, mail_id);
  return 0;
}

Eina_Bool brisel_detail_shows_mail(int mail_id, appdata *ad) {
  const brisel_detail_view *view_data =
      (const brisel_detail_view *)brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, ad);
  return view_data && __brisel_detail_find_page(view_data, mail_id) ? EINA_TRUE : EINA_FALSE;
}

/* --- paging ---------------------------------------------------------------------------------------------- */

/* Takes the page of a mail that became the current one into use. */
static void __brisel_detail_enter_page(brisel_detail_view *view_data, int mail_id, int is_read) {
  view_data->mail_id = mail_id;
  view_data->ad->mail_id = mail_id;
  if (!is_read) __brisel_detail_send_update_ind(view_data);
  __brisel_detail_update_pickover(view_data);
}

static Eina_Bool __brisel_detail_shift(brisel_detail_view *view_data, bool to_next) {
  page_data **pages = view_data->page_data;
  int near_slot = to_next ? BRISEL_DETAIL_NEXT_PAGE : BRISEL_DETAIL_PREV_PAGE;
  int far_slot = to_next ? BRISEL_DETAIL_NEXT_NEXT_PAGE : BRISEL_DETAIL_PREV_PREV_PAGE;
  view_data->page_timer = nullptr;

  if (pages[near_slot]) {
    __brisel_detail_update_neighbor(nullptr, to_next ? BRISEL_DETAIL_PREV_PREV_PAGE : BRISEL_DETAIL_NEXT_NEXT_PAGE,
                                    view_data);
    int mail_id = pages[near_slot]->mail_data->mail_id;
    int is_read = pages[near_slot]->mail_data->is_read;
    if (to_next)
      memmove(&pages[0], &pages[1], sizeof(pages[0]) * (BRISEL_DETAIL_PAGE_MAX - 1));
    else
      memmove(&pages[1], &pages[0], sizeof(pages[0]) * (BRISEL_DETAIL_PAGE_MAX - 1));
    pages[far_slot] = nullptr;
    __brisel_detail_enter_page(view_data, mail_id, is_read);

    GList *list = view_data->ad->mail_list;
    int near_id = pages[near_slot] ? pages[near_slot]->mail_data->mail_id : -1;
    GList *node = __brisel_detail_get_list_by_mail_id(near_id, list);
    if (pages[near_slot] && !node)
      BRISEL_ERROR("__brisel_detail_get_list_by_mail_id() failed! for mail_id:[%d]", near_id);
    if (node) {
      __brisel_detail_update_neighbor(to_next ? node->next : node->prev, far_slot, view_data);
    } else if (GList *current = __brisel_detail_get_list_by_mail_id(mail_id, list)) {
      /* The mail beside this one has left the list, or could not be shown when its page was due: paging goes on with
         what follows in the list now. When the current mail has left it too, there is nothing to go on with and the
         shift ends without an outer page. */
      __brisel_detail_build_side(view_data, current, !to_next);
    }
  }

  if (view_data->is_neighbor_update_due && !is_mouse_down) {
    view_data->is_neighbor_update_due = 0;
    __brisel_detail_build_neighbors(view_data, view_data->mail_id);
  } else {
    __brisel_detail_show_current_page(view_data);
  }
  pages[BRISEL_DETAIL_CUR_PAGE]->more_msg_count = BRISEL_DETAIL_MORE_MSG_MAX;
  is_page_moving = 0;
  return ECORE_CALLBACK_CANCEL;
}

Eina_Bool __brisel_detail_page_to_next_timer_cb(void *data) {
  BRISEL_INFO("Enter");
  return __brisel_detail_shift((brisel_detail_view *)data, true);
}

Eina_Bool __brisel_detail_page_to_previous_timer_cb(void *data) {
  BRISEL_INFO("Enter");
  return __brisel_detail_shift((brisel_detail_view *)data, false);
}

/* Whether the box has the size that its pages need. Until then the scroller stands where it can, not where it should.
 */
static bool __brisel_detail_is_box_laid_out(const brisel_detail_view *view_data) {
  int width = 0, page_width = 0, count = 0;
  for (const page_data *page : view_data->page_data)
    if (page) count++;
  if (view_data->box) evas_object_geometry_get(view_data->box, nullptr, nullptr, &width, nullptr);
  elm_scroller_page_size_get(view_data->page_scroller, &page_width, nullptr);
  return page_width > 0 && width == page_width * count;
}

static void __brisel_detail_box_resize_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (!is_mouse_down && !is_page_moving && __brisel_detail_is_box_laid_out(view_data))
    elm_scroller_page_show(view_data->page_scroller, view_data->cur_page_index, 0);
}

static void __brisel_detail_page_scroller_scroll_cb(void *data, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (is_mouse_down || is_page_moving || !__brisel_detail_is_box_laid_out(view_data)) return;
  int page = 0;
  elm_scroller_current_page_get(obj, &page, nullptr);
  if (page == view_data->cur_page_index) return;
  view_data->page_timer = ecore_timer_add(page_shift_delay,
                                          view_data->cur_page_index > page ? __brisel_detail_page_to_previous_timer_cb
                                                                           : __brisel_detail_page_to_next_timer_cb,
                                          view_data);
  is_page_moving = 1;
}

static void __brisel_detail_page_scroller_mouse_down_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  is_mouse_down = 1;
  const Evas_Event_Mouse_Down *event = (const Evas_Event_Mouse_Down *)event_info;
  view_data->pressed_at = event->canvas;
  view_data->pressed_time = event->timestamp;
  view_data->pressed_at_end = __brisel_detail_is_at_end(view_data->page_data[BRISEL_DETAIL_CUR_PAGE]);
}

/* An edge is told when it is reached: never on a page that fits into the view, and not again on one that stays at its
   end. Pulling such a page up asks for more text. */
static void __brisel_detail_pull(brisel_detail_view *view_data) {
  page_data *page = view_data->page_data[BRISEL_DETAIL_CUR_PAGE];
  if (view_data->pressed_at_end && page && page->scroller)
    __brisel_detail_scroller_bottom_hit_cb(view_data, page->scroller, nullptr);
}

/* The scroller goes to the page that shows most when the finger leaves it. A quick stroke means the next page even when
   little of it shows yet. */
static void __brisel_detail_flick(brisel_detail_view *view_data, bool to_next) {
  int target = view_data->cur_page_index + (to_next ? 1 : -1), last = -1;
  for (const page_data *page : view_data->page_data)
    if (page) last++;
  if (target >= 0 && target <= last) elm_scroller_page_bring_in(view_data->page_scroller, target, 0);
}

static void __brisel_detail_check_stroke(brisel_detail_view *view_data, const Evas_Event_Mouse_Up *event) {
  if (is_page_moving || elm_object_scroll_freeze_get(view_data->page_scroller) > 0) return;
  int left = view_data->pressed_at.x - event->canvas.x, up = view_data->pressed_at.y - event->canvas.y;
  int long_enough = 2 * elm_config_finger_size_get();
  if (up >= long_enough && up > abs(left)) __brisel_detail_pull(view_data);
  if (abs(left) >= long_enough && abs(left) > abs(up) && event->timestamp - view_data->pressed_time <= flick_time)
    __brisel_detail_flick(view_data, left > 0);
}

static Eina_Bool __brisel_detail_neighbor_timer_cb(void *data) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  view_data->neighbor_timer = nullptr;
  if (!view_data->is_neighbor_update_due || is_mouse_down || is_page_moving) return ECORE_CALLBACK_CANCEL;
  view_data->is_neighbor_update_due = 0;
  __brisel_detail_build_neighbors(view_data, view_data->mail_id);
  return ECORE_CALLBACK_CANCEL;
}

static void __brisel_detail_page_scroller_mouse_up_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  is_mouse_down = 0;
  __brisel_detail_check_stroke(view_data, (const Evas_Event_Mouse_Up *)event_info);
  if (view_data->is_neighbor_update_due && !view_data->neighbor_timer)
    view_data->neighbor_timer =
        ecore_timer_add(page_settle_time + page_shift_delay, __brisel_detail_neighbor_timer_cb, view_data);
}

static void __brisel_detail_page_layout_resize_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (!view_data->page_scroller) return;
  int width = 0, height = 0, old_width = 0;
  evas_object_geometry_get(obj, nullptr, nullptr, &width, &height);
  elm_scroller_page_size_get(view_data->page_scroller, &old_width, nullptr);
  elm_scroller_page_size_set(view_data->page_scroller, width, height);
  if (width == old_width || !view_data->page_data[BRISEL_DETAIL_CUR_PAGE]) return;
  /* Pages that were packed for another width, or before there was one. */
  __brisel_detail_fit_box(view_data);
  elm_scroller_page_show(view_data->page_scroller, view_data->cur_page_index, 0);
}

/* --- opening and closing --------------------------------------------------------------------------------- */

static void __brisel_detail_create_layout_page_scroller(brisel_detail_view *view_data) {
  Evas_Object *layout = __brisel_detail_create_layout(view_data->ad->naviframe, "brisel/detail/page_scroller");
  if (!layout) return;
  brisel_widget_ref_set(&view_data->page_scroller_layout, layout);
  /* Nothing in the reader takes the keyboard's focus. It would go to a button of some page, and the scroller would
     bring that page into view: the reader would turn to a mail that nobody asked for, and tell the phone that it is
     read. */
  elm_object_tree_focus_allow_set(layout, EINA_FALSE);
  evas_object_event_callback_add(layout, EVAS_CALLBACK_RESIZE, __brisel_detail_page_layout_resize_cb, view_data);
}

static void __brisel_detail_create_page_scroller(brisel_detail_view *view_data) {
  Evas_Object *scroller = __brisel_detail_create_scroller(view_data->ad->naviframe);
  if (!scroller) return;
  brisel_widget_ref_set(&view_data->page_scroller, scroller);
  /* A stroke to the left shows the next mail in every language, and the pages lie accordingly. A mirrored scroller
     would count them from the other side. */
  elm_object_mirrored_automatic_set(scroller, EINA_FALSE);
  elm_object_mirrored_set(scroller, EINA_FALSE);
  elm_scroller_loop_set(scroller, EINA_FALSE, EINA_FALSE);
  elm_scroller_page_relative_set(scroller, 1.0, 0.0);
  elm_scroller_page_scroll_limit_set(scroller, 1, 0);
  elm_scroller_bounce_set(scroller, EINA_TRUE, EINA_FALSE);
  elm_scroller_policy_set(scroller, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_OFF);
  elm_config_scroll_page_scroll_friction_set(page_settle_time);
  evas_object_smart_callback_add(scroller, "scroll", __brisel_detail_page_scroller_scroll_cb, view_data);
  evas_object_event_callback_add(scroller, EVAS_CALLBACK_MOUSE_DOWN, __brisel_detail_page_scroller_mouse_down_cb,
                                 view_data);
  evas_object_event_callback_add(scroller, EVAS_CALLBACK_MOUSE_UP, __brisel_detail_page_scroller_mouse_up_cb,
                                 view_data);
  elm_object_part_content_set(view_data->page_scroller_layout, part_scroller, scroller);
}

static void __brisel_detail_create_box(brisel_detail_view *view_data) {
  Evas_Object *box = elm_box_add(view_data->page_scroller);
  if (!box) {
    BRISEL_ERROR("elm_box_add() failed!");
    return;
  }
  brisel_widget_ref_set(&view_data->box, box);
  elm_box_horizontal_set(box, EINA_TRUE);
  elm_box_layout_set(box, __brisel_detail_box_layout_cb, view_data->page_scroller, nullptr);
  __brisel_detail_fill_both_ways(box);
  evas_object_event_callback_add(box, EVAS_CALLBACK_RESIZE, __brisel_detail_box_resize_cb, view_data);
  elm_object_content_set(view_data->page_scroller, box);
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

/* Cancels the awaited answer. Its context goes with it, or stays for an answer that cannot be stopped. */
static void __brisel_detail_abandon_more_msg(brisel_detail_view *view_data, bool is_cancelled) {
  more_msg_ctx *context = view_data->more_msg;
  view_data->more_msg = nullptr;
  if (!context) return;
  context->view = nullptr;
  if (is_cancelled) free(context);
}

static Eina_Bool __brisel_detail_view_pop_cb(void *data, Elm_Object_Item *it) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (!view_data) return EINA_TRUE;
  if (view_data->ad->naviframe)
    evas_object_smart_callback_del_full(view_data->ad->naviframe, "transition,finished",
                                        __brisel_detail_draw_neighbors_cb, view_data);
  if (view_data->page_timer) ecore_timer_del(view_data->page_timer);
  if (view_data->neighbor_timer) ecore_timer_del(view_data->neighbor_timer);
  if (view_data->pickover_timer) ecore_timer_del(view_data->pickover_timer);
  if (view_data->is_pickover_registered) __brisel_detail_unregister_pickover(view_data);
  int result = brisel_ipc_req_cancel(BRISEL_IPC_CLIENT_REQ_TYPE_MORE_MSG);
  if (result != 0) BRISEL_INFO("brisel_ipc_req_cancel() failed! ret:[%d]", result);
  __brisel_detail_abandon_more_msg(view_data, result == 0);
  is_mouse_down = 0;
  is_page_moving = 0;
  __brisel_detail_free_view_data(view_data);
  return EINA_TRUE;
}

static void __brisel_detail_gesture_create_gesture_layout(Evas_Object *layout, brisel_detail_view *view_data);

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
  is_page_moving = 0;
  view_data->mail_id = mail_id;
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
  brisel_view_head *head = (brisel_view_head *)view_data;
  Elm_Object_Item *item = push ? brisel_view_push(ad, layout, nullptr, nullptr, __brisel_detail_view_pop_cb, head)
                               : brisel_view_push_at_once(ad, layout, __brisel_detail_view_pop_cb, head);
  if (!push) __brisel_detail_draw_neighbors_cb(view_data, ad->naviframe, nullptr);
  elm_naviframe_item_title_enabled_set(item, EINA_FALSE, EINA_FALSE);
  brisel_view_more_button(item, __brisel_detail_option_button_clicked_cb, view_data);

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

/* --- keeping built pages current ------------------------------------------------------------------------- */

int brisel_detail_update_datetime_format(appdata *ad) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = __brisel_detail_retrieve_view_data(ad);
  if (!view_data) return 0;
  for (const page_data *page : view_data->page_data)
    if (page && page->detail_layout)
      __brisel_detail_update_datetime_string(view_data, page->mail_data->received_time, page->detail_layout);
  return 0;
}

static void __brisel_detail_update_page_string(brisel_detail_view *view_data, page_data *page) {
  Evas_Object *layout = page->detail_layout;
  if (Evas_Object *label = elm_object_part_content_get(layout, part_device)) {
    elm_object_text_set(label, __brisel_detail_device_notice().get());
    elm_object_part_content_set(layout, part_device, label);
  }
  if (Evas_Object *label = elm_object_part_content_get(layout, part_image)) {
    elm_object_text_set(label, __brisel_detail_image_notice().get());
    __brisel_detail_fit_image_field(layout);
    elm_object_part_content_set(layout, part_image, label);
  }
  if (page->mail_data->attachment_count > 0)
    __brisel_detail_set_attachment_text(view_data, page->mail_data->attachment_count, layout);
  int status = 2;
  Evas_Object *button = elm_object_part_content_get(layout, part_lbutton);
  if (brisel_util_get_reply_status(&status) == 0 && status == 2 && button)
    elm_object_text_set(button, brisel_util_get_text("IDS_EMAIL_BUTTON2_SHOW_ON_DEVICE"));
}

int brisel_detail_update_string(appdata *ad) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = __brisel_detail_retrieve_view_data(ad);
  if (!view_data) return 0;
  for (page_data *page : view_data->page_data)
    if (page && page->detail_layout) __brisel_detail_update_page_string(view_data, page);
  return 0;
}

/* --- buttons --------------------------------------------------------------------------------------------- */

static full_noti_data *__brisel_detail_current_mail(const brisel_detail_view *view_data) {
  return view_data->page_data[BRISEL_DETAIL_CUR_PAGE]->mail_data;
}

static void __brisel_detail_show_on_device(const brisel_detail_view *view_data) {
  int mail_ids[] = {__brisel_detail_current_mail(view_data)->mail_id};
  brisel_util_show_on_device(mail_ids, 1);
}

static void __brisel_detail_option_button_clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  brisel_option_detail_draw_view(view_data->mail_id, view_data->ad);
}

static void __brisel_detail_reply_button_clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  appdata *ad = view_data->ad;
  if (!brisel_util_bluetooth_connection_popup(ad, brisel_util_bt_connect_error_popup_result_cb, "perform")) return;
  full_noti_data *mail = __brisel_detail_current_mail(view_data);
  brisel_view_draw_reply(mail->mail_id, ad, mail);
}

static void __brisel_detail_popup_response_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_widget_ref_drop(&((brisel_detail_view *)data)->popup);
}

static void __brisel_detail_reply_update_required_button_clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (view_data->popup) {
    BRISEL_INFO("popup is already existed. remove it.");
    brisel_widget_ref_drop(&view_data->popup);
  }
  brisel_widget_ref_set(&view_data->popup,
                        brisel_view_update_required_popup(view_data->ad, __brisel_detail_popup_response_cb, view_data));
}

static void __brisel_detail_show_on_device_button_clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
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

/* --- more of a body -------------------------------------------------------------------------------------- */

void __brisel_detail_scroller_bottom_hit_cb(void *data, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (!view_data || !view_data->ad || view_data->ad->bt_connected != 1) return;
  page_data *page = view_data->page_data[BRISEL_DETAIL_CUR_PAGE];
  /* Only the current page's own edge counts, and only when it is the end of the text rather than of a guess. */
  if (!page || (obj && obj != page->scroller) || !brisel_detail_body_end_is_known(page->detail_layout)) return;
  /* One pull reaches the edge more than once when the page bounces off it. While the page waits already, that is no
     wish for another request: it would throw away the answer on its way and use up the visit's share. */
  if (page->more_msg_idler || page->more_msg_timer) return;
  if (view_data->more_msg && view_data->more_msg->mail_id == page->mail_data->mail_id) return;
  if (page->more_msg_count <= 0) return;
  page->more_msg_count--;
  page->more_msg_idler = ecore_idler_add(__brisel_detail_more_msg_ind, view_data);
}

static bool __brisel_detail_may_ask_for_more(const char *body) {
  return __brisel_detail_ends_with_tag(body, body_tag_more) || !body || !strstr(body, BODY_TAG_START);
}

/* Events on the veil behind the progress bar stay there while text is on its way. */
static void __brisel_detail_veil_events(const page_data *page, bool propagate) {
  Evas_Object *veil = elm_object_part_content_get(page->detail_layout, part_progress_bg);
  if (!veil)
    veil = (Evas_Object *)edje_object_part_object_get(elm_layout_edje_get(page->detail_layout), part_progress_bg);
  if (veil) evas_object_propagate_events_set(veil, propagate);
}

static void __brisel_detail_show_progress(const brisel_detail_view *view_data, page_data *page) {
  brisel_widget_ref_drop(&page->progress);
  Evas_Object *progress = brisel_create_progress_popup(view_data->ad, "process/groupindex");
  if (!progress) return;
  brisel_widget_ref_set(&page->progress, progress);
  elm_object_part_content_set(page->detail_layout, part_process, progress);
}

static void __brisel_detail_stop_progress(page_data *page) {
  brisel_widget_ref_drop(&page->progress);
  elm_layout_signal_emit(page->detail_layout, "stop,progress", "");
  __brisel_detail_veil_events(page, true);
}

/* The page waits for nothing any more: its notice is back and the user may ask again. */
static void __brisel_detail_stop_more_msg(page_data *page) {
  __brisel_detail_stop_progress(page);
  __brisel_detail_signal(page->detail_layout, "do-show-device-field");
  __brisel_detail_process_signals(page->detail_layout);
}

/* Sends the request for the page. False when nothing was sent; what failed is logged. */
static bool __brisel_detail_send_more_msg(brisel_detail_view *view_data, const page_data *page) {
  more_msg_req_data *request = brisel_more_msg_req_data_create();
  if (!request) {
    BRISEL_ERROR("brisel_more_msg_req_data_create() failed!");
    return false;
  }
  request->message_uid = g_strdup(page->mail_data->message_uid);
  request->mail_id = page->mail_data->mail_id;
  bool sent = false;
  int result = brisel_ipc_req_cancel(BRISEL_IPC_CLIENT_REQ_TYPE_MORE_MSG);
  if (result != 0) {
    BRISEL_ERROR("brisel_ipc_req_cancel() failed! ret:[%d]", result);
  } else {
    /* An answer that a page swiped away was waiting for will not come now. */
    if (view_data->more_msg) {
      page_data *waiting = __brisel_detail_find_page(view_data, view_data->more_msg->mail_id);
      if (waiting && waiting != page) __brisel_detail_stop_more_msg(waiting);
    }
    __brisel_detail_abandon_more_msg(view_data, true);
    more_msg_ctx *context = (more_msg_ctx *)calloc(1, sizeof(more_msg_ctx));
    if (context) {
      context->view = view_data;
      context->mail_id = request->mail_id;
      view_data->more_msg = context;
      result = brisel_ipc_req_more_msg(request, __brisel_detail_ipc_more_msg_cb, context);
      sent = result == 0;
      if (!sent) {
        BRISEL_ERROR("brisel_ipc_req_more_msg() failed! ret:[%d]", result);
        __brisel_detail_abandon_more_msg(view_data, true);
      }
    }
  }
  brisel_more_msg_req_data_free(request);
  return sent;
}

static Eina_Bool __brisel_detail_more_msg_ind(void *data) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  /* A swipe may have come between the edge and this idler: it is the page that owns the idler that asked. */
  page_data *page = view_data->page_data[BRISEL_DETAIL_CUR_PAGE];
  for (page_data *owner : view_data->page_data)
    if (owner && owner->more_msg_idler) page = owner;
  page->more_msg_idler = nullptr;
  if (!__brisel_detail_may_ask_for_more(page->mail_data->body)) return ECORE_CALLBACK_CANCEL;

  __brisel_detail_signal(page->detail_layout, "do-process-device-field");
  __brisel_detail_process_signals(page->detail_layout);
  __brisel_detail_show_progress(view_data, page);
  elm_layout_signal_emit(page->detail_layout, "start,progress", "");
  __brisel_detail_veil_events(page, false);
  /* What could not be sent will never be answered: the page must not go on waiting. */
  if (!__brisel_detail_send_more_msg(view_data, page)) __brisel_detail_stop_more_msg(page);
  return ECORE_CALLBACK_CANCEL;
}

/* Reads the mail again after an answer and prepares its page to show it. When that fails the page goes back to its
   notice: it must not look as if text were still on its way. */
static void __brisel_detail_take_more_msg(brisel_detail_view *view_data, page_data *page, int mail_id) {
  scoped_noti mail(brisel_full_noti_data_create());
  if (!mail) {
    BRISEL_ERROR("brisel_db_full_noti_data_create() failed!");
    __brisel_detail_signal(page->detail_layout, "do-show-device-field");
    return;
  }
  BRISEL_INFO("mail_id : %d", mail_id);
  int result = brisel_db_get_full_noti_data_by_mail_id(mail_id, mail.get());
  if (result != 0) {
    BRISEL_ERROR("brisel_db_get_full_noti_data_by_mail_id() failed! err:[%d]", result);
    __brisel_detail_signal(page->detail_layout, "do-show-device-field");
    return;
  }
  if (mail->body && *mail->body) {
    g_free(page->mail_data->body);
    page->mail_data->body = g_strdup(mail->body);
  }
  __brisel_detail_show_progress(view_data, page);
  page->more_msg_timer = ecore_timer_add(body_apply_delay, __brisel_detail_add_more_messages_cb, page);
}

void __brisel_detail_ipc_more_msg_cb(void *response, int error, void *data) {
  more_msg_ctx *context = (more_msg_ctx *)data;
  if (!context) {
    BRISEL_ERROR("Invalid parameter: data is NULL!");
    return;
  }
  BRISEL_INFO("BRISEL_IPC_CLIENT_REQ_TYPE_MORE_MSG");
  brisel_detail_view *view_data = context->view;
  int asked_id = context->mail_id;
  if (view_data && view_data->more_msg == context) view_data->more_msg = nullptr;
  free(context);
  /* The answer is for the page that asked. When the view is closed or the page far away by now, there is nothing to
     do: the store has the text, and the page is built from it when the user comes back. */
  page_data *page = view_data ? __brisel_detail_find_page(view_data, asked_id) : nullptr;
  if (!page || !page->detail_layout) return;

  if (page->more_msg_timer) {
    ecore_timer_del(page->more_msg_timer);
    page->more_msg_timer = nullptr;
  }
  __brisel_detail_stop_progress(page);
  if (error) {
    BRISEL_INFO("__brisel_detail_ipc_more_msg_cb() failed! [%d]", error);
    __brisel_detail_signal(page->detail_layout, "do-show-device-field");
    return;
  }
  const brisel_ipc_event *event = (const brisel_ipc_event *)response;
  if (!event || !event->id_list) {
    __brisel_detail_signal(page->detail_layout, "do-show-device-field");
    return;
  }
  int mail_id = GPOINTER_TO_INT(event->id_list->data);
  if (mail_id != asked_id) {
    /* An answer about another mail says nothing about this one. */
    __brisel_detail_signal(page->detail_layout, "do-show-device-field");
    return;
  }
  __brisel_detail_take_more_msg(view_data, page, mail_id);
}

static Eina_Bool __brisel_detail_add_more_messages_cb(void *data) {
  BRISEL_INFO("Enter");
  page_data *page = (page_data *)data;
  page->more_msg_timer = nullptr;
  if (!page->detail_layout) return ECORE_CALLBACK_CANCEL;
  __brisel_detail_stop_progress(page);
  if (!page->mail_data) {
    BRISEL_ERROR("mail_data is NULL!");
    return ECORE_CALLBACK_CANCEL;
  }
  if (page->mail_data->body && *page->mail_data->body) __brisel_detail_set_body(page);
  if (__brisel_detail_ends_with_tag(page->mail_data->body, body_tag_complete)) {
    BRISEL_INFO("There is no more mail_body!");
    __brisel_detail_signal(page->detail_layout, "do-hide-device-field");
  } else {
    __brisel_detail_signal(page->detail_layout, "do-show-device-field");
  }
  __brisel_detail_process_signals(page->detail_layout);
  return ECORE_CALLBACK_CANCEL;
}

/* --- read indication ------------------------------------------------------------------------------------- */

static void __brisel_detail_send_update_ind(brisel_detail_view *view_data) {
  BRISEL_INFO("Enter");
  update_noti_data *update = brisel_update_noti_data_create();
  if (!update) {
    BRISEL_ERROR("brisel_update_noti_data_create() failed!");
    return;
  }
  const full_noti_data *mail = __brisel_detail_current_mail(view_data);
  update->id_list = g_slist_append(update->id_list, GINT_TO_POINTER(mail->mail_id));
  update->host_state = mail->host_state;
  int result = brisel_ipc_req_cancel(BRISEL_IPC_CLIENT_REQ_TYPE_UPDATE_IND);
  if (result != 0) {
    BRISEL_ERROR("brisel_ipc_req_cancel() failed! ret:[%d]", result);
  } else {
    result = brisel_ipc_req_update_ind(update, nullptr, nullptr);
    if (result != 0) BRISEL_ERROR("brisel_ipc_req_update_ind() failed! ret:[%d]", result);
  }
  brisel_update_noti_data_free(update);
}

/* --- pickover -------------------------------------------------------------------------------------------- */

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
  __brisel_detail_show_on_device(view_data);
  if (!view_data->pickover_timer) return;
  BRISEL_INFO("TIMER deleted!!");
  ecore_timer_del(view_data->pickover_timer);
  view_data->pickover_timer = nullptr;
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

static void __brisel_detail_unregister_pickover(brisel_detail_view *view_data) {
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

static void __brisel_detail_update_pickover(brisel_detail_view *view_data) {
  BRISEL_INFO("Enter");
  if (view_data->pickover_timer) ecore_timer_del(view_data->pickover_timer);
  __brisel_detail_unregister_pickover(view_data);
  __brisel_detail_register_pickover(view_data);
  view_data->pickover_timer = ecore_timer_add(pickover_period, __brisel_detail_pickover_timer_cb, view_data);
}

void brisel_detail_register_pickover(view_data *vd) {
  if (!vd) {
    BRISEL_ERROR("Invalid parameter: data is NULL!");
    return;
  }
  __brisel_detail_update_pickover((brisel_detail_view *)vd);
}

void brisel_detail_unregister_pickover(view_data *vd) {
  if (!vd) {
    BRISEL_ERROR("Invalid parameter: data is NULL!");
    return;
  }
  brisel_detail_view *view_data = (brisel_detail_view *)vd;
  if (view_data->pickover_timer) ecore_timer_del(view_data->pickover_timer);
  view_data->pickover_timer = nullptr;
  __brisel_detail_unregister_pickover(view_data);
}

/* --- gestures and text size ------------------------------------------------------------------------------ */

/* Tags that only emphasise. All others could load fonts, objects or filters, or make a text of any size. */
static bool __brisel_detail_is_harmless_tag(const char *name, size_t length) {
  static const char *const harmless[] = {"b", "i", "em", "br", "br/", "tab", "tab/", "ps", "ps/"};
  if (length && *name == '/') {
    name++;
    length--;
  }
  for (const char *tag : harmless)
    if (strlen(tag) == length && !strncmp(tag, name, length)) return true;
  return false;
}

char *__brisel_detail_harmless_markup(const char *text) {
  GString *markup = g_string_new(nullptr);
  while (*text) {
    size_t plain = strcspn(text, "<");
    g_string_append_len(markup, text, (gssize)plain);
    text += plain;
    if (!*text) break;
    size_t inside = strcspn(text + 1, "<>");
    if (text[1 + inside] == '>' && __brisel_detail_is_harmless_tag(text + 1, inside)) {
      g_string_append_len(markup, text, (gssize)inside + 2);
      text += inside + 2;
    } else {
      g_string_append(markup, "&lt;");
      text++;
    }
  }
  return g_string_free(markup, FALSE);
}

static void __brisel_detail_set_unconverted_subject(page_data *page) {
  scoped_text shown = __brisel_detail_shown_subject(page->mail_data->subject);
  scoped_text markup(__brisel_detail_harmless_markup(shown ? shown.get() : ""));
  elm_object_part_text_set(page->detail_layout, part_title, markup.get());
  /* The line for a missing subject, which the toolkit translates, gives way to a text but not to an empty one. */
  if (markup && !*markup) edje_object_part_text_set(elm_layout_edje_get(page->detail_layout), part_title, "");
}

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
    __brisel_detail_set_unconverted_subject(page);
    __brisel_detail_set_body(page);
  }
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

static void __brisel_detail_unfreeze(Evas_Object *scroller) {
  while (scroller && elm_object_scroll_freeze_get(scroller) > 0) elm_object_scroll_freeze_pop(scroller);
}

static void __brisel_detail_unfreeze_and_settle(brisel_detail_view *view_data) {
  __brisel_detail_unfreeze(view_data->page_scroller);
  /* A shift that was due when the fingers came down may have made another page the current one meanwhile. */
  for (const page_data *page : view_data->page_data)
    if (page) __brisel_detail_unfreeze(page->scroller);
  int page = 0;
  elm_scroller_current_page_get(view_data->page_scroller, &page, nullptr);
  elm_scroller_page_bring_in(view_data->page_scroller, page, 0);
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
  int size = view_data->font_size;
  BRISEL_INFO("tapinfo->n : %d, view_data->font_size : %d", (int)((const Elm_Gesture_Taps_Info *)event_info)->n, size);
  __brisel_detail_update_font_size(view_data, size == 0 || size == 1 ? size + 1 : 0);
  __brisel_detail_unfreeze_and_settle(view_data);
  return EVAS_EVENT_FLAG_NONE;
}

static void __brisel_detail_gesture_create_gesture_layout(Evas_Object *layout, brisel_detail_view *view_data) {
  BRISEL_INFO("Enter");
  Evas_Object *gesture = elm_gesture_layer_add(layout);
  if (!gesture || !elm_gesture_layer_attach(gesture, layout)) {
    if (gesture) evas_object_del(gesture);
    BRISEL_ERROR("elm_gesture_layer_add() failed!");
    return;
  }
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
