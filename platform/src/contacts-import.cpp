/* What tools do with the contacts: import, remove, list. Called through contacts.h alone. */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <unordered_map>
#include <vector>

#include "contacts-file.h"
#include "contacts-vcard.h"
#include "contacts.h"
#include "platform-paths.h"
#include "text-check.h"

namespace {

bool load_vcards(const char *path, std::vector<vcard_person> *persons, std::string *reason) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  struct stat info {};
  if (fd < 0 || fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    *reason = fd < 0 ? strerror(errno) : "not a file";
    if (fd >= 0) close(fd);
    return false;
  }
  std::string text(std::min<size_t>(static_cast<size_t>(info.st_size), vcard_file_max + 1), '\0');
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

/* --- finding who is there already --- */

/* A person is told by the name and an address or a number; by the name alone when there is neither. Who has which is
   held in memory, so that a file of many cards costs no more than its size. */
using known_persons = std::unordered_map<std::string, int64_t>;

std::string email_key(const std::string &name, const std::string &folded) {
  return name + "\ne" + folded;
}

std::string number_key(const std::string &name, const std::string &number) {
  std::string digits;
  for (const char c : number)
    if ((c >= '0' && c <= '9') || c == '+' || c == '*' || c == '#') digits += c;
  return name + "\nn" + (digits.empty() ? number : digits);
}

int load_known(sql_db *db, known_persons *known) {
  sql_statement emails(db, "SELECT name, folded, person_id FROM email JOIN person ON person.id = person_id");
  sql_statement numbers(db, "SELECT name, number, person_id FROM number JOIN person ON person.id = person_id");
  sql_statement bare(db,
                     "SELECT name, id FROM person WHERE id NOT IN (SELECT person_id FROM email)"
                     " AND id NOT IN (SELECT person_id FROM number)");
  sql_result result;
  while ((result = emails.step()) == sql_row)
    known->try_emplace(email_key(emails.text(0), emails.text(1)), emails.number(2));
  if (result == sql_failed) return -1;
  while ((result = numbers.step()) == sql_row)
    known->try_emplace(number_key(numbers.text(0), numbers.text(1)), numbers.number(2));
  if (result == sql_failed) return -1;
  while ((result = bare.step()) == sql_row) known->try_emplace(bare.text(0), bare.number(1));
  return result == sql_failed ? -1 : 0;
}

/* 0: nobody. */
int64_t find_person(const known_persons &known, const vcard_person &one) {
  const auto id_of = [&](const std::string &key) {
    const auto found = known.find(key);
    return found != known.end() ? found->second : 0;
  };
  if (one.emails.empty() && one.numbers.empty()) return id_of(one.name);
  int64_t id = 0;
  for (const std::string &email : one.emails) {
    for (const std::string &spelling : contacts_address_spellings(email))
      if (id == 0) id = id_of(email_key(one.name, spelling));
  }
  for (const vcard_number &entry : one.numbers)
    if (id == 0) id = id_of(number_key(one.name, entry.number));
  return id;
}

struct statements {
  explicit statements(sql_db *db)
      : add_person(db, "INSERT INTO person(name) VALUES(?)"),
        add_email(db, "INSERT INTO email(person_id, address, folded) VALUES(?, ?, ?)"),
        add_number(db, "INSERT INTO number(person_id, number, type) VALUES(?, ?, ?)") {}
  sql_statement add_person, add_email, add_number;
};

/* Adds the person, or to the one that is there already what the card has more. *added counts new persons. */
int insert_person(sql_db *db, statements *s, known_persons *known, const vcard_person &one, int *added) {
  int64_t id = find_person(*known, one);
  if (id == 0) {
    if (s->add_person.bind(one.name).run() != 0) return -1;
    id = db->last_row();
    ++*added;
    if (one.emails.empty() && one.numbers.empty()) known->try_emplace(one.name, id);
  }
  for (const std::string &email : one.emails) {
    bool there = false;
    const std::vector<std::string> spellings = contacts_address_spellings(email);
    for (const std::string &spelling : spellings) {
      const auto found = known->find(email_key(one.name, spelling));
      there = there || (found != known->end() && found->second == id);
    }
    if (there) continue;
    if (s->add_email.bind(id, email, spellings.front()).run() != 0) return -1;
    (*known)[email_key(one.name, spellings.front())] = id;
  }
  for (const vcard_number &entry : one.numbers) {
    int64_t &holder = (*known)[number_key(one.name, entry.number)];
    if (holder == id) continue;
    if (s->add_number.bind(id, entry.number, entry.type).run() != 0) return -1;
    holder = id;
  }
  return 0;
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

/* Every person with all parts, as JSON texts. 0 or -1. */
int list_persons(sql_db *db, std::vector<std::string> *found) {
  sql_statement person(db, "SELECT id, name FROM person ORDER BY id");
  sql_statement email(db, "SELECT address FROM email WHERE person_id = ? ORDER BY id");
  sql_statement number(db, "SELECT number, type FROM number WHERE person_id = ? ORDER BY id");
  sql_result result;
  while ((result = person.step()) == sql_row) {
    nlohmann::json json = {{"person_id", person.integer(0)},
                           {"name", person.text(1)},
                           {"emails", nlohmann::json::array()},
                           {"numbers", nlohmann::json::array()}};
    email.bind(person.number(0));
    while ((result = email.step()) == sql_row) json["emails"].push_back(email.text(0));
    if (result == sql_failed) return -1;
    number.bind(person.number(0));
    while ((result = number.step()) == sql_row)
      json["numbers"].push_back({{"number", number.text(0)}, {"type", number_type_name(number.integer(1))}});
    if (result == sql_failed) return -1;
    found->push_back(json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  }
  return result == sql_failed ? -1 : 0;
}

const char *why_not(const sql_db &db) {
  if (db.trouble() != sql_trouble::none) return db.error();
  return platform_data_dir() ? "it is no contacts file of this version" : "its folder is not the user's alone";
}

}  // namespace

int contacts_import_vcard_file(const char *path, int *count, char **error) {
  if (error != nullptr) *error = nullptr;
  if (path == nullptr || count == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  const auto answer = [error](int code, const std::string &reason) {
    if (error != nullptr && !reason.empty()) *error = strdup(reason.c_str());
    return code;
  };
  std::vector<vcard_person> persons;
  std::string reason;
  if (!load_vcards(path, &persons, &reason)) return answer(CONTACTS_ERROR_INVALID_PARAMETER, reason);
  sql_db db;
  int added = 0;
  bool good = contacts_file_open_to_write(&db) == 0;
  if (good) {
    known_persons known;
    statements prepared(&db);
    good = load_known(&db, &known) == 0;
    for (const vcard_person &one : persons) good = good && insert_person(&db, &prepared, &known, one, &added) == 0;
  }
  good = good && contacts_file_commit(&db) == 0;
  if (!good) return answer(CONTACTS_ERROR_DB, std::string("the contacts file cannot be written: ") + why_not(db));
  *count = added;
  return answer(CONTACTS_ERROR_NONE, reason);
}

int contacts_remove_by_email(const char *address, int *count) {
  if (address == nullptr || count == nullptr || !text_utf8_valid(address)) return CONTACTS_ERROR_INVALID_PARAMETER;
  sql_db db;
  if (contacts_file_open_to_read(&db) != 0) return CONTACTS_ERROR_DB;
  *count = 0;
  if (!db.is_open()) return CONTACTS_ERROR_NONE;
  if (contacts_file_open_to_write(&db) != 0) return CONTACTS_ERROR_DB;
  int removed = 0;
  {
    sql_statement query(&db, "DELETE FROM person WHERE id IN (SELECT person_id FROM email WHERE folded = ?)");
    for (const std::string &spelling : contacts_address_spellings(address)) {
      if (query.bind(spelling).run() != 0) {
        contacts_file_failed(db, "write");
        return CONTACTS_ERROR_DB;
      }
      removed += static_cast<int>(db.changed());
    }
  }
  /* Without a change the transaction is undone by closing, and nobody is told of one. */
  if (removed > 0 && contacts_file_commit(&db) != 0) return CONTACTS_ERROR_DB;
  *count = removed;
  return CONTACTS_ERROR_NONE;
}

int contacts_for_each(void (*fn)(const char *json, void *user_data), void *user_data) {
  if (fn == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  sql_db db;
  if (contacts_file_open_to_read(&db) != 0) return CONTACTS_ERROR_DB;
  if (!db.is_open()) return CONTACTS_ERROR_NONE;
  std::vector<std::string> found;
  /* One read transaction, so that a person's parts belong together. */
  if (db.run("BEGIN") != 0 || list_persons(&db, &found) != 0) {
    contacts_file_failed(db, "read");
    return CONTACTS_ERROR_DB;
  }
  for (const std::string &json : found) fn(json.c_str(), user_data);
  return CONTACTS_ERROR_NONE;
}
