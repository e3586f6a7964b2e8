/* A reply of the watch as a message for the mail system. */
#ifndef BRISEL_PHONE_REPLY_H
#define BRISEL_PHONE_REPLY_H

#include <string>

struct reply_parts {
  std::string from_address, from_name; /* the account's; no address: the mail system's own From is used */
  std::string recipient;               /* as the watch sent it: address, byte 0x02, display name */
  std::string reply_to;                /* where the mail itself asked for answers; empty: the recipient's address */
  std::string subject;                 /* of the mail that is answered */
  std::string text;                    /* as the watch sent it: may hold markup */
  std::string message_id, references;  /* of the mail that is answered; may be empty */
};

/* Makes the message, lines ending in "\n", with an id of its own that stays the same however often it is sent. No part
   can add a header or a recipient. *to: the one address it goes to. Returns 0, or -1 with a one-line reason. */
int reply_compose(const reply_parts &parts, std::string *message, std::string *to, std::string *error);

/* "Re: " once before what is left without any. */
std::string reply_subject(const std::string &subject);

#endif
