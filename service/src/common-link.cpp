/*
 * The host link: requests to the service, events from the store.
 *
 * Requests that expect no answer wait in a queue and go out one at a time, so that their order holds and a service that
 * vanishes leaves at most one in doubt; each has a uid, and the service does a uid once. What the bus could not take
 * over at once, or the service does not answer soon, is kept in a file as well: it outlives this process. Events are
 * rows of the store behind the last one seen: a signal only says that it is worth a look, and the service's coming back
 * does too.
 */
#include <Ecore.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "brisel-bus.h"
#include "brisel-common.h"
#include "bus-loop.h"
#include "common-kept.h"
#include "common-link-priv.h"
#include "dlog.h"
#include "reader.h"
#include "store-format.h"

namespace {

constexpr char log_tag[] = "BRISEL_COMMON";
constexpr char match_changed[] =
    "type='signal',sender='com.vextora.brisel.Host',path='/com/vextora/brisel/Host',"
    "interface='com.vextora.brisel.Watch1',member='Changed'";
constexpr char match_owner[] =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',interface='org.freedesktop.DBus',"
    "member='NameOwnerChanged',arg0='com.vextora.brisel.Host'";

constexpr int event_types = 6;
/* Ids that one callback gets: more of them wait until the main loop has drawn and taken input. */
constexpr size_t slice = 16;
constexpr double slice_pause = 0.001;
/* Mails that are looked through when changes are missing: far more than a watch holds, few enough for any memory. */
constexpr int most_made_up = 1000000;
/* A service that answers nothing for so long is taken for gone. */
constexpr uint64_t request_timeout_usec = 25u * 1000000u;
/* The service itself limits how long a phone may take; this is only for a service that hangs. */
constexpr uint64_t more_timeout_usec = 120u * 1000000u;
/* How long the end of the application may wait to hand over what is left. */
constexpr uint64_t flush_usec = 3u * 1000000u;
/* Seconds that a request may be in the hands of the bus alone. */
constexpr double keep_after = 0.2;
constexpr double retry_first = 0.5, retry_last = 30.0;

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
  sd_bus *bus; /* the one that the slots belong to; NULL: none now */
  sd_bus_slot *changed_slot;
  sd_bus_slot *owner_slot;
  sd_bus_slot *start_slot;
  bool service_away;
  uint64_t next_uid;
  char uid_base[64];

  std::deque<request> queue; /* the first one is on its way when call_slot is set */
  sd_bus_slot *call_slot;
  Ecore_Timer *retry;
  double retry_delay;
  bool kept; /* the queue, or what was there of it, is on the disk too */
  Ecore_Timer *keep;

  sd_bus_slot *more_slot;
  brisel_ipc_response_cb more_callback;
  void *more_data;

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
} host;

void send_next(void);
void attach(void);
void start_service(void);

/* --- events ------------------------------------------------------------------------------------------------------- */

bool deliver_slice(void) {
  if (host.delivering || host.events.empty()) return !host.events.empty();
  event &head = host.events.front();
  const int type = head.type;
  const size_t count = std::min(slice, head.ids.size() - head.given);
  brisel_ipc_event record = {nullptr};
  for (size_t i = count; i > 0; i--)
    record.id_list = g_slist_prepend(record.id_list, GINT_TO_POINTER(head.ids[head.given + i - 1]));
  head.given += count;
  if (head.given == head.ids.size()) host.events.pop_front();
  const subscription to = host.subscriptions[type];
  if (to.callback) {
    host.delivering = true;
    to.callback(&record, nullptr, to.user_data);
    host.delivering = false;
  }
  g_slist_free(record.id_list);
  return !host.events.empty();
}

Eina_Bool slice_cb(void *data);

/* A timer rather than an idler: idlers follow each other without a frame being drawn in between. */
void slice_later(void) {
  if (!host.next_slice) host.next_slice = ecore_timer_add(slice_pause, slice_cb, nullptr);
}

Eina_Bool slice_cb(void *data) {
  host.next_slice = nullptr;
  if (deliver_slice() && host.open) slice_later();
  return ECORE_CALLBACK_CANCEL;
}

void queue_event(int type, const std::vector<int> &ids) {
  if (!host.subscriptions[type].callback) return;
  if (ids.empty() && type != BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_COUNT_STATUS) return;
  /* Small ones of a kind in a row become one, so that a burst costs one redraw. */
  if (!host.events.empty()) {
    event &last = host.events.back();
    if (last.type == type && last.given == 0 && last.ids.size() + ids.size() <= slice) {
      last.ids.insert(last.ids.end(), ids.begin(), ids.end());
      return;
    }
  }
  host.events.push_back({type, ids});
}

std::vector<int> read_ids(reader_query which, int from) {
  std::vector<int> ids;
  sqlite3_stmt *q = nullptr;
  if (reader_start(which, &q) || !q) return ids;
  if (from > 0) sqlite3_bind_int(q, 1, from);
  int r;
  while ((r = sqlite3_step(q)) == SQLITE_ROW) ids.push_back(sqlite3_column_int(q, 0));
  reader_done(q, r);
  return ids;
}

/* What the application can learn from the store by itself at this moment is what it knows. */
void know_store(void) {
  host.files_replaced = reader_files_replaced();
  host.first_mail = 1;
  host.last_mail = 0;
  sqlite3_stmt *q = nullptr;
  if (!reader_start(reader_mail_range, &q) && q) {
    const int r = sqlite3_step(q);
    if (r == SQLITE_ROW) {
      host.first_mail = sqlite3_column_int(q, 0);
      host.last_mail = sqlite3_column_int(q, 1);
    }
    reader_done(q, r);
  }
  const std::vector<int> accounts = read_ids(reader_accounts, 0);
  host.accounts = {accounts.begin(), accounts.end()};
}

/* Changes are missing: the client was away for longer than they are kept, or the store is another one. What they must
   have come to is told from what the application knew and what the store holds now. */
void make_up(bool other_store) {
  __dlog_print(DLOG_WARN, log_tag, "%s; all of it is told anew",
               other_store ? "the store is another one" : "the changes since the last look are no longer kept");
  host.events.clear(); /* they are part of it */
  std::vector<int> gone, known, fresh, accounts_gone;
  const std::vector<int> mails = read_ids(reader_mail_ids, 1);
  auto at = mails.begin();
  const int first = std::max(host.first_mail, host.last_mail - most_made_up);
  for (int64_t id = first; id <= host.last_mail; id++) {
    while (at != mails.end() && *at < id) ++at;
    (other_store || at == mails.end() || *at != id ? gone : known).push_back(static_cast<int>(id));
  }
  for (const int id : mails)
    if (other_store || id > host.last_mail) fresh.push_back(id);
  const std::vector<int> accounts = read_ids(reader_accounts, 0);
  for (const int id : host.accounts)
    if (std::find(accounts.begin(), accounts.end(), id) == accounts.end()) accounts_gone.push_back(id);
  int status = 0;
  const bool counted = reader_get_state("account_count_known", 0, &status) == 1;
  queue_event(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, gone);
  queue_event(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE, accounts_gone);
  queue_event(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD, accounts);
  if (counted) queue_event(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_COUNT_STATUS, {});
  queue_event(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, known);
  queue_event(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD, fresh);
  know_store();
}

/* One row of the table of changes. */
void take_change(int type, std::vector<int> ids) {
  if (type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD) {
    std::erase_if(ids, [](int id) { return id <= host.last_mail; }); /* told already, when others were made up */
    for (const int id : ids) host.last_mail = std::max(host.last_mail, id);
  }
  for (const int id : ids) {
    if (type == BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD) host.accounts.insert(id);
    if (type == BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE) host.accounts.erase(id);
  }
  queue_event(type, ids);
}

/* Reads what the store has behind the last change seen. */
void read_changes(void) {
  if (!host.open) return;
  sqlite3_stmt *q = nullptr;
  if (reader_start(reader_last_change, &q) || !q) return;
  int r = sqlite3_step(q);
  const int64_t newest = r == SQLITE_ROW ? sqlite3_column_int64(q, 0) : 0;
  if (reader_done(q, r)) return;
  const bool other_store = reader_files_replaced() != host.files_replaced || newest < host.last_change;
  bool missing = other_store;
  if (!missing && newest > host.last_change) {
    if (reader_start(reader_changes, &q) || !q) return;
    sqlite3_bind_int64(q, 1, host.last_change);
    while ((r = sqlite3_step(q)) == SQLITE_ROW) {
      const int64_t seq = sqlite3_column_int64(q, 0);
      missing = seq != host.last_change + 1;
      if (missing) break;
      host.last_change = seq;
      const int type = sqlite3_column_int(q, 1);
      if (type < 0 || type >= event_types) continue;
      const unsigned char *text = sqlite3_column_text(q, 2);
      take_change(type, ids_from_text(text ? reinterpret_cast<const char *>(text) : ""));
    }
    reader_done(q, r);
  }
  if (missing) {
    /* The number was read before what it stands for: what comes in between is told twice rather than not at all. */
    make_up(other_store);
    host.last_change = newest;
  }
  if (host.events.empty() || host.next_slice) return;
  /* The first slice at once: a single mail is on screen in this turn of the loop. */
  if (deliver_slice() && host.open) slice_later();
}

/* --- requests ----------------------------------------------------------------------------------------------------- */

}  // namespace

/* A copy that may travel: valid UTF-8. Fixed-size buffers cut texts anywhere, also inside a character. */
std::string common_bus_text(const char *text) {
  if (!text) return {};
  const char *end = nullptr;
  if (g_utf8_validate(text, -1, &end)) return clean_text(text);
  const size_t rest = strlen(end);
  if (rest < 4 && g_utf8_get_char_validated(end, static_cast<gssize>(rest)) == static_cast<gunichar>(-2))
    return clean_text({text, static_cast<size_t>(end - text)});
  return clean_text(text);
}

namespace {

std::string new_uid(void) {
  return host.uid_base + std::to_string(++host.next_uid);
}

int new_message(const request &r, sd_bus_message **m) {
  int e = sd_bus_message_new_method_call(host.bus, m, host_name, host_path, watch_interface, kept_member(r.type));
  if (e >= 0) e = sd_bus_message_append_basic(*m, 's', r.uid.c_str());
  if (r.type == BRISEL_IPC_CLIENT_REQ_TYPE_REPLY) {
    for (size_t i = 0; e >= 0 && i < 5; i++) e = sd_bus_message_append_basic(*m, 's', r.texts[i].c_str());
    if (e >= 0) e = sd_bus_message_append(*m, "is", r.mail_id, r.texts[5].c_str());
  } else if (r.type >= 0) {
    if (e >= 0) e = sd_bus_message_append_array(*m, 'i', r.ids.data(), r.ids.size() * sizeof(int32_t));
    if (e >= 0 && r.type == BRISEL_IPC_CLIENT_REQ_TYPE_UPDATE_IND)
      e = sd_bus_message_append_basic(*m, 'i', &r.host_state);
  }
  if (e < 0) *m = sd_bus_message_unref(*m);
  return e;
}

void answer(brisel_ipc_response_cb callback, void *user_data, const std::vector<int> &ids, int error) {
  if (!callback) return;
  brisel_ipc_event record = {nullptr};
  for (size_t i = ids.size(); i > 0; i--) record.id_list = g_slist_prepend(record.id_list, GINT_TO_POINTER(ids[i - 1]));
  callback(error ? nullptr : &record, error, user_data);
  g_slist_free(record.id_list);
}

void stop_keeping(void) {
  if (host.keep) ecore_timer_del(host.keep);
  host.keep = nullptr;
}

void keep_queue(bool lasting) {
  stop_keeping();
  std::vector<const kept_request *> waiting;
  for (const request &r : host.queue) waiting.push_back(&r);
  host.kept = kept_save(waiting, lasting) || host.kept;
}

Eina_Bool keep_cb(void *data) {
  host.keep = nullptr;
  keep_queue(true);
  return ECORE_CALLBACK_CANCEL;
}

/* A request that is done may stay on the disk until all are: its uid makes a second time harmless. */
void forget_when_done(void) {
  if (!host.queue.empty()) return;
  stop_keeping();
  if (host.kept) kept_forget();
  host.kept = false;
}

Eina_Bool retry_cb(void *data) {
  host.retry = nullptr;
  attach();
  start_service();
  send_next();
  return ECORE_CALLBACK_CANCEL;
}

void retry_later(void) {
  if (host.retry || !host.open) return;
  host.retry = ecore_timer_add(host.retry_delay, retry_cb, nullptr);
  host.retry_delay = std::min(host.retry_delay * 2, retry_last);
}

void retry_now(void) {
  if (host.retry) ecore_timer_del(host.retry);
  host.retry = nullptr;
  send_next(); /* the delay stays until something is answered: a service may come only to fall again */
}

/* Whether the service said no, rather than being unreachable: sending the same again would change nothing. */
bool is_refusal(const char *error) {
  if (!strcmp(error, host_error_store) || !strcmp(error, host_error_full)) return false;
  if (!strncmp(error, host_error_prefix, strlen(host_error_prefix))) return true;
  for (const char *name : {SD_BUS_ERROR_INVALID_ARGS, SD_BUS_ERROR_UNKNOWN_METHOD, SD_BUS_ERROR_UNKNOWN_OBJECT,
                           SD_BUS_ERROR_UNKNOWN_INTERFACE, SD_BUS_ERROR_ACCESS_DENIED, SD_BUS_ERROR_INVALID_SIGNATURE,
                           SD_BUS_ERROR_LIMITS_EXCEEDED})
    if (!strcmp(error, name)) return true;
  return false;
}

/* The first request of the queue is done, one way or the other. */
void finish_first(const sd_bus_error *refused) {
  const request done = std::move(host.queue.front());
  host.queue.pop_front();
  host.retry_delay = retry_first;
  if (refused)
    __dlog_print(DLOG_ERROR, log_tag, "%s was refused: %s", kept_member(done.type),
                 refused->message ? refused->message : "");
  forget_when_done();
  send_next();
  answer(done.callback, done.user_data, done.ids, refused ? BRISEL_COMMON_ERROR_REMOTE : 0);
}

int request_cb(sd_bus_message *m, void *data, sd_bus_error *unused) {
  host.call_slot = sd_bus_slot_unref(host.call_slot);
  const sd_bus_error *error = sd_bus_message_get_error(m);
  if (error && !is_refusal(error->name)) {
    /* The service may have done it without being able to say so: the same uid again does no harm. */
    __dlog_print(DLOG_WARN, log_tag, "%s goes out again: %s", kept_member(host.queue.front().type),
                 error->message ? error->message : error->name);
    retry_later();
  } else {
    finish_first(error);
  }
  return 0;
}

void send_next(void) {
  if (host.queue.empty() || host.call_slot || host.retry || !host.open) return;
  if (!host.bus) {
    retry_later();
    return;
  }
  sd_bus_message *m = nullptr;
  int e = new_message(host.queue.front(), &m);
  if (e == -EINVAL) {
    /* No bus will ever take it; those behind it must not wait for that. */
    const sd_bus_error error = {host_error_invalid, "the bus does not take it", 0};
    finish_first(&error);
    return;
  }
  if (e >= 0) e = sd_bus_call_async(host.bus, &host.call_slot, m, request_cb, nullptr, request_timeout_usec);
  sd_bus_message_unref(m);
  if (e < 0) {
    __dlog_print(DLOG_WARN, log_tag, "%s cannot be sent now: %s", kept_member(host.queue.front().type), strerror(-e));
    retry_later();
  }
}

}  // namespace

int common_enqueue(request r) {
  if (!host.open) return BRISEL_COMMON_ERROR_LINK;
  attach();
  /* Without a bus nothing can take it over; what was taken before waits for the bus to come back. */
  if (!host.bus) return BRISEL_COMMON_ERROR_LINK;
  r.uid = new_uid();
  host.queue.push_back(std::move(r));
  send_next();
  /* In a file before the screen says that it is done: what the bus took over may still wait at a service that stands
     still, and both may be killed. Through a power cut it lasts from when the service has it, or the timer here has
     run: nobody waits for the disk. */
  if (host.queue.empty()) return 0; /* refused already, which was said */
  keep_queue(false);
  host.keep = ecore_timer_add(keep_after, keep_cb, nullptr);
  return 0;
}

namespace {

/* --- the bus ------------------------------------------------------------------------------------------------------ */

int changed_cb(sd_bus_message *m, void *data, sd_bus_error *unused) {
  read_changes();
  return 0;
}

int owner_cb(sd_bus_message *m, void *data, sd_bus_error *unused) {
  const char *name = nullptr, *before = nullptr, *after = nullptr;
  if (sd_bus_message_read(m, "sss", &name, &before, &after) < 0) return 0;
  host.service_away = !*after;
  if (host.service_away) {
    /* Not at once: a service that cannot live must not be started in a circle. */
    retry_later();
    return 0;
  }
  reader_check_file();
  read_changes();
  if (host.open) retry_now();
  return 0;
}

/* Whether m is an error, which is then logged. */
bool tell_error(sd_bus_message *m, log_priority priority, const char *what) {
  const sd_bus_error *error = sd_bus_message_get_error(m);
  if (error) __dlog_print(priority, log_tag, "%s: %s", what, error->message ? error->message : error->name);
  return error != nullptr;
}

/* The bus passes signals on from now; what changed while it was asked to must be looked for. */
int matched_cb(sd_bus_message *m, void *data, sd_bus_error *unused) {
  tell_error(m, DLOG_ERROR, "the service's signals are not to be had");
  read_changes();
  return 0;
}

int started_cb(sd_bus_message *m, void *data, sd_bus_error *unused) {
  if (!tell_error(m, DLOG_WARN, "the host service does not start")) host.service_away = false;
  host.start_slot = sd_bus_slot_unref(host.start_slot);
  return 0;
}

/* Without the service nobody tells what changes, nor puts right what a killed one left. */
void start_service(void) {
  if (!host.bus || !host.service_away || host.start_slot) return;
  const int e =
      sd_bus_call_method_async(host.bus, &host.start_slot, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "StartServiceByName", started_cb, nullptr, "su", host_name, 0u);
  if (e < 0) __dlog_print(DLOG_WARN, log_tag, "the host service cannot be asked for: %s", strerror(-e));
}

void detach(void) {
  host.changed_slot = sd_bus_slot_unref(host.changed_slot);
  host.owner_slot = sd_bus_slot_unref(host.owner_slot);
  host.start_slot = sd_bus_slot_unref(host.start_slot);
  host.call_slot = sd_bus_slot_unref(host.call_slot);
  host.bus = nullptr;
}

void fail_more(int error) {
  host.more_slot = sd_bus_slot_unref(host.more_slot);
  const brisel_ipc_response_cb callback = host.more_callback;
  host.more_callback = nullptr;
  if (callback) callback(nullptr, error, host.more_data);
}

/* Makes the slots on the present connection, if there is one and they are not there yet. */
void attach(void) {
  sd_bus *bus = bus_loop_session();
  if (bus == host.bus) return;
  detach();
  if (!bus) return;
  host.bus = bus;
  int e = sd_bus_add_match_async(bus, &host.changed_slot, match_changed, changed_cb, matched_cb, nullptr);
  if (e >= 0) e = sd_bus_add_match_async(bus, &host.owner_slot, match_owner, owner_cb, matched_cb, nullptr);
  host.service_away = true; /* as far as is known */
  if (e >= 0) start_service();
  if (e < 0) {
    __dlog_print(DLOG_ERROR, log_tag, "the host link cannot be made: %s", strerror(-e));
    detach();
  }
}

void bus_watch_cb(bool connected, void *data) {
  if (!host.open) return;
  if (connected) {
    attach();
    reader_check_file();
    read_changes();
    if (host.open) retry_now();
    return;
  }
  detach();
  if (!host.queue.empty()) retry_later();
  fail_more(BRISEL_COMMON_ERROR_LINK);
}

/* Before the application ends: hands over what is still here. The uid makes a second time harmless. */
void flush_queue(void) {
  host.call_slot = sd_bus_slot_unref(host.call_slot);
  timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  while (!host.queue.empty()) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t spent = (now.tv_sec - start.tv_sec) * 1000000LL + (now.tv_nsec - start.tv_nsec) / 1000;
    sd_bus_message *m = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    int e = host.bus && spent < static_cast<int64_t>(flush_usec) ? new_message(host.queue.front(), &m) : -ETIMEDOUT;
    if (e >= 0) e = sd_bus_call(host.bus, m, flush_usec - static_cast<uint64_t>(spent), &error, nullptr);
    sd_bus_message_unref(m);
    const bool refused = e < 0 && sd_bus_error_is_set(&error) && is_refusal(error.name);
    if (e < 0)
      __dlog_print(DLOG_ERROR, log_tag, "%s was not handed over: %s", kept_member(host.queue.front().type),
                   error.message ? error.message : strerror(-e));
    sd_bus_error_free(&error);
    if (e < 0 && !refused) break;
    host.queue.pop_front();
  }
  /* The next start hands over what is left. */
  host.queue.empty() ? forget_when_done() : keep_queue(true);
  stop_keeping();
  host.kept = false;
  host.queue.clear();
}

}  // namespace

/* --- the interface ------------------------------------------------------------------------------------------------ */

int brisel_ipc_client_init(void) {
  if (host.open) return 0;
  host.open = true;
  host.retry_delay = retry_first;
  reader_hold();
  /* Unlike any other request's, also of this process's earlier and later lives. */
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  snprintf(host.uid_base, sizeof(host.uid_base), "%lld.%09ld-%ld-%08x-", static_cast<long long>(now.tv_sec),
           now.tv_nsec, static_cast<long>(getpid()), g_random_int());
  know_store();
  host.last_change = 0;
  sqlite3_stmt *q = nullptr;
  if (!reader_start(reader_last_change, &q) && q) {
    const int r = sqlite3_step(q);
    if (r == SQLITE_ROW) host.last_change = sqlite3_column_int64(q, 0);
    reader_done(q, r);
  }
  for (kept_request &left : kept_load()) {
    request r;
    static_cast<kept_request &>(r) = std::move(left);
    for (std::string &text : r.texts) text = clean_text(text);
    host.queue.push_back(std::move(r));
  }
  host.kept = !host.queue.empty();
  bus_loop_watch_add(bus_watch_cb, nullptr);
  attach();
  send_next();
  return host.bus ? 0 : BRISEL_COMMON_ERROR_LINK;
}

int brisel_ipc_client_deinit(void) {
  if (!host.open) return BRISEL_COMMON_ERROR_LINK;
  bus_loop_watch_del(bus_watch_cb, nullptr);
  for (subscription &s : host.subscriptions) s = {};
  host.events.clear();
  if (host.next_slice) ecore_timer_del(host.next_slice);
  host.next_slice = nullptr;
  if (host.retry) ecore_timer_del(host.retry);
  host.retry = nullptr;
  host.more_slot = sd_bus_slot_unref(host.more_slot);
  host.more_callback = nullptr;
  flush_queue();
  host.open = false;
  detach();
  reader_release();
  return 0;
}

int brisel_ipc_client_event_subscribe(int event_type, brisel_ipc_event_cb callback, void *user_data) {
  if (event_type < 0 || event_type >= event_types || !callback) return BRISEL_COMMON_ERROR_INVALID;
  if (!host.open) return BRISEL_COMMON_ERROR_LINK;
  host.subscriptions[event_type] = {callback, user_data};
  return 0;
}

int brisel_ipc_client_event_unsubscribe(int event_type) {
  if (event_type < 0 || event_type >= event_types) return BRISEL_COMMON_ERROR_INVALID;
  if (!host.open) return BRISEL_COMMON_ERROR_LINK;
  host.subscriptions[event_type] = {};
  return 0;
}

int brisel_ipc_req_cancel(int request_type) {
  if (request_type < 0 || request_type > BRISEL_IPC_CLIENT_REQ_TYPE_MORE_MSG) return BRISEL_COMMON_ERROR_INVALID;
  if (!host.open) return BRISEL_COMMON_ERROR_LINK;
  if (request_type == BRISEL_IPC_CLIENT_REQ_TYPE_MORE_MSG) {
    host.more_slot = sd_bus_slot_unref(host.more_slot);
    host.more_callback = nullptr;
    return 0;
  }
  for (request &r : host.queue)
    if (r.type == request_type) r.callback = nullptr;
  return 0;
}

namespace {

int more_cb(sd_bus_message *m, void *data, sd_bus_error *unused) {
  host.more_slot = sd_bus_slot_unref(host.more_slot);
  const brisel_ipc_response_cb callback = host.more_callback;
  host.more_callback = nullptr;
  if (!callback) return 0;
  static const struct {
    const char *name;
    int code;
  } errors[] = {
      {host_error_no_phone, BRISEL_COMMON_ERROR_NO_PHONE}, {host_error_timeout, BRISEL_COMMON_ERROR_TIMEOUT},
      {host_error_phone, BRISEL_COMMON_ERROR_REMOTE},      {host_error_invalid, BRISEL_COMMON_ERROR_NOT_FOUND},
      {host_error_store, BRISEL_COMMON_ERROR_STORE},
  };
  int code = 0;
  std::vector<int> ids;
  if (const sd_bus_error *error = sd_bus_message_get_error(m)) {
    code = BRISEL_COMMON_ERROR_LINK; /* the service is gone, or never came */
    for (const auto &known : errors)
      if (!strcmp(known.name, error->name)) code = known.code;
  } else {
    const void *numbers = nullptr;
    size_t bytes = 0;
    if (sd_bus_message_read_array(m, 'i', &numbers, &bytes) < 0) {
      code = BRISEL_COMMON_ERROR_REMOTE;
    } else {
      const int32_t *first = static_cast<const int32_t *>(numbers);
      ids.assign(first, first + bytes / sizeof(int32_t));
    }
  }
  answer(callback, host.more_data, ids, code);
  return 0;
}

}  // namespace

int brisel_ipc_req_more_msg(more_msg_req_data *data, brisel_ipc_response_cb callback, void *user_data) {
  if (!data || data->mail_id <= 0) return BRISEL_COMMON_ERROR_INVALID;
  if (!host.open) return BRISEL_COMMON_ERROR_LINK;
  attach();
  if (!host.bus) return BRISEL_COMMON_ERROR_LINK;
  host.more_slot = sd_bus_slot_unref(host.more_slot); /* at most one is pending */
  host.more_callback = nullptr;
  sd_bus_message *m = nullptr;
  int e = sd_bus_message_new_method_call(host.bus, &m, host_name, host_path, watch_interface, "MoreMsg");
  if (e >= 0)
    e = sd_bus_message_append(m, "ssi", new_uid().c_str(), common_bus_text(data->message_uid).c_str(), data->mail_id);
  if (e >= 0) e = sd_bus_call_async(host.bus, &host.more_slot, m, more_cb, nullptr, more_timeout_usec);
  sd_bus_message_unref(m);
  if (e < 0) return BRISEL_COMMON_ERROR_LINK;
  host.more_callback = callback;
  host.more_data = user_data;
  return 0;
}
