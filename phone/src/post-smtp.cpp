/* SMTP submission: see the header. */
#include "post-smtp.h"

#include <fcntl.h>
#include <glib.h>
#include <gmime/gmime.h>
#include <sysexits.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "gmime-holders.h"
#include "outbox.h"
#include "post-curl.h"
#include "post-imap.h"

namespace {

constexpr size_t kMaxMessage = 16u << 20;
constexpr long kConnectSeconds = 30, kSendSeconds = 120;
constexpr unsigned kAfterSeconds = 120; /* for the mark and the copy */

struct slist_free {
  void operator()(curl_slist *list) const { curl_library()->slist_free_all(list); }
};

struct reading {
  const std::string *text;
  size_t at = 0;
};

size_t read_cb(char *to, size_t size, size_t count, void *user_data) {
  auto *r = static_cast<reading *>(user_data);
  size_t part = std::min(size * count, r->text->size() - r->at);
  memcpy(to, r->text->data() + r->at, part);
  r->at += part;
  return part;
}

/* Keeps the last line that the server said but its good-bye, fit to be shown. */
size_t line_cb(char *data, size_t size, size_t count, void *user_data) {
  constexpr size_t kLongest = 200;
  auto *line = static_cast<std::string *>(user_data);
  if (std::string_view(data, size * count).starts_with("221")) return size * count;
  line->clear();
  for (size_t i = 0; i < size * count && line->size() < kLongest; i++)
    *line += data[i] < 0x20 || data[i] > 0x7e ? ' ' : data[i];
  while (line->ends_with(' ')) line->pop_back();
  return size * count;
}

size_t nowhere_cb(char *data, size_t size, size_t count, void *user_data) {
  return size * count;
}

std::string sentence(CURLcode code, const post_account &account, const char *detail, const std::string &said,
                     const post_server &server) {
  const std::string &host = server.host;
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
      return host + ":" + std::to_string(server.port) + " cannot be reached; check the name, the port and the net";
    case CURLE_USE_SSL_FAILED:
      return host + " offers no encryption (STARTTLS); use smtps://, or another network";
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
      return host + ": its certificate is not to be trusted (" + detail +
             "); ask who runs it, or, if it is your own server, give setup its authority with --ca FILE";
    case CURLE_LOGIN_DENIED:
      return host + " does not take the user " + account.login() + " with this " +
             (account.auth == post_auth::password ? "password" : "token") + " for sending: " + said;
    case CURLE_OPERATION_TIMEDOUT:
      return host + " does not answer in time; if the server begins with encryption, give it as smtps://";
    case CURLE_SSL_CONNECT_ERROR:
      return host + ": no safe connection could be made; if the server begins without encryption, give it as smtp://";
    default:
      if (said.starts_with('4') || said.starts_with('5')) return host + " did not take it: " + said;
      if (code == CURLE_RECV_ERROR || code == CURLE_GOT_NOTHING)
        return host + ": the connection ended before it had answered";
      return host + " did not take it: " + detail;
  }
}

std::string first_address(GMimeMessage *message, GMimeAddressType kind) {
  InternetAddressList *list = g_mime_message_get_addresses(message, kind);
  InternetAddress *one =
      list && internet_address_list_length(list) > 0 ? internet_address_list_get_address(list, 0) : nullptr;
  const char *address = one && INTERNET_ADDRESS_IS_MAILBOX(one)
                            ? internet_address_mailbox_get_addr(INTERNET_ADDRESS_MAILBOX(one))
                            : nullptr;
  return address ? address : "";
}

void add_recipients(GMimeMessage *message, std::vector<std::string> *out) {
  for (GMimeAddressType kind : {GMIME_ADDRESS_TYPE_TO, GMIME_ADDRESS_TYPE_CC, GMIME_ADDRESS_TYPE_BCC}) {
    InternetAddressList *list = g_mime_message_get_addresses(message, kind);
    for (int i = 0; list && i < internet_address_list_length(list); i++) {
      InternetAddress *one = internet_address_list_get_address(list, i);
      if (INTERNET_ADDRESS_IS_MAILBOX(one))
        out->push_back(internet_address_mailbox_get_addr(INTERNET_ADDRESS_MAILBOX(one)));
    }
  }
}

/* The mark of the mail that was answered, and the copy. What fails here is told and changes nothing: the message is
   sent. */
void after_sending(const post_account &account, const std::string &secret, GMimeMessage *message,
                   const std::string &text) {
  if (account.imap.empty()) return;
  std::string error;
  imap_session session;
  if (imap_open(account, secret, &session, &error) == 0) {
    const char *header = g_mime_object_get_header(GMIME_OBJECT(message), "In-Reply-To");
    imap_folder opened;
    uint32_t uid = 0;
    for (const std::string &folder : post_folders(account)) {
      if (!header || uid != 0 || imap_select(session.get(), folder, &opened, &error) < 0) continue;
      if (imap_find(session.get(), header, &uid, &error) == 0 && uid != 0)
        imap_add_flag(session.get(), uid, true, &error);
    }
    if (!account.sent.empty()) imap_append(session.get(), account.sent, text, &error);
  }
  if (!error.empty()) fprintf(stderr, "brisel-phone: sent; but %s\n", error.c_str());
}

/* That, behind: the server has the message, and nothing that a mailbox does, or does not in time, may look as if it had
   not. */
void after_sending_behind(const post_account &account, const std::string &secret, GMimeMessage *message,
                          const std::string &text) {
  if (account.imap.empty()) return;
  pid_t pid = fork();
  if (pid < 0) fprintf(stderr, "brisel-phone: sent; but not marked as answered: %s\n", strerror(errno));
  if (pid != 0) return;
  alarm(kAfterSeconds);
  int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (int fd : {0, 1}) dup2(nothing, fd);
  after_sending(account, secret, message, text);
  _exit(0);
}

/* Everything on standard input. */
int read_input(std::string *text) {
  char buffer[16384];
  for (;;) {
    ssize_t got = read(0, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 || text->size() > kMaxMessage) return -1;
    if (got == 0) return 0;
    text->append(buffer, static_cast<size_t>(got));
  }
}

std::string with_network_lines(const std::string &text) {
  std::string out;
  out.reserve(text.size() + text.size() / 32);
  for (char c : text) {
    if (c == '\r') continue;
    if (c == '\n') out += '\r';
    out += c;
  }
  return out;
}

}  // namespace

int smtp_send(const post_account &account, const std::string &secret, const std::vector<std::string> &recipients,
              const std::string &message, bool *for_good, std::string *error) {
  post_server server;
  if (post_server_read(account, account.smtp, &server, error) < 0) return -1;
  const curl_functions *lib = curl_library();
  if (!lib) {
    *error = curl_missing;
    return -1;
  }
  const curl_holder holder(lib->init());
  CURL *curl = holder.get();
  bool v6 = server.host.find(':') != std::string::npos;
  std::string url = std::string(server.security == post_security::tls ? "smtps://" : "smtp://") + (v6 ? "[" : "") +
                    server.host + (v6 ? "]" : "") + ":" + std::to_string(server.port) + "/";
  char detail[CURL_ERROR_SIZE] = "";
  lib->setopt(curl, CURLOPT_ERRORBUFFER, detail);
  lib->setopt(curl, CURLOPT_URL, url.c_str());
  lib->setopt(curl, CURLOPT_PROTOCOLS_STR, "smtp,smtps");
  lib->setopt(curl, CURLOPT_NOSIGNAL, 1L);
  lib->setopt(curl, CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
  lib->setopt(curl, CURLOPT_TIMEOUT, kSendSeconds);
  lib->setopt(curl, CURLOPT_WRITEFUNCTION, nowhere_cb);
  lib->setopt(curl, CURLOPT_USE_SSL,
              static_cast<long>(server.security == post_security::none ? CURLUSESSL_NONE : CURLUSESSL_ALL));
  if (!account.ca.empty()) lib->setopt(curl, CURLOPT_CAINFO, account.ca.c_str());
  lib->setopt(curl, CURLOPT_USERNAME, account.login().c_str());
  if (account.auth == post_auth::password) {
    lib->setopt(curl, CURLOPT_PASSWORD, secret.c_str());
  } else {
    lib->setopt(curl, CURLOPT_XOAUTH2_BEARER, secret.c_str());
    lib->setopt(curl, CURLOPT_LOGIN_OPTIONS, account.auth == post_auth::xoauth2 ? "AUTH=XOAUTH2" : "AUTH=OAUTHBEARER");
  }
  curl_slist *to = nullptr;
  for (const std::string &recipient : recipients) to = lib->slist_append(to, recipient.c_str());
  std::unique_ptr<curl_slist, slist_free> to_holder(to);
  reading input = {&message};
  if (to) {
    lib->setopt(curl, CURLOPT_MAIL_FROM, account.address.c_str());
    lib->setopt(curl, CURLOPT_MAIL_RCPT, to);
    lib->setopt(curl, CURLOPT_UPLOAD, 1L);
    lib->setopt(curl, CURLOPT_READFUNCTION, read_cb);
    lib->setopt(curl, CURLOPT_READDATA, &input);
    lib->setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(message.size()));
  } else {
    lib->setopt(curl, CURLOPT_CUSTOMREQUEST, "NOOP");
  }
  std::string said;
  lib->setopt(curl, CURLOPT_HEADERFUNCTION, line_cb);
  lib->setopt(curl, CURLOPT_HEADERDATA, &said);
  CURLcode code = lib->perform(curl);
  if (code == CURLE_OK) return 0;
  long answer = 0;
  lib->getinfo(curl, CURLINFO_RESPONSE_CODE, &answer);
  /* Only what the server says of the sender, a recipient or the text: a greeting, STARTTLS or a login (53x) that is
     refused may be the network's doing. */
  bool about_it = code == CURLE_SEND_ERROR || (code == CURLE_WEIRD_SERVER_REPLY && input.at > 0);
  if (for_good) *for_good = about_it && answer >= 500 && answer < 600 && answer / 10 != 53;
  *error = sentence(code, account, *detail ? detail : lib->strerror(code), said, server);
  return code == CURLE_LOGIN_DENIED ? post_refused : -1;
}

int smtp_submit(const std::string &config) {
  std::string text, error, secret;
  if (read_input(&text) < 0) {
    fprintf(stderr, "the message cannot be read\n");
    return EX_IOERR;
  }
  g_mime_init();
  object_holder<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(text.data(), text.size()));
  object_holder<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
  object_holder<GMimeMessage> message(g_mime_parser_construct_message(parser.get(), nullptr));
  std::string from = message ? first_address(message.get(), GMIME_ADDRESS_TYPE_FROM) : "";
  post_account account;
  if (from.empty() || post_account_find(config, from, &account, &error) < 0 || account.smtp.empty()) {
    /* Standard input is read already: the system's own gets it from a file that has no name. */
    FILE *again = tmpfile();
    if (!again || fwrite(text.data(), 1, text.size(), again) != text.size() || fflush(again) != 0) return EX_TEMPFAIL;
    rewind(again);
    dup2(fileno(again), 0);
    execl("/usr/sbin/sendmail", "sendmail", "-t", "-i", nullptr);
    fprintf(stderr, "%s has no server for sending, and there is no sendmail here\n",
            from.empty() ? "it" : from.c_str());
    return EX_UNAVAILABLE;
  }
  std::vector<std::string> recipients;
  add_recipients(message.get(), &recipients);
  text = with_network_lines(text);
  bool for_good = false;
  if (recipients.empty()) {
    fprintf(stderr, "it has no recipient\n");
    return EX_DATAERR;
  }
  if (post_secret_read(account, &secret, &error) < 0 ||
      smtp_send(account, secret, recipients, text, &for_good, &error) < 0) {
    fprintf(stderr, "%s\n", error.c_str());
    return for_good ? submit_refused : EX_TEMPFAIL;
  }
  after_sending_behind(account, secret, message.get(), text);
  return 0;
}
