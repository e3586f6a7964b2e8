/*
 * One connection to an IMAP server, by libetpan: a thin wrapper that checks whom it talks to before it says anything,
 * and turns what the library answers into records. Calls wait for the server, at most imap_timeout_s; who calls is a
 * process of its own that may wait.
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

struct imap_message {
  uint32_t uid = 0;
  bool seen = false;
  int64_t date = 0; /* of its arrival, seconds since the epoch; 0: unknown */
};

/* Connects, checks, logs in. */
int imap_open(const post_account &account, const std::string &secret, imap_session *session, std::string *error);
/* Opens a folder; again, when it is known that it changed. */
int imap_select(mailimap *session, const std::string &folder, uint32_t *validity, std::string *error);
/* The newest `count` messages that the selected folder had when it was opened. */
int imap_list_newest(mailimap *session, uint32_t count, std::vector<imap_message> *messages, std::string *error);
/* The message as far as a watch needs it, as the bytes of a mail: its header, the parts' headers, the text that is
   read; no attachment. Empty when the server has it no more. */
int imap_fetch(mailimap *session, uint32_t uid, std::string *raw, std::string *error);
int imap_add_flag(mailimap *session, uint32_t uid, bool answered, std::string *error); /* else seen */
/* The message with this Message-ID in the selected folder; 0: none. */
int imap_find(mailimap *session, const std::string &message_id, uint32_t *uid, std::string *error);
int imap_append(mailimap *session, const std::string &folder, const std::string &message, std::string *error);
/* The folder that says of itself that it holds what was sent; empty: none does. */
int imap_sent_folder(mailimap *session, std::string *folder, std::string *error);
/* Waits until the server tells of a change or `other` (a file descriptor) can be read; at most `seconds`. */
int imap_wait(mailimap *session, int other, int seconds, std::string *error);

#endif
