/* The body of a mail as the reader shows it: text of any length under the mail layout's part "detail.body".

   The text engine lays out a whole text part at once, which takes seconds for a long mail. So only the first block of
   the body goes into the part; the rest follows in the part "detail.body_rest" as further blocks, each laid out when
   it comes near the screen and dropped when it is far away. Blocks that have not been seen yet count with an estimate.
   A block that ends inside a paragraph gives its last, unfinished line to the next one, so that no seam shows.

   Thread: the EFL main loop. */
#ifndef BRISEL_APP_DETAIL_BODY_H
#define BRISEL_APP_DETAIL_BODY_H

#include <Evas.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/* A line that a tap means something on: the theme's tag "fold". Offset and length in bytes. */
struct text_mark {
  size_t start, length;
};

/* Makes layout (a "brisel/detail" layout inside scroller) able to show bodies. What it makes belongs to the layout and
   goes with it. A theme without the part "detail.body_rest" shows bodies as one text. */
void brisel_detail_body_attach(Evas_Object *layout, Evas_Object *scroller);
/* Puts the layout into the scroller and shows it; further blocks are laid out from then on. */
void brisel_detail_body_place(Evas_Object *layout);
/* Shows the text literally; plain: as brisel_detail_plain_text() makes it. The blocks that the old and the new text
   share stay as they are, so the reader's place does not move when a body grows. marks (copied): in order. */
void brisel_detail_body_set(Evas_Object *layout, std::string plain, const std::vector<text_mark> &marks = {});
/* The same with more of the text behind what is shown. most: so long it may become. */
void brisel_detail_body_append(Evas_Object *layout, std::string_view plain, const std::vector<text_mark> &marks,
                               size_t most);
/* The text size (0 small, 1 normal, 2 large) of the further blocks; the layout's own parts are the caller's to tell.
   The text at the top of the screen stays there. */
void brisel_detail_body_set_font_size(Evas_Object *layout, int size);
/* Where in the shown text the line at the top of the view begins; npos: the view shows what is above the text. */
size_t brisel_detail_body_top(Evas_Object *layout);
/* Brings the line of that byte to the top of the view, now or once it has a size; beyond the text's end nothing. */
void brisel_detail_body_go_to(Evas_Object *layout, size_t at);
/* Where the line begins that is at that height of the canvas; npos: none. */
size_t brisel_detail_body_line_at(Evas_Object *layout, int y);
/* The markup of text (which it stands for) so that its first and last line are no higher than the others. To free(). */
char *brisel_detail_tight_markup(const char *text, const char *markup);
/* Whether the end of the text is laid out, so that the layout's lower edge is its true one. */
Eina_Bool brisel_detail_body_end_is_known(Evas_Object *layout);
/* The whole text shown and, in *blocks (may be NULL), how many blocks are laid out now. The text is the body's own. */
const char *brisel_detail_body_get(Evas_Object *layout, int *blocks);

#endif
