/* "Waiting and sent": a row for each reply, deletion and mark, what became of it, and what can still be done about a
   reply that waits or was refused. Owns its list, the popup of a touched row, and what the user asks there. */
#include "brisel-app-journal.h"

#include <cstring>
#include <string>

#include "brisel-app-option-common.h"
#include "brisel-app-option-reply.h"
#include "brisel-app-stage.h"
#include "brisel-app-touch.h"
#include "brisel-app-utils.h"
#include "brisel-bus.h"

static constexpr int BRISEL_JOURNAL_ICON = 38;  /* pixels at scale 1 */
static constexpr int BRISEL_JOURNAL_TOUCH = 48; /* pixels of a round display */

struct journal_view_data : brisel_view_head {
  Evas_Object *layout;
  Evas_Object *genlist;
  Evas_Object *nocontent_layout;
  Evas_Object *popup;
  Evas_Object *popup_label;              /* its text; goes with it */
  int popup_id;                          /* the request that the popup is about */
  bool popup_can_change, popup_can_send; /* what its buttons offer */
  GSList *requests;                      /* brisel_request_data, owned; the rows point to them */
};

using scoped_request_list = std::unique_ptr<GSList, brisel_release<brisel_request_data_list_free>>;

/* --- words --- */

static const char *_state_id(const brisel_request_data *request) {
  switch (request->state) {
    case BRISEL_REQUEST_STATE_WAITS:
      return "IDS_EMAIL_BODY_WAITS_FOR_THE_PHONE";
    case BRISEL_REQUEST_STATE_SENT:
      return "IDS_EMAIL_BODY_SENT";
    case BRISEL_REQUEST_STATE_REFUSED:
      return "IDS_EMAIL_BODY_REFUSED";
    default:
      return "IDS_EMAIL_BODY_WITH_THE_PHONE";
  }
}

static const char *_kind_id(const brisel_request_data *request) {
  switch (request->kind) {
    case BRISEL_REQUEST_KIND_DELETE:
      return "IDS_EMAIL_BODY_DELETED";
    case BRISEL_REQUEST_KIND_READ:
      return "IDS_EMAIL_BODY_MARKED_AS_READ";
    default:
      return "IDS_EMAIL_BODY_REPLY_NOUN";
  }
}

/* Whom it is about, and how many mails more: "Ann +2". Markup. */
static std::string _who(const brisel_request_data *request, appdata *ad) {
  const char *name = request->person && *request->person ? request->person : request->subject;
  const scoped_text markup(brisel_util_text_to_markup(name ? name : ""));
  std::string who = markup ? markup.get() : "";
  if (request->mail_count < 2) return who;
  const scoped_text more(brisel_util_get_localized_number_str(request->mail_count - 1, ad));
  return who + " +" + (more ? more.get() : "");
}

/* "Refused · 10:15"; what waits says so alone. */
static std::string _state_line(const brisel_request_data *request, appdata *ad) {
  const std::string state = brisel_util_get_text(_state_id(request));
  if (request->state == BRISEL_REQUEST_STATE_WAITS) return state;
  const scoped_text time(brisel_util_get_mailbox_date_time_str(request->changed, ad));
  return state + " · " + (time ? time.get() : "");
}

/* What was asked for, as a picture: words of most languages leave no room beside the state. */
static const char *_kind_image(const brisel_request_data *request) {
  switch (request->kind) {
    case BRISEL_REQUEST_KIND_DELETE:
      return "b_email_history_delete_normal.png";
    case BRISEL_REQUEST_KIND_READ:
      return "b_email_icon_email.png";
    default:
      return "b_email_icon_message_s_send.png";
  }
}

/* Why it was refused or still waits, in the phone's words where there are no better ones. Markup; "": no reason. */
static std::string _reason(const brisel_request_data *request) {
  if (!request->reason || !*request->reason) return "";
  if (!strcmp(request->reason, outcome_no_address))
    return brisel_util_get_text("IDS_EMAIL_POP_THIS_EMAIL_HAS_NO_ADDRESS_TO_REPLY_TO");
  const scoped_text markup(brisel_util_text_to_markup(request->reason));
  return markup ? markup.get() : "";
}

static char *_gl_text_get(void *data, Evas_Object *obj, const char *part) {
  const brisel_request_data *request = (brisel_request_data *)data;
  appdata *ad = (appdata *)evas_object_data_get(obj, "appdata");
  if (!request || !ad) return nullptr;
  if (!strcmp(part, "elm.text.1")) return strdup(_who(request, ad).c_str());
  if (!strcmp(part, "elm.text.2")) return strdup(_state_line(request, ad).c_str());
  return nullptr;
}

static Evas_Object *_gl_content_get(void *data, Evas_Object *obj, const char *part) {
  if (strcmp(part, "elm.icon") != 0) return nullptr;
  Evas_Object *image = brisel_util_load_image(obj, _kind_image((brisel_request_data *)data));
  if (!image) return nullptr;
  const int size = brisel_view_scaled(BRISEL_JOURNAL_ICON);
  evas_object_size_hint_min_set(image, size, size);
  evas_object_size_hint_max_set(image, size, size);
  evas_object_pass_events_set(image, EINA_TRUE);
  return image;
}

/* --- what is asked --- */

static const brisel_request_data *_find_in(GSList *requests, int request_id) {
  for (GSList *cell = requests; cell; cell = cell->next) {
    const brisel_request_data *request = (brisel_request_data *)cell->data;
    if (request->request_id == request_id) return request;
  }
  return nullptr;
}

static const brisel_request_data *_find(const journal_view_data *vd, int request_id) {
  return _find_in(vd->requests, request_id);
}

/* Whom the answers are told: they know only the number of their request. */
static appdata *asker;

/* A reply that is still there and cannot be changed any more went out. What was not done of another has other reasons:
   it was dropped or sent again meanwhile, is damaged, or the service is too old to be asked. */
static void _answered_cb(void *response, int error, void *user_data) {
  if (!error) return;
  GSList *list = nullptr;
  if (brisel_db_get_all_request_data(&list) != 0) list = nullptr;
  const scoped_request_list requests(list);
  const brisel_request_data *request = _find_in(list, GPOINTER_TO_INT(user_data));
  const bool went_out = request && !request->can_change;
  brisel_create_toast_popup(asker,
                            brisel_util_get_text(went_out ? "IDS_EMAIL_TPOP_THE_PHONE_HAS_IT_ALREADY"
                                                          : "IDS_EMAIL_POP_THIS_COULD_NOT_BE_SAVED_ON_THE_ZOLT"));
}

static int _asked(int ret, appdata *ad) {
  if (ret == 0) return 0;
  BRISEL_WARN("the request was not taken: %d", ret);
  brisel_create_toast_popup(ad, brisel_util_get_text("IDS_EMAIL_POP_THIS_COULD_NOT_BE_SAVED_ON_THE_ZOLT"));
  return ret;
}

int brisel_journal_send_again(int request_id, const char *text, appdata *ad) {
  asker = ad;
  return _asked(brisel_ipc_req_repeat_request(request_id, text, _answered_cb, GINT_TO_POINTER(request_id)), ad);
}

static void _drop(int request_id, appdata *ad) {
  asker = ad;
  _asked(brisel_ipc_req_drop_request(request_id, _answered_cb, GINT_TO_POINTER(request_id)), ad);
}

/* Without an address no other text and no other try helps. */
static bool _can_send_again(const brisel_request_data *request) {
  return request->can_change && (!request->reason || strcmp(request->reason, outcome_no_address) != 0);
}

static void _popup_response_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  journal_view_data *vd = (journal_view_data *)data;
  const int id = vd->popup_id;
  const brisel_request_data *request = _find(vd, id);
  const bool drop = obj == elm_object_part_content_get(vd->popup, "button1");
  const bool again = obj == elm_object_part_content_get(vd->popup, "button2");
  const bool can_change = request && request->can_change;
  brisel_widget_ref_drop(&vd->popup);
  if (!can_change) return;
  if (again) brisel_journal_send_again(id, nullptr, vd->ad);
  if (drop) _drop(id, vd->ad);
}

static void _popup_change_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  journal_view_data *vd = (journal_view_data *)data;
  const brisel_request_data *request = _find(vd, vd->popup_id);
  brisel_widget_ref_drop(&vd->popup);
  if (request) brisel_option_reply_change_draw_view(request, vd->ad);
}

/* --- the popup of a row --- */

/* What was written, or of what is no reply the subject and what was done; then the state, and why. Markup. */
static std::string _popup_text(const brisel_request_data *request, appdata *ad) {
  /* A reply's text is markup already, as the typed view and the templates hand it over. */
  const bool is_reply = request->kind == BRISEL_REQUEST_KIND_REPLY;
  const scoped_text plain(is_reply && request->text ? elm_entry_markup_to_utf8(request->text) : nullptr);
  const char *words = is_reply ? plain.get() : request->subject;
  const scoped_text markup(brisel_util_text_to_markup_whole(words ? words : ""));
  std::string text = markup && *markup ? std::string("<b>") + markup.get() + "</b><br>" : "";
  if (!is_reply) text += std::string(brisel_util_get_text(_kind_id(request))) + "<br>";
  text += _state_line(request, ad);
  const std::string why = _reason(request);
  return why.empty() ? text : text + "<br>" + why;
}

static Evas_Object *_add_label(Evas_Object *box, const std::string &text) {
  Evas_Object *label = elm_label_add(box);
  elm_object_style_set(label, "popup/default");
  elm_label_line_wrap_set(label, ELM_WRAP_MIXED);
  evas_object_size_hint_align_set(label, EVAS_HINT_FILL, 0.0);
  evas_object_size_hint_weight_set(label, EVAS_HINT_EXPAND, 0.0);
  elm_object_text_set(label, text.c_str());
  elm_box_pack_end(box, label);
  evas_object_show(label);
  return label;
}

/* Three buttons stand side by side on no watch: the one for which there is a screen stands with the text. */
static Evas_Object *_add_change_button(Evas_Object *box, journal_view_data *vd) {
  Evas_Object *button = elm_button_add(box);
  brisel_stage_set_style(button, "popup");
  /* On a round display a button is as high as its place, and here is none that would say. */
  if (brisel_stage_style()) evas_object_size_hint_min_set(button, 0, BRISEL_JOURNAL_TOUCH);
  elm_object_domain_translatable_text_set(button, BRISEL_DOMAIN, "IDS_EMAIL_SK_CHANGE");
  evas_object_size_hint_align_set(button, EVAS_HINT_FILL, 0.5);
  evas_object_size_hint_weight_set(button, EVAS_HINT_EXPAND, 0.0);
  evas_object_smart_callback_add(button, "clicked", _popup_change_cb, vd);
  elm_box_pack_end(box, button);
  evas_object_show(button);
  return button;
}

static void _fill_popup(Evas_Object *popup, const brisel_request_data *request, journal_view_data *vd) {
  Evas_Object *scroller = elm_scroller_add(popup);
  elm_object_style_set(scroller, "effect");
  elm_scroller_policy_set(scroller, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
  Evas_Object *box = elm_box_add(scroller);
  elm_box_padding_set(box, 0, brisel_view_scaled(8));
  brisel_view_expand(box);
  vd->popup_label = _add_label(box, _popup_text(request, vd->ad));
  brisel_util_popup_scroll_by_keys(popup, vd->popup_can_send ? _add_change_button(box, vd) : nullptr);
  elm_object_content_set(scroller, box);
  elm_object_content_set(popup, scroller);
  brisel_stage_reach(scroller);
  evas_object_show(box);
  evas_object_show(scroller);
}

/* It says what is true now, in the words and digits of now; what its buttons offer may be over. */
static void _update_popup(journal_view_data *vd) {
  if (!vd->popup) return;
  const brisel_request_data *request = _find(vd, vd->popup_id);
  if (!request || (request->can_change != 0) != vd->popup_can_change || _can_send_again(request) != vd->popup_can_send)
    return brisel_widget_ref_drop(&vd->popup);
  brisel_util_popup_set_name(vd->popup, _who(request, vd->ad).c_str());
  elm_object_text_set(vd->popup_label, _popup_text(request, vd->ad).c_str());
}

static void _gl_sel_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  elm_genlist_item_selected_set((Elm_Object_Item *)event_info, EINA_FALSE);
  journal_view_data *vd = (journal_view_data *)data;
  const brisel_request_data *request = (brisel_request_data *)elm_object_item_data_get((Elm_Object_Item *)event_info);
  if (!request || !brisel_view_on_top(vd)) return;
  brisel_widget_ref_drop(&vd->popup);
  const bool can_change = vd->popup_can_change = request->can_change;
  const bool can_send = vd->popup_can_send = _can_send_again(request);
  Evas_Object *popup = brisel_util_popup_create_with_empty_contents(
      vd, vd->ad->naviframe, nullptr, nullptr, _popup_response_cb, 0.0, nullptr,
      brisel_util_get_text(can_change ? "IDS_EMAIL_SK_DROP" : "IDS_COM_SK_OK"),
      can_send ? brisel_util_get_text("IDS_EMAIL_SK_SEND_AGAIN") : nullptr);
  if (!popup) return;
  brisel_widget_ref_set(&vd->popup, popup);
  vd->popup_id = request->request_id;
  brisel_view_popup_translate(popup, "button1", can_change ? "IDS_EMAIL_SK_DROP" : "IDS_COM_SK_OK");
  if (can_send) brisel_view_popup_translate(popup, "button2", "IDS_EMAIL_SK_SEND_AGAIN");
  brisel_util_popup_set_name(popup, _who(request, vd->ad).c_str());
  _fill_popup(popup, request, vd);
}

/* --- the list --- */

/* The picture of what was asked for says nothing to who only listens. */
static void _name_row(Elm_Object_Item *item, const brisel_request_data *request, appdata *ad) {
  if (!item || !brisel_view_is_spoken()) return;
  const scoped_text who(elm_entry_markup_to_utf8(_who(request, ad).c_str()));
  const std::string name = std::string(brisel_util_get_text(_kind_id(request))) + ", " + (who ? who.get() : "") + ", " +
                           _state_line(request, ad);
  brisel_view_set_spoken_name((Eo *)item, name.c_str());
}

static void _realized_cb(void *data, Evas_Object *obj, void *event_info) {
  brisel_view_hide_last_bottomline(obj, (Elm_Object_Item *)event_info);
}

static int _id_of(Elm_Object_Item *row) {
  return ((const brisel_request_data *)elm_object_item_data_get(row))->request_id;
}

/* Rows that stay keep their places: the list does not move below whoever reads it. */
static void _fill_list(journal_view_data *vd, GSList *list) {
  static constexpr Elm_Genlist_Item_Class row_class =
      brisel_view_row_class("2text.picture", _gl_text_get, _gl_content_get);
  Elm_Object_Item *row = elm_genlist_first_item_get(vd->genlist);
  for (Elm_Object_Item *next = nullptr; row; row = next) {
    next = elm_genlist_item_next_get(row);
    if (!_find_in(list, _id_of(row))) brisel_view_delete_row(row);
  }
  row = elm_genlist_first_item_get(vd->genlist);
  for (GSList *cell = list; cell; cell = cell->next) {
    const brisel_request_data *request = (brisel_request_data *)cell->data;
    Elm_Object_Item *its_row = row;
    while (its_row && _id_of(its_row) != request->request_id) its_row = elm_genlist_item_next_get(its_row);
    if (its_row && its_row == row) {
      elm_object_item_data_set(row, cell->data);
      elm_genlist_item_fields_update(row, nullptr, ELM_GENLIST_ITEM_FIELD_TEXT);
      row = elm_genlist_item_next_get(row);
    } else {
      if (its_row) elm_object_item_del(its_row); /* it comes to stand further up */
      its_row = brisel_view_add_row(vd->genlist, row, &row_class, cell->data, _gl_sel_cb, vd);
    }
    elm_object_item_signal_emit(its_row, cell->next ? "elm,state,bottomline,show" : "elm,state,bottomline,hide", "");
    _name_row(its_row, request, vd->ad);
  }
}

static void _show_requests(journal_view_data *vd) {
  GSList *list = nullptr;
  const int ret = brisel_db_get_all_request_data(&list);
  if (ret != 0) {
    BRISEL_ERROR("brisel_db_get_all_request_data() failed! err:[%d]", ret);
    return; /* what is shown stays */
  }
  Elm_Object_Item *focused = elm_object_focused_item_get(vd->genlist);
  const int focused_id = focused ? _id_of(focused) : 0, focused_place = brisel_view_focused_place(vd->genlist);
  _fill_list(vd, list);
  brisel_request_data_list_free(vd->requests);
  vd->requests = list;
  const int place_now = g_slist_index(list, _find(vd, focused_id));
  brisel_view_refocus_row(vd->genlist, place_now < 0 ? focused_place : place_now);
  Evas_Object *content = list ? vd->genlist : vd->nocontent_layout;
  Evas_Object *shown = elm_object_part_content_get(vd->layout, "elm.swallow.content");
  if (shown != content) {
    if (shown) evas_object_hide(elm_object_part_content_unset(vd->layout, "elm.swallow.content"));
    for (Evas_Object *one : {vd->genlist, vd->nocontent_layout}) brisel_view_set_spoken(one, one == content);
    elm_object_part_content_set(vd->layout, "elm.swallow.content", content);
    evas_object_show(content);
    brisel_touch_focus_went();
  }
  _update_popup(vd);
}

/* --- the view --- */

static Eina_Bool _pop_cb(void *data, Elm_Object_Item *item) {
  BRISEL_INFO("Enter");
  journal_view_data *vd = (journal_view_data *)data;
  brisel_widget_ref_drop(&vd->popup);
  brisel_widget_ref_drop(&vd->nocontent_layout);
  GSList *requests = vd->requests;
  if (vd->genlist) elm_genlist_clear(vd->genlist);
  brisel_option_free_with_list(vd, &vd->layout, &vd->genlist);
  brisel_request_data_list_free(requests);
  return EINA_TRUE;
}

static Evas_Object *_create_nocontent_layout(Evas_Object *parent) {
  Evas_Object *layout = elm_layout_add(parent);
  if (!layout) return nullptr;
  elm_layout_theme_set(layout, "layout", "nocontents", "text");
  elm_object_domain_translatable_part_text_set(layout, "elm.text", BRISEL_DOMAIN, "IDS_EMAIL_BODY_NOTHING_WAITS");
  return layout;
}

int brisel_journal_draw_view(appdata *ad) {
  BRISEL_INFO("Enter");
  if (!ad) return -1;
  if (brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_JOURNAL_VIEW, ad)) return 0;
  journal_view_data *vd;
  if (!brisel_view_new_record(ad, BRISEL_VIEW_TYPE_JOURNAL_VIEW, &vd)) return -3;
  Evas_Object *layout = brisel_option_create_layout(ad->naviframe);
  brisel_widget_ref_set(&vd->layout, layout);
  if (layout && brisel_option_create_bg(layout, ad->win_main)) {
    brisel_widget_ref_set(&vd->genlist, brisel_view_new_list(layout, _realized_cb));
    brisel_widget_ref_set(&vd->nocontent_layout, _create_nocontent_layout(layout));
  }
  if (!vd->genlist || !vd->nocontent_layout) {
    BRISEL_ERROR("the journal cannot be shown");
    _pop_cb(vd, nullptr);
    if (layout) evas_object_del(layout);
    return -3;
  }
  evas_object_data_set(vd->genlist, "appdata", ad);
  _show_requests(vd);
  /* In words already: what is pushed is what is spoken. */
  Elm_Object_Item *item =
      brisel_view_push(ad, layout, brisel_util_get_text("IDS_EMAIL_HEADER_WAITING_AND_SENT"), nullptr, _pop_cb, vd);
  elm_object_item_domain_translatable_text_set(item, BRISEL_DOMAIN, "IDS_EMAIL_HEADER_WAITING_AND_SENT");
  BRISEL_INFO("Leave");
  return 0;
}

/* Whether one of the requests is a reply that was refused: the latest news of it. */
static bool _is_one_refused(GSList *ids) {
  GSList *list = nullptr;
  if (brisel_db_get_all_request_data(&list) != 0) return false;
  const scoped_request_list requests(list);
  for (; list; list = list->next) {
    const brisel_request_data *request = (brisel_request_data *)list->data;
    if (request->state == BRISEL_REQUEST_STATE_REFUSED && g_slist_find(ids, GINT_TO_POINTER(request->request_id)))
      return true;
  }
  return false;
}

void brisel_journal_update(GSList *ids, appdata *ad) {
  BRISEL_INFO("Enter");
  if (!ad->naviframe) return;
  journal_view_data *vd = (journal_view_data *)brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_JOURNAL_VIEW, ad);
  if (vd) _show_requests(vd);
  if ((!vd || !brisel_view_on_top(vd)) && _is_one_refused(ids))
    brisel_create_toast_popup(ad, brisel_util_get_text("IDS_EMAIL_TPOP_A_REPLY_WAS_REFUSED"));
}
