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
