/* The popup kit: popups, toasts and the progress bar. Every screen makes its popups here. */
#define EFL_BETA_API_SUPPORT /* for the names that a screen reader says */
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>

#include "app_efl.h"
#include "brisel-app-spoken.h"
#include "brisel-app-stage.h"
#include "brisel-app-touch.h"
#include "brisel-app-utils.h"
#include "brisel-scoped.h"
#include "efl_assist.h"

/* A popup that is shown asks for the focus. The toolkit goes on waiting to give it to what never takes any or has gone
   before, and tells of a fault then. */
static void _waiting_for_focus_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  static constexpr char waits_for_focus[] = "__delayed_focus_set";
  Evas_Object *window = elm_object_top_widget_get(obj);
  Evas_Object *at = (Evas_Object *)efl_key_data_get(window, waits_for_focus);
  while (at && at != obj) at = elm_object_parent_widget_get(at);
  if (at) efl_key_data_set(window, waits_for_focus, nullptr);
}

static Evas_Object *_popup_add(Evas_Object *parent) {
  Evas_Object *popup = elm_popup_add(parent);
  if (!popup) return nullptr;
  brisel_stage_set_style(popup, nullptr);
  evas_object_size_hint_weight_set(popup, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  brisel_touch_guard(popup);
  evas_object_event_callback_add(popup, EVAS_CALLBACK_DEL, _waiting_for_focus_gone_cb, nullptr);
  return popup;
}

/* Pixels at scale 1. */
constexpr int least_high_for_title = 240;
static const char title_job[] = "brisel/title_job";

/* The toolkit's own word for a popup stands before its title, and in its language. */
static void _name_popup(Evas_Object *popup) {
  const char *title = elm_config_atspi_mode_get() ? elm_object_part_text_get(popup, "title,text") : nullptr;
  const scoped_text plain(title ? elm_entry_markup_to_utf8(title) : nullptr);
  if (plain && *plain) efl_access_object_i18n_name_set(popup, plain.get());
}

static constexpr char small_title[] = "brisel/small_title";

/* Whether there is a title, and it was not small before. */
static bool _make_title_small(Evas_Object *popup) {
  if (evas_object_data_get(popup, small_title)) return false;
  evas_object_data_set(popup, small_title, popup);
  elm_layout_signal_emit(popup, "elm,state,title,small", "elm");
  const char *title = elm_object_part_text_get(popup, "title,text");
  return title && *title;
}

/* Large letters on a small display: the question needs the room of the title. A round display has a place for it. */
static void _title_job_cb(void *data) {
  Evas_Object *popup = (Evas_Object *)data;
  int height = 0;
  evas_object_data_del(popup, title_job);
  _name_popup(popup);
  evas_object_geometry_get(popup, nullptr, nullptr, nullptr, &height);
  if (!brisel_stage_style() && height < least_high_for_title * elm_config_scale_get()) _make_title_small(popup);
}

static void _popup_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  brisel_touch_focus_went();
  if (void *job = evas_object_data_del(obj, title_job)) ecore_job_del((Ecore_Job *)job);
}

static constexpr char is_named[] = "brisel/named", whole_name[] = "brisel/whole_name";

static void _turn_name(Evas_Object *popup) {
  const bool is_whole = !evas_object_data_del(popup, whole_name);
  if (is_whole) evas_object_data_set(popup, whole_name, popup);
  elm_layout_signal_emit(popup, is_whole ? "elm,state,title,whole" : "elm,state,title,part", "elm");
}

/* The more key is not for what lies beneath: it shows the whole of a name in the title, as a touch on that does. */
static void _more_key_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  if (evas_object_data_get(obj, is_named)) _turn_name(obj);
}

/* --- by keyboard --- */

/* In screens. */
constexpr double a_key = 0.6, to_the_end = 1000;

/* screens: upwards below zero. Whether there was anything that way. */
static bool _scroll_by_key(Evas_Object *scroller, double screens) {
  int x = 0, y = 0, w = 0, h = 0, all = 0;
  elm_scroller_region_get(scroller, &x, &y, &w, &h);
  evas_object_geometry_get(elm_object_content_get(scroller), nullptr, nullptr, nullptr, &all);
  const int to = std::clamp(y + (int)(screens * h), 0, std::max(all - h, 0));
  if (to != y) elm_scroller_region_bring_in(scroller, x, to, w, h);
  return to != y;
}

/* The popup that has the focus, which may lie over the one that hears the keys. */
static Evas_Object *_popup_with_focus(const Evas_Object *popup) {
  Evas_Object *at = app_efl_focused(popup);
  while (at && elm_object_widget_type_get(at) != std::string_view("Elm_Popup")) at = elm_object_parent_widget_get(at);
  return at;
}

/* The toolkit asks what it is given, as the one that manages the focus: no popup does. */
static void _move_focus(const Evas_Object *popup, bool is_up) {
  elm_object_focus_next(elm_object_top_widget_get(popup), is_up ? ELM_FOCUS_UP : ELM_FOCUS_DOWN);
}

/* Up comes to a button in the content, in sight or not, and from there to the beginning of the text, with the focus
   back below; Down scrolls the text. Heard without the focus: with it, the toolkit has gone by then to what is in
   sight. */
static void _key_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  const Evas_Event_Key_Down *event = (const Evas_Event_Key_Down *)event_info;
  const bool is_up = std::string_view(event->key).ends_with("Up");
  Evas_Object *scroller = elm_object_content_get(obj), *button = (Evas_Object *)data, *top = _popup_with_focus(obj);
  Evas_Object *lower = brisel_stage_style() ? elm_object_part_content_get(obj, "button2") : nullptr;
  const bool is_in_content = button && elm_object_focus_get(button);
  if (top != obj || (is_up && lower && elm_object_focus_get(lower))) {
    if (top) _move_focus(top, is_up);
  } else if (is_up && button && !is_in_content) {
    elm_object_focus_set(button, EINA_TRUE);
    _scroll_by_key(scroller, to_the_end);
  } else if (is_up && is_in_content) {
    if (_scroll_by_key(scroller, -to_the_end))
      elm_object_focus_set(elm_object_part_content_get(obj, "button1"), EINA_TRUE);
  } else if (is_in_content || !_scroll_by_key(scroller, is_up ? -a_key : a_key)) {
    if (!brisel_touch_key_reveals(event->timestamp)) _move_focus(obj, is_up);
  }
}

static constexpr const char *scroll_keys[] = {"Up", "KP_Up", "Down", "KP_Down"};

/* Whoever still holds the popup would keep the keys from what is below it. */
static void _keys_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  for (const char *key : scroll_keys) brisel_touch_leave_key(obj, key);
}

void brisel_util_popup_scroll_by_keys(Evas_Object *popup, Evas_Object *button) {
  evas_object_event_callback_add(popup, EVAS_CALLBACK_KEY_DOWN, _key_cb, button);
  evas_object_event_callback_add(popup, EVAS_CALLBACK_DEL, _keys_gone_cb, nullptr);
  for (const char *key : scroll_keys) brisel_touch_hear_key(popup, key, EINA_TRUE);
}

/* --- the letters of two buttons --- */

/* The widths of its two buttons for which a popup's letters were made even. */
static constexpr char even_for[] = "brisel/even_for";

/* width: pixels at scale 1 for the text; 0: all there is. */
static void _set_room_for_text(const Evas_Object *button, int width) {
  Evas_Object *drawing = elm_layout_edje_get(button);
  Edje_Message_Int room = {width};
  edje_object_message_send(drawing, EDJE_MESSAGE_INT, 1, &room);
  edje_object_message_signal_process(drawing);
  edje_object_calc_force(drawing);
}

static const Evas_Object *_text_of(const Evas_Object *button) {
  return edje_object_part_object_get(elm_layout_edje_get(button), "elm.text");
}

/* A long text has smaller letters, and those of the other button would shout beside them: they are as small. */
static void _even_letters_cb(void *data, Evas *e, void *event_info) {
  Evas_Object *popup = (Evas_Object *)data;
  const Evas_Object *buttons[] = {elm_object_part_content_get(popup, "button1"),
                                  elm_object_part_content_get(popup, "button2")};
  if (!buttons[0] || !buttons[1]) return;
  int whole[2] = {}, size[2] = {}, width[2] = {};
  for (int i = 0; i < 2; i++) evas_object_geometry_get(buttons[i], nullptr, nullptr, &whole[i], nullptr);
  const intptr_t widths = (intptr_t)whole[0] * 0x10000 + whole[1];
  if ((intptr_t)evas_object_data_get(popup, even_for) == widths) return;
  evas_object_data_set(popup, even_for, (void *)widths);
  for (int i = 0; i < 2; i++) {
    const char *font = nullptr;
    _set_room_for_text(buttons[i], 0);
    evas_object_text_font_get(_text_of(buttons[i]), &font, &size[i]);
    evas_object_geometry_get(_text_of(buttons[i]), nullptr, nullptr, &width[i], nullptr);
  }
  const int larger = size[1] > size[0];
  if (size[0] == size[1]) return;
  const double room = (double)width[larger] * size[!larger] / size[larger] / elm_config_scale_get();
  _set_room_for_text(buttons[larger], (int)room + 1);
}

static void _buttons_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  evas_event_callback_del_full(e, EVAS_CALLBACK_RENDER_PRE, _even_letters_cb, obj);
}

/* --- all popups --- */

/* A popup that stands does not turn round with the writing: its buttons keep their old places. Its title is another, or
   somebody has come who listens. */
static void _language_cb(void *data, Evas_Object *obj, void *event_info) {
  const Evas_Object *button = elm_object_part_content_get(obj, "button1");
  const Evas_Object *area = button ? elm_object_parent_widget_get(button) : nullptr;
  if (area && area != obj) edje_object_mirrored_set(elm_layout_edje_get(area), elm_config_mirrored_get());
  evas_object_data_del(obj, even_for);
  _name_popup(obj);
}

Evas_Object *brisel_util_popup_add(Evas_Object *parent) {
  Evas_Object *popup = _popup_add(parent);
  if (!popup) return nullptr;
  ea_object_event_callback_add(popup, EA_CALLBACK_MORE, _more_key_cb, nullptr);
  /* When its caller has shown it. */
  evas_object_data_set(popup, title_job, ecore_job_add(_title_job_cb, popup));
  evas_object_event_callback_add(popup, EVAS_CALLBACK_DEL, _popup_gone_cb, nullptr);
  evas_object_smart_callback_add(popup, "language,changed", _language_cb, nullptr);
  evas_event_callback_add(evas_object_evas_get(popup), EVAS_CALLBACK_RENDER_PRE, _even_letters_cb, popup);
  evas_object_event_callback_add(popup, EVAS_CALLBACK_DEL, _buttons_gone_cb, nullptr);
  brisel_view_tell_popup(popup);
  return popup;
}

/* The title is what lies above the content. A drag that the scroller below has taken is no touch of it. */
static void _name_touched_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  const Evas_Event_Mouse_Up *event = (const Evas_Event_Mouse_Up *)event_info;
  int top = 0;
  evas_object_geometry_get(elm_object_content_get(obj), nullptr, &top, nullptr, nullptr);
  if (event->canvas.y >= top || (event->event_flags & EVAS_EVENT_FLAG_ON_HOLD)) return;
  _turn_name(obj);
}

void brisel_util_popup_set_name(Evas_Object *popup, const char *name) {
  evas_object_event_callback_del(popup, EVAS_CALLBACK_MOUSE_UP, _name_touched_cb);
  evas_object_event_callback_add(popup, EVAS_CALLBACK_MOUSE_UP, _name_touched_cb, nullptr);
  evas_object_data_set(popup, is_named, popup);
  elm_object_part_text_set(popup, "title,text", name);
  _name_popup(popup);
}

/* Popups live on the view stack; before the main screen is built there is only the window. */
static Evas_Object *_popup_parent(appdata *ad) {
  if (ad->naviframe) return ad->naviframe;
  BRISEL_INFO("popup is added win_main");
  return brisel_stage_get(ad->win_main);
}

static Evas_Object *_popup_button_add(Evas_Object *popup, const char *part, Evas_Smart_Cb cb, void *data) {
  Evas_Object *btn = elm_button_add(popup);
  brisel_stage_set_style(btn, "popup");
  elm_object_part_content_set(popup, part, btn);
  if (cb) evas_object_smart_callback_add(btn, "clicked", cb, data);
  evas_object_show(btn);
  return btn;
}

static Evas_Object *_popup_scroller_add(Evas_Object *popup) {
  Evas_Object *scroller = elm_scroller_add(popup);
  evas_object_size_hint_weight_set(scroller, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  elm_object_style_set(scroller, "effect");
  elm_object_content_set(popup, scroller);
  brisel_stage_reach(scroller);
  evas_object_show(scroller);
  brisel_util_popup_scroll_by_keys(popup, nullptr);
  return scroller;
}

/* What a popup asks stands at the end of its text: smaller letters before it has to be scrolled to. Below the least of
   them it scrolls. */
static constexpr const char *label_styles[] = {"popup/default", "popup/smaller", "popup/small", "popup/tiny",
                                               "popup/smallest"};
/* Before this one the title gives room, too. */
constexpr size_t with_small_title = 2;
/* The same on a round display, where the title is rather small from the start. */
constexpr size_t round_with_small_title = 4;

static void _set_label_style(Evas_Object *label, const char *style) {
  elm_object_style_set(label, style);
  /* The label measures its lines anew only when told to wrap anew. */
  elm_label_line_wrap_set(label, ELM_WRAP_NONE);
  elm_label_line_wrap_set(label, ELM_WRAP_MIXED);
}

/* Whether the title of the label's popup gives room now; only once. */
static bool _shrink_title(Evas_Object *label) {
  for (Evas_Object *at = label; at; at = elm_object_parent_widget_get(at))
    if (std::string_view(elm_object_widget_type_get(at)) == "Elm_Popup") return _make_title_small(at);
  return false;
}

/* Whether the text fits the room that the settled layout gives it, or there is no layout yet. */
static bool _fits(Evas_Object *label, Evas_Object *scroller) {
  int needed = 0, room = 0;
  evas_smart_objects_calculate(evas_object_evas_get(label));
  evas_object_geometry_get(label, nullptr, nullptr, nullptr, &needed);
  elm_scroller_region_get(scroller, nullptr, nullptr, nullptr, &room);
  return room <= 1 || needed <= room;
}

static constexpr char changed[] = "brisel/size_changed";

static void _label_resized_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  evas_object_data_set(obj, changed, obj);
}

static void _room_changed_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  Evas_Object *label = elm_object_content_get(obj);
  if (label) evas_object_data_set(label, changed, label);
}

/* Only before a picture is drawn: the sizes on the way there say nothing of the last ones. */
static void _fit_cb(void *data, Evas *e, void *event_info) {
  Evas_Object *label = (Evas_Object *)data, *scroller = elm_object_parent_widget_get(label);
  if (!evas_object_data_del(label, changed)) return;
  const std::string_view style = elm_object_style_get(label);
  size_t at = 0;
  while (at + 1 < std::size(label_styles) && style != label_styles[at]) at++;
  while (!_fits(label, scroller) && ++at < std::size(label_styles)) {
    /* With the room that the title leaves it may fit: the scroller's new size brings it here again. */
    if (at == (brisel_stage_style() ? round_with_small_title : with_small_title) && _shrink_title(label)) break;
    _set_label_style(label, label_styles[at]);
  }
  evas_object_data_del(label, changed); /* its own doing */
}

static void _label_deleted_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  evas_event_callback_del_full(e, EVAS_CALLBACK_RENDER_PRE, _fit_cb, obj);
}

static Evas_Object *_popup_label_add(Evas_Object *scroller) {
  Evas_Object *label = elm_label_add(scroller);
  elm_object_style_set(label, label_styles[0]);
  elm_label_line_wrap_set(label, ELM_WRAP_MIXED);
  evas_object_size_hint_weight_set(label, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_size_hint_align_set(label, EVAS_HINT_FILL, EVAS_HINT_FILL);
  elm_object_content_set(scroller, label);
  evas_object_event_callback_add(label, EVAS_CALLBACK_RESIZE, _label_resized_cb, nullptr);
  evas_object_event_callback_add(scroller, EVAS_CALLBACK_RESIZE, _room_changed_cb, nullptr);
  evas_event_callback_add(evas_object_evas_get(label), EVAS_CALLBACK_RENDER_PRE, _fit_cb, label);
  evas_object_event_callback_add(label, EVAS_CALLBACK_DEL, _label_deleted_cb, nullptr);
  evas_object_show(label);
  return label;
}

Evas_Object *brisel_util_popup_create_with_empty_contents(void *data, Evas_Object *parent, void *reserved,
                                                          const char *style, Evas_Smart_Cb response_cb, double timeout,
                                                          Evas_Smart_Cb timeout_cb, const char *btn1_text,
                                                          const char *btn2_text) {
  BRISEL_INFO("Enter");
  Evas_Object *popup = brisel_util_popup_add(parent);
  if (style) elm_object_style_set(popup, style);

  if (btn1_text || btn2_text) elm_object_text_set(_popup_button_add(popup, "button1", response_cb, data), btn1_text);
  if (btn2_text) elm_object_text_set(_popup_button_add(popup, "button2", response_cb, data), btn2_text);

  if (timeout > 0.0) {
    elm_popup_timeout_set(popup, timeout);
    if (timeout_cb) evas_object_smart_callback_add(popup, "timeout", timeout_cb, data);
  }
  if (response_cb) ea_object_event_callback_add(popup, EA_CALLBACK_BACK, response_cb, data);

  evas_object_show(popup);
  BRISEL_INFO("Leave");
  return popup;
}

Evas_Object *brisel_util_popup_create(void *data, Evas_Object *parent, void *reserved, const char *text,
                                      Evas_Smart_Cb response_cb, double timeout, Evas_Smart_Cb timeout_cb,
                                      const char *btn1_text, const char *btn2_text) {
  BRISEL_INFO("Enter");
  Evas_Object *popup = brisel_util_popup_create_with_empty_contents(data, parent, reserved, nullptr, response_cb,
                                                                    timeout, timeout_cb, btn1_text, btn2_text);
  if (text) elm_object_text_set(popup, text);
  BRISEL_INFO("Leave");
  return popup;
}

Evas_Object *brisel_util_scroll_popup_create(void *data, Evas_Object *parent, void *reserved, const char *text,
                                             Evas_Smart_Cb response_cb, double timeout, Evas_Smart_Cb timeout_cb,
                                             const char *btn1_text, const char *btn2_text) {
  BRISEL_INFO("Enter");
  Evas_Object *popup = brisel_util_popup_create_with_empty_contents(data, parent, reserved, nullptr, response_cb,
                                                                    timeout, timeout_cb, btn1_text, btn2_text);
  if (text) {
    Evas_Object *scroller = _popup_scroller_add(popup);
    elm_scroller_bounce_set(scroller, EINA_FALSE, EINA_TRUE);
    elm_object_focus_allow_set(scroller, EINA_FALSE);
    elm_scroller_policy_set(scroller, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
    elm_object_text_set(_popup_label_add(scroller), text);
  }
  BRISEL_INFO("Leave");
  return popup;
}

Evas_Object *brisel_util_create_basic_2button_popup_with_app_data(appdata *ad, const char *title, const char *content,
                                                                  Evas_Smart_Cb back_cb, Evas_Smart_Cb btn1_cb,
                                                                  const char *btn1_text, Evas_Smart_Cb btn2_cb,
                                                                  const char *btn2_text) {
  BRISEL_INFO("Enter");
  const char *missing = nullptr;
  if (!content)
    missing = "content is NULL";
  else if (!back_cb)
    missing = "_response_cb is NULL";
  else if (!btn1_cb || !btn1_text)
    missing = "btn1_response_cb or btn1_text is NULL";
  else if (!btn2_cb || !btn2_text)
    missing = "btn2_response_cb or btn2_text is NULL";
  if (missing) {
    BRISEL_INFO("%s", missing);
    return nullptr;
  }

  Evas_Object *popup = brisel_util_popup_add(_popup_parent(ad));
  ea_object_event_callback_add(popup, EA_CALLBACK_BACK, back_cb, ad);
  Evas_Object *label = _popup_label_add(_popup_scroller_add(popup));
  if (title) elm_object_domain_translatable_part_text_set(popup, "title,text", BRISEL_DOMAIN, title);
  elm_object_domain_translatable_text_set(label, BRISEL_DOMAIN, content);

  Evas_Object *btn1 = _popup_button_add(popup, "button1", btn1_cb, ad);
  elm_object_domain_translatable_text_set(btn1, BRISEL_DOMAIN, btn1_text);
  elm_object_focus_set(btn1, EINA_TRUE);
  Evas_Object *btn2 = _popup_button_add(popup, "button2", btn2_cb, ad);
  elm_object_domain_translatable_text_set(btn2, BRISEL_DOMAIN, btn2_text);

  evas_object_show(popup);
  return popup;
}

void brisel_util_drop_popup(Evas_Object **popup) {
  if (*popup) evas_object_del(*popup);
  *popup = nullptr;
}

static void __toast_back_cb(void *data, Evas_Object *obj, void *event_info) {
  evas_object_del(obj);
}

static void __block_clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  evas_object_del(obj);
}

static void __timeout_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  evas_object_del(obj);
}

/* What was signalled counts from the first picture on. The toolkit keeps the layout that the signal is for to itself.
 */
static void _process_signals(Evas_Object *obj) {
  const char *type = evas_object_type_get(obj);
  if (type && !strcmp(type, "edje")) edje_object_message_signal_process(obj);
  /* A plain shape has no members and complains when asked for them. */
  if (!efl_isa(obj, EFL_CANVAS_GROUP_CLASS)) return;
  Eina_List *members = evas_object_smart_members_get(obj);
  for (void *member = nullptr; (member = eina_list_data_get(members));
       members = eina_list_remove_list(members, members))
    _process_signals((Evas_Object *)member);
}

void brisel_create_toast_popup(appdata *ad, const char *text) {
  BRISEL_INFO("Enter");
  if (!ad) {
    BRISEL_ERROR("ad is NULL!");
    return;
  }
  Evas_Object *popup = _popup_add(_popup_parent(ad));
  elm_object_style_set(popup, "toast");
  if (brisel_stage_style()) {
    elm_layout_signal_emit(popup, "elm,state,round", "elm");
    _process_signals(popup);
  }
  /* It goes by itself: keys stay with what they were at. */
  elm_object_focus_allow_set(popup, EINA_FALSE);
  elm_object_tree_focus_allow_set(popup, EINA_FALSE);
  /* Away from the finger, and so from the button that it is about. */
  elm_popup_orient_set(popup, brisel_touch_was_low() ? ELM_POPUP_ORIENT_TOP : ELM_POPUP_ORIENT_BOTTOM);
  ea_object_event_callback_add(popup, EA_CALLBACK_BACK, __toast_back_cb, nullptr);
  /* The tag's letters grow less than others with the scale factor. */
  if (text) elm_object_part_text_set(popup, "elm.text", (std::string("<toast>") + text + "</toast>").c_str());
  evas_object_smart_callback_add(popup, "block,clicked", __block_clicked_cb, nullptr);
  elm_popup_timeout_set(popup, 2.0);
  evas_object_smart_callback_add(popup, "timeout", __timeout_cb, nullptr);
  evas_object_show(popup);
  const scoped_text plain(text ? elm_entry_markup_to_utf8(text) : nullptr);
  brisel_view_set_spoken_name(popup, plain.get());
  brisel_view_announce(popup);
}

Evas_Object *brisel_create_progress_popup(appdata *ad, const char *style) {
  BRISEL_INFO("Enter");
  if (!ad) {
    BRISEL_ERROR("ad is NULL!");
    return nullptr;
  }
  Evas_Object *bar = elm_progressbar_add(ad->win_main);
  elm_object_style_set(bar, style);
  evas_object_size_hint_align_set(bar, EVAS_HINT_FILL, EVAS_HINT_FILL);
  evas_object_size_hint_weight_set(bar, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  elm_progressbar_pulse_set(bar, EINA_TRUE); /* without it the next call does nothing */
  elm_progressbar_pulse(bar, EINA_TRUE);
  evas_object_show(bar);
  return bar;
}
