#include <cmath>
#include <cstring>

#include "inspect-priv.h"
#include "text-check.h"

namespace {

/* A finger's pace: how long a tap touches, how often a moving finger reports, how fast somebody types. */
constexpr double tap_seconds = 0.05;
constexpr double between_taps = 0.08;
constexpr double frame = 1.0 / 60.0;
constexpr double rest_before_lift = 0.12;
constexpr double key_seconds = 0.01;
constexpr int second_finger = 1;

inspect_step at(double after, inspect_event event, int x, int y) {
  return {after, event, x, y, {}};
}

int between(int from, int to, double share) {
  return static_cast<int>(std::lround(from + (to - from) * share));
}

/* What a keyboard calls the key of a character. */
std::string key_name(const std::string &character) {
  if (character == " ") return "space";
  if (character == "\n") return "Return";
  if (character == "\t") return "Tab";
  if (character == "\b") return "BackSpace";
  return character;
}

}  // namespace

std::vector<inspect_step> inspect_tap(int x, int y, int times) {
  std::vector<inspect_step> steps;
  for (int i = 0; i < times; i++) {
    steps.push_back(at(i == 0 ? 0.0 : between_taps, INSPECT_MOVE, x, y));
    steps.push_back(at(0.0, INSPECT_DOWN, x, y));
    steps.push_back(at(tap_seconds, INSPECT_UP, x, y));
  }
  return steps;
}

std::vector<inspect_step> inspect_press(int x, int y, double seconds) {
  return {at(0.0, INSPECT_MOVE, x, y), at(0.0, INSPECT_DOWN, x, y), at(seconds, INSPECT_UP, x, y)};
}

std::vector<inspect_step> inspect_drag(int x1, int y1, int x2, int y2, double seconds) {
  std::vector<inspect_step> steps{at(0.0, INSPECT_MOVE, x1, y1), at(0.0, INSPECT_DOWN, x1, y1)};
  const int moves = static_cast<int>(std::lround(seconds / frame));
  for (int i = 1; i < moves; i++) {
    const double share = static_cast<double>(i) / moves;
    steps.push_back(at(frame, INSPECT_MOVE, between(x1, x2, share), between(y1, y2, share)));
  }
  steps.push_back(at(frame, INSPECT_MOVE, x2, y2));
  /* No finger lifts in the instant in which it still moves; a scroller would take that for a stop. */
  steps.push_back(at(frame, INSPECT_UP, x2, y2));
  return steps;
}

std::vector<inspect_step> inspect_pinch(int x, int y, double factor, int reach, double seconds) {
  /* The gesture layer lets two fingers move by its tolerance, a finger's size, before it measures; from then on the
     factor is their distance by the first one plus that tolerance. So they start that much nearer to each other, and
     one jump takes them over it. Of the radii at hand the one whose end falls nearest to a whole pixel. */
  const int tolerance = elm_config_finger_size_get();
  const int smallest = std::max(tolerance, 24);
  int nearest = 0;
  double nearest_error = 1.0;
  for (int radius = smallest; radius <= std::max(reach, smallest); radius++) {
    const double end = radius * factor;
    if (end > reach && nearest > 0) break;
    const double error = std::fabs(end - static_cast<double>(std::lround(end)));
    if (nearest > 0 && error >= nearest_error) continue;
    nearest = radius;
    nearest_error = error;
  }
  const int end = std::max(1, static_cast<int>(std::lround(nearest * factor)));
  std::vector<inspect_step> steps{at(0.0, INSPECT_MOVE, x - nearest, y), at(0.0, INSPECT_DOWN, x - nearest, y),
                                  at(0.0, INSPECT_DOWN2, x + nearest - tolerance, y),
                                  at(frame, INSPECT_MOVE2, x + nearest + 2, y)};
  const int moves = std::max(1, static_cast<int>(std::lround(seconds / frame)));
  for (int i = 1; i <= moves; i++) {
    const int radius = between(nearest, end, static_cast<double>(i) / moves);
    steps.push_back(at(frame, INSPECT_MOVE, x - radius, y));
    steps.push_back(at(0.0, INSPECT_MOVE2, x + radius, y));
  }
  /* Held still, so that no speed carries the zoom on. */
  steps.push_back(at(rest_before_lift, INSPECT_MOVE2, x + end, y));
  steps.push_back(at(frame, INSPECT_UP2, x + end, y));
  steps.push_back(at(frame, INSPECT_UP, x - end, y));
  return steps;
}

std::vector<inspect_step> inspect_type(const char *text) {
  std::vector<inspect_step> steps;
  std::string_view rest = text;
  while (!rest.empty()) {
    const size_t size = std::max<size_t>(text_utf8_length(rest), 1);
    steps.push_back({key_seconds, INSPECT_TEXT, 0, 0, std::string(rest.substr(0, size))});
    rest.remove_prefix(size);
  }
  return steps;
}

std::vector<inspect_step> inspect_key(const char *name) {
  return {{key_seconds, INSPECT_KEY, 0, 0, name}};
}

std::vector<inspect_step> inspect_mouse(int x, int y, int button, int notches) {
  std::vector<inspect_step> steps{at(0.0, INSPECT_MOVE, x, y)};
  if (button > 0) steps.push_back(at(0.0, INSPECT_BUTTON, button, 0));
  for (int i = 0; i < std::abs(notches); i++) steps.push_back(at(frame, INSPECT_WHEEL, notches > 0 ? 1 : -1, 0));
  return steps;
}

void inspect_feed(Evas *evas, const inspect_step &step, double time) {
  const auto now = static_cast<unsigned int>(time * 1000.0);
  const int x = step.x;
  const int y = step.y;
  switch (step.event) {
    case INSPECT_MOVE:
      evas_event_feed_mouse_in(evas, now, nullptr);
      evas_event_feed_mouse_move(evas, x, y, now, nullptr);
      break;
    case INSPECT_DOWN:
      evas_event_feed_mouse_down(evas, 1, EVAS_BUTTON_NONE, now, nullptr);
      break;
    case INSPECT_UP:
      evas_event_feed_mouse_up(evas, 1, EVAS_BUTTON_NONE, now, nullptr);
      break;
    case INSPECT_MOVE2:
      evas_event_feed_multi_move(evas, second_finger, x, y, 1, 1, 1, 1, 0, x, y, now, nullptr);
      break;
    case INSPECT_DOWN2:
      evas_event_feed_multi_down(evas, second_finger, x, y, 1, 1, 1, 1, 0, x, y, EVAS_BUTTON_NONE, now, nullptr);
      break;
    case INSPECT_UP2:
      evas_event_feed_multi_up(evas, second_finger, x, y, 1, 1, 1, 1, 0, x, y, EVAS_BUTTON_NONE, now, nullptr);
      break;
    case INSPECT_KEY:
      evas_event_feed_key_down(evas, step.text.c_str(), step.text.c_str(), nullptr, nullptr, now, nullptr);
      evas_event_feed_key_up(evas, step.text.c_str(), step.text.c_str(), nullptr, nullptr, now, nullptr);
      break;
    case INSPECT_BUTTON:
      evas_event_feed_mouse_down(evas, x, EVAS_BUTTON_NONE, now, nullptr);
      evas_event_feed_mouse_up(evas, x, EVAS_BUTTON_NONE, now, nullptr);
      break;
    case INSPECT_WHEEL:
      evas_event_feed_mouse_wheel(evas, 0, x, now, nullptr);
      break;
    case INSPECT_TEXT: {
      const std::string key = key_name(step.text);
      const char *string = step.text.c_str();
      evas_event_feed_key_down(evas, key.c_str(), key.c_str(), string, string, now, nullptr);
      evas_event_feed_key_up(evas, key.c_str(), key.c_str(), string, string, now, nullptr);
      break;
    }
  }
}
