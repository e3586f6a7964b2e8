/* The walk through a message's parts. */
#ifndef BRISEL_PHONE_MIME_PARTS_H
#define BRISEL_PHONE_MIME_PARTS_H

#include <gmime/gmime.h>

#include <memory>

#include "../mime.h"
#include "gmime-holders.h"

/* Raw bytes as the library's message, which reads them where they are. */
struct opened_message {
  std::string lines, headers, addresses; /* copies, where something had to go */
  std::string_view raw;                  /* from the first header on */
  std::string_view bytes;                /* the same without what is over the limits */
  GByteArray array;                      /* the same for the library, which only reads it */
  object_holder<GMimeStream> stream;
  object_holder<GMimeMessage> message;
};

/* Opens a message, without what is over the limits; `raw` stays where it is as long as it is open. Returns NULL when
   the bytes are no mail. In mime-message.cpp. */
std::unique_ptr<opened_message> message_open(std::string_view raw, const mime_limits &limits);

/* Fills in the body, the attachments and pictures of `message`; `raw` are the bytes it was made of. */
void parts_read(GMimeMessage *message, std::string_view raw, const mime_limits &limits, mime_mail *mail);

/* What stands behind the header, as it is. */
std::string_view parts_behind_header(std::string_view raw);

#endif
