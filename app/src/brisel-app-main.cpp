#include <cstdio>
#include <cstring>

#include "brisel-app-lifecycle.h"
#include "platform-output.h"

/* Answered without a display, a bus or the toolkit. Whether argument was one of these. */
static bool answer_at_once(const char *argument) {
  if (!strcmp(argument, "--version") || !strcmp(argument, "-V")) {
    puts("brisel " BRISEL_VERSION);
    return true;
  }
  if (strcmp(argument, "--help") != 0 && strcmp(argument, "-h") != 0) return false;
  puts(
      "Usage: brisel [--service|--prepare] [KEY=VALUE...]\n"
      "Shows the mail that a phone relays to this device. A second start brings the first one to the front.\n\n"
      "  brisel_id=NUMBER  open this mail\n"
      "  --service         started by the bus: wait for its request\n"
      "  --prepare         get ready out of sight; the first start or launch shows it\n"
      "  -h, --help        this text\n"
      "  -V, --version     the version");
  return true;
}

int main(int argc, char **argv) {
  for (int i = 1; i < argc; i++)
    if (answer_at_once(argv[i])) return platform_output_end("brisel", 0);
  appdata ad = {};
  app_event_callback_s callbacks = {};
  callbacks.create = app_create;
  callbacks.terminate = app_terminate;
  callbacks.pause = app_pause;
  callbacks.resume = app_resume;
  callbacks.service = app_reset;
  callbacks.language_changed = app_lang_changed;
  callbacks.region_format_changed = app_region_changed;
  callbacks.prepare = app_prepare;
  callbacks.starting = app_starting;
  return app_efl_main(&argc, &argv, &callbacks, &ad);
}
