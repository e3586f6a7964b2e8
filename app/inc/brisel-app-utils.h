/* Services that the screens share: popups, dates and numbers, contacts, the phone. Thread: the EFL main loop. */
#ifndef BRISEL_APP_UTILS_H
#define BRISEL_APP_UTILS_H

#include "app_efl.h"
#include "brisel-app-data.h"

/* --- popups: whoever receives one owns it; toasts delete themselves --- */

/* Texts are used as they are (already translated). timeout: seconds, 0.0 for none. response_cb (may be NULL) serves
   both buttons and the back key. The third argument is unused: NULL. */
Evas_Object *brisel_util_popup_create_with_empty_contents(void *data, Evas_Object *parent, void *reserved,
                                                          const char *style, Evas_Smart_Cb response_cb, double timeout,
                                                          Evas_Smart_Cb timeout_cb, const char *btn1_text,
                                                          const char *btn2_text);
Evas_Object *brisel_util_popup_create(void *data, Evas_Object *parent, void *reserved, const char *text,
                                      Evas_Smart_Cb response_cb, double timeout, Evas_Smart_Cb timeout_cb,
                                      const char *btn1_text, const char *btn2_text);
Evas_Object *brisel_util_scroll_popup_create(void *data, Evas_Object *parent, void *reserved, const char *text,
                                             Evas_Smart_Cb response_cb, double timeout, Evas_Smart_Cb timeout_cb,
                                             const char *btn1_text, const char *btn2_text);
/* title (may be NULL), content and button texts are ids of the domain "brisel". NULL when one is missing. */
Evas_Object *brisel_util_create_basic_2button_popup_with_app_data(appdata *ad, const char *title, const char *content,
                                                                  Evas_Smart_Cb back_cb, Evas_Smart_Cb btn1_cb,
                                                                  const char *btn1_text, Evas_Smart_Cb btn2_cb,
                                                                  const char *btn2_text);
/* An empty popup, not shown, that takes no touch which is left of the one that opened it. */
Evas_Object *brisel_util_popup_add(Evas_Object *parent);
/* Gives a popup that has a content of its own a title that may be of any length (markup, copied): one line, until a
   touch or the more key shows all of it in place of the content. */
void brisel_util_popup_set_name(Evas_Object *popup, const char *name);
/* A keyboard scrolls the popup's content, a scroller, and comes to the button at its end (NULL: there is none). */
void brisel_util_popup_scroll_by_keys(Evas_Object *popup, Evas_Object *button);
/* Deletes the popup (or other widget) that the field names, if any, and clears the field. */
void brisel_util_drop_popup(Evas_Object **popup);
void brisel_create_toast_popup(appdata *ad, const char *text);
/* A pulsing progress bar on the main window; the caller places and deletes it. */
Evas_Object *brisel_create_progress_popup(appdata *ad, const char *style);

/* --- dates and numbers: heap strings that the caller frees with free() --- */

char *brisel_get_locale(void);
char *brisel_get_timezone_str(void);
void brisel_update_timezone_str(void);
/* At start: ICU and the C library take the zone of the device's link, unless the environment names one (TZ). */
void brisel_util_init_timezone(void);
/* From the starting callback: ICU reads what it knows of the region while the toolkit starts. */
void brisel_util_read_formats_ahead(void);
int brisel_open_icu_pattern_generator(appdata *ad);
int brisel_close_icu_pattern_generator(appdata *ad);
/* What a locale does where no setting says otherwise: the order of dates as a date_format, and whether the clock has
   twelve hours. has_locale: a region is set, or the environment names one. */
int brisel_util_locale_date_order(const char *locale);
bool brisel_util_locale_has_12_hours(const char *locale);
bool brisel_util_has_locale(void);
/* How many digits have room where a row shows the time of day: a word of it that needs more is short. */
void brisel_util_set_time_room(double digits);
char *brisel_util_get_date_time_str_by_skeleton(const char *skeleton, const char *locale, time_t *t);
char *brisel_util_get_date_time_str_by_pattern(const char *pattern, const char *locale, time_t *t);
char *brisel_util_get_mailbox_date_time_str(time_t t, appdata *ad);
/* Whether both instants are in one year of the calendar that the locale shows: a date leaves it out then. */
bool brisel_util_is_same_year(time_t one, time_t other, const char *locale);
/* The date and then the time, in the reading order of the locale. */
char *brisel_util_join_date_time(const char *date, const char *time, const char *locale);
char *brisel_util_get_localized_number_str(int number, appdata *ad);

/* --- contacts, the phone, settings --- */

int brisel_util_get_person_id_by_email_address(const char *address); /* -1: none */
GSList *brisel_util_get_phone_number_by_person_id(int person_id);    /* contact_number records; the caller's */
void brisel_util_contact_number_free(void *contact);                 /* frees one contact_number */
int brisel_util_launch_voice_call(const char *number);               /* 1 launched, 0 failed */
int brisel_util_show_on_device(int *mail_ids, int count);            /* 1 */
/* The current link state; when it is 0 the platform's link popup has been launched and reply_cb will hear from it with
   ad, or nothing came, which ad's link_popup_came says. A toast tells of that, except in a launch ("refresh"). */
int brisel_util_bluetooth_connection_popup(appdata *ad, service_reply_cb reply_cb, const char *msg);
/* Whether the link popup's reply says that the phone is linked now. */
int brisel_util_link_is_up_in_reply(service_h reply);
void brisel_util_bt_connect_error_popup_result_cb(service_h request, service_h reply, int result, void *ad);
int brisel_util_get_reply_method(void); /* 0 templates, 1 emoticons */
void brisel_util_set_reply_method(int method);
int brisel_clear_all_new_flag(void);
/* Where what could not be kept is offered again; NULL: nowhere (any more). */
void brisel_util_set_offer_place(appdata *ad);

/* --- text and theme --- */

/* The longest text, in bytes, that a list row or a title shows of a name, address or template. */
#define BRISEL_SHOWN_TEXT_MAX 1024
/* UTF-8 text as markup that shows it literally, at most BRISEL_SHOWN_TEXT_MAX bytes, cut neither inside a character
   nor inside an entity. text NULL: NULL. The caller frees it with free(). Invalid UTF-8 shows as replacement
   characters. */
char *brisel_util_text_to_markup(const char *text);
/* The same without a bound, for bodies and subjects. */
char *brisel_util_text_to_markup_whole(const char *text);
/* Cuts text in place to at most max bytes at a character boundary. */
void brisel_util_cut_utf8(char *text, size_t max);
/* A new string with the first find replaced; a copy of src when it holds none. The caller frees it with free(). */
char *brisel_replace_str(const char *src, const char *find, const char *replace);
/* A layout with the group of one of the device's theme files, expanding both ways, not shown; NULL on failure. */
Evas_Object *brisel_util_load_edj(Evas_Object *parent, const char *file, const char *group);
/* An image of the images file, by the name of its group; its size and aspect are the caller's to set, shown. NULL on
   failure. */
Evas_Object *brisel_util_load_image(Evas_Object *parent, const char *name);
const char *brisel_util_get_text(const char *id); /* not to be freed */
/* "%d" in the translation of plural_id replaced by the number in the locale's digits, for the caller to free(). */
char *brisel_util_get_count_text(const char *plural_id, int number, appdata *ad);

/* Sends one delete request for the ids (copied). 0 when it went out, else the failing step's status: then it is logged,
   the user is told and can try again. Used by the sweep, the delete view and the option list. */
int brisel_util_request_delete(const int *mail_ids, int count);

#endif
