/*
 * A private, throw-away session: its own bus, store, settings and log, ending with the command that it runs.
 *
 * Two processes: a keeper, and below it the supervisor that starts the bus and the command. Both collect orphans
 * (whatever the bus activated, whatever the command left behind), so that nothing outlives the session even when one of
 * the two is killed outright.
 */
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform-output.h"

namespace fs = std::filesystem;

namespace {

/* How long a process may take to end when asked, before it is killed. */
constexpr int grace_ms = 4000;
/* The command itself gets longer: it may have work to put away. */
constexpr int command_grace_ms = 10000;
/* A bus socket's path must fit sockaddr_un. */
constexpr size_t socket_path_max = 100;

const char *const services[] = {"com.vextora.brisel", "com.vextora.brisel.Host", "com.vextora.call",
                                "com.vextora.bt-connection-popup"};

struct options {
  std::string keep;
  std::string size;
  std::string build; /* the build tree to run from; empty: what is installed */
  bool window = false;
  std::vector<std::string> command;
};

struct session {
  fs::path dir; /* everything that --keep keeps */
  fs::path run; /* XDG_RUNTIME_DIR: always fresh, always removed */
  int lock = -1;
};

[[gnu::format(printf, 1, 2)]] void complain(const char *format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  fprintf(stderr, "brisel-session: %s\n", text);
}

long now_ms(void) {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

/* --- processes --- */

/* Every living process below root, itself excluded. Zombies count as gone. */
std::vector<pid_t> descendants(pid_t root) {
  std::multimap<pid_t, pid_t> children;
  DIR *proc = opendir("/proc");
  if (!proc) return {};
  while (dirent *entry = readdir(proc)) {
    const pid_t pid = static_cast<pid_t>(atoi(entry->d_name));
    if (pid <= 0) continue;
    std::ifstream stat("/proc/" + std::string(entry->d_name) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) continue;
    const size_t end = line.rfind(')'); /* the name before it may hold anything */
    char state = 0;
    int parent = 0;
    if (end == std::string::npos || sscanf(line.c_str() + end + 1, " %c %d", &state, &parent) != 2) continue;
    if (state != 'Z') children.emplace(parent, pid);
  }
  closedir(proc);
  std::vector<pid_t> found;
  std::vector<pid_t> open{root};
  while (!open.empty()) {
    const pid_t parent = open.back();
    open.pop_back();
    for (auto [it, last] = children.equal_range(parent); it != last; ++it) {
      found.push_back(it->second);
      open.push_back(it->second);
    }
  }
  return found;
}

/* The bus, and the reader of what it and its children say. Zero: not there. */
struct bus_processes {
  pid_t daemon = 0;
  pid_t reader = 0;
};

/* Ends everything below this process: asks first (the bus last, because the others may still write through it), then
   kills. Returns when nothing is left. */
void end_everything(const bus_processes &bus) {
  std::set<pid_t> asked;
  const long start = now_ms();
  for (;;) {
    int status;
    while (waitpid(-1, &status, WNOHANG) > 0) {
    }
    const std::vector<pid_t> left = descendants(getpid());
    if (left.empty()) {
      if (waitpid(-1, &status, WNOHANG) < 0 && errno == ECHILD) return;
    }
    const long spent = now_ms() - start;
    bool others = false;
    for (const pid_t pid : left)
      if (pid != bus.daemon && pid != bus.reader) {
        others = true;
        if (spent > grace_ms) {
          kill(pid, SIGKILL);
        } else if (asked.insert(pid).second) {
          kill(pid, SIGTERM);
          kill(pid, SIGCONT); /* a stopped process would not hear it */
        }
      }
    if (bus.daemon > 0 && !others && asked.insert(bus.daemon).second) kill(bus.daemon, SIGTERM);
    if (spent > 2L * grace_ms && bus.daemon > 0) kill(bus.daemon, SIGKILL);
    /* The reader ends by itself when nobody is left to say anything. */
    if (spent > 3L * grace_ms && bus.reader > 0) kill(bus.reader, SIGKILL);
    poll(nullptr, 0, 10);
  }
}

int exit_code(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/* --- folders and files --- */

bool write_file(const fs::path &path, const std::string &text) {
  std::ofstream out(path, std::ios::trunc);
  out << text;
  out.close();
  if (!out) complain("cannot write %s", path.c_str());
  return bool(out);
}

bool make_session(const options &opt, session *s) {
  std::error_code error;
  if (opt.keep.empty()) {
    std::string pattern = (fs::temp_directory_path(error) / "brisel-session-XXXXXX").string();
    if (error || !mkdtemp(pattern.data())) {
      complain("cannot make a temporary directory: %s", strerror(errno));
      return false;
    }
    s->dir = pattern;
  } else {
    fs::create_directories(opt.keep, error);
    s->dir = fs::canonical(opt.keep, error);
    if (error) {
      complain("%s: %s", opt.keep.c_str(), error.message().c_str());
      return false;
    }
    s->lock = open((s->dir / ".lock").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    if (s->lock < 0 || flock(s->lock, LOCK_EX | LOCK_NB) != 0) {
      complain("%s: %s", s->dir.c_str(), errno == EWOULDBLOCK ? "another session runs there" : strerror(errno));
      return false;
    }
  }
  s->run = s->dir / "run";
  if ((s->run / "bus").string().size() > socket_path_max) {
    char pattern[] = "/tmp/brisel-run-XXXXXX";
    if (!mkdtemp(pattern)) {
      complain("cannot make a temporary directory: %s", strerror(errno));
      return false;
    }
    s->run = pattern;
  } else {
    /* Left by a session that was killed: settings of a session end with it. */
    fs::remove_all(s->run, error);
  }
  for (const char *name : {"home", "data", "config", "state", "cache"}) {
    fs::create_directories(s->dir / name, error);
    if (error) {
      complain("%s: %s", (s->dir / name).c_str(), error.message().c_str());
      return false;
    }
  }
  fs::create_directories(s->run / "services", error);
  chmod(s->run.c_str(), 0700);
  const fs::path localtime = s->dir / "localtime";
  if (!fs::is_symlink(fs::symlink_status(localtime, error)))
    fs::create_symlink("/usr/share/zoneinfo/Etc/UTC", localtime, error);
  return true;
}

void remove_session(const options &opt, const session &s) {
  std::error_code error;
  fs::remove_all(s.run, error);
  if (opt.keep.empty()) fs::remove_all(s.dir, error);
  if (error) complain("cannot remove %s: %s", s.dir.c_str(), error.message().c_str());
  if (s.lock >= 0) close(s.lock);
}

std::string xml(const std::string &text) {
  std::string out;
  for (const char c : text) {
    if (c == '&')
      out += "&amp;";
    else if (c == '<')
      out += "&lt;";
    else
      out += c;
  }
  return out;
}

/* A bus address keeps only a few characters literal. */
std::string address_escape(const std::string &path) {
  std::string out;
  for (const unsigned char c : path) {
    if (isalnum(c) || strchr("-_/.\\*", c)) {
      out += static_cast<char>(c);
    } else {
      char code[4];
      snprintf(code, sizeof(code), "%%%02x", c);
      out += code;
    }
  }
  return out;
}

/* --- environment --- */

void set_environment(const options &opt, const session &s) {
  const char *home = getenv("HOME");
  if (opt.window) {
    /* The display stays the user's: what it is reached by depends on folders that become private. */
    if (!getenv("XAUTHORITY") && home) setenv("XAUTHORITY", (std::string(home) + "/.Xauthority").c_str(), 1);
    const char *wayland = getenv("WAYLAND_DISPLAY");
    const char *run = getenv("XDG_RUNTIME_DIR");
    if (wayland && wayland[0] != '/' && run) setenv("WAYLAND_DISPLAY", (std::string(run) + "/" + wayland).c_str(), 1);
  } else {
    setenv("ELM_ENGINE", "buffer", 1);
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
  }
  setenv("HOME", (s.dir / "home").c_str(), 1);
  setenv("XDG_DATA_HOME", (s.dir / "data").c_str(), 1);
  setenv("XDG_CONFIG_HOME", (s.dir / "config").c_str(), 1);
  setenv("XDG_STATE_HOME", (s.dir / "state").c_str(), 1);
  setenv("XDG_CACHE_HOME", (s.dir / "cache").c_str(), 1);
  setenv("XDG_RUNTIME_DIR", s.run.c_str(), 1);
  setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + address_escape((s.run / "bus").string())).c_str(), 1);
  for (const char *name : {"DBUS_STARTER_ADDRESS", "DBUS_STARTER_BUS_TYPE", "TZ"}) unsetenv(name);
  setenv("BRISEL_SESSION_DIR", s.dir.c_str(), 1);
  setenv("BRISEL_LOG_FILE", (s.dir / "brisel.log").c_str(), 1);
  setenv("BRISEL_LOCALTIME", (s.dir / "localtime").c_str(), 1);
  setenv("BRISEL_INSPECT", "1", 1);
  if (!opt.size.empty()) setenv("BRISEL_WINDOW_SIZE", opt.size.c_str(), 1);
  const char *path = getenv("PATH");
  std::string tools;
  if (!opt.build.empty()) {
    setenv("BRISEL_RES_DIR", (opt.build + "/data/res").c_str(), 1);
    tools =
        opt.build + ":" + opt.build + "/app:" + opt.build + "/service:" + opt.build + "/phone:" + opt.build + "/tools:";
  } else {
    unsetenv("BRISEL_RES_DIR");
    tools = std::string(BRISEL_PREFIX) + "/bin:" + BRISEL_LIBEXEC + ":";
  }
  setenv("PATH", (tools + (path && *path ? path : "/usr/local/bin:/usr/bin:/bin")).c_str(), 1);
}

/* --- the supervisor --- */

/* Signals are taken from the descriptor; children get the usual mask back. */
int block_signals(sigset_t *old) {
  sigset_t set;
  sigemptyset(&set);
  for (const int number : {SIGCHLD, SIGTERM, SIGINT, SIGHUP, SIGQUIT}) sigaddset(&set, number);
  sigprocmask(SIG_BLOCK, &set, old);
  return signalfd(-1, &set, SFD_CLOEXEC);
}

/* Dies with its parent rather than live on unwatched. */
void follow_parent(pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(128 + SIGTERM);
}

/* What the bus says about its own work goes to a file; what the programs it started say goes where the session's own
   errors go. Returns the descriptor to write to. */
int start_reader(const session &s, bus_processes *bus) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return -1;
  bus->reader = fork();
  if (bus->reader == 0) {
    /* It must see the others' last words, so only the end of the pipe ends it. */
    setsid();
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) signal(number, SIG_IGN);
    close(ends[1]);
    FILE *in = fdopen(ends[0], "r");
    FILE *own = fopen((s.dir / "bus.log").c_str(), "ae");
    char *line = nullptr;
    size_t size = 0;
    while (in && getline(&line, &size, in) >= 0) {
      const bool of_bus = strncmp(line, "dbus-daemon[", 12) == 0;
      FILE *to = of_bus && own ? own : stderr;
      fputs(line, to);
      fflush(to);
    }
    _exit(0);
  }
  close(ends[0]);
  return ends[1];
}

bool start_bus(const options &opt, const session &s, const sigset_t *mask, bus_processes *bus) {
  const fs::path from =
      opt.build.empty() ? fs::path(BRISEL_BUS_SERVICES) : fs::path(opt.build) / "data/desktop/session";
  std::error_code error;
  for (const char *name : services) {
    const std::string file = std::string(name) + ".service";
    if (!fs::exists(from / file, error)) {
      complain("%s is missing: %s", (from / file).c_str(),
               opt.build.empty() ? "Brisel is not installed, or not whole" : "build first");
      return false;
    }
    fs::create_symlink(from / file, s.run / "services" / file, error);
  }
  const fs::path config = s.run / "bus.conf";
  if (!write_file(config,
                  "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
                  "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n<busconfig>\n"
                  "  <type>session</type>\n  <keep_umask/>\n  <listen>unix:path=" +
                      xml(address_escape((s.run / "bus").string())) +
                      "</listen>\n  <auth>EXTERNAL</auth>\n  <servicedir>" + xml((s.run / "services").string()) +
                      "</servicedir>\n"
                      "  <policy context=\"default\">\n    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                      "    <allow eavesdrop=\"true\"/>\n    <allow own=\"*\"/>\n  </policy>\n"
                      "</busconfig>\n"))
    return false;
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) return false;
  const int errors = start_reader(s, bus);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    sigprocmask(SIG_SETMASK, mask, nullptr);
    follow_parent(parent);
    setsid(); /* a Ctrl-C at the terminal is for the command */
    dup2(ready[1], 3);
    if (ready[1] == 3) fcntl(3, F_SETFD, 0);
    if (errors >= 0) dup2(errors, 2);
    const int null = open("/dev/null", O_RDONLY);
    if (null >= 0) dup2(null, 0);
    execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile", "--nosyslog", "--print-address=3",
           ("--config-file=" + config.string()).c_str(), nullptr);
    complain("dbus-daemon: %s", strerror(errno));
    _exit(127);
  }
  bus->daemon = pid;
  close(ready[1]);
  if (errors >= 0) close(errors);
  char line[256];
  const ssize_t got = read(ready[0], line, sizeof(line));
  close(ready[0]);
  if (got <= 0) {
    complain("the session's bus did not start");
    return false;
  }
  return pid > 0;
}

int supervise(const options &opt, const session &s, const sigset_t *mask, int signals) {
  set_environment(opt, s);
  bus_processes bus;
  if (!start_bus(opt, s, mask, &bus)) {
    end_everything(bus);
    return 125;
  }
  const pid_t parent = getpid();
  const pid_t command = fork();
  if (command < 0) complain("%s", strerror(errno));
  if (command == 0) {
    sigprocmask(SIG_SETMASK, mask, nullptr);
    follow_parent(parent);
    std::vector<char *> argv;
    for (const std::string &word : opt.command) argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    const int error = errno;
    complain("%s: %s", argv[0], strerror(error));
    _exit(error == ENOENT ? 127 : 126);
  }
  int code = 125;
  bool running = command > 0;
  long deadline = -1; /* when the command, asked to end, is killed */
  while (running) {
    pollfd wait{signals, POLLIN, 0};
    const long left = deadline < 0 ? -1 : deadline - now_ms();
    if (poll(&wait, 1, deadline < 0 ? -1 : static_cast<int>(left > 0 ? left : 0)) == 0) {
      kill(command, SIGKILL);
      deadline = -1;
    }
    signalfd_siginfo info;
    if ((wait.revents & POLLIN) && read(signals, &info, sizeof(info)) == sizeof(info) && info.ssi_signo != SIGCHLD) {
      /* What is typed at the terminal the command hears itself, and it may go on: a shell does. */
      const bool typed = info.ssi_code == SI_KERNEL && (info.ssi_signo == SIGINT || info.ssi_signo == SIGQUIT);
      if (!typed) {
        kill(command, static_cast<int>(info.ssi_signo));
        if (deadline < 0) deadline = now_ms() + command_grace_ms;
      }
    }
    int status;
    for (pid_t pid = waitpid(-1, &status, WNOHANG); pid > 0; pid = waitpid(-1, &status, WNOHANG)) {
      if (pid == command) {
        running = false;
        code = exit_code(status);
      } else if (pid == bus.daemon) {
        complain("the session's bus ended");
      }
    }
  }
  end_everything(bus);
  return code;
}

/* --- the keeper --- */

int keep(const options &opt) {
  session s;
  if (!make_session(opt, &s)) return 125;
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  sigset_t mask;
  const int signals = block_signals(&mask);
  const pid_t parent = getpid();
  const pid_t supervisor = fork();
  if (supervisor == 0) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    follow_parent(parent);
    close(signals);
    sigset_t unused;
    const int code = supervise(opt, s, &mask, block_signals(&unused));
    if (getppid() != parent) remove_session(opt, s); /* the keeper was killed and cannot */
    _exit(code);
  }
  int code = 125;
  bool running = supervisor > 0;
  while (running) {
    signalfd_siginfo info;
    if (read(signals, &info, sizeof(info)) != sizeof(info)) continue;
    /* The terminal tells the whole group itself; only what was sent to this process alone is handed on. */
    if (info.ssi_signo != SIGCHLD && info.ssi_code != SI_KERNEL) kill(supervisor, static_cast<int>(info.ssi_signo));
    int status;
    for (pid_t pid = waitpid(-1, &status, WNOHANG); pid > 0; pid = waitpid(-1, &status, WNOHANG))
      if (pid == supervisor) {
        running = false;
        code = exit_code(status);
      }
  }
  end_everything({});
  remove_session(opt, s);
  return code;
}

bool size_valid(const std::string &size) {
  int w = 0;
  int h = 0;
  char rest = 0;
  return sscanf(size.c_str(), "%dx%d%c", &w, &h, &rest) == 2 && w >= 100 && w <= 4096 && h >= 100 && h <= 4096;
}

}  // namespace

int main(int argc, char **argv) {
  options opt;
  CLI::App app{"Runs COMMAND in a private, throw-away session of Brisel", "brisel-session"};
  app.set_version_flag("-V,--version", std::string("brisel-session ") + BRISEL_VERSION);
  app.add_option("--keep", opt.keep, "keep the session's files in DIR (made when missing)")->type_name("DIR");
  app.add_flag("--window", opt.window, "show windows on the display instead of drawing into memory");
  app.add_option("--size", opt.size, "the size of the watch's screen, 320x320 when not given")->type_name("WxH");
  app.add_option("--build", opt.build)->group("");
  app.add_option("COMMAND", opt.command, "what to run, with its arguments; everything ends with it")->required();
  app.prefix_command(false);
  app.positionals_at_end();
  /* Our own options end where the command begins, also without "--". */
  std::vector<std::string> words;
  for (int i = 1; i < argc; i++) {
    const std::string word = argv[i];
    if (word == "--" || word[0] != '-') {
      for (int j = word == "--" ? i + 1 : i; j < argc; j++) opt.command.push_back(argv[j]);
      break;
    }
    words.push_back(word);
    if ((word == "--keep" || word == "--size" || word == "--build") && i + 1 < argc) words.push_back(argv[++i]);
  }
  app.get_option("COMMAND")->required(false);
  try {
    app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
  } catch (const CLI::CallForHelp &) {
    fputs(app.help().c_str(), stdout);
    return platform_output_end("brisel-session", 0);
  } catch (const CLI::Success &result) {
    return platform_output_end("brisel-session", app.exit(result));
  } catch (const CLI::ParseError &error) {
    complain("%s", error.what());
    return 125;
  }
  if (opt.command.empty()) {
    complain("no command to run; see --help");
    return 125;
  }
  if (opt.keep.empty() && app.count("--keep") > 0) {
    complain("--keep wants a folder");
    return 125;
  }
  if (!opt.size.empty() && !size_valid(opt.size)) {
    complain("--size wants WxH in pixels, like 360x480: %s", opt.size.c_str());
    return 125;
  }
  return keep(opt);
}
