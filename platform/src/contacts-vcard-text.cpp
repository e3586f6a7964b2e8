#include "contacts-vcard-text.h"

#include <glib.h>

#include <algorithm>
#include <memory>

#include "text-check.h"

namespace {

constexpr size_t parameters_max = 64;

std::string upper(std::string_view text) {
  std::string result(text);
  for (char &c : result) c = g_ascii_toupper(c);
  return result;
}

void add_parameter(std::string_view text, vcard_property *prop) {
  const size_t equals = text.find('=');
  const std::string name = equals == std::string_view::npos ? "" : upper(vcard_trim(text.substr(0, equals)));
  std::string_view values = equals == std::string_view::npos ? text : text.substr(equals + 1);
  /* TYPE=home,cell and TYPE="home,cell" are both in use. */
  while (true) {
    const size_t comma = std::min(values.find(','), values.size());
    std::string_view value = vcard_trim(values.substr(0, comma));
    while (!value.empty() && value.front() == '"') value.remove_prefix(1);
    while (!value.empty() && value.back() == '"') value.remove_suffix(1);
    if (prop->parameters.size() < parameters_max) prop->parameters.push_back({name, std::string(value)});
    if (comma == values.size()) return;
    values.remove_prefix(comma + 1);
  }
}

/* Bytes written as a mark and two hexadecimal digits. */
std::string decode_hex(std::string_view text, char mark) {
  std::string result;
  for (size_t i = 0; i < text.size(); i++) {
    if (text[i] == mark && i + 2 < text.size() && g_ascii_isxdigit(text[i + 1]) && g_ascii_isxdigit(text[i + 2])) {
      result += static_cast<char>(g_ascii_xdigit_value(text[i + 1]) * 16 + g_ascii_xdigit_value(text[i + 2]));
      i += 2;
    } else {
      result += text[i];
    }
  }
  return result;
}

std::string decode_base64(std::string_view text) {
  const std::string source(text);
  gsize size = 0;
  const std::unique_ptr<guchar, decltype(&g_free)> bytes(g_base64_decode(source.c_str(), &size), g_free);
  return {reinterpret_cast<const char *>(bytes.get()), size};
}

bool convert(std::string_view text, const char *charset, std::string *result) {
  gsize size = 0;
  const std::unique_ptr<char, decltype(&g_free)> converted(
      g_convert(text.data(), static_cast<gssize>(text.size()), "UTF-8", charset, nullptr, &size, nullptr), g_free);
  if (converted == nullptr) return false;
  result->assign(converted.get(), size);
  return text_utf8_valid(*result);
}

bool charset_name_sane(const std::string &name) {
  return !name.empty() && name.size() <= 40 && std::all_of(name.begin(), name.end(), [](char c) {
    return g_ascii_isalnum(c) || c == '-' || c == '_' || c == '.' || c == ':';
  });
}

}  // namespace

std::string_view vcard_trim(std::string_view text) {
  while (!text.empty() && g_ascii_isspace(text.front())) text.remove_prefix(1);
  while (!text.empty() && g_ascii_isspace(text.back())) text.remove_suffix(1);
  return text;
}

bool vcard_same_word(std::string_view text, std::string_view word) {
  return text.size() == word.size() && g_ascii_strncasecmp(text.data(), word.data(), word.size()) == 0;
}

bool vcard_has_parameter(const vcard_property &prop, std::string_view name, std::string_view value) {
  return std::any_of(prop.parameters.begin(), prop.parameters.end(), [&](const vcard_parameter &one) {
    return (one.name.empty() || one.name == name) && vcard_same_word(one.value, value);
  });
}

bool vcard_is_quoted_printable(const vcard_property &prop) {
  return vcard_has_parameter(prop, "ENCODING", "QUOTED-PRINTABLE");
}

bool vcard_split_property(std::string_view line, vcard_property *prop) {
  *prop = {};
  bool quoted = false;
  size_t start = 0;
  size_t part = 0;
  for (size_t i = 0; i < line.size(); i++) {
    if (line[i] == '"') quoted = !quoted;
    if (quoted || (line[i] != ';' && line[i] != ':')) continue;
    const std::string_view text = line.substr(start, i - start);
    if (part == 0) {
      const size_t dot = text.rfind('.');
      prop->name = upper(vcard_trim(dot == std::string_view::npos ? text : text.substr(dot + 1)));
    } else {
      add_parameter(text, prop);
    }
    part++;
    start = i + 1;
    if (line[i] == ':') {
      prop->raw = line.substr(start);
      return !prop->name.empty();
    }
  }
  return false;
}

bool vcard_decode(const vcard_property &prop, std::string *text) {
  std::string bytes;
  if (vcard_is_quoted_printable(prop)) {
    bytes = decode_hex(prop.raw, '=');
  } else if (vcard_has_parameter(prop, "ENCODING", "B") || vcard_has_parameter(prop, "ENCODING", "BASE64")) {
    bytes = decode_base64(prop.raw);
  } else {
    bytes = prop.raw;
  }
  const auto named = std::find_if(prop.parameters.begin(), prop.parameters.end(),
                                  [](const vcard_parameter &one) { return one.name == "CHARSET"; });
  if (named != prop.parameters.end() && !vcard_same_word(named->value, "UTF-8"))
    return charset_name_sane(named->value) && convert(bytes, named->value.c_str(), text);
  if (text_utf8_valid(bytes)) {
    *text = bytes;
    return true;
  }
  /* Old phones write their own 8-bit set and do not say which; this one is by far the most common, and a name with a
     wrong accent is better than no contact. */
  return convert(bytes, "WINDOWS-1252", text) || convert(bytes, "ISO-8859-1", text);
}

std::vector<std::string> vcard_unescape(std::string_view text, bool old, char separator) {
  std::vector<std::string> parts(1);
  for (size_t i = 0; i < text.size(); i++) {
    const bool escape = text[i] == '\\' && i + 1 < text.size() && (!old || text[i + 1] == ';');
    if (escape) {
      i++;
      parts.back() += text[i] == 'n' || text[i] == 'N' ? '\n' : text[i];
    } else if (separator != '\0' && text[i] == separator) {
      parts.emplace_back();
    } else {
      parts.back() += text[i];
    }
  }
  return parts;
}

std::string vcard_clean(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const size_t length = std::max<size_t>(text_utf8_length(text), 1);
    const std::string_view character = text.substr(0, length);
    text.remove_prefix(length);
    const auto lead = static_cast<unsigned char>(character[0]);
    const bool control = lead <= 0x20 || lead == 0x7F ||
                         (lead == 0xC2 && length == 2 && static_cast<unsigned char>(character[1]) < 0xA0) ||
                         character == "\xE2\x80\xA8" || character == "\xE2\x80\xA9";
    if (!control) {
      result += character;
    } else if (!result.empty() && result.back() != ' ') {
      result += ' ';
    }
  }
  return std::string(vcard_trim(result));
}

std::string vcard_percent_decoded(std::string_view text) {
  const std::string decoded = decode_hex(text, '%');
  return text_utf8_valid(decoded) ? decoded : std::string(text);
}

bool vcard_file_text(std::string_view bytes, std::string *text) {
  const char *charset = nullptr;
  if (bytes.starts_with("\xEF\xBB\xBF")) {
    bytes.remove_prefix(3);
  } else if (bytes.starts_with("\xFE\xFF") || bytes.starts_with("\xFF\xFE")) {
    charset = bytes[0] == '\xFE' ? "UTF-16BE" : "UTF-16LE";
    bytes.remove_prefix(2);
  } else if (bytes.size() > 1 && bytes[0] == '\0') {
    charset = "UTF-16BE";
  } else if (bytes.size() > 1 && bytes[1] == '\0') {
    charset = "UTF-16LE";
  }
  if (charset == nullptr) {
    *text = bytes;
  } else if (!convert(bytes, charset, text)) {
    return false;
  }
  std::replace(text->begin(), text->end(), '\0', ' '); /* one damaged card costs no other */
  return true;
}
