/*
 * Watching folders for files that are put into place or taken away, by any process. One inotify descriptor for the
 * whole process on the main loop; no timer, no wake-up while nothing changes. Thread: the EFL main loop.
 */
#ifndef BRISEL_PLATFORM_FILE_WATCH_H
#define BRISEL_PLATFORM_FILE_WATCH_H

struct file_watch;

/* name: the file that was put into place, written to its end or taken away. NULL: anything in the folder may have
   changed (the folder came or went, or events were lost), so look at all that matters. Events of one file that follow
   each other may arrive as one. The callback may add and delete watches, its own included. */
using file_watch_cb = void (*)(const char *name, void *user_data);

/* The folder need not exist: the watch begins by itself when it appears, also after it went away. NULL when inotify is
   not to be had; the reason is logged. */
file_watch *file_watch_add(const char *folder, file_watch_cb callback, void *user_data);
void file_watch_del(file_watch *watch); /* NULL is allowed */

#endif
