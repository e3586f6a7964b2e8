/* Letters that join or change as they are typed: Korean syllables, Japanese marks. Thread: any; state is the caller's.
 */
#ifndef BRISEL_PLATFORM_KEYPAD_COMPOSE_H
#define BRISEL_PLATFORM_KEYPAD_COMPOSE_H

#include <string>
#include <string_view>

#include "keypad-layouts.h"

/* What a key does to the text before the cursor: takes back so many characters, then inserts. */
struct keypad_edit {
  int take_back = 0;
  std::string insert;
};

/* pending: what the last edit left open ("" at first, and after the cursor moved): one character before the cursor. */
keypad_edit keypad_compose_key(keypad_compose compose, std::string_view key, std::string *pending);
/* Backspace inside a syllable takes back its last letter only. */
keypad_edit keypad_compose_backspace(keypad_compose compose, std::string *pending);

#endif
