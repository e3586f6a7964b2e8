/* What can be done with a row by who only listens, and whether it is ticked. The toolkit's rows offer neither to a
   screen reader: this file's class of rows, which takes the place of the toolkit's in every list, adds both. What they
   are is the list's to say. */
#define EFL_BETA_API_SUPPORT        /* for classes of rows */
#define EFL_ACCESS_OBJECT_PROTECTED /* to answer for its tick */
#define EFL_ACCESS_ACTION_PROTECTED /* and for what it can do */
#include <cstring>

#include "brisel-app-spoken.h"
#include "brisel-app-utils.h"

/* The toolkit installs no header with it. */
extern "C" const Efl_Class *elm_genlist_item_class_get() __attribute__((weak));

static const char actions_key[] = "brisel/row_actions", ticks_key[] = "brisel/row_ticks";

/* As a touch: what the row opens, or its tick. */
static void _press(Elm_Object_Item *row) {
  elm_genlist_item_selected_set(row, EINA_TRUE);
}

static const brisel_row_action *_actions_of(const Eo *row) {
  static constexpr brisel_row_action pressed[] = {{"activate", "activate", "Return", _press}, {}};
  const Evas_Object *list = elm_object_item_widget_get((Elm_Object_Item *)row);
  const auto actions_of = list ? (brisel_row_actions_cb)evas_object_data_get(list, actions_key) : nullptr;
  return actions_of ? actions_of((Elm_Object_Item *)row) : pressed;
}

/* NULL: it has no such action. */
static const brisel_row_action *_action_of(const Eo *row, int id) {
  const brisel_row_action *action = id < 0 ? nullptr : _actions_of(row);
  for (; action && action->name && id > 0; id--) action++;
  return action && action->name ? action : nullptr;
}

static Eina_List *_row_actions_get(const Eo *row, void *) {
  Eina_List *names = nullptr;
  for (const brisel_row_action *action = _actions_of(row); action->name; action++)
    names = eina_list_append(names, action->name);
  return names;
}

static const char *_row_action_name_get(const Eo *row, void *, int id) {
  const brisel_row_action *action = _action_of(row, id);
  return action ? action->name : nullptr;
}

static const char *_row_action_text_get(const Eo *row, void *, int id) {
  const brisel_row_action *action = _action_of(row, id);
  return action ? brisel_util_get_text(action->text_id) : nullptr;
}

static char *_row_action_key_get(Eo *row, void *, int id) {
  const brisel_row_action *action = _action_of(row, id);
  return action && action->key ? strdup(action->key) : nullptr;
}

static Eina_Bool _row_action_do(Eo *row, void *, int id) {
  const brisel_row_action *action = _action_of(row, id);
  if (!action || elm_object_item_disabled_get((Elm_Object_Item *)row)) return EINA_FALSE;
  action->does((Elm_Object_Item *)row);
  return EINA_TRUE;
}

static const Efl_Class *own_class;

static Efl_Access_State_Set _row_states_get(const Eo *row, void *) {
  Efl_Access_State_Set states = efl_access_object_state_set_get(efl_super(row, own_class));
  const Evas_Object *list = elm_object_item_widget_get((Elm_Object_Item *)row);
  const auto is_ticked = list ? (brisel_row_ticked_cb)evas_object_data_get(list, ticks_key) : nullptr;
  if (is_ticked && is_ticked((Elm_Object_Item *)row)) STATE_TYPE_SET(states, EFL_ACCESS_STATE_TYPE_CHECKED);
  return states;
}

static Eina_Bool _class_initializer(Efl_Class *row_class) {
  EFL_OPS_DEFINE(ops, EFL_OBJECT_OP_FUNC(efl_access_object_state_set_get, _row_states_get),
                 EFL_OBJECT_OP_FUNC(efl_access_action_actions_get, _row_actions_get),
                 EFL_OBJECT_OP_FUNC(efl_access_action_name_get, _row_action_name_get),
                 EFL_OBJECT_OP_FUNC(efl_access_action_localized_name_get, _row_action_text_get),
                 EFL_OBJECT_OP_FUNC(efl_access_action_description_get, _row_action_text_get),
                 EFL_OBJECT_OP_FUNC(efl_access_action_keybinding_get, _row_action_key_get),
                 EFL_OBJECT_OP_FUNC(efl_access_action_do, _row_action_do));
  return efl_class_functions_set(row_class, &ops, nullptr);
}

void brisel_view_give_rows_actions() {
  static const Efl_Class_Description description = {
      EO_VERSION, "Brisel.Row", EFL_CLASS_TYPE_REGULAR, 0, _class_initializer, nullptr, nullptr};
  const Efl_Class *toolkit = elm_genlist_item_class_get ? elm_genlist_item_class_get() : nullptr;
  own_class = toolkit ? efl_class_new(&description, toolkit, EFL_ACCESS_ACTION_MIXIN, nullptr) : nullptr;
  if (!own_class || !efl_class_override_register(toolkit, own_class))
    BRISEL_WARN("rows have no actions for a screen reader");
}

void brisel_view_set_row_actions(Evas_Object *list, brisel_row_actions_cb actions_of) {
  evas_object_data_set(list, actions_key, (void *)actions_of);
}

void brisel_view_set_row_ticks(Evas_Object *list, brisel_row_ticked_cb is_ticked) {
  evas_object_data_set(list, ticks_key, (void *)is_ticked);
}
