#define EFL_BETA_API_SUPPORT /* for the class of objects that have members */
#include "keypad-find.h"

#include <cstring>

namespace {

bool is_type(const Evas_Object *obj, const char *type) {
  const char *name = obj != nullptr ? evas_object_type_get(obj) : nullptr;
  return name != nullptr && strcmp(name, type) == 0;
}

/* The topmost visible object in or below obj that is one of those wanted. */
Evas_Object *find_in(Evas_Object *obj, bool (*wanted)(Evas_Object *)) {
  if (!evas_object_visible_get(obj)) return nullptr;
  if (wanted(obj)) return obj;
  /* A plain shape has no members and complains when asked for them. */
  if (!efl_isa(obj, EFL_CANVAS_GROUP_CLASS)) return nullptr;
  Evas_Object *found = nullptr;
  Eina_List *members = evas_object_smart_members_get(obj);
  void *data;
  EINA_LIST_FREE(members, data) {
    Evas_Object *hit = find_in(static_cast<Evas_Object *>(data), wanted);
    if (hit != nullptr) found = hit;
  }
  return found;
}

}  // namespace

bool keypad_is_editable_entry(Evas_Object *obj) {
  return is_type(obj, "elm_entry") && elm_entry_editable_get(obj);
}

bool keypad_is_conformant(Evas_Object *obj) {
  return is_type(obj, "elm_conformant");
}

/* A window's content is not below the window but beside it on its canvas. */
Evas_Object *keypad_find(Evas_Object *win, bool (*wanted)(Evas_Object *)) {
  Evas_Object *found = nullptr;
  for (Evas_Object *obj = evas_object_top_get(evas_object_evas_get(win)); obj != nullptr && found == nullptr;
       obj = evas_object_below_get(obj))
    found = find_in(obj, wanted);
  return found;
}
