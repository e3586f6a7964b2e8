/*
 * A folder of an IMAP account as a Maildir on this machine, which the relay follows like any other: the newest
 * messages, each as far as a watch needs it. One process for each folder (`brisel-phone follow-imap`), which may wait,
 * and die, without the relay or another account noticing; the relay starts it again.
 */
#ifndef BRISEL_PHONE_POST_MIRROR_H
#define BRISEL_PHONE_POST_MIRROR_H

#include <systemd/sd-event.h>

#include <string>
#include <vector>

/* Keeps the account's folder and its mirror equal until it is ended. Returns the exit code. */
int post_mirror_run(const std::string &config, const std::string &account, const std::string &folder, uint32_t newest);

/* Makes the empty mirror. Returns 0, or -1 with a reason. */
int post_mirror_create(const std::string &path, std::string *error);

/* What is noted there of folders that are not followed any more is no part of the status. */
void post_mirror_forget_others(const std::string &path, const std::vector<std::string> &folders);
/* Why the folders of the mirror at `path` are not followed now; empty: they are. */
std::string post_mirror_trouble(const std::string &path);

struct post_mirror_order {
  std::string config, account, folder;
  int64_t newest = 200;
};

/* Starts a process for each and starts it again when it ends, until post_mirrors_stop(), which waits for their end.
   SIGCHLD is blocked. The loop is ended when the configuration file says something else than at the start:
   post_mirrors_outdated() then, and when everything is closed, post_mirrors_begin_again() runs this program anew. */
struct post_mirrors;
post_mirrors *post_mirrors_start(sd_event *event, const std::vector<post_mirror_order> &orders);
bool post_mirrors_outdated(const post_mirrors *mirrors); /* NULL allowed, here and below */
void post_mirrors_stop(post_mirrors *mirrors);
void post_mirrors_begin_again();
/* Waits a few seconds until no process follows a folder of the account any more. Returns whether none does. */
bool post_mirror_is_left(const std::string &path);

#endif
