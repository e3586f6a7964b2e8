#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>

#include "app-priv.h"
#include "inspect-priv.h"

using nlohmann::json;

namespace {

/* A page swipe draws about 60 frames, a scroll some hundred: more than these are left out. */
constexpr size_t frames_kept = 2048;
/* Until somebody has asked. Lists that grow to all of them would be a fifth of a megabyte of what is measured. */
constexpr size_t frames_unasked = 128;

struct statistics {
  Evas *canvas = nullptr;
  Ecore_Idle_Exiter *awake = nullptr;
  Ecore_Idle_Enterer *asleep = nullptr;
  bool launched = false;
  bool asked = false;       /* by a reset, as who measures begins */
  int64_t first_screen = 0; /* monotonic, nanoseconds */
  int64_t busy_since = 0;
  int64_t launch_since = 0;  /* the wake-up that brought a launch of which no frame was drawn yet */
  int64_t launch_done = 0;   /* when the application had answered it */
  int64_t waiting_since = 0; /* the wake-up that made changes which are not drawn yet */
  int64_t frame_since = 0;
  int64_t longest_iteration = 0;
  int64_t iterations = 0;
  std::vector<int64_t> frames;
  std::vector<int64_t> pixels; /* that each of them drew */
  std::vector<int64_t> waits;
  std::vector<int64_t> launches; /* from that wake-up to the first frame that was begun after the answer */
} stats;

int64_t now_ns(void) {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1000000000LL + t.tv_nsec;
}

Eina_Bool awake_cb(void *data) {
  stats.busy_since = now_ns();
  stats.iterations++;
  return ECORE_CALLBACK_RENEW;
}

Eina_Bool asleep_cb(void *data) {
  const int64_t now = now_ns();
  if (stats.busy_since) stats.longest_iteration = std::max(stats.longest_iteration, now - stats.busy_since);
  if (stats.canvas && !stats.waiting_since && evas_changed_get(stats.canvas)) stats.waiting_since = stats.busy_since;
  return ECORE_CALLBACK_RENEW;
}

void frame_begins_cb(void *data, Evas *e, void *event_info) {
  stats.frame_since = now_ns();
}

int64_t pixels_of(const Evas_Event_Render_Post *frame) {
  int64_t pixels = 0;
  for (const Eina_List *cell = frame ? frame->updated_area : nullptr; cell; cell = cell->next) {
    const auto *area = static_cast<const Eina_Rectangle *>(cell->data);
    pixels += static_cast<int64_t>(area->w) * area->h;
  }
  return pixels;
}

void frame_ends_cb(void *data, Evas *e, void *event_info) {
  const int64_t now = now_ns();
  if (stats.launched && !stats.first_screen) stats.first_screen = now;
  if (stats.launch_since && stats.frame_since > stats.launch_done) {
    if (stats.launches.size() < frames_kept) stats.launches.push_back(now - stats.launch_since);
    stats.launch_since = 0;
  }
  const size_t kept = stats.asked ? frames_kept : frames_unasked;
  if (stats.frame_since && stats.frames.size() < kept) {
    stats.frames.push_back(now - stats.frame_since);
    stats.pixels.push_back(pixels_of(static_cast<const Evas_Event_Render_Post *>(event_info)));
  }
  const int64_t since = stats.waiting_since ? stats.waiting_since : stats.busy_since;
  if (since && stats.waits.size() < kept) stats.waits.push_back(now - since);
  stats.waiting_since = 0;
}

}  // namespace

void inspect_stats_attach(Evas_Object *window) {
  stats.canvas = evas_object_evas_get(window);
  evas_event_callback_add(stats.canvas, EVAS_CALLBACK_RENDER_PRE, frame_begins_cb, nullptr);
  evas_event_callback_add(stats.canvas, EVAS_CALLBACK_RENDER_POST, frame_ends_cb, nullptr);
  stats.awake = ecore_idle_exiter_add(awake_cb, nullptr);
  stats.asleep = ecore_idle_enterer_add(asleep_cb, nullptr);
}

void inspect_stats_detach(void) {
  if (stats.awake) ecore_idle_exiter_del(stats.awake);
  if (stats.asleep) ecore_idle_enterer_del(stats.asleep);
  if (app_window() && stats.canvas) {
    evas_event_callback_del(stats.canvas, EVAS_CALLBACK_RENDER_PRE, frame_begins_cb);
    evas_event_callback_del(stats.canvas, EVAS_CALLBACK_RENDER_POST, frame_ends_cb);
  }
  stats = statistics();
}

void inspect_stats_launched(void) {
  stats.launched = true;
  stats.launch_done = now_ns();
  stats.launch_since = stats.busy_since ? stats.busy_since : stats.launch_done;
}

std::string inspect_stats(bool reset) {
  json out;
  out["first_screen_ns"] = stats.first_screen;
  out["iterations"] = stats.iterations;
  out["longest_iteration_ns"] = stats.longest_iteration;
  out["frames_ns"] = stats.frames;
  out["pixels"] = stats.pixels;
  out["events_ns"] = stats.waits;
  out["launches_ns"] = stats.launches;
  if (reset) {
    stats.asked = true;
    stats.iterations = stats.longest_iteration = stats.waiting_since = 0;
    stats.busy_since = 0; /* this very wake-up is not counted */
    stats.frames.clear();
    stats.pixels.clear();
    stats.waits.clear();
    stats.launches.clear();
  }
  return out.dump();
}
