/*
 * The call application's stand-in: gives the number to whatever the desktop dials with, or shows it.
 * Every request is a JSON line in $XDG_STATE_HOME/brisel/calls.jsonl.
 */
#include <fcntl.h>
#include <gio/gio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <string>

#include "dlog.h"
#include "platform-paths.h"
#include "standin.h"

namespace {

constexpr char log_tag[] = "BRISEL_CALL";
constexpr size_t number_longest = 256;

standin_window window;
/* True when nothing is shown: the request was handed on and there is nothing to stay for. */
bool shown;

void close_cb(void) {
  app_efl_exit();
}

void record(const std::string &number, const std::string &type, const char *handler) {
  const char *folder = platform_app_state_dir();
  if (!folder) {
    __dlog_print(DLOG_ERROR, log_tag, "there is no folder for the record of calls");
    return;
  }
  const nlohmann::ordered_json entry = {
      {"time", static_cast<long long>(time(nullptr))}, {"number", number}, {"launch-type", type}, {"handler", handler}};
  const std::string line = entry.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  const std::string file = std::string(folder) + "/calls.jsonl";
  const int fd = open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  const bool written = fd >= 0 && write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  if (!written) __dlog_print(DLOG_ERROR, log_tag, "%s: %s", file.c_str(), strerror(errno));
  if (fd >= 0) close(fd);
}

/* A number as a tel: address may hold it: its digits and signs, nothing that means more to a handler. */
std::string dialable(const std::string &number) {
  std::string out;
  for (const char c : number)
    if (strchr("0123456789+*#,;", c) && c) {
      if (c == '#')
        out += "%23";
      else
        out += c;
    }
  return out;
}

/* Whether the desktop's own application for telephone numbers took it. */
bool hand_over(const std::string &number) {
  GAppInfo *handler = g_app_info_get_default_for_uri_scheme("tel");
  if (!handler) return false;
  const std::string uri = "tel:" + dialable(number);
  GList *uris = g_list_append(nullptr, const_cast<char *>(uri.c_str()));
  GError *error = nullptr;
  const bool taken = g_app_info_launch_uris(handler, uris, nullptr, &error);
  if (!taken) __dlog_print(DLOG_WARN, log_tag, "the telephone handler did not start: %s", error->message);
  g_clear_error(&error);
  g_list_free(uris);
  g_object_unref(handler);
  return taken;
}

std::string extra(service_h service, const char *key) {
  char *value = nullptr;
  service_get_extra_data(service, key, &value);
  std::string text = value ? value : "";
  free(value);
  return text;
}

bool create_cb(void *data) {
  return standin_create(&window, "brisel-call", close_cb);
}

int launched_cb(service_h service, void *data) {
  std::string number = extra(service, "number");
  if (number.size() > number_longest) number.resize(number_longest);
  const bool handed = !number.empty() && hand_over(number);
  record(number, extra(service, "launch-type"), handed ? "desktop" : "window");
  if (handed) {
    if (!shown) app_efl_exit();
    return 0;
  }
  standin_set(&window, "Call", number.empty() ? "No number" : number.c_str(), "End call");
  evas_object_show(window.win);
  elm_win_activate(window.win);
  shown = true;
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  int code;
  if (standin_options(argc, argv, "brisel-call",
                      "Calls a number: with the desktop's telephone handler, or by showing it.", &code))
    return code;
  app_event_callback_s callbacks = {};
  callbacks.create = create_cb;
  callbacks.service = launched_cb;
  app_efl_id_set("com.vextora.call");
  return app_efl_main(&argc, &argv, &callbacks, nullptr);
}
