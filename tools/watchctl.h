/* What the files of brisel-watchctl share. Functions return the exit code and tell errors themselves: 0 it is done, 1
   it could not be done, 2 the command line makes no sense, whatever there is on the watch. */
#ifndef BRISEL_TOOLS_WATCHCTL_H
#define BRISEL_TOOLS_WATCHCTL_H

#include <systemd/sd-bus.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

/* The application that is meant, by its id. */
extern std::string app_id;

struct text_free {
  void operator()(char *text) const { free(text); }
};
using text_ptr = std::unique_ptr<char, text_free>;

/* One line on standard error; 1. */
int fail(const std::string &text);
/* The same for what makes no sense; 2. */
int wrong(const std::string &text);

/* --- watchctl-bus.cpp: the application on the bus --- */

constexpr char application_interface[] = "com.vextora.Application1";
constexpr char inspect_interface[] = "com.vextora.Inspect1";
/* What a gesture's own time, queued work before it and settling may add. */
constexpr double answer_seconds = 30.0;

struct bus_free {
  void operator()(sd_bus *bus) const { sd_bus_flush_close_unref(bus); }
};
struct message_free {
  void operator()(sd_bus_message *m) const { sd_bus_message_unref(m); }
};
using bus_ptr = std::unique_ptr<sd_bus, bus_free>;
using message_ptr = std::unique_ptr<sd_bus_message, message_free>;

bus_ptr open_bus(void);
message_ptr new_call(sd_bus *bus, const char *interface, const char *method, bool start);
int send(sd_bus *bus, const char *interface, sd_bus_message *m, double seconds, message_ptr *answer = nullptr);

/* A call with these arguments (sd-bus type letters), without an answer of interest. */
template <typename... Args>
int call(const char *interface, const char *method, double seconds, const char *types, Args... args) {
  const bus_ptr bus = open_bus();
  if (!bus) return 1;
  const message_ptr m = new_call(bus.get(), interface, method, false);
  if (!m || sd_bus_message_append(m.get(), types, args...) < 0) return wrong("the text is not in UTF-8");
  return send(bus.get(), interface, m.get(), seconds);
}

/* pairs: KEY=VALUE */
int launch(const std::vector<std::string> &pairs);
/* Returns when the application's process has ended. */
int quit(void);
/* Calls and prints the JSON text that comes back. */
int print_answer(const char *method, bool with_reset, bool reset);
int screenshot(const std::string &file);

/* --- watchctl-data.cpp: settings, contacts, time zone --- */

int setting_get(const std::string &key, bool as_json);
int setting_set(const std::string &key, const std::string &type, const std::string &value);
int setting_list(bool as_json);
int contact_import(const std::string &file);
int contact_list(bool as_json);
int contact_remove(const std::string &address);
int timezone_set(const std::string &zone);

#endif
