/*
 * Handing a message to the account's own server (SMTP submission, by libcurl). `brisel-phone submit` does it with the
 * interface of sendmail: the message on standard input, the recipients from its header, the outcome as exit code and
 * text. The outbox starts it like any other sendmail.
 */
#ifndef BRISEL_PHONE_POST_SMTP_H
#define BRISEL_PHONE_POST_SMTP_H

#include <string>
#include <vector>

#include "post-account.h"

/* Sends a message. With no recipients it only connects and logs in. Returns 0, or -1 with one sentence; *for_good
   (may be NULL) is set when trying again can change nothing. */
int smtp_send(const post_account &account, const std::string &secret, const std::vector<std::string> &recipients,
              const std::string &message, bool *for_good, std::string *error);

/* `brisel-phone submit`: sends by the account that the From names, then marks the mail it answers and keeps a copy, as
   far as the server lets it. A message of no account goes to /usr/sbin/sendmail. Returns the exit code, of sysexits.h.
 */
int smtp_submit(const std::string &config);

#endif
