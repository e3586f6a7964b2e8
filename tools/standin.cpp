#include "standin.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "efl_assist.h"

namespace {

void (*clicked_function)(void);

void clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  clicked_function();
}

void set_text(Evas_Object *obj, const char *text) {
  if (!text) return;
  char *markup = elm_entry_utf8_to_markup(text);
  elm_object_text_set(obj, markup);
  free(markup);
}

Evas_Object *add_label(Evas_Object *win, Evas_Object *box) {
  Evas_Object *label = elm_label_add(win);
  elm_object_style_set(label, "popup/default");
  elm_label_line_wrap_set(label, ELM_WRAP_MIXED);
  evas_object_size_hint_weight_set(label, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_size_hint_align_set(label, EVAS_HINT_FILL, 0.5);
  elm_box_pack_end(box, label);
  evas_object_show(label);
  return label;
}

}  // namespace

bool standin_create(standin_window *window, const char *name, void (*clicked)(void)) {
  clicked_function = clicked;
  window->win = elm_win_util_standard_add(name, name);
  if (!window->win) return false;
  app_efl_window_attach(window->win);
  evas_object_smart_callback_add(window->win, "delete,request", clicked_cb, nullptr);
  ea_object_event_callback_add(window->win, EA_CALLBACK_BACK, clicked_cb, nullptr);
  Evas_Object *box = elm_box_add(window->win);
  evas_object_size_hint_weight_set(box, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  elm_box_padding_set(box, 0, static_cast<Evas_Coord>(12 * elm_config_scale_get()));
  elm_win_resize_object_add(window->win, box);
  evas_object_show(box);
  window->title = add_label(window->win, box);
  window->text = add_label(window->win, box);
  window->button = elm_button_add(window->win);
  elm_object_style_set(window->button, "popup");
  evas_object_size_hint_weight_set(window->button, EVAS_HINT_EXPAND, 0.0);
  evas_object_size_hint_align_set(window->button, EVAS_HINT_FILL, 1.0);
  evas_object_size_hint_min_set(window->button, 0, static_cast<Evas_Coord>(64 * elm_config_scale_get()));
  evas_object_smart_callback_add(window->button, "clicked", clicked_cb, nullptr);
  elm_box_pack_end(box, window->button);
  evas_object_show(window->button);
  return true;
}

void standin_set(const standin_window *window, const char *title, const char *text, const char *button) {
  set_text(window->title, title);
  set_text(window->text, text);
  set_text(window->button, button);
}

bool standin_options(int argc, char **argv, const char *name, const char *purpose, int *code) {
  *code = 0;
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "--version") == 0) {
      printf("%s %s\n", name, BRISEL_VERSION);
      return true;
    }
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
      printf(
          "%s\n\nUsage: %s [--service] [KEY=VALUE...]\n\n"
          "  --service   wait for the launch request that the bus brings\n"
          "  KEY=VALUE   extra data of a launch request\n",
          purpose, name);
      return true;
    }
    if (argv[i][0] == '-' && strcmp(argv[i], "--service") != 0) {
      fprintf(stderr, "%s: unknown option %s\n", name, argv[i]);
      *code = 2;
      return true;
    }
  }
  return false;
}
