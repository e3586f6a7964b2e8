#include "sources.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <unordered_map>

#include "mail-files.h"
#include "maildir-names.h"

namespace {

std::string reason(const std::string &path) {
  return path + ": " + strerror(errno);
}

int check_maildir(const std::string &path, std::string *error) {
  if (is_maildir(path)) return 0;
  *error = path + ": no Maildir (it has no folders \"cur\" and \"new\")";
  return -1;
}

int list_maildir(const std::string &path, std::vector<mailbox_item> *items, std::string *error) {
  std::vector<maildir_file> files;
  if (maildir_list(path, &files, error) < 0) return -1;
  std::unordered_map<std::string, size_t> known;
  for (const maildir_file &file : files) {
    mailbox_item item;
    item.key = file.base;
    item.place = path + "/" + file.folder + "/" + file.name;
    item.seen = maildir_has_flag(file.name, 'S');
    item.arrived = file.folder == "new";
    auto [place, fresh] = known.emplace(item.key, items->size());
    /* Seen twice while it moved: where it was found last is where it is. */
    if (fresh)
      items->push_back(std::move(item));
    else
      (*items)[place->second] = std::move(item);
  }
  return 0;
}

int read_maildir(const std::string &path, const mailbox_item &item, size_t max, std::string *raw, int64_t *arrival,
                 int64_t *size, std::string *error) {
  struct stat info = {};
  int result = mail_file_read(item.place, max, raw, error, &info);
  if (result < 0 && stat(item.place.c_str(), &info) < 0) {
    /* Another program changed its flags, which are part of its name. */
    std::string file = maildir_find(path, item.key);
    if (file.empty() || stat(file.c_str(), &info) < 0) {
      *error = path + ": the mail is gone";
      return -1;
    }
    result = mail_file_read(file, max, raw, error, &info);
  }
  *arrival = info.st_mtime;
  *size = info.st_size;
  return result;
}

int set_flag(const std::string &path, const mailbox_item &item, char flag, std::string *error) {
  std::string file = maildir_find(path, item.key);
  if (file.empty()) {
    *error = path + ": the mail is gone";
    return -1;
  }
  std::string name = file.substr(file.rfind('/') + 1);
  if (maildir_has_flag(name, flag)) return 0;
  std::string target = path + "/cur/" + maildir_with_flag(name, flag);
  if (rename(file.c_str(), target.c_str()) == 0) return 0;
  *error = reason(file);
  return -1;
}

int set_seen_maildir(const std::string &path, const mailbox_item &item, std::string *error) {
  return set_flag(path, item, 'S', error);
}

int set_gone_maildir(const std::string &path, const mailbox_item &item, std::string *error) {
  return set_flag(path, item, 'T', error);
}

std::vector<std::string> watched_maildir(const std::string &path) {
  return {path + "/new", path + "/cur"};
}

std::string source_maildir(const std::string &path, const mailbox_item &item) {
  return "maildir:" + item.key + ":" + path;
}

int check_mbox(const std::string &path, std::string *error) {
  struct stat info;
  if (stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) return 0;
  *error = path + ": no mbox file";
  return -1;
}

struct mbox_listing {
  std::vector<mailbox_item> *items;
  std::map<std::string, int> count;
};

/* A message has no name in an mbox: it is known by its content without the headers that mail programs change. */
int list_message(const found_mail &found, void *user_data) {
  auto *listing = static_cast<mbox_listing *>(user_data);
  GChecksum *sum = g_checksum_new(G_CHECKSUM_SHA1);
  size_t line = 0;
  bool header = true;
  mailbox_item item;
  while (line < found.raw.size()) {
    size_t end = found.raw.find('\n', line);
    end = end == std::string_view::npos ? found.raw.size() : end + 1;
    std::string_view text = found.raw.substr(line, end - line);
    if (text == "\n" || text == "\r\n") header = false;
    bool status = header && (g_ascii_strncasecmp(text.data(), "status:", std::min<size_t>(text.size(), 7)) == 0);
    bool other = header && (g_ascii_strncasecmp(text.data(), "x-status:", std::min<size_t>(text.size(), 9)) == 0 ||
                            g_ascii_strncasecmp(text.data(), "x-keywords:", std::min<size_t>(text.size(), 11)) == 0 ||
                            g_ascii_strncasecmp(text.data(), "x-uid:", std::min<size_t>(text.size(), 6)) == 0);
    if (status && text.size() > 7) item.seen = text.find('R', 7) != std::string_view::npos;
    if (!(status && text.size() > 7) && !(other && text.size() > 11))
      g_checksum_update(sum, reinterpret_cast<const guchar *>(text.data()), static_cast<gssize>(text.size()));
    if (!header) {
      std::string_view rest = found.raw.substr(end);
      g_checksum_update(sum, reinterpret_cast<const guchar *>(rest.data()), static_cast<gssize>(rest.size()));
      break;
    }
    line = end;
  }
  item.key = g_checksum_get_string(sum);
  g_checksum_free(sum);
  int copy = listing->count[item.key]++;
  if (copy > 0) item.key += "-" + std::to_string(copy);
  item.place = found.source;
  item.order = static_cast<int64_t>(listing->items->size());
  item.arrived = !item.seen;
  listing->items->push_back(std::move(item));
  return 0;
}

int list_mbox(const std::string &path, std::vector<mailbox_item> *items, std::string *error) {
  struct stat info;
  if (stat(path.c_str(), &info) < 0) {
    *error = reason(path);
    return -1;
  }
  if (info.st_size == 0) return 0; /* an empty mailbox is one too */
  mbox_listing listing = {items, {}};
  std::string start;
  if (mail_file_read(path, 5, &start, error) < 0) return -1;
  if (start != "From ") {
    *error = path + ": no mbox file";
    return -1;
  }
  return mail_files_each(path, list_message, &listing, error);
}

int read_mbox(const std::string &path, const mailbox_item &item, size_t max, std::string *raw, int64_t *arrival,
              int64_t *size, std::string *error) {
  struct stat info;
  if (stat(path.c_str(), &info) < 0) {
    *error = reason(path);
    return -1;
  }
  *arrival = info.st_mtime;
  if (mail_source_read(item.place, max, raw, error) < 0) return -1;
  *size = static_cast<int64_t>(raw->size());
  if (raw->size() > max) raw->resize(max);
  return 0;
}

std::vector<std::string> watched_mbox(const std::string &path) {
  /* Mail programs write a new file in its place: the folder tells of that, the file would not. */
  size_t slash = path.rfind('/');
  return {slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash)};
}

std::string source_mbox(const std::string &path, const mailbox_item &item) {
  return item.place;
}

}  // namespace

const mailbox_kind maildir_kind = {check_maildir,    list_maildir,    read_maildir,  set_seen_maildir,
                                   set_gone_maildir, watched_maildir, source_maildir};
const mailbox_kind mbox_kind = {check_mbox, list_mbox, read_mbox, nullptr, nullptr, watched_mbox, source_mbox};
