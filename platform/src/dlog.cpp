#include "dlog.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "text-check.h"

namespace {

constexpr size_t text_max = 4096;
constexpr size_t tag_max = 64;

/* A line being put together; put() never runs past the end, and what does not fit is left out whole. */
struct line {
  char bytes[text_max * 4 + tag_max * 4 + 32]; /* every byte may become "\xNN" */
  size_t size = 0;

  void put(std::string_view text) {
    if (text.size() > sizeof bytes - 1 - size) return;
    memcpy(bytes + size, text.data(), text.size());
    size += text.size();
  }
};

bool is_control(std::string_view character) {
  const auto first = static_cast<unsigned char>(character[0]);
  if (character.size() == 1) return first < 0x20 || first == 0x7F;
  /* The C1 controls, and the two separators at which many readers break lines. */
  if (character.size() == 2) return first == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0;
  return character == "\xE2\x80\xA8" || character == "\xE2\x80\xA9";
}

void put_escaped(line &out, std::string_view text) {
  while (!text.empty()) {
    const size_t length = text_utf8_length(text);
    const std::string_view character = text.substr(0, std::max<size_t>(length, 1));
    text.remove_prefix(character.size());
    if (length > 0 && !is_control(character)) {
      out.put(character);
    } else if (character == "\n") {
      out.put("\\n");
    } else if (character == "\t") {
      out.put("\\t");
    } else if (character == "\r") {
      out.put("\\r");
    } else {
      for (const char byte : character) {
        char hex[5];
        snprintf(hex, sizeof hex, "\\x%02X", static_cast<unsigned char>(byte));
        out.put(hex);
      }
    }
  }
}

int log_fd() {
  /* Opened once: a line then costs one write. Append mode keeps the lines of several processes whole. */
  static const int fd = [] {
    const char *path = getenv("BRISEL_LOG_FILE");
    if (path == nullptr || path[0] == '\0') return STDERR_FILENO;
    const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0600);
    return file >= 0 ? file : STDERR_FILENO;
  }();
  return fd;
}

char letter_of(int priority) {
  switch (priority) {
    case DLOG_INFO:
      return 'I';
    case DLOG_WARN:
      return 'W';
    case DLOG_ERROR:
      return 'E';
    case DLOG_FATAL:
      return 'F';
    default:
      return 'D';
  }
}

}  // namespace

int __dlog_print(int priority, const char *tag, const char *format, ...) {
  /* Callers log between a failing call and their look at errno. */
  const int saved_errno = errno;
  char text[text_max + 1];
  va_list args;
  va_start(args, format);
  const int wanted = vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (wanted < 0) {
    errno = saved_errno;
    return -1;
  }
  size_t size = std::min(static_cast<size_t>(wanted), text_max);
  if (static_cast<size_t>(wanted) > text_max) {
    size_t start = size;
    while (start > 0 && size - start < 3 && (static_cast<unsigned char>(text[start - 1]) & 0xC0) == 0x80) start--;
    if (start > 0 && text_utf8_length({text + start - 1, size - start + 1}) == 0) size = start - 1;
  }

  line out;
  const char head[] = {letter_of(priority), '/'};
  out.put({head, sizeof head});
  put_escaped(out, std::string_view(tag != nullptr ? tag : "").substr(0, tag_max));
  char process[24];
  snprintf(process, sizeof process, "(%d): ", static_cast<int>(getpid()));
  out.put(process);
  put_escaped(out, {text, size});
  out.bytes[out.size++] = '\n';

  ssize_t written;
  do {
    written = write(log_fd(), out.bytes, out.size);
  } while (written < 0 && errno == EINTR);
  errno = saved_errno;
  return static_cast<int>(written);
}
