/* How files are named in a Maildir: BASE or BASE:2,FLAGS, in "new" or "cur". */
#ifndef BRISEL_PHONE_MAILDIR_NAMES_H
#define BRISEL_PHONE_MAILDIR_NAMES_H

#include <string>
#include <vector>

struct maildir_file {
  std::string folder; /* "new" or "cur" */
  std::string name;
  std::string base; /* the name without flags; the same for the life of the mail */
};

std::string maildir_base(const std::string &name);
bool maildir_has_flag(const std::string &name, char flag);
/* The name with the flag added, flags in their order. */
std::string maildir_with_flag(const std::string &name, char flag);
bool is_maildir(const std::string &dir);
/* The files of "new" and "cur", in no order. Returns 0, or -1 with a one-line reason. */
int maildir_list(const std::string &dir, std::vector<maildir_file> *files, std::string *error);

#endif
