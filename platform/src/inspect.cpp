/*
 * Inspection: lets a tool see and touch the window as a person would, on every engine, without a display. Only with
 * BRISEL_INSPECT=1, and in builds without tests only for a user who allowed it. Whatever is asked runs one after the
 * other: a finger cannot be in two gestures.
 */
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <deque>

#include "app-priv.h"
#include "dlog.h"
#include "inspect-priv.h"

namespace {

/* A canvas that has drawn nothing for that long has settled; one that never rests is taken as it is. */
constexpr double settle_quiet = 0.1;
constexpr double settle_longest = 1.0;
constexpr double longest_gesture = 60.0;

enum work_end { WORK_NOTHING, WORK_SCREENSHOT, WORK_DUMP };

struct work {
  sd_bus_message *call = nullptr; /* answered at the end */
  void (*done)(void *data) = nullptr;
  void *data = nullptr;
  std::vector<inspect_step> steps;
  size_t next = 0;
  double due = 0.0; /* when the next step is, or the last one was */
  work_end end = WORK_NOTHING;
  std::string file;
};

bool on;
sd_bus_slot *slot;
std::deque<work> queue;
Ecore_Timer *timer;
Evas *watched; /* the canvas whose drawing is followed while work is under way */
double last_drawn;
double settle_start;

void start_next(void);

void rendered_cb(void *data, Evas *e, void *event_info) {
  const auto *post = static_cast<Evas_Event_Render_Post *>(event_info);
  if (post && post->updated_area) last_drawn = ecore_time_get();
}

void canvas_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  watched = nullptr;
}

void watch_canvas(bool watch) {
  Evas_Object *window = app_window();
  if (watch && window && !watched) {
    watched = evas_object_evas_get(window);
    evas_event_callback_add(watched, EVAS_CALLBACK_RENDER_POST, rendered_cb, nullptr);
    evas_object_event_callback_add(window, EVAS_CALLBACK_DEL, canvas_gone_cb, nullptr);
  } else if (!watch && watched) {
    evas_event_callback_del(watched, EVAS_CALLBACK_RENDER_POST, rendered_cb);
    if (window) evas_object_event_callback_del(window, EVAS_CALLBACK_DEL, canvas_gone_cb);
    watched = nullptr;
  }
}

/* Answers and forgets the finished work. Returns whether a look waits behind it: the screen is still at rest then. */
bool finish_one(void) {
  work done = std::move(queue.front());
  queue.pop_front();
  Evas_Object *window = app_window();
  if (done.done) done.done(done.data);
  if (done.call) {
    std::string failure;
    if (!window && !done.done) failure = "the application has no window";
    if (failure.empty() && done.end == WORK_SCREENSHOT) failure = inspect_screenshot(window, done.file.c_str());
    if (!failure.empty())
      sd_bus_reply_method_errorf(done.call, SD_BUS_ERROR_FAILED, "%s", failure.c_str());
    else if (done.end == WORK_DUMP)
      sd_bus_reply_method_return(done.call, "s", inspect_dump(window).c_str());
    else
      sd_bus_reply_method_return(done.call, nullptr);
    sd_bus_message_unref(done.call);
  }
  return !done.done && !queue.empty() && queue.front().end != WORK_NOTHING;
}

/* Looks that were asked for together see one moment. */
void finish(void) {
  while (finish_one()) {
  }
  if (queue.empty())
    watch_canvas(false);
  else
    start_next();
}

Eina_Bool settle_cb(void *data) {
  timer = nullptr;
  const double now = ecore_time_get();
  const double rest = last_drawn + settle_quiet - now;
  if (rest > 0.0 && now - settle_start < settle_longest && watched)
    timer = ecore_timer_add(std::max(rest, 0.005), settle_cb, nullptr);
  else
    finish();
  return ECORE_CALLBACK_CANCEL;
}

Eina_Bool step_cb(void *data) {
  timer = nullptr;
  work &current = queue.front();
  while (current.next < current.steps.size() && app_window() && current.due <= ecore_time_get()) {
    inspect_feed(evas_object_evas_get(app_window()), current.steps[current.next], current.due);
    if (++current.next < current.steps.size()) current.due += current.steps[current.next].after;
  }
  if (current.next < current.steps.size() && app_window()) {
    timer = ecore_timer_add(std::max(current.due - ecore_time_get(), 0.0), step_cb, nullptr);
  } else {
    settle_start = ecore_time_get();
    last_drawn = std::max(last_drawn, settle_start);
    timer = ecore_timer_add(settle_quiet, settle_cb, nullptr);
  }
  return ECORE_CALLBACK_CANCEL;
}

void start_next(void) {
  watch_canvas(true);
  work &first = queue.front();
  const double after = first.steps.empty() ? 0.0 : first.steps[0].after;
  first.due = ecore_time_get() + after;
  timer = ecore_timer_add(after, step_cb, nullptr);
}

int enqueue(work &&next) {
  queue.push_back(std::move(next));
  if (queue.size() == 1) start_next();
  return 1;
}

int enqueue_call(sd_bus_message *m, std::vector<inspect_step> &&steps) {
  work next;
  next.call = sd_bus_message_ref(m);
  next.steps = std::move(steps);
  return enqueue(std::move(next));
}

int refuse(sd_bus_error *error, const char *text) {
  return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, text);
}

bool inside(int x, int y) {
  int w = 0;
  int h = 0;
  if (app_window()) evas_object_geometry_get(app_window(), nullptr, nullptr, &w, &h);
  return x >= 0 && y >= 0 && x < w && y < h;
}

constexpr char outside_text[] = "The point is outside the window";
constexpr char seconds_text[] = "The time must be between 0 and 60 seconds";

bool seconds_valid(double seconds) {
  return seconds >= 0.0 && seconds <= longest_gesture;
}

int taps(sd_bus_message *m, int count, sd_bus_error *error) {
  int x;
  int y;
  const int r = sd_bus_message_read(m, "ii", &x, &y);
  if (r < 0) return r;
  return inside(x, y) ? enqueue_call(m, inspect_tap(x, y, count)) : refuse(error, outside_text);
}

int tap_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  return taps(m, 1, error);
}

int double_tap_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  return taps(m, 2, error);
}

int press_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  int x;
  int y;
  double seconds;
  const int r = sd_bus_message_read(m, "iid", &x, &y, &seconds);
  if (r < 0) return r;
  if (!seconds_valid(seconds)) return refuse(error, seconds_text);
  return inside(x, y) ? enqueue_call(m, inspect_press(x, y, seconds)) : refuse(error, outside_text);
}

int drag_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  int x1;
  int y1;
  int x2;
  int y2;
  double seconds;
  const int r = sd_bus_message_read(m, "iiiid", &x1, &y1, &x2, &y2, &seconds);
  if (r < 0) return r;
  if (!seconds_valid(seconds)) return refuse(error, seconds_text);
  /* A finger may leave the screen, but it starts on it. */
  constexpr int far = 10000;
  if (!inside(x1, y1) || std::abs(x2) > far || std::abs(y2) > far) return refuse(error, outside_text);
  return enqueue_call(m, inspect_drag(x1, y1, x2, y2, seconds));
}

int pinch_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  int x;
  int y;
  double factor, seconds;
  const int r = sd_bus_message_read(m, "iidd", &x, &y, &factor, &seconds);
  if (r < 0) return r;
  if (!seconds_valid(seconds)) return refuse(error, seconds_text);
  if (!(factor >= 0.1 && factor <= 10.0)) return refuse(error, "The factor must be between 0.1 and 10");
  if (!inside(x, y)) return refuse(error, outside_text);
  int w;
  int h;
  evas_object_geometry_get(app_window(), nullptr, nullptr, &w, &h);
  return enqueue_call(m, inspect_pinch(x, y, factor, std::min(w, h) * 9 / 20, seconds));
}

int type_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  const char *text;
  const int r = sd_bus_message_read(m, "s", &text);
  if (r < 0) return r;
  if (strlen(text) > 4096) return refuse(error, "The text is too long");
  return enqueue_call(m, inspect_type(text));
}

int keyboard_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  const char *name;
  const int r = sd_bus_message_read(m, "s", &name);
  if (r < 0) return r;
  if (!*name || strlen(name) > 32) return refuse(error, "That is no key's name");
  return enqueue_call(m, inspect_key(name));
}

int mouse_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  int x, y, button, notches;
  const int r = sd_bus_message_read(m, "iiii", &x, &y, &button, &notches);
  if (r < 0) return r;
  if (button < 0 || button > 32 || std::abs(notches) > 1000) return refuse(error, "No mouse can do that");
  return inside(x, y) ? enqueue_call(m, inspect_mouse(x, y, button, notches)) : refuse(error, outside_text);
}

int screenshot_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  const char *file;
  const int r = sd_bus_message_read(m, "s", &file);
  if (r < 0) return r;
  if (file[0] != '/') return refuse(error, "The file needs a whole path");
  work next;
  next.call = sd_bus_message_ref(m);
  next.end = WORK_SCREENSHOT;
  next.file = file;
  return enqueue(std::move(next));
}

int dump_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  work next;
  next.call = sd_bus_message_ref(m);
  next.end = WORK_DUMP;
  return enqueue(std::move(next));
}

int stats_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  int reset;
  const int r = sd_bus_message_read(m, "b", &reset);
  if (r < 0) return r;
  return sd_bus_reply_method_return(m, "s", inspect_stats(reset).c_str());
}

const sd_bus_vtable inspect_table[] = {SD_BUS_VTABLE_START(0),
                                       SD_BUS_METHOD("Tap", "ii", "", tap_cb, SD_BUS_VTABLE_UNPRIVILEGED),
                                       SD_BUS_METHOD("DoubleTap", "ii", "", double_tap_cb, SD_BUS_VTABLE_UNPRIVILEGED),
                                       SD_BUS_METHOD("Press", "iid", "", press_cb, SD_BUS_VTABLE_UNPRIVILEGED),
                                       SD_BUS_METHOD("Drag", "iiiid", "", drag_cb, SD_BUS_VTABLE_UNPRIVILEGED),
                                       SD_BUS_METHOD("Pinch", "iidd", "", pinch_cb, SD_BUS_VTABLE_UNPRIVILEGED),
                                       SD_BUS_METHOD("Type", "s", "", type_cb, SD_BUS_VTABLE_UNPRIVILEGED),
                                       SD_BUS_METHOD("Keyboard", "s", "", keyboard_cb, SD_BUS_VTABLE_UNPRIVILEGED),
                                       SD_BUS_METHOD("Mouse", "iiii", "", mouse_cb, SD_BUS_VTABLE_UNPRIVILEGED),
                                       SD_BUS_METHOD("Screenshot", "s", "", screenshot_cb, SD_BUS_VTABLE_UNPRIVILEGED),
                                       SD_BUS_METHOD("Dump", "", "s", dump_cb, SD_BUS_VTABLE_UNPRIVILEGED),
                                       SD_BUS_METHOD("Stats", "b", "s", stats_cb, SD_BUS_VTABLE_UNPRIVILEGED),
                                       SD_BUS_VTABLE_END};

}  // namespace

bool inspect_allowed_in(const char *home) {
  struct stat info;
  const std::string file = std::string(home ? home : "") + "/.config/brisel/inspect";
  return lstat(file.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == geteuid() &&
         (info.st_mode & 022) == 0;
}

namespace {

/* The variable alone can be set by every client of the bus, for the applications that the bus starts. So it counts in a
   build with tests; elsewhere the user must also have made a file, in the home folder that the system knows. */
bool allowed(void) {
  const char *wanted = getenv("BRISEL_INSPECT");
  if (!wanted || strcmp(wanted, "1") != 0) return false;
#ifdef BRISEL_TESTS
  return true;
#else
  const passwd *user = getpwuid(geteuid());
  return user && inspect_allowed_in(user->pw_dir);
#endif
}

}  // namespace

int app_inspect_start(sd_bus *bus, const char *path) {
  if (!allowed()) return 0;
  const int r = sd_bus_add_object_vtable(bus, &slot, path, "com.vextora.Inspect1", inspect_table, nullptr);
  on = r >= 0;
  return r;
}

void app_inspect_window(Evas_Object *window) {
  if (on) inspect_stats_attach(window);
}

void app_inspect_launched(void) {
  if (on) inspect_stats_launched();
}

void app_inspect_stop(void) {
  if (on) inspect_stats_detach();
  on = false;
  slot = sd_bus_slot_unref(slot);
  if (timer) ecore_timer_del(timer);
  timer = nullptr;
  watch_canvas(false);
  for (work &one : queue) {
    if (one.done) one.done(one.data);
    sd_bus_message_unref(one.call);
  }
  queue.clear();
}

void app_inspect_settled(void (*done)(void *data), void *data) {
  if (!on) {
    done(data);
    return;
  }
  work next;
  next.done = done;
  next.data = data;
  enqueue(std::move(next));
}
