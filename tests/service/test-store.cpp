/* The store's writer: what it takes, what it refuses, and what is left of it when the disk, the process or the power
   goes at any step. */
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "cases.h"
#include "fault.h"
#include "files.h"
#include "rows.h"
#include "schema.h"
#include "store.h"

namespace fs = std::filesystem;

namespace {

const std::string CASES = CASES_DIR "/service.txt";

struct folder {
  folder() {
    char name[] = "/dev/shm/brisel-store-XXXXXX"; /* memory: the faults are simulated, the disk is not needed */
    path = mkdtemp(name);
    file = path / "store.db";
  }
  ~folder() { fs::remove_all(path); }
  fs::path path;
  std::string file;
};

/* Every row of every table, as text. */
std::string dump(const std::string &file) {
  std::string text;
  for (const char *table :
       {"account", "mail", "body", "template", "changes", "state WHERE key <> 'store_id'", "outbox", "done"})
    text += std::string(table) + ":\n" + rows_of(file, std::string("SELECT * FROM ") + table);
  text += "journal:\n" + rows_of(file,
                                 "SELECT id, uid, kind, state, offered, mail_id, mails, person, subject, text, reason,"
                                 " json FROM journal");
  return text;
}

store *open_or_fail(const std::string &file) {
  std::string why;
  store *st = store_open(file, &why);
  EXPECT_NE(nullptr, st) << why;
  return st;
}

field_value number(int64_t value) {
  return {true, false, value, ""};
}
field_value text(const std::string &value) {
  return {true, false, 0, value};
}

mail_values mail_of(int account, const char *subject) {
  mail_values mail;
  mail.field[field_account] = number(account);
  mail.field[field_time] = number(1000);
  mail.field[field_subject] = text(subject);
  if (*subject == 't') mail.field[field_body] = text("a body");
  return mail;
}

int add_mail(store *st, int account, const char *subject) {
  std::vector<mail_values> mails = {mail_of(account, subject)};
  std::vector<int> ids;
  EXPECT_EQ(store_ok, store_add_mails(st, &mails, &ids)) << store_error(st);
  return ids.empty() ? 0 : ids[0];
}

/* An account, and the first of its mails. */
void add_first_mail(store *st) {
  int id = 1;
  EXPECT_EQ(store_ok, store_add_account(st, &id, "me@example.org", "Me", 0));
  add_mail(st, id, "first");
}

/* --- durability --- */

struct life {
  std::string file;
  store *st = nullptr;
};

store_status reopen(life *l) {
  store_close(l->st);
  std::string why;
  l->st = store_open(l->file, &why);
  return l->st ? store_ok : store_failed;
}

/* Of the faults there are, which are tried: each test begins at another and takes every third, every one with
   BRISEL_EVERY_FAULT set, and few where each process takes many times as long. */
int stride(void) {
#ifdef __SANITIZE_ADDRESS__
  return 11;
#else
  return getenv("BRISEL_EVERY_FAULT") ? 1 : 3;
#endif
}

/* A life of the store: each step is acknowledged or not. Closing in between moves the log into the file. */
constexpr size_t steps = 18;
constexpr size_t unhurried_step = 11; /* that the phone has a mark waits for no disk */
store_status step(life *l, size_t number) {
  int id = 7;
  int64_t entry = 0;
  std::vector<int> ids;
  std::vector<mail_values> mails = {mail_of(7, "one"), mail_of(7, "two"), mail_of(7, "three")};
  bool refused;
  switch (number) {
    case 1:
      return store_add_account(l->st, &id, "work@example.org", "Work", 0x11223344);
    case 2:
      return store_add_mails(l->st, &mails, &ids);
    case 3:
      return store_request_read(l->st, {"read-1", "{1}"}, {1}, &entry);
    case 4:
      return store_append_body(l->st, 1, 0, std::string(20000, 'x'), false);
    case 6:
      return store_request_delete(l->st, {"delete-1", "{2}"}, {2, 99}, &entry);
    case 7:
      return store_append_body(l->st, 1, 20000, "the end", true);
    case 8:
      return store_request_clear_new(l->st, {"clear-1", "{3}"}, &entry);
    case 9:
      return store_set_templates(l->st, {"yes", "no"});
    case 10:
      return store_set_state(l->st, "phone_connected", 1);
    case unhurried_step:
      return store_outbox_remove(l->st, 1);
    case 12:
      return store_request_reply(l->st, {"reply-1", "{4}"},
                                 {1, std::string("ann@example.org\x02") + "Ann", "Hi", "yes"}, &entry);
    case 13:
      return store_phone_came(l->st);
    case 14:
      return store_set_outcome(l->st, "reply-1", reply_outcome::refused, "no such user", &refused);
    case 15:
      return store_request_repeat(l->st, {"repeat-1", "{5}"}, store_was_done(l->st, "repeat-1") ? 0 : 4, "no", &entry);
    case 16:
      return store_remove_account(l->st, 7);
    default:
      return reopen(l);
  }
}

/* What the store holds after each number of steps, learnt from a life without faults. */
const std::vector<std::string> &expected(void) {
  static std::vector<std::string> dumps;
  if (!dumps.empty()) return dumps;
  folder f;
  life l = {f.file};
  for (size_t number = 0; number < steps; number++) {
    EXPECT_GE(step(&l, number), 0) << store_error(l.st);
    if (dumps.empty()) dumps.push_back(dump(f.file)); /* before the first step: what opening makes of nothing */
    dumps.push_back(dump(f.file));
  }
  store_close(l.st);
  return dumps;
}

/* The store after acknowledged steps: those, and perhaps the one that was under way, and nothing else. */
void expect_kept(const std::string &file, size_t acknowledged, int fault, fault_kind kind) {
  store_close(open_or_fail(file));
  const std::string left = dump(file);
  const size_t next = std::min(acknowledged + 1, expected().size() - 1);
  const bool may_lack = kind == fault_power && acknowledged == unhurried_step + 1;
  EXPECT_TRUE(left == expected()[acknowledged] || left == expected()[next] ||
              (may_lack && left == expected()[unhurried_step]))
      << "fault at " << fault << " after " << acknowledged << " acknowledged steps\n"
      << left;
}

/* A life in a process of its own, which ends at the fault, or goes on where one passes. */
TEST(Durability, AFaultAtAnyStepOfTheDiskLosesNothingAndLeavesNothingHalfDone) {
  expected();
  int first = 1;
  for (const fault_kind kind : {fault_power, fault_kill, fault_io, fault_full}) {
    const bool passes = kind == fault_io || kind == fault_full;
    int fault = std::min(first++, stride());
    for (bool more = true; more && !HasFailure(); fault += stride()) {
      folder f;
      int ends[2];
      ASSERT_EQ(0, pipe(ends));
      const pid_t child = fork();
      if (child == 0) {
        life l = {f.file};
        fault_arm({kind, fault});
        for (size_t number = 0; number < steps; number++) {
          store_status status = step(&l, number);
          if (status == store_failed && passes) status = step(&l, number); /* asked again: as if nothing had been */
          if (status != store_ok || write(ends[1], "+", 1) != 1) break;
        }
        const bool struck = fault_struck();
        store_close(l.st);
        if (struck && kind == fault_power) fault_lose_unsynced();
        _exit(struck);
      }
      close(ends[1]);
      size_t acknowledged = 0;
      for (char c; read(ends[0], &c, 1) == 1;) acknowledged++;
      close(ends[0]);
      int status = 0;
      waitpid(child, &status, 0);
      more = WIFSIGNALED(status) || WEXITSTATUS(status);
      if (passes || !more) {
        EXPECT_EQ(steps, acknowledged) << "fault at " << fault;
      }
      expect_kept(f.file, acknowledged, fault, kind);
    }
    EXPECT_GT(fault, 80) << "the script does reach the disk";
  }
}

/* --- files that are there already --- */

TEST(Opening, RefusesWhatIsNoStoreOfItsOwnAndLeavesItAlone) {
  std::vector<case_row> rows =
      table_of(CASES, "no store: what, the bytes of the file or \"sql: STATEMENTS\", what is said", 3);
  rows.push_back(
      {{"a broken header", std::string("SQLite format 3\0", 16) + std::string(2000, '\7'), "is not a database"}});
  for (const case_row &row : rows) {
    SCOPED_TRACE(row[0]);
    folder f;
    if (row[1].starts_with("sql: "))
      run_sql(f.file, row[1].substr(5));
    else
      put_file(f.file, row[1]);
    const std::string before = get_file(f.file);
    std::string why;
    EXPECT_EQ(nullptr, store_open(f.file, &why));
    EXPECT_NE(std::string::npos, why.find(row[2])) << why;
    EXPECT_EQ(std::string::npos, why.find('\n'));
    EXPECT_EQ(before, get_file(f.file));
  }
}

TEST(Opening, MakesAStoreOfNothingAndKeepsOthersOut) {
  folder f;
  std::ofstream(f.file).flush();
  fs::permissions(f.file, fs::perms(0644));
  store *st = open_or_fail(f.file);
  add_first_mail(st);
  for (const auto &entry : fs::directory_iterator(f.path))
    EXPECT_EQ(fs::perms(0600), entry.status().permissions()) << entry.path() << " can be read by others";
  std::vector<std::pair<int, std::string>> templates;
  EXPECT_EQ(store_ok, store_list_templates(st, &templates));
  EXPECT_GE(templates.size(), 10u);
  std::string why;
  EXPECT_EQ(nullptr, store_open(f.file, &why));
  EXPECT_NE(std::string::npos, why.find("in use by another")) << why;
  store_close(st);
}

TEST(Opening, FollowsLinksOnTheWayButNotTheLastOne) {
  folder f;
  fs::create_directory(f.path / "far");
  fs::create_directory_symlink(f.path / "far", f.path / "near"); /* as some systems have their home folders */
  store_close(open_or_fail((f.path / "near" / "store.db").string()));
  EXPECT_TRUE(fs::exists(f.path / "far" / "store.db"));
  /* Wherever it leads, also when nothing is there yet: nothing is written through it, nor through one of the logs. */
  std::ofstream(f.path / "other") << "kept";
  for (const char *end : {"", "-wal", "-shm"})
    for (const char *target : {"elsewhere", "other"}) {
      SCOPED_TRACE(std::string(end) + " " + target);
      fs::create_symlink(f.path / target, f.file + end);
      std::string why;
      store *st = store_open(f.file, &why);
      EXPECT_TRUE(*end || (!st && why.find("symbolic link") != std::string::npos)) << why;
      store_close(st);
      EXPECT_FALSE(fs::exists(f.path / "elsewhere"));
      EXPECT_EQ(4u, fs::file_size(f.path / "other"));
      for (const char *one : {"", "-wal", "-shm"}) fs::remove(f.file + one);
    }
}

/* As builds of each version left it: what they held is all there, and what they could not do works. */
TEST(Opening, BringsAStoreOfEveryVersionUpToDate) {
  for (int version = 1; version < store_version; version++) {
    SCOPED_TRACE(version);
    folder f;
    std::string sql = "PRAGMA journal_mode = WAL; BEGIN;";
    for (int step = 0; step < version; step++) sql += schema_steps[step];
    const bool apart = version >= 3;
    sql +=
        "INSERT INTO account (account_id, email_address, color) VALUES (3, 'old@example.org', 255);"
        "INSERT INTO mail (mail_id, account_id, received_time, subject, is_new, is_read, security_locked, host_state,"
        " contacts, message_uid) VALUES (2, 3, 50, 'old', 0, 1, 1, -7, '1 23', 'uid'), (4, 3, 60, 'new', 1, 0, 0, 0,"
        " NULL, NULL), (9, 3, 70, 'gone', 1, 0, 0, 0, NULL, NULL);"
        "DELETE FROM mail WHERE mail_id = 9; INSERT INTO changes (type, ids) VALUES (0, '2,4');"
        "INSERT OR REPLACE INTO state (key, value) VALUES ('account_count_known', 1);";
    sql += apart ? "INSERT INTO body VALUES (2, 'kept');" : "UPDATE mail SET body = 'kept' WHERE mail_id = 2;";
    if (version >= 2)
      sql += "INSERT INTO outbox (json) VALUES ('{\"é\":1}'); INSERT INTO done (uid) VALUES ('was done');";
    run_sql(f.file,
            sql + "PRAGMA user_version = " + std::to_string(version) + "; PRAGMA application_id = 1112688979; COMMIT;");
    store *st = open_or_fail(f.file);
    ASSERT_NE(nullptr, st);
    std::vector<mail_values> mails;
    EXPECT_EQ(store_ok, store_list_mails(st, 0, 10, 100000, &mails));
    ASSERT_EQ(2u, mails.size());
    const auto &old = mails[0].field;
    EXPECT_EQ("kept", old[field_body].text);
    EXPECT_EQ("old", old[field_subject].text);
    EXPECT_EQ("1 23", old[field_contacts].text);
    EXPECT_EQ("uid", old[field_uid].text);
    for (const auto &[field, value] : {std::pair{field_read, 1},
                                       {field_new, 0},
                                       {field_locked, 1},
                                       {field_time, 50},
                                       {field_host_state, -7},
                                       {field_account, 3}})
      EXPECT_EQ(value, old[static_cast<size_t>(field)].number) << mail_fields[static_cast<size_t>(field)].name;
    EXPECT_TRUE(mails[1].field[field_body].null);
    EXPECT_EQ(1, store_last_change(st));
    EXPECT_EQ(10, add_mail(st, 3, "two")) << "an id was used again";
    int64_t entry = 0;
    EXPECT_EQ(version >= 2 ? store_done : store_ok, store_request_relay(st, {"was done", "{}"}, &entry));
    std::vector<outbox_entry> waiting;
    EXPECT_EQ(store_ok, store_outbox(st, &waiting));
    ASSERT_EQ(1u, waiting.size());
    EXPECT_EQ(version >= 2 ? "{\"é\":1}" : "{}", waiting[0].json);
    EXPECT_EQ(store_ok, store_delete_mails(st, {2}));
    EXPECT_EQ(store_invalid, store_append_body(st, 2, 4, "", true)) << "the body went with its mail";
    store_close(st);
    store_close(open_or_fail(f.file));
  }
}

/* --- rules --- */

struct Rules : testing::Test {
  void SetUp() override {
    st = open_or_fail(f.file);
    account = 0;
    ASSERT_EQ(store_ok, store_add_account(st, &account, "me@example.org", "Me", 0));
  }
  void TearDown() override { store_close(st); }
  folder f;
  store *st;
  int account;
};

TEST_F(Rules, AMailThatBreaksOneIsRefusedWithAllThatCameWithIt) {
  const std::pair<const char *, field_value> rows[] = {
      {"account_id", number(99)},
      {"received_time", number(-1)},
      {"received_time", number(int64_t{1} << 31)},
      {"is_new", number(2)},
      {"attachment_count", number(-1)},
      {"host_state", number(int64_t{1} << 40)},
      {"body", text(std::string(body_max + 1, 'x'))},
      {"subject", text(std::string(text_max + 1, 'x'))},
      {"host_tag", text(std::string(token_max + 1, 'x'))},
      {"from_name", text(std::string("a\0b", 3))},
  };
  const int mail = add_mail(st, account, "there before");
  const std::string before = dump(f.file);
  for (const auto &[field, value] : rows) {
    std::vector<mail_values> mails = {mail_of(account, "good"), mail_of(account, "bad")};
    const size_t index = static_cast<size_t>(mail_field_index(field));
    mails[1].field[index] = value;
    std::vector<int> ids;
    EXPECT_EQ(store_invalid, store_add_mails(st, &mails, &ids)) << field;
    mail_values change;
    change.field[index] = value;
    EXPECT_EQ(store_invalid, store_update_mail(st, mail, change)) << field;
  }
  std::vector<mail_values> mails = {mail_values()};
  std::vector<int> ids;
  EXPECT_EQ(store_invalid, store_add_mails(st, &mails, &ids)) << "without an account";
  EXPECT_EQ(store_invalid, store_delete_mails(st, {mail, 12345}));
  EXPECT_EQ(store_invalid, store_remove_account(st, 12345));
  EXPECT_EQ(store_invalid, store_set_templates(st, {"good", ""}));
  int id = 0;
  EXPECT_EQ(store_invalid, store_add_account(st, &id, "", "no address", 0));
  EXPECT_EQ(before, dump(f.file));
}

std::string changes_after(const std::string &file, int64_t seq) {
  return rows_of(file, "SELECT type || ':' || ids FROM changes WHERE seq > " + std::to_string(seq) + " ORDER BY seq");
}

TEST_F(Rules, EachCallRaisesTheEventsOfWhatItChanged) {
  const int a = add_mail(st, account, "a"), b = add_mail(st, account, "b");
  EXPECT_EQ("3:1\n5:\n0:1\n0:2\n", changes_after(f.file, 0));
  int64_t entry = 0, before = store_last_change(st);
  const auto raised = [&](store_status status) {
    EXPECT_EQ(store_ok, status) << store_error(st);
    return changes_after(f.file, std::exchange(before, store_last_change(st)));
  };
  int same = account, second = 42;
  mail_values unchanged, renamed, written, emptied;
  written.field[field_body] = text("body");
  unchanged.field[field_body] = emptied.field[field_body] = {true, true, 0, ""};
  unchanged.field[field_subject] = text("a");
  renamed.field[field_subject] = text("A");
  EXPECT_EQ("", raised(store_add_account(st, &same, "me@example.org", "Me", 0))) << "as it is already";
  EXPECT_EQ("3:1\n", raised(store_add_account(st, &same, "me@example.org", "I", 0)));
  EXPECT_EQ("3:42\n", raised(store_add_account(st, &second, "b@example.org", "", 1))) << "the count is known";
  EXPECT_EQ("", raised(store_update_mail(st, a, unchanged)));
  for (const mail_values &change : {renamed, written, emptied}) {
    EXPECT_EQ("1:1\n", raised(store_update_mail(st, a, change)));
    EXPECT_EQ("", raised(store_update_mail(st, a, change)));
  }
  EXPECT_EQ("1:1\n6:1\n", raised(store_request_read(st, {"r1", "{}"}, {a, a, 777}, &entry)));
  EXPECT_EQ("", raised(store_request_read(st, {"r2", "{}"}, {a}, &entry)));
  EXPECT_EQ("1:1,2\n", raised(store_request_clear_new(st, {"c1", "{}"}, &entry)));
  EXPECT_EQ("", raised(store_request_clear_new(st, {"c2", "{}"}, &entry)));
  EXPECT_EQ("", raised(store_set_account_count_known(st, true)));
  EXPECT_EQ("", raised(store_set_account_count_known(st, false)));
  EXPECT_EQ("5:\n", raised(store_set_account_count_known(st, true)));
  EXPECT_EQ("1:2\n", raised(store_append_body(st, b, 0, "text", false)));
  EXPECT_EQ("", raised(store_append_body(st, b, 4, "", false)));
  EXPECT_EQ("2:1\n6:5\n", raised(store_request_delete(st, {"d1", "{}"}, {a, 777}, &entry)));
  EXPECT_EQ("6:1\n", raised(store_outbox_remove(st, 1)));
  EXPECT_EQ("", raised(store_outbox_remove(st, 1)));
  EXPECT_EQ("", raised(store_request_relay(st, {"s1", "{}"}, &entry)));
  EXPECT_EQ("2:2\n4:1\n", raised(store_remove_account(st, account)));
  EXPECT_EQ(3, add_mail(st, 42, "ids are not used again"));
}

TEST_F(Rules, ARequestIsDoneOnce) {
  const int mail = add_mail(st, account, "read twice");
  int64_t first = 0, second = 0;
  EXPECT_EQ(store_ok, store_request_read(st, {"same", "{}"}, {mail}, &first));
  EXPECT_EQ(store_done, store_request_read(st, {"same", "{}"}, {mail}, &second));
  store_close(st);
  st = open_or_fail(f.file);
  EXPECT_EQ(store_done, store_request_delete(st, {"same", "{}"}, {mail}, &second));
  std::vector<outbox_entry> waiting;
  EXPECT_EQ(store_ok, store_outbox(st, &waiting));
  EXPECT_EQ(1u, waiting.size());
  int64_t id = 0;
  EXPECT_EQ(store_ok, store_new_request_id(st, &id));
  EXPECT_GT(id, first);
  EXPECT_EQ(store_invalid, store_request_relay(st, {"", "{}"}, &second));
  EXPECT_EQ(store_invalid, store_request_relay(st, {std::string(uid_max + 1, 'u'), "{}"}, &second));
}

TEST_F(Rules, WhatWaitsForAPhoneIsBounded) {
  const int mail = add_mail(st, account, "stays");
  const std::string json(3u << 20, 'j');
  int64_t first = 0, entry = 0;
  int uid_number = 0;
  for (const case_row &row : table_of(CASES,
                                      "waiting: requests of 3 MiB each of a program, and what is said to each (half of "
                                      "the room is one program's share)",
                                      2)) {
    const store_status expected = row[1].empty() ? store_ok : store_full;
    EXPECT_EQ(expected, store_request_relay(st, {std::to_string(++uid_number), json, row[0]}, &entry)) << uid_number;
    if (expected == store_full) EXPECT_NE(std::string::npos, store_error(st).find(row[1])) << store_error(st);
    if (!first) first = entry;
  }
  EXPECT_EQ(store_full, store_request_delete(st, {"8", json, "c"}, {mail}, &entry));
  std::string body, uid;
  EXPECT_EQ(store_ok, store_get_body(st, mail, &body, &uid)) << "refused, yet half of it was done";
  EXPECT_EQ(store_ok, store_outbox_remove(st, first));
  EXPECT_EQ(store_ok, store_request_delete(st, {"8", json, "c"}, {mail}, &entry))
      << "the same again, now there is room";
}

/* Every row of the journal: id, state, text, reason. */
std::string journal(const std::string &file) {
  const std::string all = dump(file);
  return all.substr(all.find("journal:\n") + 9);
}

TEST_F(Rules, AReplyIsTakenBackOnlyWhileNoPhoneMayHaveIt) {
  const auto reply = [&](const char *uid) {
    int64_t entry = 0;
    EXPECT_EQ(store_ok, store_request_reply(st, {uid, "{}"}, {1, "ann@example.org", "Hi", uid}, &entry));
    return entry;
  };
  const auto outcome = [&](const char *uid, reply_outcome what, const char *why) {
    bool refused;
    EXPECT_EQ(store_ok, store_set_outcome(st, uid, what, why, &refused));
    return refused;
  };
  const int64_t early = reply("early"), gone = reply("gone");
  int64_t again = 0;
  std::vector<outbox_entry> waiting;
  EXPECT_EQ(store_ok, store_request_drop(st, "d1", gone));
  EXPECT_EQ(store_done, store_request_drop(st, "d1", gone));
  EXPECT_EQ(store_invalid, store_request_drop(st, "d2", gone));
  EXPECT_EQ(store_ok, store_request_repeat(st, {"early-2", "{2}"}, early, "changed", &again));
  EXPECT_GT(again, gone) << "the phone would take it for the one it knows";
  EXPECT_EQ(store_ok, store_phone_came(st));
  EXPECT_EQ(store_invalid, store_request_drop(st, "d3", again)) << "it goes out now";
  const int64_t late = reply("late");
  EXPECT_EQ(store_invalid, store_request_repeat(st, {"late-2", "{}"}, late, "", &again)) << "it went out at once";
  EXPECT_EQ(store_ok, store_outbox(st, &waiting));
  ASSERT_EQ(2u, waiting.size());
  EXPECT_EQ("early-2", waiting[0].uid);

  EXPECT_FALSE(outcome("late", reply_outcome::waits, "no route"));
  EXPECT_EQ(store_invalid, store_request_drop(st, "d4", late));
  EXPECT_TRUE(outcome("late", reply_outcome::refused, "no such user"));
  EXPECT_FALSE(outcome("late", reply_outcome::refused, "no such user")) << "told again";
  EXPECT_EQ(store_ok, store_request_repeat(st, {"late-3", "{3}"}, late, "late", &again));
  EXPECT_FALSE(outcome("late", reply_outcome::sent, "")) << "what was repeated is forgotten";
  EXPECT_FALSE(outcome("late-3", reply_outcome::sent, ""));
  EXPECT_FALSE(outcome("late-3", reply_outcome::refused, "too late"));
  EXPECT_EQ("3|early-2|1|0|1|1|1|ann@example.org|Hi|changed||{2}\n5|late-3|1|2|1|1|1|ann@example.org|Hi|late||\n",
            journal(f.file));
  run_sql(f.file, "UPDATE journal SET changed = changed - 90000");
  store_close(st);
  st = open_or_fail(f.file);
  EXPECT_EQ("3|early-2|1|0|1|1|1|ann@example.org|Hi|changed||{2}\n", journal(f.file)) << "a day after its end";
}

TEST_F(Rules, RepliesOfAnOlderStoreKeepWaiting) {
  store_close(st);
  run_sql(
      f.file,
      "DROP TABLE journal; DROP TABLE fresh_message; PRAGMA user_version = 5; INSERT INTO outbox (id, json) VALUES (7,"
      " json_object('request', 'reply', 'recipient', 'a@b' || char(2) || 'Ann', 'text', 'yes',"
      " 'mail_id', 3, 'subject', 'Hi')), (8, 'no json'), (9, '{\"request\":\"show\"}')");
  st = open_or_fail(f.file);
  EXPECT_EQ(
      "7||1|0|1|3|1|Ann|Hi|yes||{\"request\":\"reply\",\"recipient\":\"a@b\\u0002Ann\",\"text\":\"yes\","
      "\"mail_id\":3,\"subject\":\"Hi\"}\n",
      journal(f.file));
}

TEST_F(Rules, AListOfManyNumbersComesInParts) {
  std::string numbers;
  for (size_t i = 0; i < contacts_max; i++) numbers += "1 5\n";
  std::vector<mail_values> mails(100, mail_of(account, "m"));
  for (mail_values &mail : mails) mail.field[field_contacts] = text(numbers);
  std::vector<int> ids;
  ASSERT_EQ(store_ok, store_add_mails(st, &mails, &ids));
  mails.clear();
  EXPECT_EQ(store_ok, store_list_mails(st, 0, 100, 100000, &mails));
  EXPECT_GT(mails.size(), 10u);
  EXPECT_LT(mails.size(), 60u) << "a number travels in far more bytes than it is kept in";
}

TEST(Texts, AreCleanedOfWhatABusRefuses) {
  for (const case_row &row : table_of(CASES, "cleaned texts: what came, what is kept", 2))
    EXPECT_EQ(row[1], clean_text(row[0]));
  EXPECT_EQ(
      "a\uFFFD"
      "b",
      clean_text(std::string("a\0b", 3)));
}

TEST_F(Rules, ABodyGrowsPieceByPieceUpToItsBound) {
  const int mail = add_mail(st, account, "long");
  std::string body, uid;
  EXPECT_EQ(store_ok, store_append_body(st, mail, 0, "first ", false));
  EXPECT_EQ(store_invalid, store_append_body(st, mail, 0, "first ", false)) << "a piece that was appended already";
  EXPECT_EQ(store_ok, store_append_body(st, mail, 6, "second", true));
  EXPECT_EQ(store_ok, store_get_body(st, mail, &body, &uid));
  EXPECT_EQ("first second<tag:thisisover-1>", body);
  /* Two-byte characters: the cut must not halve one. */
  std::string piece;
  while (piece.size() < body_max) piece += "é";
  EXPECT_EQ(store_ok, store_append_body(st, mail, 12, piece, false));
  EXPECT_EQ(store_ok, store_get_body(st, mail, &body, &uid));
  EXPECT_LE(body.size(), body_max);
  EXPECT_TRUE(body.ends_with("é<tag:thisisover-1>"));
}

TEST_F(Rules, OldChangesGoAndTheLatestStay) {
  run_sql(f.file, "INSERT INTO changes (seq, type, ids) VALUES (100, 0, '1'), (16400, 0, '2'), (20031, 0, '3')");
  add_mail(st, account, "number 20032, which prunes");
  EXPECT_EQ("0:2\n0:3\n0:1\n", changes_after(f.file, 0));
}

}  // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  fault_install();
  return RUN_ALL_TESTS();
}
