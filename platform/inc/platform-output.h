/* The end of a command that printed something. Thread: any. */
#ifndef PLATFORM_OUTPUT_H
#define PLATFORM_OUTPUT_H

#include <cerrno>
#include <cstdio>
#include <cstring>

/* What was asked for must have reached its reader: writes out standard output and returns code; where that fails (a
   full disk, a closed descriptor) it says so in one line and returns 1 in place of 0. A reader that has seen enough is
   no trouble to tell of. program: what the line begins with. */
inline int platform_output_end(const char *program, int code) {
  if (fflush(stdout) == 0 && !ferror(stdout)) return code;
  if (errno != EPIPE)
    fprintf(stderr, "%s: standard output cannot be written: %s\n", program, strerror(errno ? errno : EIO));
  return code ? code : 1;
}

#endif
