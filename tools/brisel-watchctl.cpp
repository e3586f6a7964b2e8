/* brisel-watchctl: the watch around the application: its keys, settings and contacts, and a finger and an eye. Owns the
   command line; what the commands do is in watchctl-bus.cpp and watchctl-data.cpp. */
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "pickover.h"
#include "platform-output.h"
#include "vconf.h"
#include "watchctl.h"

namespace {

/* What the command line gives; the commands run while it is read. */
struct arguments {
  int code = 0;
  bool as_json = false, reset = false;
  std::vector<std::string> pairs;
  std::string key, type, value, text;
  int x = 0, y = 0, x2 = 0, y2 = 0, button = 0, notches = 0;
  double number = 0.0;
  double drag_seconds = 0.3, pinch_seconds = 0.4;
};

/* A number between two, both included. What is none at all is left to whoever reads the argument. */
CLI::Validator between(double least, double most) {
  char range[64];
  snprintf(range, sizeof(range), "%.10g to %.10g", least, most);
  return CLI::Validator(
      [least, most, wanted = std::string(range)](std::string &text) {
        char *end = nullptr;
        const double value = strtod(text.c_str(), &end);
        return *end || (value >= least && value <= most) ? "" : text + " not in range " + wanted;
      },
      range);
}

void add_key(CLI::App *cmd, arguments *a) {
  cmd->add_option("KEY", a->key)->required()->check([](const std::string &key) {
    return vconf_key_valid(key.c_str()) ? "" : "'" + key + "' can be no setting's key";
  });
}

void add_setting_commands(CLI::App *app, arguments *a) {
  auto *setting = app->add_subcommand("setting", "the settings store")->require_subcommand(1);
  auto *cmd = setting->add_subcommand("get", "print a setting's value");
  add_key(cmd, a);
  cmd->add_flag("--json", a->as_json, "with its key and type, as JSON");
  cmd->callback([a] { a->code = setting_get(a->key, a->as_json); });
  cmd = setting->add_subcommand("set", "write a setting");
  add_key(cmd, a);
  cmd->add_option("TYPE", a->type)->required()->check(CLI::IsMember({"bool", "int", "string"}));
  cmd->add_option("VALUE", a->value)->required();
  cmd->callback([a] { a->code = setting_set(a->key, a->type, a->value); });
  cmd = setting->add_subcommand("unset", "remove a setting");
  add_key(cmd, a);
  cmd->callback(
      [a] { a->code = vconf_unset(a->key.c_str()) == 0 ? 0 : fail("the setting " + a->key + " cannot be removed"); });
  cmd = setting->add_subcommand("list", "print every setting: key, type, value");
  cmd->add_flag("--json", a->as_json, "as JSON");
  cmd->callback([a] { a->code = setting_list(a->as_json); });
}

void add_contact_commands(CLI::App *app, arguments *a) {
  auto *contact = app->add_subcommand("contact", "the contacts")->require_subcommand(1);
  auto *cmd = contact->add_subcommand("import", "add the persons of a vCard file; prints how many are new");
  cmd->add_option("FILE", a->text)->required();
  cmd->callback([a] { a->code = contact_import(a->text); });
  cmd = contact->add_subcommand("list", "print every person as one JSON line");
  cmd->add_flag("--json", a->as_json, "as one JSON list");
  cmd->callback([a] { a->code = contact_list(a->as_json); });
  cmd = contact->add_subcommand("remove", "remove the persons who have an address; prints how many");
  cmd->add_option("ADDRESS", a->text)->required();
  cmd->callback([a] { a->code = contact_remove(a->text); });
}

/* A command that calls the application without arguments. */
void add_plain_command(CLI::App *app, arguments *a, const char *name, const char *about, const char *method) {
  app->add_subcommand(name, about)->callback([a, method] {
    a->code = call(application_interface, method, answer_seconds, "");
  });
}

void add_watch_commands(CLI::App *app, arguments *a) {
  auto *cmd = app->add_subcommand("launch", "start the application or hand it a launch request; returns once handled");
  cmd->add_option("KEY=VALUE", a->pairs, "extra data of the request");
  cmd->callback([a] { a->code = launch(a->pairs); });
  cmd = app->add_subcommand("key", "press a hardware key");
  cmd->add_option("KEY", a->key)->required()->check(CLI::IsMember({"back", "more"}));
  cmd->callback([a] { a->code = call(application_interface, "Key", answer_seconds, "s", a->key.c_str()); });
  add_setting_commands(app, a);
  add_contact_commands(app, a);
  cmd = app->add_subcommand("keypad", "show or hide the virtual keypad");
  cmd->add_option("ACTION", a->key)->required()->check(CLI::IsMember({"show", "hide"}));
  cmd->callback([a] { a->code = call(application_interface, "Keypad", answer_seconds, "b", a->key == "show"); });
  app->add_subcommand("pickover", "let the phone take over what is on screen")->callback([a] {
    a->code = pickover_take_over() == 0 ? 0 : fail("nothing on screen is offered to the phone");
  });
  add_plain_command(app, a, "pause", "send the application to the background", "Pause");
  add_plain_command(app, a, "resume", "bring the application to the front", "Resume");
  app->add_subcommand("quit", "end the application; returns when it has ended")->callback([a] { a->code = quit(); });
  cmd = app->add_subcommand("timezone", "move the session to a time zone, like Europe/Berlin");
  cmd->add_option("ZONE", a->text)->required();
  cmd->callback([a] { a->code = timezone_set(a->text); });
}

constexpr char inspection[] = "Inspection";

CLI::App *add_touch(CLI::App *app, arguments *a, const char *name, const char *about) {
  auto *cmd = app->add_subcommand(name, about)->group(inspection);
  cmd->add_option("X", a->x, "pixels from the left")->required()->check(between(0, INT32_MAX));
  cmd->add_option("Y", a->y, "pixels from the top")->required()->check(between(0, INT32_MAX));
  return cmd;
}

void add_finger_commands(CLI::App *app, arguments *a) {
  const CLI::Validator seconds = between(0.0, 60.0);
  add_touch(app, a, "tap", "touch a point shortly")->callback([a] {
    a->code = call(inspect_interface, "Tap", answer_seconds, "ii", a->x, a->y);
  });
  auto *cmd = add_touch(app, a, "press", "touch a point for some seconds");
  cmd->add_option("SECONDS", a->number)->required()->check(seconds);
  cmd->callback(
      [a] { a->code = call(inspect_interface, "Press", answer_seconds + a->number, "iid", a->x, a->y, a->number); });
  add_touch(app, a, "doubletap", "touch a point twice")->callback([a] {
    a->code = call(inspect_interface, "DoubleTap", answer_seconds, "ii", a->x, a->y);
  });
  cmd = app->add_subcommand("drag", "move a finger from one point to another")->group(inspection);
  cmd->add_option("X1", a->x)->required()->check(between(0, INT32_MAX));
  cmd->add_option("Y1", a->y)->required()->check(between(0, INT32_MAX));
  cmd->add_option("X2", a->x2)->required();
  cmd->add_option("Y2", a->y2)->required();
  cmd->add_option("SECONDS", a->drag_seconds, "how long it takes")->check(seconds)->capture_default_str();
  cmd->callback([a] {
    a->code = call(inspect_interface, "Drag", answer_seconds + a->drag_seconds, "iiiid", a->x, a->y, a->x2, a->y2,
                   a->drag_seconds);
  });
  cmd = add_touch(app, a, "pinch", "spread (FACTOR above 1) or close two fingers around a point");
  cmd->add_option("FACTOR", a->number)->required()->check(between(0.1, 10.0));
  cmd->add_option("SECONDS", a->pinch_seconds, "how long the fingers move")->check(seconds)->capture_default_str();
  cmd->callback([a] {
    a->code = call(inspect_interface, "Pinch", answer_seconds + a->pinch_seconds, "iidd", a->x, a->y, a->number,
                   a->pinch_seconds);
  });
  cmd = app->add_subcommand("type", "type text into what has the focus")->group(inspection);
  cmd->add_option("TEXT", a->text)->required();
  cmd->callback([a] { a->code = call(inspect_interface, "Type", answer_seconds + 60.0, "s", a->text.c_str()); });
}

void add_desk_commands(CLI::App *app, arguments *a) {
  auto *cmd = app->add_subcommand("keyboard", "press keys of a keyboard, one after the other")->group(inspection);
  cmd->add_option("KEY", a->pairs, "their names, like Tab, Down, Prior, Return, Delete, Escape, Menu")
      ->required()
      ->check([](const std::string &key) { return !key.empty() && key.size() <= 32 ? "" : "that is no key's name"; });
  cmd->callback([a] {
    for (const std::string &key : a->pairs)
      if (a->code == 0) a->code = call(inspect_interface, "Keyboard", answer_seconds, "s", key.c_str());
  });
  cmd = add_touch(app, a, "mouse", "use a mouse at a point");
  cmd->add_option("--button", a->button, "press this one: 3 is the right one, 8 the one to go back")
      ->check(between(1, 32));
  cmd->add_option("--wheel", a->notches, "turn the wheel by notches, down if positive")->check(between(-1000, 1000));
  cmd->callback(
      [a] { a->code = call(inspect_interface, "Mouse", answer_seconds, "iiii", a->x, a->y, a->button, a->notches); });
}

void add_eye_commands(CLI::App *app, arguments *a) {
  auto *cmd = app->add_subcommand("screenshot", "write what is on screen to a PNG file")->group(inspection);
  cmd->add_option("FILE", a->text)->required();
  cmd->callback([a] { a->code = screenshot(a->text); });
  app->add_subcommand("dump", "print the window's texts and views as JSON")->group(inspection)->callback([a] {
    a->code = print_answer("Dump", false, false);
  });
  cmd = app->add_subcommand("stats", "print what the frames and the main loop took as JSON")->group(inspection);
  cmd->add_flag("--reset", a->reset,
                "forget it afterwards, but for the first screen; more frames are kept from then on");
  cmd->callback([a] { a->code = print_answer("Stats", true, a->reset); });
}

}  // namespace

int fail(const std::string &text) {
  std::string line = text;
  std::replace(line.begin(), line.end(), '\n', ' ');
  fprintf(stderr, "brisel-watchctl: %s\n", line.c_str());
  return 1;
}

int wrong(const std::string &text) {
  fail(text);
  return 2;
}

int main(int argc, char **argv) {
  CLI::App app{"The watch around an application of Brisel: keys, settings, contacts, and its screen",
               "brisel-watchctl"};
  app.set_version_flag("-V,--version", std::string("brisel-watchctl ") + BRISEL_VERSION);
  app.require_subcommand(1);
  app.footer("Ends with 0 when it is done, 1 when it could not be done, 2 when the command line makes no sense.");
  app.add_option("--app", app_id, "the application, by its id")->capture_default_str();
  app.fallthrough();
  app.get_option("--app")->check([](const std::string &id) {
    return sd_bus_service_name_is_valid(id.c_str()) && id[0] != ':' ? "" : "'" + id + "' is no application's id";
  });

  arguments given;
  add_watch_commands(&app, &given);
  add_finger_commands(&app, &given);
  add_desk_commands(&app, &given);
  add_eye_commands(&app, &given);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success &result) {
    return platform_output_end("brisel-watchctl", app.exit(result));
  } catch (const CLI::ParseError &error) {
    const std::vector<std::string> unknown = app.remaining(true);
    const bool no_such = error.get_name() == "RequiredError" && !unknown.empty();
    return wrong(no_such ? (unknown.front()[0] == '-' ? "no such option: " : "no such command: ") + unknown.front()
                         : error.what());
  }
  return platform_output_end("brisel-watchctl", given.code);
}
