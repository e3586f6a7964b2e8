/*
 * Passing over bytes of a text sixteen at a time, as long as a condition holds: most of a mail is letters between
 * single blanks. A condition is a function of one byte or of sixteen: comparisons that are joined by & and |.
 */
#ifndef BRISEL_PHONE_TEXT_RUN_H
#define BRISEL_PHONE_TEXT_RUN_H

#include <cstdint>
#include <cstring>
#include <string_view>

using text_bytes [[gnu::vector_size(16)]] = unsigned char;

inline text_bytes text_load(std::string_view text, size_t at) {
  text_bytes bytes;
  memcpy(&bytes, text.data() + at, sizeof bytes);
  return bytes;
}

/* Whether a condition held for all sixteen. */
template <typename Mask>
bool text_all(Mask mask) {
  uint64_t halves[2];
  static_assert(sizeof mask == sizeof halves);
  memcpy(halves, &mask, sizeof halves);
  return (halves[0] & halves[1]) == UINT64_MAX;
}

/* The first position from `at` on where the condition does not hold. */
template <typename F>
size_t text_run_end(std::string_view text, size_t at, F &&holds) {
  while (at + sizeof(text_bytes) <= text.size() && text_all(holds(text_load(text, at)))) at += sizeof(text_bytes);
  while (at < text.size() && holds(static_cast<unsigned char>(text[at]))) at++;
  return at;
}

/* The same, but single blanks between bytes for which it holds are passed over too. */
template <typename F>
size_t text_words_end(std::string_view text, size_t at, F &&holds) {
  while (at + sizeof(text_bytes) < text.size()) {
    const text_bytes here = text_load(text, at), behind = text_load(text, at + 1);
    if (!text_all(holds(here) | ((here == ' ') & holds(behind)))) break;
    at += sizeof(text_bytes);
  }
  const auto is_word = [&](size_t i) { return i < text.size() && holds(static_cast<unsigned char>(text[i])); };
  while (is_word(at) || (at < text.size() && text[at] == ' ' && is_word(at + 1))) at++;
  return at;
}

#endif
