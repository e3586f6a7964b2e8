/* The watch notification client library: its life is bracketed by the application, nothing else is used.
   While it is open, desktop notifications that name this application's id are withdrawn on initialize.
   Thread: the EFL main loop. 0 on success. */
#ifndef BRISEL_PLATFORM_PLEXO_H
#define BRISEL_PLATFORM_PLEXO_H

int plexo_initialize(void);
int plexo_finalize(void);

#endif
