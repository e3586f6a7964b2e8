/* What the framework tells the keypad. Thread: the EFL main loop. */
#ifndef BRISEL_PLATFORM_KEYPAD_INTERNAL_H
#define BRISEL_PLATFORM_KEYPAD_INTERNAL_H

#include <Evas.h>

/* The window whose entries the keypad serves; it forgets the window when that dies. */
void keypad_attach(Evas_Object *win);

#endif
