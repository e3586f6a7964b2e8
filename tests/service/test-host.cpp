/* The service and the client library over a real bus: requests as the phone gets them, events as the application gets
   them, and both when either side goes away. Runs in a private session (brisel-session). */
#include <Ecore.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "brisel-common.h"
#include "loop.h"
#include "phone.h"
#include "platform-paths.h"
#include "rows.h"
#include "store.h"
#include "vconf.h"

using nlohmann::json;

namespace {

constexpr char link_key[] = "memory/wms/wmanager_connected";

/* A phone that answers only when it is told to, or anyone else on the bus. */
struct peer : test_phone {
  struct seen {
    int64_t id;
    json request;
    int64_t have;
  };
  peer() {
    sd_bus_match_signal(
        bus, nullptr, nullptr, host_path, phone_interface, "Request",
        [](sd_bus_message *m, void *data, sd_bus_error *) {
          seen s = {0, {}, -1};
          const char *text = nullptr, *key = nullptr;
          sd_bus_message_read(m, "xs", &s.id, &text);
          s.request = json::parse(text);
          sd_bus_message_enter_container(m, 'a', "{sv}");
          if (sd_bus_message_enter_container(m, 'e', "sv") > 0) sd_bus_message_read(m, "sv", &key, "x", &s.have);
          static_cast<peer *>(data)->requests.push_back(s);
          return 0;
        },
        this);
  }
  void process(void) {
    while (sd_bus_process(bus, nullptr) > 0) {
    }
  }
  bool has(size_t count) {
    return run_until([&] { return requests.size() >= count; });
  }
  void answer(size_t which, int error, const char *piece, int complete) {
    EXPECT_EQ("", phone("AnswerMore", "xisb", requests[which].id, error, piece, complete));
  }
  std::vector<seen> requests;
};

struct phone_peer : peer {
  phone_peer() { EXPECT_EQ("", phone("Connect", "")); }
  ~phone_peer() { loop_no_more(beside); }
  int beside = loop_also([this] { process(); });
};

int service_pid(peer *p) {
  sd_bus_creds *creds = nullptr;
  pid_t pid = 0;
  if (sd_bus_get_name_creds(p->bus, host_name, SD_BUS_CREDS_PID, &creds) >= 0) sd_bus_creds_get_pid(creds, &pid);
  sd_bus_creds_unref(creds);
  return pid;
}

/* The service, started when it is away: a client whose services keep falling starts none for a while. */
int start_service(peer *p) {
  sd_bus_call_method(p->bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                     "StartServiceByName", nullptr, nullptr, "su", host_name, 0u);
  return service_pid(p);
}

/* Kills the running service; the bus starts the next one when someone calls. */
void kill_service(peer *p) {
  const int pid = service_pid(p);
  ASSERT_GT(pid, 0);
  ASSERT_EQ(0, kill(pid, SIGKILL));
  ASSERT_TRUE(run_until([&] { return service_pid(p) != pid; }));
}

std::string store_path(void) {
  return std::string(platform_data_dir()) + "/store.db";
}

std::string query(const std::string &sql) {
  return rows_of(store_path(), sql);
}

void change_store(const std::string &sql) {
  run_sql(store_path(), sql);
}

/* What the application heard, in order: "type:ids". */
struct heard {
  std::vector<std::pair<int, std::vector<int>>> events;
  std::vector<int> all(int type) const {
    std::vector<int> ids;
    for (const auto &[t, list] : events)
      if (t == type) ids.insert(ids.end(), list.begin(), list.end());
    return ids;
  }
};

struct subscription_data {
  int type;
  heard *to;
};
subscription_data subscriptions[6];

void subscribe_all(heard *to) {
  for (int type = 0; type < 6; type++) {
    subscriptions[type] = {type, to};
    ASSERT_EQ(0, brisel_ipc_client_event_subscribe(
                     type,
                     [](brisel_ipc_event *event, void *, void *data) {
                       const subscription_data *s = static_cast<subscription_data *>(data);
                       std::vector<int> ids;
                       for (GSList *cell = event->id_list; cell; cell = cell->next)
                         ids.push_back(GPOINTER_TO_INT(cell->data));
                       s->to->events.emplace_back(s->type, ids);
                     },
                     &subscriptions[type]));
  }
}

struct Host : testing::Test {
  void SetUp() override {
    ASSERT_EQ(0, brisel_db_init());
    ASSERT_EQ(0, brisel_ipc_client_init());
    subscribe_all(&ears);
    account = other.add_account("me@example.org", "Me", 0);
    ASSERT_TRUE(run_until([&] { return !ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD).empty(); }));
  }
  void TearDown() override {
    {
      linked_phone drain; /* leaves no request for the next test */
      drain.connect();
      EXPECT_TRUE(run_until([] { return query("SELECT id FROM outbox LIMIT 1").empty(); }));
    }
    other.remove_account(account);
    EXPECT_EQ(0, brisel_ipc_client_deinit());
    EXPECT_EQ(0, brisel_db_deinit());
  }
  int add_mail(const char *subject, const char *body) {
    sd_bus_message *answer = nullptr;
    EXPECT_EQ(
        "", other.call(phone_interface, "AddMails", &answer, "aa{sv}", 1, 5, "account_id", "i", account, "subject", "s",
                       subject, "body", "s", body, "message_uid", "s", "uid", "received_time", "x", int64_t{1000}));
    int id = 0;
    sd_bus_message_read(answer, "ai", 1, &id);
    sd_bus_message_unref(answer);
    return id;
  }
  std::string body_of(int mail) {
    full_noti_data *data = brisel_full_noti_data_create();
    EXPECT_EQ(0, brisel_db_get_full_noti_data_by_mail_id(mail, data));
    const std::string body = data->body ? data->body : "";
    brisel_full_noti_data_free(data);
    return body;
  }
  heard ears;
  peer other;
  int account = 0;
};

/* The ids of a ListMails answer. */
struct bus_ids {
  ~bus_ids() { sd_bus_message_unref(answer); }
  std::vector<int> read(void) const {
    std::vector<int> ids;
    sd_bus_message_enter_container(answer, 'a', "a{sv}");
    while (sd_bus_message_enter_container(answer, 'a', "{sv}") > 0) {
      const char *key = nullptr;
      int id = 0;
      sd_bus_message_enter_container(answer, 'e', "sv"); /* the id comes first */
      sd_bus_message_read(answer, "s", &key);
      sd_bus_message_read(answer, "v", "i", &id);
      ids.push_back(id);
      sd_bus_message_exit_container(answer);
      while (sd_bus_message_skip(answer, "{sv}") > 0) {
      }
      sd_bus_message_exit_container(answer);
    }
    return ids;
  }
  sd_bus_message *answer = nullptr;
};

op_data *op_of(std::initializer_list<int> ids) {
  op_data *op = brisel_op_data_create();
  for (const int id : ids) op->id_list = g_slist_append(op->id_list, GINT_TO_POINTER(id));
  return op;
}

int send_delete(int id) {
  op_data *op = op_of({id});
  const int r = brisel_ipc_req_delete_notis(op, nullptr, nullptr);
  brisel_op_data_free(op);
  return r;
}

int send_read(int id, int host_state) {
  update_noti_data *read = brisel_update_noti_data_create();
  read->id_list = g_slist_append(nullptr, GINT_TO_POINTER(id));
  read->host_state = host_state;
  const int r = brisel_ipc_req_update_ind(read, nullptr, nullptr);
  brisel_update_noti_data_free(read);
  return r;
}

int send_reply(int id, const char *text) {
  reply_noti_data *reply = brisel_reply_noti_data_create();
  reply->host_tag = g_strdup("tag");
  reply->action = g_strdup("intent.action.email.notifications.reply");
  reply->recipient = g_strdup("you@example.org\2You \xC3"); /* cut inside a character */
  reply->text = g_strdup(text);
  reply->subject = g_strdup("about");
  reply->mail_id = id;
  const int r = brisel_ipc_req_reply(reply, nullptr, nullptr);
  brisel_reply_noti_data_free(reply);
  return r;
}

json reply_heard(int id, const char *text) {
  return {{"request", "reply"},
          {"host_tag", "tag"},
          {"action", "intent.action.email.notifications.reply"},
          {"message_uid", ""},
          {"recipient", "you@example.org\2You "},
          {"text", text},
          {"mail_id", id},
          {"subject", "about"}};
}

/* --- requests --- */

TEST_F(Host, RequestsReachThePhoneWholeAndInOrder) {
  phone_peer phone;
  const int a = add_mail("a", ""), b = add_mail("b", "");
  op_data *clear = op_of({0});
  EXPECT_EQ(0, brisel_ipc_req_clear_all_new_flag(clear, nullptr, nullptr));
  brisel_op_data_free(clear);
  EXPECT_EQ(0, send_read(a, -3));
  EXPECT_EQ(0, send_reply(b, "line \"one\"\nsmile 🙂 broken \xFF end"));
  EXPECT_EQ(0, send_delete(b));
  EXPECT_EQ(0, brisel_ipc_req_no_account(nullptr, nullptr));
  ASSERT_TRUE(phone.has(5));
  for (const char *uid : {"show-1", "show-1", "show-2"}) /* the first is asked twice, as after a lost answer */
    EXPECT_EQ("", other.call(watch_interface, "Show", nullptr, "ssai", uid, "email", 2, a, b));
  ASSERT_TRUE(phone.has(7));
  EXPECT_GT(phone.requests[6].id, phone.requests[5].id);
  EXPECT_EQ("7\n", query("SELECT count(*) FROM outbox"));
  const json expected[] = {
      {{"request", "clear_all_new_flag"}, {"id_list", {0}}},
      {{"request", "update_ind"}, {"id_list", {a}}, {"host_state", -3}},
      reply_heard(b, "line \"one\"\nsmile 🙂 broken \uFFFD end"),
      {{"request", "delete_notis"}, {"id_list", {b}}},
      json::object({{"request", "no_account"}}),
      {{"request", "show"}, {"kind", "email"}, {"id_list", {a, b}}},
  };
  for (size_t i = 0; i < 6; i++) EXPECT_EQ(expected[i], phone.requests[i].request);

  ASSERT_TRUE(run_until([&] { return !ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE).empty(); }));
  EXPECT_EQ((std::vector<int>{a, b}), ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD));
  EXPECT_EQ((std::vector<int>{a, b, a}), ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE));
  EXPECT_EQ((std::vector<int>{b}), ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE));
  full_noti_data *mail = brisel_full_noti_data_create();
  EXPECT_EQ(0, brisel_db_get_full_noti_data_by_mail_id(a, mail));
  EXPECT_EQ(1, mail->is_read);
  EXPECT_EQ(0, mail->is_new);
  EXPECT_EQ(BRISEL_COMMON_ERROR_NOT_FOUND, brisel_db_get_full_noti_data_by_mail_id(b, mail));
  brisel_full_noti_data_free(mail);
}

TEST_F(Host, WhatNoBusTakesHoldsNothingBack) {
  const int bad = add_mail("bad", ""), good = add_mail("good", "");
  change_store(
      "UPDATE mail SET subject = CAST(x'41EFBFBF' AS TEXT), from_name = CAST(x'FF' AS TEXT)"
      " WHERE subject = 'bad'");
  change_store("INSERT INTO outbox (json) VALUES (CAST(x'7B22EFBFBF223A317D' AS TEXT))"); /* {"U+FFFF":1} */
  bus_ids listed;
  EXPECT_EQ("", other.call(phone_interface, "ListMails", &listed.answer, "ii", 0, 0));
  EXPECT_EQ((std::vector<int>{bad, good}), listed.read());
  EXPECT_EQ(0, send_reply(good, "\xEF\xBF\xBF"));
  EXPECT_EQ(0, send_delete(good));
  phone_peer phone;
  ASSERT_TRUE(phone.has(3));
  EXPECT_EQ("\uFFFD", phone.requests[1].request["text"]);
  EXPECT_EQ((json{{"request", "delete_notis"}, {"id_list", {good}}}), phone.requests[2].request);
}

TEST_F(Host, WhatFindsNoRoomIsAskedAgainUntilThereIsSome) {
  change_store("INSERT INTO outbox (json, bytes) VALUES ('{}', 20000000)");
  EXPECT_EQ("com.vextora.brisel.Error.Full", other.call(watch_interface, "NoAccount", nullptr, "s", "full"));
  EXPECT_EQ(0, send_delete(3000));
  run_for(0.3); /* it is refused meanwhile, or it is not: it must come in the end */
  change_store("DELETE FROM outbox");
  ASSERT_TRUE(run_until([] { return !query("SELECT json FROM outbox").empty(); }));
  EXPECT_NE("\n", query("SELECT client FROM outbox")) << "nobody's share is counted";
}

TEST_F(Host, RequestsWaitForAPhoneThroughKillsUntilItHasThem) {
  std::vector<json> sent;
  for (int i = 1; i <= 3; i++) {
    EXPECT_EQ(0, send_delete(1000 + i));
    sent.push_back({{"request", "delete_notis"}, {"id_list", {1000 + i}}});
  }
  ASSERT_TRUE(run_until([&] { return query("SELECT count(*) FROM outbox") == "3\n"; }));
  kill_service(&other);
  for (int turn = 0; turn < 2; turn++) { /* nothing is acknowledged: the second phone gets them again */
    phone_peer phone;
    ASSERT_TRUE(phone.has(3));
    for (size_t i = 0; i < 3; i++) EXPECT_EQ(sent[i], phone.requests[i].request);
    EXPECT_EQ("com.vextora.brisel.Error.Invalid", other.phone("Ack", "x", phone.requests[0].id));
    for (const peer::seen &s : phone.requests)
      if (turn == 1) {
        EXPECT_EQ("", phone.phone("Ack", "x", s.id));
      }
  }
  kill_service(&other);
  phone_peer phone;
  EXPECT_EQ(0, send_delete(2000));
  ASSERT_TRUE(phone.has(1));
  EXPECT_EQ((json{{"request", "delete_notis"}, {"id_list", {2000}}}), phone.requests[0].request);
}

TEST_F(Host, EachRequestIsDoneOnceInOrderHoweverOftenTheServiceIsKilled) {
  constexpr int count = 60;
  srand(7);
  int sent = 0, kills = 0;
  while (sent < count) {
    const int burst = 1 + rand() % 9;
    for (int i = 0; i < burst && sent < count; i++) EXPECT_EQ(0, send_delete(5000 + sent++));
    int pid = 0;
    ASSERT_TRUE(run_until([&] { return (pid = start_service(&other)) > 0; }));
    for (int turns = rand() % 30; turns > 0; turns--) ecore_main_loop_iterate();
    if (kill(pid, SIGKILL) == 0) kills++;
  }
  ASSERT_TRUE(run_until([&] {
    start_service(&other);
    return query("SELECT count(*) FROM outbox") == std::to_string(count) + "\n";
  }));
  EXPECT_GT(kills, 5);
  std::string expected;
  for (int i = 0; i < count; i++)
    expected += "{\"request\":\"delete_notis\",\"id_list\":[" + std::to_string(5000 + i) + "]}\n";
  EXPECT_EQ(expected, query("SELECT json FROM outbox ORDER BY id"));
}

TEST_F(Host, WhatWasAcceptedIsHandedOverWhenTheApplicationEnds) {
  for (int i = 0; i < 5; i++) EXPECT_EQ(0, send_delete(7000 + i)); /* no turn of the main loop in between */
  EXPECT_EQ(0, brisel_ipc_client_deinit());
  EXPECT_EQ("5\n", query("SELECT count(*) FROM outbox"));
  EXPECT_EQ(BRISEL_COMMON_ERROR_LINK, send_delete(1));
  EXPECT_EQ(BRISEL_COMMON_ERROR_LINK, brisel_ipc_req_cancel(BRISEL_IPC_CLIENT_REQ_TYPE_DELETE_NOTIS));
  EXPECT_EQ(0, brisel_ipc_client_init());
}

/* Another process, which is killed with what it handed over. */
void hand_over_and_die(void) {
  const pid_t pid = fork();
  if (pid == 0) {
    execl("/proc/self/exe", "test-host", "--hand-over-and-die", nullptr);
    _exit(1);
  }
  int status = 0;
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

TEST_F(Host, WhatWasAcceptedOutlivesTheApplicationThatIsKilled) {
  const std::string kept = std::string(platform_app_state_dir()) + "/requests";
  const int service = service_pid(&other);
  EXPECT_EQ(0, brisel_ipc_client_deinit());
  EXPECT_EQ(0, kill(service, SIGSTOP));
  hand_over_and_die();
  EXPECT_EQ(0, kill(service, SIGKILL)); /* whether it had read the first or not */
  ASSERT_TRUE(run_until([&] { return service_pid(&other) != service; }));
  EXPECT_EQ(0, brisel_ipc_client_init());
  ASSERT_TRUE(run_until([&] { return start_service(&other) > 0 && query("SELECT count(*) FROM outbox") == "3\n"; }));
  const json expected[] = {{{"request", "delete_notis"}, {"id_list", {8000}}},
                           {{"request", "update_ind"}, {"id_list", {8001}}, {"host_state", 77}},
                           reply_heard(8002, "a reply")};
  phone_peer phone;
  ASSERT_TRUE(phone.has(3));
  for (size_t i = 0; i < 3; i++) EXPECT_EQ(expected[i], phone.requests[i].request);
  ASSERT_TRUE(run_until([&] { return access(kept.c_str(), F_OK) != 0; }));

  /* One that cannot be read is set aside, and nothing is made of it. */
  EXPECT_EQ(0, brisel_ipc_client_deinit());
  FILE *file = fopen(kept.c_str(), "w");
  fputs("no requests at all", file);
  fclose(file);
  EXPECT_EQ(0, brisel_ipc_client_init());
  EXPECT_EQ(0, access((kept + ".broken").c_str(), F_OK));
  EXPECT_NE(0, access(kept.c_str(), F_OK));
  EXPECT_EQ(0, send_delete(8003));
  ASSERT_TRUE(run_until([&] { return query("SELECT count(*) FROM outbox") == "4\n"; }));
}

TEST_F(Host, BadArgumentsAreRefusedAndChangeNothing) {
  const int mail = add_mail("here", "");
  const std::string long_uid(200, 'u'), long_text(300000, 'x');
  const std::string before = query("SELECT * FROM mail; SELECT * FROM outbox; SELECT max(seq) FROM changes");
  const std::pair<const char *, std::function<std::string()>> rows[] = {
      {"empty uid", [&] { return other.call(watch_interface, "NoAccount", nullptr, "s", ""); }},
      {"long uid", [&] { return other.call(watch_interface, "NoAccount", nullptr, "s", long_uid.c_str()); }},
      {"id 0", [&] { return other.call(watch_interface, "DeleteNotis", nullptr, "sai", "b1", 2, mail, 0); }},
      {"id -1", [&] { return other.call(watch_interface, "UpdateInd", nullptr, "saii", "b2", 2, mail, -1, 0); }},
      {"long subject",
       [&] {
         return other.call(watch_interface, "Reply", nullptr, "ssssssis", "b3", "", "", "", "", "", 1,
                           long_text.c_str());
       }},
      {"reply to no mail",
       [&] { return other.call(watch_interface, "Reply", nullptr, "ssssssis", "b4", "", "", "", "", "", 0, ""); }},
      {"no kind", [&] { return other.call(watch_interface, "Show", nullptr, "ssai", "b5", "", 1, mail); }},
      {"more of no mail", [&] { return other.call(watch_interface, "MoreMsg", nullptr, "ssi", "b6", "uid", 999999); }},
      {"more of another",
       [&] { return other.call(watch_interface, "MoreMsg", nullptr, "ssi", "b7", "not its uid", mail); }},
      {"unknown field",
       [&] { return other.phone("AddMails", "aa{sv}", 1, 2, "account_id", "i", account, "colour", "s", "x"); }},
      {"wrong type", [&] { return other.phone("UpdateMail", "ia{sv}", mail, 1, "subject", "i", 3); }},
      {"wrong type", [&] { return other.phone("UpdateMail", "ia{sv}", mail, 1, "is_read", "s", "yes"); }},
      {"a contact without number",
       [&] { return other.phone("UpdateMail", "ia{sv}", mail, 1, "contacts", "a(is)", 1, 1, ""); }},
      {"unknown mail", [&] { return other.phone("UpdateMail", "ia{sv}", 99999, 1, "is_read", "b", 1); }},
      {"bad limit", [&] { return other.phone("ListMails", "ii", 0, -1); }},
      {"unknown status", [&] { return other.phone("SetStatus", "si", "mood", 1); }},
      {"answer from a stranger", [&] { return other.phone("AnswerMore", "xisb", int64_t{1}, 0, "", 1); }},
  };
  for (const auto &[what, call] : rows) EXPECT_EQ("com.vextora.brisel.Error.Invalid", call()) << what;
  EXPECT_EQ(before, query("SELECT * FROM mail; SELECT * FROM outbox; SELECT max(seq) FROM changes"));
  phone_peer phone;
  EXPECT_EQ("com.vextora.brisel.Error.Busy", other.phone("Connect", ""));
  EXPECT_EQ("", phone.phone("Connect", ""));
}

/* --- more of a body --- */

struct more_answer {
  int count = 0, error = 0, first = 0;
};

void more_cb(void *response, int error, void *data) {
  more_answer *to = static_cast<more_answer *>(data);
  const brisel_ipc_event *event = static_cast<brisel_ipc_event *>(response);
  to->count++;
  to->error = error;
  to->first = event && event->id_list ? GPOINTER_TO_INT(event->id_list->data) : 0;
}

int ask_more(int mail, more_answer *to) {
  more_msg_req_data *more = brisel_more_msg_req_data_create();
  more->message_uid = g_strdup("uid");
  more->mail_id = mail;
  const int r = brisel_ipc_req_more_msg(more, more_cb, to);
  brisel_more_msg_req_data_free(more);
  return r;
}

TEST_F(Host, MoreOfABodyIsAppendedAsThePhoneAnswers) {
  const struct {
    const char *what;
    const char *body;
    int64_t have;
    int error;
    const char *piece;
    int complete;
    int result;
    const char *after;
  } rows[] = {
      {"more to come", "one <tag:thisisover500>", 4, 0, "two ", 0, 0, "one two <tag:thisisover500>"},
      {"the last", "one <tag:thisisover500>", 4, 0, "two", 1, 0, "one two<tag:thisisover-1>"},
      {"nothing left", "all<tag:thisisover500>", 3, 0, "", 1, 0, "all<tag:thisisover-1>"},
      {"without a tag", "héllo", 6, 0, "!", 1, 0, "héllo!<tag:thisisover-1>"},
      {"no body yet", "", 0, 0, "all", 1, 0, "all<tag:thisisover-1>"},
      {"an error", "one<tag:thisisover500>", 3, 5, "x", 1, BRISEL_COMMON_ERROR_REMOTE, "one<tag:thisisover500>"},
  };
  phone_peer phone;
  for (const auto &row : rows) {
    const int mail = add_mail(row.what, row.body);
    more_answer got;
    const size_t before = phone.requests.size();
    ASSERT_EQ(0, ask_more(mail, &got)) << row.what;
    ASSERT_TRUE(phone.has(before + 1)) << row.what;
    EXPECT_EQ((json{{"request", "more_msg"}, {"message_uid", "uid"}, {"mail_id", mail}}),
              phone.requests[before].request);
    EXPECT_EQ(row.have, phone.requests[before].have) << row.what;
    phone.answer(before, row.error, row.piece, row.complete);
    ASSERT_TRUE(run_until([&] { return got.count > 0; })) << row.what;
    EXPECT_EQ(row.result, got.error) << row.what;
    EXPECT_EQ(row.result ? 0 : mail, got.first) << row.what;
    EXPECT_EQ(row.after, body_of(mail)) << row.what;
  }
}

TEST_F(Host, MoreOfABodyFailsWhenItCannotCome) {
  const int mail = add_mail("m", "one<tag:thisisover500>");
  more_answer no_phone;
  EXPECT_EQ(0, ask_more(mail, &no_phone));
  ASSERT_TRUE(run_until([&] { return no_phone.count; }));
  EXPECT_EQ(BRISEL_COMMON_ERROR_NO_PHONE, no_phone.error);

  more_answer late, left, killed, cancelled, next, deleted;
  {
    phone_peer phone;
    EXPECT_EQ(0, ask_more(mail, &late)); /* never answered */
    ASSERT_TRUE(run_until([&] { return late.count; }));
    EXPECT_EQ(BRISEL_COMMON_ERROR_TIMEOUT, late.error);
    EXPECT_EQ("com.vextora.brisel.Error.Invalid",
              phone.phone("AnswerMore", "xisb", phone.requests[0].id, 0, "late", 0));
    EXPECT_EQ("one<tag:thisisover500>", body_of(mail));

    /* Withdrawn and asked again while the phone still works on it: one piece, one answer. */
    EXPECT_EQ(0, ask_more(mail, &cancelled));
    ASSERT_TRUE(phone.has(2));
    EXPECT_EQ(0, brisel_ipc_req_cancel(BRISEL_IPC_CLIENT_REQ_TYPE_MORE_MSG));
    EXPECT_EQ(0, ask_more(mail, &next));
    EXPECT_EQ("", other.phone("SetAccountCount", "b", 1));
    run_until([&] { return query("SELECT 1") == "1\n"; });
    ecore_main_loop_iterate();
    sd_bus_message *names = nullptr; /* a round trip through the bus: the second question is at the service */
    sd_bus_call_method(other.bus, host_name, host_path, "org.freedesktop.DBus.Peer", "Ping", nullptr, &names, "");
    sd_bus_message_unref(names);
    phone.answer(1, 0, " two", 0);
    ASSERT_TRUE(run_until([&] { return next.count; }));
    EXPECT_EQ(0, next.error);
    EXPECT_EQ(0, cancelled.count);
    EXPECT_EQ("one two<tag:thisisover500>", body_of(mail));
    EXPECT_EQ(2u, phone.requests.size());

    /* The mail goes while the phone looks for it. */
    const int gone = add_mail("gone", "");
    EXPECT_EQ(0, ask_more(gone, &deleted));
    ASSERT_TRUE(phone.has(3));
    EXPECT_EQ("", other.phone("DeleteMails", "ai", 1, gone));
    EXPECT_EQ("com.vextora.brisel.Error.Invalid", phone.phone("AnswerMore", "xisb", phone.requests[2].id, 0, "x", 1));
    ASSERT_TRUE(run_until([&] { return deleted.count; }));
    EXPECT_EQ(BRISEL_COMMON_ERROR_NOT_FOUND, deleted.error);

    EXPECT_EQ(0, ask_more(mail, &left));
    ASSERT_TRUE(phone.has(4));
  }
  ASSERT_TRUE(run_until([&] { return left.count; })); /* at once, long before the time is up */
  EXPECT_EQ(BRISEL_COMMON_ERROR_NO_PHONE, left.error);

  phone_peer phone;
  EXPECT_EQ(0, ask_more(mail, &killed));
  ASSERT_TRUE(phone.has(1));
  kill_service(&other);
  ASSERT_TRUE(run_until([&] { return killed.count; }));
  EXPECT_EQ(BRISEL_COMMON_ERROR_LINK, killed.error);
  EXPECT_EQ("one two<tag:thisisover500>", body_of(mail));
}

/* --- events --- */

TEST_F(Host, EventsMissedWhileTheServiceWasAwayComeWhenItIsBack) {
  ears.events.clear();
  kill_service(&other);
  /* A service killed between its commit and its signal leaves a store like this. */
  std::string why;
  store *st = nullptr;
  while (!(st = store_open(store_path(), &why))) ASSERT_NE(std::string::npos, why.find("in use")) << why;
  std::vector<mail_values> mails(2);
  for (mail_values &mail : mails) mail.field[field_account] = {true, false, account, ""};
  std::vector<int> ids;
  EXPECT_EQ(store_ok, store_add_mails(st, &mails, &ids));
  EXPECT_EQ(store_ok, store_delete_mails(st, {ids[0]}));
  store_close(st);
  EXPECT_EQ(0, ears.events.size());
  EXPECT_EQ("", other.phone("ListAccounts", "")); /* starts it */
  ASSERT_TRUE(run_until([&] { return ears.events.size() == 2; }));
  EXPECT_EQ(ids, ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD));
  EXPECT_EQ((std::vector<int>{ids[0]}), ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE));
}

/* Whoever was away for longer than changes are kept, or finds another store, still hears of all that became of it. */
TEST_F(Host, WhatTheChangesNoLongerTellIsMadeUp) {
  const int kept = add_mail("kept", ""), gone = add_mail("gone", "");
  const int away = account + 1;
  EXPECT_EQ("", other.phone("AddAccount", "issu", away, "away@example.org", "", 0u));
  ASSERT_TRUE(run_until([&] { return ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD).size() >= 2; }));
  ears.events.clear();
  /* The main loop does not run from here to the last of them. */
  const int fresh = add_mail("fresh", "");
  EXPECT_EQ("", other.phone("DeleteMails", "ai", 1, gone));
  EXPECT_EQ("", other.phone("RemoveAccount", "i", away));
  EXPECT_EQ("", other.phone("UpdateMail", "ia{sv}", kept, 1, "is_read", "b", 1));
  change_store("DELETE FROM changes WHERE seq < (SELECT max(seq) FROM changes)");
  ASSERT_TRUE(run_until([&] { return !ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD).empty(); }));
  EXPECT_EQ((std::vector<int>{fresh}), ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD));
  const auto has = [&](int type, int id) {
    const std::vector<int> ids = ears.all(type);
    return std::count(ids.begin(), ids.end(), id) == 1;
  };
  EXPECT_TRUE(has(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, kept));
  EXPECT_TRUE(has(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, gone));
  EXPECT_FALSE(has(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, kept));
  EXPECT_EQ((std::vector<int>{away}), ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE));
  EXPECT_TRUE(has(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD, account));

  /* Another store in its place, as after a restored backup. */
  const auto move_store = [&](const std::string &from, const std::string &to) {
    kill_service(&other);
    const int lock = open((store_path() + ".lock").c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(0, flock(lock, LOCK_EX));
    for (const char *end : {"", "-wal", "-shm"})
      if (rename((store_path() + from + end).c_str(), (store_path() + to + end).c_str()) != 0)
        unlink((store_path() + to + end).c_str());
    close(lock);
    ears.events.clear();
    EXPECT_EQ("", other.phone("ListAccounts", "")); /* starts it */
  };
  move_store("", ".away");
  ASSERT_TRUE(run_until([&] { return has(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE, account); }));
  EXPECT_TRUE(has(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, kept));
  move_store(".away", "");
  ASSERT_TRUE(run_until([&] { return has(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD, kept); }));
  EXPECT_TRUE(has(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD, account));
  const int last = add_mail("goes on as ever", "");
  ASSERT_TRUE(run_until([&] { return has(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD, last); }));
}

/* A call with so many mails; the subject of the last one is given. */
sd_bus_message *many_mails(sd_bus *bus, int count, int account, const std::string &last) {
  sd_bus_message *m = nullptr;
  sd_bus_message_new_method_call(bus, &m, host_name, host_path, phone_interface, "AddMails");
  sd_bus_message_open_container(m, 'a', "a{sv}");
  for (int i = 1; i <= count; i++)
    sd_bus_message_append(m, "a{sv}", 2, "account_id", "i", account, "subject", "s", i < count ? "s" : last.c_str());
  sd_bus_message_close_container(m);
  return m;
}

TEST_F(Host, ManyMailsKeepNobodyWaitingAndComeWholeOrNotAtAll) {
  peer busy;
  const std::string before = query("SELECT max(seq) FROM changes");
  sd_bus_message *bad = many_mails(busy.bus, 1000, account, std::string(text_max + 1, 'x'));
  sd_bus_error error = SD_BUS_ERROR_NULL;
  EXPECT_LT(sd_bus_call(busy.bus, bad, 0, &error, nullptr), 0);
  EXPECT_STREQ("com.vextora.brisel.Error.Invalid", error.name);
  sd_bus_error_free(&error);
  sd_bus_message_unref(bad);
  EXPECT_EQ(before, query("SELECT max(seq) FROM changes"));

  /* When some of them are in, another one's call is done before the rest is: at the latest at the tenth try. */
  const auto count = [] { return std::stoi(query("SELECT count(*) FROM mail")); };
  bool in_between = false;
  for (int turn = 1; turn <= 10 && !in_between; turn++) {
    sd_bus_message *m = many_mails(busy.bus, 5000, account, "last");
    ASSERT_GE(sd_bus_send(busy.bus, m, nullptr), 0);
    sd_bus_flush(busy.bus);
    sd_bus_message_unref(m);
    ASSERT_TRUE(run_until([&] { return count() > 5000 * (turn - 1); }));
    EXPECT_EQ("", other.phone("SetStatus", "si", "reply", 0));
    in_between = count() < 5000 * turn;
    ASSERT_TRUE(run_until([&] { return count() == 5000 * turn; }));
  }
  EXPECT_TRUE(in_between);
}

TEST_F(Host, AFloodComesInSlicesWithTheMainLoopRunningInBetween) {
  ears.events.clear();
  sd_bus_message *m = many_mails(other.bus, 1000, account, "last");
  sd_bus_message *answer = nullptr;
  ASSERT_GE(sd_bus_call(other.bus, m, 0, nullptr, &answer), 0);
  const void *data = nullptr;
  size_t bytes = 0;
  ASSERT_GE(sd_bus_message_read_array(answer, 'i', &data, &bytes), 0);
  const std::vector<int> ids(static_cast<const int *>(data), static_cast<const int *>(data) + bytes / 4);
  sd_bus_message_unref(m);
  sd_bus_message_unref(answer);
  EXPECT_EQ("", other.phone("DeleteMails", "ai", 1, ids[0]));

  int turns = 0; /* each is a chance to draw */
  Ecore_Idle_Enterer *counter = ecore_idle_enterer_add(
      [](void *t) -> Eina_Bool { return ++*static_cast<int *>(t), ECORE_CALLBACK_RENEW; }, &turns);
  ASSERT_TRUE(run_until([&] { return !ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE).empty(); }));
  ecore_idle_enterer_del(counter);
  EXPECT_EQ(ids, ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD));
  EXPECT_EQ(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, ears.events.back().first);
  for (const auto &[type, list] : ears.events) EXPECT_LE(list.size(), 16u);
  EXPECT_GE(turns, 15);
}

TEST_F(Host, ACallbackMayEndItAll) {
  ears.events.clear();
  EXPECT_EQ(0, brisel_ipc_client_event_subscribe(
                   BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD,
                   [](brisel_ipc_event *, void *, void *) { EXPECT_EQ(0, brisel_ipc_client_deinit()); }, nullptr));
  add_mail("the last one heard of", "");
  ASSERT_TRUE(run_until([&] { return brisel_ipc_req_cancel(0) == BRISEL_COMMON_ERROR_LINK; }));
  EXPECT_EQ(0, brisel_ipc_client_init());
  subscribe_all(&ears);
  const int mail = add_mail("heard again", "");
  ASSERT_TRUE(run_until([&] { return !ears.events.empty(); }));
  EXPECT_EQ((std::vector<int>{mail}), ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD));
}

/* The file under the running service: nobody kills it, nobody calls it. */
TEST_F(Host, AStoreThatIsDeletedIsPutBackAndAnotherInItsPlaceIsTakenOver) {
  const int mail = add_mail("kept", "body");
  ASSERT_TRUE(run_until([&] { return !ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD).empty(); }));
  const auto subjects = [] { return query("SELECT subject FROM mail"); };
  for (const char *end : {"", "-wal", "-shm"}) unlink((store_path() + end).c_str());
  ASSERT_TRUE(run_until([&] { return subjects() == "kept\n"; }));
  EXPECT_EQ("body", body_of(mail));
  for (const char *end : {"-wal", "-shm"}) unlink((store_path() + end).c_str()); /* what lies beside it holds it, too */
  EXPECT_EQ("", other.phone("UpdateMail", "ia{sv}", mail, 1, "subject", "s", "kept again"));
  ASSERT_TRUE(run_until([&] { return subjects() == "kept again\n"; }));
  ASSERT_TRUE(run_until([&] { return !ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE).empty(); }));
  std::ofstream(store_path() + ".new") << "no store";
  ASSERT_EQ(0, rename((store_path() + ".new").c_str(), store_path().c_str()));
  ASSERT_TRUE(run_until([&] { return subjects() == "kept again\n"; }));
  std::string set_aside;
  std::getline(std::ifstream(store_path() + ".strange"), set_aside);
  EXPECT_EQ("no store", set_aside);
  const int next = add_mail("next", "");
  ASSERT_TRUE(run_until([&] {
    return ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD) == std::vector<int>{mail, next};
  }));
  EXPECT_EQ((std::vector<int>{}), ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE)) << "it was the same all along";

  /* A copy of it from before comes back while no service runs. */
  change_store("VACUUM INTO '" + store_path() + ".copy'");
  const int late = add_mail("late", "");
  const auto has = [&](int type, int id) { return std::ranges::count(ears.all(type), id) == 1; };
  ASSERT_TRUE(run_until([&] { return has(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD, late); }));
  const int pid = service_pid(&other);
  EXPECT_EQ(0, kill(pid, SIGKILL));
  while (service_pid(&other) == pid) usleep(1000);
  for (const char *end : {"-wal", "-shm"}) unlink((store_path() + end).c_str());
  ASSERT_EQ(0, rename((store_path() + ".copy").c_str(), store_path().c_str()));
  ASSERT_TRUE(run_until([&] { return has(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, late); }));
  ASSERT_TRUE(run_until([&] { return has(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD, next); }));

  std::string why;
  store *st = store_open(store_path() + ".new", &why);
  EXPECT_EQ(store_ok, store_add_account(st, &account, "other@example.org", "", 0));
  store_close(st);
  ears.events.clear();
  ASSERT_EQ(0, rename((store_path() + ".new").c_str(), store_path().c_str()));
  ASSERT_TRUE(run_until([&] { return ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE).size() == 2; }));
  EXPECT_EQ("", subjects());
  ASSERT_TRUE(
      run_until([&] { return ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD) == std::vector<int>{account}; }));
}

/* --- states --- */

TEST_F(Host, TheLinkSettingFollowsThePhoneAndIsPutRightAfterAKill) {
  const auto link = [] {
    int value = -1;
    vconf_get_bool(link_key, &value);
    return value;
  };
  const auto conn = [] {
    int status = -1;
    EXPECT_EQ(0, brisel_util_get_conn_status(&status));
    return status;
  };
  {
    phone_peer phone;
    EXPECT_EQ(1, link());
    EXPECT_EQ(0, conn());
  }
  ASSERT_TRUE(run_until([&] { return link() == 0 && conn() == 1; }));
  {
    phone_peer phone;
    kill_service(&other);
    /* Nobody calls: the application has the next one started, which takes back what the killed one said. */
    ASSERT_TRUE(run_until([&] { return link() == 0 && conn() == 1; }));
    EXPECT_EQ("", phone.phone("Connect", ""));
    EXPECT_EQ(1, link());
  }
  ASSERT_TRUE(run_until([&] { return link() == 0 && conn() == 1; }));
  {
    phone_peer phone;
    const int pid = service_pid(&other);
    EXPECT_EQ(0, kill(pid, SIGTERM));
    while (kill(pid, 0) == 0) usleep(1000); /* the main loop stands still: nobody starts another one */
    EXPECT_EQ(0, link()) << "left set by the service that ended";
  }
  EXPECT_EQ("", other.phone("ListAccounts", ""));
  EXPECT_EQ(0, vconf_set_bool(link_key, 1)); /* made by hand: not the service's to take back */
  kill_service(&other);
  EXPECT_EQ("", other.phone("ListAccounts", ""));
  EXPECT_EQ(1, link());
  EXPECT_EQ(0, vconf_set_bool(link_key, 0));
}

TEST_F(Host, StatusesTemplatesAndCountsReadAsThePhoneSetThem) {
  int value = -1;
  EXPECT_EQ(0, brisel_util_get_reply_status(&value));
  EXPECT_EQ(0, value);
  EXPECT_EQ("", other.phone("SetStatus", "si", "reply", 2));
  EXPECT_EQ(0, brisel_util_get_reply_status(&value));
  EXPECT_EQ(2, value);
  EXPECT_EQ("", other.phone("SetStatus", "si", "reply", 0));

  int before = 0, after = 0;
  const char key[] = "memory/private/msg-consumer-server/change_text_template";
  vconf_get_int(key, &before);
  EXPECT_EQ("", other.phone("SetTemplates", "as", 2, "first", "второй"));
  EXPECT_EQ(0, vconf_get_int(key, &after));
  EXPECT_NE(before, after);
  GSList *list = nullptr;
  EXPECT_EQ(0, brisel_db_get_all_template_data(&list));
  ASSERT_EQ(2u, g_slist_length(list));
  EXPECT_STREQ("второй", static_cast<template_data *>(g_slist_nth_data(list, 1))->text);
  EXPECT_EQ(2, static_cast<template_data *>(g_slist_nth_data(list, 1))->template_id);
  brisel_template_data_list_free(list);
  EXPECT_EQ("", other.phone("SetTemplates", "as", 0));
  EXPECT_EQ(0, brisel_db_get_all_template_data(&list));
  EXPECT_EQ(nullptr, list);

  unsigned int rgba = 0;
  EXPECT_EQ(0, brisel_util_get_account_color(account, &rgba));
  EXPECT_NE(0u, rgba);
  EXPECT_EQ("", other.phone("AddAccount", "issu", account, "new@example.org", "", 0x10203040u));
  EXPECT_EQ(0, brisel_util_get_account_color(account, &rgba));
  EXPECT_EQ(0x10203040u, rgba);
  account_data *data = brisel_account_data_create();
  EXPECT_EQ(0, brisel_db_get_account_data_by_account_id(account, data));
  EXPECT_STREQ("new@example.org", data->email_address);
  EXPECT_EQ(nullptr, data->display_name);
  EXPECT_EQ(BRISEL_COMMON_ERROR_NOT_FOUND, brisel_db_get_account_data_by_account_id(99999, data));
  brisel_account_data_free(data);

  EXPECT_EQ("", other.phone("SetAccountCount", "b", 0));
  EXPECT_EQ(0, brisel_db_is_valid_target_account_count(&value));
  EXPECT_EQ(0, value);
  ears.events.clear();
  EXPECT_EQ("", other.phone("SetAccountCount", "b", 1));
  ASSERT_TRUE(run_until([&] {
    return !ears.events.empty() && ears.events.back().first == BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_COUNT_STATUS;
  }));
  EXPECT_EQ(0, brisel_db_is_valid_target_account_count(&value));
  EXPECT_EQ(1, value);
}

/* "interface method type direction" of every argument, in the order of each method. */
std::set<std::string> outline(const std::string &xml) {
  std::set<std::string> lines;
  std::string interface, member;
  int place = 0;
  const std::regex tag("<(interface|method|signal|arg)\\b([^>]*)>"), attribute("(name|type|direction)=\"([^\"]*)\"");
  for (std::sregex_iterator i(xml.begin(), xml.end(), tag), end; i != end; ++i) {
    std::map<std::string, std::string> found;
    const std::string kind = (*i)[1], rest = (*i)[2];
    for (std::sregex_iterator a(rest.begin(), rest.end(), attribute); a != end; ++a) found[(*a)[1]] = (*a)[2];
    if (kind == "interface") interface = found["name"];
    if (kind == "method" || kind == "signal") member = kind + " " + found["name"], place = 0;
    const bool out = found["direction"] == "out";
    if (kind != "interface" && interface.find("vextora") != std::string::npos)
      lines.insert(
          interface + " " + member +
          (kind == "arg" ? std::to_string(place++) + found["name"] + " " + found["type"] + (out ? " out" : "") : ""));
  }
  return lines;
}

TEST_F(Host, TheDescriptionIsWhatTheServiceOffers) {
  bus_message answer;
  ASSERT_EQ("", other.call("org.freedesktop.DBus.Introspectable", "Introspect", &answer.m, ""));
  const char *live = nullptr;
  sd_bus_message_read(answer, "s", &live);
  std::ifstream in(HOST_XML);
  EXPECT_EQ(outline({std::istreambuf_iterator<char>(in), {}}), outline(live));
}

}  // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  setenv("ECORE_NO_SYSTEM_MODULES", "1", 1); /* they would talk to the machine's own bus */
  ecore_init();
  if (argc == 2 && !strcmp(argv[1], "--hand-over-and-die")) {
    brisel_ipc_client_init();
    send_delete(8000);
    send_read(8001, 77);
    send_reply(8002, "a reply");
    raise(SIGKILL);
  }
  const int result = RUN_ALL_TESTS();
  ecore_shutdown();
  return result;
}
