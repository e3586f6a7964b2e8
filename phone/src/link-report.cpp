/* What is told of the link to a watch, from the state that whoever holds the link writes.
   The commands that print it call it, and link-connection.cpp, which goes on from it. */
#include <glib.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "../mime.h"
#include "link.h"
#include "state-relay.h"

link_report link_report_read(phone_state *state) {
  link_report report;
  std::string text, error;
  if (relay_note_get(state, note_of_link, &text) <= 0) return report;
  nlohmann::json note = nlohmann::json::parse(text, nullptr, false);
  if (!note.is_object()) return report;
  auto number = [&](const char *key) {
    auto found = note.find(key);
    return found != note.end() && found->is_number_integer() ? found->get<int64_t>() : 0;
  };
  auto words = [&](const char *key) {
    auto found = note.find(key);
    return found != note.end() && found->is_string() ? found->get<std::string>() : std::string();
  };
  report.last_seen = number("last_seen");
  report.watch = words("watch");
  /* The rest is true only while somebody is there to change it. */
  int lock = phone_state_lock("link.lock", &error, 0);
  if (lock >= 0) close(lock);
  if (lock >= 0) return report;
  report.linked_since = number("linked_since");
  report.trouble = words("trouble");
  return report;
}

std::string link_in_words(const link_report &link) {
  std::string name = mime_clean_line(link.watch, 200), seen;
  if (link.last_seen > 0) seen = ", last seen " + local_time(link.last_seen);
  if (link.linked_since > 0)
    return (name.empty() ? "" : name + " ") + "is linked since " + local_time(link.linked_since);
  std::string why = link.trouble.empty() ? "" : ": " + mime_clean_line(link.trouble, 400);
  return (name.empty() ? "" : name + " ") + "is not linked" + seen + why;
}

std::string local_time(int64_t seconds) {
  GDateTime *date = g_date_time_new_from_unix_local(seconds);
  if (!date) return std::to_string(seconds);
  char *text = g_date_time_format(date, "%Y-%m-%d %H:%M");
  std::string out = text;
  g_free(text);
  g_date_time_unref(date);
  return out;
}
