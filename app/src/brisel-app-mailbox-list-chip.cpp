/* The chip at the top of the list: how many mails have come above what is on screen, which stays where it is, and are
   still there. A touch on it goes there. The list's live updates and its model call it. */
#include "brisel-app-mailbox-list.h"

#include <algorithm>
#include <climits>

#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "spoken.h"

static std::vector<int> arrived; /* mail ids */
static Eo *spoken;               /* the same for who only listens; NULL: there is no chip, or nobody does */
static const char part_text[] = "elm.text.chip";

static void _go_to_top(void *data) {
  appdata *ad = (appdata *)data;
  _clear_arrivals(ad);
  if (Elm_Object_Item *first = elm_genlist_first_item_get(ad->mailbox_genlist))
    elm_genlist_item_bring_in(first, ELM_GENLIST_ITEM_SCROLLTO_TOP);
}

static void _say_chip(appdata *ad, const char *text) {
  Evas_Object *gl = ad->mailbox_genlist;
  if (!text && spoken) efl_del(spoken);
  if (!text || !brisel_view_is_spoken()) {
    spoken = nullptr;
    return;
  }
  Evas_Object *part = (Evas_Object *)edje_object_part_object_get(elm_layout_edje_get(gl), part_text);
  if (!spoken && part) spoken = spoken_button_add(gl, part, _go_to_top, ad);
  if (spoken) spoken_set_name(spoken, text);
}

static void _show_chip(appdata *ad) {
  Evas_Object *gl = ad->mailbox_genlist;
  const int count = (int)arrived.size();
  scoped_text text(count > 0 ? brisel_util_get_count_text("IDS_EMAIL_BODY_PD_NEW", count, ad) : nullptr);
  if (text) elm_layout_text_set(gl, part_text, text.get());
  _say_chip(ad, text.get());
  elm_layout_signal_emit(gl, count > 0 ? "elm,state,chip,show" : "elm,state,chip,hide", "");
}

void _clear_arrivals(appdata *ad) {
  if (arrived.empty()) return;
  arrived.clear();
  if (ad->mailbox_genlist) _show_chip(ad);
}

int _time_at_top(appdata *ad) {
  Evas_Object *gl = ad->mailbox_genlist;
  int x, y, w, from_top = 0, header_height = 0;
  elm_scroller_region_get(gl, nullptr, &from_top, nullptr, nullptr);
  if (from_top <= 0 || !evas_object_visible_get(gl)) return INT_MAX;
  evas_object_geometry_get(gl, &x, &y, &w, nullptr);
  Elm_Object_Item *header = elm_genlist_first_item_get(gl); /* it floats at the top */
  if (header && elm_genlist_item_type_get(header) & ELM_GENLIST_ITEM_GROUP) {
    if (Evas_Object *place = elm_object_item_track(header)) {
      evas_object_geometry_get(place, nullptr, nullptr, nullptr, &header_height);
      elm_object_item_untrack(header);
    }
  }
  Elm_Object_Item *first = elm_genlist_at_xy_item_get(gl, x + w / 2, y + header_height + 1, nullptr);
  const item_data *item = first ? (item_data *)elm_object_item_data_get(first) : nullptr;
  return item && item->type == ROW_MAIL ? item->received_time : INT_MAX;
}

void _count_arrivals(appdata *ad, const std::vector<int> &mail_ids) {
  if (mail_ids.empty()) return;
  arrived.insert(arrived.end(), mail_ids.begin(), mail_ids.end());
  _show_chip(ad);
}

void _forget_arrival(appdata *ad, int mail_id) {
  const auto at = std::find(arrived.begin(), arrived.end(), mail_id);
  if (at == arrived.end()) return;
  arrived.erase(at);
  _show_chip(ad);
}

static void _scrolled_cb(void *data, Evas_Object *obj, void *event_info) {
  int from_top = 0;
  elm_scroller_region_get(obj, nullptr, &from_top, nullptr, nullptr);
  if (from_top <= 0) _clear_arrivals((appdata *)data);
}

static void _chip_touched_cb(void *data, Evas_Object *obj, const char *emission, const char *source) {
  BRISEL_INFO("Enter");
  _go_to_top(data);
}

static void _chip_language_changed_cb(void *data, Evas_Object *obj, void *event_info) {
  if (!arrived.empty()) _show_chip((appdata *)data);
}

void _add_chip(appdata *ad) {
  arrived.clear();
  spoken = nullptr; /* the list's before, and gone with it */
  evas_object_smart_callback_add(ad->mailbox_genlist, "scroll", _scrolled_cb, ad);
  evas_object_smart_callback_add(ad->mailbox_genlist, "language,changed", _chip_language_changed_cb, ad);
  elm_layout_signal_callback_add(ad->mailbox_genlist, "elm,action,chip", "", _chip_touched_cb, ad);
}
