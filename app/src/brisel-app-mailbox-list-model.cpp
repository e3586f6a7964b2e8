/* The list's model: the records of rows and header, mail_list, and the refresh that builds them from the store. It owns
   which records have been read and have a row, and which are places only. Called by the other files of the mailbox
   list, and by whoever takes the list down. */
#include "brisel-app-mailbox-list.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "app_efl.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"

/* --- mail_list --- */

/* The cells of mail_list by mail id, or NULL: while many mails are looked up, as walking the list for each takes its
   length times their number. Kept, it would take 32 bytes of each mail. */
static GHashTable *cells;
constexpr int walks_an_index_costs = 8;

indexed_mails::indexed_mails(appdata *ad, int looked_up) {
  if (cells || looked_up <= walks_an_index_costs) return;
  cells = g_hash_table_new(nullptr, nullptr);
  for (GList *cell = ad->mail_list; cell; cell = cell->next)
    g_hash_table_insert(cells, GINT_TO_POINTER(((item_data *)cell->data)->mail_id), cell);
}

static void _forget_cells() {
  if (cells) g_hash_table_destroy(cells);
  cells = nullptr;
}

indexed_mails::~indexed_mails() {
  _forget_cells();
}

static GList *_cell_of_mail(int mail_id, appdata *ad) {
  if (cells) return (GList *)g_hash_table_lookup(cells, GINT_TO_POINTER(mail_id));
  GList *cell = ad->mail_list;
  while (cell && ((item_data *)cell->data)->mail_id != mail_id) cell = cell->next;
  return cell;
}

item_data *_find_item_data_by_mail_id(int mail_id, appdata *ad) {
  GList *cell = _cell_of_mail(mail_id, ad);
  return cell ? (item_data *)cell->data : nullptr;
}

GList *_insert_into_model(appdata *ad, item_data *item, GList *next) {
  GList *cell;
  if (next || !ad->mail_list) {
    ad->mail_list = g_list_insert_before(ad->mail_list, next, item);
    cell = next ? next->prev : ad->mail_list;
  } else {
    /* The list's own end is walked to; the last row names its cell. */
    Elm_Object_Item *last_row = elm_genlist_last_item_get(ad->mailbox_genlist);
    GList *last = _cell_of_mail(((item_data *)elm_object_item_data_get(last_row))->mail_id, ad);
    cell = g_list_append(last ? last : g_list_last(ad->mail_list), item)->next;
  }
  if (cells) g_hash_table_insert(cells, GINT_TO_POINTER(item->mail_id), cell);
  return cell;
}

void _remove_from_model(appdata *ad, const item_data *item) {
  GList *cell = _cell_of_mail(item->mail_id, ad);
  if (!cell || cell->data != item) return;
  if (cells) g_hash_table_remove(cells, GINT_TO_POINTER(item->mail_id));
  ad->mail_list = g_list_delete_link(ad->mail_list, cell);
  _forget_arrival(ad, item->mail_id);
}

/* --- records --- */

/* As much of a subject as could be seen in a row, in bytes. */
constexpr size_t subject_shown_max = 240;

/* A subject as one line of plain text; NULL when there is none. */
static char *_line_of(const char *subject) {
  char *line = subject && *subject ? strndup(subject, subject_shown_max + 4) : nullptr;
  if (!line) return nullptr;
  brisel_util_cut_utf8(line, subject_shown_max);
  for (char *c = line; *c; c++)
    if ((unsigned char)*c < ' ') *c = ' ';
  return line;
}

void _read_item_state(item_data *item, const full_noti_data *mail) {
  item->is_new = mail->is_new;
  item->security_locked = mail->security_locked;
  item->is_read = mail->is_read;
  /* One that stays as it is stays where it is: a mail that is opened changes the new flags of all, and pieces of memory
     that change places leave holes. */
  char *subject = _line_of(mail->subject);
  if (g_strcmp0(subject, item->subject) == 0) return free(subject);
  free(item->subject);
  item->subject = subject;
}

static item_data *_item_data_of_place(const brisel_mail_place &place, appdata *ad) {
  item_data *item = (item_data *)calloc(1, sizeof(item_data));
  if (!item) {
    BRISEL_ERROR("memory allocation failed.");
    return nullptr;
  }
  item->type = ROW_MAIL;
  item->mail_id = place.mail_id;
  item->security_locked = place.security_locked;
  item->received_time = (int)CLAMP(place.received_time, (time_t)INT_MIN, (time_t)INT_MAX);
  item->ad = ad;
  return item;
}

static void _fill_list_data(item_data *item, const full_noti_data *mail) {
  item->account_id = mail->account_id;
  _read_item_state(item, mail);
  const char *sender = mail->from_name && *mail->from_name ? mail->from_name : mail->from_address;
  item->sender = sender ? strdup(sender) : nullptr;
}

/* What a row shows besides its place, out of the store's record of its mail. NULL when there is none. */
static item_data *_make_list_data(GSList *noti_list, item_data *place) {
  if (!noti_list || !noti_list->data) {
    BRISEL_ERROR("noti_list is NULL");
    return nullptr;
  }
  _fill_list_data(place, (full_noti_data *)noti_list->data);
  return place;
}

item_data *_make_list_data_by_mail_id(int mail_id, appdata *ad) {
  scoped_noti mail(brisel_full_noti_data_create());
  if (!mail) {
    BRISEL_ERROR("brisel_db_full_noti_data_create() failed!");
    return nullptr;
  }
  int result = brisel_db_get_noti_head_by_mail_id(mail_id, mail.get());
  if (result != 0) {
    BRISEL_WARN("brisel_db_get_full_noti_data_by_mail_id() failed! err:[%d], mail_id : %d", result, mail_id);
    return nullptr;
  }
  item_data *item = _item_data_of_place({mail_id, mail->received_time, mail->security_locked}, ad);
  if (item) _fill_list_data(item, mail.get());
  return item;
}

/* Reads the shown account into the header; an account that cannot be read makes the list the combined view. */
static void _read_group_account(group_item_data *group, appdata *ad) {
  scoped_account account;
  if (ad->account_id > 0) {
    account.reset(brisel_account_data_create());
    if (!account) {
      ad->account_id = 0;
      BRISEL_ERROR("account_data is NULL. Change combined view mode");
    } else if (int result = brisel_db_get_account_data_by_account_id(ad->account_id, account.get()); result != 0) {
      ad->account_id = 0;
      BRISEL_WARN("brisel_db_get_account_data_by_account_id is failed! err:[%d] Change combined view mode", result);
    }
  }
  free(group->title);
  group->account_id = ad->account_id;
  const char *title =
      ad->account_id > 0 ? account->email_address : brisel_util_get_text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB");
  group->title = title ? strdup(title) : nullptr;
}

static group_item_data *_make_group_data(appdata *ad) {
  BRISEL_INFO("Enter");
  BRISEL_INFO("account_id = %d", ad->account_id);
  group_item_data *group = (group_item_data *)calloc(1, sizeof(group_item_data));
  if (!group) {
    BRISEL_ERROR("memory allocation failed.");
    return nullptr;
  }
  group->type = ROW_GROUP;
  group->ad = ad;
  _read_group_account(group, ad);
  return group;
}

group_item_data *_update_group_data(appdata *ad, Elm_Object_Item *group_item) {
  BRISEL_INFO("Enter");
  if (!group_item) {
    BRISEL_ERROR("group_item is NULL, invalid parameter");
    return nullptr;
  }
  BRISEL_INFO("account_id = %d", ad->account_id);
  group_item_data *group = (group_item_data *)elm_object_item_data_get(group_item);
  if (!group) {
    BRISEL_ERROR("group_item_data is NULL.");
    return nullptr;
  }
  if (group->type != ROW_GROUP) {
    BRISEL_INFO("It's not a group item.");
    return nullptr;
  }
  _read_group_account(group, ad);
  return group;
}

void _free_list_data(item_data *item) {
  if (!item) {
    BRISEL_ERROR("item_data is NULL.");
    return;
  }
  free(item->sender);
  free(item->subject);
  free(item);
}

void _gl_del(void *data, Evas_Object *obj) {
  item_data *item = (item_data *)data;
  if (!item) return;
  if (appdata *ad = item->ad) {
    ad->blocked_item = nullptr;
    _remove_from_model(ad, item);
    if (ad->sweep_item && ad->sweep_item == item->it) {
      ad->sweep_item = nullptr;
      BRISEL_INFO("reset sweep_item");
    }
  }
  _free_list_data(item);
}

void _gl_group_del(void *data, Evas_Object *obj) {
  group_item_data *group = (group_item_data *)data;
  if (!group) return;
  free(group->title);
  free(group);
}

/* --- the model --- */

static Evas_Smart_Cb mail_selected_cb, group_selected_cb;

void _set_row_callbacks(Evas_Smart_Cb mail_selected, Evas_Smart_Cb group_selected) {
  mail_selected_cb = mail_selected;
  group_selected_cb = group_selected;
}

void _add_mail_row(appdata *ad, Elm_Object_Item *group_item, item_data *item, Elm_Object_Item *next) {
  Evas_Object *gl = ad->mailbox_genlist;
  Elm_Genlist_Item_Class *itc = _class_of_row(ad, item);
  if (next)
    item->it =
        elm_genlist_item_insert_before(gl, itc, item, group_item, next, ELM_GENLIST_ITEM_NONE, mail_selected_cb, item);
  else
    item->it = elm_genlist_item_append(gl, itc, item, group_item, ELM_GENLIST_ITEM_NONE, mail_selected_cb, item);
  _name_row(item);
}

/* A refresh reads the first screen's mails and makes their rows; the others follow while the loop is idle, so that
   thousands of rows nobody sees yet do not hold up the first picture. Whatever touches the model first makes the rest.
   What only wants to know of more mails gets records that are places: which mail, when, and whether it is locked, which
   is all that the reader asks of a mail beside its own. */
constexpr int rows_at_first = 24; /* more than the largest screen holds */
constexpr int rows_at_once = 128;
constexpr int places_at_once = 1024;
/* The cells of mail_list whose records have no row (and are nobody's but the model's), and how many of them, from the
   first on, are whole: the others are places. */
static GList *rowless;
static int whole;
/* Behind it, of the account read, are the mails that have not been read. */
static brisel_mail_place last_place;
static int places_account;
static bool places_wait;
static Ecore_Idler *row_idler;

Elm_Object_Item *_group_item(appdata *ad) {
  Elm_Object_Item *first = ad->mailbox_genlist ? elm_genlist_first_item_get(ad->mailbox_genlist) : nullptr;
  return first && elm_genlist_item_type_get(first) & ELM_GENLIST_ITEM_GROUP ? first : nullptr;
}

static GList *_prepend_record(GList *part, item_data *item) {
  if (item) return g_list_prepend(part, item);
  BRISEL_INFO("item_data is NULL.");
  return part;
}

/* Puts records behind the others. They come last first, as prepending makes them: appending walks the whole list. */
static void _append_records(appdata *ad, GList *last_first) {
  GList *part = g_list_reverse(last_first);
  for (GList *cell = cells ? part : nullptr; cell; cell = cell->next)
    g_hash_table_insert(cells, GINT_TO_POINTER(((item_data *)cell->data)->mail_id), cell);
  if (!rowless) rowless = part;
  ad->mail_list = g_list_concat(ad->mail_list, part);
}

/* The next places as records, most at most (0: all). 0, or the error of the store. */
static int _read_places(appdata *ad, const brisel_mail_place *after, int most) {
  brisel_mail_place *read_places = nullptr;
  int count = 0;
  const int result = brisel_db_get_mail_places_after(places_account, after, most, &read_places, &count);
  const std::unique_ptr<brisel_mail_place, decltype(&g_free)> places(read_places, g_free);
  places_wait = result == 0 && most > 0 && count == most;
  GList *part = nullptr;
  for (const brisel_mail_place *place = read_places; place < read_places + count; place++) {
    last_place = *place;
    part = _prepend_record(part, _item_data_of_place(*place, ad));
  }
  _append_records(ad, part);
  return result;
}

/* The next whole records, most at most, while no place waits for its row. 0, or the error of the store. */
static int _read_rows(appdata *ad, const brisel_mail_place *after, int most) {
  GSList *list = nullptr;
  int count = 0;
  const int result = brisel_db_get_noti_rows_after(places_account, after, most, &list, &count);
  const scoped_noti_list mails(list);
  places_wait = result == 0 && count == most;
  GList *part = nullptr;
  for (const GSList *node = list; node; node = node->next) {
    const full_noti_data *mail = (const full_noti_data *)node->data;
    last_place = {mail->mail_id, mail->received_time, mail->security_locked};
    item_data *item = _item_data_of_place(last_place, ad);
    part = _prepend_record(part, item);
    if (!item) continue;
    _fill_list_data(item, mail);
    whole++;
  }
  _append_records(ad, part);
  return result;
}

/* The list goes on with what it has. That it lacks some is said, unless nothing at all can be read: the launch tells
   that, and offers to try again. */
static void _tell_unreadable(appdata *ad) {
  int valid = 0;
  if (brisel_db_is_valid_target_account_count(&valid) != 0) return;
  brisel_create_toast_popup(ad, brisel_util_get_text("IDS_EMAIL_POP_THE_EMAILS_ON_THE_ZOLT_CANNOT_BE_READ"));
}

/* The next mails, and with the last of them their true number: some came or went since they were counted. */
static void _read_more(appdata *ad, int most, int (*read)(appdata *, const brisel_mail_place *, int)) {
  if (!places_wait) return;
  const brisel_mail_place after = last_place;
  const int result = read(ad, &after, most);
  if (result != 0) {
    BRISEL_WARN("more of the list cannot be read! err:[%d]", result);
    _tell_unreadable(ad);
  }
  Elm_Object_Item *group_item = _group_item(ad);
  group_item_data *group = group_item ? (group_item_data *)elm_object_item_data_get(group_item) : nullptr;
  const int count = places_wait ? 0 : (int)g_list_length(ad->mail_list);
  if (places_wait || !group || group->count == count) return;
  group->count = count;
  _update_header(group_item);
}

void brisel_complete_mail_list(appdata *ad) {
  _read_more(ad, 0, _read_places);
}

void brisel_complete_mail_list_around(int mail_id, int unlocked, appdata *ad) {
  while (places_wait) {
    GList *cell = ad->mail_list;
    while (cell && ((item_data *)cell->data)->mail_id != mail_id) cell = cell->next;
    int wanted = unlocked;
    while (cell && wanted > 0 && (cell = cell->next))
      if (!((item_data *)cell->data)->security_locked) wanted--;
    if (wanted == 0) return;
    _read_more(ad, places_at_once, _read_places);
  }
}

/* A mail that left the store after its place was read has no row; its event is on the way. */
static void _drop_place(appdata *ad, GList *cell, group_item_data *group) {
  item_data *item = (item_data *)cell->data;
  if (cells) g_hash_table_remove(cells, GINT_TO_POINTER(item->mail_id));
  ad->mail_list = g_list_delete_link(ad->mail_list, cell);
  _free_list_data(item);
  if (group) group->count--;
}

/* The next rows, rows_at_once at most; first those whose records are whole. */
static void _make_some_rows(appdata *ad, Elm_Object_Item *group_item, int count) {
  if (whole > 0) {
    for (; whole > 0 && count > 0; whole--, count--) {
      item_data *item = (item_data *)rowless->data;
      rowless = rowless->next;
      _add_mail_row(ad, group_item, item, nullptr);
    }
    return;
  }
  int ids[rows_at_once] = {}, wanted = 0, found = 0;
  for (GList *cell = rowless; cell && wanted < MIN(count, rows_at_once); cell = cell->next)
    ids[wanted++] = ((item_data *)cell->data)->mail_id;
  GSList *list = nullptr;
  const int result = brisel_db_get_noti_rows_by_mail_ids(ids, wanted, &list, &found);
  const scoped_noti_list mails(list);
  if (result != 0) BRISEL_WARN("brisel_db_get_noti_rows_by_mail_ids() failed! err:[%d]", result);
  GSList *node = list;
  for (int i = 0; i < wanted; i++) {
    GList *cell = rowless;
    rowless = rowless->next;
    item_data *item = (item_data *)cell->data;
    const bool found_it = node && ((full_noti_data *)node->data)->mail_id == item->mail_id;
    if (_make_list_data(found_it ? node : nullptr, item)) {
      _add_mail_row(ad, group_item, item, nullptr);
      node = node->next;
    } else {
      BRISEL_INFO("item_data is NULL.");
      _drop_place(ad, cell, group_item ? (group_item_data *)elm_object_item_data_get(group_item) : nullptr);
    }
  }
  if (found < wanted && group_item) _update_header(group_item);
}

void _let_go_of_rows_out_of_sight(appdata *ad, Elm_Object_Item *added) {
  if (!elm_object_item_track(added)) return;
  elm_object_item_untrack(added);
  evas_smart_objects_calculate(ad->evas);
}

static void _make_rows(appdata *ad, int count) {
  if (!rowless) return;
  Elm_Object_Item *group_item = _group_item(ad);
  const frozen_events frozen(ad->mailbox_genlist);
  while (rowless && count > 0) {
    Elm_Object_Item *last = elm_genlist_last_item_get(ad->mailbox_genlist);
    const bool is_empty = !last || last == group_item;
    if (!is_empty) _let_go_of_rows_out_of_sight(ad, last);
    const int slice = MIN(count, is_empty ? rows_at_first : rows_at_once);
    _make_some_rows(ad, group_item, slice);
    count -= slice;
  }
}

void brisel_make_first_rows(appdata *ad) {
  _make_rows(ad, rows_at_first);
}

bool _is_last_row(appdata *ad, const Elm_Object_Item *it) {
  return !rowless && !places_wait && it == elm_genlist_last_item_get(ad->mailbox_genlist);
}

static Eina_Bool _row_idler_cb(void *data) {
  appdata *ad = (appdata *)data;
  if (!rowless) _read_more(ad, rows_at_once, _read_rows);
  _make_rows(ad, rows_at_once);
  if (rowless || places_wait) return ECORE_CALLBACK_RENEW;
  row_idler = nullptr;
  brisel_db_give_back(); /* what was read for them */
  app_efl_memory_trim();
  return ECORE_CALLBACK_CANCEL;
}

/* The first picture is drawn beside the loop, which brings it to the screen as soon as nothing else keeps it. */
static Eina_Bool _first_row_idler_cb(void *data) {
  evas_sync(((appdata *)data)->evas);
  row_idler = ecore_idler_add(_row_idler_cb, data);
  return ECORE_CALLBACK_CANCEL;
}

void _make_all_rows(appdata *ad) {
  _make_rows(ad, INT_MAX);
  while (places_wait) {
    _read_more(ad, rows_at_once, _read_rows);
    _make_rows(ad, INT_MAX);
  }
  if (row_idler) ecore_idler_del(row_idler);
  row_idler = nullptr;
}

void brisel_free_mail_list(appdata *ad) {
  for (; rowless; rowless = rowless->next) _free_list_data((item_data *)rowless->data);
  places_wait = false;
  whole = 0;
  if (row_idler) ecore_idler_del(row_idler);
  row_idler = nullptr;
  _forget_cells();
  g_list_free(ad->mail_list);
  ad->mail_list = nullptr;
}

void _set_delete_btn(appdata *ad, bool enabled) {
  if (ad->delete_btn) elm_object_disabled_set(ad->delete_btn, enabled ? EINA_FALSE : EINA_TRUE);
}

/* The texts in place: making the header's drawing anew would lay out every block of the list again. */
void _update_header(Elm_Object_Item *group_item) {
  elm_genlist_item_fields_update(group_item, nullptr, ELM_GENLIST_ITEM_FIELD_TEXT);
  brisel_view_name_row(group_item);
}

void _refresh_mailbox_list(appdata *ad) {
  BRISEL_INFO("Enter");
  Evas_Object *gl = ad->mailbox_genlist;
  if (!gl) {
    BRISEL_INFO("gl is NULL");
    return;
  }
  ad->sweep_item = nullptr;
  ad->blocked_item = nullptr;
  _clear_arrivals(ad);
  brisel_free_mail_list(ad);
  brisel_tell_list_in_view(ad);

  BRISEL_INFO("ad->account_id : %d", ad->account_id);
  places_account = ad->account_id;
  /* The list without what nobody sees yet; a failure is told as that of the list. */
  int result = _read_rows(ad, nullptr, rows_at_first), mail_cnt = (int)g_list_length(ad->mail_list);
  if (result == 0 && places_wait) result = brisel_db_get_full_noti_data_count_by_account_id(places_account, &mail_cnt);
  if (result != 0) {
    BRISEL_INFO("brisel_db_get_full_noti_data_list_by_account_id() failed! err:[%d]", result);
    _tell_unreadable(ad);
  }
  BRISEL_INFO("mail_cnt = %d", mail_cnt);

  Elm_Object_Item *group_item = elm_genlist_first_item_get(gl);
  if (!group_item) {
    if (group_item_data *group = _make_group_data(ad)) {
      group_item =
          elm_genlist_item_append(gl, ad->itc_group, group, nullptr, ELM_GENLIST_ITEM_GROUP, group_selected_cb, group);
      group->count = mail_cnt;
      group->it = group_item;
      brisel_view_name_row(group_item);
      BRISEL_INFO("group item is added");
    }
  } else {
    elm_genlist_item_subitems_clear(group_item);
    group_item_data *group = _update_group_data(ad, group_item);
    if (!group) {
      brisel_free_mail_list(ad);
      elm_genlist_clear(gl);
      BRISEL_ERROR("group_item_data is NULL");
      return;
    }
    group->count = mail_cnt;
    _update_header(group_item);
  }

  if (ad->account_id != places_account) {
    /* The account turned out to be gone and the header is the combined view's: so are the mails under it. */
    _refresh_mailbox_list(ad);
    return;
  }

  if (!ad->list_is_covered) _make_rows(ad, rows_at_first);
  if (rowless || places_wait) row_idler = ecore_idler_add(_first_row_idler_cb, ad);
  _set_delete_btn(ad, mail_cnt > 0);
}

/* All accounts, or NULL after the log line that says why. */
scoped_account_list _read_accounts() {
  GSList *list = nullptr;
  int result = brisel_db_get_all_account_data(&list);
  scoped_account_list accounts(list);
  if (result != 0 || !list || !list->data) {
    BRISEL_WARN("brisel_db_get_all_account_data is failed! [%d]", result);
    accounts.reset();
  }
  return accounts;
}
