/* A connection's bytes: see the header. */
#include "post-stream.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "post-etpan.h"

namespace {

constexpr int kConnectMs = 30000;

unsigned step_seconds = stream_step_s;
volatile sig_atomic_t step_fd = -1, step_late = 0;
size_t step_left = stream_step_bytes; /* bytes */

void too_late_cb(int number) {
  step_late = 1;
  shutdown(step_fd, SHUT_RDWR); /* whatever reads from it, the encryption's own steps too, comes to its end */
}

/* A driver of the library's streams (plain or TLS) with our own reading. */
struct bounded_driver {
  mailstream_low_driver driver; /* the first: the library hands its address to read_cb */
  mailstream_low_driver *before;
};

ssize_t read_cb(mailstream_low *stream, void *buffer, size_t size) {
  if (step_left == 0) return -1;
  ssize_t got = reinterpret_cast<bounded_driver *>(stream->driver)->before->mailstream_read(stream, buffer, size);
  if (got <= 0) return -1;
  step_left -= std::min(step_left, static_cast<size_t>(got));
  return got;
}

void name_server_cb(mailstream_ssl_context *context, void *data) {
  etpan->mailstream_ssl_set_server_name(context, static_cast<char *>(data));
}

/* Returns 0, or an errno. */
int connect_one(int fd, const addrinfo &to) {
  if (connect(fd, to.ai_addr, to.ai_addrlen) == 0) return 0;
  if (errno != EINPROGRESS) return errno;
  pollfd wait = {fd, POLLOUT, 0};
  int ready = poll(&wait, 1, kConnectMs), code = 0;
  socklen_t size = sizeof code;
  if (ready == 0) return ETIMEDOUT;
  return ready < 0 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &code, &size) < 0 ? errno : code;
}

}  // namespace

stream_step::stream_step(int fd) {
  step_fd = fd;
  step_late = 0;
  step_left = stream_step_bytes;
  if (step_seconds == 0) return;
  struct sigaction action = {};
  action.sa_handler = too_late_cb;
  sigaction(SIGALRM, &action, nullptr);
  alarm(step_seconds);
}

stream_step::~stream_step() {
  if (step_seconds > 0) alarm(0);
}

void stream_bound(unsigned seconds) {
  step_seconds = seconds;
}

const char *stream_end() {
  return step_late        ? "the server took too long"
         : step_left == 0 ? "the server said far too much"
                          : "the connection ended";
}

int stream_connect(const post_server &server, std::string *error) {
  addrinfo hints = {}, *all = nullptr;
  hints.ai_socktype = SOCK_STREAM;
  int code = getaddrinfo(server.host.c_str(), std::to_string(server.port).c_str(), &hints, &all);
  const std::string who = server.host + ":" + std::to_string(server.port) + " cannot be reached: ";
  if (code != 0) {
    *error = who + (code == EAI_NONAME ? "there is no machine of that name; check the server's name"
                                       : "its name cannot be looked up; is this machine on the net?");
    return -1;
  }
  int fd = -1, why = 0;
  for (addrinfo *one = all; one && fd < 0; one = one->ai_next) {
    fd = socket(one->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    why = fd < 0 ? errno : connect_one(fd, *one);
    if (why != 0 && fd >= 0) close(fd);
    if (why != 0) fd = -1;
  }
  freeaddrinfo(all);
  if (fd >= 0) return fd;
  *error = who + (why == ECONNREFUSED ? "nothing listens there; check the server's name and port"
                  : why == ETIMEDOUT  ? "it does not answer; check the server's name and port"
                                      : "there is no way to it; is this machine on the net?");
  return -1;
}

mailstream_low *stream_encrypt(int fd, const std::string &host) {
  /* The library prints a line of its own where encryption fails. */
  int kept = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3), nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (kept >= 0 && nothing >= 0) dup2(nothing, STDERR_FILENO);
  mailstream_low *low =
      etpan->mailstream_low_tls_open_with_callback(fd, name_server_cb, const_cast<char *>(host.c_str()));
  if (kept >= 0) dup2(kept, STDERR_FILENO);
  for (int one : {kept, nothing})
    if (one >= 0) close(one);
  return low;
}

void stream_guard(mailstream_low *low) {
  static bounded_driver drivers[2];
  for (bounded_driver &one : drivers) {
    if (low->driver == &one.driver) return;
    if (one.before && one.before != low->driver) continue;
    one = {*low->driver, low->driver};
    one.driver.mailstream_read = read_cb;
    low->driver = &one.driver;
    return;
  }
}
