/* What several screens share: the widgets a record names, records and pushing of views, titles, rows, who wrote a mail,
   the phone's number in an address, the way to a reply, the question before a deletion, what to say when something
   could not be kept. Every screen calls it; it calls no screen but the reply views. Thread: the EFL main loop. */
#ifndef BRISEL_APP_VIEW_COMMON_H
#define BRISEL_APP_VIEW_COMMON_H

#include "brisel-app-data.h"
#include "brisel-app-spoken.h"
#include "brisel-scoped.h"

/* --- widgets that a record names --- */

/* A widget may die before the record that names it: with its view stack item, with its parent, by its own doing.
   A field set by brisel_widget_ref_set becomes NULL when its widget dies, whoever deletes it. The field must be
   cleared or dropped before the record's memory goes. */
void brisel_widget_ref_set(Evas_Object **field, Evas_Object *widget);
/* Deletes the widget, if it still lives. */
void brisel_widget_ref_drop(Evas_Object **field);
/* Forgets the widget, which lives on. */
void brisel_widget_ref_clear(Evas_Object **field);

/* --- sizes --- */

/* Pixels at scale 1 as pixels of this display. */
int brisel_view_scaled(int pixels);
/* Takes all room there is, both ways. */
void brisel_view_expand(Evas_Object *object);

/* Whether a part with one line of text (TEXTBLOCK, with an ellipsis) has its end cut, in the smallest letters that it
   takes. */
bool brisel_view_is_cut(Evas_Object *part);

/* --- a view and its record --- */

/* A zero-filled record with its type and ad set, or NULL: without ad, or short of memory. Logged. The record starts
   with brisel_view_head; free it with free(). */
brisel_view_head *brisel_view_new_head(appdata *ad, int view_type, size_t size);
template <typename T>
bool brisel_view_new_record(appdata *ad, int view_type, T **record) {
  *record = (T *)brisel_view_new_head(ad, view_type, sizeof(T));
  return *record != nullptr;
}
/* Pushes layout for a view whose record starts with head, links the two, and keeps what is left of the touch that
   opened the view away from it. title (may be NULL) is shown as it is; next_btn (may be NULL) stands at its end. */
Elm_Object_Item *brisel_view_push(appdata *ad, Evas_Object *layout, const char *title, Evas_Object *next_btn,
                                  Elm_Naviframe_Item_Pop_Cb pop_cb, brisel_view_head *head);
/* The same, at once: the new view stands on top without a transition. */
Elm_Object_Item *brisel_view_push_at_once(appdata *ad, Evas_Object *layout, Elm_Naviframe_Item_Pop_Cb pop_cb,
                                          brisel_view_head *head);
/* Whether the view is the one that the user sees. While another slides in above it, its rows can still be touched. */
bool brisel_view_on_top(const brisel_view_head *head);

/* What a view without a title is called, by its window and to who listens; plain text, copied. */
void brisel_view_set_name(const brisel_view_head *head, const char *name);

/* --- titles --- */

/* A button with a picture, for the title's end, shown; the title places it, brisel_view_set_spoken_name names it. NULL
   on failure, which is logged. */
Evas_Object *brisel_view_title_button(Evas_Object *parent, const char *image, Evas_Smart_Cb clicked_cb, void *data);
/* The envelope at the title's start, shown; it says whether the phone is linked. NULL on failure, which is logged. */
Evas_Object *brisel_view_title_icon(Evas_Object *parent);
/* The phone's link, as every envelope in a title shows it from now on. */
void brisel_view_show_link(bool is_linked);

/* What the more key presses while the view of that item is on top; it shows nothing. NULL on failure, which is logged.
 */
Evas_Object *brisel_view_more_button(Elm_Object_Item *item, Evas_Smart_Cb clicked_cb, void *data);

/* --- rows --- */

/* A row class as a constant. The list keeps the drawings of rows that went by the address of their class: a class that
   is made and freed with its row would hand them to the next one made at its place, whatever style that one has. */
constexpr Elm_Genlist_Item_Class brisel_view_row_class(const char *style, Elm_Genlist_Item_Text_Get_Cb text_get,
                                                       Elm_Genlist_Item_Content_Get_Cb content_get = nullptr,
                                                       Elm_Genlist_Item_Del_Cb del = nullptr) {
  return {
      ELM_GENLIST_ITEM_CLASS_HEADER, style, nullptr, nullptr, {text_get, content_get, nullptr, del, nullptr, nullptr}};
}
/* The same, allocated, for the lists whose rows all come and go together: the rows keep it alive; free it with
   elm_genlist_item_class_free once they are appended. NULL: no memory. */
Elm_Genlist_Item_Class *brisel_view_new_row_class(const char *style, Elm_Genlist_Item_Text_Get_Cb text_get,
                                                  Elm_Genlist_Item_Content_Get_Cb content_get,
                                                  Elm_Genlist_Item_Del_Cb del);
/* Appends one row (before NULL) or inserts it. */
Elm_Object_Item *brisel_view_add_row(Evas_Object *list, Elm_Object_Item *before,
                                     const Elm_Genlist_Item_Class *row_class, const void *data,
                                     Evas_Smart_Cb selected_cb, const void *selected_data);
/* After rows of a compressed list went or became lower. The toolkit keeps the height of the block of rows that they are
   in, and leaves a hole, until what the rows lie on moves: so that is moved, and back. */
void brisel_view_close_holes(const Evas_Object *list);
/* Deletes one row of a compressed list, without a hole. */
void brisel_view_delete_row(Elm_Object_Item *row);
/* Hides the bottom line of the list's last row; for "realized" callbacks. */
void brisel_view_hide_last_bottomline(Evas_Object *list, Elm_Object_Item *item);
/* A list that is compressed, scrolls vertically only and asks its getters again after a language change. Not shown.
   realized_cb (may be NULL): "realized". NULL on failure, which is logged. */
Evas_Object *brisel_view_new_list(Evas_Object *parent, Evas_Smart_Cb realized_cb);
/* Where the row with the focus is in the list, and the focus there again once the list has other rows, or at its end;
   below zero: no row has it. */
int brisel_view_focused_place(Evas_Object *list);
void brisel_view_refocus_row(Evas_Object *list, int place);
/* Lets a keyboard go through the rows of the genlist, and with Right to a row's button. */
void brisel_view_list_keys(Evas_Object *list);
/* Gives the focus to the list of the view on top, if it has one: to the row that had it, else to the first in sight. */
void brisel_view_focus_list(Evas_Object *naviframe);
/* The button within the content of a row's "elm.icon" takes the focus from Right alone, and gives it back. */
void brisel_view_row_button(Evas_Object *list, Evas_Object *icon, Evas_Object *button);

/* --- who wrote a mail --- */

/* The name, else the address; NULL when the mail has neither. The mail's own text. */
const char *brisel_view_sender(const full_noti_data *mail);
/* The same as a title: markup that the caller frees with free(). Never NULL but short of memory. */
char *brisel_view_sender_title(const full_noti_data *mail);
/* A phone relays a text message's number as an address of digits alone, or of digits and a domain. A new string that
   the caller frees with free(), or NULL when address is no phone number. */
char *brisel_view_phone_number(const char *address);

/* A list or scroller that moves stands still where it is. NULL: nothing. The same of all lists that keys go through. */
void brisel_view_stop_scrolling(Evas_Object *scroller);
void brisel_view_stop_lists();

/* --- popups --- */

/* Makes a text of the popup or of its button ("button1", "button2") follow the language; id in the domain "brisel". */
void brisel_view_popup_translate(Evas_Object *popup, const char *button, const char *id);
/* The question before mails are deleted, not shown, without its text: title, Cancel and OK; back means Cancel. */
Evas_Object *brisel_view_delete_popup(Evas_Object *parent, Evas_Smart_Cb cancel_cb, Evas_Smart_Cb ok_cb, void *data);
/* The same for one mail, whole and shown, in *popup, in the place of what is there. */
void brisel_view_ask_to_delete_mail(Evas_Object **popup, Evas_Object *parent, Evas_Smart_Cb cancel_cb,
                                    Evas_Smart_Cb ok_cb, void *data);

/* --- the phone --- */

/* Whether an action that needs the phone can go ahead. Otherwise the user has been told: by the link popup, or by a
   toast that the phone does not answer. */
bool brisel_view_phone_ready(appdata *ad);
/* Opens the reply view of the way that the user prefers; noti_data as brisel_option_reply_templetes_draw_view takes
   it, and its result. */
int brisel_view_draw_reply(int mail_id, appdata *ad, full_noti_data *noti_data);
/* The popup that says that the phone's software takes no replies yet, with OK, shown; response_cb closes it. */
Evas_Object *brisel_view_update_required_popup(appdata *ad, Evas_Smart_Cb response_cb, void *data);

/* --- what could not be kept --- */

/* For what the user has confirmed (a deletion, a reply, a mark) and the store could not take: says so and offers it
   again. again is called with data when the user takes the offer and answers 0 when it went through now, else it is
   offered again. drop frees data when the offer ends either way; NULL: what failed is kept anyway, and is not offered
   over an offer that has a drop. Else a newer failure takes the place of the offer that stands, whose drop runs. */
void brisel_view_offer_again(appdata *ad, int (*again)(void *data), void (*drop)(void *data), void *data);
/* Ends the offer of that function, if it stands: what failed went through by itself. */
void brisel_view_withdraw_offer(int (*again)(void *data));

#endif
