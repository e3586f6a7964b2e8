/* The phone's bytes: how large its messages may be, and how many may come. */
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "gate.h"

namespace {

constexpr size_t greeting_max = 4096;
constexpr size_t header_size = 16; /* of every message: what tells its size */
/* What comes at once, and what comes in the long run. */
constexpr double messages_burst = 1000, messages_per_second = 100;
constexpr double bytes_burst = 32u << 20, bytes_per_second = 8u << 20;

/* Moves bytes from or to a descriptor that does not wait: their number, 0 when there is nothing to be had now, -1 when
   the other side is gone. */
ssize_t moved(ssize_t count, bool reading) {
  if (count > 0) return count;
  if (count == 0) return reading ? -1 : 0;
  return errno == EAGAIN || errno == EINTR ? 0 : -1;
}

ssize_t fill(passage *p, int fd) {
  if (p->start == p->end) p->start = p->end = 0;
  if (p->start > 0) {
    memmove(p->bytes, p->bytes + p->start, p->end - p->start);
    p->end -= p->start;
    p->start = 0;
  }
  if (p->end == chunk) return 0;
  const ssize_t count = moved(read(fd, p->bytes + p->end, chunk - p->end), true);
  if (count > 0) p->end += static_cast<size_t>(count);
  return count;
}

ssize_t drain(passage *p, int fd, size_t most) {
  if (most == 0) return 0;
  const ssize_t count = moved(write(fd, p->bytes + p->start, most), false);
  if (count > 0) p->start += static_cast<size_t>(count);
  return count;
}

/* --- the rate --- */

void refill(stream *s, uint64_t now) {
  const double seconds = static_cast<double>(now - s->refilled) / 1e6;
  s->messages = std::min(messages_burst, s->messages + seconds * messages_per_second);
  s->bytes = std::min(bytes_burst, s->bytes + seconds * bytes_per_second);
  s->refilled = now;
}

/* Whether a message of that size may come now; otherwise wait_until says when. */
bool afford(stream *s, size_t size, uint64_t now) {
  refill(s, now);
  const double missing =
      std::max((1 - s->messages) / messages_per_second, (static_cast<double>(size) - s->bytes) / bytes_per_second);
  if (missing > 0) {
    s->wait_until = now + static_cast<uint64_t>(missing * 1e6) + 1000;
    return false;
  }
  s->wait_until = 0;
  s->messages -= 1;
  s->bytes -= static_cast<double>(size);
  return true;
}

/* --- the form --- */

uint32_t number_at(const unsigned char *bytes, bool little) {
  uint32_t value = 0;
  for (int i = 0; i < 4; i++) value |= static_cast<uint32_t>(bytes[i]) << (little ? 8 * i : 24 - 8 * i);
  return value;
}

/* The size that a message's first bytes tell; 0 when they begin none. */
size_t message_size(const unsigned char *bytes) {
  const bool little = bytes[0] == 'l';
  if ((!little && bytes[0] != 'B') || bytes[1] < 1 || bytes[1] > 4 || bytes[3] != 1) return 0;
  const size_t body = number_at(bytes + 4, little), fields = number_at(bytes + 12, little);
  return header_size + (fields + 7) / 8 * 8 + body;
}

/* The greeting goes on line by line, so that nothing behind its end reaches sd-bus before that has seen the end too. */
bool allow_line(stream *s) {
  const unsigned char *begin = s->coming.bytes + s->coming.start;
  const size_t there = s->coming.end - s->coming.start;
  const auto *end = static_cast<const unsigned char *>(memchr(begin, '\n', there));
  const size_t line = end ? static_cast<size_t>(end - begin) + 1 : there;
  if (s->greeting_size + line > greeting_max) s->breach = "its greeting has no end";
  if (!end || s->breach) return false;
  s->greeting_size += line;
  s->allowed = line;
  if (line == 7 && !memcmp(begin, "BEGIN\r\n", 7)) s->at = stream_at::greeted;
  return true;
}

bool allow_message(stream *s, uint64_t now) {
  if (s->coming.end - s->coming.start < header_size) return false;
  const size_t size = message_size(s->coming.bytes + s->coming.start);
  if (size == 0) s->breach = "what it sent is no message";
  if (size > message_max) s->breach = "its message is too large";
  if (s->breach || !afford(s, size, now)) return false;
  s->message_left = size;
  s->at = stream_at::message;
  return true;
}

/* Allows what may follow, once all that was allowed before is on its way. */
bool allow(stream *s, bool open, bool begun, uint64_t now) {
  if (s->at == stream_at::greeting) return allow_line(s);
  if (s->at == stream_at::greeted && begun) s->at = stream_at::header;
  if (s->at == stream_at::header && open) allow_message(s, now);
  if (s->at != stream_at::message || s->breach) return false;
  s->allowed = std::min(s->message_left, s->coming.end - s->coming.start);
  s->message_left -= s->allowed;
  if (s->message_left == 0) s->at = stream_at::header;
  return s->allowed > 0;
}

}  // namespace

void stream_begin(stream *s, int in, int out, uint64_t now) {
  s->in = in;
  s->out = out;
  s->inner = -1;
  s->messages = messages_burst;
  s->bytes = bytes_burst;
  s->refilled = s->heard = now;
  s->wait_until = 0;
}

bool stream_takes(const stream *s) {
  return !s->breach && s->inner >= 0 && s->coming.end - s->coming.start < chunk;
}

int stream_come(stream *s, bool open, bool begun, uint64_t now) {
  int any = 0;
  if (stream_takes(s)) {
    const ssize_t count = fill(&s->coming, s->in);
    if (count < 0) return -1;
    if (count > 0) {
      s->heard = now;
      s->sent = 0;
      any = 1;
    }
  }
  while (s->allowed > 0 || (s->coming.end > s->coming.start && !s->breach && allow(s, open, begun, now))) {
    const ssize_t count = drain(&s->coming, s->inner, s->allowed);
    if (count <= 0) return count < 0 ? -1 : any;
    s->allowed -= static_cast<size_t>(count);
    any = 1;
    if (s->allowed > 0) break;
  }
  return any;
}

int stream_go(stream *s) {
  passage *p = &s->going;
  const ssize_t filled = s->inner < 0 ? 0 : fill(p, s->inner);
  const ssize_t count = drain(p, s->out, p->end - p->start);
  if (count < 0) return -1;
  s->sent += static_cast<size_t>(count);
  return filled > 0 || count > 0;
}

bool stream_breaks_off(const stream *s) {
  const size_t there = s->coming.end - s->coming.start;
  return s->at == stream_at::message ? there == 0 : s->at == stream_at::header && there > 0 && there < header_size;
}

bool stream_sent_all(const stream *s) {
  return s->going.start == s->going.end;
}
