/* The application's log macros: every line carries the source file's name, the function and the line. */
#ifndef BRISEL_LOG_H
#define BRISEL_LOG_H

#include "dlog.h"

#define BRISEL_LOG_TAG "BRISEL_APP"

/* The base name of a source path, with the suffix the log readers know (brisel-app-detail.c), worked out while
   compiling, so that a line costs one formatted write. */
struct brisel_log_file_name {
  char text[64];
};

constexpr brisel_log_file_name brisel_log_base_name(const char *path) {
  const char *base = path;
  for (const char *p = path; *p; p++)
    if (*p == '/') base = p + 1;
  brisel_log_file_name name = {};
  unsigned i = 0;
  for (; i < sizeof(name.text) - 1 && base[i]; i++) name.text[i] = base[i];
  if (i > 2 && name.text[i - 1] == 'p' && name.text[i - 2] == 'p') name.text[i - 1] = name.text[i - 2] = 0;
  return name;
}

#define BRISEL_LOG_PRINT(priority, fmt, ...)                                                               \
  do {                                                                                                     \
    static constexpr brisel_log_file_name brisel_log_file = brisel_log_base_name(__FILE__);                \
    __dlog_print(priority, BRISEL_LOG_TAG, "%s: %s(%d) >  " fmt, brisel_log_file.text, __func__, __LINE__, \
                 ##__VA_ARGS__);                                                                           \
  } while (0)

#define BRISEL_INFO(fmt, ...) BRISEL_LOG_PRINT(DLOG_INFO, fmt, ##__VA_ARGS__)
#define BRISEL_WARN(fmt, ...) BRISEL_LOG_PRINT(DLOG_WARN, fmt, ##__VA_ARGS__)
#define BRISEL_ERROR(fmt, ...) BRISEL_LOG_PRINT(DLOG_ERROR, fmt, ##__VA_ARGS__)

#endif
