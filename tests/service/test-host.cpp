/* Requests of the application as the phone gets them, and when either side goes away. */
#include "cases.h"
#include "host-launch.h"
#include "host-test.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

namespace {

/* --- requests --- */

/* Of a mail that is there: with what the phone calls it. */
json heard_of(const char *request, int id) {
  return {{"request", request}, {"id_list", {id}}, {"host_tag_list", {""}}, {"message_uid_list", {"uid-0"}}};
}

json deletion_heard(int id) {
  return heard_of("delete_notis", id);
}

json mark_heard(int id, int host_state) {
  json heard = heard_of("update_ind", id);
  heard["host_state"] = host_state;
  return heard;
}

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
      mark_heard(a, -3),
      reply_heard(b, "line \"one\"\nsmile 🙂 broken \uFFFD end"),
      deletion_heard(b),
      json::object({{"request", "no_account"}}),
      {{"request", "show"}, {"kind", "email"}, {"id_list", {a, b}}},
  };
  EXPECT_EQ(1u, phone.requests[5].json.erase("asked"));
  for (size_t i = 0; i < 6; i++) EXPECT_EQ(expected[i], phone.requests[i].json);

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
  change_store("INSERT INTO outbox (json) VALUES (CAST(x'7B22EFBFBF223A317D' AS TEXT))");  /* {"U+FFFF":1} */
  change_store("INSERT INTO outbox (json) VALUES ('{\"request\":\"show\",\"asked\":1}')"); /* nobody looks there now */
  EXPECT_EQ((std::vector<int>{bad, good}), other.mails());
  EXPECT_EQ(0, send_reply(good, "\xEF\xBF\xBF"));
  EXPECT_EQ(0, send_delete(good));
  phone_peer phone;
  ASSERT_TRUE(phone.has(3));
  EXPECT_EQ("\uFFFD", phone.requests[1].json["text"]);
  EXPECT_EQ(deletion_heard(good), phone.requests[2].json);
}

TEST_F(Host, WhatFindsNoRoomIsAskedAgainUntilThereIsSome) {
  change_store("INSERT INTO outbox (json, bytes) VALUES ('{}', 20000000)");
  EXPECT_EQ("com.vextora.brisel.Error.Full", other.call(watch_interface, "NoAccount", nullptr, "s", "full"));
  bool told = false;
  brisel_ipc_client_set_trouble_cb([](int, void *data) { *static_cast<bool *>(data) = true; }, &told);
  EXPECT_EQ(0, send_delete(3000));
  EXPECT_TRUE(run_until([&] { return told; })) << "its user hears that it waits";
  brisel_ipc_client_set_trouble_cb(nullptr, nullptr);
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
    for (size_t i = 0; i < 3; i++) EXPECT_EQ(sent[i], phone.requests[i].json);
    EXPECT_EQ("com.vextora.brisel.Error.Invalid", other.phone("Ack", "x", phone.requests[0].id));
    EXPECT_EQ("com.vextora.brisel.Error.Busy", other.phone("Outcome", "sss", "a uid", "sent", ""));
    for (const linked_phone::request_heard &s : phone.requests)
      if (turn == 1) {
        EXPECT_EQ("", phone.phone("Ack", "x", s.id));
      }
  }
  kill_service(&other);
  phone_peer phone;
  EXPECT_EQ(0, send_delete(2000));
  ASSERT_TRUE(phone.has(1));
  EXPECT_EQ((json{{"request", "delete_notis"}, {"id_list", {2000}}}), phone.requests[0].json);
}

/* One that will tell what came of replies, under an id of its own. */
struct telling_phone : linked_phone {
  explicit telling_phone(char id) {
    acknowledges = false;
    EXPECT_EQ("", phone("Introduce", "ussas", 2, std::string(32, id).c_str(), "A phone", 1, "outcomes"));
    connect();
  }
};

TEST_F(Host, AReplyThatAPhoneHasIsWrittenDownBeforeAnybodyElseIsSentIt) {
  const std::pair<const char *, std::function<void(telling_phone *)>> ends[] = {
      {"it leaves",
       [](telling_phone *phone) {
         phone->leave();
         EXPECT_TRUE(run_until([] { return query("SELECT value FROM state WHERE key = 'phone_connected'") == "0\n"; }));
       }},
      {"it comes anew", [](telling_phone *) {}},
      {"the service ends",
       [&](telling_phone *) {
         const int service = other.service();
         kill(service, SIGTERM);
         EXPECT_TRUE(run_until([&] { return other.service() != service; }));
       }},
  };
  for (const auto &[what, end] : ends) {
    SCOPED_TRACE(what);
    telling_phone phone('a');
    EXPECT_EQ(0, send_reply(1, what));
    ASSERT_EQ(what, phone.request("reply")["text"]);
    EXPECT_EQ("", phone.phone("Ack", "x", phone.requests.back().id));
    end(&phone);
    telling_phone next(phone.bus ? 'a' : 'b');
    EXPECT_EQ(0, send_delete(1));
    EXPECT_EQ("delete_notis", next.request("delete_notis")["request"]);
    EXPECT_EQ(0, next.count("reply"));
    EXPECT_EQ("", next.phone("Ack", "x", next.requests.back().id));
  }

  /* With what came of it, when that is there first. */
  telling_phone phone('a');
  EXPECT_EQ(0, send_reply(1, "sent in a moment"));
  ASSERT_FALSE(phone.request("reply").is_null());
  const std::string uid = query("SELECT uid FROM journal ORDER BY id DESC LIMIT 1"),
                    changes = "SELECT count(*) FROM changes";
  const int before = std::stoi(query(changes)), service = other.service();
  kill(service, SIGSTOP);
  sd_bus_call_method_async(phone.bus, nullptr, host_name, host_path, phone_interface, "Ack", nullptr, nullptr, "x",
                           phone.requests.back().id);
  sd_bus_call_method_async(phone.bus, nullptr, host_name, host_path, phone_interface, "Outcome", nullptr, nullptr,
                           "sss", uid.substr(0, uid.size() - 1).c_str(), "sent", "");
  EXPECT_GE(sd_bus_flush(phone.bus), 0);
  kill(service, SIGCONT);
  EXPECT_TRUE(run_until([] { return query("SELECT state FROM journal ORDER BY id DESC LIMIT 1") == "2\n"; }));
  EXPECT_EQ(before + 1, std::stoi(query(changes))) << "its row changed once";
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
  const int service = other.service();
  EXPECT_EQ(0, brisel_ipc_client_deinit());
  EXPECT_EQ(0, kill(service, SIGSTOP));
  hand_over_and_die();
  EXPECT_EQ(0, kill(service, SIGKILL)); /* whether it had read the first or not */
  ASSERT_TRUE(run_until([&] { return other.service() != service; }));
  EXPECT_EQ(0, brisel_ipc_client_init());
  ASSERT_TRUE(run_until([&] { return start_service(&other) > 0 && query("SELECT count(*) FROM outbox") == "4\n"; }));
  const json expected[] = {
      {{"request", "delete_notis"}, {"id_list", {8000}}},
      {{"request", "update_ind"}, {"id_list", {8001}}, {"host_state", 77}},
      reply_heard(8002, "a reply"),
      {{"request", "show"}, {"kind", "email"}, {"id_list", {8003}}, {"position_list", {9}}},
  };
  phone_peer phone;
  ASSERT_TRUE(phone.has(4));
  EXPECT_EQ(1u, phone.requests[3].json.erase("asked"));
  for (size_t i = 0; i < 4; i++) EXPECT_EQ(expected[i], phone.requests[i].json);
  ASSERT_TRUE(run_until([&] { return access(kept.c_str(), F_OK) != 0; }));

  /* One that cannot be read is set aside, and nothing is made of it. */
  EXPECT_EQ(0, brisel_ipc_client_deinit());
  FILE *file = fopen(kept.c_str(), "w");
  fputs("no requests at all", file);
  fclose(file);
  EXPECT_EQ(0, brisel_ipc_client_init());
  EXPECT_EQ(0, access((kept + ".broken").c_str(), F_OK));
  EXPECT_NE(0, access(kept.c_str(), F_OK));
  EXPECT_EQ(0, send_delete(8004));
  ASSERT_TRUE(run_until([&] { return query("SELECT count(*) FROM outbox") == "5\n"; }));
}

TEST_F(Host, BadArgumentsAreRefusedAndChangeNothing) {
  const int mail = add_mail("here", "");
  const std::string long_uid(200, 'u'), long_text(300000, 'x');
  change_store(
      "INSERT INTO journal (id, uid, kind, state, mail_id, json, created, changed) VALUES (77, '', 1, 3, 1, '', 0, 0)");
  const std::string before = query("SELECT * FROM mail; SELECT * FROM outbox; SELECT max(seq) FROM changes");
  const auto reply = [&](const char *uid, const std::string &text, int id, const std::string &subject) {
    return other.call(watch_interface, "Reply", nullptr, "ssssssis", uid, "", "", "", "", text.c_str(), id,
                      subject.c_str());
  };
  const std::pair<const char *, std::function<std::string()>> rows[] = {
      {"empty uid", [&] { return other.call(watch_interface, "NoAccount", nullptr, "s", ""); }},
      {"long uid", [&] { return other.call(watch_interface, "NoAccount", nullptr, "s", long_uid.c_str()); }},
      {"id 0", [&] { return other.call(watch_interface, "DeleteNotis", nullptr, "sai", "b1", 2, mail, 0); }},
      {"id -1", [&] { return other.call(watch_interface, "UpdateInd", nullptr, "saii", "b2", 2, mail, -1, 0); }},
      {"long subject", [&] { return reply("b3", "", 1, long_text); }},
      {"reply to no mail", [&] { return reply("b4", "", 0, ""); }},
      {"a reply's long text", [&] { return reply("b8", long_text, 1, ""); }},
      {"a damaged reply",
       [&] { return other.call(watch_interface, "RepeatRequest", nullptr, "sxbs", "b9", 77LL, 0, ""); }},
      {"no kind", [&] { return other.call(watch_interface, "Show", nullptr, "ssai", "b5", "", 1, mail); }},
      {"more of no mail",
       [&] { return other.call(watch_interface, "MoreMsg", nullptr, "ssi", "b6", "uid-0", 999999); }},
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
      {"bad limit", [&] { return other.phone("ListMailIds", "ii", -1, 0); }},
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
  more->message_uid = g_strdup("uid-0");
  more->mail_id = mail;
  const int r = brisel_ipc_req_more_msg(more, more_cb, to);
  brisel_more_msg_req_data_free(more);
  return r;
}

TEST_F(Host, MoreOfABodyIsAppendedAsThePhoneAnswers) {
  phone_peer phone;
  for (const case_row &row :
       table_of(CASES_DIR "/service.txt",
                "more of a body: what, body, bytes that are there, error, piece, complete, result, body after it", 8)) {
    SCOPED_TRACE(row[0]);
    const int mail = add_mail(row.text(0), row.text(1)), result = row[6] == "remote" ? BRISEL_COMMON_ERROR_REMOTE : 0;
    more_answer got;
    const size_t before = phone.requests.size();
    ASSERT_EQ(0, ask_more(mail, &got));
    ASSERT_TRUE(phone.has(before + 1));
    EXPECT_EQ((json{{"request", "more_msg"}, {"message_uid", "uid-0"}, {"mail_id", mail}}),
              phone.requests[before].json);
    EXPECT_EQ(row.number(2), phone.requests[before].have);
    phone.answer(before, row.number(3), row.text(4), row.number(5));
    ASSERT_TRUE(run_until([&] { return got.count > 0; }));
    EXPECT_EQ(result, got.error);
    EXPECT_EQ(result ? 0 : mail, got.first);
    EXPECT_EQ(row[7], body_of(mail));
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
    other.set_account_count(1);
    run_until([&] { return query("SELECT 1") == "1\n"; });
    ecore_main_loop_iterate();
    other.accounts(); /* a round trip through the bus: the second question is at the service */
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
    other.delete_mails({gone});
    EXPECT_EQ("com.vextora.brisel.Error.Invalid", phone.phone("AnswerMore", "xisb", phone.requests[2].id, 0, "x", 1));
    ASSERT_TRUE(run_until([&] { return deleted.count; }));
    EXPECT_EQ(BRISEL_COMMON_ERROR_NOT_FOUND, deleted.error);

    EXPECT_EQ(0, ask_more(mail, &left));
    ASSERT_TRUE(phone.has(4));
    for (int n = 1; n < 64; n++) /* whoever asks without end: no more is held than so many */
      sd_bus_call_method_async(other.bus, nullptr, host_name, host_path, watch_interface, "MoreMsg", nullptr, nullptr,
                               "ssi", "again", "uid-0", mail);
    EXPECT_EQ("com.vextora.brisel.Error.Full",
              other.call(watch_interface, "MoreMsg", nullptr, "ssi", "again", "uid-0", mail));
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
    launch_host_set_position(8003, 9);
    launch_host_predefined_application("email", std::array{8003}.data(), 1);
    raise(SIGKILL);
  }
  const int result = RUN_ALL_TESTS();
  ecore_shutdown();
  return result;
}
