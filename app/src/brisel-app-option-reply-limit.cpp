/* Owns the limit of a typed reply: what a reader sees as one character goes in whole or not at all. The typed view
   alone calls it. */
#include <unicode/ubrk.h>
#include <unicode/uchar.h>
#include <unicode/utext.h>

#include "brisel-app-option-reply.h"
#include "brisel-scoped.h"

/* What no key brings at once was pasted. */
static constexpr int BRISEL_KEY_TEXT_MAX = 8; /* code points */

static constexpr gunichar ZERO_WIDTH_JOINER = 0x200D;
static constexpr gunichar FIRST_REGIONAL_INDICATOR = 0x1F1E6, LAST_REGIONAL_INDICATOR = 0x1F1FF;
static constexpr gunichar FIRST_TAG = 0xE0020, LAST_TAG = 0xE007E; /* U+E007F ends what they spell */

/* The last place, in code points, at or before max where text has the end of what a reader sees as one character: an
   emoji made of several code points, or a letter and its accents. */
static int __brisel_option_reply_character_end(const char *text, int max) {
  UErrorCode status = U_ZERO_ERROR;
  UText *utext = utext_openUTF8(nullptr, text, -1, &status);
  UBreakIterator *breaks = ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status);
  ubrk_setUText(breaks, utext, &status);
  int last = 0;
  if (U_SUCCESS(status)) {
    ubrk_first(breaks);
    for (int32_t end = ubrk_next(breaks); end != UBRK_DONE; end = ubrk_next(breaks)) {
      int code_points = (int)g_utf8_strlen(text, end);
      if (code_points > max) break;
      last = code_points;
    }
  }
  ubrk_close(breaks);
  utext_close(utext);
  return last;
}

/* Whether the beginning of a character means nothing without its rest: half a flag, a picture that waits for the one
   joined to it, tags without their end. A letter that waits for an accent stands by itself. */
static bool __brisel_option_reply_is_unfinished(const char *begin) {
  const char *last = begin;
  for (const char *at = begin; *at; at = g_utf8_next_char(at)) last = at;
  const gunichar code = g_utf8_get_char(last);
  if (code == ZERO_WIDTH_JOINER)
    return u_hasBinaryProperty((UChar32)g_utf8_get_char(begin), UCHAR_EXTENDED_PICTOGRAPHIC);
  return (code >= FIRST_REGIONAL_INDICATOR && code <= LAST_REGIONAL_INDICATOR) ||
         (code >= FIRST_TAG && code <= LAST_TAG);
}

/* Takes back the code points before the cursor whose rest was refused. */
static void __brisel_option_reply_take_back_cb(void *data) {
  option_reply_view_data *vd = (option_reply_view_data *)data;
  vd->take_back_job = nullptr;
  if (!vd->content_obj) return;
  const scoped_text plain(elm_entry_markup_to_utf8(elm_entry_entry_get(vd->content_obj)));
  int cursor = plain ? elm_entry_cursor_pos_get(vd->content_obj) : 0;
  if (!plain || cursor < vd->take_back || cursor > g_utf8_strlen(plain.get(), -1)) return;
  std::string text = plain.get();
  const size_t from = (size_t)(g_utf8_offset_to_pointer(text.c_str(), cursor - vd->take_back) - text.c_str());
  const size_t to = (size_t)(g_utf8_offset_to_pointer(text.c_str(), cursor) - text.c_str());
  text.erase(from, to - from);
  const scoped_text markup(elm_entry_utf8_to_markup(text.c_str()));
  elm_entry_entry_set(vd->content_obj, markup.get());
  elm_entry_cursor_pos_set(vd->content_obj, cursor - vd->take_back);
}

/* How many of the code points of added fit behind before, when there is room for so many more; below 0: so many of
   before are the beginning of a character that can no longer be finished. */
static int __brisel_option_reply_taken(const std::string &before, const std::string &added, int room) {
  const int cursor = (int)g_utf8_strlen(before.c_str(), -1);
  // The text before the cursor counts too: what is added may go on with its last character.
  const int taken = __brisel_option_reply_character_end((before + added).c_str(), cursor + MAX(room, 0)) - cursor;
  if (taken < 0)
    return __brisel_option_reply_is_unfinished(g_utf8_offset_to_pointer(before.c_str(), cursor + taken)) ? taken : 0;
  return g_utf8_strlen(added.c_str(), -1) <= BRISEL_KEY_TEXT_MAX ? 0 : taken;
}

/* Stands before the length filter, which counts code points and would cut between those of one character. */
static void __brisel_option_reply_whole_characters_filter(void *data, Evas_Object *entry, char **text) {
  option_reply_view_data *vd = (option_reply_view_data *)data;
  if (!*text) return;
  const scoped_text current(elm_entry_markup_to_utf8(elm_entry_entry_get(entry)));
  const scoped_text added(elm_entry_markup_to_utf8(*text));
  if (!current || !added) return;
  const int length = (int)g_utf8_strlen(current.get(), -1);
  const int room = BRISEL_TYPED_REPLY_MAX - length;
  if (g_utf8_strlen(added.get(), -1) <= room) return;

  const int cursor = CLAMP(elm_entry_cursor_pos_get(entry), 0, length);
  const std::string before(current.get(), g_utf8_offset_to_pointer(current.get(), cursor));
  const int taken = __brisel_option_reply_taken(before, added.get(), room);
  *g_utf8_offset_to_pointer(added.get(), MAX(taken, 0)) = 0;
  free(*text);
  *text = elm_entry_utf8_to_markup(added.get());
  if (taken < 0 && !vd->take_back_job) {
    // Not from inside the insertion that is being filtered.
    vd->take_back = -taken;
    vd->take_back_job = ecore_job_add(__brisel_option_reply_take_back_cb, vd);
  }
  evas_object_smart_callback_call(entry, "maxlength,reached", nullptr);
}

void brisel_reply_limit_entry(option_reply_view_data *vd, Evas_Object *entry) {
  static Elm_Entry_Filter_Limit_Size limit = {BRISEL_TYPED_REPLY_MAX, 0};  // outlives every entry
  elm_entry_markup_filter_append(entry, __brisel_option_reply_whole_characters_filter, vd);
  elm_entry_markup_filter_append(entry, elm_entry_filter_limit_size, &limit);
}
