/* The stage: where screens and the window's own popups stand. On a display with corners it is the window; on a round
   one (BRISEL_SHAPE=round) it is the rectangle in its middle, so that nothing to be read or touched lies outside the
   circle. The core and the popup kit use it. Thread: the EFL main loop. */
#ifndef BRISEL_APP_STAGE_H
#define BRISEL_APP_STAGE_H

#include <Evas.h>

/* Once a window, before anything stands in it. */
void brisel_stage_make(Evas_Object *window);
/* The parent of what stands over the screens of the window. NULL for a window of NULL. */
Evas_Object *brisel_stage_get(Evas_Object *window);
/* Lets the object fill the stage. */
void brisel_stage_put(Evas_Object *window, Evas_Object *object);

/* On a round display a finger that comes down around the stage, where no button is, scrolls the screen as one on its
   rows does: the circle leaves a scroller about half of the height, and a thumb begins where it lies. Once, for the
   scroller that is the screen's; not for a field in it. What cuts a scroller off that lies in another one, as a page of
   the reader, cuts its fingers off too. */
void brisel_stage_reach(Evas_Object *scroller);

/* The style that a round display gives to the view stack's items, whose titles are centred, to popups, which fill it,
   and to buttons; also the last part of a group's name. NULL: the usual one. */
const char *brisel_stage_style();
/* The style of what is made with it; usual: on displays with corners, NULL for the one that it was made with. */
void brisel_stage_set_style(Evas_Object *widget, const char *usual);

#endif
