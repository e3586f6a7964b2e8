/* What the screens that act on a mail have in common. Thread: the EFL main loop. */
#ifndef BRISEL_APP_OPTION_COMMON_H
#define BRISEL_APP_OPTION_COMMON_H

#include "brisel-app-view-common.h"

/* Lets go of the two widgets that the record names and free()s it once the list, whose rows point to it, is gone. */
void brisel_option_free_with_list(void *record, Evas_Object **layout, Evas_Object **genlist);

/* --- the layouts --- */

/* The base layout of a view on the view stack, shown. NULL on failure, which is logged. */
Evas_Object *brisel_option_create_layout(Evas_Object *parent);
/* The background of a base layout, in place. NULL on failure, which is logged. */
Evas_Object *brisel_option_create_bg(Evas_Object *layout, Evas_Object *win);

/* --- the mail --- */

/* *record: the borrowed one, or a new one read by mail_id, which the caller then owns (*own true). 0; -3: no memory;
   else the store's error. Failures are logged. */
int brisel_option_take_noti_data(int mail_id, full_noti_data *borrowed, full_noti_data **record, bool *own);

#endif
