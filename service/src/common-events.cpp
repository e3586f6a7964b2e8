/* Events from the store: rows of its table of changes behind the last one seen, given to the application in slices. A
   signal only says that it is worth a look, and the service's coming back does too. common-link.cpp starts and stops it
   and tells when to look; the application subscribes. */
#include <Ecore.h>

#include <algorithm>
#include <deque>
#include <set>
#include <vector>

#include "brisel-common.h"
#include "common-link-priv.h"
#include "dlog.h"
#include "reader.h"
#include "store-format.h"

namespace {

constexpr char log_tag[] = "BRISEL_COMMON";
constexpr int event_types = 7;
/* Ids that one callback gets: more of them wait until the main loop has drawn and taken input. */
constexpr size_t slice = 16;
constexpr double slice_pause = 0.001;
/* Mails that are looked through when changes are missing: far more than a watch holds, few enough for any memory. */
constexpr int most_made_up = 1000000;
struct event {
  int type;
  std::vector<int> ids;
  size_t given = 0;
};

struct subscription {
  brisel_ipc_event_cb callback;
  void *user_data;
};

struct {
  bool open;
  subscription subscriptions[event_types];
  int64_t last_change;
  /* What the application was told of, for the time when changes are missing: mails below the first had gone before it
     asked, those above the last came later. */
  int first_mail, last_mail;
  std::set<int> accounts;
  int files_replaced;
  std::deque<event> events;
  Ecore_Timer *next_slice;
  bool delivering;
} feed;

bool deliver_slice(void) {
  if (feed.delivering || feed.events.empty()) return !feed.events.empty();
  event &head = feed.events.front();
  const int type = head.type;
  const size_t count = std::min(slice, head.ids.size() - head.given);
  brisel_ipc_event record = {nullptr};
  for (size_t i = count; i > 0; i--)
    record.id_list = g_slist_prepend(record.id_list, GINT_TO_POINTER(head.ids[head.given + i - 1]));
  head.given += count;
  if (head.given == head.ids.size()) feed.events.pop_front();
  const subscription to = feed.subscriptions[type];
  if (to.callback) {
    feed.delivering = true;
    to.callback(&record, nullptr, to.user_data);
    feed.delivering = false;
  }
  g_slist_free(record.id_list);
  return !feed.events.empty();
}

Eina_Bool slice_cb(void *data);

/* A timer rather than an idler: idlers follow each other without a frame being drawn in between. */
void slice_later(void) {
  if (!feed.next_slice) feed.next_slice = ecore_timer_add(slice_pause, slice_cb, nullptr);
}

Eina_Bool slice_cb(void *data) {
  feed.next_slice = nullptr;
  if (deliver_slice() && feed.open) slice_later();
  return ECORE_CALLBACK_CANCEL;
}

void queue_event(int type, const std::vector<int> &ids) {
  if (!feed.subscriptions[type].callback) return;
  if (ids.empty() && type != BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_COUNT_STATUS) return;
  /* Small ones of a kind in a row become one, so that a burst costs one redraw. */
  if (!feed.events.empty()) {
    event &last = feed.events.back();
    if (last.type == type && last.given == 0 && last.ids.size() + ids.size() <= slice) {
      last.ids.insert(last.ids.end(), ids.begin(), ids.end());
      return;
    }
  }
  feed.events.push_back({type, ids});
}

std::vector<int> read_ids(reader_query which, int from) {
  std::vector<int> ids;
  sql_statement *q = nullptr;
  if (reader_start(which, &q) || !q) return ids;
  if (from > 0) q->bind(from);
  sql_result r;
  while ((r = q->step()) == sql_row) ids.push_back(q->integer(0));
  reader_done(q, r);
  return ids;
}

/* What the application can learn from the store by itself at this moment is what it knows. */
void know_store(void) {
  feed.files_replaced = reader_files_replaced();
  feed.first_mail = 1;
  feed.last_mail = 0;
  sql_statement *q = nullptr;
  if (!reader_start(reader_mail_range, &q) && q) {
    const sql_result r = q->step();
    if (r == sql_row) {
      feed.first_mail = q->integer(0);
      feed.last_mail = q->integer(1);
    }
    reader_done(q, r);
  }
  const std::vector<int> accounts = read_ids(reader_accounts, 0);
  feed.accounts = {accounts.begin(), accounts.end()};
}

/* Changes are missing: the client was away for longer than they are kept, or the store is another one. What they must
   have come to is told from what the application knew and what the store holds now. */
void make_up(bool other_store) {
  __dlog_print(DLOG_WARN, log_tag, "%s; all of it is told anew",
               other_store ? "the store is another one" : "the changes since the last look are no longer kept");
  feed.events.clear(); /* they are part of it */
  std::vector<int> gone, known, fresh, accounts_gone;
  const std::vector<int> mails = read_ids(reader_mail_ids, 1);
  auto at = mails.begin();
  const int first = std::max(feed.first_mail, feed.last_mail - most_made_up);
  for (int64_t id = first; id <= feed.last_mail; id++) {
    while (at != mails.end() && *at < id) ++at;
    (other_store || at == mails.end() || *at != id ? gone : known).push_back(static_cast<int>(id));
  }
  for (const int id : mails)
    if (other_store || id > feed.last_mail) fresh.push_back(id);
  const std::vector<int> accounts = read_ids(reader_accounts, 0);
  for (const int id : feed.accounts)
    if (std::find(accounts.begin(), accounts.end(), id) == accounts.end()) accounts_gone.push_back(id);
  int status = 0;
  const bool counted = reader_get_state("account_count_known", 0, &status) == 1;
  queue_event(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, gone);
  queue_event(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE, accounts_gone);
  queue_event(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD, accounts);
  if (counted) queue_event(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_COUNT_STATUS, {});
  queue_event(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, known);
  queue_event(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD, fresh);
  queue_event(BRISEL_IPC_CLIENT_EVENT_TYPE_REQUEST, {0});
  know_store();
}

/* One row of the table of changes. */
void take_change(int type, std::vector<int> ids) {
  if (type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD) {
    std::erase_if(ids, [](int id) { return id <= feed.last_mail; }); /* told already, when others were made up */
    for (const int id : ids) feed.last_mail = std::max(feed.last_mail, id);
  }
  for (const int id : ids) {
    if (type == BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD) feed.accounts.insert(id);
    if (type == BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE) feed.accounts.erase(id);
  }
  queue_event(type, ids);
}

}  // namespace

void events_tell_requests(void) {
  if (!feed.open) return;
  queue_event(BRISEL_IPC_CLIENT_EVENT_TYPE_REQUEST, {0});
  if (!feed.events.empty()) slice_later();
}

void events_read(void) {
  if (!feed.open) return;
  reader_check_file();
  sql_statement *q = nullptr;
  if (reader_start(reader_last_change, &q) || !q) return;
  sql_result r = q->step();
  const int64_t newest = r == sql_row ? q->number(0) : 0;
  if (reader_done(q, r)) return;
  const bool other_store = reader_files_replaced() != feed.files_replaced || newest < feed.last_change;
  bool missing = other_store;
  if (!missing && newest > feed.last_change) {
    if (reader_start(reader_changes, &q) || !q) return;
    q->bind(feed.last_change);
    while ((r = q->step()) == sql_row) {
      const int64_t seq = q->number(0);
      missing = seq != feed.last_change + 1;
      if (missing) break;
      feed.last_change = seq;
      const int type = q->integer(1);
      if (type < 0 || type >= event_types) continue;
      take_change(type, ids_from_text(q->view(2)));
    }
    reader_done(q, r);
  }
  if (missing) {
    /* The number was read before what it stands for: what comes in between is told twice rather than not at all. */
    make_up(other_store);
    feed.last_change = newest;
  }
  if (feed.events.empty() || feed.next_slice) return;
  /* The first slice at once: a single mail is on screen in this turn of the loop. */
  if (deliver_slice() && feed.open) slice_later();
}

void events_start(void) {
  feed.open = true;
  know_store();
  feed.last_change = 0;
  sql_statement *q = nullptr;
  if (reader_start(reader_last_change, &q) || !q) return;
  const sql_result r = q->step();
  if (r == sql_row) feed.last_change = q->number(0);
  reader_done(q, r);
}

void events_stop(void) {
  feed.open = false;
  for (subscription &s : feed.subscriptions) s = {};
  feed.events.clear();
  if (feed.next_slice) ecore_timer_del(feed.next_slice);
  feed.next_slice = nullptr;
}

int brisel_ipc_client_event_subscribe(int event_type, brisel_ipc_event_cb callback, void *user_data) {
  if (event_type < 0 || event_type >= event_types || !callback) return BRISEL_COMMON_ERROR_INVALID;
  if (!feed.open) return BRISEL_COMMON_ERROR_LINK;
  feed.subscriptions[event_type] = {callback, user_data};
  return 0;
}

int brisel_ipc_client_event_unsubscribe(int event_type) {
  if (event_type < 0 || event_type >= event_types) return BRISEL_COMMON_ERROR_INVALID;
  if (!feed.open) return BRISEL_COMMON_ERROR_LINK;
  feed.subscriptions[event_type] = {};
  return 0;
}
