/* What the header of a message says. Everything returned is clean UTF-8 on one line, bounded in size. */
#ifndef BRISEL_PHONE_MIME_HEADERS_H
#define BRISEL_PHONE_MIME_HEADERS_H

#include <gmime/gmime.h>

#include "../mime.h"

/* How addresses and texts are read here; the library's, made at the first call. */
GMimeParserOptions *header_options();

/* The value of a header as it stands in the message, unfolded and at most 16 KiB; empty when there is none. */
std::string header_raw(GMimeMessage *message, const char *name);

/* A header's text with its encoded words resolved. Bytes over 127 that are no UTF-8 are taken for `charset` (may be
   empty). */
std::string header_decode(std::string_view text, const std::string &charset);

/* The charset that a message's own text names, for a writer who put the same bytes into the header; empty: none. */
std::string header_charset(GMimeMessage *message);

/* Fills in the sender and where an answer goes. */
void header_read_sender(GMimeMessage *message, const std::string &charset, mime_mail *mail);

/* Fills in the ids of this mail and of those it answers; message_uid stays empty when there is no usable one. */
void header_read_ids(GMimeMessage *message, mime_mail *mail);

#endif
