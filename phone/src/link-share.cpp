/*
 * Lends the link to this phone's other commands, over a socket beside the watch's state.
 *
 * Over Bluetooth there is one connection to a device: while the relay or `serve` has it, a command's calls go through
 * it. Only calls that any program may make are passed on; what makes one the phone stays with who has the link. The
 * files of the link alone call it.
 */
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "link-parts.h"
#include "local-socket.h"

namespace {

constexpr size_t kBorrowersMax = 8, kCallsMax = 8;
constexpr char kSocket[] = "link.socket";

/* --- one call --- */

struct passed_call {
  sd_bus_message *call;
  bool answered = false;
};

int refuse(sd_bus_message *call, const char *name, const std::string &why) {
  const sd_bus_error error = {name, why.c_str(), 0};
  return sd_bus_reply_method_error(call, &error);
}

/* The slot goes: with the answer, or with the link. */
void call_gone_cb(void *user_data) {
  auto *passed = static_cast<passed_call *>(user_data);
  if (!passed->answered) refuse(passed->call, SD_BUS_ERROR_NO_REPLY, "the link to the watch is lost");
  sd_bus_message_unref(passed->call);
  delete passed;
}

int answered_cb(sd_bus_message *m, void *user_data, sd_bus_error *ignored) {
  auto *passed = static_cast<passed_call *>(user_data);
  passed->answered = true;
  if (const sd_bus_error *why = sd_bus_message_get_error(m)) {
    sd_bus_reply_method_error(passed->call, why);
    return 0;
  }
  sd_bus_message *answer = nullptr;
  int r = sd_bus_message_new_method_return(passed->call, &answer);
  if (r >= 0) r = sd_bus_message_copy(answer, m, 1);
  if (r >= 0) sd_bus_send(nullptr, answer, nullptr); /* who has left meanwhile misses nothing */
  sd_bus_message_unref(answer);
  return 0;
}

int pass_on(phone_link *link, sd_bus_message *call) {
  sd_bus_message *m = nullptr;
  sd_bus_slot *slot = nullptr;
  int r = sd_bus_message_new_method_call(link->bus->bus, &m, nullptr, host_path, phone_interface,
                                         sd_bus_message_get_member(call));
  if (r >= 0) r = sd_bus_message_copy(m, call, 1);
  auto *passed = new passed_call{sd_bus_message_ref(call)};
  if (r >= 0) r = sd_bus_call_async(link->bus->bus, &slot, m, answered_cb, passed, UINT64_MAX);
  sd_bus_message_unref(m);
  if (r < 0) {
    passed->answered = true;
    call_gone_cb(passed);
    return r;
  }
  sd_bus_slot_set_destroy_callback(slot, call_gone_cb);
  sd_bus_slot_set_floating(slot, 1);
  sd_bus_slot_unref(slot);
  return 1;
}

int call_cb(sd_bus_message *m, void *user_data, sd_bus_error *ignored) {
  auto *one = static_cast<borrower *>(user_data);
  if (sd_bus_message_is_signal(m, "org.freedesktop.DBus.Local", "Disconnected") > 0) {
    one->left = true;
    sd_event_source_set_enabled(one->link->share_drop, SD_EVENT_ONESHOT);
    return 1;
  }
  if (sd_bus_message_is_method_call(m, phone_interface, nullptr) <= 0) return 0;
  const char *member = sd_bus_message_get_member(m);
  for (const char *own : {"Connect", "Ack", "AnswerMore", "Outcome"})
    if (strcmp(member, own) == 0)
      return refuse(m, SD_BUS_ERROR_ACCESS_DENIED, "another process of this phone is linked");
  if (one->link->connected || one->link->stage == link_stage::refused) return pass_on(one->link, m);
  /* The link is being opened, or looked for: who calls waits as long as for one of its own. */
  if (one->waiting.size() == kCallsMax) return refuse(m, SD_BUS_ERROR_LIMITS_EXCEEDED, one->link->trouble);
  one->waiting.push_back(sd_bus_message_ref(m));
  return 1;
}

void forget_waiting(borrower *one) {
  for (sd_bus_message *m : one->waiting) sd_bus_message_unref(m);
  one->waiting.clear();
}

/* --- who borrows --- */

int drop_cb(sd_event_source *source, void *user_data) {
  static_cast<phone_link *>(user_data)->borrowers.remove_if([](const borrower &one) { return one.left; });
  return 0;
}

void take_borrower(phone_link *link, int fd) {
  borrower *one = &link->borrowers.emplace_back();
  one->link = link;
  sd_id128_t id;
  int r = sd_id128_randomize(&id);
  if (r >= 0) r = sd_bus_new(&one->bus);
  if (r < 0 || sd_bus_set_fd(one->bus, fd, fd) < 0) close(fd);
  if (r >= 0) r = sd_bus_set_server(one->bus, 1, id);
  if (r >= 0) r = sd_bus_set_anonymous(one->bus, 1);
  if (r >= 0) r = sd_bus_set_close_on_exit(one->bus, 0);
  if (r >= 0) r = sd_bus_add_filter(one->bus, nullptr, call_cb, one);
  if (r >= 0) r = sd_bus_start(one->bus);
  if (r >= 0) r = sd_bus_attach_event(one->bus, link->event, SD_EVENT_PRIORITY_NORMAL);
  if (r < 0) link->borrowers.pop_back();
}

int came_cb(sd_event_source *source, int fd, uint32_t revents, void *user_data) {
  auto *link = static_cast<phone_link *>(user_data);
  int came;
  while ((came = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0) {
    if (link->borrowers.size() < kBorrowersMax)
      take_borrower(link, came);
    else
      close(came);
  }
  return 0;
}

/* Whoever holds the link's lock is alone here: what an earlier process left is in nobody's use. */
int listen_for_them(phone_link *link) {
  link->share_fd = local_listen(phone_state_path(""), kSocket, SOCK_STREAM);
  if (link->share_fd < 0) return link->share_fd;
  int r = sd_event_add_io(link->event, &link->share, link->share_fd, EPOLLIN, came_cb, link);
  if (r >= 0) r = sd_event_add_defer(link->event, &link->share_drop, drop_cb, link);
  return r < 0 ? r : sd_event_source_set_enabled(link->share_drop, SD_EVENT_OFF);
}

}  // namespace

borrower::~borrower() {
  forget_waiting(this);
  if (!bus) return;
  sd_bus_detach_event(bus);
  sd_bus_close_unref(bus);
}

void share_start(phone_link *link) {
  if (link->target.address.kind != carrier_kind::bluetooth) return;
  if (int r = listen_for_them(link); r < 0)
    link_log(std::string("other commands cannot use the link meanwhile: ") + strerror(-r));
}

void share_linked(phone_link *link) {
  for (borrower &one : link->borrowers) {
    for (sd_bus_message *m : one.waiting)
      if (pass_on(link, m) < 0) refuse(m, SD_BUS_ERROR_INVALID_ARGS, "the call cannot be passed on");
    forget_waiting(&one);
  }
}

void share_serve(phone_link *link) {
  if (link->share_fd < 0) return;
  came_cb(nullptr, link->share_fd, 0, link);
  for (borrower &one : link->borrowers)
    while (!one.left && sd_bus_process(one.bus, nullptr) > 0) {
    }
}

void share_end(phone_link *link) {
  for (sd_event_source **source : {&link->share, &link->share_drop}) *source = sd_event_source_disable_unref(*source);
  if (link->share_fd >= 0) close(link->share_fd);
  link->share_fd = -1;
  link->borrowers.clear();
}

int link_borrow() {
  return local_connect(phone_state_path(""), kSocket, SOCK_STREAM);
}
