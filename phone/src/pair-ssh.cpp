/*
 * Pairing over ssh. A key is made for one watch alone and may do one thing there: start the gate. It is brought there
 * by the user's own ssh, which asks for a password or a passphrase as it always does; the host key that this ssh
 * accepted is the only one that counts from then on.
 */
#include <fcntl.h>
#include <glib.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "brisel-bus.h"
#include "pair.h"
#include "watch.h"

namespace {

/* Both keep every other line, change the file as a whole, and may run again. $key is the key, $line its whole line;
   a gate from before it could be told whose key it is is not told. */
constexpr char kOpen[] = R"(set -eu
umask 077
cd
mkdir -p .ssh
file=$(readlink -f .ssh/authorized_keys || echo .ssh/authorized_keys)
new=$file.brisel.$$
trap 'rm -f "$new"' EXIT
if [ -e "$file" ]; then grep -vF -- "$key" "$file" > "$new" || [ $? = 1 ]; else : > "$new"; fi
)";
constexpr char kAdd[] =
    R"(command -v "$gate" > /dev/null || { echo "there is no $gate: install brisel on the watch" >&2; exit 3; }
case $("$gate" --help) in *--phone*) gate="$gate --phone=$phone" ;; esac
)";
constexpr char kAppend[] = R"(printf 'restrict,command="%s" %s\n' "$gate" "$line" >> "$new"
)";
constexpr char kClose[] = R"(chmod 600 "$new"
if [ -e "$file" ] && cmp -s "$file" "$new"; then exit 0; fi
mv -f "$new" "$file"
)";

int run(const std::vector<std::string> &command, const std::string &input) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) < 0) return -1;
  std::vector<char *> arguments;
  for (const std::string &word : command) arguments.push_back(const_cast<char *>(word.c_str()));
  arguments.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM); /* nobody would hear what it came to */
    if (dup2(ends[0], 0) >= 0) execvp(arguments[0], arguments.data());
    fprintf(stderr, "%s: %s\n", arguments[0], strerror(errno));
    _exit(127);
  }
  close(ends[0]);
  for (size_t done = 0; done < input.size();) {
    ssize_t n = write(ends[1], input.data() + done, input.size() - done);
    if (n < 0 && errno != EINTR) break;
    if (n > 0) done += static_cast<size_t>(n);
  }
  close(ends[1]);
  int status = -1;
  while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return pid < 0 ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

std::string read_line(const std::string &path) {
  gchar *text = nullptr;
  std::string line;
  if (g_file_get_contents(path.c_str(), &text, nullptr, nullptr)) line = g_strstrip(text);
  g_free(text);
  return line.find('\n') == std::string::npos ? line : "";
}

/* "ssh-ed25519 AAAA... comment": nothing but what ssh-keygen makes goes into a script. */
int read_key(const paired_watch &watch, std::string *whole, std::string *key, std::string *error) {
  *whole = read_line(watch.keys.key + ".pub");
  constexpr char allowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+/=-@._ ";
  size_t begin = whole->find(' '), end = begin == std::string::npos ? begin : whole->find(' ', begin + 1);
  if (begin != std::string::npos && whole->find_first_not_of(allowed) == std::string::npos) {
    *key = whole->substr(begin + 1, end == std::string::npos ? end : end - begin - 1);
    if (key->size() > 20) return 0;
  }
  *error = watch.keys.key + ".pub: no key that can be used";
  return -1;
}

/* The user's own ssh, with the host key noted down that it accepts. */
std::vector<std::string> own_ssh(const paired_watch &watch, const std::string &note) {
  std::vector<std::string> command = {
      "ssh", "-T", "-a", "-x", "-o", "ControlMaster=no", "-o", "ControlPath=none", "-o", "ClearAllForwardings=yes"};
  char program[4096];
  ssize_t size = readlink("/proc/self/exe", program, sizeof program);
  if (size > 0 && !note.empty())
    command.insert(command.end(), {"-o", "KnownHostsCommand=\"" + std::string(program, static_cast<size_t>(size)) +
                                             "\" note-host-key \"" + note + "\" %I %H %t %K"});
  if (watch.address.port > 0) command.insert(command.end(), {"-p", std::to_string(watch.address.port)});
  command.insert(command.end(), {"--", watch.address.target, "sh -s"});
  return command;
}

int make_key(const paired_watch &watch, std::string *error) {
  if (access(watch.keys.key.c_str(), F_OK) == 0) return 0;
  std::string comment = "brisel-phone-for-" + watch.name;
  if (run({"ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", comment, "-f", watch.keys.key}, "") == 0) return 0;
  *error = "a key cannot be made with ssh-keygen";
  return -1;
}

int explain(int code, std::string *error) {
  if (code == 0) return 0;
  *error = code == 255   ? "ssh cannot get to the watch"
           : code == 3   ? "the gate is not installed on the watch"
           : code == 127 ? "there is no ssh here: install the OpenSSH client"
                         : "the watch's list of keys cannot be changed";
  return -1;
}

}  // namespace

int pair_ssh_install(const paired_watch &watch, std::string *error) {
  std::string whole, key;
  phone_identity me;
  if (phone_identity_load(&me, error) < 0 || make_key(watch, error) < 0 || read_key(watch, &whole, &key, error) < 0)
    return -1;
  std::string note = watch.keys.known_hosts + ".new";
  unlink(note.c_str());
  std::string script = "key='" + key + "' gate='" + pair_gate + "' phone='" + me.id + "'\nline='" + whole + "'\n" +
                       kAdd + kOpen + kAppend + kClose;
  if (explain(run(own_ssh(watch, note), script), error) < 0) return -1;
  if (rename(note.c_str(), watch.keys.known_hosts.c_str()) == 0) return 0;
  *error = "ssh did not say which host key it accepted (OpenSSH 8.5 or later is needed)";
  return -1;
}

int pair_ssh_remove(const paired_watch &watch, std::string *error) {
  std::string whole, key;
  if (read_key(watch, &whole, &key, error) < 0) return -1;
  std::string script = "key='" + key + "'\n" + kOpen + kClose;
  return explain(run(own_ssh(watch, ""), script), error);
}

int pair_note_host_key(const std::string &file, const std::string &purpose, const std::string &host,
                       const std::string &type, const std::string &key) {
  if (purpose != "HOSTNAME" || key == "NONE") return 0; /* asked for which kinds are known, or by address */
  int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return 1;
  std::string line = host + " " + type + " " + key + "\n";
  bool good = write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  return close(fd) == 0 && good ? 0 : 1;
}
