// What the reader costs in the real application with the real service, for bodies of every size, script and shape: a
// mail opened with its neighbours, pages turned with real touches and the pages beside built at rest, a body scrolled,
// a fold opened. A frame is a turn of the main loop: what it read, laid out, built and painted, of which the longest
// counts. Processor time, as nothing here waits: other work on the machine would count otherwise.
//   usage: bench-reader [CASE]
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <string>
#include <vector>

#include "../tests/reader/reader-test.h"
#include "figure.h"

namespace {

constexpr int mails = 8, opened_mail = 3, openings = 5, turns = 6, flicks = 6;

double longest_turn;  // milliseconds
double work;          // of all turns
double turn_start;

double ms_of(clockid_t clock) {
  timespec t;
  clock_gettime(clock, &t);
  return (double)t.tv_sec * 1e3 + (double)t.tv_nsec / 1e6;
}

void begin_turn(void) {
  turn_start = ms_of(CLOCK_PROCESS_CPUTIME_ID);
}

void end_turn(void) {
  const double took = ms_of(CLOCK_PROCESS_CPUTIME_ID) - turn_start;
  longest_turn = std::max(longest_turn, took);
  work += took;
  begin_turn();
}

// The loop looks for events between two rounds of its idlers: each round is a turn. Alone it would never rest.
Eina_Bool round_cb(void *) {
  end_turn();
  if (!reader() || !reader()->build_idler) usleep(500);
  return ECORE_CALLBACK_RENEW;
}

Eina_Bool tick_cb(void *) {
  return ECORE_CALLBACK_RENEW;
}

template <typename F>
void spin_until(double seconds, F &&done) {
  const double end = ms_of(CLOCK_MONOTONIC) + seconds * 1e3;
  Ecore_Timer *tick = ecore_timer_add(0.004, tick_cb, nullptr);
  Ecore_Idler *round = ecore_idler_add(round_cb, nullptr);
  while (ms_of(CLOCK_MONOTONIC) < end && !done()) {
    begin_turn();
    ecore_main_loop_iterate_may_block(1);
    end_turn();
  }
  ecore_timer_del(tick);
  ecore_idler_del(round);
}

void spin(double seconds) {
  spin_until(seconds, [] { return false; });
}

void stroke_from(point from, point to) {
  const auto now = [] { return (unsigned)(ecore_time_get() * 1000); };
  evas_event_feed_mouse_move(test_ad.evas, from.x, from.y, now(), nullptr);
  evas_event_feed_mouse_down(test_ad.evas, 1, EVAS_BUTTON_NONE, now(), nullptr);
  for (int i = 1; i <= 8; i++) {
    spin(0.012);
    evas_event_feed_mouse_move(test_ad.evas, from.x + (to.x - from.x) * i / 8, from.y + (to.y - from.y) * i / 8, now(),
                               nullptr);
  }
  evas_event_feed_mouse_up(test_ad.evas, 1, EVAS_BUTTON_NONE, now(), nullptr);
}

void append(std::string *text, unsigned code) {
  char bytes[6];
  text->append(bytes, (size_t)g_unichar_to_utf8(code, bytes));
}

unsigned next(unsigned below) {
  static unsigned random = 1;
  return (random = random * 1103515245 + 12345) / 65536 % below;
}

// A letter of the script, the same in every run.
void append_letter(std::string *text, const std::string &script) {
  if (script == "Latin") append(text, 'a' + next(26));
  if (script == "Cyrillic") append(text, 0x430 + next(32));
  if (script == "Arabic") append(text, 0x628 + next(19));
  if (script == "Japanese") append(text, next(3) ? 0x3042 + next(80) : 0x4E00 + next(0x2000));
  if (script == "emoji") append(text, 0x1F600 + next(0x40));
  if (script != "Hindi") return;
  append(text, 0x915 + next(36));
  if (next(2)) append(text, 0x93E + next(10));
}

// Words in lines of mail length, each line behind begin; no lines at all with breaks false.
std::string prose(const std::string &script, size_t size, const char *begin = "", bool breaks = true) {
  std::string text = begin;
  while (text.size() < size) {
    for (unsigned letters = 1 + next(9); letters; letters--) append_letter(&text, script);
    text += next(12) || !breaks ? " " : std::string("\n") + begin;
  }
  return text;
}

std::string short_lines(int count) {
  std::string text;
  for (int i = 0; i < count; i++) text += std::to_string(i) + "\n";
  return text;
}

// Answers in answers, twenty deep: of each two lines, so that nothing is folded.
std::string deep_quotes(size_t size) {
  std::string text;
  while (text.size() < size)
    for (int depth = 20; depth >= 0; depth--)
      text += (depth ? std::string((size_t)depth, '>') + " " : "") + prose("Latin", 60, "", false) + "\n" +
              (depth % 2 ? "" : "\n");
  return text;
}

std::vector<double> shown, opened, turned, scrolled_by, unfolded;

void measure_opening(int mail) {
  for (int i = 0; i < openings; i++) {
    if (i > 0) close_reader();
    work = 0;
    begin_turn();
    ASSERT_EQ(brisel_detail_draw_view(mail, 0, &test_ad), 0);
    evas_render(test_ad.evas);
    evas_sync(test_ad.evas);
    end_turn();
    shown.push_back(work);
    const auto is_built = [] {
      return std::ranges::all_of(reader()->page_data, [](page_data *page) { return page && page->is_built; });
    };
    spin_until(30, is_built);
    ASSERT_TRUE(is_built()) << "the pages beside were not built";
    opened.push_back(work);
    spin(0.3);
  }
}

void measure_turns(void) {
  int w = 0, h = 0;
  evas_object_geometry_get(reader()->page_scroller_layout, nullptr, nullptr, &w, &h);
  for (int i = 0; i < turns; i++) {
    const int before = reader()->mail_id;
    const point left = {w / 5, h / 2}, right = {w - w / 5, h / 2};
    const bool to_next = i % 4 < 2;
    longest_turn = 0;
    stroke_from(to_next ? right : left, to_next ? left : right);
    spin(1.0);
    ASSERT_NE(reader()->mail_id, before) << "the swipe turned no page";
    turned.push_back(longest_turn);
  }
}

void measure_scrolling(void) {
  int w = 0, h = 0;
  evas_object_geometry_get(reader()->page_scroller_layout, nullptr, nullptr, &w, &h);
  for (int i = 0; i < flicks; i++) {
    longest_turn = 0;
    stroke_from({w / 2, h * 4 / 5}, {w / 2, h / 5});
    spin(0.5);
    scrolled_by.push_back(longest_turn);
  }
}

// The body begins with a fold.
void measure_unfolding(void) {
  std::string before = brisel_detail_body_get(current_page()->detail_layout, nullptr);
  int x = 0, y = 0;
  Evas_Object *edje = elm_layout_edje_get(current_page()->detail_layout);
  evas_object_geometry_get((Evas_Object *)edje_object_part_object_get(edje, "detail.body"), &x, &y, nullptr, nullptr);
  longest_turn = 0;
  stroke_from({x + 20, y + 15}, {x + 20, y + 15});
  spin(0.5);
  ASSERT_NE(before, brisel_detail_body_get(current_page()->detail_layout, nullptr)) << "nothing was opened";
  unfolded.push_back(longest_turn);
}

std::string only;

}  // namespace

TEST(Reader, EveryBody) {
  const struct {
    const char *name;
    std::string body;
  } cases[] = {{"Latin 1 KB", prose("Latin", 1024)},
               {"Latin 64 KB", prose("Latin", 65536)},
               {"Latin 1 MB", prose("Latin", 1000000)},
               {"Cyrillic 1 MB", prose("Cyrillic", 1000000)},
               {"Arabic 1 MB", prose("Arabic", 1000000)},
               {"Hindi 1 MB", prose("Hindi", 1000000)},
               {"Japanese 1 MB", prose("Japanese", 1000000)},
               {"emoji 1 MB", prose("emoji", 1000000)},
               {"one line of 1 MB", prose("Latin", 1000000, "", false)},
               {"one word of 1 MB", std::string(1000000, 'w')},
               {"100,000 short lines", short_lines(100000)},
               {"deep quotes 1 MB", deep_quotes(1000000)},
               {"folded quote 1 MB", prose("Latin", 1000000, "> ")},
               {"Hindi 4 MB", prose("Hindi", 4000000)},
               {"folded quote 4 MB", prose("Latin", 4000000, "> ")}};
  /* The first body stands beside a frame, the others beside the first. */
  const std::vector<double> frame = {1000.0 / 60};
  const char *const a_frame = "a frame at 60 Hz", *beside = a_frame;
  std::vector<double> plain[] = {frame, frame, frame, frame};
  for (const auto &one : cases) {
    if (!only.empty() && only != one.name) continue;
    linked_phone phone;
    const std::vector<int> ids = mailbox_with(&phone, std::vector<std::string>(mails, one.body));
    for (auto *samples : {&shown, &opened, &turned, &scrolled_by, &unfolded}) samples->clear();
    measure_opening(ids[opened_mail]);
    if (!HasFatalFailure()) measure_turns();
    if (!HasFatalFailure() && !strncmp(one.name, "folded", 6)) measure_unfolding();
    if (HasFatalFailure()) return;
    measure_scrolling();
    const std::string of = std::string(", ") + one.name;
    figure("mail opened, itself, to its picture" + of, "ms", shown, plain[3], beside);
    figure("mail opened with its four neighbours" + of, "ms", opened, plain[0], beside);
    figure("longest frame of a page turn and the rest after it" + of, "ms", turned, plain[1], beside);
    figure("longest frame of a scroll" + of, "ms", scrolled_by, plain[2], beside);
    if (!unfolded.empty()) figure("longest frame of a fold opened" + of, "ms", unfolded, frame, a_frame);
    if (beside == a_frame) {
      beside = one.name;
      plain[0] = opened;
      plain[1] = turned;
      plain[2] = scrolled_by;
      plain[3] = shown;
    }
    close_reader();
    app_stop();
  }
}

int main(int argc, char **argv) {
  if (argc > 1) only = argv[1];
  char brief[] = "--gtest_brief=1";
  char *arguments[] = {argv[0], brief, nullptr};
  return app_test_main(2, arguments);
}
