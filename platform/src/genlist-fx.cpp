#include "genlist-fx.h"

#include <Ecore.h>
#include <Edje.h>
#include <Elementary.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "brisel-settings.h"
#include "vconf.h"

/*
 * The toolkit frees a deleted row's widgets at once, and so it must be. What slides out is therefore a picture of the
 * row, taken when the mode is switched on. When it is switched off, the rows that are gone by then are known. The list
 * itself is in its final state from the first frame on and takes touches; above it, for a quarter of a second, lie
 * pictures: the old row leaving its place, and the list's lower (or, when a list at its end shrinks, upper) part moving
 * to where it is already. Any scroll, resize, hiding or deletion of the list simply takes the pictures away.
 */

namespace {

constexpr const char *DATA_KEY = "platform/genlist-fx";
constexpr double DURATION = 0.25;

struct area {
  int x = 0, y = 0, w = 0, h = 0;
};

struct picture {
  area of; /* of the canvas */
  std::vector<uint32_t> pixels;
};

struct row {
  Elm_Object_Item *item;
  area place;
};

struct effect {
  Evas_Object *genlist = nullptr;
  bool on = false;
  std::vector<row> rows; /* as they were when the mode was switched on, from top to bottom */
  picture before;

  /* While pictures are shown. */
  Ecore_Animator *first_frame = nullptr; /* until the list has its new layout */
  Ecore_Animator *run = nullptr;
  Evas_Object *clip = nullptr;
  Evas_Object *cover = nullptr; /* the old state, until the new one is known */
  Evas_Object *gap = nullptr, *ghost = nullptr, *upper = nullptr, *lower = nullptr;
  area view;           /* the rows' part of the list */
  area gone;           /* the place of the deleted rows */
  int seam = 0;        /* where the parts meet in the end */
  int upper_shift = 0; /* how far above its end the upper part begins */
};

bool motion_wanted() {
  int motion = 1;
  vconf_get_bool(BRISEL_KEY_MOTION, &motion);
  return motion != 0;
}

area area_of(const Evas_Object *obj) {
  area a;
  evas_object_geometry_get(obj, &a.x, &a.y, &a.w, &a.h);
  return a;
}

bool place_of(Elm_Object_Item *item, area *place) {
  Evas_Object *track = elm_object_item_track(item);
  if (track == nullptr) return false;
  *place = area_of(track);
  elm_object_item_untrack(item);
  return place->h > 0;
}

/* The realized rows from top to bottom; header: the bottom edge of a group header that floats at the top. */
std::vector<row> realized_rows(Evas_Object *genlist, int *header) {
  std::vector<row> rows;
  Eina_List *items = elm_genlist_realized_items_get(genlist);
  void *data;
  EINA_LIST_FREE(items, data) {
    row one{static_cast<Elm_Object_Item *>(data), {}};
    if (!place_of(one.item, &one.place)) continue;
    if (elm_genlist_item_type_get(one.item) == ELM_GENLIST_ITEM_GROUP) {
      *header = std::max(*header, one.place.y + one.place.h);
    } else {
      rows.push_back(one);
    }
  }
  std::sort(rows.begin(), rows.end(), [](const row &a, const row &b) { return a.place.y < b.place.y; });
  return rows;
}

/* What is drawn in that area up to and with the list, without what lies above it. False when the engine cannot tell. */
bool take_picture(effect *fx, const area &of, picture *result) {
  Evas *canvas = evas_object_evas_get(fx->genlist);
  Evas_Object *snapshot = evas_object_image_filled_add(canvas);
  evas_object_image_snapshot_set(snapshot, EINA_TRUE);
  evas_object_image_size_set(snapshot, of.w, of.h);
  evas_object_geometry_set(snapshot, of.x, of.y, of.w, of.h);
  evas_object_pass_events_set(snapshot, EINA_TRUE);
  evas_object_smart_member_add(snapshot, fx->genlist);
  if (fx->cover != nullptr) evas_object_stack_below(snapshot, fx->cover);
  evas_object_show(snapshot);
  evas_sync(canvas);
  evas_render(canvas);

  int width = 0;
  int height = 0;
  evas_object_image_size_get(snapshot, &width, &height);
  const int stride = evas_object_image_stride_get(snapshot);
  const void *data = evas_object_image_data_get(snapshot, EINA_FALSE);
  const bool good = data != nullptr && width == of.w && height == of.h && stride >= of.w * 4;
  if (good) {
    result->of = of;
    result->pixels.resize(static_cast<size_t>(of.w) * static_cast<size_t>(of.h));
    for (int y = 0; y < of.h; y++) {
      memcpy(result->pixels.data() + static_cast<size_t>(y) * static_cast<size_t>(of.w),
             static_cast<const char *>(data) + static_cast<size_t>(y) * static_cast<size_t>(stride),
             static_cast<size_t>(of.w) * 4);
    }
  }
  evas_object_del(snapshot);
  return good;
}

Evas_Object *add_member(effect *fx, Evas_Object *obj) {
  evas_object_pass_events_set(obj, EINA_TRUE);
  evas_object_smart_member_add(obj, fx->genlist);
  evas_object_clip_set(obj, fx->clip);
  evas_object_show(obj);
  return obj;
}

/* A picture object of the part of a picture that lies in that area; NULL when none does. */
Evas_Object *show_part(effect *fx, const picture &from, area part) {
  const int top = std::max(part.y, from.of.y);
  const int bottom = std::min(part.y + part.h, from.of.y + from.of.h);
  if (bottom <= top || from.of.w <= 0) return nullptr;
  Evas_Object *image = evas_object_image_filled_add(evas_object_evas_get(fx->genlist));
  evas_object_image_size_set(image, from.of.w, bottom - top);
  /* Marked as see-through though it is not: a list below an opaque object would not be drawn for the next picture. */
  evas_object_image_alpha_set(image, EINA_TRUE);
  const uint32_t *first = from.pixels.data() + static_cast<size_t>(top - from.of.y) * static_cast<size_t>(from.of.w);
  evas_object_image_data_copy_set(image, const_cast<uint32_t *>(first));
  evas_object_geometry_set(image, from.of.x, top, from.of.w, bottom - top);
  return add_member(fx, image);
}

void end_effect(effect *fx);

void disturbed_cb(void *data, Evas_Object *, void *) {
  end_effect(static_cast<effect *>(data));
}

void geometry_cb(void *data, Evas *, Evas_Object *, void *) {
  end_effect(static_cast<effect *>(data));
}

void end_effect(effect *fx) {
  if (fx->clip == nullptr) return;
  evas_object_smart_callback_del_full(fx->genlist, "scroll", disturbed_cb, fx);
  for (const Evas_Callback_Type type : {EVAS_CALLBACK_MOVE, EVAS_CALLBACK_RESIZE, EVAS_CALLBACK_HIDE})
    evas_object_event_callback_del_full(fx->genlist, type, geometry_cb, fx);
  for (Ecore_Animator **one : {&fx->first_frame, &fx->run}) {
    if (*one != nullptr) ecore_animator_del(*one);
    *one = nullptr;
  }
  for (Evas_Object **one : {&fx->cover, &fx->gap, &fx->ghost, &fx->upper, &fx->lower, &fx->clip}) {
    if (*one != nullptr) evas_object_del(*one);
    *one = nullptr;
  }
  fx->before = {};
  fx->rows.clear();
}

void place(effect *fx, double position) {
  const double eased = ecore_animator_pos_map(position, ECORE_POS_MAP_DECELERATE, 0.0, 0.0);
  const int upper_rest = static_cast<int>(fx->upper_shift * (1.0 - eased));
  const int lower_rest = static_cast<int>((fx->gone.h - fx->upper_shift) * (1.0 - eased));
  if (fx->upper != nullptr) evas_object_move(fx->upper, fx->view.x, fx->view.y - upper_rest);
  if (fx->lower != nullptr) evas_object_move(fx->lower, fx->view.x, fx->seam + lower_rest);
  const int top = fx->seam - upper_rest;
  evas_object_geometry_set(fx->gap, fx->view.x, top, fx->view.w, lower_rest + upper_rest);
  if (fx->ghost == nullptr) return;
  /* The row leaves towards the side at which lines begin, and is gone a little before the gap is. */
  const double left = std::min(1.0, eased * 1.2);
  const int side = elm_object_mirrored_get(fx->genlist) ? 1 : -1;
  const int alpha = static_cast<int>(255 * (1.0 - left));
  evas_object_move(fx->ghost, fx->view.x + side * static_cast<int>(fx->view.w * left), fx->gone.y);
  evas_object_color_set(fx->ghost, alpha, alpha, alpha, alpha);
}

Eina_Bool run_cb(void *data, double position) {
  auto *fx = static_cast<effect *>(data);
  if (position < 1.0) {
    place(fx, position);
    return ECORE_CALLBACK_RENEW;
  }
  fx->run = nullptr; /* it ends with this callback */
  end_effect(fx);
  return ECORE_CALLBACK_CANCEL;
}

/* Where the rows around the gap meet in the list's new layout; -1 when none of them is to be seen any more. */
int find_seam(const effect *fx) {
  int header = 0;
  const std::vector<row> now = realized_rows(fx->genlist, &header);
  int seam = -1;
  for (const row &old : fx->rows) {
    const auto same = std::find_if(now.begin(), now.end(), [&old](const row &one) { return one.item == old.item; });
    if (same == now.end()) continue;
    if (old.place.y < fx->gone.y) {
      seam = same->place.y + same->place.h; /* the nearest above comes last */
    } else if (seam < 0) {
      return same->place.y;
    }
  }
  return seam;
}

Eina_Bool first_frame_cb(void *data) {
  auto *fx = static_cast<effect *>(data);
  fx->first_frame = nullptr; /* it ends with this callback */
  evas_smart_objects_calculate(evas_object_evas_get(fx->genlist));
  fx->seam = find_seam(fx);
  fx->upper_shift = std::clamp(fx->seam - fx->gone.y, 0, fx->gone.h);
  picture after;
  if (fx->seam < 0 || !take_picture(fx, fx->view, &after)) {
    end_effect(fx);
    return ECORE_CALLBACK_CANCEL;
  }
  const int view_end = fx->view.y + fx->view.h;
  fx->gap = add_member(fx, evas_object_rectangle_add(evas_object_evas_get(fx->genlist)));
  int r = 0, g = 0, b = 0, a = 255;
  edje_object_color_class_get(elm_layout_edje_get(fx->genlist), "brisel/bg", &r, &g, &b, &a, nullptr, nullptr, nullptr,
                              nullptr, nullptr, nullptr, nullptr, nullptr);
  evas_object_color_set(fx->gap, r, g, b, 255);
  fx->ghost = show_part(fx, fx->before, fx->gone);
  if (fx->upper_shift > 0)
    fx->upper = show_part(fx, after, {fx->view.x, fx->view.y, fx->view.w, fx->seam - fx->view.y});
  fx->lower = show_part(fx, after, {fx->view.x, fx->seam, fx->view.w, view_end - fx->seam});
  if (fx->cover != nullptr) evas_object_del(fx->cover);
  fx->cover = nullptr;
  place(fx, 0.0);
  evas_object_smart_callback_add(fx->genlist, "scroll", disturbed_cb, fx);
  fx->run = ecore_animator_timeline_add(DURATION, run_cb, fx);
  return ECORE_CALLBACK_CANCEL;
}

void start_effect(effect *fx, const area &gone) {
  fx->gone = gone;
  fx->view = fx->before.of;
  fx->clip = evas_object_rectangle_add(evas_object_evas_get(fx->genlist));
  evas_object_geometry_set(fx->clip, fx->view.x, fx->view.y, fx->view.w, fx->view.h);
  evas_object_smart_member_add(fx->clip, fx->genlist);
  evas_object_pass_events_set(fx->clip, EINA_TRUE);
  if (evas_object_clip_get(fx->genlist) != nullptr) evas_object_clip_set(fx->clip, evas_object_clip_get(fx->genlist));
  evas_object_show(fx->clip);
  /* The list takes its new layout before the next frame; until its picture can be taken, the old state stays. */
  fx->cover = show_part(fx, fx->before, fx->view);
  for (const Evas_Callback_Type type : {EVAS_CALLBACK_MOVE, EVAS_CALLBACK_RESIZE, EVAS_CALLBACK_HIDE})
    evas_object_event_callback_add(fx->genlist, type, geometry_cb, fx);
  fx->first_frame = ecore_animator_add(first_frame_cb, fx);
}

/* The place of the rows that were deleted: false unless they are some that followed each other. */
bool find_gone(const effect *fx, area *gone) {
  int header = 0;
  const std::vector<row> now = realized_rows(fx->genlist, &header);
  int end = -1;
  for (const row &old : fx->rows) {
    const bool kept = std::any_of(now.begin(), now.end(), [&old](const row &one) { return one.item == old.item; });
    if (kept) continue;
    if (end >= 0 && old.place.y != end) return false;
    if (end < 0) *gone = old.place;
    end = old.place.y + old.place.h;
    gone->h = end - gone->y;
  }
  return end >= 0;
}

void switch_on(effect *fx) {
  end_effect(fx);
  if (!motion_wanted() || !evas_object_visible_get(fx->genlist)) return;
  area view = area_of(fx->genlist);
  int header = view.y;
  fx->rows = realized_rows(fx->genlist, &header);
  view.h -= std::max(0, header - view.y);
  view.y = std::max(view.y, header);
  if (fx->rows.empty() || view.w <= 0 || view.h <= 0 || !take_picture(fx, view, &fx->before)) fx->rows.clear();
}

void switch_off(effect *fx) {
  area gone;
  if (!fx->rows.empty() && evas_object_visible_get(fx->genlist) && find_gone(fx, &gone)) {
    start_effect(fx, gone);
  } else {
    fx->rows.clear();
    fx->before = {};
  }
}

void genlist_deleted_cb(void *data, Evas *, Evas_Object *, void *) {
  auto *fx = static_cast<effect *>(data);
  end_effect(fx);
  delete fx;
}

}  // namespace

void elm_genlist_fx_mode_set(Evas_Object *genlist, Eina_Bool on) {
  if (genlist == nullptr) return;
  auto *fx = static_cast<effect *>(evas_object_data_get(genlist, DATA_KEY));
  if (fx == nullptr) {
    if (!on) return;
    fx = new effect;
    fx->genlist = genlist;
    evas_object_data_set(genlist, DATA_KEY, fx);
    evas_object_event_callback_add(genlist, EVAS_CALLBACK_DEL, genlist_deleted_cb, fx);
  }
  if (fx->on == (on != EINA_FALSE)) return;
  fx->on = on != EINA_FALSE;
  if (fx->on) {
    switch_on(fx);
  } else {
    switch_off(fx);
  }
}

Eina_Bool elm_genlist_fx_mode_get(const Evas_Object *genlist) {
  if (genlist == nullptr) return EINA_FALSE;
  const auto *fx = static_cast<const effect *>(evas_object_data_get(genlist, DATA_KEY));
  return fx != nullptr && fx->on ? EINA_TRUE : EINA_FALSE;
}
