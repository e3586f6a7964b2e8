/* What the application asks: each request once, by its uid, with what it changes here and what waits for the phone.
   watch-bus.cpp calls it, and phone-link.cpp for what waits and for more of a body. */
#include <algorithm>

#include "store-priv.h"

/* Requests are sent again only while the service restarts: a few at a time. */
constexpr int64_t uids_kept = 4096;
/* What may wait for a phone: a watch that saw none for weeks stays far below, and a client gone mad fills no disk. No
   program takes more than half of it, so that another's requests still find room. */
constexpr int64_t outbox_bytes_max = 16 << 20, outbox_entries_max = 20000;

namespace {

store_status check_room(store *st, const store_request &asked) {
  sql_statement held(&st->db,
                     "SELECT count(*), ifnull(sum(bytes), 0), count(*) FILTER (WHERE client = ?1),"
                     " ifnull(sum(bytes) FILTER (WHERE client = ?1), 0) FROM outbox");
  if (held.bind(asked.client).step() != sql_row) return fail_sql(st);
  const auto has_room = [&](int column, int64_t share) {
    return held.number(column) < outbox_entries_max / share &&
           held.number(column + 1) + static_cast<int64_t>(asked.json.size()) <= outbox_bytes_max / share;
  };
  if (!has_room(0, 1)) return fail(st, store_full, "too much waits for the phone already");
  if (!has_room(2, 2)) return fail(st, store_full, "too much of this program waits for the phone already");
  return store_ok;
}

template <typename F>
store_status request(store *st, const store_request &asked, int64_t *entry, F &&work) {
  if (asked.uid.empty() || asked.uid.size() > uid_max)
    return fail(st, store_invalid, "a request's uid has 1 to 128 bytes");
  return transaction(st, [&]() -> store_status {
    store_status status = run_sql(st, "INSERT OR IGNORE INTO done (uid) VALUES (?)", asked.uid);
    if (status) return status;
    if (st->db.changed() == 0) return store_done;
    const int64_t number = st->db.last_row();
    if (number % 64 == 0) status = run_sql(st, "DELETE FROM done WHERE number <= ?", number - uids_kept);
    if (!status) status = check_room(st, asked);
    if (!status) status = work();
    if (status) return status;
    status = run_sql(st, "INSERT INTO outbox (json, client, bytes) VALUES (?, ?, ?)", asked.json, asked.client,
                     asked.json.size());
    *entry = st->db.last_row();
    return status;
  });
}

}  // namespace

store_status store_request_delete(store *st, const store_request &asked, const std::vector<int> &ids, int64_t *entry) {
  return request(st, asked, entry, [&] {
    std::vector<int> gone;
    return delete_and_tell(st, ids, &gone);
  });
}

store_status store_request_read(store *st, const store_request &asked, const std::vector<int> &ids, int64_t *entry) {
  return request(st, asked, entry, [&]() -> store_status {
    std::vector<int> changed;
    const store_status status =
        run_for_ids(st, "UPDATE mail SET is_read = 1 WHERE mail_id = ? AND is_read = 0", ids, &changed);
    if (status || changed.empty()) return status;
    return add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, changed);
  });
}

store_status store_request_clear_new(store *st, const store_request &asked, int64_t *entry) {
  return request(st, asked, entry, [&]() -> store_status {
    std::vector<int> changed;
    sql_statement find(&st->db, "SELECT mail_id FROM mail WHERE is_new <> 0 ORDER BY mail_id");
    store_status status = read_ids(st, &find, &changed);
    if (status || changed.empty()) return status;
    status = run_sql(st, "UPDATE mail SET is_new = 0 WHERE is_new <> 0");
    return status ? status : add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, changed);
  });
}

store_status store_request_relay(store *st, const store_request &asked, int64_t *entry) {
  return request(st, asked, entry, [] { return store_ok; });
}

store_status store_outbox(store *st, std::vector<outbox_entry> *entries) {
  sql_statement list(&st->db, "SELECT id, json FROM outbox ORDER BY id");
  sql_result r;
  while ((r = list.step()) == sql_row) entries->push_back({list.number(0), list.text(1)});
  return checked(st, r);
}

store_status store_outbox_remove(store *st, int64_t id) {
  return run_sql(st, "DELETE FROM outbox WHERE id = ?", id);
}

store_status store_new_request_id(store *st, int64_t *id) {
  return transaction(st, [&]() -> store_status {
    store_status status = run_sql(st, "INSERT INTO outbox (json) VALUES ('')");
    if (status) return status;
    *id = st->db.last_row();
    return store_outbox_remove(st, *id);
  });
}

store_status store_get_body(store *st, int mail_id, std::string *body, std::string *message_uid) {
  sql_statement get(&st->db, "SELECT text, message_uid FROM mail LEFT JOIN body USING (mail_id) WHERE mail_id = ?");
  const sql_result r = get.bind(mail_id).step();
  if (r == sql_done) return fail(st, store_invalid, "no mail %d", mail_id);
  if (r != sql_row) return fail_sql(st);
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
    status = run_sql(st, sql_set_body, mail_id, body);
    return status ? status : add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, {mail_id});
  });
}
