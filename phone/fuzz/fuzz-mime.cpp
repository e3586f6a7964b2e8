/* libFuzzer target: whatever the bytes are, reading them ends, and what comes out is clean text within its bounds. */
#include <glib.h>

#include <cstdlib>

#include "../mime.h"

namespace {

void must(bool holds) {
  if (!holds) abort();
}

void must_be_text(const std::string &text) {
  must(g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  mime_init();
  std::string_view raw(reinterpret_cast<const char *>(data), size);
  mime_limits limits;
  limits.text = 4096;
  mime_mail mail;
  std::string error;
  if (mime_parse(raw, limits, &mail, &error) == 0) {
    must(!mail.message_uid.empty() && mail.body.size() <= limits.text);
    for (const std::string *text : {&mail.subject, &mail.from_name, &mail.from_address, &mail.reply_to, &mail.body,
                                    &mail.message_uid, &mail.message_id, &mail.references})
      must_be_text(*text);
    must(mail.subject.find('\n') == std::string::npos && mail.from_name.find('\n') == std::string::npos);
    for (size_t at = 0; at < mail.body.size();) {
      size_t end = mime_cut(mail.body, at, 16);
      must(end > at);
      at = end;
    }
  }
  bool image = false;
  std::string clean = mime_to_utf8(raw, "utf-8");
  must_be_text(clean);
  std::string text = mime_html_to_text(clean, 4096, &image);
  must_be_text(text);
  must(text.size() <= 4096);
  must_be_text(mime_to_utf8(raw, "iso-2022-jp"));
  mime_arrival(raw);
  must_be_text(mime_markup_to_text(clean));
  return 0;
}
