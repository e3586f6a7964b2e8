#include "contacts.h"

#include <fcntl.h>
#include <glib.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "contacts-vcard.h"
#include "dlog.h"
#include "file-watch.h"
#include "platform-paths.h"
#include "text-check.h"

namespace {

constexpr const char *LOG_TAG = "CONTACTS";
constexpr const char *FILE_NAME = "contacts.db";
constexpr int APPLICATION_ID = 0x42434e54; /* "BCNT": tells our file from any other database */
constexpr int SCHEMA_VERSION = 1;
constexpr int READER_WAIT_MS = 500; /* the interface waits for a writer's commit, not for a writer that hangs */
constexpr int WRITER_WAIT_MS = 5000;
constexpr int STEPS_MAX = 200 * 1000; /* of a thousand operations each: bounds what a damaged file can cost */

constexpr const char *SCHEMA =
    "CREATE TABLE person(id INTEGER PRIMARY KEY AUTOINCREMENT, name TEXT NOT NULL);"
    "CREATE TABLE email(id INTEGER PRIMARY KEY, person_id INTEGER NOT NULL REFERENCES person ON DELETE CASCADE,"
    " address TEXT NOT NULL, folded TEXT NOT NULL);"
    "CREATE INDEX email_folded ON email(folded);"
    "CREATE INDEX email_person ON email(person_id);"
    "CREATE TABLE number(id INTEGER PRIMARY KEY, person_id INTEGER NOT NULL REFERENCES person ON DELETE CASCADE,"
    " number TEXT NOT NULL, type INTEGER NOT NULL);"
    "CREATE INDEX number_person ON number(person_id);";

/* --- views ---------------------------------------------------------------------------------------------- */

struct view_column {
  unsigned property;
  const char *sql;
  const char *folded_sql; /* the column that holds the text for comparing without case; texts only */
  bool is_text;
};

struct view {
  const char *uri;
  const char *from;
  const char *order;
  std::vector<view_column> columns;
};

const std::vector<view> &views() {
  static const std::vector<view> all = {
      {"contacts.person",
       "person",
       "person.id",
       {{0x101, "person.id", nullptr, false}, {0x102, "person.name", nullptr, true}}},
      {"contacts.person/email",
       "email JOIN person ON person.id = email.person_id",
       "person.id, email.id",
       {{0x201, "person.id", nullptr, false},
        {0x202, "person.name", nullptr, true},
        {0x203, "email.address", "email.folded", true}}},
      {"contacts.person/number",
       "number JOIN person ON person.id = number.person_id",
       "person.id, number.id",
       {{0x301, "person.id", nullptr, false},
        {0x302, "person.name", nullptr, true},
        {0x303, "number.number", nullptr, true},
        {0x304, "number.type", nullptr, false}}},
  };
  return all;
}

const view *find_view(const char *uri) {
  if (uri == nullptr) return nullptr;
  const auto found =
      std::find_if(views().begin(), views().end(), [uri](const view &one) { return strcmp(one.uri, uri) == 0; });
  return found != views().end() ? &*found : nullptr;
}

/* --- the file ------------------------------------------------------------------------------------------- */

using database = std::unique_ptr<sqlite3, decltype(&sqlite3_close)>;
using statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

database no_database() {
  return {nullptr, sqlite3_close};
}

std::string database_path() {
  const char *folder = platform_data_dir();
  return folder != nullptr ? std::string(folder) + "/" + FILE_NAME : std::string();
}

void log_database_error(sqlite3 *db, const char *doing) {
  __dlog_print(DLOG_ERROR, LOG_TAG, "cannot %s \"%s\": %s", doing, database_path().c_str(),
               db != nullptr ? sqlite3_errmsg(db) : "no memory");
}

std::string folded(std::string_view text) {
  const std::unique_ptr<char, decltype(&g_free)> result(g_utf8_casefold(text.data(), static_cast<gssize>(text.size())),
                                                        g_free);
  return result.get();
}

statement prepare(sqlite3 *db, const std::string &sql) {
  sqlite3_stmt *raw = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) raw = nullptr;
  return {raw, sqlite3_finalize};
}

void bind_text(sqlite3_stmt *query, int index, std::string_view text) {
  sqlite3_bind_text(query, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

bool execute(sqlite3 *db, const std::string &sql) {
  return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

std::optional<int> query_int(sqlite3 *db, const char *sql) {
  const statement query = prepare(db, sql);
  if (query == nullptr || sqlite3_step(query.get()) != SQLITE_ROW) return std::nullopt;
  return sqlite3_column_int(query.get(), 0);
}

int count_steps(void *data) {
  int *steps = static_cast<int *>(data);
  return ++*steps > STEPS_MAX ? 1 : 0;
}

/* 1: our file, 0: an empty one, -1: unreadable or another's (logged). */
int check_file(sqlite3 *db) {
  const std::optional<int> tables = query_int(db, "SELECT count(*) FROM sqlite_schema");
  const std::optional<int> id = query_int(db, "PRAGMA application_id");
  const std::optional<int> version = query_int(db, "PRAGMA user_version");
  if (!tables || !id || !version) {
    log_database_error(db, "read");
    return -1;
  }
  if (*tables == 0 && *id == 0 && *version == 0) return 0;
  if (*id == APPLICATION_ID && *version == SCHEMA_VERSION) return 1;
  __dlog_print(DLOG_ERROR, LOG_TAG, "\"%s\" is no contacts file of this version", database_path().c_str());
  return -1;
}

/* Opened for one operation: a file that was repaired or replaced meanwhile is then simply the one in use. */
database open_file(const std::string &path, int flags, int wait_ms, int *steps) {
  sqlite3 *raw = nullptr;
  const int result = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
  database db(raw, sqlite3_close);
  if (result != SQLITE_OK) {
    log_database_error(raw, "open");
    return no_database();
  }
  sqlite3_busy_timeout(raw, wait_ms);
  sqlite3_db_config(raw, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(raw, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(raw, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  sqlite3_db_config(raw, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  sqlite3_progress_handler(raw, 1000, count_steps, steps);
  if (!execute(raw, "PRAGMA cell_size_check = ON")) {
    log_database_error(raw, "read");
    return no_database();
  }
  return db;
}

/* db stays NULL, with CONTACTS_ERROR_NONE, when there are no contacts yet. */
int open_to_read(database *db, int *steps) {
  const std::string path = database_path();
  if (path.empty()) return CONTACTS_ERROR_DB;
  if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) return CONTACTS_ERROR_NONE;
  *db = open_file(path, SQLITE_OPEN_READONLY, READER_WAIT_MS, steps);
  /* A writer that was killed leaves a journal, which only a connection that may write can roll back. */
  if (*db != nullptr && !query_int(db->get(), "PRAGMA user_version")) {
    if (sqlite3_errcode(db->get()) == SQLITE_BUSY || access((path + "-journal").c_str(), F_OK) != 0) {
      log_database_error(db->get(), "read");
      db->reset();
      return CONTACTS_ERROR_DB;
    }
    *db = open_file(path, SQLITE_OPEN_READWRITE, READER_WAIT_MS, steps);
  }
  if (*db == nullptr) return CONTACTS_ERROR_DB;
  const int checked = check_file(db->get());
  if (checked <= 0) db->reset();
  return checked < 0 ? CONTACTS_ERROR_DB : CONTACTS_ERROR_NONE;
}

/* Inside a transaction that the caller ends with commit(); closing without it undoes everything. */
database open_to_write(int *steps) {
  const std::string path = database_path();
  if (path.empty()) return no_database();
  database db = open_file(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, WRITER_WAIT_MS, steps);
  if (db == nullptr) return no_database();
  const bool begun = execute(db.get(), "PRAGMA foreign_keys = ON") && execute(db.get(), "PRAGMA synchronous = FULL") &&
                     execute(db.get(), "BEGIN IMMEDIATE");
  if (!begun) {
    log_database_error(db.get(), "write");
    return no_database();
  }
  const int checked = check_file(db.get());
  if (checked < 0) return no_database();
  if (checked == 0) {
    const std::string marks = "PRAGMA application_id = " + std::to_string(APPLICATION_ID) +
                              "; PRAGMA user_version = " + std::to_string(SCHEMA_VERSION);
    if (!execute(db.get(), SCHEMA) || !execute(db.get(), marks)) {
      log_database_error(db.get(), "write");
      return no_database();
    }
  }
  return db;
}

bool commit(sqlite3 *db) {
  if (execute(db, "COMMIT")) return true;
  log_database_error(db, "write");
  return false;
}

/* --- change notification -------------------------------------------------------------------------------- */

struct registration {
  std::string view_uri;
  contacts_db_changed_cb callback;
  void *user_data;
  bool dead = false; /* removed while callbacks run; freed afterwards */
};

int connections;
std::vector<std::unique_ptr<registration>> registrations;
file_watch *folder_watch;
uint64_t known_state;
int delivering;

/* Two states of the file that differ by a commit differ here: SQLite counts commits at byte 24 of its header. Read
   without SQLite; closing the descriptor drops this process's locks on the file, and between operations it has none. */
uint64_t file_state() {
  const int fd = open(database_path().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return 0;
  struct stat info {};
  unsigned char counter[4] = {};
  uint64_t state = 1;
  if (fstat(fd, &info) == 0 && pread(fd, counter, sizeof counter, 24) == sizeof counter) {
    for (const unsigned char byte : counter) state = state << 8 | byte;
    state ^= static_cast<uint64_t>(info.st_ino) * 0x9E3779B97F4A7C15u;
  }
  close(fd);
  return state;
}

void drop_dead() {
  if (delivering > 0) return;
  std::erase_if(registrations, [](const auto &one) { return one->dead; });
  if (registrations.empty() && folder_watch != nullptr) {
    file_watch_del(folder_watch);
    folder_watch = nullptr;
  }
}

/* A commit ends with the journal's removal; a file that is replaced or removed as a whole counts as well. */
void on_folder_changed(const char *name, void *) {
  if (name != nullptr && !std::string_view(name).starts_with(FILE_NAME)) return;
  const uint64_t state = file_state();
  if (state == known_state) return;
  known_state = state;
  delivering++;
  const size_t count = registrations.size();
  for (size_t i = 0; i < count; i++) {
    const registration *one = registrations[i].get();
    if (!one->dead) one->callback(one->view_uri.c_str(), one->user_data);
  }
  delivering--;
  drop_dead();
}

bool load_vcards(const char *path, std::vector<vcard_person> *persons, std::string *reason) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  struct stat info {};
  if (fd < 0 || fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    *reason = fd < 0 ? strerror(errno) : "not a file";
    if (fd >= 0) close(fd);
    return false;
  }
  std::string text(std::min<size_t>(static_cast<size_t>(info.st_size), VCARD_FILE_MAX + 1), '\0');
  size_t size = 0;
  ssize_t got = 1;
  while (size < text.size() && got != 0) {
    got = read(fd, text.data() + size, text.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      *reason = strerror(errno);
      close(fd);
      return false;
    }
    size += static_cast<size_t>(got);
  }
  close(fd);
  text.resize(size);
  return vcard_read(text, persons, reason);
}

bool run(sqlite3_stmt *query) {
  const bool done = sqlite3_step(query) == SQLITE_DONE;
  sqlite3_reset(query);
  return done;
}

bool insert_persons(sqlite3 *db, const std::vector<vcard_person> &persons) {
  const statement person = prepare(db, "INSERT INTO person(name) VALUES(?)");
  const statement email = prepare(db, "INSERT INTO email(person_id, address, folded) VALUES(?, ?, ?)");
  const statement number = prepare(db, "INSERT INTO number(person_id, number, type) VALUES(?, ?, ?)");
  if (person == nullptr || email == nullptr || number == nullptr) return false;
  for (const vcard_person &one : persons) {
    bind_text(person.get(), 1, one.name);
    if (!run(person.get())) return false;
    const sqlite3_int64 id = sqlite3_last_insert_rowid(db);
    for (const std::string &address : one.emails) {
      sqlite3_bind_int64(email.get(), 1, id);
      bind_text(email.get(), 2, address);
      bind_text(email.get(), 3, folded(address));
      if (!run(email.get())) return false;
    }
    for (const vcard_number &entry : one.numbers) {
      sqlite3_bind_int64(number.get(), 1, id);
      bind_text(number.get(), 2, entry.number);
      sqlite3_bind_int(number.get(), 3, entry.type);
      if (!run(number.get())) return false;
    }
  }
  return true;
}

const char *column_text(sqlite3_stmt *query, int column) {
  const unsigned char *text = sqlite3_column_text(query, column);
  return text != nullptr ? reinterpret_cast<const char *>(text) : "";
}

const char *number_type_name(int type) {
  switch (type) {
    case CONTACTS_NUMBER_TYPE_HOME:
      return "home";
    case CONTACTS_NUMBER_TYPE_MOBILE:
      return "mobile";
    case CONTACTS_NUMBER_TYPE_WORK:
      return "work";
    case CONTACTS_NUMBER_TYPE_OTHER:
      return "other";
    default:
      return "none";
  }
}

}  // namespace

const contacts_view_person_s _contacts_person = {"contacts.person", 0x101, 0x102};
const contacts_view_person_email_s _contacts_person_email = {"contacts.person/email", 0x201, 0x202, 0x203};
const contacts_view_person_number_s _contacts_person_number = {"contacts.person/number", 0x301, 0x302, 0x303, 0x304};

/* --- connection ----------------------------------------------------------------------------------------- */

int contacts_connect2(void) {
  /* The file is looked at by each query and not here: a broken one that is repaired works from then on. */
  if (platform_data_dir() == nullptr) {
    __dlog_print(DLOG_ERROR, LOG_TAG, "there is no folder for the contacts");
    return CONTACTS_ERROR_DB;
  }
  connections++;
  return CONTACTS_ERROR_NONE;
}

int contacts_disconnect2(void) {
  if (connections == 0) return CONTACTS_ERROR_NOT_CONNECTED;
  if (--connections == 0) {
    for (const auto &one : registrations) one->dead = true;
    drop_dead();
  }
  return CONTACTS_ERROR_NONE;
}

/* --- queries -------------------------------------------------------------------------------------------- */

struct condition {
  const view_column *column;
  bool ignore_case;
  std::string text;
  int number;
};

struct contacts_filter_s {
  const view *of;
  std::vector<condition> conditions;
};

struct contacts_query_s {
  const view *of;
  std::optional<contacts_filter_s> filter;
};

struct contacts_record_s {
  const view *of;
  std::vector<int> numbers;                      /* by the view's columns */
  std::vector<std::optional<std::string>> texts; /* by the view's columns */
};

struct contacts_list_s {
  std::vector<std::unique_ptr<contacts_record_s>> records;
  size_t current = 0;
};

int contacts_query_create(const char *view_uri, contacts_query_h *query) {
  const view *of = find_view(view_uri);
  if (of == nullptr || query == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  *query = new contacts_query_s{of, std::nullopt};
  return CONTACTS_ERROR_NONE;
}

int contacts_query_destroy(contacts_query_h query) {
  if (query == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  delete query;
  return CONTACTS_ERROR_NONE;
}

int contacts_filter_create(const char *view_uri, contacts_filter_h *filter) {
  const view *of = find_view(view_uri);
  if (of == nullptr || filter == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  *filter = new contacts_filter_s{of, {}};
  return CONTACTS_ERROR_NONE;
}

int contacts_filter_destroy(contacts_filter_h filter) {
  if (filter == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  delete filter;
  return CONTACTS_ERROR_NONE;
}

static const view_column *find_column(const view *of, unsigned property, bool is_text) {
  for (const view_column &column : of->columns) {
    if (column.property == property && column.is_text == is_text) return &column;
  }
  return nullptr;
}

int contacts_filter_add_str(contacts_filter_h filter, unsigned property, int match_flag, const char *value) {
  const bool flag_known = match_flag == CONTACTS_MATCH_EXACTLY || match_flag == CONTACTS_MATCH_FULLSTRING;
  if (filter == nullptr || value == nullptr || !flag_known || !text_utf8_valid(value))
    return CONTACTS_ERROR_INVALID_PARAMETER;
  const view_column *column = find_column(filter->of, property, true);
  /* Case is ignored where the file holds a folded copy to look in. */
  const bool ignore_case = match_flag == CONTACTS_MATCH_FULLSTRING;
  if (column == nullptr || (ignore_case && column->folded_sql == nullptr)) return CONTACTS_ERROR_INVALID_PARAMETER;
  filter->conditions.push_back({column, ignore_case, ignore_case ? folded(value) : value, 0});
  return CONTACTS_ERROR_NONE;
}

int contacts_filter_add_int(contacts_filter_h filter, unsigned property, int match_flag, int value) {
  if (filter == nullptr || match_flag != CONTACTS_MATCH_EQUAL) return CONTACTS_ERROR_INVALID_PARAMETER;
  const view_column *column = find_column(filter->of, property, false);
  if (column == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  filter->conditions.push_back({column, false, {}, value});
  return CONTACTS_ERROR_NONE;
}

int contacts_query_set_filter(contacts_query_h query, contacts_filter_h filter) {
  if (query == nullptr || filter == nullptr || query->of != filter->of) return CONTACTS_ERROR_INVALID_PARAMETER;
  query->filter = *filter;
  return CONTACTS_ERROR_NONE;
}

static std::string query_sql(const contacts_query_s *query) {
  std::string sql = "SELECT ";
  for (const view_column &column : query->of->columns) {
    if (&column != &query->of->columns.front()) sql += ", ";
    sql += column.sql;
  }
  sql += std::string(" FROM ") + query->of->from;
  /* A filter whose conditions all failed to be added finds nobody: the caller asked for someone in particular. */
  if (query->filter) sql += query->filter->conditions.empty() ? " WHERE 0" : " WHERE 1";
  if (query->filter) {
    for (const condition &one : query->filter->conditions)
      sql += std::string(" AND ") + (one.ignore_case ? one.column->folded_sql : one.column->sql) + " = ?";
  }
  return sql + " ORDER BY " + query->of->order + " LIMIT ? OFFSET ?";
}

int contacts_db_get_records_with_query(contacts_query_h query, int offset, int limit, contacts_list_h *list) {
  if (query == nullptr || list == nullptr || offset < 0 || limit < 0) return CONTACTS_ERROR_INVALID_PARAMETER;
  if (connections == 0) return CONTACTS_ERROR_NOT_CONNECTED;
  int steps = 0;
  database db = no_database();
  const int opened = open_to_read(&db, &steps);
  if (opened != CONTACTS_ERROR_NONE) return opened;
  auto found = std::make_unique<contacts_list_s>();
  if (db != nullptr) {
    const statement sql = prepare(db.get(), query_sql(query));
    int index = 0;
    if (sql != nullptr && query->filter) {
      for (const condition &one : query->filter->conditions) {
        if (one.column->is_text) {
          bind_text(sql.get(), ++index, one.text);
        } else {
          sqlite3_bind_int(sql.get(), ++index, one.number);
        }
      }
    }
    int result = SQLITE_ERROR;
    if (sql != nullptr) {
      sqlite3_bind_int(sql.get(), ++index, limit > 0 ? limit : -1);
      sqlite3_bind_int(sql.get(), ++index, offset);
      result = sqlite3_step(sql.get());
    }
    for (; result == SQLITE_ROW; result = sqlite3_step(sql.get())) {
      auto record = std::make_unique<contacts_record_s>();
      record->of = query->of;
      for (int i = 0; i < static_cast<int>(query->of->columns.size()); i++) {
        const bool is_text = query->of->columns[static_cast<size_t>(i)].is_text;
        record->numbers.push_back(is_text ? 0 : sqlite3_column_int(sql.get(), i));
        record->texts.emplace_back();
        /* The file may hold what no import wrote. */
        const char *text = is_text ? column_text(sql.get(), i) : "";
        if (is_text && sqlite3_column_type(sql.get(), i) != SQLITE_NULL && text_utf8_valid(text))
          record->texts.back() = text;
      }
      found->records.push_back(std::move(record));
    }
    if (result != SQLITE_DONE) {
      log_database_error(db.get(), "read");
      return CONTACTS_ERROR_DB;
    }
  }
  *list = found.release();
  return CONTACTS_ERROR_NONE;
}

int contacts_list_get_current_record_p(contacts_list_h list, contacts_record_h *record) {
  if (list == nullptr || record == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  if (list->current >= list->records.size()) return CONTACTS_ERROR_NO_DATA;
  *record = list->records[list->current].get();
  return CONTACTS_ERROR_NONE;
}

int contacts_list_next(contacts_list_h list) {
  if (list == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  if (list->current < list->records.size()) list->current++;
  return list->current < list->records.size() ? CONTACTS_ERROR_NONE : CONTACTS_ERROR_NO_DATA;
}

int contacts_list_destroy(contacts_list_h list, bool destroy_records) {
  if (list == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  /* Every record here belongs to its list, so there is none that could be left to the caller. */
  delete list;
  return CONTACTS_ERROR_NONE;
}

int contacts_record_get_int(contacts_record_h record, unsigned property, int *value) {
  const view_column *column = record != nullptr ? find_column(record->of, property, false) : nullptr;
  if (column == nullptr || value == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  *value = record->numbers[static_cast<size_t>(column - record->of->columns.data())];
  return CONTACTS_ERROR_NONE;
}

int contacts_record_get_str_p(contacts_record_h record, unsigned property, char **value) {
  const view_column *column = record != nullptr ? find_column(record->of, property, true) : nullptr;
  if (column == nullptr || value == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  auto &text = record->texts[static_cast<size_t>(column - record->of->columns.data())];
  *value = text ? text->data() : nullptr;
  return CONTACTS_ERROR_NONE;
}

int contacts_db_add_changed_cb(const char *view_uri, contacts_db_changed_cb callback, void *user_data) {
  if (find_view(view_uri) == nullptr || callback == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  if (connections == 0) return CONTACTS_ERROR_NOT_CONNECTED;
  if (folder_watch == nullptr) {
    const char *folder = platform_data_dir();
    folder_watch = folder != nullptr ? file_watch_add(folder, on_folder_changed, nullptr) : nullptr;
    if (folder_watch == nullptr) return CONTACTS_ERROR_DB;
    known_state = file_state();
  }
  registrations.emplace_back(new registration{view_uri, callback, user_data});
  return CONTACTS_ERROR_NONE;
}

int contacts_db_remove_changed_cb(const char *view_uri, contacts_db_changed_cb callback, void *user_data) {
  if (find_view(view_uri) == nullptr || callback == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  for (const auto &one : registrations) {
    if (one->dead || one->view_uri != view_uri || one->callback != callback || one->user_data != user_data) continue;
    one->dead = true;
    drop_dead();
    return CONTACTS_ERROR_NONE;
  }
  return CONTACTS_ERROR_INVALID_PARAMETER;
}

/* --- for tools ------------------------------------------------------------------------------------------ */

int contacts_import_vcard_file(const char *path, int *count, char **error) {
  if (error != nullptr) *error = nullptr;
  if (path == nullptr || count == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  const auto fail = [error](int code, const std::string &reason) {
    if (error != nullptr) *error = strdup(reason.c_str());
    return code;
  };
  std::vector<vcard_person> persons;
  std::string reason;
  if (!load_vcards(path, &persons, &reason)) return fail(CONTACTS_ERROR_INVALID_PARAMETER, reason);
  int steps = 0;
  const database db = open_to_write(&steps);
  if (db == nullptr || !insert_persons(db.get(), persons) || !commit(db.get()))
    return fail(CONTACTS_ERROR_DB, db != nullptr ? sqlite3_errmsg(db.get()) : "the contacts file cannot be written");
  *count = static_cast<int>(persons.size());
  return CONTACTS_ERROR_NONE;
}

int contacts_remove_by_email(const char *address, int *count) {
  if (address == nullptr || count == nullptr || !text_utf8_valid(address)) return CONTACTS_ERROR_INVALID_PARAMETER;
  int steps = 0;
  database db = no_database();
  const int opened = open_to_read(&db, &steps);
  if (opened != CONTACTS_ERROR_NONE) return opened;
  *count = 0;
  if (db == nullptr) return CONTACTS_ERROR_NONE;
  db = open_to_write(&steps);
  if (db == nullptr) return CONTACTS_ERROR_DB;
  const statement query =
      prepare(db.get(), "DELETE FROM person WHERE id IN (SELECT person_id FROM email WHERE folded = ?)");
  if (query != nullptr) bind_text(query.get(), 1, folded(address));
  if (query == nullptr || !run(query.get())) {
    log_database_error(db.get(), "write");
    return CONTACTS_ERROR_DB;
  }
  const int removed = sqlite3_changes(db.get());
  /* Without a change the transaction is undone by closing, and nobody is told of one. */
  if (removed > 0 && !commit(db.get())) return CONTACTS_ERROR_DB;
  *count = removed;
  return CONTACTS_ERROR_NONE;
}

int contacts_for_each(void (*fn)(const char *json, void *user_data), void *user_data) {
  if (fn == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  int steps = 0;
  database db = no_database();
  const int opened = open_to_read(&db, &steps);
  if (opened != CONTACTS_ERROR_NONE || db == nullptr) return opened;
  /* One read transaction, so that a person's parts belong together. */
  const bool begun = execute(db.get(), "BEGIN");
  const statement person = prepare(db.get(), "SELECT id, name FROM person ORDER BY id");
  const statement email = prepare(db.get(), "SELECT address FROM email WHERE person_id = ? ORDER BY id");
  const statement number = prepare(db.get(), "SELECT number, type FROM number WHERE person_id = ? ORDER BY id");
  if (!begun || person == nullptr || email == nullptr || number == nullptr) {
    log_database_error(db.get(), "read");
    return CONTACTS_ERROR_DB;
  }
  std::vector<std::string> found;
  int result;
  while ((result = sqlite3_step(person.get())) == SQLITE_ROW) {
    nlohmann::json json = {{"person_id", sqlite3_column_int(person.get(), 0)},
                           {"name", column_text(person.get(), 1)},
                           {"emails", nlohmann::json::array()},
                           {"numbers", nlohmann::json::array()}};
    for (sqlite3_stmt *part : {email.get(), number.get()}) {
      sqlite3_bind_int64(part, 1, sqlite3_column_int64(person.get(), 0));
      while (result == SQLITE_ROW && (result = sqlite3_step(part)) == SQLITE_ROW) {
        if (part == email.get()) {
          json["emails"].push_back(column_text(part, 0));
        } else {
          json["numbers"].push_back(
              {{"number", column_text(part, 0)}, {"type", number_type_name(sqlite3_column_int(part, 1))}});
        }
      }
      if (result == SQLITE_DONE) result = SQLITE_ROW;
      sqlite3_reset(part);
    }
    if (result != SQLITE_ROW) break;
    found.push_back(json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  }
  if (result != SQLITE_DONE) {
    log_database_error(db.get(), "read");
    return CONTACTS_ERROR_DB;
  }
  for (const std::string &json : found) fn(json.c_str(), user_data);
  return CONTACTS_ERROR_NONE;
}
