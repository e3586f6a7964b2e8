/* An invitation as readable text: what, when in the reader's own time zone, where. What became of it is told by signs,
   which every language reads. Used by the walk through a message's parts. */
#include <glib.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "text.h"

namespace {

constexpr char kCancelled[] = "🚫 ", kChanged[] = "✏️ ", kAccepted[] = "✅ ", kDeclined[] = "❌ ", kPerhaps[] = "❔ ",
               kRepeats[] = "🔁 ";
constexpr size_t kMostDates = 16u << 10; /* bytes of those taken out */
constexpr size_t kMostZones = 16;
constexpr const char *kDays[] = {"SU", "MO", "TU", "WE", "TH", "FR", "SA"};

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
  /* What the invitation says of the zones that it names, as a rule for GLib. */
  std::map<std::string, std::string> zones;
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

/* The digits there as a number; -1 when it is none. */
int digits_at(std::string_view text, size_t at, size_t count) {
  int n = 0;
  for (size_t i = at; i < at + count; i++) {
    if (i >= text.size() || !g_ascii_isdigit(text[i])) return -1;
    n = n * 10 + text[i] - '0';
  }
  return n;
}

/* "-1SU" is the last Sunday, "SU" one of every week (nth 0). Returns the day, Sunday being 0; -1 when it is none. */
int read_day(std::string_view text, int *nth) {
  std::string_view name = text.size() < 2 ? text : text.substr(text.size() - 2);
  *nth = atoi(std::string(text.substr(0, text.size() - name.size())).c_str());
  for (int day = 0; day < 7; day++)
    if (name == kDays[day]) return day;
  return -1;
}

/* "UTC+01:00" as an offset; empty: it is no such name. GLib would take it for a rule of the C library, which counts the
   other way. */
std::string offset_called(const std::string &name) {
  bool counts = name.starts_with("UTC") || name.starts_with("GMT");
  size_t sign = counts ? name.find_first_not_of(' ', 3) : std::string::npos;
  return sign != std::string::npos && (name[sign] == '+' || name[sign] == '-') ? name.substr(sign) : "";
}

/* The zone that a time names: what this machine knows of it comes before what the invitation says. Some makers put a
   path of their own before the name. */
zone_holder zone_named(const event &e, const std::string &name) {
  std::string known = zone_called(name), offset = offset_called(name);
  auto told = e.zones.find(name);
  if (known.empty() && told != e.zones.end() && !offset.empty()) known = told->second;
  if (known.empty()) known = offset.empty() ? name : offset;
  zone_holder zone(g_time_zone_new_identifier(known.c_str()));
  if (!zone && told != e.zones.end()) zone.reset(g_time_zone_new_identifier(told->second.c_str()));
  size_t slash = name.rfind('/');
  if (!zone && slash != std::string::npos && slash > 0 && (slash = name.rfind('/', slash - 1)) != std::string::npos)
    zone.reset(g_time_zone_new_identifier(name.c_str() + slash + 1));
  return zone;
}

/* "20260105T140000Z" and its parameters. The date is NULL when it is none. */
moment read_moment(const event &e, const property &time) {
  moment out;
  const std::string &value = time.value;
  if (digits_at(value, 0, 8) < 0) return out;
  out.all_day = value.size() < 13 || value[8] != 'T' || digits_at(value, 9, 4) < 0;
  std::string named = listed(time.parameters, "TZID", ';');
  zone_holder zone = value.ends_with('Z') ? zone_holder(g_time_zone_new_utc())
                     : named.empty()      ? zone_holder(g_time_zone_new_local())
                                          : zone_named(e, named);
  if (!zone && !out.all_day) out.foreign = named;
  if (!zone) zone.reset(g_time_zone_new_utc());
  int hour = out.all_day ? 0 : digits_at(value, 9, 2), minute = out.all_day ? 0 : digits_at(value, 11, 2);
  out.date.reset(g_date_time_new(zone.get(), digits_at(value, 0, 4), digits_at(value, 4, 2), digits_at(value, 6, 2),
                                 hour, minute, 0));
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
  moment start = read_moment(e, start_property->second);
  if (!start.date) return "";
  std::string out = format(start.date.get(), start.all_day ? "%Y-%m-%d" : "%Y-%m-%d %H:%M");
  auto end_property = e.properties.find("DTEND");
  date_holder end;
  if (end_property != e.properties.end())
    end = read_moment(e, end_property->second).date;
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

/* The same day of a later month, or its nth weekday; months without it are passed over. */
date_holder next_in_month(GDateTime *from, int months, int weekday, int nth) {
  constexpr int kTries = 12;
  int day = g_date_time_get_day_of_month(from);
  date_holder first(g_date_time_add_days(from, 1 - day));
  for (int n = 1; first && n <= kTries; n++) {
    date_holder month(g_date_time_add_months(first.get(), n * months));
    if (!month) return nullptr;
    int length = g_date_get_days_in_month(static_cast<GDateMonth>(g_date_time_get_month(month.get())),
                                          static_cast<GDateYear>(g_date_time_get_year(month.get())));
    if (nth != 0) {
      int begins = g_date_time_get_day_of_week(month.get()) % 7;
      day = 1 + (weekday - begins + 7) % 7;
      int last = day + (length - day) / 7 * 7;
      day = nth > 0 ? day + (nth - 1) * 7 : last + (nth + 1) * 7;
    }
    if (day >= 1 && day <= length) return date_holder(g_date_time_add_days(month.get(), day - 1));
  }
  return nullptr;
}

/* The next date of a rule after `from`; NULL when it is one that is not reckoned here. */
date_holder next_date(GDateTime *from, const std::string &rule) {
  std::string every = listed(rule, "FREQ", ';'), days = listed(rule, "BYDAY", ';');
  std::string place = listed(rule, "BYSETPOS", ';'), month_days = listed(rule, "BYMONTHDAY", ';');
  std::string months = listed(rule, "BYMONTH", ';');
  int step = std::clamp(atoi(listed(rule, "INTERVAL", ';').substr(0, 4).c_str()), 1, 999), nth = 0, weekday = 0;
  if (!listed(rule, "BYYEARDAY", ';').empty() || !listed(rule, "BYWEEKNO", ';').empty()) return nullptr;
  if (!month_days.empty() && atoi(month_days.c_str()) != g_date_time_get_day_of_month(from)) return nullptr;
  if (!months.empty() && (every != "YEARLY" || atoi(months.c_str()) != g_date_time_get_month(from))) return nullptr;
  if ((month_days + months).find(',') != std::string::npos) return nullptr;
  if (every == "MONTHLY" || every == "YEARLY") {
    if (!days.empty()) {
      weekday = read_day(days, &nth);
      if (nth == 0) nth = atoi(place.c_str());
      bool reckoned = weekday >= 0 && nth != 0 && abs(nth) <= 5 && days.find(',') == std::string::npos;
      if (!reckoned || (every == "YEARLY" && months.empty()) || !month_days.empty()) return nullptr;
    } else if (!place.empty()) {
      return nullptr;
    }
    return next_in_month(from, every == "YEARLY" ? step * 12 : step, weekday, nth);
  }
  if (!place.empty() || !month_days.empty()) return nullptr;
  if (every == "DAILY" && days.empty()) return date_holder(g_date_time_add_days(from, step));
  if (every != "WEEKLY" && !(every == "DAILY" && step == 1)) return nullptr;
  if (days.empty()) return date_holder(g_date_time_add_weeks(from, step));
  int today = g_date_time_get_day_of_week(from);
  for (int day = 1; day <= 7; day++) {
    if (days.find(kDays[(today + day) % 7]) == std::string::npos) continue;
    bool next_week = today + day > 7;
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
    moment one = read_moment(e, {out->second.parameters, std::string(dates.substr(0, end))});
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
  moment first = read_moment(e, start->second);
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

/* A part of a zone, STANDARD or DAYLIGHT. */
struct zone_half {
  std::string offset, start, rule;
};

/* "+0530" the other way round, as GLib and the C library want it. */
std::string offset_rule(const std::string &offset) {
  int hours = digits_at(offset, 1, 2), minutes = digits_at(offset, 3, 2);
  if (hours < 0 || minutes < 0 || (offset[0] != '+' && offset[0] != '-')) return "";
  char out[16];
  snprintf(out, sizeof out, "%c%02d:%02d", offset[0] == '+' ? '-' : '+', hours, minutes);
  return out;
}

/* When a half begins every year: "M10.5.0/03:00:00". Empty: by a rule that is not reckoned here. */
std::string change_rule(const zone_half &half) {
  int nth = 0, weekday = read_day(listed(half.rule, "BYDAY", ';'), &nth);
  int month = atoi(listed(half.rule, "BYMONTH", ';').substr(0, 4).c_str());
  int hour = digits_at(half.start, 9, 2), minute = digits_at(half.start, 11, 2);
  if (month < 1 || month > 12 || weekday < 0 || nth < -1 || nth == 0 || nth > 5 || hour < 0 || minute < 0) return "";
  char out[40];
  snprintf(out, sizeof out, "M%d.%d.%d/%02d:%02d:00", month, nth == -1 ? 5 : nth, weekday, hour, minute);
  return out;
}

/* A zone as a rule for GLib; empty: it cannot be said so. */
std::string zone_rule(const zone_half &standard, const zone_half &daylight) {
  std::string base = offset_rule(standard.offset), summer = offset_rule(daylight.offset);
  if (base.empty()) return "";
  if (summer.empty() || (daylight.offset == standard.offset)) return "STD" + base;
  std::string begin = change_rule(daylight), end = change_rule(standard);
  return begin.empty() || end.empty() ? "" : "STD" + base + "DST" + summer + "," + begin + "," + end;
}

/* One line: the name, what stands behind it, and the value. */
struct calendar_line {
  std::string name;
  property rest;
};

/* Takes the line that begins at *at apart, and goes on behind it. Returns false when it is none. */
bool read_line(const std::string &text, size_t *at, calendar_line *out) {
  size_t end = std::min(text.find('\n', *at), text.size());
  std::string_view line(text.data() + *at, end - *at);
  *at = end + 1;
  size_t name = std::min(line.find_first_of(";:"), line.size());
  size_t colon = name;
  for (bool quoted = false; colon < line.size() && (quoted || line[colon] != ':'); colon++)
    if (line[colon] == '"') quoted = !quoted;
  if (colon >= line.size()) return false;
  out->name = line.substr(0, name);
  for (char &c : out->name) c = g_ascii_toupper(c);
  out->rest = {std::string(line.substr(name, colon - name)), std::string(line.substr(colon + 1))};
  return true;
}

/* The zone whose first line was read. Of several halves of a kind, for several times, the last counts. */
void read_zone(const std::string &text, size_t *at, event *e) {
  zone_half halves[2], *half = nullptr;
  std::string id;
  calendar_line line;
  while (*at < text.size()) {
    if (!read_line(text, at, &line)) continue;
    const std::string &value = line.rest.value;
    if (line.name == "END" && value == "VTIMEZONE") break;
    if (line.name == "BEGIN") {
      half = &halves[value == "DAYLIGHT"];
      *half = zone_half();
    }
    if (line.name == "TZID") id = value;
    if (half && line.name == "TZOFFSETTO") half->offset = value;
    if (half && line.name == "DTSTART") half->start = value;
    if (half && line.name == "RRULE") half->rule = value;
  }
  std::string rule = zone_rule(halves[0], halves[1]);
  if (!rule.empty() && e->zones.size() < kMostZones) e->zones.emplace(id, rule);
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
  calendar_line line;
  for (size_t at = 0; at < unfolded.size() && !(depth == 0 && !e.properties.empty());) {
    if (!read_line(unfolded, &at, &line)) continue;
    auto &[key, rest] = line;
    if (key == "BEGIN" && depth == 0 && rest.value == "VTIMEZONE")
      read_zone(unfolded, &at, &e);
    else if (key == "BEGIN" && (depth > 0 || g_ascii_strcasecmp(rest.value.c_str(), "VEVENT") == 0))
      depth++;
    else if (key == "METHOD" && depth == 0)
      e.method = rest.value;
    else if (key == "END" && depth > 0)
      depth--;
    else if (auto known = e.properties.find(key); depth == 1 && key == "EXDATE" && known != e.properties.end())
      known->second.value += "," + rest.value;
    else if (depth == 1)
      e.properties.emplace(key, rest);
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
