/* Owns contacts.db: its schema, how it is opened, and the watch on it. Called by the contacts service's other files. */
#include "contacts-file.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unicode/uidna.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string_view>

#include "dlog.h"
#include "file-watch.h"
#include "platform-paths.h"

namespace {

constexpr const char *log_tag = "CONTACTS";
constexpr const char *file_name = "contacts.db";
constexpr int64_t application_id = 0x42434e54; /* "BCNT": tells our file from any other database */
constexpr int64_t schema_version = 1;
constexpr int reader_wait_ms = 500; /* the interface waits for a writer's commit, not for a writer that hangs */
constexpr int writer_wait_ms = 5000;
constexpr int work_max = 200 * 1000; /* thousands of steps: bounds what a damaged file can cost */
constexpr size_t domain_max = 255;

constexpr const char *schema =
    "CREATE TABLE person(id INTEGER PRIMARY KEY AUTOINCREMENT, name TEXT NOT NULL);"
    "CREATE TABLE email(id INTEGER PRIMARY KEY, person_id INTEGER NOT NULL REFERENCES person ON DELETE CASCADE,"
    " address TEXT NOT NULL, folded TEXT NOT NULL);"
    "CREATE INDEX email_folded ON email(folded);"
    "CREATE INDEX email_person ON email(person_id);"
    "CREATE TABLE number(id INTEGER PRIMARY KEY, person_id INTEGER NOT NULL REFERENCES person ON DELETE CASCADE,"
    " number TEXT NOT NULL, type INTEGER NOT NULL);"
    "CREATE INDEX number_person ON number(person_id);";

/* --- opening --- */

std::string database_path() {
  const char *folder = platform_data_dir();
  return folder != nullptr ? std::string(folder) + "/" + file_name : std::string();
}

enum class content { ours, nothing, unusable /* logged */ };

content check_file(sql_db *db) {
  int64_t tables = 0, id = 0, version = 0;
  if (db->number("SELECT count(*) FROM sqlite_schema", &tables) || db->number("PRAGMA application_id", &id) ||
      db->number("PRAGMA user_version", &version)) {
    contacts_file_failed(*db, "read");
    return content::unusable;
  }
  if (tables == 0 && id == 0 && version == 0) return content::nothing;
  if (id == application_id && version == schema_version) return content::ours;
  __dlog_print(DLOG_ERROR, log_tag, "\"%s\" is no contacts file of this version", database_path().c_str());
  return content::unusable;
}

bool open_file(sql_db *db, const std::string &path, sql_access access, int wait_ms) {
  if (db->open(path, access, wait_ms) != 0) return false;
  db->limit_work(work_max);
  return true;
}

/* --- watching --- */

file_watch *folder_watch;
uint64_t known_state;
void (*tell)(void);

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

/* A commit ends with the journal's removal; a file that is replaced or removed as a whole counts as well. */
void folder_changed_cb(const char *name, void *) {
  if (name != nullptr && !std::string_view(name).starts_with(file_name)) return;
  const uint64_t state = file_state();
  if (state == known_state) return;
  known_state = state;
  tell();
}

/* --- addresses --- */

using convert_domain = int32_t (*)(const UIDNA *, const char *, int32_t, char *, int32_t, UIDNAInfo *, UErrorCode *);

/* The domain in its other spelling; as it is when it has none. */
std::string domain_in(const std::string &domain, convert_domain convert) {
  static UErrorCode opened = U_ZERO_ERROR;
  static UIDNA *const idna =
      uidna_openUTS46(UIDNA_NONTRANSITIONAL_TO_ASCII | UIDNA_NONTRANSITIONAL_TO_UNICODE, &opened);
  char result[domain_max * 4];
  UIDNAInfo info = UIDNA_INFO_INITIALIZER;
  UErrorCode status = U_ZERO_ERROR;
  if (U_FAILURE(opened) || domain.empty() || domain.size() > domain_max) return domain;
  const int32_t size =
      convert(idna, domain.data(), static_cast<int32_t>(domain.size()), result, sizeof result, &info, &status);
  if (U_FAILURE(status) || info.errors != 0 || size <= 0) return domain;
  return {result, static_cast<size_t>(size)};
}

}  // namespace

int contacts_file_failed(const sql_db &db, const char *doing) {
  __dlog_print(DLOG_ERROR, log_tag, "cannot %s \"%s\": %s", doing, database_path().c_str(), db.error());
  return -1;
}

/* Opened for one operation: a file that was repaired or replaced meanwhile is then simply the one in use. */
int contacts_file_open_to_read(sql_db *db) {
  const std::string path = database_path();
  if (path.empty()) return -1;
  if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) return 0;
  if (!open_file(db, path, sql_access::read, reader_wait_ms)) return contacts_file_failed(*db, "open");
  /* A writer that was killed leaves a journal, which only a connection that may write can roll back. */
  int64_t version = 0;
  if (db->number("PRAGMA user_version", &version)) {
    if (db->trouble() == sql_trouble::busy || access((path + "-journal").c_str(), F_OK) != 0) {
      contacts_file_failed(*db, "read");
      db->close();
      return -1;
    }
    if (!open_file(db, path, sql_access::write, reader_wait_ms)) return contacts_file_failed(*db, "open");
  }
  const content found = check_file(db);
  if (found != content::ours) db->close();
  return found == content::unusable ? -1 : 0;
}

int contacts_file_open_to_write(sql_db *db) {
  const std::string path = database_path();
  if (path.empty()) return -1;
  if (!open_file(db, path, sql_access::create, writer_wait_ms)) return contacts_file_failed(*db, "open");
  if (db->run("PRAGMA foreign_keys = ON; PRAGMA synchronous = FULL; BEGIN IMMEDIATE")) {
    contacts_file_failed(*db, "write");
    db->close();
    return -1;
  }
  const content found = check_file(db);
  bool good = found != content::unusable;
  if (found == content::nothing) {
    good = db->run(schema) == 0 && db->run("PRAGMA application_id = " + std::to_string(application_id)) == 0 &&
           db->run("PRAGMA user_version = " + std::to_string(schema_version)) == 0;
    if (!good) contacts_file_failed(*db, "write");
  }
  if (good) return 0;
  db->close();
  return -1;
}

int contacts_file_commit(sql_db *db) {
  return db->run("COMMIT") == 0 ? 0 : contacts_file_failed(*db, "write");
}

bool contacts_file_watch(void (*changed_cb)(void)) {
  if (folder_watch != nullptr) return true;
  const char *folder = platform_data_dir();
  folder_watch = folder != nullptr ? file_watch_add(folder, folder_changed_cb, nullptr) : nullptr;
  if (folder_watch == nullptr) return false;
  tell = changed_cb;
  known_state = file_state();
  return true;
}

void contacts_file_unwatch(void) {
  if (folder_watch != nullptr) file_watch_del(folder_watch);
  folder_watch = nullptr;
}

std::string contacts_folded(const std::string &text) {
  const std::unique_ptr<char, decltype(&g_free)> result(g_utf8_casefold(text.data(), static_cast<gssize>(text.size())),
                                                        g_free);
  return result.get();
}

std::vector<std::string> contacts_address_spellings(const std::string &address) {
  std::string bare = address;
  const size_t open = bare.rfind('<');
  const size_t close = open == std::string::npos ? open : bare.find('>', open);
  if (close != std::string::npos) bare = bare.substr(open + 1, close - open - 1);
  const auto is_blank = [](char c) { return g_ascii_isspace(c) != 0; };
  bare.erase(bare.begin(), std::find_if_not(bare.begin(), bare.end(), is_blank));
  bare.erase(std::find_if_not(bare.rbegin(), bare.rend(), is_blank).base(), bare.end());
  bare = contacts_folded(bare);
  std::vector<std::string> spellings = {bare};
  const size_t at = bare.rfind('@');
  if (at == std::string::npos) return spellings;
  const std::string local = bare.substr(0, at + 1), domain = bare.substr(at + 1);
  for (const convert_domain convert : {uidna_nameToASCII_UTF8, uidna_nameToUnicodeUTF8}) {
    const std::string other = local + contacts_folded(domain_in(domain, convert));
    if (std::find(spellings.begin(), spellings.end(), other) == spellings.end()) spellings.push_back(other);
  }
  return spellings;
}
