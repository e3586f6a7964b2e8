/* How a body is shown: quoted history and signatures folded to a line each, long web addresses as their hosts. The
   mail's own text stays as it is; a tap on a folded line shows what it stands for. Thread: any. */
#ifndef BRISEL_APP_DETAIL_FOLD_H
#define BRISEL_APP_DETAIL_FOLD_H

#include <cstddef>
#include <string>
#include <vector>

#include "brisel-app-data.h"

/* What stands for other text: offsets and lengths in bytes. */
struct detail_piece {
  size_t shown, shown_length;
  size_t source, source_length;
  bool is_fold; /* a line of its own that opens; else a shortened address */
};

struct detail_shown {
  std::string text;
  std::vector<detail_piece> pieces; /* in order */
};

/* Valid UTF-8 with '\n' as its only line break, so that one character of the text is one of the layout. */
std::string brisel_detail_plain_text(const char *text, size_t length);
/* Folds source, a plain text. Those whose place in it is among opened are shown open. ad: for the region's digits. When
   nothing in it stands for other text, source is what is shown: it is handed on, and empty then. is_beginning: more
   follows that is not there; source is cut before the first line of which that may decide whether it is folded. */
detail_shown brisel_detail_fold(std::string *source, const std::vector<size_t> &opened, appdata *ad,
                                bool is_beginning = false);
/* The piece that the byte at that place of the shown text belongs to, or NULL. */
const detail_piece *brisel_detail_piece_at(const detail_shown &shown, size_t at);
/* Where a byte of one text is in the other. */
size_t brisel_detail_source_of(const detail_shown &shown, size_t at);
size_t brisel_detail_place_of(const detail_shown &shown, size_t source);

#endif
