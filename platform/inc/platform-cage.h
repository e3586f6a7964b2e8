/* Taking rights away from the process that calls, for good: for processes that read what strangers wrote. Call it once,
   while the process has one thread and everything that it needs is open. */
#ifndef BRISEL_PLATFORM_CAGE_H
#define BRISEL_PLATFORM_CAGE_H

#include <cstddef>
#include <span>

enum cage_wall {
  CAGE_CALLS = 1, /* seccomp: what is not allowed fails like something forbidden (EPERM) */
  CAGE_FILES = 2  /* landlock: what is not named as readable cannot be opened */
};

/* What is left to the process. Memory of its own, the clock, reading and writing what is open, and ending are always
   left; new processes, new programs and files opened for writing never are. */
struct cage_rules {
  size_t memory;                         /* bytes of address space */
  unsigned descriptors;                  /* the highest that may be open, and one more */
  std::span<const char *const> folders;  /* whose files can be read */
  std::span<const char *const> readable; /* single files that can be read */
  std::span<const int> calls;            /* more system calls, by libseccomp's numbers */
  bool loads;                            /* files may be opened, to read them or to run code from them */
};

/* Bounds memory and descriptors, forbids core files and new rights, then closes what the kernel has to
   offer of the walls. Returns the walls that stand. */
int platform_cage_enter(const cage_rules *rules);

#endif
