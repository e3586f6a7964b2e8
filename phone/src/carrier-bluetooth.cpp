/*
 * The program behind a Bluetooth address. BlueZ makes the connection, and only to a device that was paired with;
 * encryption is the radio's. What is left for this program is to carry bytes between that connection and its standard
 * input and output, asleep while there are none.
 */
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <string>

#include "carrier.h"
#include "switchboard.h"

namespace {

/* What came from one side and the other has not taken yet. */
struct way {
  int from, to;
  std::array<char, 16384> bytes;
  size_t at = 0, end = 0;
};

/* Takes and gives what is possible now. Returns 0, or -1 when a side is gone. */
int carry(way *w) {
  if (w->at == w->end) {
    ssize_t n = read(w->from, w->bytes.data(), w->bytes.size());
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) return -1;
    if (n < 0) return 0;
    w->at = 0;
    w->end = static_cast<size_t>(n);
  }
  ssize_t n = write(w->to, w->bytes.data() + w->at, w->end - w->at);
  if (n < 0) return errno == EAGAIN || errno == EINTR ? 0 : -1;
  w->at += static_cast<size_t>(n);
  return 0;
}

void wants(const way &w, pollfd *from, pollfd *to) {
  if (w.at == w.end)
    from->events |= POLLIN;
  else
    to->events |= POLLOUT;
}

/* Until either side ends, or the call does. */
void carry_on(int line, int call) {
  for (int fd : {0, 1, line}) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  way out = {0, line, {}}, in = {line, 1, {}};
  for (;;) {
    pollfd fds[] = {{0, 0, 0}, {1, 0, 0}, {line, 0, 0}, {call, POLLIN, 0}};
    wants(out, &fds[0], &fds[2]);
    wants(in, &fds[2], &fds[1]);
    if (poll(fds, 4, -1) < 0 && errno != EINTR) return;
    if (fds[3].revents) return; /* nothing more is said there */
    if (carry(&out) < 0 || carry(&in) < 0) return;
  }
}

}  // namespace

int carrier_serve_bluetooth(const std::string &address) {
  int line = -1, call = -1;
  std::string error;
  if (switchboard_connect(address, &line, &call, &error) < 0) {
    fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  carry_on(line, call);
  return 0; /* both are closed with the process */
}
