/* Autoconfiguration: a file of the domain, SRV records, well-known names, in this order. */
#include "post-find.h"

#include <arpa/nameser.h>
#include <glib.h>
#include <netdb.h>
#include <resolv.h>

#include <cstring>

#include "post-curl.h"

namespace {

constexpr size_t kMaxFile = 256u << 10;
constexpr long kSeconds = 10, kConnectSeconds = 4;

size_t collect_cb(char *data, size_t size, size_t count, void *user_data) {
  auto *out = static_cast<std::string *>(user_data);
  if (out->size() + size * count > kMaxFile) return 0;
  out->append(data, size * count);
  return size * count;
}

/* The library, with a handle set up; NULL when it cannot be had. */
const curl_functions *prepared(const post_account &account, curl_holder *curl) {
  const curl_functions *lib = curl_library();
  if (!lib) return nullptr;
  curl->reset(lib->init());
  lib->setopt(curl->get(), CURLOPT_NOSIGNAL, 1L);
  lib->setopt(curl->get(), CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
  lib->setopt(curl->get(), CURLOPT_TIMEOUT, kSeconds);
  if (!account.ca.empty()) lib->setopt(curl->get(), CURLOPT_CAINFO, account.ca.c_str());
  return lib;
}

bool get(const post_account &account, const std::string &url, std::string *text) {
  curl_holder curl;
  const curl_functions *lib = prepared(account, &curl);
  if (!lib) return false;
  lib->setopt(curl.get(), CURLOPT_URL, url.c_str());
  lib->setopt(curl.get(), CURLOPT_PROTOCOLS_STR, "https");
  lib->setopt(curl.get(), CURLOPT_REDIR_PROTOCOLS_STR, "https");
  lib->setopt(curl.get(), CURLOPT_FOLLOWLOCATION, 1L);
  lib->setopt(curl.get(), CURLOPT_MAXREDIRS, 3L);
  lib->setopt(curl.get(), CURLOPT_FAILONERROR, 1L);
  lib->setopt(curl.get(), CURLOPT_WRITEFUNCTION, collect_cb);
  lib->setopt(curl.get(), CURLOPT_WRITEDATA, text);
  return lib->perform(curl.get()) == CURLE_OK;
}

struct found_server {
  std::string host, port, security, kind, user;
};

/* What a configuration file says, while it is read. */
struct file_state {
  found_server now;
  std::string element;
  post_found *found;
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
  if (state->element == "username") state->now.user = value;
}

size_t nowhere_cb(char *data, size_t size, size_t count, void *user_data) {
  return size * count;
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
  post_found *found = state->found;
  std::string *to = state->now.kind == "imap" ? &found->imap : state->now.kind == "smtp" ? &found->smtp : nullptr;
  if (!to || !to->empty() || !is_host(state->now.host) ||
      (state->now.security != "SSL" && state->now.security != "STARTTLS"))
    return;
  std::string port;
  for (char c : state->now.port)
    if (g_ascii_isdigit(c)) port += c;
  *to = state->now.kind + (state->now.security == "SSL" ? "s://" : "://") + state->now.host +
        (port.empty() ? "" : ":" + port);
  if (to == &found->imap) found->user = state->now.user;
}

void read_file(const std::string &text, const std::string &address, post_found *found) {
  file_state state;
  state.found = found;
  const GMarkupParser parser = {open_cb, close_cb, text_cb, nullptr, nullptr};
  GMarkupParseContext *context = g_markup_parse_context_new(&parser, G_MARKUP_TREAT_CDATA_AS_TEXT, &state, nullptr);
  g_markup_parse_context_parse(context, text.data(), static_cast<gssize>(text.size()), nullptr);
  g_markup_parse_context_free(context);
  size_t at = address.rfind('@');
  const std::pair<const char *, std::string> blanks[] = {{"%EMAILADDRESS%", address},
                                                         {"%EMAILLOCALPART%", address.substr(0, at)},
                                                         {"%EMAILDOMAIN%", address.substr(at + 1)}};
  for (const auto &[blank, value] : blanks) {
    size_t where = found->user.find(blank);
    if (where != std::string::npos) found->user.replace(where, strlen(blank), value);
  }
  /* With another blank in it the user's name is not known. */
  if (found->user.find('%') != std::string::npos || found->user == address) found->user.clear();
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

/* Does a server answer there that this machine trusts? */
bool answers(const post_account &account, const std::string &url) {
  curl_holder curl;
  const curl_functions *lib = prepared(account, &curl);
  if (!lib) return false;
  lib->setopt(curl.get(), CURLOPT_URL, (url + "/").c_str());
  lib->setopt(curl.get(), CURLOPT_PROTOCOLS_STR, "imap,imaps,smtp,smtps");
  lib->setopt(curl.get(), CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
  lib->setopt(curl.get(), CURLOPT_CUSTOMREQUEST, "NOOP");
  lib->setopt(curl.get(), CURLOPT_WRITEFUNCTION, nowhere_cb);
  return lib->perform(curl.get()) == CURLE_OK;
}

/* The first of these hosts that answers, with TLS from the first byte or after STARTTLS; empty: none. */
std::string first_of(const post_account &account, const std::string &scheme, const std::vector<std::string> &hosts) {
  for (const std::string &host : hosts)
    for (const char *tls : {"s://", "://"}) {
      /* For sending, a port is to be named: without one the library takes that of servers among themselves. */
      std::string url = scheme + tls + host, port = scheme == "smtp" && !strcmp(tls, "://") ? ":587" : "";
      if (answers(account, url + port)) return url;
    }
  return "";
}

/* Whether the name service knows the domain at all. */
int check_domain(const std::string &domain, std::string *error) {
  unsigned char answer[4096];
  if (res_query(domain.c_str(), ns_c_in, ns_t_soa, answer, sizeof answer) >= 0 || h_errno == NO_DATA) return 0;
  if (h_errno == HOST_NOT_FOUND)
    *error = "there is no domain " + domain + "; check the address, or give the servers with --imap and --smtp";
  else
    *error = "the name service does not answer; is this machine on the net?";
  return -1;
}

/* The servers of two records, the first with TLS from the first byte. */
void find_records(const std::string &scheme, const char *tls, const char *starttls, const std::string &domain,
                  std::string *url, std::string *doubtful) {
  std::string host;
  if (find_record(tls, domain, &host))
    *url = scheme + "s://" + host;
  else if (find_record(starttls, domain, &host))
    *url = scheme + "://" + host;
  else
    return;
  std::string name = host.substr(0, host.find(':')), end = "." + domain;
  if (name != domain && !name.ends_with(end) && *doubtful != name)
    *doubtful += (doubtful->empty() ? "" : " and ") + name;
}

}  // namespace

int post_find_servers(const post_account &account, post_found *found, std::string *error) {
  const std::string &address = account.address;
  std::string domain = address.substr(std::min(address.size(), address.rfind('@') + 1)), text;
  if (!is_host(domain)) {
    *error = "'" + domain + "' is no name of a domain; check the address";
    return -1;
  }
  if (!curl_library()) {
    *error = curl_missing;
    return -1;
  }
  res_init();
  _res.retrans = 3; /* seconds; an address of this machine that answers nothing is waited for long enough */
  _res.retry = 2;
  if (check_domain(domain, error) < 0) return -1;
  bool imap = account.imap.empty(), smtp = account.smtp.empty();
  std::unique_ptr<char, decltype(&g_free)> escaped(g_uri_escape_string(address.c_str(), nullptr, FALSE), g_free);
  for (const std::string &url : {"https://autoconfig." + domain + "/mail/config-v1.1.xml?emailaddress=" + escaped.get(),
                                 "https://" + domain + "/.well-known/autoconfig/mail/config-v1.1.xml"}) {
    text.clear();
    if (((imap && found->imap.empty()) || (smtp && found->smtp.empty())) && get(account, url, &text))
      read_file(text, address, found);
  }
  if (imap && found->imap.empty())
    find_records("imap", "_imaps._tcp", "_imap._tcp", domain, &found->imap, &found->doubtful);
  if (smtp && found->smtp.empty())
    find_records("smtp", "_submissions._tcp", "_submission._tcp", domain, &found->smtp, &found->doubtful);
  if (imap && found->imap.empty()) found->imap = first_of(account, "imap", {"imap." + domain, "mail." + domain});
  if (smtp && found->smtp.empty()) found->smtp = first_of(account, "smtp", {"smtp." + domain, "mail." + domain});
  return 0;
}

std::string post_find_typed(const post_account &account, const std::string &scheme, const std::string &typed) {
  if (typed.empty() || typed.find("://") != std::string::npos) return typed;
  if (typed.find(':') == std::string::npos) {
    std::string url = first_of(account, scheme, {typed});
    return url.empty() ? scheme + "s://" + typed : url;
  }
  bool starttls = typed.ends_with(":143") || typed.ends_with(":587") || typed.ends_with(":25");
  return scheme + (starttls ? "://" : "s://") + typed;
}
