#include "outbox.h"

#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "../mime.h"
#include "link.h"
#include "state-replies.h"

extern char **environ;

namespace {

constexpr int kSendmailSeconds = 300; /* a mail system that takes longer is stuck */
constexpr int kLockPollMs = 200;
constexpr size_t kMaxComplaint = 2000;
constexpr unsigned kLongestPause = 60; /* seconds between tries to write down what is known */

/* A descriptor, closed at the end of its scope. */
struct fd_holder {
  int fd = -1;
  fd_holder() = default;
  explicit fd_holder(int from) : fd(from) {}
  ~fd_holder() { reset(); }
  fd_holder(const fd_holder &) = delete;
  fd_holder &operator=(const fd_holder &) = delete;
  void reset() {
    if (fd >= 0) close(fd);
    fd = -1;
  }
};

std::string lock_path(int64_t id) {
  return phone_state_path(("outbox/" + std::to_string(id) + ".lock").c_str());
}

int lock_entry(int64_t id) {
  if (mkdir(phone_state_path("outbox").c_str(), 0700) < 0 && errno != EEXIST) return -1;
  int fd = open(lock_path(id).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return -1;
  /* An earlier sendmail may still be at it; a program that it left behind may hold on to the lock for good. */
  for (int waited = 0; flock(fd, LOCK_EX | LOCK_NB) < 0; waited += kLockPollMs) {
    if (errno != EINTR && (errno != EWOULDBLOCK || waited > (kSendmailSeconds + 30) * 1000)) {
      close(fd);
      return -1;
    }
    poll(nullptr, 0, kLockPollMs);
  }
  if (ftruncate(fd, 0) == 0) return fd;
  close(fd);
  return -1;
}

int64_t pause_after(int attempts, const outbox_settings &settings) {
  int64_t delay = settings.retry_first;
  for (int i = 0; i < attempts && delay < settings.retry_longest; i++) delay *= 2;
  /* At least a second: a program that fails at once must not be run in a circle. */
  return std::max<int64_t>(1, std::min(delay, settings.retry_longest));
}

/* --- sendmail --- */

struct sendmail_run {
  pid_t pid = -1;
  fd_holder in, said; /* the message, as far as it was not read yet; what the program says */
  bool in_is_pipe = false;
};

int write_all(int fd, const std::string &text) {
  for (size_t done = 0; done < text.size();) {
    ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno != EINTR) return -1;
    if (n > 0) done += static_cast<size_t>(n);
  }
  return 0;
}

/* The whole message is where sendmail reads it before it is started: nothing that happens to this process afterwards
   can cut it short. A pipe where it is large enough, for programs expect one. */
int fill_input(sendmail_run *run, const std::string &message) {
  int ends[2];
  if (message.size() < INT_MAX && pipe2(ends, O_CLOEXEC) == 0) {
    run->in.fd = ends[0];
    fd_holder writer(ends[1]);
    if (fcntl(writer.fd, F_SETPIPE_SZ, static_cast<int>(std::max<size_t>(message.size(), 4096))) >=
        static_cast<int>(message.size())) {
      run->in_is_pipe = true;
      return write_all(writer.fd, message);
    }
    run->in.reset();
  }
  run->in.fd = memfd_create("reply", MFD_CLOEXEC);
  if (run->in.fd < 0 || write_all(run->in.fd, message) < 0) return -1;
  return lseek(run->in.fd, 0, SEEK_SET) < 0 ? -1 : 0;
}

/* In the child: the lock goes along, with the id of the process that sends in it. */
[[noreturn]] void become_sendmail(char **arguments, const sendmail_run &run, int lock) {
  char text[24];
  int length = snprintf(text, sizeof text, "%d\n", static_cast<int>(getpid()));
  signal(SIGPIPE, SIG_DFL);
  fcntl(lock, F_SETFD, 0);
  if (pwrite(lock, text, static_cast<size_t>(length), 0) == length && ftruncate(lock, length) == 0 &&
      dup2(run.in.fd, 0) >= 0 && dup2(run.said.fd, 1) >= 0 && dup2(run.said.fd, 2) >= 0)
    execvp(arguments[0], arguments);
  dprintf(run.said.fd, "%s", strerror(errno));
  _exit(127);
}

int start_sendmail(const std::string &command, const std::string &message, int lock, sendmail_run *run,
                   std::string *program, std::string *error) {
  gchar **arguments = nullptr;
  GError *why = nullptr;
  if (!g_shell_parse_argv(command.c_str(), nullptr, &arguments, &why)) {
    *error = command + ": " + (why ? why->message : "no command");
    g_clear_error(&why);
    return -1;
  }
  *program = arguments[0];
  run->said.fd = memfd_create("said", MFD_CLOEXEC);
  if (run->said.fd >= 0 && fill_input(run, message) == 0) run->pid = fork();
  if (run->pid == 0) become_sendmail(arguments, *run, lock);
  if (run->pid < 0) *error = *program + ": " + strerror(errno);
  g_strfreev(arguments);
  return run->pid < 0 ? -1 : 0;
}

/* Waits until it ended, and leaves it for whoever asks next: should this process be killed before the result is on
   disk, the relay can still ask. */
void await_end(pid_t pid, bool *late) {
  fd_holder process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  pollfd wait = {process.fd, POLLIN, 0};
  int r = 1;
  while (process.fd >= 0 && (r = poll(&wait, 1, kSendmailSeconds * 1000)) < 0 && errno == EINTR) {
  }
  *late = r == 0;
  if (*late) kill(pid, SIGKILL);
}

std::string ending(const siginfo_t &end) {
  return end.si_code == CLD_EXITED ? " ended with code " + std::to_string(end.si_status)
                                   : " was ended by signal " + std::to_string(end.si_status);
}

/* Whether the mail system will never take this message. EX_UNAVAILABLE, EX_NOHOST and EX_NOPERM are not among these:
   mail systems say them for troubles of their own, such as no network or a refused login. */
bool is_refusal(const siginfo_t &end) {
  return end.si_code == CLD_EXITED &&
         (end.si_status == EX_DATAERR || end.si_status == EX_NOUSER || end.si_status == submit_refused);
}

/* Returns 0 when sendmail took the message; 1 when it never will, -1 when it may later, with a one-line reason. */
int judge(const sendmail_run &run, const siginfo_t &end, bool late, const std::string &program, std::string *error) {
  int unread = 0;
  bool taken = end.si_code == CLD_EXITED && end.si_status == 0;
  if (taken && run.in_is_pipe && ioctl(run.in.fd, FIONREAD, &unread) == 0 && unread > 0) taken = false;
  if (taken) return 0;
  *error = program + (unread > 0 ? " did not read the whole message" : late ? " did not end in time" : ending(end));
  char said[kMaxComplaint];
  ssize_t length = pread(run.said.fd, said, sizeof said, 0);
  std::string line = length > 0 ? mime_clean_line(std::string_view(said, static_cast<size_t>(length)), 400) : "";
  /* Of a program that says by its code that it is to be tried again, what it says is the reason. */
  const bool says_why = is_refusal(end) || (end.si_code == CLD_EXITED && end.si_status == EX_TEMPFAIL);
  if (!line.empty()) *error = says_why ? line : *error + ": " + line;
  return is_refusal(end) ? 1 : -1;
}

/* What came of it is known here and nowhere else until it is on disk: tried until it is. */
void note_for_sure(phone_state *state, int64_t id, const std::function<int()> &note) {
  for (unsigned pause = 1; note() < 0; pause = std::min(pause * 2, kLongestPause)) {
    if (pause == 1)
      link_log("reply " + std::to_string(id) +
               ": what came of it cannot be written down yet: " + phone_state_error(state));
    sleep(pause);
    if (access(lock_path(id).c_str(), F_OK) < 0) return; /* the state was taken away as a whole */
  }
}

std::vector<pid_t> children() {
  char path[64];
  snprintf(path, sizeof path, "/proc/self/task/%d/children", static_cast<int>(getpid()));
  fd_holder file(open(path, O_RDONLY | O_CLOEXEC));
  char text[4096] = "";
  ssize_t length = file.fd < 0 ? 0 : read(file.fd, text, sizeof text - 1);
  std::vector<pid_t> pids;
  for (char *at = text, *end = text; length > 0; at = end) {
    auto pid = static_cast<pid_t>(strtol(at, &end, 10));
    if (end == at) break;
    pids.push_back(pid);
  }
  return pids;
}

void hand_over(phone_state *state, const reply_entry &entry, const std::string &message, int lock,
               const outbox_settings &settings) {
  std::string error, program;
  sendmail_run run;
  int taken = start_sendmail(settings.sendmail, message, lock, &run, &program, &error);
  if (taken == 0) {
    siginfo_t end = {};
    bool late = false;
    await_end(run.pid, &late);
    while (waitid(P_PID, static_cast<id_t>(run.pid), &end, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
    }
    taken = judge(run, end, late, program, &error);
  }
  if (taken < 0)
    link_log("reply " + std::to_string(entry.id) + " could not be sent: " + error + "; it will be tried again");
  note_for_sure(state, entry.id, [&] {
    return taken == 0  ? reply_set_sent(state, entry.id)
           : taken > 0 ? reply_set_held(state, entry.id, error)
                       : reply_set_failed(state, entry.id, pause_after(entry.attempts, settings), error);
  });
  if (run.pid > 0) waitpid(run.pid, nullptr, 0);
  if (taken == 0) unlink(lock_path(entry.id).c_str());
}

}  // namespace

int outbox_deliver(int64_t id, const outbox_settings &settings) {
  std::string error;
  fd_holder lock(lock_entry(id));
  if (lock.fd < 0) {
    link_log("reply " + std::to_string(id) + ": its lock cannot be had: " + strerror(errno));
    return 1;
  }
  phone_state_holder state(phone_state_open(&error));
  if (!state) {
    link_log(error);
    return 1;
  }
  reply_entry entry;
  std::string message;
  int ours = reply_begin(state.get(), id, &entry, &message);
  if (ours < 0) link_log("reply " + std::to_string(id) + ": " + phone_state_error(state.get()));
  if (ours <= 0) return ours < 0 ? 1 : 0;
  if (entry.state == reply_state::sending)
    link_log("reply " + std::to_string(id) + ": an earlier try was interrupted; sending it again");
  hand_over(state.get(), entry, message, lock.fd, settings);
  return 0;
}

int outbox_spawn(int64_t id, const outbox_settings &settings, std::string *error) {
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  std::string number = std::to_string(id), first = std::to_string(settings.retry_first),
              longest = std::to_string(settings.retry_longest);
  const char *folder = phone_state_used().empty() ? nullptr : "--state"; /* the list ends at the first nullptr */
  const char *arguments[] = {
      "brisel-phone", "deliver-reply",   number.c_str(),  "--sendmail", settings.sendmail.c_str(),  "--retry-first",
      first.c_str(),  "--retry-longest", longest.c_str(), folder,       phone_state_used().c_str(), nullptr};
  pid_t pid = 0;
  int failed = posix_spawn(&pid, "/proc/self/exe", nullptr, &attributes, const_cast<char **>(arguments), environ);
  posix_spawnattr_destroy(&attributes);
  if (failed == 0) return pid;
  *error = std::string("the process that sends a reply cannot be started: ") + strerror(failed);
  return -1;
}

void outbox_inherit_orphans() {
  prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
}

pid_t outbox_orphan(int64_t id, pid_t killed) {
  fd_holder file(open(lock_path(id).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  char text[24] = "";
  if (file.fd >= 0 && pread(file.fd, text, sizeof text - 1, 0) > 0) {
    auto pid = static_cast<pid_t>(strtol(text, nullptr, 10));
    siginfo_t end = {};
    /* Only a child of this process: the number may be anybody's by now. */
    if (pid > 0 && waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOHANG | WNOWAIT) == 0) return pid;
  }
  /* It may not have come to write its number there yet: the session is that of the process that started it. */
  for (pid_t pid : children())
    if (pid != killed && getsid(pid) == killed) return pid;
  return 0;
}

void outbox_bury_orphans() {
  for (pid_t pid : children())
    if (getsid(pid) != getsid(0)) waitpid(pid, nullptr, WNOHANG);
}

int outbox_settle(phone_state *state, int64_t id, const siginfo_t *end, const outbox_settings &settings) {
  std::vector<reply_entry> entries;
  if (reply_list(state, &entries) < 0) return -1;
  for (const reply_entry &entry : entries) {
    bool dropped = entry.state == reply_state::dropped; /* too late, perhaps */
    if (entry.id != id || (entry.state != reply_state::sending && !dropped)) continue;
    if (end->si_code == CLD_EXITED && end->si_status == 0) return reply_set_sent(state, id);
    if (dropped) return 0;
    std::string error = "sendmail" + ending(*end);
    if (is_refusal(*end)) return reply_set_held(state, id, error);
    link_log("reply " + std::to_string(id) + " could not be sent: " + error + "; it will be tried again");
    return reply_set_failed(state, id, pause_after(entry.attempts - 1, settings), error);
  }
  return 0;
}
