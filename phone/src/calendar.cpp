/* An invitation as readable text: what, when in the reader's own time zone, where. What became of it is told by signs,
   which every language reads. Used by the walk through a message's parts. */
#include <glib.h>

#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "text.h"

namespace {

constexpr char kCancelled[] = "🚫 ", kChanged[] = "✏️ ", kAccepted[] = "✅ ", kDeclined[] = "❌ ", kPerhaps[] = "❔ ",
               kRepeats[] = "🔁 ";
constexpr size_t kMostDates = 16u << 10; /* bytes of those taken out */

struct date_unref {
  void operator()(GDateTime *date) const { g_date_time_unref(date); }
};
struct zone_unref {
  void operator()(GTimeZone *zone) const { g_time_zone_unref(zone); }
};
using date_holder = std::unique_ptr<GDateTime, date_unref>;
using zone_holder = std::unique_ptr<GTimeZone, zone_unref>;

struct property {
  std::string parameters, value;
};

/* What the first event says, and what is said of it. */
struct event {
  std::map<std::string, property> properties;
  std::string method;

  std::string value(const char *name) const {
    auto found = properties.find(name);
    return found == properties.end() ? "" : found->second.value;
  }
};

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

/* What stands behind "NAME=" in a list that `separator` divides. */
std::string listed(std::string_view text, const char *name, char separator) {
  std::string key = std::string(name) + "=";
  for (size_t at = 0; at < text.size();) {
    size_t end = std::min(text.find(separator, at), text.size());
    std::string_view item = text.substr(at, end - at);
    if (item.size() >= key.size() && g_ascii_strncasecmp(item.data(), key.c_str(), key.size()) == 0) {
      std::string out(item.substr(key.size()));
      std::erase(out, '"');
      return out;
    }
    at = end + 1;
  }
  return "";
}

struct moment {
  date_holder date; /* in the reader's zone where its own is known */
  bool all_day = false;
  std::string foreign; /* the name of a zone that is not known here: the time is that zone's */
};

/* "20260105T140000Z" and its parameters. The date is NULL when it is none. */
moment read_moment(const property &time) {
  moment out;
  const std::string &value = time.value;
  auto number = [&value](size_t at, size_t count) {
    int n = 0;
    for (size_t i = at; i < at + count; i++) {
      if (i >= value.size() || !g_ascii_isdigit(value[i])) return -1;
      n = n * 10 + value[i] - '0';
    }
    return n;
  };
  if (number(0, 8) < 0) return out;
  out.all_day = value.size() < 13 || value[8] != 'T' || number(9, 4) < 0;
  std::string named = listed(time.parameters, "TZID", ';');
  zone_holder zone(value.ends_with('Z') ? g_time_zone_new_utc()
                   : named.empty()      ? g_time_zone_new_local()
                                        : g_time_zone_new_identifier(named.c_str()));
  if (!zone && !out.all_day) out.foreign = named;
  if (!zone) zone.reset(g_time_zone_new_utc());
  int hour = out.all_day ? 0 : number(9, 2), minute = out.all_day ? 0 : number(11, 2);
  out.date.reset(g_date_time_new(zone.get(), number(0, 4), number(4, 2), number(6, 2), hour, minute, 0));
  if (out.date && !out.all_day && out.foreign.empty()) out.date.reset(g_date_time_to_local(out.date.get()));
  return out;
}

std::string format(GDateTime *date, const char *how) {
  char *text = g_date_time_format(date, how);
  std::string out = text ? text : "";
  g_free(text);
  return out;
}

/* Seconds of "P1DT2H30M"; 0 when it is none. */
int64_t read_duration(const std::string &value) {
  int64_t seconds = 0, number = 0;
  for (char c : value) {
    if (g_ascii_isdigit(c)) {
      number = std::min<int64_t>(number * 10 + c - '0', 1000000);
      continue;
    }
    seconds += number * (c == 'W' ? 604800 : c == 'D' ? 86400 : c == 'H' ? 3600 : c == 'M' ? 60 : c == 'S' ? 1 : 0);
    number = 0;
  }
  return value.starts_with('P') ? seconds : 0;
}

/* When: the date once, when it begins and ends on the same. */
std::string readable_span(const event &e) {
  auto start_property = e.properties.find("DTSTART");
  if (start_property == e.properties.end()) return "";
  moment start = read_moment(start_property->second);
  if (!start.date) return "";
  std::string out = format(start.date.get(), start.all_day ? "%Y-%m-%d" : "%Y-%m-%d %H:%M");
  auto end_property = e.properties.find("DTEND");
  date_holder end;
  if (end_property != e.properties.end())
    end = read_moment(end_property->second).date;
  else if (int64_t length = read_duration(e.value("DURATION")))
    end.reset(g_date_time_add_seconds(start.date.get(), static_cast<double>(length)));
  /* The end of days is the day after the last. */
  if (end && start.all_day) end.reset(g_date_time_add_days(end.get(), -1));
  if (end && g_date_time_compare(end.get(), start.date.get()) > 0) {
    bool same_day = format(end.get(), "%F") == format(start.date.get(), "%F");
    if (!(same_day && start.all_day))
      out += " – " + format(end.get(), start.all_day ? "%Y-%m-%d" : same_day ? "%H:%M" : "%Y-%m-%d %H:%M");
  }
  if (!start.foreign.empty()) out += " (" + start.foreign + ")";
  return out;
}

/* The next date of a rule after `from`; NULL when it is one that is not reckoned here. */
date_holder next_date(GDateTime *from, const std::string &rule) {
  std::string every = listed(rule, "FREQ", ';'), days = listed(rule, "BYDAY", ';');
  int step = std::max(1, atoi(listed(rule, "INTERVAL", ';').substr(0, 4).c_str()));
  bool plain = listed(rule, "BYSETPOS", ';').empty() && listed(rule, "BYMONTHDAY", ';').empty() &&
               listed(rule, "BYYEARDAY", ';').empty() && listed(rule, "BYWEEKNO", ';').empty();
  if (!plain || (!days.empty() && every != "WEEKLY")) return nullptr;
  if (every == "DAILY") return date_holder(g_date_time_add_days(from, step));
  if (every == "MONTHLY") return date_holder(g_date_time_add_months(from, step));
  if (every == "YEARLY") return date_holder(g_date_time_add_years(from, step));
  if (every != "WEEKLY") return nullptr;
  if (days.empty()) return date_holder(g_date_time_add_weeks(from, step));
  static constexpr const char *kDays[] = {"MO", "TU", "WE", "TH", "FR", "SA", "SU"};
  int today = g_date_time_get_day_of_week(from) - 1;
  for (int day = 1; day <= 7; day++) {
    if (days.find(kDays[(today + day) % 7]) == std::string::npos) continue;
    bool next_week = today + day >= 7;
    return date_holder(g_date_time_add_days(from, day + (next_week ? (step - 1) * 7 : 0)));
  }
  return nullptr;
}

/* Was this date of an event that comes again taken out? */
bool is_taken_out(const event &e, GDateTime *date) {
  auto out = e.properties.find("EXDATE");
  std::string_view dates = out == e.properties.end() ? std::string_view() : out->second.value;
  dates = dates.substr(0, kMostDates);
  while (!dates.empty()) {
    size_t end = std::min(dates.find(','), dates.size());
    moment one = read_moment({out->second.parameters, std::string(dates.substr(0, end))});
    if (one.date && format(one.date.get(), "%F") == format(date, "%F")) return true;
    dates.remove_prefix(std::min(end + 1, dates.size()));
  }
  return false;
}

/* The next dates of an event that comes again. */
std::string readable_repeats(const event &e) {
  constexpr int kShown = 3, kTakenOut = 50;
  std::string rule = e.value("RRULE");
  auto start = e.properties.find("DTSTART");
  if (rule.empty() || start == e.properties.end()) return "";
  moment first = read_moment(start->second);
  if (!first.date) return "";
  std::string count = listed(rule, "COUNT", ';');
  int left = count.empty() ? kShown + 1 : atoi(count.substr(0, 6).c_str()) - 1;
  std::string until = listed(rule, "UNTIL", ';').substr(0, 8), out = kRepeats;
  date_holder date = std::move(first.date);
  for (int shown = 0, taken_out = 0; left > 0;) {
    date = next_date(date.get(), rule);
    if (date && !until.empty() && format(date.get(), "%Y%m%d") > until) return out;
    if (!date || shown == kShown) return out + (shown > 0 ? " …" : "…");
    bool is_out = taken_out < kTakenOut && is_taken_out(e, date.get());
    if (!is_out || !count.empty()) left--; /* a count is of all dates */
    if (is_out) taken_out++;
    if (!is_out) out += (shown++ > 0 ? ", " : "") + format(date.get(), "%Y-%m-%d");
  }
  return out;
}

const char *sign_of(const event &e) {
  if (e.method == "CANCEL" || e.value("STATUS") == "CANCELLED") return kCancelled;
  if (e.method == "REPLY") {
    auto attendee = e.properties.find("ATTENDEE");
    std::string answer = attendee == e.properties.end() ? "" : listed(attendee->second.parameters, "PARTSTAT", ';');
    return answer == "ACCEPTED" ? kAccepted : answer == "DECLINED" ? kDeclined : answer == "TENTATIVE" ? kPerhaps : "";
  }
  return e.method == "REQUEST" && atoi(e.value("SEQUENCE").substr(0, 6).c_str()) > 0 ? kChanged : "";
}

event read_event(const std::string &calendar) {
  std::string unfolded;
  unfolded.reserve(calendar.size());
  for (size_t i = 0; i < calendar.size(); i++) {
    if (calendar[i] == '\n' && i + 1 < calendar.size() && (calendar[i + 1] == ' ' || calendar[i + 1] == '\t'))
      i++;
    else
      unfolded += calendar[i];
  }
  event e;
  int depth = 0;
  for (size_t at = 0; at < unfolded.size() && !(depth == 0 && !e.properties.empty());) {
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
    else if (key == "METHOD" && depth == 0)
      e.method = value;
    else if (key == "END" && depth > 0)
      depth--;
    else if (auto known = e.properties.find(key); depth == 1 && key == "EXDATE" && known != e.properties.end())
      known->second.value += "," + value;
    else if (depth == 1)
      e.properties.emplace(key, property{std::string(line.substr(name, colon - name)), value});
  }
  for (char &c : e.method) c = g_ascii_toupper(c);
  return e;
}

}  // namespace

bool calendar_read(const std::string &calendar, std::string *head, std::string *description) {
  event e = read_event(calendar);
  std::string summary = plain_value(e.value("SUMMARY"));
  head->clear();
  for (const std::string &line :
       {sign_of(e) + summary, readable_span(e), readable_repeats(e), plain_value(e.value("LOCATION"))})
    if (!line.empty()) *head += (head->empty() ? "" : "\n") + line;
  *description = plain_value(e.value("DESCRIPTION"));
  return !head->empty();
}
