/* The genlist effect mode: while it is on, a deleted item slides out and the rows below close up in at most
   300 ms, once; off (the default) it vanishes. Takes effect for deletions made while it is on. Nothing to free: it dies
   with the genlist. With motion switched off (settings key "db/setting/motion", bool 0) deletions are immediate.
   Thread: the EFL main loop. */
#ifndef BRISEL_PLATFORM_GENLIST_FX_H
#define BRISEL_PLATFORM_GENLIST_FX_H

#include <Evas.h>

void elm_genlist_fx_mode_set(Evas_Object *genlist, Eina_Bool on);
Eina_Bool elm_genlist_fx_mode_get(const Evas_Object *genlist);

#endif
