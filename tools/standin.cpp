#define EFL_BETA_API_SUPPORT /* for the name that a screen reader says */
#include "standin.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "efl_assist.h"
#include "platform-output.h"

namespace {

void (*clicked_function)(void);

void clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  clicked_function();
}

void set_text(Evas_Object *obj, const char *text) {
  char *markup = elm_entry_utf8_to_markup(text);
  elm_object_text_set(obj, markup);
  free(markup);
}

}  // namespace

bool standin_create(standin_window *window, const char *name, void (*clicked)(void)) {
  clicked_function = clicked;
  window->win = elm_win_util_standard_add(name, name);
  if (!window->win) return false;
  app_efl_window_attach(window->win);
  evas_object_smart_callback_add(window->win, "delete,request", clicked_cb, nullptr);
  ea_object_event_callback_add(window->win, EA_CALLBACK_BACK, clicked_cb, nullptr);
  Evas_Object *background = elm_bg_add(window->win);
  evas_object_size_hint_weight_set(background, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  elm_win_resize_object_add(window->win, background);
  evas_object_show(background);

  window->popup = elm_popup_add(window->win);
  evas_object_size_hint_weight_set(window->popup, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  Evas_Object *scroller = elm_scroller_add(window->popup);
  elm_object_style_set(scroller, "effect");
  evas_object_size_hint_weight_set(scroller, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  elm_object_content_set(window->popup, scroller);
  window->text = elm_label_add(scroller);
  elm_object_style_set(window->text, "popup/default");
  elm_label_line_wrap_set(window->text, ELM_WRAP_MIXED);
  evas_object_size_hint_weight_set(window->text, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_size_hint_align_set(window->text, EVAS_HINT_FILL, EVAS_HINT_FILL);
  elm_object_content_set(scroller, window->text);
  window->button = elm_button_add(window->popup);
  elm_object_style_set(window->button, "popup");
  elm_object_part_content_set(window->popup, "button1", window->button);
  evas_object_smart_callback_add(window->button, "clicked", clicked_cb, nullptr);
  evas_object_show(window->popup);
  return true;
}

void standin_set(const standin_window *window, const char *title, const char *text, const char *button) {
  char *markup = elm_entry_utf8_to_markup(title);
  elm_object_part_text_set(window->popup, "title,text", markup);
  free(markup);
  /* A screen reader would say the toolkit's word for a popup before it, and that in its language. */
  efl_access_object_i18n_name_set(window->popup, title);
  set_text(window->text, text);
  set_text(window->button, button);
}

bool standin_options(int argc, char **argv, const char *name, const char *purpose, int *code) {
  *code = 0;
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "--version") == 0 || strcmp(argv[i], "-V") == 0) {
      printf("%s %s\n", name, BRISEL_VERSION);
      *code = platform_output_end(name, 0);
      return true;
    }
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
      printf(
          "%s\n\nUsage: %s [--service] [KEY=VALUE...]\n\n"
          "  --service   wait for the launch request that the bus brings\n"
          "  KEY=VALUE   extra data of a launch request\n"
          "  -h, --help, -V, --version\n",
          purpose, name);
      *code = platform_output_end(name, 0);
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
