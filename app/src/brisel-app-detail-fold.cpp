/* Folded quotes and signatures, short addresses; see the header. */
#include "brisel-app-detail-fold.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "brisel-app-utils.h"
#include "brisel-scoped.h"
#include "platform-pages.h"

/* Fewer lines are read faster than opened. */
constexpr int least_quoted = 3;
constexpr int least_signature = 2;
/* A line of two hyphens with more than this below it divides a text rather than ends it. */
constexpr int most_signature = 12;
/* Up to two lines of a small display. */
constexpr size_t longest_address = 40;
/* Bytes, of which the memory is got at once. */
constexpr size_t long_text = 256 << 10;
static const char fold_sign[] = "\xE2\x80\xA6 ";

/* How many bytes from s on stay as they are. A body may be a megabyte of any script: ASCII goes by eight, what is no
   line break and no doubt goes in runs of like letters, and the rest is left to a closer look. */
static size_t _plain_run(const char *s, size_t length) {
  constexpr uint64_t ones = 0x0101010101010101, tops = 0x80 * ones, returns = '\r' * ones;
  const unsigned char *bytes = (const unsigned char *)s;
  const auto tails = [&](size_t i, size_t count) {
    bool all = i + count <= length;
    for (size_t n = 0; all && n < count; n++) all = (bytes[i + n] & 0xC0) == 0x80;
    return all;
  };
  const auto is_separator = [&](size_t i) {
    return bytes[i] == 0xE2 && bytes[i + 1] == 0x80 && (bytes[i + 2] & 0xFE) == 0xA8;
  };
  for (size_t at = 0;;) {
    const size_t begin = at;
    for (uint64_t eight; at + sizeof eight <= length; at += sizeof eight) {
      memcpy(&eight, s + at, sizeof eight);
      const uint64_t other = eight ^ returns;
      if ((eight | (eight - ones) | (other - ones)) & tops) break;
    }
    while (at < length && bytes[at] && bytes[at] < 0x80 && bytes[at] != '\r') at++;
    while (at < length && bytes[at] >= 0xC2 && bytes[at] < 0xE0 && tails(at + 1, 1)) at += 2;
    while (at < length && bytes[at] > 0xE0 && bytes[at] < 0xED && tails(at + 1, 2) && !is_separator(at)) at += 3;
    while (at < length && bytes[at] == 0xF0 && tails(at + 1, 3) && bytes[at + 1] >= 0x90) at += 4;
    if (at == begin) return at;
  }
}

std::string brisel_detail_plain_text(const char *text, size_t length) {
  static const char unknown[] = "\xEF\xBF\xBD"; /* for a byte that begins no character */
  std::string plain;
  plain.reserve(length);
  if (length >= long_text) platform_pages_get(plain.data(), length);
  const char *end = text + length;
  for (const char *s = text; s < end;) {
    const size_t run = _plain_run(s, (size_t)(end - s));
    plain.append(s, run);
    s += run;
    if (s == end) break;
    const gunichar c = g_utf8_get_char_validated(s, end - s);
    const bool is_known = c && c != (gunichar)-1 && c != (gunichar)-2;
    const size_t size = is_known ? (size_t)(g_utf8_next_char(s) - s) : 1;
    if (c == '\r') {
      if (s + 1 == end || s[1] != '\n') plain += '\n';
    } else if (c == 0x2028 || c == 0x2029) {
      plain += '\n';
    } else {
      plain.append(is_known ? s : unknown, is_known ? size : sizeof(unknown) - 1);
    }
    s += size;
  }
  return plain;
}

/* --- what is folded --- */

/* A text, or the beginning of one: what is told of its lines may hang on what follows then. */
struct fold_text {
  std::string_view all;
  bool is_looked_past; /* since this was last cleared, its end was looked for what may follow */
};

struct line_run {
  size_t end; /* behind its last character, before the line break */
  int lines;
};

static size_t _line_end(fold_text *text, size_t start) {
  const size_t end = text->all.find('\n', start);
  if (end != std::string_view::npos) return end;
  text->is_looked_past = true;
  return text->all.size();
}

/* The character there; 0 behind the end. */
static char _letter_at(fold_text *text, size_t at) {
  if (at < text->all.size()) return text->all[at];
  text->is_looked_past = true;
  return 0;
}

static bool _is_quoted(fold_text *text, size_t start) {
  return _letter_at(text, start) == '>';
}

static std::string_view _line_of(fold_text *text, size_t start) {
  return text->all.substr(start, _line_end(text, start) - start);
}

/* The quoted lines from start on; a blank line between two of them is one more. */
static line_run _quoted_run(fold_text *text, size_t start) {
  line_run run = {start, 0};
  for (size_t at = start; _is_quoted(text, at);) {
    run.end = _line_end(text, at);
    run.lines++;
    at = run.end + 1;
    if (_letter_at(text, at) == '\n' && _is_quoted(text, at + 1)) at++;
  }
  return run;
}

/* What programs write above the mail that is answered, where they mark its lines with nothing. */
static constexpr const char *original_words[] = {
    "Original Message",
    "Original Appointment",
    "Urspr\xC3\xBCngliche Nachricht",
    "Original-Nachricht",
    "Originalnachricht",
    "Message d'origine",
    "Message d\xE2\x80\x99origine",
    "Message original",
    "Mensaje original",
    "Mensagem original",
    "Messaggio originale",
    "Oorspronkelijk bericht",
    "\xE5\x85\x83\xE3\x81\xAE\xE3\x83\xA1\xE3\x83\x83\xE3\x82\xBB\xE3\x83\xBC\xE3\x82\xB8",
    "\xE5\x8E\x9F\xE5\xA7\x8B\xE9\x82\xAE\xE4\xBB\xB6"};
static constexpr const char *from_words[] = {"From",
                                             "Von",
                                             "De",
                                             "Da",
                                             "Van",
                                             "\xD0\x9E\xD1\x82",
                                             "\xE5\xB7\xAE\xE5\x87\xBA\xE4\xBA\xBA",
                                             "\xE5\x8F\x91\xE4\xBB\xB6\xE4\xBA\xBA",
                                             "\xEB\xB3\xB4\xEB\x82\xB8 \xEC\x82\xAC\xEB\x9E\x8C"};
static constexpr const char *subject_words[] = {"Subject",
                                                "Betreff",
                                                "Objet",
                                                "Asunto",
                                                "Assunto",
                                                "Oggetto",
                                                "Onderwerp",
                                                "\xD0\xA2\xD0\xB5\xD0\xBC\xD0\xB0",
                                                "\xE4\xBB\xB6\xE5\x90\x8D",
                                                "\xE4\xB8\xBB\xE9\xA2\x98",
                                                "\xEC\xA0\x9C\xEB\xAA\xA9"};
/* Lines of such a head: a long list of receivers takes several. */
constexpr int most_head_lines = 12;
constexpr size_t longest_divider = 120;

/* Does the line begin with one of the names and a colon? */
template <size_t count>
static bool _is_head_line(std::string_view line, const char *const (&names)[count]) {
  line.remove_prefix(std::min(line.find_first_not_of("* "), line.size()));
  for (const char *name : names) {
    if (line.empty() || line.front() != *name || !line.starts_with(name)) continue;
    std::string_view rest = line.substr(strlen(name));
    rest.remove_prefix(std::min(rest.find_first_not_of("* \xC2\xA0"), rest.size()));
    if (rest.starts_with(":") || rest.starts_with("\xEF\xBC\x9A")) return true;
  }
  return false;
}

/* Is the mail below announced as one that is passed on? Then it is what there is to read. */
static bool _is_passed_on(std::string_view text, size_t start) {
  size_t end = text.substr(0, start).find_last_not_of(" \n");
  if (end == std::string_view::npos) return true;
  size_t before = text.rfind('\n', end);
  std::string_view line = text.substr(0, end + 1).substr(before == std::string_view::npos ? 0 : before + 1);
  return line.ends_with(':') || (line.starts_with("--") && line.find_first_not_of("-") != std::string_view::npos);
}

/* The bytes that a line of a head may begin with: with a divider, with what stands before a name, or with a name. Asked
   of every line, of which most begin otherwise. */
static constexpr std::array<bool, 256> history_firsts = [] {
  std::array<bool, 256> firsts = {};
  firsts['-'] = firsts['*'] = firsts[' '] = true;
  for (const char *name : from_words) firsts[(unsigned char)*name] = true;
  return firsts;
}();

static bool _begins_history(fold_text *text, size_t start) {
  if (!history_firsts[(unsigned char)_letter_at(text, start)]) return false;
  std::string_view line = _line_of(text, start);
  if (line.starts_with("--") && line.size() <= longest_divider) {
    for (const char *words : original_words)
      if (line.find(words) != std::string_view::npos) return true;
    return false;
  }
  if (!_is_head_line(line, from_words) || _is_passed_on(text->all, start)) return false;
  size_t at = start + line.size() + 1;
  for (int n = 0; n < most_head_lines && _letter_at(text, at) && text->all[at] != '\n'; n++) {
    line = _line_of(text, at);
    if (_is_head_line(line, subject_words)) return true;
    at += line.size() + 1;
  }
  return false;
}

/* The signature whose line of hyphens starts there: up to the end, or to what it was put above. */
static line_run _signature_run(fold_text *text, size_t start) {
  if (text->all[start] != '-') return {start, 0};
  std::string_view line = _line_of(text, start);
  line_run run = {start, 0};
  if (start == 0 || (line != "-- " && line != "--")) return run;
  size_t at = start + line.size() + 1;
  while (_letter_at(text, at) && !_is_quoted(text, at) && !_begins_history(text, at)) {
    size_t end = _line_end(text, at);
    if (end > at) run.end = end;
    if (++run.lines > most_signature) return {start, 0};
    at = end + 1;
  }
  return run;
}

/* The mail that is answered, from its head to the end, where something stands above it. */
static line_run _history_run(fold_text *text, size_t start, size_t first) {
  line_run run = {start, 0};
  if (start <= first || !_begins_history(text, start)) return run;
  for (size_t at = start; _letter_at(text, at);) {
    size_t end = _line_end(text, at);
    if (end > at) {
      run.end = end;
      run.lines++;
    }
    at = end + 1;
  }
  return run;
}

static std::string _folded_line(bool is_quote, int lines, appdata *ad) {
  if (!is_quote) return std::string(fold_sign) + brisel_util_get_text("IDS_EMAIL_BODY_SIGNATURE");
  scoped_text counted(brisel_util_get_count_text("IDS_EMAIL_BODY_PD_QUOTED_LINES", lines, ad));
  return fold_sign + std::string(counted ? counted.get() : "");
}

/* --- addresses --- */

/* The length of a web address that starts there, or 0. */
static size_t _address_length(std::string_view text, size_t start, size_t end) {
  std::string_view rest = text.substr(start, end - start);
  if (!rest.starts_with("https://") && !rest.starts_with("http://")) return 0;
  size_t length = rest.find_first_of(" \t<>\"");
  return length == std::string_view::npos ? rest.size() : length;
}

/* The host is what says where an address leads: the last name before a port or a path, not one before an "@". */
static std::string_view _host(std::string_view address) {
  address.remove_prefix(address.find("//") + 2);
  address = address.substr(0, address.find_first_of("/?#\\"));
  size_t user = address.rfind('@');
  return user == std::string_view::npos ? address : address.substr(user + 1);
}

/* Where the next web address begins, or npos. */
static size_t _next_address(std::string_view text, size_t from) {
  for (size_t at = text.find("://", from); at != std::string_view::npos; at = text.find("://", at + 1)) {
    const std::string_view before = text.substr(from, at - from);
    if (before.ends_with("http")) return at - 4;
    if (before.ends_with("https")) return at - 5;
  }
  return std::string_view::npos;
}

/* A text that is gone through: how far the one that is shown has come, and where an address comes next, so that no line
   looks for what the one before has seen. */
struct fold_place {
  size_t done, address;
};

/* Appends the line with its long addresses shortened, and what is not there yet of the text before them. */
static void _append_line(detail_shown *shown, std::string_view text, size_t start, size_t end, fold_place *place) {
  if (place->address < start) place->address = _next_address(text, start);
  while (place->address < end) {
    const size_t at = place->address, length = _address_length(text, at, end);
    std::string_view host = length > longest_address ? _host(text.substr(at, length)) : "";
    if (!host.empty() && host.size() < longest_address) {
      shown->text.append(text, place->done, at - place->done);
      std::string shortened = std::string(host) + "/\xE2\x80\xA6";
      shown->pieces.push_back({shown->text.size(), shortened.size(), at, length, false});
      shown->text += shortened;
      place->done = at + length;
    }
    place->address = _next_address(text, at + std::max(length, (size_t)1));
  }
}

detail_shown brisel_detail_fold(std::string *source, const std::vector<size_t> &opened, appdata *ad,
                                bool is_beginning) {
  detail_shown shown;
  std::string_view text = *source;
  fold_text looked = {text, false};
  size_t open_until = 0;
  fold_place place = {0, 0};
  place.address = _next_address(text, 0);
  const size_t first = text.find_first_not_of(" \n");
  size_t at = 0;
  while (at < text.size()) {
    looked.is_looked_past = false;
    bool is_quote = _is_quoted(&looked, at);
    line_run run = {at, 0};
    if (at >= open_until && !is_quote) run = _history_run(&looked, at, first);
    const bool is_history = run.lines > 0;
    if (at >= open_until && !is_history) run = is_quote ? _quoted_run(&looked, at) : _signature_run(&looked, at);
    if (is_beginning && looked.is_looked_past) break;
    is_quote = is_quote || is_history;
    bool is_long = run.lines >= (is_quote ? least_quoted : least_signature) && run.end > at;
    bool is_open = is_long && std::find(opened.begin(), opened.end(), at) != opened.end();
    size_t end = _line_end(&looked, at);
    if (is_open) open_until = run.end;
    if (is_long && !is_open) {
      end = run.end;
      shown.text.append(text, place.done, at - place.done);
      std::string line = _folded_line(is_quote, run.lines, ad);
      shown.pieces.push_back({shown.text.size(), line.size(), at, end - at, true});
      shown.text += line;
      place.done = end;
    } else {
      _append_line(&shown, text, at, end, &place);
    }
    at = end + 1;
  }
  if (at < text.size()) source->resize(at);
  if (shown.pieces.empty())
    shown.text = std::move(*source); /* a megabyte is neither copied nor kept twice */
  else
    shown.text.append(*source, place.done);
  return shown;
}

/* --- places --- */

const detail_piece *brisel_detail_piece_at(const detail_shown &shown, size_t at) {
  for (const detail_piece &piece : shown.pieces)
    if (piece.shown <= at && at < piece.shown + piece.shown_length) return &piece;
  return nullptr;
}

/* A text's part of a piece: where it begins, and how long it is. */
struct piece_side {
  size_t detail_piece::*start, detail_piece::*length;
};
static constexpr piece_side side_shown = {&detail_piece::shown, &detail_piece::shown_length};
static constexpr piece_side side_source = {&detail_piece::source, &detail_piece::source_length};

/* Where the byte at that place of one text is in the other. */
static size_t __brisel_detail_place(const detail_shown &shown, size_t at, piece_side of, piece_side in) {
  size_t behind_of = 0, behind_in = 0;
  for (const detail_piece &piece : shown.pieces) {
    if (at < piece.*of.start) break;
    if (at < piece.*of.start + piece.*of.length) return piece.*in.start;
    behind_of = piece.*of.start + piece.*of.length;
    behind_in = piece.*in.start + piece.*in.length;
  }
  return behind_in + (at - behind_of);
}

size_t brisel_detail_source_of(const detail_shown &shown, size_t at) {
  return __brisel_detail_place(shown, at, side_shown, side_source);
}

size_t brisel_detail_place_of(const detail_shown &shown, size_t source) {
  return __brisel_detail_place(shown, source, side_source, side_shown);
}
