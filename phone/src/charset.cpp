/* Bytes of any charset, whatever its name claims, as UTF-8. */
#include <glib.h>
#include <gmime/gmime.h>

#include <iconv.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "text.h"

namespace {

/* What the bytes 0x80 to 0x9f are in the charset that most mail without a word about charsets was written in. */
constexpr uint16_t kWindows1252[32] = {0x20ac, 0xfffd, 0x201a, 0x0192, 0x201e, 0x2026, 0x2020, 0x2021,
                                       0x02c6, 0x2030, 0x0160, 0x2039, 0x0152, 0xfffd, 0x017d, 0xfffd,
                                       0xfffd, 0x2018, 0x2019, 0x201c, 0x201d, 0x2022, 0x2013, 0x2014,
                                       0x02dc, 0x2122, 0x0161, 0x203a, 0x0153, 0xfffd, 0x017e, 0x0178};

bool has_high_byte(std::string_view text) {
  return text_ascii_run(text) < text.size();
}

bool is_utf8(std::string_view text) {
  /* NUL bytes are valid characters of a text that lies; they are dropped later. */
  const char *at = text.data();
  size_t left = text.size();
  while (left > 0) {
    const char *end = nullptr;
    if (g_utf8_validate(at, static_cast<gssize>(left), &end)) return true;
    if (*end != '\0') return false;
    left -= static_cast<size_t>(end - at) + 1;
    at = end + 1;
  }
  return true;
}

/* Valid sequences stay, every other byte is read as windows-1252: text with one foreign byte keeps the rest. */
std::string mixed_to_utf8(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size() + bytes.size() / 8);
  const char *at = bytes.data();
  size_t left = bytes.size();
  while (left > 0) {
    const char *end = nullptr;
    g_utf8_validate(at, static_cast<gssize>(left), &end);
    size_t good = static_cast<size_t>(end - at);
    out.append(at, good);
    at += good;
    left -= good;
    if (left == 0) break;
    auto c = static_cast<unsigned char>(*at);
    if (c >= 0xa0)
      text_append_char(&out, c);
    else if (c >= 0x80)
      text_append_char(&out, kWindows1252[c - 0x80]);
    at++;
    left--;
  }
  return out;
}

/* Converts with iconv; a byte it refuses becomes U+FFFD. Returns false when the charset is not known here. */
bool iconv_to_utf8(std::string_view bytes, const char *charset, std::string *out, size_t *bad) {
  iconv_t converter = iconv_open("UTF-8", charset);
  if (converter == reinterpret_cast<iconv_t>(-1)) return false;
  char *in = const_cast<char *>(bytes.data());
  size_t left = bytes.size();
  char buffer[4096];
  *bad = 0;
  out->reserve(bytes.size() + bytes.size() / 2);
  while (left > 0) {
    char *to = buffer;
    size_t room = sizeof buffer;
    size_t done = iconv(converter, &in, &left, &to, &room);
    out->append(buffer, sizeof buffer - room);
    if (done != static_cast<size_t>(-1)) break;
    if (errno == E2BIG) continue;
    (*bad)++;
    text_append_char(out, 0xfffd);
    if (errno == EINVAL || left == 0) break; /* cut off in the middle of a character */
    in++;
    left--;
    iconv(converter, nullptr, nullptr, nullptr, nullptr);
  }
  iconv_close(converter);
  return true;
}

/* The name iconv knows it by, with the wider charset that writers mean when they name a narrow one. */
std::string converter_name(const std::string &name) {
  struct alias {
    const char *from;
    const char *to;
  };
  static constexpr alias kAliases[] = {
      {"iso-8859-1", "WINDOWS-1252"},
      {"latin1", "WINDOWS-1252"},
      {"iso8859-1", "WINDOWS-1252"},
      {"iso-8859-9", "WINDOWS-1254"},
      {"iso-8859-8-i", "ISO-8859-8"},
      {"iso-8859-8-e", "ISO-8859-8"},
      {"gb2312", "GB18030"},
      {"gbk", "GB18030"},
      {"x-gbk", "GB18030"},
      {"gb_2312-80", "GB18030"},
      {"hz-gb-2312", "ISO-2022-CN"},
      {"big5", "BIG5-HKSCS"},
      {"euc-kr", "CP949"},
      {"ks_c_5601-1987", "CP949"},
      {"ks_c_5601", "CP949"},
      {"korean", "CP949"},
      {"shift_jis", "CP932"},
      {"shift-jis", "CP932"},
      {"x-sjis", "CP932"},
      {"sjis", "CP932"},
      {"cp-850", "CP850"},
      {"x-mac-cyrillic", "MACCYRILLIC"},
      {"tis-620", "CP874"},
      {"macroman", "MACINTOSH"},
      {"x-mac-roman", "MACINTOSH"},
  };
  for (const alias &entry : kAliases)
    if (name == entry.from) return entry.to;
  const char *known = g_mime_charset_iconv_name(name.c_str());
  return known ? known : name;
}

bool is_japanese_7bit(const std::string &name) {
  return name.starts_with("iso-2022-jp") || name == "csiso2022jp";
}

/* ISO-2022-JP as EUC-JP: every converter knows the latter with the makers' own characters (circled digits, company
   signs), which stand in the former though it has none, and which a strict converter takes the whole rest for. */
std::string japanese_to_euc(std::string_view text) {
  enum { ASCII, TWO_BYTES, SUPPLEMENT, KATAKANA } set = ASCII;
  std::string out;
  for (size_t i = 0; i < text.size(); i++) {
    std::string_view rest = text.substr(i);
    auto c = static_cast<unsigned char>(text[i]);
    if (rest.starts_with("\x1b$(D")) {
      set = SUPPLEMENT;
      i += 3;
    } else if (rest.starts_with("\x1b$(")) {
      set = TWO_BYTES;
      i += 3;
    } else if (rest.starts_with("\x1b$")) {
      set = TWO_BYTES;
      i += 2;
    } else if (rest.starts_with("\x1b(")) {
      set = rest.size() > 2 && rest[2] == 'I' ? KATAKANA : ASCII;
      i += 2;
    } else if (c < 0x21 || c > 0x7e) {
      if (c == '\n') set = ASCII;
      out += text[i];
    } else if (set == ASCII) {
      out += text[i];
    } else if (set == KATAKANA) {
      out += '\x8e';
      out += static_cast<char>(c | 0x80);
    } else if (i + 1 < text.size() && text[i + 1] >= 0x21 && text[i + 1] <= 0x7e) {
      if (set == SUPPLEMENT) out += '\x8f';
      out += static_cast<char>(c | 0x80);
      out += static_cast<char>(text[++i] | 0x80);
    }
  }
  return out;
}

/* Japanese in whichever of its charsets, whatever its name says. */
std::string japanese_to_utf8(std::string_view bytes) {
  if (has_high_byte(bytes) && bytes.find('\x1b') == std::string_view::npos) {
    if (is_utf8(bytes)) return std::string(bytes);
    std::string euc, shifted;
    size_t euc_bad = 0, shifted_bad = 0;
    iconv_to_utf8(bytes, "EUC-JP-MS", &euc, &euc_bad);
    iconv_to_utf8(bytes, "CP932", &shifted, &shifted_bad);
    return euc_bad <= shifted_bad ? euc : shifted;
  }
  std::string out;
  size_t bad = 0;
  return iconv_to_utf8(japanese_to_euc(bytes), "EUC-JP-MS", &out, &bad) ? out : mixed_to_utf8(bytes);
}

/* Text of a charset of two bytes is by accident valid UTF-8 with longer characters next to never. */
bool is_long_utf8(std::string_view bytes) {
  return is_utf8(bytes) && std::any_of(bytes.begin(), bytes.end(), [](char c) { return (c & 0xf0) == 0xe0; });
}

bool starts_with(const std::string &text, const char *start) {
  return text.rfind(start, 0) == 0;
}

}  // namespace

std::string mime_to_utf8(std::string_view bytes, const char *charset) {
  std::string name;
  for (const char *c = charset ? charset : ""; *c && name.size() < 64; c++)
    if (g_ascii_isgraph(*c) && *c != '"' && *c != '\'') name += g_ascii_tolower(*c);

  bool unnamed = name.empty() || name == "us-ascii" || name == "ascii" || name == "utf-8" || name == "utf8" ||
                 name == "unknown-8bit" || name == "x-unknown" || name == "default" || name == "8bit" ||
                 name == "ansi_x3.4-1968";
  if (unnamed) {
    if (!has_high_byte(bytes)) {
      /* Seven bits with a switching sequence are Japanese whose writer forgot to say so. */
      if (bytes.find("\x1b$") == std::string_view::npos) return text_clean(bytes);
      return text_clean(japanese_to_utf8(bytes));
    } else if (is_utf8(bytes)) {
      return text_clean(bytes);
    } else {
      return text_clean(mixed_to_utf8(bytes));
    }
  }
  /* Text of a one-byte charset is by accident valid UTF-8 next to never: the name is wrong then, not the text. */
  bool one_byte = starts_with(name, "iso-8859") || starts_with(name, "iso8859") || starts_with(name, "windows-12") ||
                  starts_with(name, "cp12") || starts_with(name, "koi8") || name == "latin1";
  if (one_byte && has_high_byte(bytes) && is_utf8(bytes)) return text_clean(bytes);

  if (is_japanese_7bit(name)) return text_clean(japanese_to_utf8(bytes));
  if (!one_byte && !name.starts_with("utf-") && is_long_utf8(bytes)) return text_clean(bytes);

  std::string out;
  size_t bad = 0;
  bool known = iconv_to_utf8(bytes, converter_name(name).c_str(), &out, &bad);
  if (!known && name.find('_') != std::string::npos) {
    std::replace(name.begin(), name.end(), '_', '-');
    known = iconv_to_utf8(bytes, converter_name(name).c_str(), &out, &bad);
  }
  if (!known) return text_clean(mixed_to_utf8(bytes));
  if (bad > bytes.size() / 10 && is_utf8(bytes)) return text_clean(bytes);
  /* Some names make the converter pass on what it was given. */
  return text_clean(is_utf8(out) ? out : mixed_to_utf8(out));
}
