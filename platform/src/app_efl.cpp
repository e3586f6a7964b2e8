#define EFL_BETA_API_SUPPORT /* for what has the focus */
#include "app_efl.h"

#include <Ecore_Evas.h>
#include <Ecore_Input.h>
#include <Efl_Ui.h>
#include <Efreet.h>
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app-priv.h"
#include "bus-loop.h"
#include "dlog.h"
#include "file-watch.h"
#include "keypad-internal.h"
#include "platform-paths.h"
#ifdef BRISEL_HAVE_ECORE_X
#include <Ecore_X.h>
#endif

namespace {

constexpr char icon_file[] = "/usr/apps/com.vextora.brisel/res/icon.png";
constexpr int default_width = 320;
constexpr int default_height = 320;
constexpr int smallest_side = 100;
constexpr int largest_side = 4096;
/* Pieces of memory that the toolkit has let go and frees late, against mistakes of its own. Its own bound lets it hold
   half a megabyte for good. */
constexpr int freed_late = 64;
/* In the second picture after its deletion the canvas frees an object. */
constexpr int pictures_to_free = 2;

/* What keeps the window out of sight. */
struct sight {
  bool hidden;
  bool iconified;
  bool withdrawn;
  bool lowered;
  bool covered;
};

struct application {
  std::string id = "com.vextora.brisel";
  app_event_callback_s callbacks = {};
  void *user_data = nullptr;
  bool ready = false;             /* between a successful create and terminate */
  bool ahead = false;             /* started before anybody launched it: the window is not shown yet */
  bool exiting = false;           /* the main loop is about to end */
  bool outlives_terminal = false; /* who started it has SIGHUP ignored; the toolkit would catch it all the same */
  Evas_Object *window = nullptr;
  bool seen = false; /* the window has been shown once: before that, nothing is paused */
  sight out = {};
  bool paused = false;
  Ecore_Job *sight_job = nullptr;
  int pictures_to_trim = 0; /* pictures until what was deleted has gone and memory is given back */
  Ecore_Job *trim_job = nullptr;
  Ecore_Event_Handler *handlers[4] = {};
  Ecore_Idler *ahead_idler = nullptr;
  std::string program_name; /* of the file that runs, while ahead */
  file_watch *program_watch = nullptr;
  Ecore_Idler *icon_idler = nullptr; /* the window has no icon yet */
  bool has_icon = false;             /* or soon will have one */
};

application app;

/* --- pause and resume --- */

bool in_sight(void) {
  if (!app.window || !app.seen) return true;
  return !app.out.hidden && !app.out.iconified && !app.out.withdrawn && !app.out.lowered && !app.out.covered;
}

void sight_apply(void) {
  if (app.sight_job) ecore_job_del(app.sight_job);
  app.sight_job = nullptr;
  if (!app.ready || app.exiting) return;
  const bool pause = !in_sight();
  if (pause == app.paused) return;
  app.paused = pause;
  __dlog_print(DLOG_DEBUG, app_log_tag, pause ? "pause" : "resume");
  int (*callback)(void *) = pause ? app.callbacks.pause : app.callbacks.resume;
  if (callback) callback(app.user_data);
  if (pause) app_efl_memory_trim();
}

void sight_job_cb(void *data) {
  app.sight_job = nullptr;
  sight_apply();
}

/* From the main loop, not from inside the caller's own lower or activate: what it does next may undo it. */
void sight_changed(void) {
  if (!app.sight_job) app.sight_job = ecore_job_add(sight_job_cb, nullptr);
}

void window_to_front(void) {
  app.out.lowered = false;
  app.out.covered = false;
  sight_changed();
}

void stop_watching_program(void) {
  file_watch_del(app.program_watch);
  app.program_watch = nullptr;
}

void window_show_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  app.seen = true;
  app.ahead = false;
  stop_watching_program();
  app.out.hidden = false;
  app.out.withdrawn = false;
  window_to_front();
}

void window_hide_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  app.out.hidden = true;
  sight_changed();
}

void window_focused_cb(void *data, Evas_Object *obj, void *event_info) {
  if (app.out.lowered) window_to_front();
}

void window_touched_cb(void *data, Evas *e, void *event_info) {
  if (app.out.lowered) window_to_front();
}

/* What was lowered may be in sight all the same, when nothing lies over it: whoever touches it has it in front. */
Eina_Bool window_input_cb(void *data, int type, void *event_info) {
  const auto window = type == ECORE_EVENT_KEY_DOWN ? static_cast<Ecore_Event_Key *>(event_info)->window
                                                   : static_cast<Ecore_Event_Mouse_Button *>(event_info)->window;
  if (app.window && app.out.lowered && window == elm_win_window_id_get(app.window)) window_to_front();
  return ECORE_CALLBACK_PASS_ON;
}

void window_iconified_cb(void *data, Evas_Object *obj, void *event_info) {
  app.out.iconified = true;
  sight_changed();
}

void window_withdrawn_cb(void *data, Evas_Object *obj, void *event_info) {
  app.out.withdrawn = true;
  sight_changed();
}

void window_normal_cb(void *data, Evas_Object *obj, void *event_info) {
  app.out.iconified = false;
  app.out.withdrawn = false;
  sight_changed();
}

#ifdef BRISEL_HAVE_ECORE_X
Eina_Bool visibility_cb(void *data, int type, void *event_info) {
  const auto *event = static_cast<Ecore_X_Event_Window_Visibility_Change *>(event_info);
  if (app.window && event->win == elm_win_xwindow_get(app.window)) {
    app.out.covered = event->fully_obscured;
    if (!event->fully_obscured) app.out.lowered = false;
    sight_changed();
  }
  return ECORE_CALLBACK_PASS_ON;
}
#endif

#ifdef BRISEL_HAVE_ECORE_X
/* Whoever places and stacks the windows of a display has asked its root for that. */
bool display_is_managed(void) {
  Ecore_X_Window_Attributes root = {};
  return !ecore_x_window_attributes_get(ecore_x_window_root_first_get(), &root) ||
         (root.event_mask.all & ECORE_X_EVENT_MASK_WINDOW_MANAGE);
}

/* Once the display has come to rest with the first picture, which need not wait for it. */
Eina_Bool icon_cb(void *data) {
  app.icon_idler = nullptr;
  Evas_Object *icon = evas_object_image_add(evas_object_evas_get(app.window));
  evas_object_image_file_set(icon, platform_path(icon_file), nullptr);
  if (evas_object_image_load_error_get(icon) == EVAS_LOAD_ERROR_NONE)
    elm_win_icon_object_set(app.window, icon);
  else
    __dlog_print(DLOG_WARN, app_log_tag, "the window has no icon: \"%s\" cannot be read", icon_file);
  evas_object_del(icon); /* the display has it */
  return ECORE_CALLBACK_CANCEL;
}

Eina_Bool x_shown_cb(void *data, int type, void *event_info) {
  const auto *event = static_cast<Ecore_X_Event_Window_Show *>(event_info);
  if (!app.window || event->win != elm_win_xwindow_get(app.window)) return ECORE_CALLBACK_PASS_ON;
  if (!display_is_managed()) ecore_x_window_focus(event->win);
  if (!app.has_icon) app.icon_idler = ecore_idler_add(icon_cb, nullptr);
  app.has_icon = true;
  return ECORE_CALLBACK_PASS_ON;
}

/* On a display without a window manager, as a watch may be, nobody says that the window has left its withdrawn state,
   until when the toolkit draws nothing, and nobody gives it the keyboard. */
void follow_x(Evas_Object *win) {
  if (!elm_win_xwindow_get(win)) return;
  app.handlers[0] = ecore_event_handler_add(ECORE_X_EVENT_WINDOW_VISIBILITY_CHANGE, visibility_cb, nullptr);
  app.handlers[1] = ecore_event_handler_add(ECORE_X_EVENT_WINDOW_SHOW, x_shown_cb, nullptr);
  if (!display_is_managed()) elm_config_agressive_withdrawn_set(EINA_FALSE);
}
#endif

void window_del_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  app.window = nullptr;
  if (app.icon_idler) ecore_idler_del(app.icon_idler);
  app.icon_idler = nullptr;
  for (Ecore_Event_Handler *&handler : app.handlers) {
    if (handler) ecore_event_handler_del(handler);
    handler = nullptr;
  }
  if (!app_ready()) return;
  /* Without one nobody could ever see it again, and the next start would be handed to it. */
  __dlog_print(DLOG_INFO, app_log_tag, "the window is gone: the application ends");
  app_efl_exit();
}

/* --- language and region --- */

void language_changed(void) {
  if (!app.ready) return;
  if (app.callbacks.language_changed)
    app.callbacks.language_changed(app.user_data);
  else
    elm_language_set(getenv("LANGUAGE"));
}

void region_changed(void) {
  if (app.ready && app.callbacks.region_format_changed) app.callbacks.region_format_changed(app.user_data);
}

Eina_Bool memory_cb(void *data, int type, void *event) {
  if (app.ready && ecore_memory_state_get() == ECORE_MEMORY_STATE_LOW && app.callbacks.low_memory)
    app.callbacks.low_memory(app.user_data);
  return ECORE_CALLBACK_PASS_ON;
}

Eina_Bool power_cb(void *data, int type, void *event) {
  if (app.ready && ecore_power_state_get() == ECORE_POWER_STATE_LOW && app.callbacks.low_battery)
    app.callbacks.low_battery(app.user_data);
  return ECORE_CALLBACK_PASS_ON;
}

/* The terminal or the session that it was started from goes. */
Eina_Bool hangup_cb(void *data, int type, void *event) {
  app_efl_exit();
  return ECORE_CALLBACK_PASS_ON;
}

void rotation_cb(void *data, Evas_Object *obj, void *event_info) {
  if (app.ready && app.callbacks.device_orientation)
    app.callbacks.device_orientation(elm_win_rotation_get(obj), app.user_data);
}

/* --- start --- */

/* *asks: whether the start itself asks for something: not with "--service", when the bus started us for a request that
   it brings itself, nor with "--prepare". Returns the first argument that is neither an option nor KEY=VALUE, or NULL.
 */
const char *read_arguments(int argc, char **argv, service_s *request, bool *asks) {
  *asks = true;
  for (int i = 1; i < argc; i++) {
    const bool prepares = strcmp(argv[i], "--prepare") == 0;
    if (prepares) app.ahead = true;
    if (prepares || strcmp(argv[i], "--service") == 0) {
      *asks = false;
      continue;
    }
    const char *equals = strchr(argv[i], '=');
    if (argv[i][0] == '-' || !equals || equals == argv[i] || !app_is_text(argv[i])) return argv[i];
    request->extra[std::string(const_cast<const char *>(argv[i]), equals)] = equals + 1;
  }
  return nullptr;
}

void window_size(int *w, int *h) {
  /* Without a size of its own the window shows the same at every scale. */
  *w = std::min(static_cast<int>(default_width * elm_config_scale_get()), largest_side);
  *h = std::min(static_cast<int>(default_height * elm_config_scale_get()), largest_side);
  const char *size = getenv("BRISEL_WINDOW_SIZE");
  if (!size || !*size) return;
  int width;
  int height;
  char rest;
  if (sscanf(size, "%dx%d%c", &width, &height, &rest) != 2 || width < smallest_side || width > largest_side ||
      height < smallest_side || height > largest_side) {
    __dlog_print(DLOG_WARN, app_log_tag, "BRISEL_WINDOW_SIZE is no size: %s", size);
    return;
  }
  *w = width;
  *h = height;
}

/* All but the drawing itself: a window that is not shown has nothing to draw into on every display. */
Eina_Bool ahead_idler_cb(void *data) {
  app.ahead_idler = nullptr;
  if (app.ahead && app.window) evas_norender(evas_object_evas_get(app.window));
  return ECORE_CALLBACK_CANCEL;
}

void program_changed_cb(const char *name, void *data) {
  if (!name || app.program_name == name) app_end_if_ahead("its program was replaced or taken away");
}

/* Nobody wants to be shown the old program after an upgrade: whoever prepared this one prepares the new one. */
void watch_program(void) {
  char path[PATH_MAX];
  const ssize_t size = readlink("/proc/self/exe", path, sizeof path - 1);
  if (size <= 0) return;
  path[size] = '\0';
  char *slash = strrchr(path, '/');
  app.program_name = slash + 1;
  *slash = '\0';
  app.program_watch = file_watch_add(path, program_changed_cb, nullptr);
}

/* Out of sight is paused, as it is behind another window. */
void prepare(void) {
  watch_program();
  app.seen = true;
  app.out.hidden = true;
  sight_apply();
  if (app.callbacks.prepare) app.callbacks.prepare(app.user_data);
  app.ahead_idler = ecore_idler_add(ahead_idler_cb, nullptr);
}

int run(const service_s *request, bool asks) {
  app_look_start();
  const app_locale_callbacks told = {language_changed, region_changed};
  app_locale_start(&told);
  Ecore_Event_Handler *memory = ecore_event_handler_add(ECORE_EVENT_MEMORY_STATE, memory_cb, nullptr);
  Ecore_Event_Handler *power = ecore_event_handler_add(ECORE_EVENT_POWER_STATE, power_cb, nullptr);
  Ecore_Event_Handler *hangup =
      app.outlives_terminal ? nullptr : ecore_event_handler_add(ECORE_EVENT_SIGNAL_HUP, hangup_cb, nullptr);

  const bool created = !app.callbacks.create || app.callbacks.create(app.user_data);
  if (created) {
    app.ready = true;
    if (app.ahead) prepare();
    if (asks) {
      service_s first = *request;
      app_deliver_launch(&first);
    }
    app_launch_flush_pending();
    if (!app.exiting) elm_run();
  } else {
    __dlog_print(DLOG_ERROR, app_log_tag, "the application could not be created");
  }
  app.exiting = true;
  /* A request that comes from now on belongs to the next instance. */
  app_bus_release_name();
  if (app.callbacks.terminate) app.callbacks.terminate(app.user_data);
  app.ready = false;
  for (Ecore_Job **job : {&app.sight_job, &app.trim_job}) {
    if (*job) ecore_job_del(*job);
    *job = nullptr;
  }
  if (app.ahead_idler) ecore_idler_del(app.ahead_idler);
  stop_watching_program();
  ecore_event_handler_del(memory);
  ecore_event_handler_del(power);
  if (hangup) ecore_event_handler_del(hangup);
  app_locale_stop();
  app_look_stop();
  return created ? 0 : 1;
}

}  // namespace

/* --- the toolkit's functions that the framework has to know of --- */

/* Not every engine tells when a window is lowered out of sight or brought back (a canvas in memory never does), so the
   calls themselves tell. They go on to the toolkit's own. */
namespace {
template <typename... Args>
void toolkit(void (**real)(Args...), const char *name, Args... args) {
  if (!*real) *real = reinterpret_cast<void (*)(Args...)>(dlsym(RTLD_NEXT, name));
  if (*real) (*real)(args...);
}
}  // namespace

extern "C" void elm_win_lower(Evas_Object *obj) {
  static void (*real)(Evas_Object *);
  toolkit(&real, "elm_win_lower", obj);
  if (!obj || obj != app.window) return;
  app.out.lowered = true;
  sight_changed();
}

extern "C" void elm_win_raise(Evas_Object *obj) {
  static void (*real)(Evas_Object *);
  toolkit(&real, "elm_win_raise", obj);
  if (obj && obj == app.window) window_to_front();
}

extern "C" void elm_win_activate(Evas_Object *obj) {
  static void (*real)(Evas_Object *);
  toolkit(&real, "elm_win_activate", obj);
  if (!obj || obj != app.window) return;
  app.out.iconified = false;
  app.out.withdrawn = false;
  window_to_front();
}

extern "C" void elm_win_iconified_set(Evas_Object *obj, Eina_Bool iconified) {
  static void (*real)(Evas_Object *, Eina_Bool);
  toolkit(&real, "elm_win_iconified_set", obj, iconified);
  if (!obj || obj != app.window) return;
  app.out.iconified = iconified;
  sight_changed();
}

extern "C" const Efl_Class *efl_canvas_group_class_get(void); /* the toolkit names it to its own alone */

/* Every object that is made of others (a button, a picture, a layout) has a record of the one that clips them. When it
   goes, the toolkit deletes its parts, takes it out of what it was a part of itself, and then forgets the record
   without freeing it: two kilobytes of each mail that is read. Without parts no object needs its record. Told of
   another, the toolkit frees what is its own and leaves alone what is somebody else's.

   What scrolls in a scroller is taken out while the scroller goes, and goes only then, as no part of anything: it gets
   a record of ours first, which we free with it. */
namespace {

constexpr char scrolled_type[] = "elm_pan";

void scrolled_freed_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  delete static_cast<Evas_Object_Smart_Clipped_Data *>(data);
}

void give_scrolled_its_record(Evas_Object *obj) {
  const char *type = evas_object_type_get(obj);
  if (!type || strcmp(type, scrolled_type) != 0 || efl_invalidating_get(obj)) return;
  const Evas_Object *scroller = evas_object_smart_parent_get(obj);
  const auto *record = static_cast<Evas_Object_Smart_Clipped_Data *>(evas_object_smart_data_get(obj));
  if (!record || !scroller || !efl_invalidating_get(scroller)) return;
  auto *own = new Evas_Object_Smart_Clipped_Data(*record);
  evas_object_smart_data_set(obj, own);
  evas_object_event_callback_add(obj, EVAS_CALLBACK_FREE, scrolled_freed_cb, own);
}

}  // namespace

extern "C" void evas_object_smart_member_del(Evas_Object *obj) {
  static void (*real)(Evas_Object *);
  if (obj) give_scrolled_its_record(obj);
  toolkit(&real, "evas_object_smart_member_del", obj);
  if (!obj || !efl_invalidating_get(obj) || !efl_isa(obj, efl_canvas_group_class_get())) return;
  Eina_List *parts = evas_object_smart_members_get(obj);
  if (!parts) evas_object_smart_data_set(obj, nullptr);
  eina_list_free(parts);
}

/* --- for the framework --- */

const char *app_id(void) {
  return app.id.c_str();
}
Evas_Object *app_window(void) {
  return app.window;
}
bool app_ready(void) {
  return app.ready && !app.exiting;
}

void app_deliver_launch(service_s *service) {
  if (app.callbacks.service) app.callbacks.service(service, app.user_data);
  if (app.ahead) {
    app.ahead = false;
    app_efl_window_show();
  }
  app_inspect_launched();
  /* Not kept for later, so it is done. */
  if (service->call && service->call.use_count() == 1 && !service->call->messages.empty())
    service_reply_to_launch_request(nullptr, service, SERVICE_RESULT_SUCCEEDED);
}

void app_end_if_ahead(const char *why) {
  if (!app.ahead || app.exiting) return;
  __dlog_print(DLOG_INFO, app_log_tag, "made ready for nothing, it ends: %s", why);
  app_efl_exit();
}

void app_go_background(void) {
  if (app.window) elm_win_lower(app.window);
  sight_apply();
}

void app_go_foreground(void) {
  if (app.window) {
    if (app.out.hidden) evas_object_show(app.window);
    elm_win_activate(app.window);
  }
  sight_apply();
}

/* --- the public interface --- */

void app_efl_id_set(const char *id) {
  if (id && *id) app.id = id;
}

void app_efl_exit(void) {
  app.exiting = true;
  elm_exit();
}

/* Without a change there is no picture: a dot of one is drawn anew. */
static void picture_job_cb(void *data) {
  app.trim_job = nullptr;
  if (app.pictures_to_trim == 0) return app_efl_memory_trim();
  if (app.window) evas_damage_rectangle_add(evas_object_evas_get(app.window), 0, 0, 1, 1);
}

static void picture_drawn_cb(void *data, Evas *canvas, void *event_info) {
  if (app.pictures_to_trim == 0) return;
  app.pictures_to_trim--;
  if (!app.trim_job) app.trim_job = ecore_job_add(picture_job_cb, nullptr);
}

void app_efl_memory_trim_drawn(void) {
  app.pictures_to_trim = pictures_to_free;
}

void app_efl_window_attach(Evas_Object *win) {
  if (!win || app.window == win) return;
  app.window = win;
  app.seen = evas_object_visible_get(win);
  app.has_icon = false;
  app.out = {};
  int w;
  int h;
  window_size(&w, &h);
  evas_object_resize(win, w, h);
  evas_object_event_callback_add(win, EVAS_CALLBACK_SHOW, window_show_cb, nullptr);
  evas_object_event_callback_add(win, EVAS_CALLBACK_HIDE, window_hide_cb, nullptr);
  evas_object_event_callback_add(win, EVAS_CALLBACK_DEL, window_del_cb, nullptr);
  evas_object_smart_callback_add(win, "focused", window_focused_cb, nullptr);
  evas_object_smart_callback_add(win, "iconified", window_iconified_cb, nullptr);
  evas_object_smart_callback_add(win, "withdrawn", window_withdrawn_cb, nullptr);
  evas_object_smart_callback_add(win, "normal", window_normal_cb, nullptr);
  evas_object_smart_callback_add(win, "rotation,changed", rotation_cb, nullptr);
  /* A canvas in memory has the focus from the start and never tells its widgets so. */
  Ecore_Evas *ee = ecore_evas_ecore_evas_get(evas_object_evas_get(win));
  if (strcmp(ecore_evas_engine_name_get(ee), "buffer") == 0) {
    ecore_evas_focus_set(ee, EINA_FALSE);
    ecore_evas_focus_set(ee, EINA_TRUE);
  }
  evas_event_callback_add(evas_object_evas_get(win), EVAS_CALLBACK_CANVAS_FOCUS_IN, window_touched_cb, nullptr);
  evas_event_callback_add(evas_object_evas_get(win), EVAS_CALLBACK_RENDER_POST, picture_drawn_cb, nullptr);
  /* Before the canvas: the key that has the window lowered is not one that comes after. */
  app.handlers[2] = ecore_event_handler_prepend(ECORE_EVENT_MOUSE_BUTTON_DOWN, window_input_cb, nullptr);
  app.handlers[3] = ecore_event_handler_prepend(ECORE_EVENT_KEY_DOWN, window_input_cb, nullptr);
#ifdef BRISEL_HAVE_ECORE_X
  follow_x(win);
#endif
  keypad_attach(win);
  app_inspect_window(win);
}

void app_efl_window_show(void) {
  if (app.window && !app.ahead) evas_object_show(app.window);
}

/* Whoever manages a part of the window's focus hands the question on; a list answers for its rows. */
Evas_Object *app_efl_focused(const Evas_Object *widget) {
  const Efl_Ui_Focus_Manager *manager = widget ? elm_object_top_widget_get(widget) : nullptr;
  if (!manager) return nullptr;
  while (Efl_Ui_Focus_Manager *next = efl_ui_focus_manager_redirect_get(manager)) {
    if (elm_object_widget_check(next) && strcmp(elm_object_widget_type_get(next), "Elm_Genlist") == 0) return next;
    manager = next;
  }
  return efl_ui_focus_manager_focus_get(manager);
}

void app_efl_forget_focus(Evas_Object *list) {
  efl_ui_focus_manager_reset_history(list);
}

int app_efl_main(int *argc, char ***argv, app_event_callback_s *callbacks, void *user_data) {
  if (!argc || !argv || !callbacks) return 1;
  const std::string id = app.id;
  app = {};
  app.id = id;
  app.callbacks = *callbacks;
  app.user_data = user_data;

  struct sigaction hangup = {};
  sigaction(SIGHUP, nullptr, &hangup);
  app.outlives_terminal = hangup.sa_handler == SIG_IGN;

  service_s request;
  request.app_id = app.id;
  bool asks = true;
  /* A slip must not start the application with something else than was meant. */
  if (const char *slip = read_arguments(*argc, *argv, &request, &asks)) {
    fprintf(stderr, "%s: no option or KEY=VALUE: %s (see --help)\n", program_invocation_short_name, slip);
    return 2;
  }
  /* Before the toolkit is up: a second start has nothing to draw and should be over at once. */
  const int claimed = app.ahead ? app_wait_for_name() : app_claim_name(&request, !asks);
  if (claimed == 0) {
    bus_loop_shutdown();
    return 0;
  }
  /* Whoever waits out of sight for a launch needs the bus that brings it. */
  if (claimed < 0 && (app.ahead || claimed != -ENOTCONN)) {
    bus_loop_shutdown();
    return 1;
  }

  app_memory_start();
  /* Start-up and idle cost: no cache of the desktop's menus and icons, no power and network watching modules, no
     graphics hardware for a screen this small, no second bus connection. */
  ecore_app_no_system_modules();
  efreet_cache_disable();
  /* Popups and their frame fill the window: on a display this small everything else would be a rim. */
  setenv("ELM_POPUP_HORIZONTAL_ALIGN", "-1", 0);
  setenv("ELM_POPUP_VERTICAL_ALIGN", "-1", 0);
  app_fonts_start();
  setenv("ELM_ACCEL", "none", 0);
  app_locale_init();
  app_fonts_read();
  if (app.callbacks.starting) app.callbacks.starting(app.user_data);
  app_beside_start();
  if (!elm_init(*argc, *argv)) {
    __dlog_print(DLOG_ERROR, app_log_tag, "the toolkit does not start");
    app_beside_stop();
    return 1;
  }
  eina_freeq_count_max_set(eina_freeq_main_get(), freed_late);
  app_bus_start();
  app_access_start(language_changed); /* what says its texts anew says them to who listens, too */
  const int result = run(&request, asks);
  if (app.window) evas_object_del(app.window);
  app_access_stop();
  app_bus_stop();
  elm_shutdown();
  app_beside_stop();
  app_fonts_stop();
  return result;
}
