/* UTF-8 as it comes from outside: checked byte by byte, never trusted. */
#ifndef BRISEL_PLATFORM_TEXT_CHECK_H
#define BRISEL_PLATFORM_TEXT_CHECK_H

#include <cstddef>
#include <string_view>

/* The byte length (1 to 4) of the well-formed character at the start of text, or 0: no overlong forms, no surrogates,
   nothing past U+10FFFF. An empty text gives 0. */
inline size_t text_utf8_length(std::string_view text) {
  if (text.empty()) return 0;
  auto byte = [&](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u; };
  auto tail = [&](size_t i) { return (byte(i) & 0xC0) == 0x80; };
  const unsigned lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return tail(1) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    if (!tail(1) || !tail(2)) return 0;
    if (lead == 0xE0 && byte(1) < 0xA0) return 0;
    if (lead == 0xED && byte(1) > 0x9F) return 0;
    return 3;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    if (!tail(1) || !tail(2) || !tail(3)) return 0;
    if (lead == 0xF0 && byte(1) < 0x90) return 0;
    if (lead == 0xF4 && byte(1) > 0x8F) return 0;
    return 4;
  }
  return 0;
}

inline bool text_utf8_valid(std::string_view text) {
  while (!text.empty()) {
    const size_t length = text_utf8_length(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

#endif
