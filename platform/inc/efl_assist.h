/* Hardware keys on widgets. Thread: the EFL main loop. */
#ifndef BRISEL_PLATFORM_EFL_ASSIST_H
#define BRISEL_PLATFORM_EFL_ASSIST_H

#include <Evas.h>

enum Ea_Callback_Type { EA_CALLBACK_BACK, EA_CALLBACK_MORE };
typedef void (*Ea_Event_Cb)(void *data, Evas_Object *obj, void *event_info);

/* The key reaches the topmost visible object that registered for it last; it falls through to the one before when
   that object is deleted, hidden or its callback removed. Back: the keyboard's Back (XF86Back) or Escape key;
   more: Menu or F10. A registration dies with its object. A second one of the same (object, type, callback)
   moves to the top with the new data. */
void ea_object_event_callback_add(Evas_Object *obj, Ea_Callback_Type type, Ea_Event_Cb callback, void *data);
/* Returns the registration's data, or NULL. Safe inside the callback. */
void *ea_object_event_callback_del(Evas_Object *obj, Ea_Callback_Type type, Ea_Event_Cb callback);

#endif
