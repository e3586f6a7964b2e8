/* What the header of a message says: encoded words, senders, ids, dates. Used by mime-message.cpp and mime-parts.cpp.
 */
#include "mime-headers.h"

#include <algorithm>
#include <cstring>

#include "gmime-holders.h"
#include "text.h"

namespace {

struct date_unref {
  void operator()(GDateTime *date) const {
    if (date) g_date_time_unref(date);
  }
};

struct zone_unref {
  void operator()(GTimeZone *zone) const { g_time_zone_unref(zone); }
};

constexpr size_t kMaxUid = 250, kMaxReferences = 20, kMaxHeader = 16384;
constexpr int64_t kLastTime = INT32_MAX; /* the watch counts seconds in 32 bits */

std::string decode_base64(std::string_view word) {
  std::string text(word), out(word.size() + 3, '\0');
  /* Some writers leave out the end's filling, and without it the last bytes would go. */
  auto digits =
      std::count_if(text.begin(), text.end(), [](char c) { return g_ascii_isalnum(c) || c == '+' || c == '/'; });
  if (digits % 4 > 1 && text.find('=') == std::string::npos) text.append(4 - static_cast<size_t>(digits % 4), '=');
  int state = 0;
  guint32 save = 0;
  size_t size = g_mime_encoding_base64_decode_step(reinterpret_cast<const unsigned char *>(text.data()), text.size(),
                                                   reinterpret_cast<unsigned char *>(out.data()), &state, &save);
  out.resize(size);
  return out;
}

std::string decode_quoted(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); i++) {
    if (text[i] == '=' && i + 2 < text.size() && g_ascii_isxdigit(text[i + 1]) && g_ascii_isxdigit(text[i + 2])) {
      out += static_cast<char>(g_ascii_xdigit_value(text[i + 1]) * 16 + g_ascii_xdigit_value(text[i + 2]));
      i += 2;
    } else {
      out += text[i] == '_' ? ' ' : text[i];
    }
  }
  return out;
}

/* Reads an encoded word that begins at text[at]. Returns the position after it, 0 when there is none. */
size_t encoded_word(std::string_view text, size_t at, std::string *charset, std::string *bytes) {
  if (text.substr(at, 2) != "=?") return 0;
  size_t name_end = text.substr(0, std::min(text.size(), at + 80)).find('?', at + 2);
  if (name_end == std::string_view::npos || name_end + 2 >= text.size() || text[name_end + 2] != '?') return 0;
  char encoding = g_ascii_toupper(text[name_end + 1]);
  if (encoding != 'B' && encoding != 'Q') return 0;
  /* However long it is, which programs do not keep to: but a header full of beginnings is not searched to its end for
     each of them, as the one before another word's beginning was cut off. */
  size_t end = text.find('?', name_end + 3);
  while (end != std::string_view::npos && text.substr(end + 1, 1) != "=") {
    if (text[end - 1] == '=') return 0;
    end = text.find('?', end + 1);
  }
  if (end == std::string_view::npos) return 0;
  std::string_view payload = text.substr(name_end + 3, end - name_end - 3);
  *charset = text.substr(at + 2, name_end - at - 2);
  size_t language = charset->find('*');
  if (language != std::string::npos) charset->resize(language);
  *bytes = encoding == 'B' ? decode_base64(payload) : decode_quoted(payload);
  return end + 2;
}

/* An id that can be repeated in a header without changing it. */
bool usable_id(const char *id) {
  if (!id || !*id) return false;
  size_t length = 0;
  for (; id[length]; length++)
    if (!g_ascii_isgraph(id[length]) || id[length] == '<' || id[length] == '>') return false;
  return length <= kMaxUid;
}

void append_references(std::string *out, const char *header) {
  if (!header) return;
  GMimeReferences *list = g_mime_references_parse(header_options(), header);
  int count = g_mime_references_length(list);
  for (int i = std::max(0, count - static_cast<int>(kMaxReferences)); i < count; i++) {
    const char *id = g_mime_references_get_message_id(list, i);
    if (!usable_id(id)) continue;
    if (!out->empty()) *out += ' ';
    *out += std::string("<") + id + ">";
  }
  g_mime_references_free(list);
}

int64_t date_seconds(GDateTime *date) {
  if (!date) return 0;
  int64_t seconds = g_date_time_to_unix(date);
  return seconds > 0 && seconds <= kLastTime ? seconds : 0;
}

bool is_utf8(const std::string &text) {
  return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr);
}

}  // namespace

GMimeParserOptions *header_options() {
  static GMimeParserOptions *options = nullptr;
  if (options) return options;
  options = g_mime_parser_options_new();
  const char *fallbacks[] = {"utf-8", "windows-1252", nullptr};
  g_mime_parser_options_set_fallback_charsets(options, fallbacks);
  g_mime_parser_options_set_allow_addresses_without_domain(options, TRUE);
  return options;
}

std::string header_raw(GMimeMessage *message, const char *name) {
  GMimeHeaderList *list = g_mime_object_get_header_list(GMIME_OBJECT(message));
  GMimeHeader *header = list ? g_mime_header_list_get_header(list, name) : nullptr;
  const char *value = header ? g_mime_header_get_raw_value(header) : nullptr;
  return std::string(value ? value : "").substr(0, kMaxHeader);
}

/* Words of one charset are put together before they are converted: a
   character that its writer split between two words is whole again, which the library does not do. */
std::string header_decode(std::string_view text, const std::string &raw_charset) {
  std::string out, plain, pending, pending_charset;
  auto flush_plain = [&] {
    if (!plain.empty()) out += mime_to_utf8(plain, is_utf8(plain) ? nullptr : raw_charset.c_str());
    plain.clear();
  };
  auto flush_pending = [&] {
    if (!pending.empty()) out += mime_to_utf8(pending, pending_charset.c_str());
    pending.clear();
  };
  bool after_word = false;
  for (size_t at = 0; at < text.size();) {
    std::string charset, bytes;
    size_t end = encoded_word(text, at, &charset, &bytes);
    if (end == 0) {
      plain += text[at++];
      continue;
    }
    /* Blanks between two encoded words only separate them. */
    bool only_blanks = plain.find_first_not_of(" \t\r\n") == std::string::npos;
    if (!(after_word && only_blanks)) {
      flush_pending();
      flush_plain();
    }
    plain.clear();
    if (g_ascii_strcasecmp(charset.c_str(), pending_charset.c_str()) != 0) flush_pending();
    pending_charset = charset;
    pending += bytes;
    after_word = true;
    at = end;
  }
  flush_pending();
  flush_plain();
  return out;
}

std::string header_charset(GMimeMessage *message) {
  GMimeObject *part = g_mime_message_get_mime_part(message);
  for (int depth = 0; part && depth < 4; depth++) {
    const char *charset = g_mime_object_get_content_type_parameter(part, "charset");
    if (charset && *charset) return charset;
    if (!GMIME_IS_MULTIPART(part) || g_mime_multipart_get_count(GMIME_MULTIPART(part)) == 0) break;
    part = g_mime_multipart_get_part(GMIME_MULTIPART(part), 0);
  }
  return "";
}

void header_read_ids(GMimeMessage *message, mime_mail *mail) {
  const char *id = g_mime_message_get_message_id(message);
  if (usable_id(id)) mail->message_id = mail->message_uid = id;
  append_references(&mail->references, g_mime_object_get_header(GMIME_OBJECT(message), "References"));
  if (mail->references.empty())
    append_references(&mail->references, g_mime_object_get_header(GMIME_OBJECT(message), "In-Reply-To"));
}

int64_t mime_date(std::string_view text) {
  std::string value(text.substr(0, 100));
  for (char &c : value)
    if (c == '\r' || c == '\n' || c == '\0') c = ' ';
  std::unique_ptr<GDateTime, date_unref> date(g_mime_utils_header_decode_date(value.c_str()));
  if (!date) { /* wrong, but clear */
    std::unique_ptr<GTimeZone, zone_unref> utc(g_time_zone_new_utc());
    date.reset(g_date_time_new_from_iso8601(g_strstrip(value.data()), utc.get()));
  }
  return date_seconds(date.get());
}

int64_t mime_arrival(std::string_view head) {
  int64_t written = 0;
  for (size_t line = 0; line < head.size() && head[line] != '\n' && head[line] != '\r';) {
    /* A header goes on in the lines that begin with a blank. */
    size_t end = head.find('\n', line);
    while (end != std::string_view::npos && end + 1 < head.size() && (head[end + 1] == ' ' || head[end + 1] == '\t'))
      end = head.find('\n', end + 1);
    if (end == std::string_view::npos) break;
    std::string_view header = head.substr(line, end - line);
    if (header.size() > 9 && g_ascii_strncasecmp(header.data(), "received:", 9) == 0) {
      size_t date = header.rfind(';');
      int64_t arrival = date == std::string_view::npos ? 0 : mime_date(header.substr(date + 1));
      if (arrival > 0) return arrival;
    } else if (written == 0 && header.size() > 5 && g_ascii_strncasecmp(header.data(), "date:", 5) == 0) {
      written = mime_date(header.substr(5));
    }
    line = end + 1;
  }
  return written;
}
