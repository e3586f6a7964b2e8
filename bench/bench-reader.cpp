// What turning pages in the reader costs: the frames of swipes with real touches, for bodies of three sizes and four
// scripts, in the real application with the real service. A frame is a turn of the main loop that drew: what it laid
// out, built and painted. The frames in which the page after next is built, at rest, are counted too.
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <string>
#include <vector>

#include "../tests/reader/reader-test.h"
#include "figure.h"

namespace {

std::vector<double> frames;  // milliseconds each
bool drawn;

double now_ms(void) {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec * 1e3 + (double)t.tv_nsec / 1e6;
}

void drawn_cb(void *, Evas *, void *) {
  drawn = true;
}

Eina_Bool tick_cb(void *) {
  return ECORE_CALLBACK_RENEW;
}

void spin(double seconds) {
  const double end = now_ms() + seconds * 1e3;
  Ecore_Timer *tick = ecore_timer_add(0.004, tick_cb, nullptr);
  while (now_ms() < end) {
    const double begin = now_ms();
    drawn = false;
    ecore_main_loop_iterate();
    if (drawn) frames.push_back(now_ms() - begin);
    usleep(200);
  }
  ecore_timer_del(tick);
}

unsigned event_ms() {
  return (unsigned)(ecore_time_get() * 1000);
}

// One page on or back; true when it turned.
bool turn(bool to_next) {
  int w = 0, h = 0;
  evas_object_geometry_get(reader()->page_scroller_layout, nullptr, nullptr, &w, &h);
  const int before = reader()->mail_id, from = to_next ? w * 4 / 5 : w / 5, step = (w - 2 * from) / 8;
  evas_event_feed_mouse_move(test_ad.evas, from, h / 2, event_ms(), nullptr);
  evas_event_feed_mouse_down(test_ad.evas, 1, EVAS_BUTTON_NONE, event_ms(), nullptr);
  for (int i = 1; i <= 8; i++) {
    spin(0.012);
    evas_event_feed_mouse_move(test_ad.evas, from + step * i, h / 2, event_ms(), nullptr);
  }
  evas_event_feed_mouse_up(test_ad.evas, 1, EVAS_BUTTON_NONE, event_ms(), nullptr);
  spin(1.0);
  return reader()->mail_id != before;
}

void append(std::string *text, unsigned code) {
  char bytes[6];
  text->append(bytes, (size_t)g_unichar_to_utf8(code, bytes));
}

// Words of one script, in lines of mail length, the same in every run.
std::string body_of(const char *script, size_t size) {
  std::string text;
  unsigned random = 1;
  auto next = [&](unsigned below) { return (random = random * 1103515245 + 12345) / 65536 % below; };
  while (text.size() < size) {
    for (unsigned letters = 1 + next(9); letters; letters--) {
      if (!strcmp(script, "latin")) append(&text, 'a' + next(26));
      if (!strcmp(script, "right-to-left")) append(&text, 0x5D0 + next(27));
      if (!strcmp(script, "cjk")) append(&text, 0x4E00 + next(0x2000));
      if (!strcmp(script, "emoji")) append(&text, 0x1F600 + next(0x40));
    }
    text += next(23) ? " " : "\n";
  }
  return text;
}

double longest_frame(void) {
  return frames.empty() ? 0 : *std::max_element(frames.begin(), frames.end());
}

}  // namespace

TEST(Reader, PageSwipes) {
  const struct {
    const char *script;
    size_t size;
  } runs[] = {{"latin", 1024}, {"latin", 65536}, {"latin", 1000000}, {"right-to-left", 1024}, {"right-to-left", 65536},
              {"cjk", 1024},   {"cjk", 65536},   {"emoji", 1024},    {"emoji", 65536}};
  for (const auto &run : runs) {
    linked_phone phone;
    const std::vector<int> ids = mailbox_with(&phone, std::vector<std::string>(8, body_of(run.script, run.size)));
    evas_event_callback_add(test_ad.evas, EVAS_CALLBACK_RENDER_POST, drawn_cb, nullptr);
    std::vector<double> opened, turned;
    for (int i = 0; i < 5; i++) {
      if (i > 0) close_reader();
      const double start = now_ms();
      ASSERT_EQ(brisel_detail_draw_view(ids[0], 0, &test_ad), 0);
      opened.push_back(now_ms() - start);
      spin(0.5);
    }
    for (int i = 0; i < 12; i++) {
      frames.clear();
      ASSERT_TRUE(turn(i < 6)) << "the swipe turned no page";
      turned.push_back(longest_frame());
    }
    const std::string of = std::string(", ") + run.script + " " + std::to_string(run.size / 1000) + " KB";
    figure("mail opened with its neighbours" + of, "ms", opened);
    figure("longest frame of a page turn and the rest after it" + of, "ms", turned);
    evas_event_callback_del(test_ad.evas, EVAS_CALLBACK_RENDER_POST, drawn_cb);
    close_reader();
    app_stop();
  }
}

int main(int argc, char **argv) {
  char brief[] = "--gtest_brief=1";
  char *arguments[] = {argv[0], brief, nullptr};
  return app_test_main(2, arguments);
}
