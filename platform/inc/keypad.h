/* The virtual keypad. The framework shows it at the bottom of the attached window when an editable entry takes the
   focus by touch and hides it when the entry loses it (or on Back, or by "brisel-watchctl keypad show|hide"). It
   raises "virtualkeypad,size,changed" on the window's conformant, whose event information is an Evas_Coord_Rectangle *
   (x, y, w, h in pixels; h 0: hidden). A keyboard comes to its keys with Down from the entry's last line: arrows move
   a ring over them, Return presses, Up from their first row goes back. Thread: the EFL main loop. */
#ifndef BRISEL_PLATFORM_KEYPAD_H
#define BRISEL_PLATFORM_KEYPAD_H

#include <Evas.h>

void keypad_show(void);
void keypad_hide(void);
Eina_Bool keypad_shown(void);
/* Whether a keyboard has brought the ring to one of its keys: the window's own is not to be shown then. It takes that
   away when it comes, and gives it back when keys leave. */
Eina_Bool keypad_ringed(void);

#endif
