/* The parser's cage: limits, seccomp and landlock. */
#include "cage.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <initializer_list>

namespace {

constexpr rlim_t kMemory = rlim_t{1} << 30; /* bytes; the largest message takes a quarter */

/* The address sanitizer reserves far more than it uses. */
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kBoundMemory = false;
#else
constexpr bool kBoundMemory = true;
#endif

void limit(int what, rlim_t most) {
  rlimit value = {most, most};
  setrlimit(static_cast<__rlimit_resource>(what), &value);
}

/* Charset converters and time zones are files that the libraries open when they need them. */
bool close_files() {
  long version = syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  if (version < 1) return false;
  constexpr uint64_t kRefer = 1u << 13, kTruncate = 1u << 14, kDeviceControl = 1u << 15;
  constexpr uint64_t kRead = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
  landlock_ruleset_attr rules = {};
  rules.handled_access_fs = (1u << 13) - 1; /* all of the first version */
  if (version >= 2) rules.handled_access_fs |= kRefer;
  if (version >= 3) rules.handled_access_fs |= kTruncate;
  if (version >= 5) rules.handled_access_fs |= kDeviceControl;
  int ruleset = static_cast<int>(syscall(SYS_landlock_create_ruleset, &rules, sizeof rules.handled_access_fs, 0));
  if (ruleset < 0) return false;
  for (const char *path : {"/usr", "/lib", "/lib64", "/etc/localtime", "/etc/ld.so.cache"}) {
    landlock_path_beneath_attr beneath = {};
    int fd = open(path, O_PATH | O_CLOEXEC);
    if (fd < 0) continue;
    bool folder = path[1] != 'e';
    beneath.parent_fd = fd;
    beneath.allowed_access = folder ? kRead : LANDLOCK_ACCESS_FS_READ_FILE;
    syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &beneath, 0);
    close(fd);
  }
  bool closed = syscall(SYS_landlock_restrict_self, ruleset, 0) == 0;
  close(ruleset);
  return closed;
}

/* What reading text takes, and no more. Everything else fails like something forbidden: libraries can live with it. */
bool close_calls() {
  static constexpr int kCalls[] = {SCMP_SYS(read),
                                   SCMP_SYS(write),
                                   SCMP_SYS(readv),
                                   SCMP_SYS(writev),
                                   SCMP_SYS(pread64),
                                   SCMP_SYS(lseek),
                                   SCMP_SYS(close),
                                   SCMP_SYS(fstat),
                                   SCMP_SYS(stat),
                                   SCMP_SYS(lstat),
                                   SCMP_SYS(newfstatat),
                                   SCMP_SYS(statx),
                                   SCMP_SYS(access),
                                   SCMP_SYS(faccessat),
                                   SCMP_SYS(faccessat2),
                                   SCMP_SYS(readlink),
                                   SCMP_SYS(readlinkat),
                                   SCMP_SYS(getcwd),
                                   SCMP_SYS(getdents64),
                                   SCMP_SYS(mmap),
                                   SCMP_SYS(munmap),
                                   SCMP_SYS(mremap),
                                   SCMP_SYS(mprotect),
                                   SCMP_SYS(madvise),
                                   SCMP_SYS(brk),
                                   SCMP_SYS(futex),
                                   SCMP_SYS(clock_gettime),
                                   SCMP_SYS(gettimeofday),
                                   SCMP_SYS(time),
                                   SCMP_SYS(getrandom),
                                   SCMP_SYS(getpid),
                                   SCMP_SYS(gettid),
                                   SCMP_SYS(sched_yield),
                                   SCMP_SYS(sysinfo),
                                   SCMP_SYS(uname),
                                   SCMP_SYS(rt_sigaction),
                                   SCMP_SYS(rt_sigprocmask),
                                   SCMP_SYS(rt_sigreturn),
                                   SCMP_SYS(sigaltstack),
                                   SCMP_SYS(exit),
                                   SCMP_SYS(exit_group),
                                   SCMP_SYS(restart_syscall),
                                   SCMP_SYS(sched_getaffinity)};
  scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ERRNO(EPERM));
  if (!filter) return false;
  bool good = true;
  for (int call : kCalls) good = good && seccomp_rule_add(filter, SCMP_ACT_ALLOW, call, 0) == 0;
  constexpr unsigned kWrites = O_WRONLY | O_RDWR | O_CREAT | O_TRUNC | O_APPEND;
  good = good &&
         seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(openat), 1, SCMP_A2(SCMP_CMP_MASKED_EQ, kWrites, 0)) == 0;
  good =
      good && seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(open), 1, SCMP_A1(SCMP_CMP_MASKED_EQ, kWrites, 0)) == 0;
  /* Asking for a limit, and ending by abort(). */
  good = good && seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(prlimit64), 1, SCMP_A2(SCMP_CMP_EQ, 0)) == 0;
  auto self = static_cast<scmp_datum_t>(getpid());
  good = good && seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(tgkill), 1, SCMP_A0(SCMP_CMP_EQ, self)) == 0;
  good = good && seccomp_load(filter) == 0;
  seccomp_release(filter);
  return good;
}

}  // namespace

int cage_enter() {
  limit(RLIMIT_CORE, 0);
  limit(RLIMIT_FSIZE, 0);
  limit(RLIMIT_NOFILE, 32);
  if (kBoundMemory) limit(RLIMIT_AS, kMemory);
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) < 0) return 0;
  int walls = close_files() ? CAGE_FILES : 0;
  return walls | (close_calls() ? CAGE_CALLS : 0);
}
