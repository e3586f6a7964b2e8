/* Sweep to delete: a row drawn aside is deleted when the user goes on to anything else. It owns sweep_item,
   blocked_item and the freeze of the list; the list's touches come here first. */
#include "brisel-app-mailbox-list.h"

#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "genlist-fx.h"

/* The way the swept row went: a row that is drawn anew while swept must look the same again. */
static const char *sweep_signal;

/* The list keeps the drawings of rows that went out of sight for others: the swept look belongs to one row only, and
   comes back with it. */
void _restore_swept_look(appdata *ad, Elm_Object_Item *it, bool shown) {
  if (!it || it != ad->sweep_item || !sweep_signal) return;
  elm_object_item_signal_emit(it, shown ? sweep_signal : "elm,state,sweep,hide", "");
}

bool _is_blocked_once(appdata *ad, Elm_Object_Item *it) {
  if (ad->blocked_item != it) return false;
  BRISEL_INFO("blocked item is selected.");
  ad->blocked_item = nullptr;
  return true;
}

/* A screen reader is told that a row is drawn aside, and of no button that is not in sight. */
static void _tell_of_button(Elm_Object_Item *it, bool is_in_sight) {
  if (Evas_Object *undo = elm_object_item_part_content_get(it, "elm.icon.sweep"))
    brisel_view_set_spoken(undo, is_in_sight);
  _name_row((item_data *)elm_object_item_data_get(it));
  brisel_view_say_name(it);
}

void _revert_btn_select_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  item_data *item = (item_data *)data;
  if (!item || !item->it) return;
  elm_object_item_signal_emit(item->it, "elm,state,sweep,hide", "");
  if (item->ad) {
    item->ad->sweep_item = nullptr;
    item->ad->blocked_item = nullptr;
  }
  _tell_of_button(item->it, false);
  BRISEL_INFO("revert it");
}

static Eina_Bool _sweep_timer(void *data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)data;
  if (ad) {
    elm_object_scroll_freeze_pop(ad->mailbox_genlist);
    ad->sweep_timer = nullptr;
  } else {
    BRISEL_WARN("data is NULL");
  }
  return ECORE_CALLBACK_CANCEL;
}

static void _delete_mail_by_sweep(appdata *ad, bool with_effect) {
  BRISEL_INFO("Enter");
  item_data *item = ad->sweep_item ? (item_data *)elm_object_item_data_get(ad->sweep_item) : nullptr;
  if (!item) return;
  /* Without a request record nothing was asked of the host: the row stays swept. Whatever else fails is logged, and
     the row goes. */
  if (brisel_util_request_delete(&item->mail_id, 1) == BRISEL_COMMON_ERROR_MEMORY) return;
  if (!item->it) return;
  if (with_effect) elm_genlist_fx_mode_set(ad->mailbox_genlist, EINA_TRUE);
  _remove_from_model(ad, item);
  _delete_row(item->it);
  BRISEL_INFO("sweep item is removed");
  ad->sweep_item = nullptr;
  brisel_view_hide_last_bottomline(ad->mailbox_genlist, elm_genlist_last_item_get(ad->mailbox_genlist));
  if (with_effect) elm_genlist_fx_mode_set(ad->mailbox_genlist, EINA_FALSE);
}

void brisel_delete_sweep_item(appdata *ad) {
  BRISEL_INFO("Enter");
  if (!ad->sweep_item) return;
  _delete_mail_by_sweep(ad, false);
  ad->blocked_item = nullptr;
}

static void _drag(appdata *ad, Elm_Object_Item *it, const char *signal) {
  if (ad->sweep_item) {
    BRISEL_INFO("sweep item is existed");
    ad->blocked_item = nullptr;
    _delete_mail_by_sweep(ad, true);
    return;
  }
  /* The touch that committed a sweep is spent: the drag it goes on to make sweeps nothing. */
  if (it && ad->blocked_item == it) {
    ad->blocked_item = nullptr;
    return;
  }
  if (elm_genlist_item_type_get(it) & ELM_GENLIST_ITEM_GROUP) return;
  /* A row half out of sight, as below the header: what it says now and its button are to be seen. */
  elm_genlist_item_bring_in(it, ELM_GENLIST_ITEM_SCROLLTO_IN);
  elm_object_item_signal_emit(it, signal, "");
  ad->sweep_item = it;
  elm_genlist_item_fields_update(it, "elm.icon.sweep", ELM_GENLIST_ITEM_FIELD_CONTENT);
  _tell_of_button(it, true);
  sweep_signal = signal;
  elm_object_scroll_freeze_push(ad->mailbox_genlist);
  if (ad->sweep_timer) {
    /* The timer of the sweep before will not come to end its freeze any more: each freeze ends once. */
    ecore_timer_del(ad->sweep_timer);
    elm_object_scroll_freeze_pop(ad->mailbox_genlist);
  }
  ad->sweep_timer = ecore_timer_add(0.5, _sweep_timer, ad);
}

void _drag_left(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  _drag((appdata *)data, (Elm_Object_Item *)event_info, "elm,state,sweep,left");
}

void _drag_right(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  _drag((appdata *)data, (Elm_Object_Item *)event_info, "elm,state,sweep,right");
}

/* The list keeps the row under a finger that scrolls slowly, so the row goes on waiting for its long press. */
static bool touch_scrolls;

bool _touch_scrolls() {
  return touch_scrolls;
}

void _scroll_start_cb(void *data, Evas_Object *obj, void *event_info) {
  touch_scrolls = true;
}

void _mailbox_list_mouse_down_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  Evas_Event_Mouse_Down *event = (Evas_Event_Mouse_Down *)event_info;
  /* What the touch before blocked was for that touch alone, whether it ended in a selection or in a scroll. */
  ad->blocked_item = nullptr;
  touch_scrolls = false;
  if (!ad->sweep_item || !ad->mailbox_genlist) return;
  /* On a round display a finger is heard beside the list, too: there it touches the row that it is beside. */
  int x = 0, width = 0;
  evas_object_geometry_get(ad->mailbox_genlist, &x, nullptr, &width, nullptr);
  const int at = CLAMP(event->canvas.x, x, x + width - 1);
  Elm_Object_Item *touched = elm_genlist_at_xy_item_get(ad->mailbox_genlist, at, event->canvas.y, nullptr);
  if (touched == ad->sweep_item) return;
  ad->blocked_item = touched;
  _delete_mail_by_sweep(ad, true);
  /* The row's own deletion lifts every block; this touch's block is for the row under the finger. */
  ad->blocked_item = touched;
}
