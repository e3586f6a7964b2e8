/* Reading vCards: files from anywhere, so every size is bounded and every byte is doubted. Thread: any. */
#ifndef BRISEL_PLATFORM_CONTACTS_VCARD_H
#define BRISEL_PLATFORM_CONTACTS_VCARD_H

#include <string>
#include <string_view>
#include <vector>

constexpr size_t vcard_file_max = 16 * 1024 * 1024;

struct vcard_number {
  std::string number;
  int type; /* enum contacts_number_type */
};

/* All texts are valid UTF-8 without control characters; the name is never empty. */
struct vcard_person {
  std::string name;
  std::vector<std::string> emails;
  std::vector<vcard_number> numbers;
};

/* Reads every card (2.1, 3.0 and 4.0) of the text. A card or a part of one that cannot be used is left out, and
   *trouble says so in a line each (the first twenty, then how many more). False: there is no card to use, and *trouble
   says why. */
bool vcard_read(std::string_view text, std::vector<vcard_person> *persons, std::string *trouble);

#endif
