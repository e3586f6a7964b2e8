/* From files to mails on the watch: what `mail send`, `demo` and `relay` share. */
#ifndef BRISEL_PHONE_SEND_H
#define BRISEL_PHONE_SEND_H

#include "../mime.h"
#include "host.h"
#include "state.h"

struct send_options {
  int account_id = 0;
  bool locked = false;
  int64_t first = 0;     /* bytes of the body that go at once; below 0: all of it */
  int64_t received = -1; /* seconds since the epoch; below 0: the message's own date, else now */
  int is_read = -1;      /* -1: as the folder says */
  bool is_new = true;
  bool cut = false; /* the text is only a beginning: there is more to ask for */
};

/* One mail on its way. */
struct outgoing {
  watch_mail mail;
  sent_mail kept;
};

/* Makes a mail ready. `source` is kept in place of the text when keep_source is set: for files that stay. */
outgoing make_outgoing(const mime_mail &mail, const send_options &options, const std::string &source, bool keep_source,
                       bool seen);

/* Hands the mails to the service in one call and keeps what is needed to go on with them. ids: in their order. All or
   none. Returns 0, or -1 with a reason. */
int send_batch(host_bus *bus, phone_state *state, std::vector<outgoing> *batch, std::vector<int> *ids,
               std::string *error);

/* Reads TIME of the command line: seconds since the epoch, ISO 8601 with or without zone (local time then), the form
   of a mail's Date, "now".
   Returns 0, or -1 when it is none of these or not a time of this era. */
int parse_time(const std::string &text, int64_t *seconds);

/* "RRGGBBAA", with or without "#". Returns 0, or -1. */
int parse_color(const std::string &text, uint32_t *rgba);

#endif
