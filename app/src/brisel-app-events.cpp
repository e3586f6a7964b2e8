/* Host events: each is applied to the mailbox, the open reader, the account popup and the launch flows. */
#include <iterator>

#include "brisel-app-core.h"
#include "brisel-app-journal.h"
#include "brisel-app-reply-drafts.h"
#include "brisel-app-utils.h"
#include "brisel-app.h"

/* An added or deleted mail changes the pages that the reader turns to, also from further away: it may stand behind
   locked ones, or be the second. The reader knows what of it still stands. */
static void _check_prev_next_mail_status_by_mail_id(GSList *ids, appdata *ad) {
  BRISEL_INFO("Enter");
  if (!ids) return;
  GList *cell = ad->mail_list;
  while (cell && ((item_data *)cell->data)->mail_id != ad->mail_id) cell = cell->next;
  if (!cell) return;
  int prev_mail_id = cell->prev ? ((item_data *)cell->prev->data)->mail_id : -1;
  int next_mail_id = cell->next ? ((item_data *)cell->next->data)->mail_id : -1;
  BRISEL_INFO("prev_mail_id : %d,  next_mail_id : %d", prev_mail_id, next_mail_id);
  for (; ids; ids = ids->next) {
    int id = GPOINTER_TO_INT(ids->data);
    /* A deleted mail is beside nothing in the list any more, but its page still is beside the opened one. */
    if (id != prev_mail_id && id != next_mail_id && !brisel_detail_shows_mail(id, ad)) continue;
    BRISEL_INFO("viewer refresh is needed");
    break;
  }
  brisel_detail_update_neighbors(ad->mail_id, ad);
}

static void _update_email_view(int type, GSList *ids, appdata *ad) {
  brisel_detail_follow_screen(ad);
  if (type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE && ad->naviframe) {
    Eina_List *items = elm_naviframe_items_get(ad->naviframe);
    if (eina_list_count(items) > 1 && g_slist_find(ids, GINT_TO_POINTER(ad->mail_id))) {
      BRISEL_INFO("opened mail is deleted");
      _brisel_naviframe_pop_to_mailbox(ad);
    }
    eina_list_free(items);
  }
  brisel_update_mailbox_list(type, ids, ad);
  if (type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE) brisel_detail_update_mails(ids, ad);
  if (ad->mail_id > 0 &&
      (type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD || type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE))
    _check_prev_next_mail_status_by_mail_id(ids, ad);
}

/* --- mails that come under a finger ---
   A row that comes above moves what a finger is about to touch, and a list that a finger drags jumps by it: new mails
   wait until the finger leaves. */

static constexpr double look_again = 0.05; /* seconds; only while a finger is down and a mail waits */
static constexpr int looks_most = 100;     /* a button whose release was lost holds nothing up for longer */
static GSList *held_ids;
static Ecore_Timer *held_timer; /* while there are some */
static int looks_left;

static bool _is_list_touched(const appdata *ad) {
  Evas_Object *gl = ad->mailbox_genlist;
  return gl && evas_object_visible_get(gl) && evas_pointer_button_down_mask_get(evas_object_evas_get(gl)) != 0;
}

static Eina_Bool _held_timer_cb(void *data) {
  appdata *ad = (appdata *)data;
  if (_is_list_touched(ad) && --looks_left > 0) return ECORE_CALLBACK_RENEW;
  GSList *ids = held_ids;
  held_ids = nullptr;
  held_timer = nullptr;
  _update_email_view(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD, ids, ad);
  g_slist_free(ids);
  return ECORE_CALLBACK_CANCEL;
}

static void _drop_held() {
  if (held_timer) ecore_timer_del(held_timer);
  held_timer = nullptr;
  g_slist_free(held_ids);
  held_ids = nullptr;
}

/* --- the events --- */

static void _brisel_ipc_noti_add_callback(brisel_ipc_event *event, void *reserved, void *user_data) {
  BRISEL_INFO("Enter");
  BRISEL_INFO("BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD");
  appdata *ad = (appdata *)user_data;
  if (!event) return;
  if (!held_timer && !_is_list_touched(ad)) {
    _update_email_view(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD, event->id_list, ad);
    return;
  }
  held_ids = g_slist_concat(held_ids, g_slist_copy(event->id_list));
  if (held_timer) return;
  looks_left = looks_most;
  held_timer = ecore_timer_add(look_again, _held_timer_cb, ad);
}

static void _brisel_ipc_noti_update_callback(brisel_ipc_event *event, void *reserved, void *user_data) {
  BRISEL_INFO("Enter");
  BRISEL_INFO("BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE");
  if (event) _update_email_view(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, event->id_list, (appdata *)user_data);
}

static void _brisel_ipc_noti_delete_callback(brisel_ipc_event *event, void *reserved, void *user_data) {
  BRISEL_INFO("Enter");
  BRISEL_INFO("BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE");
  if (!event) return;
  _update_email_view(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, event->id_list, (appdata *)user_data);
  brisel_reply_drafts_forget_gone();
}

/* The account that is shown only because it was the first to come, or 0: nobody has chosen it. */
static int first_account;

static void _reread_account_count(appdata *ad) {
  brisel_db_get_all_account_count(&ad->account_cnt);
  BRISEL_INFO("ad->account_cnt : %d", ad->account_cnt);
}

/* What the set-up popup gives way to when accounts come. */
static void _show_first_accounts(GSList *ids, appdata *ad) {
  if (ad->no_account_popup) {
    BRISEL_INFO("no account popup is existed. remove it.");
    brisel_util_drop_popup(&ad->no_account_popup);
  }
  if (launched)
    brisel_update_mailbox_list(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD, ids, ad);
  else
    _launch(ad, 0);
  first_account = ad->account_cnt == 1 ? ad->account_id : 0;
}

static void _brisel_ipc_noti_account_add_callback(brisel_ipc_event *event, void *reserved, void *user_data) {
  BRISEL_INFO("Enter");
  BRISEL_INFO("BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD");
  appdata *ad = (appdata *)user_data;
  if (!event) return;
  bool had_accounts = ad->account_cnt != 0;
  _reread_account_count(ad);
  if (!had_accounts) {
    if (ad->account_cnt > 0) _show_first_accounts(event->id_list, ad);
    return;
  }
  if (ad->account_cnt > 1 && first_account > 0 && ad->account_id == first_account) {
    /* The others would never be seen, and nothing would say that they are there. */
    ad->account_id = 0;
    brisel_update_mailbox_list(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD, event->id_list, ad);
  }
  if (ad->account_cnt > 1) first_account = 0;
  brisel_update_mailbox_accounts(ad);
  if (!ad->account_popup) return;
  brisel_create_account_selection_popup(ad);
  BRISEL_INFO("account selection popup is refreshed. account added");
}

static void _brisel_ipc_account_delete_callback(brisel_ipc_event *event, void *reserved, void *user_data) {
  BRISEL_INFO("Enter");
  BRISEL_INFO("BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE");
  appdata *ad = (appdata *)user_data;
  if (!event) return;
  brisel_reply_drafts_forget_gone();
  _reread_account_count(ad);
  if (_check_setup_account_popup_is_needed()) {
    brisel_util_drop_popup(&ad->account_popup);
    _create_set_up_email_popup(ad);
    return;
  }
  brisel_update_mailbox_list(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE, event->id_list, ad);
  if (!ad->account_popup) return;
  if (ad->account_cnt > 1) {
    brisel_create_account_selection_popup(ad);
    BRISEL_INFO("account selection popup is refreshed. account deleted");
  } else {
    brisel_util_drop_popup(&ad->account_popup);
    BRISEL_INFO("account id deleted. account selection popup is not needed");
  }
}

static void _brisel_ipc_account_count_status_callback(brisel_ipc_event *event, void *reserved, void *user_data) {
  BRISEL_INFO("Enter");
  BRISEL_INFO("BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_COUNT_STATUS");
  appdata *ad = (appdata *)user_data;
  _count_is_known(ad);
  if (_check_setup_account_popup_is_needed()) {
    _create_set_up_email_popup(ad);
    return;
  }
  brisel_util_drop_popup(&ad->no_account_popup);
  if (!launched) _launch(ad, 0);
}

static void _brisel_ipc_request_callback(brisel_ipc_event *event, void *reserved, void *user_data) {
  BRISEL_INFO("Enter");
  if (event) brisel_journal_update(event->id_list, (appdata *)user_data);
}

static const brisel_ipc_event_cb event_callbacks[] = {
    _brisel_ipc_noti_add_callback,       _brisel_ipc_noti_update_callback,
    _brisel_ipc_noti_delete_callback,    _brisel_ipc_noti_account_add_callback,
    _brisel_ipc_account_delete_callback, _brisel_ipc_account_count_status_callback,
    _brisel_ipc_request_callback,
};

void _brisel_ipc_subscribe(appdata *ad) {
  BRISEL_INFO("Enter");
  for (int type = 0; type < (int)std::size(event_callbacks); type++)
    brisel_ipc_client_event_subscribe(type, event_callbacks[type], ad);
}

void _brisel_ipc_unsubscribe() {
  _drop_held();
  for (int type = 0; type < (int)std::size(event_callbacks); type++) brisel_ipc_client_event_unsubscribe(type);
}
