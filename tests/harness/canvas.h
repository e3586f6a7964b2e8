/* A finger and keys on a window's canvas, and the texts that a person sees there. */
#ifndef BRISEL_HARNESS_CANVAS_H
#define BRISEL_HARNESS_CANVAS_H

#include <Elementary.h>

#include <functional>
#include <string>
#include <vector>

struct point {
  int x, y;
};

/* The window that fingers touch and eyes see: whoever opens one names it. */
void canvas_use(Evas_Object *window);

/* Once the frame that is being drawn is: the buffer engine takes the pixels away from under the thread that draws. */
void resize_window(int width, int height);

point middle_of(Evas_Object *object);
/* One finger. Each event comes a moment after the one before: touches of a test follow each other as a hand's do. */
void touch(point at);
void move_finger(point at);
void release(point at);
void lift(unsigned ms = 50); /* where the finger is */
void tap(point at);
void press_long(point at);
void drag(point from, point to);
/* The same from one point to the other in a tenth of a second of real time, as scrollers measure speeds. */
void stroke(point from, point to);
/* Two fingers that move apart (factor above 1) or together around a point, `reach` pixels from it at first. */
void pinch_at(point middle, double factor, double reach);
void double_tap_at(point at);
/* A second finger comes down or goes up. */
void second_finger(point at, bool down);
void key(const char *name);

/* What a markup says; "" for none. */
std::string plain_text(const char *markup);
/* Visible plain texts of the window, as the inspection tells them; one that something lies over is not among them. */
std::vector<std::string> visible_texts(void);
/* Waits for the text to come, or to go: popups and rows do both in their own time. */
bool visible(const std::string &text);
bool gone(const std::string &text);
/* Waits until nothing on screen moves any more: a view has slid in, a list has run out. */
void rest(void);
/* The same of what is told of something. */
void rest_of(const std::function<std::string()> &look);
/* The centre of the visible text, as a finger aims at it. */
point text_at(const std::string &text);

#endif
