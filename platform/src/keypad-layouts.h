/* What is on the keypad's keys. Thread: any; all is constant. */
#ifndef BRISEL_PLATFORM_KEYPAD_LAYOUTS_H
#define BRISEL_PLATFORM_KEYPAD_LAYOUTS_H

#include <string>
#include <string_view>
#include <vector>

constexpr int KEYPAD_PAGE_KEYS = 15; /* three rows of five, so that a key is as wide as a thumb wants on 320 pixels */

enum keypad_compose { KEYPAD_COMPOSE_NONE, KEYPAD_COMPOSE_HANGUL, KEYPAD_COMPOSE_KANA };

struct keypad_layout {
  const char *language; /* as in the language setting, "ru"; NULL: no language */
  const char *name;     /* shown on the space key */
  bool has_case;
  keypad_compose compose;
  std::vector<const char *> pages; /* the keys of each, from left to right and top to bottom, separated by blanks */
};

/* The layout of the language setting's value ("ru_RU.UTF-8"); the English one for a language without its own. */
const keypad_layout &keypad_layout_for(std::string_view language);
const keypad_layout &keypad_layout_english();
const keypad_layout &keypad_layout_symbols();
const keypad_layout &keypad_layout_emoticons();
std::vector<std::string> keypad_page_keys(const keypad_layout &layout, size_t page);

#endif
