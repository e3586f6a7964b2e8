/* The service and the client library over a real bus, in a private session: a phone that answers when it is told to,
   ears for the events, requests of the application. */
#ifndef BRISEL_TESTS_HOST_TEST_H
#define BRISEL_TESTS_HOST_TEST_H

#include <Ecore.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <systemd/sd-bus.h>

#include <nlohmann/json.hpp>

#include "brisel-common.h"
#include "loop.h"
#include "phone.h"
#include "platform-paths.h"
#include "rows.h"
#include "store.h"
#include "vconf.h"

using nlohmann::json;

inline constexpr char link_key[] = "memory/wms/wmanager_connected";

/* A phone that answers only when it is told to. */
struct phone_peer : linked_phone {
  phone_peer() {
    acknowledges = false;
    connect();
  }
  bool has(size_t count) {
    return run_until([&] { return requests.size() >= count; });
  }
  void answer(size_t which, int error, const char *piece, bool complete) {
    answer_more(requests[which].id, error, piece, complete);
  }
};

/* The service, started when it is away: a client whose services keep falling starts none for a while. */
inline int start_service(test_phone *p) {
  sd_bus_call_method(p->bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                     "StartServiceByName", nullptr, nullptr, "su", host_name, 0u);
  return p->service();
}

/* Kills the running service; the bus starts the next one when someone calls. */
inline void kill_service(test_phone *p) {
  const int pid = p->service();
  ASSERT_GT(pid, 0);
  ASSERT_EQ(0, kill(pid, SIGKILL));
  ASSERT_TRUE(run_until([&] { return p->service() != pid; }));
}

inline std::string store_path(void) {
  return std::string(platform_data_dir()) + "/store.db";
}

inline std::string query(const std::string &sql) {
  return rows_of(store_path(), sql);
}

inline void change_store(const std::string &sql) {
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
inline subscription_data subscriptions[6];

inline void subscribe_all(heard *to) {
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
    return other.add_mail({.account = account, .received = 1000, .subject = subject, .body = body});
  }
  std::string body_of(int mail) {
    full_noti_data *data = brisel_full_noti_data_create();
    EXPECT_EQ(0, brisel_db_get_full_noti_data_by_mail_id(mail, data));
    const std::string body = data->body ? data->body : "";
    brisel_full_noti_data_free(data);
    return body;
  }
  heard ears;
  test_phone other;
  int account = 0;
};

inline op_data *op_of(std::initializer_list<int> ids) {
  op_data *op = brisel_op_data_create();
  for (const int id : ids) op->id_list = g_slist_append(op->id_list, GINT_TO_POINTER(id));
  return op;
}

inline int send_delete(int id) {
  op_data *op = op_of({id});
  const int r = brisel_ipc_req_delete_notis(op, nullptr, nullptr);
  brisel_op_data_free(op);
  return r;
}

inline int send_read(int id, int host_state) {
  update_noti_data *read = brisel_update_noti_data_create();
  read->id_list = g_slist_append(nullptr, GINT_TO_POINTER(id));
  read->host_state = host_state;
  const int r = brisel_ipc_req_update_ind(read, nullptr, nullptr);
  brisel_update_noti_data_free(read);
  return r;
}

inline int send_reply(int id, const char *text) {
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

inline json reply_heard(int id, const char *text) {
  return {{"request", "reply"},
          {"host_tag", "tag"},
          {"action", "intent.action.email.notifications.reply"},
          {"message_uid", ""},
          {"recipient", "you@example.org\2You "},
          {"text", text},
          {"mail_id", id},
          {"subject", "about"}};
}

#endif
