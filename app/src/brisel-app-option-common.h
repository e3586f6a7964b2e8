/* What the screens that act on a mail have in common. Thread: the EFL main loop. */
#ifndef BRISEL_APP_OPTION_COMMON_H
#define BRISEL_APP_OPTION_COMMON_H

#include "brisel-app-view-common.h"
#include "contacts.h"

/* Lets go of the two widgets that the record names and free()s it once the list, whose rows point to it, is gone. */
void brisel_option_free_with_list(void *record, Evas_Object **layout, Evas_Object **genlist);
/* Of a view that cannot be built: frees its record by free_record and deletes its layout; returns ret. */
template <typename T>
int brisel_option_give_up(T *record, void (*free_record)(T *record), int ret) {
  Evas_Object *layout = record->layout;
  free_record(record);
  if (layout) evas_object_del(layout);
  return ret;
}

/* --- the layouts --- */

/* The base layout of a view on the view stack, shown. NULL on failure, which is logged. */
Evas_Object *brisel_option_create_layout(Evas_Object *parent);
/* The background of a base layout, in place. NULL on failure, which is logged. */
Evas_Object *brisel_option_create_bg(Evas_Object *layout, Evas_Object *win);

/* --- the contacts --- */

/* From now on, or no longer, changed_cb hears with data of every change. Failures are logged. */
void brisel_option_follow_contacts(contacts_db_changed_cb changed_cb, void *data);
void brisel_option_leave_contacts(contacts_db_changed_cb changed_cb, void *data);

/* --- the mail --- */

/* *record: the borrowed one, or a new one read by mail_id, without a body, which the caller then owns (*own true). 0;
   -3: no memory; else the store's error. Failures are logged. */
int brisel_option_take_noti_data(int mail_id, full_noti_data *borrowed, full_noti_data **record, bool *own);

#endif
