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
  /* Neither too long for its letter, nor half of a pair, nor a line break. */
  const auto is_letter_of_three = [&](size_t i) {
    if (bytes[i] == 0xE0) return bytes[i + 1] >= 0xA0;
    if (bytes[i] == 0xED) return bytes[i + 1] < 0xA0;
    return bytes[i] != 0xE2 || bytes[i + 1] != 0x80 || (bytes[i + 2] & 0xFE) != 0xA8;
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
    while (at < length && bytes[at] >= 0xE0 && bytes[at] < 0xF0 && tails(at + 1, 2) && is_letter_of_three(at)) at += 3;
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

size_t brisel_detail_whole_part(const char *piece, size_t length) {
  if (length && piece[length - 1] == '\r') return length - 1;
  for (size_t tail = 1; tail <= std::min(length, (size_t)3); tail++) {
    const auto first = (unsigned char)piece[length - tail];
    if ((first & 0xC0) == 0x80) continue;
    const size_t wanted = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC0 ? 2 : 1;
    return wanted > tail ? length - tail : length;
  }
  return length;
}

/* --- what is folded --- */

/* A text, or a piece of one: what is told of its lines may hang on what follows then. */
struct fold_text {
  std::string_view all;
  size_t judged;       /* nothing before that line is looked at */
  bool is_announced;   /* as the lines before that one say, a mail is passed on */
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

/* Does the line, without the blanks at its end, announce the mail below as one that is passed on? Then it is what there
   is to read. */
static bool _announces(std::string_view line) {
  return line.ends_with(':') || (line.starts_with("--") && line.find_first_not_of("-") != std::string_view::npos);
}

static bool _is_passed_on(const fold_text *text, size_t start) {
  const std::string_view above = text->all.substr(text->judged, start - text->judged);
  const size_t end = above.find_last_not_of(" \n");
  if (end == std::string_view::npos) return text->is_announced;
  const size_t before = above.rfind('\n', end);
  return _announces(above.substr(0, end + 1).substr(before == std::string_view::npos ? 0 : before + 1));
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
  if (!_is_head_line(line, from_words) || _is_passed_on(text, start)) return false;
  size_t at = start + line.size() + 1;
  for (int n = 0; n < most_head_lines && _letter_at(text, at) && text->all[at] != '\n'; n++) {
    line = _line_of(text, at);
    if (_is_head_line(line, subject_words)) return true;
    at += line.size() + 1;
  }
  return false;
}

/* The signature whose line of hyphens starts there: up to the end, or to what it was put above. */
static line_run _signature_run(fold_text *text, size_t start, bool is_first) {
  if (text->all[start] != '-') return {start, 0};
  std::string_view line = _line_of(text, start);
  line_run run = {start, 0};
  if (is_first || (line != "-- " && line != "--")) return run;
  size_t at = start + line.size() + 1;
  while (_letter_at(text, at) && !_is_quoted(text, at) && !_begins_history(text, at)) {
    size_t end = _line_end(text, at);
    if (end > at) run.end = end;
    if (++run.lines > most_signature) return {start, 0};
    at = end + 1;
  }
  return run;
}

/* Are there enough lines from start on to be hidden: quoted ones, a blank line between two of which is one more, or all
   of a mail that is answered? */
static bool _is_long(fold_text *text, size_t start, bool is_quote) {
  int lines = 0;
  for (size_t at = start; lines < least_quoted && _letter_at(text, at) && (!is_quote || _is_quoted(text, at));) {
    const size_t end = _line_end(text, at);
    if (end > at) lines++;
    at = end + 1;
    if (is_quote && lines < least_quoted && _letter_at(text, at) == '\n' && _is_quoted(text, at + 1)) at++;
  }
  return lines == least_quoted;
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
  rest = rest.substr(0, rest.find_first_of(" \t<>\""));
  /* Behind the host letters that are not ASCII may be those of a sentence that goes on without a blank. */
  size_t at = rest.find_first_of("/?#\\", rest.find("//") + 2);
  while (at < rest.size() && (unsigned char)rest[at] < 0x80) at++;
  return std::min(at, rest.size());
}

/* Without what a sentence puts behind it: a point, or the bracket around it. */
static size_t _length_in_sentence(std::string_view address) {
  std::string points = ".,;:!?'";
  if (address.find('(') == std::string_view::npos) points += ')';
  if (address.find('[') == std::string_view::npos) points += ']';
  return address.find_last_not_of(points) + 1;
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

/* A piece that is gone through. */
struct fold_place {
  detail_folding *folding;
  detail_shown *shown;
  const std::vector<size_t> *opened;
  appdata *ad;
  bool is_end;    /* of the whole text */
  size_t done;    /* how far what is shown has come */
  size_t address; /* where one comes next, so that no line looks for what the one before has seen */
  size_t first;   /* where the first line begins that is one from its beginning on */
  size_t written; /* where something is written first */
};

static void _show_done(fold_place *place, size_t to) {
  place->shown->text.append(place->folding->text, place->done, to - place->done);
  place->done = to;
}

/* Shows text for what stands there in the source. */
static void _show_instead(fold_place *place, const std::string &text, size_t source, size_t length, bool is_fold) {
  std::string *shown = &place->shown->text;
  place->shown->pieces.push_back({place->folding->given + shown->size(), text.size(), source, length, is_fold});
  *shown += text;
}

/* The line with its long addresses shortened. */
static void _show_line(fold_place *place, size_t start, size_t end) {
  const std::string_view text = place->folding->text;
  if (place->address < start) place->address = _next_address(text, start);
  while (place->address < end) {
    const size_t at = place->address, length = _length_in_sentence(text.substr(at, _address_length(text, at, end)));
    std::string_view host = length > longest_address ? _host(text.substr(at, length)) : "";
    if (!host.empty() && host.size() < longest_address) {
      _show_done(place, at);
      _show_instead(place, std::string(host) + "/\xE2\x80\xA6", place->folding->before + at, length, false);
      place->done = at + length;
    }
    place->address = _next_address(text, at + std::max(length, (size_t)1));
  }
}

/* How much can be shown of a line whose end has not come: up to an address that may go on, or begin. */
static size_t _line_so_far(std::string_view text, size_t start) {
  size_t end = text.size() - std::min(strlen("https://"), text.size() - start);
  for (size_t at = _next_address(text, start); at < end;) {
    const size_t length = _address_length(text, at, text.size());
    if (at + length > end) end = at;
    at = _next_address(text, at + std::max(length, (size_t)1));
  }
  while (end > start && ((unsigned char)text[end] & 0xC0) == 0x80) end--;
  return end;
}

/* The line there, or as much of it as has come. False when there is no more to show. */
static bool _show_next_line(fold_place *place) {
  detail_folding *folding = place->folding;
  const std::string_view text = folding->text;
  const size_t at = folding->at, found = text.find('\n', at);
  const bool is_whole = found != std::string_view::npos || place->is_end;
  const size_t end = found != std::string_view::npos ? found : is_whole ? text.size() : _line_so_far(text, at);
  if (end > at) _show_line(place, at, end);
  folding->at = is_whole ? std::min(end + 1, text.size()) : end;
  if (!folding->in_line && is_whole) return true;
  /* A line that comes in parts: what its last letter says of the lines below is told here alone. */
  const size_t last = text.substr(0, end).find_last_not_of(' ');
  if (!folding->in_line) folding->last_letter = 0;
  if (last != std::string_view::npos && last >= at) folding->last_letter = text[last];
  folding->in_line = !is_whole && (folding->in_line || end > at);
  if (is_whole) {
    if (folding->last_letter) folding->is_announced = folding->last_letter == ':';
    place->first = folding->at;
  }
  return is_whole;
}

/* Hides more of what is hidden, and shows the line that stands for it when that is all. False when it may go on. */
static bool _hide_on(fold_place *place) {
  detail_folding *folding = place->folding;
  const std::string_view text = folding->text;
  size_t at = folding->at;
  bool is_over = false;
  while (!is_over && at < text.size()) {
    const bool is_blank = text[at] == '\n';
    if (folding->hidden == '>' && text[at] != '>') {
      if (is_blank && at + 1 == text.size() && !place->is_end) break;
      is_over = !is_blank || at + 1 == text.size() || text[at + 1] != '>';
      if (!is_over) at++;
      continue;
    }
    const size_t end = std::min(text.find('\n', at), text.size());
    if (end == text.size() && !place->is_end) break;
    if (!is_blank) {
      folding->hidden_lines++;
      folding->hidden_end = folding->before + end;
    }
    at = std::min(end + 1, text.size());
  }
  folding->at = place->done = at;
  if (!is_over && !place->is_end) return false;
  const size_t from = folding->hidden_from, end = folding->hidden_end;
  _show_instead(place, _folded_line(true, folding->hidden_lines, place->ad), from, end - from, true);
  place->shown->text.append(folding->before + at - end, '\n'); /* nothing else stands behind it */
  folding->hidden = 0;
  return true;
}

static bool _is_open(const fold_place *place, size_t at) {
  return std::find(place->opened->begin(), place->opened->end(), place->folding->before + at) != place->opened->end();
}

/* Whether the line there is one of quoted lines that are open; *is_known: it can be told. */
static bool _is_in_open_quote(const fold_place *place, bool *is_known) {
  const std::string_view text = place->folding->text;
  const size_t at = place->folding->at;
  if (!place->folding->in_open_quote || text[at] == '>') return place->folding->in_open_quote;
  *is_known = text[at] != '\n' || at + 1 < text.size() || place->is_end;
  return text[at] == '\n' && at + 1 < text.size() && text[at + 1] == '>';
}

/* The signature there, when it is one. */
static bool _fold_signature(fold_place *place, fold_text *looked) {
  detail_folding *folding = place->folding;
  const size_t at = folding->at;
  const line_run run = _signature_run(looked, at, folding->before + at == 0);
  if (looked->is_looked_past && !place->is_end) return false;
  if (run.lines < least_signature || run.end == at || _is_open(place, at)) {
    if (run.lines >= least_signature && run.end > at) folding->open_until = folding->before + run.end;
    return _show_next_line(place);
  }
  _show_done(place, at);
  _show_instead(place, _folded_line(false, run.lines, place->ad), folding->before + at, run.end - at, true);
  place->done = run.end;
  folding->at = std::min(run.end + 1, folding->text.size());
  return true;
}

/* The next line, or the next of what is hidden. False when more of the text must come first. */
static bool _fold_next(fold_place *place) {
  detail_folding *folding = place->folding;
  if (folding->hidden) return _hide_on(place);
  const size_t at = folding->at;
  if (folding->in_line || folding->before + at < folding->open_until) return _show_next_line(place);
  bool is_known = true;
  const bool is_in_open = _is_in_open_quote(place, &is_known);
  if (!is_known) return false;
  folding->in_open_quote = is_in_open;
  if (is_in_open) return _show_next_line(place);
  fold_text looked = {folding->text, place->first, folding->is_announced, false};
  const bool is_quote = _is_quoted(&looked, at), has_above = folding->has_above || place->written < at;
  const bool is_history = !is_quote && has_above && _begins_history(&looked, at);
  if (!is_quote && !is_history && !looked.is_looked_past) return _fold_signature(place, &looked);
  const bool is_long = (is_quote || is_history) && _is_long(&looked, at, is_quote);
  if (!is_long && looked.is_looked_past && !place->is_end) return false;
  if (!is_long && !is_quote && !is_history) return _fold_signature(place, &looked);
  if (!is_long) return _show_next_line(place);
  if (_is_open(place, at)) {
    folding->in_open_quote = is_quote;
    if (is_history) folding->open_until = SIZE_MAX;
    return _show_next_line(place);
  }
  _show_done(place, at);
  folding->hidden = is_quote ? '>' : '<';
  folding->hidden_from = folding->hidden_end = folding->before + at;
  folding->hidden_lines = 0;
  return _hide_on(place);
}

/* How far what is shown has come then. */
static size_t _fold(detail_folding *folding, bool is_end, const std::vector<size_t> &opened, appdata *ad,
                    detail_shown *shown) {
  const std::string_view text = folding->text;
  fold_place place = {folding, shown, &opened, ad, is_end, folding->at, 0, 0, 0};
  place.address = _next_address(text, folding->at);
  place.written = folding->has_above ? 0 : std::min(text.find_first_not_of(" \n"), text.size());
  while ((folding->at < text.size() || (is_end && folding->hidden)) && _fold_next(&place)) {
  }
  /* What is above what comes next. */
  size_t above = folding->at;
  if (folding->in_line && above > 0) above = text.rfind('\n', above - 1) + 1;
  if (above > place.first) {
    const fold_text looked = {text, place.first, folding->is_announced, false};
    folding->is_announced = _is_passed_on(&looked, above);
  }
  folding->has_above = folding->has_above || place.written < folding->at;
  return place.done;
}

detail_shown brisel_detail_fold(std::string *source, const std::vector<size_t> &opened, appdata *ad) {
  detail_shown shown;
  detail_folding folding = {.text = std::move(*source)};
  const size_t done = _fold(&folding, true, opened, ad, &shown);
  source->clear();
  if (shown.pieces.empty()) { /* a megabyte is neither copied nor kept twice */
    shown.text = std::move(folding.text);
  } else {
    shown.text.append(folding.text, done);
    *source = std::move(folding.text);
  }
  return shown;
}

void brisel_detail_fold_on(detail_folding *folding, std::string_view plain, bool is_end,
                           const std::vector<size_t> &opened, appdata *ad, detail_shown *shown) {
  folding->text.append(plain);
  const size_t done = _fold(folding, is_end, opened, ad, shown);
  shown->text.append(folding->text, done, folding->at - done);
  folding->text.erase(0, folding->at);
  folding->before += folding->at;
  folding->at = 0;
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
