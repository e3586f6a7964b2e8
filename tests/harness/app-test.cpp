#include "app-test.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "contacts.h"
#include "vconf.h"

appdata test_ad;

/* --- the log --- */

static std::streamoff log_start;

static std::string log_path(void) {
  return getenv("BRISEL_LOG_FILE");
}

void log_mark(void) {
  std::ifstream in(log_path(), std::ios::ate);
  log_start = in ? std::streamoff(in.tellg()) : 0;
}

std::vector<std::string> log_lines(void) {
  std::vector<std::string> lines;
  std::ifstream in(log_path());
  in.seekg(log_start);
  for (std::string line; std::getline(in, line);) {
    const size_t text = line.find(" >  ");
    if (line.find("/BRISEL_APP(") == 1 && text != std::string::npos)
      lines.push_back(line.substr(0, 2) + line.substr(text + 4));
  }
  return lines;
}

bool logged(const std::string &line) {
  return std::ranges::count(log_lines(), line) > 0;
}

/* --- the application --- */

void app_relaunch(const char *mail_id) {
  service_h service = nullptr;
  service_create(&service);
  if (mail_id) service_add_extra_data(service, BRISEL_EVENT_ID_KEY, mail_id);
  app_reset(service, &test_ad);
  service_destroy(service);
}

void app_launch(const char *mail_id) {
  app_relaunch(mail_id);
  settle();
}

void app_start(const char *mail_id) {
  test_ad = {};
  launched = 0;
  log_mark();
  ASSERT_TRUE(app_create(&test_ad));
  canvas_use(test_ad.win_main);
  app_launch(mail_id);
}

void app_stop(void) {
  app_terminate(&test_ad); /* of one whose window has gone, too */
  if (test_ad.win_main) evas_object_del(test_ad.win_main);
  canvas_use(nullptr);
  settle();
  test_ad = {};
  launched = 0;
}

void phone_leaves(linked_phone *phone) {
  phone->leave();
  EXPECT_TRUE(run_until([] {
    int linked = 1;
    vconf_get_bool(BRISEL_KEY_BT_CONNECTED, &linked);
    return !linked;
  }));
}

void import_cards(const std::string &cards) {
  const std::string path = std::string(getenv("BRISEL_SESSION_DIR")) + "/cards.vcf";
  std::ofstream(path) << cards;
  int count = 0;
  char *error = nullptr;
  EXPECT_EQ(contacts_import_vcard_file(path.c_str(), &count, &error), CONTACTS_ERROR_NONE) << (error ? error : "");
  free(error);
}

std::vector<int> listed_mails(void) {
  std::vector<int> ids;
  Elm_Object_Item *item = test_ad.mailbox_genlist ? elm_genlist_first_item_get(test_ad.mailbox_genlist) : nullptr;
  if (item) item = elm_genlist_item_next_get(item); /* behind the header */
  for (GList *cell = test_ad.mail_list; cell; cell = cell->next) {
    item_data *row = (item_data *)cell->data;
    ids.push_back(row->mail_id);
    EXPECT_EQ(row->it, item) << "the model's order is not the list's";
    EXPECT_EQ(elm_object_item_data_get(row->it), row);
    if (item) item = elm_genlist_item_next_get(item);
  }
  EXPECT_EQ(item, nullptr) << "the list holds rows that the model does not";
  return ids;
}

Elm_Object_Item *item_of_mail(int mail_id) {
  for (GList *cell = test_ad.mail_list; cell; cell = cell->next)
    if (((item_data *)cell->data)->mail_id == mail_id) return ((item_data *)cell->data)->it;
  return nullptr;
}

std::string drawn_text(Elm_Object_Item *item, const char *part) {
  Evas_Object *view = item ? elm_object_item_track(item) : nullptr;
  const char *text = view ? elm_object_item_part_text_get(item, part) : nullptr;
  std::string drawn = text ? text : "";
  if (item) elm_object_item_untrack(item);
  return drawn;
}

static Elm_Object_Item *header_item(void) {
  return elm_genlist_first_item_get(test_ad.mailbox_genlist);
}

std::string header_title(void) {
  return ((group_item_data *)elm_object_item_data_get(header_item()))->title;
}

bool delete_button_enabled(void) {
  return !elm_object_disabled_get(test_ad.delete_btn);
}

bool nocontents_on_screen(void) {
  Elm_Object_Item *item = elm_naviframe_bottom_item_get(test_ad.naviframe);
  Evas_Object *content = elm_object_item_part_content_get(item, "elm.swallow.content");
  const bool shown = content == test_ad.nocontents_layout;
  EXPECT_TRUE(shown || content == test_ad.mailbox_genlist);
  EXPECT_EQ(shown, test_ad.nocontents_shown != 0);
  EXPECT_EQ(shown, !elm_naviframe_item_title_enabled_get(item));
  return shown;
}

point middle_of_item(Elm_Object_Item *item) {
  point at = {-1, -1};
  EXPECT_TRUE(run_until([&] {
    if (Evas_Object *view = elm_object_item_track(item)) at = middle_of(view);
    elm_object_item_untrack(item);
    return at.x >= 0;
  })) << "the row is out of sight";
  return at;
}

int views(void) {
  Eina_List *items = elm_naviframe_items_get(test_ad.naviframe);
  const int count = (int)eina_list_count(items);
  eina_list_free(items);
  return count;
}

bool views_stand(void) {
  Evas_Object *content = elm_object_item_part_content_get(elm_naviframe_top_item_get(test_ad.naviframe), "default");
  for (; content; content = evas_object_smart_parent_get(content))
    if (evas_object_freeze_events_get(content)) return false;
  return true;
}

/* --- gtest in the main loop of the framework --- */

static int test_result = 1;

/* Before the framework enters its main loop: inside it, the tests' own turns of the loop would be nested, and
   animations (the view stack's transitions among them) stand still in a nested loop. */
static int launch_cb(service_h service, void *data) {
  test_result = RUN_ALL_TESTS();
  app_efl_exit();
  return 0;
}

static int language_cb(void *data) {
  return test_ad.win_main ? app_lang_changed(&test_ad) : 0;
}

static int region_cb(void *data) {
  return test_ad.win_main ? app_region_changed(&test_ad) : 0;
}

int app_test_main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  app_event_callback_s callbacks = {};
  callbacks.service = launch_cb;
  callbacks.language_changed = language_cb;
  callbacks.region_format_changed = region_cb;
  const int result = app_efl_main(&argc, &argv, &callbacks, nullptr);
  return result ? result : test_result;
}
