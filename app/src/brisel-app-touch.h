/* Hands: which one works the window, and what a touch has opened. Keeps what is left of a touch away from what it has
   opened: a popup or a view must not take the second tap of a double tap, or the bounce of a finger, for an answer. The
   popup kit and the pushing of views call it. Thread: the EFL main loop. */
#ifndef BRISEL_APP_TOUCH_H
#define BRISEL_APP_TOUCH_H

#include <Evas.h>

/* Once a window, when it is made: from now on its touches are known, a mouse's back button is the back key, and the
   focus shows while keys move it and no finger does. place is called with data before a key makes the focus visible, to
   see to it that something has it. Ends with the window. */
void brisel_touch_watch(Evas_Object *window, void (*place)(void *data) = nullptr, void *data = nullptr);
/* When a touch has opened something: while that lives, a touch that begins within 0.3 s and a finger's width of the one
   that opened it goes nowhere; every other one is at once for what it meets. */
void brisel_touch_guard(Evas_Object *opened);
/* Whether the touch whose end is being handled was a long press by its own clock. The toolkit counts from when it came
   round to the touch, and takes a long press for a tap when it was busy. */
bool brisel_touch_was_long();
/* Whether the last touch has been lifted, and was no long press by its own clock. */
bool brisel_touch_was_short();
/* Calls read_cb once, when what waited for the loop has been handled: a busy loop's timers come before the touches that
   were over long before them. stop_waiting: not any more; NULL is allowed. */
struct brisel_touch_wait;
brisel_touch_wait *brisel_touch_when_read(void (*read_cb)(void *data), void *data);
void brisel_touch_stop_waiting(brisel_touch_wait *wait);
/* Whether the last touch was in the lower half of the window. */
bool brisel_touch_was_low();
/* The object hears the key wherever the focus is, with Shift too where that turns its way; alone: nobody else does.
   Until brisel_touch_leave_key(), or the object's end. */
void brisel_touch_hear_key(Evas_Object *object, const char *key, Eina_Bool alone);
void brisel_touch_leave_key(Evas_Object *object, const char *key);
/* What may have had the focus goes: where nothing gets it, no ring stays. */
void brisel_touch_focus_went();
/* Whether the key of that time has made the focus visible: it shows where the focus is, and moves it no further. */
bool brisel_touch_key_reveals(unsigned timestamp);

#endif
