/* What became of the user's replies, deletions and marks: a row of each, which outlives the request itself. What is
   asked besides (what is sent again or dropped) is here too, as it works on those rows. */
#include <ctime>

#include "store-notify.h"
#include "store-priv.h"

namespace {

/* Seconds that a reply which may still end is kept behind its last change. */
constexpr int64_t open_kept = 30 * journal_ended_kept;
/* Rows that wait for no phone. */
constexpr int64_t rows_kept = 200;

int64_t now_seconds(void) {
  return static_cast<int64_t>(time(nullptr));
}

store_status tell(store *st, int64_t id) {
  return add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_REQUEST, {static_cast<int>(id)});
}

/* The id of a reply that may be sent again or dropped: no phone was ever offered it, or one refused it. */
store_status check_changeable(store *st, int64_t id, std::string *json) {
  sql_statement find(&st->db, "SELECT state, offered, kind, json FROM journal WHERE id = ?");
  const sql_result r = find.bind(id).step();
  if (r == sql_failed) return fail_sql(st);
  if (r == sql_done || find.number(2) != BRISEL_REQUEST_KIND_REPLY)
    return fail(st, store_invalid, "%lld is no reply that is known", static_cast<long long>(id));
  const int64_t state = find.number(0);
  if (state != BRISEL_REQUEST_STATE_REFUSED && (state != BRISEL_REQUEST_STATE_WAITS || find.number(1)))
    return fail(st, store_invalid, "the phone may have reply %lld by now", static_cast<long long>(id));
  if (json) *json = find.text(3);
  return store_ok;
}

store_status forget(store *st, int64_t id) {
  const store_status status = run_sql(st, "DELETE FROM journal WHERE id = ?", id);
  return status ? status : run_sql(st, "DELETE FROM outbox WHERE id = ?", id);
}

/* The phone has it. */
store_status hand_over(store *st, int64_t id) {
  store_status status = run_sql(st, "DELETE FROM outbox WHERE id = ?", id);
  if (!status)
    status = run_sql(
        st, journal_sql("UPDATE journal SET state = [handed over], changed = ? WHERE id = ? AND state = [waits]"),
        now_seconds(), id);
  return status || st->db.changed() == 0 ? status : tell(st, id);
}

}  // namespace

store_status journal_prune(store *st) {
  const store_status status =
      run_sql(st,
              journal_sql("DELETE FROM journal WHERE state <> [waits] AND changed < ?1 - "
                          "CASE WHEN kind <> [reply] OR state = [sent] THEN [kept] ELSE ?2 END"),
              now_seconds(), open_kept);
  if (status) return status;
  return run_sql(st,
                 journal_sql("DELETE FROM journal WHERE id IN (SELECT id FROM journal WHERE state <> [waits]"
                             " ORDER BY kind <> [reply] OR state = [sent], changed DESC, id DESC LIMIT -1 OFFSET ?)"),
                 rows_kept);
}

store_status journal_add(store *st, const store_request &asked, int64_t id, const journal_words &words) {
  if (!words.kind) return store_ok;
  store_status status = journal_prune(st);
  if (status) return status;
  status = run_sql(st,
                   "INSERT INTO journal (id, uid, kind, offered, mail_id, mails, person, subject, text, json, created,"
                   " changed) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?11)",
                   id, asked.uid, words.kind, st->phone_there, words.mail_id, words.mails, words.person, words.subject,
                   words.text, words.kind == BRISEL_REQUEST_KIND_REPLY ? asked.json : std::string(), now_seconds());
  return status ? status : tell(st, id);
}

store_status journal_of_mails(store *st, int kind, const std::vector<int> &ids, journal_words *words) {
  words->kind = 0;
  sql_statement find(&st->db, "SELECT from_name, from_address, subject FROM mail WHERE mail_id = ?");
  for (const int id : ids) {
    const sql_result r = find.bind(id).step();
    if (r == sql_done) continue;
    if (r != sql_row) return fail_sql(st);
    words->kind = kind;
    words->mail_id = id;
    words->person = find.text(0).empty() ? find.text(1) : find.text(0);
    words->subject = find.text(2);
    return store_ok;
  }
  return store_ok;
}

store_status store_outbox_remove(store *st, int64_t id) {
  const auto remove = [&] { return transaction(st, [&] { return hand_over(st, id); }); };
  /* A deletion or a mark that goes out again after the power went is done twice and the same. */
  sql_statement find(&st->db, journal_sql("SELECT 1 FROM journal WHERE id = ? AND kind = [reply]"));
  const bool is_reply = find.bind(id).step() == sql_row;
  find.finish();
  return is_reply ? remove() : unhurried(st, remove);
}

std::string store_outbox_reply(store *st, int64_t id) {
  sql_statement find(&st->db,
                     journal_sql("SELECT uid FROM journal WHERE id = ? AND kind = [reply] AND state = [waits]"));
  return find.bind(id).step() == sql_row ? find.text(0) : std::string();
}

store_status store_outbox_remove_replies(store *st, const std::vector<std::string> &uids) {
  return transaction(st, [&]() -> store_status {
    sql_statement find(&st->db,
                       journal_sql("SELECT id FROM journal WHERE uid = ? AND kind = [reply] AND state = [waits]"));
    for (const std::string &uid : uids) {
      const sql_result r = find.bind(uid).step();
      if (r == sql_failed) return fail_sql(st);
      if (r == sql_done) continue;
      const int64_t id = find.number(0);
      find.reset();
      const store_status status = hand_over(st, id);
      if (status) return status;
    }
    return store_ok;
  });
}

store_status store_phone_came(store *st) {
  st->phone_there = true;
  return transaction(st, [&] {
    return run_sql(st, journal_sql("UPDATE journal SET offered = 1 WHERE state = [waits] AND offered = 0"));
  });
}

void store_phone_left(store *st) {
  st->phone_there = false;
}

bool store_was_done(store *st, const std::string &uid) {
  sql_statement find(&st->db, "SELECT 1 FROM done WHERE uid = ?");
  return find.bind(uid).step() == sql_row;
}

store_status store_reply_json(store *st, int64_t id, std::string *json) {
  return check_changeable(st, id, json);
}

store_status store_request_repeat(store *st, const store_request &asked, int64_t id, const std::string &text,
                                  int64_t *entry) {
  journal_words words;
  return store_do_request(st, asked, entry, &words, [&]() -> store_status {
    store_status status = check_changeable(st, id, nullptr);
    if (status) return status;
    sql_statement old(&st->db, "SELECT mail_id, person, subject FROM journal WHERE id = ?");
    if (old.bind(id).step() != sql_row) return fail_sql(st);
    words.kind = BRISEL_REQUEST_KIND_REPLY;
    words.mail_id = old.integer(0);
    words.person = old.text(1);
    words.subject = old.text(2);
    words.text = text;
    old.finish();
    status = forget(st, id);
    return status ? status : tell(st, id);
  });
}

store_status store_request_drop(store *st, const std::string &uid, int64_t id) {
  return store_do_once(st, uid, [&]() -> store_status {
    store_status status = check_changeable(st, id, nullptr);
    if (!status) status = forget(st, id);
    return status ? status : tell(st, id);
  });
}

store_status store_set_outcome(store *st, const std::string &uid, reply_outcome outcome, const std::string &reason,
                               bool *refused) {
  static_assert(static_cast<int>(reply_outcome::waits) == BRISEL_REQUEST_STATE_HANDED_OVER &&
                static_cast<int>(reply_outcome::sent) == BRISEL_REQUEST_STATE_SENT &&
                static_cast<int>(reply_outcome::refused) == BRISEL_REQUEST_STATE_REFUSED);
  const int state = static_cast<int>(outcome);
  if (uid.empty() || uid.size() > uid_max) return fail(st, store_invalid, "a request's uid has 1 to 128 bytes");
  *refused = false;
  return transaction(st, [&]() -> store_status {
    /* What was sent stays sent. The rows of other kinds end when the phone has them. */
    sql_statement find(&st->db, journal_sql("SELECT id, state FROM journal WHERE uid = ?1 AND kind = [reply] AND"
                                            " state <> [sent] AND (state <> ?2 OR reason <> ?3)"));
    const sql_result r = find.bind(uid, state, reason).step();
    if (r == sql_done) return store_ok; /* told before, or forgotten here */
    if (r != sql_row) return fail_sql(st);
    const int64_t id = find.number(0);
    *refused = outcome == reply_outcome::refused && find.number(1) != state;
    find.finish();
    store_status status = run_sql(st, "DELETE FROM outbox WHERE id = ?", id); /* so the phone has it */
    if (status) return status;
    status = run_sql(st,
                     journal_sql("UPDATE journal SET state = ?1, reason = ?2, changed = ?3,"
                                 " json = CASE ?1 WHEN [sent] THEN '' ELSE json END WHERE id = ?4"),
                     state, reason, now_seconds(), id);
    if (!status && *refused) status = store_notify_refused(st, id);
    return status ? status : tell(st, id);
  });
}
