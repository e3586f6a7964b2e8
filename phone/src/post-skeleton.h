/*
 * A message as far as a watch needs it, put together from what the server says of it: the header, a header for each
 * part, the text that is read, of a mail that forwards another that one's. What mime.h makes of that is what it makes
 * of the whole message, without an attachment having been fetched. Used by post-imap.cpp.
 */
#ifndef BRISEL_PHONE_POST_SKELETON_H
#define BRISEL_PHONE_POST_SKELETON_H

#include <libetpan/libetpan.h>

#include <string>
#include <vector>

constexpr uint32_t skeleton_header_bytes = 256u << 10, skeleton_inner_header_bytes = 64u << 10;
/* Of a text at once: far more than the first piece that goes to the watch (HTML is many times its words); where only
   the whole tells which text is read; and when more was asked for. */
constexpr uint32_t skeleton_plain_bytes = 8u << 10, skeleton_html_bytes = 64u << 10, skeleton_text_bytes = 256u << 10,
                   skeleton_whole_bytes = 1u << 20;

/* A part whose content is wanted. */
struct skeleton_text {
  std::string part;    /* its number, as "1.2"; empty: the text of a message of one part */
  bool header = false; /* the header of the mail that the part is */
  uint32_t bytes = 0;  /* at most so many */
  std::string content;
};

/* Which parts are to be read: the plain text, and HTML only where that may be what is shown; the first mail inside
   where there may be nothing else to read. *cut: there is more of what will be shown, for when `whole` is asked for. */
void skeleton_choose(const mailimap_body *structure, const std::string &header, bool whole,
                     std::vector<skeleton_text> *texts, bool *cut);

/* The message; `header` is as the server gave it. */
std::string skeleton_build(const mailimap_body *structure, const std::string &header,
                           const std::vector<skeleton_text> &texts);

#endif
