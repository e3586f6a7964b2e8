/* Who the other end of a bus is: by the program that it runs. Any thread. */
#ifndef BRISEL_PLATFORM_PEER_H
#define BRISEL_PLATFORM_PEER_H

#include <sys/types.h>

#include <string>

/* The path of the program that a process runs; empty when that cannot be told (errno says why). One that was replaced
   by a newer version while it ran is still what it was. */
std::string platform_program_of(pid_t pid);

/* Whether `program` is the one installed at `installed`, or, for a process that was started in a build tree, the one at
   `built` in the same tree (like "service/brisel-hostd"). `built` "": any program of that tree. */
bool platform_program_is(const std::string &program, const char *installed, const char *built);

#endif
