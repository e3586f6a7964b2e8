#include "pair-list.h"

#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "state.h"

namespace {

constexpr char kFolder[] = "watches", kRecord[] = "watch.ini", kGroup[] = "watch";

std::string path_of(const std::string &name, const char *file) {
  std::string base = phone_base_path(pair_folder(name).c_str());
  return base.empty() ? "" : base + "/" + file;
}

std::string text_of(GKeyFile *keys, const char *key) {
  gchar *value = g_key_file_get_string(keys, kGroup, key, nullptr);
  std::string text = value ? value : "";
  g_free(value);
  return text;
}

/* Returns 1, 0 when there is none, -1 with a reason. */
int read_record(const std::string &name, paired_watch *watch, std::string *error) {
  std::string path = path_of(name, kRecord);
  if (path.empty() || access(path.c_str(), F_OK) < 0) return 0;
  GKeyFile *keys = g_key_file_new();
  GError *why = nullptr;
  int result = -1;
  if (!g_key_file_load_from_file(keys, path.c_str(), G_KEY_FILE_NONE, &why)) {
    *error = path + ": " + why->message;
    g_error_free(why);
  } else {
    carrier_address address;
    if (carrier_parse(text_of(keys, "address"), &address, error) == 0) {
      *watch = pair_record(name, address);
      watch->id = text_of(keys, "id");
      result = 1;
    } else {
      *error = path + ": " + *error;
    }
  }
  g_key_file_free(keys);
  return result;
}

int write_whole(const std::string &path, const std::string &text) {
  std::string own = path + "." + std::to_string(getpid());
  int fd = open(own.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return -1;
  bool good = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(fd) == 0;
  good = close(fd) == 0 && good;
  if (good && rename(own.c_str(), path.c_str()) == 0) return 0;
  int error = errno;
  unlink(own.c_str());
  errno = error;
  return -1;
}

std::vector<std::string> names_in(const std::string &folder) {
  std::vector<std::string> names;
  DIR *all = opendir(folder.c_str());
  while (dirent *one = all ? readdir(all) : nullptr)
    if (strcmp(one->d_name, ".") != 0 && strcmp(one->d_name, "..") != 0) names.emplace_back(one->d_name);
  if (all) closedir(all);
  std::sort(names.begin(), names.end());
  return names;
}

int remove_tree(const std::string &path) {
  struct stat info;
  if (lstat(path.c_str(), &info) < 0) return errno == ENOENT ? 0 : -1;
  if (!S_ISDIR(info.st_mode)) return unlink(path.c_str());
  for (const std::string &name : names_in(path))
    if (remove_tree(path + "/" + name) < 0) return -1;
  return rmdir(path.c_str());
}

}  // namespace

bool pair_name_is_good(const std::string &name) {
  constexpr char allowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
  return !name.empty() && name.size() <= 64 && g_ascii_isalnum(name[0]) &&
         name.find_first_not_of(allowed) == std::string::npos;
}

std::string pair_folder(const std::string &name) {
  return std::string(kFolder) + "/" + name;
}

paired_watch pair_record(const std::string &name, const carrier_address &address) {
  paired_watch watch;
  watch.name = name;
  watch.address = address;
  if (address.kind == carrier_kind::ssh) watch.keys = {path_of(name, "key"), path_of(name, "known_hosts")};
  return watch;
}

int pair_list(std::vector<paired_watch> *watches, std::string *error) {
  std::string folder = phone_base_path(kFolder);
  if (folder.empty()) return 0; /* whoever needs the state says so */
  for (const std::string &name : names_in(folder)) {
    paired_watch watch;
    int found = pair_name_is_good(name) ? read_record(name, &watch, error) : 0;
    if (found < 0) return -1;
    if (found > 0) watches->push_back(watch);
  }
  return 0;
}

int pair_find(const std::string &name, paired_watch *watch, std::string *error) {
  return pair_name_is_good(name) ? read_record(name, watch, error) : 0;
}

int pair_remember(const paired_watch &watch, std::string *error) {
  GKeyFile *keys = g_key_file_new();
  g_key_file_set_string(keys, kGroup, "address", watch.address.text().c_str());
  g_key_file_set_string(keys, kGroup, "id", watch.id.c_str());
  gchar *text = g_key_file_to_data(keys, nullptr, nullptr);
  std::string path = path_of(watch.name, kRecord);
  int result = path.empty() ? -1 : write_whole(path, text);
  if (result < 0) *error = path + ": cannot be written: " + strerror(errno);
  g_free(text);
  g_key_file_free(keys);
  return result;
}

int pair_forget(const std::string &name, std::string *error) {
  std::string record = path_of(name, kRecord), folder = phone_base_path(pair_folder(name).c_str());
  bool gone = unlink(record.c_str()) == 0 || errno == ENOENT;
  if (gone && remove_tree(folder) == 0) return 0;
  *error = folder + ": cannot be removed: " + strerror(errno);
  return -1;
}
