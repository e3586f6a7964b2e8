/* What the inspection's files share. Thread: the EFL main loop. */
#ifndef BRISEL_PLATFORM_INSPECT_PRIV_H
#define BRISEL_PLATFORM_INSPECT_PRIV_H

#include <Elementary.h>

#include <string>
#include <vector>

enum inspect_event {
  INSPECT_MOVE,  /* the finger is at x, y */
  INSPECT_DOWN,  /* it touches there */
  INSPECT_UP,    /* it leaves */
  INSPECT_MOVE2, /* a second finger, the same */
  INSPECT_DOWN2,
  INSPECT_UP2,
  INSPECT_TEXT,   /* one character */
  INSPECT_KEY,    /* a keyboard's key, by its name */
  INSPECT_BUTTON, /* a mouse's button is pressed and let go: x is its number */
  INSPECT_WHEEL   /* a mouse's wheel turns by x notches, down if positive */
};

/* One input event, fed `after` seconds after the one before. */
struct inspect_step {
  double after;
  inspect_event event;
  int x;
  int y;
  std::string text;
};

/* The steps of what a person does. Coordinates are window pixels. */
std::vector<inspect_step> inspect_tap(int x, int y, int times);
std::vector<inspect_step> inspect_press(int x, int y, double seconds);
std::vector<inspect_step> inspect_drag(int x1, int y1, int x2, int y2, double seconds);
/* reach: how far from the point a finger may get; seconds: how long they move. */
std::vector<inspect_step> inspect_pinch(int x, int y, double factor, int reach, double seconds);
std::vector<inspect_step> inspect_type(const char *text);
std::vector<inspect_step> inspect_key(const char *name);
/* A mouse at a point: one of its buttons (0: none), then its wheel. */
std::vector<inspect_step> inspect_mouse(int x, int y, int button, int notches);
/* time: when the step was due, in the main loop's seconds. Events carry it, so that a busy machine, which feeds some
   late, does not change how fast the finger was. */
void inspect_feed(Evas *evas, const inspect_step &step, double time);

/* Whether the user whose home folder it is allowed inspection: a file .config/brisel/inspect of the user's own, which
   nobody else may write. */
bool inspect_allowed_in(const char *home);

/* What is on the canvas, as JSON text. */
std::string inspect_dump(Evas_Object *window);
/* Writes exactly what is drawn to a PNG file; an error text, or empty. */
std::string inspect_screenshot(Evas_Object *window, const char *file);

/* inspect-stats.cpp: what "brisel-watchctl stats" prints as JSON; nanoseconds of the monotonic clock.
   first_screen_ns: the first frame drawn after the first launch request was handled, 0 before it. frames_ns: the time
   each frame took to draw, and pixels how many it drew: all of the window's where nothing but memory is drawn into.
   events_ns: from the wake-up that brought a change to the end of the frame that shows it.
   iterations, longest_iteration_ns: of the main loop, without its sleep. reset forgets all but the first screen; before
   the first one only the first hundred frames and events are kept. */
void inspect_stats_attach(Evas_Object *window);
void inspect_stats_detach(void);
void inspect_stats_launched(void);
std::string inspect_stats(bool reset);

#endif
