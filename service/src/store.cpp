#include "store.h"

#include <fcntl.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <ctime>

#include "brisel-common.h"
#include "schema.h"
#include "store-format.h"

/* Clients that were away for longer than so many changes make up what they missed from the store itself. One row is one
   event, however many mails it names, and takes some tens of bytes. */
constexpr int64_t changes_kept = 16384;
/* Requests are sent again only while the service restarts: a few at a time. */
constexpr int64_t uids_kept = 4096;
/* What may wait for a phone: a watch that saw none for weeks stays far below, and a client gone mad fills no disk. */
constexpr int64_t outbox_bytes_max = 16 << 20, outbox_entries_max = 20000;
/* How long to wait for a service that is just ending to let go of the store. */
constexpr int lock_tries = 60;
constexpr int lock_wait_ms = 50;
/* Readers hold the file only while they recover it after a kill. */
constexpr int busy_ms = 10000;

struct store {
  sqlite3 *db = nullptr;
  int lock = -1;
  std::string error;
};

const std::array<field_rule, 15> mail_fields = {{
    {"host_state", field_kind::number, 0},
    {"received_time", field_kind::time, 0},
    {"attachment_count", field_kind::number, 0},
    {"has_image", field_kind::flag, 0},
    {"is_new", field_kind::flag, 0},
    {"account_id", field_kind::number, 0},
    {"security_locked", field_kind::flag, 0},
    {"is_read", field_kind::flag, 0},
    {"host_tag", field_kind::text, token_max},
    {"subject", field_kind::text, text_max},
    {"from_address", field_kind::text, text_max},
    {"from_name", field_kind::text, text_max},
    {"message_uid", field_kind::text, token_max},
    {"contacts", field_kind::contacts, contacts_max},
    {"body", field_kind::text, body_max},
}};

namespace {

/* Every column but mail_id, in the order of mail_fields. */
constexpr char mail_columns[] =
    "host_state, received_time, attachment_count, has_image, is_new, account_id, security_locked, is_read, host_tag, "
    "subject, from_address, from_name, message_uid, contacts, body";

/* Colours for accounts whose phone names none: apart from each other on a dark background. */
constexpr uint32_t account_colors[] = {0x4A9EFFFF, 0xFF8A4AFF, 0x5FD068FF, 0xE46BD8FF, 0xFFD24AFF, 0x4AD9D9FF};

__attribute__((format(printf, 3, 4))) store_status fail(store *st, store_status status, const char *format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  st->error = text;
  return status;
}

store_status fail_sqlite(store *st) {
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

store_status run_sql(store *st, const char *sql) {
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

store_status add_change(store *st, brisel_ipc_client_event_type type, const std::vector<int> &ids) {
  statement insert(st, "INSERT INTO changes (type, ids) VALUES (?, ?)");
  const std::string text = ids_to_text(ids);
  store_status status = insert.bind(type).bind(text).run();
  if (status) return status;
  const int64_t seq = sqlite3_last_insert_rowid(st->db);
  if (seq % 64) return store_ok; /* prune now and then, not at every change */
  statement prune(st, "DELETE FROM changes WHERE seq <= ?");
  return prune.bind(seq - changes_kept).run();
}

bool exists(store *st, const char *sql, int id) {
  statement find(st, sql);
  return find.bind(id).step() == SQLITE_ROW;
}

bool account_exists(store *st, int id) {
  return exists(st, "SELECT 1 FROM account WHERE account_id = ?", id);
}

/* Runs sql for each id; the ids that it changed a row for go to *changed, each once. */
store_status run_for_ids(store *st, const char *sql, const std::vector<int> &ids, std::vector<int> *changed) {
  statement run(st, sql);
  for (const int id : ids) {
    const store_status status = run.bind(id).run();
    if (status) return status;
    if (sqlite3_changes(st->db) > 0) changed->push_back(id);
  }
  return store_ok;
}

/* --- opening ------------------------------------------------------------------------------------------------------ */

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

/* --- fields ------------------------------------------------------------------------------------------------------- */

int mail_field_index(const char *name) {
  for (size_t i = 0; i < mail_fields.size(); i++)
    if (!strcmp(mail_fields[i].name, name)) return static_cast<int>(i);
  return -1;
}

namespace {

store_status check_text(store *st, const char *name, const std::string &text, size_t max) {
  if (text.size() > max) return fail(st, store_invalid, "%s is longer than %zu bytes", name, max);
  if (text.find('\0') != std::string::npos) return fail(st, store_invalid, "%s holds a zero byte", name);
  return store_ok;
}

store_status check_values(store *st, const mail_values &values) {
  for (size_t i = 0; i < mail_fields.size(); i++) {
    const field_rule &rule = mail_fields[i];
    const field_value &value = values.field[i];
    if (!value.set || value.null) continue;
    switch (rule.kind) {
      case field_kind::text: {
        const store_status status = check_text(st, rule.name, value.text, rule.max);
        if (status) return status;
        break;
      }
      case field_kind::contacts:
        break; /* contacts_to_text checked them */
      case field_kind::flag:
        if (value.number != 0 && value.number != 1) return fail(st, store_invalid, "%s is neither 0 nor 1", rule.name);
        break;
      case field_kind::time:
        if (value.number < 0 || value.number > INT32_MAX)
          return fail(st, store_invalid, "%s is no 32-bit time", rule.name);
        break;
      case field_kind::number:
        if (value.number < INT32_MIN || value.number > INT32_MAX)
          return fail(st, store_invalid, "%s is no 32-bit number", rule.name);
        break;
    }
  }
  if (values.field[2].set && values.field[2].number < 0) return fail(st, store_invalid, "attachment_count is below 0");
  return store_ok;
}

void bind_value(statement *s, size_t index, const field_value &value) {
  const field_kind kind = mail_fields[index].kind;
  const bool text = kind == field_kind::text || kind == field_kind::contacts;
  if (value.null || !value.set) {
    s->bind_null();
  } else if (text) {
    s->bind(value.text);
  } else {
    s->bind(value.number);
  }
}

void set_number(mail_values *values, size_t index, int64_t number) {
  field_value &value = values->field[index];
  if (value.set) return;
  value.set = true;
  value.number = number;
}

}  // namespace

/* --- the phone's side --------------------------------------------------------------------------------------------- */

store_status store_add_account(store *st, int *id, const std::string &address, const std::string &name, uint32_t rgba) {
  if (*id < 0) return fail(st, store_invalid, "an account id is not below 1");
  if (address.empty()) return fail(st, store_invalid, "an account needs an address");
  store_status status = check_text(st, "address", address, text_max);
  if (!status) status = check_text(st, "name", name, text_max);
  if (status) return status;
  return transaction(st, [&]() -> store_status {
    /* The phone may tell of an account again, with another name say: it stays the same account with its mails, and
       hears as added so that whatever shows accounts reads it anew. Told the same as before, nothing happens. */
    if (*id && account_exists(st, *id)) {
      statement update(st,
                       "UPDATE account SET email_address = ?2, display_name = ?3, color = ifnull(?4, color) "
                       "WHERE account_id = ?1 AND (email_address IS NOT ?2 OR display_name IS NOT ?3 OR "
                       "(?4 IS NOT NULL AND color IS NOT ?4))");
      update.bind(*id).bind(address);
      name.empty() ? update.bind_null() : update.bind(name);
      rgba ? update.bind(rgba) : update.bind_null();
      const store_status updated = update.run();
      if (updated || sqlite3_changes(st->db) == 0) return updated;
      return add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD, {*id});
    }
    statement insert(st, "INSERT INTO account (account_id, email_address, display_name, color) VALUES (?, ?, ?, ?)");
    *id ? insert.bind(*id) : insert.bind_null();
    insert.bind(address);
    name.empty() ? insert.bind_null() : insert.bind(name);
    insert.bind(rgba);
    store_status added = insert.run();
    if (added) return added;
    const int64_t new_id = sqlite3_last_insert_rowid(st->db);
    if (new_id > INT32_MAX) return fail(st, store_invalid, "there are no account ids left");
    *id = static_cast<int>(new_id);
    if (!rgba) {
      statement color(st, "UPDATE account SET color = ? WHERE account_id = ?");
      const size_t pick = static_cast<size_t>(*id - 1) % std::size(account_colors);
      added = color.bind(account_colors[pick]).bind(*id).run();
      if (added) return added;
    }
    added = add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD, {*id});
    if (added) return added;
    /* A phone that tells of an account knows how many it has, unless it said otherwise. */
    statement known(st, "INSERT OR IGNORE INTO state (key, value) VALUES ('account_count_known', 1)");
    added = known.run();
    if (added || sqlite3_changes(st->db) == 0) return added;
    return add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_COUNT_STATUS, {});
  });
}

store_status store_remove_account(store *st, int id) {
  return transaction(st, [&]() -> store_status {
    if (!account_exists(st, id)) return fail(st, store_invalid, "no account %d", id);
    std::vector<int> mails;
    {
      statement find(st, "SELECT mail_id FROM mail WHERE account_id = ? ORDER BY received_time DESC, mail_id");
      find.bind(id);
      int r;
      while ((r = find.step()) == SQLITE_ROW) mails.push_back(static_cast<int>(find.number(0)));
      if (r != SQLITE_DONE) return fail_sqlite(st);
    }
    store_status status = statement(st, "DELETE FROM mail WHERE account_id = ?").bind(id).run();
    if (!status) status = statement(st, "DELETE FROM account WHERE account_id = ?").bind(id).run();
    /* Mails first: when the account's event comes, none of them is shown any more. */
    if (!status && !mails.empty()) status = add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, mails);
    if (!status) status = add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE, {id});
    return status;
  });
}

store_status store_list_accounts(store *st, std::vector<account_value_record> *accounts) {
  statement list(st,
                 "SELECT account_id, account_value, email_address, display_name, color FROM account "
                 "ORDER BY account_id");
  int r;
  while ((r = list.step()) == SQLITE_ROW)
    accounts->push_back({static_cast<int>(list.number(0)), static_cast<int>(list.number(1)), list.text(2), list.text(3),
                         static_cast<uint32_t>(list.number(4))});
  return r == SQLITE_DONE ? store_ok : fail_sqlite(st);
}

store_status store_set_account_count_known(store *st, bool known) {
  return transaction(st, [&]() -> store_status {
    const int before = store_get_state(st, "account_count_known", -1);
    statement set(st, "INSERT OR REPLACE INTO state (key, value) VALUES ('account_count_known', ?)");
    store_status status = set.bind(known ? 1 : 0).run();
    /* Only the way to known is news: the event says that the number is to be had now. */
    if (!status && known && before != 1) status = add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_COUNT_STATUS, {});
    return status;
  });
}

store_status store_add_mails(store *st, std::vector<mail_values> *mails, std::vector<int> *ids) {
  if (mails->empty()) return store_ok;
  if (mails->size() > mails_max) return fail(st, store_invalid, "more than %zu mails at once", mails_max);
  const int64_t now = time(nullptr);
  for (mail_values &mail : *mails) {
    if (!mail.field[field_account].set) return fail(st, store_invalid, "a mail needs an account_id");
    set_number(&mail, field_time, now);
    set_number(&mail, field_new, 1);
    for (size_t i = 0; i < mail_fields.size(); i++)
      if (mail_fields[i].kind == field_kind::number || mail_fields[i].kind == field_kind::flag) set_number(&mail, i, 0);
    const store_status status = check_values(st, mail);
    if (status) return status;
  }
  ids->clear();
  return transaction(st, [&]() -> store_status {
    const std::string sql =
        std::string("INSERT INTO mail (") + mail_columns + ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
    statement insert(st, sql.c_str());
    for (const mail_values &mail : *mails) {
      const int account = static_cast<int>(mail.field[field_account].number);
      if (!account_exists(st, account)) return fail(st, store_invalid, "no account %d", account);
      for (size_t i = 0; i < mail_fields.size(); i++) bind_value(&insert, i, mail.field[i]);
      const store_status status = insert.run();
      if (status) return status;
      const int64_t id = sqlite3_last_insert_rowid(st->db);
      if (id > INT32_MAX) return fail(st, store_invalid, "there are no mail ids left");
      ids->push_back(static_cast<int>(id));
    }
    return add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD, *ids);
  });
}

store_status store_update_mail(store *st, int mail_id, const mail_values &values) {
  store_status status = check_values(st, values);
  if (status) return status;
  return transaction(st, [&]() -> store_status {
    if (!exists(st, "SELECT 1 FROM mail WHERE mail_id = ?", mail_id))
      return fail(st, store_invalid, "no mail %d", mail_id);
    const field_value &account = values.field[field_account];
    if (account.set && !account_exists(st, static_cast<int>(account.number)))
      return fail(st, store_invalid, "no account %d", static_cast<int>(account.number));
    bool changed = false;
    for (size_t i = 0; i < mail_fields.size(); i++) {
      if (!values.field[i].set) continue;
      const std::string name = mail_fields[i].name;
      const std::string sql = "UPDATE mail SET " + name + " = ?1 WHERE mail_id = ?2 AND " + name + " IS NOT ?1";
      statement update(st, sql.c_str());
      bind_value(&update, i, values.field[i]);
      const store_status updated = update.bind(mail_id).run();
      if (updated) return updated;
      changed = changed || sqlite3_changes(st->db) > 0;
    }
    return changed ? add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, {mail_id}) : store_ok;
  });
}

namespace {

constexpr char sql_delete_mail[] = "DELETE FROM mail WHERE mail_id = ?";

store_status delete_and_tell(store *st, const std::vector<int> &ids, std::vector<int> *gone) {
  const store_status status = run_for_ids(st, sql_delete_mail, ids, gone);
  if (status || gone->empty()) return status;
  return add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, *gone);
}

}  // namespace

store_status store_delete_mails(store *st, const std::vector<int> &ids) {
  return transaction(st, [&]() -> store_status {
    for (const int id : ids)
      if (!exists(st, "SELECT 1 FROM mail WHERE mail_id = ?", id)) return fail(st, store_invalid, "no mail %d", id);
    std::vector<int> gone;
    return delete_and_tell(st, ids, &gone);
  });
}

store_status store_list_mails(store *st, int after_id, size_t limit, size_t bytes, std::vector<mail_values> *mails) {
  const std::string sql =
      std::string("SELECT ") + mail_columns + ", mail_id FROM mail WHERE mail_id > ? ORDER BY mail_id";
  statement list(st, sql.c_str());
  list.bind(after_id);
  size_t used = 0;
  int r = SQLITE_DONE;
  while (mails->size() < limit && (r = list.step()) == SQLITE_ROW) {
    mail_values mail;
    for (size_t i = 0; i < mail_fields.size(); i++) {
      field_value &value = mail.field[i];
      value.set = true;
      value.null = sqlite3_column_type(list.s, static_cast<int>(i)) == SQLITE_NULL;
      if (mail_fields[i].kind == field_kind::text || mail_fields[i].kind == field_kind::contacts) {
        value.text = list.text(static_cast<int>(i));
        used += value.text.size() + 32;
        /* Each number travels as a structure of its own. */
        if (mail_fields[i].kind == field_kind::contacts)
          used += 24 * static_cast<size_t>(std::count(value.text.begin(), value.text.end(), '\n'));
      } else {
        value.number = list.number(static_cast<int>(i));
        used += 32;
      }
    }
    mail.mail_id = static_cast<int>(list.number(static_cast<int>(mail_fields.size())));
    if (used > bytes && !mails->empty()) return store_ok;
    mails->push_back(std::move(mail));
  }
  return r == SQLITE_DONE || r == SQLITE_ROW ? store_ok : fail_sqlite(st);
}

store_status store_set_templates(store *st, const std::vector<std::string> &texts) {
  if (texts.size() > templates_max) return fail(st, store_invalid, "more than %zu templates", templates_max);
  for (const std::string &text : texts) {
    if (text.empty()) return fail(st, store_invalid, "a template is empty");
    const store_status status = check_text(st, "a template", text, text_max);
    if (status) return status;
  }
  return transaction(st, [&]() -> store_status {
    store_status status = run_sql(st, "DELETE FROM template");
    statement insert(st, "INSERT INTO template (position, template_id, text) VALUES (?1, ?1, ?2)");
    for (size_t i = 0; !status && i < texts.size(); i++)
      status = insert.bind(static_cast<int64_t>(i) + 1).bind(texts[i]).run();
    return status;
  });
}

store_status store_list_templates(store *st, std::vector<std::pair<int, std::string>> *templates) {
  statement list(st, "SELECT template_id, text FROM template ORDER BY position");
  int r;
  while ((r = list.step()) == SQLITE_ROW) templates->emplace_back(static_cast<int>(list.number(0)), list.text(1));
  return r == SQLITE_DONE ? store_ok : fail_sqlite(st);
}

store_status store_set_state(store *st, const char *key, int value) {
  statement set(st, "INSERT OR REPLACE INTO state (key, value) VALUES (?, ?)");
  const std::string name = key;
  return set.bind(name).bind(value).run();
}

int store_get_state(store *st, const char *key, int fallback) {
  statement get(st, "SELECT value FROM state WHERE key = ?");
  const std::string name = key;
  return get.bind(name).step() == SQLITE_ROW ? static_cast<int>(get.number(0)) : fallback;
}

/* --- the application's side --------------------------------------------------------------------------------------- */

namespace {

store_status check_room(store *st, size_t bytes) {
  statement held(st, "SELECT count(*), ifnull(sum(length(CAST(json AS BLOB))), 0) FROM outbox");
  if (held.step() != SQLITE_ROW) return fail_sqlite(st);
  if (held.number(0) < outbox_entries_max && held.number(1) + static_cast<int64_t>(bytes) <= outbox_bytes_max)
    return store_ok;
  return fail(st, store_full, "too much waits for the phone already");
}

template <typename F>
store_status request(store *st, const std::string &uid, const std::string &json, int64_t *entry, F &&work) {
  if (uid.empty() || uid.size() > uid_max) return fail(st, store_invalid, "a request's uid has 1 to 128 bytes");
  return transaction(st, [&]() -> store_status {
    statement remember(st, "INSERT OR IGNORE INTO done (uid) VALUES (?)");
    store_status status = remember.bind(uid).run();
    if (status) return status;
    if (sqlite3_changes(st->db) == 0) return store_done;
    const int64_t number = sqlite3_last_insert_rowid(st->db);
    if (number % 64 == 0) {
      statement forget(st, "DELETE FROM done WHERE number <= ?");
      status = forget.bind(number - uids_kept).run();
    }
    if (!status) status = check_room(st, json.size());
    if (!status) status = work();
    if (status) return status;
    statement put(st, "INSERT INTO outbox (json) VALUES (?)");
    status = put.bind(json).run();
    *entry = sqlite3_last_insert_rowid(st->db);
    return status;
  });
}

}  // namespace

store_status store_request_delete(store *st, const std::string &uid, const std::string &json,
                                  const std::vector<int> &ids, int64_t *entry) {
  return request(st, uid, json, entry, [&] {
    std::vector<int> gone;
    return delete_and_tell(st, ids, &gone);
  });
}

store_status store_request_read(store *st, const std::string &uid, const std::string &json, const std::vector<int> &ids,
                                int64_t *entry) {
  return request(st, uid, json, entry, [&]() -> store_status {
    std::vector<int> changed;
    const store_status status =
        run_for_ids(st, "UPDATE mail SET is_read = 1 WHERE mail_id = ? AND is_read = 0", ids, &changed);
    if (status || changed.empty()) return status;
    return add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, changed);
  });
}

store_status store_request_clear_new(store *st, const std::string &uid, const std::string &json, int64_t *entry) {
  return request(st, uid, json, entry, [&]() -> store_status {
    std::vector<int> changed;
    {
      statement find(st, "SELECT mail_id FROM mail WHERE is_new <> 0 ORDER BY mail_id");
      int r;
      while ((r = find.step()) == SQLITE_ROW) changed.push_back(static_cast<int>(find.number(0)));
      if (r != SQLITE_DONE) return fail_sqlite(st);
    }
    if (changed.empty()) return store_ok;
    const store_status status = run_sql(st, "UPDATE mail SET is_new = 0 WHERE is_new <> 0");
    return status ? status : add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, changed);
  });
}

store_status store_request_relay(store *st, const std::string &uid, const std::string &json, int64_t *entry) {
  return request(st, uid, json, entry, [] { return store_ok; });
}

store_status store_outbox(store *st, std::vector<outbox_entry> *entries) {
  statement list(st, "SELECT id, json FROM outbox ORDER BY id");
  int r;
  while ((r = list.step()) == SQLITE_ROW) entries->push_back({list.number(0), list.text(1)});
  return r == SQLITE_DONE ? store_ok : fail_sqlite(st);
}

store_status store_outbox_remove(store *st, int64_t id) {
  return statement(st, "DELETE FROM outbox WHERE id = ?").bind(id).run();
}

store_status store_new_request_id(store *st, int64_t *id) {
  return transaction(st, [&]() -> store_status {
    store_status status = run_sql(st, "INSERT INTO outbox (json) VALUES ('')");
    if (status) return status;
    *id = sqlite3_last_insert_rowid(st->db);
    return statement(st, "DELETE FROM outbox WHERE id = ?").bind(*id).run();
  });
}

store_status store_get_body(store *st, int mail_id, std::string *body, std::string *message_uid) {
  statement get(st, "SELECT body, message_uid FROM mail WHERE mail_id = ?");
  const int r = get.bind(mail_id).step();
  if (r == SQLITE_DONE) return fail(st, store_invalid, "no mail %d", mail_id);
  if (r != SQLITE_ROW) return fail_sqlite(st);
  *body = get.text(0);
  *message_uid = get.text(1);
  return store_ok;
}

store_status store_append_body(store *st, int mail_id, size_t have, const std::string &piece, bool complete) {
  return transaction(st, [&]() -> store_status {
    std::string body, message_uid;
    store_status status = store_get_body(st, mail_id, &body, &message_uid);
    if (status) return status;
    const std::string before = body;
    body.resize(body_length(body));
    if (body.size() != have) return fail(st, store_invalid, "the body of mail %d has changed meanwhile", mail_id);
    const size_t room = body_max - sizeof(tag_more);
    body += piece;
    if (body.size() > room) {
      size_t cut = std::max(room, have);
      while (cut > have && (static_cast<unsigned char>(body[cut]) & 0xC0) == 0x80) cut--;
      body.resize(cut);
      complete = true;
    }
    body += complete ? tag_complete : tag_more;
    if (body == before) return store_ok;
    statement set(st, "UPDATE mail SET body = ? WHERE mail_id = ?");
    status = set.bind(body).bind(mail_id).run();
    return status ? status : add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, {mail_id});
  });
}
