#include <Ecore_File.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "app-priv.h"
#include "brisel-settings.h"
#include "dlog.h"
#include "platform-paths.h"
#include "vconf.h"

namespace {

constexpr char theme_file[] = "/usr/apps/com.vextora.brisel/res/edje/platform.edj";
constexpr char frame_file[] = "/usr/apps/com.vextora.brisel/res/edje/frame.edj";
constexpr char stock_theme[] = "/elementary/themes/default.edj";
constexpr char file_types[] = "/mime/magic";
/* Pixels: how far a resting finger strays, and what it covers at the least. */
constexpr unsigned int finger_tremble = 8;
constexpr int finger_size = 24;
constexpr char style_class[] = "brisel/style";

std::vector<std::string> palette_classes;
bool light;

/* Dark is what the theme is compiled with. The light colours are its data items "palette/light/CLASS", "r g b a". */
void light_palette(void) {
  Eina_File *file = eina_file_open(platform_path(theme_file), EINA_FALSE);
  Eina_Iterator *classes = file ? edje_mmap_color_class_iterator_new(file) : nullptr;
  Edje_Color_Class *one;
  EINA_ITERATOR_FOREACH(classes, one) {
    char *text = edje_mmap_data_get(file, (std::string("palette/light/") + one->name).c_str());
    int r;
    int g;
    int b;
    int a;
    if (text && sscanf(text, "%d %d %d %d", &r, &g, &b, &a) == 4) {
      edje_color_class_set(one->name, r, g, b, a, 0, 0, 0, 0, 0, 0, 0, 0);
      palette_classes.emplace_back(one->name);
    }
    free(text);
  }
  eina_iterator_free(classes);
  if (file) eina_file_close(file);
  if (palette_classes.empty()) __dlog_print(DLOG_WARN, app_log_tag, "the theme has no light palette");
}

void apply_palette(void) {
  char *name = vconf_get_str(BRISEL_KEY_THEME);
  const bool want_light = name && strcmp(name, "light") == 0;
  free(name);
  if (want_light == light) return;
  light = want_light;
  if (light) {
    light_palette();
  } else {
    for (const std::string &one : palette_classes) edje_color_class_del(one.c_str());
    palette_classes.clear();
  }
  /* The colours in text styles are worked out when a file is read, and again only when a text class of the style
     changes; every style of the theme has this one, which is set to nothing lasting. */
  edje_text_class_set(style_class, "Sans", -100);
  edje_text_class_del(style_class);
}

void apply_motion(void) {
  int on = 1;
  vconf_get_bool(BRISEL_KEY_MOTION, &on);
  /* Not zero: a transition must still end, and tell so. */
  edje_transition_duration_factor_set(on ? 1.0 : 0.001);
  elm_config_scroll_animation_disabled_set(on ? EINA_FALSE : EINA_TRUE);
}

void theme_changed_cb(keynode_t *node, void *data) {
  apply_palette();
}
void motion_changed_cb(keynode_t *node, void *data) {
  apply_motion();
}

}  // namespace

static void add_overlay(const char *installed) {
  const char *file = platform_path(installed);
  if (ecore_file_exists(file))
    elm_theme_overlay_add(nullptr, file);
  else
    __dlog_print(DLOG_ERROR, app_log_tag, "the platform's theme is missing: %s", file);
}

/* --- what the toolkit reads at its start --- */

/* The toolkit reads the whole directory of its stock theme when it starts, for one number in it: a seventh of a cold
   start, and a megabyte that stays. The platform's theme has every style that is used here, and its window frame
   draws nothing: the small file takes its place. It also reads by which bytes the desktop knows a file's type, three
   thousand pieces of memory: here nobody asks what a file is. */
extern "C" Eina_File *eina_file_open(const char *path, Eina_Bool shared) {
  using opener = Eina_File *(*)(const char *, Eina_Bool);
  static const opener real = reinterpret_cast<opener>(dlsym(RTLD_NEXT, "eina_file_open"));
  if (!real) return nullptr;
  if (path && eina_str_has_suffix(path, file_types)) return nullptr;
  if (path && eina_str_has_suffix(path, stock_theme)) {
    Eina_File *frame = real(platform_path(frame_file), EINA_FALSE);
    if (frame) return frame;
  }
  return real(path, shared);
}

void app_look_start(void) {
  /* Emptying the caches by the clock would wake an idle watch every minute; they are bounded anyway. Setting this
     empties them once, so it comes before anything is read that will be needed. */
  elm_config_cache_flush_enabled_set(EINA_FALSE);
  add_overlay(frame_file);
  add_overlay(theme_file);
  light = false;
  apply_palette();
  apply_motion();
  vconf_notify_key_changed(BRISEL_KEY_THEME, theme_changed_cb, nullptr);
  vconf_notify_key_changed(BRISEL_KEY_MOTION, motion_changed_cb, nullptr);
  /* Touch first: a finger scrolls and taps, nothing hovers, and no keyboard focus is drawn. */
  elm_config_scroll_thumbscroll_enabled_set(EINA_TRUE);
  elm_config_scroll_thumbscroll_threshold_set(finger_tremble);
  /* What a finger drags stays under the finger, from where it came down. An average over the last moments would lag
     behind it, and the toolkit's takes the corner of the window for a place where the finger was when all its moves are
     later than the loop's own time: those of a turn that stalls, or of a display server whose clock is ahead. */
  elm_config_scroll_thumbscroll_smooth_start_set(EINA_FALSE);
  elm_config_scroll_thumbscroll_smooth_amount_set(0.0);
  /* What it throws goes on at the finger's own speed. At the toolkit's quarter of it, no finger is fast enough on so
     small a screen to make a list coast at all. */
  elm_config_scroll_thumbscroll_sensitivity_friction_set(1.0);
  elm_config_finger_size_set(finger_size);
  elm_config_focus_highlight_enabled_set(EINA_FALSE);
  elm_config_window_auto_focus_enable_set(EINA_FALSE); /* the application says when it is shown */
  elm_config_item_select_on_focus_disabled_set(EINA_TRUE);
}

void app_look_stop(void) {
  vconf_ignore_key_changed(BRISEL_KEY_THEME, theme_changed_cb);
  vconf_ignore_key_changed(BRISEL_KEY_MOTION, motion_changed_cb);
}
