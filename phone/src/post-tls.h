/* The check of a server's certificate, for the wrapper of the IMAP library, which makes none. */
#ifndef BRISEL_PHONE_POST_TLS_H
#define BRISEL_PHONE_POST_TLS_H

#include <libetpan/mailstream.h>

#include <string>

/* Checks what the server showed when the connection was made: issued by somebody the system, or the file `ca` (may be
   empty), trusts, for `host`, valid now. To be called before anything is said over it. Returns 0, or -1 with one
   sentence. */
int tls_check(mailstream *stream, const std::string &host, const std::string &ca, std::string *error);

#endif
