/*
 * The stream under an IMAP connection: opened and encrypted, and bounded. The library waits for each byte for a while,
 * but for any number of them, and takes the end of a connection within a text for a pause; here a step has an end.
 * Used by post-imap.cpp. One connection of a process is in a step at a time; SIGALRM is taken for that.
 */
#ifndef BRISEL_PHONE_POST_STREAM_H
#define BRISEL_PHONE_POST_STREAM_H

#include <libetpan/libetpan.h>

#include "post-account.h"

/* Seconds for what is asked at once (a text of 1 MiB over a slow net fits), and bytes for the answer. */
constexpr unsigned stream_step_s = 300;
constexpr size_t stream_step_bytes = 32u << 20;

/* While it lives, a step is under way: its end too late ends the connection. */
struct stream_step {
  explicit stream_step(int fd);
  ~stream_step();
};
/* Another bound for a step, before the first one; 0: SIGALRM is for somebody else. */
void stream_bound(unsigned seconds);
/* Why the stream gave nothing more, as the beginning of a sentence. */
const char *stream_end();

/* A connected socket, or -1 with a reason. */
int stream_connect(const post_server &server, std::string *error);
/* TLS on a socket, from the first byte or after it was agreed on; NULL: the other side does not. The server's
   certificate is not looked at: see post-tls.h. */
mailstream_low *stream_encrypt(int fd, const std::string &host);
/* Makes the end of the connection, and too long an answer, an error of every read. */
void stream_guard(mailstream_low *low);

#endif
