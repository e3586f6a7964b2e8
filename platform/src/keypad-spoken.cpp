#include "keypad-spoken.h"

#include <libintl.h>

#include <clocale>
#include <vector>

#include "spoken.h"

namespace {

struct told_key {
  Eo *button = nullptr;
  int index = 0;
  void (*press)(int index) = nullptr;
};

Eo *keypad_group; /* the conformant's; NULL: nothing is told */
std::vector<told_key> told;

const char *word(const char *id) {
  return dcgettext("brisel", id, LC_MESSAGES);
}

void pressed_cb(void *data) {
  const told_key one = told[reinterpret_cast<size_t>(data)]; /* what it does may end in anything */
  one.press(one.index);
}

}  // namespace

bool keypad_spoken_begin(Evas_Object *conformant, Evas_Object *ground) {
  if (keypad_group != nullptr || !elm_config_atspi_mode_get()) return false;
  keypad_group = spoken_group_add(conformant, ground);
  if (keypad_group != nullptr) spoken_set_name(keypad_group, word("IDS_EMAIL_BODY_KEYPAD"));
  return keypad_group != nullptr;
}

void keypad_spoken_add(int index, Evas_Object *picture, void (*press)(int index)) {
  Eo *button = spoken_button_add(keypad_group, picture, pressed_cb, reinterpret_cast<void *>(told.size()));
  told.push_back({button, index, press});
}

void keypad_spoken_key(int index, const char *id, const std::string &text, int pressed) {
  for (const told_key &one : told) {
    if (one.index != index || one.button == nullptr) continue;
    std::string name = *id != '\0' ? word(id) : text;
    if (*id != '\0' && !text.empty() && text != " ") name += ", " + text;
    spoken_set_name(one.button, name.c_str());
    if (pressed >= 0) spoken_set_pressed(one.button, pressed != 0);
  }
}

void keypad_spoken_end(bool is_gone) {
  if (keypad_group != nullptr && !is_gone) efl_del(keypad_group);
  keypad_group = nullptr;
  told.clear();
}
