#include "state.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <ctime>

#include "platform-paths.h"
#include "sql.h"

struct phone_state {
  sqlite3 *db = nullptr;
  std::string error;
};

namespace {

constexpr int kVersion = 1;
/* Far more than a service sends again, few enough for a phone that runs for years. */
constexpr int64_t kRequestsKept = 10000;

constexpr char kSchema[] = R"(
CREATE TABLE IF NOT EXISTS mail (
  row INTEGER PRIMARY KEY AUTOINCREMENT,
  mail_id INTEGER UNIQUE,
  account_id INTEGER NOT NULL,
  message_uid TEXT NOT NULL,
  first INTEGER NOT NULL,
  body TEXT,
  source TEXT NOT NULL DEFAULT '',
  message_id TEXT NOT NULL DEFAULT '',
  refs TEXT NOT NULL DEFAULT '',
  reply_to TEXT NOT NULL DEFAULT ''
);
CREATE INDEX IF NOT EXISTS mail_uid ON mail (message_uid);
CREATE TABLE IF NOT EXISTS request (
  row INTEGER PRIMARY KEY AUTOINCREMENT,
  id INTEGER NOT NULL,
  peer TEXT NOT NULL,
  json TEXT NOT NULL,
  time INTEGER NOT NULL,
  acknowledged INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX IF NOT EXISTS request_id ON request (id);
CREATE TABLE IF NOT EXISTS relay_account (
  name TEXT PRIMARY KEY,
  account_id INTEGER NOT NULL,
  address TEXT NOT NULL DEFAULT '',
  display_name TEXT NOT NULL DEFAULT ''
);
CREATE TABLE IF NOT EXISTS relay_mail (
  account TEXT NOT NULL,
  identity TEXT NOT NULL,
  file TEXT NOT NULL,
  size INTEGER NOT NULL,
  time INTEGER NOT NULL,
  row INTEGER NOT NULL DEFAULT 0,
  mail_id INTEGER NOT NULL DEFAULT 0,
  state INTEGER NOT NULL DEFAULT 0,
  seen INTEGER NOT NULL DEFAULT 0,
  want_seen INTEGER NOT NULL DEFAULT 0,
  PRIMARY KEY (account, file)
) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS relay_mail_id ON relay_mail (mail_id);
CREATE INDEX IF NOT EXISTS relay_identity ON relay_mail (account, identity);
CREATE TABLE IF NOT EXISTS outbox (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  account_id INTEGER NOT NULL,
  created INTEGER NOT NULL,
  recipient TEXT NOT NULL,
  subject TEXT NOT NULL,
  message BLOB NOT NULL,
  state INTEGER NOT NULL DEFAULT 0,
  attempts INTEGER NOT NULL DEFAULT 0,
  interrupted INTEGER NOT NULL DEFAULT 0,
  next_time INTEGER NOT NULL DEFAULT 0,
  done_time INTEGER NOT NULL DEFAULT 0,
  error TEXT NOT NULL DEFAULT ''
);
CREATE TABLE IF NOT EXISTS relay_status (
  key TEXT PRIMARY KEY,
  value TEXT NOT NULL
) WITHOUT ROWID;
)";

int fail(phone_state *state, const char *what) {
  state->error = std::string(what) + ": " + sqlite3_errmsg(state->db);
  return -1;
}

int run(phone_state *state, const char *sql) {
  return sqlite3_exec(state->db, sql, nullptr, nullptr, nullptr) == SQLITE_OK ? 0 : fail(state, "phone state");
}

}  // namespace

std::string phone_state_path(const char *name) {
  const char *folder = platform_state_dir();
  if (!folder) return "";
  return name && *name ? std::string(folder) + "/" + name : folder;
}

phone_state *phone_state_open(std::string *error) {
  std::string path = phone_state_path("phone.db");
  if (path.empty()) {
    *error = "the phone's state folder cannot be made";
    return nullptr;
  }
  auto *state = new phone_state;
  int result = sqlite3_open_v2(path.c_str(), &state->db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  if (result == SQLITE_OK) {
    sqlite3_busy_timeout(state->db, 30000);
    int version = -1;
    sql_query pragma(state->db, "PRAGMA user_version");
    if (pragma.step() == SQLITE_ROW) version = static_cast<int>(pragma.integer(0));
    pragma.finish();
    if (version > kVersion) {
      *error = path + ": made by a newer version of this program";
      phone_state_close(state);
      return nullptr;
    }
    if (version >= 0 && run(state, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL") == 0 &&
        (version == kVersion || (run(state, "BEGIN IMMEDIATE") == 0 && run(state, kSchema) == 0 &&
                                 run(state, "PRAGMA user_version=1") == 0 && run(state, "COMMIT") == 0)))
      return state;
  }
  *error = path + ": " + sqlite3_errmsg(state->db);
  phone_state_close(state);
  return nullptr;
}

void phone_state_close(phone_state *state) {
  if (!state) return;
  sqlite3_close(state->db);
  delete state;
}

const char *phone_state_error(phone_state *state) {
  return state->error.c_str();
}

sqlite3 *phone_state_db(phone_state *state) {
  return state->db;
}

int phone_state_begin(phone_state *state) {
  return run(state, "BEGIN IMMEDIATE");
}
int phone_state_commit(phone_state *state) {
  return run(state, "COMMIT");
}
void phone_state_rollback(phone_state *state) {
  sqlite3_exec(state->db, "ROLLBACK", nullptr, nullptr, nullptr);
}

int phone_state_add_mail(phone_state *state, sent_mail *mail) {
  sql_query query(state->db,
                  "INSERT INTO mail (account_id, message_uid, first, body, source, message_id, refs, reply_to)"
                  " VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
  query.bind(1, mail->account_id).bind(2, mail->message_uid).bind(3, mail->first);
  if (mail->has_body) query.bind(4, mail->body);
  query.bind(5, mail->source).bind(6, mail->message_id).bind(7, mail->references).bind(8, mail->reply_to);
  if (query.step() != SQLITE_DONE) return fail(state, "the mail could not be kept");
  mail->row = sqlite3_last_insert_rowid(state->db);
  return 0;
}

int phone_state_set_mail_id(phone_state *state, int64_t row, int mail_id) {
  /* A number that another mail had belongs to a store that is gone. */
  sql_query clear(state->db, "UPDATE mail SET mail_id = NULL WHERE mail_id = ? AND row <> ?");
  if (clear.bind(1, mail_id).bind(2, row).step() != SQLITE_DONE) return fail(state, "the mail could not be kept");
  sql_query query(state->db, "UPDATE mail SET mail_id = ? WHERE row = ?");
  if (query.bind(1, mail_id).bind(2, row).step() != SQLITE_DONE) return fail(state, "the mail could not be kept");
  return 0;
}

int phone_state_drop_row(phone_state *state, int64_t row) {
  sql_query query(state->db, "DELETE FROM mail WHERE row = ?");
  return query.bind(1, row).step() == SQLITE_DONE ? 0 : fail(state, "the mail could not be forgotten");
}

int phone_state_drop_mails(phone_state *state, const std::vector<int> &mail_ids) {
  for (int id : mail_ids) {
    sql_query query(state->db, "DELETE FROM mail WHERE mail_id = ?");
    if (query.bind(1, id).step() != SQLITE_DONE) return fail(state, "the mail could not be forgotten");
  }
  return 0;
}

int phone_state_find_mail(phone_state *state, int mail_id, const std::string &message_uid, sent_mail *mail) {
  sql_query query(state->db,
                  "SELECT row, mail_id, account_id, first, body, source, message_id, refs, reply_to FROM mail"
                  " WHERE message_uid = ? ORDER BY mail_id IS NOT ?, row DESC LIMIT 1");
  int result = query.bind(1, message_uid).bind(2, mail_id).step();
  if (result == SQLITE_DONE) return 0;
  if (result != SQLITE_ROW) return fail(state, "the phone state cannot be read");
  mail->row = query.integer(0);
  mail->mail_id = static_cast<int>(query.integer(1));
  mail->account_id = static_cast<int>(query.integer(2));
  mail->message_uid = message_uid;
  mail->first = query.integer(3);
  mail->has_body = !query.is_null(4);
  mail->body = query.text(4);
  mail->source = query.text(5);
  mail->message_id = query.text(6);
  mail->references = query.text(7);
  mail->reply_to = query.text(8);
  return 1;
}

int phone_state_add_request(phone_state *state, int64_t id, const std::string &peer, const std::string &json) {
  /* One transaction of the caller or one statement of its own: two readers never both find it new. */
  sql_query query(state->db,
                  "INSERT INTO request (id, peer, json, time) SELECT ?1, ?2, ?3, ?4 WHERE NOT EXISTS"
                  " (SELECT 1 FROM request WHERE id = ?1 AND json = ?3 AND (acknowledged = 0 OR peer = ?2))");
  if (query.bind(1, id).bind(2, peer).bind(3, json).bind(4, static_cast<int64_t>(time(nullptr))).step() != SQLITE_DONE)
    return fail(state, "the request could not be kept");
  if (sqlite3_changes(state->db) > 0) {
    if (sqlite3_last_insert_rowid(state->db) % 64 != 0) return 1; /* the oldest go now and then, not at every one */
    sql_query prune(state->db,
                    "DELETE FROM request WHERE acknowledged = 1 AND row <= (SELECT max(row) FROM request) - ?");
    return prune.bind(1, kRequestsKept).step() == SQLITE_DONE ? 1 : fail(state, "old requests could not be forgotten");
  }
  /* The sender may have it in flight once more: it is known by this sender too from now on. */
  sql_query again(state->db,
                  "UPDATE request SET peer = ?2 WHERE id = ?1 AND json = ?3 AND (acknowledged = 0 OR peer = ?2)");
  if (again.bind(1, id).bind(2, peer).bind(3, json).step() != SQLITE_DONE)
    return fail(state, "the request could not be kept");
  return 0;
}

int phone_state_set_acknowledged(phone_state *state, int64_t id) {
  sql_query query(state->db, "UPDATE request SET acknowledged = 1 WHERE id = ? AND acknowledged = 0");
  return query.bind(1, id).step() == SQLITE_DONE ? 0 : fail(state, "the request could not be marked");
}

int phone_state_list_requests(phone_state *state, std::vector<stored_request> *requests) {
  sql_query query(state->db, "SELECT id, time, json FROM request ORDER BY row");
  int result;
  while ((result = query.step()) == SQLITE_ROW)
    requests->push_back({query.integer(0), query.integer(1), query.text(2)});
  return result == SQLITE_DONE ? 0 : fail(state, "the phone state cannot be read");
}
