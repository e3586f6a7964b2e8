#include "reader-test.h"

brisel_detail_view *reader(void) {
  return test_ad.naviframe
             ? (brisel_detail_view *)brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, &test_ad)
             : nullptr;
}

page_data *current_page(void) {
  return reader() ? reader()->page_data[BRISEL_DETAIL_CUR_PAGE] : nullptr;
}

static void finished_cb(void *data, Evas_Object *obj, void *event_info) {
  *(bool *)data = true;
}

void open_reader(int mail_id) {
  bool finished = false;
  evas_object_smart_callback_add(test_ad.naviframe, "transition,finished", finished_cb, &finished);
  ASSERT_EQ(brisel_detail_draw_view(mail_id, 1, &test_ad), 0);
  ASSERT_TRUE(run_until([&] { return finished; }));
  evas_object_smart_callback_del_full(test_ad.naviframe, "transition,finished", finished_cb, &finished);
  ASSERT_TRUE(run_until([] { return !reader()->build_idler; }));
  settle();
}

static void deleted_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  *(bool *)data = true;
}

void close_reader(void) {
  bool deleted = false;
  evas_object_event_callback_add(reader()->page_scroller_layout, EVAS_CALLBACK_DEL, deleted_cb, &deleted);
  elm_naviframe_item_pop(test_ad.naviframe);
  ASSERT_TRUE(run_until([&] { return !reader() && deleted; }));
}

std::vector<int> slots(void) {
  std::vector<int> ids;
  for (const page_data *page : reader()->page_data) ids.push_back(page ? page->mail_data->mail_id : 0);
  return ids;
}

void fling(bool to_next) {
  int w = 0, h = 0;
  evas_object_geometry_get(reader()->page_scroller_layout, nullptr, nullptr, &w, &h);
  point from = {to_next ? w * 4 / 5 : w / 5, h / 2};
  stroke(from, {w - from.x, h / 2});
}

bool swipe(bool to_next) {
  const int before = reader()->mail_id;
  fling(to_next);
  rest_reader();
  return reader()->mail_id != before;
}

page_data *on_screen(void) {
  int width = 0, x = 0;
  evas_object_geometry_get(reader()->page_scroller_layout, nullptr, nullptr, &width, nullptr);
  for (page_data *page : reader()->page_data) {
    if (!page) continue;
    evas_object_geometry_get(page->page_layout, &x, nullptr, nullptr, nullptr);
    if (abs(x) <= width / 2) return page;
  }
  return nullptr;
}

void show_page(bool to_next) {
  elm_scroller_page_show(reader()->page_scroller, reader()->cur_page_index + (to_next ? 1 : -1), 0);
  /* What moves is looked at twice. */
  __brisel_detail_settle(reader());
  __brisel_detail_settle(reader());
}

void rest_reader(void) {
  EXPECT_TRUE(run_until([] {
    return !reader()->page_timer && !reader()->lift_job && !reader()->touch_over_idler && !reader()->build_idler;
  }));
  settle();
}

std::string part_text(const page_data *page, const char *part) {
  return plain_text(edje_object_part_text_get(elm_layout_edje_get(page->detail_layout), part));
}

std::string part_state(const page_data *page, const char *part) {
  double value = 0;
  const char *state = edje_object_part_state_get(elm_layout_edje_get(page->detail_layout), part, &value);
  return state ? state : "";
}

void tap_in_reader(const char *part) {
  evas_smart_objects_calculate(test_ad.evas);
  Evas_Object *edje = elm_layout_edje_get(current_page()->detail_layout);
  int x = 0, y = 0;
  evas_object_geometry_get((Evas_Object *)edje_object_part_object_get(edje, part), &x, &y, nullptr, nullptr);
  tap({x + 20, y + 15});
  rest_reader();
}

int scrolled(void) {
  int y = 0;
  elm_scroller_region_get(current_page()->scroller, nullptr, &y, nullptr, nullptr);
  return y;
}

int content_height(void) {
  int h = 0;
  evas_object_geometry_get(current_page()->detail_layout, nullptr, nullptr, nullptr, &h);
  return h;
}

bool pull_up(void) {
  int w = 0, h = 0;
  const int before = scrolled();
  evas_object_geometry_get(reader()->page_scroller_layout, nullptr, nullptr, &w, &h);
  stroke({w / 2, h * 4 / 5}, {w / 2, h / 4});
  rest_of([] { return std::to_string(scrolled()); });
  return scrolled() != before;
}

void pull_to_end(void) {
  /* Most of the way without a finger; what has no known height yet is on the way too. */
  int view = 0, last = -1;
  evas_object_geometry_get(current_page()->scroller, nullptr, nullptr, nullptr, &view);
  while (last != content_height()) {
    last = content_height();
    elm_scroller_region_show(current_page()->scroller, 0, std::max(scrolled(), last - view - 40), 1, view);
    evas_smart_objects_calculate(test_ad.evas);
  }
  for (int pulls = 0; pulls < 400 && pull_up(); pulls++) {
  }
}

void pinch(double factor) {
  int h = 0;
  evas_object_geometry_get(reader()->page_scroller_layout, nullptr, nullptr, nullptr, &h);
  pinch_at(middle_of(reader()->page_scroller_layout), factor, factor > 1 ? h * 0.12 : h * 0.4);
}

void double_tap(void) {
  double_tap_at(middle_of(reader()->page_scroller_layout));
}

std::vector<int> mailbox_with(linked_phone *phone, const std::vector<std::string> &bodies) {
  phone->connect();
  phone->clear();
  const int account = phone->add_account("ada@example.org", "Ada");
  std::vector<test_mail> mails;
  for (size_t i = 0; i < bodies.size(); i++) {
    test_mail mail;
    mail.account = account;
    mail.received = 1767600000 - (long)i * 60;
    mail.from_name = "Sender " + std::to_string(i);
    mail.subject = "Subject " + std::to_string(i);
    mail.body = bodies[i];
    mails.push_back(mail);
  }
  const std::vector<int> ids = phone->add_mails(mails);
  app_start();
  EXPECT_TRUE(run_until([&] { return listed_mails().size() == bodies.size() && test_ad.bt_connected == 1; }));
  phone->requests.clear();
  return ids;
}
