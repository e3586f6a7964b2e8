/* Buttons for who only listens, where what a touch presses is no widget: a picture, a stroke. They are among what their
   parent holds, have a role, a place and an action that presses them, and are nothing to eyes, fingers and keys. Made
   only where a screen reader may be listening (elm_config_atspi_mode_get). Thread: the EFL main loop. */
#ifndef BRISEL_PLATFORM_SPOKEN_H
#define BRISEL_PLATFORM_SPOKEN_H

#include <Elementary.h>

typedef void (*spoken_press_cb)(void *data);

/* A button below parent, a widget or a group, in the place of shown, and told of while that is visible (not owned; it
   must outlive the button). It goes with its parent, or by efl_del. NULL on failure, which is logged. */
Eo *spoken_button_add(Eo *parent, Evas_Object *shown, spoken_press_cb press, void *data);
/* What holds such buttons and is pressed by nothing. */
Eo *spoken_group_add(Eo *parent, Evas_Object *shown);
/* What is said; copied. Who listens hears of a change. */
void spoken_set_name(Eo *button, const char *name);
/* Of any object that is told: who listens hears of its new name. */
void spoken_name_changed(Eo *object);
/* A button that stays pressed or not. */
void spoken_set_pressed(Eo *button, Eina_Bool is_pressed);

#endif
