/* The platform log. Thread: any. */
#ifndef BRISEL_PLATFORM_DLOG_H
#define BRISEL_PLATFORM_DLOG_H

enum log_priority { DLOG_DEBUG = 3, DLOG_INFO, DLOG_WARN, DLOG_ERROR, DLOG_FATAL };

/* Writes one line "P/TAG(PID): TEXT" (P one of D, I, W, E, F) with a single write to the file that the
   environment variable BRISEL_LOG_FILE names (appended), else to standard error. Line breaks and other control
   characters inside the text are shown escaped, so one call is one line; a text longer than 4 KiB is cut at a
   character boundary. Returns the bytes written, or negative when nothing could be. */
int __dlog_print(int priority, const char *tag, const char *format, ...) __attribute__((format(printf, 3, 4)));

#endif
