#include "reader-test.h"

#include <chrono>

static const char *const host_name = "com.vextora.brisel.Host";
static const char *const host_path = "/com/vextora/brisel/Host";
static const char *const phone_interface = "com.vextora.brisel.Phone1";

brisel_detail_view *reader(void) {
  return test_ad.naviframe
             ? (brisel_detail_view *)brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, &test_ad)
             : nullptr;
}

page_data *current_page(void) {
  return reader() ? reader()->page_data[BRISEL_DETAIL_CUR_PAGE] : nullptr;
}

void run_for(double seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  run_until([&] { return std::chrono::steady_clock::now() >= end; });
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

/* The scrollers work out speeds from the events' times, so these are real ones. */
static unsigned event_time(void) {
  return (unsigned)(ecore_time_get() * 1000);
}

void stroke(point from, point to) {
  const int steps = 8;
  evas_event_feed_mouse_move(test_ad.evas, from.x, from.y, event_time(), nullptr);
  evas_event_feed_mouse_down(test_ad.evas, 1, EVAS_BUTTON_NONE, event_time(), nullptr);
  for (int step = 1; step <= steps; step++) {
    run_for(0.012);
    evas_event_feed_mouse_move(test_ad.evas, from.x + (to.x - from.x) * step / steps,
                               from.y + (to.y - from.y) * step / steps, event_time(), nullptr);
  }
  evas_event_feed_mouse_up(test_ad.evas, 1, EVAS_BUTTON_NONE, event_time(), nullptr);
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
  const bool turned = run_until([&] { return reader()->mail_id != before && !reader()->page_timer; });
  settle();
  return turned;
}

void expect_no_turn(bool to_next) {
  const int before = reader()->mail_id;
  fling(to_next);
  run_for(0.6); /* the page comes to rest, and a shift would have come, after 0.4 s */
  EXPECT_EQ(reader()->mail_id, before);
}

std::string part_text(const page_data *page, const char *part) {
  const char *markup = edje_object_part_text_get(elm_layout_edje_get(page->detail_layout), part);
  char *plain = markup ? elm_entry_markup_to_utf8(markup) : nullptr;
  std::string text = plain ? plain : "";
  free(plain);
  return text;
}

std::string part_state(const page_data *page, const char *part) {
  double value = 0;
  const char *state = edje_object_part_state_get(elm_layout_edje_get(page->detail_layout), part, &value);
  return state ? state : "";
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
  int last = -1;
  run_until([&] {
    run_for(0.06);
    const bool still = scrolled() == last;
    last = scrolled();
    return still;
  });
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

static void finger(int device, point at, bool down) {
  const double x = at.x, y = at.y;
  if (device == 0) {
    evas_event_feed_mouse_move(test_ad.evas, at.x, at.y, event_time(), nullptr);
    if (down) evas_event_feed_mouse_down(test_ad.evas, 1, EVAS_BUTTON_NONE, event_time(), nullptr);
    if (!down) evas_event_feed_mouse_up(test_ad.evas, 1, EVAS_BUTTON_NONE, event_time(), nullptr);
  } else if (down) {
    evas_event_feed_multi_down(test_ad.evas, device, at.x, at.y, 1, 1, 1, 1, 0, x, y, EVAS_BUTTON_NONE, event_time(),
                               nullptr);
  } else {
    evas_event_feed_multi_up(test_ad.evas, device, at.x, at.y, 1, 1, 1, 1, 0, x, y, EVAS_BUTTON_NONE, event_time(),
                             nullptr);
  }
}

void pinch(double factor) {
  int w = 0, h = 0;
  evas_object_geometry_get(reader()->page_scroller_layout, nullptr, nullptr, &w, &h);
  const double near_by = factor > 1 ? h * 0.12 : h * 0.4;
  auto place = [&](int device, double reach) { return point{w / 2, h / 2 + (int)(device == 0 ? -reach : reach)}; };
  finger(0, place(0, near_by), true);
  finger(1, place(1, near_by), true);
  const int steps = 12;
  for (int step = 1; step <= steps; step++) {
    const double reach = near_by * (1 + (factor - 1) * step / steps);
    run_for(0.01);
    const point a = place(0, reach), b = place(1, reach);
    evas_event_feed_mouse_move(test_ad.evas, a.x, a.y, event_time(), nullptr);
    evas_event_feed_multi_move(test_ad.evas, 1, b.x, b.y, 1, 1, 1, 1, 0, b.x, b.y, event_time(), nullptr);
  }
  finger(1, place(1, near_by * factor), false);
  finger(0, place(0, near_by * factor), false);
  run_for(0.1);
}

void double_tap(void) {
  const point at = middle_of(reader()->page_scroller_layout);
  for (int taps = 0; taps < 2; taps++) {
    finger(0, at, true);
    run_for(0.03);
    finger(0, at, false);
    run_for(0.03);
  }
  run_for(0.1);
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

void answer_more(linked_phone *phone, int64_t request, int error, const std::string &piece, bool complete) {
  sd_bus_error failed = SD_BUS_ERROR_NULL;
  const int result = sd_bus_call_method(phone->bus, host_name, host_path, phone_interface, "AnswerMore", &failed,
                                        nullptr, "xisb", request, error, piece.c_str(), (int)complete);
  EXPECT_GE(result, 0) << (failed.message ? failed.message : "");
  sd_bus_error_free(&failed);
}

int64_t more_request(linked_phone *phone) {
  int64_t found = -1;
  run_until([&] {
    phone->drain();
    for (const auto &have : phone->requests)
      if (have.json.at("request") == "more_msg") found = have.id;
    return found >= 0;
  });
  return found;
}

int requests_of(linked_phone *phone, const std::string &kind) {
  phone->drain();
  int count = 0;
  for (const auto &have : phone->requests)
    if (have.json.at("request") == kind) count++;
  return count;
}
