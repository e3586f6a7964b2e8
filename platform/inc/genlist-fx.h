/* The genlist effect mode: rows deleted between switching it on and off slide out, and the rows around them close up,
   in a quarter of a second that begins when it is switched off (once; the default is off, and rows then vanish). The
   deletion itself is never held up: what moves is a picture, and the list takes touches meanwhile. Rows that did not
   follow each other simply vanish, as do all with motion switched off (settings key "db/setting/motion", bool 0).
   Nothing to free: it dies with the genlist. Thread: the EFL main loop. */
#ifndef BRISEL_PLATFORM_GENLIST_FX_H
#define BRISEL_PLATFORM_GENLIST_FX_H

#include <Evas.h>

void elm_genlist_fx_mode_set(Evas_Object *genlist, Eina_Bool on);
Eina_Bool elm_genlist_fx_mode_get(const Evas_Object *genlist);

#endif
