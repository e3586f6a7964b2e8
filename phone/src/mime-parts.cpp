/* Which of a message's parts is the text to read, and the facts about the rest. Used by mime-message.cpp. */
#include "mime-parts.h"

#include <algorithm>
#include <cstring>

#include "gmime-holders.h"
#include "mime-headers.h"
#include "text.h"

namespace {

/* What is known while one message is walked through. */
constexpr size_t kMaxSubject = 4096;

struct walk {
  const mime_limits *limits;
  int parts = 0;
  int attachments = 0;
  bool image = false;
  std::string meeting;              /* what an invitation says */
  std::string pictures;             /* the names of the body's pictures */
  GMimePart *named = nullptr;       /* the first text part that has a file's name and is not said to be attached */
  GMimeObject *forwarded = nullptr; /* the first mail that is attached */
  std::string torn;                 /* what stands in the first part whose own parts cannot be told apart */
  bool decodes = true;              /* a mail that stands encoded may be opened */
  std::string decoded;              /* ... and was */
  std::unique_ptr<opened_message> opened;
};

/* How good a child of an alternative is as text to read. */
enum alternative_rank { RANK_NONE = 0, RANK_OTHER = 1, RANK_MARKUP = 2, RANK_PLAIN = 3 };

std::string content_bytes(GMimePart *part, size_t max) {
  GMimeDataWrapper *wrapper = g_mime_part_get_content(part);
  if (!wrapper) return "";
  GMimeStream *raw = g_mime_data_wrapper_get_stream(wrapper);
  if (!raw) return "";
  g_mime_stream_reset(raw);
  object_holder<GMimeStream> decoded;
  GMimeContentEncoding encoding = g_mime_data_wrapper_get_encoding(wrapper);
  if (encoding == GMIME_CONTENT_ENCODING_BASE64 || encoding == GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE ||
      encoding == GMIME_CONTENT_ENCODING_UUENCODE) {
    decoded.reset(g_mime_stream_filter_new(raw));
    object_holder<GMimeFilter> decode(g_mime_filter_basic_new(encoding, FALSE));
    g_mime_stream_filter_add(GMIME_STREAM_FILTER(decoded.get()), decode.get());
  }
  std::string out;
  char buffer[16384];
  while (out.size() < max) {
    ssize_t got = g_mime_stream_read(decoded ? decoded.get() : raw, buffer, std::min(sizeof buffer, max - out.size()));
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

std::string text_of_invitation(const std::string &text, walk *w) {
  std::string head, description;
  if (!calendar_read(text, &head, &description)) return text;
  if (w->meeting.empty()) w->meeting = head;
  return description;
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
    return plain_tidy(mime_html_to_text(text, w->limits->text, &w->image));
  }
  std::string text = mime_to_utf8(bytes, charset);
  size_t start = std::min(text.find_first_not_of(" \n\t"), text.size());
  for (const char *document : {"<!doctype html", "<html"}) /* whatever the part's header calls it */
    if (g_ascii_strncasecmp(text.c_str() + start, document, strlen(document)) == 0)
      return plain_tidy(mime_html_to_text(text, w->limits->text, &w->image));
  if (g_ascii_strcasecmp(subtype, "enriched") == 0 || g_ascii_strcasecmp(subtype, "richtext") == 0)
    return mime_html_to_text(text, w->limits->text, nullptr);
  if (g_ascii_strcasecmp(subtype, "calendar") == 0) return text_of_invitation(text, w);
  if (std::string_view(text).substr(start).starts_with("{\\rtf")) {
    w->attachments++;
    return "";
  }
  const char *format = type ? g_mime_content_type_get_parameter(type, "format") : nullptr;
  if (format && g_ascii_strcasecmp(format, "flowed") == 0) {
    const char *delsp = g_mime_content_type_get_parameter(type, "delsp");
    text = plain_unflow(text, delsp && g_ascii_strcasecmp(delsp, "yes") == 0);
  }
  return plain_tidy(plain_without_blocks(plain_without_armour(text), &w->attachments));
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

bool is_between_words(char c) {
  return c == ' ' || c == '\n' || c == '\t';
}

bool has_address(std::string_view text) {
  return text.find("://") != std::string_view::npos || text.find("www.") != std::string_view::npos;
}

/* How many bytes of a text are words, and how many are addresses of the web. It may stop when there are `enough` words.
 */
void count_words(std::string_view text, size_t enough, size_t *words, size_t *addresses) {
  *words = *addresses = 0;
  for (size_t at = 0; at < text.size() && *words < enough;) {
    size_t end = at;
    bool says = false, may_be_address = false;
    for (; end < text.size() && !is_between_words(text[end]); end++) {
      says = says || g_ascii_isalnum(text[end]) || (text[end] & 0x80);
      may_be_address = may_be_address || text[end] == ':' || text[end] == '.';
    }
    std::string_view word = text.substr(at, end - at);
    *(may_be_address && has_address(word) ? addresses : words) += says ? word.size() : 0;
    at = end + 1;
  }
}

/* A plain form that is not the mail: far less than the other one says, or addresses with a few words between. */
bool is_stub(std::string_view plain, std::string_view markup) {
  size_t words, addresses, markup_words, markup_addresses;
  const bool only_words = !has_address(plain);
  const size_t enough = markup.size() / 4 + 1; /* more than that is not far less, whatever the other one says */
  count_words(plain, only_words ? enough : SIZE_MAX, &words, &addresses);
  if (only_words && words >= enough) return false;
  count_words(markup, SIZE_MAX, &markup_words, &markup_addresses);
  return words * 4 < markup_words || (addresses > words && markup_addresses < addresses && markup_words * 2 > words);
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
  if (best_rank == RANK_PLAIN && is_stub(best, markup)) return markup;
  /* A plain form that only says to look at the other one. */
  constexpr size_t kExcuse = 400;
  if (best_rank == RANK_PLAIN && best.size() < kExcuse && markup.size() > best.size() && mentions_html(best))
    return markup;
  return best;
}

std::string walk_multipart(GMimeMultipart *multipart, walk *w, int depth) {
  auto *object = GMIME_OBJECT(multipart);
  if (is_type(object, "multipart", "alternative") && g_mime_multipart_get_count(multipart) > 0)
    return walk_alternative(multipart, w, depth);
  if (is_type(object, "multipart", "encrypted")) {
    const char *protocol = g_mime_object_get_content_type_parameter(object, "protocol");
    return protocol && strstr(protocol, "pkcs7") ? plain_encrypted_smime : plain_encrypted_pgp;
  }
  int count = g_mime_multipart_get_count(multipart);
  const char *before = count == 0 && depth > 0 ? g_mime_multipart_get_prologue(multipart) : nullptr;
  if (before && w->torn.empty()) w->torn = std::string_view(before).substr(0, w->limits->text);
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

void add_picture(walk *w, const char *name) {
  constexpr size_t kMaxNames = 200;
  std::string clean = mime_clean_line(name ? name : "", 100);
  if (clean.empty() || w->pictures.size() > kMaxNames) return;
  w->pictures += (w->pictures.empty() ? "" : ", ") + clean;
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
    if (!attached && !(file && parent) &&
        ((readable || alternative || !parent) && g_ascii_strcasecmp(subtype, "rtf") != 0))
      return text_of_leaf(GMIME_PART(object), subtype, w);
    if (!attached && related) return "";
    if (!attached && !w->named && readable) w->named = GMIME_PART(object);
    w->attachments++;
    return "";
  }
  if (g_ascii_strcasecmp(media, "image") == 0 && (!attached || (related && g_mime_object_get_content_id(object)))) {
    w->image = true;
    add_picture(w, g_mime_part_get_filename(GMIME_PART(object)));
    return "";
  }
  if (g_ascii_strcasecmp(media, "application") == 0 &&
      (g_ascii_strcasecmp(subtype, "pgp-signature") == 0 || g_ascii_strcasecmp(subtype, "pkcs7-signature") == 0 ||
       g_ascii_strcasecmp(subtype, "x-pkcs7-signature") == 0))
    return "";
  if (g_ascii_strcasecmp(media, "application") == 0 &&
      (g_ascii_strcasecmp(subtype, "pkcs7-mime") == 0 || g_ascii_strcasecmp(subtype, "x-pkcs7-mime") == 0))
    return plain_encrypted_smime;
  if (alternative && !attached) return ""; /* another form of the same text */
  w->attachments++;
  return "";
}

/* No standard lets a mail stand encoded in another, and some programs write it so. */
bool is_mail(GMimeObject *object) {
  return GMIME_IS_MESSAGE_PART(object) || (GMIME_IS_PART(object) && is_type(object, "message", "rfc822"));
}

GMimeMessage *mail_inside(GMimeObject *object, walk *w) {
  if (GMIME_IS_MESSAGE_PART(object)) return g_mime_message_part_get_message(GMIME_MESSAGE_PART(object));
  if (!w->decodes) return nullptr;
  w->decodes = false; /* each inside another would take a copy */
  w->decoded = content_bytes(GMIME_PART(object), w->limits->text * 4);
  w->opened = message_open(w->decoded, *w->limits);
  return w->opened ? w->opened->message.get() : nullptr;
}

std::string walk_object(GMimeObject *object, walk *w, int depth, GMimeObject *parent) {
  if (!object || depth > w->limits->depth || w->parts >= w->limits->parts) return "";
  w->parts++;
  if (GMIME_IS_MULTIPART(object)) return walk_multipart(GMIME_MULTIPART(object), w, depth);
  if (is_mail(object)) {
    /* A forwarded mail is something attached; it is read in place only where there is nothing else to read. */
    GMimeMessage *inner = parent ? nullptr : mail_inside(object, w);
    if (inner) return walk_object(g_mime_message_get_mime_part(inner), w, depth + 1, object);
    w->attachments++;
    if (parent && !w->forwarded) w->forwarded = object;
    return "";
  }
  if (GMIME_IS_PART(object)) return walk_leaf(object, w, parent);
  w->attachments++;
  return "";
}

std::string torn_text(const walk &w) {
  return plain_tidy(mime_to_utf8(w.torn, nullptr));
}

/* For a mail without any text: the first mail inside it, or what stands there when its parts cannot be told apart. */
std::string anything_to_read(GMimeObject *top, std::string_view raw, walk *w) {
  if (w->named) {
    w->attachments--;
    return text_of_leaf(w->named, "plain", w);
  }
  if (GMimeMessage *mail = w->forwarded ? mail_inside(w->forwarded, w) : nullptr) {
    walk inner = {w->limits, w->parts};
    inner.decodes = w->decodes;
    std::string subject =
        mime_clean_line(header_decode(header_raw(mail, "Subject"), header_charset(mail)), kMaxSubject);
    std::string text = walk_object(g_mime_message_get_mime_part(mail), &inner, 1, nullptr);
    if (text.empty()) text = torn_text(inner);
    return subject.empty() || text.empty() ? subject + text : subject + "\n\n" + text;
  }
  if (!w->torn.empty()) return torn_text(*w);
  if (!top || !GMIME_IS_MULTIPART(top) || g_mime_multipart_get_count(GMIME_MULTIPART(top)) > 0) return "";
  return plain_tidy(mime_to_utf8(parts_behind_header(raw).substr(0, w->limits->text), nullptr));
}

}  // namespace

std::string_view parts_behind_header(std::string_view raw) {
  size_t body = std::min(raw.find("\n\n"), raw.find("\n\r\n"));
  return body == std::string_view::npos ? std::string_view() : raw.substr(body);
}

void parts_read(GMimeMessage *message, std::string_view raw, const mime_limits &limits, mime_mail *mail) {
  walk w;
  w.limits = &limits;
  GMimeObject *top = g_mime_message_get_mime_part(message);
  mail->body = walk_object(top, &w, 0, nullptr);
  /* When it is comes first: the texts that programs send along tell it late or not at all. */
  if (!w.meeting.empty()) mail->body = mail->body.empty() ? w.meeting : w.meeting + "\n\n" + mail->body;
  if (mail->body.empty()) mail->body = anything_to_read(top, raw, &w);
  if (mail->body.empty() && w.image) mail->body = w.pictures.empty() ? "🖼" : "🖼 " + w.pictures;
  if (mail->body.size() > limits.text) mail->body.resize(mime_cut(mail->body, 0, limits.text));
  mail->attachment_count = w.attachments;
  mail->has_image = w.image;
}
