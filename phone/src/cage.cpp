/* The parser's cage. */
#include "cage.h"

#include <seccomp.h>
#include <sys/resource.h>

namespace {

constexpr size_t kMemory = size_t{1} << 30; /* bytes; the largest message takes a quarter */
constexpr unsigned kDescriptors = 32;

/* Charset converters and time zones are files that the libraries open when they need them. */
constexpr const char *kFolders[] = {"/usr", "/lib", "/lib64"};
constexpr const char *kFiles[] = {"/etc/localtime", "/etc/ld.so.cache"};
constexpr int kCalls[] = {SCMP_SYS(pread64),  SCMP_SYS(lseek),      SCMP_SYS(stat),       SCMP_SYS(lstat),
                          SCMP_SYS(statx),    SCMP_SYS(newfstatat), SCMP_SYS(access),     SCMP_SYS(faccessat),
                          SCMP_SYS(readlink), SCMP_SYS(readlinkat), SCMP_SYS(faccessat2), SCMP_SYS(getdents64),
                          SCMP_SYS(getcwd)};

}  // namespace

int cage_enter() {
  static constexpr cage_rules kRules = {kMemory, kDescriptors, kFolders, kFiles, kCalls, true};
  static constexpr rlimit kNothing = {0, 0};
  setrlimit(RLIMIT_FSIZE, &kNothing); /* no file grows, even one that is open */
  return platform_cage_enter(&kRules);
}
