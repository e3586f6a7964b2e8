/* A layer between SQLite and the disk that breaks on demand. Every write, sync, truncate and delete counts as one step.
   One process, one thread. */
#ifndef BRISEL_FAULT_VFS_H
#define BRISEL_FAULT_VFS_H

enum fault_mode {
  fault_none,
  fault_once,  /* the chosen step fails; those after it work again, as with a disk that was full for a moment */
  fault_power, /* the chosen step and all after it fail; fault_lose_unsynced() then gives what a power loss leaves */
  fault_kill   /* the process is killed in front of the chosen step */
};

/* Becomes SQLite's default. */
void fault_install(void);
/* Forgets what it counted. step counts from 1. */
void fault_arm(fault_mode mode, int step);
/* Whether the chosen step was reached. */
bool fault_struck(void);
/* Turns every file back to what was last synced. The files must be closed. */
void fault_lose_unsynced(void);

#endif
