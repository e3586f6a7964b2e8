/* Reading messages and bringing to the watch what it lacks, in calls of which several may be in flight. */
#include <algorithm>
#include <deque>

#include "parser.h"
#include "post-rest.h"
#include "relay-parts.h"
#include "send.h"

namespace {

using enum relay_mail_state;

/* One call carries so much at most; the first ones less, so that the newest mails are on the watch first. */
constexpr size_t kFirstMails = 8, kMostMails = 200, kHead = 16384, kLongHead = 256 << 10, kMailOverhead = 1024;
constexpr int64_t kSoon = 24 * 3600;
constexpr int64_t kBeingWritten = 5; /* seconds after its last change that a file may not be whole */

struct pending {
  relay_row *row;
  outgoing out;
  std::string key;
};

struct flight {
  std::vector<pending> batch;
  host_call_holder call;
};

/* A message as its mailbox gave it. */
struct fetched {
  const mailbox_item *item = nullptr;
  std::string raw, error, source;
  int64_t arrival = 0, size = 0;
  bool is_read = false;
  bool cut = false; /* only the beginning of its text is here */
};

/* One account's way to the watch. */
struct sender {
  followed *a;
  std::deque<flight> flights;
  std::vector<pending> next; /* newest first */
  size_t bytes = 0, most = kFirstMails;
};

/* Nothing behind them says when a message arrived. */
std::string_view headers_of(std::string_view head) {
  for (size_t at = head.find('\n'); at != std::string_view::npos; at = head.find('\n', at + 1))
    if (at + 1 < head.size() && (head[at + 1] == '\n' || head[at + 1] == '\r')) return head.substr(0, at + 2);
  return head;
}

outgoing prepare(followed *a, const fetched &f, const relay_row &row, const mime_mail &mail) {
  const mailbox_item &item = *f.item;
  send_options options;
  options.account_id = a->account_id;
  options.first = a->settings.first >= 0 ? a->settings.first : a->r->settings.first;
  options.received = row.time;
  options.is_read = item.seen;
  options.is_new = row.fresh && !item.seen;
  options.cut = f.cut;
  outgoing out = make_outgoing(mail, options, f.source, true, item.seen);
  out.mail.host_tag = relay_tag(*a);
  return out;
}

void set_aside(const std::string &what, relay_row *row, const std::string &why) {
  link_log(what + ": " + why + "; it is left out");
  row->state = broken;
  row->trouble = why;
  row->dirty = true;
}

/* Writes down the mails of a call alone, and what work() does with each: what else changed waits for known_save(), or a
   mailbox of many would be looked through for every call. */
template <typename F>
int save_batch(followed *a, std::vector<pending> *batch, F &&work,
               decltype(phone_state_change) save = phone_state_change) {
  phone_state *state = a->r->state.get();
  int result = save(state, [&] {
    for (pending &p : *batch)
      if (work(&p) < 0 || relay_row_write(state, a->settings.name, p.key, *p.row) < 0) return -1;
    return 0;
  });
  if (result < 0) {
    a->error = phone_state_error(state);
    return -1;
  }
  for (pending &p : *batch) p.row->dirty = false;
  return 0;
}

void back_to_waiting(std::vector<pending> *batch) {
  for (pending &p : *batch) {
    p.row->state = waiting;
    p.row->batch = 0;
    p.row->dirty = true;
  }
}

/* --- one call --- */

/* Writes down that the mails are on their way, then hands them over. */
int launch(followed *a, flight *f) {
  phone_state *state = a->r->state.get();
  int64_t batch = ++a->last_batch;
  int kept = save_batch(a, &f->batch, [&](pending *p) {
    if (phone_state_add_mail(state, &p->out.kept) < 0) return -1;
    p->row->row = p->out.kept.row;
    p->row->state = sending;
    p->row->batch = batch;
    p->row->dirty = true;
    return 0;
  });
  if (kept < 0) {
    back_to_waiting(&f->batch);
    return -1;
  }
  std::vector<const watch_mail *> mails;
  for (const pending &p : f->batch) mails.push_back(&p.out.mail);
  f->call = host_add_mails_begin(link_bus(a->r->link), mails);
  return 0;
}

/* Waits for the call's answer and writes down what came of it. Returns a host_result; when the service refused the
   mails or could not write them, they are back where they were. */
int land(followed *a, flight *f) {
  std::vector<int> ids;
  std::string error;
  int result = host_add_mails_end(f->call.get(), f->batch.size(), &ids, &error);
  if (result != HOST_OK) {
    a->error = error;
    if (result == HOST_REFUSED || result == HOST_LATER || result == HOST_NOBODY) { /* for certain: nothing was stored */
      back_to_waiting(&f->batch);
      phone_state *state = a->r->state.get();
      save_batch(a, &f->batch, [&](pending *p) { return phone_state_drop_row(state, p->out.kept.row); });
      a->error = error;
    } else {
      a->listed = false; /* whether it was is found out from the watch's list */
    }
    return result;
  }
  phone_state *state = a->r->state.get();
  for (size_t i = 0; i < f->batch.size(); i++) {
    relay_row *row = f->batch[i].row;
    row->mail_id = ids[i];
    row->state = relayed;
    row->batch = 0;
    row->dirty = true;
  }
  /* When the power fails before this is on the disk, the mails are still on their way there, and the watch's list tells
     that they came, as when the answer was never heard: a second sync for each mail would buy nothing. */
  const auto set_id = [&](pending *p) { return phone_state_set_mail_id(state, p->row->row, p->row->mail_id); };
  int noted = save_batch(a, &f->batch, set_id, phone_state_note);
  if (noted == 0) return HOST_OK;
  a->listed = false; /* what the user does with them meanwhile says numbers that the state does not know */
  return HOST_LATER;
}

/* --- what the service refuses --- */

/* Sends the mails in ever smaller parts; those that are refused alone go to *refused. Returns a host_result, OK also
   when some were refused. */
int send_parts(followed *a, std::vector<pending> mails, std::vector<std::pair<pending, std::string>> *refused) {
  flight f;
  f.batch = std::move(mails);
  int result = launch(a, &f) < 0 ? static_cast<int>(HOST_LATER) : land(a, &f);
  if (result != HOST_REFUSED) return result;
  if (f.batch.size() == 1) {
    refused->emplace_back(std::move(f.batch[0]), a->error);
    return HOST_OK;
  }
  auto middle = f.batch.begin() + static_cast<std::ptrdiff_t>(f.batch.size() / 2);
  std::vector<pending> second(std::make_move_iterator(middle), std::make_move_iterator(f.batch.end()));
  f.batch.erase(middle, f.batch.end());
  result = send_parts(a, std::move(f.batch), refused);
  return result == HOST_OK ? send_parts(a, std::move(second), refused) : result;
}

/* A batch was refused. First the watch's list is looked at, for somebody may have removed the account; when that is in
   order, the mails that are to blame are found and set aside. Returns 0, or -1. */
int find_refused(followed *a, flight *f) {
  if (!a->checked) {
    a->checked = true;
    a->listed = false;
    return -1;
  }
  size_t all = f->batch.size();
  std::vector<std::pair<pending, std::string>> refused;
  int result = send_parts(a, std::move(f->batch), &refused);
  if (result != HOST_OK) return -1;
  if (all > 1 && refused.size() == all) return -1; /* it is not the mails: a->error says what it is */
  for (auto &[p, why] : refused) set_aside(a->settings.name + ": " + p.key, p.row, "the watch refuses it: " + why);
  a->error.clear();
  return known_save(a, {});
}

/* Lands the oldest call in flight. Returns 0, or -1. */
int land_first(sender *s) {
  flight f = std::move(s->flights.front());
  s->flights.pop_front();
  int result = land(s->a, &f);
  return result == HOST_OK ? 0 : result == HOST_REFUSED ? find_refused(s->a, &f) : -1;
}

/* Lets what is in flight land, so that it is known what became of it. */
int land_all(sender *s, int result) {
  while (!s->flights.empty())
    if (land_first(s) < 0) result = -1;
  return result;
}

/* Sends what was collected. Returns 0, or -1. */
int flush(sender *s) {
  if (s->next.empty()) return 0;
  flight f;
  f.batch = std::move(s->next);
  /* Within a call the oldest first: of two mails of one second the later one is then on top. */
  std::reverse(f.batch.begin(), f.batch.end());
  s->next.clear();
  s->bytes = 0;
  s->most = std::min(s->most * 4, kMostMails);
  if (launch(s->a, &f) < 0) return -1;
  s->flights.push_back(std::move(f));
  return s->flights.size() < link_flow(s->a->r->link).calls ? 0 : land_first(s);
}

/* --- one message --- */

/* The watch has it already: from a run whose memory is lost, or that ended before it could note this. */
int claim(followed *a, const fetched &f, relay_row *row, const mime_mail &mail, int mail_id) {
  phone_state *state = a->r->state.get();
  std::vector<pending> one;
  one.push_back({row, prepare(a, f, *row, mail), f.item->key});
  row->state = relayed;
  row->mail_id = mail_id;
  row->dirty = true;
  return save_batch(a, &one, [&](pending *p) {
    if (phone_state_add_mail(state, &p->out.kept) < 0) return -1;
    row->row = p->out.kept.row;
    return phone_state_set_mail_id(state, row->row, mail_id);
  });
}

void fetch(followed *a, const mailbox_item &item, fetched *f) {
  const size_t most = mime_limits().message;
  f->item = &item;
  f->is_read = a->settings.kind->read(a->settings.path, item, most, &f->raw, &f->arrival, &f->size, &f->error) == 0;
}

/* Messages of the window that are read before their turn: while the other process reads one, the next are fetched and
   handed over, so that both work at the same time. */
struct fetched_ahead {
  std::deque<fetched> line;
  std::vector<size_t>::const_iterator reach; /* up to where the window is fetched */
};

/* Fetches what is wanted of the window from `reach` on, several when few are left and as far as few enough bytes wait,
   and hands over what can be: in their order, for one that is handed over before its turn ends the process that
   reads. */
template <typename F>
void fetch_on(followed *a, const listing &l, fetched_ahead *ahead, F &&is_wanted) {
  constexpr size_t kBytes = 1u << 20;
  if (ahead->line.size() > kParserMostAhead / 2) return;
  size_t bytes = 0;
  for (const fetched &f : ahead->line) bytes += f.raw.size();
  for (; ahead->reach != l.window.end() && ahead->line.size() < kParserMostAhead && bytes < kBytes; ++ahead->reach) {
    if (!is_wanted(*ahead->reach)) continue;
    fetch(a, l.items[*ahead->reach], &ahead->line.emplace_back());
    bytes += ahead->line.back().raw.size();
  }
  for (const fetched &f : ahead->line)
    if (f.is_read && !parser_ahead(f.raw, mime_limits())) break;
}

/* As read_message(). */
int read_fetched(followed *a, fetched *f, mime_mail *mail) {
  if (!f->is_read) return 1;
  parser_result result = parser_read(f->raw, mime_limits(), mail, &f->error);
  if (result == PARSER_DONE) {
    f->source = a->settings.kind->source(a->settings.path, *f->item);
    f->cut = a->beginnings && rest_is_cut(f->source);
    if (f->cut) mail->body = rest_surely(mail->body);
    return 0;
  }
  if (result == PARSER_SET_ASIDE) return -1;
  if (result == PARSER_LATER) return 1;
  /* What is just being written is not broken yet; its end is an event of its own. */
  int64_t age = relay_now() - f->arrival;
  return age >= 0 && age < kBeingWritten ? 1 : -1;
}

/* Reads a message of the window and takes it along. Returns 0, or -1. */
int take(sender *s, fetched *f, relay_row *row, std::unordered_map<std::string, relay_row *> *holders) {
  followed *a = s->a;
  const mailbox_item &item = *f->item;
  mime_mail mail;
  int result = read_fetched(a, f, &mail);
  if (result < 0) set_aside(item.place, row, f->error);
  if (result > 0) a->unfinished = true;
  if (result != 0) return 0;
  row->identity = mail.message_uid;
  row->size = f->size;
  row->seen = item.seen;
  row->trouble.clear();
  row->dirty = true;
  if (!holders->emplace(row->identity, row).second) {
    row->state = copy;
    return 0;
  }
  auto there = a->unclaimed.find(row->identity);
  if (there != a->unclaimed.end()) {
    int mail_id = there->second;
    a->unclaimed.erase(there);
    return claim(a, *f, row, mail, mail_id);
  }
  s->next.reserve(s->most);
  s->next.push_back({row, prepare(a, *f, *row, mail), item.key});
  s->bytes += s->next.back().out.mail.body.size() + kMailOverhead;
  return s->next.size() < s->most && s->bytes < link_flow(a->r->link).bytes ? 0 : flush(s);
}

}  // namespace

int read_message(followed *a, const mailbox_item &item, mime_mail *mail, int64_t *size, std::string *error) {
  fetched f;
  fetch(a, item, &f);
  int result = read_fetched(a, &f, mail);
  *size = f.size;
  *error = f.error;
  return result;
}

std::vector<int64_t> read_arrivals(followed *a, const std::vector<const mailbox_item *> &items) {
  std::vector<std::string> read(items.size());
  std::vector<int64_t> file_times(items.size());
  std::vector<std::string_view> heads;
  for (size_t i = 0; i < items.size(); i++) {
    int64_t size = 0, time = 0;
    std::string error;
    if (a->settings.kind->read(a->settings.path, *items[i], kHead, &read[i], &time, &size, &error) == 0)
      file_times[i] = std::clamp<int64_t>(time, 1, INT32_MAX);
    else
      read[i].clear();
    heads.push_back(headers_of(read[i]));
  }
  std::vector<int64_t> arrivals = parser_arrivals(heads);
  /* Thousands of receivers may stand above the date. */
  for (size_t i = 0; i < items.size(); i++) {
    int64_t size = 0, time = 0;
    std::string error;
    if (arrivals[i] <= 0 && heads[i].size() == kHead &&
        a->settings.kind->read(a->settings.path, *items[i], kLongHead, &read[i], &time, &size, &error) == 0)
      arrivals[i] = parser_arrivals({headers_of(read[i])}).front();
  }
  /* A date in the future would stay on top for ever. */
  for (size_t i = 0; i < items.size(); i++)
    if (file_times[i] == 0 || arrivals[i] <= 0 || arrivals[i] > relay_now() + kSoon) arrivals[i] = file_times[i];
  return arrivals;
}

int send_window(followed *a, const listing &l) {
  std::unordered_map<std::string, relay_row *> holders;
  size_t missing = 0;
  for (size_t i : l.window) {
    relay_row &row = *l.rows[i];
    if (!row.identity.empty() && row.state != copy && row.state != waiting) holders.emplace(row.identity, &row);
    missing += row.state == waiting;
  }
  progress p = {a->r, a->settings.name + ": relaying", missing};
  sender s = {};
  s.a = a;
  int result = 0;
  const auto is_wanted = [&](size_t i) {
    const relay_row &row = *l.rows[i];
    return row.state == waiting || (row.state == copy && !holders.count(row.identity));
  };
  fetched_ahead ahead;
  for (auto at = l.window.begin(); at != l.window.end() && result == 0; ++at) {
    if (!is_wanted(*at)) continue;
    const mailbox_item *item = &l.items[*at];
    relay_row *row = l.rows[*at];
    row->state = waiting;
    if (ahead.line.empty() || ahead.line.front().item != item) { /* what was a copy is none any more, or is one now */
      parser_forget();
      ahead.line.clear();
      ahead.reach = at;
    }
    fetch_on(a, l, &ahead, is_wanted);
    result = take(&s, &ahead.line.front(), row, &holders);
    ahead.line.pop_front();
    if (result == 0) progress_advance(&p, 1);
  }
  parser_forget();
  if (result == 0) result = flush(&s);
  return land_all(&s, result);
}
