/* Events as the application gets them, and what the service says of itself. */
#include "host-test.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

namespace {

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
  other.accounts(); /* starts it */
  ASSERT_TRUE(run_until([&] { return ears.events.size() == 2; }));
  EXPECT_EQ(ids, ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD));
  EXPECT_EQ((std::vector<int>{ids[0]}), ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE));
}

/* Whoever was away for longer than changes are kept, or finds another store, still hears of all that became of it. */
TEST_F(Host, WhatTheChangesNoLongerTellIsMadeUp) {
  const int kept = add_mail("kept", ""), gone = add_mail("gone", "");
  const int away = account + 1;
  other.add_account("away@example.org", "", 0, away);
  ASSERT_TRUE(run_until([&] { return ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD).size() >= 2; }));
  ears.events.clear();
  /* The main loop does not run from here to the last of them. */
  const int fresh = add_mail("fresh", "");
  other.delete_mails({gone});
  other.remove_account(away);
  other.set_flag(kept, "is_read", 1);
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
    other.accounts(); /* starts it */
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
  test_phone busy;
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
    other.set_status("reply", 0);
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
  other.delete_mails({ids[0]});

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
  other.set_text(mail, "subject", "kept again");
  ASSERT_TRUE(run_until([&] { return subjects() == "kept again\n"; }));
  ASSERT_TRUE(run_until([&] { return !ears.all(BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE).empty(); }));
  const std::string folder = store_path().substr(0, store_path().rfind('/'));
  const auto watch_id = [&] {
    std::string id;
    std::getline(std::ifstream(folder + "/watch-id"), id);
    return id;
  };
  const std::string before = watch_id();
  EXPECT_EQ(32u, before.size());
  EXPECT_EQ(0, unlink((folder + "/watch-id").c_str()));
  ASSERT_TRUE(run_until([&] { return watch_id() == before; }));
  ASSERT_EQ(0, rename(folder.c_str(), (folder + ".gone").c_str())); /* with all that is in it, at once */
  ASSERT_TRUE(run_until([&] { return subjects() == "kept again\n" && watch_id() == before; }));
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
  const int pid = other.service();
  EXPECT_EQ(0, kill(pid, SIGKILL));
  while (other.service() == pid) usleep(1000);
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

/* --- notifications --- */

/* A server that numbers what it is told, and says that anything was pressed. */
struct notification_server : test_phone {
  uint32_t told = 0, closed = 0;

  static int abilities_cb(sd_bus_message *m, void *, sd_bus_error *) {
    return sd_bus_reply_method_return(m, "as", 1, "actions");
  }
  static int tell_cb(sd_bus_message *m, void *data, sd_bus_error *) {
    return sd_bus_reply_method_return(m, "u", ++static_cast<notification_server *>(data)->told);
  }
  static int close_cb(sd_bus_message *m, void *data, sd_bus_error *) {
    static_cast<notification_server *>(data)->closed++;
    return sd_bus_reply_method_return(m, "");
  }
  static constexpr char name[] = "org.freedesktop.Notifications", path[] = "/org/freedesktop/Notifications";
  notification_server() {
    static const sd_bus_vtable methods[] = {
        SD_BUS_VTABLE_START(0), SD_BUS_METHOD("GetCapabilities", "", "as", abilities_cb, 0),
        SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", tell_cb, 0),
        SD_BUS_METHOD("CloseNotification", "u", "", close_cb, 0), SD_BUS_VTABLE_END};
    EXPECT_GE(sd_bus_add_object_vtable(bus, nullptr, path, name, methods, this), 0);
    EXPECT_GE(sd_bus_request_name(bus, name, 0), 0);
  }
  bool until(const std::function<bool()> &done) {
    return run_until([&] {
      while (sd_bus_process(bus, nullptr) > 0) {
      }
      return done();
    });
  }
};

TEST_F(Host, WhatANotificationHasNoButtonForDoesNothing) {
  notification_server server;
  linked_phone phone;
  phone.connect();
  other.add_mail({.account = account, .received = time(nullptr)});
  ASSERT_TRUE(server.until([&] { return server.told == 1; }));
  for (const char *key : {"archive", "reply:No button says this.", "send-again", "mark-read"})
    EXPECT_GE(sd_bus_emit_signal(server.bus, server.path, server.name, "ActionInvoked", "us", server.told, key), 0);
  EXPECT_TRUE(server.until([&] { return server.closed == 1; }));
  EXPECT_EQ("update_ind", phone.request("update_ind").value("request", "nothing"));
  EXPECT_EQ(0, phone.count("reply"));
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
  for (const int how : {SIGTERM, SIGHUP}) {
    phone_peer phone;
    const int pid = other.service();
    EXPECT_EQ(0, kill(pid, how));
    while (kill(pid, 0) == 0) usleep(1000); /* the main loop stands still: nobody starts another one */
    EXPECT_EQ(0, link()) << "left set by the service that ended";
  }
  other.accounts();
  EXPECT_EQ(0, vconf_set_bool(link_key, 1)); /* made by hand: not the service's to take back */
  kill_service(&other);
  other.accounts();
  EXPECT_EQ(1, link());
  EXPECT_EQ(0, vconf_set_bool(link_key, 0));
}

TEST_F(Host, StatusesTemplatesAndCountsReadAsThePhoneSetThem) {
  int value = -1;
  EXPECT_EQ(0, brisel_util_get_reply_status(&value));
  EXPECT_EQ(0, value);
  other.set_status("reply", 2);
  EXPECT_EQ(0, brisel_util_get_reply_status(&value));
  EXPECT_EQ(2, value);
  other.set_status("reply", 0);

  int before = 0, after = 0;
  const char key[] = "memory/private/msg-consumer-server/change_text_template";
  vconf_get_int(key, &before);
  other.set_templates({"first", "второй"});
  EXPECT_EQ(0, vconf_get_int(key, &after));
  EXPECT_NE(before, after);
  GSList *list = nullptr;
  EXPECT_EQ(0, brisel_db_get_all_template_data(&list));
  ASSERT_EQ(2u, g_slist_length(list));
  EXPECT_STREQ("второй", static_cast<template_data *>(g_slist_nth_data(list, 1))->text);
  EXPECT_EQ(2, static_cast<template_data *>(g_slist_nth_data(list, 1))->template_id);
  brisel_template_data_list_free(list);
  other.set_templates({});
  EXPECT_EQ(0, brisel_db_get_all_template_data(&list));
  EXPECT_EQ(nullptr, list);

  unsigned int rgba = 0;
  EXPECT_EQ(0, brisel_util_get_account_color(account, &rgba));
  EXPECT_NE(0u, rgba);
  other.add_account("new@example.org", "", 0x10203040, account);
  EXPECT_EQ(0, brisel_util_get_account_color(account, &rgba));
  EXPECT_EQ(0x10203040u, rgba);
  account_data *data = brisel_account_data_create();
  EXPECT_EQ(0, brisel_db_get_account_data_by_account_id(account, data));
  EXPECT_STREQ("new@example.org", data->email_address);
  EXPECT_EQ(nullptr, data->display_name);
  EXPECT_EQ(BRISEL_COMMON_ERROR_NOT_FOUND, brisel_db_get_account_data_by_account_id(99999, data));
  brisel_account_data_free(data);

  other.set_account_count(0);
  EXPECT_EQ(0, brisel_db_is_valid_target_account_count(&value));
  EXPECT_EQ(0, value);
  ears.events.clear();
  other.set_account_count(1);
  ASSERT_TRUE(run_until([&] {
    return !ears.events.empty() && ears.events.back().first == BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_COUNT_STATUS;
  }));
  EXPECT_EQ(0, brisel_db_is_valid_target_account_count(&value));
  EXPECT_EQ(1, value);
}

}  // namespace
