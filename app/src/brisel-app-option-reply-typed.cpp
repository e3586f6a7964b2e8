/* Owns the typed reply: the entry, its send button, how they follow the keypad, and what is said above them. What the
   entry takes is limited in brisel-app-option-reply-limit.cpp; what it holds is kept in -draft.cpp. */
#include <string_view>

#include "brisel-app-option-reply.h"
#include "brisel-app-stage.h"
#include "brisel-app-touch.h"
#include "brisel-app-utils.h"
#include "brisel-scoped.h"
#include "efl_assist.h"
#include "keypad.h"

/* What the line above it, the entry and the button need, in pixels before scaling. */
static constexpr int BRISEL_TYPED_HEIGHT = 108;

/* How much room is left is told from here on. */
static constexpr int BRISEL_TYPED_REPLY_TOLD = 10; /* characters */

/* The entry has refused input; told to the user when the keypad has gone. At most one such view is shown. */
static bool max_length_reached;

static constexpr int BRISEL_ROUND_SEND_ICON = 38; /* pixels of the display */

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
  if (!icon) return nullptr;
  // A round display has a place for the button that no scale factor makes larger.
  const bool is_round = brisel_stage_style();
  const int w = is_round ? BRISEL_ROUND_SEND_ICON : brisel_view_scaled(state.w);
  const int h = is_round ? BRISEL_ROUND_SEND_ICON : brisel_view_scaled(state.h);
  evas_object_size_hint_min_set(icon, w, h);
  evas_object_size_hint_max_set(icon, w, h);
  evas_object_repeat_events_set(icon, EINA_TRUE);
  elm_object_content_set(btn, icon);
  return icon;
}

void __brisel_virtualkeypad_size_changed_cb(void *data, Evas_Object *obj, void *event_info) {
  option_reply_view_data *vd = (option_reply_view_data *)data;
  const Evas_Coord_Rectangle *rect = (Evas_Coord_Rectangle *)event_info;
  if (!rect) return;
  BRISEL_INFO("[x,y = %d,%d] - [w,h = %d,%d]", rect->x, rect->y, rect->w, rect->h);
  Evas_Object *btn =
      vd->emoticon_layout ? elm_object_part_content_get(vd->emoticon_layout, "swallow.send_btn") : nullptr;
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
  // The line above the text goes before the text does.
  int top = 0;
  evas_object_geometry_get(vd->ad->naviframe, nullptr, &top, nullptr, nullptr);
  // What a round display takes above the views it takes below them as well.
  const int left = vd->ad->root_h - 2 * top - rect->h;
  const bool low = rect->h != 0 && left < BRISEL_TYPED_HEIGHT * elm_config_scale_get();
  elm_layout_signal_emit(vd->emoticon_layout, low ? "hide,head" : "show,head", "brisel");
  // At once, or the layout keeps the size of the state that it leaves.
  edje_object_message_signal_process(elm_layout_edje_get(vd->emoticon_layout));
  elm_layout_sizing_eval(vd->emoticon_layout);
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
  // What waits for the phone anyway may go on waiting.
  if (!vd->request_id && !brisel_view_phone_ready(vd->ad)) return;
  if (!__brisel_option_reply_send_reply_message(vd, elm_entry_entry_get(vd->content_obj))) return;
  vd->text.clear();
  brisel_util_pop_view(vd->ad->naviframe);
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
  ea_object_event_callback_add(obj, EA_CALLBACK_BACK, __brisel_option_reply_entry_back_cb, nullptr);
}

static void __brisel_option_reply_entry_selection_cleared_cb(void *data, Evas_Object *obj, void *event_info) {
  if (!evas_object_data_get(obj, "ea_entry")) return;
  ea_object_event_callback_del(obj, EA_CALLBACK_BACK, __brisel_option_reply_entry_back_cb);
  evas_object_data_del(obj, "ea_entry");
}

/* --- the text --- */

/* An empty text has no direction of its own: its caret waits where the first letter of the language comes. */
static void __brisel_option_reply_direction_cb(void *data, Evas_Object *obj, void *event_info) {
  const bool at_right = elm_object_mirrored_get(obj) && !*elm_entry_entry_get(obj);
  if (at_right == (elm_entry_text_style_user_peek(obj) != nullptr)) return;
  const int cursor = elm_entry_cursor_pos_get(obj);
  if (at_right)
    elm_entry_text_style_user_push(obj, "DEFAULT='align=right'");
  else
    elm_entry_text_style_user_pop(obj);
  elm_entry_cursor_pos_set(obj, cursor);
}

static void __brisel_option_reply_show_left(option_reply_view_data *vd) {
  // A template that is changed may be longer.
  const int left = MAX(BRISEL_TYPED_REPLY_MAX - (int)g_utf8_strlen(vd->text.c_str(), -1), 0);
  const scoped_text number(left <= BRISEL_TYPED_REPLY_TOLD ? brisel_util_get_localized_number_str(left, vd->ad)
                                                           : nullptr);
  elm_object_part_text_set(vd->emoticon_layout, "elm.text.left", number ? number.get() : "");
}

static void __brisel_option_reply_show_to_cb(void *data, Evas_Object *obj, void *event_info) {
  const option_reply_view_data *vd = (const option_reply_view_data *)data;
  const scoped_text to(brisel_reply_to_markup(vd->mail));
  elm_object_part_text_set(obj, "elm.text.to", to.get());
  const scoped_text name(to ? elm_entry_markup_to_utf8(to.get()) : nullptr);
  if (!name) return;
  brisel_view_set_spoken_name(vd->content_obj, name.get());
  if (vd->navi_item) brisel_view_set_name(vd, name.get());
}

static void __brisel_option_reply_keep_cb(void *data) {
  option_reply_view_data *vd = (option_reply_view_data *)data;
  vd->keep_job = nullptr;
  // Not from inside an insertion, whose place in the text would be lost.
  if (vd->content_obj) __brisel_option_reply_direction_cb(nullptr, vd->content_obj, nullptr);
  if (vd->sent || vd->request_id) return;
  brisel_reply_draft_save(vd->mail, vd->text, false);
}

static void __brisel_option_reply_changed_cb(void *data, Evas_Object *obj, void *event_info) {
  option_reply_view_data *vd = (option_reply_view_data *)data;
  const scoped_text plain(elm_entry_markup_to_utf8(elm_entry_entry_get(obj)));
  if (!plain || vd->sent || vd->text == plain.get()) return;
  vd->text = plain.get();
  __brisel_option_reply_show_left(vd);
  if (!vd->keep_job) vd->keep_job = ecore_job_add(__brisel_option_reply_keep_cb, vd);
}

static void __brisel_option_reply_take_up_draft(option_reply_view_data *vd, Evas_Object *entry) {
  vd->text = brisel_reply_draft_load(vd->mail);
  if (vd->text.empty()) return;
  const scoped_text markup(elm_entry_utf8_to_markup(vd->text.c_str()));
  elm_entry_entry_set(entry, markup.get());
  elm_entry_cursor_end_set(entry);
}

/* The keypad comes when the view stands: while it slides in, nothing in it can have the focus. */
void __brisel_option_reply_stands_cb(void *data, Evas_Object *obj, void *event_info) {
  option_reply_view_data *vd = (option_reply_view_data *)data;
  evas_object_smart_callback_del_full(obj, "transition,finished", __brisel_option_reply_stands_cb, vd);
  if (!vd->content_obj || !brisel_view_on_top(vd)) return;
  elm_object_focus_set(vd->content_obj, EINA_TRUE);
  keypad_show();
}

/* --- the view --- */

/* text: markup; NULL: the mail's draft. */
static Evas_Object *__brisel_option_reply_create_entry(Evas_Object *parent, option_reply_view_data *vd,
                                                       const char *text) {
  Evas_Object *entry = elm_entry_add(parent);
  elm_entry_editable_set(entry, EINA_TRUE);
  elm_entry_single_line_set(entry, EINA_FALSE);
  elm_entry_scrollable_set(entry, EINA_TRUE);
  elm_entry_select_allow_set(entry, EINA_FALSE);
  elm_entry_context_menu_disabled_set(entry, EINA_TRUE);
  elm_entry_selection_handler_disabled_set(entry, EINA_TRUE);  // the toolkit's only cursor handlers
  evas_object_smart_callback_add(entry, "selection,start", __brisel_option_reply_entry_selection_start_cb, nullptr);
  evas_object_smart_callback_add(entry, "selection,cleared", __brisel_option_reply_entry_selection_cleared_cb, nullptr);
  if (text) {
    elm_entry_entry_set(entry, text);
    elm_entry_cursor_end_set(entry);
    const scoped_text plain(elm_entry_markup_to_utf8(text));
    vd->text = plain ? plain.get() : "";
  } else {
    __brisel_option_reply_take_up_draft(vd, entry);
  }
  __brisel_option_reply_direction_cb(nullptr, entry, nullptr);
  evas_object_smart_callback_add(entry, "language,changed", __brisel_option_reply_direction_cb, nullptr);
  brisel_reply_limit_entry(vd, entry);
  max_length_reached = false;
  evas_object_smart_callback_add(entry, "maxlength,reached", __brisel_emoticon_detail_maxlength_reached_cb, vd);
  evas_object_smart_callback_add(entry, "changed", __brisel_option_reply_changed_cb, vd);
  return entry;
}

/* --- by keyboard --- */

static void __brisel_option_reply_unfocused_cb(void *data, Evas_Object *obj, void *event_info) {
  elm_object_focus_allow_set(obj, EINA_FALSE);
}

/* Tab goes from the text to the button and back: a reply needs no tabs, and Return is a line's end in it. */
static void __brisel_option_reply_key_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  const option_reply_view_data *vd = (const option_reply_view_data *)data;
  Evas_Object *btn = elm_object_part_content_get(obj, "swallow.send_btn");
  const std::string_view key = ((const Evas_Event_Key_Down *)event_info)->key;
  if (!btn || !key.ends_with("Tab") || !brisel_view_on_top(vd)) return;
  const bool is_typing = elm_object_focus_get(vd->content_obj);
  if (is_typing) elm_object_focus_allow_set(btn, EINA_TRUE);
  elm_object_focus_set(is_typing ? btn : vd->content_obj, EINA_TRUE);
}

/* The more key does what a touch on the name does. */
static void __brisel_option_reply_more_cb(void *data, Evas_Object *obj, void *event_info) {
  elm_layout_signal_emit(obj, "turn,name", "brisel");
}

static void __brisel_option_reply_follow_keys(option_reply_view_data *vd, Evas_Object *btn) {
  ea_object_event_callback_add(vd->emoticon_layout, EA_CALLBACK_MORE, __brisel_option_reply_more_cb, nullptr);
  evas_object_smart_callback_add(btn, "unfocused", __brisel_option_reply_unfocused_cb, nullptr);
  evas_object_event_callback_add(vd->emoticon_layout, EVAS_CALLBACK_KEY_DOWN, __brisel_option_reply_key_cb, vd);
  for (const char *key : {"Tab", "ISO_Left_Tab"}) brisel_touch_hear_key(vd->emoticon_layout, key, EINA_TRUE);
}

static Evas_Object *__brisel_option_reply_create_send_button(Evas_Object *parent) {
  Evas_Object *btn = elm_button_add(parent);
  if (!btn) {
    BRISEL_ERROR("elm_button_add() failed!");
    return nullptr;
  }
  evas_object_size_hint_weight_set(btn, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_size_hint_align_set(btn, EVAS_HINT_FILL, EVAS_HINT_FILL);
  if (!__brisel_option_reply_create_send_icon(btn, keypad_hidden)) {
    BRISEL_ERROR("elm_image_add() failed!");
    evas_object_del(btn);
    return nullptr;
  }
  brisel_stage_set_style(btn, nullptr);
  // Or the limit, which takes the focus from the entry, would hand it to the button, and the next blank would send.
  // Tab alone brings it there.
  elm_object_focus_allow_set(btn, EINA_FALSE);
  brisel_view_set_spoken_id(btn, "IDS_COM_SK_SEND");
  evas_object_show(btn);
  return btn;
}

/* Builds the view of a record that brisel_reply_begin made. Its result. */
static int __brisel_option_reply_draw_typed(option_reply_view_data *vd, const char *text) {
  appdata *ad = vd->ad;
  Evas_Object *emoticon_layout = brisel_util_load_edj(
      vd->layout, BRISEL_EDJ, brisel_stage_style() ? "brisel/emoticon_view/round" : "brisel/emoticon_view");
  if (!emoticon_layout) {
    BRISEL_ERROR("__brisel_option_reply_create_layout() failed!");
    return brisel_reply_give_up(vd, -3);
  }
  brisel_widget_ref_set(&vd->emoticon_layout, emoticon_layout);
  evas_object_size_hint_align_set(emoticon_layout, EVAS_HINT_FILL, EVAS_HINT_FILL);

  Evas_Object *entry = __brisel_option_reply_create_entry(emoticon_layout, vd, text);
  brisel_widget_ref_set(&vd->content_obj, entry);
  Evas_Object *btn = __brisel_option_reply_create_send_button(emoticon_layout);
  if (!btn) return brisel_reply_give_up(vd, -3);
  elm_object_part_content_set(emoticon_layout, "swallow.entry", entry);
  elm_object_part_content_set(emoticon_layout, "swallow.send_btn", btn);
  elm_object_part_content_set(vd->layout, "elm.swallow.content", emoticon_layout);
  elm_layout_signal_emit(emoticon_layout, keypad_hidden.signal, "");
  __brisel_option_reply_show_to_cb(vd, emoticon_layout, nullptr);
  evas_object_smart_callback_add(emoticon_layout, "language,changed", __brisel_option_reply_show_to_cb, vd);
  __brisel_option_reply_show_left(vd);
  evas_object_smart_callback_add(btn, "clicked", __brisel_optioin_send_button_clicked_cb, vd);
  __brisel_option_reply_follow_keys(vd, btn);

  Elm_Object_Item *item = brisel_view_push(ad, vd->layout, nullptr, nullptr, __brisel_option_reply_view_pop_cb, vd);
  elm_naviframe_item_title_enabled_set(item, EINA_FALSE, EINA_FALSE);
  __brisel_option_reply_show_to_cb(vd, emoticon_layout, nullptr); /* as the view's name, now that there is one */
  evas_object_smart_callback_add(ad->conform, "virtualkeypad,size,changed", __brisel_virtualkeypad_size_changed_cb, vd);
  vd->typed = true;
  evas_object_smart_callback_add(ad->naviframe, "transition,finished", __brisel_option_reply_stands_cb, vd);
  BRISEL_INFO("Leave");
  return 0;
}

int brisel_option_reply_emoticons_draw_view(int mail_id, appdata *ad, full_noti_data *noti_data) {
  BRISEL_INFO("Enter");
  option_reply_view_data *vd = nullptr;
  const int ret = brisel_reply_begin(mail_id, ad, noti_data, &vd);
  return ret != 0 ? ret : __brisel_option_reply_draw_typed(vd, nullptr);
}

int brisel_option_reply_change_draw_view(const brisel_request_data *request, appdata *ad) {
  BRISEL_INFO("Enter");
  // The mail may be gone: all that the view shows of it is to whom the reply goes.
  const scoped_noti mail(brisel_full_noti_data_create());
  if (!mail) return -3;
  mail->from_name = g_strdup(request->person);
  mail->subject = g_strdup(request->subject);
  option_reply_view_data *vd = nullptr;
  const int ret = brisel_reply_begin(request->mail_id, ad, mail.get(), &vd);
  if (ret != 0) return ret;
  vd->request_id = request->request_id;
  return __brisel_option_reply_draw_typed(vd, request->text ? request->text : "");
}
