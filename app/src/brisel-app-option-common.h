/* What the screens that act on a mail have in common. Thread: the EFL main loop. */
#ifndef BRISEL_APP_OPTION_COMMON_H
#define BRISEL_APP_OPTION_COMMON_H

#include "brisel-app.h"

/* --- widgets that a record names --------------------------------------------------------------------------------- */

/* A widget may die before the record that names it: with its view stack item, with its parent, by its own doing.
   A field set by brisel_widget_ref_set becomes NULL when its widget dies, whoever deletes it. The field must be
   cleared or dropped before the record's memory goes. */
void brisel_widget_ref_set(Evas_Object **field, Evas_Object *widget);
/* Deletes the widget, if it still lives. */
void brisel_widget_ref_drop(Evas_Object **field);
/* Forgets the widget, which lives on. */
void brisel_widget_ref_clear(Evas_Object **field);
/* free()s record when the widget dies, or at once when widget is NULL. */
void brisel_widget_free_with(Evas_Object *widget, void *record);

/* --- the layouts ---------------------------------------------------------------------------------------------------
 */

/* The base layout of a view on the view stack, shown. NULL on failure, which is logged. */
Evas_Object *brisel_option_create_layout(Evas_Object *parent);
/* The background of a base layout, in place. NULL on failure, which is logged. */
Evas_Object *brisel_option_create_bg(Evas_Object *layout, Evas_Object *win);
/* A list that is compressed, scrolls vertically only and asks its getters again after a language change. Not shown.
   realized_cb (may be NULL): "realized". NULL on failure, which is logged. */
Evas_Object *brisel_option_create_list(Evas_Object *parent, Evas_Smart_Cb realized_cb);
/* Hides the bottom line of the list's last row; for "realized" callbacks. */
void brisel_option_hide_last_bottomline(Evas_Object *list, Elm_Object_Item *item);
/* A row class that its rows keep alive: free it with elm_genlist_item_class_free once the rows are appended. */
Elm_Genlist_Item_Class *brisel_option_row_class(const char *style, Elm_Genlist_Item_Text_Get_Cb text_get,
                                                Elm_Genlist_Item_Content_Get_Cb content_get,
                                                Elm_Genlist_Item_Del_Cb del);
/* Appends one row (before NULL) or inserts it, with a class of its own. */
Elm_Object_Item *brisel_option_add_row(Evas_Object *list, Elm_Object_Item *before, Elm_Genlist_Item_Class *row_class,
                                       const void *data, Evas_Smart_Cb selected_cb, const void *selected_data);

/* --- the mail -------------------------------------------------------------------------------------------------------
 */

/* *record: the borrowed one, or a new one read by mail_id, which the caller then owns (*own true). 0; -3: no memory;
   else the store's error. Failures are logged. */
int brisel_option_take_noti_data(int mail_id, full_noti_data *borrowed, full_noti_data **record, bool *own);
/* Who wrote the mail, as a view's title: markup that the caller frees with free(). Never NULL but short of memory. */
char *brisel_option_sender_title(const full_noti_data *noti_data);

/* --- the view stack
 * --------------------------------------------------------------------------------------------------- */

/* Pushes layout for a view whose record starts with head: links the record and the item, and the pop callback.
   title (may be NULL) is shown as it is; next_btn (may be NULL) stands at the title's end. */
Elm_Object_Item *brisel_option_push(appdata *ad, Evas_Object *layout, const char *title, Evas_Object *next_btn,
                                    Elm_Naviframe_Item_Pop_Cb pop_cb, brisel_view_head *head);

/* Whether the view is the one that the user sees. While another slides in above it, its rows can still be touched. */
bool brisel_option_on_top(const brisel_view_head *head);

/* --- popups
 * ------------------------------------------------------------------------------------------------------------ */

/* Makes a text of the popup or of its button ("button1", "button2") follow the language; id in the domain "brisel". */
void brisel_option_popup_translate(Evas_Object *popup, const char *button, const char *id);
/* The question before mails are deleted, not shown, without its text: title, Cancel and OK; back means Cancel. */
Evas_Object *brisel_option_create_delete_popup(Evas_Object *parent, Evas_Smart_Cb cancel_cb, Evas_Smart_Cb ok_cb,
                                               void *data);

/* --- the phone
 * ----------------------------------------------------------------------------------------------------------- */

/* Whether an action that needs the phone can go ahead. Otherwise the user has been told: by the link popup, or by a
   toast that the phone does not answer. */
bool brisel_option_phone_ready(appdata *ad);

#endif
