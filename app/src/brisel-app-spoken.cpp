/* What a screen reader is told: names, which row is ticked, and of what lies on top of each other only what can be
   seen. Owns the list of open popups. Every screen calls it; where nobody listens it does next to nothing. */
#define EFL_BETA_API_SUPPORT        /* for names */
#define EFL_ACCESS_OBJECT_PROTECTED /* to tell of what comes and goes */
#include "brisel-app-spoken.h"

#include <cstring>
#include <string>

#include "brisel-app-data.h"
#include "brisel-scoped.h"
#include "spoken.h"

bool brisel_view_is_spoken() {
  return elm_config_atspi_mode_get();
}

void brisel_view_set_spoken_name(Eo *object, const char *name) {
  efl_access_object_i18n_name_set(object, name);
}

void brisel_view_set_spoken_id(Eo *object, const char *id) {
  efl_access_object_i18n_name_set(object, id);
  efl_access_object_translation_domain_set(object, BRISEL_DOMAIN);
}

const char *brisel_view_spoken_name(Evas_Object *widget) {
  const char *name = efl_access_object_i18n_name_get(widget);
  return name && *name ? name : nullptr;
}

void brisel_view_set_spoken(Eo *object, bool is_spoken) {
  const Efl_Access_Type type = is_spoken ? EFL_ACCESS_TYPE_REGULAR : EFL_ACCESS_TYPE_DISABLED;
  if (efl_access_object_access_type_get(object) == type) return;
  efl_access_object_access_type_set(object, type);
  efl_access_object_event_emit(object, is_spoken ? EFL_ACCESS_OBJECT_EVENT_ADDED : EFL_ACCESS_OBJECT_EVENT_REMOVED,
                               nullptr);
}

/* --- rows --- */

/* The toolkit names a row from its drawing, and one that is not drawn yet not at all. */
void brisel_view_name_row(Elm_Object_Item *row) {
  if (!row || !brisel_view_is_spoken()) return;
  const Elm_Genlist_Item_Class *row_class = elm_genlist_item_item_class_get(row);
  std::string name, last;
  for (const char *part : {"elm.text", "elm.text.1", "elm.text.2"}) {
    const scoped_text markup(
        row_class->func.text_get(elm_object_item_data_get(row), elm_object_item_widget_get(row), part));
    const scoped_text plain(markup ? elm_entry_markup_to_utf8(markup.get()) : nullptr);
    /* A row that goes by two classes has its first text under two names. */
    if (!plain || !*plain || last == plain.get()) continue;
    last = plain.get();
    name.append(name.empty() ? "" : ", ").append(last);
  }
  brisel_view_set_spoken_name(row, name.c_str());
}

void brisel_view_name_rows(Evas_Object *list) {
  if (!brisel_view_is_spoken()) return;
  for (Elm_Object_Item *row = elm_genlist_first_item_get(list); row; row = elm_genlist_item_next_get(row))
    brisel_view_name_row(row);
}

void brisel_view_say_tick(Elm_Object_Item *row, bool is_ticked) {
  if (brisel_view_is_spoken()) efl_access_state_changed_signal_emit(row, EFL_ACCESS_STATE_TYPE_CHECKED, is_ticked);
}

void brisel_view_say(Eo *object) {
  if (brisel_view_is_spoken()) efl_access_state_changed_signal_emit(object, EFL_ACCESS_STATE_TYPE_FOCUSED, EINA_TRUE);
}

void brisel_view_say_name(Eo *object) {
  if (brisel_view_is_spoken()) spoken_name_changed(object);
}

void brisel_view_announce(Evas_Object *widget) {
  if (!brisel_view_is_spoken()) return;
  efl_access_object_role_set(widget, EFL_ACCESS_ROLE_NOTIFICATION);
  efl_access_state_changed_signal_emit(widget, EFL_ACCESS_STATE_TYPE_SHOWING, EINA_TRUE);
}

/* --- popups --- */

static Eina_List *popups;
static void (*tell_below)(bool is_covered);

static void _tell() {
  if (!brisel_view_is_spoken()) return;
  Eina_List *cell;
  void *popup;
  EINA_LIST_FOREACH(popups, cell, popup) brisel_view_set_spoken((Eo *)popup, !eina_list_next(cell));
  if (tell_below) tell_below(popups != nullptr);
}

void brisel_view_tell(void (*below)(bool is_covered)) {
  tell_below = below;
  _tell();
}

static void _tell_job_cb(void *data) {
  _tell();
}

/* Not from inside its end: what is below may be going with it. */
static void _popup_gone_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  popups = eina_list_remove(popups, obj);
  ecore_job_add(_tell_job_cb, nullptr);
}

void brisel_view_tell_popup(Evas_Object *popup) {
  popups = eina_list_append(popups, popup);
  evas_object_event_callback_add(popup, EVAS_CALLBACK_DEL, _popup_gone_cb, nullptr);
  _tell();
}
