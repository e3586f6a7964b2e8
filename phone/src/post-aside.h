/*
 * The messages of a folder that its server has and cannot give: it refuses them, or ends the connection over them, or
 * what it answers ends the process that reads it. They are set aside, so that those behind them come, and asked for
 * again later, less and less often.
 *
 * Which message was asked for is on the disk while it is, so that the next process knows at which one the last ended.
 * Used by the mirror; `relay status` lists them.
 */
#ifndef BRISEL_PHONE_POST_ASIDE_H
#define BRISEL_PHONE_POST_ASIDE_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

struct aside_entry {
  int64_t until = 0; /* seconds since the epoch */
  int64_t pause = 0; /* seconds of this wait */
  int64_t date = 0;  /* of the message's arrival; 0: unknown */
  std::string why;
};

struct post_aside {
  std::string path, tag, folder;
  uint32_t validity = 0;
  std::map<uint32_t, aside_entry> held; /* by uid */
  size_t at_once = 0;                   /* messages asked for at once */
  uint32_t uid = 0;                     /* the first of those that were asked for last */
  size_t count = 0;                     /* ... their number */
  int tries = 0;                        /* ... how often the first alone failed */
  bool holds_more = false;              /* one was set aside since this was last false */
};

/* What is known of the folder in the Maildir at `path`; again when its validity changed. */
void aside_load(post_aside *aside, const std::string &path, const std::string &tag, const std::string &folder,
                uint32_t validity);
/* Is the message not to be asked for now? One that was set aside is asked for alone. */
bool aside_holds(const post_aside &aside, uint32_t uid);
/* Seconds until one of them is to be asked for again, at most `longest`. */
int aside_next(const post_aside &aside, int longest);
/* `count` messages, this one first, are asked for... */
void aside_begin(post_aside *aside, uint32_t uid, size_t count);
/* ... in vain: fewer are next, and one alone is set aside, at once when the server refuses it, else after a few tries.
 */
void aside_failed(post_aside *aside, bool refused, int64_t date, const std::string &why);
/* ... and this one came. */
void aside_came(post_aside *aside, uint32_t uid);
/* Everything was fetched of what the server has: of these, which were not here before. No others are set aside any
   more: one that is here already would be waited for without end. */
void aside_done(post_aside *aside, const std::set<uint32_t> &missing);

/* Is that the name of a file that is kept for this? */
bool aside_is_file(const char *name);
/* Of all folders of the Maildir at `path`: which message, and why. */
std::vector<std::pair<std::string, std::string>> aside_list(const std::string &path);

#endif
