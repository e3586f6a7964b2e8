/*
 * Real mail turned into what a watch can show: plain, valid UTF-8 text and a few facts.
 *
 * Nothing that comes in is trusted. A message may be cut off, lie about its charset, nest or repeat without end, or
 * be an attack on an HTML reader; every function here ends in time and memory bounded by mime_limits, and gives text
 * that holds no NUL, no control characters but newline and tab, and no half characters.
 *
 * Thread: any one thread; mime_init() first, once. Memory: everything is returned by value.
 */
#ifndef BRISEL_PHONE_MIME_H
#define BRISEL_PHONE_MIME_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/* How much of one message is looked at. Sizes are in bytes. */
struct mime_limits {
  size_t message = 64u << 20;  /* of the file; what lies beyond is treated as cut off */
  size_t headers = 256u << 10; /* of the message's own header block */
  size_t text = 1u << 20;      /* of the readable body */
  int depth = 32;              /* of parts inside parts */
  int separators = 30000;      /* lines that may stand between parts; what follows is cut off */
  int parts = 1000;            /* in all */
};

struct mime_mail {
  std::string subject;      /* empty: none */
  std::string from_address; /* empty: none */
  std::string from_name;    /* empty: none */
  std::string reply_to;     /* the address an answer belongs to; the sender's when nothing else is named */
  std::string body;         /* readable text, newlines as "\n", no continuation tag */
  std::string message_uid;  /* never empty: the Message-ID without brackets, or a hash of what makes the mail itself */
  std::string message_id;   /* the Message-ID without brackets when it is a usable one, else empty */
  std::string references;   /* "<id> <id> …" of usable ids only, the mails this one answers; may be empty */
  int64_t date = 0;         /* of the Date header, seconds since the epoch; 0: none, or not a date of this era */
  int attachment_count = 0;
  bool has_image = false; /* holds pictures that are part of the body */
  bool seen = false;      /* a Status header says that it has been read (mbox files keep it there) */
};

/* Starts the mail library. Safe to call again. */
void mime_init();

/* Reads one message from its raw bytes. Returns 0, or -1 with a one-line reason in *error when the bytes are no mail
   at all (empty, or without one header). Damage inside a mail is no error: what can be read is given. */
int mime_parse(std::string_view raw, const mime_limits &limits, mime_mail *mail, std::string *error);

/* When a message arrived, seconds since the epoch: as the last mail server on its way wrote (the topmost Received
   header), else as the Date header says, else 0. Much cheaper than mime_parse(). `head` is the start of a message, cut
   anywhere. */
int64_t mime_arrival(std::string_view head);

/* The value of a Date header as seconds since the epoch; 0 when it is none, or not a date of this era. */
int64_t mime_date(std::string_view text);

/* Readable text of an HTML document in UTF-8: paragraphs, lists, quotes, table rows as lines; no scripts, styles,
   comments or hidden elements. At most `max` bytes. *has_image (may be NULL) is set when the document shows pictures;
   pictures of one pixel, which only count readers, are none. */
std::string mime_html_to_text(std::string_view html, size_t max, bool *has_image);

/* Plain text of what an entry widget gave: its markup tags and entities resolved ("<br/>" is a newline). Text that
   holds no markup comes back unchanged. */
std::string mime_markup_to_text(std::string_view markup);

/* Bytes in `charset` (NULL, empty, unknown and wrong names allowed) as clean UTF-8: never fails, keeps what is
   readable. */
std::string mime_to_utf8(std::string_view bytes, const char *charset);

/* Clean UTF-8 on one line: runs of white space become one blank, direction overrides go; at most `max` bytes. */
std::string mime_clean_line(std::string_view text, size_t max);

/* Where a piece of at most `bytes` bytes that starts at `from` ends, so that no character and no character with its
   marks is split. `text` is valid UTF-8. Returns a position in [from, size]; `from` itself when not one fits. */
size_t mime_cut(std::string_view text, size_t from, size_t bytes);

/* The first character boundary of valid UTF-8 at or after `position`. */
size_t mime_boundary(std::string_view text, size_t position);

#endif
