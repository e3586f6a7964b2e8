/* UTF-8 as it comes from outside: checked byte by byte, never trusted. */
#ifndef BRISEL_PLATFORM_TEXT_CHECK_H
#define BRISEL_PLATFORM_TEXT_CHECK_H

#include <bit>
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

/* Whole bodies go through it: eight bytes are looked at together, of which the first are ASCII or letters of two bytes
   each, as those of most other scripts are, or four, which begin with a letter of three. */
inline bool text_utf8_valid(std::string_view text) {
  const auto *bytes = reinterpret_cast<const unsigned char *>(text.data());
  const size_t size = text.size();
  size_t i = 0;
  while (std::endian::native == std::endian::little && i + sizeof(uint64_t) <= size) {
    uint64_t eight;
    memcpy(&eight, bytes + i, sizeof eight);
    const uint64_t tops = eight & 0x8080808080808080u;
    if (!tops) {
      i += sizeof eight;
      for (uint64_t more[4]; i + sizeof more <= size; i += sizeof more) {
        memcpy(more, bytes + i, sizeof more);
        if ((more[0] | more[1] | more[2] | more[3]) & 0x8080808080808080u) break;
      }
      continue;
    }
    if (const int plain = std::countr_zero(tops) / 8) {
      i += static_cast<size_t>(plain);
      continue;
    }
    if ((eight & 0xC0C0F0u) == 0x8080E0u) {
      /* Neither a longer form than needed (E0, then less than A0) nor half of a pair (ED, then A0 and more). */
      const uint64_t first = eight & 0x200Fu;
      if (first == 0 || first == 0x200Du) return false;
      i += 3;
      continue;
    }
    /* As four numbers of 16 bits. C0 and C1 begin nothing: above its lowest bit a first byte has one that is set. */
    const uint64_t leads = (eight & 0x001E001E001E001Eu) + 0x00FE00FE00FE00FEu;
    const uint64_t wrong = ((eight & 0xC0E0C0E0C0E0C0E0u) ^ 0x80C080C080C080C0u) | (~leads & 0x0100010001000100u);
    if (const int pairs = wrong ? std::countr_zero(wrong) / 16 : 4) {
      i += static_cast<size_t>(pairs) * 2;
      continue;
    }
    const size_t length = text_utf8_length(text.substr(i));
    if (length == 0) return false;
    i += length;
  }
  /* Fewer than eight bytes are left: most of what is short ends here. */
  if (std::endian::native == std::endian::little && i < size && size >= sizeof(uint64_t)) {
    uint64_t eight;
    memcpy(&eight, bytes + size - sizeof eight, sizeof eight);
    if (!(eight >> 8 * (sizeof eight - (size - i)) & 0x8080808080808080u)) return true;
  }
  while (i < size) {
    const size_t length = bytes[i] < 0x80 ? 1 : text_utf8_length(text.substr(i));
    if (length == 0) return false;
    i += length;
  }
  return true;
}

#endif
