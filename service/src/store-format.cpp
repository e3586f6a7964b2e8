/* The fields of a mail, and the forms of ids, numbers and texts: what store-format.h declares. It calls nothing else of
   the service. */
#include "store-format.h"

#include <charconv>
#include <cstring>

#include "brisel-common.h"

const std::array<field_rule, mail_field_count> mail_fields = {{
    {"host_state", field_kind::number, 0},
    {"received_time", field_kind::time, 0},
    {"attachment_count", field_kind::number, 0},
    {"has_image", field_kind::flag, 0},
    {"is_new", field_kind::flag, 0},
    {"account_id", field_kind::number, 0},
    {"security_locked", field_kind::flag, 0},
    {"is_read", field_kind::flag, 0},
    {"host_tag", field_kind::text, token_max},
    {"subject", field_kind::text, text_max},
    {"from_address", field_kind::text, text_max},
    {"from_name", field_kind::text, text_max},
    {"message_uid", field_kind::text, token_max},
    {"contacts", field_kind::contacts, contacts_max},
    {"body", field_kind::text, body_max},
}};

std::string journal_sql(std::string_view sql) {
  static constexpr struct {
    std::string_view mark;
    int64_t number;
  } words[] = {
      {"[waits]", BRISEL_REQUEST_STATE_WAITS}, {"[handed over]", BRISEL_REQUEST_STATE_HANDED_OVER},
      {"[sent]", BRISEL_REQUEST_STATE_SENT},   {"[refused]", BRISEL_REQUEST_STATE_REFUSED},
      {"[reply]", BRISEL_REQUEST_KIND_REPLY},  {"[kept]", journal_ended_kept},
  };
  std::string text(sql);
  for (const auto &word : words) {
    const std::string number = std::to_string(word.number);
    for (size_t at; (at = text.find(word.mark)) != std::string::npos;) text.replace(at, word.mark.size(), number);
  }
  return text;
}

const std::string &mail_columns(void) {
  static const std::string columns = [] {
    std::string text;
    for (size_t i = 0; i < field_body; i++) text += std::string(i ? ", " : "") + mail_fields[i].name;
    return text;
  }();
  return columns;
}

int mail_field_index(const char *name) {
  for (size_t i = 0; i < mail_fields.size(); i++)
    if (!strcmp(mail_fields[i].name, name)) return static_cast<int>(i);
  return -1;
}

std::string ids_to_text(const std::vector<int> &ids) {
  std::string text;
  text.reserve(ids.size() * 6);
  for (const int id : ids) {
    if (!text.empty()) text += ',';
    text += std::to_string(id);
  }
  return text;
}

std::vector<int> ids_from_text(std::string_view text) {
  std::vector<int> ids;
  while (!text.empty()) {
    const size_t end = text.find(',');
    const std::string_view word = text.substr(0, end);
    int id = 0;
    const auto [rest, error] = std::from_chars(word.data(), word.data() + word.size(), id);
    if (error == std::errc() && rest == word.data() + word.size() && id > 0) ids.push_back(id);
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return ids;
}

namespace {

/* The bytes of the character at the front, 0 when there is none that a bus takes; *skip is what to pass over then. */
size_t clean_character(std::string_view text, size_t *skip) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  *skip = 1;
  const unsigned first = byte(0);
  if (first < 0x80) return first ? 1 : 0;
  const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < length) return 0;
  uint32_t code = first & (0x7Fu >> length);
  for (size_t i = 1; i < length; i++) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    code = code << 6 | (byte(i) & 0x3Fu);
  }
  constexpr uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < least[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  *skip = length;
  const bool noncharacter = (code >= 0xFDD0 && code <= 0xFDEF) || (code & 0xFFFE) == 0xFFFE;
  return noncharacter ? 0 : length;
}

}  // namespace

std::string clean_text(std::string_view text) {
  std::string clean;
  clean.reserve(text.size());
  while (!text.empty()) {
    size_t skip = 0;
    const size_t good = clean_character(text, &skip);
    good ? clean.append(text.substr(0, good)) : clean.append("\xEF\xBF\xBD");
    text.remove_prefix(skip);
  }
  return clean;
}

size_t body_length(std::string_view body) {
  for (const std::string_view tag : {tag_more, tag_complete})
    if (body.ends_with(tag)) return body.size() - tag.size();
  return body.size();
}

bool contacts_to_text(const std::vector<contact_value> &contacts, std::string *text) {
  if (contacts.size() > contacts_max) return false;
  text->clear();
  for (const contact_value &contact : contacts) {
    if (contact.number.empty() || contact.number.size() > number_max) return false;
    for (const char c : contact.number)
      if (static_cast<unsigned char>(c) < 0x20) return false;
    *text += std::to_string(contact.type) + ' ' + contact.number + '\n';
  }
  return true;
}

std::vector<contact_value> contacts_from_text(const std::string &text) {
  std::vector<contact_value> contacts;
  size_t start = 0;
  while (start < text.size() && contacts.size() < contacts_max) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const char *first = text.data() + start, *last = text.data() + end;
    contact_value contact = {};
    const auto [rest, error] = std::from_chars(first, last, contact.type);
    if (error == std::errc() && rest < last && *rest == ' ') {
      contact.number.assign(rest + 1, last);
      contacts.push_back(std::move(contact));
    }
    start = end + 1;
  }
  return contacts;
}
