/* Dates, numbers, markup, contacts, reply methods: against tables. */
#include <malloc.h>
#include <unistd.h>

#include "app-test.h"
#include "brisel-scoped.h"
#include "cases.h"
#include "contacts.h"
#include "vconf.h"

static std::string taken(char *text) {
  scoped_text held(text);
  return text ? text : "(null)";
}

static std::vector<case_row> cases(const char *name, size_t fields) {
  return table_of(CASES_DIR "/utils.txt", name, fields);
}

/* 2013-03-14 22:42:07 UTC */
static const time_t old_mail = 1363300927;

struct formats : testing::Test {
  appdata ad = {};
  std::string localtime = getenv("BRISEL_LOCALTIME");
  void TearDown() override {
    brisel_close_icu_pattern_generator(&ad);
    free(ad.locale);
    vconf_unset(BRISEL_KEY_REGION);
    zone("Etc/UTC");
  }
  void region(const char *value) {
    if (value)
      vconf_set_str(BRISEL_KEY_REGION, value);
    else
      vconf_unset(BRISEL_KEY_REGION);
    brisel_close_icu_pattern_generator(&ad);
    ASSERT_EQ(brisel_open_icu_pattern_generator(&ad), 0);
  }
  void zone(const std::string &id) {
    unlink(localtime.c_str());
    ASSERT_EQ(symlink(("/usr/share/zoneinfo/" + id).c_str(), localtime.c_str()), 0);
    brisel_update_timezone_str();
  }
};

TEST_F(formats, OldMailsShowDateAndTime) {
  zone("Etc/UTC");
  for (const case_row &c :
       cases("old mails: region, date format, time format, what is shown of 2013-03-14 22:42:07 UTC", 4)) {
    region(c.text(0));
    ad.date_format = c.number(1);
    ad.time_format = c.number(2);
    std::string shown = taken(brisel_util_get_mailbox_date_time_str(old_mail, &ad));
    for (size_t nbsp; (nbsp = shown.find("\u202F")) != std::string::npos;) shown.replace(nbsp, 3, " ");
    for (size_t nbsp; (nbsp = shown.find("\u00A0")) != std::string::npos;) shown.replace(nbsp, 2, " ");
    EXPECT_EQ(shown, c[3]) << c[0];
  }
  region("ta_IN");
  brisel_util_set_time_room(16); /* an old mail, on 320 pixels */
  EXPECT_EQ(taken(brisel_util_get_date_time_str_by_skeleton("hhmm", ad.locale, nullptr)), "12:00 மு.ப");
  brisel_util_set_time_room(20);
}

TEST_F(formats, NearerMailsShowLess) {
  zone("Asia/Seoul");
  region("en_GB.UTF-8");
  const time_t now = time(nullptr);
  struct tm today = {};
  localtime_r(&now, &today);
  struct tm last_of_year = {
      .tm_min = 59, .tm_hour = 23, .tm_mday = 31, .tm_mon = 11, .tm_year = today.tm_year - 1, .tm_isdst = -1};
  struct tm late = today;
  late.tm_hour = 23;
  late.tm_min = 58;
  char text[64];

  strftime(text, sizeof(text), "%H:%M", &today);
  EXPECT_EQ(taken(brisel_util_get_mailbox_date_time_str(now, &ad)), text);
  EXPECT_EQ(taken(brisel_util_get_mailbox_date_time_str(mktime(&late), &ad)), "23:58") << "later today is today";

  struct tm other_day = today;
  other_day.tm_mon = today.tm_mon == 0 ? 1 : 0;
  other_day.tm_mday = 7;
  const time_t other = mktime(&other_day);
  for (auto [date_format, pattern] :
       std::map<int, const char *>{{0, "%d/%m %H:%M"}, {1, "%m/%d %H:%M"}, {2, "%m/%d %H:%M"}, {3, "%d/%m %H:%M"}}) {
    ad.date_format = date_format;
    strftime(text, sizeof(text), pattern, &other_day);
    EXPECT_EQ(taken(brisel_util_get_mailbox_date_time_str(other, &ad)), text);
  }
  ad.date_format = 2;
  strftime(text, sizeof(text), "%Y/12/31 23:59", &last_of_year);
  EXPECT_EQ(taken(brisel_util_get_mailbox_date_time_str(mktime(&last_of_year), &ad)), text);
  EXPECT_EQ(brisel_util_get_mailbox_date_time_str(now, nullptr), nullptr);
}

TEST_F(formats, RegionMakesTheLocaleAndTheDigits) {
  for (const case_row &c : cases("regions: the locale of each, and -1234567 in it", 3)) {
    region(c.text(0));
    EXPECT_EQ(ad.locale, c[1]);
    EXPECT_EQ(taken(brisel_util_get_localized_number_str(-1234567, &ad)), c[2]) << c[1];
  }
  log_mark();
  vconf_set_int(BRISEL_KEY_REGION, 7);
  EXPECT_EQ(taken(brisel_get_locale()), "en_US");
  EXPECT_EQ(log_lines(), std::vector<std::string>{"W/vconf_get_str() failed : region format"});
}

TEST_F(formats, TheZoneLinkRulesTextsAndDays) {
  region("en_GB.UTF-8");
  for (const case_row &c : cases("zones", 2)) {
    zone(c[0]);
    EXPECT_EQ(taken(brisel_get_timezone_str()), c[0]);
    EXPECT_EQ(taken(brisel_util_get_mailbox_date_time_str(old_mail, &ad)), c[1]);
  }
  /* Other trees of the same zones, a copy, and a file that is none of the database: what the C library makes of it. */
  zone("posix/Asia/Seoul");
  EXPECT_EQ(taken(brisel_get_timezone_str()), "Asia/Seoul");
  const time_t summer = 1373000000; /* 2013-07-05 04:53:20 UTC */
  const std::string rules = localtime + ".rules", own = localtime + "-own/";
  std::ofstream(rules)
      << "Rule S 2000 max - Apr 1 2:00 2:00 S\nRule S 2000 max - Oct 1 2:00 0 -\nZone Own 1:30 S O%sT\n";
  ASSERT_EQ(system(("/usr/sbin/zic -d '" + own + "' '" + rules + "'").c_str()), 0);
  const struct {
    std::string from;
    const char *winter, *summer;
  } files[] = {{"/usr/share/zoneinfo/Europe/Berlin", "14/03/2013 23:42", "05/07/2013 06:53"},
               {own + "Own", "15/03/2013 00:12", "05/07/2013 08:23"}};
  for (const auto &file : files) {
    unlink(localtime.c_str());
    std::ofstream(localtime, std::ios::binary) << std::ifstream(file.from, std::ios::binary).rdbuf();
    brisel_update_timezone_str();
    EXPECT_EQ(taken(brisel_util_get_mailbox_date_time_str(old_mail, &ad)), file.winter) << file.from;
    EXPECT_EQ(taken(brisel_util_get_mailbox_date_time_str(summer, &ad)), file.summer) << file.from;
  }
  zone("Asia/Seoul");
  for (const char *target : {"", "/usr/share/zoneinf"}) {
    unlink(localtime.c_str());
    if (*target) {
      ASSERT_EQ(symlink(target, localtime.c_str()), 0);
    }
    log_mark();
    brisel_update_timezone_str();
    EXPECT_TRUE(logged("E/readlink() failed"));
    EXPECT_TRUE(logged("E/timezone_id is NULL"));
    EXPECT_EQ(taken(brisel_util_get_mailbox_date_time_str(old_mail, &ad)), "15/03/2013 07:42") << "the zone stays";
  }
}

/* "This year" is that of the calendar on screen: two days around the Persian new year. */
TEST_F(formats, ThisYearIsTheCalendarsOwn) {
  zone("Etc/UTC");
  region("fa_IR");
  ad.date_format = 2;
  /* Of any two Gregorian days 200 days apart in the past, one at least is in another Persian year than today, and is
     shown with it: the text has the year exactly when ICU's calendar says so. */
  const time_t now = time(nullptr);
  std::string years[3];
  for (int i = 0; i < 3; i++) {
    time_t then = now - i * 180 * 86400;
    years[i] = taken(brisel_util_get_date_time_str_by_pattern("y", "fa_IR", &then));
    if (i == 0) continue;
    const bool with_year = taken(brisel_util_get_mailbox_date_time_str(then, &ad)).find(years[i]) != std::string::npos;
    EXPECT_EQ(with_year, years[i] != years[0]) << i;
  }
}

/* Where no setting speaks, the locale does: the region's, else the environment's. */
TEST_F(formats, UnsetSettingsFollowTheLocale) {
  for (const case_row &c : cases("unset settings: region, LC_ALL, order of the date, twelve hours", 4)) {
    c.text(1) ? setenv("LC_ALL", c.text(1), 1) : unsetenv("LC_ALL");
    region(c.text(0));
    const bool has = brisel_util_has_locale();
    EXPECT_EQ(has ? brisel_util_locale_date_order(ad.locale) : 0, c.number(2)) << ad.locale;
    EXPECT_EQ(has && brisel_util_locale_has_12_hours(ad.locale), c.number(3)) << ad.locale;
  }
  unsetenv("LC_ALL");
}

TEST(texts, MarkupShowsTheTextItself) {
  for (const case_row &c : cases("markup: of a row, of a whole text", 3)) {
    EXPECT_EQ(taken(brisel_util_text_to_markup(c.text(0))), c[1]);
    EXPECT_EQ(taken(brisel_util_text_to_markup_whole(c.text(0))), c[2]);
  }
  EXPECT_EQ(brisel_util_text_to_markup(nullptr), nullptr);
}

TEST(texts, MarkupIsCutBetweenCharactersAndEntities) {
  for (const case_row &c : cases("cut markup: a beginning, what follows it for ever, the size that is left", 3)) {
    std::string text = c[0];
    while (text.size() < 3000) text += c[1];
    const std::string markup = taken(brisel_util_text_to_markup(text.c_str()));
    EXPECT_EQ(static_cast<int>(markup.size()), c.number(2)) << c[1];
    EXPECT_TRUE(eina_unicode_utf8_get_len(markup.c_str()) > 0);
    EXPECT_GT(taken(brisel_util_text_to_markup_whole(text.c_str())).size(), 2999u);
    std::vector<char> cut(text.begin(), text.end());
    cut.push_back(0);
    brisel_util_cut_utf8(cut.data(), 1023);
    const std::string kept = cut.data();
    EXPECT_EQ(kept, text.substr(0, kept.size()));
    EXPECT_LE(kept.size(), 1023u);
    EXPECT_GT(kept.size(), 1019u);
    EXPECT_EQ((kept.size() - c[0].size()) % c[1].size(), 0u) << "half a character";
  }
}

TEST(texts, ReplaceTakesTheFirstMatch) {
  for (const case_row &c : cases("replaced", 4))
    EXPECT_EQ(taken(brisel_replace_str(c.text(0), c.text(1), c.text(2))), c[3]);
  const std::string longer(5000, 'x');
  EXPECT_EQ(taken(brisel_replace_str((longer + "%d").c_str(), "%d", "7")), longer + "7");
}

/* The toolkit alone would lose 32 bytes of each. */
TEST(objects, LeaveNoMemoryWhenTheyGo) {
  Ecore_Evas *window = ecore_evas_buffer_new(100, 100);
  Evas *canvas = ecore_evas_get(window);
  const auto in_use_after = [&](int count) {
    for (int i = 0; i < count; i++) {
      Evas_Object *box = evas_object_box_add(canvas);
      evas_object_box_append(box, edje_object_add(canvas));
      evas_object_del(box);
      evas_damage_rectangle_add(canvas, 0, 0, 1, 1);
      evas_render(canvas);
    }
    return mallinfo2().uordblks;
  };
  const size_t before = in_use_after(500);
  EXPECT_LT(in_use_after(6000), before + 98304) << "the toolkit's own queue comes and goes with 65536";
  ecore_evas_free(window);
}

TEST(reply_method, IsKeptAsTheHostCodesIt) {
  const struct { int method, stored, read_back; } cases[] = {{0, 0, 0}, {1, 3, 1}, {2, 1, 0}, {9, 0, 0}};
  for (const auto &c : cases) {
    int stored = -1;
    brisel_util_set_reply_method(c.method);
    EXPECT_EQ(vconf_get_int(BRISEL_KEY_REPLY_VALUE, &stored), 0);
    EXPECT_EQ(stored, c.stored);
    EXPECT_EQ(brisel_util_get_reply_method(), c.read_back);
  }
  for (int stored : {2, -5, 44}) {
    vconf_set_int(BRISEL_KEY_REPLY_VALUE, stored);
    EXPECT_EQ(brisel_util_get_reply_method(), 0);
  }
  vconf_set_str(BRISEL_KEY_REPLY_VALUE, "3");
  log_mark();
  EXPECT_EQ(brisel_util_get_reply_method(), 0);
  EXPECT_TRUE(logged("W/vconf_get_int(BRISEL_VCONFKEY_INT_REPLY_VALUE) failed!"));
}

struct contacts : testing::Test {
  void SetUp() override { ASSERT_EQ(contacts_connect2(), 0); }
  void TearDown() override { contacts_disconnect2(); }
  static std::vector<std::string> numbers(int person) {
    std::vector<std::string> found;
    GSList *list = brisel_util_get_phone_number_by_person_id(person);
    for (GSList *cell = list; cell; cell = cell->next) {
      contact_number *number = (contact_number *)cell->data;
      found.push_back(std::to_string(number->type) + ":" + (number->number ? number->number : "(null)"));
    }
    g_slist_free_full(list, brisel_util_contact_number_free);
    return found;
  }
};

TEST_F(contacts, FindTheSenderAndItsNumbers) {
  import_cards(
      "BEGIN:VCARD\nVERSION:3.0\nFN:Ada\nEMAIL:ada@example.org\nTEL;TYPE=HOME:+1 555 0100\nTEL;TYPE=CELL:+1 555 0101\n"
      "TEL:+1 555 0102\nEND:VCARD\n"
      "BEGIN:VCARD\nVERSION:3.0\nFN:Bob\nEMAIL:shared@example.org\nEMAIL:both@example.org\n"
      "TEL;TYPE=WORK:+1 555 0200\nEND:VCARD\n"
      "BEGIN:VCARD\nVERSION:3.0\nFN:Dora\nEMAIL:dora@example.org\nEMAIL:both@example.org\nTEL:2\nEND:VCARD\n"
      "BEGIN:VCARD\nVERSION:3.0\nFN:Cem\nEMAIL:shared@example.org\nEMAIL:cem@example.org\nEND:VCARD\n");
  const int ada = brisel_util_get_person_id_by_email_address("ada@example.org");
  const int cem = brisel_util_get_person_id_by_email_address("cem@example.org");
  EXPECT_GT(ada, 0);
  EXPECT_EQ(brisel_util_get_person_id_by_email_address("ADA@EXAMPLE.ORG"), ada);
  const auto person_of = brisel_util_get_person_id_by_email_address;
  EXPECT_EQ(numbers(person_of("shared@example.org")), std::vector<std::string>{"3:+1 555 0200"}) << "who has a number";
  EXPECT_EQ(person_of("both@example.org"), person_of("dora@example.org")) << "the last of several";
  for (const char *nobody : {"", "ada@example.or", "ada@example.org'", "%"})
    EXPECT_EQ(brisel_util_get_person_id_by_email_address(nobody), -1) << nobody;
  EXPECT_EQ(brisel_util_get_person_id_by_email_address(nullptr), -1);

  const std::vector<std::string> of_ada = numbers(ada);
  ASSERT_EQ(of_ada.size(), 3u);
  EXPECT_EQ(of_ada[0], std::to_string(CONTACTS_NUMBER_TYPE_HOME) + ":+1 555 0100");
  EXPECT_EQ(of_ada[1], std::to_string(CONTACTS_NUMBER_TYPE_MOBILE) + ":+1 555 0101");
  EXPECT_EQ(of_ada[2].substr(of_ada[2].find(':')), ":+1 555 0102");
  EXPECT_TRUE(numbers(cem).empty());
  EXPECT_TRUE(numbers(-1).empty());
  EXPECT_TRUE(numbers(999999).empty());
}
