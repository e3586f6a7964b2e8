/* What a notification says: as much of a mail as its account's setting lets be seen, and no more. Texts of mails are
   shown as they are, but short, on their lines, and in nobody else's direction. */
#include <libintl.h>
#include <sys/inotify.h>

#include <cctype>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "brisel-settings.h"
#include "notify-priv.h"
#include "platform-language.h"
#include "platform-paths.h"
#include "vconf.h"

namespace {

constexpr char domain[] = "brisel";
/* Bytes of the parts of a text. Servers cut what does not fit; this keeps them from having to. */
constexpr size_t sender_bytes = 120, subject_bytes = 200, words_bytes = 240;
constexpr char settings_folder[] = "settings"; /* in the one of what is configured; files in it come by renaming */
/* Bytes of a body that are looked at for its first words: what is quoted above them may be long. */
constexpr size_t look_bytes = 8192;

std::string text_of(const char *id) {
  return dcgettext(domain, id, LC_MESSAGES);
}

/* The value of a setting for the account, else for all; empty when there is none. */
std::string setting_of(const char *key, int account_id) {
  std::string value;
  for (const std::string &name : {std::string(key) + "/" + std::to_string(account_id), std::string(key)}) {
    char *text = vconf_get_str(name.c_str());
    if (text) value = text;
    free(text);
    if (!value.empty()) break;
  }
  return value;
}

notify_extent extent_of(int account_id) {
  const std::string value = setting_of(BRISEL_KEY_NOTIFY_SHOWS, account_id);
  return value == "nothing" ? notify_extent::nothing : value == "sender" ? notify_extent::sender : notify_extent::all;
}

/* The zero of regions that write other digits, as ICU 72 has them, which this process does without; the other nine
   follow its last byte. A country comes before its language. */
constexpr struct {
  std::string_view region, zero;
} regional_digits[] = {{"ar_AE", "0"}, {"ar_DZ", "0"}, {"ar_EH", "0"},     {"ar_LY", "0"},   {"ar_MA", "0"},
                       {"ar_TN", "0"}, {"ar", "٠"},    {"ckb", "٠"},       {"sd_Deva", "0"}, {"sd", "٠"},
                       {"fa", "۰"},    {"ps", "۰"},    {"ur_IN", "۰"},     {"ks_Deva", "0"}, {"ks", "۰"},
                       {"lrc", "۰"},   {"mzn", "۰"},   {"pa_Arab", "۰"},   {"uz_Arab", "۰"}, {"mr", "०"},
                       {"ne", "०"},    {"sa", "०"},    {"bgc", "०"},       {"bho", "०"},     {"raj", "०"},
                       {"as", "০"},    {"bn", "০"},    {"mni", "০"},       {"my", "၀"},      {"dz", "༠"},
                       {"sat", "᱐"},   {"ccp", "𑄶"},   {"ff_Adlm", "𞥐"}};

/* The region that numbers are written for: the setting's, else the environment's. */
std::string region_of_numbers() {
  char *setting = vconf_get_str(BRISEL_KEY_REGION);
  std::string region = setting ? setting : "";
  free(setting);
  for (const char *name : {"LC_ALL", "LC_TIME", "LANG"})
    if (const char *value = getenv(name); region.empty() && value) region = value;
  return region;
}

/* As the application writes it. */
std::string number_text(size_t number) {
  const std::string region = region_of_numbers();
  std::string_view zero = "0";
  for (const auto &one : regional_digits) {
    if (!region.starts_with(one.region) || isalnum(static_cast<unsigned char>(region.c_str()[one.region.size()])))
      continue;
    zero = one.zero;
    break;
  }
  std::string text;
  for (const char digit : std::to_string(number)) {
    text += zero;
    text.back() = static_cast<char>(text.back() + (digit - '0'));
  }
  return text;
}

/* Whether the three bytes are a character that turns the direction of what follows it. */
bool turns_direction(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  if (text.size() < 3 || byte(0) != 0xE2) return false;
  return (byte(1) == 0x80 && byte(2) >= 0xAA && byte(2) <= 0xAE) ||
         (byte(1) == 0x81 && byte(2) >= 0xA6 && byte(2) <= 0xA9);
}

/* The text on one line, at most so many bytes of it, cut at a character. */
std::string one_line(std::string_view text, size_t most) {
  std::string line;
  bool blank = false;
  while (!text.empty() && line.size() <= most) {
    const unsigned char c = static_cast<unsigned char>(text.front());
    if (turns_direction(text)) {
      text.remove_prefix(3);
      continue;
    }
    if (c <= 0x20 || c == 0x7F) {
      blank = !line.empty();
    } else {
      if (blank) line += ' ';
      blank = false;
      line += text.front();
    }
    text.remove_prefix(1);
  }
  if (line.size() <= most) return line;
  size_t cut = most;
  while (cut > 0 && (static_cast<unsigned char>(line[cut]) & 0xC0) == 0x80) cut--;
  line.resize(cut);
  return line + "…";
}

std::string sender_of(const noticed_mail &mail) {
  return one_line(mail.from_name.empty() ? mail.from_address : mail.from_name, sender_bytes);
}

/* What the sender wrote first: no lines that quote somebody. */
std::string first_words(std::string_view body) {
  body = body.substr(0, std::min(body_length(body), look_bytes));
  std::string own;
  while (!body.empty() && own.size() <= words_bytes) {
    const size_t end = std::min(body.find('\n'), body.size());
    const std::string_view line = body.substr(0, end);
    if (line == "-- " || line == "--") break;
    if (!line.starts_with('>')) own.append(line).append(" ");
    body.remove_prefix(std::min(end + 1, body.size()));
  }
  return one_line(own, words_bytes);
}

int settings_cb(sd_event_source *source, const inotify_event *event, void *data) {
  notifier *n = static_cast<notifier *>(data);
  if ((event->mask & (IN_DELETE_SELF | IN_CREATE)) && (!event->len || !strcmp(event->name, settings_folder)))
    notify_follow_words(n);
  if (notify_words() != n->words) notify_look_soon(n);
  return 0;
}

}  // namespace

void notify_language(void) {
  platform_language_apply();
}

std::string notify_words(void) {
  return platform_languages() + " " + region_of_numbers();
}

void notify_follow_words(notifier *n) {
  n->settings_watch = sd_event_source_disable_unref(n->settings_watch);
  const char *dir = platform_config_dir();
  const std::string above = dir ? dir : "", folder = above + "/" + settings_folder;
  constexpr uint32_t changes = IN_MOVED_TO | IN_DELETE | IN_DELETE_SELF | IN_ONLYDIR;
  int r = sd_event_add_inotify(n->h->event, &n->settings_watch, folder.c_str(), changes, settings_cb, n);
  if (r == -ENOENT)
    r = sd_event_add_inotify(n->h->event, &n->settings_watch, above.c_str(), IN_CREATE | IN_ONLYDIR, settings_cb, n);
  if (r < 0) fprintf(stderr, "brisel-hostd: the language of notifications is not followed: %s\n", strerror(-r));
}

notify_way notify_way_of(int account_id) {
  const std::string value = setting_of(BRISEL_KEY_NOTIFY, account_id);
  return value == "off" ? notify_way::off : value == "quiet" ? notify_way::quiet : notify_way::on;
}

notify_message notify_text_single(notifier *n, int mail_id, const noticed_mail &mail) {
  const notify_extent extent = mail.locked ? notify_extent::nothing : extent_of(mail.account_id);
  notify_message message;
  message.summary = extent == notify_extent::nothing ? "" : sender_of(mail);
  if (message.summary.empty()) message.summary = text_of("IDS_EMAIL_BODY_NEW_EMAIL");
  if (extent == notify_extent::all) {
    const std::string subject = one_line(mail.subject, subject_bytes);
    message.body = subject.empty() ? text_of("IDS_EMAIL_BODY_HNO_SUBJECT_ABB") : subject;
    std::string body, uid;
    if (store_get_body(n->h->st, mail_id, &body, &uid) == store_ok)
      if (const std::string words = first_words(body); !words.empty()) message.body += "\n" + words;
  }
  message.buttons = {{notify_key_open, text_of("IDS_EMAIL_SK_OPEN")},
                     {notify_key_read, text_of("IDS_EMAIL_SK_MARK_AS_READ")},
                     {notify_key_delete, text_of("IDS_EMAIL_BODY_DELETE")}};
  /* Nobody answers whom they cannot see. */
  if (extent != notify_extent::nothing && notify_can_reply(n, mail))
    for (const std::string &text : notify_replies(n)) message.buttons.push_back({notify_key_reply + text, text});
  return message;
}

notify_message notify_text_refused(const refused_reply &reply) {
  notify_message message;
  message.event = &notify_refused;
  message.summary = text_of("IDS_EMAIL_TPOP_A_REPLY_WAS_REFUSED");
  message.buttons = {{notify_key_open, text_of("IDS_EMAIL_SK_OPEN")}};
  if (reply.reason != outcome_no_address)
    message.buttons.push_back({notify_key_again, text_of("IDS_EMAIL_SK_SEND_AGAIN")});
  if (reply.locked || extent_of(reply.account_id) == notify_extent::nothing) return message;
  if (const std::string who = one_line(reply.person, sender_bytes); !who.empty()) {
    message.body = text_of("IDS_EMAIL_BODY_TO_PS");
    if (const size_t at = message.body.find("%s"); at != std::string::npos) message.body.replace(at, 2, who);
  }
  const std::string why = reply.reason == outcome_no_address
                              ? text_of("IDS_EMAIL_POP_THIS_EMAIL_HAS_NO_ADDRESS_TO_REPLY_TO")
                              : one_line(reply.reason, words_bytes);
  if (!why.empty()) message.body += (message.body.empty() ? "" : "\n") + why;
  return message;
}

notify_message notify_text_counted(size_t count, const std::vector<noticed_mail> &mails) {
  notify_message message;
  message.summary =
      dcngettext(domain, "IDS_EMAIL_BODY_PD_NEW_EMAILS", "IDS_EMAIL_BODY_PD_NEW_EMAILS", count, LC_MESSAGES);
  if (const size_t at = message.summary.find("%d"); at != std::string::npos)
    message.summary.replace(at, 2, number_text(count));
  for (const noticed_mail &mail : mails) {
    if (mail.locked || extent_of(mail.account_id) == notify_extent::nothing) continue;
    const std::string sender = sender_of(mail);
    if (message.body.find(sender) == std::string::npos) message.body += (message.body.empty() ? "" : "\n") + sender;
  }
  message.buttons = {{notify_key_open, text_of("IDS_EMAIL_SK_OPEN")},
                     {notify_key_read, text_of("IDS_EMAIL_SK_MARK_AS_READ")}};
  return message;
}
