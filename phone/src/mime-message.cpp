/* One message through the mail library: bounded before it, and put together after it. */
#include <glib.h>
#include <gmime/gmime.h>

#include <algorithm>
#include <cstring>

#include "gmime-holders.h"
#include "mime-headers.h"
#include "mime-parts.h"
#include "text.h"

namespace {

constexpr size_t kMaxSubject = 4096;

bool has_known_header(GMimeMessage *message) {
  static constexpr const char *kNames[] = {"From", "To",       "Subject",      "Date",         "Message-ID",
                                           "Cc",   "Received", "Content-Type", "MIME-Version", "Return-Path",
                                           "Bcc",  "Sender",   "Reply-To",     "Delivered-To"};
  for (const char *name : kNames)
    if (g_mime_object_get_header(GMIME_OBJECT(message), name)) return true;
  /* The library keeps what describes the content with the content. */
  GMimeObject *part = g_mime_message_get_mime_part(message);
  return part && g_mime_object_get_header(part, "Content-Type");
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
  while (!raw.empty() && strchr("\n\r\t ", raw.front()) && raw.front()) raw.remove_prefix(1);
  if (raw.find('\r') == std::string_view::npos || raw.find('\n') != std::string_view::npos) return raw;
  *storage = raw;
  std::replace(storage->begin(), storage->end(), '\r', '\n');
  return *storage;
}

/* The end of the header that begins at text[at]: of its last line, behind the newline. A header goes on in the lines
   that begin with a blank. */
size_t header_end(std::string_view text, size_t at) {
  for (;;) {
    at = text.find('\n', at);
    if (at == std::string_view::npos) return text.size();
    at++;
    if (at >= text.size() || (text[at] != ' ' && text[at] != '\t')) return at;
  }
}

/* Whether a line begins with the name of a header whose value the library takes for addresses, in any part. */
bool names_addresses(std::string_view line) {
  constexpr std::string_view kNames[] = {"From", "Sender", "Reply-To", "To", "Cc", "Bcc"};
  if (line.size() > 7 && g_ascii_strncasecmp(line.data(), "Resent-", 7) == 0) line.remove_prefix(7);
  for (std::string_view name : kNames) {
    if (line.size() <= name.size() || g_ascii_strncasecmp(line.data(), name.data(), name.size()) != 0) continue;
    char behind = line[name.size()];
    if (behind == ':' || behind == ' ' || behind == '\t') return true;
  }
  return false;
}

/* How much of an address header the library is given: it goes down one call for each group and comment inside another,
   as deep as there is stack. */
size_t addresses_size(std::string_view header) {
  constexpr size_t kMaxSize = 64u << 10;
  constexpr int kMaxGroups = 64, kMaxComments = 64;
  int groups = 0, comments = 0;
  for (size_t at = 0; at < header.size(); at++) {
    groups += header[at] == ':';
    comments += header[at] == '(';
    if (groups > kMaxGroups || comments > kMaxComments || at >= kMaxSize) return at;
  }
  return header.size();
}

/* The message without what is over the limits of addresses; `storage` holds it where something had to go. Those headers
   stand in forwarded messages too, so every line is looked at. */
std::string_view with_bounded_addresses(std::string_view raw, std::string *storage) {
  std::string out;
  size_t copied = 0;
  for (size_t line = 0; line < raw.size();) {
    size_t end = raw.find('\n', line);
    end = end == std::string_view::npos ? raw.size() : end + 1;
    if (strchr("FSRTCBfsrtcb", raw[line]) && raw[line] && names_addresses(raw.substr(line, 20))) {
      end = header_end(raw, line);
      size_t keep = addresses_size(raw.substr(line, end - line));
      if (line + keep < end) {
        out.append(raw, copied, line + keep - copied);
        out += '\n';
        copied = end;
      }
    }
    line = end;
  }
  if (copied == 0) return raw;
  out.append(raw, copied);
  *storage = std::move(out);
  return *storage;
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
  if (body > limits.headers) {
    size_t keep = raw.rfind('\n', limits.headers);
    std::string shorter = keep == std::string_view::npos ? std::string(raw.substr(0, limits.headers)) + "\n"
                                                         : std::string(raw.substr(0, keep + 1));
    shorter += raw.substr(body);
    *storage = std::move(shorter);
    raw = *storage;
  }
  return raw;
}

/* Of what makes the mail itself and does not change on its way through folders and mail programs. */
std::string hash_uid(GMimeMessage *message, std::string_view raw) {
  GChecksum *sum = g_checksum_new(G_CHECKSUM_SHA256);
  for (const char *name : {"From", "To", "Date", "Subject"}) {
    const char *value = g_mime_object_get_header(GMIME_OBJECT(message), name);
    std::string line = mime_clean_line(value ? value : "", kMaxSubject) + "\n";
    g_checksum_update(sum, reinterpret_cast<const guchar *>(line.data()), static_cast<gssize>(line.size()));
  }
  raw = parts_behind_header(raw);
  while (!raw.empty() && g_ascii_isspace(raw.back())) raw.remove_suffix(1); /* mbox files add an empty line */
  g_checksum_update(sum, reinterpret_cast<const guchar *>(raw.data()), static_cast<gssize>(raw.size()));
  std::string uid = std::string("sha256-") + std::string(g_checksum_get_string(sum)).substr(0, 40);
  g_checksum_free(sum);
  return uid;
}

}  // namespace

void mime_init() {
  static bool started = false;
  if (started) return;
  started = true;
  g_mime_init();
  header_options();
}

std::unique_ptr<opened_message> message_open(std::string_view raw, const mime_limits &limits) {
  auto opened = std::make_unique<opened_message>();
  opened->raw = from_header(raw.substr(0, limits.message), &opened->lines);
  opened->bytes = with_bounded_addresses(bounded(opened->raw, limits, &opened->headers), &opened->addresses);
  opened->array = {reinterpret_cast<guint8 *>(const_cast<char *>(opened->bytes.data())),
                   static_cast<guint>(opened->bytes.size())};
  opened->stream.reset(g_mime_stream_mem_new_with_byte_array(&opened->array));
  g_mime_stream_mem_set_owner(GMIME_STREAM_MEM(opened->stream.get()), FALSE);
  object_holder<GMimeParser> parser(g_mime_parser_new_with_stream(opened->stream.get()));
  opened->message.reset(g_mime_parser_construct_message(parser.get(), header_options()));
  return opened->message && has_known_header(opened->message.get()) ? std::move(opened) : nullptr;
}

int mime_parse(std::string_view raw, const mime_limits &limits, mime_mail *mail, std::string *error) {
  mime_init();
  *mail = mime_mail();
  if (raw.empty()) {
    *error = "empty file";
    return -1;
  }
  const std::unique_ptr<opened_message> opened = message_open(raw, limits);
  if (!opened) {
    *error = "not a mail message (no header found)";
    return -1;
  }

  GMimeMessage *message = opened->message.get();
  std::string charset = header_charset(message);
  mail->subject = mime_clean_line(header_decode(header_raw(message, "Subject"), charset), kMaxSubject);
  header_read_sender(message, charset, mail);
  mail->date = mime_date(header_raw(message, "Date"));
  parts_read(message, opened->bytes, limits, mail);
  header_read_ids(message, mail);
  if (mail->message_uid.empty()) mail->message_uid = hash_uid(message, opened->raw);
  const char *status = g_mime_object_get_header(GMIME_OBJECT(message), "Status");
  mail->seen = status && strchr(status, 'R') != nullptr;
  return 0;
}
