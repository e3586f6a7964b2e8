/* A disk that breaks on demand, below SQLite and below the platform's files: the host's store, the phone's state,
   contacts, settings, kept requests. For tests only; no program links it. Every step that changes the disk counts:
   create, write, truncate, sync, rename, remove. One process, one thread.

   A whole program that is linked with it (tests/faults) takes its plan from the file that BRISEL_FAULT_PLAN names, and
   looks at it before each step: "full 3 1 phone.db" is no room from the third step on in phone.db. That the step was
   reached stands in the same name with ".struck" behind it. */
#ifndef BRISEL_PLATFORM_FAULT_H
#define BRISEL_PLATFORM_FAULT_H

enum fault_kind {
  fault_none,
  fault_full,  /* no room: only steps that need room count (creating, writing) */
  fault_io,    /* the disk fails; a write may have come halfway */
  fault_power, /* like io, for good; fault_lose_unsynced() then gives what a power loss leaves */
  fault_kill   /* the process is killed in front of the step, a write halfway through it */
};

struct fault_plan {
  fault_kind kind = fault_none;
  int step = 1;               /* the chosen one, from 1 */
  bool from_then_on = false;  /* every later one fails too, as long as the plan is armed; power always does */
  const char *only = nullptr; /* counts only files whose path holds this text; NULL: all */
};

/* Becomes SQLite's default layer and the platform files' one. Files that were opened before are not seen. */
void fault_install(void);
/* Forgets what was counted and takes the disk as it is now for synced. {} lets everything work again. */
void fault_arm(const fault_plan &plan);
/* Whether the chosen step was reached. */
bool fault_struck(void);
/* Steps since the plan was armed. */
int fault_steps(void);
/* Turns every file back to what was last synced. The files must be closed. */
void fault_lose_unsynced(void);

#endif
