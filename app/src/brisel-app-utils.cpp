/* Services that the screens share: popups, dates and numbers, contacts, the phone, text and theme. */
#include "brisel-app-utils.h"

#include <unicode/locid.h>
#include <unicode/ucal.h>
#include <unicode/udat.h>
#include <unicode/udatpg.h>
#include <unicode/unum.h>
#include <unicode/ustring.h>
#include <unistd.h>

#include <libintl.h>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "brisel-scoped.h"
#include "contacts.h"
#include "efl_assist.h"
#include "host-launch.h"
#include "platform-paths.h"
#include "vconf.h"

/* --- popups ---------------------------------------------------------------------------------------------------- */

static Evas_Object *_popup_add(Evas_Object *parent) {
  Evas_Object *popup = elm_popup_add(parent);
  evas_object_size_hint_weight_set(popup, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  return popup;
}

/* Popups live on the view stack; before the main screen is built there is only the window. */
static Evas_Object *_popup_parent(appdata *ad) {
  if (ad->naviframe) return ad->naviframe;
  BRISEL_INFO("popup is added win_main");
  return ad->win_main;
}

static Evas_Object *_popup_button_add(Evas_Object *popup, const char *part, Evas_Smart_Cb cb, void *data) {
  Evas_Object *btn = elm_button_add(popup);
  elm_object_style_set(btn, "popup");
  elm_object_part_content_set(popup, part, btn);
  if (cb) evas_object_smart_callback_add(btn, "clicked", cb, data);
  evas_object_show(btn);
  return btn;
}

static Evas_Object *_popup_scroller_add(Evas_Object *popup) {
  Evas_Object *scroller = elm_scroller_add(popup);
  evas_object_size_hint_weight_set(scroller, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  elm_object_style_set(scroller, "effect");
  elm_object_content_set(popup, scroller);
  evas_object_show(scroller);
  return scroller;
}

static Evas_Object *_popup_label_add(Evas_Object *scroller) {
  Evas_Object *label = elm_label_add(scroller);
  elm_object_style_set(label, "popup/default");
  elm_label_line_wrap_set(label, ELM_WRAP_MIXED);
  evas_object_size_hint_weight_set(label, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_size_hint_align_set(label, EVAS_HINT_FILL, EVAS_HINT_FILL);
  elm_object_content_set(scroller, label);
  evas_object_show(label);
  return label;
}

Evas_Object *brisel_util_popup_create_with_empty_contents(void *data, Evas_Object *parent, void *reserved,
                                                          const char *style, Evas_Smart_Cb response_cb, double timeout,
                                                          Evas_Smart_Cb timeout_cb, const char *btn1_text,
                                                          const char *btn2_text) {
  BRISEL_INFO("Enter");
  Evas_Object *popup = _popup_add(parent);
  if (style) elm_object_style_set(popup, style);

  if (btn1_text || btn2_text) elm_object_text_set(_popup_button_add(popup, "button1", response_cb, data), btn1_text);
  if (btn2_text) elm_object_text_set(_popup_button_add(popup, "button2", response_cb, data), btn2_text);

  if (timeout > 0.0) {
    elm_popup_timeout_set(popup, timeout);
    if (timeout_cb) evas_object_smart_callback_add(popup, "timeout", timeout_cb, data);
  }
  if (response_cb) ea_object_event_callback_add(popup, EA_CALLBACK_BACK, response_cb, data);

  evas_object_show(popup);
  BRISEL_INFO("Leave");
  return popup;
}

Evas_Object *brisel_util_popup_create(void *data, Evas_Object *parent, void *reserved, const char *text,
                                      Evas_Smart_Cb response_cb, double timeout, Evas_Smart_Cb timeout_cb,
                                      const char *btn1_text, const char *btn2_text) {
  BRISEL_INFO("Enter");
  Evas_Object *popup = brisel_util_popup_create_with_empty_contents(data, parent, reserved, nullptr, response_cb,
                                                                    timeout, timeout_cb, btn1_text, btn2_text);
  if (text) elm_object_text_set(popup, text);
  BRISEL_INFO("Leave");
  return popup;
}

Evas_Object *brisel_util_scroll_popup_create(void *data, Evas_Object *parent, void *reserved, const char *text,
                                             Evas_Smart_Cb response_cb, double timeout, Evas_Smart_Cb timeout_cb,
                                             const char *btn1_text, const char *btn2_text) {
  BRISEL_INFO("Enter");
  Evas_Object *popup = brisel_util_popup_create_with_empty_contents(data, parent, reserved, nullptr, response_cb,
                                                                    timeout, timeout_cb, btn1_text, btn2_text);
  if (text) {
    Evas_Object *scroller = _popup_scroller_add(popup);
    elm_scroller_bounce_set(scroller, EINA_FALSE, EINA_TRUE);
    elm_object_focus_allow_set(scroller, EINA_FALSE);
    elm_scroller_policy_set(scroller, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
    elm_object_text_set(_popup_label_add(scroller), text);
  }
  BRISEL_INFO("Leave");
  return popup;
}

Evas_Object *brisel_util_create_basic_2button_popup_with_app_data(appdata *ad, const char *title, const char *content,
                                                                  Evas_Smart_Cb back_cb, Evas_Smart_Cb btn1_cb,
                                                                  const char *btn1_text, Evas_Smart_Cb btn2_cb,
                                                                  const char *btn2_text) {
  BRISEL_INFO("Enter");
  const char *missing = nullptr;
  if (!content)
    missing = "content is NULL";
  else if (!back_cb)
    missing = "_response_cb is NULL";
  else if (!btn1_cb || !btn1_text)
    missing = "btn1_response_cb or btn1_text is NULL";
  else if (!btn2_cb || !btn2_text)
    missing = "btn2_response_cb or btn2_text is NULL";
  if (missing) {
    BRISEL_INFO("%s", missing);
    return nullptr;
  }

  Evas_Object *popup = _popup_add(_popup_parent(ad));
  ea_object_event_callback_add(popup, EA_CALLBACK_BACK, back_cb, ad);
  Evas_Object *label = _popup_label_add(_popup_scroller_add(popup));
  if (title) elm_object_domain_translatable_part_text_set(popup, "title,text", BRISEL_DOMAIN, title);
  elm_object_domain_translatable_text_set(label, BRISEL_DOMAIN, content);

  Evas_Object *btn1 = _popup_button_add(popup, "button1", btn1_cb, ad);
  elm_object_domain_translatable_text_set(btn1, BRISEL_DOMAIN, btn1_text);
  elm_object_focus_set(btn1, EINA_TRUE);
  Evas_Object *btn2 = _popup_button_add(popup, "button2", btn2_cb, ad);
  elm_object_domain_translatable_text_set(btn2, BRISEL_DOMAIN, btn2_text);

  evas_object_show(popup);
  return popup;
}

void brisel_util_drop_popup(Evas_Object **popup) {
  if (*popup) evas_object_del(*popup);
  *popup = nullptr;
}

static void __toast_back_cb(void *data, Evas_Object *obj, void *event_info) {
  evas_object_del(obj);
}

static void __block_clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  evas_object_del(obj);
}

static void __timeout_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  evas_object_del(obj);
}

void brisel_create_toast_popup(appdata *ad, const char *text) {
  BRISEL_INFO("Enter");
  if (!ad) {
    BRISEL_ERROR("ad is NULL!");
    return;
  }
  Evas_Object *popup = elm_popup_add(_popup_parent(ad));
  elm_object_style_set(popup, "toast");
  elm_popup_orient_set(popup, ELM_POPUP_ORIENT_BOTTOM);
  evas_object_size_hint_weight_set(popup, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  ea_object_event_callback_add(popup, EA_CALLBACK_BACK, __toast_back_cb, nullptr);
  elm_object_part_text_set(popup, "elm.text", text);
  evas_object_smart_callback_add(popup, "block,clicked", __block_clicked_cb, nullptr);
  elm_popup_timeout_set(popup, 2.0);
  evas_object_smart_callback_add(popup, "timeout", __timeout_cb, nullptr);
  evas_object_show(popup);
}

Evas_Object *brisel_create_progress_popup(appdata *ad, const char *style) {
  BRISEL_INFO("Enter");
  if (!ad) {
    BRISEL_ERROR("ad is NULL!");
    return nullptr;
  }
  Evas_Object *bar = elm_progressbar_add(ad->win_main);
  elm_object_style_set(bar, style);
  evas_object_size_hint_align_set(bar, EVAS_HINT_FILL, EVAS_HINT_FILL);
  evas_object_size_hint_weight_set(bar, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  elm_progressbar_pulse_set(bar, EINA_TRUE); /* without it the next call does nothing */
  elm_progressbar_pulse(bar, EINA_TRUE);
  evas_object_show(bar);
  return bar;
}

/* --- dates and numbers ------------------------------------------------------------------------------------------ */

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

/* --- contacts ----------------------------------------------------------------------------------------------------- */

using scoped_query = std::unique_ptr<contacts_query_s, brisel_release<contacts_query_destroy>>;
using scoped_filter = std::unique_ptr<contacts_filter_s, brisel_release<contacts_filter_destroy>>;

static void _destroy_list_and_records(contacts_list_h list) {
  contacts_list_destroy(list, true);
}
using scoped_contacts_list = std::unique_ptr<contacts_list_s, brisel_release<_destroy_list_and_records>>;

/* Runs the query of a view through a filter that the caller has filled (add_result: how that went). NULL: nothing. */
static scoped_contacts_list _run_contacts_query(const char *view_uri, contacts_filter_h filter, int add_result) {
  contacts_query_h query_handle = nullptr;
  contacts_query_create(view_uri, &query_handle);
  scoped_query query(query_handle);
  if (add_result != CONTACTS_ERROR_NONE) BRISEL_INFO("contacts_filter_add_str() is failed error_code = %d", add_result);
  int result = contacts_query_set_filter(query.get(), filter);
  if (result != CONTACTS_ERROR_NONE) BRISEL_INFO("contacts_query_set_filter() is failed error_code = %d", result);
  contacts_list_h list = nullptr;
  result = contacts_db_get_records_with_query(query.get(), 0, 0, &list);
  if (result != CONTACTS_ERROR_NONE)
    BRISEL_INFO("contacts_db_get_records_with_query() is failed error_code = %d", result);
  return scoped_contacts_list(list);
}

/* Calls fn for each record of the list, in order. */
template <typename F>
static void _for_each_contact(contacts_list_h list, F fn) {
  if (!list) return;
  do {
    contacts_record_h record = nullptr;
    int result = contacts_list_get_current_record_p(list, &record);
    if (result != CONTACTS_ERROR_NONE && result != CONTACTS_ERROR_NO_DATA)
      BRISEL_INFO("contacts_list_get_current_record_p() is fail : %d", result);
    if (record) fn(record);
  } while (contacts_list_next(list) == CONTACTS_ERROR_NONE);
}

int brisel_util_get_person_id_by_email_address(const char *address) {
  BRISEL_INFO("Enter");
  int person_id = -1;
  /* A mail without a sender address has no contact, like one with an empty address. */
  if (!address || !*address) return person_id;

  contacts_filter_h filter_handle = nullptr;
  contacts_filter_create(_contacts_person_email._uri, &filter_handle);
  scoped_filter filter(filter_handle);
  int added = contacts_filter_add_str(filter.get(), _contacts_person_email.email, CONTACTS_MATCH_FULLSTRING, address);
  scoped_contacts_list list = _run_contacts_query(_contacts_person_email._uri, filter.get(), added);
  filter.reset();
  _for_each_contact(list.get(), [&](contacts_record_h record) {
    contacts_record_get_int(record, _contacts_person_email.person_id, &person_id);
    BRISEL_INFO("person_id:%d", person_id);
  });
  BRISEL_INFO("Leave");
  return person_id;
}

GSList *brisel_util_get_phone_number_by_person_id(int person_id) {
  BRISEL_INFO("Enter");
  if (person_id == -1) return nullptr;

  contacts_filter_h filter_handle = nullptr;
  contacts_filter_create(_contacts_person_number._uri, &filter_handle);
  scoped_filter filter(filter_handle);
  int added = contacts_filter_add_int(filter.get(), _contacts_person_number.person_id, CONTACTS_MATCH_EQUAL, person_id);
  BRISEL_INFO("person_id :%d", person_id);
  scoped_contacts_list list = _run_contacts_query(_contacts_person_number._uri, filter.get(), added);
  filter.reset();
  GSList *numbers = nullptr;
  _for_each_contact(list.get(), [&](contacts_record_h record) {
    contact_number *number = (contact_number *)calloc(1, sizeof(contact_number));
    if (!number) return;
    char *text = nullptr;
    contacts_record_get_str_p(record, _contacts_person_number.number, &text);
    if (text) number->number = strdup(text);
    int type = 0;
    contacts_record_get_int(record, _contacts_person_number.type, &type);
    if (type) number->type = type;
    numbers = g_slist_prepend(numbers, number);
  });
  return g_slist_reverse(numbers);
}

void brisel_util_contact_number_free(void *contact) {
  contact_number *number = (contact_number *)contact;
  if (!number) return;
  free(number->number);
  free(number);
}

/* --- the phone and its applications --------------------------------------------------------------------------------
 */

using scoped_service = std::unique_ptr<service_s, brisel_release<service_destroy>>;

int brisel_util_launch_voice_call(const char *number) {
  service_h handle = nullptr;
  if (service_create(&handle) != SERVICE_ERROR_NONE) {
    BRISEL_ERROR("service_create() failed!");
    return 0;
  }
  scoped_service service(handle);
  if (service_set_app_id(handle, "com.vextora.call") != SERVICE_ERROR_NONE) {
    BRISEL_ERROR("service_set_app_id() failed!");
    return 0;
  }
  if (service_add_extra_data(handle, "launch-type", "MO") != SERVICE_ERROR_NONE ||
      service_add_extra_data(handle, "number", number) != SERVICE_ERROR_NONE) {
    BRISEL_ERROR("service_add_extra_data() failed!");
    return 0;
  }
  if (service_send_launch_request(handle, nullptr, nullptr) != SERVICE_ERROR_NONE) {
    BRISEL_ERROR("service_send_launch_request() failed!");
    return 0;
  }
  return 1;
}

int brisel_util_show_on_device(int *mail_ids, int count) {
  for (int i = 0; i < count; i++) BRISEL_INFO("[%d] ==> [%d]", i, mail_ids[i]);
  BRISEL_INFO("==> count:[%d]", count);
  launch_host_predefined_application("email", mail_ids, count);
  return 1;
}

int brisel_util_bluetooth_connection_popup(appdata *ad, service_reply_cb reply_cb, const char *msg) {
  BRISEL_INFO("Enter");
  if (ad->bt_connected) return ad->bt_connected;

  BRISEL_INFO("Show BT connection popup.");
  service_h handle = nullptr;
  service_create(&handle);
  scoped_service service(handle);
  service_set_app_id(handle, "com.vextora.bt-connection-popup");
  if (msg) service_add_extra_data(handle, "msg", msg);
  int result = service_send_launch_request(handle, reply_cb, ad);
  if (result != SERVICE_ERROR_NONE) BRISEL_INFO("service_send_launch_request failed, ret = %d", result);
  return ad->bt_connected;
}

int brisel_util_link_is_up_in_reply(service_h reply) {
  char *answer = nullptr;
  service_get_extra_data(reply, "__BT_CONNECTION__", &answer);
  scoped_text held(answer);
  return !answer || strcmp(answer, "Not Connected") != 0;
}

void brisel_util_bt_connect_error_popup_result_cb(service_h request, service_h reply, int result, void *data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)data;
  if (!ad) {
    BRISEL_INFO("user_data is NULL!");
    return;
  }
  if (brisel_util_link_is_up_in_reply(reply))
    BRISEL_INFO("BT Connected. mail_id : %d", ad->mail_id);
  else
    BRISEL_INFO("BT Not Connected");
  elm_win_activate(ad->win_main);
}

int brisel_util_get_reply_method(void) {
  int value = 0;
  if (vconf_get_int(BRISEL_KEY_REPLY_VALUE, &value) < 0)
    BRISEL_WARN("vconf_get_int(BRISEL_VCONFKEY_INT_REPLY_VALUE) failed!");
  BRISEL_INFO("BRISEL_VCONFKEY_INT_REPLY_VALUE [%d]", value);
  int method = value == 3 ? 1 : 0;
  BRISEL_INFO("method [%d]", method);
  return method;
}

void brisel_util_set_reply_method(int method) {
  BRISEL_INFO("method [%d]", method);
  int value = method == 1 ? 3 : method == 2 ? 1 : 0;
  BRISEL_INFO("set_val [%d]", value);
  if (vconf_set_int(BRISEL_KEY_REPLY_VALUE, value) < 0)
    BRISEL_WARN("vconf_set_int(BRISEL_VCONFKEY_INT_REPLY_VALUE) failed!");
}

int brisel_clear_all_new_flag(void) {
  scoped_op op(brisel_op_data_create());
  if (!op) {
    BRISEL_WARN("brisel_op_data_create() failed!");
    return -1;
  }
  op->id_list = g_slist_append(op->id_list, GINT_TO_POINTER(0));
  int result = brisel_ipc_req_cancel(BRISEL_IPC_CLIENT_REQ_TYPE_CLEAR_ALL_NEW_FLAG);
  if (result != 0) {
    BRISEL_ERROR("brisel_ipc_req_cancel() failed! ret:[%d]", result);
    return result;
  }
  result = brisel_ipc_req_clear_all_new_flag(op.get(), nullptr, nullptr);
  if (result != 0) BRISEL_INFO("brisel_ipc_req_clear_all_new_flag() is failed : %d", result);
  return result;
}

int brisel_util_request_delete(const int *mail_ids, int count) {
  scoped_op op(brisel_op_data_create());
  if (!op) {
    BRISEL_ERROR("brisel_op_data_create() failed!");
    return BRISEL_COMMON_ERROR_MEMORY;
  }
  for (int i = count - 1; i >= 0; i--) op->id_list = g_slist_prepend(op->id_list, GINT_TO_POINTER(mail_ids[i]));
  int result = brisel_ipc_req_cancel(BRISEL_IPC_CLIENT_REQ_TYPE_DELETE_NOTIS);
  if (result != 0) {
    BRISEL_ERROR("brisel_ipc_req_cancel() failed! ret:[%d]", result);
    return result;
  }
  result = brisel_ipc_req_delete_notis(op.get(), nullptr, nullptr);
  if (result != 0) BRISEL_WARN("brisel_ipc_req_delete_notis() failed! err:[%d]", result);
  return result;
}

/* --- text and theme ------------------------------------------------------------------------------------------------
 */

/* The length of the well-formed UTF-8 sequence at s, or 0. */
static size_t _utf8_sequence(const char *s) {
  const unsigned char *u = (const unsigned char *)s;
  if (u[0] < 0x80) return u[0] ? 1 : 0;
  size_t length = u[0] >= 0xF0 ? 4 : u[0] >= 0xE0 ? 3 : 2;
  if (u[0] < 0xC2 || u[0] > 0xF4) return 0;
  for (size_t i = 1; i < length; i++)
    if ((u[i] & 0xC0) != 0x80) return 0;
  bool overlong = (u[0] == 0xE0 && u[1] < 0xA0) || (u[0] == 0xF0 && u[1] < 0x90);
  bool no_character = (u[0] == 0xED && u[1] > 0x9F) || (u[0] == 0xF4 && u[1] > 0x8F);
  return overlong || no_character ? 0 : length;
}

/* What to write for the sequence of that length at s. one_line: line breaks become blanks, as rows and titles are one
   line high. */
static const char *_markup_of(const char *s, size_t length, bool one_line) {
  static const char replacement[] = "\xEF\xBF\xBD";
  if (length == 0) return replacement;
  if (length == 1) switch (*s) {
      case '&':
        return "&amp;";
      case '<':
        return "&lt;";
      case '>':
        return "&gt;";
      case '\n':
        return one_line ? " " : "<br/>";
      case '\t':
        return one_line ? " " : "<tab/>";
      case '\r':
        return s[1] == '\n' ? "" : one_line ? " " : "<br/>";
      default:
        return (unsigned char)*s < 0x20 || *s == 0x7F ? replacement : nullptr;
    }
  /* The two line separators, and the mark that the text engine keeps for embedded objects. */
  if (!memcmp(s, "\xE2\x80\xA8", 3) || !memcmp(s, "\xE2\x80\xA9", 3)) return one_line ? " " : "<br/>";
  if (!memcmp(s, "\xEF\xBF\xBC", 3)) return replacement;
  /* Control characters of the second set, and the two overrides that make text read other than it is written. */
  if (length == 2 && s[0] == '\xC2' && (unsigned char)s[1] < 0xA0) return replacement;
  if (!memcmp(s, "\xE2\x80\xAD", 3) || !memcmp(s, "\xE2\x80\xAE", 3)) return replacement;
  return nullptr;
}

static char *_text_to_markup(const char *text, size_t max, bool one_line) {
  if (!text) return nullptr;
  size_t length = strlen(text);
  /* At most six bytes come of one ("<tab/>"). */
  if (max > length * 6) max = length * 6;
  char *markup = (char *)malloc(max + 1);
  if (!markup) return nullptr;
  size_t used = 0;
  while (*text) {
    size_t sequence = _utf8_sequence(text);
    const char *shown = _markup_of(text, sequence, one_line);
    size_t bytes = shown ? strlen(shown) : sequence;
    if (used + bytes > max) break;
    memcpy(markup + used, shown ? shown : text, bytes);
    used += bytes;
    text += sequence ? sequence : 1;
  }
  markup[used] = 0;
  return markup;
}

char *brisel_util_text_to_markup(const char *text) {
  return _text_to_markup(text, BRISEL_SHOWN_TEXT_MAX, true);
}

char *brisel_util_text_to_markup_whole(const char *text) {
  return _text_to_markup(text, SIZE_MAX, false);
}

void brisel_util_cut_utf8(char *text, size_t max) {
  if (!text || strnlen(text, max + 1) <= max) return;
  while (max > 0 && (text[max] & 0xC0) == 0x80) max--;
  text[max] = 0;
}

char *brisel_replace_str(const char *src, const char *find, const char *replace) {
  if (!src) return nullptr;
  const char *match = find && *find ? strstr(src, find) : nullptr;
  if (!match) return strdup(src);
  if (!replace) replace = "";
  size_t before = (size_t)(match - src);
  const char *after = match + strlen(find);
  size_t size = before + strlen(replace) + strlen(after) + 1;
  char *result = (char *)malloc(size);
  if (result) snprintf(result, size, "%.*s%s%s", (int)before, src, replace, after);
  return result;
}

Evas_Object *brisel_util_load_edj(Evas_Object *parent, const char *file, const char *group) {
  if (!parent) {
    BRISEL_ERROR("Invalid parameter: parent[NULL]");
    return nullptr;
  }
  Evas_Object *layout = elm_layout_add(parent);
  if (!layout) return nullptr;
  if (!elm_layout_file_set(layout, platform_path(file), group)) {
    evas_object_del(layout);
    return nullptr;
  }
  evas_object_size_hint_weight_set(layout, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  return layout;
}

Evas_Object *brisel_util_load_image(Evas_Object *parent, const char *name) {
  Evas_Object *image = elm_image_add(parent);
  if (!image) return nullptr;
  elm_image_file_set(image, platform_path(BRISEL_IMAGES_EDJ), name);
  evas_object_show(image);
  return image;
}

const char *brisel_util_get_text(const char *id) {
  return dcgettext(BRISEL_DOMAIN, id, LC_MESSAGES);
}

char *brisel_util_get_count_text(const char *plural_id, int number, appdata *ad) {
  scoped_text digits(brisel_util_get_localized_number_str(number, ad));
  unsigned long amount = number < 0 ? 0UL - (unsigned long)number : (unsigned long)number;
  return brisel_replace_str(dcngettext(BRISEL_DOMAIN, plural_id, plural_id, amount, LC_MESSAGES), "%d", digits.get());
}
