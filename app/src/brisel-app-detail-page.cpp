/* What is on one page of the reader: its texts, notices and buttons. Owns what a page_data holds. Building, paging and
   the main file call it. */
#include "brisel-app-detail.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "brisel-app-detail-body.h"
#include "brisel-app-stage.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "brisel-body.h"

static const char part_image[] = "detail.image";
static const char part_device[] = "detail.device";
static const char part_lbutton[] = "detail.lbutton";
static const char part_rbutton[] = "detail.rbutton";
#define NOTICE_START "<font_size=24><text_class=nuvra><color=#FF9000FF>"
#define NOTICE_END "</color></text_class></font_size>"
constexpr int notice_line_height = 36;

void __brisel_detail_fill_both_ways(Evas_Object *obj) {
  evas_object_size_hint_weight_set(obj, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_size_hint_align_set(obj, EVAS_HINT_FILL, EVAS_HINT_FILL);
  evas_object_show(obj);
}

void __brisel_detail_signal(Evas_Object *layout, const char *signal) {
  elm_layout_signal_emit(layout, signal, "brisel");
}

void __brisel_detail_process_signals(Evas_Object *layout) {
  edje_object_message_signal_process(elm_layout_edje_get(layout));
}

brisel_detail_view *__brisel_detail_retrieve_view_data(appdata *ad) {
  view_data *found = brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, ad);
  if (!found) BRISEL_WARN("view_data for BRISEL_VIEW_TYPE_DETAIL_VIEW is NULL!");
  return (brisel_detail_view *)found;
}

page_data *__brisel_detail_find_page(const brisel_detail_view *view_data, int mail_id) {
  for (page_data *page : view_data->page_data)
    if (page && page->mail_data->mail_id == mail_id) return page;
  return nullptr;
}

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

void __brisel_detail_free_page_data(page_data *page) {
  if (!page) return;
  __brisel_detail_disarm_page(page);
  __brisel_detail_keep_place(page);
  __brisel_detail_free_text(page);
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

static scoped_text __brisel_detail_image_notice() {
  const char *text = brisel_util_get_text("IDS_EMAIL_BODY_IMAGES_ARE_NOT_SUPPORTED");
  scoped_text markup(g_strconcat(NOTICE_START, text, NOTICE_END, nullptr));
  return scoped_text(brisel_detail_tight_markup(text, markup.get()));
}

static scoped_text __brisel_detail_device_notice(const page_data *page) {
  const char *text = brisel_util_get_text(page->is_refused ? "IDS_EMAIL_BODY_MORE_WHEN_CONNECTED"
                                                           : "IDS_EMAIL_BODY_MORE_ON_MOBILE_DEVICE_ABB");
  scoped_text markup(g_strconcat(NOTICE_START "<valign=middle>", text, "</valign>" NOTICE_END, nullptr));
  return scoped_text(brisel_detail_tight_markup(text, markup.get()));
}

/* Puts a notice into the part, in place of the one that was there. */
static void __brisel_detail_place_notice(Evas_Object *layout, const char *part, const char *markup) {
  if (Evas_Object *old = elm_object_part_content_unset(layout, part)) evas_object_del(old);
  Evas_Object *label = elm_label_add(layout);
  elm_label_line_wrap_set(label, ELM_WRAP_MIXED);
  /* Nor does a circle have room for larger letters than those at scale 1. */
  if (brisel_stage_style()) elm_object_scale_set(label, 1.0 / std::max(elm_config_scale_get(), 1.0));
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

void __brisel_detail_set_device_notice(const brisel_detail_view *view_data, page_data *page) {
  if (view_data->ad->bt_connected == 1) page->is_refused = 0;
  Evas_Object *label = elm_object_part_content_get(page->detail_layout, part_device);
  if (!label) return;
  elm_object_text_set(label, __brisel_detail_device_notice(page).get());
  elm_object_part_content_set(page->detail_layout, part_device, label);
}

void __brisel_detail_set_attachment_text(brisel_detail_view *view_data, const page_data *page) {
  int count = page->mail_data->attachment_count;
  if (count <= 0) return;
  char text[128] = {};
  if (count == 1) {
    snprintf(text, sizeof(text), "%s", brisel_util_get_text("IDS_EMAIL_BODY_1_ATTACHMENT"));
  } else {
    scoped_text counted(brisel_util_get_count_text("IDS_EMAIL_BODY_PD_ATTACHMENTS", count, view_data->ad));
    snprintf(text, sizeof(text), "%s", counted ? counted.get() : "");
  }
  brisel_util_cut_utf8(text, sizeof(text) - 1);
  __brisel_detail_signal(page->detail_layout, "do-show-attachment-field");
  elm_object_part_text_set(page->detail_layout, "detail.attachment", text);
}

void __brisel_detail_update_datetime_string(brisel_detail_view *view_data, time_t time, Evas_Object *layout) {
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
  scoped_text both(brisel_util_join_date_time(date_text.get(), time_text.get(), ad->locale));
  elm_object_part_text_set(layout, "detail.time", both.get());
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
                                         const char *id, Evas_Smart_Cb clicked_cb, brisel_detail_view *view_data) {
  Evas_Object *button = __brisel_detail_create_button(layout, name, is_icon);
  if (!button) return;
  brisel_view_set_spoken_id(button, id);
  evas_object_smart_callback_add(button, "clicked", clicked_cb, view_data);
  elm_object_part_content_set(layout, part, button);
}

static int __brisel_detail_reply_status() {
  int status = 2;
  return brisel_util_get_reply_status(&status) == 0 && (status == 0 || status == 1) ? status : 2;
}

/* What is above the buttons is where it will be. */
static void __brisel_detail_make_room_for_buttons(page_data *page) {
  page->reply_status = __brisel_detail_reply_status();
  __brisel_detail_signal(page->detail_layout,
                         page->reply_status == 2 ? "do-single-button-field" : "do-dual-button-field");
}

static bool __brisel_detail_is_end_in_sight(const page_data *page) {
  Evas_Object *edje = elm_layout_edje_get(page->detail_layout);
  int top = 0;
  edje_object_calc_force(edje);
  return !edje_object_part_geometry_get(edje, part_lbutton, nullptr, &top, nullptr, nullptr) || top < page->height;
}

bool __brisel_detail_wants_buttons(const page_data *page) {
  return page->lacks_buttons && __brisel_detail_is_end_in_sight(page);
}

void __brisel_detail_draw_buttons(brisel_detail_view *view_data, page_data *page) {
  Evas_Object *layout = page->detail_layout;
  __brisel_detail_make_room_for_buttons(page);
  page->lacks_buttons = 0;
  const int status = page->reply_status;
  for (const char *part : {part_lbutton, part_rbutton})
    if (Evas_Object *old = elm_object_part_content_unset(layout, part)) evas_object_del(old);
  if (status != 2) {
    __brisel_detail_place_button(
        layout, part_lbutton, "b_email_icon_message_send.png", 1, "IDS_EMAIL_SK_REPLY",
        status == 0 ? __brisel_detail_reply_button_clicked_cb : __brisel_detail_reply_update_required_button_clicked_cb,
        view_data);
    __brisel_detail_place_button(layout, part_rbutton, "b_email_icon_showonphone.png", 1,
                                 "IDS_EMAIL_BUTTON2_SHOW_ON_DEVICE", __brisel_detail_show_on_device_button_clicked_cb,
                                 view_data);
    return;
  }
  __brisel_detail_place_button(layout, part_lbutton, brisel_util_get_text("IDS_EMAIL_BUTTON2_SHOW_ON_DEVICE"), 0,
                               "IDS_EMAIL_BUTTON2_SHOW_ON_DEVICE", __brisel_detail_show_on_device_button_clicked_cb,
                               view_data);
}

void __brisel_detail_draw_view_components(brisel_detail_view *view_data, page_data *page) {
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

  if (view_data->font_size == 0) __brisel_detail_signal(layout, "do-set-fontsize-small");
  if (view_data->font_size == 2) __brisel_detail_signal(layout, "do-set-fontsize-large");
  __brisel_detail_process_signals(layout);
  __brisel_detail_set_subject(page);

  __brisel_detail_draw_device_notice(page);

  brisel_detail_body_set_font_size(layout, view_data->font_size);
  __brisel_detail_show_body(page);
  __brisel_detail_go_to_place(page);

  __brisel_detail_set_attachment_text(view_data, page);
  __brisel_detail_name_page(page);
  /* Two buttons are a fifth of a page: those that are not seen without a scroll come to the page that is read. */
  page->lacks_buttons = !brisel_view_is_spoken() && !__brisel_detail_is_end_in_sight(page);
  if (page->lacks_buttons)
    __brisel_detail_make_room_for_buttons(page);
  else
    __brisel_detail_draw_buttons(view_data, page);
  __brisel_detail_process_signals(layout);
  /* Its text is on the way still, asked for before the page was built. */
  if (__brisel_detail_is_waiting(view_data, page)) __brisel_detail_show_waiting(view_data, page);
}

void __brisel_detail_draw_device_notice(page_data *page) {
  if (!__brisel_detail_has_notice(page) || elm_object_part_content_get(page->detail_layout, part_device)) return;
  __brisel_detail_signal(page->detail_layout, "do-show-device-field");
  __brisel_detail_place_notice(page->detail_layout, part_device, __brisel_detail_device_notice(page).get());
  __brisel_detail_process_signals(page->detail_layout);
}

Evas_Object *__brisel_detail_create_layout(Evas_Object *parent, const char *group) {
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

static Evas_Object *__brisel_detail_create_account_color_bar(Evas_Object *title, int account_id) {
  Evas_Object *bar = brisel_util_create_color_bar(title, account_id);
  if (!bar) BRISEL_ERROR("evas_object_rectangle_add() failed!");
  return bar;
}

/* The title area of a page, or NULL; what it holds goes with it. */
Evas_Object *__brisel_detail_create_layout_detail_view_title(brisel_detail_view *view_data, const page_data *page) {
  Evas_Object *title = elm_layout_add(page->page_layout);
  if (!title ||
      !elm_layout_theme_set(title, "naviframe", "item", brisel_stage_style() ? "round/default" : "basic/default")) {
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
  if (button) brisel_view_set_spoken_id(button, "IDS_EMAIL_BODY_MORE_ACTIONS");
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
Evas_Object *__brisel_detail_create_scroller(Evas_Object *parent) {
  Evas_Object *scroller = elm_scroller_add(parent);
  if (!scroller) {
    BRISEL_ERROR("elm_scroller_add() failed!");
    return nullptr;
  }
  elm_object_style_set(scroller, "effect");
  elm_scroller_single_direction_set(scroller, ELM_SCROLLER_SINGLE_DIRECTION_HARD);
  elm_object_focus_allow_set(scroller, EINA_FALSE);
  __brisel_detail_fill_both_ways(scroller);
  brisel_stage_reach(scroller);
  return scroller;
}

void __brisel_detail_update_page_string(brisel_detail_view *view_data, page_data *page) {
  if (brisel_view_is_spoken()) __brisel_detail_finish_rest(view_data, page);
  Evas_Object *layout = page->detail_layout; /* which the rest may have made anew */
  if (!layout) return;
  __brisel_detail_set_device_notice(view_data, page);
  if (Evas_Object *label = elm_object_part_content_get(layout, part_image)) {
    elm_object_text_set(label, __brisel_detail_image_notice().get());
    __brisel_detail_fit_image_field(layout);
    elm_object_part_content_set(layout, part_image, label);
  }
  __brisel_detail_set_attachment_text(view_data, page);
  __brisel_detail_set_subject(page);
  __brisel_detail_set_body(page);
  Evas_Object *button = elm_object_part_content_get(layout, part_lbutton);
  if (__brisel_detail_reply_status() != page->reply_status)
    __brisel_detail_draw_buttons(view_data, page);
  else if (page->reply_status == 2 && button)
    elm_object_text_set(button, brisel_util_get_text("IDS_EMAIL_BUTTON2_SHOW_ON_DEVICE"));
}

/* Whether a page has a field now that its layout was not made with, or had one that a layout cannot give back. */
static bool __brisel_detail_has_other_fields(const page_data *page, const full_noti_data *mail, int rest) {
  const full_noti_data *old = page->mail_data;
  const bool has_notice = rest == DETAIL_REST_NONE && !__brisel_detail_ends_with_tag(mail->body, tag_complete);
  return !old->has_image != !mail->has_image || (old->attachment_count > 0) != (mail->attachment_count > 0) ||
         (has_notice && !__brisel_detail_has_notice(page));
}

void __brisel_detail_renew_page(brisel_detail_view *view_data, page_data *page) {
  if (!page->has_mail) return;
  full_noti_data *old = page->mail_data;
  scoped_noti mail(brisel_full_noti_data_create());
  unsigned char rest = DETAIL_REST_NONE;
  if (!mail || __brisel_detail_read(view_data, page, mail.get(), &rest) != 0) return;
  /* A visit that found the mail unread stays one, and its time keeps its colour. */
  mail->is_read = old->is_read;
  mail->is_new = old->is_new;
  /* Text that was asked for is shown in its own time. */
  bool has_text = !__brisel_detail_is_waiting(view_data, page) &&
                  (g_strcmp0(mail->body, old->body) != 0 || rest != page->rest || !__brisel_detail_is_as_read(page));
  bool has_subject = g_strcmp0(mail->subject, old->subject) != 0;
  if (page->detail_layout && __brisel_detail_has_other_fields(page, mail.get(), rest)) {
    __brisel_detail_keep_place(page);
    __brisel_detail_drop_ring(view_data);
    brisel_widget_ref_drop(&page->detail_layout);
    page->is_built = 0; /* the next steps lay it out anew */
  }
  if (page->detail_layout && !has_text) std::swap(mail->body, old->body);
  page->rest = rest;
  page->mail_data = mail.release();
  brisel_full_noti_data_free(old);
  __brisel_detail_set_sender(view_data, page);
  if (!page->detail_layout) return __brisel_detail_free_text(page);
  if (has_subject) __brisel_detail_set_subject(page);
  __brisel_detail_update_datetime_string(view_data, page->mail_data->received_time, page->detail_layout);
  __brisel_detail_set_attachment_text(view_data, page);
  if (has_text) {
    __brisel_detail_set_body(page);
    __brisel_detail_signal(page->detail_layout,
                           __brisel_detail_has_notice(page) ? "do-show-device-field" : "do-hide-device-field");
    __brisel_detail_draw_device_notice(page);
  }
  __brisel_detail_name_page(page);
  __brisel_detail_process_signals(page->detail_layout);
  __brisel_detail_offer(view_data);
}
