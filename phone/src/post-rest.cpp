/* See the header. */
#include "post-rest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "../mime.h"
#include "mail-files.h"

namespace {

constexpr size_t kLongestWord = 512, kOverlap = 48, kMost = 4u << 20;

/* The file for a message of a Maildir; empty for any other source. */
std::string file_of(const std::string &source) {
  constexpr char kKind[] = "maildir:";
  if (!source.starts_with(kKind)) return "";
  size_t base = sizeof kKind - 1, end = source.find(':', base);
  if (end == std::string::npos) return "";
  return source.substr(end + 1) + rest_folder + "/" + source.substr(base, end - base);
}

bool is_there(const std::string &file) {
  return access(file.c_str(), F_OK) == 0;
}

}  // namespace

bool rest_may_be(const std::string &path) {
  return is_there(path + rest_folder);
}

bool rest_is_cut(const std::string &source) {
  std::string file = file_of(source);
  return !file.empty() && is_there(file);
}

std::string rest_read(const std::string &source) {
  std::string raw, error, file = file_of(source);
  if (file.empty() || mail_file_read(file, kMost, &raw, &error) < 0) raw.clear();
  return raw;
}

int rest_want(const std::string &source) {
  std::string file = file_of(source);
  int fd = file.empty() ? -1 : open((file + rest_suffix).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  return fd < 0 ? -1 : close(fd);
}

bool rest_is_settled(const std::string &source) {
  std::string file = file_of(source);
  return file.empty() || !is_there(file + rest_suffix);
}

std::string rest_surely(const std::string &text) {
  size_t from = text.size() > kLongestWord ? text.size() - kLongestWord : 0;
  size_t end = text.rfind('\n');
  if (end == std::string::npos || end < from) end = text.rfind(' ');
  return text.substr(0, end == std::string::npos || end < from ? from : end);
}

std::string rest_joined(const std::string &begun, const std::string &whole) {
  if (whole.starts_with(begun) || begun.size() < kOverlap) return whole;
  /* The rest changed how the beginning reads: it goes on where the same words stand. */
  size_t at = whole.find(begun.substr(mime_boundary(begun, begun.size() - kOverlap)));
  if (at == std::string::npos) return begun;
  return begun + whole.substr(at + begun.size() - mime_boundary(begun, begun.size() - kOverlap));
}
