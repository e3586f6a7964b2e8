#include "send.h"
#include "brisel-body.h"

#include <glib.h>

#include <cstdio>
#include <ctime>

outgoing make_outgoing(const mime_mail &mail, const send_options &options, const std::string &source, bool keep_source,
                       bool seen) {
  outgoing out;
  watch_mail &w = out.mail;
  size_t size = mail.body.size();
  size_t cut = options.first < 0 ? size : mime_cut(mail.body, 0, static_cast<size_t>(options.first));
  bool whole = cut >= size && !options.cut;
  w.body = mail.body.substr(0, cut) + (whole ? tag_complete : tag_more);
  w.subject = mail.subject;
  w.from_address = mail.from_address;
  w.from_name = mail.from_name;
  w.message_uid = mail.message_uid;
  w.attachment_count = mail.attachment_count;
  w.has_image = mail.has_image;
  w.account_id = options.account_id;
  w.security_locked = options.locked;
  w.is_read = options.is_read < 0 ? seen : options.is_read != 0;
  w.is_new = options.is_new;
  w.received_time = options.received >= 0 ? options.received : mail.date;
  if (options.received < 0 && mail.date <= 0) w.received_time = static_cast<int64_t>(time(nullptr));
  /* Both are the phone's own and only come back to it: which account it was, and which state of the mail. */
  w.host_tag = "account:" + std::to_string(options.account_id);
  w.host_state = w.is_read ? 1 : 0;

  sent_mail &k = out.kept;
  k.account_id = options.account_id;
  k.message_uid = mail.message_uid;
  k.first = options.first < 0 ? 0 : options.first;
  k.source = source;
  k.has_body = !whole && !keep_source;
  if (k.has_body) k.body = mail.body;
  k.message_id = mail.message_id;
  k.references = mail.references;
  k.reply_to = mail.reply_to;
  return out;
}

int send_batch(host_bus *bus, phone_state *state, std::vector<outgoing> *batch, std::vector<int> *ids,
               std::string *error) {
  if (batch->empty()) return 0;
  /* Known here before the watch has them: whatever asks for more of one finds it, even if this process ends now. */
  int kept = phone_state_change(state, [&] {
    for (outgoing &entry : *batch)
      if (phone_state_add_mail(state, &entry.kept) < 0) return -1;
    return 0;
  });
  if (kept < 0) {
    *error = phone_state_error(state);
    return -1;
  }
  std::vector<const watch_mail *> mails;
  for (const outgoing &entry : *batch) mails.push_back(&entry.mail);
  int sent = host_add_mails(bus, mails, ids, error);
  /* No answer: the mails may be there, and what is kept of them finds them by their identity. */
  if (sent == HOST_AWAY) {
    *error += "; whether they arrived is not known";
    return -1;
  }
  int noted = phone_state_change(state, [&] {
    for (size_t i = 0; i < batch->size(); i++) {
      int64_t row = (*batch)[i].kept.row;
      if ((sent == 0 ? phone_state_set_mail_id(state, row, (*ids)[i]) : phone_state_drop_row(state, row)) < 0)
        return -1;
    }
    return 0;
  });
  /* The watch has the mails: they are found by their identity alone. */
  if (noted < 0) fprintf(stderr, "brisel-phone: %s\n", phone_state_error(state));
  return sent;
}

int parse_time(const std::string &text, int64_t *seconds) {
  if (text == "now") {
    *seconds = static_cast<int64_t>(time(nullptr));
    return 0;
  }
  char *end = nullptr;
  gint64 number = g_ascii_strtoll(text.c_str(), &end, 10);
  if (text.find(',') != std::string::npos) { /* as mails write it: Thu, 1 Jan 2026 10:00:00 +0000 */
    *seconds = mime_date(text);
    return *seconds > 0 ? 0 : -1;
  }
  if (!text.empty() && *end == '\0') {
    *seconds = number;
  } else {
    std::string iso = text;
    if (iso.size() > 10 && iso[10] == ' ') iso[10] = 'T';
    if (iso.size() == 10) iso += "T00:00";
    /* Hours and minutes alone are a time too. */
    if (iso.size() >= 16 && iso[13] == ':' && (iso.size() == 16 || iso[16] != ':')) iso.insert(16, ":00");
    GTimeZone *local = g_time_zone_new_local();
    GDateTime *date = g_date_time_new_from_iso8601(iso.c_str(), local);
    g_time_zone_unref(local);
    if (!date) return -1;
    *seconds = g_date_time_to_unix(date);
    g_date_time_unref(date);
  }
  return *seconds >= 0 && *seconds <= INT32_MAX ? 0 : -1;
}

int parse_color(const std::string &text, uint32_t *rgba) {
  std::string digits = !text.empty() && text[0] == '#' ? text.substr(1) : text;
  if (digits.size() != 8) return -1;
  for (char c : digits)
    if (!g_ascii_isxdigit(c)) return -1;
  *rgba = static_cast<uint32_t>(g_ascii_strtoull(digits.c_str(), nullptr, 16));
  return 0;
}
