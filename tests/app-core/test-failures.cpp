/* What happens when the things that the application stands on are missing, broken or gone. */
#include <algorithm>

#include "app-test.h"
#include "contacts.h"
#include "files.h"
#include "platform-paths.h"
#include "vconf.h"

static std::string data_file(const char *name) {
  return std::string(platform_data_dir()) + "/" + name;
}

static bool logged_like(const std::string &start) {
  return std::ranges::any_of(log_lines(), [&](const std::string &line) { return line.starts_with(start); });
}

/* The first one of this session: a service that runs would put its own store back. */
TEST(failures, AStoreThatIsNoDatabaseIsToldAndSurvived) {
  vconf_set_bool(BRISEL_KEY_BT_CONNECTED, 1);
  const std::string garbage(8192, 'x');
  put_file(data_file("store.db"), garbage);
  app_start();
  EXPECT_TRUE(logged_like("E/brisel_db_init() failed! err:[")) << testing::PrintToString(log_lines());
  EXPECT_TRUE(logged_like("W/brisel_db_is_valid_target_account_count failed("));
  const std::string unreadable = brisel_util_get_text("IDS_EMAIL_POP_THE_EMAILS_ON_THE_ZOLT_CANNOT_BE_READ");
  EXPECT_TRUE(visible(unreadable));
  EXPECT_EQ(test_ad.connecting_popup, nullptr) << "there is nothing to wait for";
  tap(text_at(brisel_util_get_text("IDS_EMAIL_SK_TRY_AGAIN")));
  EXPECT_TRUE(visible(unreadable)) << "it still cannot";
  EXPECT_EQ(init_brisel(&test_ad, 5), 0) << "the screen stands on nothing";
  EXPECT_TRUE(logged_like("I/brisel_db_get_full_noti_data_list_by_account_id() failed! err:["));
  EXPECT_TRUE(logged_like("E/brisel_db_get_full_noti_data_by_mail_id() failed! err:["));
  EXPECT_TRUE(nocontents_on_screen());
  EXPECT_EQ(brisel_create_account_selection_popup(&test_ad), nullptr);
  EXPECT_TRUE(logged_like("W/brisel_db_get_all_account_data is failed! ["));
  app_stop();
  EXPECT_EQ(get_file(data_file("store.db")), garbage) << "nobody wrote over it";
  app_start();
  EXPECT_TRUE(visible(unreadable));
  std::filesystem::remove(data_file("store.db"));
  tap(text_at(brisel_util_get_text("IDS_EMAIL_SK_TRY_AGAIN")));
  EXPECT_NE(test_ad.connecting_popup, nullptr) << "the launch goes on";
  EXPECT_TRUE(gone(unreadable));
  app_stop();
}

TEST(failures, ContactsThatAreNoDatabaseFindNobody) {
  put_file(data_file("contacts.db"), std::string(8192, 'x'));
  app_start();
  EXPECT_EQ(brisel_util_get_person_id_by_email_address("a@example.org"), -1);
  EXPECT_TRUE(logged_like("I/contacts_db_get_records_with_query() is failed error_code = "));
  EXPECT_EQ(brisel_util_get_phone_number_by_person_id(1), nullptr);
  app_stop();
  std::filesystem::remove(data_file("contacts.db"));
}
