#include "mail-files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "maildir-names.h"

namespace {

constexpr size_t kMaxMessage = 64u << 20, kFirstLine = 4096;

std::string reason(const std::string &path) {
  return path + ": " + strerror(errno);
}

bool is_mbox(std::string_view start) {
  return start.substr(0, 5) == "From ";
}

/* Reads an mbox file line by line: it may be larger than memory, and another program may cut it short meanwhile. */
struct line_reader {
  FILE *file = nullptr;
  std::vector<char> buffer = std::vector<char>(1u << 18);
  size_t start = 0, end = 0;
  int64_t offset = 0; /* of the line that comes next */
  char end_of_line = '\n';
  ~line_reader() {
    if (file) fclose(file);
  }
};

/* One line with its end, which is given as a newline, or a part of one that is longer than the buffer. Empty: the end.
 */
std::string_view next_line(line_reader *reader) {
  for (;;) {
    char *from = reader->buffer.data() + reader->start;
    size_t have = reader->end - reader->start;
    void *newline = have > 0 ? memchr(from, reader->end_of_line, have) : nullptr;
    size_t length = newline ? static_cast<size_t>(static_cast<char *>(newline) - from) + 1 : 0;
    if (newline) *static_cast<char *>(newline) = '\n';
    if (!newline && have < reader->buffer.size()) {
      memmove(reader->buffer.data(), from, have);
      reader->start = 0;
      reader->end = have;
      size_t got = fread(reader->buffer.data() + have, 1, reader->buffer.size() - have, reader->file);
      reader->end += got;
      if (got > 0) continue;
    }
    if (length == 0) length = have;
    reader->start += length;
    reader->offset += static_cast<int64_t>(length);
    return std::string_view(reader->buffer.data() + reader->start - length, length);
  }
}

int open_reader(line_reader *reader, const std::string &path, int64_t offset, std::string *error) {
  reader->file = fopen(path.c_str(), "rbe");
  /* Old programs ended lines with a return alone. */
  std::string_view first(reader->buffer.data(),
                         reader->file ? fread(reader->buffer.data(), 1, kFirstLine, reader->file) : 0);
  if (first.find('\n') == std::string_view::npos && first.find('\r') != std::string_view::npos)
    reader->end_of_line = '\r';
  if (reader->file && fseeko(reader->file, static_cast<off_t>(offset), SEEK_SET) == 0) {
    reader->offset = offset;
    return 0;
  }
  *error = reason(path);
  return -1;
}

/* Reads the message whose separator line is the next one; its quoting of such lines is taken back. Returns 1, 0 at the
   end of the file, -1 when there is no separator. *separator is then the following one's line, empty at the end. */
int read_message(line_reader *reader, std::string *separator, std::string *raw) {
  raw->clear();
  if (separator->empty()) {
    std::string_view line = next_line(reader);
    if (line.empty()) return 0;
    *separator = line;
  }
  if (!is_mbox(*separator)) return -1;
  separator->clear();
  bool after_empty = false, line_start = true;
  for (;;) {
    std::string_view line = next_line(reader);
    if (line.empty()) return 1;
    /* A separator stands after an empty line; elsewhere it is a sentence that begins with this word. */
    if (line_start && after_empty && is_mbox(line)) {
      *separator = line;
      return 1;
    }
    after_empty = line_start && (line == "\n" || line == "\r\n");
    size_t quote = 0;
    while (line_start && quote < line.size() && line[quote] == '>') quote++;
    line_start = line.back() == '\n';
    if (quote > 0 && line.substr(quote, 5) == "From ") line.remove_prefix(1);
    if (raw->size() < kMaxMessage) *raw += line.substr(0, kMaxMessage - raw->size());
  }
}

int each_of_mbox(const std::string &path, found_mail_cb callback, void *user_data, std::string *error) {
  line_reader reader;
  if (open_reader(&reader, path, 0, error) < 0) return -1;
  std::string separator, raw;
  int64_t at = 0;
  for (size_t number = 1; read_message(&reader, &separator, &raw) > 0; number++) {
    std::string name = path + " (message " + std::to_string(number) + ")";
    found_mail mail;
    mail.raw = raw;
    mail.name = &name;
    mail.source = "mbox:" + std::to_string(at) + ":" + path;
    int result = callback(mail, user_data);
    if (result != 0) return result;
    at = reader.offset - static_cast<int64_t>(separator.size());
    if (separator.empty()) break;
  }
  return 0;
}

int each_of_maildir(const std::string &path, found_mail_cb callback, void *user_data, std::string *error) {
  std::vector<maildir_file> files;
  if (maildir_list(path, &files, error) < 0) return -1;
  std::sort(files.begin(), files.end(), [](const maildir_file &a, const maildir_file &b) { return a.base < b.base; });
  for (const maildir_file &file : files) {
    std::string name = path + "/" + file.folder + "/" + file.name;
    std::string raw;
    found_mail mail;
    mail.name = &name;
    mail.source = "maildir:" + file.base + ":" + path;
    mail.seen = maildir_has_flag(file.name, 'S');
    /* One that went away or cannot be read is handed over as empty: it is reported like any other broken one. */
    std::string ignored;
    if (mail_file_read(name, kMaxMessage, &raw, &ignored) == 0) mail.raw = raw;
    int result = callback(mail, user_data);
    if (result != 0) return result;
  }
  return 0;
}

}  // namespace

std::string maildir_base(const std::string &name) {
  size_t colon = name.rfind(":2,");
  return colon == std::string::npos ? name : name.substr(0, colon);
}

bool maildir_has_flag(const std::string &name, char flag) {
  size_t colon = name.rfind(":2,");
  return colon != std::string::npos && name.find(flag, colon + 3) != std::string::npos;
}

std::string maildir_with_flag(const std::string &name, char flag) {
  if (maildir_has_flag(name, flag)) return name;
  size_t colon = name.rfind(":2,");
  std::string flags = colon == std::string::npos ? "" : name.substr(colon + 3);
  flags += flag;
  std::sort(flags.begin(), flags.end());
  return maildir_base(name) + ":2," + flags;
}

int maildir_list(const std::string &dir, std::vector<maildir_file> *files, std::string *error) {
  /* "new" first: a mail that moves to "cur" meanwhile is then seen twice rather than not at all. */
  for (const char *folder : {"new", "cur"}) {
    std::string path = dir + "/" + folder;
    DIR *handle = opendir(path.c_str());
    if (!handle) {
      *error = reason(path);
      return -1;
    }
    while (dirent *entry = readdir(handle)) {
      if (entry->d_name[0] == '.' ||
          (entry->d_type != DT_REG && entry->d_type != DT_UNKNOWN && entry->d_type != DT_LNK))
        continue;
      std::string name = entry->d_name;
      files->push_back({folder, name, maildir_base(name)});
    }
    closedir(handle);
  }
  return 0;
}

bool is_maildir(const std::string &dir) {
  struct stat info;
  return stat((dir + "/cur").c_str(), &info) == 0 && S_ISDIR(info.st_mode) &&
         stat((dir + "/new").c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::string maildir_find(const std::string &dir, const std::string &base) {
  std::vector<maildir_file> files;
  std::string ignored;
  if (maildir_list(dir, &files, &ignored) < 0) return "";
  for (const maildir_file &file : files)
    if (file.base == base) return dir + "/" + file.folder + "/" + file.name;
  return "";
}

int mail_file_read(const std::string &path, size_t max, std::string *out, std::string *error, struct stat *its) {
  out->clear();
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  struct stat own;
  struct stat &info = its ? *its : own;
  if (fd < 0 || fstat(fd, &info) < 0) {
    *error = reason(path);
    if (fd >= 0) close(fd);
    return -1;
  }
  if (!S_ISREG(info.st_mode)) {
    *error = path + ": not a file";
    close(fd);
    return -1;
  }
  size_t size = std::min(static_cast<size_t>(info.st_size), max);
  out->resize(size);
  size_t done = 0;
  while (done < size) {
    ssize_t got = read(fd, out->data() + done, size - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      *error = reason(path);
      close(fd);
      return -1;
    }
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  out->resize(done);
  close(fd);
  return 0;
}

namespace {

struct source_parts {
  std::string kind, key, path;
};

/* A base name may hold anything but a slash: the folder begins at the first ":/". The kind is empty for no source. */
source_parts parts_of(const std::string &source) {
  if (source.starts_with("file:")) return {"file", "", source.substr(5)};
  if (!source.starts_with("maildir:") && !source.starts_with("mbox:")) return {};
  const size_t first = source.find(':'), second = source.find(":/", first + 1);
  if (second == std::string::npos) return {};
  return {source.substr(0, first), source.substr(first + 1, second - first - 1), source.substr(second + 1)};
}

}  // namespace

std::string mail_source_file(const std::string &source) {
  const source_parts at = parts_of(source);
  return at.kind == "maildir" ? maildir_find(at.path, at.key) : at.path;
}

int mail_source_read(const std::string &source, size_t max, std::string *out, std::string *error) {
  const source_parts at = parts_of(source);
  if (at.kind.empty()) {
    *error = source + ": not a mail's place";
    return -1;
  }
  if (at.kind == "mbox") {
    line_reader reader;
    std::string separator;
    if (open_reader(&reader, at.path, strtoll(at.key.c_str(), nullptr, 10), error) < 0) return -1;
    if (read_message(&reader, &separator, out) > 0) return 0;
  } else {
    const std::string file = mail_source_file(source);
    if (!file.empty()) return mail_file_read(file, max, out, error);
  }
  *error = at.path + ": the mail is gone";
  return -1;
}

int mail_files_each(const std::string &path, found_mail_cb callback, void *user_data, std::string *error) {
  char *absolute = realpath(path.c_str(), nullptr);
  if (!absolute) {
    *error = reason(path);
    return -1;
  }
  std::string full = absolute;
  free(absolute);
  struct stat info;
  if (stat(full.c_str(), &info) < 0) {
    *error = reason(path);
    return -1;
  }
  if (S_ISDIR(info.st_mode)) {
    if (is_maildir(full)) return each_of_maildir(full, callback, user_data, error);
    *error = path + ": a folder, but no Maildir";
    return -1;
  }
  std::string start;
  if (mail_file_read(full, 5, &start, error) < 0) return -1;
  if (is_mbox(start)) return each_of_mbox(full, callback, user_data, error);
  std::string raw;
  if (mail_file_read(full, kMaxMessage, &raw, error) < 0) return -1;
  found_mail mail;
  mail.raw = raw;
  mail.name = &path;
  mail.source = "file:" + full;
  return callback(mail, user_data);
}
