/* What a screen reader is told. Nothing here is made where none may be listening, but for names. Thread: the EFL main
   loop. */
#ifndef BRISEL_APP_SPOKEN_H
#define BRISEL_APP_SPOKEN_H

#include <Elementary.h>

/* Whether a screen reader may be listening: what only it needs is worth making. */
bool brisel_view_is_spoken();
/* What a screen reader says of a widget or an item, in place of its texts; plain text, copied. */
void brisel_view_set_spoken_name(Eo *object, const char *name);
/* The same by the id of a text in the domain "brisel", in whatever language there is when it is said. */
void brisel_view_set_spoken_id(Eo *object, const char *id);
/* The name that a widget has; NULL: none. The widget's, until it changes. */
const char *brisel_view_spoken_name(Evas_Object *widget);
/* Whether a screen reader is told of a widget, and of what it holds. */
void brisel_view_set_spoken(Eo *object, bool is_spoken);
/* Has a widget read that has come to be looked at, but takes no focus. */
void brisel_view_say(Eo *object);
/* Has a widget's or an item's new name told. */
void brisel_view_say_name(Eo *object);
/* Has a widget's name read out as news, whatever has the focus. */
void brisel_view_announce(Evas_Object *widget);
/* A list's row (NULL: nothing happens) is called by its texts, drawn or not. */
void brisel_view_name_row(Elm_Object_Item *row);
/* All rows of a list, when their texts are others or somebody may have come to listen: those out of sight ask for none.
 */
void brisel_view_name_rows(Evas_Object *list);
/* The list's rows carry ticks; what draws them is to be left untold. */
typedef bool (*brisel_row_ticked_cb)(Elm_Object_Item *row);
void brisel_view_set_row_ticks(Evas_Object *list, brisel_row_ticked_cb is_ticked);
/* Has it told that the row is ticked now, or is not any more. */
void brisel_view_say_tick(Elm_Object_Item *row, bool is_ticked);

/* What a row can do for who listens. */
struct brisel_row_action {
  const char *name;    /* in programs; NULL ends an array */
  const char *text_id; /* what is said, an id of the application's texts */
  const char *key;     /* that does the same; NULL: none */
  void (*does)(Elm_Object_Item *row);
};
/* The actions of a row, the usual one first: an array that stays. */
typedef const brisel_row_action *(*brisel_row_actions_cb)(Elm_Object_Item *row);
/* Without it the list's rows have one action, which does what a touch does. */
void brisel_view_set_row_actions(Evas_Object *list, brisel_row_actions_cb actions_of);
/* Once, before the first list: that rows have actions at all. */
void brisel_view_give_rows_actions();

/* A popup is told in place of everything below until it goes. */
void brisel_view_tell_popup(Evas_Object *popup);
/* below tells of what is not a popup (or of none of it, while one covers it): now, and whenever that may have changed.
 */
void brisel_view_tell(void (*below)(bool is_covered));

#endif
