#include "reply.h"

#include <glib.h>
#include <gmime/gmime.h>

#include <algorithm>

#include "../mime.h"

namespace {

/* An address that cannot be taken for two, for a name, or for anything else in a header. What stands before the "@" may
   be quoted, for blanks and dots. */
bool plain_address(std::string address) {
  size_t at = address.rfind('@');
  if (at == std::string::npos || at == 0 || at + 1 >= address.size() || address.size() > 320) return false;
  if (at > 2 && address[0] == '"' && address[at - 1] == '"') {
    for (size_t i : {size_t{0}, at - 1}) address[i] = '.';
    std::replace(address.begin() + 1, address.begin() + static_cast<ptrdiff_t>(at), ' ', '.');
  }
  for (char c : address) {
    auto byte = static_cast<unsigned char>(c);
    if (byte <= 0x20 || byte == 0x7f || c == '<' || c == '>' || c == ',' || c == ';' || c == ':' || c == '"' ||
        c == '(' || c == ')' || c == '\\' || c == '[' || c == ']')
      return false;
  }
  /* Sendmail takes what begins with a dash for an option in some set-ups. */
  return address[0] != '-' && address.find('@') == at && g_utf8_validate(address.c_str(), -1, nullptr);
}

bool plain_id(const std::string &id) {
  for (char c : id)
    if (!g_ascii_isgraph(c) || c == '<' || c == '>') return false;
  return !id.empty();
}

bool starts_with_re(const std::string &text) {
  if (g_ascii_strncasecmp(text.c_str(), "re", 2) != 0) return false;
  size_t at = 2;
  if (at < text.size() && text[at] == '[') { /* "Re[2]:" counts how often */
    at++;
    while (at < text.size() && g_ascii_isdigit(text[at])) at++;
    if (at >= text.size() || text[at] != ']') return false;
    at++;
  }
  while (at < text.size() && text[at] == ' ') at++;
  return at < text.size() && text[at] == ':';
}

void set_header(GMimeMessage *message, const char *name, const std::string &value) {
  g_mime_object_set_header(GMIME_OBJECT(message), name, value.c_str(), "utf-8");
}

}  // namespace

std::string reply_subject(const std::string &subject) {
  std::string rest = mime_clean_line(subject, 1024);
  while (starts_with_re(rest)) rest = mime_clean_line(rest.substr(rest.find(':') + 1), 1024);
  return rest.empty() ? "Re:" : "Re: " + rest;
}

int reply_compose(const reply_parts &parts, std::string *message_text, std::string *to, std::string *error) {
  mime_init();
  size_t split = parts.recipient.find('\x02');
  std::string sender = mime_clean_line(parts.recipient.substr(0, split), 400);
  std::string name = split == std::string::npos ? "" : mime_clean_line(parts.recipient.substr(split + 1), 512);
  *to = parts.reply_to.empty() ? sender : mime_clean_line(parts.reply_to, 400);
  if (*to != sender) name.clear();
  if (!plain_address(*to)) {
    *error = to->empty() ? "the mail names nobody who could be answered"
                         : "'" + *to + "' is no address that mail can be sent to";
    return -1;
  }
  std::string from = mime_clean_line(parts.from_address, 400);
  if (!from.empty() && !plain_address(from)) from.clear();

  GMimeMessage *message = g_mime_message_new(TRUE);
  if (!from.empty())
    g_mime_message_add_mailbox(message, GMIME_ADDRESS_TYPE_FROM, mime_clean_line(parts.from_name, 512).c_str(),
                               from.c_str());
  g_mime_message_add_mailbox(message, GMIME_ADDRESS_TYPE_TO, name.empty() ? nullptr : name.c_str(), to->c_str());
  g_mime_message_set_subject(message, reply_subject(parts.subject).c_str(), "utf-8");
  GDateTime *now = g_date_time_new_now_local();
  g_mime_message_set_date(message, now);
  g_date_time_unref(now);
  /* A random id of our own: no host name of the user's is told to anybody who does not know it anyway. */
  char *uuid = g_uuid_string_random();
  size_t at = from.rfind('@');
  std::string domain = at == std::string::npos ? "localhost" : from.substr(at + 1);
  if (!plain_id(domain)) domain = "localhost";
  g_mime_message_set_message_id(message, (std::string(uuid) + "@" + domain).c_str());
  g_free(uuid);
  if (plain_id(parts.message_id)) {
    std::string own = "<" + parts.message_id + ">";
    set_header(message, "In-Reply-To", own);
    set_header(message, "References",
               mime_clean_line(parts.references, 6000) + (parts.references.empty() ? "" : " ") + own);
  }

  std::string text = mime_to_utf8(mime_markup_to_text(parts.text), "utf-8");
  if (text.empty() || text.back() != '\n') text += '\n';
  GMimePart *part = g_mime_part_new_with_type("text", "plain");
  g_mime_object_set_content_type_parameter(GMIME_OBJECT(part), "charset", "utf-8");
  GMimeStream *stream = g_mime_stream_mem_new_with_buffer(text.data(), text.size());
  GMimeDataWrapper *content = g_mime_data_wrapper_new_with_stream(stream, GMIME_CONTENT_ENCODING_DEFAULT);
  g_mime_part_set_content(part, content);
  /* Quoted-printable passes every mail system and keeps lines short; a "From " at a line's start is quoted too. */
  g_mime_part_set_content_encoding(part, GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE);
  g_mime_message_set_mime_part(message, GMIME_OBJECT(part));
  g_object_unref(content);
  g_object_unref(stream);
  g_object_unref(part);

  char *out = g_mime_object_to_string(GMIME_OBJECT(message), nullptr);
  *message_text = out ? out : "";
  g_free(out);
  g_object_unref(message);
  return 0;
}
