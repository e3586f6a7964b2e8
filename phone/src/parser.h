/*
 * Foreign mail is read in a process of its own, which may die of it: it has no bus, no network, no files but the
 * system's read-only ones, and bounds of memory, stack and time. Whoever reads mail that came from outside calls this
 * and not mime_parse().
 *
 * The process is started at the first call and serves one message after the other; it ends with the program that
 * started it, or at parser_close(). Thread: one. The calling program must be brisel-phone, which is its own parser
 * (`brisel-phone read-mail`).
 */
#ifndef BRISEL_PHONE_PARSER_H
#define BRISEL_PHONE_PARSER_H

#include <vector>

#include "../mime.h"

enum parser_result {
  PARSER_DONE = 0,
  PARSER_NO_MAIL = -1,   /* the bytes are no mail at all */
  PARSER_SET_ASIDE = -2, /* reading it killed the process twice, took too long, or it answered with no clean text */
  PARSER_LATER = -3      /* no process could be started; nothing is known of the mail */
};

/* As mime_parse(). *error is set to one line unless it is done. Ends after kWaitingTime seconds (parser.cpp). */
parser_result parser_read(std::string_view raw, const mime_limits &limits, mime_mail *mail, std::string *error);

/* Hands over a message that parser_read() will be called for later, with the very same bytes at the same place: the
   process reads it while the caller does other work, from the next parser_read() on. At most kParserMostAhead are on
   their way, in the order in which they will be read; several at once cost less than one by one. True when it is on its
   way, also from an earlier call; false where that cannot be now, or where the process cannot be started. */
inline constexpr size_t kParserMostAhead = 64;
bool parser_ahead(std::string_view raw, const mime_limits &limits);

/* What was handed over will not be read. Before its bytes go away. */
void parser_forget();

/* As mime_arrival() for each of several heads, in their order; 0 also for one that the process died of. They are handed
   over together, as far as the way to the process takes them: a question for each that waits for its answer costs more
   than the reading. What parser_ahead() handed over is forgotten. */
std::vector<int64_t> parser_arrivals(const std::vector<std::string_view> &heads);

/* What is done about once a second while an answer is waited for; NULL: nothing. It must not call the parser. */
void parser_meanwhile(void (*callback)(void *user_data), void *user_data);

/* Ends the process. Safe without one. */
void parser_close();

/* What `brisel-phone read-mail` does: answers on standard input until it is closed. Returns the exit code. */
int parser_serve();

#endif
