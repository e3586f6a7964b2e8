#include <systemd/sd-bus.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <set>

#include "cases.h"
#include "driver.h"

using lines = std::vector<std::string>;

namespace {

const char probe[] = PROBE;
const std::string CASES = CASES_DIR "/platform.txt";
constexpr char link_popup[] = "com.vextora.bt-connection-popup";
constexpr char link_key[] = "memory/wms/wmanager_connected";

ran ask_bus(const std::string &method, const std::string &name) {
  return run({"gdbus", "call", "--session", "--dest", "org.freedesktop.DBus", "--object-path", "/", "--method",
              "org.freedesktop.DBus." + method, name});
}

struct bus_deleter {
  void operator()(sd_bus *bus) const { sd_bus_flush_close_unref(bus); }
};
using bus_holder = std::unique_ptr<sd_bus, bus_deleter>;

int count_answer_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  *static_cast<int *>(data) += !sd_bus_message_is_method_error(m, nullptr);
  return 0;
}

/* Asks the probe for each in turn (Pause, or a launch with that x), and returns when all of it waits there. The answers
   are counted on the connection that is returned. */
bus_holder leave_at_probe(const lines &asked, int *answers) {
  sd_bus *bus = nullptr;
  EXPECT_GE(sd_bus_open_user(&bus), 0);
  for (const std::string &one : asked) {
    const bool is_launch = one != "Pause";
    sd_bus_message *call = nullptr;
    sd_bus_message_new_method_call(bus, &call, "com.vextora.probe", "/com/vextora/probe", "com.vextora.Application1",
                                   is_launch ? "Launch" : one.c_str());
    if (is_launch) sd_bus_message_append(call, "a{ss}", 1, "x", one.c_str());
    EXPECT_GE(sd_bus_call_async(bus, nullptr, call, count_answer_cb, answers, 0), 0);
    sd_bus_message_unref(call);
  }
  /* Answered by the bus after all of them. */
  EXPECT_GE(sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Peer",
                               "Ping", nullptr, nullptr, ""),
            0);
  return bus_holder(bus);
}

/* A started probe: its first two lines are read. */
struct Framework : testing::Test {
  Framework() : app({probe, "x=1"}) {}
  void SetUp() override {
    ASSERT_EQ(app.line(), "create 320x320 No emails");
    ASSERT_EQ(app.line(), "service scene= do= x=1");
  }
  /* Asks for an action; returns what the probe told until it was done, without the launch itself. */
  lines act(const std::string &action) {
    must({"launch", "do=" + action});
    EXPECT_EQ(app.line(), "service scene= do=" + action + " x=");
    return settled();
  }
  /* What has been told by now: a further launch marks the end. */
  lines settled() {
    must({"launch", "x=end"});
    return app.until("service scene= do= x=end");
  }
  child app;
};

TEST_F(Framework, PausesAndResumesOncePerChange) {
  for (const case_row &row : table_of(CASES, "sight: what the application does with its window, what it is told", 2))
    EXPECT_EQ(act(row[0]), row.words(1)) << row[0];
}

TEST_F(Framework, FollowsTheWatchInAndOut) {
  must({"pause"});
  EXPECT_EQ(app.line(), "pause");
  must({"pause"});
  must({"resume"});
  EXPECT_EQ(app.line(), "resume");
  must({"resume"});
  EXPECT_EQ(settled(), lines{});
  EXPECT_EQ(act("hide"), lines{"pause"});
  must({"resume"});
  EXPECT_EQ(settled(), lines{"resume"}) << "a hidden window comes back too";
}

/* What waits behind a pause in the same turn of the loop already finds the application paused; of launches that wait
   side by side the last one stands for all, and each is answered. */
TEST_F(Framework, HasPausedWhenItAnswersAndJoinsLaunches) {
  app.signal(SIGSTOP);
  int answers = 0;
  const bus_holder bus = leave_at_probe({"first", "Pause", "joined", "behind"}, &answers);
  app.signal(SIGCONT);
  EXPECT_EQ(app.until("service scene= do= x=behind"), (lines{"service scene= do= x=first", "pause"}));
  while (answers < 4 && (sd_bus_process(bus.get(), nullptr) > 0 || sd_bus_wait(bus.get(), 10000000) > 0)) {
  }
  EXPECT_EQ(answers, 4);
}

TEST_F(Framework, EndsCleanlyHoweverItIsTold) {
  must({"quit"});
  EXPECT_EQ(app.line(), "terminate");
  EXPECT_EQ(app.line(), "(end)");
  EXPECT_EQ(app.wait(), 0);
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    child again({probe});
    again.until("service scene= do= x=");
    again.signal(number);
    EXPECT_EQ(again.line(), "terminate");
    EXPECT_EQ(again.wait(), 0);
  }
  {
    child outlives({"nohup", probe});
    outlives.until("service scene= do= x=");
    outlives.signal(SIGHUP);
    must({"launch", "x=end"});
    EXPECT_EQ(outlives.line(), "service scene= do= x=end");
  }
  for (const char *action : {"do=exit", "do=destroy"}) {
    child by_itself({probe, action});
    by_itself.until("terminate");
    EXPECT_EQ(by_itself.wait(), 0);
  }
}

TEST_F(Framework, HandsASecondStartToTheFirst) {
  const ran second = run({probe, "x=second"});
  EXPECT_EQ(second.code, 0);
  EXPECT_EQ(second.out, "") << "nothing of it was created";
  EXPECT_EQ(app.line(), "service scene= do= x=second");
  const ran action =
      run({"gdbus", "call", "--session", "--dest", "com.vextora.probe", "--object-path", "/com/vextora/probe",
           "--method", "org.freedesktop.Application.ActivateAction", "launch", "[<{'x':'desktop'}>]", "{}"});
  EXPECT_EQ(action.code, 0) << action.err;
  EXPECT_EQ(app.line(), "service scene= do= x=desktop");
  std::vector<std::string> many = {"launch"};
  for (int i = 0; i < 65; i++) many.push_back(std::to_string(i) + "=x");
  EXPECT_NE(watch(many).code, 0) << "nobody sends so much in earnest";
}

TEST(FrameworkStart, KeepsTheLastLaunchUntilItIsCreated) {
  const std::string go = std::string(getenv("BRISEL_SESSION_DIR")) + "/created-now";
  child app({probe, "--service"}, {{"PROBE_CREATE_AWAITS", go}});
  /* Its name is there long before its window. */
  while (ask_bus("GetNameOwner", "com.vextora.probe").code != 0) usleep(10000);
  int answers = 0;
  const bus_holder bus = leave_at_probe({"early", "next", "last"}, &answers);
  run({"touch", go});
  EXPECT_EQ(app.line(), "create 320x320 No emails");
  EXPECT_EQ(app.line(), "service scene= do= x=last") << "and no launch of its own before";
}

const lines prepared = {"create 320x320 No emails", "pause"};

TEST(FrameworkStart, PreparesOutOfSightAfterTheEndOfOneThatIsThere) {
  child app({probe, "--prepare"});
  EXPECT_EQ(app.until("prepare, out of sight"), prepared);
  child next({probe, "--prepare", "x=1"});
  while (ask_bus("ListQueuedOwners", "com.vextora.probe").out.find(',') == std::string::npos) usleep(10000);
  EXPECT_EQ(run({probe, "x=second"}).code, 0);
  EXPECT_EQ(app.line(), "service scene= do= x=second");
  EXPECT_EQ(app.line(), "resume");
  must({"quit"});
  EXPECT_EQ(next.until("prepare, out of sight"), prepared);
}

/* Whoever has it prepared starts it anew. */
TEST(FrameworkStart, IsNotPreparedInVain) {
  EXPECT_EQ(run({probe, "--prepare"}, {{"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent"}}).code, 1);
  child bus({"dbus-daemon", "--session", "--print-address", "--nofork"});
  child on_bus({probe, "--prepare"}, {{"DBUS_SESSION_BUS_ADDRESS", bus.line()}});
  EXPECT_EQ(on_bus.until("prepare, out of sight"), prepared);
  bus.signal(SIGTERM);
  EXPECT_EQ(on_bus.line(), "terminate") << "the bus went";
  EXPECT_EQ(on_bus.wait(), 0);

  const std::string program = testing::TempDir() + "brisel-probe-" + std::to_string(getpid());
  run({"cp", probe, program});
  child old({program, "--prepare"});
  EXPECT_EQ(old.until("prepare, out of sight"), prepared);
  run({"cp", probe, program + ".new"});
  run({"mv", program + ".new", program});
  EXPECT_EQ(old.line(), "terminate") << "there is a new program";
  EXPECT_EQ(old.wait(), 0);
  run({"rm", program});
}

TEST(FrameworkStart, EndsWhenItCannotBeCreated) {
  child app({probe}, {{"PROBE_CREATE_FAILS", "1"}});
  EXPECT_EQ(app.line(), "terminate");
  EXPECT_EQ(app.wait(), 1);
}

TEST(FrameworkStart, RunsAloneWithoutABus) {
  child app({probe, "do=exit"}, {{"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent"}});
  EXPECT_EQ(app.line(), "create 320x320 No emails");
  EXPECT_EQ(app.line(), "service scene= do=exit x=");
  EXPECT_EQ(app.wait(), 0);
}

/* Nobody tells of the new bus, nor does the application ask anything of it. */
TEST(FrameworkStart, IsFoundAgainOnTheNextBus) {
  const std::string path = testing::TempDir() + "brisel-bus-" + std::to_string(getpid()), address = "unix:path=" + path;
  const std::map<std::string, std::string> there = {{"DBUS_SESSION_BUS_ADDRESS", address}};
  const lines daemon = {"dbus-daemon", "--session", "--nofork", "--print-address", "--address", address};
  auto bus = std::make_unique<child>(daemon);
  bus->line();
  child app({probe}, there);
  app.until("service scene= do= x=");
  const lines launch = {"brisel-watchctl", "--app", "com.vextora.probe", "launch", "x=found"};
  for (const bool has_rival : {false, true}) {
    bus.reset();
    bus = std::make_unique<child>(daemon);
    bus->line();
    std::unique_ptr<child> rival;
    if (has_rival) rival = std::make_unique<child>(lines{probe}, there);
    if (has_rival) rival->until("service scene= do= x=");
    while (!has_rival && run(launch, there).code != 0) usleep(20000);
    EXPECT_EQ(app.line(), has_rival ? "terminate" : "service scene= do= x=found");
  }
  EXPECT_EQ(app.wait(), 0);
}

TEST(FrameworkStart, SpeaksEnglishInEveryNeutralLocale) {
  for (const char *locale : {"", "C", "POSIX", "C.UTF-8", "xx_XX.UTF-8"}) {
    child app({probe, "do=exit"}, {{"LANG", locale}, {"LC_ALL", locale}, {"BRISEL_WINDOW_SIZE", "360x480"}});
    EXPECT_EQ(app.line(), "create 360x480 No emails") << locale;
  }
  child german({probe, "do=exit"}, {{"LANGUAGE", "C:xx:de"}});
  EXPECT_EQ(german.line(), "create 320x320 Keine E-Mails") << "what is no language ends no list of languages";
}

TEST_F(Framework, AnswersLaunchesAtOnceOrLate) {
  EXPECT_EQ(watch({"launch", "x=2"}).out, "");
  child late({"brisel-watchctl", "--app", "com.vextora.probe", "launch", "do=keep"});
  app.until("service scene= do=keep x=");
  must({"launch", "do=answer"});
  EXPECT_EQ(app.until("answered 0 -1").size(), 1u) << "a second answer is refused";
  EXPECT_EQ(late.line(), "answer=late");
  EXPECT_EQ(late.wait(), 0);
}

TEST_F(Framework, HearsWhatBecameOfItsLaunches) {
  auto popup = [](const std::vector<std::string> &words) {
    std::vector<std::string> all{"brisel-watchctl", "--app", link_popup};
    all.insert(all.end(), words.begin(), words.end());
    /* It is there when it answers; it may still be starting. */
    while (run(all).code != 0) usleep(20000);
  };
  must({"launch", "send=com.vextora.nosuch"});
  app.until("sent -3");

  must({"launch", std::string("send=") + link_popup});
  app.until("sent 0");
  popup({"dump"});
  must({"setting", "set", link_key, "bool", "true"});
  EXPECT_EQ(app.line(), "reply 0 Connected");
  must({"setting", "unset", link_key});

  must({"launch", std::string("send=") + link_popup});
  app.until("sent 0");
  popup({"key", "back"});
  EXPECT_EQ(app.line(), "reply 0 Not Connected");

  must({"launch", std::string("send=") + link_popup});
  app.until("sent 0");
  popup({"dump"});
  const ran owner = ask_bus("GetConnectionUnixProcessID", link_popup);
  const int pid = atoi(owner.out.c_str() + owner.out.find(' ') + 1);
  ASSERT_GT(pid, 1) << owner.out;
  kill(pid, SIGKILL);
  EXPECT_EQ(app.line(), "reply -1 ") << "a target that dies never leaves the sender waiting";
}

TEST_F(Framework, GivesKeysToTheTopmostThatIsThere) {
  must({"launch", "scene=key"});
  app.line();
  auto key = [this](const char *name) {
    must({"key", name});
    return settled();
  };
  EXPECT_EQ(key("more"), lines{"key more"});
  EXPECT_EQ(key("back"), (lines{"key top", "removed with its data"}));
  EXPECT_EQ(key("back"), lines{"key middle"});
  act("hide-key");
  EXPECT_EQ(key("back"), lines{"key bottom"});
  act("delete-key");
  EXPECT_EQ(key("back"), lines{"key bottom"});
}

TEST_F(Framework, FollowsLanguageRegionAndZone) {
  must({"setting", "set", "db/menu_widget/language", "string", "ar_EG.UTF-8"});
  const std::string arabic = app.line();
  EXPECT_EQ(arabic.find("language ar_EG:en mirrored 1 "), 0u) << arabic;
  EXPECT_EQ(arabic.find("No emails"), std::string::npos) << "translated: " << arabic;
  EXPECT_EQ(app.line(), "after C " + arabic.substr(strlen("language ar_EG:en mirrored 1 ")));
  must({"setting", "set", "db/menu_widget/language", "string", "../../etc:C"});
  EXPECT_EQ(app.line(), "language en mirrored 0 No emails") << "what is no language is not used";
  app.line();
  must({"setting", "set", "db/menu_widget/regionformat", "string", "de_DE.UTF-8"});
  EXPECT_EQ(app.line(), "region");
  must({"timezone", "Asia/Tokyo"});
  EXPECT_EQ(act("zone"), lines{"zone Asia/Tokyo 32400"});
  EXPECT_NE(watch({"timezone", "../passwd"}).code, 0);
  must({"timezone", "Etc/UTC"});
  for (const char *key : {"db/menu_widget/language", "db/menu_widget/regionformat"}) must({"setting", "unset", key});
}

/* Nobody else says so: the zone's file is put into place, and then a day ends in it; and the next day. */
TEST_F(Framework, TellsOfAnotherZoneAndOfMidnight) {
  const std::string link = getenv("BRISEL_LOCALTIME"), folder = link + "-zones", rules = link + ".rules";
  const lines told = {"brisel-watchctl", "setting", "get", "memory/system/timechanged"};
  const auto hears = [&](time_t until) {
    while (run(told).code != 0 && time(nullptr) < until) usleep(20000);
    return run(told).code == 0;
  };
  int midnights = 0;
  for (int patience = 3; patience < 30 && midnights < 2;) {
    run({"brisel-watchctl", "setting", "unset", "memory/system/timechanged"});
    const long left = 86400 - (time(nullptr) + patience) % 86400; /* of the UTC day: this far ahead is the zone */
    FILE *file = fopen(rules.c_str(), "w");
    fprintf(file, "Zone Soon %ld:%02ld:%02ld - SOON\n", left / 3600, left / 60 % 60, left % 60);
    fclose(file);
    ASSERT_EQ(run({"/usr/sbin/zic", "-d", folder, rules}).code, 0);
    ASSERT_EQ(rename((folder + "/Soon").c_str(), link.c_str()), 0);
    ASSERT_TRUE(hears(time(nullptr) + 60)) << "of the zone";
    EXPECT_EQ(act("zone"), lines{"zone :" + link + " " + std::to_string(left)});
    must({"setting", "unset", "memory/system/timechanged"});
    if (hears(time(nullptr) + patience + 5))
      midnights++;
    else
      patience *= 2; /* a slow machine may have been past it before it listened */
  }
  EXPECT_EQ(midnights, 2);
  must({"timezone", "Etc/UTC"});
}

/* The real popup of the link stand-in: text styles and parts both have to follow. */
TEST(Look, ChangesItsPaletteWhileItRuns) {
  child popup({"brisel-link-popup"});
  auto colors = [] {
    const std::vector<std::string> words{"brisel-watchctl", "--app", link_popup, "dump"};
    ran shown = run(words);
    while (shown.code != 0) {
      usleep(20000); /* still starting */
      shown = run(words);
    }
    std::set<std::string> all;
    const nlohmann::json seen = nlohmann::json::parse(shown.out, nullptr, false);
    for (const auto &one : seen["texts"]) all.insert(one["color"]);
    return all;
  };
  const std::set<std::string> dark = colors();
  ASSERT_FALSE(dark.empty());
  must({"setting", "set", "db/setting/theme", "string", "light"});
  const std::set<std::string> light = colors();
  for (const std::string &one : dark) EXPECT_EQ(light.count(one), 0u) << one << " is left from the dark palette";
  must({"setting", "set", "db/setting/theme", "string", "dark"});
  EXPECT_EQ(colors(), dark);
}

}  // namespace
