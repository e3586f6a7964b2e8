/* The record of the multi-select delete view, for who refreshes its list from outside. Thread: the EFL main loop. */
#ifndef BRISEL_APP_DELETE_VIEW_H
#define BRISEL_APP_DELETE_VIEW_H

#include "brisel-app-data.h"

/* What brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DELETE_VIEW, ad) points to. Freed by its pop callback. */
struct delete_view_data : brisel_view_head {
  Evas_Object *layout;
  Evas_Object *genlist;
  Evas_Object *popup; /* the confirmation, or NULL */
  Evas_Object *delete_btn;
  int account_id; /* the account whose mails are listed; 0: all */
  int total_mail_cnt;
  int selected_cnt;
  unsigned char select_all;
  GSList *item_list;     /* every row, in display order; the cells only, the rows belong to the genlist */
  GSList *selected_list; /* the selected rows, in the order they were selected; the cells only */
};

/* Says the number of the confirmation, if it stands, anew. */
void brisel_update_delete_popup(delete_view_data *vd);

#endif
