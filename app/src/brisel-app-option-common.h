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

/* --- the names by which the screens still call what they share --- */

template <typename T>
bool brisel_option_new_record(appdata *ad, int view_type, T **record) {
  return brisel_view_new_record(ad, view_type, record);
}
inline Evas_Object *brisel_option_create_list(Evas_Object *parent, Evas_Smart_Cb realized_cb) {
  return brisel_view_new_list(parent, realized_cb);
}
inline void brisel_option_hide_last_bottomline(Evas_Object *list, Elm_Object_Item *item) {
  brisel_view_hide_last_bottomline(list, item);
}
constexpr Elm_Genlist_Item_Class brisel_option_row_class(const char *style, Elm_Genlist_Item_Text_Get_Cb text_get,
                                                         Elm_Genlist_Item_Content_Get_Cb content_get = nullptr,
                                                         Elm_Genlist_Item_Del_Cb del = nullptr) {
  return brisel_view_row_class(style, text_get, content_get, del);
}
inline Elm_Genlist_Item_Class *brisel_option_new_row_class(const char *style, Elm_Genlist_Item_Text_Get_Cb text_get,
                                                           Elm_Genlist_Item_Content_Get_Cb content_get,
                                                           Elm_Genlist_Item_Del_Cb del) {
  return brisel_view_new_row_class(style, text_get, content_get, del);
}
inline Elm_Object_Item *brisel_option_add_row(Evas_Object *list, Elm_Object_Item *before,
                                              const Elm_Genlist_Item_Class *row_class, const void *data,
                                              Evas_Smart_Cb selected_cb, const void *selected_data) {
  return brisel_view_add_row(list, before, row_class, data, selected_cb, selected_data);
}
inline char *brisel_option_sender_title(const full_noti_data *mail) {
  return brisel_view_sender_title(mail);
}
inline Elm_Object_Item *brisel_option_push(appdata *ad, Evas_Object *layout, const char *title, Evas_Object *next_btn,
                                           Elm_Naviframe_Item_Pop_Cb pop_cb, brisel_view_head *head) {
  return brisel_view_push(ad, layout, title, next_btn, pop_cb, head);
}
inline bool brisel_option_on_top(const brisel_view_head *head) {
  return brisel_view_on_top(head);
}
inline void brisel_option_popup_translate(Evas_Object *popup, const char *button, const char *id) {
  brisel_view_popup_translate(popup, button, id);
}
inline Evas_Object *brisel_option_create_delete_popup(Evas_Object *parent, Evas_Smart_Cb cancel_cb, Evas_Smart_Cb ok_cb,
                                                      void *data) {
  return brisel_view_delete_popup(parent, cancel_cb, ok_cb, data);
}
inline bool brisel_option_phone_ready(appdata *ad) {
  return brisel_view_phone_ready(ad);
}

#endif
