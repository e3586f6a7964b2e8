/* Dates, times and numbers as the device's region writes them, and the device's time zone. */
#include <unicode/locid.h>
#include <unicode/ucal.h>
#include <unicode/uchar.h>
#include <unicode/udat.h>
#include <unicode/udatpg.h>
#include <unicode/uloc.h>
#include <unicode/unum.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "app_efl.h"
#include "brisel-app-utils.h"
#include "brisel-scoped.h"
#include "platform-zone.h"
#include "vconf.h"

constexpr int pattern_units = 256;  /* UTF-16 units of a skeleton, pattern or formatted text */
constexpr size_t text_bytes = 256;  /* a formatted text in UTF-8, with its NUL */
constexpr size_t locale_bytes = 32; /* a locale id, with its NUL */
constexpr size_t number_bytes = 64; /* a formatted number: 20 units of any script are at most 60 bytes */
constexpr int number_units = 20;
/* In digits: a time of day that is wider than there is room for takes its short form; no row has room for more than the
   first, with which some locales spell it out ("hour 10 minute 42 in the afternoon"). */
constexpr double most_time_digits = 20, wide_letter = 1.7;
static double time_room = most_time_digits;

static UDateTimePatternGenerator *pattern_generator;

/* A row asks for two texts each time it comes into sight, and opening a formatter costs far more than using it or than
   giving it another pattern, and takes 60 KiB: there is one, until the locale, the zone or the generator changes. */
static UDateFormat *kept_date_format;
static std::u16string kept_date_format_pattern;
static std::string kept_date_format_locale;
/* The patterns last asked for. */
struct kept_date_pattern {
  std::u16string pattern;
  bool is_skeleton;
  std::string source; /* the pattern or skeleton asked for */
  std::string locale;
};
static kept_date_pattern kept_date_patterns[6];
static unsigned kept_date_next;
static UNumberFormat *kept_number_format;
static UCalendar *kept_calendar;
static char kept_calendar_locale[locale_bytes];
/* The zone is none that ICU knows, so the C library says how far each instant is from UTC, and ICU formats in UTC. */
static bool zone_of_c_library;
static char kept_number_locale[locale_bytes];

static void _drop_kept_formats() {
  if (kept_date_format) udat_close(kept_date_format);
  kept_date_format = nullptr;
  for (kept_date_pattern &kept : kept_date_patterns) kept = {};
  if (kept_number_format) unum_close(kept_number_format);
  kept_number_format = nullptr;
  if (kept_calendar) ucal_close(kept_calendar);
  kept_calendar = nullptr;
}

/* --- locale --- */

/* What a modifier of the C library's locale names says, in ICU's: a script, or a variant. The others (euro) say nothing
   about formats. */
static const struct {
  const char *modifier, *script, *variant;
} locale_modifiers[] = {{"latin", "_Latn", ""},   {"cyrillic", "_Cyrl", ""}, {"devanagari", "_Deva", ""},
                        {"iqtelif", "_Latn", ""}, {"arabic", "_Arab", ""},   {"valencia", "", "_VALENCIA"}};

/* "sr_RS.UTF-8@latin" is "sr_Latn_RS" for ICU. NULL when the name is no locale's. */
static char *_locale_of_name(const char *name) {
  char base[locale_bytes], result[locale_bytes + 16];
  const size_t length = strcspn(name, ".@");
  const char *modifier = strchr(name, '@');
  /* No locale has an id longer than the buffer, and half an id would format like nobody's region. */
  if (length >= sizeof(base)) return nullptr;
  snprintf(base, sizeof(base), "%.*s", (int)length, name);
  snprintf(result, sizeof(result), "%s", base);
  if (modifier && strchr(modifier, '=')) {
    /* ICU's own keywords ("@calendar=persian"). */
    if (length + strlen(modifier) >= sizeof(base)) return nullptr;
    snprintf(result, sizeof(result), "%s%s", base, modifier);
  } else if (modifier) {
    const size_t language = strcspn(base, "_");
    for (const auto &one : locale_modifiers)
      if (!strcasecmp(modifier + 1, one.modifier))
        snprintf(result, sizeof(result), "%.*s%s%s%s", (int)language, base, one.script, base + language, one.variant);
  }
  /* ICU falls over names that it cannot take apart. */
  if (strlen(result) >= locale_bytes || icu::Locale(result).isBogus()) return nullptr;
  return strdup(result);
}

/* The environment's locale for times, NULL when it is neutral or none. */
static const char *_environment_locale(void) {
  for (const char *variable : {"LC_ALL", "LC_TIME", "LANG"}) {
    const char *value = getenv(variable);
    if (!value || !*value) continue;
    const size_t length = strcspn(value, ".@");
    const bool neutral = (length == 1 && *value == 'C') || !strncmp(value, "POSIX", 5);
    return neutral ? nullptr : value;
  }
  return nullptr;
}

/* The environment's where the device has no region. */
static char *_locale_of_region(const char *region) {
  const char *name = region ? region : _environment_locale();
  char *locale = name ? _locale_of_name(name) : nullptr;
  return locale ? locale : strdup("en_US");
}

char *brisel_get_locale(void) {
  scoped_text region(vconf_get_str(BRISEL_KEY_REGION));
  if (!region) BRISEL_WARN("vconf_get_str() failed : region format");
  return _locale_of_region(region.get());
}

/* --- time zone --- */

char *brisel_get_timezone_str(void) {
  BRISEL_INFO("Enter");
  platform_zone zone;
  if (platform_zone_read(&zone) != 0) {
    BRISEL_ERROR("readlink() failed");
    return nullptr;
  }
  return zone.name.empty() ? nullptr : strdup(zone.name.c_str());
}

static bool _icu_knows_zone(const UChar *id) {
  UChar canonical[128];
  UErrorCode status = U_ZERO_ERROR;
  UBool system = 0;
  ucal_getCanonicalTimeZoneID(id, -1, canonical, std::size(canonical), &system, &status);
  return U_SUCCESS(status) && system;
}

static void _apply_timezone(const platform_zone &zone) {
  UChar wide[512];
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8(wide, 512, nullptr, zone.name.c_str(), -1, &status);
  zone_of_c_library = U_FAILURE(status) || zone.name.empty() || !_icu_knows_zone(wide);
  if (zone_of_c_library) u_uastrcpy(wide, "Etc/UTC");
  status = U_ZERO_ERROR;
  ucal_setDefaultTimeZone(wide, &status);
  if (U_FAILURE(status)) {
    BRISEL_ERROR("ucal_setDefaultTimeZone() failed: %s", u_errorName(status));
    return;
  }
  _drop_kept_formats();
  /* "Today" is worked out by the C library: both must live in the same zone. */
  setenv("TZ", zone.tz.c_str(), 1);
  tzset();
}

void brisel_update_timezone_str(void) {
  platform_zone zone;
  if (platform_zone_read(&zone) != 0) {
    BRISEL_ERROR("readlink() failed");
    BRISEL_ERROR("timezone_id is NULL");
    return;
  }
  _apply_timezone(zone);
}

void brisel_util_init_timezone(void) {
  /* ICU finds a zone that TZ names by itself, once it formats something. */
  const char *tz = getenv("TZ");
  platform_zone zone;
  if ((!tz || *tz == ':') && platform_zone_read(&zone) == 0) _apply_timezone(zone);
}

/* ICU's milliseconds of an instant, such that its default zone shows what the C library's would. */
static double _icu_time(time_t t) {
  double seconds = (double)t;
  struct tm there = {};
  if (zone_of_c_library && localtime_r(&t, &there)) seconds += (double)there.tm_gmtoff;
  return seconds * 1000.0;
}

/* --- formats --- */

/* ICU keeps what it has read for whoever asks next: the first generator takes seven times as long as the others. */
static void _read_formats_cb(void *data) {
  UErrorCode status = U_ZERO_ERROR;
  UDateTimePatternGenerator *generator = udatpg_open((const char *)data, &status);
  if (generator) udatpg_close(generator);
}

void brisel_util_read_formats_ahead(void) {
  static char locale[locale_bytes];
  scoped_text region(vconf_get_str(BRISEL_KEY_REGION)), name(_locale_of_region(region.get()));
  snprintf(locale, sizeof(locale), "%s", name.get());
  /* ICU asks for the process's locale once, which the toolkit may be changing later. */
  uloc_getDefault();
  app_efl_beside(_read_formats_cb, locale);
}

int brisel_open_icu_pattern_generator(appdata *ad) {
  BRISEL_INFO("Enter");
  if (!ad) {
    BRISEL_WARN("Invalid parameter: data is NULL!");
    return -1;
  }
  free(ad->locale);
  ad->locale = brisel_get_locale();
  BRISEL_INFO("locale: %s", ad->locale);

  _drop_kept_formats();
  UErrorCode status = U_ZERO_ERROR;
  pattern_generator = udatpg_open(ad->locale, &status);
  if (!pattern_generator || U_FAILURE(status)) {
    BRISEL_WARN("udatpg_open() failed: %s", u_errorName(status));
    return -1;
  }
  return 0;
}

int brisel_close_icu_pattern_generator(appdata *ad) {
  _drop_kept_formats();
  if (pattern_generator) udatpg_close(pattern_generator);
  pattern_generator = nullptr;
  return 0;
}

/* Writes at most size bytes with the NUL, cut at a character boundary. */
static void _utf8_from_units(char *out, size_t size, const UChar *units, int length) {
  char whole[pattern_units * 3 + 1];
  int32_t written = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strToUTF8(whole, (int32_t)sizeof(whole), &written, units, length, &status);
  if (U_FAILURE(status)) written = 0;
  whole[written] = 0;
  brisel_util_cut_utf8(whole, size - 1);
  memcpy(out, whole, strlen(whole) + 1);
}

/* The formatter for a pattern, until the next is asked for, or NULL. */
static UDateFormat *_date_format(const std::u16string &pattern, const char *locale) {
  if (kept_date_format && kept_date_format_locale == locale) {
    if (kept_date_format_pattern != pattern)
      udat_applyPattern(kept_date_format, false, pattern.data(), (int32_t)pattern.size());
  } else {
    if (kept_date_format) udat_close(kept_date_format);
    UErrorCode status = U_ZERO_ERROR;
    kept_date_format =
        udat_open(UDAT_PATTERN, UDAT_PATTERN, locale, nullptr, -1, pattern.data(), (int32_t)pattern.size(), &status);
    if (U_FAILURE(status)) kept_date_format = nullptr;
    kept_date_format_locale = locale;
  }
  kept_date_format_pattern = pattern;
  return kept_date_format;
}

/* About how many digits it is wide: letters of India and its neighbours are wider, and signs above or below take no
   room. */
static double _digits_of(const UChar *units, int32_t length) {
  double digits = 0;
  for (int32_t i = 0; i < length;) {
    UChar32 letter = 0;
    U16_NEXT(units, i, length, letter);
    if (U_GET_GC_MASK(letter) & (U_GC_MN_MASK | U_GC_ME_MASK | U_GC_CF_MASK)) continue;
    digits += letter >= 0x900 && letter < 0xE00 ? wide_letter : 1;
  }
  return digits;
}

static bool _is_long_time(UDateFormat *format) {
  for (const double hour : {10.0, 22.0}) {
    UChar units[pattern_units];
    UErrorCode status = U_ZERO_ERROR;
    const int32_t length = udat_format(format, (hour * 60.0 + 42.0) * 60000.0, units, pattern_units, nullptr, &status);
    if (length > pattern_units || _digits_of(units, length) > time_room) return true;
  }
  return false;
}

/* The pattern for a pattern or skeleton, empty when there is none. */
static std::u16string _find_date_pattern(const char *source, bool is_skeleton, const char *locale) {
  UErrorCode status = U_ZERO_ERROR;
  UChar pattern[pattern_units];
  int32_t length = 0;
  u_strFromUTF8(pattern, pattern_units, &length, source, -1, &status);
  if (is_skeleton && U_SUCCESS(status)) {
    UChar skeleton[pattern_units];
    u_memcpy(skeleton, pattern, length);
    if (!pattern_generator) return {};
    length = udatpg_getBestPattern(pattern_generator, skeleton, length, pattern, pattern_units, &status);
  }
  if (U_FAILURE(status)) return {};
  const std::u16string found(pattern, length);
  if (!is_skeleton || !strchr(source, 'h')) return found;
  UDateFormat *format = _date_format(found, locale);
  return format && _is_long_time(format) ? u"h:mm aaaaa" : found;
}

static const std::u16string &_date_pattern(const char *source, bool is_skeleton, const char *locale) {
  for (const kept_date_pattern &kept : kept_date_patterns)
    if (!kept.pattern.empty() && kept.is_skeleton == is_skeleton && kept.source == source && kept.locale == locale)
      return kept.pattern;
  kept_date_pattern &slot = kept_date_patterns[kept_date_next++ % std::size(kept_date_patterns)];
  slot = {_find_date_pattern(source, is_skeleton, locale), is_skeleton, source, locale};
  return slot.pattern;
}

/* The formatted instant; empty when ICU cannot. */
static char *_format_date(const char *source, bool is_skeleton, const char *locale, time_t *t) {
  char text[text_bytes] = "";
  if (!locale) locale = "";
  const std::u16string &pattern = _date_pattern(source, is_skeleton, locale);
  UDateFormat *format = pattern.empty() ? nullptr : _date_format(pattern, locale);
  if (format) {
    UChar units[pattern_units];
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = udat_format(format, t ? _icu_time(*t) : 0.0, units, pattern_units, nullptr, &status);
    if (U_SUCCESS(status) || status == U_BUFFER_OVERFLOW_ERROR)
      _utf8_from_units(text, sizeof(text), units, length < pattern_units ? length : pattern_units);
  }
  return strdup(text);
}

void brisel_util_set_time_room(double digits) {
  const double room = std::min(digits, most_time_digits);
  if (room == time_room) return;
  time_room = room;
  for (kept_date_pattern &kept : kept_date_patterns) kept = {};
}

char *brisel_util_get_date_time_str_by_skeleton(const char *skeleton, const char *locale, time_t *t) {
  return _format_date(skeleton, true, locale, t);
}

char *brisel_util_get_date_time_str_by_pattern(const char *pattern, const char *locale, time_t *t) {
  return _format_date(pattern, false, locale, t);
}

bool brisel_util_is_same_year(time_t one, time_t other, const char *locale) {
  const char *name = locale ? locale : "";
  UErrorCode status = U_ZERO_ERROR;
  if (!kept_calendar || strcmp(kept_calendar_locale, name) != 0) {
    if (kept_calendar) ucal_close(kept_calendar);
    kept_calendar = ucal_open(nullptr, 0, name, UCAL_DEFAULT, &status);
    if (U_FAILURE(status)) kept_calendar = nullptr;
    snprintf(kept_calendar_locale, sizeof(kept_calendar_locale), "%s", name);
  }
  if (!kept_calendar) return false;
  ucal_setMillis(kept_calendar, _icu_time(one), &status);
  const int32_t year = ucal_get(kept_calendar, UCAL_EXTENDED_YEAR, &status);
  ucal_setMillis(kept_calendar, _icu_time(other), &status);
  return year == ucal_get(kept_calendar, UCAL_EXTENDED_YEAR, &status) && U_SUCCESS(status);
}

int brisel_util_locale_date_order(const char *locale) {
  static const char *const orders[] = {"dMy", "Mdy", "yMd", "ydM"};
  UErrorCode status = U_ZERO_ERROR;
  UDateFormat *format = udat_open(UDAT_NONE, UDAT_SHORT, locale, nullptr, 0, nullptr, 0, &status);
  if (U_FAILURE(status)) return 0;
  UChar pattern[pattern_units];
  const int32_t length = udat_toPattern(format, false, pattern, pattern_units, &status);
  udat_close(format);
  std::string found;
  for (int32_t i = 0; U_SUCCESS(status) && i < length; i++) {
    const char letter = pattern[i] == 'L' ? 'M' : pattern[i] == 'r' || pattern[i] == 'U' ? 'y' : (char)pattern[i];
    if (strchr("dMy", letter) && found.find(letter) == std::string::npos) found += letter;
  }
  for (int i = 0; i < (int)std::size(orders); i++)
    if (found == orders[i]) return i;
  return 0;
}

bool brisel_util_locale_has_12_hours(const char *locale) {
  UErrorCode status = U_ZERO_ERROR;
  UDateFormat *format = udat_open(UDAT_SHORT, UDAT_NONE, locale, nullptr, 0, nullptr, 0, &status);
  if (U_FAILURE(status)) return false;
  UChar pattern[pattern_units];
  const int32_t length = udat_toPattern(format, false, pattern, pattern_units, &status);
  udat_close(format);
  if (U_FAILURE(status)) return false;
  return u_memchr(pattern, 'h', length) || u_memchr(pattern, 'K', length);
}

bool brisel_util_has_locale(void) {
  scoped_text region(vconf_get_str(BRISEL_KEY_REGION));
  return region || _environment_locale();
}

char *brisel_util_join_date_time(const char *date, const char *time, const char *locale) {
  /* From right to left the date comes first, too: digits alone would make a line from left to right. */
  const char *mark = locale && uloc_isRightToLeft(locale) ? "\u200F" : "";
  char text[2 * text_bytes];
  snprintf(text, sizeof(text), "%s%s %s", mark, date ? date : "", time ? time : "");
  return strdup(text);
}

char *brisel_util_get_mailbox_date_time_str(time_t t, appdata *ad) {
  if (!ad) {
    BRISEL_ERROR("Invalid parameter: data is NULL!");
    return nullptr;
  }
  static const char *const same_year[] = {"dd/MM", "MM/dd", "MM/dd", "dd/MM"};
  static const char *const other_year[] = {"dd/MM/y", "MM/dd/y", "y/MM/dd", "y/dd/MM"};

  struct tm now = {}, then = {};
  time_t now_time = time(nullptr);
  localtime_r(&now_time, &now);
  localtime_r(&t, &then);
  scoped_text time_text(
      brisel_util_get_date_time_str_by_skeleton(ad->time_format == 1 ? "hhmm" : "Hm", ad->locale, &t));
  if (now.tm_year == then.tm_year && now.tm_yday == then.tm_yday) return time_text.release();

  unsigned order = (unsigned)ad->date_format < std::size(same_year) ? (unsigned)ad->date_format : 2;
  const char *pattern = brisel_util_is_same_year(now_time, t, ad->locale) ? same_year[order] : other_year[order];
  scoped_text date_text(brisel_util_get_date_time_str_by_pattern(pattern, ad->locale, &t));
  return brisel_util_join_date_time(date_text.get(), time_text.get(), ad->locale);
}

char *brisel_util_get_localized_number_str(int number, appdata *ad) {
  char text[number_bytes] = "";
  const char *locale = ad && ad->locale ? ad->locale : "";
  UErrorCode status = U_ZERO_ERROR;
  if (!kept_number_format || strcmp(kept_number_locale, locale) != 0) {
    if (kept_number_format) unum_close(kept_number_format);
    kept_number_format = unum_open(UNUM_DECIMAL, nullptr, 0, locale, nullptr, &status);
    if (U_FAILURE(status)) kept_number_format = nullptr;
    snprintf(kept_number_locale, sizeof(kept_number_locale), "%s", locale);
  }
  if (kept_number_format) {
    UChar units[number_units];
    status = U_ZERO_ERROR;
    int32_t length = unum_format(kept_number_format, number, units, number_units, nullptr, &status);
    if (U_SUCCESS(status)) _utf8_from_units(text, sizeof(text), units, length);
  }
  return strdup(text);
}
