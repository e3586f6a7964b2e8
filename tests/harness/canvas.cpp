#include "canvas.h"

#include <Ecore_Input.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "../../platform/src/inspect-priv.h"
#include "loop.h"

static Evas_Object *window;

void canvas_use(Evas_Object *used) {
  window = used;
  if (used) evas_event_feed_mouse_in(evas_object_evas_get(used), 0, nullptr);
}

static Evas *canvas(void) {
  return evas_object_evas_get(window);
}

void resize_window(int width, int height) {
  evas_sync(canvas());
  evas_object_resize(window, width, height);
}

/* --- fingers and keys --- */

/* Real time, moved ahead by what the fed events are said to take. */
static unsigned event_time(unsigned ms = 0) {
  static unsigned ahead;
  ahead += ms;
  return (unsigned)(ecore_time_get() * 1000) + ahead;
}

point middle_of(Evas_Object *object) {
  int x, y, w, h;
  evas_object_geometry_get(object, &x, &y, &w, &h);
  return {x + w / 2, y + h / 2};
}

static void finger_move(point at, unsigned ms) {
  evas_event_feed_mouse_move(canvas(), at.x, at.y, event_time(ms), nullptr);
}

static void finger_down(point at, unsigned ms) {
  finger_move(at, ms);
  evas_event_feed_mouse_down(canvas(), 1, EVAS_BUTTON_NONE, event_time(ms), nullptr);
}

static void finger_up(unsigned ms) {
  evas_event_feed_mouse_up(canvas(), 1, EVAS_BUTTON_NONE, event_time(ms), nullptr);
}

void move_finger(point at) {
  finger_move(at, 10);
}

void touch(point at) {
  finger_down(at, 10);
}

void lift(unsigned ms) {
  finger_up(ms);
}

void release(point at) {
  finger_move(at, 10);
  lift();
}

void tap(point at) {
  touch(at);
  release(at);
  settle();
}

void press_long(point at) {
  touch(at);
  run_for(elm_config_longpress_timeout_get() + 0.05);
  release(at);
  settle();
}

static point between(point from, point to, int step, int steps) {
  return {from.x + (to.x - from.x) * step / steps, from.y + (to.y - from.y) * step / steps};
}

void drag(point from, point to) {
  touch(from);
  for (int step = 1; step <= 10; step++) {
    move_finger(between(from, to, step, 10));
    ecore_main_loop_iterate();
  }
  release(to);
  settle();
}

void stroke(point from, point to) {
  /* The events say a tenth of a second, also on a machine that takes longer. */
  const unsigned start = event_time();
  finger_down(from, 0);
  for (int step = 1; step <= 8; step++) {
    run_for(0.012);
    const point at = between(from, to, step, 8);
    evas_event_feed_mouse_move(canvas(), at.x, at.y, start + 12 * step, nullptr);
  }
  evas_event_feed_mouse_up(canvas(), 1, EVAS_BUTTON_NONE, start + 100, nullptr);
}

void pinch_at(point middle, double factor, double reach) {
  auto second = [&](double at) { return point{middle.x, middle.y + (int)at}; };
  auto first = [&](double at) { return point{middle.x, middle.y - (int)at}; };
  point b = second(reach);
  finger_down(first(reach), 0);
  evas_event_feed_multi_down(canvas(), 1, b.x, b.y, 1, 1, 1, 1, 0, b.x, b.y, EVAS_BUTTON_NONE, event_time(), nullptr);
  for (int step = 1; step <= 12; step++) {
    const double now = reach * (1 + (factor - 1) * step / 12);
    run_for(0.01);
    b = second(now);
    finger_move(first(now), 0);
    evas_event_feed_multi_move(canvas(), 1, b.x, b.y, 1, 1, 1, 1, 0, b.x, b.y, event_time(), nullptr);
  }
  evas_event_feed_multi_up(canvas(), 1, b.x, b.y, 1, 1, 1, 1, 0, b.x, b.y, EVAS_BUTTON_NONE, event_time(), nullptr);
  finger_up(0);
  settle();
}

void second_finger(point at, bool down) {
  if (down)
    evas_event_feed_multi_down(canvas(), 1, at.x, at.y, 1, 1, 1, 1, 0, at.x, at.y, EVAS_BUTTON_NONE, event_time(10),
                               nullptr);
  else
    evas_event_feed_multi_up(canvas(), 1, at.x, at.y, 1, 1, 1, 1, 0, at.x, at.y, EVAS_BUTTON_NONE, event_time(10),
                             nullptr);
}

void double_tap_at(point at) {
  for (int taps = 0; taps < 2; taps++) {
    finger_down(at, 0);
    run_for(0.03);
    finger_up(0);
    run_for(0.03);
  }
  settle();
}

void key(const char *name) {
  evas_event_feed_key_down(canvas(), name, name, nullptr, nullptr, event_time(10), nullptr);
  evas_event_feed_key_up(canvas(), name, name, nullptr, nullptr, event_time(10), nullptr);
  settle();
}

/* --- what a person sees --- */

std::string plain_text(const char *markup) {
  char *plain = markup ? elm_entry_markup_to_utf8(markup) : nullptr;
  const std::string text = plain ? plain : "";
  free(plain);
  return text;
}

static nlohmann::json texts_on_screen(void) {
  nlohmann::json shown = nlohmann::json::array();
  if (!window) return shown;
  const nlohmann::json dump = nlohmann::json::parse(inspect_dump(window));
  for (const nlohmann::json &text : dump.at("texts"))
    if (!text.at("covered").get<bool>()) shown.push_back(text);
  return shown;
}

std::vector<std::string> visible_texts(void) {
  std::vector<std::string> texts;
  for (const nlohmann::json &shown : texts_on_screen()) texts.push_back(shown.at("text"));
  return texts;
}

static Eina_Bool count_cb(void *data) {
  ++*static_cast<int *>(data);
  return ECORE_CALLBACK_RENEW;
}

void rest_of(const std::function<std::string()> &look) {
  /* What moves does so at every tick of the animators, however late that comes. */
  int ticks = 0, seen = 0, still = 0;
  Ecore_Animator *counter = ecore_animator_add(count_cb, &ticks);
  std::string before;
  run_until([&] {
    if (ticks == seen) return false;
    seen = ticks;
    std::string now = look();
    still = now == before ? still + 1 : 0;
    before = std::move(now);
    return still > 8;
  });
  ecore_animator_del(counter);
}

void rest(void) {
  rest_of([] { return texts_on_screen().dump(); });
}

static bool shown_now(const std::string &text) {
  return std::ranges::count(visible_texts(), text) > 0;
}

bool visible(const std::string &text) {
  return run_until([&] { return shown_now(text); });
}

bool gone(const std::string &text) {
  return run_until([&] { return !shown_now(text); });
}

point text_at(const std::string &text) {
  visible(text);
  settle();
  point at = {-1, -1};
  for (const nlohmann::json &shown : texts_on_screen())
    if (shown.at("text") == text)
      at = {shown.at("x").get<int>() + shown.at("width").get<int>() / 2,
            shown.at("y").get<int>() + shown.at("height").get<int>() / 2};
  EXPECT_GE(at.x, 0) << text << " is not on screen";
  return at;
}
