/* The list follows the phone: what host events, launches and a resume change in it, and the switch to the layout
   without mails. Its public functions are called by the application's core. */
#include "brisel-app-mailbox-list.h"

#include <algorithm>
#include <climits>
#include <vector>

#include "brisel-app-touch.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"

/* --- one mail --- */

static int _compare_mail_by_received_time(const void *a, const void *b) {
  const item_data *left = (const item_data *)a, *right = (const item_data *)b;
  if (!left || !right) {
    BRISEL_INFO("a or b is NULL");
    return 0;
  }
  return left->received_time > right->received_time ? -1 : 1;
}

/* A new row's record, or NULL: a mail that cannot be read, or of an account not shown. */
static item_data *_read_added_mail(int mail_id, appdata *ad) {
  BRISEL_INFO("mail_id : %d", mail_id);
  if (!ad->mailbox_genlist) {
    BRISEL_INFO("gl is NULL");
    return nullptr;
  }
  item_data *item = _make_list_data_by_mail_id(mail_id, ad);
  if (!item) {
    BRISEL_WARN("item_data is NULL.");
    return nullptr;
  }
  if (ad->account_id == 0 || ad->account_id == item->account_id) return item;
  BRISEL_INFO("No need to insert item_data->account_id : %d ad->account_id : %d", item->account_id, ad->account_id);
  _free_list_data(item);
  return nullptr;
}

/* Before the first older row from next on, behind every newer one and every one of the same time; the row that it
   stands before, or NULL at the end. */
static GList *_insert_mail(appdata *ad, item_data *item, GList *next) {
  while (next && _compare_mail_by_received_time(item, next->data) > 0) next = next->next;
  Elm_Object_Item *group_item = elm_genlist_first_item_get(ad->mailbox_genlist);
  if (!ad->mail_list)
    BRISEL_INFO("ad->mail_list is NULL. Append item.");
  else if (!next)
    BRISEL_INFO("next_data is NULL. Append item.");
  GList *cell = _insert_into_model(ad, item, next);
  _add_mail_row(ad, group_item, item, next ? ((item_data *)next->data)->it : nullptr);
  if (!next && cell->prev)
    elm_object_item_signal_emit(((item_data *)cell->prev->data)->it, "elm,state,bottomline,show", "");
  return next;
}

/* A list that still runs from a flick reckons from where that began, and would jump by the rows that come above: it
   stays where it is now. */
static void _stand_still(appdata *ad) {
  int x = 0, y = 0, w = 0, h = 0;
  elm_scroller_region_get(ad->mailbox_genlist, &x, &y, &w, &h);
  elm_scroller_region_show(ad->mailbox_genlist, x, y, w, h);
}

/* So many rows are drawn beside the screenful. The drawings of those that others push out of it serve the next ones. */
constexpr int rows_between_layouts = 2;

/* Many mails at once are merged in one walk over the list. */
static void _insert_mails(GSList *ids, appdata *ad) {
  std::vector<item_data *> items;
  for (GSList *cell = ids; cell; cell = cell->next) {
    const int mail_id = GPOINTER_TO_INT(cell->data);
    BRISEL_INFO("mail_id : %d", mail_id);
    if (item_data *item = _read_added_mail(mail_id, ad)) items.push_back(item);
  }
  /* In the order of the rows; of one time, in the order of the event. */
  std::stable_sort(items.begin(), items.end(),
                   [](const item_data *a, const item_data *b) { return a->received_time > b->received_time; });
  const int top = ad->mailbox_genlist ? _time_at_top(ad) : INT_MAX;
  std::vector<int> above;
  int added = 0;
  if (!items.empty() && items.front()->received_time > top) _stand_still(ad);
  GList *next = ad->mail_list;
  for (item_data *item : items) {
    /* A refresh may have read it before its event came, and it must not stand there twice. */
    if (_find_item_data_by_mail_id(item->mail_id, ad)) {
      BRISEL_WARN("No such item_data");
      _free_list_data(item);
    } else {
      next = _insert_mail(ad, item, next);
      if (item->received_time > top) above.push_back(item->mail_id);
      if (++added % rows_between_layouts == 0) _let_go_of_rows_out_of_sight(ad, item->it);
    }
  }
  _count_arrivals(ad, above);
}

static void _remove_mail_by_mail_id(int mail_id, appdata *ad) {
  BRISEL_INFO("mail_id : %d", mail_id);
  if (!ad->mailbox_genlist) {
    BRISEL_INFO("gl is NULL");
  } else if (!ad->mail_list) {
    BRISEL_INFO("ad->mail_list is NULL");
  } else {
    item_data *item = _find_item_data_by_mail_id(mail_id, ad);
    if (!item || !item->it) {
      BRISEL_INFO("Not found on mail_list");
      return;
    }
    _remove_from_model(ad, item);
    _delete_row(item->it);
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
  item_data *item = _find_item_data_by_mail_id(mail_id, ad);
  if (!item || !item->it) return;
  scoped_noti mail(brisel_full_noti_data_create());
  if (!mail) {
    BRISEL_WARN("brisel_db_full_noti_data_create() failed!");
    return;
  }
  if (brisel_db_get_noti_head_by_mail_id(mail_id, mail.get()) != 0) return;
  _read_item_state(item, mail.get());
  Elm_Genlist_Item_Class *itc = _class_of_row(ad, item); /* a subject may have come or gone */
  if (elm_genlist_item_item_class_get(item->it) != itc)
    elm_genlist_item_item_class_update(item->it, itc);
  else
    elm_genlist_item_update(item->it);
  _name_row(item);
}

/* --- around the rows --- */

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
  brisel_tell_list_in_view(ad);
  brisel_touch_focus_went();
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
  brisel_view_hide_last_bottomline(ad->mailbox_genlist, elm_genlist_last_item_get(ad->mailbox_genlist));

  int total = _count_all_mails();
  if (!ad->nocontents_shown && total == 0) {
    BRISEL_INFO("genlist is shown. show nocontents view");
    _show_nocontents(ad);
  } else if (ad->nocontents_shown && total > 0) {
    BRISEL_INFO("Nocontent view is shown. show genlist");
    _show_genlist(ad);
  }
}

/* --- host events --- */

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

/* The question about a locked mail, and what would be asked for it, end with the mail. */
static void _end_question_of_gone_mail(GSList *ids, appdata *ad) {
  if (ad->mail_id <= 0 || !g_slist_find(ids, GINT_TO_POINTER(ad->mail_id))) return;
  if (ad->naviframe && elm_naviframe_top_item_get(ad->naviframe) != elm_naviframe_bottom_item_get(ad->naviframe))
    return;
  brisel_util_drop_popup(&ad->security_popup);
  ad->mail_id = 0;
}

void brisel_update_mailbox_accounts(appdata *ad) {
  BRISEL_INFO("Enter");
  Elm_Object_Item *group_item = _group_item(ad);
  const int shown = ad->account_id;
  if (!group_item || !_update_group_data(ad, group_item)) return;
  if (ad->account_id != shown) {
    _refresh_mailbox_list(ad);
    return;
  }
  _update_header(group_item);
  elm_genlist_realized_items_update(ad->mailbox_genlist); /* their colour bars */
  brisel_name_mailbox_rows(ad);
}

void brisel_update_mailbox_list(int update_type, GSList *id_list, appdata *ad) {
  BRISEL_INFO("Enter");
  BRISEL_INFO("updated_cnt : %d, type : %d", (int)g_slist_length(id_list), update_type);
  if (!id_list) return;
  const frozen_events frozen(ad->mailbox_genlist);
  _make_all_rows(ad);
  const indexed_mails indexed(ad, (int)g_slist_length(id_list));

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
  } else if (update_type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD) {
    _insert_mails(id_list, ad);
  } else {
    for (GSList *cell = id_list; cell; cell = cell->next) {
      int mail_id = GPOINTER_TO_INT(cell->data);
      BRISEL_INFO("mail_id : %d", mail_id);
      if (update_type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE)
        _update_mail_by_mail_id(mail_id, ad);
      else if (update_type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE)
        _remove_mail_by_mail_id(mail_id, ad);
    }
  }
  if (update_type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE) _end_question_of_gone_mail(id_list, ad);
  brisel_update_delete_view(update_type, id_list, ad);
  _update_list_surroundings(ad);
}

void brisel_check_mail_on_db(appdata *ad) {
  BRISEL_INFO("Enter");
  if (!ad->nocontents_shown) return;
  if (_count_all_mails() <= 0) return;
  BRISEL_INFO("Mailbox list is not updated. Update it by force");
  _refresh_mailbox_list(ad);
  _show_genlist(ad);
  BRISEL_INFO("Nocontent view is shown. show genlist");
}

void brisel_check_current_mailbox_account_by_mail_id(int mail_id, appdata *ad) {
  BRISEL_INFO("Enter");
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
  int result = brisel_db_get_noti_head_by_mail_id(mail_id, mail.get());
  if (result != 0) {
    BRISEL_WARN("brisel_db_get_full_noti_data_by_mail_id() failed! err:[%d]", result);
    return;
  }
  if (mail->account_id == ad->account_id) return;
  BRISEL_INFO("ad->account_id is changed by new mail(%d -> %d)", ad->account_id, mail->account_id);
  ad->account_id = mail->account_id;
  /* From further down it would be held at the end of its first rows when they are laid out later than shown. */
  if (ad->mailbox_genlist) elm_scroller_region_show(ad->mailbox_genlist, 0, 0, 1, 1);
  _refresh_mailbox_list(ad);
  Elm_Object_Item *first = ad->mailbox_genlist ? elm_genlist_first_item_get(ad->mailbox_genlist) : nullptr;
  if (first) elm_genlist_item_show(first, ELM_GENLIST_ITEM_SCROLLTO_TOP);
  brisel_detail_update_neighbors(mail_id, ad);
}
