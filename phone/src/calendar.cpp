/* An invitation as readable text. */
#include <glib.h>

#include <map>

#include "text.h"

namespace {

/* The value with its escapes resolved. */
std::string plain_value(std::string_view value) {
  std::string out;
  for (size_t i = 0; i < value.size(); i++) {
    if (value[i] == '\\' && i + 1 < value.size()) {
      i++;
      out += value[i] == 'n' || value[i] == 'N' ? '\n' : value[i];
    } else {
      out += value[i];
    }
  }
  return out;
}

/* "20260105T140000Z" as "2026-01-05 14:00"; nothing when it is no date. */
std::string readable_time(const std::string &value) {
  for (size_t i = 0; i < 8; i++)
    if (i >= value.size() || !g_ascii_isdigit(value[i])) return "";
  std::string out = value.substr(0, 4) + "-" + value.substr(4, 2) + "-" + value.substr(6, 2);
  if (value.size() >= 13 && value[8] == 'T') out += " " + value.substr(9, 2) + ":" + value.substr(11, 2);
  return out;
}

struct property {
  std::string parameters, value;
};

/* "PLACE/CITY" of ";TZID=PLACE/CITY", "UTC" of a time that ends so. */
std::string zone_of(const property &time) {
  if (time.value.ends_with('Z')) return "UTC";
  size_t at = time.parameters.find("TZID=");
  if (at == std::string::npos) return "";
  std::string zone = time.parameters.substr(at + 5);
  zone.resize(std::min(zone.find(';'), zone.size()));
  std::erase(zone, '"');
  return zone;
}

/* When: the date once, when it begins and ends on the same. */
std::string readable_span(const property &start, const property &end) {
  std::string out = readable_time(start.value), until = readable_time(end.value), zone = zone_of(start);
  if (out.empty()) return "";
  if (until.size() > 10 && until.substr(0, 10) == out.substr(0, 10)) until = until.substr(11);
  /* The end of days is the day after the last. */
  if (!until.empty() && out.size() > 10) out += " – " + until;
  if (!zone.empty()) out += " (" + zone + ")";
  return out;
}

}  // namespace

std::string calendar_to_text(const std::string &calendar) {
  std::string unfolded;
  unfolded.reserve(calendar.size());
  for (size_t i = 0; i < calendar.size(); i++) {
    if (calendar[i] == '\n' && i + 1 < calendar.size() && (calendar[i + 1] == ' ' || calendar[i + 1] == '\t'))
      i++;
    else
      unfolded += calendar[i];
  }
  std::map<std::string, property> found; /* of the first event; what is inside it is an alarm, say */
  int depth = 0;
  for (size_t at = 0; at < unfolded.size() && !(depth == 0 && !found.empty());) {
    size_t end = std::min(unfolded.find('\n', at), unfolded.size());
    std::string_view line(unfolded.data() + at, end - at);
    at = end + 1;
    size_t name = std::min(line.find_first_of(";:"), line.size());
    size_t colon = name;
    for (bool quoted = false; colon < line.size() && (quoted || line[colon] != ':'); colon++)
      if (line[colon] == '"') quoted = !quoted;
    if (colon >= line.size()) continue;
    std::string key(line.substr(0, name)), value(line.substr(colon + 1));
    for (char &c : key) c = g_ascii_toupper(c);
    if (key == "BEGIN" && (depth > 0 || g_ascii_strcasecmp(value.c_str(), "VEVENT") == 0))
      depth++;
    else if (key == "END" && depth > 0)
      depth--;
    else if (depth == 1)
      found.emplace(key, property{std::string(line.substr(name, colon - name)), value});
  }
  std::string out;
  for (const std::string &line : {plain_value(found["SUMMARY"].value), readable_span(found["DTSTART"], found["DTEND"]),
                                  plain_value(found["LOCATION"].value)})
    if (!line.empty()) out += (out.empty() ? "" : "\n") + line;
  std::string more = plain_value(found["DESCRIPTION"].value);
  if (!more.empty()) out += (out.empty() ? "" : "\n\n") + more;
  return out.empty() ? calendar : out;
}
