#define EFL_BETA_API_SUPPORT /* for classes of objects, and what they answer to a screen reader */
#define EFL_ACCESS_OBJECT_PROTECTED
#define EFL_ACCESS_ACTION_PROTECTED
#define EFL_ACCESS_COMPONENT_PROTECTED
#include "spoken.h"

#include <Ecore_Evas.h>
#include <libintl.h>

#include <cstring>

#include "dlog.h"

namespace {

constexpr char log_tag[] = "SPOKEN";
constexpr char action_name[] = "activate"; /* as the toolkit's own buttons call theirs */
constexpr char holder_key[] = "spoken/holder";

/* The class keeps it, and clears it at the start. */
struct spoken_data {
  Evas_Object *shown;
  spoken_press_cb press; /* NULL: a group */
  void *data;
  bool is_toggle;
  bool is_pressed;
};

const Efl_Class *spoken_class(void);

spoken_data *data_of(const Eo *obj) {
  return static_cast<spoken_data *>(efl_data_scope_get(obj, spoken_class()));
}

Eina_List *with_own_of(const Eo *holder, Eina_List *children) {
  Eina_Iterator *each = efl_children_iterator_new(const_cast<Eo *>(holder));
  void *child = nullptr;
  EINA_ITERATOR_FOREACH(each, child) {
    const Eo *one = static_cast<const Eo *>(child);
    if (efl_isa(one, spoken_class()) && evas_object_visible_get(data_of(one)->shown) &&
        efl_access_object_access_type_get(one) == EFL_ACCESS_TYPE_REGULAR)
      children = eina_list_append(children, child);
  }
  eina_iterator_free(each);
  return children;
}

Eina_List *holder_children(const Eo *obj, void *) {
  return with_own_of(obj, efl_access_object_access_children_get(efl_super(obj, EFL_OBJECT_OVERRIDE_CLASS)));
}

/* A widget tells only of widgets: this one of its buttons, too. */
void make_holder(Eo *widget) {
  if (efl_key_data_get(widget, holder_key) != nullptr) return;
  efl_key_data_set(widget, holder_key, holder_key);
  EFL_OPS_DEFINE(ops, EFL_OBJECT_OP_FUNC(efl_access_object_access_children_get, holder_children));
  efl_object_override(widget, &ops);
}

/* --- what the class answers --- */

Eina_List *children_get(const Eo *obj, void *) {
  return with_own_of(obj, nullptr);
}

Efl_Access_Role role_get(const Eo *, void *pd) {
  const auto *one = static_cast<const spoken_data *>(pd);
  return one->press == nullptr ? EFL_ACCESS_ROLE_PANEL
         : one->is_toggle      ? EFL_ACCESS_ROLE_TOGGLE_BUTTON
                               : EFL_ACCESS_ROLE_PUSH_BUTTON;
}

Efl_Access_State_Set states_get(const Eo *, void *pd) {
  const auto *one = static_cast<const spoken_data *>(pd);
  Efl_Access_State_Set states = 0;
  STATE_TYPE_SET(states, EFL_ACCESS_STATE_TYPE_ENABLED);
  STATE_TYPE_SET(states, EFL_ACCESS_STATE_TYPE_SENSITIVE);
  if (evas_object_visible_get(one->shown)) {
    STATE_TYPE_SET(states, EFL_ACCESS_STATE_TYPE_VISIBLE);
    STATE_TYPE_SET(states, EFL_ACCESS_STATE_TYPE_SHOWING);
  }
  if (one->is_pressed) {
    STATE_TYPE_SET(states, EFL_ACCESS_STATE_TYPE_PRESSED);
    STATE_TYPE_SET(states, EFL_ACCESS_STATE_TYPE_CHECKED);
  }
  return states;
}

Eina_Rect extents_get(const Eo *, void *pd, Eina_Bool on_screen) {
  Evas_Object *shown = static_cast<const spoken_data *>(pd)->shown;
  Eina_Rect place = {};
  evas_object_geometry_get(shown, &place.x, &place.y, &place.w, &place.h);
  int x = 0;
  int y = 0;
  if (on_screen)
    ecore_evas_geometry_get(ecore_evas_ecore_evas_get(evas_object_evas_get(shown)), &x, &y, nullptr, nullptr);
  place.x += x;
  place.y += y;
  return place;
}

Eina_List *actions_get(const Eo *, void *pd) {
  return static_cast<const spoken_data *>(pd)->press != nullptr ? eina_list_append(nullptr, action_name) : nullptr;
}

const char *action_name_get(const Eo *, void *, int) {
  return action_name;
}

/* As the toolkit's buttons look up theirs. */
const char *action_text_get(const Eo *, void *, int) {
  return gettext(action_name);
}

char *action_key_get(Eo *, void *, int) {
  return nullptr; /* none presses it */
}

Eina_Bool action_do(Eo *, void *pd, int id) {
  const spoken_data one = *static_cast<const spoken_data *>(pd); /* pressing may end in anything */
  if (one.press == nullptr || id != 0 || !evas_object_visible_get(one.shown)) return EINA_FALSE;
  one.press(one.data);
  return EINA_TRUE;
}

Eina_Bool class_initializer(Efl_Class *klass) {
  EFL_OPS_DEFINE(ops, EFL_OBJECT_OP_FUNC(efl_access_object_access_children_get, children_get),
                 EFL_OBJECT_OP_FUNC(efl_access_object_role_get, role_get),
                 EFL_OBJECT_OP_FUNC(efl_access_object_state_set_get, states_get),
                 EFL_OBJECT_OP_FUNC(efl_access_component_extents_get, extents_get),
                 EFL_OBJECT_OP_FUNC(efl_access_action_actions_get, actions_get),
                 EFL_OBJECT_OP_FUNC(efl_access_action_name_get, action_name_get),
                 EFL_OBJECT_OP_FUNC(efl_access_action_localized_name_get, action_text_get),
                 EFL_OBJECT_OP_FUNC(efl_access_action_description_get, action_text_get),
                 EFL_OBJECT_OP_FUNC(efl_access_action_keybinding_get, action_key_get),
                 EFL_OBJECT_OP_FUNC(efl_access_action_do, action_do));
  return efl_class_functions_set(klass, &ops, nullptr);
}

constexpr Efl_Class_Description description = {
    EO_VERSION, "Brisel.Spoken", EFL_CLASS_TYPE_REGULAR, sizeof(spoken_data), class_initializer, nullptr, nullptr};

EFL_DEFINE_CLASS(spoken_class, &description, EFL_OBJECT_CLASS, EFL_GFX_ENTITY_INTERFACE, EFL_ACCESS_OBJECT_MIXIN,
                 EFL_ACCESS_COMPONENT_MIXIN, EFL_ACCESS_ACTION_MIXIN, nullptr)

Eo *add(Eo *parent, const spoken_data &one) {
  Eo *obj = efl_add(spoken_class(), parent);
  if (obj == nullptr) {
    __dlog_print(DLOG_ERROR, log_tag, "what can be pressed is not told");
    return nullptr;
  }
  *data_of(obj) = one;
  if (!efl_isa(parent, spoken_class())) make_holder(parent);
  efl_access_added(obj);
  return obj;
}

}  // namespace

Eo *spoken_button_add(Eo *parent, Evas_Object *shown, spoken_press_cb press, void *data) {
  return add(parent, {shown, press, data, false, false});
}

Eo *spoken_group_add(Eo *parent, Evas_Object *shown) {
  return add(parent, {shown, nullptr, nullptr, false, false});
}

void spoken_set_name(Eo *button, const char *name) {
  const char *before = efl_access_object_i18n_name_get(button);
  if (before != nullptr && strcmp(before, name) == 0) return;
  const bool is_change = before != nullptr;
  efl_access_object_i18n_name_set(button, name);
  if (is_change) spoken_name_changed(button);
}

void spoken_name_changed(Eo *object) {
  static char name_property[] = "i18n_name";
  efl_access_object_event_emit(object, EFL_ACCESS_OBJECT_EVENT_PROPERTY_CHANGED, name_property);
}

void spoken_set_pressed(Eo *button, Eina_Bool is_pressed) {
  spoken_data *one = data_of(button);
  one->is_toggle = true;
  if (one->is_pressed == (is_pressed != EINA_FALSE)) return;
  one->is_pressed = is_pressed != EINA_FALSE;
  efl_access_state_changed_signal_emit(button, EFL_ACCESS_STATE_TYPE_CHECKED, is_pressed);
}
