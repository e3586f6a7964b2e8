/*
 * Passing over bytes of a text sixteen at a time, up to one that ends the run: most of a mail is letters between single
 * blanks. What ends a run is a function of one byte or of sixteen: comparisons that are joined by & and |.
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

/* Whether it is none of the sixteen. */
template <typename Mask>
bool text_none(Mask mask) {
  uint64_t halves[2];
  static_assert(sizeof mask == sizeof halves);
  memcpy(halves, &mask, sizeof halves);
  return (halves[0] | halves[1]) == 0;
}

/* The first position from `at` on of a byte that ends the run. */
template <typename F>
size_t text_run_end(std::string_view text, size_t at, F &&ends) {
  while (at + sizeof(text_bytes) <= text.size() && text_none(ends(text_load(text, at)))) at += sizeof(text_bytes);
  while (at < text.size() && !ends(static_cast<unsigned char>(text[at]))) at++;
  return at;
}

/* The same, where blanks end a run, but not single ones between bytes that end none. */
template <typename F>
size_t text_words_end(std::string_view text, size_t at, F &&ends) {
  while (at + sizeof(text_bytes) < text.size()) {
    const text_bytes here = text_load(text, at), behind = text_load(text, at + 1);
    const auto blanks = here == ' ';
    if (!text_none((ends(here) ^ blanks) | (blanks & ends(behind)))) break;
    at += sizeof(text_bytes);
  }
  const auto is_word = [&](size_t i) { return i < text.size() && !ends(static_cast<unsigned char>(text[i])); };
  while (is_word(at) || (at < text.size() && text[at] == ' ' && is_word(at + 1))) at++;
  return at;
}

#endif
