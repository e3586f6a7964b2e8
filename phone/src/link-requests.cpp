/* What the watch asks: each request is on disk before it is acknowledged, and handed on once. The
   other files of the link call it. */
#include <sys/inotify.h>

#include <algorithm>
#include <cstring>

#include "../mime.h"
#include "brisel-body.h"
#include "link-parts.h"
#include "mail-files.h"
#include "parser.h"
#include "post-rest.h"

namespace {

constexpr int64_t kSmallestPiece = 512;
constexpr size_t kSecond = 8, kThird = 64; /* how many first pieces the watch has after asking once, twice */
constexpr int kUnknownMail = 1;            /* what the service is told when there is no more to give */

constexpr int kNotNow = 2;
constexpr uint64_t kServer = 25000000; /* microseconds that a server has to give more of a text */

/* What is held of what a watch says. A watch in its right mind never gets there: no more than the first two wait in its
   store, and besides them only questions for more of what somebody reads. */
constexpr size_t kMostWaiting = outbox_entries_max + 1000;         /* requests that there was no time for yet */
constexpr size_t kMostWaitingBytes = outbox_bytes_max + (4 << 20); /* of their texts */
constexpr size_t kMostHeard = 2 * kMostWaiting;                    /* messages in one go */
constexpr size_t kMostAtServers = 64;                              /* questions that wait for a server */
constexpr size_t kLongestQuestion = 8 * token_max;                 /* bytes of one: a name, in escapes at worst */
constexpr int kDeepest = 2; /* levels of a request: an object of values and of lists of values */

void await_more(phone_link *link, const waiting_request &r, const nlohmann::json &request, const std::string &source);

void answer_more(phone_link *link, const waiting_request &r, const nlohmann::json &request, bool may_wait) {
  std::string piece, error, rest;
  bool complete = false;
  int mail_id = request.value("mail_id", 0);
  std::string uid = request.value("message_uid", std::string());
  int result = more_of_mail(link->state, mail_id, uid, r.have, &piece, &complete, &rest, &error);
  if (!rest.empty() && may_wait && link->more.size() < kMostAtServers) {
    await_more(link, r, request, rest);
    return;
  }
  if (!rest.empty()) error = "the server did not give the rest of the text";
  if (!error.empty()) link_log("more of mail " + std::to_string(mail_id) + ": " + error);
  std::string why;
  int code = result < 0 ? kUnknownMail : !rest.empty() && piece.empty() ? kNotNow : 0;
  if (host_answer_more(link->bus.get(), r.id, code, piece, complete, &why) < 0)
    link_log("more of mail " + std::to_string(mail_id) + " was not taken: " + why);
}

/* The server gave it, or could not, or took too long. */
void answer_waiting(waiting_more *waiting) {
  phone_link *link = waiting->link;
  waiting_request request = waiting->request;
  nlohmann::json json = waiting->json;
  link->more.remove_if([waiting](const waiting_more &one) { return &one == waiting; });
  answer_more(link, request, json, false);
}

int rest_cb(sd_event_source *source, const inotify_event *event, void *user_data) {
  auto *waiting = static_cast<waiting_more *>(user_data);
  if (rest_is_settled(waiting->source)) answer_waiting(waiting);
  return 0;
}

int rest_late_cb(sd_event_source *source, uint64_t usec, void *user_data) {
  answer_waiting(static_cast<waiting_more *>(user_data));
  return 0;
}

void await_more(phone_link *link, const waiting_request &r, const nlohmann::json &request, const std::string &source) {
  waiting_more *waiting = &link->more.emplace_back();
  waiting->link = link;
  waiting->request = r;
  waiting->json = request;
  waiting->source = source;
  std::string folder = source.substr(source.find(':', source.find(':') + 1) + 1) + rest_folder;
  link_timer(link, &waiting->timeout, kServer, rest_late_cb, waiting);
  if (sd_event_add_inotify(link->event, &waiting->changed, folder.c_str(), IN_DELETE, rest_cb, waiting) < 0 ||
      rest_want(source) < 0)
    link_timer(link, &waiting->timeout, 0, rest_late_cb, waiting);
}

/* Only the right types are looked at later: everything else in a request is passed on as it came. */
bool well_formed(const nlohmann::json &request) {
  if (!request.is_object() || !request.contains("request") || !request["request"].is_string()) return false;
  if (request.contains("mail_id") && !request["mail_id"].is_number_integer()) return false;
  for (const char *key : {"message_uid", "text", "subject", "recipient", "host_tag"})
    if (request.contains(key) && !request[key].is_string()) return false;
  for (const char *key : {"host_tag_list", "message_uid_list"})
    if (request.contains(key) &&
        (!request[key].is_array() ||
         !std::all_of(request[key].begin(), request[key].end(), [](const auto &one) { return one.is_string(); })))
      return false;
  if (!request.contains("id_list")) return true;
  const nlohmann::json &ids = request["id_list"];
  return ids.is_array() && std::all_of(ids.begin(), ids.end(), [](const auto &id) { return id.is_number_integer(); });
}

int resend_cb(sd_event_source *source, uint64_t usec, void *user_data);

/* Whether a request could not be kept and was not asked for again yet. */
bool something_waits(const phone_link *link) {
  return link->resend && sd_event_source_get_enabled(link->resend, nullptr) > 0;
}

/* What could not be kept stays with the service, which sends all that waits when it is asked: after a pause that
   grows, for a disk that is full now is full in a moment too; once for all that wait, however many they are. */
void ask_again_later(phone_link *link, uint64_t *pause) {
  if (something_waits(link)) return;
  *pause = link_longer(*pause);
  link_timer(link, &link->resend, *pause, resend_cb);
}

void ask_again(phone_link *link) {
  std::string error;
  link->left_out = false;
  if (host_connect(link->bus.get(), &error) == 0) return;
  link_log(error);
  ask_again_later(link, &link->resend_delay);
}

int resend_cb(sd_event_source *source, uint64_t usec, void *user_data) {
  auto *link = static_cast<phone_link *>(user_data);
  if (link->connected) ask_again(link);
  return 0;
}

void keep_later(phone_link *link) {
  if (link->resend_delay == 0 && !something_waits(link)) link_log(phone_state_error(link->state));
  ask_again_later(link, &link->resend_delay);
}

/* What did not fit is asked for when all that did is done. Its pause is not made short again as long as the link
   stands: nothing but a broken watch, or one that means ill, needs a second one. */
void ask_for_rest(phone_link *link) {
  if (link->left_out && link->requests.empty()) ask_again_later(link, &link->rest_delay);
}

bool has_room(const phone_link *link, size_t bytes) {
  return link->requests.size() < kMostWaiting && bytes <= kMostWaitingBytes - link->requests_bytes;
}

size_t bytes_of(const waiting_request &r) {
  return r.line.size() + r.uid.size();
}

void leave_out(phone_link *link) {
  if (!link->told_full)
    link_log("the watch asks for more at once than it can have waiting; what does not fit is asked for again");
  link->told_full = link->left_out = true;
  ask_for_rest(link);
}

waiting_request take_out(phone_link *link, const std::deque<waiting_request>::iterator &place) {
  waiting_request request = std::move(*place);
  link->requests.erase(place);
  link->requests_bytes -= bytes_of(request);
  ask_for_rest(link);
  return request;
}

/* What lies deeper than it may takes many times the memory of its text, and is not taken apart. */
nlohmann::json read_request(const std::string &line) {
  bool too_deep = false;
  nlohmann::json request = nlohmann::json::parse(
      line,
      [&too_deep](int depth, nlohmann::json::parse_event_t event, const nlohmann::json &) {
        using what = nlohmann::json::parse_event_t;
        const bool deeper = depth >= kDeepest && (event == what::object_start || event == what::array_start);
        too_deep = too_deep || deeper;
        return !deeper;
      },
      false);
  return too_deep ? nlohmann::json() : request;
}

bool asks_for_more(const nlohmann::json &request) {
  return well_formed(request) && request["request"] == "more_msg";
}

/* mails: those of the request that are this phone's; NULL: it is this phone's as a whole. */
void acknowledge(phone_link *link, int64_t id, const nlohmann::json *mails) {
  std::string error;
  const int done = mails ? host_acknowledge_mails(link->bus.get(), id, mails->get<std::vector<int>>(), &error)
                         : host_acknowledge(link->bus.get(), id, &error);
  if (done < 0) {
    if (!link->told) link_log("request " + std::to_string(id) + " could not be acknowledged: " + error);
    link->told = true;
    return;
  }
  if (phone_state_set_acknowledged(link->state, id) < 0) link_log(phone_state_error(link->state));
}

void take_request(phone_link *link, const waiting_request &r) {
  nlohmann::json request = read_request(r.line);
  bool good = well_formed(request);
  bool more = asks_for_more(request);
  const size_t asked = good && request.contains("id_list") ? request["id_list"].size() : 0;
  if (good && link->handlers->leave_others && !link->handlers->leave_others(link, &request, link->user_data)) {
    if (!link->told_not_ours) link_log("requests about another phone's mail wait on the watch for that phone");
    link->told_not_ours = true;
    return;
  }
  int fresh = 0;
  int kept = phone_state_change(link->state, [&] {
    fresh = phone_state_add_request(link->state, r.id, r.peer, r.line);
    if (fresh < 0) return -1;
    return fresh == 1 && good && link->handlers->keep ? link->handlers->keep(link, request, r.uid, link->user_data) : 0;
  });
  if (kept == 0 && fresh == 1 && link->handlers->kept)
    link->handlers->kept(link, good ? request : nlohmann::json(), r.line, link->user_data);
  if (more) { /* answered also when it could not be written down: it changes nothing here */
    answer_more(link, r, request, true);
    if (kept == 0 && phone_state_set_acknowledged(link->state, r.id) < 0) link_log(phone_state_error(link->state));
    return;
  }
  if (kept < 0) {
    keep_later(link);
    return;
  }
  link->resend_delay = 0;
  const bool is_part = asked > 0 && request["id_list"].size() < asked;
  acknowledge(link, r.id, is_part ? &request["id_list"] : nullptr);
}

int take_cb(sd_event_source *source, void *user_data) {
  auto *link = static_cast<phone_link *>(user_data);
  if (link->requests.empty()) return 0;
  waiting_request next = take_out(link, link->requests.begin());
  if (!link->requests.empty()) sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
  take_request(link, next);
  return 0;
}

int read_body(const sent_mail &mail, const std::string &raw, std::string *body, std::string *error) {
  mime_limits limits;
  mime_mail parsed;
  if (parser_read(raw, limits, &parsed, error) != PARSER_DONE) return -1;
  if (parsed.message_uid != mail.message_uid) {
    *error = "another mail is in its place";
    return -1;
  }
  *body = parsed.body;
  return 0;
}

/* How much goes with this answer. The reader of one mail is asked for three times at most, so that what the watch has
   tells which time it is: the pieces grow, and the third is all that is left. What mail is read into is far less than a
   body may hold. */
size_t piece_size(const sent_mail &mail, size_t have, size_t all) {
  const auto first = static_cast<size_t>(std::clamp<int64_t>(mail.first, kSmallestPiece, body_max));
  for (size_t goal : {first * kSecond, first * kThird})
    if (mail.first > 0 && have < goal / 2) return goal - have; /* half: a piece ends where a character does */
  return all;
}

/* *cut: the text is only a beginning. */
int body_of(const sent_mail &mail, std::string *body, bool *cut, std::string *error) {
  if (mail.has_body) {
    *body = mail.body;
    return 0;
  }
  std::string raw, whole;
  mime_limits limits;
  if (mail.source.empty()) {
    *error = "the mail went to the watch as a whole";
    return -1;
  }
  if (mail_source_read(mail.source, limits.message, &raw, error) < 0 || read_body(mail, raw, body, error) < 0)
    return -1;
  if (!rest_is_cut(mail.source)) return 0;
  *body = rest_surely(*body);
  raw = rest_read(mail.source);
  *cut = raw.empty();
  if (*cut) return 0;
  if (read_body(mail, raw, &whole, error) < 0) return -1;
  *body = rest_joined(*body, whole);
  return 0;
}

}  // namespace

int requests_start(phone_link *link) {
  int r = sd_event_add_defer(link->event, &link->take, take_cb, link);
  return r < 0 ? r : sd_event_source_set_enabled(link->take, SD_EVENT_OFF);
}

waiting_more::~waiting_more() {
  sd_event_source_disable_unref(changed);
  sd_event_source_disable_unref(timeout);
}

void requests_forget(phone_link *link) {
  link->more.clear();
  link->requests.clear();
  link->requests_bytes = 0;
  link->left_out = link->told_full = false;
  link->rest_delay = 0;
  if (link->resend) sd_event_source_set_enabled(link->resend, SD_EVENT_OFF);
}

int request_cb(sd_bus_message *m, void *user_data, sd_bus_error *error) {
  auto *link = static_cast<phone_link *>(user_data);
  const char *sender = sd_bus_message_get_sender(m);
  /* Anybody on the bus can send such a signal; only the service may. */
  if (!link->bus->peer && (!sender || link->bus->owner != sender)) return 0;
  waiting_request request;
  request.peer = link->bus->owner;
  const char *line = nullptr;
  int r = sd_bus_message_read(m, "xs", &request.id, &line);
  const size_t size = r >= 0 ? strlen(line) : 0;
  if (r >= 0 && has_room(link, size)) request.line = line;
  if (r >= 0) r = sd_bus_message_enter_container(m, 'a', "{sv}");
  while (r >= 0 && (r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
    const char *key = nullptr;
    r = sd_bus_message_read(m, "s", &key);
    const char *uid = nullptr;
    if (r >= 0 && strcmp(key, "have") == 0)
      r = sd_bus_message_read(m, "v", "x", &request.have);
    else if (r >= 0 && strcmp(key, "uid") == 0 && (r = sd_bus_message_read(m, "v", "s", &uid)) >= 0)
      request.uid = uid;
    else if (r >= 0)
      r = sd_bus_message_skip(m, "v");
    if (r >= 0) r = sd_bus_message_exit_container(m);
  }
  if (r < 0) {
    link_log(std::string("a request cannot be read: ") + strerror(-r));
    return 0;
  }
  if (!has_room(link, size + request.uid.size())) {
    leave_out(link);
    return 0;
  }
  request.urgent = size <= kLongestQuestion && asks_for_more(read_request(request.line));
  link->requests_bytes += bytes_of(request);
  link->requests.push_back(std::move(request));
  sd_event_source_set_enabled(link->take, SD_EVENT_ONESHOT);
  return 0;
}

/* Only what has come already: the answer of the last call came behind it. */
void requests_hear(phone_link *link) {
  for (size_t heard = 0; heard < kMostHeard && link->connected && sd_bus_process(link->bus->bus, nullptr) > 0;) heard++;
}

void requests_take_urgent(phone_link *link) {
  requests_hear(link);
  auto urgent = [](const waiting_request &r) { return r.urgent; };
  for (;;) {
    auto next = std::find_if(link->requests.begin(), link->requests.end(), urgent);
    if (!link->connected || next == link->requests.end()) return;
    waiting_request request = take_out(link, next);
    take_request(link, request);
  }
}

void link_ask_waiting(phone_link *link) {
  if (!link->connected || !something_waits(link)) return;
  sd_event_source_set_enabled(link->resend, SD_EVENT_OFF);
  ask_again(link);
}

int link_take_waiting(phone_link *link) {
  requests_hear(link);
  while (link->connected && !link->requests.empty()) {
    waiting_request next = take_out(link, link->requests.begin());
    take_request(link, next);
  }
  return link->connected && !something_waits(link) ? 0 : -1;
}

int more_of_mail(phone_state *state, int mail_id, const std::string &message_uid, int64_t have, std::string *piece,
                 bool *complete, std::string *rest, std::string *error) {
  sent_mail mail;
  int found = phone_state_find_mail(state, mail_id, message_uid, &mail);
  if (found <= 0) {
    *error = found < 0 ? phone_state_error(state) : "no such mail was sent from here";
    return -1;
  }
  std::string body;
  bool cut = false;
  rest->clear();
  if (body_of(mail, &body, &cut, error) < 0) return -1;
  /* From where the watch is, not from where the phone thinks it is: a piece that was lost on the way is sent again. */
  size_t from = mime_boundary(body, static_cast<size_t>(std::max<int64_t>(have, 0)));
  size_t end = mime_cut(body, from, piece_size(mail, from, body.size()));
  *piece = body.substr(from, end - from);
  *complete = end >= body.size() && !cut;
  if (cut && end >= body.size()) *rest = mail.source;
  return 0;
}
