/* The store's file while it is open: whether the name still leads to it, and what is done when it does not. A store
   that was deleted is put back from what is still open; another store in its place is taken over; anything else in its
   place is set aside. hostd.cpp calls it when the folder changes, store-priv.h before each transaction. */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "store-priv.h"

namespace {

bool is_at(const std::string &path, const file_identity &file) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 && info.st_dev == file.device && info.st_ino == file.inode;
}

store_status fail_file(store *st, const char *what) {
  return fail(st, store_failed, "the store's file is not in its place any more, and %s: %s", what, strerror(errno));
}

bool sync_path(const std::string &path, int flags) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | flags);
  if (fd < 0) return false;
  const bool done = fsync(fd) == 0;
  close(fd);
  return done;
}

std::string folder_of(const std::string &path) {
  return path.substr(0, path.rfind('/') + 1);
}

/* The logs of the file that is open: a store of that name must not find them. What is another file's stays. */
void remove_logs(store *st) {
  if (is_at(st->path + "-wal", st->log)) unlink((st->path + "-wal").c_str());
  if (is_at(st->path + "-shm", st->shared)) unlink((st->path + "-shm").c_str());
}

/* Turns to what has the name now; the one that is open stays so when that cannot be. */
store_status open_anew(store *st) {
  std::string why;
  sql_db before = std::move(st->db);
  const file_identity file = st->file, log = st->log, shared = st->shared;
  before.leave_files();
  const bool opened = store_open_file(st, &why);
  st->opening = false;
  if (opened) return store_ok;
  st->db = std::move(before);
  st->file = file;
  st->log = log;
  st->shared = shared;
  return fail(st, store_failed, "%s", why.c_str());
}

/* What lies beside the file went: what the connection still has of it goes into the file, and it is made anew.
   Connections of one process share what they know of a file: the old one must be closed before the new one opens. */
store_status make_logs_anew(store *st) {
  if (st->db.run("PRAGMA wal_checkpoint(TRUNCATE)")) return fail_sql(st);
  remove_logs(st);
  const file_identity file = st->file;
  std::string why;
  st->db.leave_files();
  st->db.close();
  const bool opened = store_open_file(st, &why);
  st->opening = false;
  if (opened) return store_ok;
  st->file = file; /* it is the same one: whoever writes next tries again */
  return fail(st, store_failed, "%s", why.c_str());
}

/* With what lies beside it. */
bool set_aside(store *st) {
  for (const char *end : {"-wal", "-shm"}) rename((st->path + end).c_str(), (st->path + ".strange" + end).c_str());
  return rename(st->path.c_str(), (st->path + ".strange").c_str()) == 0;
}

store_status put_back(store *st) {
  const std::string copy = st->path + ".back";
  for (const char *end : {"", "-journal"}) unlink((copy + end).c_str());
  sql_statement write(&st->db, "VACUUM INTO ?");
  if (write.bind(copy).run()) {
    const store_status status = fail_sql(st);
    unlink(copy.c_str());
    return status;
  }
  write.finish();
  if (!sync_path(copy, 0)) return fail_file(st, "a copy of it cannot be written");
  if (rename(copy.c_str(), st->path.c_str()) != 0 || !sync_path(folder_of(st->path), O_DIRECTORY))
    return fail_file(st, "a copy of it cannot take its place");
  return open_anew(st);
}

/* What lies there is a store: it is another one from now on, also for whoever compares only the numbers of changes. */
store_status take_over(store *st) {
  store_status status = open_anew(st);
  if (!status)
    status = run_sql(st, "INSERT OR REPLACE INTO state (key, value) VALUES ('store_id', random() & 0x7FFFFFFF)");
  return status;
}

}  // namespace

bool store_file_is_there(const store *st) {
  return is_at(st->path, st->file) && is_at(st->path + "-wal", st->log) && is_at(st->path + "-shm", st->shared) &&
         is_at(st->path + ".lock", st->lock_file);
}

store_status store_keep_file(store *st) {
  if (store_file_is_there(st)) return store_ok;
  std::string why;
  struct stat info;
  const char *found = "it was deleted under the service; it is put back from what was still open";
  store_status status = store_ok;
  mkdir(folder_of(st->path).c_str(), 0700); /* mostly it is there; if it cannot be made the lock will say so */
  if (!is_at(st->path + ".lock", st->lock_file) && !store_take_lock(st, &why))
    return fail(st, store_failed, "%s", why.c_str());
  if (is_at(st->path, st->file)) {
    if (store_file_is_there(st)) return store_ok;
    status = make_logs_anew(st);
    if (!status) st->note = st->path + ": what lay beside it was deleted under the service; it is made anew";
    return status;
  }
  remove_logs(st); /* or they would be read as part of whatever lies there */
  if (lstat(st->path.c_str(), &info) != 0) {
    if (errno != ENOENT) return fail_file(st, "it cannot be looked for");
    status = put_back(st);
  } else if (info.st_size > 0 && store_check_path(st->path, &why) && take_over(st) == store_ok) {
    found = "another store has taken its place, and is the one from now on";
  } else {
    found = "something else had taken its place; that is set aside, and the store put back";
    if (!set_aside(st)) return fail_file(st, "what is there cannot be set aside");
    status = put_back(st);
  }
  if (!status) st->note = st->path + ": " + found;
  return status;
}

std::string store_take_note(store *st) {
  return std::exchange(st->note, {});
}
