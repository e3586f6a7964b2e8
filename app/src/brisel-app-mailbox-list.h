/* What the files of the mailbox list offer each other: rows and sweep lie lowest, the model builds on them, live
   updates and the choice of the account on the model, the list's main file on all. Thread: the EFL main loop. */
#ifndef BRISEL_APP_MAILBOX_LIST_H
#define BRISEL_APP_MAILBOX_LIST_H

#include <vector>

#include "brisel-app-data.h"
#include "brisel-scoped.h"

enum row_type { ROW_MAIL = 0, ROW_GROUP = 1 };

/* While many rows change: the canvas would look after each of them for what is under the finger now. */
struct frozen_events {
  Evas *canvas;
  explicit frozen_events(Evas_Object *on) : canvas(on ? evas_object_evas_get(on) : nullptr) {
    if (canvas) evas_event_freeze(canvas);
  }
  ~frozen_events() {
    if (!canvas) return;
    evas_event_thaw(canvas);
    evas_event_thaw_eval(canvas);
  }
  frozen_events(const frozen_events &) = delete;
  frozen_events &operator=(const frozen_events &) = delete;
};

/* The selected row, which does not stay selected; NULL after the log line that says why. */
inline Elm_Object_Item *_take_selection(void *event_info) {
  if (!event_info) BRISEL_WARN("event_info is NULL");
  Elm_Object_Item *it = (Elm_Object_Item *)event_info;
  if (it) elm_genlist_item_selected_set(it, EINA_FALSE);
  return it;
}

/* The row's back pointer; NULL after the log line that says why. */
template <typename Row>
appdata *_ad_of(const Row *row, const char *what) {
  if (!row)
    BRISEL_WARN("%s is NULL", what);
  else if (!row->ad)
    BRISEL_WARN("%s->ad is NULL", what);
  return row ? row->ad : nullptr;
}

/* --- spoken --- */

/* Names the row for a screen reader, where one may listen. */
void _name_row(const item_data *item);

/* --- model --- */

/* What a touch on a row or on the header calls, before the first refresh. */
void _set_row_callbacks(Evas_Smart_Cb mail_selected, Evas_Smart_Cb group_selected);
void _gl_del(void *data, Evas_Object *obj);
void _gl_group_del(void *data, Evas_Object *obj);
/* Reads a mail into a new row record; NULL when it cannot be read. The caller owns it until it has a row. */
item_data *_make_list_data_by_mail_id(int mail_id, appdata *ad);
void _free_list_data(item_data *item);
/* What of a row changes while it stands: copied from the mail. */
void _read_item_state(item_data *item, const full_noti_data *mail);
item_data *_find_item_data_by_mail_id(int mail_id, appdata *ad);
/* While it stands mails are found quickly, where so many are looked up that it pays. */
struct indexed_mails {
  indexed_mails(appdata *ad, int looked_up);
  ~indexed_mails();
  indexed_mails(const indexed_mails &) = delete;
};
/* Puts a record before the cell next (NULL: at the end); its cell. */
GList *_insert_into_model(appdata *ad, item_data *item, GList *next);
/* Takes a record out of mail_list, where it is in it. */
void _remove_from_model(appdata *ad, const item_data *item);
/* The header's item, or NULL. */
Elm_Object_Item *_group_item(appdata *ad);
/* The last row; next NULL, or the row before next. The record becomes the row's. */
void _add_mail_row(appdata *ad, Elm_Object_Item *group_item, item_data *item, Elm_Object_Item *next);
/* The toolkit draws each row that is added beside a drawn one, and lets go of those out of sight only when it lays the
   list out: what a turn has added is laid out before it adds more, or thousands of rows would be drawn. Nothing is done
   where added, the last of them, is not drawn. */
void _let_go_of_rows_out_of_sight(appdata *ad, Elm_Object_Item *added);
/* Reads the account shown into the header's record; NULL after the log line that says why not. */
group_item_data *_update_group_data(appdata *ad, Elm_Object_Item *group_item);
/* The header asks for its texts anew. */
void _update_header(Elm_Object_Item *group_item);
void _set_delete_btn(appdata *ad, bool enabled);
/* Builds the list anew for ad->account_id. */
void _refresh_mailbox_list(appdata *ad);
/* Reads and makes the rows that the last refresh left for idle time: before the model is touched. */
void _make_all_rows(appdata *ad);
/* Whether no row follows, now or after the next idle time. */
bool _is_last_row(appdata *ad, const Elm_Object_Item *it);
/* All accounts, or NULL after the log line that says why. */
scoped_account_list _read_accounts();

/* --- chip --- */

/* On the new list. */
void _add_chip(appdata *ad);
/* When the uppermost mail in sight was received; INT_MAX while the list stands at its top or out of sight. */
int _time_at_top(appdata *ad);
/* Mails that came above it. */
void _count_arrivals(appdata *ad, const std::vector<int> &mail_ids);
/* The mail, whether it was one of these or not, has left the list. */
void _forget_arrival(appdata *ad, int mail_id);
void _clear_arrivals(appdata *ad);

/* --- sweep --- */

/* Genlist and canvas callbacks; data: the appdata, for _revert_btn_select_cb the row. */
void _drag_left(void *data, Evas_Object *obj, void *event_info);
void _drag_right(void *data, Evas_Object *obj, void *event_info);
void _scroll_start_cb(void *data, Evas_Object *obj, void *event_info);
void _mailbox_list_mouse_down_cb(void *data, Evas *e, Evas_Object *obj, void *event_info);
void _revert_btn_select_cb(void *data, Evas_Object *obj, void *event_info);
/* Whether the touch that committed a sweep blocked the row: for that one time. */
bool _is_blocked_once(appdata *ad, Elm_Object_Item *it);
/* Whether the touch of now has scrolled the list: it presses nothing any more. */
bool _touch_scrolls();
/* The swept look of a row whose drawing comes into sight (shown) or is kept for another row. */
void _restore_swept_look(appdata *ad, Elm_Object_Item *it, bool shown);

/* --- rows --- */

/* The classes of the header and of the rows, allocated; NULL: no memory. */
Elm_Genlist_Item_Class *_new_group_class(Elm_Genlist_Item_Del_Cb del);
Elm_Genlist_Item_Class *_new_mail_class(const char *style, Elm_Genlist_Item_Del_Cb del);
/* The one of the two classes of rows that the record needs. */
Elm_Genlist_Item_Class *_class_of_row(const appdata *ad, const item_data *item);
/* Genlist callbacks; data: the appdata. */
void _row_realized_cb(void *data, Evas_Object *obj, void *event_info);
void _row_unrealized_cb(void *data, Evas_Object *obj, void *event_info);
void _mailbox_list_language_changed_cb(void *data, Evas_Object *obj, void *event_info);
/* Follows the setting that hides the subjects, as long as the list lives. */
void _follow_row_settings(appdata *ad);
int _scaled(int pixels);
/* Sets the object's least size, in pixels at scale 1, both ways; returns the object. */
Evas_Object *_sized(Evas_Object *object, int pixels);

/* --- keys --- */

/* On the new list. */
void _follow_keys(appdata *ad);
/* As the key Delete: the row of a mail is drawn aside, or deleted when it is; another one that is goes. */
void _draw_aside_or_delete(appdata *ad, Elm_Object_Item *it);
/* Deletes a mail's row. The focus, if it has it, goes on to a neighbour. */
void _delete_row(Elm_Object_Item *it);

/* --- the account shown --- */

void _gl_group_sel(void *data, Evas_Object *obj, void *event_info);
/* A long press on the header. */
void _long_pressed_group(group_item_data *group, Elm_Object_Item *it);
/* What a long press on the header or a mail's row does. */
void _press_long(Elm_Object_Item *it);

#endif
