/* How a body is shown: quoted history and signatures folded to a line each, long web addresses as their hosts. The
   mail's own text stays as it is; a tap on a folded line shows what it stands for. Thread: any. */
#ifndef BRISEL_APP_DETAIL_FOLD_H
#define BRISEL_APP_DETAIL_FOLD_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "brisel-app-data.h"

/* What stands for other text: offsets and lengths in bytes. */
struct detail_piece {
  size_t shown, shown_length;
  size_t source, source_length;
  bool is_fold; /* a line of its own that opens; else a shortened address */
  bool operator==(const detail_piece &) const = default;
};

struct detail_shown {
  std::string text;
  std::vector<detail_piece> pieces; /* in order */
};

/* Valid UTF-8 with '\n' as its only line break, so that one character of the text is one of the layout. */
std::string brisel_detail_plain_text(const char *text, size_t length);
/* How much of a piece of a body can be made plain before the next one is there: all but a character or a line break
   that may be cut. */
size_t brisel_detail_whole_part(const char *piece, size_t length);
/* Folds source, a plain text. Those whose place in it is among opened are shown open. ad: for the region's digits. When
   nothing in it stands for other text, source is what is shown: it is handed on, and empty then. */
detail_shown brisel_detail_fold(std::string *source, const std::vector<size_t> &opened, appdata *ad);

/* A text that comes piece by piece. What is hidden of it is counted and not kept. */
struct detail_folding {
  std::string text;               /* what is not decided on yet */
  size_t at;                      /* what is next in it */
  size_t before;                  /* bytes of the source that stood before it */
  size_t given;                   /* bytes of the shown text that were taken out of it */
  size_t open_until;              /* of the source: in a signature or an answered mail that is open */
  bool in_line;                   /* in the midst of a line that is shown as it is */
  bool in_open_quote;             /* in quoted lines that are open */
  bool has_above;                 /* something is written above text */
  bool is_announced;              /* the last line above it says that a mail is passed on */
  char last_letter;               /* of the line that it is in the midst of; 0: only blanks */
  char hidden;                    /* what is being hidden: '>' a quote, '<' the mail that is answered; 0 */
  size_t hidden_from, hidden_end; /* of the source */
  int hidden_lines;
};
/* Puts what can be told by the next piece of the plain text behind shown; is_end: nothing follows. */
void brisel_detail_fold_on(detail_folding *folding, std::string_view plain, bool is_end,
                           const std::vector<size_t> &opened, appdata *ad, detail_shown *shown);
/* The piece that the byte at that place of the shown text belongs to, or NULL. */
const detail_piece *brisel_detail_piece_at(const detail_shown &shown, size_t at);
/* Where a byte of one text is in the other. */
size_t brisel_detail_source_of(const detail_shown &shown, size_t at);
size_t brisel_detail_place_of(const detail_shown &shown, size_t source);

#endif
