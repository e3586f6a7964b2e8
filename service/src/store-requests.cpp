/* What the application asks: each request once, by its uid, with what it changes here and what waits for the phone.
   watch-bus.cpp calls it, and phone-link.cpp for what waits and for more of a body. */
#include <algorithm>

#include "store-priv.h"

/* Bytes of the names of all mails of a request. */
constexpr size_t names_max = 2 << 20;

/* A client gone mad fills no disk. No program takes more than half of what may wait, so that another's requests still
   find room. */
store_status check_room(store *st, const store_request &asked) {
  sql_statement held(&st->db,
                     "SELECT count(*), ifnull(sum(bytes), 0), count(*) FILTER (WHERE client = ?1),"
                     " ifnull(sum(bytes) FILTER (WHERE client = ?1), 0) FROM outbox");
  if (held.bind(asked.client).step() != sql_row) return fail_sql(st);
  const auto has_room = [&](int column, size_t share) {
    return static_cast<size_t>(held.number(column)) < outbox_entries_max / share &&
           static_cast<size_t>(held.number(column + 1)) + asked.json.size() <= outbox_bytes_max / share;
  };
  if (!has_room(0, 1)) return fail(st, store_full, "too much waits for the phone already");
  if (!has_room(2, 2)) return fail(st, store_full, "too much of this program waits for the phone already");
  return store_ok;
}

store_status store_mail_names(store *st, const std::vector<int> &ids, std::vector<std::string> *tags,
                              std::vector<std::string> *uids) {
  sql_statement find(&st->db, "SELECT host_tag, message_uid FROM mail WHERE mail_id = ?");
  size_t bytes = 0;
  bool any = false;
  for (size_t i = 0; i < ids.size() && bytes <= names_max; i++) {
    const sql_result r = find.bind(ids[i]).step();
    if (r == sql_failed) return fail_sql(st);
    tags->push_back(r == sql_row ? find.text(0) : "");
    uids->push_back(r == sql_row ? find.text(1) : "");
    any = any || !uids->back().empty();
    bytes += tags->back().size() + uids->back().size();
  }
  if (any && bytes <= names_max) return store_ok;
  tags->clear();
  uids->clear();
  return store_ok;
}

store_status store_request_delete(store *st, const store_request &asked, const std::vector<int> &ids, int64_t *entry) {
  journal_words words;
  return store_do_request(st, asked, entry, &words, [&]() -> store_status {
    store_status status = journal_of_mails(st, BRISEL_REQUEST_KIND_DELETE, ids, &words);
    std::vector<int> gone;
    if (!status) status = delete_and_tell(st, ids, &gone);
    words.mails = static_cast<int>(gone.size());
    return status;
  });
}

store_status store_request_read(store *st, const store_request &asked, const std::vector<int> &ids, int64_t *entry) {
  journal_words words;
  return store_do_request(st, asked, entry, &words, [&]() -> store_status {
    std::vector<int> changed;
    store_status status =
        run_for_ids(st, "UPDATE mail SET is_read = 1 WHERE mail_id = ? AND is_read = 0", ids, &changed);
    if (status || changed.empty()) return status;
    status = journal_of_mails(st, BRISEL_REQUEST_KIND_READ, changed, &words);
    words.mails = static_cast<int>(changed.size());
    if (status) return status;
    return add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, changed);
  });
}

store_status store_request_clear_new(store *st, const store_request &asked, int64_t *entry) {
  const journal_words no_row;
  std::vector<int> changed;
  sql_statement find(&st->db, "SELECT mail_id FROM mail WHERE is_new <> 0 ORDER BY mail_id");
  const store_status found = read_ids(st, &find, &changed);
  if (found) return found;
  find.finish();
  const auto clear = [&] {
    return store_do_request(st, asked, entry, &no_row, [&]() -> store_status {
      if (changed.empty()) return store_ok;
      const store_status status = run_sql(st, "UPDATE mail SET is_new = 0 WHERE is_new <> 0");
      return status ? status : add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, changed);
    });
  };
  /* Every mail that is opened asks for it. Where nothing is new there is nothing that the power could take back. */
  return changed.empty() ? unhurried(st, clear) : clear();
}

store_status store_request_relay(store *st, const store_request &asked, int64_t *entry) {
  const journal_words no_row;
  return store_do_request(st, asked, entry, &no_row, [] { return store_ok; });
}

store_status store_request_reply(store *st, const store_request &asked, const reply_words &reply, int64_t *entry) {
  journal_words words = {BRISEL_REQUEST_KIND_REPLY, reply.mail_id, 1, reply.recipient, reply.subject, reply.text};
  /* The address, and behind the byte 2 a name. */
  if (const size_t name = words.person.find('\x02'); name != std::string::npos) words.person.erase(0, name + 1);
  return store_do_request(st, asked, entry, &words, [] { return store_ok; });
}

store_status store_outbox(store *st, std::vector<outbox_entry> *entries) {
  sql_statement list(&st->db, journal_sql("SELECT outbox.id, outbox.json, journal.uid FROM outbox LEFT JOIN journal"
                                          " ON journal.id = outbox.id AND journal.kind = [reply] ORDER BY outbox.id"));
  sql_result r;
  while ((r = list.step()) == sql_row) entries->push_back({list.number(0), list.text(1), list.text(2)});
  return checked(st, r);
}

store_status store_outbox_json(store *st, int64_t id, std::string *json) {
  sql_statement find(&st->db, "SELECT json FROM outbox WHERE id = ?");
  const sql_result r = find.bind(id).step();
  if (r == sql_failed) return fail_sql(st);
  *json = r == sql_row ? find.text(0) : "";
  return store_ok;
}

/* As with a whole one: what goes out again after the power went is done twice and the same. */
store_status store_outbox_set_json(store *st, int64_t id, const std::string &json) {
  return unhurried(st, [&] {
    return transaction(st, [&] {
      return run_sql(st, "UPDATE outbox SET json = ?1, bytes = ?2 WHERE id = ?3", json,
                     static_cast<int64_t>(json.size()), id);
    });
  });
}

store_status store_new_request_id(store *st, int64_t *id) {
  return transaction(st, [&]() -> store_status {
    store_status status = run_sql(st, "INSERT INTO outbox (json) VALUES ('')");
    if (status) return status;
    *id = st->db.last_row();
    return run_sql(st, "DELETE FROM outbox WHERE id = ?", *id);
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
