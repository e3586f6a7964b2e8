/* Owns the calls to the application over the session's bus. */
#include <poll.h>
#include <sys/syscall.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "watchctl.h"

std::string app_id = "com.vextora.brisel";

namespace {

constexpr uint64_t usec_per_second = 1000000;
/* Starting the application and building its first screen. */
constexpr double launch_seconds = 30.0;
constexpr int quit_ms = 15000;

std::string object_path(const std::string &id) {
  std::string path = "/" + id;
  for (char &c : path) {
    if (c == '.') c = '/';
    if (c == '-') c = '_';
  }
  return path;
}

int explain(const char *interface, const sd_bus_error *error, int r) {
  const bool inspection = strcmp(interface, inspect_interface) == 0;
  if (sd_bus_error_has_name(error, SD_BUS_ERROR_SERVICE_UNKNOWN) ||
      sd_bus_error_has_name(error, SD_BUS_ERROR_NAME_HAS_NO_OWNER))
    return fail(app_id + " is not running");
  if (sd_bus_error_has_name(error, SD_BUS_ERROR_UNKNOWN_METHOD) ||
      sd_bus_error_has_name(error, SD_BUS_ERROR_UNKNOWN_INTERFACE) ||
      sd_bus_error_has_name(error, SD_BUS_ERROR_UNKNOWN_OBJECT))
    return fail(inspection
                    ? app_id +
                          " is not open to inspection; it needs BRISEL_INSPECT=1 and a file ~/.config/brisel/inspect"
                    : app_id + " does not offer that");
  if (sd_bus_error_has_name(error, SD_BUS_ERROR_NO_REPLY)) return fail(app_id + " gave no answer");
  return fail(error->message ? error->message : strerror(-r));
}

}  // namespace

bus_ptr open_bus(void) {
  sd_bus *bus = nullptr;
  const int r = sd_bus_open_user(&bus);
  if (r < 0) fail(std::string("no session bus: ") + strerror(-r));
  return bus_ptr(bus);
}

message_ptr new_call(sd_bus *bus, const char *interface, const char *method, bool start) {
  sd_bus_message *m = nullptr;
  if (sd_bus_message_new_method_call(bus, &m, app_id.c_str(), object_path(app_id).c_str(), interface, method) < 0)
    return nullptr;
  sd_bus_message_set_auto_start(m, start);
  return message_ptr(m);
}

/* 0, or the exit code with the error told. */
int send(sd_bus *bus, const char *interface, sd_bus_message *m, double seconds, message_ptr *answer) {
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

int launch(const std::vector<std::string> &pairs) {
  for (const std::string &pair : pairs)
    if (const size_t equals = pair.find('='); equals == 0 || equals == std::string::npos)
      return wrong("not KEY=VALUE: " + pair);
  const bus_ptr bus = open_bus();
  if (!bus) return 1;
  const message_ptr m = new_call(bus.get(), application_interface, "Launch", true);
  if (!m || sd_bus_message_open_container(m.get(), 'a', "{ss}") < 0) return fail("the call cannot be put together");
  for (const std::string &pair : pairs) {
    const size_t equals = pair.find('=');
    if (sd_bus_message_append(m.get(), "{ss}", pair.substr(0, equals).c_str(), pair.substr(equals + 1).c_str()) < 0)
      return wrong("not text in UTF-8: " + pair);
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
  if (error || file.empty()) return wrong("'" + file + "' is no file's name");
  if (path.extension() != ".png") return wrong("the picture is a PNG, so its name ends in .png: " + file);
  return call(inspect_interface, "Screenshot", answer_seconds, "s", path.c_str());
}
