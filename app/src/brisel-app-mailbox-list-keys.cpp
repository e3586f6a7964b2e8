/* The mailbox's own keys: the arrow that points at a row's end does what a long press on it does. Delete draws the
   focused row aside as a finger would, Delete again or on another row deletes it, Return brings it back. */
#include <cstring>

#include "brisel-app-mailbox-list.h"
#include "brisel-app-view-common.h"

static bool _is_mail(Elm_Object_Item *it) {
  return it && !(elm_genlist_item_type_get(it) & ELM_GENLIST_ITEM_GROUP);
}

/* Without a ring nobody follows the focus, and a hand may have scrolled away from it. Before its row goes it goes to
   one in sight: else the toolkit gives it to some row, and brings that into sight. */
static void _hand_focus_on(Evas_Object *gl, const Elm_Object_Item *from) {
  int x = 0, y = 0, w = 0, h = 0;
  evas_object_geometry_get(gl, &x, &y, &w, &h);
  Elm_Object_Item *row = elm_genlist_at_xy_item_get(gl, x + w / 2, y + h / 2, nullptr);
  if (_is_mail(row) && row != from) elm_object_item_focus_set(row, EINA_TRUE);
}

void _delete_row(Elm_Object_Item *it) {
  Evas_Object *gl = elm_object_item_widget_get(it);
  const bool has_focus = elm_object_focus_get(gl) && elm_object_focused_item_get(gl) == it;
  const bool is_ringed = has_focus && elm_win_focus_highlight_enabled_get(elm_object_top_widget_get(gl));
  Elm_Object_Item *next = elm_genlist_item_next_get(it);
  if (!_is_mail(next)) next = elm_genlist_item_prev_get(it);
  if (has_focus && !is_ringed) _hand_focus_on(gl, it);
  brisel_view_delete_row(it);
  if (!is_ringed || !_is_mail(next)) return;
  elm_object_item_focus_set(next, EINA_TRUE);
  elm_genlist_item_show(next, ELM_GENLIST_ITEM_SCROLLTO_IN);
}

void _draw_aside_or_delete(appdata *ad, Elm_Object_Item *it) {
  const bool is_swept = it == ad->sweep_item;
  /* With a row drawn aside the drag deletes that one and does no more. */
  if (ad->sweep_item) _drag_left(ad, ad->mailbox_genlist, it);
  if (!is_swept) _drag_left(ad, ad->mailbox_genlist, it);
}

static void _key_down_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  Evas_Event_Key_Down *event = (Evas_Event_Key_Down *)event_info;
  Elm_Object_Item *it = elm_object_focused_item_get(obj);
  if (!it || (event->event_flags & EVAS_EVENT_FLAG_ON_HOLD)) return;
  if (!strcmp(event->key, elm_object_mirrored_get(obj) ? "Left" : "Right")) _press_long(it);
  if (!_is_mail(it)) return;
  const bool deletes = !strcmp(event->key, "Delete") || !strcmp(event->key, "KP_Delete");
  const bool brings_back = it == ad->sweep_item && (!strcmp(event->key, "Return") || !strcmp(event->key, "KP_Enter"));
  if (!deletes && !brings_back) return;
  event->event_flags = (Evas_Event_Flags)(event->event_flags | EVAS_EVENT_FLAG_ON_HOLD);
  if (deletes)
    _draw_aside_or_delete(ad, it);
  else
    _revert_btn_select_cb(elm_object_item_data_get(it), obj, nullptr);
}

void _follow_keys(appdata *ad) {
  brisel_view_list_keys(ad->mailbox_genlist);
  /* Before the toolkit, which opens a row with Return. */
  evas_object_event_callback_priority_add(ad->mailbox_genlist, EVAS_CALLBACK_KEY_DOWN, EVAS_CALLBACK_PRIORITY_BEFORE,
                                          _key_down_cb, ad);
}
