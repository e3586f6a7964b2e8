/* What the phone keeps, and the requests that wait for a service, under every fault of the disk at every step. The
   service's store, the contacts and the settings have their tables beside their own tests, on the same layer. */
#include <nlohmann/json.hpp>

#include "brisel-common.h"
#include "common-kept.h"
#include "faults.h"
#include "files.h"
#include "phone-schema.h"
#include "platform-sql.h"
#include "relay.h"
#include "state-relay.h"
#include "state-replies.h"

namespace fs = std::filesystem;

namespace {

fs::path folder;

/* Every fault is tried by `make faults`, every few of them otherwise. */
int stride() {
  static const bool all = getenv("BRISEL_EVERY_FAULT") != nullptr;
  return all ? 1 : 7;
}

phone_state_holder open_state() {
  std::string error;
  phone_state_holder state(phone_state_open(&error));
  return state;
}

/* What the phone knows, as text; why not when it cannot be read. */
std::string known() {
  phone_state_holder state = open_state();
  if (!state) return "not to be opened";
  std::vector<reply_entry> replies;
  std::vector<stored_request> requests;
  relay_rows rows;
  std::string text, note;
  if (reply_list(state.get(), &replies) < 0 || phone_state_list_requests(state.get(), &requests) < 0 ||
      relay_rows_load(state.get(), "me", &rows) < 0 || relay_note_get(state.get(), "note", &note) < 0)
    return phone_state_error(state.get());
  for (const reply_entry &r : replies) text += r.recipient + " " + reply_state_name(r.state) + r.error + "; ";
  for (const stored_request &r : requests) text += nlohmann::json::parse(r.json)["request"].get<std::string>() + "; ";
  for (const auto &[key, row] : std::map<std::string, relay_row>(rows.begin(), rows.end())) {
    sent_mail mail;
    const int found = phone_state_find_mail(state.get(), row.mail_id, row.identity, &mail);
    text += key + std::to_string(static_cast<int>(row.state)) + (row.want_seen ? "S" : "") +
            (found > 0 ? "=" + std::to_string(mail.mail_id) : "") + "; ";
  }
  return text + note;
}

int save(phone_state *state, relay_mail_state mail_state, int mail_id) {
  relay_rows rows;
  return phone_state_change(state, [&] {
    for (const char *key : {"a", "b"}) {
      const int id = mail_id > 0 ? mail_id + *key - 'a' : 0;
      relay_row row = {.identity = std::string("uid-") + key, .mail_id = id, .state = mail_state, .dirty = true};
      sent_mail mail = {.account_id = 1, .message_uid = row.identity, .source = std::string(3000, 's')};
      if (phone_state_add_mail(state, &mail) < 0) return -1;
      if (id > 0 && phone_state_set_mail_id(state, mail.row, id) < 0) return -1;
      row.row = mail.row;
      rows.emplace(key, row);
    }
    return relay_rows_write(state, "me", rows, {});
  });
}

int take(phone_state *state, int id, const nlohmann::json &request) {
  return phone_state_change(state, [&] {
    const int fresh = phone_state_add_request(state, id, ":1.7", request.dump());
    return fresh == 1 ? relay_keep_request(state, request, "uid") : std::min(fresh, 0);
  });
}

nlohmann::json reply_wish() {
  return {{"request", "reply"}, {"host_tag", "relay:me"}, {"recipient", "ann@example.org"}, {"text", "long"}};
}

nlohmann::json with_ids(const char *kind) {
  return {{"request", kind}, {"id_list", {5}}};
}

using work = std::function<int(phone_state *)>;

int nothing(phone_state *) {
  return 0;
}

int account(phone_state *state) {
  return relay_account_keep(state, "me", {1, "me@example.org", "Me"});
}

int reply(phone_state *state) {
  return reply_add(state, 1, {"uid", "ann@example.org", "Re: it", std::string(5000, 't'), ""});
}

int begun(phone_state *state) {
  reply_entry entry;
  std::string message;
  return reply_begin(state, 1, &entry, &message) < 0 ? -1 : 0;
}

int on_watch(phone_state *state) {
  return save(state, relay_mail_state::relayed, 5);
}

/* A state that an earlier version left, with a reply in it. */
void put_version_one() {
  sql_db db;
  EXPECT_EQ(db.open((folder / "brisel-phone" / "phone.db").string(), sql_access::create, 0), 0);
  EXPECT_EQ(db.run(phone_schema_steps[0]), 0);
  EXPECT_EQ(
      db.run("INSERT INTO outbox (account_id, created, recipient, subject, message) VALUES (1, 1, 'ann', '', x'');"
             "PRAGMA user_version = 1"),
      0);
}

TEST(Faults, ThePhonesState) {
  const struct {
    const char *what;
    std::vector<work> before;
    work change;
    std::string was, is;
  } rows[] = {
      {"making it", {}, nothing, "", ""},
      {"a note", {}, [](phone_state *s) { return relay_note_set(s, "note", "kept"); }, "", "kept"},
      {"mails on their way",
       {account},
       [](phone_state *s) { return save(s, relay_mail_state::sending, 0); },
       "",
       "a1=0; b1=0; "},
      {"mails on the watch",
       {account, [](phone_state *s) { return save(s, relay_mail_state::sending, 0); }},
       on_watch,
       "a1=0; b1=0; ",
       "a2=5; b2=6; "},
      {"a reply that comes",
       {account},
       [](phone_state *s) { return take(s, 3, reply_wish()); },
       "",
       "ann@example.org queued; reply; "},
      {"a deletion that comes",
       {on_watch},
       [](phone_state *s) { return take(s, 4, with_ids("delete_notis")); },
       "a2=5; b2=6; ",
       "delete_notis; a3; b2=6; "},
      {"a read mark that comes",
       {on_watch},
       [](phone_state *s) { return take(s, 4, with_ids("update_ind")); },
       "a2=5; b2=6; ",
       "update_ind; a2S=5; b2=6; "},
      {"a reply begun", {reply}, begun, "ann@example.org queued; ", "ann@example.org sending; "},
      {"a reply sent",
       {reply, begun},
       [](phone_state *s) { return reply_set_sent(s, 1); },
       "ann@example.org sending; ",
       "ann@example.org sent; "},
      {"a reply refused",
       {reply, begun},
       [](phone_state *s) { return reply_set_failed(s, 1, 60, " no route"); },
       "ann@example.org sending; ",
       "ann@example.org queued no route; "},
  };
  int faults = 0;
  const std::string database = folder / "brisel-phone" / "phone.db";
  for (const auto &row : rows) {
    SCOPED_TRACE(row.what);
    const auto prepare = [&] {
      fs::remove_all(folder / "brisel-phone");
      phone_state_holder state = open_state();
      for (const work &one : row.before) EXPECT_EQ(one(state.get()), 0);
    };
    const auto change = [&] {
      phone_state_holder state = open_state();
      return state && row.change(state.get()) == 0;
    };
    faults += outlive_every_fault({prepare, change, known, row.was, row.is, {}, stride()});
    if (HasFailure()) return;
  }
  const auto prepare = [] {
    fs::remove_all(folder / "brisel-phone");
    fs::create_directory(folder / "brisel-phone");
    put_version_one();
  };
  const auto change = [] { return open_state() != nullptr; };
  const auto there = [&] { return fs::exists(database) ? "" : "gone"; };
  const auto closed = [] { EXPECT_EQ(known(), "ann queued; "); };
  faults += outlive_every_fault({prepare, change, there, "", "", closed, stride()});
  EXPECT_GT(faults, 100);
}

/* Reads all of a state; why not, or nothing. Whatever it holds: no state that there is not. */
std::string reads() {
  std::string error;
  phone_state_holder state(phone_state_open(&error));
  if (!state) return error.empty() ? "no reason" : error;
  std::vector<reply_entry> replies;
  std::vector<stored_request> requests;
  relay_rows rows;
  relay_account_row found;
  sent_mail mail;
  std::string note, text;
  reply_entry first;
  if (reply_list(state.get(), &replies) < 0 || phone_state_list_requests(state.get(), &requests) < 0 ||
      relay_rows_load(state.get(), "me", &rows) < 0 || relay_note_get(state.get(), "note", &note) < 0 ||
      phone_state_find_mail(state.get(), 5, "uid-a", &mail) < 0 || relay_account_find(state.get(), "me", &found) < 0 ||
      reply_begin(state.get(), 1, &first, &text) < 0)
    return phone_state_error(state.get());
  for (const reply_entry &r : replies) EXPECT_LE(r.state, reply_state::dropped);
  for (const auto &[key, row] : rows) EXPECT_LE(row.state, relay_mail_state::copy);
  return "";
}

TEST(State, ThatIsNotWhatItWas) {
  const std::string database = folder / "brisel-phone" / "phone.db";
  fs::remove_all(folder / "brisel-phone");
  {
    phone_state_holder state = open_state();
    ASSERT_TRUE(account(state.get()) == 0 && on_watch(state.get()) == 0 && take(state.get(), 3, reply_wish()) == 0 &&
                relay_note_set(state.get(), "note", "kept") == 0);
  }
  EXPECT_EQ(reads(), "");
  const auto bytes = [&] { return get_file(database); };
  const std::string good = bytes();
  const auto put = [&](const std::string &content) {
    fs::remove_all(folder / "brisel-phone");
    fs::create_directory(folder / "brisel-phone");
    put_file(database, content);
  };
  const auto change = [&](const std::string &sql) {
    put(good);
    sql_db db;
    return db.open(database, sql_access::write, 0) == 0 && db.run(sql) == 0 && db.changed() > 0;
  };
  for (const char *version : {"6", "99", "-1", "2147483647"}) {
    put(good);
    sql_db db;
    ASSERT_EQ(db.open(database, sql_access::write, 0) | db.run(std::string("PRAGMA user_version = ") + version), 0);
    db.close();
    const std::string before = bytes();
    EXPECT_NE(reads().find("newer version"), std::string::npos) << version;
    EXPECT_TRUE(bytes() == before) << version;
  }
  int refused = 0;
  const auto whatever = [&](const std::string &content) {
    put(content);
    refused += !reads().empty();
    EXPECT_FALSE(HasFailure()) << content.size();
    EXPECT_TRUE(content.size() < 512 || bytes().size() >= content.size()) << "it was cut, or begun anew";
  };
  whatever(std::string(5000, 'x'));
  for (size_t size = 1; size < good.size(); size += size < 200 ? 13 : 512) whatever(good.substr(0, size));
  EXPECT_GT(refused, 20);
  for (size_t at = 0; at < good.size(); at += at < 100 ? 1 : 61) {
    std::string one = good;
    one[at] = static_cast<char>(~one[at]);
    whatever(one);
  }
  int columns = 0;
  for (const char *table : {"mail", "request", "relay_account", "relay_mail", "outbox", "relay_status"}) {
    put(good);
    std::vector<std::string> names;
    {
      sql_db db;
      ASSERT_EQ(db.open(database, sql_access::read, 0), 0);
      sql_statement query(&db, (std::string("SELECT name FROM pragma_table_info('") + table + "')").c_str());
      while (query.step() == sql_row) names.push_back(query.text(0));
    }
    for (const std::string &name : names)
      for (const char *value : {"'text'", "x'00ff'", "-1", "9e99", "4611686018427387904", "''"})
        if (change(std::string("UPDATE ") + table + " SET " + name + " = " + value)) {
          columns++;
          reads();
          EXPECT_FALSE(HasFailure()) << table << "." << name << " = " << value;
        }
  }
  EXPECT_GT(columns, 150);
}

TEST(Bounds, WhatAWatchAsksForWithoutEnd) {
  fs::remove_all(folder / "brisel-phone");
  phone_state_holder state = open_state();
  const auto ask = [&state](int from, int to, const std::string &text) {
    return phone_state_change(state.get(), [&] {
      for (int id = from; id < to; id++)
        if (phone_state_add_request(state.get(), id, ":1.7", text) != 1) return -1;
      return 0;
    });
  };
  const auto kept = [&state] {
    std::vector<stored_request> requests;
    return phone_state_list_requests(state.get(), &requests) == 0 ? requests.size() : 0;
  };
  ASSERT_EQ(ask(0, 30000, "{}"), 0);
  EXPECT_EQ(kept(), 30000) << "none of them was acknowledged";
  ASSERT_EQ(ask(30000, 45000, "{}"), 0);
  EXPECT_TRUE(kept() >= 40000 && kept() < 40064) << kept();
  ASSERT_EQ(ask(0, 100, std::string(1 << 20, 'x')), 0);
  EXPECT_TRUE(kept() >= 63 && kept() < 80) << kept();
  for (int n = 1; n <= 1010; n++) /* replies to nobody */
    ASSERT_TRUE(reply_add(state.get(), 1, {std::to_string(n), "", "", "", "refused"}) == 0 &&
                reply_set_told(state.get(), n, "refused", false) == 0);
  std::vector<reply_entry> replies;
  EXPECT_EQ(reply_list(state.get(), &replies), 0);
  EXPECT_EQ(replies.size(), 1000u);
}

TEST(Faults, RequestsThatWaitForAService) {
  const auto keep = [](const char *uid, size_t size) {
    const kept_request one = {
        .type = BRISEL_IPC_CLIENT_REQ_TYPE_REPLY, .uid = uid, .texts = {"", "", "", "", std::string(size, 't'), ""}};
    return kept_save({&one}, true);
  };
  const auto waiting = [] {
    std::string text;
    for (const kept_request &one : kept_load()) text += one.uid + " " + std::to_string(one.texts[4].size());
    return text;
  };
  const auto prepare = [&] {
    kept_forget();
    keep("first", 10);
  };
  const auto change = [&] { return keep("second", 100000); };
  const int faults = outlive_every_fault({prepare, change, waiting, "first 10", "second 100000"});
  EXPECT_GT(faults, 20);
}

}  // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  /* Memory: the faults are simulated, the disk is not needed. */
  folder = "/dev/shm/brisel-faults-" + std::to_string(getpid());
  fs::create_directory(folder);
  setenv("XDG_STATE_HOME", folder.c_str(), 1);
  const int result = RUN_ALL_TESTS();
  fs::remove_all(folder);
  return result;
}
