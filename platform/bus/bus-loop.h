/*
 * The session bus on the EFL main loop: one connection per process, shared by everything in it (the application
 * framework, the host link). Nothing else ties a D-Bus connection to the loop.
 * Thread: the EFL main loop. Nothing here wakes the loop unless the bus has something for it: no polling; a timer runs
 * only while a call with a time limit is on its way, and after the bus went away until there is one again.
 */
#ifndef BRISEL_PLATFORM_BUS_LOOP_H
#define BRISEL_PLATFORM_BUS_LOOP_H

#include <systemd/sd-bus.h>

/* The connection, opened and attached to the main loop on first use. NULL when there is no bus (logged once). After the
   bus went away a later call tries anew, and so does the loop itself until there is one. The connection is the
   library's: never closed or unreferenced by the caller, but slots and messages made with it are the caller's and must
   be released as usual; after a loss they are dead. ecore must be initialised. */
sd_bus *bus_loop_session(void);

/* The same, not yet attached to the main loop: for blocking calls before ecore is initialised. The next
   bus_loop_session() attaches it. */
sd_bus *bus_loop_open(void);

/* Tells of the connection's life: connected false when it was lost, true when there is a new one. Several may be added;
 * the pair (callback, data) tells them apart. Safe inside the callback. */
typedef void (*bus_loop_watch_cb)(bool connected, void *data);
void bus_loop_watch_add(bus_loop_watch_cb callback, void *data);
void bus_loop_watch_del(bus_loop_watch_cb callback, void *data);

/* Writes out what is queued and closes the connection: before the process ends, or before ecore shuts down. */
void bus_loop_shutdown(void);

#endif
