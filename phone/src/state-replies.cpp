#include "state-replies.h"

#include <ctime>

#include "state-db.h"

namespace {

using enum reply_state;

constexpr char kCannotWrite[] = "the reply cannot be kept", kCannotRead[] = "the replies cannot be read";
constexpr int kSentKept = 1000; /* replies that are sent, or refused, that the status tells of */
/* What may wait at most. A reply beyond it stays on the watch, which sends it again. */
constexpr int64_t kMostWaiting = 1000, kMostWaitingBytes = 64 << 20;

/* Of what is over only the newest are kept. */
int prune_replies(phone_state *state) {
  sql_statement prune(&state->db,
                      "DELETE FROM outbox WHERE (state = ? OR (state = ? AND told <> '')) AND"
                      " id <= (SELECT max(id) FROM outbox) - ?");
  return prune.bind(sent, held, kSentKept).run() == 0 ? 0 : state_fail(state, kCannotWrite);
}

int64_t now_seconds() {
  return static_cast<int64_t>(time(nullptr));
}

/* A number that no version wrote is a damaged file: what it was is not known, and nothing is sent by guess. */
reply_state read_state(int number) {
  return number < static_cast<int>(queued) || number > static_cast<int>(dropped) ? held
                                                                                 : static_cast<reply_state>(number);
}

}  // namespace

const char *reply_state_name(reply_state state) {
  static const char *const names[] = {"queued", "sending", "sent", "held", "dropped"};
  return names[static_cast<int>(state)];
}

int reply_add(phone_state *state, int account_id, const new_reply &reply) {
  /* A service that was killed before it wrote down that the reply is here sends it once more. */
  sql_statement known(&state->db, "SELECT 1 FROM outbox WHERE uid = ? AND uid <> ''");
  const sql_result is_known = known.bind(reply.uid).step();
  if (is_known != sql_done) return is_known == sql_row ? 0 : state_fail(state, kCannotRead);
  /* What the watch was told is refused waits there. */
  sql_statement waiting(&state->db,
                        "SELECT count(*), total(length(message)) FROM outbox WHERE state <> ? AND"
                        " NOT (state = ? AND told <> '')");
  if (waiting.bind(sent, held).step() != sql_row) return state_fail(state, kCannotRead);
  if (waiting.number(0) >= kMostWaiting ||
      waiting.number(1) + static_cast<int64_t>(reply.message.size()) > kMostWaitingBytes) {
    state->error = "too many replies wait to be sent; the next ones stay on the watch until there is room";
    return -1;
  }
  sql_statement query(&state->db,
                      "INSERT INTO outbox (account_id, created, recipient, subject, message, state, error, uid)"
                      " VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
  query.bind(account_id, now_seconds(), reply.recipient, reply.subject, sql_blob{reply.message},
             reply.error.empty() ? queued : held, reply.error, reply.uid);
  return query.run() == 0 ? 0 : state_fail(state, kCannotWrite);
}

int reply_list(phone_state *state, std::vector<reply_entry> *entries) {
  sql_statement query(&state->db,
                      "SELECT id, account_id, created, recipient, subject, state, attempts, interrupted, next_time,"
                      " done_time, error, pause, uid, told FROM outbox ORDER BY id");
  sql_result result;
  while ((result = query.step()) == sql_row) {
    reply_entry entry;
    entry.id = query.number(0);
    entry.account_id = query.integer(1);
    entry.created = query.number(2);
    entry.recipient = query.text(3);
    entry.subject = query.text(4);
    entry.state = read_state(query.integer(5));
    entry.attempts = query.integer(6);
    entry.interrupted = query.integer(7);
    entry.next_time = query.number(8);
    entry.done_time = query.number(9);
    entry.error = query.text(10);
    entry.pause = query.number(11);
    entry.uid = query.text(12);
    entry.told = query.text(13);
    entries->push_back(std::move(entry));
  }
  return result == sql_done ? 0 : state_fail(state, kCannotRead);
}

int reply_begin(phone_state *state, int64_t id, reply_entry *entry, std::string *message) {
  sql_statement read(&state->db, "SELECT state, attempts, message FROM outbox WHERE id = ?");
  sql_result result = read.bind(id).step();
  if (result == sql_failed) return state_fail(state, kCannotRead);
  if (result == sql_done) return 0;
  entry->id = id;
  entry->state = read_state(read.integer(0));
  entry->attempts = read.integer(1);
  *message = read.text(2);
  read.finish();
  if (entry->state != queued && entry->state != sending) return 0;
  sql_statement mark(&state->db,
                     "UPDATE outbox SET state = ?1, attempts = attempts + 1, interrupted = interrupted + (state = ?1),"
                     " next_time = ?4 WHERE id = ?2 AND state IN (?1, ?3)");
  if (mark.bind(sending, id, queued, now_seconds()).run() < 0) return state_fail(state, kCannotWrite);
  return state->db.changed() > 0 ? 1 : 0;
}

int reply_set_sent(phone_state *state, int64_t id) {
  sql_statement query(&state->db, "UPDATE outbox SET state = ?, done_time = ?, error = '', message = x'' WHERE id = ?");
  if (query.bind(sent, now_seconds(), id).run() < 0) return state_fail(state, kCannotWrite);
  return prune_replies(state);
}

int reply_set_failed(phone_state *state, int64_t id, int64_t pause, const std::string &error) {
  /* The time 0 says that somebody wanted it tried now while this try was under way, which may have begun too early. */
  sql_statement query(&state->db,
                      "UPDATE outbox SET state = ?1, next_time = CASE next_time WHEN 0 THEN 0 ELSE ?2 END,"
                      " pause = CASE next_time WHEN 0 THEN 0 ELSE ?3 END, error = ?4 WHERE id = ?5 AND state = ?6");
  return query.bind(queued, now_seconds() + pause, pause, error, id, sending).run() == 0
             ? 0
             : state_fail(state, kCannotWrite);
}

int reply_set_held(phone_state *state, int64_t id, const std::string &error) {
  sql_statement query(&state->db, "UPDATE outbox SET state = ?, error = ? WHERE id = ? AND state = ?");
  return query.bind(held, error, id, sending).run() == 0 ? 0 : state_fail(state, kCannotWrite);
}

int reply_set_told(phone_state *state, int64_t id, const std::string &told, bool ends) {
  sql_statement forget(&state->db, "DELETE FROM outbox WHERE id = ? AND state = ?");
  if (ends) return forget.bind(id, dropped).run() == 0 ? 0 : state_fail(state, kCannotWrite);
  sql_statement query(&state->db, "UPDATE outbox SET told = ? WHERE id = ?");
  return query.bind(told, id).run() == 0 ? prune_replies(state) : state_fail(state, kCannotWrite);
}

int reply_retry_all(phone_state *state) {
  sql_statement query(&state->db, "UPDATE outbox SET next_time = 0, pause = 0 WHERE state IN (?, ?)");
  return query.bind(queued, sending).run() == 0 ? 0 : state_fail(state, kCannotWrite);
}

int reply_drop(phone_state *state, int64_t id) {
  /* The watch is told, unless it does not ask or knows that it was refused. */
  sql_statement keep(&state->db,
                     "UPDATE outbox SET state = ?1, message = x'' WHERE id = ?2 AND state IN (?3, ?4, ?5) AND uid <> ''"
                     " AND NOT (state = ?5 AND told <> '')");
  if (keep.bind(dropped, id, queued, sending, held).run() < 0) return state_fail(state, kCannotWrite);
  if (state->db.changed() > 0) return 1;
  sql_statement query(&state->db, "DELETE FROM outbox WHERE id = ? AND state NOT IN (?, ?)");
  if (query.bind(id, sent, dropped).run() < 0) return state_fail(state, kCannotWrite);
  return state->db.changed() > 0 ? 1 : 0;
}
