/* While a try waits for the first answer of a machine, asks that machine more often than the kernel repeats it for the
   try: once it answers, the next try begins. link-stream.cpp starts and ends it; nothing else calls it. */
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "link-parts.h"

namespace {

constexpr uint64_t kEvery = kUsecPerSecond / 4;

void forget(knock *one) {
  one->source = sd_event_source_disable_unref(one->source);
  if (one->fd >= 0) close(one->fd);
  one->fd = -1;
}

/* Whether the connection that was asked for came to something: a refusal is an answer too. */
bool is_answer(int error) {
  return error == 0 || error == ECONNREFUSED;
}

int answered_cb(sd_event_source *source, int fd, uint32_t revents, void *user_data) {
  auto *link = static_cast<phone_link *>(user_data);
  int error = 0;
  socklen_t size = sizeof error;
  getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
  sockaddr_storage to;
  if (is_answer(error) && link->stage == link_stage::opening && carrier_knocks(link->bus->way, &to)) {
    stream_way_is_open(link);
    return 0;
  }
  for (knock &one : link->knocks)
    if (one.source == source) forget(&one);
  return 0;
}

void ask(phone_link *link, const sockaddr_storage &to) {
  knock *one = &link->knocks[link->knocks_made++ % std::size(link->knocks)];
  forget(one);
  one->fd = socket(to.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (one->fd < 0) return;
  /* The answer is not confirmed for a moment, and before that is over the connection is reset: the machine's server
     does not hear of it. */
  const int late = 1;
  const linger reset = {1, 0};
  setsockopt(one->fd, IPPROTO_TCP, TCP_DEFER_ACCEPT, &late, sizeof late);
  setsockopt(one->fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  const int r = connect(one->fd, reinterpret_cast<const sockaddr *>(&to), sizeof to);
  if ((r < 0 && errno != EINPROGRESS) ||
      sd_event_add_io(link->event, &one->source, one->fd, EPOLLOUT, answered_cb, link) < 0)
    forget(one);
}

int turn_cb(sd_event_source *source, uint64_t usec, void *user_data) {
  auto *link = static_cast<phone_link *>(user_data);
  sockaddr_storage to = {};
  if (link->stage != link_stage::opening) return 0;
  if (carrier_knocks(link->bus->way, &to))
    ask(link, to);
  else if (link->knocks_made > 0) /* it got an answer itself */
    return 0;
  link_timer(link, &link->knocking, kEvery, turn_cb);
  return 0;
}

}  // namespace

void knock_start(phone_link *link) {
  knock_end(link);
  link_timer(link, &link->knocking, kEvery, turn_cb);
}

void knock_end(phone_link *link) {
  link->knocking = sd_event_source_disable_unref(link->knocking);
  for (knock &one : link->knocks) forget(&one);
  link->knocks_made = 0;
}
