/* The one place that calls SQLite. Knows no table: whoever keeps a file has its schema. */
#include "platform-sql.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

namespace {

sql_trouble trouble_of(int code) {
  switch (code & 0xff) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
      return sql_trouble::none;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return sql_trouble::busy;
    case SQLITE_FULL:
      return sql_trouble::full;
    case SQLITE_IOERR:
      return sql_trouble::io;
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
      return sql_trouble::not_a_database;
    case SQLITE_READONLY:
      return sql_trouble::read_only;
    case SQLITE_CONSTRAINT:
    case SQLITE_TOOBIG:
    case SQLITE_MISMATCH:
      return sql_trouble::refused;
    case SQLITE_CANTOPEN:
    case SQLITE_PERM:
      return sql_trouble::missing;
    case SQLITE_INTERRUPT:
      return sql_trouble::too_much;
    default:
      return sql_trouble::other;
  }
}

/* SQLite's journals get the rights of their database, so that one is made first with the right ones. A file of the
   process's own is never opened and closed beside SQLite: closing would drop SQLite's locks. */
void make_private(const std::string &path, bool create) {
  if (create) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd >= 0) close(fd);
  }
  for (const char *end : {"", "-wal", "-shm", "-journal"}) {
    const std::string file = path + end;
    struct stat info;
    if (lstat(file.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
    if (info.st_uid == geteuid() && (info.st_mode & 077) != 0) chmod(file.c_str(), info.st_mode & 0700);
  }
}

/* The file's path without links in its folder's: where the user put the folder is the user's choice. The file itself
   may be none: what is written through it would lie where nobody put it. Nor anything else that is no file: SQLite
   would wait at a pipe for ever. "" with errno. */
std::string path_without_links(const std::string &path) {
  struct stat info;
  if (lstat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
    errno = S_ISLNK(info.st_mode) ? ELOOP : ENOTSUP;
    return {};
  }
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const std::unique_ptr<char, decltype(&free)> real(realpath(folder.c_str(), nullptr), free);
  return real ? std::string(real.get()) + "/" + path.substr(slash == std::string::npos ? 0 : slash + 1) : std::string();
}

}  // namespace

void sql_count_no_memory(void) {
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

/* --- connection --- */

sql_db &sql_db::operator=(sql_db &&other) noexcept {
  if (this == &other) return *this;
  close();
  handle_ = std::exchange(other.handle_, nullptr);
  budget_ = std::exchange(other.budget_, nullptr);
  code_ = other.code_;
  error_ = std::move(other.error_);
  return *this;
}

int sql_db::note(int result) {
  code_ = result;
  if (trouble_of(result) == sql_trouble::none) return 0;
  error_ = handle_ ? sqlite3_errmsg(handle_) : sqlite3_errstr(result);
  return sql_failed;
}

int sql_db::open(const std::string &path, sql_access access, int wait_ms) {
  close();
  code_ = SQLITE_OK;
  error_.clear();
  const std::string file = path_without_links(path);
  if (file.empty()) {
    code_ = SQLITE_CANTOPEN;
    error_ = errno == ELOOP     ? "it is a symbolic link, which is not followed"
             : errno == ENOTSUP ? "it is no file"
                                : strerror(errno);
    return sql_failed;
  }
  make_private(file, access == sql_access::create);
  int flags = SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW; /* one thread only: no locks inside SQLite */
  flags |= access == sql_access::read ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE;
  if (access == sql_access::create) flags |= SQLITE_OPEN_CREATE;
  const int opened = sqlite3_open_v2(file.c_str(), &handle_, flags, nullptr);
  if (note(opened)) {
    close();
    return sql_failed;
  }
  sqlite3_extended_result_codes(handle_, 1);
  sqlite3_busy_timeout(handle_, wait_ms);
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  if (run("PRAGMA cell_size_check = ON")) {
    close();
    return sql_failed;
  }
  return 0;
}

void sql_db::close(void) {
  sqlite3_close_v2(std::exchange(handle_, nullptr));
  delete std::exchange(budget_, nullptr);
}

void sql_db::leave_files(void) {
  /* Nothing goes from the log into the file, and the log is not removed by its name. */
  if (handle_) sqlite3_db_config(handle_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
}

int sql_db::run(const char *sql) {
  if (!handle_) return sql_failed;
  return note(sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr));
}

int sql_db::number(const char *sql, int64_t *value) {
  sql_statement query(this, sql);
  if (query.step() != sql_row) return sql_failed;
  *value = query.number(0);
  return 0;
}

void sql_db::undo(void) {
  if (!handle_ || sqlite3_get_autocommit(handle_)) return;
  /* Should even this fail, SQLite takes it back before the next BEGIN. */
  sqlite3_exec(handle_, "ROLLBACK", nullptr, nullptr, nullptr);
}

int64_t sql_db::last_row(void) const {
  return handle_ ? sqlite3_last_insert_rowid(handle_) : 0;
}

int64_t sql_db::changed(void) const {
  return handle_ ? sqlite3_changes(handle_) : 0;
}

const char *sql_db::error(void) const {
  return error_.empty() ? "no error" : error_.c_str();
}

sql_trouble sql_db::trouble(void) const {
  return trouble_of(code_);
}

int sql_db::count_work_cb(void *data) {
  return --static_cast<budget *>(data)->left < 0;
}

void sql_db::limit_work(int thousands) {
  if (!handle_) return;
  if (!budget_) budget_ = new budget;
  budget_->left = thousands;
  sqlite3_progress_handler(handle_, 1000, thousands > 0 ? count_work_cb : nullptr, budget_);
}

/* --- value --- */

sql_value::~sql_value() {
  sqlite3_blob_close(value_);
}

int sql_value::open(sql_db *db, const char *table, const char *column, int64_t row) {
  db_ = db;
  return db->handle_ ? db->note(sqlite3_blob_open(db->handle_, "main", table, column, row, 0, &value_)) : sql_failed;
}

size_t sql_value::size(void) const {
  return static_cast<size_t>(sqlite3_blob_bytes(value_));
}

int sql_value::read(char *bytes, size_t count, size_t from) {
  return db_->note(sqlite3_blob_read(value_, bytes, static_cast<int>(count), static_cast<int>(from)));
}

/* --- statement --- */

sql_statement &sql_statement::operator=(sql_statement &&other) noexcept {
  if (this == &other) return *this;
  finish();
  db_ = other.db_;
  statement_ = std::exchange(other.statement_, nullptr);
  bound_ = other.bound_;
  clean_ = other.clean_;
  broken_ = other.broken_;
  return *this;
}

void sql_statement::note(int result) {
  if (db_->note(result)) broken_ = true;
}

int sql_statement::prepare(sql_db *db, const char *sql, bool kept) {
  finish();
  db_ = db;
  broken_ = false;
  if (!db->handle_) {
    broken_ = true;
    return sql_failed;
  }
  note(sqlite3_prepare_v3(db->handle_, sql, -1, kept ? SQLITE_PREPARE_PERSISTENT : 0, &statement_, nullptr));
  return broken_ ? sql_failed : 0;
}

void sql_statement::finish(void) {
  sqlite3_finalize(std::exchange(statement_, nullptr));
  bound_ = 0;
  clean_ = true;
}

void sql_statement::reset(void) {
  if (clean_) return;
  clean_ = true;
  bound_ = 0;
  if (!statement_) return;
  sqlite3_reset(statement_); /* returns again what the last step said */
  sqlite3_clear_bindings(statement_);
  broken_ = false;
}

void sql_statement::bind_null(int index) {
  const int result = statement_ ? sqlite3_bind_null(statement_, index) : SQLITE_OK;
  if (result != SQLITE_OK) note(result);
}

void sql_statement::bind_number(int index, int64_t value) {
  const int result = statement_ ? sqlite3_bind_int64(statement_, index, value) : SQLITE_OK;
  if (result != SQLITE_OK) note(result);
}

void sql_statement::bind_bytes(int index, std::string_view value, bool blob) {
  if (!statement_) return;
  const char *bytes = value.data() ? value.data() : ""; /* an empty one is empty, not NULL */
  note(blob ? sqlite3_bind_blob64(statement_, index, bytes, value.size(), SQLITE_TRANSIENT)
            : sqlite3_bind_text64(statement_, index, bytes, value.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
}

sql_result sql_statement::step(void) {
  if (!statement_ || broken_) return sql_failed;
  clean_ = false;
  const int result = sqlite3_step(statement_);
  if (result == SQLITE_ROW) return sql_row;
  return db_->note(result) ? sql_failed : sql_done;
}

int sql_statement::run(void) {
  sql_result result = sql_row;
  while (result == sql_row) result = step();
  reset();
  return result == sql_failed ? sql_failed : 0;
}

int64_t sql_statement::number(int column) const {
  return statement_ ? sqlite3_column_int64(statement_, column) : 0;
}

bool sql_statement::is_null(int column) const {
  return !statement_ || sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

std::string_view sql_statement::view(int column) const {
  if (!statement_) return "";
  /* The value itself is asked, not the statement twice: nobody else has this connection. */
  sqlite3_value *value = sqlite3_column_value(statement_, column);
  const unsigned char *bytes = sqlite3_value_text(value); /* of a blob its bytes as they are */
  if (!bytes) return "";
  return {reinterpret_cast<const char *>(bytes), static_cast<size_t>(sqlite3_value_bytes(value))};
}
