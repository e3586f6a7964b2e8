/* The store from inside: its record, one statement, one transaction, one numbered change. Only the files store*.cpp may
   include it. Thread: the one that opened the store. */
#ifndef BRISEL_STORE_PRIV_H
#define BRISEL_STORE_PRIV_H

#include <sqlite3.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "brisel-common.h"
#include "store-format.h"
#include "store.h"

/* Clients that were away for longer than so many changes make up what they missed from the store itself. One row is one
   event, however many mails it names, and takes some tens of bytes. */
constexpr int64_t changes_kept = 16384;

struct store {
  sqlite3 *db = nullptr;
  int lock = -1;
  std::string error;
};

__attribute__((format(printf, 3, 4))) inline store_status fail(store *st, store_status status, const char *format,
                                                               ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  st->error = text;
  return status;
}

inline store_status fail_sqlite(store *st) {
  return fail(st, store_failed, "the store failed: %s", sqlite3_errmsg(st->db));
}

/* One statement, from prepare to finalize. A statement that could not be prepared fails at its first step. */
struct statement {
  explicit statement(store *owner, const char *text) : st(owner) {
    prepared = sqlite3_prepare_v2(st->db, text, -1, &s, nullptr) == SQLITE_OK;
  }
  ~statement() { sqlite3_finalize(s); }
  statement(const statement &) = delete;
  statement &operator=(const statement &) = delete;

  statement &bind(int64_t value) {
    sqlite3_bind_int64(s, ++bound, value);
    return *this;
  }
  statement &bind(const std::string &text) {
    sqlite3_bind_text64(s, ++bound, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
    return *this;
  }
  statement &bind_null(void) {
    sqlite3_bind_null(s, ++bound);
    return *this;
  }
  /* SQLITE_ROW, SQLITE_DONE or an error. */
  int step(void) { return prepared ? sqlite3_step(s) : SQLITE_ERROR; }
  /* Runs to the end and makes ready for new values. */
  store_status run(void) {
    const int r = step();
    if (r != SQLITE_DONE && r != SQLITE_ROW) return fail_sqlite(st);
    sqlite3_reset(s);
    bound = 0;
    return store_ok;
  }
  int64_t number(int column) { return sqlite3_column_int64(s, column); }
  std::string text(int column) {
    const unsigned char *chars = sqlite3_column_text(s, column);
    if (!chars) return {};
    return {reinterpret_cast<const char *>(chars), static_cast<size_t>(sqlite3_column_bytes(s, column))};
  }

  store *st;
  sqlite3_stmt *s = nullptr;
  bool prepared = false;
  int bound = 0;
};

inline store_status run_sql(store *st, const char *sql) {
  return sqlite3_exec(st->db, sql, nullptr, nullptr, nullptr) == SQLITE_OK ? store_ok : fail_sqlite(st);
}

/* Runs work inside one transaction: commits when it returns store_ok, takes everything back otherwise. */
template <typename F>
store_status transaction(store *st, F &&work) {
  store_status status = run_sql(st, "BEGIN IMMEDIATE");
  if (status) return status;
  status = work();
  if (!status) status = run_sql(st, "COMMIT");
  if (status && !sqlite3_get_autocommit(st->db)) {
    const std::string why = st->error;
    run_sql(st, "ROLLBACK"); /* when even this fails, SQLite takes it back before the next BEGIN */
    st->error = why;
  }
  return status;
}

inline store_status add_change(store *st, brisel_ipc_client_event_type type, const std::vector<int> &ids) {
  statement insert(st, "INSERT INTO changes (type, ids) VALUES (?, ?)");
  const std::string text = ids_to_text(ids);
  store_status status = insert.bind(type).bind(text).run();
  if (status) return status;
  const int64_t seq = sqlite3_last_insert_rowid(st->db);
  if (seq % 64) return store_ok; /* prune now and then, not at every change */
  statement prune(st, "DELETE FROM changes WHERE seq <= ?");
  return prune.bind(seq - changes_kept).run();
}

inline bool exists(store *st, const char *sql, int id) {
  statement find(st, sql);
  return find.bind(id).step() == SQLITE_ROW;
}

inline bool account_exists(store *st, int id) {
  return exists(st, "SELECT 1 FROM account WHERE account_id = ?", id);
}

/* Runs sql for each id; the ids that it changed a row for go to *changed, each once. */
inline store_status run_for_ids(store *st, const char *sql, const std::vector<int> &ids, std::vector<int> *changed) {
  statement run(st, sql);
  for (const int id : ids) {
    const store_status status = run.bind(id).run();
    if (status) return status;
    if (sqlite3_changes(st->db) > 0) changed->push_back(id);
  }
  return store_ok;
}

/* Its body goes with it. */
inline constexpr char sql_delete_mail[] = "DELETE FROM mail WHERE mail_id = ?";
inline constexpr char sql_set_body[] = "INSERT OR REPLACE INTO body (mail_id, text) VALUES (?, ?)";

inline store_status delete_and_tell(store *st, const std::vector<int> &ids, std::vector<int> *gone) {
  const store_status status = run_for_ids(st, sql_delete_mail, ids, gone);
  if (status || gone->empty()) return status;
  return add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, *gone);
}

#endif
