/* The mailbox list: its rows and header, its live updates, sweep to delete, and the choice of the account shown. */
#include <climits>
#include <cstdlib>
#include <cstring>

#include "app_efl.h"
#include "brisel-app-option-common.h"
#include "brisel-app-utils.h"
#include "brisel-app.h"
#include "brisel-scoped.h"
#include "efl_assist.h"
#include "genlist-fx.h"

enum row_type { ROW_MAIL = 0, ROW_GROUP = 1 };

/* A row of the account selection popup; owned by its genlist item. */
struct popup_item_data {
  int index;      /* state value of the row's radio: 0 combined, then the accounts in the store's order */
  int account_id; /* 0: the combined row */
  char *address;  /* owned */
  char *name;     /* owned; NULL for the combined row */
  Elm_Object_Item *it;
  appdata *ad;
};

/* The way the swept row went: a row that is drawn anew while swept must look the same again. */
static const char *sweep_signal;

static void _gl_mail_sel(void *data, Evas_Object *obj, void *event_info);
static void _gl_group_sel(void *data, Evas_Object *obj, void *event_info);
static void _popup_response_cb(void *data, Evas_Object *obj, void *event_info);

static int _scaled(int pixels) {
  return (int)(pixels * elm_config_scale_get());
}

static Evas_Object *_sized(Evas_Object *object, int pixels) {
  evas_object_size_hint_min_set(object, _scaled(pixels), _scaled(pixels));
  return object;
}

/* --- records -------------------------------------------------------------------------------------------------------
 */

static item_data *_item_data_from_mail(const full_noti_data *mail, appdata *ad) {
  item_data *item = (item_data *)calloc(1, sizeof(item_data));
  if (!item) {
    BRISEL_ERROR("memory allocation failed.");
    return nullptr;
  }
  item->type = ROW_MAIL;
  item->account_id = mail->account_id;
  item->mail_id = mail->mail_id;
  item->is_new = mail->is_new;
  item->security_locked = mail->security_locked;
  item->received_time = (int)CLAMP(mail->received_time, (time_t)INT_MIN, (time_t)INT_MAX);
  const char *sender = mail->from_name && *mail->from_name ? mail->from_name : mail->from_address;
  item->sender = sender ? strdup(sender) : nullptr;
  item->ad = ad;
  return item;
}

static item_data *_make_list_data(GSList *noti_list, appdata *ad) {
  if (!noti_list || !noti_list->data) {
    BRISEL_ERROR("noti_list is NULL");
    return nullptr;
  }
  return _item_data_from_mail((full_noti_data *)noti_list->data, ad);
}

static item_data *_make_list_data_by_mail_id(int mail_id, appdata *ad) {
  scoped_noti mail(brisel_full_noti_data_create());
  if (!mail) {
    BRISEL_ERROR("brisel_db_full_noti_data_create() failed!");
    return nullptr;
  }
  int result = brisel_db_get_full_noti_data_by_mail_id(mail_id, mail.get());
  if (result != 0) {
    BRISEL_WARN("brisel_db_get_full_noti_data_by_mail_id() failed! err:[%d], mail_id : %d", result, mail_id);
    return nullptr;
  }
  return _item_data_from_mail(mail.get(), ad);
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

static group_item_data *_update_group_data(appdata *ad, Elm_Object_Item *group_item) {
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

static void _free_list_data(item_data *item) {
  if (!item) {
    BRISEL_ERROR("item_data is NULL.");
    return;
  }
  free(item->sender);
  free(item);
}

static void _gl_del(void *data, Evas_Object *obj) {
  item_data *item = (item_data *)data;
  if (!item) return;
  if (appdata *ad = item->ad) {
    ad->blocked_item = nullptr;
    if (ad->mail_list) ad->mail_list = g_list_remove(ad->mail_list, item);
    if (ad->sweep_item && ad->sweep_item == item->it) {
      ad->sweep_item = nullptr;
      BRISEL_INFO("reset sweep_item");
    }
  }
  _free_list_data(item);
}

static void _gl_group_del(void *data, Evas_Object *obj) {
  group_item_data *group = (group_item_data *)data;
  if (!group) return;
  free(group->title);
  free(group);
}

/* --- the model ------------------------------------------------------------------------------------------------------
 */

static int _compare_mail_by_received_time(const void *a, const void *b) {
  const item_data *left = (const item_data *)a, *right = (const item_data *)b;
  if (!left || !right) {
    BRISEL_INFO("a or b is NULL");
    return 0;
  }
  return left->received_time > right->received_time ? -1 : 1;
}

static item_data *_find_item_data_by_mail_id(int mail_id, GList *mail_list) {
  for (GList *cell = mail_list; cell; cell = cell->next) {
    item_data *item = (item_data *)cell->data;
    if (item && item->mail_id == mail_id) return item;
  }
  return nullptr;
}

static void _append_mail_row(appdata *ad, Elm_Object_Item *group_item, item_data *item) {
  item->it = elm_genlist_item_append(ad->mailbox_genlist, ad->itc_mail, item, group_item, ELM_GENLIST_ITEM_NONE,
                                     _gl_mail_sel, item);
}

/* A refresh makes the whole model at once and the rows of its first screens; the others follow while the loop is idle,
   so that thousands of rows nobody sees yet do not hold up the first picture. Whatever touches the model first makes
   the rest. These are the cells of mail_list whose records have no row yet (and are nobody's but the model's). */
constexpr int rows_at_once = 128;
constexpr int rows_in_block = 6;
static GList *rowless;
static Ecore_Idler *row_idler;

static Elm_Object_Item *_group_item(appdata *ad) {
  Elm_Object_Item *first = ad->mailbox_genlist ? elm_genlist_first_item_get(ad->mailbox_genlist) : nullptr;
  return first && elm_genlist_item_type_get(first) & ELM_GENLIST_ITEM_GROUP ? first : nullptr;
}

/* While many rows change: the canvas would look after each of them for what is under the finger now. */
struct frozen_events {
  Evas *canvas;
  explicit frozen_events(Evas_Object *on) : canvas(on ? evas_object_evas_get(on) : nullptr) {
    if (canvas) evas_event_freeze(canvas);
  }
  ~frozen_events() {
    if (!canvas) return;
    evas_event_thaw(canvas);
    evas_event_thaw_eval(canvas);
  }
  frozen_events(const frozen_events &) = delete;
  frozen_events &operator=(const frozen_events &) = delete;
};

static void _make_rows(appdata *ad, int count) {
  if (!rowless) return;
  Elm_Object_Item *group_item = _group_item(ad);
  const frozen_events frozen(ad->mailbox_genlist);
  for (; rowless && count > 0; rowless = rowless->next, count--)
    _append_mail_row(ad, group_item, (item_data *)rowless->data);
}

static Eina_Bool _row_idler_cb(void *data) {
  _make_rows((appdata *)data, rows_at_once);
  if (rowless) return ECORE_CALLBACK_RENEW;
  row_idler = nullptr;
  app_efl_memory_trim(); /* the records of the whole mailbox that were read for it */
  return ECORE_CALLBACK_CANCEL;
}

static void _make_all_rows(appdata *ad) {
  _make_rows(ad, INT_MAX);
  if (row_idler) ecore_idler_del(row_idler);
  row_idler = nullptr;
}

void brisel_free_mail_list(appdata *ad) {
  for (; rowless; rowless = rowless->next) _free_list_data((item_data *)rowless->data);
  if (row_idler) ecore_idler_del(row_idler);
  row_idler = nullptr;
  g_list_free(ad->mail_list);
  ad->mail_list = nullptr;
}

static void _set_delete_btn(appdata *ad, bool enabled) {
  if (ad->delete_btn) elm_object_disabled_set(ad->delete_btn, enabled ? EINA_FALSE : EINA_TRUE);
}

/* The texts in place: making the header's drawing anew would lay out every block of the list again. */
static void _update_header(Elm_Object_Item *group_item) {
  elm_genlist_item_fields_update(group_item, nullptr, ELM_GENLIST_ITEM_FIELD_TEXT);
}

static void _refresh_mailbox_list(appdata *ad) {
  Evas_Object *gl = ad->mailbox_genlist;
  if (!gl) {
    BRISEL_INFO("gl is NULL");
    return;
  }
  ad->sweep_item = nullptr;
  ad->blocked_item = nullptr;
  brisel_free_mail_list(ad);

  BRISEL_INFO("ad->account_id : %d", ad->account_id);
  const int read_account = ad->account_id;
  GSList *list = nullptr;
  int mail_cnt = 0;
  int result = brisel_db_get_full_noti_data_list_by_account_id(read_account, &list, &mail_cnt);
  scoped_noti_list noti_list(list);
  if (result != 0) {
    BRISEL_INFO("brisel_db_get_full_noti_data_list_by_account_id() failed! err:[%d]", result);
    mail_cnt = 0;
  }
  BRISEL_INFO("mail_cnt = %d", mail_cnt);

  Elm_Object_Item *group_item = elm_genlist_first_item_get(gl);
  if (!group_item) {
    if (group_item_data *group = _make_group_data(ad)) {
      group_item =
          elm_genlist_item_append(gl, ad->itc_group, group, nullptr, ELM_GENLIST_ITEM_GROUP, _gl_group_sel, group);
      group->count = mail_cnt;
      group->it = group_item;
      BRISEL_INFO("group item is added");
    }
  } else {
    elm_genlist_item_subitems_clear(group_item);
    group_item_data *group = _update_group_data(ad, group_item);
    if (!group) {
      elm_genlist_clear(gl);
      BRISEL_ERROR("group_item_data is NULL");
      return;
    }
    group->count = mail_cnt;
    _update_header(group_item);
  }

  if (ad->account_id != read_account) {
    /* The account turned out to be gone and the header is the combined view's: so are the mails under it. */
    noti_list.reset();
    _refresh_mailbox_list(ad);
    return;
  }

  /* The list is built backwards and turned once: appending walks the whole list each time. */
  GSList *node = noti_list.get();
  for (int i = 0; i < mail_cnt; i++) {
    item_data *item = _make_list_data(node, ad);
    if (node) node = node->next;
    if (!item) {
      BRISEL_INFO("item_data is NULL.");
      if (!node) break; /* the store promised more mails than it gave */
      continue;
    }
    ad->mail_list = g_list_prepend(ad->mail_list, item);
  }
  rowless = ad->mail_list = g_list_reverse(ad->mail_list);
  _make_rows(ad, rows_at_once);
  if (rowless) row_idler = ecore_idler_add(_row_idler_cb, ad);
  _set_delete_btn(ad, mail_cnt > 0);
}

/* The cell of the new row: before the first older row, behind every newer one and every one of the same time. NULL when
   the mail is there already: a refresh may have read it before its event came, and it must not stand there twice. */
static GList *_insert_sorted(appdata *ad, item_data *item) {
  GList *last = nullptr, *next = ad->mail_list;
  for (; next && _compare_mail_by_received_time(item, next->data) > 0; last = next, next = next->next)
    if (((item_data *)next->data)->mail_id == item->mail_id) return nullptr;
  ad->mail_list = g_list_insert_before(ad->mail_list, next, item);
  return next ? next->prev : last ? last->next : ad->mail_list;
}

static void _insert_mail_by_mail_id(int mail_id, appdata *ad) {
  BRISEL_INFO("mail_id : %d", mail_id);
  Evas_Object *gl = ad->mailbox_genlist;
  if (!gl) {
    BRISEL_INFO("gl is NULL");
    return;
  }
  Elm_Object_Item *group_item = elm_genlist_first_item_get(gl);
  item_data *item = _make_list_data_by_mail_id(mail_id, ad);
  if (!item) {
    BRISEL_WARN("item_data is NULL.");
    return;
  }
  if (ad->account_id != 0 && ad->account_id != item->account_id) {
    BRISEL_INFO("No need to insert item_data->account_id : %d ad->account_id : %d", item->account_id, ad->account_id);
    _free_list_data(item);
    return;
  }
  if (!ad->mail_list) {
    BRISEL_INFO("ad->mail_list is NULL. Append item.");
    _append_mail_row(ad, group_item, item);
    ad->mail_list = g_list_append(ad->mail_list, item);
    return;
  }
  GList *cell = _insert_sorted(ad, item);
  if (!cell) {
    _free_list_data(item);
    BRISEL_WARN("No such item_data");
    return;
  }
  item_data *next = cell->next ? (item_data *)cell->next->data : nullptr;
  if (!next) {
    BRISEL_INFO("next_data is NULL. Append item.");
    _append_mail_row(ad, group_item, item);
    elm_object_item_signal_emit(((item_data *)cell->prev->data)->it, "elm,state,bottomline,show", "");
  } else {
    item->it = elm_genlist_item_insert_before(gl, ad->itc_mail, item, group_item, next->it, ELM_GENLIST_ITEM_NONE,
                                              _gl_mail_sel, item);
  }
}

static void _remove_mail_by_mail_id(int mail_id, appdata *ad) {
  BRISEL_INFO("mail_id : %d", mail_id);
  if (!ad->mailbox_genlist) {
    BRISEL_INFO("gl is NULL");
  } else if (!ad->mail_list) {
    BRISEL_INFO("ad->mail_list is NULL");
  } else {
    item_data *item = _find_item_data_by_mail_id(mail_id, ad->mail_list);
    if (!item || !item->it) {
      BRISEL_INFO("Not found on mail_list");
      return;
    }
    elm_object_item_del(item->it);
    ad->mail_list = g_list_remove(ad->mail_list, item);
  }
}

static void _update_mail_by_mail_id(int mail_id, appdata *ad) {
  BRISEL_INFO("mail_id : %d", mail_id);
  if (!ad->mailbox_genlist) {
    BRISEL_INFO("gl is NULL");
    return;
  }
  if (!ad->mail_list) {
    BRISEL_INFO("ad->mail_list is NULL");
    return;
  }
  item_data *item = _find_item_data_by_mail_id(mail_id, ad->mail_list);
  if (!item || !item->it) return;
  scoped_noti mail(brisel_full_noti_data_create());
  if (!mail) {
    BRISEL_WARN("brisel_db_full_noti_data_create() failed!");
    return;
  }
  if (brisel_db_get_full_noti_data_by_mail_id(mail_id, mail.get()) != 0) return;
  item->is_new = mail->is_new;
  elm_genlist_item_update(item->it);
}

/* The number of mails of all accounts. Only the number is wanted, so the store counts instead of handing every mail
   over: this runs at every event. A failure is told as the failed read of the mails that it is, and counts as 0. */
static int _count_all_mails() {
  int count = 0;
  int result = brisel_db_get_full_noti_data_count_by_account_id(0, &count);
  if (result == 0) return count;
  BRISEL_INFO("brisel_db_get_full_noti_data_list_by_account_id() failed! err:[%d]", result);
  return 0;
}

/* Puts shown in the place of hidden on the mailbox's own item of the view stack. */
static void _swap_mailbox_content(appdata *ad, Evas_Object *hidden, Evas_Object *shown, Eina_Bool title) {
  Elm_Object_Item *item = elm_naviframe_bottom_item_get(ad->naviframe);
  evas_object_hide(hidden);
  elm_object_item_part_content_unset(item, "elm.swallow.content");
  elm_object_item_part_content_set(item, "elm.swallow.content", shown);
  if (shown == ad->nocontents_layout)
    elm_object_domain_translatable_part_text_set(shown, "elm.text", BRISEL_DOMAIN, "IDS_EMAIL_BODY_NO_EMAILS");
  elm_naviframe_item_title_enabled_set(item, title, EINA_FALSE);
}

static void _show_nocontents(appdata *ad) {
  _swap_mailbox_content(ad, ad->mailbox_genlist, ad->nocontents_layout, EINA_FALSE);
  ad->nocontents_shown = 1;
}

static void _show_genlist(appdata *ad) {
  _swap_mailbox_content(ad, ad->nocontents_layout, ad->mailbox_genlist, EINA_TRUE);
  ad->nocontents_shown = 0;
}

/* The header count, the delete button and the no-contents switch after an event. */
static void _update_list_surroundings(appdata *ad) {
  int mail_cnt = (int)g_list_length(ad->mail_list);
  BRISEL_INFO("mail_cnt = %d", mail_cnt);
  /* Before the screen is built there is nothing to adjust: the build reads the store itself. */
  if (!ad->mailbox_genlist) return;
  Elm_Object_Item *first = elm_genlist_first_item_get(ad->mailbox_genlist);
  group_item_data *group = first ? (group_item_data *)elm_object_item_data_get(first) : nullptr;
  if (group && group->it && group->type == ROW_GROUP && group->count != mail_cnt) {
    BRISEL_INFO("Update group count(%d->%d)", group->count, mail_cnt);
    group->count = mail_cnt;
    _update_header(group->it);
  }
  _set_delete_btn(ad, mail_cnt > 0);
  brisel_option_hide_last_bottomline(ad->mailbox_genlist, elm_genlist_last_item_get(ad->mailbox_genlist));

  int total = _count_all_mails();
  if (!ad->nocontents_shown && total == 0) {
    BRISEL_INFO("genlist is shown. show nocontents view");
    _show_nocontents(ad);
  } else if (ad->nocontents_shown && total > 0) {
    BRISEL_INFO("Nocontent view is shown. show genlist");
    _show_genlist(ad);
  }
}

/* All accounts, or NULL after the log line that says why. */
static scoped_account_list _read_accounts() {
  GSList *list = nullptr;
  int result = brisel_db_get_all_account_data(&list);
  scoped_account_list accounts(list);
  if (result != 0 || !list || !list->data) {
    BRISEL_WARN("brisel_db_get_all_account_data is failed! [%d]", result);
    accounts.reset();
  }
  return accounts;
}

/* With a single account there is nothing to combine. false when that account cannot be read. */
static bool _show_single_account(appdata *ad) {
  scoped_account_list accounts = _read_accounts();
  if (!accounts) return false;
  ad->account_id = ((account_data *)accounts->data)->account_id;
  _refresh_mailbox_list(ad);
  return true;
}

static bool _header_is_stale(appdata *ad) {
  Elm_Object_Item *first = ad->mailbox_genlist ? elm_genlist_first_item_get(ad->mailbox_genlist) : nullptr;
  group_item_data *group = first ? (group_item_data *)elm_object_item_data_get(first) : nullptr;
  return group && group->type == ROW_GROUP && group->account_id != ad->account_id;
}

void brisel_update_mailbox_list(int update_type, GSList *id_list, appdata *ad) {
  BRISEL_INFO("updated_cnt : %d, type : %d", (int)g_slist_length(id_list), update_type);
  if (!id_list) return;
  const frozen_events frozen(ad->mailbox_genlist);
  _make_all_rows(ad);

  bool only_account = ad->account_cnt == 1;
  if (update_type == BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE) {
    bool shown_deleted = false;
    for (GSList *cell = id_list; cell && !shown_deleted; cell = cell->next) {
      if (GPOINTER_TO_INT(cell->data) != ad->account_id) continue;
      BRISEL_INFO("Change to combined view account_id : %d", ad->account_id);
      ad->account_id = 0;
      shown_deleted = true;
    }
    if (only_account && ad->account_id == 0) {
      if (!_show_single_account(ad)) return;
    } else {
      brisel_db_get_all_account_count(&ad->account_cnt);
      BRISEL_INFO("ad->account_cnt : %d", ad->account_cnt);
      if (shown_deleted) {
        BRISEL_INFO("Change to combined view(account is deleted");
        _refresh_mailbox_list(ad);
      }
    }
  } else if (update_type == BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD) {
    if (only_account && ad->account_id == 0) {
      if (!_show_single_account(ad)) return;
    } else if (_header_is_stale(ad)) {
      /* The set-up popup reset the account shown when the last one went; the list still names that one. */
      _refresh_mailbox_list(ad);
    }
  } else {
    for (GSList *cell = id_list; cell; cell = cell->next) {
      int mail_id = GPOINTER_TO_INT(cell->data);
      BRISEL_INFO("mail_id : %d", mail_id);
      if (update_type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD)
        _insert_mail_by_mail_id(mail_id, ad);
      else if (update_type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE)
        _update_mail_by_mail_id(mail_id, ad);
      else if (update_type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE)
        _remove_mail_by_mail_id(mail_id, ad);
    }
  }
  _update_list_surroundings(ad);
}

void brisel_check_mail_on_db(appdata *ad) {
  if (!ad->nocontents_shown) return;
  if (_count_all_mails() <= 0) return;
  BRISEL_INFO("Mailbox list is not updated. Update it by force");
  _refresh_mailbox_list(ad);
  _show_genlist(ad);
  BRISEL_INFO("Nocontent view is shown. show genlist");
}

void brisel_check_current_mailbox_account_by_mail_id(int mail_id, appdata *ad) {
  if (!ad) {
    BRISEL_ERROR("data == NULL");
    return;
  }
  if (ad->account_id == 0) {
    BRISEL_INFO("combined view is shown");
    return;
  }
  if (mail_id < 1) {
    BRISEL_INFO("Invalid mail_id : %d", mail_id);
    return;
  }
  scoped_noti mail(brisel_full_noti_data_create());
  if (!mail) {
    BRISEL_ERROR("brisel_db_full_noti_data_create() failed!");
    return;
  }
  int result = brisel_db_get_full_noti_data_by_mail_id(mail_id, mail.get());
  if (result != 0) {
    BRISEL_WARN("brisel_db_get_full_noti_data_by_mail_id() failed! err:[%d]", result);
    return;
  }
  if (mail->account_id == ad->account_id) return;
  BRISEL_INFO("ad->account_id is changed by new mail(%d -> %d)", ad->account_id, mail->account_id);
  ad->account_id = mail->account_id;
  _refresh_mailbox_list(ad);
  Elm_Object_Item *first = ad->mailbox_genlist ? elm_genlist_first_item_get(ad->mailbox_genlist) : nullptr;
  if (first) elm_genlist_item_show(first, ELM_GENLIST_ITEM_SCROLLTO_TOP);
  brisel_detail_update_neighbors(mail_id, ad);
}

/* --- rows on screen ---------------------------------------------------------------------------------------------- */

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

static char *_gl_text_get(void *data, Evas_Object *obj, const char *part) {
  item_data *item = (item_data *)data;
  if (!item) {
    BRISEL_WARN("data is NULL");
    return nullptr;
  }
  if (!strcmp(part, "elm.text.1")) return brisel_util_text_to_markup(item->sender);
  if (!strcmp(part, "elm.text.2")) return brisel_util_get_mailbox_date_time_str(item->received_time, item->ad);
  if (!strcmp(part, "elm.text.noti")) return item->is_new ? strdup("N") : nullptr;
  if (!strcmp(part, "elm.text.sweep")) return strdup(brisel_util_get_text("IDS_EMAIL_BODY_DELETED"));
  return nullptr;
}

static void _revert_btn_select_cb(void *data, Evas_Object *obj, void *event_info) {
  item_data *item = (item_data *)data;
  if (!item || !item->it) return;
  elm_object_item_signal_emit(item->it, "elm,state,sweep,hide", "");
  if (item->ad) {
    item->ad->sweep_item = nullptr;
    item->ad->blocked_item = nullptr;
  }
  BRISEL_INFO("revert it");
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
    Evas_Object *undo = elm_button_add(obj);
    elm_object_style_set(undo, "list_divider_btn");
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

/* A row that comes into sight gets the drawing of one that went, contents included: making them anew, the button above
   all, is most of what a scrolled row costs. NULL makes the list ask _gl_icon_get. */
static Evas_Object *_gl_icon_reuse(void *data, Evas_Object *obj, const char *part, Evas_Object *old) {
  item_data *item = (item_data *)data;
  if (!item || !old) return nullptr;
  if (!strcmp(part, "elm.icon")) return item->is_new ? old : nullptr;
  if (!strcmp(part, "elm.swallow.colorbar")) {
    _paint_color_bar(old, item->account_id);
    return old;
  }
  if (!strcmp(part, "elm.icon.sweep")) {
    evas_object_smart_callback_del(old, "clicked", _revert_btn_select_cb);
    evas_object_smart_callback_add(old, "clicked", _revert_btn_select_cb, item);
    return old;
  }
  return nullptr;
}

/* The list keeps the drawings of rows that went out of sight for others: the swept look belongs to one row only, and
   comes back with it. */
static void _row_realized_cb(void *data, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  Elm_Object_Item *it = (Elm_Object_Item *)event_info;
  if (it && it == ad->sweep_item && sweep_signal) elm_object_item_signal_emit(it, sweep_signal, "");
  brisel_option_hide_last_bottomline(obj, it);
}

static void _row_unrealized_cb(void *data, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  if (event_info && event_info == ad->sweep_item)
    elm_object_item_signal_emit((Elm_Object_Item *)event_info, "elm,state,sweep,hide", "");
}

static void _mailbox_list_language_changed_cb(void *data, Evas_Object *obj, void *event_info) {
  elm_genlist_realized_items_update(obj);
}

/* --- a locked mail ------------------------------------------------------------------------------------------------ */

static void _brisel_mailbox_bt_connect_error_popup_result_cb(service_h request, service_h reply, int result,
                                                             void *data) {
  appdata *ad = (appdata *)data;
  if (!ad) {
    BRISEL_WARN("user_data is NULL!");
    return;
  }
  if (brisel_util_link_is_up_in_reply(reply)) {
    BRISEL_INFO("BT Connected. mail_id : %d", ad->mail_id);
    brisel_util_show_on_device(&ad->mail_id, 1);
  } else {
    BRISEL_INFO("BT Not Connected");
  }
  ad->mail_id = 0;
  elm_win_activate(ad->win_main);
}

static void _security_alert_popup_cancel_cb(void *data, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  brisel_util_drop_popup(&ad->security_popup);
  ad->mail_id = 0;
}

static void _security_alert_popup_ok_cb(void *data, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  brisel_util_drop_popup(&ad->security_popup);
  if (!brisel_util_bluetooth_connection_popup(ad, _brisel_mailbox_bt_connect_error_popup_result_cb, "perform")) return;
  brisel_util_show_on_device(&ad->mail_id, 1);
  brisel_create_toast_popup(ad, brisel_util_get_text("IDS_PLEXO_POP_CHECK_MOBILE_DEVICE_TO_VIEW_CONTENT"));
  ad->mail_id = 0;
}

Evas_Object *brisel_create_security_alert_popup(appdata *ad) {
  if (!ad) {
    BRISEL_ERROR("ad is NULL!");
    return nullptr;
  }
  if (ad->security_popup) {
    BRISEL_INFO("popup is already existed. remove it.");
    brisel_util_drop_popup(&ad->security_popup);
  }
  ad->security_popup = brisel_util_create_basic_2button_popup_with_app_data(
      ad, "IDS_EMAIL_HEADER_OPEN_EMAIL_ABB",
      "IDS_EMAIL_POP_THE_CONTENT_OF_THIS_EMAIL_CANNOT_BE_DISPLAYED_ON_THE_ZOLT_FOR_SECURITY_REASONS_FOR_DETAILS_VIEW_"
      "THIS_EMAIL_ON_YOUR_MOBILE_DEVICE",
      _security_alert_popup_cancel_cb, _security_alert_popup_cancel_cb, "IDS_EMAIL_SK_CANCEL_ABB",
      _security_alert_popup_ok_cb, "IDS_COM_SK_OK");
  return ad->security_popup;
}

/* The selected row, which does not stay selected; NULL after the log line that says why. */
static Elm_Object_Item *_take_selection(void *event_info) {
  if (!event_info) BRISEL_WARN("event_info is NULL");
  Elm_Object_Item *it = (Elm_Object_Item *)event_info;
  if (it) elm_genlist_item_selected_set(it, EINA_FALSE);
  return it;
}

/* The row's back pointer; NULL after the log line that says why. */
template <typename Row>
static appdata *_ad_of(const Row *row, const char *what) {
  if (!row)
    BRISEL_WARN("%s is NULL", what);
  else if (!row->ad)
    BRISEL_WARN("%s->ad is NULL", what);
  return row ? row->ad : nullptr;
}

/* Whether the touch that committed a sweep blocked the row: for that one time. */
static bool _is_blocked_once(appdata *ad, Elm_Object_Item *it) {
  if (ad->blocked_item != it) return false;
  BRISEL_INFO("blocked item is selected.");
  ad->blocked_item = nullptr;
  return true;
}

static void _gl_mail_sel(void *data, Evas_Object *obj, void *event_info) {
  Elm_Object_Item *it = _take_selection(event_info);
  if (!it) return;
  item_data *item = (item_data *)data;
  if (!item) {
    BRISEL_WARN("data is NULL");
    return;
  }
  appdata *ad = item->ad;
  if (!ad) return;
  if (ad->sweep_item) {
    BRISEL_INFO("sweep item is existed.");
    return;
  }
  if (_is_blocked_once(ad, it)) return;
  if (item->security_locked) {
    ad->mail_id = item->mail_id;
    brisel_create_security_alert_popup(ad);
    return;
  }
  brisel_detail_draw_view(item->mail_id, 1, ad);
}

/* --- sweep ----------------------------------------------------------------------------------------------------------
 */

static Eina_Bool _sweep_timer(void *data) {
  appdata *ad = (appdata *)data;
  if (ad) {
    elm_object_scroll_freeze_pop(ad->mailbox_genlist);
    ad->sweep_timer = nullptr;
  } else {
    BRISEL_WARN("data is NULL");
  }
  return ECORE_CALLBACK_CANCEL;
}

static void _delete_mail_by_sweep(appdata *ad, bool with_effect) {
  item_data *item = ad->sweep_item ? (item_data *)elm_object_item_data_get(ad->sweep_item) : nullptr;
  if (!item) return;
  /* Without a request record nothing was asked of the host: the row stays swept. Whatever else fails is logged, and
     the row goes. */
  if (brisel_util_request_delete(&item->mail_id, 1) == BRISEL_COMMON_ERROR_MEMORY) return;
  if (!item->it) return;
  if (with_effect) elm_genlist_fx_mode_set(ad->mailbox_genlist, EINA_TRUE);
  elm_object_item_del(item->it);
  BRISEL_INFO("sweep item is removed");
  ad->mail_list = g_list_remove(ad->mail_list, item);
  ad->sweep_item = nullptr;
  if (with_effect) elm_genlist_fx_mode_set(ad->mailbox_genlist, EINA_FALSE);
}

void brisel_delete_sweep_item(appdata *ad) {
  if (!ad->sweep_item) return;
  _delete_mail_by_sweep(ad, false);
  ad->blocked_item = nullptr;
}

static void _drag(appdata *ad, Elm_Object_Item *it, const char *signal) {
  if (ad->sweep_item) {
    BRISEL_INFO("sweep item is existed");
    ad->blocked_item = nullptr;
    _delete_mail_by_sweep(ad, true);
    return;
  }
  /* The touch that committed a sweep is spent: the drag it goes on to make sweeps nothing. */
  if (it && ad->blocked_item == it) {
    ad->blocked_item = nullptr;
    return;
  }
  if (elm_genlist_item_type_get(it) & ELM_GENLIST_ITEM_GROUP) return;
  elm_object_item_signal_emit(it, signal, "");
  ad->sweep_item = it;
  sweep_signal = signal;
  elm_object_scroll_freeze_push(ad->mailbox_genlist);
  if (ad->sweep_timer) {
    /* The timer of the sweep before will not come to end its freeze any more: each freeze ends once. */
    ecore_timer_del(ad->sweep_timer);
    elm_object_scroll_freeze_pop(ad->mailbox_genlist);
  }
  ad->sweep_timer = ecore_timer_add(0.5, _sweep_timer, ad);
}

static void _drag_left(void *data, Evas_Object *obj, void *event_info) {
  _drag((appdata *)data, (Elm_Object_Item *)event_info, "elm,state,sweep,left");
}

static void _drag_right(void *data, Evas_Object *obj, void *event_info) {
  _drag((appdata *)data, (Elm_Object_Item *)event_info, "elm,state,sweep,right");
}

/* The list keeps the row under a finger that scrolls slowly, so the row goes on waiting for its long press. */
static bool touch_scrolls;

static void _scroll_start_cb(void *data, Evas_Object *obj, void *event_info) {
  touch_scrolls = true;
}

static void _mailbox_list_mouse_down_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  Evas_Event_Mouse_Down *event = (Evas_Event_Mouse_Down *)event_info;
  /* What the touch before blocked was for that touch alone, whether it ended in a selection or in a scroll. */
  ad->blocked_item = nullptr;
  touch_scrolls = false;
  if (!ad->sweep_item || !ad->mailbox_genlist) return;
  Elm_Object_Item *touched = elm_genlist_at_xy_item_get(ad->mailbox_genlist, event->canvas.x, event->canvas.y, nullptr);
  if (touched == ad->sweep_item) return;
  ad->blocked_item = touched;
  _delete_mail_by_sweep(ad, true);
  /* The row's own deletion lifts every block; this touch's block is for the row under the finger. */
  ad->blocked_item = touched;
}

/* --- the account shown
 * ------------------------------------------------------------------------------------------------ */

static void _create_one_account_toast_popup(appdata *ad) {
  if (!ad) {
    BRISEL_ERROR("ad is NULL!");
    return;
  }
  brisel_create_toast_popup(ad, brisel_util_get_text("IDS_EMAIL_TPOP_ONLY_ONE_EMAIL_ACCOUNT_REGISTERED"));
}

/* The next account after account_id in the store's order; the combined view comes after the last one. */
static void _step_account(appdata *ad, GSList *accounts) {
  int first_id = ((account_data *)accounts->data)->account_id;
  if (ad->account_id == 0) {
    BRISEL_INFO("account id is changed (0 -> %d)", first_id);
    ad->account_id = first_id;
    return;
  }
  for (GSList *cell = accounts; cell; cell = cell->next) {
    if (!cell->data || ((account_data *)cell->data)->account_id != ad->account_id) continue;
    if (cell->next && cell->next->data) {
      int next_id = ((account_data *)cell->next->data)->account_id;
      BRISEL_INFO("account id is changed (%d -> %d)", ad->account_id, next_id);
      ad->account_id = next_id;
    } else {
      BRISEL_INFO("account id is changed (%d -> 0)", ad->account_id);
      ad->account_id = 0;
    }
    return;
  }
  BRISEL_WARN("account info mismatch account id is changed (%d -> %d) ", ad->account_id, first_id);
  ad->account_id = first_id;
}

static void _gl_group_sel(void *data, Evas_Object *obj, void *event_info) {
  Elm_Object_Item *it = _take_selection(event_info);
  if (!it) return;
  group_item_data *group = (group_item_data *)data;
  appdata *ad = _ad_of(group, "group_item_data");
  if (!ad) return;
  if (_is_blocked_once(ad, it)) return;
  if (ad->account_cnt < 2) {
    BRISEL_INFO("one account is registered only. Ignore the account toggle action");
    _create_one_account_toast_popup(ad);
    return;
  }
  scoped_account_list accounts = _read_accounts();
  if (!accounts) return;
  _step_account(ad, accounts.get());
  _refresh_mailbox_list(ad);
}

static void _long_pressed_group(group_item_data *group, Elm_Object_Item *it) {
  appdata *ad = group->ad;
  if (!ad) return;
  if (_is_blocked_once(ad, it)) return;
  if (ad->account_cnt < 2) {
    BRISEL_INFO("one account is registered only. Ignore account long-press action action");
    _create_one_account_toast_popup(ad);
    return;
  }
  brisel_create_account_selection_popup(ad);
}

static void _long_pressed_mail(item_data *item, Elm_Object_Item *it) {
  appdata *ad = item->ad;
  if (!ad) return;
  if (ad->sweep_item) {
    BRISEL_INFO("sweep item is existed.");
    return;
  }
  if (_is_blocked_once(ad, it)) return;
  brisel_option_detail_draw_view(item->mail_id, ad);
}

static void _long_pressed_cb(void *data, Evas_Object *obj, void *event_info) {
  Elm_Object_Item *it = (Elm_Object_Item *)event_info;
  if (!it) {
    BRISEL_ERROR("event_info is NULL");
    return;
  }
  elm_genlist_item_selected_set(it, EINA_FALSE);
  if (touch_scrolls) return;
  item_data *item = (item_data *)elm_object_item_data_get(it);
  if (!item) {
    BRISEL_ERROR("item_data is NULL");
    return;
  }
  if (item->type == ROW_GROUP)
    _long_pressed_group(item, it);
  else
    _long_pressed_mail(item, it);
}

static char *_gl_popup_text_get(void *data, Evas_Object *obj, const char *part) {
  popup_item_data *row = (popup_item_data *)data;
  if (!row) {
    BRISEL_WARN("data is NULL");
    return nullptr;
  }
  if (!strcmp(part, "elm.text.1") || !strcmp(part, "elm.text")) {
    if (row->account_id == 0) return strdup(brisel_util_get_text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"));
    /* A name is shown as the text it is, like the address below it. */
    return brisel_util_text_to_markup(row->name);
  }
  if (!strcmp(part, "elm.text.2")) return brisel_util_text_to_markup(row->address);
  return nullptr;
}

static Evas_Object *_gl_popup_content_get(void *data, Evas_Object *obj, const char *part) {
  popup_item_data *row = (popup_item_data *)data;
  if (!row) {
    BRISEL_WARN("data is NULL");
    return nullptr;
  }
  Evas_Object *radio_main = (Evas_Object *)evas_object_data_get(obj, "radio_main");
  if (!strcmp(part, "elm.icon")) {
    Evas_Object *radio = elm_radio_add(obj);
    elm_radio_state_value_set(radio, row->index);
    elm_radio_group_add(radio, radio_main);
    if (row->ad && row->account_id == row->ad->account_id) elm_radio_value_set(radio_main, row->index);
    _sized(radio, 50);
    evas_object_size_hint_max_set(radio, _scaled(50), _scaled(50));
    /* The whole row is the choice: a touch on the radio must choose it, not only light it. */
    evas_object_pass_events_set(radio, EINA_TRUE);
    return radio;
  }
  if (!strcmp(part, "elm.swallow.colorbar")) return brisel_util_create_color_bar(obj, row->account_id);
  return nullptr;
}

static void _gl_popup_del(void *data, Evas_Object *obj) {
  popup_item_data *row = (popup_item_data *)data;
  if (!row) return;
  free(row->address);
  free(row->name);
  free(row);
}

static void _gl_popup_sel(void *data, Evas_Object *obj, void *event_info) {
  Elm_Object_Item *it = _take_selection(event_info);
  if (!it) return;
  popup_item_data *row = (popup_item_data *)data;
  appdata *ad = _ad_of(row, "item_data");
  if (!ad) return;
  Evas_Object *radio = elm_object_item_part_content_get(it, "elm.icon");
  elm_genlist_item_selected_set(it, EINA_FALSE);
  if (radio) elm_radio_value_set(radio, row->index);
  BRISEL_INFO("account id is changed (%d -> %d)", ad->account_id, row->account_id);
  ad->account_id = row->account_id;
  _refresh_mailbox_list(ad);
  _popup_response_cb(ad, nullptr, nullptr);
}

static void _popup_response_cb(void *data, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  if (!ad) {
    BRISEL_ERROR("data is NULL");
    return;
  }
  brisel_util_drop_popup(&ad->account_popup);
}

static void _popup_row_realized_cb(void *data, Evas_Object *obj, void *event_info) {
  brisel_option_hide_last_bottomline(obj, (Elm_Object_Item *)event_info);
}

/* account NULL: the combined row. Returns the row's item, or NULL. */
static Elm_Object_Item *_append_popup_row(appdata *ad, Evas_Object *gl, Elm_Genlist_Item_Class *itc, int index,
                                          const account_data *account) {
  popup_item_data *row = (popup_item_data *)calloc(1, sizeof(popup_item_data));
  if (!row) {
    BRISEL_ERROR("memory allocation failed.");
    return nullptr;
  }
  row->index = index;
  row->account_id = account ? account->account_id : 0;
  const char *address = account ? account->email_address : brisel_util_get_text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB");
  row->address = address ? strdup(address) : nullptr;
  if (account && account->display_name && *account->display_name)
    row->name = strdup(account->display_name);
  else if (account && address)
    row->name = strndup(address, strcspn(address, "@")); /* rather than an empty line above the address */
  row->ad = ad;
  row->it = elm_genlist_item_append(gl, itc, row, nullptr, ELM_GENLIST_ITEM_NONE, _gl_popup_sel, row);
  return row->it;
}

Evas_Object *brisel_create_account_selection_popup(appdata *ad) {
  if (ad->account_popup) {
    BRISEL_INFO("popup is already existed. remove it.");
    brisel_util_drop_popup(&ad->account_popup);
  }
  scoped_account_list accounts = _read_accounts();
  if (!accounts) return nullptr;

  Evas_Object *popup = elm_popup_add(ad->naviframe);
  evas_object_size_hint_weight_set(popup, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  ad->account_popup = popup;
  ea_object_event_callback_add(popup, EA_CALLBACK_BACK, _popup_response_cb, ad);

  Elm_Genlist_Item_Class *itc_combined =
      brisel_option_new_row_class("1text.1icon.1", _gl_popup_text_get, _gl_popup_content_get, _gl_popup_del);
  Elm_Genlist_Item_Class *itc_account =
      brisel_option_new_row_class("2text.1icon.1", _gl_popup_text_get, _gl_popup_content_get, _gl_popup_del);
  Evas_Object *gl = elm_genlist_add(popup);
  elm_object_style_set(gl, "popup");
  elm_genlist_homogeneous_set(gl, EINA_TRUE);
  elm_scroller_policy_set(gl, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
  elm_genlist_mode_set(gl, ELM_LIST_COMPRESS);
  evas_object_smart_callback_add(gl, "language,changed", _mailbox_list_language_changed_cb, nullptr);

  Evas_Object *radio_main = elm_radio_add(gl);
  elm_radio_state_value_set(radio_main, 0);
  elm_radio_value_set(radio_main, 0);
  evas_object_data_set(gl, "radio_main", radio_main);

  int index = 0;
  Elm_Object_Item *last = _append_popup_row(ad, gl, itc_combined, index++, nullptr);
  for (GSList *cell = accounts.get(); cell; cell = cell->next) {
    if (!cell->data) continue;
    last = _append_popup_row(ad, gl, itc_account, index++, (account_data *)cell->data);
  }
  if (last) elm_object_item_signal_emit(last, "elm,state,bottomline,hide", "");
  /* A row that is not drawn yet hears no signal. */
  evas_object_smart_callback_add(gl, "realized", _popup_row_realized_cb, nullptr);

  elm_object_content_set(popup, gl);
  evas_object_show(gl);
  elm_genlist_item_class_free(itc_combined);
  elm_genlist_item_class_free(itc_account);
  evas_object_show(popup);
  return popup;
}

/* --- the widget
 * ------------------------------------------------------------------------------------------------------- */

Evas_Object *brisel_create_mailbox_list_view(Evas_Object *win_main, appdata *ad) {
  ad->itc_group = brisel_option_new_row_class("email/group", _gl_group_text_get, nullptr, _gl_group_del);
  ad->itc_mail = brisel_option_new_row_class("email/sweep", _gl_text_get, _gl_icon_get, _gl_del);
  if (ad->itc_mail) ad->itc_mail->func.reusable_content_get = _gl_icon_reuse;

  Evas_Object *gl = elm_genlist_add(ad->naviframe);
  ad->mailbox_genlist = gl;
  if (!gl) {
    BRISEL_WARN("gl is NULL");
    return nullptr;
  }
  evas_object_smart_callback_add(gl, "drag,start,right", _drag_right, ad);
  evas_object_smart_callback_add(gl, "drag,start,left", _drag_left, ad);
  evas_object_smart_callback_add(gl, "scroll,drag,start", _scroll_start_cb, nullptr);
  evas_object_smart_callback_add(gl, "longpressed", _long_pressed_cb, nullptr);
  evas_object_smart_callback_add(gl, "language,changed", _mailbox_list_language_changed_cb, nullptr);
  evas_object_smart_callback_add(gl, "realized", _row_realized_cb, ad);
  evas_object_smart_callback_add(gl, "unrealized", _row_unrealized_cb, ad);
  evas_object_event_callback_add(gl, EVAS_CALLBACK_MOUSE_DOWN, _mailbox_list_mouse_down_cb, ad);

  elm_scroller_policy_set(gl, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
  elm_genlist_homogeneous_set(gl, EINA_TRUE);
  elm_genlist_mode_set(gl, ELM_LIST_COMPRESS);
  /* The genlist draws a whole block of rows when one row comes to it, also those out of sight: about a screenful. */
  elm_genlist_block_count_set(gl, rows_in_block);
  evas_object_size_hint_align_set(gl, EVAS_HINT_FILL, EVAS_HINT_FILL);
  evas_object_size_hint_weight_set(gl, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);

  _refresh_mailbox_list(ad);
  evas_object_show(gl);
  return gl;
}
