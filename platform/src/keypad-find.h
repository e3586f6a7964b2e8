/* The widgets that the keypad is for, found on its window. Thread: the EFL main loop. */
#ifndef BRISEL_PLATFORM_KEYPAD_FIND_H
#define BRISEL_PLATFORM_KEYPAD_FIND_H

#include <Elementary.h>

bool keypad_is_editable_entry(Evas_Object *obj); /* NULL: it is none */
bool keypad_is_conformant(Evas_Object *obj);
/* The topmost visible object of the window that is wanted, or NULL. */
Evas_Object *keypad_find(Evas_Object *win, bool (*wanted)(Evas_Object *));

#endif
