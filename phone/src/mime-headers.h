/* What the header of a message says. Everything returned is clean UTF-8 on one line, bounded in size. */
#ifndef BRISEL_PHONE_MIME_HEADERS_H
#define BRISEL_PHONE_MIME_HEADERS_H

#include <gmime/gmime.h>

#include "../mime.h"

/* How addresses and texts are read here; the library's, made at the first call. */
GMimeParserOptions *header_options();

/* The value of a header as it stands in the message, unfolded and at most 16 KiB; empty when there is none. */
std::string header_raw(GMimeMessage *message, const char *name);

/* A header's text with its encoded words resolved. */
std::string header_decode(std::string_view text);

/* Fills in the sender and where an answer goes. */
void header_read_sender(GMimeMessage *message, mime_mail *mail);

/* Fills in the ids of this mail and of those it answers; message_uid stays empty when there is no usable one. */
void header_read_ids(GMimeMessage *message, mime_mail *mail);

#endif
