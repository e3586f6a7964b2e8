/* What the two stand-in applications share: a window with a popup: a title, a text and a button. */
#ifndef BRISEL_TOOLS_STANDIN_H
#define BRISEL_TOOLS_STANDIN_H

#include <Elementary.h>

#include "app_efl.h"

struct standin_window {
  Evas_Object *win = nullptr;
  Evas_Object *popup = nullptr;
  Evas_Object *text = nullptr;
  Evas_Object *button = nullptr;
};

/* Builds the window, not shown. clicked runs on the button, on the Back key and when the window is closed. False: no
   window. The widgets belong to the window. */
bool standin_create(standin_window *window, const char *name, void (*clicked)(void));
/* Each plain text. */
void standin_set(const standin_window *window, const char *title, const char *text, const char *button);
/* Answers --help and --version and says whether the program is over then; *code is its exit code. */
bool standin_options(int argc, char **argv, const char *name, const char *purpose, int *code);

#endif
