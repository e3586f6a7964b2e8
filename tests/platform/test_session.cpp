#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "driver.h"

namespace fs = std::filesystem;

namespace {

const char session[] = SESSION;

ran in_session(const std::string &script, std::vector<std::string> options = {}) {
  std::vector<std::string> words{session};
  words.insert(words.end(), options.begin(), options.end());
  words.insert(words.end(), {"--", "sh", "-c", script});
  return run(words);
}

bool alive(const std::string &pid) {
  return kill(atoi(pid.c_str()), 0) == 0;
}

std::string first_line(const std::string &text) {
  return text.substr(0, text.find('\n'));
}

TEST(Session, ReturnsTheCommandsCode) {
  EXPECT_EQ(in_session("exit 7").code, 7);
  /* Of every program: 2 what makes no sense wherever it is asked for, 1 what cannot be done or said. */
  std::string script, wanted;
  for (const auto &[line, code] :
       std::initializer_list<std::pair<const char *, int>>{{"timeout 20 brisel --perpare", 2},
                                                           {"timeout 20 brisel brisel_id", 2},
                                                           {"timeout 20 brisel =1", 2},
                                                           {"brisel -V >/dev/full", 1},
                                                           {"brisel-hostd --help >&-", 1},
                                                           {"brisel-session --version >/dev/full", 1}}) {
    script += std::string(line) + " 2>/dev/null; echo \"" + line + "\" $?\n";
    wanted += std::string(line) + " " + std::to_string(code) + "\n";
  }
  EXPECT_EQ(in_session(script).out, wanted);
  EXPECT_EQ(in_session("kill -9 $$").code, 128 + SIGKILL);
  EXPECT_EQ(run({session, "--", "no-such-program"}).code, 127);
  EXPECT_NE(run({session}).code, 0);
  EXPECT_NE(run({session, "--size", "big", "true"}).code, 0);
}

TEST(Session, IsItsOwnWorldAndLeavesNothing) {
  const ran seen = in_session(
      "echo $BRISEL_SESSION_DIR; for v in \"$HOME\" \"$XDG_DATA_HOME\" \"$XDG_CONFIG_HOME\" \"$XDG_STATE_HOME\" "
      "\"$XDG_RUNTIME_DIR\" \"$BRISEL_LOG_FILE\" \"${DBUS_SESSION_BUS_ADDRESS#unix:path=}\"; do case \"$v\" in "
      "\"$BRISEL_SESSION_DIR\"/*) ;; *) echo outside: $v;; esac; done; echo $BRISEL_INSPECT $ELM_ENGINE "
      "$BRISEL_WINDOW_SIZE",
      {"--size", "360x480"});
  const std::string dir = first_line(seen.out);
  EXPECT_EQ(seen.out, dir + "\n1 buffer 360x480\n");
  EXPECT_FALSE(fs::exists(dir));
  EXPECT_NE(dir, getenv("BRISEL_SESSION_DIR"));
  EXPECT_EQ(seen.err, "");
}

TEST(Session, StartsOnlyThisBuildOnItsBus) {
  const ran seen = in_session(
      "gdbus call --session --dest org.freedesktop.DBus --object-path / --method "
      "org.freedesktop.DBus.ListActivatableNames");
  for (const char *name :
       {"com.vextora.brisel", "com.vextora.brisel.Host", "com.vextora.call", "com.vextora.bt-connection-popup"})
    EXPECT_NE(seen.out.find(std::string("'") + name + "'"), std::string::npos) << seen.out;
  EXPECT_EQ(std::count(seen.out.begin(), seen.out.end(), ','), 5) << "and the bus itself: " << seen.out;
}

TEST(Session, EndsWhatItStarted) {
  /* A background child, a daemon of its own that does not listen, an application that the bus started. */
  const ran seen = in_session(
      "sleep 1000 & echo $!; (trap '' TERM; exec setsid sleep 1000) & echo $!; "
      "brisel-watchctl --app com.vextora.call launch number=1; "
      "gdbus call --session --dest org.freedesktop.DBus --object-path / --method "
      "org.freedesktop.DBus.GetConnectionUnixProcessID com.vextora.call | tr -dc '0-9 ' | awk '{print $NF}'; exit 3");
  EXPECT_EQ(seen.code, 3);
  std::istringstream pids(seen.out);
  std::string pid;
  int count = 0;
  while (pids >> pid) {
    EXPECT_FALSE(alive(pid)) << pid;
    count++;
  }
  EXPECT_EQ(count, 3) << seen.out << seen.err;
}

TEST(Session, EndsWhenItIsTold) {
  for (const int number : {SIGTERM, SIGINT, SIGKILL}) {
    child running({session, "--", "sh", "-c", "echo $BRISEL_SESSION_DIR; sleep 1000 & echo $!; echo $PPID; wait"});
    const std::string dir = running.line();
    const std::string sleeper = running.line();
    const std::string supervisor = running.line();
    running.signal(number);
    EXPECT_EQ(running.wait(), 128 + number);
    /* After a kill the supervisor still ends the rest; its output closes when all are gone. */
    EXPECT_EQ(running.line(), "(end)");
    while (number == SIGKILL && alive(supervisor)) usleep(10000);
    EXPECT_FALSE(alive(sleeper)) << number;
    if (number == SIGKILL)
      fs::remove_all(dir); /* nobody was left to do it */
    else
      EXPECT_FALSE(fs::exists(dir)) << number;
  }
}

TEST(Session, KeepsWhatIsToBeKept) {
  const std::string dir = std::string(getenv("BRISEL_SESSION_DIR")) + "/kept";
  EXPECT_EQ(in_session("brisel-watchctl setting set db/lasting int 1; brisel-watchctl setting set memory/gone int 1; "
                       "brisel-watchctl setting get memory/gone",
                       {"--keep", dir})
                .out,
            "1\n");
  EXPECT_EQ(in_session("brisel-watchctl setting list", {"--keep", dir}).out, "db/lasting int 1\n");
  child first({session, "--keep", dir, "--", "sh", "-c", "echo up; sleep 1000"});
  EXPECT_EQ(first.line(), "up");
  const ran second = in_session("true", {"--keep", dir});
  EXPECT_NE(second.code, 0);
  EXPECT_NE(second.err.find("another session"), std::string::npos) << second.err;
}

TEST(Session, LivesBesideAnother) {
  child one({session, "--", "sh", "-c",
             "brisel-watchctl setting set db/who string one; brisel-watchctl --app com.vextora.call launch number=1; "
             "echo up; read wait; brisel-watchctl setting get db/who"});
  EXPECT_EQ(one.line(), "up");
  const ran two = in_session("brisel-watchctl setting get db/who; brisel-watchctl --app com.vextora.call key back");
  EXPECT_EQ(two.out, "");
  EXPECT_NE(two.err.find("com.vextora.call is not running"), std::string::npos) << two.err;
}

}  // namespace
