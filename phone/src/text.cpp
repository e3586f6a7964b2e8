/* Clean text and character boundaries. */
#include <glib.h>

#include "text.h"

namespace {

/* Code points that are no characters and never will be; the bus refuses a text that holds one. */
bool is_noncharacter(uint32_t c) {
  return (c >= 0xfdd0 && c <= 0xfdef) || (c & 0xfffe) == 0xfffe;
}

/* All other bytes of valid UTF-8 stay as they are, whatever stands around them. */
constexpr auto is_looked_at = [](auto c) {
  return ((c < 0x20) & (c != '\n') & (c != '\t')) | (c == 0x7f) | (c == 0xc2) | (c >= 0xef);
};

}  // namespace

size_t text_ascii_run(std::string_view text) {
  return text_run_end(text, 0, [](auto c) { return c >= 0x80; });
}

size_t text_plain_run(std::string_view text) {
  return text_run_end(text, 0, [](auto c) { return (c >= 0x80) | (c == 0); });
}

void text_append_char(std::string *out, uint32_t character) {
  if (character == 0 || character > 0x10ffff || (character >= 0xd800 && character <= 0xdfff) ||
      is_noncharacter(character))
    character = 0xfffd;
  if (character < 0x80) {
    *out += static_cast<char>(character);
    return;
  }
  char buffer[6];
  out->append(buffer, static_cast<size_t>(g_unichar_to_utf8(character, buffer)));
}

std::string text_clean(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  if (text.starts_with("\xef\xbb\xbf")) text.remove_prefix(3); /* a file's mark, not text */
  for (size_t i = 0; i < text.size(); i++) {
    const size_t plain = text_run_end(text, i, is_looked_at);
    out.append(text, i, plain - i);
    i = plain;
    if (i == text.size()) break;
    auto c = static_cast<unsigned char>(text[i]);
    if (c == '\r') {
      if (i + 1 >= text.size() || text[i + 1] != '\n') out += '\n';
    } else if (c >= 0xef) { /* the longer forms, of which some are no characters */
      size_t size = c >= 0xf0 ? 4 : 3;
      if (!is_noncharacter(g_utf8_get_char(text.data() + i))) out.append(text, i, size);
      i += size - 1;
    } else if (c == 0xc2 && i + 1 < text.size()) {
      auto next = static_cast<unsigned char>(text[i + 1]);
      if (next == 0x85)
        out += '\n';
      else if (next >= 0xa0)
        out.append(text, i, 2);
      i++;
    } else if (c == '\f' || c == '\v') {
      out += '\n';
    }
  }
  return out;
}

std::string mime_clean_line(std::string_view text, size_t max) {
  std::string clean = mime_to_utf8(text, "utf-8");
  std::string out;
  bool blank = false;
  for (const char *at = clean.data(), *end = at + clean.size(); at < end;) {
    const char *next = g_utf8_next_char(at);
    gunichar c = g_utf8_get_char(at);
    if (c == ' ' || c == '\t' || c == '\n' || c == 0x2028 || c == 0x2029) {
      blank = !out.empty();
    } else if (c != 0x202d && c != 0x202e && c != 0xfeff) {
      /* Overrides would let a name show another address than its own. */
      if (blank) out += ' ';
      blank = false;
      out.append(at, static_cast<size_t>(next - at));
    }
    at = next;
  }
  if (out.size() > max) out.resize(mime_cut(out, 0, max));
  return out;
}

size_t mime_boundary(std::string_view text, size_t position) {
  if (position >= text.size()) return text.size();
  while (position < text.size() && (static_cast<unsigned char>(text[position]) & 0xc0) == 0x80) position++;
  return position;
}

size_t mime_cut(std::string_view text, size_t from, size_t bytes) {
  if (from >= text.size()) return text.size();
  if (text.size() - from <= bytes) return text.size();
  size_t cut = from + bytes;
  while (cut > from && (static_cast<unsigned char>(text[cut]) & 0xc0) == 0x80) cut--;
  /* A mark, a joiner or what a joiner holds on to stays with its letter; only so far back, as marks can be piled up. */
  size_t whole = cut;
  for (int step = 0; step < 16 && whole > from; step++) {
    gunichar next = g_utf8_get_char(text.data() + whole);
    const char *before = g_utf8_find_prev_char(text.data() + from, text.data() + whole);
    if (!before) break;
    bool joined = g_unichar_ismark(next) || next == 0x200d || (next >= 0xfe00 && next <= 0xfe0f) ||
                  (next >= 0x1f3fb && next <= 0x1f3ff) || g_utf8_get_char(before) == 0x200d;
    if (!joined) return whole;
    whole = static_cast<size_t>(before - text.data());
  }
  return whole > from ? whole : cut;
}
