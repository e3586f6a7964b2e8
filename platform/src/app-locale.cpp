#define EFL_BETA_API_SUPPORT /* for the class of objects that have members */
#include <Eo.h>
#include <dlfcn.h>
#include <sys/timerfd.h>
#include <unicode/uloc.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "app-priv.h"
#include "brisel-settings.h"
#include "dlog.h"
#include "file-watch.h"
#include "platform-language.h"
#include "platform-paths.h"
#include "platform-zone.h"
#include "vconf.h"

namespace {

constexpr char localtime_link[] = "/opt/etc/localtime";
constexpr char time_key[] = "memory/system/timechanged";
/* Always there with this C library, and translated, which "C" never is. */
constexpr char neutral_locale[] = "C.UTF-8";

app_locale_callbacks callbacks;

/* The toolkit's genlist drops its rows and its place when the direction changes, and lays them out again only once its
   size does. */
struct list_place {
  Evas_Object *list;
  Evas_Coord x, y, w, h; /* what of its content it shows */
};

void find_lists(Evas_Object *object, std::vector<list_place> *found) {
  const char *type = evas_object_type_get(object);
  if (type && strcmp(type, "elm_genlist") == 0) {
    list_place place = {object};
    elm_scroller_region_get(object, &place.x, &place.y, &place.w, &place.h);
    return found->push_back(place);
  }
  if (!efl_isa(object, EFL_CANVAS_GROUP_CLASS)) return;
  Eina_List *members = evas_object_smart_members_get(object);
  void *member;
  EINA_LIST_FREE(members, member) find_lists(static_cast<Evas_Object *>(member), found);
}

void lay_out(const list_place &place) {
  int w, h;
  evas_object_geometry_get(place.list, nullptr, nullptr, &w, &h);
  evas_object_resize(place.list, w + 1, h);
  evas_object_smart_calculate(place.list);
  evas_object_resize(place.list, w, h);
  elm_scroller_region_show(place.list, place.x, place.y, place.w, place.h);
}

void apply_direction(void) {
  const std::string languages = platform_languages();
  const Eina_Bool mirrored =
      uloc_isRightToLeft(languages.substr(0, languages.find(':')).c_str()) ? EINA_TRUE : EINA_FALSE;
  if (elm_config_mirrored_get() == mirrored) return;
  std::vector<list_place> places;
  Evas_Object *top = app_window() ? evas_object_bottom_get(evas_object_evas_get(app_window())) : nullptr;
  for (; top; top = evas_object_above_get(top)) find_lists(top, &places);
  elm_config_mirrored_set(mirrored);
  for (const list_place &place : places) lay_out(place);
}

/* --- time zone, and what the clock does by itself --- */

/* By its name where it has one: the C library and ICU then agree. */
void apply_time_zone(void) {
  platform_zone zone;
  if (platform_zone_read(&zone) != 0) return;
  if (zone.name.empty()) {
    /* A file of its own may have other rules now: the C library reads it again only when the variable changes. */
    setenv("TZ", "UTC", 1);
    tzset();
  }
  setenv("TZ", zone.tz.c_str(), 1);
  tzset();
}

int day_timer = -1; /* fires at the next midnight, and when somebody sets the clock */
Ecore_Fd_Handler *day_handler;
file_watch *zone_watch;
std::string zone_file; /* its name in the folder that is watched */

/* Today is another day, or the zone or the clock another: everybody hears of it as of any change of the time. */
void tell_time_changed(void) {
  vconf_set_int(time_key, static_cast<int>(time(nullptr)));
}

void wait_for_midnight(void) {
  const time_t now = time(nullptr);
  struct tm day = {};
  localtime_r(&now, &day);
  day.tm_mday++;
  day.tm_hour = day.tm_min = day.tm_sec = 0;
  day.tm_isdst = -1;
  const time_t midnight = mktime(&day);
  itimerspec next = {};
  next.it_value.tv_sec = midnight > now ? midnight : now + 24 * 60 * 60;
  timerfd_settime(day_timer, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &next, nullptr);
}

Eina_Bool day_timer_cb(void *data, Ecore_Fd_Handler *handler) {
  uint64_t count;
  if (read(day_timer, &count, sizeof count) < 0 && errno == EAGAIN) return ECORE_CALLBACK_RENEW;
  wait_for_midnight();
  tell_time_changed();
  return ECORE_CALLBACK_RENEW;
}

void zone_folder_changed_cb(const char *name, void *data) {
  if (name && zone_file != name) return;
  platform_zone zone;
  const char *now = getenv("TZ");
  /* A file of its own may have other rules than before under the same name. */
  if (platform_zone_read(&zone) == 0 && (!now || zone.tz != now || zone.name.empty())) tell_time_changed();
}

void start_clock(void) {
  const std::string path = platform_path(localtime_link);
  const size_t slash = path.rfind('/');
  zone_file = path.substr(slash + 1);
  zone_watch = file_watch_add(path.substr(0, slash + 1).c_str(), zone_folder_changed_cb, nullptr);
  day_timer = timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK);
  if (day_timer < 0) return;
  wait_for_midnight();
  day_handler = ecore_main_fd_handler_add(day_timer, ECORE_FD_READ, day_timer_cb, nullptr, nullptr, nullptr);
}

void stop_clock(void) {
  file_watch_del(zone_watch);
  zone_watch = nullptr;
  if (day_handler) ecore_main_fd_handler_del(day_handler);
  day_handler = nullptr;
  if (day_timer >= 0) close(day_timer);
  day_timer = -1;
}

/* --- settings --- */

std::string language, region;

/* Whether a setting says something else than before: what is set to what it is redraws nothing. */
bool is_new(const char *key, std::string *known) {
  const std::unique_ptr<char, decltype(&free)> value(vconf_get_str(key), free);
  const std::string now = value ? value.get() : "";
  if (now == *known) return false;
  *known = now;
  return true;
}

void language_changed_cb(keynode_t *node, void *data) {
  /* One that is taken away says nothing: all that is on screen keeps its language. */
  const std::unique_ptr<char, decltype(&free)> value(vconf_get_str(BRISEL_KEY_LANGUAGE), free);
  if (!value || !is_new(BRISEL_KEY_LANGUAGE, &language)) return;
  platform_language_apply();
  apply_direction();
  if (callbacks.language_changed) callbacks.language_changed();
}

void region_changed_cb(keynode_t *node, void *data) {
  if (is_new(BRISEL_KEY_REGION, &region) && callbacks.region_changed) callbacks.region_changed();
}

void time_changed_cb(keynode_t *node, void *data) {
  apply_time_zone();
  if (day_timer >= 0) wait_for_midnight();
}

}  // namespace

/* The toolkit's own function would switch translation off for the neutral locales and let numbers follow the language.
 */
extern "C" void elm_language_set(const char *lang) {
  using function = void (*)(const char *);
  static const auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "elm_language_set"));
  /* It translates while it sets the locale, so the categories are right before and after. */
  platform_language_settle();
  if (real) real(platform_language_is_neutral(lang) ? neutral_locale : lang);
  platform_language_settle();
}

void app_locale_init(void) {
  platform_language_start();
  apply_time_zone();
}

void app_locale_start(const app_locale_callbacks *told) {
  callbacks = *told;
  is_new(BRISEL_KEY_LANGUAGE, &language);
  is_new(BRISEL_KEY_REGION, &region);
  platform_language_apply();
  apply_direction();
  vconf_notify_key_changed(BRISEL_KEY_LANGUAGE, language_changed_cb, nullptr);
  vconf_notify_key_changed(BRISEL_KEY_REGION, region_changed_cb, nullptr);
  /* Before any watcher of the application, so that it already finds the new zone. */
  vconf_notify_key_changed(time_key, time_changed_cb, nullptr);
  start_clock();
}

void app_locale_stop(void) {
  stop_clock();
  vconf_ignore_key_changed(BRISEL_KEY_LANGUAGE, language_changed_cb);
  vconf_ignore_key_changed(BRISEL_KEY_REGION, region_changed_cb);
  vconf_ignore_key_changed(time_key, time_changed_cb);
  callbacks = {};
}
