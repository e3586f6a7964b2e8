#include "carrier.h"

#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "../mime.h"
#include "brisel-bus.h"

namespace {

constexpr size_t kSaidBytes = 16384; /* of what a program says; more is refused to it */
constexpr int kEndMs = 300;          /* that a program may take to end by itself */
constexpr char kSession[] = "session:", kSsh[] = "ssh://", kBluetooth[] = "bluetooth:", kExec[] = "exec:";
constexpr char kConnectSeconds[] = "ConnectTimeout=10";

bool begins(const std::string &text, std::string_view with) {
  return text.compare(0, with.size(), with) == 0;
}

/* --- addresses --- */

/* Nothing in it can be taken for an option, a pattern or a second word by any program that it passes. */
bool plain_host(const std::string &host) {
  constexpr char allowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_@:%[]";
  return !host.empty() && host[0] != '-' && host.find_first_not_of(allowed) == std::string::npos &&
         host.find("@-") == std::string::npos && host.back() != '@';
}

int parse_ssh(const std::string &rest, carrier_address *address, std::string *error) {
  std::string host = rest;
  if (!host.empty() && host.back() == '/') host.pop_back();
  /* The last colon begins the port, unless it is one of a bare IPv6 address's. */
  size_t colon = host.rfind(':'), bracket = host.rfind(']'), at = host.rfind('@');
  bool port =
      colon != std::string::npos &&
      (bracket == std::string::npos ? host.find(':', at == std::string::npos ? 0 : at) == colon : colon > bracket);
  if (port) {
    char *end = nullptr;
    guint64 number = g_ascii_strtoull(host.c_str() + colon + 1, &end, 10);
    if (colon + 1 == host.size() || *end || number == 0 || number > 65535) {
      *error = "ssh://" + rest + ": no port";
      return -1;
    }
    address->port = static_cast<int>(number);
    host.resize(colon);
  }
  std::erase_if(host, [](char c) { return c == '[' || c == ']'; });
  if (!plain_host(host)) {
    *error = "ssh://" + rest + ": ssh://[USER@]HOST[:PORT] is wanted";
    return -1;
  }
  address->target = host;
  return 0;
}

int parse_bluetooth(const std::string &rest, carrier_address *address, std::string *error) {
  bool good = rest.size() == 17;
  for (size_t i = 0; good && i < rest.size(); i++) good = i % 3 == 2 ? rest[i] == ':' : g_ascii_isxdigit(rest[i]);
  if (!good) {
    *error = "bluetooth:" + rest + ": six pairs of hexadecimal digits are wanted, AA:BB:CC:DD:EE:FF";
    return -1;
  }
  for (char c : rest) address->target += g_ascii_toupper(c);
  return 0;
}

/* --- programs --- */

std::vector<std::string> ssh_command(const carrier_address &address, const carrier_keys &keys) {
  std::vector<std::string> out = {"ssh", "-T", "-C", "-a", "-x"};
  for (const char *option :
       {"BatchMode=yes", "ControlMaster=no", "ControlPath=none", "ClearAllForwardings=yes", "PermitLocalCommand=no",
        "RemoteCommand=none", "RequestTTY=no", "StdinNull=no", "ForkAfterAuthentication=no", "SessionType=default",
        "LogLevel=ERROR", "ServerAliveInterval=0", kConnectSeconds})
    out.insert(out.end(), {"-o", option});
  if (!keys.key.empty())
    out.insert(out.end(), {"-o", "IdentitiesOnly=yes", "-o", "IdentityAgent=none", "-o", "CertificateFile=none", "-o",
                           "PreferredAuthentications=publickey", "-i", keys.key});
  if (!keys.known_hosts.empty())
    out.insert(out.end(),
               {"-o", "UserKnownHostsFile=\"" + keys.known_hosts + "\"", "-o", "GlobalKnownHostsFile=/dev/null", "-o",
                "StrictHostKeyChecking=yes", "-o", "UpdateHostKeys=no", "-o", "VerifyHostKeyDNS=no"});
  if (address.port > 0) out.insert(out.end(), {"-p", std::to_string(address.port)});
  return out;
}

std::vector<std::string> command_of(const carrier_address &address, const carrier_keys &keys) {
  if (address.kind == carrier_kind::exec) return {"/bin/sh", "-c", address.target};
  if (address.kind == carrier_kind::bluetooth) return {"/proc/self/exe", "carry-bluetooth", address.target};
  std::vector<std::string> command = ssh_command(address, keys);
  command.insert(command.end(), {"--", address.target, pair_gate});
  return command;
}

/* In the child: the stream as standard input and output, and no longer life than its parent's. */
[[noreturn]] void become(char **arguments, int stream, int said, pid_t parent) {
  sigset_t none;
  sigemptyset(&none);
  for (int number : {SIGTERM, SIGINT, SIGALRM, SIGPIPE, SIGCHLD, SIGHUP}) signal(number, SIG_DFL);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  setpgid(0, 0); /* so that what it starts ends with it */
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(127);
  if (dup2(stream, 0) >= 0 && dup2(stream, 1) >= 0 && dup2(said, 2) >= 0) execvp(arguments[0], arguments);
  dprintf(said, "%s: %s\n", arguments[0], strerror(errno));
  _exit(127);
}

/* A file in memory that takes only so much: a program that talks without end fills nothing. */
int bounded_file() {
  int fd = memfd_create("said", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fd < 0) return -1;
  if (ftruncate(fd, kSaidBytes) == 0 && fcntl(fd, F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK) == 0) return fd;
  close(fd);
  return -1;
}

int start(const std::vector<std::string> &command, carrier *way) {
  int ends[2];
  way->said = bounded_file();
  if (way->said < 0 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) return -errno;
  way->fd = ends[0];
  std::vector<char *> arguments;
  for (const std::string &word : command) arguments.push_back(const_cast<char *>(word.c_str()));
  arguments.push_back(nullptr);
  pid_t parent = getpid();
  way->pid = fork();
  if (way->pid == 0) become(arguments.data(), ends[1], way->said, parent);
  int error = way->pid < 0 ? errno : 0;
  if (way->pid < 0) way->pid = 0;
  if (way->pid > 0) setpgid(way->pid, way->pid);
  close(ends[1]);
  return -error;
}

/* Whether the program ended, after at most so long. */
bool ended(pid_t pid, int patience_ms) {
  int process = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  pollfd wait = {process, POLLIN, 0};
  int ready = process < 0 ? 1 : poll(&wait, 1, patience_ms);
  if (process >= 0) close(process);
  return ready > 0;
}

void release(carrier *way) {
  carrier_hang_up(way);
  for (int *fd : {&way->fd, &way->said}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

/* What the program said last: the line that tells the trouble stands at the end. */
std::string last_line(int said) {
  char text[kSaidBytes + 1] = "";
  ssize_t size = pread(said, text, kSaidBytes, 0);
  std::string_view all(text, size > 0 ? strnlen(text, static_cast<size_t>(size)) : 0);
  while (!all.empty()) {
    size_t end = all.find_last_of("\r\n");
    std::string line = mime_clean_line(all.substr(end == std::string_view::npos ? 0 : end + 1), 300);
    if (!line.empty()) return line;
    all = end == std::string_view::npos ? std::string_view() : all.substr(0, end);
  }
  return "";
}

bool said_anywhere(int said, const char *what) {
  char text[kSaidBytes + 1] = "";
  return pread(said, text, kSaidBytes, 0) > 0 && strstr(text, what);
}

/* What the watch's side says when it is reached and wants nothing of it, and what that means. */
struct said_no {
  const char *words, *meaning; /* NULL: as it stands */
};
constexpr said_no kNo[] = {
    {"REMOTE HOST IDENTIFICATION HAS CHANGED",
     "the machine that answers is not the one that was paired: its host key is another"},
    {"Host key verification failed", "the watch's host key is not known here (ssh to it once, or pair it)"},
    {"host key is known", "the watch's host key is not known here (ssh to it once, or pair it)"},
    {"Permission denied", "the watch does not accept this phone's key"},
    {"command not found", "there is no brisel-gate on the watch"},
    {"not found\n", "there is no brisel-gate on the watch"},
    {"brisel-gate: ", nullptr},
};

const said_no *find_no(int said) {
  for (const said_no &one : kNo)
    if (said_anywhere(said, one.words)) return &one;
  return nullptr;
}

std::string ssh_reason(int said) {
  const said_no *no = find_no(said);
  return no && no->meaning ? no->meaning : last_line(said);
}

/* --- what can be seen of a program from outside --- */

/* Adds the sockets that a program has open, by their number, and those of the programs that it started: a jump host is
   reached by one of these. */
void add_sockets(pid_t pid, std::set<unsigned long> *out, unsigned generations = 8) {
  const std::string folder = "/proc/" + std::to_string(pid);
  DIR *all = opendir((folder + "/fd").c_str());
  while (const dirent *one = all ? readdir(all) : nullptr) {
    char target[64] = "";
    unsigned long number = 0;
    if (readlinkat(dirfd(all), one->d_name, target, sizeof target - 1) > 0 &&
        sscanf(target, "socket:[%lu]", &number) == 1)
      out->insert(number);
  }
  if (all) closedir(all);
  FILE *f = generations > 0 ? fopen((folder + "/task/" + std::to_string(pid) + "/children").c_str(), "re") : nullptr;
  for (pid_t child = 0; f && fscanf(f, "%d", &child) == 1;) add_sockets(child, out, generations - 1);
  if (f) fclose(f);
}

/* An address as the kernel's tables have it: words of the machine's own order, then the port. */
void read_address(const char *text, unsigned port, sockaddr_storage *to) {
  *to = {};
  uint32_t words[4] = {};
  const size_t count = strlen(text) / 8;
  for (size_t i = 0; i < count && i < 4; i++)
    words[i] = static_cast<uint32_t>(strtoul(std::string(text + 8 * i, 8).c_str(), nullptr, 16));
  if (count == 1) {
    auto *four = reinterpret_cast<sockaddr_in *>(to);
    four->sin_family = AF_INET;
    four->sin_port = htons(static_cast<uint16_t>(port));
    four->sin_addr.s_addr = words[0];
  } else {
    auto *six = reinterpret_cast<sockaddr_in6 *>(to);
    six->sin6_family = AF_INET6;
    six->sin6_port = htons(static_cast<uint16_t>(port));
    memcpy(&six->sin6_addr, words, sizeof words);
  }
}

bool any_is_connecting(const std::set<unsigned long> &sockets, const std::string &table, sockaddr_storage *to) {
  constexpr unsigned connecting = 2;
  bool found = false;
  char line[512];
  FILE *f = fopen(table.c_str(), "re");
  while (f && !found && fgets(line, sizeof line, f)) {
    unsigned state = 0, port = 0;
    unsigned long number = 0;
    char address[33] = "";
    found = sscanf(line, " %*u: %*s %32[0-9A-F]:%x %x %*s %*s %*s %*s %*s %lu", address, &port, &state, &number) == 4 &&
            state == connecting && sockets.contains(number);
    if (found) read_address(address, port, to);
  }
  if (f) fclose(f);
  return found;
}

}  // namespace

std::string carrier_address::text() const {
  if (kind == carrier_kind::session) return kSession;
  if (kind == carrier_kind::bluetooth) return kBluetooth + target;
  if (kind == carrier_kind::exec) return kExec + target;
  size_t at = target.rfind('@') + 1; /* 0 without a user */
  bool six = target.find(':', at) != std::string::npos;
  std::string host = six ? target.substr(0, at) + "[" + target.substr(at) + "]" : target;
  return kSsh + host + (port > 0 ? ":" + std::to_string(port) : "");
}

bool carrier_is_address(const std::string &text) {
  return begins(text, kSession) || begins(text, kSsh) || begins(text, kBluetooth) || begins(text, kExec);
}

int carrier_parse(const std::string &text, carrier_address *address, std::string *error) {
  *address = {};
  if (text == kSession) return 0;
  if (begins(text, kSsh)) {
    address->kind = carrier_kind::ssh;
    return parse_ssh(text.substr(strlen(kSsh)), address, error);
  }
  if (begins(text, kBluetooth)) {
    address->kind = carrier_kind::bluetooth;
    return parse_bluetooth(text.substr(strlen(kBluetooth)), address, error);
  }
  if (begins(text, kExec) && text.size() > strlen(kExec)) {
    address->kind = carrier_kind::exec;
    address->target = text.substr(strlen(kExec));
    return 0;
  }
  *error = "'" + text + "': session:, ssh://[USER@]HOST[:PORT], bluetooth:AA:BB:CC:DD:EE:FF or exec:COMMAND is wanted";
  return -1;
}

carrier::~carrier() {
  release(this);
}

carrier::carrier(carrier &&other) noexcept {
  *this = std::move(other);
}

carrier &carrier::operator=(carrier &&other) noexcept {
  if (this == &other) return *this;
  release(this);
  fd = std::exchange(other.fd, -1);
  pid = std::exchange(other.pid, 0);
  said = std::exchange(other.said, -1);
  kind = other.kind;
  return *this;
}

int carrier_open(const carrier_address &address, const carrier_keys &keys, carrier *way, std::string *error) {
  *way = carrier();
  way->kind = address.kind;
  int result = start(command_of(address, keys), way);
  if (result == 0 && fcntl(way->fd, F_SETFL, O_NONBLOCK) == 0) return 0;
  *error =
      std::string("the program that carries the link cannot be started: ") + strerror(result < 0 ? -result : errno);
  *way = carrier();
  return -1;
}

void carrier_hang_up(carrier *way) {
  if (way->fd >= 0) shutdown(way->fd, SHUT_RDWR);
  if (way->pid <= 0) return;
  kill(-way->pid, SIGTERM);
  if (!ended(way->pid, kEndMs)) kill(-way->pid, SIGKILL);
  while (waitpid(way->pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  way->pid = 0;
}

std::string carrier_reason(const carrier &way) {
  if (way.said < 0) return "";
  if (way.pid > 0) ended(way.pid, kEndMs);
  return way.kind == carrier_kind::ssh ? ssh_reason(way.said) : last_line(way.said);
}

bool carrier_knocks(const carrier &way, sockaddr_storage *to) {
  if (way.pid <= 0) return false;
  std::set<unsigned long> sockets;
  add_sockets(way.pid, &sockets);
  const std::string folder = "/proc/" + std::to_string(way.pid) + "/net/";
  return any_is_connecting(sockets, folder + "tcp", to) || any_is_connecting(sockets, folder + "tcp6", to);
}

bool carrier_was_answered(const carrier &way) {
  return way.said >= 0 && find_no(way.said);
}

bool carrier_compresses(const carrier &way) {
  return way.kind == carrier_kind::ssh;
}
