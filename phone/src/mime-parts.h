/* The walk through a message's parts. */
#ifndef BRISEL_PHONE_MIME_PARTS_H
#define BRISEL_PHONE_MIME_PARTS_H

#include <gmime/gmime.h>

#include "../mime.h"

/* Fills in the body, the attachments and pictures of `message`; `raw` are the bytes it was made of. */
void parts_read(GMimeMessage *message, std::string_view raw, const mime_limits &limits, mime_mail *mail);

/* What stands behind the header, as it is. */
std::string_view parts_behind_header(std::string_view raw);

#endif
