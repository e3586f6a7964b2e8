#include <Ecore_Evas.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "inspect-priv.h"

namespace {

bool save(Evas_Object *image, const char *file) {
  /* Written beside and renamed, so that a reader never sees half a picture. */
  const std::string part = std::string(file) + ".part.png";
  /* The toolkit would tell of a place that cannot be written to in thirty lines. */
  FILE *out = fopen(part.c_str(), "wb");
  if (!out) return false;
  fclose(out);
  if (evas_object_image_save(image, part.c_str(), nullptr, "compress=5") && rename(part.c_str(), file) == 0)
    return true;
  unlink(part.c_str());
  return false;
}

/* A canvas in memory: its own pixels. */
bool save_pixels(Ecore_Evas *ee, const void *pixels, const char *file) {
  int w;
  int h;
  ecore_evas_geometry_get(ee, nullptr, nullptr, &w, &h);
  Ecore_Evas *own = ecore_evas_buffer_new(1, 1);
  if (!own) return false;
  Evas_Object *image = evas_object_image_add(ecore_evas_get(own));
  evas_object_image_alpha_set(image, ecore_evas_alpha_get(ee));
  evas_object_image_size_set(image, w, h);
  void *copy = evas_object_image_data_get(image, EINA_TRUE);
  bool saved = false;
  if (copy) {
    const size_t line = static_cast<size_t>(w) * 4;
    const auto stride = static_cast<size_t>(evas_object_image_stride_get(image));
    for (int y = 0; y < h; y++)
      memcpy(static_cast<char *>(copy) + static_cast<size_t>(y) * stride,
             static_cast<const char *>(pixels) + static_cast<size_t>(y) * line, line);
    evas_object_image_data_set(image, copy);
    evas_object_image_data_update_add(image, 0, 0, w, h);
    saved = save(image, file);
  }
  evas_object_del(image);
  ecore_evas_free(own);
  return saved;
}

/* Any other: the canvas draws itself once more, into an image that lies over everything else. */
bool save_snapshot(Evas *evas, int w, int h, const char *file) {
  Evas_Object *image = evas_object_image_filled_add(evas);
  evas_object_image_snapshot_set(image, EINA_TRUE);
  evas_object_geometry_set(image, 0, 0, w, h);
  evas_object_layer_set(image, EVAS_LAYER_MAX);
  evas_object_pass_events_set(image, EINA_TRUE);
  evas_object_show(image);
  evas_damage_rectangle_add(evas, 0, 0, w, h);
  evas_render(evas);
  const bool saved = save(image, file);
  evas_object_del(image);
  return saved;
}

}  // namespace

std::string inspect_screenshot(Evas_Object *window, const char *file) {
  Evas *evas = evas_object_evas_get(window);
  Ecore_Evas *ee = ecore_evas_ecore_evas_get(evas);
  int w;
  int h;
  evas_output_size_get(evas, &w, &h);
  ecore_evas_manual_render(ee);
  const void *pixels = nullptr;
  if (strcmp(ecore_evas_engine_name_get(ee), "buffer") == 0) pixels = ecore_evas_buffer_pixels_get(ee);
  const bool saved = pixels ? save_pixels(ee, pixels, file) : save_snapshot(evas, w, h, file);
  return saved ? "" : std::string("the picture cannot be written to ") + file;
}
