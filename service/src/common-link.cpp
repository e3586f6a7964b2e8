/* The host link: its connection to the service, and the queue of requests.

   Requests that expect no answer wait in a queue and go out one at a time, so that their order holds and a service that
   vanishes leaves at most one in doubt; each has a uid, and the service does a uid once. Until then they are in a file
   as well: they outlive this process. common-requests.cpp and the public functions of the link call it. */
#include <Ecore.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <deque>
#include <string>
#include <utility>
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

/* A service that answers nothing for so long is taken for gone. */
constexpr uint64_t request_timeout_usec = 25u * 1000000u;
/* The service itself limits how long a phone may take; this is only for a service that hangs. */
constexpr uint64_t more_timeout_usec = 120u * 1000000u;
/* How long the end of the application may wait to hand over what is left. */
constexpr uint64_t flush_usec = 3u * 1000000u;
/* Seconds that a request may be in the hands of the bus alone. */
constexpr double keep_after = 0.2;
constexpr double retry_first = 0.5, retry_last = 30.0;

struct {
  bool open;
  sd_bus *bus; /* the one that the slots belong to; NULL: none now */
  sd_bus_slot *changed_slot;
  sd_bus_slot *owner_slot;
  sd_bus_slot *start_slot;
  bool service_away;
  uint64_t next_uid;
  int next_number;
  char uid_base[64];

  std::deque<request> queue; /* the first one is on its way when call_slot is set */
  sd_bus_slot *call_slot;
  Ecore_Timer *retry;
  double retry_delay;
  bool kept; /* the queue, or what was there of it, is on the disk too */
  Ecore_Timer *keep;
  brisel_ipc_trouble_cb trouble_callback;
  void *trouble_data;

  sd_bus_slot *more_slot;
  brisel_ipc_response_cb more_callback;
  void *more_data;
} host;

void send_next(void);
void attach(void);
void start_service(void);

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

int append_show(const request &r, sd_bus_message *m) {
  const size_t mails = static_cast<size_t>(r.mail_id), bytes = mails * sizeof(int32_t);
  int e = sd_bus_message_append_basic(m, 's', r.texts[0].c_str());
  if (e >= 0) e = sd_bus_message_append_array(m, 'i', r.ids.data(), bytes);
  return e < 0 || r.ids.size() == mails ? e : sd_bus_message_append_array(m, 'i', r.ids.data() + mails, bytes);
}

int new_message(const request &r, sd_bus_message **m) {
  const bool has_positions = r.type == kept_show && r.ids.size() != static_cast<size_t>(r.mail_id);
  int e = sd_bus_message_new_method_call(host.bus, m, host_name, host_path, watch_interface,
                                         has_positions ? "ShowAt" : kept_member(r.type));
  if (e >= 0) e = sd_bus_message_append_basic(*m, 's', r.uid.c_str());
  if (r.type == BRISEL_IPC_CLIENT_REQ_TYPE_REPLY) {
    for (size_t i = 0; e >= 0 && i < 5; i++) e = sd_bus_message_append_basic(*m, 's', r.texts[i].c_str());
    if (e >= 0) e = sd_bus_message_append(*m, "is", r.mail_id, r.texts[5].c_str());
  } else if (r.type == BRISEL_IPC_CLIENT_REQ_TYPE_DROP_REQUEST) {
    if (e >= 0) e = sd_bus_message_append(*m, "x", static_cast<int64_t>(r.ids[0]));
  } else if (r.type == BRISEL_IPC_CLIENT_REQ_TYPE_REPEAT_REQUEST) {
    const char *text = r.texts.empty() ? "" : r.texts[0].c_str();
    if (e >= 0) e = sd_bus_message_append(*m, "xbs", static_cast<int64_t>(r.ids[0]), !r.texts.empty(), text);
  } else if (r.type == kept_show) {
    if (e >= 0) e = append_show(r, *m);
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

bool keep_queue(bool lasting) {
  stop_keeping();
  std::vector<const kept_request *> waiting;
  for (const request &r : host.queue) waiting.push_back(&r);
  const bool saved = kept_save(waiting, lasting);
  host.kept = saved || host.kept;
  return saved;
}

Eina_Bool keep_cb(void *data) {
  host.keep = nullptr;
  kept_sync();
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

/* Nothing that was told of still waits. */
void tell_trouble_over(void) {
  for (const request &r : host.queue)
    if (r.trouble_told) return;
  if (host.trouble_callback) host.trouble_callback(-1, host.trouble_data);
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
  if (done.trouble_told) tell_trouble_over();
  send_next();
  if (done.is_told) events_tell_requests();
  answer(done.callback, done.user_data, done.ids, refused ? BRISEL_COMMON_ERROR_REMOTE : 0);
}

/* Its user looks at "waiting and sent": what stays here stands there. */
void tell_waiting(request *r) {
  if (r->is_told) return;
  r->is_told = true;
  events_tell_requests();
}

void tell_trouble(void) {
  request &stuck = host.queue.front();
  if (stuck.trouble_told || !host.trouble_callback) return;
  stuck.trouble_told = true;
  host.trouble_callback(stuck.type, host.trouble_data);
}

int request_cb(sd_bus_message *m, void *data, sd_bus_error *unused) {
  host.call_slot = sd_bus_slot_unref(host.call_slot);
  const sd_bus_error *error = sd_bus_message_get_error(m);
  if (error && !is_refusal(error->name)) {
    /* The service may have done it without being able to say so: the same uid again does no harm. */
    __dlog_print(DLOG_WARN, log_tag, "%s goes out again: %s", kept_member(host.queue.front().type),
                 error->message ? error->message : error->name);
    request &first = host.queue.front();
    if (first.type == BRISEL_IPC_CLIENT_REQ_TYPE_REPLY && bus_has_nobody(error->name))
      first.host_state = kept_with_nobody;
    tell_waiting(&first);
    retry_later();
    if (!strcmp(error->name, host_error_store) || !strcmp(error->name, host_error_full)) tell_trouble();
  } else {
    finish_first(error);
  }
  return 0;
}

bool is_stale_show(const request &r) {
  /* The low half of the time is kept: their difference is right in any year. */
  const auto age = static_cast<int32_t>(static_cast<uint32_t>(time(nullptr)) - static_cast<uint32_t>(r.host_state));
  return r.type == kept_show && (age < 0 || age > show_age);
}

void send_next(void) {
  if (host.queue.empty() || host.call_slot || host.retry || !host.open) return;
  if (!host.bus) {
    retry_later();
    return;
  }
  request &first = host.queue.front();
  if (is_stale_show(first)) {
    const sd_bus_error error = {host_error_timeout, "nobody waits for it any more", 0};
    finish_first(&error);
    return;
  }
  if (common_is_here_only(&first)) {
    /* In the file too before anybody can have it. */
    first.host_state = 0;
    if (host.kept) keep_queue(false);
  }
  sd_bus_message *m = nullptr;
  int e = new_message(first, &m);
  if (e == -EINVAL) {
    /* No bus will ever take it; those behind it must not wait for that. */
    const sd_bus_error error = {host_error_invalid, "the bus does not take it", 0};
    finish_first(&error);
    return;
  }
  if (e >= 0) e = sd_bus_call_async(host.bus, &host.call_slot, m, request_cb, nullptr, request_timeout_usec);
  sd_bus_message_unref(m);
  if (e < 0) {
    __dlog_print(DLOG_WARN, log_tag, "%s cannot be sent now: %s", kept_member(first.type), strerror(-e));
    tell_waiting(&first);
    retry_later();
  }
}

request *find_waiting(int number) {
  for (request &r : host.queue)
    if (r.number == number && common_is_here_only(&r)) return &r;
  return nullptr;
}

}  // namespace

std::vector<const request *> common_waiting(void) {
  std::vector<const request *> waiting;
  for (const request &r : host.queue) waiting.push_back(&r);
  return waiting;
}

bool common_is_here_only(const request *r) {
  return r->type == BRISEL_IPC_CLIENT_REQ_TYPE_REPLY && r->host_state == kept_with_nobody;
}

int common_change_waiting(int number, const char *text) {
  request *r = find_waiting(number);
  if (!r) return BRISEL_COMMON_ERROR_NOT_FOUND;
  if (text) {
    std::string before = std::exchange(r->texts[kept_reply_text], common_bus_text(text));
    if (!keep_queue(false)) {
      r->texts[kept_reply_text] = std::move(before);
      return BRISEL_COMMON_ERROR_LINK;
    }
    kept_sync();
  }
  events_tell_requests();
  brisel_ipc_client_try_again();
  return 0;
}

int common_drop_waiting(int number) {
  const request *r = find_waiting(number);
  if (!r) return BRISEL_COMMON_ERROR_NOT_FOUND;
  const auto at = std::find_if(host.queue.begin(), host.queue.end(), [r](const request &one) { return &one == r; });
  const auto place = at - host.queue.begin();
  request dropped = std::move(*at);
  host.queue.erase(at);
  if (!host.queue.empty() && !keep_queue(false)) {
    host.queue.insert(host.queue.begin() + place, std::move(dropped));
    return BRISEL_COMMON_ERROR_LINK;
  }
  forget_when_done();
  if (dropped.trouble_told) tell_trouble_over();
  if (!host.queue.empty()) kept_sync();
  events_tell_requests();
  return 0;
}

int common_enqueue(request r) {
  if (!host.open) return BRISEL_COMMON_ERROR_LINK;
  attach();
  r.uid = new_uid();
  r.number = ++host.next_number;
  host.queue.push_back(std::move(r));
  send_next();
  /* In a file before the screen says that it is done, in every state of the service, and without a bus too: what the
     bus took over may still wait at a service that stands still, and both may be killed. */
  if (host.queue.empty()) return 0; /* refused already, which was said */
  const bool on_its_way = host.bus && !host.service_away && !host.retry;
  const bool sent = host.call_slot && host.queue.size() == 1;
  request &last = host.queue.back();
  if (!sent && last.type == BRISEL_IPC_CLIENT_REQ_TYPE_REPLY) last.host_state = kept_with_nobody;
  const bool saved = keep_queue(false);
  if (!saved && !on_its_way && !sent) {
    /* Neither the disk nor the bus has it: it is not taken. */
    host.queue.pop_back();
    return BRISEL_COMMON_ERROR_LINK;
  }
  /* Through a power cut it lasts from when the service has it, which is soon when there is one; else the file is
     synced, on a thread. */
  if (!on_its_way) tell_waiting(&last);
  if (on_its_way)
    host.keep = ecore_timer_add(keep_after, keep_cb, nullptr);
  else
    kept_sync();
  return 0;
}

namespace {

/* --- the bus ------------------------------------------------------------------------------------------------------ */

int changed_cb(sd_bus_message *m, void *data, sd_bus_error *unused) {
  events_read();
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
  events_read();
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
  events_read();
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
    events_read();
    if (host.open) retry_now();
    return;
  }
  detach();
  if (!host.queue.empty()) retry_later();
  fail_more(BRISEL_COMMON_ERROR_LINK);
}

/* Replies that no service can have, as from now on one may: in the file first. */
void expect_offers(void) {
  bool changed = false;
  for (request &r : host.queue) {
    changed |= common_is_here_only(&r);
    if (r.type == BRISEL_IPC_CLIENT_REQ_TYPE_REPLY) r.host_state = 0;
  }
  if (changed && host.kept) keep_queue(false);
}

/* Before the application ends: hands over what is still here. The uid makes a second time harmless. */
void flush_queue(void) {
  host.call_slot = sd_bus_slot_unref(host.call_slot);
  timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  expect_offers();
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
  if (host.queue.empty())
    forget_when_done();
  else
    keep_queue(true);
  stop_keeping();
  kept_sync_end();
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
  events_start();
  for (kept_request &left : kept_load()) {
    request r;
    static_cast<kept_request &>(r) = std::move(left);
    r.number = ++host.next_number;
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
  events_stop();
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

void brisel_ipc_client_set_trouble_cb(brisel_ipc_trouble_cb callback, void *user_data) {
  host.trouble_callback = callback;
  host.trouble_data = user_data;
}

void brisel_ipc_client_try_again(void) {
  for (request &r : host.queue) r.trouble_told = false;
  host.retry_delay = retry_first;
  if (host.retry) retry_now();
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
