/* The records and constants that the screens share, and what they offer each other. Thread: the EFL main loop,
 * everywhere. */
#ifndef BRISEL_APP_DATA_H
#define BRISEL_APP_DATA_H

#include <Elementary.h>
#include <glib.h>

#include "brisel-bus.h"
#include "brisel-common.h"
#include "brisel-contact.h"
#include "brisel-log.h"
#include "brisel-settings.h"

#define BRISEL_PACKAGE "com.vextora.brisel"
#define BRISEL_DOMAIN "brisel"
#define BRISEL_MESSAGE_DOMAIN "message"
#define BRISEL_LOCALE_DIR "/usr/apps/com.vextora.brisel/res/locale"
#define BRISEL_EDJ "/usr/apps/com.vextora.brisel/res/edje/brisel.edj"
#define BRISEL_IMAGES_EDJ "/usr/apps/com.vextora.brisel/res/edje/brisel-images.edj"

/* Settings of the application alone; the others are in brisel-settings.h. */
/* Whether the rows of the mailbox show subjects; unset: they do. */
#define BRISEL_KEY_LIST_SUBJECT "file/private/brisel/list_subject"

enum brisel_view_type {
  BRISEL_VIEW_TYPE_DETAIL_VIEW = 555001000,
  BRISEL_VIEW_TYPE_OPTION_DETAIL_VIEW = 555002000,
  BRISEL_VIEW_TYPE_OPTION_REPLY_VIEW = 555003000,
  BRISEL_VIEW_TYPE_OPTION_CALL_VIEW = 555004000,
  BRISEL_VIEW_TYPE_DELETE_VIEW = 555005000,
  BRISEL_VIEW_TYPE_JOURNAL_VIEW = 555006000
};

/* The application-wide state. Owned by main, zero-filled before the main loop starts, passed as user data nearly
   everywhere. Widgets are children of win_main; whoever deletes one of the popups clears its field. */
struct appdata {
  int root_w; /* window size in pixels, updated on every window resize */
  int root_h;
  Evas *evas;
  Evas_Object *win_main;
  Evas_Object *conform;
  Evas_Object *layout_main;
  Evas_Object *naviframe;
  Evas_Object *security_popup;
  Evas_Object *account_popup;
  Evas_Object *connecting_popup;
  Evas_Object *no_account_popup;
  Evas_Object *no_account_ok_btn; /* a child of no_account_popup */
  Evas_Object *mailbox_genlist;
  Evas_Object *nocontents_layout;
  Evas_Object *delete_btn;
  Elm_Object_Item *sweep_item;   /* the row swept open */
  Elm_Object_Item *blocked_item; /* the row whose next selection is ignored once */
  Elm_Genlist_Item_Class *itc_group;
  Elm_Genlist_Item_Class *itc_mail;
  Ecore_Timer *sweep_timer;
  int account_id; /* the account shown; 0: all accounts, the combined view */
  int account_cnt;
  int mail_id;      /* the opened mail, or the one waiting behind the security alert; 0 or less: none */
  int bt_connected; /* 1 while the watch is linked to the phone */
  int date_format;  /* 0..3 */
  int time_format;  /* 1: 12-hour */
  char *locale;     /* ICU locale id; owned */
  unsigned char nocontents_shown;
  GList *mail_list; /* item_data in display order; owns its cells, not the records; see brisel_complete_mail_list */
  Elm_Genlist_Item_Class *itc_mail_below; /* of rows whose subject stands below the time */
  bool link_popup_came; /* whether the platform's link popup could be started when it was last asked for */
  unsigned char paused; /* the window is out of sight */
  bool list_is_covered; /* while the list is made below a mail: its rows can wait */
};

/* The common head of every pushed view's record; each view's own record is one with fields of its own behind it. */
struct view_data;
struct brisel_view_head {
  int view_type = 0;
  appdata *ad = nullptr;
  Elm_Object_Item *navi_item = nullptr;
  /* Frees the view's record; called once, by the pop or by who deletes the item. */
  Elm_Naviframe_Item_Pop_Cb pop_cb = nullptr;
};

/* A row of the mailbox list (type 0) or its group header (type 1): one layout, told apart by the first field.
   Owned by its genlist item. */
struct item_data {
  int type;
  int account_id;
  int mail_id;
  int is_new;
  int security_locked;
  int received_time; /* seconds since the epoch */
  char *sender;      /* owned; may be NULL */
  int count;         /* header: mails shown under it */
  char *title;       /* header: owned */
  Elm_Object_Item *it;
  appdata *ad;
  int is_read;
  char *subject; /* one line of plain text; owned; may be NULL */
};
typedef item_data group_item_data;

/* --- the view stack --- */

/* The record of the uppermost view of that type, or NULL; stays the view's own. Cast it to the view's record. */
view_data *brisel_util_retrieve_view_data(int view_type, appdata *ad);
/* Tells the service which mails are in view in the list, so that it tells nobody of them: whenever the top view, the
   account or the window's being in sight has changed. */
void brisel_tell_list_in_view(appdata *ad);
/* Pops the top view, at the latest when its sliding in has ended. */
void brisel_util_pop_view(Evas_Object *naviframe);

/* --- what the screens offer each other --- */

/* Mailbox list: brisel-app-mailbox-list. */
Evas_Object *brisel_create_mailbox_list_view(Evas_Object *win_main, appdata *ad);
void brisel_update_mailbox_list(int update_type, GSList *id_list, appdata *ad);
/* Each row has the height that its time and subject need: when the window's width, the time's form or the day is
 * another. */
void brisel_fit_mailbox_rows(appdata *ad);
/* The same, and the header and the rows in sight ask for their texts anew. */
void brisel_update_mailbox_texts(appdata *ad);
/* Where a screen reader may be listening: what it says of every row, as it is said now. */
void brisel_name_mailbox_rows(appdata *ad);
/* An account that is there was told of anew: its address and colour show at once. */
void brisel_update_mailbox_accounts(appdata *ad);
void brisel_check_mail_on_db(appdata *ad);
void brisel_check_current_mailbox_account_by_mail_id(int mail_id, appdata *ad);
void brisel_delete_sweep_item(appdata *ad);
/* Before all of mail_list is walked: a refresh reads what the first screen shows, and the rest at idle time. */
void brisel_complete_mail_list(appdata *ad);
/* As far as to the mail and so many unlocked ones behind it; all of it where there are fewer. */
void brisel_complete_mail_list_around(int mail_id, int unlocked, appdata *ad);
/* The rows that the first screen shows, where the last refresh left them for idle time. */
void brisel_make_first_rows(appdata *ad);
/* Empties mail_list: its cells, and the records that have no row yet. Rows free their own. */
void brisel_free_mail_list(appdata *ad);
Evas_Object *brisel_create_security_alert_popup(appdata *ad);    /* also kept in ad->security_popup */
Evas_Object *brisel_create_account_selection_popup(appdata *ad); /* also kept in ad->account_popup; NULL: no accounts */
/* The colour bar of an account, as list rows and the reader show it: a rectangle on parent's canvas, or NULL. */
Evas_Object *brisel_util_create_color_bar(Evas_Object *parent, int account_id);

/* Delete view: brisel-app-delete-view. 0; -1: no ad or no layout; -3: memory. */
int brisel_crete_delete_view(appdata *ad);
/* An open delete view takes arrived mails in and lets deleted ones go; arguments as of brisel_update_mailbox_list. */
void brisel_update_delete_view(int update_type, GSList *id_list, appdata *ad);

/* Reader: brisel-app-detail. push: 1 with a transition, 0 without. 0; -1: no ad; -3: not built. */
int brisel_detail_draw_view(int mail_id, int push, appdata *ad);
/* The phone is asked to show the mail: how far it has been read here goes along. */
void brisel_detail_show_on_device(int mail_id, appdata *ad);
/* The list has changed: the open reader's pages follow it, at once or when the finger on them is lifted. Always 0. */
int brisel_detail_update_neighbors(int mail_id, appdata *ad);
/* Makes the page that the open reader shows the opened mail (ad->mail_id), also before it has come to rest. */
void brisel_detail_follow_screen(appdata *ad);
/* Whether the open reader has a page of that mail, in view or beside it. */
Eina_Bool brisel_detail_shows_mail(int mail_id, appdata *ad);
/* The built pages of these mails (ids as of an event) show what the store says of them now. */
void brisel_detail_update_mails(GSList *ids, appdata *ad);
/* After a change of ad->bt_connected. */
void brisel_detail_update_link(appdata *ad);
int brisel_detail_update_datetime_format(appdata *ad);
int brisel_detail_update_string(appdata *ad);
void brisel_detail_register_pickover(view_data *vd);
void brisel_detail_unregister_pickover(view_data *vd);

/* Options, replies, call: 0; -1 (-2 for call): no ad; -3: memory or a widget; else the store's error.
   noti_data NULL: the view reads the mail itself. The reply views copy what they need of the caller's; the call view
   borrows it, and it must outlive that view. */
int brisel_option_detail_draw_view(int mail_id, appdata *ad);
int brisel_option_reply_templetes_draw_view(int mail_id, appdata *ad, full_noti_data *noti_data);
int brisel_option_reply_emoticons_draw_view(int mail_id, appdata *ad, full_noti_data *noti_data);
int brisel_option_call_draw_view(int mail_id, appdata *ad, full_noti_data *noti_data);

#endif
