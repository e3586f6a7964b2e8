/* The store from inside: its record, one transaction, one numbered change. Only the files store-*.cpp may include it.
   Thread: the one that opened the store. */
#ifndef BRISEL_STORE_PRIV_H
#define BRISEL_STORE_PRIV_H

#include <sys/types.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "brisel-common.h"
#include "platform-sql.h"
#include "store-format.h"
#include "store.h"

/* Clients that were away for longer than so many changes make up what they missed from the store itself. One row is one
   event, however many mails it names, and takes some tens of bytes. */
constexpr int64_t changes_kept = 16384;

struct file_identity {
  dev_t device = 0;
  ino_t inode = 0;
};

struct store {
  std::string path;
  sql_db db;
  bool opening = true; /* what lies there is not settled yet */
  int lock = -1;
  file_identity file, log, shared, lock_file; /* those that are open */
  bool phone_there = false;                   /* what is asked now goes to it at once */
  std::string error;
  std::string note; /* what became of the file, until somebody tells it */
};

/* --- store-open.cpp: for store-file.cpp --- */

/* Whether what lies at a path may be opened as the store; it is not written to. */
bool store_check_path(const std::string &path, std::string *why);
/* The lock beside the file, instead of the one held before. */
bool store_take_lock(store *st, std::string *why);
/* Opens st->path and brings it up to date. */
bool store_open_file(store *st, std::string *why);

__attribute__((format(printf, 3, 4))) inline store_status fail(store *st, store_status status, const char *format,
                                                               ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  st->error = text;
  return status;
}

inline store_status fail_sql(store *st) {
  return fail(st, store_failed, "the store failed: %s", st->db.error());
}

/* What a call of the connection or of a statement came to, as the store says it. */
inline store_status checked(store *st, int result) {
  return result == sql_failed ? fail_sql(st) : store_ok;
}

/* Binds all values of a statement and runs it to its end; it is then ready for the next. */
template <typename... T>
store_status run(store *st, sql_statement *statement, const T &...values) {
  return checked(st, statement->bind(values...).run());
}

template <typename... T>
store_status run_sql(store *st, const std::string &sql, const T &...values) {
  sql_statement once(&st->db, sql);
  return run(st, &once, values...);
}

/* Runs work inside one transaction: commits when it returns store_ok, takes everything back otherwise. The connection's
   own answer does not tell a failure from what work may return, so that only work's own is believed. */
template <typename F>
store_status transaction(store *st, F &&work) {
  /* What is acknowledged can be found under the store's name. */
  store_status status = st->opening ? store_ok : store_keep_file(st);
  if (status) return status;
  const int done = st->db.transaction([&] { return status = work(); });
  return done && !status ? fail_sql(st) : status;
}

/* Makes a change, which is one transaction, without waiting for the disk: a service that is killed finds it, a machine
   that loses its power may do it anew. */
template <typename F>
store_status unhurried(store *st, F &&change) {
  store_status status = store_ok;
  const int done = st->db.unhurried([&] { return (status = change()) ? sql_failed : sql_done; });
  return done && !status ? fail_sql(st) : status;
}

inline store_status add_change(store *st, brisel_ipc_client_event_type type, const std::vector<int> &ids) {
  const store_status status = run_sql(st, "INSERT INTO changes (type, ids) VALUES (?, ?)", type, ids_to_text(ids));
  if (status) return status;
  const int64_t seq = st->db.last_row();
  if (seq % 64) return store_ok; /* prune now and then, not at every change */
  return run_sql(st, "DELETE FROM changes WHERE seq <= ?", seq - changes_kept);
}

/* --- requests and their journal (store-requests.cpp, store-journal.cpp) --- */

/* What the journal says of a request, for people. */
struct journal_words {
  int kind = 0; /* a brisel_request_kind; 0: no row */
  int mail_id = 0, mails = 1;
  std::string person, subject, text;
};

/* Each inside a transaction. words: of a request whose outbox entry is id. */
store_status journal_add(store *st, const store_request &asked, int64_t id, const journal_words &words);
/* The words of a request about the mails, before they are gone. */
store_status journal_of_mails(store *st, int kind, const std::vector<int> &ids, journal_words *words);
store_status journal_prune(store *st);
store_status check_room(store *st, const store_request &asked);

/* One transaction: remembers uid and does work, unless uid was done before (store_done). */
template <typename F>
store_status store_do_once(store *st, const std::string &uid, F &&work) {
  /* Requests are sent again only while the service restarts: a few at a time. */
  constexpr int64_t uids_kept = 4096;
  if (uid.empty() || uid.size() > uid_max) return fail(st, store_invalid, "a request's uid has 1 to 128 bytes");
  return transaction(st, [&]() -> store_status {
    store_status status = run_sql(st, "INSERT OR IGNORE INTO done (uid) VALUES (?)", uid);
    if (status) return status;
    if (st->db.changed() == 0) return store_done;
    const int64_t number = st->db.last_row();
    if (number % 64 == 0) status = run_sql(st, "DELETE FROM done WHERE number <= ?", number - uids_kept);
    return status ? status : work();
  });
}

/* The same for what waits for a phone: the json goes into the outbox, *words, which work fills, into the journal. */
template <typename F>
store_status store_do_request(store *st, const store_request &asked, int64_t *entry, const journal_words *words,
                              F &&work) {
  return store_do_once(st, asked.uid, [&]() -> store_status {
    store_status status = check_room(st, asked);
    if (!status) status = work();
    if (status) return status;
    status = run_sql(st, "INSERT INTO outbox (json, client, bytes) VALUES (?, ?, ?)", asked.json, asked.client,
                     asked.json.size());
    *entry = st->db.last_row();
    return status ? status : journal_add(st, asked, *entry, *words);
  });
}

/* --- by id --- */

inline bool exists(store *st, const char *sql, int id) {
  sql_statement find(&st->db, sql);
  return find.bind(id).step() == sql_row;
}

inline bool account_exists(store *st, int id) {
  return exists(st, "SELECT 1 FROM account WHERE account_id = ?", id);
}

/* The ids in the first column of what a statement finds. */
inline store_status read_ids(store *st, sql_statement *find, std::vector<int> *ids) {
  sql_result r;
  while ((r = find->step()) == sql_row) ids->push_back(find->integer(0));
  return checked(st, r);
}

/* Runs sql for each id; the ids that it changed a row for go to *changed, each once. */
inline store_status run_for_ids(store *st, const char *sql, const std::vector<int> &ids, std::vector<int> *changed) {
  sql_statement each(&st->db, sql);
  for (const int id : ids) {
    const store_status status = run(st, &each, id);
    if (status) return status;
    if (st->db.changed() > 0) changed->push_back(id);
  }
  return store_ok;
}

/* Its body goes with it. */
inline constexpr char sql_delete_mail[] = "DELETE FROM mail WHERE mail_id = ?";
inline constexpr char sql_set_body[] = "INSERT OR REPLACE INTO body (mail_id, text) VALUES (?, ?)";

inline store_status delete_and_tell(store *st, const std::vector<int> &ids, std::vector<int> *gone) {
  const store_status status = run_for_ids(st, sql_delete_mail, ids, gone);
  if (status || gone->empty()) return status;
  return add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, *gone);
}

#endif
