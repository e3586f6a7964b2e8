/* Taking rights away from the process that calls, for good. Used by the parser process alone. */
#ifndef BRISEL_PHONE_CAGE_H
#define BRISEL_PHONE_CAGE_H

enum cage_wall {
  CAGE_CALLS = 1, /* seccomp: no sockets, no new processes or programs, no file opened for writing */
  CAGE_FILES = 2  /* landlock: of all files only the system's can be read */
};

/* Bounds memory and files, then closes what the kernel has to offer of the walls. Returns the walls that stand. Call it
   once, when everything that the process needs beyond reading system files is open. */
int cage_enter();

#endif
