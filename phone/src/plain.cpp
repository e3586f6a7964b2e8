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

std::string plain_tidy(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  size_t blanks = 0;
  int newlines = 0;
  for (char c : text) {
    if (c == '\n') {
      newlines++;
      blanks = 0;
    } else if (c == ' ' || c == '\t') {
      if (newlines > 0 && !out.empty()) {
        out.append(static_cast<size_t>(std::min(newlines, 3)), '\n');
        newlines = 0;
      }
      if (!out.empty()) blanks++;
    } else {
      if (!out.empty() && newlines > 0) out.append(static_cast<size_t>(std::min(newlines, 3)), '\n');
      out.append(blanks, ' ');
      blanks = 0;
      newlines = 0;
      out += c;
    }
  }
  return out;
}
