#include "outbox.h"

#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "../mime.h"
#include "link.h"
#include "sql.h"

extern char **environ;

namespace {

constexpr int kSendmailSeconds = 300; /* a mail system that takes longer is stuck */
constexpr size_t kMaxComplaint = 2000;
constexpr int64_t kSentKept = 1000; /* sent replies that the status tells of */

int64_t now_seconds() {
  return static_cast<int64_t>(time(nullptr));
}

int lock_entry(int64_t id) {
  std::string folder = phone_state_path("outbox");
  if (mkdir(folder.c_str(), 0700) < 0 && errno != EEXIST) return -1;
  int fd = open((folder + "/" + std::to_string(id) + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return -1;
  while (flock(fd, LOCK_EX) < 0)
    if (errno != EINTR) {
      close(fd);
      return -1;
    }
  return fd;
}

/* Returns 1, 0 when there is no such entry, -1. */
int read_entry(phone_state *state, int64_t id, outbox_entry *entry, std::string *message) {
  sql_query query(phone_state_db(state), "SELECT state, attempts, message FROM outbox WHERE id = ?");
  int result = query.bind(1, id).step();
  if (result != SQLITE_ROW) return result == SQLITE_DONE ? 0 : -1;
  entry->state = static_cast<int>(query.integer(0));
  entry->attempts = static_cast<int>(query.integer(1));
  *message = query.text(2);
  return 1;
}

/* Writes down that it is being handed over. Returns 1 when this is ours to do, 0 when it is done or gone, -1. */
int mark_sending(phone_state *state, int64_t id, outbox_entry *entry, std::string *message) {
  int found = read_entry(state, id, entry, message);
  if (found <= 0) return found;
  if (entry->state == OUTBOX_SENT || entry->state == OUTBOX_HELD) return 0;
  sql_query query(phone_state_db(state),
                  "UPDATE outbox SET state = 1, attempts = attempts + 1, interrupted = interrupted + (state = 1)"
                  " WHERE id = ? AND state IN (0, 1)");
  if (query.bind(1, id).step() != SQLITE_DONE) return -1;
  return sqlite3_changes(phone_state_db(state)) > 0 ? 1 : 0;
}

int mark_sent(phone_state *state, int64_t id) {
  sql_query query(phone_state_db(state),
                  "UPDATE outbox SET state = 2, done_time = ?, error = '', message = x'' WHERE id = ?");
  if (query.bind(1, now_seconds()).bind(2, id).step() != SQLITE_DONE) return -1;
  sql_query prune(phone_state_db(state),
                  "DELETE FROM outbox WHERE state = 2 AND id <= (SELECT max(id) FROM outbox) - ?");
  return prune.bind(1, kSentKept).step() == SQLITE_DONE ? 0 : -1;
}

int mark_failed(phone_state *state, int64_t id, int attempts, const outbox_settings &settings,
                const std::string &error) {
  int64_t delay = settings.retry_first;
  for (int i = 0; i < attempts && delay < settings.retry_longest; i++) delay *= 2;
  sql_query query(phone_state_db(state), "UPDATE outbox SET state = 0, next_time = ?, error = ? WHERE id = ?");
  /* At least a second: a program that fails at once must not be run in a circle. */
  delay = std::max<int64_t>(1, std::min(delay, settings.retry_longest));
  query.bind(1, now_seconds() + delay).bind(2, error).bind(3, id);
  return query.step() == SQLITE_DONE ? 0 : -1;
}

/* Feeds the message and collects what the program says, until it ends or the time is over. */
int talk(pid_t pid, int in, int out, const std::string &message, std::string *said) {
  size_t written = 0;
  time_t deadline = time(nullptr) + kSendmailSeconds;
  fcntl(in, F_SETFL, O_NONBLOCK);
  while (out >= 0 || in >= 0) {
    pollfd waits[2] = {{out, POLLIN, 0}, {in, POLLOUT, 0}};
    auto left = static_cast<int>(deadline - time(nullptr));
    if (left <= 0 || poll(waits, 2, left * 1000) == 0) {
      kill(pid, SIGKILL);
      *said = "it did not end in time";
      break;
    }
    if (in >= 0 && waits[1].revents) {
      ssize_t n = write(in, message.data() + written, message.size() - written);
      if (n > 0) written += static_cast<size_t>(n);
      if ((n < 0 && errno != EAGAIN && errno != EINTR) || written >= message.size()) {
        close(in);
        in = -1;
      }
    }
    if (out >= 0 && waits[0].revents) {
      char buffer[1024];
      ssize_t n = read(out, buffer, sizeof buffer);
      if (n > 0 && said->size() < kMaxComplaint) said->append(buffer, static_cast<size_t>(n));
      if (n == 0 || (n < 0 && errno != EINTR)) {
        /* It may end without having read all; waiting for its end is what counts. */
        close(out);
        out = -1;
        if (in >= 0) close(in);
        in = -1;
      }
    }
  }
  if (in >= 0) close(in);
  if (out >= 0) close(out);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return written < message.size() && status == 0 ? -1 : status;
}

/* Runs sendmail. Returns 0 when it took the message, else -1 with a one-line reason. */
int run_sendmail(const std::string &command, const std::string &message, std::string *error) {
  gchar **arguments = nullptr;
  GError *why = nullptr;
  if (!g_shell_parse_argv(command.c_str(), nullptr, &arguments, &why)) {
    *error = command + ": " + (why ? why->message : "no command");
    g_clear_error(&why);
    return -1;
  }
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) < 0) {
    *error = strerror(errno);
    g_strfreev(arguments);
    return -1;
  }
  if (pipe2(out, O_CLOEXEC) < 0) {
    *error = strerror(errno);
    close(in[0]);
    close(in[1]);
    g_strfreev(arguments);
    return -1;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, out[1], 2);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t pipe_signal;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &pipe_signal);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  pid_t pid = 0;
  int failed = posix_spawnp(&pid, arguments[0], &actions, &attributes, arguments, environ);
  posix_spawnattr_destroy(&attributes);
  std::string program = arguments[0];
  posix_spawn_file_actions_destroy(&actions);
  g_strfreev(arguments);
  close(in[0]);
  close(out[1]);
  if (failed != 0) {
    close(in[1]);
    close(out[0]);
    *error = program + ": " + strerror(failed);
    return -1;
  }
  std::string said;
  int status = talk(pid, in[1], out[0], message, &said);
  if (status == 0) return 0;
  *error = program;
  if (status == -1)
    *error += " did not read the whole message";
  else if (WIFEXITED(status))
    *error += " ended with code " + std::to_string(WEXITSTATUS(status));
  else
    *error += " was ended by signal " + std::to_string(WTERMSIG(status));
  std::string line = mime_clean_line(said, 400);
  if (!line.empty()) *error += ": " + line;
  return -1;
}

}  // namespace

int outbox_add(phone_state *state, int account_id, const std::string &recipient, const std::string &subject,
               const std::string &message, const std::string &error) {
  sql_query query(phone_state_db(state),
                  "INSERT INTO outbox (account_id, created, recipient, subject, message, state, error)"
                  " VALUES (?, ?, ?, ?, ?, ?, ?)");
  query.bind(1, account_id).bind(2, now_seconds()).bind(3, recipient).bind(4, subject).bind(5, message);
  query.bind(6, error.empty() ? OUTBOX_QUEUED : OUTBOX_HELD).bind(7, error);
  return query.step() == SQLITE_DONE ? 0 : -1;
}

int outbox_list(phone_state *state, std::vector<outbox_entry> *entries) {
  sql_query query(phone_state_db(state),
                  "SELECT id, account_id, created, recipient, subject, state, attempts, interrupted, next_time,"
                  " done_time, error FROM outbox ORDER BY id");
  int result;
  while ((result = query.step()) == SQLITE_ROW) {
    outbox_entry entry;
    entry.id = query.integer(0);
    entry.account_id = static_cast<int>(query.integer(1));
    entry.created = query.integer(2);
    entry.recipient = query.text(3);
    entry.subject = query.text(4);
    entry.state = static_cast<int>(query.integer(5));
    entry.attempts = static_cast<int>(query.integer(6));
    entry.interrupted = static_cast<int>(query.integer(7));
    entry.next_time = query.integer(8);
    entry.done_time = query.integer(9);
    entry.error = query.text(10);
    entries->push_back(std::move(entry));
  }
  return result == SQLITE_DONE ? 0 : -1;
}

int outbox_retry_all(phone_state *state) {
  sql_query query(phone_state_db(state), "UPDATE outbox SET next_time = 0 WHERE state IN (0, 1)");
  return query.step() == SQLITE_DONE ? 0 : -1;
}

int outbox_drop(phone_state *state, int64_t id) {
  sql_query query(phone_state_db(state), "DELETE FROM outbox WHERE id = ? AND state <> 2");
  if (query.bind(1, id).step() != SQLITE_DONE) return -1;
  return sqlite3_changes(phone_state_db(state)) > 0 ? 1 : 0;
}

int outbox_deliver(int64_t id, const outbox_settings &settings) {
  std::string error;
  int lock = lock_entry(id);
  if (lock < 0) {
    link_log("reply " + std::to_string(id) + ": its lock cannot be had: " + strerror(errno));
    return 1;
  }
  phone_state *state = phone_state_open(&error);
  if (!state) {
    link_log(error);
    return 1;
  }
  outbox_entry entry;
  std::string message;
  int ours = mark_sending(state, id, &entry, &message);
  int code = ours < 0 ? 1 : 0;
  if (ours == 1) {
    if (entry.state == OUTBOX_SENDING)
      link_log("reply " + std::to_string(id) + ": an earlier try was interrupted; sending it again");
    int taken = run_sendmail(settings.sendmail, message, &error);
    int noted = taken == 0 ? mark_sent(state, id) : mark_failed(state, id, entry.attempts, settings, error);
    if (taken < 0)
      link_log("reply " + std::to_string(id) + " could not be sent: " + error + "; it will be tried again");
    if (noted < 0) link_log("reply " + std::to_string(id) + ": what came of it cannot be written down");
    code = taken == 0 && noted == 0 ? 0 : 1;
    if (taken == 0) unlink(phone_state_path(("outbox/" + std::to_string(id) + ".lock").c_str()).c_str());
  }
  phone_state_close(state);
  close(lock);
  return code;
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
  const char *arguments[] = {
      "brisel-phone",  "deliver-reply", number.c_str(),    "--sendmail",    settings.sendmail.c_str(),
      "--retry-first", first.c_str(),   "--retry-longest", longest.c_str(), nullptr};
  pid_t pid = 0;
  int failed = posix_spawn(&pid, "/proc/self/exe", nullptr, &attributes, const_cast<char **>(arguments), environ);
  posix_spawnattr_destroy(&attributes);
  if (failed == 0) return pid;
  *error = std::string("the process that sends a reply cannot be started: ") + strerror(failed);
  return -1;
}
