/* Owns what brisel-watchctl does without the application: settings, contacts and the session's time zone. */
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "contacts.h"
#include "vconf.h"
#include "watchctl.h"

using json = nlohmann::ordered_json;

/* --- settings --- */

namespace {

json setting_value(const char *key) {
  int number;
  switch (vconf_get_type(key)) {
    case VCONF_TYPE_BOOL:
      if (vconf_get_bool(key, &number) == 0) return number != 0;
      break;
    case VCONF_TYPE_INT:
      if (vconf_get_int(key, &number) == 0) return number;
      break;
    case VCONF_TYPE_STRING: {
      const text_ptr text(vconf_get_str(key));
      if (text) return json(text.get());
      break;
    }
    default:
      break;
  }
  return nullptr;
}

const char *setting_type(const char *key) {
  switch (vconf_get_type(key)) {
    case VCONF_TYPE_BOOL:
      return "bool";
    case VCONF_TYPE_INT:
      return "int";
    case VCONF_TYPE_STRING:
      return "string";
    default:
      return "unreadable";
  }
}

std::string shown(const json &value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string dumped(const json &value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

void list_one_cb(const char *key, int type, void *data) {
  static_cast<json *>(data)->push_back({{"key", key}, {"type", setting_type(key)}, {"value", setting_value(key)}});
}

}  // namespace

int setting_get(const std::string &key, bool as_json) {
  const json value = setting_value(key.c_str());
  if (value.is_null()) return fail("no readable setting " + key);
  puts(
      (as_json ? dumped({{"key", key}, {"type", setting_type(key.c_str())}, {"value", value}}) : shown(value)).c_str());
  return 0;
}

int setting_set(const std::string &key, const std::string &type, const std::string &value) {
  int r;
  if (type == "bool") {
    if (value != "true" && value != "false" && value != "1" && value != "0")
      return wrong("a bool is true or false: " + value);
    r = vconf_set_bool(key.c_str(), value == "true" || value == "1");
  } else if (type == "int") {
    char *end;
    errno = 0;
    const long number = strtol(value.c_str(), &end, 10);
    if (value.empty() || *end || errno || number < INT_MIN || number > INT_MAX) return wrong("not an int: " + value);
    r = vconf_set_int(key.c_str(), static_cast<int>(number));
  } else {
    if (!vconf_text_valid(value.c_str())) return wrong("a string is text in UTF-8, of 64 KiB at most");
    r = vconf_set_str(key.c_str(), value.c_str());
  }
  return r == 0 ? 0 : fail("the setting " + key + " cannot be written");
}

int setting_list(bool as_json) {
  json all = json::array();
  if (vconf_list(list_one_cb, &all) != 0) return fail("the settings cannot be read");
  if (as_json) {
    puts(dumped(all).c_str());
    return 0;
  }
  for (const json &one : all)
    printf("%s %s %s\n", one["key"].get<std::string>().c_str(), one["type"].get<std::string>().c_str(),
           one["value"].is_null() ? "-" : shown(one["value"]).c_str());
  return 0;
}

/* --- contacts --- */

int contact_import(const std::string &file) {
  int count = 0;
  char *error = nullptr;
  const int r = contacts_import_vcard_file(file.c_str(), &count, &error);
  const text_ptr text(error);
  if (r != 0) return fail(file + ": " + (text ? text.get() : "cannot be imported"));
  /* What was left out, a line each; the rest is imported. */
  for (const char *line = text.get(); line && *line; line += strspn(line, "\n")) {
    const size_t size = strcspn(line, "\n");
    fprintf(stderr, "brisel-watchctl: %s: %.*s\n", file.c_str(), static_cast<int>(size), line);
    line += size;
  }
  printf("%d\n", count);
  return 0;
}

static void collect_cb(const char *text, void *data) {
  static_cast<json *>(data)->push_back(json::parse(text, nullptr, false));
}

int contact_list(bool as_json) {
  json all = json::array();
  if (contacts_for_each(collect_cb, &all) != 0) return fail("the contacts cannot be read");
  if (as_json)
    puts(dumped(all).c_str());
  else
    for (const json &one : all) puts(dumped(one).c_str());
  return 0;
}

int contact_remove(const std::string &address) {
  int count = 0;
  if (contacts_remove_by_email(address.c_str(), &count) != 0) return fail("the contacts cannot be changed");
  if (count == 0) return fail("nobody has the address " + address);
  printf("%d\n", count);
  return 0;
}

/* --- time zone --- */

int timezone_set(const std::string &zone) {
  namespace fs = std::filesystem;
  const char *link = getenv("BRISEL_LOCALTIME");
  if (!link || !*link) return fail("the time zone belongs to the machine here; only a session's can be changed");
  const fs::path target = fs::path("/usr/share/zoneinfo") / zone;
  struct stat st;
  if (zone.empty() || zone[0] == '/' || zone.find("..") != std::string::npos || stat(target.c_str(), &st) != 0 ||
      !S_ISREG(st.st_mode))
    return fail("no such time zone: " + zone);
  const std::string part = std::string(link) + ".new";
  unlink(part.c_str());
  if (symlink(target.c_str(), part.c_str()) != 0 || rename(part.c_str(), link) != 0)
    return fail(std::string(link) + ": " + strerror(errno));
  return vconf_set_int("memory/system/timechanged", static_cast<int>(time(nullptr))) == 0
             ? 0
             : fail("the change of time cannot be told");
}
