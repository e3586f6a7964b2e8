/* The loop around the stream, the phone's end and the service's. */
#include <fcntl.h>
#include <poll.h>
#include <seccomp.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "gate.h"
#include "platform-cage.h"

namespace {

constexpr uint64_t second = 1000000;
constexpr uint64_t farewell = second / 2;    /* for what waits for the phone when the gate ends */
constexpr uint64_t slowest = 4096;           /* bytes per second that a living link carries at least */
constexpr size_t memory = size_t{256} << 20; /* bytes of address space; far less is used */
constexpr unsigned descriptors = 16;
constexpr int inner_buffer = 64 << 10;
constexpr int turn_max = 32; /* messages of one side before the other gets its turn */

volatile sig_atomic_t stopped = 0;

void stop_cb(int number) {
  stopped = 1;
}

/* Signals come in ppoll() alone. */
void catch_signals(sigset_t *waiting) {
  struct sigaction action = {};
  action.sa_handler = stop_cb;
  sigset_t held;
  sigemptyset(&held);
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    sigaddset(&held, number);
    sigaction(number, &action, nullptr);
  }
  sigprocmask(SIG_BLOCK, &held, waiting);
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigdelset(waiting, number);
  signal(SIGPIPE, SIG_IGN);
}

/* The service is known: now, and not before, the phone is listened to, by a process that can do little else. */
void found_cb(gate *g) {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) < 0) return gate_end(g, "no socket");
  const int r = phone_start(g, pair[1]);
  for (const int end : pair) {
    setsockopt(end, SOL_SOCKET, SO_SNDBUF, &inner_buffer, sizeof inner_buffer);
    setsockopt(end, SOL_SOCKET, SO_RCVBUF, &inner_buffer, sizeof inner_buffer);
  }
  static constexpr int calls[] = {SCMP_SYS(recvmsg), SCMP_SYS(sendmsg), SCMP_SYS(recvfrom), SCMP_SYS(sendto),
                                  SCMP_SYS(poll),    SCMP_SYS(ppoll),   SCMP_SYS(ioctl)};
  static constexpr cage_rules rules = {memory, descriptors, {}, {}, calls, false};
  const int walls = platform_cage_enter(&rules);
  if (walls != (CAGE_CALLS | CAGE_FILES))
    fprintf(stderr, "brisel-gate: this system cannot close it in (%s)\n",
            walls ? walls == CAGE_CALLS ? "no landlock" : "no seccomp" : "neither landlock nor seccomp");
  if (r < 0) return gate_end(g, "the stream cannot be used");
  g->bytes->inner = pair[0];
}

/* --- when --- */

/* When the phone counts as gone; 0: never. What was sent gets the time that it needs on a slow link. */
uint64_t deadline(const gate *g) {
  const stream *s = g->bytes;
  const uint64_t travels = s->sent * second / slowest;
  /* While the service is waited for, nothing is taken from the phone: it cannot be heard. */
  if (g->calls_count == calls_max) return 0;
  uint64_t by = g->idle_limit ? s->heard + g->idle_limit + travels : 0;
  if (g->asked && g->answer_limit) {
    const uint64_t answer_by = g->asked + g->answer_limit + travels;
    by = by ? std::min(by, answer_by) : answer_by;
  }
  /* Whoever has begun a message sends the rest of it. */
  if (stream_breaks_off(s) && g->answer_limit) {
    const uint64_t rest_by = s->heard + g->answer_limit + travels;
    by = by ? std::min(by, rest_by) : rest_by;
  }
  return by;
}

void sooner(uint64_t *when, uint64_t other) {
  if (other && other < *when) *when = other;
}

timespec time_to_wait(const gate *g, uint64_t now) {
  uint64_t when = UINT64_MAX, of_bus = 0;
  sooner(&when, deadline(g));
  sooner(&when, g->bytes->wait_until);
  sooner(&when, g->ends_by);
  for (sd_bus *bus : {g->host, g->phone})
    if (bus && sd_bus_get_timeout(bus, &of_bus) >= 0 && of_bus != UINT64_MAX) sooner(&when, std::max(of_bus, now));
  const uint64_t left = when == UINT64_MAX ? 86400 * second : when > now ? when - now : 0;
  return {static_cast<time_t>(left / second), static_cast<long>(left % second) * 1000};
}

/* --- what moves --- */

uint64_t waiting_for_phone(const gate *g) {
  uint64_t count = 0;
  if (g->phone) sd_bus_get_n_queued_write(g->phone, &count);
  return count;
}

bool takes_calls(const gate *g) {
  return !g->ends && g->calls_count < calls_max && waiting_for_phone(g) < queue_max;
}

/* Nothing lies in the socket pair on the way to sd-bus. */
bool inner_is_empty(const gate *g) {
  int bytes = 0;
  return ioctl(sd_bus_get_fd(g->phone), FIONREAD, &bytes) == 0 && bytes == 0;
}

/* Lets sd-bus work at one side while it may take messages, or has some to write. 1: did something. */
int work(gate *g, sd_bus *bus, bool (*takes)(const gate *g), const char *gone) {
  int any = 0;
  for (int turn = 0; turn < turn_max; turn++) {
    uint64_t to_write = 0;
    sd_bus_get_n_queued_write(bus, &to_write);
    /* It writes first and, when it could, does no more in this call. */
    if (!takes(g)) {
      pollfd out = {sd_bus_get_fd(bus), POLLOUT, 0};
      if (to_write == 0 || poll(&out, 1, 0) <= 0) break;
    }
    const int r = sd_bus_process(bus, nullptr);
    if (r < 0) gate_end(g, gone);
    if (r <= 0) break;
    any = 1;
  }
  return any;
}

/* One round of everything that can be done now. false: the phone has left. */
bool move_all(gate *g) {
  int any;
  do {
    any = 0;
    stream *s = g->bytes;
    if (g->phone && s->inner >= 0) {
      const bool begun = sd_bus_is_ready(g->phone) > 0;
      const int came = g->ends ? 0 : stream_come(s, takes_calls(g), begun, gate_now());
      any = came;
      if (came > 0) any |= work(g, g->phone, takes_calls, "the stream broke");
      if (s->at == stream_at::greeted && !begun && s->allowed == 0 && inner_is_empty(g) &&
          sd_bus_is_ready(g->phone) <= 0)
        s->breach = "it greets in a way that is not known";
      if (s->breach) gate_end(g, s->breach);
      any |= work(g, g->phone, takes_calls, "the stream broke");
      const int went = stream_go(s);
      if (came < 0 || went < 0) return false;
      any |= went;
      if (s->heard > g->asked) g->asked = 0;
    }
    any |= work(
        g, g->host, [](const gate *gate) { return waiting_for_phone(gate) < queue_max; }, "the session bus is gone");
  } while (any && !stopped && !g->ends);
  return true;
}

bool all_is_said(const gate *g) {
  int bytes = 0;
  return waiting_for_phone(g) == 0 && stream_sent_all(g->bytes) &&
         (g->bytes->inner < 0 || (ioctl(g->bytes->inner, FIONREAD, &bytes) == 0 && bytes == 0));
}

short events_of(sd_bus *bus, bool takes) {
  const int events = bus ? sd_bus_get_events(bus) : 0;
  return static_cast<short>(events < 0 ? 0 : takes ? events : events & POLLOUT);
}

/* Waits for something to do. false: the phone has left. */
bool wait(gate *g, const sigset_t *signals) {
  const stream *s = g->bytes;
  const size_t coming = s->coming.end - s->coming.start;
  const bool room = s->going.end - s->going.start < chunk, takes = takes_calls(g);
  pollfd fds[] = {
      {s->in, static_cast<short>(POLLRDHUP | (stream_takes(s) && !g->ends ? POLLIN : 0)), 0},
      {s->out, static_cast<short>(stream_sent_all(s) ? 0 : POLLOUT), 0},
      {s->inner, static_cast<short>((room ? POLLIN : 0) | (coming && s->allowed ? POLLOUT : 0)), 0},
      {g->phone ? sd_bus_get_fd(g->phone) : -1, events_of(g->phone, takes), 0},
      {sd_bus_get_fd(g->host), events_of(g->host, waiting_for_phone(g) < queue_max), 0},
  };
  const timespec timeout = time_to_wait(g, gate_now());
  if (ppoll(fds, sizeof fds / sizeof *fds, &timeout, signals) < 0) return errno == EINTR;
  constexpr short gone = POLLRDHUP | POLLHUP | POLLERR | POLLNVAL;
  return !(fds[0].revents & gone) && !(fds[1].revents & (POLLHUP | POLLERR | POLLNVAL));
}

bool open_without_waiting(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) >= 0;
}

int run(gate *g, const sigset_t *signals) {
  while (!stopped) {
    if (!move_all(g)) return 0;
    const uint64_t now = gate_now(), by = deadline(g);
    if (g->ends && (all_is_said(g) || now >= g->ends_by)) break;
    if (!g->ends && by && now >= by) {
      g->why = "the phone is not heard any more";
      break;
    }
    if (!wait(g, signals)) return 0;
  }
  if (!g->why || stopped) return 0;
  fprintf(stderr, "brisel-gate: %s\n", g->why);
  return 1;
}

}  // namespace

uint64_t gate_now(void) {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * second + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

void gate_end(gate *g, const char *why) {
  if (g->ends) return;
  g->ends = true;
  g->why = why;
  g->ends_by = gate_now() + farewell;
}

int gate_run(gate *g, int in, int out) {
  static stream bytes;
  sigset_t signals;
  catch_signals(&signals);
  stream_begin(&bytes, in, out, gate_now());
  g->bytes = &bytes;
  if (!open_without_waiting(in) || !open_without_waiting(out)) {
    fprintf(stderr, "brisel-gate: the stream cannot be used: %s\n", strerror(errno));
    return 1;
  }
  const int r = host_start(g, found_cb);
  if (r < 0) {
    fprintf(stderr, "brisel-gate: the session bus cannot be reached: %s\n", strerror(-r));
    return 1;
  }
  return run(g, &signals);
}
