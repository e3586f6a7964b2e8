/* The end of a process that SIGTERM, SIGINT or SIGHUP asks for: within a second, whatever it waits for then. For
   processes all of whose state is on disk at any time, and which end by themselves once their loop gets to it. SIGHUP
   that is ignored stays so. Thread: any. */
#ifndef PLATFORM_STOP_H
#define PLATFORM_STOP_H

/* Catches the signals. Returns a descriptor that can be read from once one has come, for the process's loop; -1 with
   errno: nothing was changed. A child that has not become another program yet is ended at once. */
int platform_stop_open(void);
/* They end the process as they do any other. Closes the descriptor. */
void platform_stop_close(void);

#endif
