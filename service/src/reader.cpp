/* The one read-only connection to the store: opened when somebody reads, followed when the file changes.
   common-store.cpp and common-events.cpp call it, common-link.cpp tells when to look at the file. */
#include "reader.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "brisel-common.h"
#include "dlog.h"
#include "platform-pages.h"
#include "platform-paths.h"
#include "store-format.h"

namespace {

constexpr char log_tag[] = "BRISEL_COMMON";
/* Readers of a WAL store wait for nobody, except while a service that was killed is being cleaned up after. */
constexpr int busy_ms = 1000;
/* Bytes of a body that are read at once. */
constexpr size_t piece_bytes = 64 << 10;
/* Bytes, of which the memory is got at once. */
constexpr size_t long_body = 256 << 10;

/* In the texts of the queries: the whole mail, its id first and its body last; the same with the type of the body in
   its place; the ids that are asked for. */
constexpr std::string_view mail_mark = "[mail]", head_mark = "[head]", ids_mark = "[ids]";
#define SCREEN_ORDER "ORDER BY received_time DESC, mail_id"
#define PLACE "SELECT mail_id, received_time, security_locked FROM mail "
/* As row_column says. */
#define ROWS                                                                                                       \
  "SELECT mail_id, received_time, is_new, account_id, security_locked, is_read, subject, from_address, from_name " \
  "FROM "
/* ?1 and ?2 are a place, ?3 how many are wanted. */
#define BEHIND "received_time <= ?1 AND (received_time < ?1 OR mail_id > ?2) " SCREEN_ORDER " LIMIT ?3"

constexpr const char *texts[reader_query_count] = {
    "SELECT count(*) FROM account",
    "SELECT account_id, account_value, email_address, display_name FROM account ORDER BY account_id",
    "SELECT account_id, account_value, email_address, display_name FROM account WHERE account_id = ?",
    "SELECT color FROM account WHERE account_id = ?",
    /* The type of a text is told without the text. */
    "SELECT [head] WHERE mail_id = ?",
    "SELECT [mail] " SCREEN_ORDER,
    "SELECT [mail] WHERE account_id = ? " SCREEN_ORDER,
    ROWS "(VALUES [ids]) CROSS JOIN mail ON mail_id = column1",
    ROWS "(VALUES [ids]) CROSS JOIN mail ON mail_id = column1",
    ROWS "mail WHERE " BEHIND,
    ROWS "mail WHERE account_id = ?4 AND " BEHIND,
    PLACE "WHERE " BEHIND,
    PLACE "WHERE account_id = ?4 AND " BEHIND,
    "SELECT count(*) FROM mail",
    "SELECT count(*) FROM mail WHERE account_id = ?",
    "SELECT template_id, text FROM template ORDER BY position",
    "SELECT value FROM state WHERE key = ?",
    "SELECT ifnull(max(seq), 0) FROM changes",
    "SELECT seq, type, ids FROM changes WHERE seq > ? ORDER BY seq",
    "SELECT ifnull((SELECT min(mail_id) FROM mail), seq + 1), seq FROM"
    " (SELECT ifnull((SELECT seq FROM sqlite_sequence WHERE name = 'mail'), 0) AS seq)",
    "SELECT mail_id FROM mail WHERE mail_id >= ? ORDER BY mail_id",
    /* What ended a day ago is left out also while the service has no reason to forget it. */
    "SELECT id, kind, state, mail_id, mails, kind = [reply] AND (state = [refused] OR (state = [waits] AND"
    " offered = 0)), created, changed, person, subject, text, reason, uid FROM journal"
    " WHERE NOT ((state = [sent] OR (kind <> [reply] AND state <> [waits]))"
    " AND changed < CAST(strftime('%s', 'now') AS INTEGER) - [kept])"
    " ORDER BY state IN ([waits], [refused]) DESC, CASE WHEN state IN ([waits], [refused]) THEN id ELSE 0 END,"
    " changed DESC, id DESC",
};

struct {
  int users;
  sql_db db;
  sql_statement statements[reader_query_count];
  dev_t device;
  ino_t inode; /* 0: none was open yet */
  ino_t log;   /* of the file beside it that new changes go to */
  int64_t id;  /* of the store itself, wherever its file goes */
  int replaced;
  int told; /* the last error logged: one line for one trouble, however often it is met */
} reader;

std::string text_of(reader_query which) {
  std::string text = journal_sql(texts[which]);
  const auto put = [&](std::string_view mark, const std::string &columns) {
    const size_t at = text.find(mark);
    if (at != std::string::npos) text.replace(at, mark.size(), columns);
  };
  const std::string head = "mail_id, " + mail_columns(), tables = " FROM mail LEFT JOIN body USING (mail_id)";
  put(mail_mark, head + ", text" + tables);
  put(head_mark, head + ", typeof(text)" + tables);
  std::string ids = "(?)";
  for (int i = 1; i < (which == reader_many_rows ? reader_many : reader_few); i++) ids += ", (?)";
  put(ids_mark, ids);
  return text;
}

std::string store_path(void) {
  const char *dir = platform_data_dir();
  return dir ? std::string(dir) + "/" + store_file : std::string();
}

ino_t log_inode(void) {
  struct stat info;
  return stat((store_path() + "-wal").c_str(), &info) == 0 ? info.st_ino : 0;
}

void close_store(void) {
  for (sql_statement &s : reader.statements) s.finish();
  reader.db.close();
}

int tell(int code, const char *what) {
  if (reader.told != code) __dlog_print(DLOG_ERROR, log_tag, "the store cannot be read: %s", what);
  reader.told = code;
  return BRISEL_COMMON_ERROR_STORE;
}

int tell_trouble(void) {
  return tell(static_cast<int>(reader.db.trouble()), reader.db.error());
}

/* 0 with reader.db closed: there is no store yet. */
int open_store(void) {
  const std::string path = store_path();
  struct stat info;
  if (path.empty()) return tell(-1, "there is no data folder");
  if (stat(path.c_str(), &info) != 0 && errno == ENOENT) return 0;
  sql_db &db = reader.db;
  int64_t version = 0, application = 0, tables = 0;
  int status = 0;
  const auto read_version = [&] {
    return db.number("PRAGMA user_version", &version) || db.number("PRAGMA application_id", &application);
  };
  if (db.open(path, sql_access::read, busy_ms) || read_version() ||
      /* Nothing yet, or somebody else's: the tables before the version, which comes in one transaction with the first
         of them. */
      (version == 0 && application == 0 &&
       (db.number("SELECT count(*) FROM sqlite_schema", &tables) || read_version())) ||
      /* KiB. Every read here goes over its rows once: a larger cache would only be held. */
      db.run("PRAGMA cache_size = -256")) {
    status = tell_trouble();
  } else if (version == 0 && application == 0 && tables == 0) {
    close_store(); /* the service is just making it */
    return 0;
  } else if (application != store_application_id || version != store_version) {
    /* An older one is brought up to date as soon as the service starts. */
    status = tell(-2, "its schema is another one");
  }
  if (status) {
    close_store();
    return status;
  }
  int64_t id = 0;
  db.number("SELECT value FROM state WHERE key = 'store_id'", &id);
  if (reader.inode && reader.id != id) reader.replaced++;
  reader.id = id;
  reader.device = info.st_dev;
  reader.inode = info.st_ino;
  reader.log = log_inode();
  reader.told = 0;
  return 0;
}

}  // namespace

void reader_hold(void) {
  if (!reader.users) sql_count_no_memory();
  reader.users++;
}

void reader_release(void) {
  if (reader.users > 0 && --reader.users == 0) {
    close_store();
    reader.told = 0;
    reader.inode = 0;
  }
}

void reader_give_back(void) {
  /* A query that is ready takes some eight kilobytes, and a tenth of a millisecond to make so. */
  for (sql_statement &s : reader.statements) s.finish();
  if (reader.db.is_open() && reader.db.run("PRAGMA shrink_memory")) tell_trouble();
}

int reader_start(reader_query which, sql_statement **query) {
  *query = nullptr;
  if (!reader.users) return BRISEL_COMMON_ERROR_STORE;
  if (!reader.db.is_open()) {
    const int status = open_store();
    if (status || !reader.db.is_open()) return status;
  }
  sql_statement &s = reader.statements[which];
  if (!s.is_prepared() && s.prepare(&reader.db, text_of(which).c_str())) {
    tell_trouble();
    close_store(); /* the next call tries anew */
    return BRISEL_COMMON_ERROR_STORE;
  }
  *query = &s;
  return 0;
}

int reader_body_beginning(int mail_id, size_t most, char **bytes, size_t *length, bool *is_whole) {
  sql_value body;
  if (body.open(&reader.db, "body", "text", mail_id)) return BRISEL_COMMON_ERROR_STORE;
  *length = std::min(most, body.size());
  *is_whole = *length == body.size();
  char *read = static_cast<char *>(g_try_malloc(*length + 1));
  if (!read) return BRISEL_COMMON_ERROR_MEMORY;
  if (*length >= long_body) platform_pages_get(read, *length + 1);
  if (body.read(read, *length)) {
    g_free(read);
    return BRISEL_COMMON_ERROR_STORE;
  }
  read[*length] = 0;
  *bytes = read;
  return 0;
}

int reader_walk_body(int mail_id, size_t from, size_t most, brisel_body_cb callback, void *data) {
  sql_value body;
  if (body.open(&reader.db, "body", "text", mail_id)) return BRISEL_COMMON_ERROR_STORE;
  const size_t size = body.size();
  const std::unique_ptr<char[]> piece(new (std::nothrow) char[piece_bytes]);
  if (!piece) return BRISEL_COMMON_ERROR_MEMORY;
  size_t left = from < size ? std::min(most, size - from) : 0;
  for (bool goes_on = true; goes_on;) {
    const size_t length = std::min(left, piece_bytes);
    if (length && body.read(piece.get(), length, from)) return BRISEL_COMMON_ERROR_STORE;
    goes_on = callback(piece.get(), length, size, data) && (left -= length) > 0;
    from += length;
  }
  return 0;
}

int reader_done(sql_statement *query, sql_result result) {
  if (result != sql_failed) {
    query->reset();
    return 0;
  }
  tell_trouble();
  close_store();
  return BRISEL_COMMON_ERROR_STORE;
}

void reader_check_file(void) {
  if (!reader.db.is_open()) return;
  struct stat info;
  int64_t version = 0;
  if (stat(store_path().c_str(), &info) != 0) return; /* what is open goes on until there is another one */
  if (info.st_dev != reader.device || info.st_ino != reader.inode || log_inode() != reader.log ||
      reader.db.number("PRAGMA user_version", &version) || version != store_version)
    close_store();
}

int reader_files_replaced(void) {
  return reader.replaced;
}

int reader_get_state(const char *key, int fallback, int *status) {
  sql_statement *query = nullptr;
  *status = reader_start(reader_state, &query);
  if (!query) return fallback;
  const sql_result r = query->bind(key).step();
  const int value = r == sql_row ? query->integer(0) : fallback;
  *status = reader_done(query, r);
  return *status ? fallback : value;
}
