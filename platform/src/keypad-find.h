/* The widgets that the keypad is for, found on its window, and what is beside a key. Thread: the EFL main loop. */
#ifndef BRISEL_PLATFORM_KEYPAD_FIND_H
#define BRISEL_PLATFORM_KEYPAD_FIND_H

#include <Elementary.h>

#include <vector>

bool keypad_is_editable_entry(Evas_Object *obj); /* NULL: it is none */
bool keypad_is_conformant(Evas_Object *obj);
/* The topmost visible object of the window that is wanted, or NULL. */
Evas_Object *keypad_find(Evas_Object *win, bool (*wanted)(Evas_Object *));
/* Of objects that stand in rows: the next one that way, in the same row or the nearest of the next one; NULL counts as
   none. -1: there is none. */
int keypad_find_beside(const std::vector<Evas_Object *> &objects, size_t from, int dx, int dy);

#endif
