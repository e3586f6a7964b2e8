/* What a row of the mailbox shows: the getters of the rows and of the header, and the looks that a drawing keeps or
   gets anew. Called by the list itself through its classes and callbacks. */
#include "brisel-app-mailbox-list.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "brisel-app-stage.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "brisel-scoped.h"
#include "vconf.h"

int _scaled(int pixels) {
  return (int)(pixels * elm_config_scale_get());
}

Evas_Object *_sized(Evas_Object *object, int pixels) {
  evas_object_size_hint_min_set(object, _scaled(pixels), _scaled(pixels));
  return object;
}

static void _paint_color_bar(Evas_Object *bar, int account_id) {
  unsigned int rgba = 0; /* an account without a colour has no bar to see */
  brisel_util_get_account_color(account_id, &rgba);
  int red = (int)(rgba >> 24 & 0xFF), green = (int)(rgba >> 16 & 0xFF), blue = (int)(rgba >> 8 & 0xFF);
  int alpha = (int)(rgba & 0xFF);
  evas_color_argb_premul(alpha, &red, &green, &blue);
  evas_object_color_set(bar, red, green, blue, alpha);
}

Evas_Object *brisel_util_create_color_bar(Evas_Object *parent, int account_id) {
  Evas_Object *bar = evas_object_rectangle_add(evas_object_evas_get(parent));
  _paint_color_bar(bar, account_id);
  evas_object_size_hint_min_set(bar, _scaled(7), 0);
  evas_object_size_hint_max_set(bar, _scaled(7), -1);
  return bar;
}

static char *_gl_group_text_get(void *data, Evas_Object *obj, const char *part) {
  group_item_data *group = (group_item_data *)data;
  if (!group) {
    BRISEL_WARN("data is NULL");
    return nullptr;
  }
  if (!strcmp(part, "elm.text.1")) {
    if (group->account_id == 0) return strdup(brisel_util_get_text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"));
    return brisel_util_text_to_markup(group->title);
  }
  if (!strcmp(part, "elm.text.2")) {
    scoped_text number(brisel_util_get_localized_number_str(group->count, group->ad));
    char text[80];
    snprintf(text, sizeof(text), "(%s)", number.get());
    return strdup(text);
  }
  return nullptr;
}

static bool subjects_shown = true;

/* --- the subject's place --- */

/* All at scale 1: what is beside the two texts, a letter of the time, and the least that a subject is of use with. */
constexpr int texts_beside = 42, least_subject = 90;
constexpr double time_letter = 10.3;
constexpr int whole_date = 11; /* letters, with the blank behind it */

/* About as many letters as the time has: its true text costs as much as drawing the row. */
static int _time_letters(time_t received, const appdata *ad) {
  struct tm now = {}, then = {};
  const time_t now_time = time(nullptr);
  localtime_r(&now_time, &now);
  localtime_r(&received, &then);
  const int clock = ad->time_format == 1 ? 8 : 5;
  if (now.tm_year == then.tm_year && now.tm_yday == then.tm_yday) return clock;
  return clock + (brisel_util_is_same_year(now_time, received, ad->locale) ? 6 : whole_date);
}

/* At scale 1. */
static double _row_width(const appdata *ad) {
  return ad->root_w * (brisel_stage_style() ? 0.75 : 1.0) / elm_config_scale_get();
}

/* Beside the time while there is room for a few words; below it otherwise, for the date comes first and whole. */
static bool _subject_is_below(const appdata *ad, const item_data *item) {
  if (!item->subject || !subjects_shown || ad->root_w < 1) return false;
  return _row_width(ad) - texts_beside - time_letter * _time_letters(item->received_time, ad) < least_subject;
}

Elm_Genlist_Item_Class *_class_of_row(const appdata *ad, const item_data *item) {
  return _subject_is_below(ad, item) ? ad->itc_mail_below : ad->itc_mail;
}

/* The header floats at the top, but counts as out of sight once its own place is. */
static void _update_texts(Evas_Object *gl) {
  elm_genlist_realized_items_update(gl);
  Elm_Object_Item *first = elm_genlist_first_item_get(gl);
  if (first && elm_genlist_item_type_get(first) & ELM_GENLIST_ITEM_GROUP) _update_header(first);
}

/* The toolkit draws each row that gets another class, to measure it: those above what is in sight must have their
   height at once, or all would move later; the others get it in steps, while the loop is idle. */
constexpr int rows_fitted_at_once = 32;
static Ecore_Idler *fit_idler;

/* From the first row on: all through the record last (NULL: none), and rows_fitted_at_once of the others. Whether some
   are left. */
static bool _fit_rows(appdata *ad, const item_data *last) {
  int changed = 0, others = last ? 0 : rows_fitted_at_once;
  bool are_left = false;
  for (GList *cell = ad->mail_list; cell; cell = cell->next) {
    const item_data *item = (item_data *)cell->data;
    Elm_Genlist_Item_Class *itc = item->it ? _class_of_row(ad, item) : nullptr;
    if (itc && elm_genlist_item_item_class_get(item->it) != itc) {
      if (!last && others-- == 0) {
        are_left = true;
        break;
      }
      elm_genlist_item_item_class_update(item->it, itc);
      changed++;
    }
    if (item != last) continue;
    last = nullptr;
    others = rows_fitted_at_once;
  }
  if (changed > 0) brisel_view_close_holes(ad->mailbox_genlist);
  return are_left;
}

static Eina_Bool _fit_idler_cb(void *data) {
  if (_fit_rows((appdata *)data, nullptr)) return ECORE_CALLBACK_RENEW;
  fit_idler = nullptr;
  return ECORE_CALLBACK_CANCEL;
}

static void _stop_fitting() {
  if (fit_idler) ecore_idler_del(fit_idler);
  fit_idler = nullptr;
}

static const item_data *_last_drawn(const Evas_Object *gl) {
  Eina_List *drawn = elm_genlist_realized_items_get(gl);
  Elm_Object_Item *row = (Elm_Object_Item *)eina_list_last_data_get(drawn);
  eina_list_free(drawn);
  const item_data *item = row ? (item_data *)elm_object_item_data_get(row) : nullptr;
  return item && item->type == ROW_MAIL ? item : nullptr;
}

void brisel_fit_mailbox_rows(appdata *ad) {
  brisel_util_set_time_room((_row_width(ad) - texts_beside) / time_letter - whole_date);
  if (!ad->mailbox_genlist) return;
  _stop_fitting();
  if (_fit_rows(ad, _last_drawn(ad->mailbox_genlist))) fit_idler = ecore_idler_add(_fit_idler_cb, ad);
}

void brisel_update_mailbox_texts(appdata *ad) {
  if (!ad->mailbox_genlist) return;
  brisel_fit_mailbox_rows(ad);
  _update_texts(ad->mailbox_genlist);
  brisel_name_mailbox_rows(ad);
}

static void _read_subjects_setting() {
  int shown = 1;
  subjects_shown = vconf_get_bool(BRISEL_KEY_LIST_SUBJECT, &shown) < 0 || shown;
}

static void _subjects_setting_cb(keynode_t *node, void *data) {
  appdata *ad = (appdata *)data;
  const bool were_shown = subjects_shown;
  _read_subjects_setting();
  if (subjects_shown == were_shown) return;
  brisel_update_mailbox_texts(ad);
}

static void _list_deleted_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  vconf_ignore_key_changed(BRISEL_KEY_LIST_SUBJECT, _subjects_setting_cb);
  _stop_fitting();
}

void _follow_row_settings(appdata *ad) {
  _read_subjects_setting();
  vconf_notify_key_changed(BRISEL_KEY_LIST_SUBJECT, _subjects_setting_cb, ad);
  evas_object_event_callback_add(ad->mailbox_genlist, EVAS_CALLBACK_DEL, _list_deleted_cb, nullptr);
}

static char *_subject_text(const item_data *item) {
  return item->subject && subjects_shown ? brisel_util_text_to_markup(item->subject) : nullptr;
}

static char *_gl_text_get(void *data, Evas_Object *obj, const char *part) {
  item_data *item = (item_data *)data;
  if (!item) {
    BRISEL_WARN("data is NULL");
    return nullptr;
  }
  if (!strcmp(part, "elm.text.1")) return brisel_util_text_to_markup(item->sender);
  if (!strcmp(part, "elm.text.2")) return brisel_util_get_mailbox_date_time_str(item->received_time, item->ad);
  if (!strcmp(part, "elm.text.subject")) return _subject_text(item);
  if (!strcmp(part, "elm.text.noti")) return item->is_new ? strdup("N") : nullptr;
  if (!strcmp(part, "elm.text.sweep")) return strdup(brisel_util_get_text("IDS_EMAIL_BODY_DELETED"));
  return nullptr;
}

static Evas_Object *_gl_icon_get(void *data, Evas_Object *obj, const char *part) {
  item_data *item = (item_data *)data;
  if (!item) {
    BRISEL_WARN("data is NULL");
    return nullptr;
  }
  if (!strcmp(part, "elm.icon")) {
    if (!item->is_new) return nullptr;
    Evas_Object *mark = brisel_util_load_image(obj, "b_listnoti_popupbg.png");
    return mark ? _sized(mark, 30) : nullptr;
  }
  if (!strcmp(part, "elm.swallow.colorbar")) return brisel_util_create_color_bar(obj, item->account_id);
  if (!strcmp(part, "elm.icon.sweep")) {
    /* Made for the one row that is swept: a button and its picture for each would be a third of what a row costs. */
    if (!item->it || item->it != item->ad->sweep_item) return nullptr;
    Evas_Object *undo = elm_button_add(obj);
    elm_object_style_set(undo, "list_divider_btn");
    brisel_view_set_spoken_id(undo, "IDS_EMAIL_SK_CANCEL_ABB");
    elm_object_focus_allow_set(undo, EINA_FALSE);
    evas_object_propagate_events_set(undo, EINA_FALSE);
    evas_object_smart_callback_add(undo, "clicked", _revert_btn_select_cb, item);
    evas_object_size_hint_min_set(undo, 1, 1);
    evas_object_size_hint_align_set(undo, EVAS_HINT_FILL, EVAS_HINT_FILL);
    if (Evas_Object *image = brisel_util_load_image(undo, "b_email_swipe-delete.png"))
      elm_object_content_set(undo, _sized(image, 50));
    return undo;
  }
  return nullptr;
}

/* A row that comes into sight gets the drawing of one that went, contents included: making them anew is most of
   what a scrolled row costs. NULL makes the list ask _gl_icon_get. */
static Evas_Object *_gl_icon_reuse(void *data, Evas_Object *obj, const char *part, Evas_Object *old) {
  item_data *item = (item_data *)data;
  if (!item || !old) return nullptr;
  if (!strcmp(part, "elm.icon")) return item->is_new ? old : nullptr;
  if (!strcmp(part, "elm.swallow.colorbar")) {
    _paint_color_bar(old, item->account_id);
    return old;
  }
  return nullptr;
}

void _row_realized_cb(void *data, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  Elm_Object_Item *it = (Elm_Object_Item *)event_info;
  _restore_swept_look(ad, it, true);
  const item_data *item = it ? (item_data *)elm_object_item_data_get(it) : nullptr;
  if (item && item->type == ROW_MAIL && item->is_read) elm_object_item_signal_emit(it, "elm,state,read", "");
  if (it && _is_last_row(ad, it)) elm_object_item_signal_emit(it, "elm,state,bottomline,hide", "");
}

void _row_unrealized_cb(void *data, Evas_Object *obj, void *event_info) {
  _restore_swept_look((appdata *)data, (Elm_Object_Item *)event_info, false);
}

void _mailbox_list_language_changed_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  _update_texts(obj);
}

Elm_Genlist_Item_Class *_new_group_class(Elm_Genlist_Item_Del_Cb del) {
  return brisel_view_new_row_class(brisel_stage_style() ? "email/group.round" : "email/group", _gl_group_text_get,
                                   nullptr, del);
}

Elm_Genlist_Item_Class *_new_mail_class(const char *style, Elm_Genlist_Item_Del_Cb del) {
  Elm_Genlist_Item_Class *row_class = brisel_view_new_row_class(style, _gl_text_get, _gl_icon_get, del);
  if (row_class) row_class->func.reusable_content_get = _gl_icon_reuse;
  return row_class;
}
