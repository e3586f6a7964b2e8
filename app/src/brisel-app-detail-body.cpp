/* Long bodies in blocks; see the header. */
#include "brisel-app-detail-body.h"

#include <Elementary.h>
#include <unicode/uchar.h>
#include <unicode/uscript.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "brisel-app-utils.h"
#include "brisel-scoped.h"
#include "platform-pages.h"
#include "platform-paths.h"

/* A block of this many bytes is about two screens high and takes a few milliseconds to lay out in any script. */
constexpr size_t block_bytes = 768;
/* Blocks end at a line break when there is one this close around block_bytes. */
constexpr size_t block_bytes_min = 256;
constexpr size_t block_bytes_max = 1280;
/* Line breaks are cheap to store and tall to show. */
constexpr int block_lines_max = 24;
/* Bytes, of which the memory is got at once. */
constexpr size_t long_text = 64 << 10;
/* Pixels per byte before anything has been measured. */
constexpr double first_guess = 1.0;

static const char body_key[] = "DetailBody";
static const char body_part[] = "detail.body";
static const char rest_part[] = "detail.body_rest";
static const char block_group[] = "brisel/detail/body_block";

enum class direction : unsigned char { none, left_to_right, right_to_left };

struct text_block {
  size_t start;       /* of its bytes in the text; it ends where the next one starts */
  Evas_Object *shown; /* its laid-out object, while it is near the screen; never set for the first block */
  int height;         /* pixels; 0: not even guessed yet */
  bool measured;      /* else the height is a guess, which stays as it is so that nothing moves */
  bool continues;     /* it only got longer while it was laid out: what was read of it stays at its place */
  direction along;    /* a block that starts inside a paragraph runs the way the paragraph does */
};

struct detail_body {
  Evas_Object *layout;
  Evas_Object *scroller;
  Evas_Object *rest; /* the smart object in the part "detail.body_rest", NULL without such a part */
  std::string text;
  std::vector<text_mark> marks;
  std::vector<text_block> blocks;
  int font_size;
  int width;                            /* the width that heights were measured with */
  int least_width;                      /* what the part must have for the layout to be as wide as the view */
  double measured_bytes, measured_high; /* what the estimate is made of */
  bool is_placed;                       /* the layout is in the scroller: until then nothing is above or below a view */
  bool is_resized;                      /* the part or the view has a new size */
  bool is_flung;                        /* the scroller moves by itself: told to show a place, it would stop */
  int lead;                             /* how far below their place the blocks are until it stands */
  bool first_settled;                   /* the first block has given its unfinished line away */
  size_t top;                           /* offset of the text at the top of the screen; npos: what is above it */
  size_t anchor;                        /* offset of the text to keep at the top of the screen; npos: none */
  int anchor_passes;                    /* how often it is still aimed at: what it comes to rest on gets measured */
};

static constexpr size_t no_anchor = std::string::npos;
/* What is aimed at may move while the blocks above it are laid out for the first time. */
constexpr int anchor_passes_max = 6;

/* --- the text and where it is cut ------------------------------------------------------------------------------ */

static bool _joins_the_one_before(gunichar c) {
  return c == 0x200D || (c >= 0xFE00 && c <= 0xFE0F) || (c >= 0x1F3FB && c <= 0x1F3FF) || g_unichar_ismark(c);
}

/* The last place at or before at where text may be cut without splitting what is drawn as one character. */
static size_t _character_boundary(const std::string &text, size_t from, size_t at) {
  const char *base = text.c_str();
  const char *cut = base + at;
  while (cut > base + from && (*cut & 0xC0) == 0x80) cut--;
  const char *first = cut;
  for (int steps = 0; cut > base + from && steps < 32; steps++) {
    const char *before = g_utf8_prev_char(cut);
    if (!_joins_the_one_before(g_utf8_get_char(cut)) && g_utf8_get_char(before) != 0x200D) return (size_t)(cut - base);
    cut = before;
  }
  return (size_t)(first - base); /* a pile of marks is cut anyhow */
}

static size_t _block_end(const std::string &text, size_t start) {
  size_t break_at = 0; /* behind the last line break in reach */
  int lines = 0;
  size_t reach = std::min(text.size(), start + block_bytes_max);
  const char *base = text.data();
  for (size_t i = start; const void *found = memchr(base + i, '\n', reach - i);) {
    i = (size_t)((const char *)found - base) + 1;
    if (i > start + block_bytes && break_at > start + block_bytes_min) return break_at;
    break_at = i;
    if (++lines == block_lines_max || break_at >= start + block_bytes) return break_at;
  }
  if (reach == text.size()) return reach;
  if (break_at > start + block_bytes_min) return break_at;
  for (size_t i = start + block_bytes; i > start + block_bytes_min; i--)
    if (text[i - 1] == ' ') return i;
  return _character_boundary(text, start, start + block_bytes);
}

/* Which way the paragraph that is open at the end of [start, end) runs: its first strong character says. */
static direction _open_direction(const std::string &text, const text_block &block, size_t end) {
  /* No further back than the block: a paragraph may go on for megabytes, and its earlier blocks know how it runs. */
  size_t paragraph = end;
  while (paragraph > block.start && text[paragraph - 1] != '\n') paragraph--;
  direction known = paragraph == block.start ? block.along : direction::none;
  const char *last = text.c_str() + end;
  for (const char *s = text.c_str() + paragraph; known == direction::none && s < last; s = g_utf8_next_char(s)) {
    UCharDirection along = u_charDirection((UChar32)g_utf8_get_char(s));
    if (along == U_LEFT_TO_RIGHT) known = direction::left_to_right;
    if (along == U_RIGHT_TO_LEFT || along == U_RIGHT_TO_LEFT_ARABIC) known = direction::right_to_left;
  }
  return known;
}

static bool _starts_inside_paragraph(const detail_body *body, size_t index) {
  return index > 0 && body->text[body->blocks[index].start - 1] != '\n';
}

static size_t _end_of(const detail_body *body, size_t index) {
  return index + 1 < body->blocks.size() ? body->blocks[index + 1].start : body->text.size();
}

/* Cuts the text behind the last block in the list into further blocks. */
static void _cut_rest(detail_body *body) {
  if (!body->rest) return;
  for (size_t end = _block_end(body->text, body->blocks.back().start); end < body->text.size();
       end = _block_end(body->text, end)) {
    text_block next = {.start = end};
    if (body->text[end - 1] != '\n') next.along = _open_direction(body->text, body->blocks.back(), end);
    body->blocks.push_back(next);
  }
}

/* East Asian fonts have tall ornaments: the text engine gives the first line of a text the room of the highest letter
   of its font, and the last the room of the lowest, which together are another line's height. A line of one pixel above
   and one below take that room from the lines that are read. */
static const char first_line[] = "<thin><br/></thin>", last_line[] = "<thin><br/> </thin>";

static bool _is_east_asian(const char *text, size_t length) {
  for (const char *s = text, *end = text + length; s < end; s = g_utf8_next_char(s)) {
    UErrorCode status = U_ZERO_ERROR;
    gunichar c = g_utf8_get_char(s);
    if (c < 0x1100) continue;
    UScriptCode script = uscript_getScript((UChar32)c, &status);
    if (script == USCRIPT_HAN || script == USCRIPT_HIRAGANA || script == USCRIPT_KATAKANA || script == USCRIPT_HANGUL ||
        script == USCRIPT_BOPOMOFO || (c >= 0x3000 && c < 0x3040) || (c >= 0xFF00 && c < 0xFFE7))
      return true;
  }
  return false;
}

char *brisel_detail_tight_markup(const char *text, const char *markup) {
  return _is_east_asian(text, strlen(text)) ? g_strconcat(first_line, markup, last_line, nullptr) : g_strdup(markup);
}

/* The end of what a block shows: the line break between two blocks is the step from one to the other. */
static size_t _shown_end(const detail_body *body, size_t index) {
  size_t end = _end_of(body, index);
  return index + 1 < body->blocks.size() && body->text[end - 1] == '\n' ? end - 1 : end;
}

/* How many characters a block's layout has before the text. */
static int _characters_before(const detail_body *body, size_t index) {
  const text_block &block = body->blocks[index];
  int marks = _starts_inside_paragraph(body, index) && block.along != direction::none ? 1 : 0;
  return marks + (_is_east_asian(body->text.c_str() + block.start, _shown_end(body, index) - block.start) ? 1 : 0);
}

static scoped_text _markup_of_block(const detail_body *body, size_t index) {
  const text_block &block = body->blocks[index];
  std::string markup;
  auto append = [&markup](const std::string &text) {
    scoped_text part(brisel_util_text_to_markup_whole(text.c_str()));
    markup += part ? part.get() : "";
  };
  if (_starts_inside_paragraph(body, index)) {
    if (block.along == direction::left_to_right) append("\xE2\x80\x8E");
    if (block.along == direction::right_to_left) append("\xE2\x80\x8F");
  }
  size_t at = block.start, end = _shown_end(body, index);
  for (const text_mark &mark : body->marks) {
    size_t from = std::max(at, mark.start), to = std::min(end, mark.start + mark.length);
    if (from >= to) continue;
    append(body->text.substr(at, from - at));
    markup += "<fold>";
    append(body->text.substr(from, to - from));
    markup += "</fold>";
    at = to;
  }
  append(body->text.substr(at, end - at));
  if (_is_east_asian(body->text.c_str() + block.start, end - block.start)) markup = first_line + markup + last_line;
  return scoped_text(strdup(markup.c_str()));
}

/* --- laying blocks out ------------------------------------------------------------------------------------------ */

static int _height_of(detail_body *body, size_t index) {
  text_block &block = body->blocks[index];
  if (!block.height) {
    double per_byte = body->measured_bytes > 0 ? body->measured_high / body->measured_bytes : first_guess;
    block.height = std::max(1, (int)(per_byte * (double)(_end_of(body, index) - block.start)));
  }
  return block.height;
}

static void _show_first_block(detail_body *body) {
  scoped_text markup = _markup_of_block(body, 0);
  elm_object_part_text_set(body->layout, body_part, markup ? markup.get() : "");
}

/* Where in the block's text its last line starts when that line is unfinished and not the only one, else npos. */
static size_t _unfinished_line(const detail_body *body, size_t index, const Evas_Object *edje) {
  if (index + 1 >= body->blocks.size() || !_starts_inside_paragraph(body, index + 1)) return std::string::npos;
  const text_block &next = body->blocks[index + 1];
  if (next.shown || next.measured) return std::string::npos; /* met from below: its text stays where it is */
  Evas_Object *text = (Evas_Object *)edje_object_part_object_get(edje, body_part);
  Evas_Textblock_Cursor *cursor = text ? evas_object_textblock_cursor_new(text) : nullptr;
  if (!cursor) return std::string::npos;
  const text_block &block = body->blocks[index];
  const char *base = body->text.c_str();
  int before = _characters_before(body, index);
  long last = before + g_utf8_strlen(base + block.start, (gssize)(_shown_end(body, index) - block.start)) - 1;
  evas_textblock_cursor_pos_set(cursor, (int)last);
  evas_textblock_cursor_line_char_first(cursor);
  int characters = evas_textblock_cursor_pos_get(cursor) - before;
  evas_textblock_cursor_free(cursor);
  if (characters <= 0) return std::string::npos;
  size_t start = (size_t)(g_utf8_offset_to_pointer(base + block.start, characters) - base);
  return start < next.start ? start : std::string::npos;
}

static void _hide_block(text_block &block) {
  if (block.shown) evas_object_del(block.shown);
  block.shown = nullptr;
}

static void _measure(detail_body *body, text_block &block) {
  int height = 0;
  edje_object_size_min_restricted_calc(block.shown, nullptr, &height, body->width, 0);
  block.height = std::max(1, height);
  block.measured = true;
}

static const char *_font_size_signal(int size) {
  return size == 0 ? "do-set-fontsize-small" : size == 2 ? "do-set-fontsize-large" : nullptr;
}

static void _show_block(detail_body *body, size_t index) {
  text_block &block = body->blocks[index];
  block.shown = edje_object_add(evas_object_evas_get(body->rest));
  edje_object_file_set(block.shown, platform_path(BRISEL_EDJ), block_group);
  edje_object_scale_set(block.shown, elm_config_scale_get() * elm_object_scale_get(body->layout));
  edje_object_mirrored_set(block.shown, elm_object_mirrored_get(body->layout));
  if (const char *signal = _font_size_signal(body->font_size)) {
    edje_object_signal_emit(block.shown, signal, "brisel");
    edje_object_message_signal_process(block.shown);
  }
  evas_object_smart_member_add(block.shown, body->rest);
  evas_object_show(block.shown);
  evas_object_resize(block.shown, body->width, block.height); /* before its text, which is laid out for it */
  scoped_text markup = _markup_of_block(body, index);
  edje_object_part_text_set(block.shown, body_part, markup ? markup.get() : "");
  bool known = block.measured;
  _measure(body, block);
  if (known) return;
  /* Its lines are those of the width that it is shown with. */
  evas_object_resize(block.shown, body->width, block.height);
  edje_object_calc_force(block.shown);
  size_t line = _unfinished_line(body, index, block.shown);
  if (line != std::string::npos) {
    body->blocks[index + 1].start = line;
    markup = _markup_of_block(body, index);
    edje_object_part_text_set(block.shown, body_part, markup ? markup.get() : "");
    _measure(body, block);
  }
  body->measured_bytes += (double)(_end_of(body, index) - block.start);
  body->measured_high += block.height;
}

/* Once the first block has been laid out with the real width: its unfinished line goes to the second one. */
static void _settle_first_block(detail_body *body) {
  if (body->first_settled || body->blocks.size() < 2) return;
  Evas_Object *edje = elm_layout_edje_get(body->layout);
  int height = 0, width = 0;
  edje_object_part_geometry_get(edje, body_part, nullptr, nullptr, &width, &height);
  if (width <= 0 || height <= 0) return;
  body->first_settled = true;
  size_t line = _unfinished_line(body, 0, edje);
  if (line != std::string::npos) {
    body->blocks[1].start = line;
    _show_first_block(body);
  }
  body->measured_bytes += (double)_end_of(body, 0);
  body->measured_high += height;
  /* Guesses made before anything was measured were no more than that. */
  for (text_block &block : body->blocks)
    if (!block.measured) block.height = 0;
}

/* Forgets everything measured, because the width or the text size is another now. */
static void _measure_anew(detail_body *body) {
  body->lead = 0;
  for (text_block &block : body->blocks) _hide_block(block);
  size_t block_count = body->blocks.size();
  body->blocks.resize(1);
  body->blocks.reserve(block_count);
  body->measured_bytes = body->measured_high = 0;
  body->first_settled = false;
  _cut_rest(body);
  _show_first_block(body);
}

/* --- places on the screen --- */

/* The laid-out text of a block and where it stands on the canvas, or NULL. */
static Evas_Object *_text_of_block(const detail_body *body, size_t index, int *y, int *height) {
  const Evas_Object *edje = index ? body->blocks[index].shown : elm_layout_edje_get(body->layout);
  Evas_Object *text = edje ? (Evas_Object *)edje_object_part_object_get(edje, body_part) : nullptr;
  if (text) evas_object_geometry_get(text, nullptr, y, nullptr, height);
  return text;
}

/* Where in the body's text the line begins that is at that height of the canvas, or npos. is_read: the line that
   somebody reads there, which is the next one where less than half of a line is below it. */
static size_t _line_at(const detail_body *body, int y, bool is_read) {
  for (size_t i = 0; i < body->blocks.size(); i++) {
    int top = 0, height = 0;
    Evas_Object *text = _text_of_block(body, i, &top, &height);
    if (!text || y < top || y >= top + height) continue;
    Evas_Textblock_Cursor *cursor = evas_object_textblock_cursor_new(text);
    const int line = evas_textblock_cursor_line_coord_set(cursor, y - top);
    int line_y = 0, line_height = 0;
    evas_textblock_cursor_line_geometry_get(cursor, nullptr, &line_y, nullptr, &line_height);
    if (is_read && y - top > line_y + line_height / 2) evas_textblock_cursor_line_set(cursor, line + 1);
    evas_textblock_cursor_line_char_first(cursor);
    int characters = std::max(0, evas_textblock_cursor_pos_get(cursor) - _characters_before(body, i));
    evas_textblock_cursor_free(cursor);
    const char *start = body->text.c_str() + body->blocks[i].start;
    long all = g_utf8_strlen(start, (gssize)(_shown_end(body, i) - body->blocks[i].start));
    return (size_t)(g_utf8_offset_to_pointer(start, std::min((long)characters, all)) - body->text.c_str());
  }
  return no_anchor;
}

/* How far below a block's upper edge the line of that byte is. A block that is not laid out tells by its share. */
static int _line_top(const detail_body *body, size_t index, size_t at) {
  const text_block &block = body->blocks[index];
  int y = 0, height = 0, line = 0;
  Evas_Object *text = _text_of_block(body, index, &y, &height);
  if (!text) return (int)(block.height * (double)(at - block.start) / (double)(_end_of(body, index) - block.start));
  Evas_Textblock_Cursor *cursor = evas_object_textblock_cursor_new(text);
  long characters = g_utf8_strlen(body->text.c_str() + block.start, (gssize)(at - block.start));
  evas_textblock_cursor_pos_set(cursor, (int)characters + _characters_before(body, index));
  evas_textblock_cursor_line_geometry_get(cursor, nullptr, &line, nullptr, nullptr);
  evas_textblock_cursor_free(cursor);
  return line;
}

static void _set_anchor(detail_body *body, size_t at) {
  body->anchor = at;
  body->anchor_passes = at == no_anchor ? 0 : anchor_passes_max;
  if (body->rest && at != no_anchor) evas_object_smart_changed(body->rest);
}

static void _scroll_by(detail_body *body, int distance) {
  int x = 0, y = 0, w = 0, h = 0;
  elm_scroller_region_get(body->scroller, &x, &y, &w, &h);
  elm_scroller_region_show(body->scroller, x, y + distance, w, h);
}

static void _update_least_size(detail_body *body) {
  int height = 0, old_width = 0, old_height = 0;
  for (size_t i = 1; i < body->blocks.size(); i++) height += _height_of(body, i);
  height = std::max(height + body->lead, 0);
  evas_object_size_hint_min_get(body->rest, &old_width, &old_height);
  if (height != old_height || body->least_width != old_width)
    evas_object_size_hint_min_set(body->rest, body->least_width, height);
}

/* A layout works out how high it must be for the least width it can have, not for the one it has: its texts would count
   as columns of single words. The part makes the view's width the least one. */
static void _follow_view_width(detail_body *body) {
  int view = 0, layout = 0, width = 0;
  evas_object_geometry_get(body->scroller, nullptr, nullptr, &view, nullptr);
  evas_object_geometry_get(body->layout, nullptr, nullptr, &layout, nullptr);
  evas_object_geometry_get(body->rest, nullptr, nullptr, &width, nullptr);
  if (view <= 0 || width <= 0 || layout < view) return;
  body->least_width = view - (layout - width);
  _update_least_size(body);
}

/* Lays out the blocks that are on the screen, drops those that are far from it, and prepares at most one that is
   near, so that no frame of a scroll has more than one to pay for. Of a page beside, which nobody scrolls, none. */
static void _arrange(detail_body *body) {
  int x = 0, y = 0, w = 0, screen_w = 0, screen_h = 0, top = 0, view_h = 0;
  evas_object_geometry_get(body->rest, &x, &y, &w, nullptr);
  if (w <= 0) return;
  if (w != body->width) {
    if (body->width && body->anchor == no_anchor) _set_anchor(body, body->top);
    body->width = w;
    if (body->blocks.size() > 1) _measure_anew(body);
  }
  _settle_first_block(body);
  evas_output_size_get(evas_object_evas_get(body->rest), &screen_w, &screen_h);
  evas_object_geometry_get(body->scroller, nullptr, &top, nullptr, &view_h);
  int bottom = std::min(screen_h, top + view_h);
  int near_by = screen_h / 2;
  int moved = 0; /* how far what is on the screen was pushed by blocks above it */
  /* The beginning is where it is. */
  if (body->lead && (!body->is_flung || y > top - 2 * near_by)) {
    moved = -body->lead;
    body->lead = 0;
  }
  y += body->lead;
  int to_anchor = INT_MIN;
  bool may_prepare = x < screen_w && x + w > 0;
  if (body->anchor < _end_of(body, 0)) {
    int first_y = 0;
    if (_text_of_block(body, 0, &first_y, nullptr)) to_anchor = first_y + _line_top(body, 0, body->anchor) - top;
  }
  for (size_t i = 1; i < body->blocks.size(); i++) {
    text_block &block = body->blocks[i];
    int height = _height_of(body, i);
    bool on_screen = y < bottom && y + height > top;
    bool near_screen = y < bottom + near_by && y + height > top - near_by;
    bool above = y < top;
    if (!block.shown && (on_screen || (near_screen && may_prepare))) {
      if (!on_screen) may_prepare = false;
      bool guessed = !block.measured;
      _show_block(body, i);
      /* A block that reaches into the view from above stays in it with the same share. */
      int pushed = 0;
      if (guessed && above && !block.continues && body->anchor == no_anchor)
        pushed = (int)((double)(block.height - height) * std::min(1.0, (double)(top - y) / height));
      height = block.height;
      if (body->is_flung) {
        body->lead -= pushed;
        y -= pushed;
      } else {
        moved += pushed;
      }
    } else if (block.shown && (y >= bottom + 2 * near_by || y + height <= top - 2 * near_by)) {
      _hide_block(block);
    }
    if (block.shown) {
      evas_object_move(block.shown, x, y);
      evas_object_resize(block.shown, w, height);
    }
    if (body->anchor != no_anchor && block.start <= body->anchor && body->anchor < _end_of(body, i))
      to_anchor = y + _line_top(body, i, body->anchor) - top;
    y += height;
  }
  _update_least_size(body);
  /* What is above the screen turned out higher or lower than guessed: what is on it stays where it is. */
  if (to_anchor != INT_MIN) moved = to_anchor;
  if (body->anchor != no_anchor && --body->anchor_passes <= 0) body->anchor = no_anchor;
  if (moved) _scroll_by(body, moved);
  if (body->anchor != no_anchor)
    evas_object_smart_changed(body->rest);
  else
    body->top = _line_at(body, top, true);
}

/* --- the object in the part "detail.body_rest" -------------------------------------------------------------------- */

static detail_body *_body_of(const Evas_Object *obj) {
  return (detail_body *)evas_object_data_get(obj, body_key);
}

static const Evas_Smart_Class *_parent_class() {
  return evas_object_smart_clipped_class_get();
}

static void _rest_move(Evas_Object *obj, Evas_Coord x, Evas_Coord y) {
  _parent_class()->move(obj, x, y);
  evas_object_smart_changed(obj);
}

static void _rest_resize(Evas_Object *obj, Evas_Coord w, Evas_Coord h) {
  if (detail_body *body = _body_of(obj)) body->is_resized = true;
  evas_object_smart_changed(obj);
}

static void _rest_calculate(Evas_Object *obj) {
  detail_body *body = _body_of(obj);
  if (!body || !body->is_placed) return;
  if (body->is_resized) _follow_view_width(body);
  body->is_resized = false;
  _arrange(body);
}

/* The toolkit forgets its own record of an object that was taken out of a layout before it goes. */
static void _rest_del(Evas_Object *obj) {
  _parent_class()->del(obj);
  evas_object_smart_data_set(obj, nullptr);
}

static Evas_Smart *_rest_smart() {
  static Evas_Smart_Class rest_class;
  static Evas_Smart *smart;
  if (smart) return smart;
  rest_class = {.name = "brisel_detail_body", .version = EVAS_SMART_CLASS_VERSION};
  evas_smart_class_inherit(&rest_class, _parent_class());
  rest_class.del = _rest_del;
  rest_class.move = _rest_move;
  rest_class.resize = _rest_resize;
  rest_class.calculate = _rest_calculate;
  smart = evas_smart_class_new(&rest_class);
  return smart;
}

static void _scroller_resized_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  detail_body *body = (detail_body *)data;
  if (!body->rest) return;
  body->is_resized = true;
  evas_object_smart_changed(body->rest);
}

static void _flung_cb(void *data, Evas_Object *obj, void *event_info) {
  ((detail_body *)data)->is_flung = true;
}

static void _stands_cb(void *data, Evas_Object *obj, void *event_info) {
  detail_body *body = (detail_body *)data;
  body->is_flung = false;
  if (body->lead && body->rest) evas_object_smart_changed(body->rest);
}

static const struct {
  const char *name;
  Evas_Smart_Cb callback;
} scroller_events[] = {{"scroll,anim,start", _flung_cb}, {"scroll,anim,stop", _stands_cb}};

static void _rest_deleted_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  detail_body *body = (detail_body *)data;
  evas_object_data_del(obj, body_key);
  body->rest = nullptr;
  /* The blocks are members of the object and go with it. */
  for (text_block &block : body->blocks) block.shown = nullptr;
}

static void _layout_deleted_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  detail_body *body = (detail_body *)data;
  if (body->rest) {
    evas_object_event_callback_del_full(body->rest, EVAS_CALLBACK_DEL, _rest_deleted_cb, body);
    evas_object_data_del(body->rest, body_key);
  }
  evas_object_event_callback_del_full(body->scroller, EVAS_CALLBACK_RESIZE, _scroller_resized_cb, body);
  for (const auto &event : scroller_events)
    evas_object_smart_callback_del_full(body->scroller, event.name, event.callback, body);
  evas_object_data_del(obj, body_key);
  delete body;
}

void brisel_detail_body_attach(Evas_Object *layout, Evas_Object *scroller) {
  detail_body *body = new detail_body();
  body->layout = layout;
  body->scroller = scroller;
  body->font_size = 1;
  body->anchor = body->top = no_anchor;
  body->blocks.push_back({});
  evas_object_data_set(layout, body_key, body);
  evas_object_event_callback_add(layout, EVAS_CALLBACK_DEL, _layout_deleted_cb, body);
  if (!edje_object_part_exists(elm_layout_edje_get(layout), rest_part)) return;
  body->rest = evas_object_smart_add(evas_object_evas_get(layout), _rest_smart());
  evas_object_data_set(body->rest, body_key, body);
  evas_object_event_callback_add(body->rest, EVAS_CALLBACK_DEL, _rest_deleted_cb, body);
  evas_object_event_callback_add(scroller, EVAS_CALLBACK_RESIZE, _scroller_resized_cb, body);
  for (const auto &event : scroller_events) evas_object_smart_callback_add(scroller, event.name, event.callback, body);
  evas_object_show(body->rest);
  elm_object_part_content_set(layout, rest_part, body->rest);
  /* As wide as the layout is made, before its least size is worked out for the first time; see _follow_view_width. */
  edje_object_calc_force(elm_layout_edje_get(layout));
  evas_object_geometry_get(body->rest, nullptr, nullptr, &body->least_width, nullptr);
  if (body->least_width > 0) evas_object_size_hint_min_set(body->rest, body->least_width, 0);
}

void brisel_detail_body_place(Evas_Object *layout) {
  detail_body *body = _body_of(layout);
  if (!body) return;
  elm_object_content_set(body->scroller, layout);
  evas_object_show(layout);
  body->is_placed = true;
  if (body->rest) evas_object_smart_changed(body->rest);
}

/* The text is another one from the block on: cuts it anew from there. */
static void _cut_from(detail_body *body, size_t index, size_t start) {
  const bool continues = index && body->blocks[index].shown;
  for (size_t i = index; i < body->blocks.size(); i++) _hide_block(body->blocks[i]);
  body->blocks.resize(index);
  text_block next = {.start = start, .continues = continues};
  if (index && body->text[start - 1] != '\n') next.along = _open_direction(body->text, body->blocks.back(), start);
  body->blocks.push_back(next);
  _cut_rest(body);
  if (!index) {
    body->first_settled = false;
    _show_first_block(body);
  }
  if (!body->rest) return;
  _update_least_size(body);
  evas_object_smart_changed(body->rest);
}

void brisel_detail_body_set(Evas_Object *layout, std::string plain, const std::vector<text_mark> &marks) {
  detail_body *body = _body_of(layout);
  if (!body) return;
  body->marks = marks;
  bool fresh = body->text.empty();
  if (!fresh && plain == body->text) return;
  size_t same = 0, most = std::min(plain.size(), body->text.size());
  while (same < most && plain[same] == body->text[same]) same++;
  /* Blocks stay up to the last one that the old text filled: what comes behind it is cut anew. */
  size_t keep = 0;
  while (!fresh && keep + 1 < body->blocks.size() && _end_of(body, keep) <= same) keep++;
  const size_t start = keep ? _end_of(body, keep - 1) : 0;
  body->text = std::move(plain);
  _cut_from(body, keep, start);
}

void brisel_detail_body_append(Evas_Object *layout, std::string_view plain, const std::vector<text_mark> &marks,
                               size_t most) {
  detail_body *body = _body_of(layout);
  if (!body || plain.empty()) return;
  if (body->text.empty()) return brisel_detail_body_set(layout, std::string(plain), marks);
  body->marks = marks;
  const size_t size = body->text.size();
  if (body->text.capacity() < size + plain.size()) body->text.reserve(std::max(most, size + plain.size()));
  if (plain.size() >= long_text) platform_pages_get(body->text.data() + size, plain.size());
  body->text.append(plain);
  _cut_from(body, body->blocks.size() - 1, body->blocks.back().start);
}

void brisel_detail_body_set_font_size(Evas_Object *layout, int size) {
  detail_body *body = _body_of(layout);
  if (!body || body->font_size == size) return;
  body->font_size = size;
  if (!body->rest) return;
  if (body->width) _set_anchor(body, body->top);
  if (body->blocks.size() < 2) return;
  _measure_anew(body);
  _update_least_size(body);
  evas_object_smart_changed(body->rest);
}

size_t brisel_detail_body_top(Evas_Object *layout) {
  const detail_body *body = _body_of(layout);
  if (!body) return no_anchor;
  return body->anchor != no_anchor ? body->anchor : body->top;
}

void brisel_detail_body_go_to(Evas_Object *layout, size_t at) {
  detail_body *body = _body_of(layout);
  if (body && at < body->text.size()) _set_anchor(body, at);
}

size_t brisel_detail_body_line_at(Evas_Object *layout, int y) {
  const detail_body *body = _body_of(layout);
  return body ? _line_at(body, y, false) : no_anchor;
}

Eina_Bool brisel_detail_body_end_is_known(Evas_Object *layout) {
  detail_body *body = _body_of(layout);
  if (!body || body->blocks.size() < 2) return EINA_TRUE;
  return body->blocks.back().measured;
}

const char *brisel_detail_body_get(Evas_Object *layout, int *blocks) {
  detail_body *body = _body_of(layout);
  if (!body) return nullptr;
  if (blocks)
    *blocks =
        1 + (int)std::count_if(body->blocks.begin(), body->blocks.end(), [](const text_block &b) { return b.shown; });
  return body->text.c_str();
}
