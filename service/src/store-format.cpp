#include "store-format.h"

#include <charconv>

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
