/* The store as the application reads it: what every call gives for a store that is there, missing, broken or tampered
   with, and who owns what. */
#include <malloc.h>

#include <cstdlib>

#include "brisel-common.h"
#include "brisel-contact.h"
#include "files.h"
#include "platform-paths.h"
#include "rows.h"
#include "store-format.h"
#include "store.h"

namespace fs = std::filesystem;

namespace {

std::string store_path(void) {
  return std::string(platform_data_dir()) + "/store.db";
}

int append_cb(const char *piece, size_t length, size_t size, void *data) {
  EXPECT_LE(length, size);
  static_cast<std::string *>(data)->append(piece, length);
  return 1;
}

struct Reader : testing::Test {
  void SetUp() override {
    for (const char *end : {"", "-wal", "-shm", ".lock"}) fs::remove(store_path() + end);
    EXPECT_EQ(0, brisel_db_init()); /* a store that is not there yet is no error */
  }
  void TearDown() override { EXPECT_EQ(0, brisel_db_deinit()); }
  void make_store(void) {
    std::string why;
    store *st = store_open(store_path(), &why);
    ASSERT_NE(nullptr, st) << why;
    int id = 1;
    EXPECT_EQ(store_ok, store_add_account(st, &id, "one@example.org", "One", 0x01020304));
    EXPECT_EQ(store_ok, store_add_account(st, &(id = 2), "two@example.org", "", 0xFFFFFFFF));
    store_close(st);
  }
  std::vector<int> ids_of(int account) {
    GSList *list = nullptr;
    int count = -1, counted = -1;
    EXPECT_EQ(0, brisel_db_get_full_noti_data_list_by_account_id(account, &list, &count));
    EXPECT_EQ(0, brisel_db_get_full_noti_data_count_by_account_id(account, &counted));
    std::vector<int> ids, placed;
    for (GSList *cell = list; cell; cell = cell->next)
      ids.push_back(static_cast<full_noti_data *>(cell->data)->mail_id);
    EXPECT_EQ(static_cast<int>(ids.size()), count);
    EXPECT_EQ(count, counted);
    brisel_mail_place *places = nullptr;
    EXPECT_EQ(0, brisel_db_get_mail_places_after(account, nullptr, 0, &places, &counted));
    GSList *cell = list;
    for (int i = 0; i < counted; i++) placed.push_back(places[i].mail_id);
    for (int i = 0; cell && i < counted; i++, cell = cell->next) {
      const full_noti_data *mail = static_cast<full_noti_data *>(cell->data);
      EXPECT_EQ(mail->received_time, places[i].received_time);
      EXPECT_EQ(mail->security_locked, places[i].security_locked);
    }
    EXPECT_EQ(ids, placed);
    g_free(places);
    /* In parts, each behind the last place of the one before. */
    placed.clear();
    brisel_mail_place last = {};
    for (counted = 2; counted == 2; g_free(places)) {
      EXPECT_EQ(0, brisel_db_get_mail_places_after(account, placed.empty() ? nullptr : &last, 2, &places, &counted));
      for (int i = 0; i < counted; i++) placed.push_back((last = places[i]).mail_id);
    }
    EXPECT_EQ(ids, placed);
    GSList *rows = nullptr;
    cell = list;
    for (counted = 2; counted == 2; brisel_full_noti_data_list_free(rows)) {
      EXPECT_EQ(0, brisel_db_get_noti_rows_after(account, cell == list ? nullptr : &last, 2, &rows, &counted));
      for (GSList *row = rows; row && cell; row = row->next, cell = cell->next) {
        const auto *one = static_cast<full_noti_data *>(row->data), *whole = static_cast<full_noti_data *>(cell->data);
        last = {one->mail_id, one->received_time, one->security_locked};
        EXPECT_EQ(whole->mail_id, one->mail_id);
        EXPECT_STREQ(whole->subject, one->subject);
        EXPECT_EQ(nullptr, one->body);
      }
    }
    EXPECT_EQ(nullptr, cell);
    brisel_full_noti_data_list_free(list);
    return ids;
  }
};

/* Calls everything; the statuses must all be one of the two given. */
void expect_all(int status, int status_of_one) {
  int number = 7;
  unsigned int color = 7;
  GSList *list = nullptr;
  full_noti_data *mail = brisel_full_noti_data_create();
  account_data *account = brisel_account_data_create();
  const std::pair<const char *, int> rows[] = {
      {"account count", brisel_db_get_all_account_count(&number)},
      {"target count", brisel_db_get_target_account_count(&number)},
      {"count known", brisel_db_is_valid_target_account_count(&number)},
      {"accounts", brisel_db_get_all_account_data(&list)},
      {"mails", brisel_db_get_full_noti_data_list_by_account_id(0, &list, &number)},
      {"mails of one", brisel_db_get_full_noti_data_list_by_account_id(1, &list, &number)},
      {"mail count", brisel_db_get_full_noti_data_count_by_account_id(0, &number)},
      {"templates", brisel_db_get_all_template_data(&list)},
      {"reply status", brisel_util_get_reply_status(&number)},
      {"conn status", brisel_util_get_conn_status(&number)},
  };
  for (const auto &[what, got] : rows) EXPECT_EQ(status, got) << what;
  std::string pieces;
  const std::pair<const char *, int> one_rows[] = {
      {"mail", brisel_db_get_full_noti_data_by_mail_id(1, mail)},
      {"beginning", brisel_db_get_noti_beginning_by_mail_id(1, 8, mail, &number)},
      {"pieces", brisel_db_walk_body_by_mail_id(1, 0, 8, append_cb, &pieces)},
      {"account", brisel_db_get_account_data_by_account_id(1, account)},
      {"color", brisel_util_get_account_color(1, &color)},
  };
  for (const auto &[what, got] : one_rows) EXPECT_EQ(status_of_one, got) << what;
  EXPECT_EQ(nullptr, list);
  brisel_full_noti_data_free(mail);
  brisel_account_data_free(account);
}

TEST_F(Reader, AStoreThatIsMissingIsEmptyUntilItAppears) {
  expect_all(0, BRISEL_COMMON_ERROR_NOT_FOUND);
  EXPECT_FALSE(fs::exists(store_path())); /* readers make no file */
  int count = 7, valid = 7;
  EXPECT_EQ(0, brisel_db_get_all_account_count(&count));
  EXPECT_EQ(0, count);
  EXPECT_EQ(0, brisel_db_is_valid_target_account_count(&valid));
  EXPECT_EQ(0, valid);
  make_store();
  EXPECT_EQ(0, brisel_db_get_target_account_count(&count));
  EXPECT_EQ(2, count);
  EXPECT_EQ(0, brisel_db_is_valid_target_account_count(&valid));
  EXPECT_EQ(1, valid);
}

TEST_F(Reader, WhatIsNoReadableStoreIsAnErrorAndStaysAsItIs) {
  const std::string letter = "Dear reader, this is a letter and no database at all. Yours, a file.";
  put_file(store_path(), letter);
  expect_all(BRISEL_COMMON_ERROR_STORE, BRISEL_COMMON_ERROR_STORE);
  EXPECT_EQ(letter, get_file(store_path()));
  fs::remove(store_path());
  run_sql(store_path(), "CREATE TABLE shopping (what)"); /* somebody else's */
  expect_all(BRISEL_COMMON_ERROR_STORE, BRISEL_COMMON_ERROR_STORE);
  fs::remove(store_path());
  EXPECT_EQ(0, mkfifo(store_path().c_str(), 0600)); /* nobody ever writes into it */
  expect_all(BRISEL_COMMON_ERROR_STORE, BRISEL_COMMON_ERROR_STORE);
  fs::remove(store_path());
  make_store();
  run_sql(store_path(), "PRAGMA user_version = 99");
  expect_all(BRISEL_COMMON_ERROR_STORE, BRISEL_COMMON_ERROR_STORE);
  run_sql(store_path(), "PRAGMA user_version = " + std::to_string(store_version) + "; DROP TABLE mail");
  int count = 0;
  EXPECT_EQ(BRISEL_COMMON_ERROR_STORE, brisel_db_get_full_noti_data_count_by_account_id(0, &count));
  EXPECT_EQ(0, brisel_db_get_all_account_count(&count));
}

TEST_F(Reader, MailsComeNewestFirstAndEqualTimesById) {
  make_store();
  run_sql(
      store_path(),
      "INSERT INTO mail (mail_id, account_id, received_time) VALUES (1, 1, 50), (2, 2, 70), (3, 1, 70), (4, 2, 10), "
      "(5, 1, 2147483647), (6, 2, 70);"
      "UPDATE mail SET security_locked = 1 WHERE mail_id = 3");
  EXPECT_EQ((std::vector<int>{5, 2, 3, 6, 1, 4}), ids_of(0));
  EXPECT_EQ((std::vector<int>{5, 3, 1}), ids_of(1));
  EXPECT_EQ((std::vector<int>{2, 6, 4}), ids_of(2));
  EXPECT_EQ((std::vector<int>{}), ids_of(3));
}

TEST_F(Reader, RowsComeInTheOrderAskedForWithoutThoseThatAreGone) {
  make_store();
  run_sql(store_path(),
          "WITH RECURSIVE n(i) AS (VALUES (1) UNION ALL SELECT i + 1 FROM n WHERE i < 200) "
          "INSERT INTO mail (mail_id, account_id, received_time) SELECT i, 1, 0 FROM n; DELETE FROM mail WHERE mail_id "
          "= 70");
  std::vector<int> ids, wanted, rows;
  for (int i = 0; i < 197; i++) ids.push_back(1 + i * 7 % 200);
  for (const int id : ids)
    if (id != 70) wanted.push_back(id);
  GSList *list = nullptr;
  int count = 0;
  EXPECT_EQ(0, brisel_db_get_noti_rows_by_mail_ids(ids.data(), 197, &list, &count));
  for (GSList *cell = list; cell; cell = cell->next) rows.push_back(static_cast<full_noti_data *>(cell->data)->mail_id);
  EXPECT_EQ(wanted, rows);
  EXPECT_EQ(static_cast<int>(wanted.size()), count);
  brisel_full_noti_data_list_free(list);
}

TEST_F(Reader, WhatIsKeptToReadFasterIsGivenBack) {
  make_store();
  run_sql(
      store_path(),
      "WITH RECURSIVE n(i) AS (VALUES (1) UNION ALL SELECT i + 1 FROM n WHERE i < 2000) "
      "INSERT INTO mail (mail_id, account_id, received_time, subject) SELECT i, 1, i, printf('%.*c', 100, 's') FROM n");
  const auto in_use_after = [](int mails) {
    GSList *list = nullptr;
    int count = 0;
    EXPECT_EQ(0, brisel_db_get_noti_rows_after(0, nullptr, mails, &list, &count));
    EXPECT_EQ(mails, count);
    brisel_full_noti_data_list_free(list);
    brisel_db_give_back();
    return mallinfo2().uordblks;
  };
  const size_t before = in_use_after(1);
  EXPECT_LT(in_use_after(2000), before + 65536);
}

/* Numbers in the order of the columns, then texts and numbers to call. */
std::string fields_of(const full_noti_data *mail) {
  std::string text;
  for (const long number : {long{mail->mail_id}, long{mail->host_state}, long{mail->received_time},
                            long{mail->attachment_count}, long{mail->has_image}, long{mail->is_new},
                            long{mail->account_id}, long{mail->security_locked}, long{mail->is_read}})
    text += std::to_string(number) + " ";
  for (const char *one :
       {mail->host_tag, mail->subject, mail->from_address, mail->from_name, mail->message_uid, mail->body})
    text += std::string(one ? one : "(null)") + "|";
  for (GSList *cell = mail->sender_contact_list; cell; cell = cell->next) {
    const auto *number = static_cast<contact_number *>(cell->data);
    text += std::to_string(number->type) + ":" + number->number + " ";
  }
  return text;
}

/* A row of the mail: what a list shows of it, and nothing else. */
std::string row_of(const full_noti_data *mail) {
  full_noti_data row = {};
  row.mail_id = mail->mail_id;
  row.received_time = mail->received_time;
  row.is_new = mail->is_new;
  row.account_id = mail->account_id;
  row.security_locked = mail->security_locked;
  row.is_read = mail->is_read;
  row.subject = mail->subject;
  row.from_address = mail->from_address;
  row.from_name = mail->from_name;
  return fields_of(&row);
}

TEST_F(Reader, FieldsComeAsStoredAndWithoutSurprises) {
  make_store();
  run_sql(store_path(),
          "INSERT INTO mail (mail_id, account_id, received_time) VALUES (1, 1, 5);"
          "INSERT INTO mail VALUES (2, -4, 2000000000, 3, 1, 0, 2, 1, 1, 'tag', 'Тема', 'a@b', 'Name', 'uid', "
          "'2 +44 1' || char(10) || '0 5' || char(10));"
          "INSERT INTO body VALUES (2, 'text');"
          /* Nothing that the service writes; someone else did. */
          "INSERT INTO mail (mail_id, account_id, received_time, subject, from_name, contacts) VALUES "
          "(3, 1, 4, CAST(x'41FF42' AS TEXT), '', 'nonsense' || char(10) || '1');"
          "INSERT INTO mail (mail_id, account_id, received_time, subject) VALUES (4, 'x', 'y', 12);"
          "INSERT INTO body VALUES (3, x'C3'), (4, printf('%.*c', 3000000, 'b'))");
  const std::string expected[] = {
      "4 0 0 0 0 1 0 0 0 (null)|12|(null)|(null)|(null)|" + std::string(3000000, 'b') + "|",
      "2 -4 2000000000 3 1 0 2 1 1 tag|Тема|a@b|Name|uid|text|2:+44 1 0:5 ",
      "1 0 5 0 0 1 1 0 0 (null)|(null)|(null)|(null)|(null)|(null)|",
      "3 0 4 0 0 1 1 0 0 (null)|A\uFFFD"
      "B|(null)|(null)|(null)|\uFFFD|",
  };
  full_noti_data *one = brisel_full_noti_data_create();
  GSList *list = nullptr, *rows = nullptr;
  int count = 0, row_count = 0;
  ASSERT_EQ(0, brisel_db_get_full_noti_data_list_by_account_id(0, &list, &count));
  ASSERT_EQ(0, brisel_db_get_noti_rows_after(0, nullptr, 0, &rows, &row_count));
  ASSERT_EQ(4, count);
  ASSERT_EQ(4, row_count);
  GSList *cell = list, *row = rows;
  for (const std::string &fields : expected) { /* in the list and one by one, into the same record */
    const full_noti_data *listed = static_cast<full_noti_data *>(cell->data);
    EXPECT_EQ(0, brisel_db_get_full_noti_data_by_mail_id(listed->mail_id, one));
    EXPECT_TRUE(fields_of(listed) == fields) << fields_of(listed).substr(0, 200);
    EXPECT_TRUE(fields_of(one) == fields) << fields_of(one).substr(0, 200);
    EXPECT_EQ(row_of(listed), fields_of(static_cast<full_noti_data *>(row->data)));
    int is_whole = 0;
    EXPECT_EQ(0, brisel_db_get_noti_beginning_by_mail_id(listed->mail_id, 3000000, one, &is_whole));
    EXPECT_TRUE(fields_of(one) == fields && is_whole) << fields_of(one).substr(0, 200);
    cell = cell->next;
    row = row->next;
  }
  brisel_full_noti_data_list_free(list);
  brisel_full_noti_data_list_free(rows);
  EXPECT_EQ(BRISEL_COMMON_ERROR_NOT_FOUND, brisel_db_get_full_noti_data_by_mail_id(9, one));
  int is_whole = 0;
  EXPECT_EQ(BRISEL_COMMON_ERROR_NOT_FOUND, brisel_db_get_noti_beginning_by_mail_id(9, 8, one, &is_whole));
  run_sql(store_path(), "UPDATE body SET text = 'aé€😀' WHERE mail_id = 2");
  const char *const beginnings[] = {"a", "a", "aé", "aé", "aé", "aé€", "aé€", "aé€", "aé€", "aé€😀", "aé€😀"};
  for (int most = 1; most <= 11; most++) {
    EXPECT_EQ(0, brisel_db_get_noti_beginning_by_mail_id(2, most, one, &is_whole));
    EXPECT_STREQ(beginnings[most - 1], one->body);
    EXPECT_EQ(most >= 10, is_whole != 0) << most;
  }
  brisel_full_noti_data_free(one);
  run_sql(store_path(), "UPDATE body SET text = printf('%.200000c', 'x') || 'end' WHERE mail_id = 2");
  for (const auto &[from, most, got] :
       {std::tuple{0, 300000, 200003}, {200001, 9, 2}, {200003, 1, 0}, {7, 70000, 70000}}) {
    std::string pieces;
    EXPECT_EQ(0, brisel_db_walk_body_by_mail_id(2, (size_t)from, (size_t)most, append_cb, &pieces));
    EXPECT_EQ(pieces, (std::string(200000, 'x') + "end").substr((size_t)from, (size_t)got));
  }
}

TEST_F(Reader, TheApplicationMayReplaceTextsAndContacts) {
  make_store();
  run_sql(store_path(),
          "INSERT INTO mail (mail_id, account_id, received_time, contacts) VALUES (1, 1, 5, '1 23');"
          "INSERT INTO body VALUES (1, 'old')");
  static int freed;
  freed = 0;
  brisel_full_noti_data_set_contact_free([](gpointer contact) {
    freed++;
    g_free(contact);
  });
  full_noti_data *mail = brisel_full_noti_data_create();
  GSList *list = nullptr;
  int count = 0;
  ASSERT_EQ(0, brisel_db_get_full_noti_data_by_mail_id(1, mail));
  ASSERT_EQ(0, brisel_db_get_full_noti_data_list_by_account_id(0, &list, &count));
  g_free(mail->body);
  mail->body = g_strdup("new");
  for (full_noti_data *data : {mail, static_cast<full_noti_data *>(list->data)}) {
    g_slist_free(data->sender_contact_list);
    data->sender_contact_list = g_slist_append(nullptr, g_malloc0(16));
  }
  ASSERT_EQ(0, brisel_db_get_full_noti_data_by_mail_id(1, mail)); /* the record again: its own goes */
  EXPECT_EQ(1, freed);
  EXPECT_STREQ("old", mail->body);
  brisel_full_noti_data_free(mail);
  brisel_full_noti_data_list_free(list);
  EXPECT_EQ(2, freed);
  brisel_full_noti_data_set_contact_free(nullptr);
}

TEST_F(Reader, WhatIsNotOpenIsAnError) {
  make_store();
  EXPECT_EQ(0, brisel_db_deinit());
  expect_all(BRISEL_COMMON_ERROR_STORE, BRISEL_COMMON_ERROR_STORE);
  EXPECT_EQ(BRISEL_COMMON_ERROR_STORE, brisel_db_deinit());
  EXPECT_EQ(0, brisel_db_init());
  int number = 0;
  GSList *list = nullptr;
  EXPECT_EQ(BRISEL_COMMON_ERROR_INVALID, brisel_db_get_full_noti_data_list_by_account_id(-1, &list, &number));
  EXPECT_EQ(BRISEL_COMMON_ERROR_INVALID, brisel_db_get_account_data_by_account_id(1, nullptr));
}

}  // namespace
