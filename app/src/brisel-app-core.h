/* What the files of the application's core offer each other: the view stack and the settings lie lowest, the launch
   flows and the host events build on them and on the main screen (brisel-app.h), the life cycle on all. No screen calls
   these. Thread: the EFL main loop. */
#ifndef BRISEL_APP_CORE_H
#define BRISEL_APP_CORE_H

#include "brisel-app-data.h"

/* --- view stack --- */

/* Closes every view above the mailbox; the mail that was open is none any more. */
void _brisel_naviframe_pop_to_mailbox(appdata *ad);
/* Frees the records of all views; the mailbox has none. */
void _clear_all_naviframe_view_data(appdata *ad);
/* The naviframe's keys, the end of its transitions, and the window's title. */
void _register_naviframe_callbacks(appdata *ad);
/* The screen that fills the window while there is no view stack is told to who listens, until it goes. */
void _tell_ground(Evas_Object *screen);
/* The window's title says what is shown: the top view's title or name, else the application's. */
void _set_window_title(appdata *ad);
/* The same, when another view came to the top: who listens, and who tells of new mail, hears of that. */
void _update_window_title(appdata *ad);

/* --- settings --- */

void _brisel_init_vconf_values(appdata *ad);
void _brisel_set_date_time_format(appdata *ad);
void _brisel_update_time_format_and_views(appdata *ad);
void _brisel_register_vconf_change_notify(appdata *ad);
void _brisel_unregister_vconf_change_notify();

/* --- the first minute --- */

/* Fills the window while no main screen stands; nothing when one does. Back ends the application. */
void _show_first_minute(appdata *ad);
void _end_first_minute();

/* --- launch flows --- */

/* Leaves for good: the window goes out of sight at once, the main loop ends. */
void _lower_and_exit(appdata *ad);

/* Whether no account may be shown. */
bool _check_setup_account_popup_is_needed();
/* 1 when the mail is locked by its account's policy, else 0. */
int _check_security_lock_mail(int mail_id);
/* Opens the mail that a launch names, or asks about it when it is locked, or says that it is gone. */
void _open_launched_mail(appdata *ad, int mail_id);
void _create_set_up_email_popup(appdata *ad);
/* The first build of the main screen; it happens once. */
void _launch(appdata *ad, int mail_id);
/* The account count has been told: what has waited for it goes. */
void _count_is_known(appdata *ad);
/* The phone has been linked: a launch that has waited for it in an empty window goes on. */
void _link_is_up(appdata *ad);
/* Launches that still wait go with the application. */
void _forget_launches();

/* --- host events --- */

void _brisel_ipc_subscribe(appdata *ad);
void _brisel_ipc_unsubscribe();

#endif
