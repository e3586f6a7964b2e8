#include "relay.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>

#include "../mime.h"
#include "link.h"
#include "parser.h"
#include "post-mirror.h"
#include "reply.h"
#include "send.h"
#include "sql.h"

namespace {

enum row_state {
  ROW_WAITING = 0, /* not on the watch */
  ROW_SENDING = 1, /* handed to the service, whose answer is not on disk */
  ROW_RELAYED = 2,
  ROW_DELETED = 3, /* the user removed it from the watch; it stays in the mailbox */
  ROW_BROKEN = 4,  /* no mail at all */
  ROW_COPY = 5     /* the same message as another file of this mailbox */
};

struct relay_row {
  std::string identity; /* message_uid; empty until the message was read */
  int64_t size = 0, time = 0, row = 0;
  int mail_id = 0, state = ROW_WAITING;
  bool seen = false;      /* as mailbox and watch last agreed */
  bool want_seen = false; /* read on the watch, to be marked in the mailbox */
  bool fresh = false;     /* arrived while the mailbox was being followed */
  bool dirty = false;     /* differs from what is on disk */
};

struct relay;

struct followed {
  relay *r = nullptr;
  relay_account_settings settings;
  int account_id = 0;
  std::unordered_map<std::string, relay_row> rows; /* by key */
  std::unordered_map<std::string, int> unclaimed;  /* message_uid to mail id: on the watch, and not matched yet */
  bool known_before = false;                       /* there were rows when this run began */
  bool listed = false;                             /* the watch's list was matched since it connected */
  bool just_listed = false;                        /* ... and nothing was sent since */
  bool dirty = true;                               /* something may have changed in the mailbox */
  bool unfinished = false;                         /* a file is perhaps still being written */
  std::set<std::string> rewritten;                 /* files that were written to in place */
  std::string error;
  int64_t files = 0, relayed = 0, synced = 0;
  std::vector<sd_event_source *> watches;
};

struct relay {
  relay_settings settings;
  phone_state *state = nullptr;
  phone_link *link = nullptr;
  std::vector<std::unique_ptr<followed>> accounts;
  sd_event_source *sync_timer = nullptr, *sync_defer = nullptr, *outbox_timer = nullptr, *child = nullptr,
                  *wake = nullptr;
  std::set<int64_t> told; /* replies whose trouble was reported */
  bool bar = false;       /* standard error is a terminal */
  std::string last_status;
};

constexpr uint64_t kUnfinished = 6000000; /* microseconds; longer than a file counts as just being written */
constexpr uint64_t kSettle = 30000;       /* microseconds that changes are collected: one delivery is several events */
constexpr size_t kBatchMails = 200, kBatchBytes = 4u << 20, kHead = 16384;
constexpr int64_t kSoon = 24 * 3600;

int64_t now_seconds() {
  return static_cast<int64_t>(time(nullptr));
}

std::string relay_tag(const followed &a) {
  return "relay:" + a.settings.name;
}

std::string relay_wake_path() {
  return phone_state_path("wake");
}

/* --- state on disk ------------------------------------------------------------------------------------------- */

/* Writes the rows that changed and forgets `gone`, inside the caller's transaction. */
int write_rows(followed *a, const std::vector<std::string> &gone) {
  sqlite3 *db = phone_state_db(a->r->state);
  sql_query query(db,
                  "INSERT INTO relay_mail (account, file, identity, size, time, row, mail_id, state, seen, want_seen)"
                  " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (account, file) DO UPDATE SET"
                  " identity = excluded.identity, size = excluded.size, time = excluded.time, row = excluded.row,"
                  " mail_id = excluded.mail_id, state = excluded.state, seen = excluded.seen,"
                  " want_seen = excluded.want_seen");
  for (const auto &[key, row] : a->rows) {
    if (!row.dirty) continue;
    query.again();
    query.bind(1, a->settings.name).bind(2, key).bind(3, row.identity).bind(4, row.size).bind(5, row.time);
    query.bind(6, row.row).bind(7, row.mail_id).bind(8, row.state).bind(9, row.seen).bind(10, row.want_seen);
    if (query.step() != SQLITE_DONE) return -1;
  }
  query.finish();
  for (const std::string &key : gone) {
    sql_query forget(db, "DELETE FROM relay_mail WHERE account = ? AND file = ?");
    if (forget.bind(1, a->settings.name).bind(2, key).step() != SQLITE_DONE) return -1;
  }
  return 0;
}

/* Ends a transaction that began with phone_state_begin() and went well as far as `ok` says. Returns 0 when all of it is
   on disk, else -1 and none is. */
int finish_rows(followed *a, bool ok) {
  phone_state *state = a->r->state;
  if (ok && phone_state_commit(state) == 0) {
    for (auto &[key, row] : a->rows) row.dirty = false;
    return 0;
  }
  a->error = std::string("the phone's state cannot be written: ") + sqlite3_errmsg(phone_state_db(state));
  phone_state_rollback(state);
  return -1;
}

int save_rows(followed *a, const std::vector<std::string> &gone) {
  return finish_rows(a, phone_state_begin(a->r->state) == 0 && write_rows(a, gone) == 0);
}

int load_rows(followed *a) {
  sql_query query(phone_state_db(a->r->state),
                  "SELECT file, identity, size, time, row, mail_id, state, seen, want_seen FROM relay_mail"
                  " WHERE account = ?");
  query.bind(1, a->settings.name);
  int result;
  while ((result = query.step()) == SQLITE_ROW) {
    relay_row row;
    row.identity = query.text(1);
    row.size = query.integer(2);
    row.time = query.integer(3);
    row.row = query.integer(4);
    row.mail_id = static_cast<int>(query.integer(5));
    row.state = static_cast<int>(query.integer(6));
    row.seen = query.integer(7) != 0;
    row.want_seen = query.integer(8) != 0;
    a->rows.emplace(query.text(0), std::move(row));
  }
  a->known_before = !a->rows.empty();
  return result == SQLITE_DONE ? 0 : -1;
}

/* Takes over what a request changed on disk. */
void reload_row(followed *a, int mail_id) {
  for (auto &[key, row] : a->rows) {
    if (row.mail_id != mail_id) continue;
    sql_query query(phone_state_db(a->r->state),
                    "SELECT mail_id, state, want_seen FROM relay_mail WHERE account = ? AND file = ?");
    if (query.bind(1, a->settings.name).bind(2, key).step() != SQLITE_ROW) continue;
    row.mail_id = static_cast<int>(query.integer(0));
    row.state = static_cast<int>(query.integer(1));
    row.want_seen = query.integer(2) != 0;
  }
}

int set_status(phone_state *state, const char *key, const std::string &value) {
  sql_query query(phone_state_db(state), "INSERT OR REPLACE INTO relay_status (key, value) VALUES (?, ?)");
  return query.bind(1, std::string(key)).bind(2, value).step() == SQLITE_DONE ? 0 : -1;
}

void write_status(relay *r) {
  nlohmann::ordered_json accounts = nlohmann::ordered_json::array();
  for (const auto &a : r->accounts)
    accounts.push_back({{"name", a->settings.name},
                        {"path", a->settings.path},
                        {"address", a->settings.address},
                        {"account_id", a->account_id},
                        {"messages", a->files},
                        {"on_watch", a->relayed},
                        {"last_sync", a->synced},
                        {"error", a->error}});
  std::string text = accounts.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  if (text == r->last_status) return;
  r->last_status = text;
  if (set_status(r->state, "accounts", text) < 0) link_log("the status cannot be written");
}

/* --- progress -------------------------------------------------------------------------------------------------- */

struct progress {
  relay *r;
  std::string what;
  size_t total, done = 0, told = 0;
};

void advance(progress *p, size_t count) {
  constexpr size_t kWorthTelling = 50, kWidth = 30;
  p->done += count;
  if (p->total < kWorthTelling) return;
  size_t percent = p->done * 100 / p->total;
  if (p->r->bar) {
    size_t filled = p->done * kWidth / p->total;
    fprintf(stderr, "\r%s [%s%s] %zu/%zu", p->what.c_str(), std::string(filled, '#').c_str(),
            std::string(kWidth - filled, '.').c_str(), p->done, p->total);
    if (p->done >= p->total) fputc('\n', stderr);
  } else if (percent >= p->told + 10 || p->done >= p->total) {
    p->told = percent;
    link_log(p->what + ": " + std::to_string(p->done) + " of " + std::to_string(p->total));
  }
}

/* --- reading messages ------------------------------------------------------------------------------------------ */

/* When a message arrived: as the last mail server on its way wrote, else when it says it was written, else as its file
   says. A date in the future would stay on top for ever. */
int64_t arrival_time(std::string_view head, int64_t file_time) {
  int64_t latest = now_seconds() + kSoon;
  int64_t arrival = parser_arrival(head);
  if (arrival > 0 && arrival <= latest) return arrival;
  return std::clamp<int64_t>(file_time, 1, INT32_MAX);
}

int read_mail(followed *a, const mailbox_item &item, mime_mail *mail, int64_t *size, std::string *error) {
  std::string raw;
  int64_t arrival = 0;
  mime_limits limits;
  if (a->settings.kind->read(a->settings.path, item, limits.message, &raw, &arrival, size, error) < 0) return 1;
  parser_result result = parser_read(raw, limits, mail, error);
  if (result == PARSER_DONE) return 0;
  if (result == PARSER_SET_ASIDE) return -1;
  if (result == PARSER_LATER) return 1;
  /* What is just being written is not broken yet; its end is an event of its own. */
  return now_seconds() - arrival < 5 ? 1 : -1;
}

/* --- one account ------------------------------------------------------------------------------------------------ */

struct listing {
  std::vector<mailbox_item> items;
  std::unordered_map<std::string, size_t> by_key;
  std::vector<size_t> window; /* the newest ones, newest first */
};

/* Deletes from the watch; what is gone there already is no error. Returns 0, or -1 when the service is away. */
int delete_from_watch(relay *r, const std::vector<int> &ids, std::string *error) {
  if (ids.empty()) return 0;
  int result = host_delete_mails(link_bus(r->link), ids, error);
  if (result == HOST_REFUSED)
    for (int id : ids) {
      result = host_delete_mails(link_bus(r->link), {id}, error);
      if (result < HOST_REFUSED) break;
    }
  return result < HOST_REFUSED ? -1 : 0;
}

void add_new_rows(followed *a, const listing &l) {
  progress p = {a->r, a->settings.name + ": looking at new messages", 0};
  for (const mailbox_item &item : l.items) p.total += a->rows.find(item.key) == a->rows.end();
  if (p.total == 0) return;
  for (const mailbox_item &item : l.items) {
    if (a->rows.find(item.key) != a->rows.end()) continue;
    std::string head, error;
    int64_t file_time = 0, size = 0;
    if (a->settings.kind->read(a->settings.path, item, kHead, &head, &file_time, &size, &error) == 0) {
      relay_row row;
      row.time = arrival_time(head, file_time);
      row.fresh = a->known_before || item.arrived;
      row.seen = item.seen;
      row.dirty = true;
      a->rows.emplace(item.key, std::move(row));
    }
    advance(&p, 1);
  }
}

void choose_window(followed *a, listing *l) {
  std::vector<size_t> order;
  for (size_t i = 0; i < l->items.size(); i++)
    if (a->rows.count(l->items[i].key)) order.push_back(i);
  int64_t newest = a->settings.newest >= 0 ? a->settings.newest : a->r->settings.newest;
  auto count = static_cast<size_t>(std::min<int64_t>(newest, static_cast<int64_t>(order.size())));
  std::vector<int64_t> time(l->items.size());
  for (size_t i : order) time[i] = a->rows[l->items[i].key].time;
  auto later = [&](size_t x, size_t y) {
    const mailbox_item &p = l->items[x], &q = l->items[y];
    if (time[x] != time[y]) return time[x] > time[y];
    return p.order != q.order ? p.order > q.order : p.key > q.key;
  };
  std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(count), order.end(), later);
  order.resize(count);
  l->window = std::move(order);
}

/* A message that was written to in place is another message: its old form leaves the watch. */
void forget_rewritten(followed *a, const listing &l, std::vector<int> *to_delete) {
  for (const std::string &key : a->rewritten) {
    auto found = a->rows.find(key);
    auto listed = l.by_key.find(key);
    if (found == a->rows.end() || listed == l.by_key.end() || found->second.state == ROW_DELETED) continue;
    relay_row *row = &found->second;
    std::string nothing, error;
    int64_t time = 0, size = 0;
    if (a->settings.kind->read(a->settings.path, l.items[listed->second], 0, &nothing, &time, &size, &error) < 0 ||
        (size == row->size && row->state != ROW_BROKEN))
      continue; /* it was closed by its writer after it had been read in full */
    if (row->state == ROW_RELAYED) to_delete->push_back(row->mail_id);
    row->identity.clear();
    row->state = ROW_WAITING;
    row->mail_id = 0;
    row->dirty = true;
  }
  a->rewritten.clear();
}

/* What left the mailbox or the window leaves the watch, unless the same message stands elsewhere in the mailbox. */
void collect_leaving(followed *a, const listing &l, std::vector<int> *to_delete, std::vector<std::string> *gone) {
  std::set<std::string> inside;
  for (size_t i : l.window) inside.insert(l.items[i].key);
  std::unordered_map<std::string, relay_row *> heirs;
  for (size_t i : l.window) {
    relay_row &row = a->rows[l.items[i].key];
    if (!row.identity.empty() && (row.state == ROW_WAITING || row.state == ROW_COPY)) heirs.emplace(row.identity, &row);
  }
  for (auto &[key, row] : a->rows) {
    bool here = l.by_key.count(key) > 0;
    if (here && inside.count(key)) continue;
    bool holds = row.state == ROW_RELAYED || row.state == ROW_DELETED || row.state == ROW_SENDING;
    auto heir = holds ? heirs.find(row.identity) : heirs.end();
    if (heir != heirs.end()) {
      relay_row *to = heir->second;
      to->state = row.state;
      to->mail_id = row.mail_id;
      to->row = row.row;
      to->want_seen = to->want_seen || row.want_seen;
      to->seen = row.seen;
      to->dirty = true;
      heirs.erase(heir);
    } else if (row.state == ROW_RELAYED) {
      to_delete->push_back(row.mail_id);
    }
    if (!here) {
      gone->push_back(key);
    } else if (row.state == ROW_RELAYED || row.state == ROW_SENDING) {
      row.state = ROW_WAITING;
      row.mail_id = 0;
      row.dirty = true;
    } else if (heir != heirs.end()) {
      row.state = ROW_COPY;
      row.dirty = true;
    }
  }
}

/* Brings the read marks together: what changed on one side since both agreed goes to the other. Returns 0, or -1 when
   the service is away. */
int exchange_seen(followed *a, const listing &l) {
  for (const mailbox_item &item : l.items) {
    auto found = a->rows.find(item.key);
    if (found == a->rows.end()) continue;
    relay_row *row = &found->second;
    std::string error;
    if (row->want_seen) {
      int done =
          item.seen || !a->settings.kind->set_seen ? 0 : a->settings.kind->set_seen(a->settings.path, item, &error);
      if (done < 0) {
        a->error = error; /* tried again at the next change */
        continue;
      }
      row->want_seen = false;
      row->seen = true;
      row->dirty = true;
      continue;
    }
    if (row->state != ROW_RELAYED || row->seen == item.seen) continue;
    /* A kind that is only read cannot say that what was read on the watch is unread. */
    if (!item.seen && !a->settings.kind->set_seen) continue;
    mail_change change;
    change.is_read = item.seen;
    if (item.seen) change.is_new = 0;
    if (host_update_mail(link_bus(a->r->link), row->mail_id, change, &error) < HOST_REFUSED) return -1;
    row->seen = item.seen;
    row->dirty = true;
  }
  return 0;
}

struct pending {
  relay_row *row;
  outgoing out;
};

/* Sends one batch: what is to happen is on disk before it does. Returns 0, or -1 (the service is away, or refused). */
int relay_batch(followed *a, std::vector<pending> *batch) {
  phone_state *state = a->r->state;
  if (batch->empty()) return 0;
  bool kept = phone_state_begin(state) == 0;
  for (pending &p : *batch) {
    if (kept) kept = phone_state_add_mail(state, &p.out.kept) == 0;
    p.row->row = p.out.kept.row;
    p.row->state = ROW_SENDING;
    p.row->dirty = true;
  }
  if (finish_rows(a, kept && write_rows(a, {}) == 0) < 0) {
    for (pending &p : *batch) p.row->state = ROW_WAITING;
    return -1;
  }
  std::vector<watch_mail> mails;
  for (pending &p : *batch) mails.push_back(std::move(p.out.mail));
  std::vector<int> ids;
  std::string error;
  int result = host_add_mails(link_bus(a->r->link), mails, &ids, &error);
  if (result != HOST_OK) {
    a->error = error;
    if (result == HOST_REFUSED) { /* for certain: nothing was stored */
      for (pending &p : *batch) {
        p.row->state = ROW_WAITING;
        p.row->dirty = true;
      }
      save_rows(a, {});
      /* Somebody may have removed the account from the watch. One look at the list, not a look after every refusal. */
      if (!a->just_listed) a->listed = false;
    } else {
      a->listed = false; /* whether it was is found out from the watch's list */
    }
    return -1;
  }
  a->just_listed = false;
  bool noted = phone_state_begin(state) == 0;
  for (size_t i = 0; i < batch->size(); i++) {
    relay_row *row = (*batch)[i].row;
    row->mail_id = ids[i];
    row->state = ROW_RELAYED;
    row->dirty = true;
    if (noted) noted = phone_state_set_mail_id(state, row->row, ids[i]) == 0;
  }
  batch->clear();
  return finish_rows(a, noted && write_rows(a, {}) == 0);
}

outgoing prepare(followed *a, const mailbox_item &item, const relay_row &row, const mime_mail &mail) {
  send_options options;
  options.account_id = a->account_id;
  options.first = a->settings.first >= 0 ? a->settings.first : a->r->settings.first;
  options.received = row.time;
  options.is_read = item.seen;
  options.is_new = row.fresh && !item.seen;
  outgoing out = make_outgoing(mail, options, a->settings.kind->source(a->settings.path, item), true, item.seen);
  out.mail.host_tag = relay_tag(*a);
  return out;
}

/* Reads the window's messages that were not read yet and brings to the watch what it lacks. Returns 0, or -1. */
int relay_window(followed *a, const listing &l) {
  std::unordered_map<std::string, relay_row *> holders;
  size_t missing = 0;
  for (size_t i : l.window) {
    relay_row &row = a->rows[l.items[i].key];
    if (!row.identity.empty() && row.state != ROW_COPY && row.state != ROW_WAITING) holders.emplace(row.identity, &row);
    missing += row.state == ROW_WAITING;
  }
  progress p = {a->r, a->settings.name + ": relaying", missing};
  std::vector<pending> batch;
  size_t bytes = 0;
  /* Oldest first, so that what a cut leaves out is what belongs on top and comes next. */
  for (auto at = l.window.rbegin(); at != l.window.rend(); ++at) {
    const mailbox_item &item = l.items[*at];
    relay_row *row = &a->rows[item.key];
    if (row->state == ROW_COPY && !holders.count(row->identity)) row->state = ROW_WAITING;
    if (row->state != ROW_WAITING) continue;
    mime_mail mail;
    std::string error;
    int64_t size = 0;
    int result = read_mail(a, item, &mail, &size, &error);
    advance(&p, 1);
    if (result != 0) {
      if (result < 0) {
        link_log(item.place + ": " + error + "; it is left out");
        row->state = ROW_BROKEN;
        row->dirty = true;
      } else {
        a->unfinished = true;
      }
      continue;
    }
    row->identity = mail.message_uid;
    row->size = size;
    row->seen = item.seen;
    row->dirty = true;
    if (!holders.emplace(row->identity, row).second) {
      row->state = ROW_COPY;
      continue;
    }
    auto there = a->unclaimed.find(row->identity);
    if (there != a->unclaimed.end()) {
      /* The watch has it already: from a run whose memory is lost, or that ended before it could note this. */
      row->state = ROW_RELAYED;
      row->mail_id = there->second;
      a->unclaimed.erase(there);
      sent_mail kept = prepare(a, item, *row, mail).kept;
      if (phone_state_add_mail(a->r->state, &kept) < 0 ||
          phone_state_set_mail_id(a->r->state, kept.row, row->mail_id) < 0)
        link_log(phone_state_error(a->r->state));
      row->row = kept.row;
      continue;
    }
    batch.push_back({row, prepare(a, item, *row, mail)});
    bytes += batch.back().out.mail.body.size() + 1024;
    if (batch.size() < kBatchMails && bytes < kBatchBytes) continue;
    if (relay_batch(a, &batch) < 0) return -1;
    bytes = 0;
  }
  return relay_batch(a, &batch);
}

/* Mails of this relay on the watch that no message stands behind any more. */
int remove_leftovers(followed *a) {
  std::vector<int> ids;
  for (const auto &[uid, id] : a->unclaimed) ids.push_back(id);
  a->unclaimed.clear();
  std::string error;
  if (delete_from_watch(a->r, ids, &error) == 0) return 0;
  a->error = error;
  return -1;
}

int list_mailbox(followed *a, listing *l) {
  std::string error;
  for (int look = 0; look < 2; look++) {
    l->items.clear();
    l->by_key.clear();
    if (a->settings.kind->list(a->settings.path, &l->items, &error) < 0) {
      if (a->error != error) link_log(a->settings.name + ": " + error);
      a->error = error;
      return -1;
    }
    for (size_t i = 0; i < l->items.size(); i++) l->by_key.emplace(l->items[i].key, i);
    /* A file that is being renamed can be missed by a reader of its folder: what seems gone is looked for again. */
    bool all = true;
    for (const auto &[key, row] : a->rows)
      if (!l->by_key.count(key)) all = false;
    if (all) break;
  }
  return 0;
}

/* Makes watch and mailbox equal. Returns 0, or -1 (it is done again after the next change or connection). */
int sync_account(followed *a) {
  listing l;
  a->error.clear();
  if (list_mailbox(a, &l) < 0) return -1;
  a->files = static_cast<int64_t>(l.items.size());
  std::vector<int> to_delete;
  std::vector<std::string> gone;
  std::string error;
  add_new_rows(a, l);
  forget_rewritten(a, l, &to_delete);
  choose_window(a, &l);
  /* Messages under new names are read first, so that a renamed one is not taken for one gone and one come. */
  bool leaving = false;
  for (const auto &[key, row] : a->rows) leaving = leaving || (!l.by_key.count(key) && row.state != ROW_WAITING);
  for (size_t i : l.window) {
    relay_row *row = &a->rows[l.items[i].key];
    mime_mail mail;
    if (leaving && row->state == ROW_WAITING && row->identity.empty() &&
        read_mail(a, l.items[i], &mail, &row->size, &error) == 0) {
      row->identity = mail.message_uid;
      row->dirty = true;
    }
  }
  collect_leaving(a, l, &to_delete, &gone);
  int result = delete_from_watch(a->r, to_delete, &error);
  if (result < 0) a->error = error;
  if (result == 0) {
    for (const std::string &key : gone) a->rows.erase(key);
    result = save_rows(a, gone);
  }
  if (result == 0 && phone_state_drop_mails(a->r->state, to_delete) < 0) link_log(phone_state_error(a->r->state));
  if (result == 0) result = exchange_seen(a, l);
  if (result == 0) result = relay_window(a, l);
  if (save_rows(a, {}) < 0) result = -1;
  if (result == 0) result = remove_leftovers(a);
  a->known_before = true;
  a->relayed = std::count_if(a->rows.begin(), a->rows.end(),
                             [](const auto &entry) { return entry.second.state == ROW_RELAYED; });
  if (result == 0) a->synced = now_seconds();
  if (!a->error.empty()) link_log(a->settings.name + ": " + a->error);
  return result;
}

/* --- the watch's side ------------------------------------------------------------------------------------------- */

int ensure_account(followed *a, const std::vector<host_record> &accounts, std::string *error) {
  std::string label = a->settings.address.empty() ? a->settings.name : a->settings.address;
  phone_state *state = a->r->state;
  int64_t stored = 0;
  sql_query query(phone_state_db(state), "SELECT account_id FROM relay_account WHERE name = ?");
  if (query.bind(1, a->settings.name).step() == SQLITE_ROW) stored = query.integer(0);
  query.finish();
  a->account_id = 0;
  for (const host_record &account : accounts)
    if (account.text("email_address") == label && (a->account_id == 0 || account.number("account_id") == stored))
      a->account_id = static_cast<int>(account.number("account_id"));
  if (a->account_id == 0) {
    uint32_t rgba = 0;
    if (!a->settings.color.empty()) parse_color(a->settings.color, &rgba);
    std::string name = a->settings.display_name.empty() ? a->settings.name : a->settings.display_name;
    a->account_id = host_add_account(link_bus(a->r->link), 0, label, name, rgba, error);
    if (a->account_id < 0) return -1;
  }
  sql_query save(phone_state_db(state),
                 "INSERT OR REPLACE INTO relay_account (name, account_id, address, display_name) VALUES (?, ?, ?, ?)");
  save.bind(1, a->settings.name).bind(2, a->account_id).bind(3, a->settings.address);
  if (save.bind(4, a->settings.display_name).step() == SQLITE_DONE) return 0;
  *error = sqlite3_errmsg(phone_state_db(state));
  return -1;
}

bool has_unknown_deletions(phone_state *state) {
  sql_query query(phone_state_db(state), "SELECT value FROM relay_status WHERE key = 'unknown-deletions'");
  return query.step() == SQLITE_ROW && query.text(0) != "0";
}

/* Settles what the last run or connection left open, from what the watch lists. */
void match_account(followed *a, const std::vector<host_record> &mails) {
  std::unordered_map<std::string, int> by_uid;
  a->unclaimed.clear();
  std::string tag = relay_tag(*a);
  for (const host_record &mail : mails) {
    if (mail.number("account_id") != a->account_id) continue;
    int id = static_cast<int>(mail.number("mail_id"));
    if (mail.text("host_tag") == tag) by_uid[mail.text("message_uid")] = id;
  }
  /* What other commands removed from the watch meanwhile stays removed. */
  sql_query removed(phone_state_db(a->r->state), "SELECT file FROM relay_mail WHERE account = ? AND state = 3");
  removed.bind(1, a->settings.name);
  while (removed.step() == SQLITE_ROW) {
    auto found = a->rows.find(removed.text(0));
    if (found == a->rows.end()) continue;
    found->second.state = ROW_DELETED;
    found->second.mail_id = 0;
  }
  removed.finish();
  bool batch_arrived = has_unknown_deletions(a->r->state);
  for (const auto &[key, row] : a->rows)
    if (row.state == ROW_SENDING && by_uid.count(row.identity)) batch_arrived = true;
  for (auto &[key, row] : a->rows) {
    if (row.state != ROW_SENDING && row.state != ROW_RELAYED) continue;
    auto found = by_uid.find(row.identity);
    if (found != by_uid.end()) {
      if (row.state == ROW_SENDING || row.mail_id != found->second) {
        row.dirty = true;
        if (phone_state_set_mail_id(a->r->state, row.row, found->second) < 0) link_log(phone_state_error(a->r->state));
      }
      row.state = ROW_RELAYED;
      row.mail_id = found->second;
      by_uid.erase(found);
      continue;
    }
    row.dirty = true;
    /* A batch is stored as a whole. When part of it is there, or when the watch deleted mails that nobody here knows
       by number, it was stored, and what is missing of it was deleted by the user. A mail whose number was known is
       marked at its deletion: when one is missing all the same, the watch's store is a new one. */
    row.state = row.state == ROW_SENDING && batch_arrived ? ROW_DELETED : ROW_WAITING;
    row.mail_id = 0;
  }
  a->unclaimed = std::move(by_uid);
  a->listed = a->just_listed = true;
}

int match_all(relay *r) {
  std::vector<host_record> accounts, mails;
  std::string error;
  int result = host_list_accounts(link_bus(r->link), &accounts, &error);
  for (auto &a : r->accounts)
    if (result == 0) result = ensure_account(a.get(), accounts, &error);
  if (result == 0) result = host_list_mails(link_bus(r->link), &mails, &error);
  if (result < 0) {
    link_log(error);
    return -1;
  }
  for (auto &a : r->accounts) {
    match_account(a.get(), mails);
    if (save_rows(a.get(), {}) < 0) return -1;
  }
  if (set_status(r->state, "unknown-deletions", "0") < 0) return -1;
  return 0;
}

void sync_in(relay *r, uint64_t delay) {
  int enabled = SD_EVENT_OFF;
  uint64_t now = 0, set = 0;
  sd_event_source_get_enabled(r->sync_timer, &enabled);
  sd_event_source_get_time(r->sync_timer, &set);
  sd_event_now(link_event(r->link), CLOCK_MONOTONIC, &now);
  if (enabled != SD_EVENT_OFF && set <= now + delay) return;
  sd_event_source_set_time(r->sync_timer, now + delay);
  sd_event_source_set_enabled(r->sync_timer, SD_EVENT_ONESHOT);
}

void sync_all(relay *r) {
  if (!link_is_connected(r->link)) return;
  bool all_listed = true;
  for (auto &a : r->accounts) all_listed = all_listed && a->listed;
  if (!all_listed) {
    if (match_all(r) < 0) return;
    for (auto &a : r->accounts) a->dirty = true;
  }
  for (auto &a : r->accounts) {
    if (!a->dirty) continue;
    a->dirty = a->unfinished = false;
    sync_account(a.get());
    if (a->unfinished) { /* one more look, when it is either whole or broken */
      a->dirty = true;
      sync_in(r, kUnfinished);
    }
  }
  write_status(r);
  for (auto &a : r->accounts)
    if (!a->listed && link_is_connected(r->link)) sd_event_source_set_enabled(r->sync_defer, SD_EVENT_ONESHOT);
}

int sync_defer_cb(sd_event_source *source, void *user_data) {
  sync_all(static_cast<relay *>(user_data));
  return 0;
}

int sync_timer_cb(sd_event_source *source, uint64_t usec, void *user_data) {
  sync_all(static_cast<relay *>(user_data));
  return 0;
}

void sync_soon(relay *r) {
  sync_in(r, kSettle);
}

int changed_cb(sd_event_source *source, const inotify_event *event, void *user_data) {
  auto *a = static_cast<followed *>(user_data);
  std::string name = event->len > 0 ? event->name : "";
  if (event->mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
    /* Nothing would ever be heard of it again; whoever runs the relay starts it anew. Its mails stay on the watch. */
    link_fail(a->r->link, a->settings.name + ": its mailbox is gone: " + a->settings.path);
    return 0;
  }
  if (a->settings.kind == &mbox_kind) {
    /* Its folder is watched: other files in it mean nothing. */
    if (name != a->settings.path.substr(a->settings.path.rfind('/') + 1) && !(event->mask & IN_Q_OVERFLOW)) return 0;
  } else if (event->mask & IN_CLOSE_WRITE) {
    size_t colon = name.rfind(":2,");
    a->rewritten.insert(colon == std::string::npos ? name : name.substr(0, colon));
  }
  a->dirty = true;
  sync_soon(a->r);
  return 0;
}

/* --- the outbox -------------------------------------------------------------------------------------------------- */

void outbox_next(relay *r);

int delivered_cb(sd_event_source *source, const siginfo_t *info, void *user_data) {
  auto *r = static_cast<relay *>(user_data);
  r->child = sd_event_source_unref(r->child);
  outbox_next(r);
  return 0;
}

int outbox_timer_cb(sd_event_source *source, uint64_t usec, void *user_data) {
  outbox_next(static_cast<relay *>(user_data));
  return 0;
}

/* Starts what is due, one at a time, and sleeps until the next is. */
void outbox_next(relay *r) {
  if (r->child) return;
  std::vector<outbox_entry> entries;
  if (outbox_list(r->state, &entries) < 0) {
    link_log("the replies that wait cannot be read");
    return;
  }
  int64_t now = now_seconds(), next = 0;
  for (const outbox_entry &entry : entries) {
    if (entry.state == OUTBOX_SENT) continue;
    if (entry.state == OUTBOX_HELD) {
      if (r->told.insert(entry.id).second)
        link_log("reply " + std::to_string(entry.id) + " cannot be sent: " + entry.error +
                 " (brisel-phone relay drop " + std::to_string(entry.id) + " forgets it)");
      continue;
    }
    if (entry.state == OUTBOX_SENDING || entry.next_time <= now) {
      std::string error;
      pid_t pid = outbox_spawn(entry.id, r->settings.outbox, &error);
      if (pid > 0 && sd_event_add_child(link_event(r->link), &r->child, pid, WEXITED, delivered_cb, r) >= 0) return;
      link_log(pid > 0 ? "a reply's process cannot be followed" : error);
      next = now + 60;
      continue;
    }
    next = next == 0 ? entry.next_time : std::min(next, entry.next_time);
  }
  if (next == 0) {
    sd_event_source_set_enabled(r->outbox_timer, SD_EVENT_OFF);
    return;
  }
  /* By the clock on the wall: a machine that slept through the time sends when it wakes. */
  sd_event_source_set_time(r->outbox_timer, static_cast<uint64_t>(next) * 1000000);
  sd_event_source_set_enabled(r->outbox_timer, SD_EVENT_ONESHOT);
}

int wake_cb(sd_event_source *source, const inotify_event *event, void *user_data) {
  outbox_next(static_cast<relay *>(user_data));
  return 0;
}

/* --- requests ----------------------------------------------------------------------------------------------------- */

void connected_cb(phone_link *link, void *user_data) {
  auto *r = static_cast<relay *>(user_data);
  for (auto &a : r->accounts) a->listed = false;
  /* After the requests that waited: they come first in the loop. */
  if (r->sync_defer) sd_event_source_set_enabled(r->sync_defer, SD_EVENT_ONESHOT);
}

int keep_cb(phone_link *link, const nlohmann::json &request, void *user_data) {
  return relay_keep_request(static_cast<relay *>(user_data)->state, request);
}

void kept_cb(phone_link *link, const nlohmann::json &request, const std::string &line, void *user_data) {
  auto *r = static_cast<relay *>(user_data);
  std::string kind = request.is_object() ? request.value("request", std::string()) : "";
  if ((kind == "delete_notis" || kind == "update_ind") && request.contains("id_list")) {
    for (const auto &id : request["id_list"])
      for (auto &a : r->accounts) reload_row(a.get(), id.get<int>());
    for (auto &a : r->accounts) a->dirty = true;
    sync_soon(r);
  }
  if (kind == "reply") outbox_next(r);
}

int keep_deleted(phone_state *state, int mail_id) {
  sqlite3 *db = phone_state_db(state);
  sql_query mark(db, "UPDATE relay_mail SET state = 3, mail_id = 0 WHERE mail_id = ?");
  if (mark.bind(1, mail_id).step() != SQLITE_DONE) return -1;
  bool known = sqlite3_changes(db) > 0;
  sql_query drop(db, "DELETE FROM mail WHERE mail_id = ?");
  if (drop.bind(1, mail_id).step() != SQLITE_DONE) return -1;
  if (known || sqlite3_changes(db) > 0) return 0;
  sql_query sending(db, "SELECT 1 FROM relay_mail WHERE state = 1 LIMIT 1");
  return sending.step() == SQLITE_ROW ? set_status(state, "unknown-deletions", "1") : 0;
}

int keep_seen(phone_state *state, int mail_id) {
  sql_query mark(phone_state_db(state), "UPDATE relay_mail SET want_seen = 1 WHERE mail_id = ?");
  return mark.bind(1, mail_id).step() == SQLITE_DONE ? 0 : -1;
}

int keep_reply(phone_state *state, const nlohmann::json &request) {
  std::string tag = request.value("host_tag", std::string());
  if (tag.rfind("relay:", 0) != 0) return 0; /* a mail that was only sent by hand has nobody to answer for it */
  reply_parts parts;
  int account_id = 0;
  sql_query account(phone_state_db(state),
                    "SELECT account_id, address, display_name FROM relay_account WHERE name = ?");
  if (account.bind(1, tag.substr(6)).step() == SQLITE_ROW) {
    account_id = static_cast<int>(account.integer(0));
    parts.from_address = account.text(1);
    parts.from_name = account.text(2);
  }
  parts.recipient = request.value("recipient", std::string());
  parts.subject = request.value("subject", std::string());
  parts.text = request.value("text", std::string());
  sent_mail mail;
  if (phone_state_find_mail(state, request.value("mail_id", 0), request.value("message_uid", std::string()), &mail) >
      0) {
    parts.reply_to = mail.reply_to;
    parts.message_id = mail.message_id;
    parts.references = mail.references;
  }
  std::string message, to, error;
  if (reply_compose(parts, &message, &to, &error) < 0) message = parts.text; /* kept for the user, not sent */
  return outbox_add(state, account_id, to, reply_subject(parts.subject), message, error);
}

/* --- start -------------------------------------------------------------------------------------------------------- */

/* When a folder above the mailbox gets another name, no event comes from the mailbox itself, and what is delivered
   under the old name is never heard of. Watched for nothing but that; a folder that may not be watched is not. */
void watch_folders_above(followed *a) {
  std::string path = a->settings.path + "/";
  while (path.size() > 1) {
    path.resize(std::max<size_t>(path.rfind('/'), 1));
    sd_event_source *source = nullptr;
    if (sd_event_add_inotify(link_event(a->r->link), &source, path.c_str(), IN_MOVE_SELF | IN_DELETE_SELF | IN_ONLYDIR,
                             changed_cb, a) >= 0)
      a->watches.push_back(source);
  }
}

int watch_folders(followed *a, std::string *error) {
  watch_folders_above(a);
  for (const std::string &folder : a->settings.kind->watched(a->settings.path)) {
    sd_event_source *source = nullptr;
    int r = sd_event_add_inotify(link_event(a->r->link), &source, folder.c_str(),
                                 IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CLOSE_WRITE | IN_DELETE_SELF |
                                     IN_MOVE_SELF | IN_ONLYDIR,
                                 changed_cb, a);
    if (r < 0) {
      *error = folder + ": cannot be watched: " + strerror(-r);
      return -1;
    }
    a->watches.push_back(source);
  }
  return 0;
}

int add_event_sources(relay *r, std::string *error) {
  sd_event *event = link_event(r->link);
  int result = sd_event_add_defer(event, &r->sync_defer, sync_defer_cb, r);
  if (result >= 0) result = sd_event_source_set_priority(r->sync_defer, SD_EVENT_PRIORITY_IDLE);
  if (result >= 0) result = sd_event_add_time(event, &r->sync_timer, CLOCK_MONOTONIC, UINT64_MAX, 1, sync_timer_cb, r);
  if (result >= 0) result = sd_event_source_set_priority(r->sync_timer, SD_EVENT_PRIORITY_IDLE);
  if (result >= 0) result = sd_event_source_set_enabled(r->sync_timer, SD_EVENT_OFF);
  if (result >= 0)
    result = sd_event_add_time(event, &r->outbox_timer, CLOCK_REALTIME, UINT64_MAX, 0, outbox_timer_cb, r);
  if (result >= 0) result = sd_event_source_set_enabled(r->outbox_timer, SD_EVENT_OFF);
  if (result >= 0) {
    int fd = open(relay_wake_path().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) close(fd);
    result = sd_event_add_inotify(event, &r->wake, relay_wake_path().c_str(), IN_CLOSE_WRITE, wake_cb, r);
  }
  if (result < 0) *error = std::string("the event loop cannot be set up: ") + strerror(-result);
  return result < 0 ? -1 : 0;
}

int take_lock(std::string *error) {
  int fd = open(phone_state_path("relay.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  /* A relay that was killed while it started a process leaves the lock to that process until it runs. */
  for (int tries = 0; fd >= 0; tries++) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) return fd;
    if (errno != EWOULDBLOCK || tries >= 20) break;
    usleep(50000);
  }
  *error = fd >= 0 && errno == EWOULDBLOCK ? "a relay is running already"
                                           : std::string("the relay's lock cannot be had: ") + strerror(errno);
  if (fd >= 0) close(fd);
  return -1;
}

bool relay_is_running() {
  int fd = open(phone_state_path("relay.lock").c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return false;
  bool running = flock(fd, LOCK_EX | LOCK_NB) < 0;
  close(fd);
  return running;
}

int start(relay *r, const link_handlers *handlers, std::string *error) {
  for (const relay_account_settings &settings : r->settings.accounts) {
    auto a = std::make_unique<followed>();
    a->r = r;
    a->settings = settings;
    if (settings.path.empty()) {
      *error = settings.name + ": it has no mailbox";
      return -1;
    }
    if (settings.kind->check(settings.path, error) < 0) return -1;
    if (settings.address.empty())
      link_log(settings.name + ": no address is known; replies go out under the mail system's own (see --address)");
    if (load_rows(a.get()) < 0) {
      *error = "the phone's state cannot be read";
      return -1;
    }
    r->accounts.push_back(std::move(a));
  }
  if (r->accounts.empty()) {
    *error = "no mailbox is given: --maildir NAME=DIR, --mbox NAME=FILE or --config FILE";
    return -1;
  }
  r->link = link_open(r->state, handlers, r, error);
  if (!r->link || add_event_sources(r, error) < 0) return -1;
  for (auto &a : r->accounts)
    if (watch_folders(a.get(), error) < 0) return -1;
  set_status(r->state, "pid", std::to_string(getpid()));
  set_status(r->state, "started", std::to_string(now_seconds()));
  /* The link may have connected before the sources were there; the first look is due in any case. */
  sd_event_source_set_enabled(r->sync_defer, SD_EVENT_ONESHOT);
  outbox_next(r);
  return 0;
}

}  // namespace

int relay_forget_mails(phone_state *state, const std::vector<int> &mail_ids) {
  for (int id : mail_ids)
    if (keep_deleted(state, id) < 0) return -1;
  return 0;
}

int relay_keep_request(phone_state *state, const nlohmann::json &request) {
  std::string kind = request.value("request", std::string());
  if (kind == "reply") return keep_reply(state, request);
  if ((kind != "delete_notis" && kind != "update_ind") || !request.contains("id_list")) return 0;
  for (const auto &id : request["id_list"])
    if ((kind == "delete_notis" ? keep_deleted(state, id.get<int>()) : keep_seen(state, id.get<int>())) < 0) return -1;
  return 0;
}

int relay_run(const relay_settings &settings) {
  mime_init();
  relay r;
  r.settings = settings;
  r.bar = isatty(STDERR_FILENO) != 0;
  std::string error;
  link_handlers handlers = {};
  handlers.connected = connected_cb;
  handlers.keep = keep_cb;
  handlers.kept = kept_cb;
  r.state = phone_state_open(&error);
  int lock = r.state ? take_lock(&error) : -1;
  int result = lock < 0 ? -1 : start(&r, &handlers, &error);
  std::vector<post_mirror_order> orders;
  for (const relay_account_settings &a : settings.accounts)
    for (const std::string &folder : a.folders)
      orders.push_back({a.imap_config, a.name, folder, a.newest >= 0 ? a.newest : settings.newest});
  post_mirrors *mirrors = result == 0 ? post_mirrors_start(link_event(r.link), orders) : nullptr;
  if (result == 0) result = link_run(r.link, &error);
  post_mirrors_stop(mirrors);
  for (auto &a : r.accounts)
    for (sd_event_source *source : a->watches) sd_event_source_disable_unref(source);
  for (sd_event_source *source : {r.sync_timer, r.sync_defer, r.outbox_timer, r.wake})
    sd_event_source_disable_unref(source);
  if (r.child) sd_event_source_disable_unref(r.child);
  link_close(r.link);
  phone_state_close(r.state);
  if (lock >= 0) close(lock);
  if (result == 0) return 0;
  link_log(error);
  return 1;
}

int relay_print_status(bool as_json) {
  std::string error;
  phone_state *state = phone_state_open(&error);
  if (!state) {
    link_log(error);
    return 1;
  }
  std::map<std::string, std::string> values;
  sql_query query(phone_state_db(state), "SELECT key, value FROM relay_status");
  while (query.step() == SQLITE_ROW) values[query.text(0)] = query.text(1);
  query.finish();
  std::vector<outbox_entry> entries;
  int result = outbox_list(state, &entries);
  phone_state_close(state);
  if (result < 0) {
    link_log("the replies that wait cannot be read");
    return 1;
  }
  bool running = relay_is_running();
  using json = nlohmann::ordered_json;
  json accounts = json::parse(values["accounts"], nullptr, false);
  if (!accounts.is_array()) accounts = json::array();
  static const char *const kStates[] = {"queued", "sending", "sent", "held"};
  if (as_json) {
    json out = {{"running", running}, {"accounts", accounts}, {"replies", json::array()}};
    if (running) out["pid"] = g_ascii_strtoll(values["pid"].c_str(), nullptr, 10);
    for (const outbox_entry &e : entries)
      out["replies"].push_back({{"id", e.id},
                                {"account_id", e.account_id},
                                {"to", e.recipient},
                                {"subject", e.subject},
                                {"state", kStates[std::clamp(e.state, 0, 3)]},
                                {"created", e.created},
                                {"attempts", e.attempts},
                                {"sent_again_after_interruption", e.interrupted},
                                {"next_try", e.state == OUTBOX_QUEUED && e.attempts > 0 ? e.next_time : 0},
                                {"sent", e.done_time},
                                {"error", e.error}});
    printf("%s\n", out.dump(2, ' ', false, json::error_handler_t::replace).c_str());
    return 0;
  }
  printf("The relay is %s.\n", running ? "running" : "not running");
  for (const json &a : accounts)
    printf("%s (%s): %lld messages, %lld on the watch%s%s\n", a.value("name", std::string()).c_str(),
           a.value("path", std::string()).c_str(), static_cast<long long>(a.value("messages", int64_t{0})),
           static_cast<long long>(a.value("on_watch", int64_t{0})), a.value("error", std::string()).empty() ? "" : "; ",
           a.value("error", std::string()).c_str());
  size_t sent = 0;
  for (const outbox_entry &e : entries) {
    if (e.state == OUTBOX_SENT) {
      sent++;
      continue;
    }
    printf("reply %lld to %s (%s): %s, %d tries%s%s\n", static_cast<long long>(e.id),
           mime_clean_line(e.recipient, 200).c_str(), mime_clean_line(e.subject, 200).c_str(),
           kStates[std::clamp(e.state, 0, 3)], e.attempts, e.error.empty() ? "" : ": ", e.error.c_str());
  }
  printf("%zu replies sent.\n", sent);
  return 0;
}

namespace {

/* A running relay looks at its replies again. */
void wake_relay() {
  int fd = open(relay_wake_path().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (fd >= 0) close(fd);
}

}  // namespace

int relay_retry() {
  std::string error;
  phone_state *state = phone_state_open(&error);
  int result = state ? outbox_retry_all(state) : -1;
  if (state && result < 0) error = "the replies that wait cannot be changed";
  phone_state_close(state);
  if (result < 0) {
    link_log(error);
    return 1;
  }
  wake_relay();
  return 0;
}

int relay_drop(int64_t id) {
  std::string error;
  phone_state *state = phone_state_open(&error);
  int result = state ? outbox_drop(state, id) : -1;
  if (state && result <= 0) error = result < 0 ? "the reply cannot be forgotten" : "no such reply waits";
  phone_state_close(state);
  if (result > 0) return 0;
  link_log(error);
  return 1;
}
