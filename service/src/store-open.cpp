/* Opening the store: alone, checked, and brought up to date. Nothing else decides whether a file is a store. */
#include <fcntl.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "schema.h"
#include "store-priv.h"

/* How long to wait for a service that is just ending to let go of the store. */
constexpr int lock_tries = 60;
constexpr int lock_wait_ms = 50;
/* Readers hold the file only while they recover it after a kill. */
constexpr int busy_ms = 10000;

namespace {

int pragma_number(sqlite3 *db, const char *sql, int64_t *value) {
  sqlite3_stmt *s = nullptr;
  int r = sqlite3_prepare_v2(db, sql, -1, &s, nullptr);
  if (r == SQLITE_OK) {
    r = sqlite3_step(s);
    if (r == SQLITE_ROW) {
      *value = sqlite3_column_int64(s, 0);
      r = SQLITE_OK;
    }
  }
  sqlite3_finalize(s);
  return r;
}

/* Whether what db holds is a store that this build may write, or nothing at all. */
bool check_database(sqlite3 *db, int r, const std::string &path, std::string *why) {
  int64_t version = 0, application = 0, tables = 0;
  if (r == SQLITE_OK) r = pragma_number(db, "PRAGMA user_version", &version);
  if (r == SQLITE_OK) r = pragma_number(db, "PRAGMA application_id", &application);
  if (r == SQLITE_OK) r = pragma_number(db, "SELECT count(*) FROM sqlite_master", &tables);
  if (r == SQLITE_NOTADB) {
    *why = path + " is not a database; it is left as it is";
  } else if (r != SQLITE_OK) {
    *why = path + " cannot be read: " + (db ? sqlite3_errmsg(db) : "no memory");
  } else if (tables == 0 && version == 0) {
    return true;
  } else if (application != store_application_id) {
    *why = path + " is a database of something else; it is left as it is";
  } else if (version > store_version) {
    *why = path + " was written by a newer version (its schema is " + std::to_string(version) + ", this one knows " +
           std::to_string(store_version) + "); it is left as it is";
  } else if (version < 0) {
    *why = path + " has no valid schema number; it is left as it is";
  } else {
    return true;
  }
  return false;
}

/* Looks at the file without writing to it. */
bool check_file(const std::string &path, std::string *why) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) {
    if (errno == ENOENT) return true;
    *why = path + ": " + strerror(errno);
    return false;
  }
  if (!S_ISREG(info.st_mode)) {
    *why = path + " is no file";
    return false;
  }
  if (info.st_size == 0) return true;
  sqlite3 *db = nullptr;
  const int r = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  bool good = check_database(db, r, path, why);
  /* A service that was killed while it made the store left a journal that only a writer may play back. */
  if (!good && sqlite3_errcode(db) == SQLITE_READONLY) good = true;
  sqlite3_close(db);
  return good;
}

store_status bring_up_to_date(store *st) {
  int64_t version = 0;
  if (pragma_number(st->db, "PRAGMA user_version", &version) != SQLITE_OK) return fail_sqlite(st);
  static_assert(std::size(schema_steps) == store_version);
  for (; version < store_version; version++) {
    const store_status status = transaction(st, [&] {
      store_status step = run_sql(st, schema_steps[version]);
      const std::string number = "PRAGMA user_version = " + std::to_string(version + 1);
      if (!step) step = run_sql(st, number.c_str());
      const std::string id = "PRAGMA application_id = " + std::to_string(store_application_id);
      if (!step) step = run_sql(st, id.c_str());
      return step;
    });
    if (status) return status;
  }
  return store_ok;
}

bool take_lock(store *st, const std::string &path, std::string *why) {
  st->lock = open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (st->lock < 0) {
    *why = path + ".lock: " + strerror(errno);
    return false;
  }
  for (int i = 0; flock(st->lock, LOCK_EX | LOCK_NB) != 0; i++) {
    if (errno != EWOULDBLOCK || i == lock_tries) {
      *why = path + " is in use by another brisel-hostd";
      return false;
    }
    poll(nullptr, 0, lock_wait_ms);
  }
  return true;
}

}  // namespace

store *store_open(const std::string &path, std::string *why) {
  store *st = new store;
  bool good = take_lock(st, path, why) && check_file(path, why);
  if (good) {
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    const int r = sqlite3_open_v2(path.c_str(), &st->db, flags, nullptr);
    if (st->db) sqlite3_busy_timeout(st->db, busy_ms);
    good = check_database(st->db, r, path, why);
  }
  if (good) {
    sqlite3_extended_result_codes(st->db, 1);
    /* FULL: in WAL mode only this syncs the log at every commit, which is what an acknowledgement promises. */
    good = run_sql(st,
                   "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; PRAGMA foreign_keys = ON;"
                   "PRAGMA trusted_schema = OFF; PRAGMA cell_size_check = ON") == store_ok &&
           bring_up_to_date(st) == store_ok;
    if (!good) *why = path + " cannot be opened: " + st->error;
  }
  if (good) return st;
  store_close(st);
  return nullptr;
}

void store_close(store *st) {
  if (!st) return;
  sqlite3_close(st->db);
  if (st->lock >= 0) close(st->lock);
  delete st;
}

const std::string &store_error(const store *st) {
  return st->error;
}

int64_t store_last_change(store *st) {
  statement last(st, "SELECT max(seq) FROM changes");
  return last.step() == SQLITE_ROW ? last.number(0) : 0;
}
