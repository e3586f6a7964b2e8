/* A stream to the watch: opened, waited on, given up when it is silent for too long, and the first words on it. */
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>

#include "host-parts.h"

namespace {

constexpr uint64_t kSecond = 1000000;
constexpr uint64_t kOpenPatience = 30 * kSecond; /* until a way that is being opened is there */
constexpr uint64_t kDoubtPatience = 3 * kSecond; /* after the network changed */
/* What is on its way at once takes no more than the patience with any call on every link that deserves the name; the
   rest of a large call gets time for itself. */
constexpr size_t kBytesAtOnce = 65536, kSlowestBytesPerSecond = 8000;

uint64_t boot_now() {
  timespec now = {};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * kSecond + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

uint64_t patience_with(const host_bus &bus) {
  if (sd_bus_is_ready(bus.bus) <= 0) return kOpenPatience;
  size_t rest = bus.on_way > kBytesAtOnce ? bus.on_way - kBytesAtOnce : 0;
  return bus.patience + rest / kSlowestBytesPerSecond * kSecond;
}

/* Waits until something comes or goes, or the network changes, but not beyond `until`. Returns 1 when the stream moved,
   2 when the network changed, 0, or an errno below 0. */
int wait_once(host_bus *bus, uint64_t until, bool nudged) {
  int events = sd_bus_get_events(bus->bus);
  uint64_t timer = UINT64_MAX; /* of CLOCK_MONOTONIC */
  if (events < 0) return events;
  int r = sd_bus_get_timeout(bus->bus, &timer);
  if (r < 0) return r;
  uint64_t now = boot_now(), wait = until > now ? until - now : 0;
  if (timer != UINT64_MAX) {
    timespec at = {};
    clock_gettime(CLOCK_MONOTONIC, &at);
    uint64_t mono = static_cast<uint64_t>(at.tv_sec) * kSecond + static_cast<uint64_t>(at.tv_nsec) / 1000;
    wait = std::min(wait, timer > mono ? timer - mono : 0);
  }
  pollfd fds[] = {{sd_bus_get_fd(bus->bus), static_cast<short>(events), 0}, {nudged ? -1 : bus->nudge_fd, POLLIN, 0}};
  r = poll(fds, 2, static_cast<int>(std::min<uint64_t>(wait / 1000 + 1, 60000)));
  if (r < 0) return errno == EINTR ? 0 : -errno;
  return fds[0].revents ? 1 : fds[1].revents ? 2 : 0;
}

/* The watch has nothing to call here. Unanswered: answers to one that takes none would pile up. */
int call_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  uint8_t type = 0;
  sd_bus_message_get_type(m, &type);
  return type == SD_BUS_MESSAGE_METHOD_CALL ? 1 : 0;
}

int new_stream(host_bus *bus) {
  int fd = fcntl(bus->way.fd, F_DUPFD_CLOEXEC, 3); /* the connection closes its own */
  if (fd < 0) return -errno;
  int r = sd_bus_new(&bus->bus);
  if (r >= 0) r = sd_bus_set_fd(bus->bus, fd, fd);
  if (r < 0) {
    close(fd);
    return r;
  }
  r = sd_bus_set_anonymous(bus->bus, 1);
  if (r >= 0) r = sd_bus_add_filter(bus->bus, nullptr, call_cb, nullptr);
  if (r >= 0) r = sd_bus_set_close_on_exit(bus->bus, 0); /* it would wait for whoever does not take what is said */
  return r < 0 ? r : sd_bus_start(bus->bus);
}

int read_introduction(sd_bus_message *m, watch_identity *watch) {
  const char *id = nullptr, *name = nullptr, *capability = nullptr;
  int r = sd_bus_message_read(m, "uss", &watch->version, &id, &name);
  if (r < 0) return r;
  /* They are shown, and written into files. */
  watch->id = std::string(id, strnlen(id, pair_id_size));
  watch->name = std::string(name, strnlen(name, pair_name_max));
  for (std::string *text : {&watch->id, &watch->name})
    std::replace_if(
        text->begin(), text->end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, ' ');
  r = sd_bus_message_enter_container(m, 'a', "s");
  while (r >= 0 && (r = sd_bus_message_read(m, "s", &capability)) > 0)
    if (strcmp(capability, pair_zlib) == 0)
      watch->zlib = true;
    else if (strcmp(capability, pair_mail_ids) == 0)
      watch->mail_ids = true;
    else if (strcmp(capability, pair_free) == 0)
      watch->free = true;
    else if (strcmp(capability, pair_ack_mails) == 0)
      watch->ack_mails = true;
  return r;
}

int append_introduction(sd_bus_message *m, const phone_identity &me) {
  return sd_bus_message_append(m, "ussas", pair_version, host_bus_text(me.id).c_str(), host_bus_text(me.name).c_str(),
                               me.outcomes ? 2 : 1, pair_zlib, pair_outcomes);
}

/* Whether the error says that nobody knows the call: a service, or a gate, from before it was there. */
bool unknown_call(const sd_bus_error &why) {
  for (const char *name : {SD_BUS_ERROR_UNKNOWN_METHOD, SD_BUS_ERROR_UNKNOWN_INTERFACE, SD_BUS_ERROR_ACCESS_DENIED})
    if (why.name && strcmp(why.name, name) == 0) return true;
  return false;
}

int compatible(const watch_identity &watch, std::string *error) {
  if (watch.version >= pair_version_least) return HOST_OK;
  *error = "the watch's software is too old for this phone: update brisel on the watch";
  return HOST_REFUSED;
}

host_bus_holder stream_over(carrier way, std::string *error) {
  static std::atomic<unsigned> count = 0;
  host_bus_holder bus(new host_bus);
  bus->peer = true;
  bus->patience = pair_call_answer * kSecond;
  /* Requests are known again by who sent them: each stream is another sender. */
  bus->owner = "stream:" + std::to_string(getpid()) + "." + std::to_string(boot_now()) + "." + std::to_string(count++);
  bus->way = std::move(way);
  bus->heard = boot_now();
  int r = new_stream(bus.get());
  if (r >= 0) return bus;
  *error = std::string("the link cannot be opened: ") + strerror(-r);
  return nullptr;
}

}  // namespace

host_bus_holder host_open_stream(const carrier_address &address, const carrier_keys &keys, std::string *error) {
  carrier way;
  return carrier_open(address, keys, &way, error) < 0 ? nullptr : stream_over(std::move(way), error);
}

host_bus_holder host_open_fd(int fd, carrier_kind kind, std::string *error) {
  carrier way;
  way.fd = fd;
  way.kind = kind;
  return stream_over(std::move(way), error);
}

void host_hang_up(host_bus *bus) {
  if (bus->peer) carrier_hang_up(&bus->way);
}

std::string host_stream_trouble(const host_bus &bus) {
  std::string reason = carrier_reason(bus.way);
  return reason.empty() ? "the link to the watch is lost" : reason;
}

bool host_stream_was_answered(const host_bus &bus) {
  return carrier_was_answered(bus.way);
}

void stream_answered(host_bus *bus, size_t bytes) {
  bus->heard = boot_now();
  bus->on_way -= std::min(bus->on_way, bytes);
}

int stream_wait(host_bus *bus, const bool *done) {
  uint64_t moved = boot_now();
  bool nudged = false, doubted = false;
  while (!*done) {
    int r = sd_bus_process(bus->bus, nullptr);
    if (r > 0) moved = boot_now();
    if (r != 0) {
      if (r < 0) return r;
      continue;
    }
    uint64_t patience = patience_with(*bus);
    if (doubted) patience = std::min(patience, kDoubtPatience);
    r = wait_once(bus, moved + patience, nudged);
    if (r < 0) return r;
    if (r == 2) nudged = doubted = true; /* left unread: the loop hears of it too */
    if (r != 0) moved = boot_now();
    if (r == 1) doubted = false;
    if (r == 0 && boot_now() >= moved + patience) {
      host_hang_up(bus);
      return -ETIMEDOUT;
    }
  }
  return 0;
}

namespace {

struct waiting_call {
  host_bus *bus;
  sd_bus_message *answer = nullptr;
  bool done = false;
};

int call_answered_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  auto *call = static_cast<waiting_call *>(user_data);
  call->answer = sd_bus_message_ref(m);
  call->done = true;
  stream_answered(call->bus, 0);
  return 0;
}

}  // namespace

int stream_call(host_bus *bus, const bus_message &call, bus_message *reply, bus_error *why) {
  waiting_call waiting = {bus};
  sd_bus_slot *slot = nullptr;
  int r = sd_bus_call_async(bus->bus, &slot, call.m, call_answered_cb, &waiting, UINT64_MAX);
  if (r >= 0) r = stream_wait(bus, &waiting.done);
  sd_bus_slot_unref(slot);
  reply->m = waiting.answer;
  if (r < 0) return r;
  const sd_bus_error *error = sd_bus_message_get_error(reply->m);
  if (!error) return 0;
  sd_bus_error_copy(&why->e, error);
  r = -sd_bus_error_get_errno(error);
  return r < 0 ? r : -EIO;
}

/* --- the first words --- */

int host_introduced(host_bus *bus, sd_bus_message *answer, std::string *error) {
  stream_answered(bus, 0);
  bus->watch = {};
  const sd_bus_error *why = sd_bus_message_get_error(answer);
  if (!why) {
    int r = read_introduction(answer, &bus->watch);
    return r < 0 ? host_unreadable(r, error) : compatible(bus->watch, error);
  }
  return unknown_call(*why) ? compatible(bus->watch, error)
                            : host_failed(bus, *why, -sd_bus_error_get_errno(why), error);
}

int host_introduce(host_bus *bus, const phone_identity &me, std::string *error) {
  bus_message call, reply;
  bus->watch = {};
  int result = host_begin(bus, &call, "Introduce", error);
  if (result < 0) return result;
  bus_error why;
  int r = append_introduction(call.m, me);
  if (r >= 0) r = bus->peer ? stream_call(bus, call, &reply, &why) : sd_bus_call(bus->bus, call.m, 0, &why.e, &reply.m);
  if (r >= 0) return host_introduced(bus, reply.m, error);
  return unknown_call(why.e) ? compatible(bus->watch, error) : host_failed(bus, why.e, r, error);
}

int host_introduce_begin(host_bus *bus, const phone_identity &me, uint64_t patience, sd_bus_message_handler_t callback,
                         void *user_data, sd_bus_slot **slot) {
  bus_message call;
  std::string error;
  if (host_begin(bus, &call, "Introduce", &error) < 0) return -ENOMEM;
  int r = append_introduction(call.m, me);
  return r < 0 ? r : sd_bus_call_async(bus->bus, slot, call.m, callback, user_data, patience);
}

int host_connect_begin(host_bus *bus, uint64_t patience, sd_bus_message_handler_t callback, void *user_data,
                       sd_bus_slot **slot) {
  bus_message call;
  std::string error;
  if (host_begin(bus, &call, "Connect", &error) < 0) return -ENOMEM;
  return sd_bus_call_async(bus->bus, slot, call.m, callback, user_data, patience);
}

int host_connected(host_bus *bus, sd_bus_message *answer, std::string *error) {
  stream_answered(bus, 0);
  const sd_bus_error *why = sd_bus_message_get_error(answer);
  return why ? host_failed(bus, *why, -sd_bus_error_get_errno(why), error) : HOST_OK;
}
