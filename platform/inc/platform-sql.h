/* SQLite for everybody who keeps a file in it: the host's store, the contacts, the phone's state. One connection, its
   statements, and errors as numbers; no raw handle leaves this file, so nobody can forget to finish a statement.

   Results of whatever works on the file: sql_row (1) a row is there, sql_done (0) done, sql_failed (-1) not done;
   sql_db::error() then says why in English, and sql_db::trouble() which kind of trouble it is. Nothing throws.
   Thread: a connection and its statements belong to the thread that opened it. */
#ifndef BRISEL_PLATFORM_SQL_H
#define BRISEL_PLATFORM_SQL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

struct sqlite3;
struct sqlite3_blob;
struct sqlite3_stmt;

enum sql_result { sql_failed = -1, sql_done = 0, sql_row = 1 };

enum class sql_trouble {
  none,
  busy,           /* another process holds the file for longer than the connection waits */
  full,           /* the disk has no room */
  io,             /* the disk failed */
  not_a_database, /* the file is something else, or damaged */
  read_only,      /* a journal that was left behind must be played back by a connection that may write */
  refused,        /* the rules of the schema forbid it */
  missing,        /* there is no such file, or it may not be opened */
  too_much,       /* the limit of limit_work() was reached */
  other
};

enum class sql_access {
  read,
  write,
  create /* write, and made when missing */
};

/* Before the process uses SQLite for the first time, and without effect later: it then does not count how much memory
   it uses, for which it would take a lock for every piece. */
void sql_count_no_memory(void);

/* One connection. Closed at the end of its scope; what was not committed is then undone. */
struct sql_db {
  sql_db() = default;
  ~sql_db() { close(); }
  sql_db(sql_db &&other) noexcept { *this = static_cast<sql_db &&>(other); }
  sql_db &operator=(sql_db &&other) noexcept;
  sql_db(const sql_db &) = delete;
  sql_db &operator=(const sql_db &) = delete;

  /* Opens the file; whatever was open is closed first. Waits wait_ms at most for other processes, in each call.
     The file, its journals too, is made (or mended to be) readable for its owner alone. What the
     file itself could bring along (views, triggers, functions in its schema) is off. After a failure error() still
     tells why. 0 or -1. */
  int open(const std::string &path, sql_access access, int wait_ms);
  /* Statements that are still there keep the file open until they are gone. */
  void close(void);
  bool is_open(void) const { return handle_ != nullptr; }

  /* The files of the database's name are another's by now: closing will touch none of them. */
  void leave_files(void);

  /* One or more statements that take no values. 0 or -1. */
  int run(const char *sql);
  int run(const std::string &sql) { return run(sql.c_str()); }
  /* The number in the first column of the first row, with NULL as 0. 0; -1 also when there is no row. */
  int number(const char *sql, int64_t *value);
  /* Runs work() inside one transaction that writes: committed when it returns 0, undone otherwise (error() stays what
     work() left). Returns what work() returned, or -1. */
  template <typename F>
  int transaction(F &&work) {
    if (run("BEGIN IMMEDIATE")) return sql_failed;
    int status = work();
    if (!status && run("COMMIT")) status = sql_failed;
    if (status) undo();
    return status;
  }
  /* What work() commits is on the disk with the next commit that waits for it: a process that is killed finds it, a
     machine that loses its power may not. Returns what work() returned, or -1. */
  template <typename F>
  int unhurried(F &&work) {
    if (run("PRAGMA synchronous = NORMAL")) return sql_failed;
    const int status = work();
    return run("PRAGMA synchronous = FULL") ? sql_failed : status;
  }
  /* Takes back the transaction that is open; nothing when none is. error() and trouble() keep what they said. */
  void undo(void);

  int64_t last_row(void) const; /* the row id that the last INSERT gave */
  int64_t changed(void) const;  /* rows that the last INSERT, UPDATE or DELETE touched */
  const char *error(void) const;
  sql_trouble trouble(void) const;
  /* From now on a statement stops with too_much after so many thousands of the machine's steps: bounds what a damaged
     or hostile file can cost. 0: no limit. Counts from the call on, over all statements. */
  void limit_work(int thousands);

 private:
  friend struct sql_statement;
  friend struct sql_value;
  static int count_work_cb(void *data);
  int note(int result);

  struct budget {
    int left;
  };
  sqlite3 *handle_ = nullptr;
  budget *budget_ = nullptr;
  int code_ = 0;
  std::string error_;
};

/* Bytes, as opposed to text. */
struct sql_blob {
  std::string_view bytes;
};

/* A long text or blob of a row, read without a copy of SQLite's own, and no more of it than is wanted. While a
   statement stands on a row, it is of that moment. */
struct sql_value {
  sql_value() = default;
  ~sql_value();
  sql_value(const sql_value &) = delete;
  sql_value &operator=(const sql_value &) = delete;

  /* Once. 0; -1 also when there is no such row, or what is there is neither text nor blob. */
  int open(sql_db *db, const char *table, const char *column, int64_t row);
  size_t size(void) const; /* bytes */
  /* So many of its bytes from one on, size() at the most. 0 or -1. */
  int read(char *bytes, size_t count, size_t from = 0);

 private:
  sql_db *db_ = nullptr;
  sqlite3_blob *value_ = nullptr;
};

/* One prepared statement. One that could not be prepared, or to which a value could not be bound, fails at its next
   step() or run(). Values are copied. */
struct sql_statement {
  sql_statement() = default;
  sql_statement(sql_db *db, const char *sql) { prepare(db, sql, false); }
  sql_statement(sql_db *db, const std::string &sql) { prepare(db, sql.c_str(), false); }
  ~sql_statement() { finish(); }
  sql_statement(sql_statement &&other) noexcept { *this = static_cast<sql_statement &&>(other); }
  sql_statement &operator=(sql_statement &&other) noexcept;
  sql_statement(const sql_statement &) = delete;
  sql_statement &operator=(const sql_statement &) = delete;

  /* For statements that are kept; the db must stay where it is. 0 or -1. */
  int prepare(sql_db *db, const char *sql, bool kept = true);
  bool is_prepared(void) const { return statement_ != nullptr; }
  void finish(void);
  /* Back to the start, without values. */
  void reset(void);

  /* The values of all parameters from the first on, after a reset(): integers and bools, texts, sql_blob, nullptr for
     NULL. A const char * that is NULL is NULL. */
  template <typename... T>
  sql_statement &bind(const T &...values) {
    reset();
    (add(values), ...);
    return *this;
  }
  /* The value of the next parameter. */
  template <typename T>
  sql_statement &add(const T &value) {
    clean_ = false;
    if constexpr (std::is_same_v<T, std::nullptr_t>) {
      bind_null(++bound_);
    } else if constexpr (std::is_same_v<T, sql_blob>) {
      bind_bytes(++bound_, value.bytes, true);
    } else if constexpr (std::is_same_v<T, const char *> || std::is_same_v<T, char *>) {
      value ? bind_bytes(++bound_, value, false) : bind_null(++bound_);
    } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
      bind_number(++bound_, static_cast<int64_t>(value));
    } else {
      bind_bytes(++bound_, std::string_view(value), false);
    }
    return *this;
  }

  sql_result step(void);
  /* To the end, rows are passed over; then reset() for the next values. 0 or -1. */
  int run(void);

  /* Of the row that step() found, columns from 0. What is of another type is converted as SQLite does. */
  int64_t number(int column) const;
  int integer(int column) const { return static_cast<int>(number(column)); }
  bool is_null(int column) const;
  /* "" for NULL; valid until the next step, and for texts also ended by a zero byte. */
  std::string_view view(int column) const;
  std::string text(int column) const { return std::string(view(column)); }

 private:
  void bind_null(int index);
  void bind_number(int index, int64_t value);
  void bind_bytes(int index, std::string_view value, bool blob);
  void note(int result);

  sql_db *db_ = nullptr;
  sqlite3_stmt *statement_ = nullptr;
  int bound_ = 0;
  bool clean_ = true; /* as reset() leaves it */
  bool broken_ = false;
};

#endif
