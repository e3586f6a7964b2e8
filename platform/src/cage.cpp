/* The cage: limits, seccomp and landlock. */
#include "platform-cage.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace {

/* The address sanitizer reserves far more than it uses. */
#if defined(__SANITIZE_ADDRESS__)
constexpr bool bound_memory = false;
#else
constexpr bool bound_memory = true;
#endif

void limit(int what, rlim_t most) {
  rlimit value = {most, most};
  setrlimit(static_cast<__rlimit_resource>(what), &value);
}

void leave_open(int ruleset, const char *path, uint64_t access) {
  landlock_path_beneath_attr beneath = {};
  const int fd = open(path, O_PATH | O_CLOEXEC);
  if (fd < 0) return;
  beneath.parent_fd = fd;
  beneath.allowed_access = access;
  syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &beneath, 0);
  close(fd);
}

bool close_files(const cage_rules *left) {
  const long version = syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  if (version < 1) return false;
  constexpr uint64_t refer = 1u << 13, truncate = 1u << 14, device_control = 1u << 15;
  constexpr uint64_t read = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
  landlock_ruleset_attr rules = {};
  rules.handled_access_fs = (1u << 13) - 1; /* all of the first version */
  if (version >= 2) rules.handled_access_fs |= refer;
  if (version >= 3) rules.handled_access_fs |= truncate;
  if (version >= 5) rules.handled_access_fs |= device_control;
  const int ruleset = static_cast<int>(syscall(SYS_landlock_create_ruleset, &rules, sizeof rules.handled_access_fs, 0));
  if (ruleset < 0) return false;
  for (const char *path : left->folders) leave_open(ruleset, path, read);
  for (const char *path : left->readable) leave_open(ruleset, path, LANDLOCK_ACCESS_FS_READ_FILE);
  const bool closed = syscall(SYS_landlock_restrict_self, ruleset, 0) == 0;
  close(ruleset);
  return closed;
}

/* What every process is left with. */
constexpr int always[] = {SCMP_SYS(read),
                          SCMP_SYS(write),
                          SCMP_SYS(readv),
                          SCMP_SYS(writev),
                          SCMP_SYS(close),
                          SCMP_SYS(fstat),
                          SCMP_SYS(munmap),
                          SCMP_SYS(mremap),
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

bool allow_loading(scmp_filter_ctx filter) {
  constexpr unsigned writes = O_WRONLY | O_RDWR | O_CREAT | O_TRUNC | O_APPEND;
  return seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(mmap), 0) == 0 &&
         seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(mprotect), 0) == 0 &&
         seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(openat), 1, SCMP_A2(SCMP_CMP_MASKED_EQ, writes, 0)) == 0 &&
         seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(open), 1, SCMP_A1(SCMP_CMP_MASKED_EQ, writes, 0)) == 0;
}

/* Memory, but no code that was not there before. */
bool allow_memory(scmp_filter_ctx filter) {
  return seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(mmap), 1, SCMP_A2(SCMP_CMP_MASKED_EQ, PROT_EXEC, 0)) == 0 &&
         seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(mprotect), 1, SCMP_A2(SCMP_CMP_MASKED_EQ, PROT_EXEC, 0)) ==
             0;
}

bool close_calls(const cage_rules *left) {
  scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ERRNO(EPERM));
  if (!filter) return false;
  bool good = true;
  for (const int call : always) good = good && seccomp_rule_add(filter, SCMP_ACT_ALLOW, call, 0) == 0;
  for (const int call : left->calls) good = good && seccomp_rule_add(filter, SCMP_ACT_ALLOW, call, 0) == 0;
  good = good && (left->loads ? allow_loading(filter) : allow_memory(filter));
  /* Asking for a limit, and ending by abort(). */
  good = good && seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(prlimit64), 1, SCMP_A2(SCMP_CMP_EQ, 0)) == 0;
  const auto self = static_cast<scmp_datum_t>(getpid());
  good = good && seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(tgkill), 1, SCMP_A0(SCMP_CMP_EQ, self)) == 0;
  good = good && seccomp_load(filter) == 0;
  seccomp_release(filter);
  return good;
}

}  // namespace

int platform_cage_enter(const cage_rules *rules) {
  limit(RLIMIT_CORE, 0);
  limit(RLIMIT_NOFILE, rules->descriptors);
  if (bound_memory) limit(RLIMIT_AS, rules->memory);
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) < 0) return 0;
  const int walls = close_files(rules) ? CAGE_FILES : 0;
  return walls | (close_calls(rules) ? CAGE_CALLS : 0);
}
