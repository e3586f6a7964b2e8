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

/* --- a view's record -----------------------------------------------------------------------------------------------
 */

/* A zero-filled record with its type and ad set, or NULL: without ad, or short of memory. Logged. The record starts
   with brisel_view_head; free it with free(). */
brisel_view_head *brisel_option_new_head(appdata *ad, int view_type, size_t size);
template <typename T>
bool brisel_option_new_record(appdata *ad, int view_type, T **record) {
  *record = (T *)brisel_option_new_head(ad, view_type, sizeof(T));
  return *record != nullptr;
}
/* Lets go of the two widgets that the record names and free()s it once the list, whose rows point to it, is gone. */
void brisel_option_free_with_list(void *record, Evas_Object **layout, Evas_Object **genlist);

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
/* A row class as a constant. The list keeps the drawings of rows that went by the address of their class: a class that
   is made and freed with its row would hand them to the next one made at its place, whatever style that one has. */
constexpr Elm_Genlist_Item_Class brisel_option_row_class(const char *style, Elm_Genlist_Item_Text_Get_Cb text_get,
                                                         Elm_Genlist_Item_Content_Get_Cb content_get = nullptr,
                                                         Elm_Genlist_Item_Del_Cb del = nullptr) {
  return {
      ELM_GENLIST_ITEM_CLASS_HEADER, style, nullptr, nullptr, {text_get, content_get, nullptr, del, nullptr, nullptr}};
}
/* The same, allocated, for the lists whose rows all come and go together: the rows keep it alive; free it with
   elm_genlist_item_class_free once they are appended. NULL: no memory. */
Elm_Genlist_Item_Class *brisel_option_new_row_class(const char *style, Elm_Genlist_Item_Text_Get_Cb text_get,
                                                    Elm_Genlist_Item_Content_Get_Cb content_get,
                                                    Elm_Genlist_Item_Del_Cb del);
/* Appends one row (before NULL) or inserts it. */
Elm_Object_Item *brisel_option_add_row(Evas_Object *list, Elm_Object_Item *before,
                                       const Elm_Genlist_Item_Class *row_class, const void *data,
                                       Evas_Smart_Cb selected_cb, const void *selected_data);

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
