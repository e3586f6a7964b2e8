#include "vconf-store.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>
#include <system_error>
#include <vector>

#include "dlog.h"
#include "platform-files.h"
#include "platform-paths.h"
#include "text-check.h"
#include "vconf.h"

/*
 * A value's file is one line of head and the value's bytes:
 *
 *   vconf1 TYPE WRITE-ID LENGTH CHECKSUM\n
 *   VALUE
 *
 * TYPE is "bool", "int" or "string"; WRITE-ID and CHECKSUM are 16 hexadecimal digits. The length and the checksum tell
 * a damaged file from a good one; the write id lets a watcher tell a second write of the same value from no write.
 * The file's name is the key with '+' for '/', which no key may hold; temporary files begin with '~' for the same
 * reason.
 *
 * Who sets a value waits for the disk twice: for the new file, and for its name in the folder. No single wait does on
 * every file system. Some keep a name with the sync of its file, but that may not come before the rename either, or a
 * power cut leaves the name with half of the bytes. Two records of one file that take turns would want a lock between
 * writers, and blocks of their own with room for the longest text, as a disk may lose the whole block that it was
 * writing. A log or a database for all keys would want its library or its cleaning up in every program that reads a
 * setting, and wake whoever watches one key for each other one. Settings change a few times a day.
 */

namespace {

constexpr size_t key_max = 255;
constexpr size_t value_max = 64 * 1024;
constexpr size_t head_max = 96;
constexpr char temporary_mark = '~';
constexpr const char *log_tag = "VCONF";

uint64_t checksum(std::string_view type, std::string_view id, std::string_view value) {
  uint64_t hash = 0xcbf29ce484222325u;
  for (const std::string_view part : {type, id, value}) {
    for (const char byte : part) hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3u;
    hash = (hash ^ 0x1FFu) * 0x100000001b3u; /* not a byte: keeps "ab","c" apart from "a","bc" */
  }
  return hash;
}

std::string hex16(uint64_t number) {
  char text[17];
  snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(number));
  return text;
}

/* Exactly the form hex16 writes, so that one value has one spelling. */
bool parse_hex16(std::string_view text, uint64_t *number) {
  if (text.size() != 16) return false;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), *number, 16);
  return result.ec == std::errc() && result.ptr == text.data() + text.size() && hex16(*number) == text;
}

template <typename T>
bool parse_number(std::string_view text, T *number) {
  const auto result = std::from_chars(text.data(), text.data() + text.size(), *number);
  return result.ec == std::errc() && result.ptr == text.data() + text.size() && std::to_string(*number) == text;
}

bool is_memory_key(std::string_view key) {
  return key.starts_with("memory/");
}

const char *type_name(int type) {
  switch (type) {
    case VCONF_TYPE_BOOL:
      return "bool";
    case VCONF_TYPE_INT:
      return "int";
    default:
      return "string";
  }
}

uint64_t new_write_id() {
  uint64_t id = 0;
  while (id == 0) {
    if (getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id)) id = 0;
  }
  return id;
}

std::string folder_of(bool memory) {
  const char *base = memory ? platform_runtime_dir() : platform_config_dir();
  if (base == nullptr) return {};
  return std::string(base) + (memory ? "/memory" : "/settings");
}

bool parse_value(std::string_view bytes, vconf_value *value) {
  const size_t end = bytes.find('\n');
  if (end == std::string_view::npos || end > head_max) return false;
  std::string_view head = bytes.substr(0, end);
  const std::string_view body = bytes.substr(end + 1);
  std::string_view fields[5];
  for (size_t i = 0; i < 5; i++) {
    const size_t space = i < 4 ? head.find(' ') : head.size();
    if (space == std::string_view::npos) return false;
    fields[i] = head.substr(0, space);
    head.remove_prefix(std::min(space + 1, head.size()));
  }
  uint64_t id = 0;
  uint64_t sum = 0;
  size_t length = 0;
  if (fields[0] != "vconf1" || !parse_hex16(fields[2], &id) || !parse_number(fields[3], &length) ||
      !parse_hex16(fields[4], &sum))
    return false;
  if (id == 0 || length != body.size() || sum != checksum(fields[1], fields[2], body)) return false;
  if (fields[1] == "bool") {
    if (body != "0" && body != "1") return false;
    value->number = body == "1";
    value->type = VCONF_TYPE_BOOL;
  } else if (fields[1] == "int") {
    if (!parse_number(body, &value->number)) return false;
    value->type = VCONF_TYPE_INT;
  } else if (fields[1] == "string") {
    if (body.find('\0') != std::string_view::npos || !text_utf8_valid(body)) return false;
    value->text = body;
    value->type = VCONF_TYPE_STRING;
  } else {
    return false;
  }
  value->write_id = id;
  return true;
}

/* A writer that was killed leaves its temporary file; the next process that writes here takes it away. */
void sweep_temporary_files(const std::string &folder) {
  DIR *dir = opendir(folder.c_str());
  if (dir == nullptr) return;
  while (const dirent *entry = readdir(dir)) {
    if (entry->d_name[0] != temporary_mark) continue;
    char *end = nullptr;
    errno = 0;
    const long pid = strtol(entry->d_name + 1, &end, 10);
    const bool ours = errno == 0 && pid > 0 && pid <= INT_MAX && *end == '.';
    if (ours && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) unlinkat(dirfd(dir), entry->d_name, 0);
  }
  closedir(dir);
}

int store_value(const char *key, int type, std::string_view body) {
  if (!vconf_key_valid(key) || body.size() > value_max) return -1;
  const bool memory = is_memory_key(key);
  const std::string folder = folder_of(memory);
  const platform_folder dir(folder.c_str(), true, !memory);
  if (dir.fd < 0) {
    __dlog_print(DLOG_ERROR, log_tag, "cannot open the folder \"%s\" for \"%s\": %s", folder.c_str(), key,
                 strerror(errno));
    return -1;
  }
  static std::once_flag swept[2];
  std::call_once(swept[memory ? 1 : 0], sweep_temporary_files, folder);

  static std::atomic<unsigned> counter;
  const std::string temporary = temporary_mark + std::to_string(getpid()) + "." + std::to_string(counter.fetch_add(1));
  const std::string id = hex16(new_write_id());
  const std::string name = type_name(type);
  std::string bytes =
      "vconf1 " + name + " " + id + " " + std::to_string(body.size()) + " " + hex16(checksum(name, id, body)) + "\n";
  bytes.append(body);

  const char *step = nullptr;
  /* Values under "memory/" end with the session, so a power cut takes nothing that was to stay. */
  if (platform_file_replace(dir.fd, vconf_key_file(key).c_str(), temporary.c_str(), bytes.data(), bytes.size(), !memory,
                            &step) != 0) {
    __dlog_print(DLOG_ERROR, log_tag, "cannot %s the value of \"%s\": %s", step, key, strerror(errno));
    return -1;
  }
  return 0;
}

void collect_keys(bool memory, std::vector<std::string> *keys) {
  const std::string folder = folder_of(memory);
  if (folder.empty()) return;
  DIR *dir = opendir(folder.c_str());
  if (dir == nullptr) return;
  while (const dirent *entry = readdir(dir)) {
    std::string key = entry->d_name;
    std::replace(key.begin(), key.end(), '+', '/');
    /* Only names that a key maps to, and in the folder it maps to. */
    if (vconf_key_valid(key.c_str()) && vconf_key_file(key.c_str()) == entry->d_name && is_memory_key(key) == memory)
      keys->push_back(key);
  }
  closedir(dir);
}

}  // namespace

bool vconf_key_valid(const char *key) {
  if (key == nullptr) return false;
  const std::string_view text(key, strnlen(key, key_max + 1));
  if (text.empty() || text.size() > key_max) return false;
  size_t start = 0;
  while (true) {
    const size_t slash = std::min(text.find('/', start), text.size());
    const std::string_view segment = text.substr(start, slash - start);
    if (segment.empty() || segment == "." || segment == "..") return false;
    for (const char c : segment) {
      const bool good = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                        c == '.' || c == '-';
      if (!good) return false;
    }
    if (slash == text.size()) return true;
    start = slash + 1;
  }
}

bool vconf_text_valid(const char *text) {
  return text != nullptr && strnlen(text, value_max + 1) <= value_max && text_utf8_valid(text);
}

std::string vconf_key_folder(const char *key) {
  return folder_of(is_memory_key(key));
}

std::string vconf_key_file(const char *key) {
  std::string name = key;
  std::replace(name.begin(), name.end(), '/', '+');
  return name;
}

vconf_value vconf_value_read(const char *key) {
  vconf_value value;
  const std::string folder = vconf_key_folder(key);
  if (folder.empty()) return value;
  const platform_folder dir(folder.c_str());
  const std::string name = vconf_key_file(key);
  std::string bytes;
  const int result = dir.fd < 0 ? -1 : platform_file_read(dir.fd, name.c_str(), value_max + head_max, &bytes);
  if (result != 0 && errno == ENOENT) return value;
  if (result == 0 && parse_value(bytes, &value)) return value;
  __dlog_print(DLOG_WARN, log_tag, "the value of \"%s\" is unreadable", key);
  value = {};
  /* Watchers still want to tell one broken file from the next. */
  struct stat info {};
  if (dir.fd >= 0) fstatat(dir.fd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW);
  value.write_id = checksum(bytes, std::to_string(info.st_ino),
                            std::to_string(info.st_mtim.tv_sec) + "." + std::to_string(info.st_mtim.tv_nsec));
  return value;
}

int vconf_get_bool(const char *key, int *value) {
  if (!vconf_key_valid(key) || value == nullptr) return -1;
  const vconf_value found = vconf_value_read(key);
  if (found.type != VCONF_TYPE_BOOL) return -1;
  *value = found.number;
  return 0;
}

int vconf_get_int(const char *key, int *value) {
  if (!vconf_key_valid(key) || value == nullptr) return -1;
  const vconf_value found = vconf_value_read(key);
  if (found.type != VCONF_TYPE_INT) return -1;
  *value = found.number;
  return 0;
}

char *vconf_get_str(const char *key) {
  if (!vconf_key_valid(key)) return nullptr;
  const vconf_value found = vconf_value_read(key);
  return found.type == VCONF_TYPE_STRING ? strdup(found.text.c_str()) : nullptr;
}

int vconf_set_bool(const char *key, int value) {
  return store_value(key, VCONF_TYPE_BOOL, value != 0 ? "1" : "0");
}

int vconf_set_int(const char *key, int value) {
  return store_value(key, VCONF_TYPE_INT, std::to_string(value));
}

int vconf_set_str(const char *key, const char *value) {
  if (!vconf_text_valid(value)) return -1;
  return store_value(key, VCONF_TYPE_STRING, value);
}

int vconf_unset(const char *key) {
  if (!vconf_key_valid(key)) return -1;
  const bool memory = is_memory_key(key);
  const std::string folder = folder_of(memory);
  if (folder.empty()) return -1;
  const platform_folder dir(folder.c_str());
  if (dir.fd < 0) return errno == ENOENT ? 0 : -1;
  return platform_file_remove(dir.fd, vconf_key_file(key).c_str(), !memory);
}

int vconf_list(void (*fn)(const char *key, int type, void *user_data), void *user_data) {
  if (fn == nullptr) return -1;
  std::vector<std::string> keys;
  collect_keys(false, &keys);
  collect_keys(true, &keys);
  std::sort(keys.begin(), keys.end());
  for (const std::string &key : keys) fn(key.c_str(), vconf_get_type(key.c_str()), user_data);
  return 0;
}

int vconf_get_type(const char *key) {
  return vconf_key_valid(key) ? vconf_value_read(key).type : VCONF_TYPE_NONE;
}
