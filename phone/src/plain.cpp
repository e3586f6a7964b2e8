/* Plain text parts made readable: flowed lines joined, armour of signatures and needless blanks gone. Used by the walk
   through a message's parts. */
#include <algorithm>

#include "text.h"

std::string plain_unflow(const std::string &text, bool delete_space) {
  std::string out;
  bool joined = false;
  size_t last_quote = 0;
  for (size_t at = 0; at <= text.size();) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    std::string_view line(text.data() + at, end - at);
    size_t quote = 0;
    while (quote < line.size() && line[quote] == '>') quote++;
    std::string_view content = line.substr(quote);
    if (!content.empty() && content[0] == ' ') content.remove_prefix(1); /* stuffed */
    bool signature = content == "-- ";
    bool flows = !content.empty() && content.back() == ' ' && !signature;
    if (joined && (quote != last_quote || signature)) {
      out += '\n';
      joined = false;
    }
    if (!joined && quote > 0) {
      out.append(quote, '>');
      out += ' ';
    }
    if (flows && delete_space) content.remove_suffix(1);
    out += content;
    if (!flows && end < text.size()) out += '\n';
    joined = flows;
    last_quote = quote;
    at = end + 1;
  }
  return out;
}

std::string plain_without_armour(const std::string &text) {
  constexpr char kBegin[] = "-----BEGIN PGP SIGNED MESSAGE-----", kEnd[] = "-----BEGIN PGP SIGNATURE-----",
                 kLast[] = "-----END PGP SIGNATURE-----";
  if (text.find(kBegin) == std::string::npos) return text;
  std::string out;
  enum { OUTSIDE, HEADERS, SIGNED, SIGNATURE } where = OUTSIDE;
  for (size_t at = 0; at < text.size();) {
    size_t end = std::min(text.find('\n', at), text.size());
    std::string_view line(text.data() + at, end - at);
    if (where == OUTSIDE && line.starts_with(kBegin)) {
      where = HEADERS;
    } else if (where == HEADERS) {
      if (line.empty()) where = SIGNED;
    } else if (where == SIGNED && line.starts_with(kEnd)) {
      where = SIGNATURE;
    } else if (where == SIGNATURE) {
      if (line.starts_with(kLast)) where = OUTSIDE;
    } else {
      if (where == SIGNED && line.starts_with("- ")) line.remove_prefix(2);
      out += line;
      out += '\n';
    }
    at = end + 1;
  }
  return out;
}

namespace {

/* "begin 644 name" and behind it a line of the length that its first sign says. */
bool begins_uuencode(std::string_view text) {
  if (!text.starts_with("begin ") || text.size() < 10) return false;
  for (size_t i = 6; i < 9; i++)
    if (text[i] < '0' || text[i] > '7') return false;
  size_t line = text.find('\n');
  if (text[9] != ' ' || line == std::string_view::npos || line + 1 >= text.size()) return false;
  std::string_view data = text.substr(line + 1, text.find('\n', line + 1) - line - 1);
  if (data.empty() || data[0] < ' ' || data[0] > '`') return false;
  size_t bytes = static_cast<size_t>(data[0] - ' ') & 63;
  return data.size() >= 1 + (bytes + 2) / 3 * 4;
}

/* Behind the line that is `last`, or the end of the text. */
size_t behind_line(std::string_view text, size_t from, std::string_view last) {
  for (size_t at = from; at < text.size();) {
    size_t end = std::min(text.find('\n', at), text.size());
    if (text.substr(at, end - at).starts_with(last)) return end;
    at = end + 1;
  }
  return text.size();
}

}  // namespace

std::string plain_without_blocks(const std::string &text, int *files) {
  constexpr char kPgp[] = "-----BEGIN PGP MESSAGE-----", kPgpEnd[] = "-----END PGP MESSAGE-----";
  bool any = text.find("begin ") != std::string::npos || text.find(kPgp) != std::string::npos;
  if (!any) return text;
  std::string out;
  for (size_t at = 0; at < text.size();) {
    std::string_view rest = std::string_view(text).substr(at);
    if (rest.starts_with(kPgp)) {
      out += plain_encrypted_pgp;
      at = behind_line(text, at, kPgpEnd);
    } else if (begins_uuencode(rest)) {
      (*files)++;
      at = behind_line(text, at, "end");
    } else {
      size_t end = std::min(text.find('\n', at), text.size());
      out.append(text, at, end - at);
      at = end;
    }
    if (at < text.size()) out += text[at++];
  }
  return out;
}

namespace {

constexpr char kRule[] = "———"; /* as in HTML */

/* Blanks that are more than one byte: at `at` of valid UTF-8; 0 when there is none. */
size_t wide_blank(std::string_view text, size_t at) {
  if ((text[at] & 0x80) == 0) return 0;
  for (std::string_view blank :
       {"\xc2\xa0", "\xe2\x80\x8b", "\xe2\x80\x83", "\xe2\x80\x82", "\xe2\x80\x89", "\xe3\x80\x80"})
    if (text.substr(at, blank.size()) == blank) return blank.size();
  return 0;
}

/* A line of nothing but one sign, or two in turn, as writers draw rules: on a small screen it wraps to several. */
size_t rule_end(std::string_view text, size_t at) {
  constexpr size_t kLongRule = 16;
  constexpr std::string_view kDrawn = "-=_*~#+.:";
  if (text[at] != '\xe2' && kDrawn.find(text[at]) == kDrawn.npos) return at;
  size_t turn = at;
  while (turn + 1 < text.size() && text[turn + 1] != '\n' && text[turn] == text[at + (turn - at) % 2]) turn++;
  if (turn < text.size() && text[turn] == text[at + (turn - at) % 2]) turn++;
  if (turn - at > kLongRule && (turn == text.size() || text[turn] == '\n') && kDrawn.find(text[at]) != kDrawn.npos &&
      (text[at + 1] == ' ' || kDrawn.find(text[at + 1]) != kDrawn.npos))
    return turn;
  static constexpr std::string_view kSigns[] = {
      "-", "=", "_", "*", "~", "#", "+", ".", "\xe2\x80\x94", "\xe2\x94\x80", "\xe2\x95\x90", "\xe2\x80\x93"};
  for (std::string_view sign : kSigns) {
    size_t end = at, count = 0;
    for (; text.substr(end, sign.size()) == sign; end += sign.size()) count++;
    if (count > kLongRule && (end == text.size() || text[end] == '\n' || text[end] == ' ')) return end;
  }
  return at;
}

/* A blank, a line's end, or a byte that may begin a blank. */
constexpr auto is_white = [](auto c) {
  return (c == ' ') | (c == '\n') | (c == '\t') | (c == 0xc2) | (c == 0xe2) | (c == 0xe3);
};

/* The sign at `at` and what only follows it, a mail being made of little else: more of one byte, single blanks between
   them. Returns where it ends. */
size_t append_ordinary(std::string_view text, size_t at, std::string *out) {
  const size_t end = text_words_end(text, at + 1, is_white);
  out->append(text, at, end - at);
  return end;
}

}  // namespace

std::string plain_tidy(std::string_view text) {
  std::string out, blanks;
  out.reserve(text.size());
  int newlines = 0;
  for (size_t at = 0; at < text.size();) {
    size_t wide = wide_blank(text, at);
    if (text[at] == '\n') {
      newlines++;
      blanks.clear();
      at++;
    } else if (text[at] == ' ' || text[at] == '\t' || wide > 0) {
      size_t size = std::max<size_t>(wide, 1);
      if (!out.empty() || newlines == 0) blanks.append(wide == 0 ? " " : text.substr(at, size));
      at += size;
    } else {
      bool line_start = newlines > 0 || out.empty();
      if (!out.empty() && newlines > 0) out.append(static_cast<size_t>(std::min(newlines, 3)), '\n');
      if (!out.empty()) out += blanks;
      blanks.clear();
      newlines = 0;
      size_t rule = line_start ? rule_end(text, at) : at;
      if (rule > at) {
        out += kRule;
        at = rule;
      } else {
        at = append_ordinary(text, at, &out);
      }
    }
  }
  return out;
}
