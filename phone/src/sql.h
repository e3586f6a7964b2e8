/* One prepared statement, finished when it leaves its scope. A statement that could not be prepared fails at step(). */
#ifndef BRISEL_PHONE_SQL_H
#define BRISEL_PHONE_SQL_H

#include <sqlite3.h>

#include <cstdint>
#include <string>

class sql_query {
 public:
  sql_query(sqlite3 *db, const char *sql) { error_ = sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr); }
  ~sql_query() { finish(); }
  sql_query(const sql_query &) = delete;
  sql_query &operator=(const sql_query &) = delete;

  sql_query &bind(int index, int64_t value) {
    if (statement_) sqlite3_bind_int64(statement_, index, value);
    return *this;
  }
  sql_query &bind(int index, int value) { return bind(index, static_cast<int64_t>(value)); }
  sql_query &bind(int index, const std::string &value) {
    if (statement_)
      sqlite3_bind_text(statement_, index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
    return *this;
  }
  int step() { return statement_ ? sqlite3_step(statement_) : error_; }
  void again() {
    if (!statement_) return;
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
  }
  int64_t integer(int column) { return sqlite3_column_int64(statement_, column); }
  bool is_null(int column) { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
  std::string text(int column) {
    const auto *data = reinterpret_cast<const char *>(sqlite3_column_blob(statement_, column));
    return data ? std::string(data, static_cast<size_t>(sqlite3_column_bytes(statement_, column))) : std::string();
  }
  void finish() {
    sqlite3_finalize(statement_);
    statement_ = nullptr;
  }

 private:
  sqlite3_stmt *statement_ = nullptr;
  int error_ = SQLITE_OK;
};

#endif
