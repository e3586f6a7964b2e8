/* The mailbox list's model and rows under the phone's changes, with the real store between. */
#include <algorithm>
#include <nlohmann/json.hpp>
#include <random>

#include "app-test.h"
#include "vconf.h"

static const long base_time = 1700000000;

struct mailbox : testing::Test {
  test_phone phone;
  std::vector<int> accounts;

  void SetUp() override {
    vconf_set_bool(BRISEL_KEY_BT_CONNECTED, 1);
    phone.clear();
    phone.set_account_count(true);
  }
  void TearDown() override { app_stop(); }

  void add_accounts(int count) {
    for (int i = 0; i < count; i++) {
      const std::string name(1, (char)('a' + (int)accounts.size()));
      accounts.push_back(phone.add_account(name + "@example.org", name));
    }
  }
  int mail(int account, long minutes, const std::string &name = "Name") {
    test_mail m;
    m.account = accounts.at(account);
    m.received = base_time + minutes * 60;
    m.from_name = name;
    return phone.add_mail(m);
  }
  /* Waits for an event's log line, so that what did not change is known to stay. */
  void wait_for(const std::string &line) {
    EXPECT_TRUE(run_until([&] { return logged(line); })) << line;
  }
  void wait_for_rows(const std::vector<int> &ids) {
    EXPECT_TRUE(run_until([&] { return listed_mails() == ids; }))
        << testing::PrintToString(listed_mails()) << " is not " << testing::PrintToString(ids);
  }
};

TEST_F(mailbox, NewMailsGoWhereTheirTimePutsThem) {
  add_accounts(1);
  const int ten = mail(0, 10), thirty = mail(0, 30), twenty = mail(0, 20);
  app_start();
  EXPECT_EQ(listed_mails(), (std::vector<int>{thirty, twenty, ten}));
  EXPECT_EQ(header_count(), "(3)");
  EXPECT_EQ(header_title(), "a@example.org");

  const int newest = mail(0, 40);
  wait_for_rows({newest, thirty, twenty, ten});
  const int equal = mail(0, 20);
  wait_for_rows({newest, thirty, twenty, equal, ten});
  const int between = mail(0, 15);
  wait_for_rows({newest, thirty, twenty, equal, between, ten});
  log_mark();
  const int oldest = mail(0, 1);
  wait_for_rows({newest, thirty, twenty, equal, between, ten, oldest});
  EXPECT_TRUE(logged("I/next_data is NULL. Append item."));
  EXPECT_EQ(header_count(), "(7)");
  EXPECT_TRUE(delete_button_enabled());
}

TEST_F(mailbox, ManyAtOnceGiveWhatAFreshListGives) {
  add_accounts(2);
  std::mt19937 random(7);
  std::vector<int> all;
  auto some = [&](int count) {
    std::vector<test_mail> mails(count);
    for (test_mail &m : mails) {
      m.account = accounts[random() % 2];
      m.received = base_time + (long)(random() % 300);
      m.from_name = std::to_string(random());
    }
    std::vector<int> ids = phone.add_mails(mails);
    all.insert(all.end(), ids.begin(), ids.end());
  };
  some(300);
  app_start();
  EXPECT_EQ(listed_mails().size(), 300u);
  some(500);
  std::shuffle(all.begin(), all.end(), random);
  std::vector<int> gone(all.begin(), all.begin() + 200);
  phone.delete_mails(gone);
  for (int i = 0; i < 40; i++) some(5);
  EXPECT_TRUE(run_until([] { return g_list_length(test_ad.mail_list) == 800; })) << g_list_length(test_ad.mail_list);
  const std::vector<int> live = listed_mails();
  const std::vector<std::string> senders = listed_senders();
  EXPECT_EQ(header_count(), "(800)");
  app_stop();
  app_start();
  EXPECT_EQ(listed_mails(), live);
  EXPECT_EQ(listed_senders(), senders);
}

TEST_F(mailbox, OtherAccountsMailsStayOutOfOneAccount) {
  add_accounts(2);
  const int first = mail(0, 10);
  const int second = mail(1, 20);
  app_start();
  EXPECT_EQ(test_ad.account_id, 0);
  EXPECT_EQ(listed_mails(), (std::vector<int>{second, first}));
  tap(middle_of_item(elm_genlist_first_item_get(test_ad.mailbox_genlist)));
  EXPECT_EQ(test_ad.account_id, accounts[0]);
  EXPECT_EQ(listed_mails(), std::vector<int>{first});

  log_mark();
  const int other = mail(1, 30);
  wait_for("I/No need to insert item_data->account_id : " + std::to_string(accounts[1]) +
           " ad->account_id : " + std::to_string(accounts[0]));
  wait_for("I/mail_cnt = 1");
  EXPECT_EQ(listed_mails(), std::vector<int>{first});
  phone.delete_mails({first});
  wait_for_rows({});
  EXPECT_FALSE(delete_button_enabled());
  EXPECT_FALSE(nocontents_on_screen()) << "another account still has mails";
  EXPECT_EQ(header_count(), "(0)");
  phone.delete_mails({second, other});
  EXPECT_TRUE(run_until([] { return nocontents_on_screen(); }));
  EXPECT_TRUE(visible(brisel_util_get_text("IDS_EMAIL_BODY_NO_EMAILS")));
  const int again = mail(0, 50);
  EXPECT_TRUE(run_until([] { return !nocontents_on_screen(); }));
  EXPECT_EQ(listed_mails(), std::vector<int>{again});
  EXPECT_TRUE(delete_button_enabled());
  EXPECT_EQ(header_count(), "(1)");
}

TEST_F(mailbox, AnUpdateChangesTheNewMarkAlone) {
  add_accounts(1);
  const int id = mail(0, 10, "Before");
  app_start();
  settle();
  EXPECT_EQ(drawn_text(item_of_mail(id), "elm.text.noti"), "N");
  EXPECT_NE(elm_object_item_part_content_get(item_of_mail(id), "elm.icon"), nullptr);
  phone.set_text(id, "from_name", "After");
  log_mark();
  phone.set_flag(id, "is_new", 0);
  EXPECT_TRUE(run_until([&] { return ((item_data *)elm_object_item_data_get(item_of_mail(id)))->is_new == 0; }));
  EXPECT_TRUE(run_until([&] { return drawn_text(item_of_mail(id), "elm.text.noti").empty(); }));
  EXPECT_EQ(elm_object_item_part_content_get(item_of_mail(id), "elm.icon"), nullptr);
  EXPECT_EQ(drawn_text(item_of_mail(id), "elm.text.1"), "Before");
  phone.set_flag(id, "is_new", 1);
  EXPECT_TRUE(run_until([&] { return drawn_text(item_of_mail(id), "elm.text.noti") == "N"; }));
}

TEST_F(mailbox, RowsShowNamesAsText) {
  add_accounts(1);
  const struct {
    const char *name, *address, *shown;
  } cases[] = {
      {"<b>Bold</b> & co", "x@example.org", "<b>Bold</b> & co"},
      {"", "only@example.org", "only@example.org"},
      {"", "", ""},
      {"שלום עולם", "x@example.org", "שלום עולם"},
  };
  std::vector<int> ids;
  long minutes = 100;
  for (const auto &c : cases) {
    test_mail m;
    m.account = accounts[0];
    m.received = base_time + minutes-- * 60;
    m.from_name = c.name;
    m.from_address = c.address;
    ids.push_back(phone.add_mail(m));
  }
  vconf_set_int(BRISEL_KEY_DATE_FORMAT, 2);
  app_start();
  settle();
  for (size_t i = 0; i < 2; i++) EXPECT_TRUE(visible(cases[i].shown)) << cases[i].shown;
  EXPECT_EQ(listed_senders(), (std::vector<std::string>{"<b>Bold</b> & co", "only@example.org", "", "שלום עולם"}));
  EXPECT_EQ(drawn_text(item_of_mail(ids[0]), "elm.text.2"), "2023/11/14 23:53");
}

TEST_F(mailbox, ALaunchShowsTheAccountOfItsMail) {
  add_accounts(2);
  const int first = mail(0, 10), second = mail(1, 20);
  app_start();
  app_launch(std::to_string(second).c_str());
  EXPECT_TRUE(logged("I/combined view is shown"));
  EXPECT_EQ(test_ad.account_id, 0);
  app_launch();
  tap(middle_of_item(elm_genlist_first_item_get(test_ad.mailbox_genlist)));
  EXPECT_EQ(test_ad.account_id, accounts[0]);
  log_mark();
  app_launch(std::to_string(second).c_str());
  EXPECT_EQ(test_ad.account_id, accounts[1]);
  EXPECT_EQ(test_ad.mail_id, second);
  EXPECT_TRUE(logged("I/ad->account_id is changed by new mail(" + std::to_string(accounts[0]) + " -> " +
                     std::to_string(accounts[1]) + ")"));
  EXPECT_EQ(listed_mails(), std::vector<int>{second});
  EXPECT_NE(brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, &test_ad), nullptr);
  (void)first;
}

/* How the shown account follows accounts that come and go. */
TEST_F(mailbox, AccountsComeAndGo) {
  const struct {
    const char *what;
    int accounts, shown /* index, -1 combined */, removed, expected /* index, -1 combined */;
  } cases[] = {
      {"the shown one of three", 3, 0, 0, -1}, {"another of three", 3, 0, 1, 0},
      {"the shown one of two", 2, 1, 1, 0},    {"another of two", 2, 1, 0, 1},
      {"one of two, combined", 2, -1, 0, 1},   {"one of three, combined", 3, -1, 0, -1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    phone.clear();
    accounts.clear();
    add_accounts(c.accounts);
    std::vector<int> mails;
    for (int i = 0; i < c.accounts; i++) mails.push_back(mail(i, i));
    app_start();
    for (int taps = 0; taps <= c.shown; taps++)
      tap(middle_of_item(elm_genlist_first_item_get(test_ad.mailbox_genlist)));
    EXPECT_EQ(test_ad.account_id, c.shown < 0 ? 0 : accounts[c.shown]);
    log_mark();
    phone.remove_account(accounts[c.removed]);
    wait_for("I/BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE");
    EXPECT_TRUE(run_until([&] { return test_ad.account_id == (c.expected < 0 ? 0 : accounts[c.expected]); }))
        << test_ad.account_id;
    std::vector<int> expected;
    for (int i = c.accounts - 1; i >= 0; i--)
      if (i != c.removed && (c.expected < 0 || i == c.expected)) expected.push_back(mails[i]);
    wait_for_rows(expected);
    EXPECT_EQ(test_ad.account_cnt, c.accounts - 1);
    app_stop();
  }
}

TEST_F(mailbox, HeaderTapsGoThroughTheAccounts) {
  const struct {
    int accounts;
    std::vector<int> taps; /* index of the account shown after each tap, -1 combined */
  } cases[] = {{3, {0, 1, 2, -1, 0}}, {2, {0, 1, -1}}, {1, {0, 0}}};
  for (const auto &c : cases) {
    phone.clear();
    accounts.clear();
    add_accounts(c.accounts);
    for (int i = 0; i < c.accounts; i++) mail(i, i);
    app_start();
    for (int expected : c.taps) {
      tap(middle_of_item(elm_genlist_first_item_get(test_ad.mailbox_genlist)));
      EXPECT_EQ(test_ad.account_id, expected < 0 ? 0 : accounts[expected]);
      EXPECT_EQ(header_title(), expected < 0 ? brisel_util_get_text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB")
                                             : std::string(1, (char)('a' + expected)) + "@example.org");
      EXPECT_EQ(listed_mails().size(), expected < 0 ? (size_t)c.accounts : 1u);
      if (c.accounts == 1) {
        const char *only = brisel_util_get_text("IDS_EMAIL_TPOP_ONLY_ONE_EMAIL_ACCOUNT_REGISTERED");
        EXPECT_TRUE(visible(only));
        key("XF86Back");
        EXPECT_TRUE(gone(only));
      }
    }
    app_stop();
  }
}

TEST_F(mailbox, AnUnknownShownAccountStepsToTheFirst) {
  add_accounts(2);
  mail(0, 1);
  app_start();
  test_ad.account_id = 4242;
  log_mark();
  tap(middle_of_item(elm_genlist_first_item_get(test_ad.mailbox_genlist)));
  EXPECT_EQ(test_ad.account_id, accounts[0]);
  EXPECT_TRUE(logged("W/account info mismatch account id is changed (4242 -> " + std::to_string(accounts[0]) + ") "));
}

TEST_F(mailbox, AnAccountWithoutARecordBecomesTheCombinedView) {
  add_accounts(2);
  const int id = mail(0, 1);
  app_start();
  test_ad.account_id = 4242;
  log_mark();
  test_ad.nocontents_shown = 1;
  brisel_check_mail_on_db(&test_ad);
  EXPECT_EQ(test_ad.account_id, 0);
  bool told = false;
  for (const std::string &line : log_lines())
    told |= line.find("W/brisel_db_get_account_data_by_account_id is failed! err:[") == 0;
  EXPECT_TRUE(told);
  EXPECT_EQ(header_title(), brisel_util_get_text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"));
  app_launch(std::to_string(id).c_str());
}
