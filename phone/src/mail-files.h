/*
 * Where mail is on disk: single files, mbox files, Maildir folders.
 *
 * A source is a text that names one message: "file:PATH", "mbox:OFFSET:PATH" or "maildir:BASE:DIR" (BASE is the file's
 * name without its flags, which change).
 */
#ifndef BRISEL_PHONE_MAIL_FILES_H
#define BRISEL_PHONE_MAIL_FILES_H

#include <sys/stat.h>

#include <string>
#include <string_view>

struct found_mail {
  std::string_view raw;    /* valid during the callback */
  const std::string *name; /* for messages to people */
  std::string source;
  bool seen = false; /* the folder says that it has been read */
};

/* Called once per message; return non-zero to stop (it is handed on). */
typedef int (*found_mail_cb)(const found_mail &mail, void *user_data);

/* Calls back for each message in a file, an mbox file or a Maildir folder. Returns 0, what the callback returned, or
   -1 with a one-line reason in *error when the path cannot be read (nothing was called back for a single file then). */
int mail_files_each(const std::string &path, found_mail_cb callback, void *user_data, std::string *error);

/* Reads at most `max` bytes of a regular file; what the system says of it goes to *its, when that is wanted. Returns 0,
   or -1 with a one-line reason. */
int mail_file_read(const std::string &path, size_t max, std::string *out, std::string *error,
                   struct stat *its = nullptr);

/* Reads the message that a source names. */
int mail_source_read(const std::string &source, size_t max, std::string *out, std::string *error);

/* The file that holds the message, of an mbox all of it; empty when it is gone from its Maildir. */
std::string mail_source_file(const std::string &source);

/* The file of a Maildir that has this base name, wherever its flags put it now; empty when it is gone. */
std::string maildir_find(const std::string &dir, const std::string &base);

#endif
