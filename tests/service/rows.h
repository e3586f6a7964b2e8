/* Looks into a store's file, and changes it, behind the back of whoever has it open. */
#ifndef TESTS_SERVICE_ROWS_H
#define TESTS_SERVICE_ROWS_H

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

/* What the statements give: a line for each row, its columns separated by '|'; "" also when there is no file. */
inline std::string rows_of(const std::string &file, const std::string &sql) {
  sqlite3 *db = nullptr;
  std::string text;
  sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  sqlite3_busy_timeout(db, 5000);
  const auto add_row = [](void *out, int count, char **values, char **) {
    for (int i = 0; i < count; i++)
      *static_cast<std::string *>(out) += std::string(values[i] ? values[i] : "NULL") + (i + 1 < count ? "|" : "\n");
    return 0;
  };
  sqlite3_exec(db, sql.c_str(), add_row, &text, nullptr);
  sqlite3_close(db);
  return text;
}

inline void run_sql(const std::string &file, const std::string &sql) {
  sqlite3 *db = nullptr;
  sqlite3_open(file.c_str(), &db);
  sqlite3_busy_timeout(db, 5000);
  EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr)) << sqlite3_errmsg(db);
  sqlite3_close(db);
}

#endif
