/* Dates, times and numbers as the device's region writes them, and the device's time zone. */
#include <unicode/locid.h>
#include <unicode/ucal.h>
#include <unicode/udat.h>
#include <unicode/udatpg.h>
#include <unicode/unum.h>
#include <unicode/ustring.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "brisel-app-utils.h"
#include "brisel-scoped.h"
#include "platform-paths.h"
#include "vconf.h"

constexpr int pattern_units = 256;  /* UTF-16 units of a skeleton, pattern or formatted text */
constexpr size_t text_bytes = 256;  /* a formatted text in UTF-8, with its NUL */
constexpr size_t locale_bytes = 32; /* a locale id, with its NUL */
constexpr size_t number_bytes = 64; /* a formatted number: 20 units of any script are at most 60 bytes */
constexpr int number_units = 20;
constexpr size_t zone_prefix = 20; /* strlen("/usr/share/zoneinfo/") */

static UDateTimePatternGenerator *pattern_generator;

/* A row asks for two texts each time it comes into sight, and opening a formatter costs far more than using it.
   The last few stay open until the locale, the zone or the generator changes: the same pattern in the same locale
   and zone always gives the same formatter. */
struct kept_date_format {
  UDateFormat *format;
  bool is_skeleton;
  char source[64]; /* the pattern or skeleton asked for */
  char locale[locale_bytes];
};
static kept_date_format kept_date_formats[6];
static unsigned kept_date_next;
static UNumberFormat *kept_number_format;
static char kept_number_locale[locale_bytes];

static void _drop_kept_formats() {
  for (kept_date_format &kept : kept_date_formats) {
    if (kept.format) udat_close(kept.format);
    kept = {};
  }
  if (kept_number_format) unum_close(kept_number_format);
  kept_number_format = nullptr;
}

char *brisel_get_locale(void) {
  scoped_text region(vconf_get_str(BRISEL_KEY_REGION));
  if (!region) {
    BRISEL_WARN("vconf_get_str() failed : region format");
    return strdup("en_US");
  }
  char buffer[locale_bytes];
  const char *encoding = strstr(region.get(), ".UTF-8");
  size_t length = encoding ? (size_t)(encoding - region.get()) : strlen(region.get());
  /* No locale has an id longer than the buffer, and half an id would format like nobody's region. */
  if (length >= sizeof(buffer)) return strdup("en_US");
  memcpy(buffer, region.get(), length);
  buffer[length] = 0;
  /* ICU falls over names that it cannot take apart. */
  return strdup(icu::Locale(buffer).isBogus() ? "en_US" : buffer);
}

/* The zone id inside the target of the zone link, or NULL. */
static const char *_zone_id_of(const char *target) {
  /* A link may also be relative or lead through another folder; the id follows the zone directory all the same. */
  static const char directory[] = "/zoneinfo/";
  if (const char *found = strstr(target, directory)) return found + sizeof(directory) - 1;
  return strlen(target) > zone_prefix ? target + zone_prefix : nullptr;
}

/* 0, or -1 when the link cannot be read. id is "" when the target is no zone's. */
static int _read_zone_link(char (&target)[512]) {
  ssize_t length = readlink(platform_path("/opt/etc/localtime"), target, sizeof(target) - 1);
  if (length < 0) return -1;
  target[length] = 0;
  return 0;
}

char *brisel_get_timezone_str(void) {
  BRISEL_INFO("Enter");
  char target[512];
  const char *id = _read_zone_link(target) == 0 ? _zone_id_of(target) : nullptr;
  if (!id || !*id) {
    BRISEL_ERROR("readlink() failed");
    return nullptr;
  }
  return strdup(id);
}

static UErrorCode _apply_timezone(const char *id) {
  UChar wide[512];
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8(wide, 512, nullptr, id, -1, &status);
  if (U_SUCCESS(status)) ucal_setDefaultTimeZone(wide, &status);
  if (U_FAILURE(status)) return status;
  _drop_kept_formats();
  /* "Today" and "this year" are worked out by the C library: both must live in the same zone. */
  setenv("TZ", id, 1);
  tzset();
  return status;
}

void brisel_update_timezone_str(void) {
  scoped_text id(brisel_get_timezone_str());
  if (!id) {
    BRISEL_ERROR("timezone_id is NULL");
    return;
  }
  UErrorCode status = _apply_timezone(id.get());
  if (U_FAILURE(status)) BRISEL_ERROR("ucal_setDefaultTimeZone() failed: %s", u_errorName(status));
}

void brisel_util_init_timezone(void) {
  char target[512];
  const char *id = _read_zone_link(target) == 0 ? _zone_id_of(target) : nullptr;
  if (id && *id && !getenv("TZ")) _apply_timezone(id);
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

static UDateFormat *_open_date_format(const char *source, bool is_skeleton, const char *locale) {
  UErrorCode status = U_ZERO_ERROR;
  UChar pattern[pattern_units];
  int32_t length = 0;
  u_strFromUTF8(pattern, pattern_units, &length, source, -1, &status);
  if (is_skeleton && U_SUCCESS(status)) {
    UChar skeleton[pattern_units];
    u_memcpy(skeleton, pattern, length);
    if (!pattern_generator) return nullptr;
    length = udatpg_getBestPattern(pattern_generator, skeleton, length, pattern, pattern_units, &status);
  }
  if (U_FAILURE(status)) return nullptr;
  UDateFormat *format = udat_open(UDAT_PATTERN, UDAT_PATTERN, locale, nullptr, -1, pattern, length, &status);
  if (U_FAILURE(status)) return nullptr;
  return format;
}

static UDateFormat *_date_format(const char *source, bool is_skeleton, const char *locale, bool *kept_open) {
  *kept_open = strlen(source) < sizeof(kept_date_format::source) && strlen(locale) < locale_bytes;
  if (!*kept_open) return _open_date_format(source, is_skeleton, locale);
  for (kept_date_format &kept : kept_date_formats)
    if (kept.format && kept.is_skeleton == is_skeleton && !strcmp(kept.source, source) && !strcmp(kept.locale, locale))
      return kept.format;
  UDateFormat *format = _open_date_format(source, is_skeleton, locale);
  if (!format) return nullptr;
  kept_date_format &slot = kept_date_formats[kept_date_next++ % std::size(kept_date_formats)];
  if (slot.format) udat_close(slot.format);
  slot.format = format;
  slot.is_skeleton = is_skeleton;
  snprintf(slot.source, sizeof(slot.source), "%s", source);
  snprintf(slot.locale, sizeof(slot.locale), "%s", locale);
  return format;
}

/* The formatted instant; empty when ICU cannot. */
static char *_format_date(const char *source, bool is_skeleton, const char *locale, time_t *t) {
  char text[text_bytes] = "";
  bool kept_open = false;
  UDateFormat *format = _date_format(source, is_skeleton, locale ? locale : "", &kept_open);
  if (format) {
    UChar units[pattern_units];
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = udat_format(format, t ? (double)*t * 1000.0 : 0.0, units, pattern_units, nullptr, &status);
    if (U_SUCCESS(status) || status == U_BUFFER_OVERFLOW_ERROR)
      _utf8_from_units(text, sizeof(text), units, length < pattern_units ? length : pattern_units);
    if (!kept_open) udat_close(format);
  }
  return strdup(text);
}

char *brisel_util_get_date_time_str_by_skeleton(const char *skeleton, const char *locale, time_t *t) {
  return _format_date(skeleton, true, locale, t);
}

char *brisel_util_get_date_time_str_by_pattern(const char *pattern, const char *locale, time_t *t) {
  return _format_date(pattern, false, locale, t);
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
  const char *pattern = now.tm_year == then.tm_year ? same_year[order] : other_year[order];
  scoped_text date_text(brisel_util_get_date_time_str_by_pattern(pattern, ad->locale, &t));
  char text[2 * text_bytes];
  snprintf(text, sizeof(text), "%s %s", date_text.get(), time_text.get());
  return strdup(text);
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
