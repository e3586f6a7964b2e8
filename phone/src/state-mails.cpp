/* The phone's state: mails that were sent, and requests that came. */
#include <ctime>

#include "brisel-body.h"
#include "state-db.h"

namespace {

/* Far more than a service sends again, few enough for a phone that runs for years. Of those that could not be
   acknowledged more are kept: no watch has as many waiting, in number or bytes. */
constexpr int kRequestsKept = 10000, kUnansweredKept = 2 * static_cast<int>(outbox_entries_max);
constexpr int64_t kBytesKept = 32 << 20, kUnansweredBytesKept = 2 * kBytesKept;
constexpr size_t kBytesBetween = 16u << 20; /* that come before it is looked how many there are */

/* The oldest go now and then, not at every one. */
int prune_requests(phone_state *state) {
  sql_statement behind(&state->db,
                       "DELETE FROM request WHERE row <= (SELECT max(row) FROM request) - ?1"
                       " AND (acknowledged = 1 OR row <= (SELECT max(row) FROM request) - ?2)");
  if (behind.bind(kRequestsKept, kUnansweredKept).run() < 0) return -1;
  if (state->request_bytes < kBytesBetween) return 0;
  state->request_bytes = 0;
  sql_statement beyond(&state->db,
                       "DELETE FROM request WHERE row IN (SELECT row FROM (SELECT row, acknowledged,"
                       " sum(length(json)) OVER (ORDER BY row DESC) AS held FROM request)"
                       " WHERE held > iif(acknowledged, ?, ?))");
  return beyond.bind(kBytesKept, kUnansweredBytesKept).run();
}

}  // namespace

int phone_state_add_mail(phone_state *state, sent_mail *mail) {
  sql_statement *query =
      state_kept(state, &state->add_mail,
                 "INSERT INTO mail (account_id, message_uid, first, body, source, message_id, refs, reply_to)"
                 " VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
  query->bind(mail->account_id, mail->message_uid, mail->first);
  if (mail->has_body)
    query->add(mail->body);
  else
    query->add(nullptr);
  query->add(mail->source).add(mail->message_id).add(mail->references).add(mail->reply_to);
  if (query->run() < 0) return state_fail(state, "the mail could not be kept");
  mail->row = state->db.last_row();
  return 0;
}

int phone_state_set_mail_id(phone_state *state, int64_t row, int mail_id) {
  sql_statement *set = state_kept(state, &state->set_mail_id, "UPDATE mail SET mail_id = ? WHERE row = ?");
  if (set->bind(mail_id, row).run() == 0) return 0;
  if (state->db.trouble() != sql_trouble::refused) return state_fail(state, "the mail could not be kept");
  /* A number that another mail had belongs to a store that is gone. */
  sql_statement clear(&state->db, "UPDATE mail SET mail_id = NULL WHERE mail_id = ? AND row <> ?");
  if (clear.bind(mail_id, row).run() < 0 || set->bind(mail_id, row).run() < 0)
    return state_fail(state, "the mail could not be kept");
  return 0;
}

int phone_state_drop_row(phone_state *state, int64_t row) {
  sql_statement query(&state->db, "DELETE FROM mail WHERE row = ?");
  return query.bind(row).run() == 0 ? 0 : state_fail(state, "the mail could not be forgotten");
}

int phone_state_drop_mails(phone_state *state, const std::vector<int> &mail_ids, int *known) {
  sql_statement query(&state->db, "DELETE FROM mail WHERE mail_id = ?");
  int dropped = 0;
  for (int id : mail_ids) {
    if (query.bind(id).run() < 0) return state_fail(state, "the mail could not be forgotten");
    dropped += static_cast<int>(state->db.changed());
  }
  if (known) *known = dropped;
  return 0;
}

int phone_state_find_mail(phone_state *state, int mail_id, const std::string &message_uid, sent_mail *mail) {
  sql_statement query(&state->db,
                      "SELECT row, mail_id, account_id, first, body, source, message_id, refs, reply_to FROM mail"
                      " WHERE message_uid = ? ORDER BY mail_id IS NOT ?, row DESC LIMIT 1");
  sql_result result = query.bind(message_uid, mail_id).step();
  if (result == sql_failed) return state_fail(state, "the phone's state cannot be read");
  if (result == sql_done) return 0;
  mail->row = query.number(0);
  mail->mail_id = query.integer(1);
  mail->account_id = query.integer(2);
  mail->message_uid = message_uid;
  mail->first = query.number(3);
  mail->has_body = !query.is_null(4);
  mail->body = query.text(4);
  mail->source = query.text(5);
  mail->message_id = query.text(6);
  mail->references = query.text(7);
  mail->reply_to = query.text(8);
  return 1;
}

int phone_state_find_number(phone_state *state, int mail_id, sent_mail *mail) {
  sql_statement query(&state->db, "SELECT message_uid FROM mail WHERE mail_id = ? ORDER BY row DESC LIMIT 1");
  const sql_result result = query.bind(mail_id).step();
  if (result == sql_failed) return state_fail(state, "the phone's state cannot be read");
  return result == sql_done ? 0 : phone_state_find_mail(state, mail_id, query.text(0), mail);
}

int phone_state_add_request(phone_state *state, int64_t id, const std::string &peer, const std::string &json) {
  /* One transaction of the caller or one statement of its own: two readers never both find it new. */
  sql_statement query(&state->db,
                      "INSERT INTO request (id, peer, json, time) SELECT ?1, ?2, ?3, ?4 WHERE NOT EXISTS"
                      " (SELECT 1 FROM request WHERE id = ?1 AND json = ?3 AND (acknowledged = 0 OR peer = ?2))");
  if (query.bind(id, peer, json, static_cast<int64_t>(time(nullptr))).run() < 0)
    return state_fail(state, "the request could not be kept");
  if (state->db.changed() > 0) {
    state->request_bytes += json.size();
    if (state->db.last_row() % 64 != 0 && state->request_bytes < kBytesBetween) return 1;
    return prune_requests(state) == 0 ? 1 : state_fail(state, "old requests could not be forgotten");
  }
  /* The sender may have it in flight once more: it is known by this sender too from now on. */
  sql_statement again(&state->db,
                      "UPDATE request SET peer = ?2 WHERE id = ?1 AND json = ?3 AND (acknowledged = 0 OR peer = ?2)");
  return again.bind(id, peer, json).run() == 0 ? 0 : state_fail(state, "the request could not be kept");
}

int phone_state_set_acknowledged(phone_state *state, int64_t id) {
  const auto mark = [&] {
    sql_statement query(&state->db, "UPDATE request SET acknowledged = 1 WHERE id = ? AND acknowledged = 0");
    return query.bind(id).run() == 0 ? 0 : state_fail(state, "the request could not be marked");
  };
  /* The request itself is on the disk, and who is asked for it again knows it. */
  return state->db.unhurried(mark) < 0 ? -1 : 0;
}

int phone_state_list_requests(phone_state *state, std::vector<stored_request> *requests) {
  sql_statement query(&state->db, "SELECT id, time, json FROM request ORDER BY row");
  sql_result result;
  while ((result = query.step()) == sql_row) requests->push_back({query.number(0), query.number(1), query.text(2)});
  return result == sql_done ? 0 : state_fail(state, "the phone's state cannot be read");
}
