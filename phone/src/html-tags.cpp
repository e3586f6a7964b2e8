/* What stands in an HTML document: its entities and tags. Used by html.cpp. */
#include "html-tags.h"

#include <glib.h>

#include <algorithm>
#include <cstring>

#include "text.h"

namespace {

struct entity {
  const char *name;
  uint16_t character;
};

/* Sorted by name, for a binary search. */
constexpr entity kEntities[] = {
    {"AElig", 0xc6},    {"Aacute", 0xc1},   {"Acirc", 0xc2},    {"Agrave", 0xc0},   {"Alpha", 0x391},
    {"Aring", 0xc5},    {"Atilde", 0xc3},   {"Auml", 0xc4},     {"Beta", 0x392},    {"Ccedil", 0xc7},
    {"Chi", 0x3a7},     {"Dagger", 0x2021}, {"Delta", 0x394},   {"ETH", 0xd0},      {"Eacute", 0xc9},
    {"Ecirc", 0xca},    {"Egrave", 0xc8},   {"Epsilon", 0x395}, {"Eta", 0x397},     {"Euml", 0xcb},
    {"Gamma", 0x393},   {"Iacute", 0xcd},   {"Icirc", 0xce},    {"Igrave", 0xcc},   {"Iota", 0x399},
    {"Iuml", 0xcf},     {"Kappa", 0x39a},   {"Lambda", 0x39b},  {"Mu", 0x39c},      {"Ntilde", 0xd1},
    {"Nu", 0x39d},      {"OElig", 0x152},   {"Oacute", 0xd3},   {"Ocirc", 0xd4},    {"Ograve", 0xd2},
    {"Omega", 0x3a9},   {"Omicron", 0x39f}, {"Oslash", 0xd8},   {"Otilde", 0xd5},   {"Ouml", 0xd6},
    {"Phi", 0x3a6},     {"Pi", 0x3a0},      {"Prime", 0x2033},  {"Psi", 0x3a8},     {"Rho", 0x3a1},
    {"Scaron", 0x160},  {"Sigma", 0x3a3},   {"THORN", 0xde},    {"Tau", 0x3a4},     {"Theta", 0x398},
    {"Uacute", 0xda},   {"Ucirc", 0xdb},    {"Ugrave", 0xd9},   {"Upsilon", 0x3a5}, {"Uuml", 0xdc},
    {"Xi", 0x39e},      {"Yacute", 0xdd},   {"Yuml", 0x178},    {"Zeta", 0x396},    {"aacute", 0xe1},
    {"acirc", 0xe2},    {"acute", 0xb4},    {"aelig", 0xe6},    {"agrave", 0xe0},   {"alpha", 0x3b1},
    {"amp", 0x26},      {"apos", 0x27},     {"aring", 0xe5},    {"asymp", 0x2248},  {"atilde", 0xe3},
    {"auml", 0xe4},     {"bdquo", 0x201e},  {"beta", 0x3b2},    {"brvbar", 0xa6},   {"bull", 0x2022},
    {"ccedil", 0xe7},   {"cedil", 0xb8},    {"cent", 0xa2},     {"check", 0x2713},  {"chi", 0x3c7},
    {"circ", 0x2c6},    {"clubs", 0x2663},  {"copy", 0xa9},     {"curren", 0xa4},   {"dagger", 0x2020},
    {"darr", 0x2193},   {"deg", 0xb0},      {"delta", 0x3b4},   {"diams", 0x2666},  {"divide", 0xf7},
    {"eacute", 0xe9},   {"ecirc", 0xea},    {"egrave", 0xe8},   {"emsp", 0x2003},   {"ensp", 0x2002},
    {"epsilon", 0x3b5}, {"equiv", 0x2261},  {"eta", 0x3b7},     {"eth", 0xf0},      {"euml", 0xeb},
    {"euro", 0x20ac},   {"frac12", 0xbd},   {"frac14", 0xbc},   {"frac34", 0xbe},   {"gamma", 0x3b3},
    {"ge", 0x2265},     {"gt", 0x3e},       {"harr", 0x2194},   {"hearts", 0x2665}, {"hellip", 0x2026},
    {"iacute", 0xed},   {"icirc", 0xee},    {"iexcl", 0xa1},    {"igrave", 0xec},   {"infin", 0x221e},
    {"iota", 0x3b9},    {"iquest", 0xbf},   {"iuml", 0xef},     {"kappa", 0x3ba},   {"lambda", 0x3bb},
    {"laquo", 0xab},    {"larr", 0x2190},   {"ldquo", 0x201c},  {"le", 0x2264},     {"lrm", 0x200e},
    {"lsaquo", 0x2039}, {"lsquo", 0x2018},  {"lt", 0x3c},       {"macr", 0xaf},     {"mdash", 0x2014},
    {"micro", 0xb5},    {"middot", 0xb7},   {"minus", 0x2212},  {"mu", 0x3bc},      {"nbsp", 0xa0},
    {"ndash", 0x2013},  {"ne", 0x2260},     {"not", 0xac},      {"ntilde", 0xf1},   {"nu", 0x3bd},
    {"oacute", 0xf3},   {"ocirc", 0xf4},    {"oelig", 0x153},   {"ograve", 0xf2},   {"oline", 0x203e},
    {"omega", 0x3c9},   {"omicron", 0x3bf}, {"ordf", 0xaa},     {"ordm", 0xba},     {"oslash", 0xf8},
    {"otilde", 0xf5},   {"ouml", 0xf6},     {"para", 0xb6},     {"permil", 0x2030}, {"phi", 0x3c6},
    {"pi", 0x3c0},      {"plusmn", 0xb1},   {"pound", 0xa3},    {"prime", 0x2032},  {"psi", 0x3c8},
    {"quot", 0x22},     {"raquo", 0xbb},    {"rarr", 0x2192},   {"rdquo", 0x201d},  {"reg", 0xae},
    {"rho", 0x3c1},     {"rlm", 0x200f},    {"rsaquo", 0x203a}, {"rsquo", 0x2019},  {"sbquo", 0x201a},
    {"scaron", 0x161},  {"sect", 0xa7},     {"shy", 0xad},      {"sigma", 0x3c3},   {"sigmaf", 0x3c2},
    {"spades", 0x2660}, {"sup1", 0xb9},     {"sup2", 0xb2},     {"sup3", 0xb3},     {"szlig", 0xdf},
    {"tau", 0x3c4},     {"theta", 0x3b8},   {"thinsp", 0x2009}, {"thorn", 0xfe},    {"tilde", 0x2dc},
    {"times", 0xd7},    {"trade", 0x2122},  {"uacute", 0xfa},   {"uarr", 0x2191},   {"ucirc", 0xfb},
    {"ugrave", 0xf9},   {"uml", 0xa8},      {"upsilon", 0x3c5}, {"uuml", 0xfc},     {"xi", 0x3be},
    {"yacute", 0xfd},   {"yen", 0xa5},      {"yuml", 0xff},     {"zeta", 0x3b6},    {"zwj", 0x200d},
    {"zwnj", 0x200c},
};

bool wanted_attribute(const std::string &name) {
  return name == "alt" || name == "src" || name == "start" || name == "style" || name == "width" || name == "height" ||
         name == "hidden";
}

void take_attribute(html_tag *t, const std::string &name, std::string_view value) {
  if (value.size() > 4096) value = value.substr(0, 4096);
  if (name == "alt") {
    t->alt = value;
  } else if (name == "src") {
    t->src = value.substr(0, 16);
  } else if (name == "start") {
    t->start = value.substr(0, 9);
  } else if (name == "hidden") {
    t->hidden = true;
  } else if (name == "width" || name == "height") {
    if (value == "0" || value == "1" || value == "0px" || value == "1px") t->tiny = true;
  } else if (name == "style") {
    std::string flat;
    for (char c : value)
      if (!html_is_space(c)) flat += g_ascii_tolower(c);
    flat += ';';
    /* The last ones are how writers put a text for the list of mails where nobody sees it. */
    for (const char *way : {"display:none", "visibility:hidden", "mso-hide:all", "max-height:0;", "max-height:0px;",
                            "opacity:0;", "font-size:0;", "font-size:0px;", "font-size:0pt;", "font-size:1px;"})
      if (flat.find(way) != std::string::npos) t->hidden = true;
  }
}

}  // namespace

bool html_is_space(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

/* Reads an entity at text[*at] == '&'; 0 when it is none. */
uint32_t html_read_entity(std::string_view text, size_t *at) {
  size_t i = *at + 1;
  if (i < text.size() && text[i] == '#') {
    i++;
    bool hex = i < text.size() && (text[i] == 'x' || text[i] == 'X');
    if (hex) i++;
    uint32_t value = 0;
    size_t first = i;
    while (i < text.size() && (hex ? g_ascii_isxdigit(text[i]) : g_ascii_isdigit(text[i]))) {
      if (value < 0x200000) value = value * (hex ? 16 : 10) + static_cast<uint32_t>(g_ascii_xdigit_value(text[i]));
      i++;
    }
    if (i == first) return 0;
    if (i < text.size() && text[i] == ';') i++;
    *at = i;
    if (value >= 0x80 && value < 0xa0) { /* written by a program that took its code page for Unicode */
      char byte = static_cast<char>(value);
      std::string one = mime_to_utf8(std::string_view(&byte, 1), "windows-1252");
      return one.empty() ? 0xfffd : g_utf8_get_char(one.c_str());
    }
    return value == 0 || value > 0x10ffff ? 0xfffd : value;
  }
  char name[12];
  size_t length = 0;
  while (i < text.size() && length + 1 < sizeof name && g_ascii_isalnum(text[i])) name[length++] = text[i++];
  name[length] = '\0';
  if (length == 0) return 0;
  const entity *found =
      std::lower_bound(std::begin(kEntities), std::end(kEntities), name,
                       [](const entity &entry, const char *key) { return strcmp(entry.name, key) < 0; });
  if (found == std::end(kEntities) || strcmp(found->name, name) != 0) return 0;
  bool closed = i < text.size() && text[i] == ';';
  /* Without its semicolon only the old ones count: "a&copy=1" in a shown address is left alone otherwise. */
  if (!closed && found->character > 0xff && found->character != 0x20ac) return 0;
  *at = closed ? i + 1 : i;
  return found->character;
}

size_t html_skip_raw(std::string_view text, size_t at, const std::string &name) {
  for (;;) {
    at = text.find("</", at);
    if (at == std::string_view::npos) return text.size();
    if (text.size() - at > name.size() + 2 &&
        g_ascii_strncasecmp(text.data() + at + 2, name.c_str(), name.size()) == 0) {
      size_t end = text.find('>', at);
      return end == std::string_view::npos ? text.size() : end + 1;
    }
    at += 2;
  }
}

size_t html_read_tag(std::string_view text, size_t at, html_tag *t, html_absent *missing) {
  if (at < text.size() && text[at] == '/') {
    t->closing = true;
    at++;
  }
  while (at < text.size() && !html_is_space(text[at]) && text[at] != '>' && text[at] != '/') {
    if (t->name.size() < 31) t->name += g_ascii_tolower(text[at]);
    at++;
  }
  while (at < text.size() && text[at] != '>') {
    if (html_is_space(text[at]) || text[at] == '/') {
      at++;
      continue;
    }
    std::string name;
    while (at < text.size() && !html_is_space(text[at]) && text[at] != '=' && text[at] != '>') {
      if (name.size() < 31) name += g_ascii_tolower(text[at]);
      at++;
    }
    while (at < text.size() && html_is_space(text[at])) at++;
    std::string_view value;
    if (at < text.size() && text[at] == '=') {
      at++;
      while (at < text.size() && html_is_space(text[at])) at++;
      char quote = at < text.size() ? text[at] : '\0';
      bool *gone = quote == '"' ? &missing->double_quote : &missing->single_quote;
      size_t end = std::string_view::npos;
      if (quote == '"' || quote == '\'') {
        if (!*gone) end = text.find(quote, at + 1);
        if (end == std::string_view::npos) *gone = true;
      }
      if (end != std::string_view::npos) {
        value = text.substr(at + 1, end - at - 1);
        at = end + 1;
      } else {
        size_t first = at;
        while (at < text.size() && !html_is_space(text[at]) && text[at] != '>') at++;
        value = text.substr(first, at - first);
      }
    } else if (name.empty()) {
      at++;
    }
    if (wanted_attribute(name)) take_attribute(t, name, value);
  }
  return at < text.size() ? at + 1 : at;
}
