/* The texts inside vCards: their encodings, character sets and escapes. Knows no property but by its parameters. For
   contacts-vcard.cpp. Thread: any. */
#ifndef BRISEL_PLATFORM_CONTACTS_VCARD_TEXT_H
#define BRISEL_PLATFORM_CONTACTS_VCARD_TEXT_H

#include <string>
#include <string_view>
#include <vector>

struct vcard_parameter {
  std::string name; /* upper case; empty for the bare values of 2.1 ("TEL;CELL") */
  std::string value;
};

struct vcard_property {
  std::string name; /* upper case, without its group */
  std::vector<vcard_parameter> parameters;
  std::string_view raw; /* the value, still encoded; part of the line it was split from */
};

std::string_view vcard_trim(std::string_view text);
bool vcard_same_word(std::string_view text, std::string_view word); /* ASCII case ignored */
bool vcard_has_parameter(const vcard_property &prop, std::string_view name, std::string_view value);
bool vcard_is_quoted_printable(const vcard_property &prop);
/* GROUP.NAME;PARAMETER;PARAMETER:VALUE. Quotes protect ':' and ';' in parameters. False: the line is no property. */
bool vcard_split_property(std::string_view line, vcard_property *prop);

/* The value's bytes as UTF-8, escapes untouched. False: they are not in the character set that is named. */
bool vcard_decode(const vcard_property &prop, std::string *text);
/* Splits at unescaped separators ('\0': nowhere) and resolves the escapes; old: those of 2.1. Never empty. */
std::vector<std::string> vcard_unescape(std::string_view text, bool old, char separator);
/* One line of text: control characters become blanks, runs of blanks one, none at the ends. */
std::string vcard_clean(std::string_view text);
/* "%41" becomes "A"; what is no escape stays. */
std::string vcard_percent_decoded(std::string_view text);
/* A whole file as UTF-8 when a mark at its start or its zero bytes tell UTF-16; other zero bytes become blanks. False:
   UTF-16 that is none. */
bool vcard_file_text(std::string_view bytes, std::string *text);

#endif
