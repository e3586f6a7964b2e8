#define EFL_BETA_API_SUPPORT /* for the class of objects that have members */
#include "keypad-find.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr int row_cost = 12; /* more than all columns */

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

int keypad_find_beside(const std::vector<Evas_Object *> &objects, size_t from, int dx, int dy) {
  std::vector<Eina_Rectangle> places(objects.size());
  for (size_t i = 0; i < objects.size(); i++)
    evas_object_geometry_get(objects[i], &places[i].x, &places[i].y, &places[i].w, &places[i].h);
  const auto middle = [&](size_t i) { return places[i].x + places[i].w / 2; };
  int best = -1, least = 0;
  for (size_t i = 0; i < objects.size(); i++) {
    const int beside = middle(i) - middle(from), below = places[i].y - places[from].y;
    const bool is_that_way = dx != 0 ? beside * dx > 0 && below == 0 : below * dy > 0;
    const int cost = std::abs(below) * row_cost + std::abs(beside);
    if (objects[i] == nullptr || !is_that_way || (best >= 0 && cost >= least)) continue;
    best = static_cast<int>(i);
    least = cost;
  }
  return best;
}
