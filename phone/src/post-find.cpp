/* Autoconfiguration: a file of the domain, SRV records, well-known names, in this order. */
#include "post-find.h"

#include <arpa/nameser.h>
#include <curl/curl.h>
#include <glib.h>
#include <resolv.h>

#include <cstring>
#include <memory>

namespace {

constexpr size_t kMaxFile = 256u << 10;
constexpr long kSeconds = 10;

struct curl_closer {
  void operator()(CURL *curl) const { curl_easy_cleanup(curl); }
};

size_t collect_cb(char *data, size_t size, size_t count, void *user_data) {
  auto *out = static_cast<std::string *>(user_data);
  if (out->size() + size * count > kMaxFile) return 0;
  out->append(data, size * count);
  return size * count;
}

bool get(const std::string &url, std::string *text) {
  std::unique_ptr<CURL, curl_closer> curl(curl_easy_init());
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_PROTOCOLS_STR, "https");
  curl_easy_setopt(curl.get(), CURLOPT_REDIR_PROTOCOLS_STR, "https");
  curl_easy_setopt(curl.get(), CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_MAXREDIRS, 3L);
  curl_easy_setopt(curl.get(), CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, kSeconds);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, collect_cb);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, text);
  return curl_easy_perform(curl.get()) == CURLE_OK;
}

struct found_server {
  std::string host, port, security, kind;
};

/* What a configuration file says, while it is read. */
struct file_state {
  found_server now;
  std::string element;
  std::string *imap, *smtp;
};

void open_cb(GMarkupParseContext *, const char *name, const char **names, const char **values, gpointer user_data,
             GError **) {
  auto *state = static_cast<file_state *>(user_data);
  state->element = name;
  if (state->element != "incomingServer" && state->element != "outgoingServer") return;
  state->now = found_server();
  for (int i = 0; names[i]; i++)
    if (strcmp(names[i], "type") == 0) state->now.kind = values[i];
}

void text_cb(GMarkupParseContext *, const char *text, gsize size, gpointer user_data, GError **) {
  auto *state = static_cast<file_state *>(user_data);
  std::string value = g_strstrip(std::string(text, size).data());
  if (value.empty()) return;
  if (state->element == "hostname") state->now.host = value;
  if (state->element == "port") state->now.port = value;
  if (state->element == "socketType") state->now.security = value;
}

bool is_host(const std::string &name) {
  if (name.empty() || name.size() > 253) return false;
  for (char c : name)
    if (!g_ascii_isalnum(c) && c != '.' && c != '-') return false;
  return true;
}

/* The first of each that is encrypted counts. */
void close_cb(GMarkupParseContext *, const char *name, gpointer user_data, GError **) {
  auto *state = static_cast<file_state *>(user_data);
  std::string closed = name;
  state->element.clear();
  if (closed != "incomingServer" && closed != "outgoingServer") return;
  std::string *to = state->now.kind == "imap" ? state->imap : state->now.kind == "smtp" ? state->smtp : nullptr;
  if (!to || !to->empty() || !is_host(state->now.host) ||
      (state->now.security != "SSL" && state->now.security != "STARTTLS"))
    return;
  std::string port;
  for (char c : state->now.port)
    if (g_ascii_isdigit(c)) port += c;
  *to = state->now.kind + (state->now.security == "SSL" ? "s://" : "://") + state->now.host +
        (port.empty() ? "" : ":" + port);
}

void read_file(const std::string &text, std::string *imap, std::string *smtp) {
  file_state state;
  state.imap = imap;
  state.smtp = smtp;
  const GMarkupParser parser = {open_cb, close_cb, text_cb, nullptr, nullptr};
  GMarkupParseContext *context = g_markup_parse_context_new(&parser, G_MARKUP_TREAT_CDATA_AS_TEXT, &state, nullptr);
  g_markup_parse_context_parse(context, text.data(), static_cast<gssize>(text.size()), nullptr);
  g_markup_parse_context_free(context);
}

/* The first server of a SRV record; "." says that the service is not offered. */
bool find_record(const std::string &service, const std::string &domain, std::string *host_and_port) {
  unsigned char answer[4096];
  int size = res_query((service + "." + domain).c_str(), ns_c_in, ns_t_srv, answer, sizeof answer);
  ns_msg message;
  if (size <= 0 || ns_initparse(answer, size, &message) < 0) return false;
  int best = 65536;
  for (int i = 0; i < ns_msg_count(message, ns_s_an); i++) {
    ns_rr record;
    char name[NS_MAXDNAME];
    if (ns_parserr(&message, ns_s_an, i, &record) < 0 || ns_rr_type(record) != ns_t_srv || ns_rr_rdlen(record) < 7)
      continue;
    const unsigned char *data = ns_rr_rdata(record);
    int priority = ns_get16(data), port = ns_get16(data + 4);
    if (priority >= best || dn_expand(answer, answer + size, data + 6, name, sizeof name) < 0 || !is_host(name))
      continue;
    best = priority;
    *host_and_port = std::string(name) + ":" + std::to_string(port);
  }
  return best < 65536;
}

bool can_connect(const std::string &host, const char *port) {
  std::unique_ptr<CURL, curl_closer> curl(curl_easy_init());
  std::string url = "https://" + host + ":" + port + "/";
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_CONNECT_ONLY, 1L); /* with the certificate checked */
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, kSeconds);
  return curl_easy_perform(curl.get()) == CURLE_OK;
}

}  // namespace

void post_find_servers(const std::string &address, std::string *imap, std::string *smtp) {
  std::string domain = address.substr(std::min(address.size(), address.rfind('@') + 1)), text, found;
  if (!is_host(domain)) return;
  std::unique_ptr<char, decltype(&g_free)> escaped(g_uri_escape_string(address.c_str(), nullptr, FALSE), g_free);
  for (const std::string &url : {"https://autoconfig." + domain + "/mail/config-v1.1.xml?emailaddress=" + escaped.get(),
                                 "https://" + domain + "/.well-known/autoconfig/mail/config-v1.1.xml"}) {
    text.clear();
    if ((imap->empty() || smtp->empty()) && get(url, &text)) read_file(text, imap, smtp);
  }
  if (imap->empty() && find_record("_imaps._tcp", domain, &found)) *imap = "imaps://" + found;
  if (imap->empty() && find_record("_imap._tcp", domain, &found)) *imap = "imap://" + found;
  if (smtp->empty() && find_record("_submissions._tcp", domain, &found)) *smtp = "smtps://" + found;
  if (smtp->empty() && find_record("_submission._tcp", domain, &found)) *smtp = "smtp://" + found;
  for (const char *name : {"imap.", "mail."})
    if (imap->empty() && can_connect(name + domain, "993")) *imap = "imaps://" + (name + domain);
  for (const char *name : {"smtp.", "mail."})
    if (smtp->empty() && can_connect(name + domain, "465")) *smtp = "smtps://" + (name + domain);
}
