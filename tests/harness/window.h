/* A real window on the buffer engine with the platform's look, and a finger on it. */
#ifndef BRISEL_HARNESS_WINDOW_H
#define BRISEL_HARNESS_WINDOW_H

#define EFL_BETA_API_SUPPORT /* for the class of objects that have members */
#include <Ecore_Evas.h>
#include <Elementary.h>

#include <functional>
#include <vector>

#include "canvas.h"
#include "loop.h"
#include "platform-paths.h"

struct test_window {
  Evas_Object *win = nullptr, *conformant = nullptr, *box = nullptr;

  explicit test_window(int w = 320, int h = 320) {
    elm_theme_overlay_add(nullptr, platform_path("/usr/apps/com.vextora.brisel/res/edje/platform.edj"));
    win = elm_win_add(nullptr, "test", ELM_WIN_BASIC);
    evas_object_resize(win, w, h);
    Evas_Object *bg = elm_bg_add(win);
    put(bg);
    elm_win_resize_object_add(win, bg);
    elm_win_conformant_set(win, EINA_TRUE);
    conformant = elm_conformant_add(win);
    put(conformant);
    elm_win_resize_object_add(win, conformant);
    box = elm_box_add(win);
    put(box);
    elm_object_content_set(conformant, box);
    evas_object_show(win);
    canvas_use(win);
  }
  ~test_window() {
    canvas_use(nullptr);
    if (win != nullptr) evas_object_del(win);
    for (int i = 0; i < 3; i++) ecore_main_loop_iterate();
  }
  test_window(const test_window &) = delete;
  test_window &operator=(const test_window &) = delete;

  Evas *canvas() const { return evas_object_evas_get(win); }

  static void put(Evas_Object *obj) {
    evas_object_size_hint_weight_set(obj, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
    evas_object_size_hint_align_set(obj, EVAS_HINT_FILL, EVAS_HINT_FILL);
    evas_object_show(obj);
  }

  /* Lays everything out and draws it, and lets what that began run once. */
  void draw() const {
    for (int i = 0; i < 3; i++) {
      ecore_main_loop_iterate();
      evas_smart_objects_calculate(canvas());
      ecore_evas_manual_render(ecore_evas_ecore_evas_get(canvas()));
    }
  }

  std::vector<unsigned> pixels() const {
    int w = 0, h = 0;
    evas_object_geometry_get(win, nullptr, nullptr, &w, &h);
    const auto *from = static_cast<const unsigned *>(ecore_evas_buffer_pixels_get(ecore_evas_ecore_evas_get(canvas())));
    return {from, from + static_cast<size_t>(w) * static_cast<size_t>(h)};
  }

  /* The harness's finger and keys, and then everything that they changed drawn. */
  void down(int x, int y) const { touch({x, y}); }
  unsigned now() const { return static_cast<unsigned>(ecore_time_get() * 1000); }
  void move(int x, int y) const { move_finger({x, y}); }
  void up() const { lift(); }
  void tap(int x, int y) const {
    down(x, y);
    up();
    draw();
  }
  void tap(Evas_Object *obj) const {
    const point at = middle_of(obj);
    tap(at.x, at.y);
  }
  void key(const char *name) const {
    ::key(name);
    draw();
  }

  /* Every visible object of the canvas, those inside others too. */
  void each(const std::function<void(Evas_Object *)> &fn) const {
    const std::function<void(Evas_Object *)> walk = [&](Evas_Object *obj) {
      if (!evas_object_visible_get(obj)) return;
      fn(obj);
      if (!efl_isa(obj, EFL_CANVAS_GROUP_CLASS)) return;
      Eina_List *members = evas_object_smart_members_get(obj);
      void *data;
      EINA_LIST_FREE(members, data) walk(static_cast<Evas_Object *>(data));
    };
    for (Evas_Object *obj = evas_object_bottom_get(canvas()); obj != nullptr; obj = evas_object_above_get(obj))
      walk(obj);
  }
};

#endif
