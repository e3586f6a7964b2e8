/* What is told of new mail, on the disk: a service that was killed tells nothing twice. */
#include "store-notify.h"

#include <unordered_set>

#include "store-priv.h"

namespace {

/* What was received before its account came to the watch belongs to the account's first sync, while that lasts: until
   nothing of it has come for so many seconds. */
constexpr int64_t first_sync_pause = 10;

/* A sender may give another message's name to a new one, but not another sender's. */
#define MESSAGE_NAME "nullif(substr(message_uid, 1, 200), '') || ' ' || substr(from_address, 1, 100)"
/* Mails that may come since before a message is not known again that comes as another one. */
constexpr int fresh_messages_max = 999;

int64_t looked_at(store *st) {
  return store_get_state(st, "notified_mail", 0);
}

}  // namespace

store_status store_notify_arrivals(store *st, int64_t now, std::vector<arrival> *arrivals) {
  sql_statement find(
      &st->db,
      "SELECT mail_id, m.account_id, is_new <> 0 AND is_read = 0 AND NOT"
      " (ifnull(received_time < added, 0) AND ?2 BETWEEN last AND last + ?3)"
      " AND NOT EXISTS (SELECT 1 FROM fresh_message WHERE message = " MESSAGE_NAME "), " MESSAGE_NAME
      " FROM mail m LEFT JOIN account_sync s ON s.account_id = m.account_id WHERE mail_id > ?1 ORDER BY 1");
  find.bind(looked_at(st), now, first_sync_pause);
  sql_result r;
  std::unordered_set<std::string> names;
  while ((r = find.step()) == sql_row) {
    arrival one = {find.integer(0), find.integer(1), find.number(2) != 0, find.text(3)};
    one.is_fresh = one.is_fresh && (one.message.empty() || names.insert(one.message).second);
    arrivals->push_back(std::move(one));
  }
  return checked(st, r);
}

store_status store_notify_take(store *st, int64_t now, const std::vector<arrival> &arrivals,
                               const std::vector<int> &to_tell) {
  if (arrivals.empty()) return store_ok;
  return unhurried(st, [&]() -> store_status {
    store_status status =
        run_sql(st,
                "UPDATE account_sync SET last = ?1 WHERE ?1 BETWEEN last AND last + ?2 AND EXISTS (SELECT 1 FROM mail m"
                " WHERE m.mail_id > ?3 AND m.account_id = account_sync.account_id AND received_time < added)",
                now, first_sync_pause, looked_at(st));
    if (!status) status = store_set_state(st, "notified_mail", arrivals.back().mail_id);
    sql_statement remember(&st->db, "INSERT OR IGNORE INTO fresh_message VALUES (?, ?)");
    for (const arrival &one : arrivals)
      if (!status && one.is_fresh && !one.message.empty()) status = run(st, &remember, one.message, one.mail_id);
    if (!status)
      status = run_sql(st, "DELETE FROM fresh_message WHERE mail_id < ?", arrivals.back().mail_id - fresh_messages_max);
    std::vector<int> added;
    if (!status) status = run_for_ids(st, "INSERT OR IGNORE INTO notification (mail_id) VALUES (?)", to_tell, &added);
    if (status || to_tell.empty()) return status;
    return run_sql(st,
                   "DELETE FROM notification WHERE mail_id > 0 AND number = 0 AND step = 0 AND mail_id NOT IN"
                   " (SELECT mail_id FROM notification ORDER BY mail_id DESC LIMIT ?)",
                   notices_max);
  });
}

store_status store_notify_list(store *st, std::vector<notice> *notices) {
  sql_statement list(&st->db,
                     "SELECT n.mail_id, ifnull(account_id, 0), step, number, counted, n.locked, server,"
                     " CASE WHEN n.mail_id < 0 THEN j.id IS NULL ELSE m.mail_id IS NULL OR is_read <> 0 END,"
                     " ifnull(security_locked, 0)"
                     " FROM notification n LEFT JOIN journal j ON j.id = -n.mail_id AND j.state = ?"
                     " LEFT JOIN mail m ON m.mail_id = ifnull(j.mail_id, n.mail_id) ORDER BY 1");
  list.bind(BRISEL_REQUEST_STATE_REFUSED);
  sql_result r;
  while ((r = list.step()) == sql_row)
    notices->push_back({list.integer(0), list.integer(1), static_cast<notice_step>(list.number(2)),
                        static_cast<uint32_t>(list.number(3)), list.number(4) != 0, list.number(5) != 0, list.text(6),
                        list.number(7) != 0, list.number(8) != 0});
  return checked(st, r);
}

store_status store_notify_put(store *st, const std::vector<notice> &notices) {
  if (notices.empty()) return store_ok;
  return unhurried(st, [&]() -> store_status {
    sql_statement set(
        &st->db, "UPDATE notification SET step = ?, number = ?, counted = ?, locked = ?, server = ? WHERE mail_id = ?");
    store_status status = store_ok;
    for (size_t i = 0; !status && i < notices.size(); i++) {
      const notice &one = notices[i];
      status = run(st, &set, one.step, one.number, one.counted, one.told_locked, one.server, one.mail_id);
    }
    return status;
  });
}

store_status store_notify_drop(store *st, const std::vector<int> &ids) {
  if (ids.empty()) return store_ok;
  return unhurried(st, [&] {
    std::vector<int> gone;
    return run_for_ids(st, "DELETE FROM notification WHERE mail_id = ?", ids, &gone);
  });
}

store_status store_notify_mail(store *st, int mail_id, noticed_mail *mail) {
  sql_statement get(&st->db,
                    "SELECT account_id, host_state, security_locked, subject, from_address, from_name, host_tag,"
                    " message_uid FROM mail WHERE mail_id = ?");
  const sql_result r = get.bind(mail_id).step();
  if (r == sql_done) return fail(st, store_invalid, "no mail %d", mail_id);
  if (r != sql_row) return fail_sql(st);
  mail->account_id = get.integer(0);
  mail->host_state = get.integer(1);
  mail->locked = get.number(2) != 0;
  int column = 3;
  for (std::string *text : {&mail->subject, &mail->from_address, &mail->from_name, &mail->host_tag, &mail->message_uid})
    *text = get.text(column++);
  return store_ok;
}

store_status store_notify_refused(store *st, int64_t request_id) {
  return run_sql(st, "INSERT OR IGNORE INTO notification (mail_id) VALUES (?)", -request_id);
}

store_status store_notify_refusal(store *st, int request_id, refused_reply *reply) {
  sql_statement get(&st->db,
                    "SELECT ifnull(account_id, 0), ifnull(security_locked, 0), person, reason FROM journal j"
                    " LEFT JOIN mail m ON m.mail_id = j.mail_id WHERE id = ? AND state = ?");
  const sql_result r = get.bind(request_id, BRISEL_REQUEST_STATE_REFUSED).step();
  if (r == sql_done) return fail(st, store_invalid, "no refused reply %d", request_id);
  if (r != sql_row) return fail_sql(st);
  *reply = {get.integer(0), get.number(1) != 0, get.text(2), get.text(3)};
  return store_ok;
}
