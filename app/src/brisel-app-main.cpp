#include "brisel-app-lifecycle.h"

int main(int argc, char **argv) {
  appdata ad = {};
  app_event_callback_s callbacks = {};
  callbacks.create = app_create;
  callbacks.terminate = app_terminate;
  callbacks.pause = app_pause;
  callbacks.resume = app_resume;
  callbacks.service = app_reset;
  callbacks.language_changed = app_lang_changed;
  callbacks.region_format_changed = app_region_changed;
  return app_efl_main(&argc, &argv, &callbacks, &ad);
}
