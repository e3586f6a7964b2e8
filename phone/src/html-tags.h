/* The tags and entities of an HTML document, read without looking back. */
#ifndef BRISEL_PHONE_HTML_TAGS_H
#define BRISEL_PHONE_HTML_TAGS_H

#include <cstdint>
#include <string>
#include <string_view>

struct html_tag {
  std::string name; /* lower case, at most 31 characters */
  bool closing = false;
  bool hidden = false;
  bool tiny = false; /* of a pixel or none */
  std::string alt;
  std::string src;
  std::string start;
};

/* What has already been looked for in vain: without it a document of a million openings would be searched a million
   times to its end. One for a document, filled in by the functions here. */
struct html_absent {
  bool double_quote = false, single_quote = false, comment_end = false;
};

bool html_is_space(char c);

/* Reads the tag whose '<' is at text[at - 1]; returns the position after it. */
size_t html_read_tag(std::string_view text, size_t at, html_tag *tag, html_absent *missing);

/* Skips the content of a raw text element (no tags inside but its own end); returns the position after its end. */
size_t html_skip_raw(std::string_view text, size_t at, const std::string &name);

/* Reads an entity at text[*at] == '&' and moves *at behind it; 0 when it is none. */
uint32_t html_read_entity(std::string_view text, size_t *at);

#endif
