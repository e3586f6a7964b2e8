/* Where resources are. The one place that turns the device's paths into the build tree's or a session's. */
#ifndef BRISEL_PLATFORM_PATHS_H
#define BRISEL_PLATFORM_PATHS_H

/* Returns the path to use for one of the device's fixed paths:
   - "/usr/apps/com.vextora.brisel/res/..." with the environment variable BRISEL_RES_DIR set: the same path below
     that folder; otherwise itself, where the resources are installed.
   - "/opt/etc/localtime": the link that BRISEL_LOCALTIME names when set; else itself when it exists; else
     "/etc/localtime".
   - any other path: itself.
   The result is the library's own, valid for the life of the process; never freed. Never NULL for a non-NULL path. */
const char *platform_path(const char *path);

/* The folders the platform keeps its own state in, following the XDG base directories, each for the user alone: made
   with mode 0700 when missing, mended to it when it is wider, and refused (NULL, logged) when it or a folder above it
   belongs to somebody else or may be written by others, as then it could be turned into another: data (store,
   contacts), config (persistent settings), runtime (settings of this session, sockets), state (the phone tool), app
   state (what applications record, and their requests that wait for the service). The result is the library's own. NULL
   when it cannot be made. */
const char *platform_data_dir(void);
const char *platform_config_dir(void);
const char *platform_runtime_dir(void);
const char *platform_state_dir(void);
const char *platform_app_state_dir(void);

#endif
