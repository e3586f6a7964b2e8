#include "state-relay.h"

#include <algorithm>

#include "state-db.h"

namespace {

using enum relay_mail_state;

constexpr char kCannotWrite[] = "the phone's state cannot be written",
               kCannotRead[] = "the phone's state cannot be read";

/* Written out where such rows are looked for: SQLite takes their index only for a condition that holds no values. */
static_assert(static_cast<int>(sending) == 1);

/* A number that no version wrote is a damaged file: the message is looked at anew. */
relay_mail_state read_state(int number) {
  return number < static_cast<int>(waiting) || number > static_cast<int>(copy) ? waiting
                                                                               : static_cast<relay_mail_state>(number);
}

}  // namespace

int relay_rows_load(phone_state *state, const std::string &account, relay_rows *rows) {
  sql_statement query(&state->db,
                      "SELECT file, identity, size, time, row, mail_id, state, seen, want_seen, trouble, batch, "
                      "want_gone FROM relay_mail"
                      " WHERE account = ?");
  query.bind(account);
  sql_result result;
  while ((result = query.step()) == sql_row) {
    relay_row row;
    row.identity = query.text(1);
    row.size = query.number(2);
    row.time = query.number(3);
    row.row = query.number(4);
    row.mail_id = query.integer(5);
    row.state = read_state(query.integer(6));
    row.seen = query.number(7) != 0;
    row.want_seen = query.number(8) != 0;
    row.trouble = query.text(9);
    row.batch = query.number(10);
    row.want_gone = query.number(11) != 0;
    rows->emplace(query.text(0), std::move(row));
  }
  return result == sql_done ? 0 : state_fail(state, kCannotRead);
}

int relay_row_write(phone_state *state, const std::string &account, const std::string &key, const relay_row &row) {
  sql_statement *write =
      state_kept(state, &state->write_row,
                 "INSERT INTO relay_mail (account, file, identity, size, time, row, mail_id, state, seen,"
                 " want_seen, trouble, batch, want_gone) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"
                 " ON CONFLICT (account, file) DO UPDATE SET identity = excluded.identity, size = excluded.size,"
                 " time = excluded.time, row = excluded.row, mail_id = excluded.mail_id, state = excluded.state,"
                 " seen = excluded.seen, want_seen = excluded.want_seen, trouble = excluded.trouble,"
                 " batch = excluded.batch, want_gone = excluded.want_gone");
  write->bind(account, key, row.identity, row.size, row.time, row.row, row.mail_id, row.state, row.seen, row.want_seen,
              row.trouble, row.batch, row.want_gone);
  return write->run() < 0 ? state_fail(state, kCannotWrite) : 0;
}

int relay_rows_write(phone_state *state, const std::string &account, const relay_rows &rows,
                     const std::vector<std::string> &gone) {
  /* In the order of the table, so that each of its pages is filled and left. */
  std::vector<const relay_rows::value_type *> dirty;
  for (const auto &entry : rows)
    if (entry.second.dirty) dirty.push_back(&entry);
  std::sort(dirty.begin(), dirty.end(), [](const auto *x, const auto *y) { return x->first < y->first; });
  for (const auto *entry : dirty)
    if (relay_row_write(state, account, entry->first, entry->second) < 0) return -1;
  sql_statement forget(&state->db, "DELETE FROM relay_mail WHERE account = ? AND file = ?");
  for (const std::string &key : gone)
    if (forget.bind(account, key).run() < 0) return state_fail(state, kCannotWrite);
  return 0;
}

int relay_row_reload(phone_state *state, const std::string &account, const std::string &key, relay_row *row) {
  sql_statement query(&state->db,
                      "SELECT mail_id, state, want_seen, want_gone FROM relay_mail WHERE account = ? AND file = ?");
  sql_result result = query.bind(account, key).step();
  if (result == sql_failed) return state_fail(state, kCannotRead);
  if (result == sql_done) return 0;
  row->mail_id = query.integer(0);
  row->state = read_state(query.integer(1));
  row->want_seen = query.number(2) != 0;
  row->want_gone = query.number(3) != 0;
  return 0;
}

int relay_rows_deleted(phone_state *state, const std::string &account, std::map<std::string, bool> *keys) {
  sql_statement query(&state->db, "SELECT file, want_gone FROM relay_mail WHERE account = ? AND state = ?");
  query.bind(account, deleted);
  sql_result result;
  while ((result = query.step()) == sql_row) keys->emplace(query.text(0), query.number(1) != 0);
  return result == sql_done ? 0 : state_fail(state, kCannotRead);
}

int relay_mail_set_deleted(phone_state *state, int mail_id, bool on_watch) {
  sql_statement mark(&state->db,
                     "UPDATE relay_mail SET state = ?, mail_id = 0, want_gone = ? WHERE mail_id = ? AND mail_id > 0");
  if (mark.bind(deleted, on_watch, mail_id).run() < 0) return state_fail(state, kCannotWrite);
  return static_cast<int>(state->db.changed());
}

int relay_name_set_deleted(phone_state *state, const std::string &account, const std::string &identity) {
  sql_statement mark(&state->db,
                     "UPDATE relay_mail SET state = ?, mail_id = 0, want_gone = 1"
                     " WHERE account = ? AND identity = ? AND state = 1");
  if (mark.bind(deleted, account, identity).run() < 0) return state_fail(state, kCannotWrite);
  return static_cast<int>(state->db.changed());
}

int relay_mail_want_seen(phone_state *state, int mail_id) {
  sql_statement mark(&state->db, "UPDATE relay_mail SET want_seen = 1 WHERE mail_id = ? AND mail_id > 0");
  if (mark.bind(mail_id).run() < 0) return state_fail(state, kCannotWrite);
  return static_cast<int>(state->db.changed());
}

int relay_any_sending(phone_state *state) {
  sql_statement query(&state->db, "SELECT 1 FROM relay_mail WHERE state = 1 LIMIT 1");
  sql_result result = query.step();
  return result == sql_failed ? state_fail(state, kCannotRead) : result == sql_row;
}

int relay_count_waiting(phone_state *state, int64_t *count) {
  sql_statement query(&state->db, "SELECT count(*) FROM relay_mail WHERE state = 1");
  sql_result result = query.step();
  if (result != sql_row) return state_fail(state, kCannotRead);
  *count = query.number(0);
  return 0;
}

int relay_account_find(phone_state *state, const std::string &name, relay_account_row *row) {
  sql_statement query(&state->db, "SELECT account_id, address, display_name FROM relay_account WHERE name = ?");
  sql_result result = query.bind(name).step();
  if (result == sql_failed) return state_fail(state, kCannotRead);
  if (result == sql_done) return 0;
  row->account_id = query.integer(0);
  row->address = query.text(1);
  row->display_name = query.text(2);
  return 1;
}

int relay_account_keep(phone_state *state, const std::string &name, const relay_account_row &row) {
  sql_statement query(
      &state->db, "INSERT OR REPLACE INTO relay_account (name, account_id, address, display_name) VALUES (?, ?, ?, ?)");
  query.bind(name, row.account_id, row.address, row.display_name);
  return query.run() == 0 ? 0 : state_fail(state, kCannotWrite);
}

int relay_note_set(phone_state *state, const char *key, const std::string &value) {
  sql_statement query(&state->db, "INSERT OR REPLACE INTO relay_status (key, value) VALUES (?, ?)");
  return query.bind(key, value).run() == 0 ? 0 : state_fail(state, kCannotWrite);
}

int relay_note_tell(phone_state *state, const char *key, const std::string &value) {
  int result = 0;
  const int done = state->db.unhurried([&] { return result = relay_note_set(state, key, value); });
  return done < 0 && result == 0 ? state_fail(state, kCannotWrite) : result;
}

int relay_note_get(phone_state *state, const char *key, std::string *value) {
  value->clear();
  sql_statement query(&state->db, "SELECT value FROM relay_status WHERE key = ?");
  sql_result result = query.bind(key).step();
  if (result == sql_row) *value = query.text(0);
  return result == sql_failed ? state_fail(state, kCannotRead) : result == sql_row;
}
