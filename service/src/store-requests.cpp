/* What the application asks: each request once, by its uid, with what it changes here and what waits for the phone. */
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "store-priv.h"

/* Requests are sent again only while the service restarts: a few at a time. */
constexpr int64_t uids_kept = 4096;
/* What may wait for a phone: a watch that saw none for weeks stays far below, and a client gone mad fills no disk. */
constexpr int64_t outbox_bytes_max = 16 << 20, outbox_entries_max = 20000;

namespace {

store_status check_room(store *st, size_t bytes) {
  statement held(st, "SELECT count(*), ifnull(sum(length(CAST(json AS BLOB))), 0) FROM outbox");
  if (held.step() != SQLITE_ROW) return fail_sqlite(st);
  if (held.number(0) < outbox_entries_max && held.number(1) + static_cast<int64_t>(bytes) <= outbox_bytes_max)
    return store_ok;
  return fail(st, store_full, "too much waits for the phone already");
}

template <typename F>
store_status request(store *st, const std::string &uid, const std::string &json, int64_t *entry, F &&work) {
  if (uid.empty() || uid.size() > uid_max) return fail(st, store_invalid, "a request's uid has 1 to 128 bytes");
  return transaction(st, [&]() -> store_status {
    statement remember(st, "INSERT OR IGNORE INTO done (uid) VALUES (?)");
    store_status status = remember.bind(uid).run();
    if (status) return status;
    if (sqlite3_changes(st->db) == 0) return store_done;
    const int64_t number = sqlite3_last_insert_rowid(st->db);
    if (number % 64 == 0) {
      statement forget(st, "DELETE FROM done WHERE number <= ?");
      status = forget.bind(number - uids_kept).run();
    }
    if (!status) status = check_room(st, json.size());
    if (!status) status = work();
    if (status) return status;
    statement put(st, "INSERT INTO outbox (json) VALUES (?)");
    status = put.bind(json).run();
    *entry = sqlite3_last_insert_rowid(st->db);
    return status;
  });
}

}  // namespace

store_status store_request_delete(store *st, const std::string &uid, const std::string &json,
                                  const std::vector<int> &ids, int64_t *entry) {
  return request(st, uid, json, entry, [&] {
    std::vector<int> gone;
    return delete_and_tell(st, ids, &gone);
  });
}

store_status store_request_read(store *st, const std::string &uid, const std::string &json, const std::vector<int> &ids,
                                int64_t *entry) {
  return request(st, uid, json, entry, [&]() -> store_status {
    std::vector<int> changed;
    const store_status status =
        run_for_ids(st, "UPDATE mail SET is_read = 1 WHERE mail_id = ? AND is_read = 0", ids, &changed);
    if (status || changed.empty()) return status;
    return add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, changed);
  });
}

store_status store_request_clear_new(store *st, const std::string &uid, const std::string &json, int64_t *entry) {
  return request(st, uid, json, entry, [&]() -> store_status {
    std::vector<int> changed;
    {
      statement find(st, "SELECT mail_id FROM mail WHERE is_new <> 0 ORDER BY mail_id");
      int r;
      while ((r = find.step()) == SQLITE_ROW) changed.push_back(static_cast<int>(find.number(0)));
      if (r != SQLITE_DONE) return fail_sqlite(st);
    }
    if (changed.empty()) return store_ok;
    const store_status status = run_sql(st, "UPDATE mail SET is_new = 0 WHERE is_new <> 0");
    return status ? status : add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, changed);
  });
}

store_status store_request_relay(store *st, const std::string &uid, const std::string &json, int64_t *entry) {
  return request(st, uid, json, entry, [] { return store_ok; });
}

store_status store_outbox(store *st, std::vector<outbox_entry> *entries) {
  statement list(st, "SELECT id, json FROM outbox ORDER BY id");
  int r;
  while ((r = list.step()) == SQLITE_ROW) entries->push_back({list.number(0), list.text(1)});
  return r == SQLITE_DONE ? store_ok : fail_sqlite(st);
}

store_status store_outbox_remove(store *st, int64_t id) {
  return statement(st, "DELETE FROM outbox WHERE id = ?").bind(id).run();
}

store_status store_new_request_id(store *st, int64_t *id) {
  return transaction(st, [&]() -> store_status {
    store_status status = run_sql(st, "INSERT INTO outbox (json) VALUES ('')");
    if (status) return status;
    *id = sqlite3_last_insert_rowid(st->db);
    return statement(st, "DELETE FROM outbox WHERE id = ?").bind(*id).run();
  });
}

store_status store_get_body(store *st, int mail_id, std::string *body, std::string *message_uid) {
  statement get(st, "SELECT text, message_uid FROM mail LEFT JOIN body USING (mail_id) WHERE mail_id = ?");
  const int r = get.bind(mail_id).step();
  if (r == SQLITE_DONE) return fail(st, store_invalid, "no mail %d", mail_id);
  if (r != SQLITE_ROW) return fail_sqlite(st);
  *body = get.text(0);
  *message_uid = get.text(1);
  return store_ok;
}

store_status store_append_body(store *st, int mail_id, size_t have, const std::string &piece, bool complete) {
  return transaction(st, [&]() -> store_status {
    std::string body, message_uid;
    store_status status = store_get_body(st, mail_id, &body, &message_uid);
    if (status) return status;
    const std::string before = body;
    body.resize(body_length(body));
    if (body.size() != have) return fail(st, store_invalid, "the body of mail %d has changed meanwhile", mail_id);
    const size_t room = body_max - sizeof(tag_more);
    body += piece;
    if (body.size() > room) {
      size_t cut = std::max(room, have);
      while (cut > have && (static_cast<unsigned char>(body[cut]) & 0xC0) == 0x80) cut--;
      body.resize(cut);
      complete = true;
    }
    body += complete ? tag_complete : tag_more;
    if (body == before) return store_ok;
    status = statement(st, sql_set_body).bind(mail_id).bind(body).run();
    return status ? status : add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, {mail_id});
  });
}
