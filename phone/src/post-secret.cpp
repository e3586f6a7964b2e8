/* Where an account's password or token comes from. */
#include <fcntl.h>
#include <glib.h>
#include <libsecret/secret.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>

#include "post-account.h"

namespace {

constexpr gint64 kCommandSeconds = 120; /* somebody may be asked */
constexpr size_t kMostPrinted = 64u << 10;

const SecretSchema kSchema = {"com.vextora.brisel.Account",
                              SECRET_SCHEMA_NONE,
                              {{"account", SECRET_SCHEMA_ATTRIBUTE_STRING}},
                              0,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr};

std::string secret_file(const post_account &account) {
  std::unique_ptr<char, decltype(&g_free)> safe(g_uri_escape_string(account.name.c_str(), "@", FALSE), g_free);
  return std::string(g_get_user_config_dir()) + "/brisel/secrets/" + safe.get();
}

volatile sig_atomic_t command_group = 0; /* while a command of this process runs in a group of its own */

/* What it started is not left behind, perhaps with a question on the screen. */
void end_cb(int number) {
  if (command_group > 0) kill(-command_group, SIGKILL);
  signal(number, SIG_DFL);
  raise(number);
}

/* The command's output while it lives, and its end: what it leaves running may keep the pipe. Returns the reason it was
   ended for; NULL: it ended by itself, with this status. */
const char *watch_command(pid_t pid, int pipe, std::string *out, int *status) {
  const int ends = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  const gint64 until = g_get_monotonic_time() + kCommandSeconds * G_USEC_PER_SEC;
  const char *why = ends < 0 ? "cannot be waited for" : nullptr;
  pollfd wait[] = {{pipe, POLLIN, 0}, {ends, POLLIN, 0}};
  for (bool over = false; !why && !over;) {
    char text[4096];
    gint64 left = std::max<gint64>(0, until - g_get_monotonic_time());
    if (poll(wait, 2, static_cast<int>(left / 1000)) == 0) why = "took longer than 2 minutes";
    ssize_t got = wait[0].fd < 0 ? 0 : read(pipe, text, sizeof text);
    if (got > 0) out->append(text, static_cast<size_t>(got));
    if (got == 0) wait[0].fd = -1;
    if (out->size() > kMostPrinted) why = "printed far more than a password";
    over = wait[1].revents != 0 && got <= 0;
  }
  if (why) kill(getpgid(pid) == pid ? -pid : pid, SIGKILL);
  while (waitpid(pid, status, 0) < 0 && errno == EINTR) continue;
  if (ends >= 0) close(ends);
  return why;
}

/* The first line of what the command prints. It may ask on the terminal, so it stays in the terminal's own group. */
int from_command(const std::string &command, std::string *secret, std::string *error) {
  int ends[2] = {-1, -1}, status = 0;
  const bool alone = !isatty(STDIN_FILENO);
  pid_t pid = pipe2(ends, O_CLOEXEC | O_NONBLOCK) < 0 ? -1 : fork();
  if (pid == 0) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGTERM, SIG_DFL);
    if (alone) setpgid(0, 0);
    int text = fcntl(ends[1], F_GETFL);
    if (fcntl(ends[1], F_SETFL, text & ~O_NONBLOCK) == 0 && dup2(ends[1], STDOUT_FILENO) == STDOUT_FILENO)
      execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    _exit(127);
  }
  if (pid < 0) {
    *error = std::string("the password command cannot be started: ") + strerror(errno);
    if (ends[0] >= 0) close(ends[0]), close(ends[1]);
    return -1;
  }
  close(ends[1]);
  std::string out;
  GError *why = nullptr;
  struct sigaction before, ours = {};
  ours.sa_handler = end_cb;
  command_group = alone ? pid : 0;
  sigaction(SIGTERM, nullptr, &before);
  if (before.sa_handler == SIG_DFL) sigaction(SIGTERM, &ours, nullptr);
  const char *ended = watch_command(pid, ends[0], &out, &status);
  sigaction(SIGTERM, &before, nullptr);
  command_group = 0;
  close(ends[0]);
  if (!ended && g_spawn_check_wait_status(status, &why)) secret->assign(out, 0, out.find_first_of("\r\n"));
  std::fill(out.begin(), out.end(), '\0');
  if (!ended && !why && !secret->empty()) return 0;
  *error = std::string("the password command ") + (ended ? ended
                                                   : why ? std::string("failed: ") + why->message
                                                         : "printed nothing");
  g_clear_error(&why);
  return -1;
}

/* Refuses what others can read: a careless copy is told, not used. */
int from_file(const std::string &file, std::string *secret, std::string *error) {
  int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  struct stat info;
  if (fd < 0) {
    *error = "no password is kept for it; run `brisel-phone setup` again, or give a password-command";
    return -1;
  }
  char text[4096];
  bool safe = fstat(fd, &info) == 0 && (info.st_mode & 077) == 0 && info.st_uid == getuid();
  ssize_t got = safe ? read(fd, text, sizeof text) : 0;
  close(fd);
  if (!safe) {
    *error = file + " can be read by others; take that right away (chmod 600) and change the password";
    return -1;
  }
  secret->assign(text, static_cast<size_t>(std::max<ssize_t>(got, 0)));
  secret->resize(std::min(secret->find_first_of("\r\n"), secret->size()));
  return 0;
}

}  // namespace

int post_secret_read(const post_account &account, std::string *secret, std::string *error) {
  if (!account.password_command.empty()) return from_command(account.password_command, secret, error);
  GError *why = nullptr;
  char *found = secret_password_lookup_sync(&kSchema, nullptr, &why, "account", account.name.c_str(), nullptr);
  g_clear_error(&why); /* no such service: the file is what is left */
  if (found) {
    *secret = found;
    secret_password_free(found);
    return 0;
  }
  if (from_file(secret_file(account), secret, error) == 0) return 0;
  /* A locked keyring does not say what it has. */
  SecretService *service = secret_service_get_sync(SECRET_SERVICE_NONE, nullptr, nullptr);
  SecretCollection *keyring = nullptr;
  if (service)
    keyring =
        secret_collection_for_alias_sync(service, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr, nullptr);
  if (keyring && secret_collection_get_locked(keyring))
    *error = "the keyring that may have its password is locked; unlock it, or log in to the desktop";
  g_clear_object(&keyring);
  g_clear_object(&service);
  return -1;
}

int post_secret_store(const post_account &account, const std::string &secret, std::string *error) {
  GError *why = nullptr;
  std::string label = "Mail of " + account.name;
  if (secret_password_store_sync(&kSchema, SECRET_COLLECTION_DEFAULT, label.c_str(), secret.c_str(), nullptr, &why,
                                 "account", account.name.c_str(), nullptr)) {
    unlink(secret_file(account).c_str());
    return 0;
  }
  bool none = g_error_matches(why, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) || (why && why->domain == G_IO_ERROR);
  bool locked = g_error_matches(why, SECRET_ERROR, SECRET_ERROR_IS_LOCKED);
  *error = none     ? "there is no Secret Service here"
           : locked ? "it is locked"
           : why    ? why->message
                    : "its question was refused";
  g_clear_error(&why);
  return -1;
}

int post_secret_store_file(const post_account &account, const std::string &secret, std::string *error) {
  std::string file = secret_file(account);
  std::unique_ptr<char, decltype(&g_free)> folder(g_path_get_dirname(file.c_str()), g_free);
  g_mkdir_with_parents(folder.get(), 0700);
  GError *why = nullptr;
  if (g_file_set_contents_full(file.c_str(), (secret + "\n").c_str(), -1, G_FILE_SET_CONTENTS_CONSISTENT, 0600, &why))
    return 0;
  *error = why->message;
  g_error_free(why);
  return -1;
}

void post_secret_forget(const post_account &account) {
  secret_password_clear_sync(&kSchema, nullptr, nullptr, "account", account.name.c_str(), nullptr);
  unlink(secret_file(account).c_str());
}
