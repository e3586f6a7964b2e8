/* The contacts: vCards in, queries out, changes told to other processes, damaged files. */
#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>

#include "cases.h"
#include "contacts.h"
#include "faults.h"
#include "files.h"
#include "loop.h"
#include "platform-paths.h"

namespace fs = std::filesystem;

namespace {

fs::path database() {
  return fs::path(platform_data_dir()) / "contacts.db";
}

std::string card(const std::string &lines, const std::string &version = "3.0") {
  return "BEGIN:VCARD\r\nVERSION:" + version + "\r\n" + lines + "END:VCARD\r\n";
}

std::string utf16(const std::string &text) {
  gsize size = 0;
  char *bytes = g_convert(text.data(), static_cast<gssize>(text.size()), "UTF-16LE", "UTF-8", nullptr, &size, nullptr);
  const std::string result(bytes, size);
  g_free(bytes);
  return result;
}

/* What was left out and why, a line each; "" when nothing was. */
std::string import(const std::string &text, int *count = nullptr) {
  const fs::path path = fs::path(platform_runtime_dir()) / "import.vcf";
  put_file(path, text);
  int added = -1;
  char *error = nullptr;
  const int result = contacts_import_vcard_file(path.c_str(), &added, &error);
  const std::unique_ptr<char, decltype(&free)> holder(error, free);
  if (count != nullptr) *count = added;
  if (result == CONTACTS_ERROR_NONE) return error != nullptr ? error : "";
  EXPECT_EQ(added, -1) << error;
  return error != nullptr ? error : "no reason";
}

std::vector<nlohmann::json> all() {
  std::vector<nlohmann::json> found;
  const int result = contacts_for_each(
      [](const char *json, void *data) {
        static_cast<std::vector<nlohmann::json> *>(data)->push_back(nlohmann::json::parse(json));
      },
      &found);
  EXPECT_EQ(result, CONTACTS_ERROR_NONE);
  return found;
}

/* The records of a query as "person-id name text type" lines; a NULL filter function: no filter. */
std::vector<std::string> query(const char *uri, const std::function<int(contacts_filter_h)> &filter, int offset = 0,
                               int limit = 0, int *status = nullptr) {
  std::vector<std::string> rows;
  contacts_query_h made = nullptr;
  contacts_filter_h by = nullptr;
  contacts_list_h list = nullptr;
  EXPECT_EQ(contacts_query_create(uri, &made), CONTACTS_ERROR_NONE);
  if (filter) {
    EXPECT_EQ(contacts_filter_create(uri, &by), CONTACTS_ERROR_NONE);
    filter(by);
    EXPECT_EQ(contacts_query_set_filter(made, by), CONTACTS_ERROR_NONE);
    contacts_filter_destroy(by); /* the query has its copy */
  }
  const int result = contacts_db_get_records_with_query(made, offset, limit, &list);
  if (status != nullptr) *status = result;
  contacts_query_destroy(made);
  if (result != CONTACTS_ERROR_NONE) return rows;
  contacts_record_h record = nullptr;
  while (contacts_list_get_current_record_p(list, &record) == CONTACTS_ERROR_NONE) {
    const auto &mail = _contacts_person_email;
    const auto &number = _contacts_person_number;
    const bool is_mail = strcmp(uri, mail._uri) == 0, is_number = strcmp(uri, number._uri) == 0;
    int id = 0, type = -1;
    char *name = nullptr, *text = nullptr;
    contacts_record_get_int(record, is_mail ? mail.person_id : is_number ? number.person_id : _contacts_person.id, &id);
    contacts_record_get_str_p(record,
                              is_mail     ? mail.display_name
                              : is_number ? number.display_name
                                          : _contacts_person.display_name,
                              &name);
    if (is_mail || is_number) contacts_record_get_str_p(record, is_mail ? mail.email : number.number, &text);
    if (is_number) contacts_record_get_int(record, number.type, &type);
    if (is_mail) EXPECT_LT(contacts_record_get_int(record, mail.email, &type), 0) << "a text is no number";
    rows.push_back(std::to_string(id) + " " + (name != nullptr ? name : "-") + (text != nullptr ? " " : "") +
                   (text != nullptr ? text : "") + (type >= 0 ? " " + std::to_string(type) : ""));
    if (contacts_list_next(list) == CONTACTS_ERROR_NO_DATA) break;
  }
  EXPECT_EQ(contacts_list_get_current_record_p(list, &record), CONTACTS_ERROR_NO_DATA);
  contacts_list_destroy(list, true);
  return rows;
}

std::vector<std::string> by_address(const char *address, int match = CONTACTS_MATCH_FULLSTRING) {
  return query(_contacts_person_email._uri, [&](contacts_filter_h filter) {
    return contacts_filter_add_str(filter, _contacts_person_email.email, match, address);
  });
}

struct Contacts : testing::Test {
  void SetUp() override {
    fs::remove(database());
    ASSERT_EQ(contacts_connect2(), CONTACTS_ERROR_NONE);
  }
  void TearDown() override { contacts_disconnect2(); }
};

using VCard = Contacts;
using Changes = Contacts;
using BadFile = Contacts;
using lines = std::vector<std::string>;

/* --- queries --- */

TEST_F(Contacts, AreFoundByAddressAndById) {
  EXPECT_TRUE(by_address("anna@example.org").empty()); /* no file yet */
  EXPECT_FALSE(fs::exists(database()));
  ASSERT_EQ(
      import(card("FN:Anna\r\nEMAIL:Anna@Example.org\r\nEMAIL:a@x\r\nTEL;TYPE=WORK:2\r\nTEL;TYPE=CELL:1\r\n") +
             card("FN:Bo\r\nEMAIL:ÉVA@example.org\r\nTEL:3\r\n") + card("FN:Anna two\r\nEMAIL:anna@example.ORG\r\n")),
      "");
  EXPECT_EQ(by_address("ANNA@example.org"), (lines{"1 Anna Anna@Example.org", "3 Anna two anna@example.ORG"}));
  EXPECT_EQ(by_address("anna@example.org", CONTACTS_MATCH_EXACTLY), lines{});
  EXPECT_EQ(by_address("anna@example.ORG", CONTACTS_MATCH_EXACTLY), lines{"3 Anna two anna@example.ORG"});
  EXPECT_EQ(by_address("éva@EXAMPLE.org"), lines{"2 Bo ÉVA@example.org"});
  for (const char *none : {"anna@example", "%", "_nna@example.org", "", "' OR 1=1 --"})
    EXPECT_EQ(by_address(none), lines{});

  const auto numbers_of = [](int id) {
    return query(_contacts_person_number._uri, [id](contacts_filter_h filter) {
      return contacts_filter_add_int(filter, _contacts_person_number.person_id, CONTACTS_MATCH_EQUAL, id);
    });
  };
  EXPECT_EQ(numbers_of(1), (lines{"1 Anna 2 3", "1 Anna 1 2"})); /* in the order of the card */
  EXPECT_EQ(numbers_of(2), lines{"2 Bo 3 0"});
  EXPECT_EQ(numbers_of(3), lines{});
  EXPECT_EQ(query(_contacts_person._uri, nullptr), (lines{"1 Anna", "2 Bo", "3 Anna two"}));
  EXPECT_EQ(query(_contacts_person._uri, nullptr, 1, 1), lines{"2 Bo"});
  /* Two conditions hold together; a filter to which none could be added finds nobody. */
  EXPECT_EQ(query(_contacts_person_number._uri,
                  [](contacts_filter_h filter) {
                    contacts_filter_add_int(filter, _contacts_person_number.person_id, CONTACTS_MATCH_EQUAL, 1);
                    return contacts_filter_add_int(filter, _contacts_person_number.type, CONTACTS_MATCH_EQUAL, 2);
                  }),
            lines{"1 Anna 1 2"});
  EXPECT_EQ(query(_contacts_person._uri,
                  [](contacts_filter_h filter) {
                    const int result = contacts_filter_add_int(filter, _contacts_person_number.type, 0, 2);
                    EXPECT_EQ(result, CONTACTS_ERROR_INVALID_PARAMETER);
                    return result;
                  }),
            lines{});
}

TEST_F(Contacts, RefuseWhatMakesNoSense) {
  contacts_query_h made = nullptr;
  contacts_filter_h other = nullptr;
  contacts_list_h list = nullptr;
  EXPECT_EQ(contacts_query_create("contacts.nothing", &made), CONTACTS_ERROR_INVALID_PARAMETER);
  ASSERT_EQ(contacts_query_create(_contacts_person._uri, &made), CONTACTS_ERROR_NONE);
  ASSERT_EQ(contacts_filter_create(_contacts_person_email._uri, &other), CONTACTS_ERROR_NONE);
  EXPECT_EQ(contacts_query_set_filter(made, other), CONTACTS_ERROR_INVALID_PARAMETER);
  for (const auto &[field, text] :
       {std::pair{_contacts_person_email.person_id, "1"}, {_contacts_person_email.email, "\xFF"}})
    EXPECT_EQ(contacts_filter_add_str(other, field, CONTACTS_MATCH_FULLSTRING, text), CONTACTS_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(contacts_db_get_records_with_query(made, -1, 0, &list), CONTACTS_ERROR_INVALID_PARAMETER);
  contacts_disconnect2();
  EXPECT_EQ(contacts_db_get_records_with_query(made, 0, 0, &list), CONTACTS_ERROR_NOT_CONNECTED);
  EXPECT_EQ(contacts_disconnect2(), CONTACTS_ERROR_NOT_CONNECTED);
  contacts_connect2();
  contacts_filter_destroy(other);
  contacts_query_destroy(made);
}

TEST_F(Contacts, AreRemovedByAddressWithAllTheyHave) {
  import(card("FN:Anna\r\nEMAIL:a@x\r\nEMAIL:b@x\r\nTEL:1\r\n") + card("FN:Bo\r\nEMAIL:B@X\r\n") +
         card("FN:Cy\r\nEMAIL:c@x\r\n"));
  int count = -1;
  EXPECT_EQ(contacts_remove_by_email("none@x", &count), CONTACTS_ERROR_NONE);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(contacts_remove_by_email("B@x", &count), CONTACTS_ERROR_NONE);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(query(_contacts_person_email._uri, nullptr), lines{"3 Cy c@x"});
  EXPECT_EQ(query(_contacts_person_number._uri, nullptr), lines{});
  import(card("FN:Di\r\n"));
  EXPECT_EQ(query(_contacts_person._uri, nullptr), (lines{"3 Cy", "4 Di"})); /* an id is never given twice */
}

/* --- vCards --- */

TEST_F(VCard, ReadsWhatPhonesWrite) {
  auto rows = cases_of(CASES_DIR "/cards.txt", 3); /* what, the file, the person without its id */
  for (const char *mark : {"\xFF\xFE", ""})
    rows.push_back({"UTF-16", mark + utf16(card("FN:Zwölf\r\n")), R"({"name":"Zwölf","emails":[],"numbers":[]})"});
  for (const auto &row : rows) {
    fs::remove(database());
    int count = 0;
    ASSERT_EQ(import(row[1], &count), "") << row[0];
    EXPECT_EQ(count, 1) << row[0];
    nlohmann::json expected = nlohmann::json::parse(row[2]);
    expected["person_id"] = 1;
    EXPECT_EQ(all(), std::vector<nlohmann::json>{expected}) << row[0];
  }
}

/* What cannot be used is named by its line and left out; all the rest is imported. */
TEST_F(VCard, LeavesOutWhatIsBadAndTakesTheRest) {
  const std::string good = card("FN:Good\r\n"), after = card("FN:After\r\n");
  const std::string other_set = "the text is not in the character set that is named; it is left out";
  std::string deep = "BEGIN:VCARD\r\n", many, notes;
  for (int i = 0; i < 9; i++) deep += "AGENT:\r\nBEGIN:VCARD\r\n";
  for (int i = 0; i < 10; i++) deep += "END:VCARD\r\n";
  for (int i = 0; i < 101; i++) many += "TEL:" + std::to_string(i) + "\r\n";
  for (int i = 0; i < 25; i++) many += "EMAIL;CHARSET=NO-SUCH:x\r\n";
  for (int i = 0; i < 19; i++) notes += "\nline " + std::to_string(109 + i) + ": " + other_set;
  const struct {
    std::string text, reason;
    bool person; /* the card between the good ones gives one too */
  } rows[] = {
      {"hello\r\nyou\r\n", "line 5: a card must begin here; this is passed over", false},
      {"BEGIN:VCARD\r\nFN:x\r\n", "line 5: the card that begins here has no end; it is left out", false},
      {card("FN:x\r\nno colon\r\n"), "", true},
      {card("FN:x" + std::string(2, '\0') + "\r\n"), "", true},
      {card("NOTE:x\r\n"), "line 5: the card that begins here has no name, address or number; it is left out", false},
      {card("FN:x\r\nFN;CHARSET=NO-SUCH:y\r\n"), "line 8: " + other_set, true},
      {card("FN:x\r\nORG;CHARSET=UTF-16//IGNORE:y\r\n"), "line 8: " + other_set, true},
      {card("FN:x\r\nEMAIL:" + std::string(321, 'e') + "\r\n"), "line 8: the e-mail address is too long and left out",
       true},
      {card("FN:x\r\nTEL:" + std::string(65, '1') + "\r\n"), "line 8: the phone number is too long and left out", true},
      {card("FN:x\r\n" + many),
       "line 108: the person has too many phone numbers; this one is left out" + notes + "\nand 6 more", true},
      {deep, "line 5: the card holds cards too deep inside each other; it is left out", false},
  };
  for (const auto &row : rows) {
    fs::remove(database());
    EXPECT_EQ(import(good + row.text + after), row.reason);
    EXPECT_EQ(query(_contacts_person._uri, nullptr),
              row.person ? (lines{"1 Good", "2 x", "3 After"}) : (lines{"1 Good", "2 After"}))
        << row.reason;
  }
  fs::remove(database());
  ASSERT_EQ(import(card("FN:Kept\r\n")), "");
  EXPECT_EQ(import(""), "the file holds no vCard");
  EXPECT_EQ(import(std::string("\xFF\xFE\0\xD8", 4)), "the file is not text");
  EXPECT_EQ(import(std::string(16 * 1024 * 1024 + 1, ' ')), "the file is larger than 16 MiB");
  EXPECT_EQ(query(_contacts_person._uri, nullptr), lines{"1 Kept"});
  int count = 0;
  char *error = nullptr;
  EXPECT_LT(contacts_import_vcard_file("/nonexistent.vcf", &count, &error), 0);
  EXPECT_STREQ(error, "No such file or directory");
  free(error);
  EXPECT_LT(contacts_import_vcard_file(platform_data_dir(), &count, nullptr), 0);
}

/* A second import doubles nobody and adds what is new; another person of the same name stays another. */
TEST_F(Contacts, ImportedTwiceAreThereOnce) {
  const std::string anna = "FN:Anna\r\nEMAIL:Anna@x\r\nTEL:+49 30 1\r\n";
  const std::string file = card(anna) + card("FN:Anna\r\nEMAIL:other@x\r\n") + card("FN:Bare\r\n") + card(anna);
  int count = 0;
  ASSERT_EQ(import(file, &count), "");
  EXPECT_EQ(count, 3);
  ASSERT_EQ(import(file, &count), "");
  EXPECT_EQ(count, 0);
  ASSERT_EQ(import(card("FN:Anna\r\nEMAIL:new@x\r\nTEL:+49-30-1\r\nTEL;TYPE=CELL:2\r\n"), &count), "");
  EXPECT_EQ(count, 0);
  EXPECT_EQ(query(_contacts_person_email._uri, nullptr), (lines{"1 Anna Anna@x", "1 Anna new@x", "2 Anna other@x"}));
  EXPECT_EQ(query(_contacts_person_number._uri, nullptr), (lines{"1 Anna +49 30 1 0", "1 Anna 2 2"}));
  EXPECT_EQ(query(_contacts_person._uri, nullptr), (lines{"1 Anna", "2 Anna", "3 Bare"}));
}

TEST_F(Contacts, AddressesMatchInEverySpelling) {
  import(card("FN:U\r\nEMAIL:jo@Müller.example\r\n") + card("FN:P\r\nEMAIL:jo@xn--bcher-kva.example\r\n"));
  const std::pair<const char *, lines> rows[] = {{"jo@xn--mller-kva.example", {"1 U jo@Müller.example"}},
                                                 {"JO@MÜLLER.example", {"1 U jo@Müller.example"}},
                                                 {"jo@Bücher.example", {"2 P jo@xn--bcher-kva.example"}},
                                                 {"<jo@bücher.example>", {"2 P jo@xn--bcher-kva.example"}},
                                                 {"jo@mueller.example", {}},
                                                 {"jo@xn--\xC3\xBC.example", {}}};
  for (const auto &[address, expected] : rows) EXPECT_EQ(by_address(address), expected) << address;
  int count = 0;
  EXPECT_EQ(contacts_remove_by_email("jo@xn--mller-kva.example", &count), CONTACTS_ERROR_NONE);
  EXPECT_EQ(count, 1);
}

/* Every way to cut or bend a card ends in a clear answer, never in anything else (the sanitizers watch). */
TEST_F(VCard, SurvivesAnyDamage) {
  const std::string text = card(
      "N;CHARSET=UTF-8;ENCODING=QUOTED-PRINTABLE:=C3=84;=\r\nx;;;\r\nFN:\\n\\;\\\r\n é\r\n"
      "a.TEL;TYPE=\"cell\":tel:1;x\r\nEMAIL;=;;:\r\n",
      "2.1");
  for (size_t i = 0; i < text.size(); i += 1) {
    std::string bent = text;
    bent[i] = static_cast<char>(i % 3 == 0 ? 0xFF : i % 3 == 1 ? '=' : ':');
    import(i % 2 == 0 ? bent : text.substr(0, i));
  }
  for (const auto &person : all()) EXPECT_FALSE(person["name"].get<std::string>().empty());
}

/* --- changes --- */

struct listener {
  std::vector<std::string> *heard;
  std::string name;
  std::function<void()> then;
};

void on_changed(const char *uri, void *data) {
  auto *to = static_cast<listener *>(data);
  to->heard->push_back(to->name + " " + uri);
  if (to->then) to->then();
}

TEST_F(Changes, ReachOtherProcessesInTheOrderOfRegistration) {
  lines heard;
  listener first{&heard, "first", nullptr}, second{&heard, "second", nullptr}, third{&heard, "third", nullptr};
  EXPECT_EQ(contacts_db_add_changed_cb("nothing", on_changed, &first), CONTACTS_ERROR_INVALID_PARAMETER);
  ASSERT_EQ(contacts_db_add_changed_cb(_contacts_person._uri, on_changed, &first), CONTACTS_ERROR_NONE);
  ASSERT_EQ(contacts_db_add_changed_cb(_contacts_person_number._uri, on_changed, &second), CONTACTS_ERROR_NONE);
  ASSERT_EQ(contacts_db_add_changed_cb(_contacts_person._uri, on_changed, &third), CONTACTS_ERROR_NONE);
  const lines everyone = {"first contacts.person", "second contacts.person/number", "third contacts.person"};

  ASSERT_TRUE(in_child([] { return import(card("FN:Anna\r\nEMAIL:a@x\r\n")).empty(); }));
  ASSERT_TRUE(run_until([&] { return heard.size() >= 3; }));
  EXPECT_EQ(heard, everyone);
  heard.clear();
  int count = 0;
  contacts_remove_by_email("nobody@x", &count); /* no change, nothing to tell */
  EXPECT_EQ(contacts_remove_by_email("a@x", &count), CONTACTS_ERROR_NONE);
  ASSERT_TRUE(run_until([&] { return heard.size() >= 3; }));
  EXPECT_EQ(heard, everyone); /* once for the commit */
  heard.clear();

  first.then = [&] {
    EXPECT_EQ(contacts_db_remove_changed_cb(_contacts_person_number._uri, on_changed, &second), CONTACTS_ERROR_NONE);
    EXPECT_EQ(contacts_db_remove_changed_cb(_contacts_person._uri, on_changed, &first), CONTACTS_ERROR_NONE);
    EXPECT_EQ(contacts_db_remove_changed_cb(_contacts_person._uri, on_changed, &first),
              CONTACTS_ERROR_INVALID_PARAMETER);
  };
  import(card("FN:Bo\r\n"));
  ASSERT_TRUE(run_until([&] { return heard.size() >= 2; }));
  EXPECT_EQ(heard, (lines{"first contacts.person", "third contacts.person"}));
  heard.clear();
  fs::remove(database()); /* taken away as a whole */
  ASSERT_TRUE(run_until([&] { return !heard.empty(); }));
  EXPECT_EQ(heard, lines{"third contacts.person"});
  EXPECT_EQ(contacts_db_remove_changed_cb(_contacts_person._uri, on_changed, &third), CONTACTS_ERROR_NONE);
}

/* --- damaged, foreign and locked files --- */

TEST_F(BadFile, IsAnErrorAndStaysAsItIs) {
  ASSERT_EQ(import(card("FN:Anna\r\nEMAIL:a@x\r\n")), "");
  const std::string good = get_file(database());
  const auto with_sql = [](const char *sql) {
    fs::remove(database());
    sqlite3 *db = nullptr;
    sqlite3_open(database().c_str(), &db);
    sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
    sqlite3_close(db);
    return get_file(database());
  };
  std::string torn = good, newer = good;
  newer[63] = 2; /* the last byte of its version: everything else is as this version has it */
  for (size_t i = 4096; i < torn.size(); i += 2) torn[i] = '\x5A';
  const std::string rows[] = {
      "this is no database",
      std::string(100000, '\xFF'),
      good.substr(0, 5000),
      torn,
      with_sql("CREATE TABLE other(x)"),
      newer,
      with_sql("PRAGMA application_id = 1111707220; PRAGMA user_version = 1; CREATE VIEW person AS SELECT 1 AS id, 'x' "
               "AS name"),
  };
  for (const std::string &bytes : rows) {
    put_file(database(), bytes);
    int status = 0;
    int count = 0;
    query(_contacts_person_email._uri, nullptr, 0, 0, &status);
    EXPECT_EQ(status, CONTACTS_ERROR_DB) << bytes.substr(0, 20);
    EXPECT_EQ(contacts_for_each([](const char *, void *) { ADD_FAILURE(); }, nullptr), CONTACTS_ERROR_DB);
    EXPECT_EQ(contacts_remove_by_email("a@x", &count), CONTACTS_ERROR_DB);
    const std::string why = import(card("FN:New\r\n"));
    EXPECT_TRUE(!why.empty() && why.find("no error") == std::string::npos) << why;
    EXPECT_EQ(get_file(database()), bytes);
  }
  put_file(database(), good); /* repaired: usable at once */
  EXPECT_EQ(by_address("a@x"), lines{"1 Anna a@x"});
  fs::remove(database());
  fs::create_directory(database());
  int status = 0;
  query(_contacts_person._uri, nullptr, 0, 0, &status);
  EXPECT_EQ(status, CONTACTS_ERROR_DB);
  fs::remove(database());
}

TEST_F(BadFile, ReadableForOthersIsMended) {
  ASSERT_EQ(import(card("FN:Anna\r\nEMAIL:a@x\r\n")), "");
  struct stat info {};
  for (const bool read : {false, true}) {
    chmod(database().c_str(), 0664);
    read ? by_address("a@x") : lines{import(card("FN:Bo\r\n"))};
    ASSERT_EQ(stat(database().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u) << read;
  }
}

TEST_F(BadFile, LockedByAnotherIsAnErrorAndNotAHang) {
  ASSERT_EQ(import(card("FN:Anna\r\nEMAIL:a@x\r\n")), "");
  sqlite3 *db = nullptr;
  ASSERT_EQ(sqlite3_open(database().c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  EXPECT_TRUE(in_child([] {
    int status = 0;
    query(_contacts_person._uri, nullptr, 0, 0, &status);
    return status == CONTACTS_ERROR_DB;
  }));
  sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  EXPECT_EQ(by_address("a@x").size(), 1u);
}

/* A writer that dies leaves a journal; the next reader sees the state before. */
TEST_F(BadFile, NoFaultTakesAnythingAlong) {
  const auto names = [] {
    std::string all_names;
    for (const std::string &row : query(_contacts_person._uri, nullptr)) all_names += row + "\n";
    return all_names;
  };
  const auto fresh = [] {
    for (const char *end : {"", "-journal"}) fs::remove(database().string() + end);
    EXPECT_EQ(import(card("FN:Anna\r\nEMAIL:a@x\r\n")), "");
  };
  std::string many, all_of_them = "1 Anna\n";
  for (int i = 2; i <= 40; i++) {
    many += card("FN:" + std::string(200, 'n') + std::to_string(i) + "\r\nTEL:" + std::to_string(i) + "\r\n");
    all_of_them += std::to_string(i) + " " + std::string(200, 'n') + std::to_string(i) + "\n";
  }
  const auto remove = [] {
    int count = 0;
    return contacts_remove_by_email("a@x", &count) == CONTACTS_ERROR_NONE;
  };
  EXPECT_GT(outlive_every_fault({fresh, [&] { return import(many).empty(); }, names, "1 Anna\n", all_of_them}), 40);
  EXPECT_GT(outlive_every_fault({fresh, remove, names, "1 Anna\n", ""}), 40);
}

}  // namespace
