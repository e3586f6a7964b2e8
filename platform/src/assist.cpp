#include <algorithm>
#include <vector>

#include "app-priv.h"
#include "dlog.h"

namespace {

struct registration {
  Evas_Object *obj;
  Ea_Callback_Type type;
  Ea_Event_Cb callback;
  void *data;
};

/* The newest last. */
std::vector<registration> registrations;

struct key_name {
  const char *key;
  Ea_Callback_Type type;
};
constexpr key_name keys[] = {{"XF86Back", EA_CALLBACK_BACK},
                             {"Escape", EA_CALLBACK_BACK},
                             {"Menu", EA_CALLBACK_MORE},
                             {"F10", EA_CALLBACK_MORE}};

constexpr char grab_key[] = "brisel/assist/grab";

/* In sight as far as the widget tree knows: a page below the top of a view stack is hidden by its stack. */
bool object_shown(Evas_Object *obj) {
  for (Evas_Object *o = obj; o; o = evas_object_smart_parent_get(o))
    if (!evas_object_visible_get(o)) return false;
  for (Evas_Object *o = evas_object_clip_get(obj); o; o = evas_object_clip_get(o))
    if (!evas_object_visible_get(o)) return false;
  return true;
}

void grab_key_down_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  const auto *event = static_cast<Evas_Event_Key_Down *>(event_info);
  for (const key_name &name : keys)
    if (event->key && strcmp(event->key, name.key) == 0) {
      ea_dispatch(name.type);
      return;
    }
}

/* The keys are grabbed from the canvas, so that they arrive whatever has the focus and on every engine. The grabbing
   object is never seen; it dies with the canvas. */
void grab_keys(Evas *evas) {
  if (evas_object_name_find(evas, grab_key)) return;
  Evas_Object *grab = evas_object_rectangle_add(evas);
  evas_object_name_set(grab, grab_key);
  evas_object_event_callback_add(grab, EVAS_CALLBACK_KEY_DOWN, grab_key_down_cb, nullptr);
  for (const key_name &name : keys)
    if (!evas_object_key_grab(grab, name.key, 0, 0, EINA_TRUE))
      __dlog_print(DLOG_WARN, app_log_tag, "the key %s cannot be taken", name.key);
}

void object_del_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  std::erase_if(registrations, [obj](const registration &r) { return r.obj == obj; });
}

}  // namespace

bool ea_dispatch(Ea_Callback_Type type) {
  for (size_t i = registrations.size(); i > 0; i--) {
    const registration r = registrations[i - 1];
    if (r.type != type || !object_shown(r.obj)) continue;
    r.callback(r.data, r.obj, nullptr);
    return true;
  }
  return false;
}

void ea_object_event_callback_add(Evas_Object *obj, Ea_Callback_Type type, Ea_Event_Cb callback, void *data) {
  if (!obj || !callback) return;
  ea_object_event_callback_del(obj, type, callback);
  bool known = false;
  for (const registration &r : registrations) known = known || r.obj == obj;
  if (!known) evas_object_event_callback_add(obj, EVAS_CALLBACK_DEL, object_del_cb, nullptr);
  registrations.push_back({obj, type, callback, data});
  grab_keys(evas_object_evas_get(obj));
}

void *ea_object_event_callback_del(Evas_Object *obj, Ea_Callback_Type type, Ea_Event_Cb callback) {
  for (size_t i = 0; i < registrations.size(); i++) {
    const registration r = registrations[i];
    if (r.obj != obj || r.type != type || r.callback != callback) continue;
    registrations.erase(registrations.begin() + static_cast<long>(i));
    bool known = false;
    for (const registration &other : registrations) known = known || other.obj == obj;
    if (!known) evas_object_event_callback_del(obj, EVAS_CALLBACK_DEL, object_del_cb);
    return r.data;
  }
  return nullptr;
}
