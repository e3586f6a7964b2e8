/*
 * One connection to an IMAP server, by libetpan: a thin wrapper that checks whom it talks to before it says anything,
 * and turns what the library answers into records. Calls wait for the server, at most imap_timeout_s for each byte and
 * stream_step_s in all; who calls is a process of its own that may wait.
 *
 * Results: 0, or -1 with a reason of one line. After -1 the connection is no good any more.
 */
#ifndef BRISEL_PHONE_POST_IMAP_H
#define BRISEL_PHONE_POST_IMAP_H

#include <libetpan/libetpan.h>

#include <memory>
#include <vector>

#include "post-account.h"

constexpr int imap_timeout_s = 60;

struct imap_closer {
  void operator()(mailimap *session) const;
};
using imap_session = std::unique_ptr<mailimap, imap_closer>;

struct imap_folder {
  uint32_t validity = 0, exists = 0;
  uint64_t modseq = 0; /* grows with every change; 0: the server does not count them */
};

struct imap_message {
  uint32_t uid = 0;
  bool seen = false;
  bool deleted = false; /* marked so: as good as gone */
  int64_t date = 0;     /* of its arrival, seconds since the epoch; 0: unknown */
};

constexpr int imap_unreadable = -3;

struct imap_mail {
  uint32_t uid = 0;
  std::string raw = {}; /* the bytes of a mail: its header, the parts' headers, the text that is read; no attachment.
                           Empty: the server has it no more */
  bool cut = false;     /* only the beginning of the text */
};

/* Connects, checks, logs in. Returns 0, -1 or post_refused. */
int imap_open(const post_account &account, const std::string &secret, imap_session *session, std::string *error);
/* The second half of that, on a connection that is checked. */
int imap_begin(mailimap *session, const post_account &account, const post_server &server, const std::string &secret,
               std::string *error);
/* Opens a folder; again, when it is known that it changed. */
int imap_select(mailimap *session, const std::string &name, imap_folder *folder, std::string *error);
/* The newest `count` messages that the selected folder had when it was opened. */
int imap_list_newest(mailimap *session, uint32_t count, std::vector<imap_message> *messages, std::string *error);
/* Whether imap_list_changes() can be asked. */
bool imap_tells_changes(mailimap *session);
/* Of the selected folder's messages from uid `from` on: those that came or changed since `modseq`, and the first and
   last of each run of those that went. */
int imap_list_changes(mailimap *session, uint32_t from, uint64_t modseq, std::vector<imap_message> *changed,
                      std::vector<std::pair<uint32_t, uint32_t>> *gone, std::string *error);
/* Messages as far as a watch needs them, with few questions for all of them. Of long texts the beginning; all of it
   when `whole`. Returns 0, -1, or imap_unreadable: the server answers, but not with these messages. */
int imap_fetch(mailimap *session, bool whole, std::vector<imap_mail> *mails, std::string *error);
int imap_add_flag(mailimap *session, uint32_t uid, bool answered, std::string *error); /* else seen */
/* Moves it to the folder `trash`; with none, or from there, removes this one for good. A server that can do neither for
   one message alone keeps it, marked as deleted. */
int imap_remove(mailimap *session, uint32_t uid, const std::string &trash, std::string *error);
/* The message with this Message-ID in the selected folder; 0: none. */
int imap_find(mailimap *session, const std::string &message_id, uint32_t *uid, std::string *error);
int imap_append(mailimap *session, const std::string &folder, const std::string &message, std::string *error);

struct imap_listed {
  std::string name;
  std::vector<std::string> uses = {}; /* what it says that it is for: "Sent" */
};

/* Names of folders are UTF-8 here and in the configuration, where one in the form of the servers is taken too. */
int imap_list_folders(mailimap *session, std::vector<imap_listed> *folders, std::string *error);
/* The folder that says of itself that it is for `use` ("Sent", "Trash"), else the one of that name; empty: none is. */
int imap_special_folder(mailimap *session, const char *use, std::string *folder, std::string *error);
/* Whether the server tells of changes while it is waited for. */
bool imap_can_idle(mailimap *session);
/* Waits until the server tells of a change or `other` (a file descriptor) can be read; at most `seconds`. Returns 1
   when there is something to look at, 0, or -1. */
int imap_wait(mailimap *session, int other, int seconds, std::string *error);

#endif
