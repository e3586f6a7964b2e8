/* One message through GMime: which of its parts is the text to read, and the facts about the rest. */
#include <glib.h>
#include <gmime/gmime.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "text.h"

namespace {

struct object_unref {
  void operator()(void *object) const {
    if (object) g_object_unref(object);
  }
};
template <typename T>
using holder = std::unique_ptr<T, object_unref>;

struct date_unref {
  void operator()(GDateTime *date) const {
    if (date) g_date_time_unref(date);
  }
};

struct zone_unref {
  void operator()(GTimeZone *zone) const { g_time_zone_unref(zone); }
};

/* What is known while one message is walked through. */
struct walk {
  const mime_limits *limits;
  int parts = 0;
  int attachments = 0;
  bool image = false;
  GMimeMessage *forwarded = nullptr; /* the first mail that is attached; the message's own */
};

/* How good a child of an alternative is as text to read. */
enum alternative_rank { RANK_NONE = 0, RANK_OTHER = 1, RANK_MARKUP = 2, RANK_PLAIN = 3 };

constexpr size_t kMaxSubject = 4096, kMaxName = 1024, kMaxAddress = 320, kMaxUid = 250, kMaxReferences = 20,
                 kMaxHeader = 16384;
constexpr int64_t kLastTime = INT32_MAX; /* the watch counts seconds in 32 bits */

GMimeParserOptions *options = nullptr;

std::string content_bytes(GMimePart *part, size_t max) {
  GMimeDataWrapper *wrapper = g_mime_part_get_content(part);
  if (!wrapper) return "";
  GMimeStream *raw = g_mime_data_wrapper_get_stream(wrapper);
  if (!raw) return "";
  g_mime_stream_reset(raw);
  holder<GMimeStream> stream(g_mime_stream_filter_new(raw));
  GMimeContentEncoding encoding = g_mime_data_wrapper_get_encoding(wrapper);
  if (encoding == GMIME_CONTENT_ENCODING_BASE64 || encoding == GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE ||
      encoding == GMIME_CONTENT_ENCODING_UUENCODE) {
    holder<GMimeFilter> decode(g_mime_filter_basic_new(encoding, FALSE));
    g_mime_stream_filter_add(GMIME_STREAM_FILTER(stream.get()), decode.get());
  }
  std::string out;
  char buffer[16384];
  while (out.size() < max) {
    ssize_t got = g_mime_stream_read(stream.get(), buffer, std::min(sizeof buffer, max - out.size()));
    if (got <= 0) break;
    out.append(buffer, static_cast<size_t>(got));
  }
  return out;
}

/* The charset that the document names itself, for parts whose header names none. */
std::string html_charset(std::string_view html) {
  std::string head(html.substr(0, 2048));
  for (char &c : head) c = g_ascii_tolower(c);
  size_t at = head.find("<meta");
  if (at == std::string::npos) return "";
  at = head.find("charset=", at);
  if (at == std::string::npos) return "";
  at += 8;
  std::string name;
  while (at < head.size() && name.size() < 40 && (g_ascii_isalnum(head[at]) || strchr("-_:\"'.", head[at]))) {
    if (head[at] != '"' && head[at] != '\'') name += head[at];
    at++;
  }
  return name;
}

/* format=flowed: a line that ends in a blank goes on in the next one of the same quote depth. */
std::string unflow(const std::string &text, bool delete_space) {
  std::string out;
  bool joined = false;
  size_t last_quote = 0;
  for (size_t at = 0; at <= text.size();) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    std::string_view line(text.data() + at, end - at);
    size_t quote = 0;
    while (quote < line.size() && line[quote] == '>') quote++;
    std::string_view content = line.substr(quote);
    if (!content.empty() && content[0] == ' ') content.remove_prefix(1); /* stuffed */
    bool signature = content == "-- ";
    bool flows = !content.empty() && content.back() == ' ' && !signature;
    if (joined && (quote != last_quote || signature)) {
      out += '\n';
      joined = false;
    }
    if (!joined && quote > 0) {
      out.append(quote, '>');
      out += ' ';
    }
    if (flows && delete_space) content.remove_suffix(1);
    out += content;
    if (!flows && end < text.size()) out += '\n';
    joined = flows;
    last_quote = quote;
    at = end + 1;
  }
  return out;
}

/* Text that was signed where it stands: what was signed, without what only a program reads. */
std::string without_armour(const std::string &text) {
  constexpr char kBegin[] = "-----BEGIN PGP SIGNED MESSAGE-----", kEnd[] = "-----BEGIN PGP SIGNATURE-----",
                 kLast[] = "-----END PGP SIGNATURE-----";
  if (text.find(kBegin) == std::string::npos) return text;
  std::string out;
  enum { OUTSIDE, HEADERS, SIGNED, SIGNATURE } where = OUTSIDE;
  for (size_t at = 0; at < text.size();) {
    size_t end = std::min(text.find('\n', at), text.size());
    std::string_view line(text.data() + at, end - at);
    if (where == OUTSIDE && line.starts_with(kBegin)) {
      where = HEADERS;
    } else if (where == HEADERS) {
      if (line.empty()) where = SIGNED;
    } else if (where == SIGNED && line.starts_with(kEnd)) {
      where = SIGNATURE;
    } else if (where == SIGNATURE) {
      if (line.starts_with(kLast)) where = OUTSIDE;
    } else {
      if (where == SIGNED && line.starts_with("- ")) line.remove_prefix(2);
      out += line;
      out += '\n';
    }
    at = end + 1;
  }
  return out;
}

/* Trailing blanks and long runs of empty lines go: on a small screen they are only scrolling. */
std::string tidy(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  size_t blanks = 0;
  int newlines = 0;
  for (char c : text) {
    if (c == '\n') {
      newlines++;
      blanks = 0;
    } else if (c == ' ' || c == '\t') {
      if (newlines > 0 && !out.empty()) {
        out.append(static_cast<size_t>(std::min(newlines, 3)), '\n');
        newlines = 0;
      }
      if (!out.empty()) blanks++;
    } else {
      if (!out.empty() && newlines > 0) out.append(static_cast<size_t>(std::min(newlines, 3)), '\n');
      out.append(blanks, ' ');
      blanks = 0;
      newlines = 0;
      out += c;
    }
  }
  return out;
}

std::string text_of_leaf(GMimePart *part, const char *subtype, walk *w) {
  GMimeContentType *type = g_mime_object_get_content_type(GMIME_OBJECT(part));
  const char *charset = type ? g_mime_content_type_get_parameter(type, "charset") : nullptr;
  bool html = g_ascii_strcasecmp(subtype, "html") == 0;
  /* HTML is mostly markup: more of it is read than is wanted of its text. */
  std::string bytes = content_bytes(part, html ? w->limits->text * 4 : w->limits->text * 2);
  if (html) {
    std::string named = charset && *charset ? charset : html_charset(bytes);
    std::string text = mime_to_utf8(bytes, named.c_str());
    return mime_html_to_text(text, w->limits->text, &w->image);
  }
  std::string text = mime_to_utf8(bytes, charset);
  size_t start = std::min(text.find_first_not_of(" \n\t"), text.size());
  for (const char *document : {"<!doctype html", "<html"}) /* whatever the part's header calls it */
    if (g_ascii_strncasecmp(text.c_str() + start, document, strlen(document)) == 0)
      return mime_html_to_text(text, w->limits->text, &w->image);
  if (g_ascii_strcasecmp(subtype, "enriched") == 0 || g_ascii_strcasecmp(subtype, "richtext") == 0)
    return mime_html_to_text(text, w->limits->text, nullptr);
  if (g_ascii_strcasecmp(subtype, "calendar") == 0) return calendar_to_text(text);
  const char *format = type ? g_mime_content_type_get_parameter(type, "format") : nullptr;
  if (format && g_ascii_strcasecmp(format, "flowed") == 0) {
    const char *delsp = g_mime_content_type_get_parameter(type, "delsp");
    text = unflow(text, delsp && g_ascii_strcasecmp(delsp, "yes") == 0);
  }
  return tidy(without_armour(text));
}

bool is_attached(GMimeObject *object) {
  const char *disposition = g_mime_object_get_disposition(object);
  return disposition && g_ascii_strcasecmp(disposition, "attachment") == 0;
}

bool is_type(GMimeObject *object, const char *type, const char *subtype) {
  GMimeContentType *content = g_mime_object_get_content_type(object);
  return content && g_mime_content_type_is_type(content, type, subtype);
}

std::string walk_object(GMimeObject *object, walk *w, int depth, GMimeObject *parent);

bool mentions_html(std::string_view text) {
  for (size_t at = 0; at + 4 <= text.size(); at++)
    if (g_ascii_strncasecmp(text.data() + at, "html", 4) == 0) return true;
  return false;
}

std::string walk_alternative(GMimeMultipart *multipart, walk *w, int depth) {
  std::string best, markup;
  int best_rank = RANK_NONE;
  int count = g_mime_multipart_get_count(multipart);
  for (int i = 0; i < count && w->parts < w->limits->parts; i++) {
    GMimeObject *child = g_mime_multipart_get_part(multipart, i);
    /* Every branch is walked: pictures of the one that is not shown are missed on the watch all the same. */
    std::string text = walk_object(child, w, depth + 1, GMIME_OBJECT(multipart));
    if (text.empty()) continue;
    int rank = RANK_MARKUP;
    if (is_type(child, "text", "plain"))
      rank = RANK_PLAIN;
    else if (is_type(child, "text", "*") && !is_type(child, "text", "html"))
      rank = RANK_OTHER;
    if (rank == RANK_MARKUP) markup = text;
    if (rank >= best_rank) {
      best = std::move(text);
      best_rank = rank;
    }
  }
  /* A plain form that only says to look at the other one. */
  constexpr size_t kExcuse = 400;
  if (best_rank == RANK_PLAIN && best.size() < kExcuse && markup.size() > best.size() && mentions_html(best))
    return markup;
  return best;
}

std::string walk_multipart(GMimeMultipart *multipart, walk *w, int depth) {
  auto *object = GMIME_OBJECT(multipart);
  if (is_type(object, "multipart", "alternative")) return walk_alternative(multipart, w, depth);
  if (is_type(object, "multipart", "encrypted")) {
    w->attachments++; /* there is something, only not for here */
    return "";
  }
  int count = g_mime_multipart_get_count(multipart);
  if (is_type(object, "multipart", "signed") || is_type(object, "multipart", "report")) count = std::min(count, 1);
  std::string out;
  for (int i = 0; i < count && w->parts < w->limits->parts; i++) {
    std::string text = walk_object(g_mime_multipart_get_part(multipart, i), w, depth + 1, object);
    if (text.empty() || out.size() >= w->limits->text) continue;
    if (!out.empty()) out += "\n\n";
    out += text;
  }
  return out;
}

std::string walk_leaf(GMimeObject *object, walk *w, GMimeObject *parent) {
  GMimeContentType *type = g_mime_object_get_content_type(object);
  const char *media = type ? g_mime_content_type_get_media_type(type) : "text";
  const char *subtype = type ? g_mime_content_type_get_media_subtype(type) : "plain";
  /* What names no type and subtype is text, as a part that says nothing is. */
  const char *named = g_mime_object_get_header(object, "Content-Type");
  if (!media || !subtype || (named && !strchr(named, '/'))) {
    media = "text";
    subtype = "plain";
  }
  bool related = parent && is_type(parent, "multipart", "related");
  bool alternative = parent && is_type(parent, "multipart", "alternative");
  bool attached = is_attached(object);
  if (g_ascii_strcasecmp(media, "text") == 0) {
    const char *file = g_mime_part_get_filename(GMIME_PART(object));
    bool readable = g_ascii_strcasecmp(subtype, "plain") == 0 || g_ascii_strcasecmp(subtype, "html") == 0 ||
                    g_ascii_strcasecmp(subtype, "enriched") == 0 || g_ascii_strcasecmp(subtype, "richtext") == 0 ||
                    g_ascii_strcasecmp(subtype, "calendar") == 0;
    if (!attached && !(file && parent) && (readable || alternative || !parent))
      return text_of_leaf(GMIME_PART(object), subtype, w);
    if (!attached && related) return "";
    w->attachments++;
    return "";
  }
  if (g_ascii_strcasecmp(media, "image") == 0 && (!attached || (related && g_mime_object_get_content_id(object)))) {
    w->image = true;
    return "";
  }
  if (g_ascii_strcasecmp(media, "application") == 0 &&
      (g_ascii_strcasecmp(subtype, "pgp-signature") == 0 || g_ascii_strcasecmp(subtype, "pkcs7-signature") == 0 ||
       g_ascii_strcasecmp(subtype, "x-pkcs7-signature") == 0))
    return "";
  if (alternative && !attached) return ""; /* another form of the same text */
  w->attachments++;
  return "";
}

std::string walk_object(GMimeObject *object, walk *w, int depth, GMimeObject *parent) {
  if (!object || depth > w->limits->depth || w->parts >= w->limits->parts) return "";
  w->parts++;
  if (GMIME_IS_MULTIPART(object)) return walk_multipart(GMIME_MULTIPART(object), w, depth);
  if (GMIME_IS_MESSAGE_PART(object)) {
    /* A forwarded mail is something attached; it is read in place only where there is nothing else to read. */
    GMimeMessage *inner = g_mime_message_part_get_message(GMIME_MESSAGE_PART(object));
    if (!parent) return inner ? walk_object(g_mime_message_get_mime_part(inner), w, depth + 1, object) : "";
    w->attachments++;
    if (!w->forwarded) w->forwarded = inner;
    return "";
  }
  if (GMIME_IS_PART(object)) return walk_leaf(object, w, parent);
  w->attachments++;
  return "";
}

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
  /* Far longer than any real one is: a header full of beginnings is not searched to its end for each of them. */
  size_t end = text.substr(0, std::min(text.size(), name_end + 4096)).find("?=", name_end + 3);
  if ((encoding != 'B' && encoding != 'Q') || end == std::string_view::npos) return 0;
  std::string_view payload = text.substr(name_end + 3, end - name_end - 3);
  /* An end that belongs to another word: this one was cut off. */
  if (payload.find("=?") != std::string_view::npos) return 0;
  *charset = text.substr(at + 2, name_end - at - 2);
  size_t language = charset->find('*');
  if (language != std::string::npos) charset->resize(language);
  *bytes = encoding == 'B' ? decode_base64(payload) : decode_quoted(payload);
  return end + 2;
}

/* A header's text with its encoded words resolved. Words of one charset are put together before they are converted: a
   character that its writer split between two words is whole again, which the library does not do. */
std::string decode_words(std::string_view text) {
  std::string out, plain, pending, pending_charset;
  auto flush_plain = [&] {
    if (!plain.empty()) out += mime_to_utf8(plain, nullptr);
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
    if (charset != pending_charset) flush_pending();
    pending_charset = charset;
    pending += bytes;
    after_word = true;
    at = end;
  }
  flush_pending();
  flush_plain();
  return out;
}

/* The value of a header as it stands in the message, unfolded; empty when there is none. */
std::string raw_header(GMimeMessage *message, const char *name) {
  GMimeHeaderList *list = g_mime_object_get_header_list(GMIME_OBJECT(message));
  GMimeHeader *header = list ? g_mime_header_list_get_header(list, name) : nullptr;
  const char *value = header ? g_mime_header_get_raw_value(header) : nullptr;
  return std::string(value ? value : "").substr(0, kMaxHeader);
}

void replace_all(std::string *text, std::string_view from, std::string_view to) {
  for (size_t at = 0; (at = text->find(from, at)) != std::string::npos; at += to.size())
    text->replace(at, from.size(), to);
}

/* Takes the place of "=?" while the library parses addresses, so that it leaves encoded words alone. */
constexpr char kWordMark[] = "=~{~";

/* The first one that has a domain; the first of all when none has: a name with a comma that nobody quoted reads as two
   mailboxes. */
bool first_mailbox(InternetAddressList *list, std::string *address, std::string *name, bool with_domain,
                   int depth = 0) {
  int count = list ? internet_address_list_length(list) : 0;
  for (int i = 0; i < count && i < 100; i++) {
    InternetAddress *entry = internet_address_list_get_address(list, i);
    if (INTERNET_ADDRESS_IS_MAILBOX(entry)) {
      const char *text = internet_address_mailbox_get_addr(INTERNET_ADDRESS_MAILBOX(entry));
      const char *display = internet_address_get_name(entry);
      if (with_domain && !(text && strchr(text, '@'))) continue;
      *address = mime_clean_line(text ? text : "", kMaxAddress);
      std::string words = display ? display : "";
      replace_all(&words, kWordMark, "=?");
      if (name) *name = mime_clean_line(decode_words(words), kMaxName);
      return true;
    }
    if (depth < 3 && INTERNET_ADDRESS_IS_GROUP(entry) &&
        first_mailbox(internet_address_group_get_members(INTERNET_ADDRESS_GROUP(entry)), address, name, with_domain,
                      depth + 1))
      return true;
  }
  return false;
}

bool first_address(GMimeMessage *message, const char *header, std::string *address, std::string *name) {
  std::string value = raw_header(message, header);
  replace_all(&value, "=?", kWordMark);
  holder<InternetAddressList> list(internet_address_list_parse(options, value.c_str()));
  return list && (first_mailbox(list.get(), address, name, true) || first_mailbox(list.get(), address, name, false));
}

/* A sender that is no mailbox at all is still who it says it is from. */
void split_sender(const std::string &text, mime_mail *mail) {
  size_t open = text.rfind('<'), close = text.rfind('>');
  if (open != std::string::npos && close != std::string::npos && open < close) {
    mail->from_address = mime_clean_line(text.substr(open + 1, close - open - 1), kMaxAddress);
    mail->from_name = mime_clean_line(text.substr(0, open), kMaxName);
  } else {
    (text.find('@') == std::string::npos ? mail->from_name : mail->from_address) = mime_clean_line(text, kMaxAddress);
  }
  while (mail->from_name.ends_with(';') || mail->from_name.ends_with(':')) mail->from_name.pop_back();
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
  GMimeReferences *list = g_mime_references_parse(options, header);
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

bool has_known_header(GMimeMessage *message) {
  static constexpr const char *kNames[] = {"From", "To",       "Subject",      "Date",         "Message-ID",
                                           "Cc",   "Received", "Content-Type", "MIME-Version", "Return-Path",
                                           "Bcc",  "Sender",   "Reply-To",     "Delivered-To"};
  for (const char *name : kNames)
    if (g_mime_object_get_header(GMIME_OBJECT(message), name)) return true;
  return false;
}

/* Where a message ends that has more lines that may separate parts than anybody writes: each costs the library far
   more than its bytes. */
size_t separators_end(std::string_view raw, int most) {
  size_t at = 0;
  for (int count = 0; count < most; count++) {
    at = raw.find("\n--", at);
    if (at == std::string_view::npos) return raw.size();
    at += 3;
  }
  return at;
}

/* From the first header on, with line ends that a reader knows: files come from many hands. */
std::string_view from_header(std::string_view raw, std::string *storage) {
  if (raw.starts_with("\xef\xbb\xbf")) raw.remove_prefix(3);
  while (!raw.empty() && (raw.front() == '\n' || raw.front() == '\r')) raw.remove_prefix(1);
  if (raw.find('\r') == std::string_view::npos || raw.find('\n') != std::string_view::npos) return raw;
  *storage = raw;
  std::replace(storage->begin(), storage->end(), '\r', '\n');
  return *storage;
}

/* What stands behind the header, as it is. */
std::string_view behind_header(std::string_view raw) {
  size_t body = std::min(raw.find("\n\n"), raw.find("\n\r\n"));
  return body == std::string_view::npos ? std::string_view() : raw.substr(body);
}

/* The message without what is over the limits: in particular a header that does not end would be searched for its end
   by everything that reads it. `storage` holds the result when it is not a part of `raw`. */
std::string_view bounded(std::string_view raw, const mime_limits &limits, std::string *storage) {
  raw = raw.substr(0, limits.message);
  raw = raw.substr(0, separators_end(raw, limits.separators));
  size_t body = 0;
  for (size_t line = 0; line < raw.size();) {
    size_t end = raw.find('\n', line);
    if (end == std::string_view::npos) end = raw.size() - 1;
    body = line;
    if (end == line || (end == line + 1 && raw[line] == '\r')) break;
    line = end + 1;
    body = line;
  }
  if (body <= limits.headers) return raw;
  size_t keep = raw.rfind('\n', limits.headers);
  *storage = keep == std::string_view::npos ? std::string(raw.substr(0, limits.headers)) + "\n"
                                            : std::string(raw.substr(0, keep + 1));
  *storage += raw.substr(body);
  return *storage;
}

/* Of what makes the mail itself and does not change on its way through folders and mail programs. */
std::string hash_uid(GMimeMessage *message, std::string_view raw) {
  GChecksum *sum = g_checksum_new(G_CHECKSUM_SHA256);
  for (const char *name : {"From", "To", "Date", "Subject"}) {
    const char *value = g_mime_object_get_header(GMIME_OBJECT(message), name);
    std::string line = mime_clean_line(value ? value : "", kMaxSubject) + "\n";
    g_checksum_update(sum, reinterpret_cast<const guchar *>(line.data()), static_cast<gssize>(line.size()));
  }
  raw = behind_header(raw);
  while (!raw.empty() && g_ascii_isspace(raw.back())) raw.remove_suffix(1); /* mbox files add an empty line */
  g_checksum_update(sum, reinterpret_cast<const guchar *>(raw.data()), static_cast<gssize>(raw.size()));
  std::string uid = std::string("sha256-") + std::string(g_checksum_get_string(sum)).substr(0, 40);
  g_checksum_free(sum);
  return uid;
}

/* For a mail without any text: the first mail inside it, or what stands there when its parts cannot be told apart. */
std::string anything_to_read(GMimeObject *top, std::string_view raw, walk *w) {
  if (w->forwarded) {
    walk inner = {w->limits, w->parts};
    std::string subject = mime_clean_line(decode_words(raw_header(w->forwarded, "Subject")), kMaxSubject);
    std::string text = walk_object(g_mime_message_get_mime_part(w->forwarded), &inner, 1, nullptr);
    return subject.empty() || text.empty() ? subject + text : subject + "\n\n" + text;
  }
  if (!top || !GMIME_IS_MULTIPART(top) || g_mime_multipart_get_count(GMIME_MULTIPART(top)) > 0) return "";
  return tidy(mime_to_utf8(behind_header(raw).substr(0, w->limits->text), nullptr));
}

}  // namespace

void mime_init() {
  if (options) return;
  g_mime_init();
  options = g_mime_parser_options_new();
  const char *fallbacks[] = {"utf-8", "windows-1252", nullptr};
  g_mime_parser_options_set_fallback_charsets(options, fallbacks);
  g_mime_parser_options_set_allow_addresses_without_domain(options, TRUE);
}

int mime_parse(std::string_view raw, const mime_limits &limits, mime_mail *mail, std::string *error) {
  mime_init();
  *mail = mime_mail();
  if (raw.empty()) {
    *error = "empty file";
    return -1;
  }
  std::string lines, storage;
  raw = from_header(raw.substr(0, limits.message), &lines);
  std::string_view bytes = bounded(raw, limits, &storage);
  holder<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(bytes.data(), bytes.size()));
  holder<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
  holder<GMimeMessage> message(g_mime_parser_construct_message(parser.get(), options));
  if (!message || !has_known_header(message.get())) {
    *error = "not a mail message (no header found)";
    return -1;
  }

  mail->subject = mime_clean_line(decode_words(raw_header(message.get(), "Subject")), kMaxSubject);
  if (!first_address(message.get(), "From", &mail->from_address, &mail->from_name) &&
      !first_address(message.get(), "Sender", &mail->from_address, &mail->from_name))
    split_sender(decode_words(raw_header(message.get(), "From")), mail);
  if (!first_address(message.get(), "Reply-To", &mail->reply_to, nullptr)) mail->reply_to = mail->from_address;
  mail->date = mime_date(raw_header(message.get(), "Date"));

  walk w;
  w.limits = &limits;
  GMimeObject *top = g_mime_message_get_mime_part(message.get());
  mail->body = walk_object(top, &w, 0, nullptr);
  if (mail->body.empty()) mail->body = anything_to_read(top, bytes, &w);
  if (mail->body.size() > limits.text) mail->body.resize(mime_cut(mail->body, 0, limits.text));
  mail->attachment_count = w.attachments;
  mail->has_image = w.image;

  const char *id = g_mime_message_get_message_id(message.get());
  if (usable_id(id)) mail->message_id = id;
  append_references(&mail->references, g_mime_object_get_header(GMIME_OBJECT(message.get()), "References"));
  if (mail->references.empty())
    append_references(&mail->references, g_mime_object_get_header(GMIME_OBJECT(message.get()), "In-Reply-To"));
  mail->message_uid = mail->message_id.empty() ? hash_uid(message.get(), raw) : mail->message_id;
  const char *status = g_mime_object_get_header(GMIME_OBJECT(message.get()), "Status");
  mail->seen = status && strchr(status, 'R') != nullptr;
  return 0;
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
