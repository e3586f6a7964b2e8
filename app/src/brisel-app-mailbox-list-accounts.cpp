/* Which account the list shows: the step by a tap on the header, and the popup of a long press. Called by the header's
   touches, and by the core when accounts change under an open popup. */
#include "brisel-app-mailbox-list.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "brisel-app-stage.h"
#include "brisel-app-touch.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "efl_assist.h"

/* A row of the account selection popup; owned by its genlist item. */
struct popup_item_data {
  int index;      /* state value of the row's radio: 0 combined, then the accounts in the store's order */
  int account_id; /* 0: the combined row */
  char *address;  /* owned */
  char *name;     /* owned; NULL for the combined row */
  Elm_Object_Item *it;
  appdata *ad;
};

/* --- the header --- */

/* Whether the header has no room for the account's name. What a row is drawn with cannot be asked for: a drawing of its
   own of the same theme, size and texts is looked at. */
static bool _is_header_cut(const group_item_data *group) {
  const Elm_Genlist_Item_Class *itc = group->ad->itc_group;
  Evas_Object *gl = group->ad->mailbox_genlist, *place = elm_object_item_track(group->it);
  if (!place) return false;
  int width = 0, height = 0;
  evas_object_geometry_get(place, nullptr, nullptr, &width, &height);
  elm_object_item_untrack(group->it);
  Evas_Object *drawing = elm_layout_add(gl);
  elm_layout_theme_set(drawing, "genlist/item", itc->item_style, "default");
  evas_object_resize(drawing, width, height);
  for (const char *part : {"elm.text.1", "elm.text.2"}) {
    const scoped_text text(itc->func.text_get((void *)group, gl, part));
    elm_layout_text_set(drawing, part, text.get());
  }
  Evas_Object *part = (Evas_Object *)edje_object_part_object_get(elm_layout_edje_get(drawing), "elm.text.1");
  const bool is_cut = part && brisel_view_is_cut(part);
  evas_object_del(drawing);
  return is_cut;
}

/* With several accounts the popup shows each of them whole; here the toast does. */
static void _create_one_account_toast_popup(const group_item_data *group) {
  BRISEL_INFO("Enter");
  appdata *ad = group->ad;
  std::string text = brisel_util_get_text("IDS_EMAIL_TPOP_ONLY_ONE_EMAIL_ACCOUNT_REGISTERED");
  if (group->account_id != 0 && _is_header_cut(group)) {
    const scoped_text name(brisel_util_text_to_markup(group->title));
    if (name) text = std::string(name.get()) + "<br>" + text;
  }
  brisel_create_toast_popup(ad, text.c_str());
}

/* The next account after account_id in the store's order; the combined view comes after the last one. */
static void _step_account(appdata *ad, GSList *accounts) {
  int first_id = ((account_data *)accounts->data)->account_id;
  if (ad->account_id == 0) {
    BRISEL_INFO("account id is changed (0 -> %d)", first_id);
    ad->account_id = first_id;
    return;
  }
  for (GSList *cell = accounts; cell; cell = cell->next) {
    if (!cell->data || ((account_data *)cell->data)->account_id != ad->account_id) continue;
    if (cell->next && cell->next->data) {
      int next_id = ((account_data *)cell->next->data)->account_id;
      BRISEL_INFO("account id is changed (%d -> %d)", ad->account_id, next_id);
      ad->account_id = next_id;
    } else {
      BRISEL_INFO("account id is changed (%d -> 0)", ad->account_id);
      ad->account_id = 0;
    }
    return;
  }
  BRISEL_WARN("account info mismatch account id is changed (%d -> %d) ", ad->account_id, first_id);
  ad->account_id = first_id;
}

void _gl_group_sel(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  Elm_Object_Item *it = _take_selection(event_info);
  if (!it) return;
  group_item_data *group = (group_item_data *)data;
  appdata *ad = _ad_of(group, "group_item_data");
  if (!ad) return;
  if (_is_blocked_once(ad, it)) return;
  if (ad->account_cnt < 2) {
    BRISEL_INFO("one account is registered only. Ignore the account toggle action");
    _create_one_account_toast_popup(group);
    return;
  }
  if (brisel_touch_was_long()) {
    brisel_create_account_selection_popup(ad);
    return;
  }
  scoped_account_list accounts = _read_accounts();
  if (!accounts) return;
  _step_account(ad, accounts.get());
  _refresh_mailbox_list(ad);
}

void _long_pressed_group(group_item_data *group, Elm_Object_Item *it) {
  appdata *ad = group->ad;
  if (!ad) return;
  if (_is_blocked_once(ad, it)) return;
  if (ad->account_cnt < 2) {
    BRISEL_INFO("one account is registered only. Ignore account long-press action action");
    _create_one_account_toast_popup(group);
    return;
  }
  brisel_create_account_selection_popup(ad);
}

/* --- the popup --- */

static char *_gl_popup_text_get(void *data, Evas_Object *obj, const char *part) {
  popup_item_data *row = (popup_item_data *)data;
  if (!row) {
    BRISEL_WARN("data is NULL");
    return nullptr;
  }
  if (!strcmp(part, "elm.text.1") || !strcmp(part, "elm.text")) {
    if (row->account_id == 0) return strdup(brisel_util_get_text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"));
    /* A name is shown as the text it is, like the address below it. */
    return brisel_util_text_to_markup(row->name);
  }
  if (!strcmp(part, "elm.text.2")) return brisel_util_text_to_markup(row->address);
  return nullptr;
}

/* --- rows as high as their texts --- */

static char *_gl_popup_whole_text_get(void *data, Evas_Object *obj, const char *part) {
  const scoped_text text(_gl_popup_text_get(data, obj, part));
  return text ? strdup(("<whole>" + std::string(text.get())).c_str()) : nullptr;
}

/* What a popup leaves beside its rows, at scale 1, and how much of its width the display has for them if it is round.
 */
constexpr int popup_margins = 16;
constexpr double round_width = 0.75;
/* The ordinary row has two lines of a name, and one of an address; how much smaller their letters may be. They grow
   with the scale factor, those of the other row only up to about this one. */
constexpr double whole_scale = 1.2;
constexpr int name_lines = 2, address_lines = 1;
constexpr double name_shrinks = 27.0 / 17, address_shrinks = 21.0 / 15;

static Evas_Object *_draw_ordinary_row(const appdata *ad, Evas_Object *gl) {
  Evas_Object *drawing = elm_layout_add(gl);
  elm_layout_theme_set(drawing, "genlist/item_compress", "2text.1icon.1", "popup");
  const int width = brisel_stage_style() ? (int)(ad->root_w * round_width) : ad->root_w - _scaled(popup_margins);
  evas_object_resize(drawing, width, _scaled(50));
  edje_object_calc_force(elm_layout_edje_get(drawing));
  return drawing;
}

static bool _has_room(Evas_Object *drawing, const char *part, const char *text, int lines, double shrinks) {
  Evas_Object *shown = (Evas_Object *)edje_object_part_object_get(elm_layout_edje_get(drawing), part);
  if (!shown) return true;
  int room = 0, width = 0;
  evas_object_geometry_get(shown, nullptr, nullptr, &room, nullptr);
  room = (int)(room * shrinks * std::max(elm_config_scale_get() / whole_scale, 1.0));
  Evas_Object *probe = evas_object_textblock_add(evas_object_evas_get(shown));
  evas_object_scale_set(probe, evas_object_scale_get(shown));
  evas_object_textblock_style_set(probe, evas_object_textblock_style_get(shown));
  evas_object_resize(probe, room, room);
  const scoped_text markup(brisel_util_text_to_markup(text));
  evas_object_textblock_text_markup_set(probe, markup ? markup.get() : "");
  evas_object_textblock_size_formatted_get(probe, &width, nullptr);
  Evas_Textblock_Cursor *cursor = evas_object_textblock_cursor_new(probe);
  const bool has_more_lines = evas_textblock_cursor_line_set(cursor, lines);
  evas_textblock_cursor_free(cursor);
  evas_object_del(probe);
  return !has_more_lines && width <= room;
}

/* On the list while it is filled: the drawing that all rows are measured with. */
static const char ordinary_row[] = "ordinary_row";

static bool _is_ordinary(const Evas_Object *gl, const popup_item_data *row) {
  Evas_Object *drawing = (Evas_Object *)evas_object_data_get(gl, ordinary_row);
  return _has_room(drawing, "elm.text.1", row->name, name_lines, name_shrinks) &&
         _has_room(drawing, "elm.text.2", row->address, address_lines, address_shrinks);
}

static Evas_Object *_gl_popup_content_get(void *data, Evas_Object *obj, const char *part) {
  popup_item_data *row = (popup_item_data *)data;
  if (!row) {
    BRISEL_WARN("data is NULL");
    return nullptr;
  }
  Evas_Object *radio_main = (Evas_Object *)evas_object_data_get(obj, "radio_main");
  if (!strcmp(part, "elm.icon")) {
    Evas_Object *radio = elm_radio_add(obj);
    elm_object_focus_allow_set(radio, EINA_FALSE); /* keys choose the row */
    elm_radio_state_value_set(radio, row->index);
    elm_radio_group_add(radio, radio_main);
    brisel_view_set_spoken(radio, false);
    if (row->ad && row->account_id == row->ad->account_id) elm_radio_value_set(radio_main, row->index);
    _sized(radio, 50);
    evas_object_size_hint_max_set(radio, _scaled(50), _scaled(50));
    /* The whole row is the choice: a touch on the radio must choose it, not only light it. */
    evas_object_pass_events_set(radio, EINA_TRUE);
    return radio;
  }
  if (!strcmp(part, "elm.swallow.colorbar")) return brisel_util_create_color_bar(obj, row->account_id);
  return nullptr;
}

static void _gl_popup_del(void *data, Evas_Object *obj) {
  popup_item_data *row = (popup_item_data *)data;
  if (!row) return;
  free(row->address);
  free(row->name);
  free(row);
}

static void _popup_response_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)data;
  if (!ad) {
    BRISEL_ERROR("data is NULL");
    return;
  }
  brisel_util_drop_popup(&ad->account_popup);
  brisel_view_focus_list(ad->naviframe);
}

static void _gl_popup_sel(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  Elm_Object_Item *it = _take_selection(event_info);
  if (!it) return;
  popup_item_data *row = (popup_item_data *)data;
  appdata *ad = _ad_of(row, "item_data");
  if (!ad) return;
  Evas_Object *radio = elm_object_item_part_content_get(it, "elm.icon");
  elm_genlist_item_selected_set(it, EINA_FALSE);
  if (radio) elm_radio_value_set(radio, row->index);
  BRISEL_INFO("account id is changed (%d -> %d)", ad->account_id, row->account_id);
  ad->account_id = row->account_id;
  _refresh_mailbox_list(ad);
  _popup_response_cb(ad, nullptr, nullptr);
}

static bool _popup_row_is_ticked(Elm_Object_Item *it) {
  const popup_item_data *row = (popup_item_data *)elm_object_item_data_get(it);
  return row && row->account_id == row->ad->account_id;
}

static void _popup_language_cb(void *data, Evas_Object *obj, void *event_info) {
  /* What stands for the address of all accounts is a text of the language, too. */
  Elm_Object_Item *first = elm_genlist_first_item_get(obj);
  popup_item_data *row = first ? (popup_item_data *)elm_object_item_data_get(first) : nullptr;
  if (row && row->account_id == 0) {
    free(row->address);
    row->address = strdup(brisel_util_get_text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"));
  }
  brisel_view_name_rows(obj);
}

static void _popup_row_realized_cb(void *data, Evas_Object *obj, void *event_info) {
  brisel_view_hide_last_bottomline(obj, (Elm_Object_Item *)event_info);
}

/* account NULL: the combined row. whole: the class of a row that the usual one has no room for. Returns the row's item,
   or NULL. */
static Elm_Object_Item *_append_popup_row(appdata *ad, Evas_Object *gl, Elm_Genlist_Item_Class *itc,
                                          Elm_Genlist_Item_Class *whole, int index, const account_data *account) {
  popup_item_data *row = (popup_item_data *)calloc(1, sizeof(popup_item_data));
  if (!row) {
    BRISEL_ERROR("memory allocation failed.");
    return nullptr;
  }
  row->index = index;
  row->account_id = account ? account->account_id : 0;
  const char *address = account ? account->email_address : brisel_util_get_text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB");
  row->address = address ? strdup(address) : nullptr;
  if (account && account->display_name && *account->display_name)
    row->name = strdup(account->display_name);
  else if (account && address)
    row->name = strndup(address, strcspn(address, "@")); /* rather than an empty line above the address */
  row->ad = ad;
  if (account && !_is_ordinary(gl, row)) {
    itc = whole;
    elm_genlist_homogeneous_set(gl, EINA_FALSE);
  }
  row->it = elm_genlist_item_append(gl, itc, row, nullptr, ELM_GENLIST_ITEM_NONE, _gl_popup_sel, row);
  brisel_view_name_row(row->it);
  return row->it;
}

/* The shown account's row is marked and in view, however many accounts stand before it: a row out of view has no radio
   yet that could say so. */
static void _show_choice(appdata *ad, Evas_Object *gl) {
  for (Elm_Object_Item *it = elm_genlist_first_item_get(gl); it; it = elm_genlist_item_next_get(it)) {
    popup_item_data *row = (popup_item_data *)elm_object_item_data_get(it);
    if (!row || row->account_id != ad->account_id) continue;
    elm_radio_value_set((Evas_Object *)evas_object_data_get(gl, "radio_main"), row->index);
    elm_genlist_item_show(it, ELM_GENLIST_ITEM_SCROLLTO_IN);
    return;
  }
}

Evas_Object *brisel_create_account_selection_popup(appdata *ad) {
  BRISEL_INFO("Enter");
  if (ad->account_popup) {
    BRISEL_INFO("popup is already existed. remove it.");
    brisel_util_drop_popup(&ad->account_popup);
  }
  scoped_account_list accounts = _read_accounts();
  if (!accounts) return nullptr;

  Evas_Object *popup = brisel_util_popup_add(ad->naviframe);
  ad->account_popup = popup;
  ea_object_event_callback_add(popup, EA_CALLBACK_BACK, _popup_response_cb, ad);

  Elm_Genlist_Item_Class *itc_combined =
      brisel_view_new_row_class("1text.1icon.1", _gl_popup_text_get, _gl_popup_content_get, _gl_popup_del);
  Elm_Genlist_Item_Class *itc_account =
      brisel_view_new_row_class("2text.1icon.1", _gl_popup_text_get, _gl_popup_content_get, _gl_popup_del);
  Elm_Genlist_Item_Class *itc_whole =
      brisel_view_new_row_class("2text.1icon.1.whole", _gl_popup_whole_text_get, _gl_popup_content_get, _gl_popup_del);
  Evas_Object *gl = elm_genlist_add(popup);
  elm_object_style_set(gl, "popup");
  elm_genlist_homogeneous_set(gl, EINA_TRUE);
  elm_scroller_policy_set(gl, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
  elm_genlist_mode_set(gl, ELM_LIST_COMPRESS);
  brisel_view_list_keys(gl);
  brisel_stage_reach(gl);
  evas_object_smart_callback_add(gl, "language,changed", _mailbox_list_language_changed_cb, nullptr);
  evas_object_smart_callback_add(gl, "language,changed", _popup_language_cb, nullptr);
  brisel_view_set_row_ticks(gl, _popup_row_is_ticked);

  Evas_Object *radio_main = elm_radio_add(gl);
  elm_radio_state_value_set(radio_main, 0);
  elm_radio_value_set(radio_main, 0);
  brisel_view_set_spoken(radio_main, false);
  brisel_view_set_spoken_id(popup, "IDS_EMAIL_HEADER_ACCOUNTS");
  evas_object_data_set(gl, "radio_main", radio_main);

  int index = 0;
  evas_object_data_set(gl, ordinary_row, _draw_ordinary_row(ad, gl));
  Elm_Object_Item *last = _append_popup_row(ad, gl, itc_combined, itc_combined, index++, nullptr);
  for (GSList *cell = accounts.get(); cell; cell = cell->next) {
    if (!cell->data) continue;
    last = _append_popup_row(ad, gl, itc_account, itc_whole, index++, (account_data *)cell->data);
  }
  evas_object_del((Evas_Object *)evas_object_data_del(gl, ordinary_row));
  if (last) elm_object_item_signal_emit(last, "elm,state,bottomline,hide", "");
  _show_choice(ad, gl);
  /* A row that is not drawn yet hears no signal. */
  evas_object_smart_callback_add(gl, "realized", _popup_row_realized_cb, nullptr);

  elm_object_content_set(popup, gl);
  evas_object_show(gl);
  elm_genlist_item_class_free(itc_combined);
  elm_genlist_item_class_free(itc_account);
  elm_genlist_item_class_free(itc_whole);
  evas_object_show(popup);
  elm_object_focus_set(gl, EINA_TRUE);
  return popup;
}
