/* brisel-watchctl: the watch around the application: its keys, settings and contacts, and a finger and an eye. */
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "contacts.h"
#include "pickover.h"
#include "platform-paths.h"
#include "vconf.h"

using json = nlohmann::ordered_json;

namespace {

constexpr uint64_t usec_per_second = 1000000;
/* Starting the application and building its first screen. */
constexpr double launch_seconds = 30.0;
/* What a gesture's own time, queued work before it and settling may add. */
constexpr double answer_seconds = 30.0;
constexpr int quit_ms = 15000;
constexpr char application_interface[] = "com.vextora.Application1";
constexpr char inspect_interface[] = "com.vextora.Inspect1";

struct bus_free {
  void operator()(sd_bus *bus) const { sd_bus_flush_close_unref(bus); }
};
struct message_free {
  void operator()(sd_bus_message *m) const { sd_bus_message_unref(m); }
};
struct text_free {
  void operator()(char *text) const { free(text); }
};
using bus_ptr = std::unique_ptr<sd_bus, bus_free>;
using message_ptr = std::unique_ptr<sd_bus_message, message_free>;
using text_ptr = std::unique_ptr<char, text_free>;

std::string app_id = "com.vextora.brisel";

/* One line on standard error; the exit code. */
int fail(const std::string &text) {
  std::string line = text;
  std::replace(line.begin(), line.end(), '\n', ' ');
  fprintf(stderr, "brisel-watchctl: %s\n", line.c_str());
  return 1;
}

/* --- the application on the bus
 * ----------------------------------------------------------------------------------------- */

bus_ptr open_bus(void) {
  sd_bus *bus = nullptr;
  const int r = sd_bus_open_user(&bus);
  if (r < 0) fail(std::string("no session bus: ") + strerror(-r));
  return bus_ptr(bus);
}

std::string object_path(const std::string &id) {
  std::string path = "/" + id;
  for (char &c : path) {
    if (c == '.') c = '/';
    if (c == '-') c = '_';
  }
  return path;
}

message_ptr new_call(sd_bus *bus, const char *interface, const char *method, bool start) {
  sd_bus_message *m = nullptr;
  if (sd_bus_message_new_method_call(bus, &m, app_id.c_str(), object_path(app_id).c_str(), interface, method) < 0)
    return nullptr;
  sd_bus_message_set_auto_start(m, start);
  return message_ptr(m);
}

int explain(const char *interface, const sd_bus_error *error, int r) {
  const bool inspection = strcmp(interface, inspect_interface) == 0;
  if (sd_bus_error_has_name(error, SD_BUS_ERROR_SERVICE_UNKNOWN) ||
      sd_bus_error_has_name(error, SD_BUS_ERROR_NAME_HAS_NO_OWNER))
    return fail(app_id + " is not running");
  if (sd_bus_error_has_name(error, SD_BUS_ERROR_UNKNOWN_METHOD) ||
      sd_bus_error_has_name(error, SD_BUS_ERROR_UNKNOWN_INTERFACE) ||
      sd_bus_error_has_name(error, SD_BUS_ERROR_UNKNOWN_OBJECT))
    return fail(inspection ? app_id + " is not open to inspection; start it with BRISEL_INSPECT=1"
                           : app_id + " does not offer that");
  if (sd_bus_error_has_name(error, SD_BUS_ERROR_NO_REPLY)) return fail(app_id + " gave no answer");
  return fail(error->message ? error->message : strerror(-r));
}

/* 0, or the exit code with the error told. */
int send(sd_bus *bus, const char *interface, sd_bus_message *m, double seconds, message_ptr *answer = nullptr) {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message *got = nullptr;
  const int r = sd_bus_call(bus, m, static_cast<uint64_t>(seconds * usec_per_second), &error, &got);
  /* A touch or a key may end the application; that it went is an answer, where no other was asked for. */
  const bool ended = r < 0 && !answer && sd_bus_error_has_name(&error, SD_BUS_ERROR_NO_REPLY) &&
                     sd_bus_get_name_creds(bus, app_id.c_str(), 0, nullptr) < 0;
  const int code = r < 0 && !ended ? explain(interface, &error, r) : 0;
  sd_bus_error_free(&error);
  message_ptr keep(got);
  if (answer) *answer = std::move(keep);
  return code;
}

/* A call with these arguments (sd-bus type letters), without an answer of interest. */
template <typename... Args>
int call(const char *interface, const char *method, double seconds, const char *types, Args... args) {
  const bus_ptr bus = open_bus();
  if (!bus) return 1;
  const message_ptr m = new_call(bus.get(), interface, method, false);
  if (!m || sd_bus_message_append(m.get(), types, args...) < 0) return fail("the text is not in UTF-8");
  return send(bus.get(), interface, m.get(), seconds);
}

int launch(const std::vector<std::string> &pairs) {
  const bus_ptr bus = open_bus();
  if (!bus) return 1;
  const message_ptr m = new_call(bus.get(), application_interface, "Launch", true);
  if (!m || sd_bus_message_open_container(m.get(), 'a', "{ss}") < 0) return fail("the call cannot be put together");
  for (const std::string &pair : pairs) {
    const size_t equals = pair.find('=');
    if (equals == 0 || equals == std::string::npos) return fail("not KEY=VALUE: " + pair);
    if (sd_bus_message_append(m.get(), "{ss}", pair.substr(0, equals).c_str(), pair.substr(equals + 1).c_str()) < 0)
      return fail("not text in UTF-8: " + pair);
  }
  sd_bus_message_close_container(m.get());
  message_ptr answer;
  const int code = send(bus.get(), application_interface, m.get(), launch_seconds, &answer);
  if (code != 0) return code;
  int result = 0;
  const char *key;
  const char *value;
  sd_bus_message_read(answer.get(), "i", &result);
  sd_bus_message_enter_container(answer.get(), 'a', "{ss}");
  while (sd_bus_message_read(answer.get(), "{ss}", &key, &value) > 0) printf("%s=%s\n", key, value);
  return result == 0 ? 0 : fail(app_id + " could not do it");
}

/* Returns when the application's process has ended. */
int quit(void) {
  const bus_ptr bus = open_bus();
  if (!bus) return 1;
  uint32_t pid = 0;
  sd_bus_message *got = nullptr;
  if (sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                         "GetConnectionUnixProcessID", nullptr, &got, "s", app_id.c_str()) < 0)
    return fail(app_id + " is not running");
  sd_bus_message_read(got, "u", &pid);
  sd_bus_message_unref(got);
  const int process = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  const message_ptr m = new_call(bus.get(), application_interface, "Quit", false);
  int code = send(bus.get(), application_interface, m.get(), answer_seconds);
  if (process < 0) return code;
  pollfd wait{process, POLLIN, 0};
  if (code == 0 && poll(&wait, 1, quit_ms) != 1) code = fail(app_id + " does not end");
  close(process);
  return code;
}

/* Calls and prints the JSON text that comes back. */
int print_answer(const char *method, bool with_reset, bool reset) {
  const bus_ptr bus = open_bus();
  if (!bus) return 1;
  const message_ptr m = new_call(bus.get(), inspect_interface, method, false);
  if (with_reset) sd_bus_message_append(m.get(), "b", reset ? 1 : 0);
  message_ptr answer;
  const int code = send(bus.get(), inspect_interface, m.get(), answer_seconds, &answer);
  if (code != 0) return code;
  const char *text = nullptr;
  if (sd_bus_message_read(answer.get(), "s", &text) < 0) return fail("the answer is broken");
  puts(text);
  return 0;
}

int screenshot(const std::string &file) {
  std::error_code error;
  const std::filesystem::path path = std::filesystem::absolute(file, error);
  if (error || file.empty()) return fail("'" + file + "' is no file's name");
  if (path.extension() != ".png") return fail("the picture is a PNG, so its name ends in .png: " + file);
  return call(inspect_interface, "Screenshot", answer_seconds, "s", path.c_str());
}

/* --- settings
 * --------------------------------------------------------------------------------------------------------------- */

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
      return fail("a bool is true or false: " + value);
    r = vconf_set_bool(key.c_str(), value == "true" || value == "1");
  } else if (type == "int") {
    char *end;
    errno = 0;
    const long number = strtol(value.c_str(), &end, 10);
    if (value.empty() || *end || errno || number < INT_MIN || number > INT_MAX) return fail("not an int: " + value);
    r = vconf_set_int(key.c_str(), static_cast<int>(number));
  } else {
    r = vconf_set_str(key.c_str(), value.c_str());
  }
  return r == 0 ? 0 : fail("the setting " + key + " cannot be written");
}

void list_one(const char *key, int type, void *data) {
  static_cast<json *>(data)->push_back({{"key", key}, {"type", setting_type(key)}, {"value", setting_value(key)}});
}

int setting_list(bool as_json) {
  json all = json::array();
  if (vconf_list(list_one, &all) != 0) return fail("the settings cannot be read");
  if (as_json) {
    puts(dumped(all).c_str());
    return 0;
  }
  for (const json &one : all)
    printf("%s %s %s\n", one["key"].get<std::string>().c_str(), one["type"].get<std::string>().c_str(),
           one["value"].is_null() ? "-" : shown(one["value"]).c_str());
  return 0;
}

/* --- contacts
 * ----------------------------------------------------------------------------------------------------------------- */

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

void collect(const char *text, void *data) {
  static_cast<json *>(data)->push_back(json::parse(text, nullptr, false));
}

int contact_list(bool as_json) {
  json all = json::array();
  if (contacts_for_each(collect, &all) != 0) return fail("the contacts cannot be read");
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

/* --- time zone
 * ------------------------------------------------------------------------------------------------------------------ */

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

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{"The watch around an application of Brisel: keys, settings, contacts, and its screen",
               "brisel-watchctl"};
  app.set_version_flag("--version", std::string("brisel-watchctl ") + BRISEL_VERSION);
  app.require_subcommand(1);
  app.add_option("--app", app_id, "the application, by its id")->capture_default_str();
  app.fallthrough();
  app.get_option("--app")->check([](const std::string &id) {
    return sd_bus_service_name_is_valid(id.c_str()) && id[0] != ':' ? "" : "'" + id + "' is no application's id";
  });

  int code = 0;
  bool as_json = false;
  std::vector<std::string> pairs;
  std::string key;
  std::string type;
  std::string value;
  std::string text;
  int x = 0;
  int y = 0;
  int x2 = 0;
  int y2 = 0;
  double number = 0.0;
  double drag_seconds = 0.3;

  auto *cmd = app.add_subcommand("launch", "start the application or hand it a launch request; returns once handled");
  cmd->add_option("KEY=VALUE", pairs, "extra data of the request");
  cmd->callback([&] { code = launch(pairs); });

  cmd = app.add_subcommand("key", "press a hardware key");
  cmd->add_option("KEY", key)->required()->check(CLI::IsMember({"back", "more"}));
  cmd->callback([&] { code = call(application_interface, "Key", answer_seconds, "s", key.c_str()); });

  auto *setting = app.add_subcommand("setting", "the settings store")->require_subcommand(1);
  cmd = setting->add_subcommand("get", "print a setting's value");
  cmd->add_option("KEY", key)->required();
  cmd->add_flag("--json", as_json, "with its key and type, as JSON");
  cmd->callback([&] { code = setting_get(key, as_json); });
  cmd = setting->add_subcommand("set", "write a setting");
  cmd->add_option("KEY", key)->required();
  cmd->add_option("TYPE", type)->required()->check(CLI::IsMember({"bool", "int", "string"}));
  cmd->add_option("VALUE", value)->required();
  cmd->callback([&] { code = setting_set(key, type, value); });
  cmd = setting->add_subcommand("unset", "remove a setting");
  cmd->add_option("KEY", key)->required();
  cmd->callback([&] { code = vconf_unset(key.c_str()) == 0 ? 0 : fail("the setting " + key + " cannot be removed"); });
  cmd = setting->add_subcommand("list", "print every setting: key, type, value");
  cmd->add_flag("--json", as_json, "as JSON");
  cmd->callback([&] { code = setting_list(as_json); });

  auto *contact = app.add_subcommand("contact", "the contacts")->require_subcommand(1);
  cmd = contact->add_subcommand("import", "add the persons of a vCard file; prints how many are new");
  cmd->add_option("FILE", text)->required();
  cmd->callback([&] { code = contact_import(text); });
  cmd = contact->add_subcommand("list", "print every person as one JSON line");
  cmd->add_flag("--json", as_json, "as one JSON list");
  cmd->callback([&] { code = contact_list(as_json); });
  cmd = contact->add_subcommand("remove", "remove the persons who have an address; prints how many");
  cmd->add_option("ADDRESS", text)->required();
  cmd->callback([&] { code = contact_remove(text); });

  cmd = app.add_subcommand("keypad", "show or hide the virtual keypad");
  cmd->add_option("ACTION", key)->required()->check(CLI::IsMember({"show", "hide"}));
  cmd->callback([&] { code = call(application_interface, "Keypad", answer_seconds, "b", key == "show"); });

  app.add_subcommand("pickover", "let the phone take over what is on screen")->callback([&] {
    code = pickover_take_over() == 0 ? 0 : fail("nothing on screen is offered to the phone");
  });
  app.add_subcommand("pause", "send the application to the background")->callback([&] {
    code = call(application_interface, "Pause", answer_seconds, "");
  });
  app.add_subcommand("resume", "bring the application to the front")->callback([&] {
    code = call(application_interface, "Resume", answer_seconds, "");
  });
  app.add_subcommand("quit", "end the application; returns when it has ended")->callback([&] { code = quit(); });
  cmd = app.add_subcommand("timezone", "move the session to a time zone, like Europe/Berlin");
  cmd->add_option("ZONE", text)->required();
  cmd->callback([&] { code = timezone_set(text); });

  auto point = [&](CLI::App *to) {
    to->add_option("X", x, "pixels from the left")->required();
    to->add_option("Y", y, "pixels from the top")->required();
  };
  constexpr char inspection[] = "Inspection";
  cmd = app.add_subcommand("tap", "touch a point shortly")->group(inspection);
  point(cmd);
  cmd->callback([&] { code = call(inspect_interface, "Tap", answer_seconds, "ii", x, y); });
  cmd = app.add_subcommand("press", "touch a point for some seconds")->group(inspection);
  point(cmd);
  cmd->add_option("SECONDS", number)->required()->check(CLI::Range(0.0, 60.0));
  cmd->callback([&] { code = call(inspect_interface, "Press", answer_seconds + number, "iid", x, y, number); });
  cmd = app.add_subcommand("doubletap", "touch a point twice")->group(inspection);
  point(cmd);
  cmd->callback([&] { code = call(inspect_interface, "DoubleTap", answer_seconds, "ii", x, y); });
  cmd = app.add_subcommand("drag", "move a finger from one point to another")->group(inspection);
  cmd->add_option("X1", x)->required();
  cmd->add_option("Y1", y)->required();
  cmd->add_option("X2", x2)->required();
  cmd->add_option("Y2", y2)->required();
  cmd->add_option("SECONDS", drag_seconds, "how long it takes")->check(CLI::Range(0.0, 60.0))->capture_default_str();
  cmd->callback([&] {
    code = call(inspect_interface, "Drag", answer_seconds + drag_seconds, "iiiid", x, y, x2, y2, drag_seconds);
  });
  cmd = app.add_subcommand("pinch", "spread (FACTOR above 1) or close two fingers around a point")->group(inspection);
  point(cmd);
  cmd->add_option("FACTOR", number)->required()->check(CLI::Range(0.1, 10.0));
  cmd->callback([&] { code = call(inspect_interface, "Pinch", answer_seconds, "iid", x, y, number); });
  cmd = app.add_subcommand("type", "type text into what has the focus")->group(inspection);
  cmd->add_option("TEXT", text)->required();
  cmd->callback([&] { code = call(inspect_interface, "Type", answer_seconds + 60.0, "s", text.c_str()); });
  cmd = app.add_subcommand("screenshot", "write what is on screen to a PNG file")->group(inspection);
  cmd->add_option("FILE", text)->required();
  cmd->callback([&] { code = screenshot(text); });
  app.add_subcommand("dump", "print the window's texts and views as JSON")->group(inspection)->callback([&] {
    code = print_answer("Dump", false, false);
  });
  bool reset = false;
  cmd = app.add_subcommand("stats", "print what the frames and the main loop took as JSON")->group(inspection);
  cmd->add_flag("--reset", reset, "forget it afterwards, but for the first screen");
  cmd->callback([&] { code = print_answer("Stats", true, reset); });

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success &result) {
    return app.exit(result);
  } catch (const CLI::ParseError &error) {
    const std::vector<std::string> unknown = app.remaining(true);
    const bool no_such = error.get_name() == "RequiredError" && !unknown.empty();
    fail(no_such ? (unknown.front()[0] == '-' ? "no such option: " : "no such command: ") + unknown.front()
                 : error.what());
    return 2;
  }
  if (fflush(stdout) != 0 || ferror(stdout))
    return fail(std::string("standard output cannot be written: ") + strerror(errno));
  return code;
}
