/* Opening the store: alone, checked, and brought up to date. Nothing else decides whether a file is a store. hostd.cpp
   calls it. */
#include <fcntl.h>
#include <poll.h>
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

/* Whether what was opened is a store that this build may write, or nothing at all. */
bool check_database(sql_db *db, int opened, const std::string &path, std::string *why) {
  int64_t version = 0, application = 0, tables = 0;
  if (opened || db->number("PRAGMA user_version", &version) || db->number("PRAGMA application_id", &application) ||
      db->number("SELECT count(*) FROM sqlite_master", &tables)) {
    *why = db->trouble() == sql_trouble::not_a_database
               ? path + " is not a database, or is damaged; it is left as it is"
               : path + " cannot be read: " + db->error();
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
  if (lstat(path.c_str(), &info) != 0) {
    if (errno == ENOENT) return true;
    *why = path + ": " + strerror(errno);
    return false;
  }
  if (!S_ISREG(info.st_mode)) {
    *why = path + (S_ISLNK(info.st_mode) ? " is a symbolic link, which is not followed" : " is no file");
    return false;
  }
  if (info.st_size == 0) return true;
  sql_db db;
  /* A service that was killed while it made the store left a journal that only a writer may play back. */
  return check_database(&db, db.open(path, sql_access::read, busy_ms), path, why) ||
         db.trouble() == sql_trouble::read_only;
}

store_status bring_up_to_date(store *st) {
  int64_t version = 0;
  if (st->db.number("PRAGMA user_version", &version)) return fail_sql(st);
  static_assert(std::size(schema_steps) == store_version);
  for (; version < store_version; version++) {
    const store_status status = transaction(st, [&] {
      const bool done = !st->db.run(schema_steps[version]) &&
                        !st->db.run("PRAGMA user_version = " + std::to_string(version + 1)) &&
                        !st->db.run("PRAGMA application_id = " + std::to_string(store_application_id));
      return done ? store_ok : fail_sql(st);
    });
    if (status) return status;
  }
  return store_ok;
}

file_identity identity_of(const std::string &path) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) return {};
  return {info.st_dev, info.st_ino};
}

}  // namespace

bool store_check_path(const std::string &path, std::string *why) {
  return check_file(path, why);
}

bool store_take_lock(store *st, std::string *why) {
  const std::string path = st->path + ".lock";
  if (st->lock >= 0) close(st->lock);
  st->lock = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (st->lock < 0) {
    *why = path + ": " + strerror(errno);
    return false;
  }
  for (int i = 0; flock(st->lock, LOCK_EX | LOCK_NB) != 0; i++) {
    /* Another one that comes while this one serves does not go so soon. */
    if (errno != EWOULDBLOCK || !st->opening || i == lock_tries) {
      *why = st->path + " is in use by another brisel-hostd";
      return false;
    }
    poll(nullptr, 0, lock_wait_ms);
  }
  st->lock_file = identity_of(path);
  return true;
}

bool store_open_file(store *st, std::string *why) {
  st->opening = true;
  st->file = {};
  /* Of what is opened now: when something else takes its place before this is done, that has to be noticed. */
  const file_identity found = identity_of(st->path);
  if (!check_database(&st->db, st->db.open(st->path, sql_access::create, busy_ms), st->path, why)) return false;
  /* Small pages, in stores that are new: a mail or a mark changes some bytes of each of eight or more, and the log gets
     them whole. It goes into the file when it has four megabytes. FULL: in WAL mode only this syncs the log at every
     commit, which is what an acknowledgement promises. */
  st->error.clear();
  if (st->db.run("PRAGMA page_size = 1024; PRAGMA journal_mode = WAL; PRAGMA wal_autocheckpoint = 4000;"
                 " PRAGMA synchronous = FULL; PRAGMA foreign_keys = ON"))
    fail_sql(st);
  if (!st->error.empty() || bring_up_to_date(st) != store_ok || journal_prune(st) != store_ok) {
    *why = st->path + " cannot be opened: " + st->error;
    return false;
  }
  st->file = found.inode ? found : identity_of(st->path);
  st->log = identity_of(st->path + "-wal");
  st->shared = identity_of(st->path + "-shm");
  st->opening = false;
  return true;
}

store *store_open(const std::string &path, std::string *why) {
  store *st = new store;
  st->path = path;
  if (store_take_lock(st, why) && check_file(path, why) && store_open_file(st, why)) return st;
  store_close(st);
  return nullptr;
}

void store_close(store *st) {
  if (!st) return;
  st->db.close(); /* before the lock goes */
  if (st->lock >= 0) close(st->lock);
  delete st;
}

const std::string &store_error(const store *st) {
  return st->error;
}

int64_t store_last_change(store *st) {
  int64_t last = 0;
  return st->db.number("SELECT max(seq) FROM changes", &last) ? 0 : last;
}
