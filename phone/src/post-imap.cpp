/* One IMAP connection: see the header. */
#include "post-imap.h"

#include <glib.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <map>

#include "post-etpan.h"
#include "post-skeleton.h"
#include "post-stream.h"
#include "post-tls.h"

namespace {

constexpr size_t kLongestReason = 200, kBuffer = 8192;
constexpr int kGreetingSeconds = 30;

/* clist_append, whose macro calls the library by its name. */
void append(clist *list, void *data) {
  etpan->clist_insert_after(list, list->last, data);
}

struct set_free {
  void operator()(mailimap_set *set) const { etpan->mailimap_set_free(set); }
};
using set_holder = std::unique_ptr<mailimap_set, set_free>;
struct type_free {
  void operator()(mailimap_fetch_type *type) const { etpan->mailimap_fetch_type_free(type); }
};
using type_holder = std::unique_ptr<mailimap_fetch_type, type_free>;
struct list_free {
  void operator()(clist *list) const { etpan->mailimap_fetch_list_free(list); }
};
using list_holder = std::unique_ptr<clist, list_free>;

/* What the library gives with a refusal it has freed itself. */
list_holder taken_list(int code, clist *list) {
  return list_holder(code == MAILIMAP_NO_ERROR ? list : nullptr);
}

/* What the server said last, on one line. */
std::string said(mailimap *session) {
  std::string out;
  for (const char *c = session->imap_response ? session->imap_response : ""; *c && out.size() < kLongestReason; c++)
    out += static_cast<unsigned char>(*c) < 0x20 || static_cast<unsigned char>(*c) > 0x7e ? ' ' : *c;
  while (out.ends_with(' ') || out.ends_with('.')) out.pop_back(); /* more follows in the same line */
  return out;
}

int fail(mailimap *session, int code, const char *what, std::string *error) {
  if (code == MAILIMAP_ERROR_STREAM)
    *error = std::string(stream_end()) + " while it was to " + what;
  else if (code == MAILIMAP_ERROR_PARSE || said(session).empty())
    *error = "the server's answer makes no sense (it was to " + std::string(what) + ")";
  else
    *error = "the server refused to " + std::string(what) + ": " + said(session);
  return -1;
}

/* From one charset to another; empty: it is not written in the first. */
std::string recoded(const std::string &text, const char *to, const char *from) {
  g_autofree char *out = g_convert(text.data(), static_cast<gssize>(text.size()), to, from, nullptr, nullptr, nullptr);
  return out ? out : "";
}

constexpr char kWire[] = "UTF-7-IMAP", kShown[] = "UTF-8";

std::string name_shown(const std::string &name) {
  std::string shown = recoded(name, kShown, kWire);
  return shown.empty() ? name : shown;
}

/* A folder's name as servers write it. One that was given so stays as it is. */
std::string on_wire(const std::string &name) {
  std::string shown = recoded(name, kShown, kWire), wire = recoded(name, kWire, kShown);
  return wire.empty() || (!shown.empty() && recoded(shown, kWire, kShown) == name) ? name : wire;
}

std::string base64(const std::string &text) {
  std::unique_ptr<char, decltype(&g_free)> out(
      g_base64_encode(reinterpret_cast<const guchar *>(text.data()), text.size()), g_free);
  return out.get();
}

/* What the server was heard to offer; NULL: nothing yet. The library keeps it. */
mailimap_capability_data *offers(mailimap *session) {
  return session->imap_connection_info ? session->imap_connection_info->imap_capability : nullptr;
}

/* The library's own question dies of a server that was heard to offer nothing. */
bool has(mailimap *session, const char *name) {
  return offers(session) && offers(session)->cap_list && etpan->mailimap_has_extension(session, name) != 0;
}

bool has_login(mailimap *session, const char *mechanism) {
  return offers(session) && offers(session)->cap_list && etpan->mailimap_has_authentication(session, mechanism) != 0;
}

void forget_offers(mailimap *session) {
  if (!offers(session)) return;
  etpan->mailimap_capability_data_free(offers(session));
  session->imap_connection_info->imap_capability = nullptr;
}

int fd_of(mailimap *session) {
  return etpan->mailstream_low_get_fd(etpan->mailstream_get_low(session->imap_stream));
}

/* How many messages the folder had when it was opened, on the process's one connection that follows. */
uint32_t opened_with = 0;

/* The certificate is looked at before the first word is said or heard. */
int connect_server(mailimap *session, const post_server &server, const std::string &ca, std::string *error) {
  int fd = stream_connect(server, error);
  if (fd < 0) return -1;
  stream_step step(fd);
  bool tls = server.security == post_security::tls, starttls = server.security == post_security::starttls;
  mailstream_low *low = tls ? stream_encrypt(fd, server.host) : etpan->mailstream_low_socket_open(fd);
  if (!low) {
    close(fd);
    *error = server.host + ":" + std::to_string(server.port) +
             ": no safe connection could be made; if the server begins without encryption, give it as imap://";
    return -1;
  }
  etpan->mailstream_low_set_timeout(low, kGreetingSeconds);
  stream_guard(low);
  mailstream *stream = etpan->mailstream_new(low, kBuffer);
  if (tls && tls_check(stream, server.host, ca, error) < 0) {
    etpan->mailstream_close(stream);
    return -1;
  }
  int code = etpan->mailimap_connect(session, stream);
  etpan->mailstream_low_set_timeout(low, imap_timeout_s);
  if (code != MAILIMAP_NO_ERROR_AUTHENTICATED && code != MAILIMAP_NO_ERROR_NON_AUTHENTICATED) {
    fail(session, code, "begin", error);
    *error = server.host + ":" + std::to_string(server.port) + ": " + *error + "; check the server's name and port" +
             (tls ? "" : ", and whether it begins with encryption (imaps://)");
    return -1;
  }
  if (!starttls) return 0;
  /* The offer is not waited for: a server, or somebody between, that does not take it gets no password. What was said
     before the encryption and not read yet would count as said within it. */
  if (etpan->mailimap_starttls(session) != MAILIMAP_NO_ERROR || stream->read_buffer_len > 0 ||
      !(low = stream_encrypt(fd, server.host))) {
    *error = server.host + " offers no encryption (STARTTLS); use imaps://, or another network";
    return -1;
  }
  etpan->mailstream_low_free(etpan->mailstream_get_low(stream));
  etpan->mailstream_set_low(stream, low);
  etpan->mailstream_low_set_timeout(low, imap_timeout_s);
  stream_guard(low);
  forget_offers(session);
  return tls_check(stream, server.host, ca, error);
}

/* Logs in by a mechanism of one message, which the library does not know. To a
   server that asks on, which is how it tells why it refuses, `refused` is said. */
int authenticate(mailimap *session, const char *mechanism, const std::string &first, const char *refused) {
  auto say = [session](const std::string &text) {
    etpan->mailstream_write(session->imap_stream, text.data(), text.size());
    return etpan->mailstream_flush(session->imap_stream) == 0;
  };
  if (etpan->mailimap_send_current_tag(session) != MAILIMAP_NO_ERROR ||
      !say(std::string("AUTHENTICATE ") + mechanism + " " + base64(first) + "\r\n"))
    return MAILIMAP_ERROR_STREAM;
  const char *line = etpan->mailimap_read_line(session);
  if (line && *line == '+') line = say(std::string(refused) + "\r\n") ? etpan->mailimap_read_line(session) : nullptr;
  if (!line) return MAILIMAP_ERROR_STREAM;
  mailimap_response *answer = nullptr;
  int code = etpan->mailimap_parse_response(session, &answer);
  if (code != MAILIMAP_NO_ERROR) return code;
  const mailimap_response_done *done = answer->rsp_resp_done;
  bool good = done->rsp_type == MAILIMAP_RESP_DONE_TYPE_TAGGED &&
              done->rsp_data.rsp_tagged->rsp_cond_state->rsp_type == MAILIMAP_RESP_COND_STATE_OK;
  etpan->mailimap_response_free(answer);
  if (good) session->imap_state = MAILIMAP_STATE_AUTHENTICATED;
  return good ? MAILIMAP_NO_ERROR : MAILIMAP_ERROR_LOGIN;
}

/* Whether the answer says that it is not about what was asked: too many connections, or something behind the server
   that does not work now. */
bool is_for_now(mailimap *session) {
  const char *told = session->imap_response_info ? session->imap_response_info->rsp_atom : nullptr;
  for (const char *code : {"UNAVAILABLE", "LIMIT", "INUSE", "SERVERBUG"})
    if (told && g_ascii_strcasecmp(told, code) == 0) return true;
  return false;
}

int log_in(mailimap *session, const post_account &account, const post_server &server, const std::string &secret,
           std::string *error) {
  int code;
  const std::string &user = account.login();
  bool password = account.auth == post_auth::password;
  bool disabled = has(session, "LOGINDISABLED");
  bool tokens = has_login(session, "XOAUTH2") || has_login(session, "OAUTHBEARER");
  if (password && disabled && tokens && !has_login(session, "PLAIN")) {
    *error = server.host + " takes tokens, no passwords; use --auth xoauth2 with --password-command";
    return -1;
  }
  bool plain = password && disabled;
  forget_offers(session);
  if (account.auth == post_auth::xoauth2)
    code = authenticate(session, "XOAUTH2", "user=" + user + "\1auth=Bearer " + secret + "\1\1", "");
  else if (account.auth == post_auth::oauthbearer)
    code = authenticate(session, "OAUTHBEARER",
                        "n,a=" + user + ",\1host=" + server.host + "\1port=" + std::to_string(server.port) +
                            "\1auth=Bearer " + secret + "\1\1",
                        "AQ==");
  else if (plain)
    code = authenticate(session, "PLAIN", std::string(1, '\0') + user + std::string(1, '\0') + secret, "*");
  else
    code = etpan->mailimap_login(session, user.c_str(), secret.c_str());
  if (code == MAILIMAP_NO_ERROR) return 0;
  if (code == MAILIMAP_ERROR_STREAM || is_for_now(session)) return fail(session, code, "log in", error);
  *error = server.host + " does not take the user " + user + " with this " + (password ? "password" : "token") + ": " +
           said(session);
  return post_refused;
}

type_holder wanted(std::initializer_list<mailimap_fetch_att *> attributes) {
  type_holder type(etpan->mailimap_fetch_type_new_fetch_att_list_empty());
  for (mailimap_fetch_att *attribute : attributes)
    etpan->mailimap_fetch_type_new_fetch_att_list_add(type.get(), attribute);
  return type;
}

int64_t seconds_of(const mailimap_date_time *date) {
  tm when = {};
  if (date->dt_year < 1970 || date->dt_year > 9999 || date->dt_zone < -2400 || date->dt_zone > 2400) return 0;
  when.tm_year = date->dt_year - 1900;
  when.tm_mon = date->dt_month - 1;
  when.tm_mday = date->dt_day;
  when.tm_hour = date->dt_hour;
  when.tm_min = date->dt_min;
  when.tm_sec = date->dt_sec;
  int zone = date->dt_zone;
  return std::max<int64_t>(0, timegm(&when) - (zone / 100 * 3600 + zone % 100 * 60));
}

void read_flags(const mailimap_msg_att_dynamic *flags, imap_message *message) {
  message->seen = message->deleted = false;
  for (clistiter *at = flags->att_list ? clist_begin(flags->att_list) : nullptr; at; at = clist_next(at)) {
    auto *flag = static_cast<mailimap_flag_fetch *>(clist_content(at));
    if (flag->fl_type != MAILIMAP_FLAG_FETCH_OTHER) continue;
    if (flag->fl_flag->fl_type == MAILIMAP_FLAG_SEEN) message->seen = true;
    if (flag->fl_flag->fl_type == MAILIMAP_FLAG_DELETED) message->deleted = true;
  }
}

/* Takes one message's answer apart. */
void read_attributes(const mailimap_msg_att *answer, imap_message *message, const mailimap_body **structure,
                     std::string *section) {
  for (clistiter *at = clist_begin(answer->att_list); at; at = clist_next(at)) {
    auto *item = static_cast<mailimap_msg_att_item *>(clist_content(at));
    if (item->att_type == MAILIMAP_MSG_ATT_ITEM_DYNAMIC) read_flags(item->att_data.att_dyn, message);
    if (item->att_type != MAILIMAP_MSG_ATT_ITEM_STATIC) continue;
    const mailimap_msg_att_static *fact = item->att_data.att_static;
    if (fact->att_type == MAILIMAP_MSG_ATT_UID) message->uid = fact->att_data.att_uid;
    if (fact->att_type == MAILIMAP_MSG_ATT_INTERNALDATE) message->date = seconds_of(fact->att_data.att_internal_date);
    if (fact->att_type == MAILIMAP_MSG_ATT_BODYSTRUCTURE && structure) *structure = fact->att_data.att_body;
    if (fact->att_type == MAILIMAP_MSG_ATT_BODY_SECTION && section && fact->att_data.att_body_section->sec_body_part)
      section->assign(fact->att_data.att_body_section->sec_body_part, fact->att_data.att_body_section->sec_length);
  }
}

mailimap_section_part *part_of(const std::string &number) {
  clist *ids = etpan->clist_new();
  gchar **numbers = g_strsplit(number.c_str(), ".", -1);
  for (gchar **one = numbers; *one; one++) {
    auto *id = static_cast<uint32_t *>(malloc(sizeof(uint32_t)));
    *id = static_cast<uint32_t>(g_ascii_strtoull(*one, nullptr, 10));
    append(ids, id);
  }
  g_strfreev(numbers);
  return etpan->mailimap_section_part_new(ids);
}

/* The headers that are read here: the others are most of a header's bytes. part: empty, or of the mail that is it. */
mailimap_section *headers_wanted(const std::string &part = "") {
  clist *names = etpan->clist_new();
  for (const char *name :
       {"From", "Sender", "Reply-To", "To", "Cc", "Date", "Subject", "Message-ID", "In-Reply-To", "References",
        "Status", "MIME-Version", "Content-Type", "Content-Transfer-Encoding", "Content-Disposition", "Content-ID"})
    append(names, strdup(name));
  mailimap_header_list *list = etpan->mailimap_header_list_new(names);
  return part.empty() ? etpan->mailimap_section_new_header_fields(list)
                      : etpan->mailimap_section_new_part_header_fields(part_of(part), list);
}

mailimap_section *section_of(const std::string &part, bool header) {
  if (header) return headers_wanted(part);
  return part.empty() ? etpan->mailimap_section_new_text() : etpan->mailimap_section_new_part(part_of(part));
}

/* When it arrived, as the header that tells so: of those on its way none was fetched. */
std::string arrival_line(int64_t date) {
  constexpr const char *kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  tm when = {};
  gmtime_r(&date, &when);
  char line[64];
  snprintf(line, sizeof line, "Received: ; %d %s %d %02d:%02d:%02d +0000\r\n", when.tm_mday, kMonths[when.tm_mon % 12],
           when.tm_year + 1900, when.tm_hour, when.tm_min, when.tm_sec);
  return date > 0 ? line : "";
}

/* A message on its way here. */
struct coming {
  imap_mail *mail;
  const mailimap_body *structure = nullptr; /* of the first answer */
  std::string header;
  std::vector<skeleton_text> texts;
};
using coming_mails = std::map<uint32_t, coming>;

/* The answers about these messages; NULL with a reason. */
list_holder fetch_all(mailimap *session, const std::vector<uint32_t> &uids, mailimap_fetch_type *type, int *code,
                      std::string *error) {
  stream_step step(fd_of(session));
  set_holder set(etpan->mailimap_set_new_empty());
  for (uint32_t uid : uids) etpan->mailimap_set_add_single(set.get(), uid);
  clist *list = nullptr;
  *code = etpan->mailimap_uid_fetch(session, set.get(), type, &list);
  list_holder holder = taken_list(*code, list);
  if (*code == MAILIMAP_NO_ERROR) return holder;
  fail(session, *code, "give a message", error);
  return nullptr;
}

/* Reads the answers; those about other messages may stand between. */
template <typename taker>
void for_each_answer(const clist *list, coming_mails *mails, taker take) {
  for (clistiter *at = list ? clist_begin(list) : nullptr; at; at = clist_next(at)) {
    imap_message message;
    const mailimap_body *structure = nullptr;
    std::string section;
    read_attributes(static_cast<mailimap_msg_att *>(clist_content(at)), &message, &structure, &section);
    auto mail = mails->find(message.uid);
    if (mail != mails->end()) take(&mail->second, message, structure, std::move(section));
  }
}

/* The texts, those of one place in several messages at once. */
int fetch_texts(mailimap *session, coming_mails *mails, int *code, std::string *error) {
  std::map<std::tuple<std::string, bool, uint32_t>, std::vector<uint32_t>> places;
  for (auto &[uid, mail] : *mails)
    for (const skeleton_text &text : mail.texts) places[{text.part, text.header, text.bytes}].push_back(uid);
  for (auto &[place, uids] : places) {
    const auto &[part, header, bytes] = place;
    const size_t at_once = std::max<size_t>(1, skeleton_whole_bytes / bytes);
    for (size_t from = 0; from < uids.size(); from += at_once) {
      auto begin = uids.begin() + static_cast<ptrdiff_t>(from);
      type_holder type =
          wanted({etpan->mailimap_fetch_att_new_uid(),
                  etpan->mailimap_fetch_att_new_body_peek_section_partial(section_of(part, header), 0, bytes)});
      list_holder list =
          fetch_all(session, {begin, begin + static_cast<ptrdiff_t>(std::min(at_once, uids.size() - from))}, type.get(),
                    code, error);
      if (*code != MAILIMAP_NO_ERROR) return -1;
      for_each_answer(list.get(), mails,
                      [&place = place](coming *mail, const auto &, const auto *, const std::string &content) {
                        for (skeleton_text &text : mail->texts)
                          if (std::tie(text.part, text.header, text.bytes) == place && !content.empty())
                            text.content = content;
                      });
    }
  }
  return 0;
}

void read_list(const clist *list, size_t most, std::vector<imap_message> *messages) {
  for (clistiter *at = list ? clist_begin(list) : nullptr; at && messages->size() < most; at = clist_next(at)) {
    imap_message message;
    read_attributes(static_cast<mailimap_msg_att *>(clist_content(at)), &message, nullptr, nullptr);
    if (message.uid != 0) messages->push_back(message);
  }
}

type_holder facts_wanted() {
  return wanted({etpan->mailimap_fetch_att_new_uid(), etpan->mailimap_fetch_att_new_flags(),
                 etpan->mailimap_fetch_att_new_internaldate()});
}

/* A connection that is only waited on may be dead for long without anybody noticing: the system looks after it, without
   this process being woken. */
void keep_alive(int fd) {
  int on = 1, idle = 300, pause = 60, count = 4;
  setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
  setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &pause, sizeof pause);
  setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count);
}

/* From here on the server tells of messages that went by their uids. */
void enable_changes(mailimap *session) {
  clist *names = etpan->clist_new();
  char *name = strdup("QRESYNC");
  append(names, etpan->mailimap_capability_new(MAILIMAP_CAPABILITY_NAME, nullptr, name));
  mailimap_capability_data *asked = etpan->mailimap_capability_data_new(names), *answer = nullptr;
  if (etpan->mailimap_enable(session, asked, &answer) == MAILIMAP_NO_ERROR && answer)
    etpan->mailimap_capability_data_free(answer);
  etpan->mailimap_capability_data_free(asked);
}

/* Did the last answer tell of a change? */
bool told_change(mailimap *session) {
  const mailimap_response_info *info = session->imap_response_info;
  return info && ((info->rsp_expunged && clist_count(info->rsp_expunged) > 0) ||
                  (info->rsp_fetch_list && clist_count(info->rsp_fetch_list) > 0) ||
                  (info->rsp_extension_list && clist_count(info->rsp_extension_list) > 0));
}

bool has_changed(mailimap *session) {
  const mailimap_selection_info *folder = session->imap_selection_info;
  return told_change(session) || (folder && folder->sel_exists != opened_with);
}

int store_flag(mailimap *session, mailimap_set *set, mailimap_flag *flag, const char *what, std::string *error) {
  mailimap_flag_list *flags = etpan->mailimap_flag_list_new_empty();
  etpan->mailimap_flag_list_add(flags, flag);
  mailimap_store_att_flags *store = etpan->mailimap_store_att_flags_new_add_flags_silent(flags);
  int code = etpan->mailimap_uid_store(session, set, store);
  etpan->mailimap_store_att_flags_free(store);
  return code == MAILIMAP_NO_ERROR ? 0 : fail(session, code, what, error);
}

}  // namespace

void imap_closer::operator()(mailimap *session) const {
  /* Without a word, the server knows what that means: the library would say one, and wait for what is said to it. */
  if (session->imap_stream) shutdown(fd_of(session), SHUT_RDWR);
  etpan->mailimap_free(session);
}

int imap_open(const post_account &account, const std::string &secret, imap_session *session, std::string *error) {
  if (!etpan_load()) {
    *error = etpan_missing;
    return -1;
  }
  post_server server;
  if (post_server_read(account, account.imap, &server, error) < 0) return -1;
  session->reset(etpan->mailimap_new(0, nullptr));
  etpan->mailimap_set_timeout(session->get(), imap_timeout_s);
  if (connect_server(session->get(), server, account.ca, error) < 0) return -1;
  int code = imap_begin(session->get(), account, server, secret, error);
  keep_alive(fd_of(session->get()));
  return code;
}

int imap_begin(mailimap *session, const post_account &account, const post_server &server, const std::string &secret,
               std::string *error) {
  stream_step step(fd_of(session));
  int code = log_in(session, account, server, secret, error);
  if (code < 0) return code;
  /* What was offered before the login may be less. Most say it with their answer to that; others are asked, not by
     mailimap_capability(), which dies of an answer that names nothing. */
  if (!offers(session) && etpan->mailimap_custom_command(session, "CAPABILITY") == MAILIMAP_ERROR_STREAM)
    return fail(session, MAILIMAP_ERROR_STREAM, "say what it offers", error);
  if (imap_tells_changes(session)) enable_changes(session);
  return 0;
}

int imap_select(mailimap *session, const std::string &name, imap_folder *folder, std::string *error) {
  stream_step step(fd_of(session));
  bool counts = has(session, "CONDSTORE") || has(session, "QRESYNC");
  *folder = imap_folder();
  int code = counts ? etpan->mailimap_select_condstore(session, on_wire(name).c_str(), &folder->modseq)
                    : etpan->mailimap_select(session, on_wire(name).c_str());
  if (code != MAILIMAP_NO_ERROR) return fail(session, code, ("open the folder " + name).c_str(), error);
  const mailimap_selection_info *info = session->imap_selection_info;
  folder->validity = info ? info->sel_uidvalidity : 0;
  folder->exists = opened_with = info ? info->sel_exists : 0;
  /* What was said of the folder is no change of it: an empty one, of which nothing more is asked, would seem to change
     for ever. */
  etpan->mailimap_response_info_free(session->imap_response_info);
  session->imap_response_info = etpan->mailimap_response_info_new();
  return 0;
}

int imap_list_newest(mailimap *session, uint32_t count, std::vector<imap_message> *messages, std::string *error) {
  stream_step step(fd_of(session));
  uint32_t exists = session->imap_selection_info ? session->imap_selection_info->sel_exists : 0;
  if (exists == 0) return 0;
  set_holder set(etpan->mailimap_set_new_interval(exists > count ? exists - count + 1 : 1, 0));
  type_holder type = facts_wanted();
  clist *list = nullptr;
  int code = etpan->mailimap_fetch(session, set.get(), type.get(), &list);
  list_holder holder = taken_list(code, list);
  if (code != MAILIMAP_NO_ERROR) return fail(session, code, "list a folder", error);
  read_list(list, count, messages);
  return 0;
}

bool imap_tells_changes(mailimap *session) {
  return has(session, "QRESYNC") && has(session, "ENABLE");
}

int imap_list_changes(mailimap *session, uint32_t from, uint64_t modseq, std::vector<imap_message> *changed,
                      std::vector<std::pair<uint32_t, uint32_t>> *gone, std::string *error) {
  stream_step step(fd_of(session));
  set_holder set(etpan->mailimap_set_new_interval(from, 0));
  type_holder type = facts_wanted();
  clist *list = nullptr;
  mailimap_qresync_vanished *vanished = nullptr;
  int code = etpan->mailimap_uid_fetch_qresync(session, set.get(), type.get(), modseq, &list, &vanished);
  list_holder holder = taken_list(code, list);
  if (code != MAILIMAP_NO_ERROR) return fail(session, code, "tell what changed", error);
  const clist *runs = vanished && vanished->qr_known_uids ? vanished->qr_known_uids->set_list : nullptr;
  for (clistiter *at = runs ? clist_begin(runs) : nullptr; at; at = clist_next(at)) {
    auto *run = static_cast<mailimap_set_item *>(clist_content(at));
    gone->emplace_back(run->set_first, run->set_last);
  }
  if (vanished) etpan->mailimap_qresync_vanished_free(vanished);
  read_list(list, SIZE_MAX, changed);
  return 0;
}

int imap_fetch(mailimap *session, bool whole, std::vector<imap_mail> *mails, std::string *error) {
  coming_mails coming_now;
  std::vector<uint32_t> uids;
  for (imap_mail &mail : *mails) {
    coming_now[mail.uid].mail = &mail;
    uids.push_back(mail.uid);
  }
  type_holder type =
      wanted({etpan->mailimap_fetch_att_new_uid(), etpan->mailimap_fetch_att_new_internaldate(),
              etpan->mailimap_fetch_att_new_bodystructure(),
              etpan->mailimap_fetch_att_new_body_peek_section_partial(headers_wanted(), 0, skeleton_header_bytes)});
  int code = 0;
  list_holder list = fetch_all(session, uids, type.get(), &code, error);
  for_each_answer(
      list.get(), &coming_now,
      [whole](coming *mail, const imap_message &message, const mailimap_body *structure, const std::string &header) {
        if (!structure) return;
        mail->structure = structure;
        mail->header = arrival_line(message.date) + header;
        mail->texts.clear();
        skeleton_choose(structure, header, whole, &mail->texts, &mail->mail->cut);
      });
  if (code != MAILIMAP_NO_ERROR || fetch_texts(session, &coming_now, &code, error) < 0)
    return code == MAILIMAP_ERROR_STREAM ? -1 : imap_unreadable;
  for (auto &[uid, mail] : coming_now)
    if (mail.structure) mail.mail->raw = skeleton_build(mail.structure, mail.header, mail.texts);
  return 0;
}

int imap_add_flag(mailimap *session, uint32_t uid, bool answered, std::string *error) {
  stream_step step(fd_of(session));
  set_holder set(etpan->mailimap_set_new_single(uid));
  return store_flag(session, set.get(),
                    answered ? etpan->mailimap_flag_new_answered() : etpan->mailimap_flag_new_seen(), "set a mark",
                    error);
}

int imap_remove(mailimap *session, uint32_t uid, const std::string &trash, std::string *error) {
  stream_step step(fd_of(session));
  set_holder set(etpan->mailimap_set_new_single(uid));
  if (!trash.empty()) {
    bool moves = has(session, "MOVE");
    int code = moves ? etpan->mailimap_uid_move(session, set.get(), on_wire(trash).c_str())
                     : etpan->mailimap_uid_copy(session, set.get(), on_wire(trash).c_str());
    if (code != MAILIMAP_NO_ERROR) return fail(session, code, ("put a mail into " + trash).c_str(), error);
    if (moves) return 0;
  }
  if (store_flag(session, set.get(), etpan->mailimap_flag_new_deleted(), "delete a mail", error) < 0) return -1;
  if (!has(session, "UIDPLUS")) return 0; /* a plain EXPUNGE would take what others marked too */
  int code = etpan->mailimap_uid_expunge(session, set.get());
  return code == MAILIMAP_NO_ERROR ? 0 : fail(session, code, "delete a mail", error);
}

int imap_find(mailimap *session, const std::string &message_id, uint32_t *uid, std::string *error) {
  stream_step step(fd_of(session));
  mailimap_search_key *key = etpan->mailimap_search_key_new_header(strdup("Message-ID"), strdup(message_id.c_str()));
  clist *found = nullptr;
  int code = etpan->mailimap_uid_search(session, nullptr, key, &found);
  etpan->mailimap_search_key_free(key);
  *uid = 0;
  if (code != MAILIMAP_NO_ERROR) return fail(session, code, "search", error);
  for (clistiter *at = found ? clist_begin(found) : nullptr; at; at = clist_next(at))
    *uid = *static_cast<uint32_t *>(clist_content(at));
  if (found) etpan->mailimap_search_result_free(found);
  return 0;
}

int imap_append(mailimap *session, const std::string &folder, const std::string &message, std::string *error) {
  stream_step step(fd_of(session));
  mailimap_flag_list *flags = etpan->mailimap_flag_list_new_empty();
  etpan->mailimap_flag_list_add(flags, etpan->mailimap_flag_new_seen());
  int code = etpan->mailimap_append(session, on_wire(folder).c_str(), flags, nullptr, message.data(), message.size());
  etpan->mailimap_flag_list_free(flags);
  return code == MAILIMAP_NO_ERROR ? 0 : fail(session, code, ("keep a copy in " + folder).c_str(), error);
}

int imap_list_folders(mailimap *session, std::vector<imap_listed> *folders, std::string *error) {
  stream_step step(fd_of(session));
  clist *list = nullptr;
  int code = etpan->mailimap_list(session, "", "*", &list);
  if (code != MAILIMAP_NO_ERROR) return fail(session, code, "list its folders", error);
  for (clistiter *at = list ? clist_begin(list) : nullptr; at; at = clist_next(at)) {
    auto *box = static_cast<mailimap_mailbox_list *>(clist_content(at));
    folders->push_back({name_shown(box->mb_name)});
    for (clistiter *i = box->mb_flag && box->mb_flag->mbf_oflags ? clist_begin(box->mb_flag->mbf_oflags) : nullptr; i;
         i = clist_next(i)) {
      const char *use = static_cast<mailimap_mbx_list_oflag *>(clist_content(i))->of_flag_ext;
      if (use) folders->back().uses.emplace_back(*use == '\\' ? use + 1 : use);
    }
  }
  if (list) etpan->mailimap_list_result_free(list);
  return 0;
}

int imap_special_folder(mailimap *session, const char *use, std::string *folder, std::string *error) {
  std::vector<imap_listed> all;
  if (imap_list_folders(session, &all, error) < 0) return -1;
  folder->clear();
  for (const imap_listed &one : all) {
    bool meant = std::any_of(one.uses.begin(), one.uses.end(),
                             [use](const std::string &u) { return g_ascii_strcasecmp(u.c_str(), use) == 0; });
    if (meant || (folder->empty() && g_ascii_strcasecmp(one.name.c_str(), use) == 0)) *folder = one.name;
    if (meant) break;
  }
  return 0;
}

bool imap_can_idle(mailimap *session) {
  return has(session, "IDLE");
}

int imap_wait(mailimap *session, int other, int seconds, std::string *error) {
  bool idle = imap_can_idle(session), changed = false;
  if (idle) {
    stream_step step(fd_of(session));
    int code = etpan->mailimap_idle(session);
    if (code != MAILIMAP_NO_ERROR) return fail(session, code, "wait for mail", error);
    changed = has_changed(session);
  }
  pollfd wait[] = {{other, POLLIN, 0}, {idle ? etpan->mailimap_idle_get_fd(session) : -1, POLLIN, 0}};
  bool there = changed || (idle && session->imap_stream->read_buffer_len > 0);
  int ready = there ? 1 : poll(wait, 2, seconds * 1000);
  if (ready < 0 && errno != EINTR) {
    *error = std::string("waiting failed: ") + strerror(errno);
    return -1;
  }
  if (!idle) return 1;
  stream_step step(fd_of(session));
  int code = etpan->mailimap_idle_done(session);
  if (code != MAILIMAP_NO_ERROR) return fail(session, code, "stop waiting", error);
  /* Some servers only say now and then that they are there. */
  return ready == 0 || changed || (wait[0].revents & POLLIN) || has_changed(session);
}
