/* Texts as markup, translations, and the theme's layouts and pictures. */
#include "brisel-app-utils.h"

#include <libintl.h>

#include <climits>
#include <clocale>
#include <cstdlib>
#include <cstring>

#include "brisel-app-spoken.h"
#include "brisel-scoped.h"
#include "platform-paths.h"

/* The length of the well-formed UTF-8 sequence at s, or 0. */
static size_t _utf8_sequence(const char *s) {
  const unsigned char *u = (const unsigned char *)s;
  if (u[0] < 0x80) return u[0] ? 1 : 0;
  size_t length = u[0] >= 0xF0 ? 4 : u[0] >= 0xE0 ? 3 : 2;
  if (u[0] < 0xC2 || u[0] > 0xF4) return 0;
  for (size_t i = 1; i < length; i++)
    if ((u[i] & 0xC0) != 0x80) return 0;
  bool overlong = (u[0] == 0xE0 && u[1] < 0xA0) || (u[0] == 0xF0 && u[1] < 0x90);
  bool no_character = (u[0] == 0xED && u[1] > 0x9F) || (u[0] == 0xF4 && u[1] > 0x8F);
  return overlong || no_character ? 0 : length;
}

/* What to write for the sequence of that length at s. one_line: line breaks become blanks, as rows and titles are one
   line high. */
static const char *_markup_of(const char *s, size_t length, bool one_line) {
  static const char replacement[] = "\xEF\xBF\xBD";
  if (length == 0) return replacement;
  if (length == 1) switch (*s) {
      case '&':
        return "&amp;";
      case '<':
        return "&lt;";
      case '>':
        return "&gt;";
      case '\n':
        return one_line ? " " : "<br/>";
      case '\t':
        return one_line ? " " : "<tab/>";
      case '\r':
        return s[1] == '\n' ? "" : one_line ? " " : "<br/>";
      default:
        return (unsigned char)*s < 0x20 || *s == 0x7F ? replacement : nullptr;
    }
  /* The two line separators, and the mark that the text engine keeps for embedded objects. */
  if (!memcmp(s, "\xE2\x80\xA8", 3) || !memcmp(s, "\xE2\x80\xA9", 3)) return one_line ? " " : "<br/>";
  if (!memcmp(s, "\xEF\xBF\xBC", 3)) return replacement;
  /* Control characters of the second set, and the two overrides that make text read other than it is written. */
  if (length == 2 && s[0] == '\xC2' && (unsigned char)s[1] < 0xA0) return replacement;
  if (!memcmp(s, "\xE2\x80\xAD", 3) || !memcmp(s, "\xE2\x80\xAE", 3)) return replacement;
  return nullptr;
}

static char *_text_to_markup(const char *text, size_t max, bool one_line) {
  if (!text) return nullptr;
  size_t length = strlen(text);
  /* At most six bytes come of one ("<tab/>"). */
  if (max > length * 6) max = length * 6;
  char *markup = (char *)malloc(max + 1);
  if (!markup) return nullptr;
  size_t used = 0;
  while (*text) {
    size_t sequence = _utf8_sequence(text);
    const char *shown = _markup_of(text, sequence, one_line);
    size_t bytes = shown ? strlen(shown) : sequence;
    if (used + bytes > max) break;
    memcpy(markup + used, shown ? shown : text, bytes);
    used += bytes;
    text += sequence ? sequence : 1;
  }
  markup[used] = 0;
  return markup;
}

char *brisel_util_text_to_markup(const char *text) {
  return _text_to_markup(text, BRISEL_SHOWN_TEXT_MAX, true);
}

char *brisel_util_text_to_markup_whole(const char *text) {
  return _text_to_markup(text, SIZE_MAX, false);
}

void brisel_util_cut_utf8(char *text, size_t max) {
  if (!text || strnlen(text, max + 1) <= max) return;
  while (max > 0 && (text[max] & 0xC0) == 0x80) max--;
  text[max] = 0;
}

char *brisel_replace_str(const char *src, const char *find, const char *replace) {
  if (!src) return nullptr;
  const char *match = find && *find ? strstr(src, find) : nullptr;
  if (!match) return strdup(src);
  if (!replace) replace = "";
  size_t before = (size_t)(match - src);
  const char *after = match + strlen(find);
  size_t size = before + strlen(replace) + strlen(after) + 1;
  char *result = (char *)malloc(size);
  if (result) snprintf(result, size, "%.*s%s%s", (int)before, src, replace, after);
  return result;
}

Evas_Object *brisel_util_load_edj(Evas_Object *parent, const char *file, const char *group) {
  if (!parent) {
    BRISEL_ERROR("Invalid parameter: parent[NULL]");
    return nullptr;
  }
  Evas_Object *layout = elm_layout_add(parent);
  if (!layout) return nullptr;
  if (!elm_layout_file_set(layout, platform_path(file), group)) {
    evas_object_del(layout);
    return nullptr;
  }
  evas_object_size_hint_weight_set(layout, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  return layout;
}

Evas_Object *brisel_util_load_image(Evas_Object *parent, const char *name) {
  Evas_Object *image = elm_image_add(parent);
  if (!image) return nullptr;
  brisel_view_set_spoken(image, false); /* what can be pressed has a name of its own */
  elm_image_file_set(image, platform_path(BRISEL_IMAGES_EDJ), name);
  evas_object_show(image);
  return image;
}

const char *brisel_util_get_text(const char *id) {
  return dcgettext(BRISEL_DOMAIN, id, LC_MESSAGES);
}

char *brisel_util_get_count_text(const char *plural_id, int number, appdata *ad) {
  scoped_text digits(brisel_util_get_localized_number_str(number, ad));
  unsigned long amount = number < 0 ? 0UL - (unsigned long)number : (unsigned long)number;
  return brisel_replace_str(dcngettext(BRISEL_DOMAIN, plural_id, plural_id, amount, LC_MESSAGES), "%d", digits.get());
}
