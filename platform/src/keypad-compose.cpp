#include "keypad-compose.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace {

using letters = std::u32string_view;

/* The letters in the order in which Unicode numbers the syllables that they make. */
constexpr letters INITIALS = U"ㄱㄲㄴㄷㄸㄹㅁㅂㅃㅅㅆㅇㅈㅉㅊㅋㅌㅍㅎ";
constexpr letters VOWELS = U"ㅏㅐㅑㅒㅓㅔㅕㅖㅗㅘㅙㅚㅛㅜㅝㅞㅟㅠㅡㅢㅣ";
constexpr letters FINALS = U"-ㄱㄲㄳㄴㄵㄶㄷㄹㄺㄻㄼㄽㄾㄿㅀㅁㅂㅄㅅㅆㅇㅈㅊㅋㅌㅍㅎ"; /* the first: none */
constexpr char32_t FIRST_SYLLABLE = 0xAC00;
constexpr char32_t SYLLABLES = 19 * 21 * 28;

/* Two letters and the one they make. */
constexpr std::array<letters, 18> PAIRS = {U"ㅗㅏㅘ", U"ㅗㅐㅙ", U"ㅗㅣㅚ", U"ㅜㅓㅝ", U"ㅜㅔㅞ", U"ㅜㅣㅟ",
                                           U"ㅡㅣㅢ", U"ㄱㅅㄳ", U"ㄴㅈㄵ", U"ㄴㅎㄶ", U"ㄹㄱㄺ", U"ㄹㅁㄻ",
                                           U"ㄹㅂㄼ", U"ㄹㅅㄽ", U"ㄹㅌㄾ", U"ㄹㅍㄿ", U"ㄹㅎㅀ", U"ㅂㅅㅄ"};

/* What the mark key turns each kana into, in circles. */
constexpr std::array<letters, 31> KANA = {
    U"かが",   U"きぎ",   U"くぐ", U"けげ", U"こご",   U"さざ",   U"しじ",   U"すず",   U"せぜ",   U"そぞ", U"ただ",
    U"ちぢ",   U"つっづ", U"てで", U"とど", U"はばぱ", U"ひびぴ", U"ふぶぷ", U"へべぺ", U"ほぼぽ", U"あぁ", U"いぃ",
    U"うぅゔ", U"えぇ",   U"おぉ", U"やゃ", U"ゆゅ",   U"よょ",   U"わゎ",   U"、，",   U"。．"};
constexpr std::string_view KANA_MARK_KEY = "小゛";

/* One letter or one syllable with its parts; 0: missing. */
struct syllable {
  char32_t initial = 0, vowel = 0, final = 0;
};

char32_t decode(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<char32_t>(static_cast<unsigned char>(text[i])); };
  if (text.size() == 1) return byte(0);
  if (text.size() == 2) return (byte(0) & 0x1F) << 6 | (byte(1) & 0x3F);
  if (text.size() == 3) return (byte(0) & 0x0F) << 12 | (byte(1) & 0x3F) << 6 | (byte(2) & 0x3F);
  return 0; /* none of the letters here is longer */
}

std::string encode(char32_t letter) {
  return {static_cast<char>(0xE0 | letter >> 12), static_cast<char>(0x80 | (letter >> 6 & 0x3F)),
          static_cast<char>(0x80 | (letter & 0x3F))};
}

bool is_one_of(char32_t letter, letters of) {
  return letter != 0 && of.find(letter) != letters::npos;
}

char32_t join(char32_t first, char32_t second) {
  for (const letters pair : PAIRS) {
    if (pair[0] == first && pair[1] == second) return pair[2];
  }
  return 0;
}

/* False when the letter is not made of two. */
bool split(char32_t letter, char32_t *first, char32_t *second) {
  for (const letters pair : PAIRS) {
    if (pair[2] != letter) continue;
    *first = pair[0];
    *second = pair[1];
    return true;
  }
  return false;
}

syllable take_apart(std::string_view text) {
  const char32_t letter = decode(text);
  if (is_one_of(letter, VOWELS)) return {0, letter, 0};
  if (is_one_of(letter, INITIALS)) return {letter, 0, 0};
  if (letter < FIRST_SYLLABLE || letter >= FIRST_SYLLABLE + SYLLABLES) return {};
  const char32_t index = letter - FIRST_SYLLABLE;
  const char32_t final = index % 28;
  return {INITIALS[index / (21 * 28)], VOWELS[index / 28 % 21], final != 0 ? FINALS[final] : 0};
}

std::string put_together(const syllable &of) {
  if (of.initial == 0) return of.vowel != 0 ? encode(of.vowel) : "";
  if (of.vowel == 0) return encode(of.initial);
  const size_t final = of.final != 0 ? FINALS.find(of.final) : 0;
  return encode(
      static_cast<char32_t>(FIRST_SYLLABLE + (INITIALS.find(of.initial) * 21 + VOWELS.find(of.vowel)) * 28 + final));
}

keypad_edit hangul_key(char32_t letter, std::string *pending) {
  syllable now = take_apart(*pending);
  const int had = pending->empty() ? 0 : 1;
  syllable next;
  if (is_one_of(letter, VOWELS)) {
    if (now.final != 0) {
      /* The last consonant was the beginning of the next syllable after all. */
      char32_t kept = 0;
      char32_t moved = now.final;
      split(now.final, &kept, &moved);
      now.final = kept;
      next = {moved, letter, 0};
    } else if (now.vowel == 0) {
      now.vowel = letter;
      *pending = put_together(now);
      return {had, *pending};
    } else if (const char32_t joined = join(now.vowel, letter); joined != 0) {
      now.vowel = joined;
      *pending = put_together(now);
      return {had, *pending};
    } else {
      next = {0, letter, 0};
    }
  } else {
    const char32_t joined = now.final != 0 ? join(now.final, letter) : letter;
    if (now.initial != 0 && now.vowel != 0 && is_one_of(joined, FINALS)) {
      now.final = joined;
      *pending = put_together(now);
      return {had, *pending};
    }
    next = {letter, 0, 0};
  }
  const std::string before = put_together(now);
  const bool unchanged = before == *pending;
  *pending = put_together(next);
  return unchanged ? keypad_edit{0, *pending} : keypad_edit{had, before + *pending};
}

}  // namespace

keypad_edit keypad_compose_key(keypad_compose compose, std::string_view key, std::string *pending) {
  if (compose == KEYPAD_COMPOSE_HANGUL && key.size() == 3) {
    const char32_t letter = decode(key);
    if (is_one_of(letter, VOWELS) || is_one_of(letter, INITIALS)) return hangul_key(letter, pending);
  }
  if (compose == KEYPAD_COMPOSE_KANA && key == KANA_MARK_KEY) {
    const char32_t before = decode(*pending);
    for (const letters circle : KANA) {
      const size_t at = circle.find(before);
      if (before == 0 || at == letters::npos) continue;
      *pending = encode(circle[(at + 1) % circle.size()]);
      return {1, *pending};
    }
    return {};
  }
  *pending = compose == KEYPAD_COMPOSE_KANA ? key : "";
  return {0, std::string(key)};
}

keypad_edit keypad_compose_backspace(keypad_compose compose, std::string *pending) {
  if (compose != KEYPAD_COMPOSE_HANGUL || pending->empty()) {
    pending->clear();
    return {1, ""};
  }
  syllable now = take_apart(*pending);
  char32_t kept = 0;
  char32_t dropped = 0;
  if (now.final != 0) {
    split(now.final, &kept, &dropped);
    now.final = kept;
  } else if (now.vowel != 0) {
    split(now.vowel, &kept, &dropped);
    now.vowel = kept;
  } else {
    now = {};
  }
  *pending = put_together(now);
  return {1, *pending};
}
