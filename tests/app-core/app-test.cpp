#include "app-test.h"

#include <Ecore_Input.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <set>

appdata test_ad;

/* Far more than anything here takes; only a failure waits so long. */
static const std::chrono::seconds patience(15);

static Eina_Bool wake_cb(void *data) {
  return ECORE_CALLBACK_RENEW;
}

bool run_until(const std::function<bool()> &done) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  Ecore_Timer *wake = ecore_timer_add(0.01, wake_cb, nullptr);
  bool held = done();
  while (!held && std::chrono::steady_clock::now() < deadline) {
    ecore_main_loop_iterate_may_block(1);
    held = done();
  }
  ecore_timer_del(wake);
  return held;
}

void settle(void) {
  int turns = 0;
  run_until([&] { return turns++ > 12; });
}

/* --- the log ------------------------------------------------------------------------------------------------------ */

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
  for (const std::string &have : log_lines())
    if (have == line) return true;
  return false;
}

/* --- the phone ---------------------------------------------------------------------------------------------------- */

static const char *const host_name = "com.vextora.brisel.Host";
static const char *const host_path = "/com/vextora/brisel/Host";
static const char *const phone_interface = "com.vextora.brisel.Phone1";

struct bus_message {
  sd_bus_message *m = nullptr;
  ~bus_message() { sd_bus_message_unref(m); }
  operator sd_bus_message *() const { return m; }
};

static void call(test_phone *phone, sd_bus_message *request, bus_message *answer) {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  const int result = sd_bus_call(phone->bus, request, 0, &error, answer ? &answer->m : nullptr);
  EXPECT_GE(result, 0) << sd_bus_message_get_member(request) << ": " << (error.message ? error.message : "");
  sd_bus_error_free(&error);
}

static void begin(test_phone *phone, const char *method, bus_message *request) {
  ASSERT_GE(sd_bus_message_new_method_call(phone->bus, &request->m, host_name, host_path, phone_interface, method), 0);
}

test_phone::test_phone() {
  EXPECT_GE(sd_bus_open_user(&bus), 0);
}

test_phone::~test_phone() {
  sd_bus_flush_close_unref(bus);
}

int test_phone::add_account(const std::string &address, const std::string &name, unsigned rgba, int id) {
  bus_message request, answer;
  begin(this, "AddAccount", &request);
  sd_bus_message_append(request, "issu", id, address.c_str(), name.c_str(), rgba);
  call(this, request, &answer);
  if (answer.m) sd_bus_message_read(answer, "i", &id);
  return id;
}

void test_phone::remove_account(int id) {
  bus_message request;
  begin(this, "RemoveAccount", &request);
  sd_bus_message_append(request, "i", id);
  call(this, request, nullptr);
}

/* The value of an int field in each record of an aa{sv}. */
static std::vector<int> ints_of(sd_bus_message *m, const char *field) {
  std::vector<int> values;
  sd_bus_message_enter_container(m, 'a', "a{sv}");
  while (sd_bus_message_enter_container(m, 'a', "{sv}") > 0) {
    while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
      const char *key = nullptr;
      sd_bus_message_read(m, "s", &key);
      int value = 0;
      if (!strcmp(key, field) && sd_bus_message_read(m, "v", "i", &value) >= 0)
        values.push_back(value);
      else
        sd_bus_message_skip(m, "v");
      sd_bus_message_exit_container(m);
    }
    sd_bus_message_exit_container(m);
  }
  return values;
}

std::vector<int> test_phone::accounts(void) {
  bus_message request, answer;
  begin(this, "ListAccounts", &request);
  call(this, request, &answer);
  return answer.m ? ints_of(answer, "account_id") : std::vector<int>();
}

void test_phone::set_account_count(bool known) {
  bus_message request;
  begin(this, "SetAccountCount", &request);
  sd_bus_message_append(request, "b", (int)known);
  call(this, request, nullptr);
}

std::vector<int> test_phone::add_mails(const std::vector<test_mail> &mails) {
  bus_message request, answer;
  begin(this, "AddMails", &request);
  sd_bus_message_open_container(request, 'a', "a{sv}");
  int number = 0;
  for (const test_mail &mail : mails) {
    const std::string uid = "uid-" + std::to_string(number++);
    sd_bus_message_append(request, "a{sv}", 10, "account_id", "i", mail.account, "received_time", "x",
                          (int64_t)mail.received, "from_name", "s", mail.from_name.c_str(), "from_address", "s",
                          mail.from_address.c_str(), "subject", "s", mail.subject.c_str(), "body", "s",
                          mail.body.c_str(), "message_uid", "s", uid.c_str(), "is_new", "i", mail.is_new,
                          "security_locked", "i", mail.locked, "is_read", "i", 0);
  }
  sd_bus_message_close_container(request);
  call(this, request, &answer);
  std::vector<int> ids;
  if (!answer.m) return std::vector<int>(mails.size(), -1);
  sd_bus_message_enter_container(answer, 'a', "i");
  for (int id = 0; sd_bus_message_read(answer, "i", &id) > 0;) ids.push_back(id);
  return ids;
}

void test_phone::set_flag(int mail_id, const char *field, int value) {
  bus_message request;
  begin(this, "UpdateMail", &request);
  sd_bus_message_append(request, "ia{sv}", mail_id, 1, field, "i", value);
  call(this, request, nullptr);
}

void test_phone::set_text(int mail_id, const char *field, const std::string &text) {
  bus_message request;
  begin(this, "UpdateMail", &request);
  sd_bus_message_append(request, "ia{sv}", mail_id, 1, field, "s", text.c_str());
  call(this, request, nullptr);
}

void test_phone::clear(void) {
  for (int id : accounts()) remove_account(id);
}

static int request_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  linked_phone *phone = (linked_phone *)data;
  int64_t id = 0;
  const char *json = nullptr;
  if (sd_bus_message_read(m, "xs", &id, &json) >= 0) phone->requests.push_back({id, nlohmann::json::parse(json)});
  sd_bus_call_method_async(phone->bus, nullptr, host_name, host_path, phone_interface, "Ack", nullptr, nullptr, "x",
                           id);
  return 0;
}

linked_phone::linked_phone() {
  EXPECT_GE(sd_bus_match_signal(bus, nullptr, host_name, host_path, phone_interface, "Request", request_cb, this), 0);
}

void linked_phone::connect(void) {
  bus_message request;
  begin(this, "Connect", &request);
  call(this, request, nullptr);
}

void linked_phone::leave(void) {
  bus = sd_bus_flush_close_unref(bus);
}

void linked_phone::drain(void) {
  while (sd_bus_process(bus, nullptr) > 0) {
  }
}

void linked_phone::delete_mails(const std::vector<int> &ids) {
  bus_message request;
  begin(this, "DeleteMails", &request);
  sd_bus_message_append_array(request, 'i', ids.data(), ids.size() * sizeof(int));
  call(this, request, nullptr);
}

nlohmann::json linked_phone::request(const std::string &kind) {
  nlohmann::json found;
  run_until([&] {
    drain();
    for (const request_heard &have : requests)
      if (have.json.at("request") == kind) found = have.json;
    return !found.is_null();
  });
  return found;
}

/* --- the application -----------------------------------------------------------------------------------------------
 */

void app_launch(const char *mail_id) {
  service_h service = nullptr;
  service_create(&service);
  if (mail_id) service_add_extra_data(service, BRISEL_EVENT_ID_KEY, mail_id);
  app_reset(service, &test_ad);
  service_destroy(service);
  settle();
}

void app_start(const char *mail_id) {
  test_ad = {};
  launched = 0;
  log_mark();
  ASSERT_TRUE(app_create(&test_ad));
  app_launch(mail_id);
}

void app_stop(void) {
  if (test_ad.win_main || test_ad.locale) app_terminate(&test_ad);
  if (test_ad.win_main) evas_object_del(test_ad.win_main);
  settle();
  test_ad = {};
  launched = 0;
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

std::string header_count(void) {
  settle();
  return drawn_text(header_item(), "elm.text.2");
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

struct text_on_screen {
  std::string text;
  int x, y, w, h;
};

static void collect_texts(Evas_Object *object, Eina_Rectangle clip, std::vector<text_on_screen> *texts) {
  if (!evas_object_visible_get(object)) return;
  if (Evas_Object *clipper = evas_object_clip_get(object)) {
    if (!evas_object_visible_get(clipper)) return;
    int r, g, b, a;
    evas_object_color_get(clipper, &r, &g, &b, &a);
    if (a == 0) return;
    Eina_Rectangle area;
    evas_object_geometry_get(clipper, &area.x, &area.y, &area.w, &area.h);
    if (!eina_rectangle_intersection(&clip, &area)) return;
  }
  const char *type = evas_object_type_get(object);
  const char *plain = nullptr;
  char *markup = nullptr;
  if (!strcmp(type, "text")) {
    plain = evas_object_text_text_get(object);
  } else if (!strcmp(type, "textblock")) {
    markup = evas_textblock_text_markup_to_utf8(object, evas_object_textblock_text_markup_get(object));
    plain = markup;
  }
  if (plain && *plain) {
    text_on_screen shown = {plain, 0, 0, 0, 0};
    evas_object_geometry_get(object, &shown.x, &shown.y, &shown.w, &shown.h);
    Eina_Rectangle area = {shown.x, shown.y, shown.w, shown.h};
    if (eina_rectangle_intersection(&area, &clip)) texts->push_back(shown);
  }
  free(markup);
  for (const char *plain_kind :
       {"text", "textblock", "rectangle", "image", "vectors", "polygon", "line", "textgrid", "snapshot"})
    if (!strcmp(type, plain_kind)) return;
  Eina_List *members = evas_object_smart_members_get(object);
  void *member = nullptr;
  EINA_LIST_FREE(members, member) collect_texts((Evas_Object *)member, clip, texts);
}

static std::vector<text_on_screen> texts_on_screen(void) {
  std::vector<text_on_screen> texts;
  Eina_Rectangle window = {};
  evas_object_geometry_get(test_ad.win_main, nullptr, nullptr, &window.w, &window.h);
  Evas *evas = evas_object_evas_get(test_ad.win_main);
  for (Evas_Object *object = evas_object_bottom_get(evas); object; object = evas_object_above_get(object))
    if (!evas_object_smart_parent_get(object)) collect_texts(object, window, &texts);
  return texts;
}

std::vector<std::string> visible_texts(void) {
  std::vector<std::string> texts;
  for (const text_on_screen &shown : texts_on_screen()) texts.push_back(shown.text);
  return texts;
}

static bool shown_now(const std::string &text) {
  for (const std::string &shown : visible_texts())
    if (shown == text) return true;
  return false;
}

bool visible(const std::string &text) {
  return run_until([&] { return shown_now(text); });
}

bool gone(const std::string &text) {
  return run_until([&] { return !shown_now(text); });
}

point text_at(const std::string &text) {
  visible(text);
  settle();
  point at = {-1, -1};
  for (const text_on_screen &shown : texts_on_screen())
    if (shown.text == text) at = {shown.x + shown.w / 2, shown.y + shown.h / 2};
  EXPECT_GE(at.x, 0) << text << " is not on screen";
  return at;
}

/* --- fingers and keys ------------------------------------------------------------------------------------------------
 */

static unsigned touch_time;

static unsigned next_time(unsigned ms) {
  return touch_time += ms;
}

point middle_of(Evas_Object *object) {
  int x, y, w, h;
  evas_object_geometry_get(object, &x, &y, &w, &h);
  return {x + w / 2, y + h / 2};
}

point middle_of_item(Elm_Object_Item *item) {
  Evas_Object *view = elm_object_item_track(item);
  point at = view ? middle_of(view) : point{-1, -1};
  elm_object_item_untrack(item);
  EXPECT_GE(at.x, 0) << "the row is out of sight";
  return at;
}

static void move_finger(point at) {
  evas_event_feed_mouse_move(test_ad.evas, at.x, at.y, next_time(10), nullptr);
}

void touch(point at) {
  move_finger(at);
  evas_event_feed_mouse_down(test_ad.evas, 1, EVAS_BUTTON_NONE, next_time(10), nullptr);
}

void release(point at) {
  move_finger(at);
  evas_event_feed_mouse_up(test_ad.evas, 1, EVAS_BUTTON_NONE, next_time(50), nullptr);
}

void tap(point at) {
  touch(at);
  release(at);
  settle();
}

void press_long(point at) {
  touch(at);
  const auto start = std::chrono::steady_clock::now();
  const std::chrono::duration<double> held(elm_config_longpress_timeout_get() + 0.2);
  run_until([&] { return std::chrono::steady_clock::now() - start > held; });
  release(at);
  settle();
}

void drag(point from, point to) {
  touch(from);
  for (int step = 1; step <= 10; step++) {
    move_finger({from.x + (to.x - from.x) * step / 10, from.y + (to.y - from.y) * step / 10});
    ecore_main_loop_iterate();
  }
  release(to);
  settle();
}

void key(const char *name) {
  evas_event_feed_key_down(test_ad.evas, name, name, nullptr, nullptr, next_time(10), nullptr);
  evas_event_feed_key_up(test_ad.evas, name, name, nullptr, nullptr, next_time(10), nullptr);
  settle();
}

/* --- gtest in the framework's main loop
 * -------------------------------------------------------------------------------- */

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
