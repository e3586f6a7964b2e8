/* UTF-8 as it comes from outside: checked byte by byte, never trusted. */
#ifndef BRISEL_PLATFORM_TEXT_CHECK_H
#define BRISEL_PLATFORM_TEXT_CHECK_H

#include <cstddef>
#include <cstdint>
#include <cstring>
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

/* Whole bodies go through it: ASCII goes by eight, and the letters of most other scripts by their two bytes. */
inline bool text_utf8_valid(std::string_view text) {
  const auto *bytes = reinterpret_cast<const unsigned char *>(text.data());
  const size_t size = text.size();
  for (size_t i = 0; i < size;) {
    uint64_t word;
    for (; i + sizeof word <= size; i += sizeof word) {
      memcpy(&word, bytes + i, sizeof word);
      if (word & 0x8080808080808080u) break;
    }
    while (i < size && bytes[i] < 0x80) i++;
    while (i + 1 < size && bytes[i] >= 0xC2 && bytes[i] <= 0xDF && (bytes[i + 1] & 0xC0) == 0x80) i += 2;
    if (i == size || bytes[i] < 0x80) continue;
    const size_t length = text_utf8_length(text.substr(i));
    if (length == 0) return false;
    i += length;
  }
  return true;
}

#endif
