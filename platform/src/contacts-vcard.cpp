#include "contacts-vcard.h"

#include <glib.h>

#include <algorithm>
#include <memory>

#include "contacts.h"
#include "text-check.h"

namespace {

constexpr size_t PERSONS_MAX = 20000;
constexpr size_t NAME_MAX_BYTES = 1024;
constexpr size_t EMAIL_MAX_BYTES = 320;
constexpr size_t NUMBER_MAX_BYTES = 64;
constexpr size_t ENTRIES_MAX = 100; /* addresses or numbers of one person */
constexpr size_t PARAMETERS_MAX = 64;
constexpr int NESTING_MAX = 8;

using text_list = std::vector<std::string>;

struct parameter {
  std::string name; /* upper case; empty for the bare values of 2.1 ("TEL;CELL") */
  std::string value;
};

struct property {
  std::string name; /* upper case, without its group */
  std::vector<parameter> parameters;
  std::string_view raw; /* the value, still encoded */
};

struct reader {
  std::string_view rest;
  size_t line = 0; /* the number of the line read last */
  std::string *error;
};

struct card {
  bool old = false; /* 2.1: other rules for folding and escapes */
  std::string formatted_name;
  std::string structured_name;
  std::string organisation;
  vcard_person person;
};

bool fail(const reader &in, const std::string &reason) {
  *in.error = "line " + std::to_string(in.line) + ": " + reason;
  return false;
}

std::string upper(std::string_view text) {
  std::string result(text);
  for (char &c : result) c = g_ascii_toupper(c);
  return result;
}

bool same_word(std::string_view text, std::string_view word) {
  return text.size() == word.size() && g_ascii_strncasecmp(text.data(), word.data(), word.size()) == 0;
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && g_ascii_isspace(text.front())) text.remove_prefix(1);
  while (!text.empty() && g_ascii_isspace(text.back())) text.remove_suffix(1);
  return text;
}

bool next_line(reader *in, std::string_view *line) {
  if (in->rest.empty()) return false;
  const size_t end = std::min(in->rest.find('\n'), in->rest.size());
  *line = in->rest.substr(0, end);
  in->rest.remove_prefix(std::min(end + 1, in->rest.size()));
  if (!line->empty() && line->back() == '\r') line->remove_suffix(1);
  in->line++;
  return true;
}

bool has_parameter(const property &prop, std::string_view name, std::string_view value) {
  return std::any_of(prop.parameters.begin(), prop.parameters.end(), [&](const parameter &one) {
    return (one.name.empty() || one.name == name) && same_word(one.value, value);
  });
}

bool is_quoted_printable(const property &prop) {
  return has_parameter(prop, "ENCODING", "QUOTED-PRINTABLE");
}

void add_parameter(std::string_view text, property *prop) {
  const size_t equals = text.find('=');
  const std::string name = equals == std::string_view::npos ? "" : upper(trim(text.substr(0, equals)));
  std::string_view values = equals == std::string_view::npos ? text : text.substr(equals + 1);
  /* TYPE=home,cell and TYPE="home,cell" are both in use. */
  while (true) {
    const size_t comma = std::min(values.find(','), values.size());
    std::string_view value = trim(values.substr(0, comma));
    while (!value.empty() && value.front() == '"') value.remove_prefix(1);
    while (!value.empty() && value.back() == '"') value.remove_suffix(1);
    if (prop->parameters.size() < PARAMETERS_MAX) prop->parameters.push_back({name, std::string(value)});
    if (comma == values.size()) return;
    values.remove_prefix(comma + 1);
  }
}

/* GROUP.NAME;PARAMETER;PARAMETER:VALUE. Quotes protect ':' and ';' in parameters. */
bool split_property(std::string_view line, property *prop) {
  bool quoted = false;
  size_t start = 0;
  size_t part = 0;
  for (size_t i = 0; i < line.size(); i++) {
    if (line[i] == '"') quoted = !quoted;
    if (quoted || (line[i] != ';' && line[i] != ':')) continue;
    const std::string_view text = line.substr(start, i - start);
    if (part == 0) {
      const size_t dot = text.rfind('.');
      prop->name = upper(trim(dot == std::string_view::npos ? text : text.substr(dot + 1)));
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

std::string decode_quoted_printable(std::string_view text) {
  std::string result;
  for (size_t i = 0; i < text.size(); i++) {
    if (text[i] == '=' && i + 2 < text.size() && g_ascii_isxdigit(text[i + 1]) && g_ascii_isxdigit(text[i + 2])) {
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

/* The value's bytes as UTF-8, escapes untouched. */
bool decode(const reader &in, const property &prop, std::string *text) {
  std::string bytes;
  if (is_quoted_printable(prop)) {
    bytes = decode_quoted_printable(prop.raw);
  } else if (has_parameter(prop, "ENCODING", "B") || has_parameter(prop, "ENCODING", "BASE64")) {
    bytes = decode_base64(prop.raw);
  } else {
    bytes = prop.raw;
  }
  const auto named = std::find_if(prop.parameters.begin(), prop.parameters.end(),
                                  [](const parameter &one) { return one.name == "CHARSET"; });
  if (named != prop.parameters.end() && !same_word(named->value, "UTF-8")) {
    if (!charset_name_sane(named->value) || !convert(bytes, named->value.c_str(), text))
      return fail(in, "the text is not in the character set that the card names");
    return true;
  }
  if (text_utf8_valid(bytes)) {
    *text = bytes;
    return true;
  }
  /* Old phones write their own 8-bit set and do not say which; this one is by far the most common, and a name with a
     wrong accent is better than no contact. */
  if (convert(bytes, "WINDOWS-1252", text) || convert(bytes, "ISO-8859-1", text)) return true;
  return fail(in, "the text cannot be read");
}

/* Splits at unescaped separators (none: '\0') and resolves the escapes. */
text_list unescape(std::string_view text, bool old, char separator) {
  text_list parts(1);
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

/* One line of text: control characters become blanks, runs of blanks one, none at the ends. */
std::string clean(std::string_view text) {
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
  return std::string(trim(result));
}

int number_type(const property &prop) {
  constexpr std::string_view others[] = {"FAX", "PAGER", "CAR", "VIDEO", "MODEM",
                                         "BBS", "ISDN",  "PCS", "MAIN",  "OTHER"};
  /* A mobile stays a mobile when it is also the one of the office. */
  if (has_parameter(prop, "TYPE", "CELL") || has_parameter(prop, "TYPE", "MOBILE")) return CONTACTS_NUMBER_TYPE_MOBILE;
  if (has_parameter(prop, "TYPE", "HOME")) return CONTACTS_NUMBER_TYPE_HOME;
  if (has_parameter(prop, "TYPE", "WORK")) return CONTACTS_NUMBER_TYPE_WORK;
  const bool other = std::any_of(std::begin(others), std::end(others),
                                 [&](std::string_view word) { return has_parameter(prop, "TYPE", word); });
  return other ? CONTACTS_NUMBER_TYPE_OTHER : CONTACTS_NUMBER_TYPE_NONE;
}

std::string name_from_parts(const text_list &parts) {
  /* Family, given, additional, prefixes, suffixes: shown in the order in which they are spoken. */
  constexpr size_t order[] = {3, 1, 2, 0, 4};
  std::string name;
  for (const size_t i : order) {
    if (i < parts.size()) name += parts[i] + " ";
  }
  return clean(name);
}

bool take_property(const reader &in, const property &prop, card *to) {
  const bool wanted =
      prop.name == "FN" || prop.name == "N" || prop.name == "ORG" || prop.name == "EMAIL" || prop.name == "TEL";
  if (!wanted) return true;
  std::string text;
  if (!decode(in, prop, &text)) return false;

  if (prop.name == "N" || prop.name == "ORG") {
    const text_list parts = unescape(text, to->old, ';');
    const std::string name = prop.name == "N" ? name_from_parts(parts) : clean(parts[0]);
    if (name.size() > NAME_MAX_BYTES) return fail(in, "the name is too long");
    std::string &place = prop.name == "N" ? to->structured_name : to->organisation;
    if (place.empty()) place = name;
    return true;
  }
  std::string value = clean(unescape(text, to->old, '\0')[0]);
  if (value.empty()) return true;
  if (prop.name == "FN") {
    if (value.size() > NAME_MAX_BYTES) return fail(in, "the name is too long");
    if (to->formatted_name.empty()) to->formatted_name = value;
  } else if (prop.name == "EMAIL") {
    if (same_word(std::string_view(value).substr(0, 7), "mailto:")) value.erase(0, 7);
    if (value.size() > EMAIL_MAX_BYTES) return fail(in, "the e-mail address is too long");
    if (to->person.emails.size() == ENTRIES_MAX) return fail(in, "the person has too many e-mail addresses");
    if (!value.empty()) to->person.emails.push_back(value);
  } else {
    if (same_word(std::string_view(value).substr(0, 4), "tel:")) {
      value.erase(0, 4);
      value.erase(std::min(value.find(';'), value.size())); /* the URI's own parameters */
    }
    if (value.size() > NUMBER_MAX_BYTES) return fail(in, "the phone number is too long");
    if (to->person.numbers.size() == ENTRIES_MAX) return fail(in, "the person has too many phone numbers");
    if (!value.empty()) to->person.numbers.push_back({value, number_type(prop)});
  }
  return true;
}

/* The logical line at the reader: folded lines joined, quoted-printable ones that end in '=' too. */
std::string join_lines(reader *in, std::string_view first, bool old) {
  std::string line(first);
  property prop;
  const bool soft_breaks = split_property(line, &prop) && is_quoted_printable(prop);
  while (!in->rest.empty()) {
    reader ahead = *in;
    std::string_view next;
    next_line(&ahead, &next);
    if (soft_breaks && line.ends_with('=')) {
      line.pop_back();
      line += next;
    } else if (!next.empty() && (next[0] == ' ' || next[0] == '\t')) {
      line += old ? next : next.substr(1);
    } else {
      break;
    }
    *in = ahead;
  }
  return line;
}

/* The rules for the lines depend on the version, which stands inside the card. */
bool card_is_old(std::string_view rest) {
  reader ahead{rest, 0, nullptr};
  std::string_view line;
  while (next_line(&ahead, &line)) {
    if (same_word(line.substr(0, 8), "VERSION:")) return trim(line.substr(8)) == "2.1";
    if (same_word(trim(line), "END:VCARD")) break;
  }
  return false;
}

bool read_card(reader *in, std::vector<vcard_person> *persons) {
  card to;
  to.old = card_is_old(in->rest);
  const size_t begin = in->line;
  int nesting = 0; /* a card inside the card (an agent's) is not this person */
  std::string_view first;
  while (next_line(in, &first)) {
    if (trim(first).empty()) continue;
    const std::string line = join_lines(in, first, to.old);
    const std::string_view bare = trim(line);
    if (same_word(bare, "BEGIN:VCARD")) {
      if (++nesting > NESTING_MAX) return fail(*in, "cards are nested too deeply");
      continue;
    }
    if (same_word(bare, "END:VCARD")) {
      if (nesting-- > 0) continue;
      vcard_person &person = to.person;
      person.name = !to.formatted_name.empty()    ? to.formatted_name
                    : !to.structured_name.empty() ? to.structured_name
                    : !to.organisation.empty()    ? to.organisation
                    : !person.emails.empty()      ? person.emails[0]
                    : !person.numbers.empty()     ? person.numbers[0].number
                                                  : "";
      if (person.name.empty()) return true; /* nothing in it to keep */
      if (persons->size() == PERSONS_MAX) return fail(*in, "the file holds too many cards");
      persons->push_back(std::move(person));
      return true;
    }
    property prop;
    if (!split_property(line, &prop)) return fail(*in, "this is no vCard line");
    if (nesting == 0 && !take_property(*in, prop, &to)) return false;
  }
  in->line = begin;
  return fail(*in, "the card that begins here has no end");
}

}  // namespace

bool vcard_read(std::string_view text, std::vector<vcard_person> *persons, std::string *error) {
  if (text.size() > VCARD_FILE_MAX) {
    *error = "the file is larger than 16 MiB";
    return false;
  }
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  if (text.find('\0') != std::string_view::npos) {
    *error = "the file is not text";
    return false;
  }
  reader in{text, 0, error};
  std::string_view line;
  bool any = false;
  while (next_line(&in, &line)) {
    if (trim(line).empty()) continue;
    if (!same_word(trim(line), "BEGIN:VCARD")) return fail(in, "a vCard must begin here");
    if (!read_card(&in, persons)) return false;
    any = true;
  }
  if (!any) {
    *error = "the file holds no vCard";
    return false;
  }
  return true;
}
