/* The settings store, its notifications and what stands on it: dlog's lines and pickover. */
#include <Elementary.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <memory>

#include "cases.h"
#include "dlog.h"
#include "efl_assist.h"
#include "faults.h"
#include "files.h"
#include "inspect-priv.h"
#include "loop.h"
#include "pickover.h"
#include "platform-paths.h"
#include "text-check.h"
#include "vconf.h"

namespace fs = std::filesystem;

namespace {

const std::string CASES = CASES_DIR "/settings.txt";
constexpr const char *KEY = "db/test/value";

std::string text_of(const char *key) {
  const std::unique_ptr<char, decltype(&free)> text(vconf_get_str(key), free);
  return text != nullptr ? text.get() : "(unreadable)";
}

fs::path file_of(const std::string &name, bool memory = false) {
  const char *base = memory ? platform_runtime_dir() : platform_config_dir();
  return fs::path(base) / (memory ? "memory" : "settings") / name;
}

int temporary_files() {
  int count = 0;
  for (const auto &entry : fs::directory_iterator(file_of("").parent_path()))
    count += entry.path().filename().string().starts_with('~') ? 1 : 0;
  return count;
}

/* Beginnings of every kind, with enough behind them to be looked at together and without, against GLib's own check. */
TEST(Text, CheckedAsByGlib) {
  for (int first = 0x80; first < 0x100; first++)
    for (int second = 1; second < 0x100; second++)
      for (const char *rest :
           {"", "\x80", "\xBF", "\xC3", "\x80\x80", "\xC2\x80 and more", "\xBF and \xE3\x81\x82", "\x80\xBF and more"})
        for (const char *before : {"", "A", "\xD0\xB0\xD0\xB1", "a plain beginning of a text that is long"}) {
          const std::string text = std::string(before) + (char)first + (char)second + rest;
          ASSERT_EQ(text_utf8_valid(text), (bool)g_utf8_validate(text.data(), (gssize)text.size(), nullptr))
              << before << std::hex << first << " " << second << rest;
        }
}

TEST(Settings, KeepsTypesApart) {
  int number = 42;
  EXPECT_EQ(vconf_get_int("db/none", &number), -1);
  EXPECT_EQ(number, 42);
  EXPECT_EQ(vconf_set_int(KEY, -2147483647 - 1), 0);
  EXPECT_EQ(vconf_get_int(KEY, &number), 0);
  EXPECT_EQ(number, -2147483647 - 1);
  EXPECT_EQ(vconf_get_bool(KEY, &number), -1);
  EXPECT_EQ(vconf_get_str(KEY), nullptr);
  EXPECT_EQ(vconf_get_type(KEY), VCONF_TYPE_INT);
  EXPECT_EQ(vconf_set_bool(KEY, 7), 0);
  EXPECT_EQ(vconf_get_bool(KEY, &number), 0);
  EXPECT_EQ(number, 1);
  for (const std::string &text : {std::string(), std::string("a\nb\t\"é😀"), std::string(65536, 'x')}) {
    EXPECT_EQ(vconf_set_str(KEY, text.c_str()), 0);
    EXPECT_EQ(text_of(KEY), text);
  }
  EXPECT_EQ(vconf_set_str(KEY, std::string(65537, 'x').c_str()), -1);
  EXPECT_EQ(vconf_set_str(KEY, "\xC3("), -1);
  EXPECT_EQ(vconf_set_str(KEY, nullptr), -1);
  EXPECT_EQ(text_of(KEY).size(), 65536u);
  EXPECT_EQ(vconf_unset(KEY), 0);
  EXPECT_EQ(vconf_unset(KEY), 0);
  EXPECT_EQ(vconf_get_type(KEY), VCONF_TYPE_NONE);
}

TEST(Settings, TakesOnlyKeysThatAreKeys) {
  std::vector<case_row> bad = table_of(CASES, "no keys", 1);
  bad.push_back({{std::string(256, 'k')}});
  for (const case_row &key : bad) {
    EXPECT_EQ(vconf_set_int(key.text(0), 1), -1) << key[0];
    EXPECT_EQ(vconf_get_type(key.text(0)), VCONF_TYPE_NONE) << key[0];
    EXPECT_EQ(vconf_unset(key.text(0)), -1) << key[0];
  }
  EXPECT_EQ(vconf_set_int(nullptr, 1), -1);
  const std::string longest = "memory/" + std::string(248, 'k');
  for (const std::string &key : {std::string("a"), std::string(".a"), std::string("a/..b/c"), longest}) {
    int value = 0;
    EXPECT_EQ(vconf_set_int(key.c_str(), 5), 0) << key;
    EXPECT_EQ(vconf_get_int(key.c_str(), &value), 0) << key;
    EXPECT_EQ(vconf_unset(key.c_str()), 0);
  }
}

TEST(Settings, ListsInByteOrderAndKeepsTheSessionsApart) {
  vconf_set_int("db/b", 1);
  vconf_set_str("memory/a/x", "text");
  vconf_set_bool("db/B", 1);
  put_file(file_of("not a key"), "x");
  put_file(file_of("memory+strange"), "x"); /* in the folder of the lasting ones: no key's file */
  std::vector<std::string> found;
  vconf_list(
      [](const char *key, int type, void *data) {
        static_cast<std::vector<std::string> *>(data)->push_back(key + (" " + std::to_string(type)));
      },
      &found);
  EXPECT_EQ(found, (std::vector<std::string>{"db/B 43", "db/b 41", "memory/a/x 40"}));
  EXPECT_TRUE(fs::exists(file_of("memory+a+x", true)));
  for (const char *key : {"db/b", "db/B", "memory/a/x"}) vconf_unset(key);
}

TEST(Settings, BrokenFilesAreUnreadableAndLeftAlone) {
  vconf_set_str(KEY, "some text");
  const fs::path path = file_of("db+test+value");
  const std::string good = get_file(path);
  for (size_t i = 0; i < good.size(); i++) {
    std::string bad = good;
    bad[i] = static_cast<char>(bad[i] ^ 1);
    put_file(path, bad);
    EXPECT_EQ(vconf_get_type(KEY), VCONF_TYPE_NONE) << "byte " << i;
    put_file(path, good.substr(0, i));
    EXPECT_EQ(vconf_get_type(KEY), VCONF_TYPE_NONE) << "cut at " << i;
    EXPECT_EQ(get_file(path).size(), i);
  }
  for (const std::string &bad : {good + "x", std::string(100000, 'v'), std::string("hello\n"), std::string(1, '\0')}) {
    put_file(path, bad);
    EXPECT_EQ(vconf_get_type(KEY), VCONF_TYPE_NONE);
  }
  fs::remove(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); /* must not hang */
  EXPECT_EQ(text_of(KEY), "(unreadable)");
  EXPECT_EQ(vconf_set_str(KEY, "whole again"), 0);
  EXPECT_EQ(text_of(KEY), "whole again");
  fs::remove(path);
  fs::create_directory(path);
  EXPECT_EQ(text_of(KEY), "(unreadable)");
  EXPECT_EQ(vconf_set_str(KEY, "x"), -1);
  EXPECT_EQ(vconf_unset(KEY), -1);
  fs::remove(path);
}

/* A small text is written in one piece, a long one could be left in half. */
TEST(Settings, OutliveEveryFault) {
  const std::string old_text(3000, 'o'), new_text(5000, 'n');
  for (const bool remove : {false, true}) {
    EXPECT_GE(outlive_every_fault(
                  {.prepare = [&] { vconf_set_str(KEY, old_text.c_str()); },
                   .change = [&] { return (remove ? vconf_unset(KEY) : vconf_set_str(KEY, new_text.c_str())) == 0; },
                   .state = [] { return vconf_get_type(KEY) == VCONF_TYPE_NONE ? "" : text_of(KEY); },
                   .before = old_text,
                   .after = remove ? "" : new_text}),
              remove ? 8 : 24);
  }
  EXPECT_GT(temporary_files(), 0); /* of those that were killed */
  for (const fs::directory_entry &entry : fs::directory_iterator(file_of("").parent_path()))
    if (entry.path().filename().string().starts_with('~')) fs::remove(entry.path());
  fault_arm({.kind = fault_io, .step = 3});
  EXPECT_EQ(vconf_set_str(KEY, "x"), -1);
  fault_arm({});
  EXPECT_EQ(temporary_files(), 0); /* a failure leaves none */
}

/* A dead writer's temporary files go with the next process that writes; those of a living one stay. */
TEST(Settings, WhatTheDeadLeftIsSweptUp) {
  const fs::path dead = file_of("~2147483646.0"), living = file_of("~" + std::to_string(getppid()) + ".7");
  vconf_set_int(KEY, 1);
  for (const fs::path &file : {dead, living, file_of("~notes")}) put_file(file, "half a val");
  EXPECT_TRUE(in_child([] {
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    return execl("/proc/self/exe", "sweep", "--gtest_filter=Sweep.*", nullptr) == 0;
  }));
  EXPECT_FALSE(fs::exists(dead));
  EXPECT_TRUE(fs::exists(living));
  EXPECT_TRUE(fs::exists(file_of("~notes")));
  fs::remove(living);
  fs::remove(file_of("~notes"));
}

TEST(Sweep, WriteOnce) {
  EXPECT_EQ(vconf_set_int("db/test/sweep", 1), 0);
}

/* Each folder is looked at once in a process, so each row has one of its own. */
TEST(Private, FoldersThatOthersMayChangeAreNotUsed) {
  const fs::path root = fs::path(getenv("BRISEL_SESSION_DIR")) / "folders";
  for (const case_row &row : table_of(CASES,
                                      "folders: what, mode of the base, of its own folder (0: not there yet), its "
                                      "owner, the base's group, whether it is used",
                                      6)) {
    const auto mode = [&](size_t i) { return static_cast<mode_t>(std::stoul(row[i], nullptr, 8)); };
    const auto owner = static_cast<uid_t>(row.number(3)), group = static_cast<gid_t>(row.number(4));
    const bool used = row.number(5);
    if (geteuid() != 0 && (owner != 0 || group != 0)) continue; /* only root can give folders away */
    const fs::path base = root / row[0], own = base / "brisel";
    fs::create_directories(mode(2) ? own : base);
    chmod(base.c_str(), mode(1));
    if (mode(2)) chmod(own.c_str(), mode(2));
    if (group != 0) ASSERT_EQ(chown(base.c_str(), 0, group), 0);
    if (owner != 0) ASSERT_EQ(chown(own.c_str(), owner, 0), 0);
    EXPECT_TRUE(in_child([&] {
      setenv("XDG_DATA_HOME", base.c_str(), 1);
      struct stat info {};
      return (platform_data_dir() != nullptr) == used &&
             (!used || (stat(own.c_str(), &info) == 0 && (info.st_mode & 0777) == 0700));
    })) << row[0];
  }
  fs::create_directories(root / ".config/brisel");
  const std::string file = root / ".config/brisel/inspect";
  EXPECT_FALSE(inspect_allowed_in(root.c_str()));
  put_file(file, "");
  chmod(file.c_str(), 0644);
  EXPECT_TRUE(inspect_allowed_in(root.c_str()));
  chmod(file.c_str(), 0666);
  EXPECT_FALSE(inspect_allowed_in(root.c_str()));
}

/* --- notification --- */

struct watcher {
  std::vector<std::string> seen;
  std::function<void()> then;
};

void on_changed(keynode_t *node, void *data) {
  auto *to = static_cast<watcher *>(data);
  const char *text = vconf_keynode_get_str(node);
  to->seen.push_back(std::string(vconf_keynode_get_name(node)) + " " + std::to_string(vconf_keynode_get_type(node)) +
                     " " + (text != nullptr ? text : std::to_string(vconf_keynode_get_int(node))));
  if (to->then) to->then();
}

void on_changed_too(keynode_t *node, void *data) {
  on_changed(node, data);
}

TEST(Notify, DeliversWritesOfAnyProcessAndTheSameValueToo) {
  watcher to;
  vconf_set_int(KEY, 1); /* before the registration: no news */
  ASSERT_EQ(vconf_notify_key_changed(KEY, on_changed, &to), 0);
  EXPECT_EQ(vconf_notify_key_changed(KEY, on_changed, &to), -1);
  const std::vector<std::pair<std::function<bool()>, std::string>> steps = {
      {[] { return vconf_set_int(KEY, 2) == 0; }, "41 2"},
      {[] { return vconf_set_int(KEY, 2) == 0; }, "41 2"},
      {[] { return vconf_set_str(KEY, "two") == 0; }, "40 two"},
      {[] { return vconf_unset(KEY) == 0; }, "0 0"},
      {[] {
         put_file(file_of("db+test+value"), "broken");
         return true;
       },
       "0 0"},
      {[] { return vconf_set_int(KEY, 3) == 0; }, "41 3"},
  };
  for (const bool own : {true, false}) {
    for (const auto &[work, expected] : steps) {
      const size_t before = to.seen.size();
      ASSERT_TRUE(own ? work() : in_child(work));
      ASSERT_TRUE(run_until([&] { return to.seen.size() > before; })) << expected;
      EXPECT_EQ(to.seen.back(), std::string(KEY) + " " + expected);
    }
  }
  EXPECT_EQ(to.seen.size(), steps.size() * 2);
  EXPECT_EQ(vconf_ignore_key_changed(KEY, on_changed), 0);
  EXPECT_EQ(vconf_ignore_key_changed(KEY, on_changed), -1);
}

TEST(Notify, ABurstEndsWithItsLastValue) {
  watcher to;
  ASSERT_EQ(vconf_notify_key_changed("memory/burst", on_changed, &to), 0);
  ASSERT_TRUE(in_child([] {
    for (int i = 0; i <= 1000; i++) vconf_set_int("memory/burst", i);
    return true;
  }));
  EXPECT_TRUE(run_until([&] { return !to.seen.empty() && to.seen.back() == "memory/burst 41 1000"; }));
  vconf_ignore_key_changed("memory/burst", on_changed);
}

TEST(Notify, RegistrationsChangeInsideCallbacks) {
  watcher first, second, late;
  ASSERT_EQ(vconf_notify_key_changed(KEY, on_changed, &first), 0);
  ASSERT_EQ(vconf_notify_key_changed(KEY, on_changed, &second), 0);
  ASSERT_EQ(vconf_notify_key_changed(KEY, on_changed_too, &second), 0);
  first.then = [&] {
    EXPECT_EQ(vconf_ignore_key_changed(KEY, on_changed), 0); /* both, the one running included */
    EXPECT_EQ(vconf_notify_key_changed(KEY, on_changed, &late), 0);
    first.then = nullptr;
  };
  vconf_set_int(KEY, 10);
  ASSERT_TRUE(run_until([&] { return second.seen.size() == 1; }));
  EXPECT_EQ(first.seen.size(), 1u);
  EXPECT_TRUE(late.seen.empty());
  vconf_set_int(KEY, 11);
  ASSERT_TRUE(run_until([&] { return late.seen.size() == 1 && second.seen.size() == 2; }));
  EXPECT_EQ(first.seen.size(), 1u);
  vconf_ignore_key_changed(KEY, on_changed);
  vconf_ignore_key_changed(KEY, on_changed_too);
}

TEST(Notify, FoldersMayComeAndGo) {
  watcher to;
  fs::remove_all(file_of("").parent_path());
  ASSERT_EQ(vconf_notify_key_changed(KEY, on_changed, &to), 0);
  for (int round = 1; round <= 3; round++) {
    vconf_set_int(KEY, round);
    const std::string expected = std::string(KEY) + " 41 " + std::to_string(round);
    ASSERT_TRUE(run_until([&] { return !to.seen.empty() && to.seen.back() == expected; })) << round;
    /* Once with the folder alone, once with the one above it. */
    const fs::path folder = file_of("").parent_path();
    fs::remove_all(round == 1 ? folder : folder.parent_path());
    ASSERT_TRUE(run_until([&] { return to.seen.back() == std::string(KEY) + " 0 0"; })) << round;
  }
  vconf_ignore_key_changed(KEY, on_changed);
}

/* --- pickover --- */

constexpr const char *MESSAGE = "file/private/wcontext/service_msg";
constexpr const char *REGISTRATION = "memory/private/pickover/registration";

TEST(Pickover, HandsOverToTheOneThatIsRegistered) {
  EXPECT_EQ(pickover_take_over(), -1);
  EXPECT_LT(unregister_pickover(), 0);
  for (const int seconds : {0, -1, 3601}) EXPECT_LT(register_pickover("com.example.app", seconds), 0);
  for (const char *id : {"", "two words"}) EXPECT_LT(register_pickover(id, 60), 0);
  ASSERT_EQ(register_pickover("com.example.one", 60), 0);
  ASSERT_EQ(register_pickover("com.example.two", 60), 0);
  EXPECT_TRUE(in_child([] { return pickover_take_over() == 0; }));
  EXPECT_EQ(text_of(MESSAGE), "com.example.two");
  vconf_unset(MESSAGE);
  /* Another process takes the place: giving ours up leaves theirs alone. */
  EXPECT_TRUE(in_child([] { return register_pickover("com.example.other", 60) == 0; }));
  EXPECT_EQ(unregister_pickover(), 0);
  EXPECT_EQ(pickover_take_over(), 0);
  EXPECT_EQ(text_of(MESSAGE), "com.example.other");
  vconf_unset(MESSAGE);
  vconf_unset(REGISTRATION);
}

TEST(Pickover, ExpiredAndDamagedRegistrationsAreNone) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const long long ns = now.tv_sec * 1000000000LL;
  for (const std::string &text :
       {"com.example.app " + std::to_string(ns), "com.example.app " + std::to_string(ns + 3700 * 1000000000LL),
        std::string("com.example.app"), std::string("com.example.app 12x"), std::string(" 99"), std::string()}) {
    vconf_set_str(REGISTRATION, text.c_str());
    EXPECT_EQ(pickover_take_over(), -1) << text;
  }
  EXPECT_EQ(text_of(MESSAGE), "(unreadable)");
  vconf_unset(REGISTRATION);
}

/* --- keys --- */

TEST(Keys, RegistrationsDieWithTheirObject) {
  Evas_Object *window = elm_win_add(nullptr, "keys", ELM_WIN_BASIC);
  Evas_Object *object = evas_object_rectangle_add(evas_object_evas_get(window));
  int data = 0;
  const Ea_Event_Cb pressed_cb = [](void *, Evas_Object *, void *) {};
  ea_object_event_callback_add(object, EA_CALLBACK_BACK, pressed_cb, &data);
  ea_object_event_callback_add(object, EA_CALLBACK_MORE, pressed_cb, &data);
  EXPECT_EQ(ea_object_event_callback_del(object, EA_CALLBACK_MORE, pressed_cb), &data);
  evas_object_del(object);
  EXPECT_EQ(ea_object_event_callback_del(object, EA_CALLBACK_BACK, pressed_cb), nullptr);
  evas_object_del(window);
}

/* --- log --- */

TEST(Log, OneCallIsOneLine) {
  const char *path = getenv("BRISEL_LOG_FILE");
  ASSERT_NE(path, nullptr) << "runs in a private session only";
  const std::string process = "(" + std::to_string(getpid()) + "): ";
  std::string controls;
  for (int i = 0; i < 4096; i++) controls += "\\x02";
  const struct {
    int priority;
    std::string text, head, body;
  } rows[] = {
      {DLOG_INFO, "plain é 😀", "I/TAG", "plain é 😀"},
      {DLOG_WARN, "a\nb\r\tc\x01\x7F", "W/TAG", "a\\nb\\r\\tc\\x01\\x7F"},
      {DLOG_ERROR, "\xFF\xC3 \xC2\x85 \xE2\x80\xA8", "E/TAG", "\\xFF\\xC3 \\xC2\\x85 \\xE2\\x80\\xA8"},
      {DLOG_FATAL, std::string(4095, 'x') + "é", "F/TAG", std::string(4095, 'x')},
      {DLOG_FATAL, std::string(4094, 'x') + "éz", "F/TAG", std::string(4094, 'x') + "é"},
      {DLOG_DEBUG, std::string(5000, '\x02'), "D/TAG", controls},
      {DLOG_DEBUG, "", "D/TAG", ""},
  };
  for (const auto &row : rows) {
    const size_t before = get_file(path).size();
    const int written = __dlog_print(row.priority, "TAG", "%s", row.text.c_str());
    const std::string line = get_file(path).substr(before);
    EXPECT_EQ(line, row.head + process + row.body + "\n");
    EXPECT_EQ(written, static_cast<int>(line.size()));
  }
}

}  // namespace
