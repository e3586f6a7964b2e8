/* Folded quotes and signatures, short addresses; see the header. */
#include "brisel-app-detail-fold.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "brisel-app-utils.h"
#include "brisel-scoped.h"

/* Fewer lines are read faster than opened. */
constexpr int least_quoted = 3;
constexpr int least_signature = 2;
/* A line of two hyphens with more than this below it divides a text rather than ends it. */
constexpr int most_signature = 12;
/* Up to two lines of a small display. */
constexpr size_t longest_address = 40;
static const char fold_sign[] = "\xE2\x80\xA6 ";

std::string brisel_detail_plain_text(const char *text, size_t length) {
  char *valid = g_utf8_make_valid(text, (gssize)length);
  std::string plain;
  plain.reserve(strlen(valid));
  for (const char *s = valid; *s;) {
    if (*s == '\r') {
      if (s[1] != '\n') plain += '\n';
      s++;
    } else if (!strncmp(s, "\xE2\x80\xA8", 3) || !strncmp(s, "\xE2\x80\xA9", 3)) {
      plain += '\n';
      s += 3;
    } else {
      plain += *s++;
    }
  }
  g_free(valid);
  return plain;
}

/* --- what is folded --- */

struct line_run {
  size_t end; /* behind its last character, before the line break */
  int lines;
};

static size_t _line_end(std::string_view text, size_t start) {
  size_t end = text.find('\n', start);
  return end == std::string_view::npos ? text.size() : end;
}

static bool _is_quoted(std::string_view text, size_t start) {
  return start < text.size() && text[start] == '>';
}

/* The quoted lines from start on; a blank line between two of them is one more. */
static line_run _quoted_run(std::string_view text, size_t start) {
  line_run run = {start, 0};
  for (size_t at = start; _is_quoted(text, at);) {
    run.end = _line_end(text, at);
    run.lines++;
    at = run.end + 1;
    if (at < text.size() && text[at] == '\n' && _is_quoted(text, at + 1)) at++;
  }
  return run;
}

/* The signature whose line of hyphens starts there: up to the end, or to what it was put above. */
static line_run _signature_run(std::string_view text, size_t start) {
  std::string_view line = text.substr(start, _line_end(text, start) - start);
  line_run run = {start, 0};
  if (start == 0 || (line != "-- " && line != "--")) return run;
  size_t at = start + line.size() + 1;
  while (at < text.size() && !_is_quoted(text, at)) {
    size_t end = _line_end(text, at);
    if (end > at) run.end = end;
    if (++run.lines > most_signature) return {start, 0};
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

static void _append_line(detail_shown *shown, std::string_view text, size_t start, size_t end) {
  size_t done = start;
  /* A search that went on behind the line, or read an address again from its inside, would keep the screen still for a
     long mail. */
  const std::string_view line = text.substr(0, end);
  for (size_t at = line.find("http", start); at < end; at = line.find("http", at + 1)) {
    size_t length = _address_length(text, at, end);
    std::string_view host = length > longest_address ? _host(text.substr(at, length)) : "";
    if (host.empty() || host.size() >= longest_address) {
      if (length) at += length - 1;
      continue;
    }
    shown->text.append(text, done, at - done);
    std::string shortened = std::string(host) + "/\xE2\x80\xA6";
    shown->pieces.push_back({shown->text.size(), shortened.size(), at, length, false});
    shown->text += shortened;
    done = at + length;
    at = done - 1;
  }
  shown->text.append(text, done, end - done);
}

detail_shown brisel_detail_fold(const std::string &source, const std::vector<size_t> &opened, appdata *ad) {
  detail_shown shown;
  shown.text.reserve(source.size());
  std::string_view text = source;
  size_t open_until = 0;
  for (size_t at = 0; at < text.size();) {
    bool is_quote = _is_quoted(text, at);
    line_run run = {at, 0};
    if (at >= open_until) run = is_quote ? _quoted_run(text, at) : _signature_run(text, at);
    bool is_long = run.lines >= (is_quote ? least_quoted : least_signature) && run.end > at;
    bool is_open = is_long && std::find(opened.begin(), opened.end(), at) != opened.end();
    size_t end = _line_end(text, at);
    if (is_open) open_until = run.end;
    if (is_long && !is_open) {
      end = run.end;
      std::string line = _folded_line(is_quote, run.lines, ad);
      shown.pieces.push_back({shown.text.size(), line.size(), at, end - at, true});
      shown.text += line;
    } else {
      _append_line(&shown, text, at, end);
    }
    if (end < text.size()) shown.text += '\n';
    at = end + 1;
  }
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
