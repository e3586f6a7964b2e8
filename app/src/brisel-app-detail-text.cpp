/* The mail's own texts on a page: the subject in two lines, the body with its quotes folded, taps on both, and the
   place that was read. Owns a page's detail_text. Pages, paging, touches and gestures call it. */
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "brisel-app-detail-body.h"
#include "brisel-app-detail-fold.h"
#include "brisel-app-detail.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "brisel-body.h"
#include "host-launch.h"
#include "platform-pages.h"

/* The longest subject shown, in bytes: about eighty lines. The text engine would take seconds for a whole book. */
constexpr size_t subject_shown_max = 2048;
constexpr int subject_lines_max = 2;
/* Of the rest of a body with each step: what that takes is a part of a frame. */
constexpr size_t step_bytes = 512 << 10;
/* Of a body's end, so that its tag is in it. */
constexpr size_t tail_bytes = 64;
/* Of a body's beginning, more than the largest display shows at once: bytes, in the most compact script, or lines. */
constexpr size_t beginning_shown_min = 4096;
constexpr int beginning_lines_min = 32;
static const char part_title[] = "detail.title";
static const char ellipsis[] = "\xE2\x80\xA6";

/* What a page shows of its body, and what of that is open. */
struct detail_text {
  std::string source;         /* the body as plain text, without its continuation tag; empty when it is what is shown,
                                 and of a body that came in pieces until it is wanted */
  std::vector<size_t> opened; /* the folds that were opened, by their place in source */
  detail_shown shown;         /* its text is empty once the layout has it */
  /* Of a body whose rest is in the store: how many bytes of it are made plain and folded; and all, once known. */
  size_t read, size;
  bool is_all_read, is_complete; /* up to its tag; so that says */
  bool is_odd;                   /* a tag stands in its midst: only the whole says where its text ends */
  detail_folding folding;
  std::unique_ptr<char, brisel_release<g_free>> whole; /* what is kept of it as it is, while that is not all */
  size_t whole_read;
};

void __brisel_detail_free_text(page_data *page) {
  delete page->text;
  page->text = nullptr;
}

/* --- the subject --- */

/* Up to the bound: longer than anybody reads on a watch. */
static std::string __brisel_detail_bounded_subject(const char *subject) {
  std::string shown = subject;
  if (shown.size() <= subject_shown_max) return shown;
  brisel_util_cut_utf8(shown.data(), subject_shown_max);
  shown.resize(strlen(shown.c_str()));
  return shown + ellipsis;
}

/* Where the line after the last one that fits begins, in characters; -1: all fit. */
static int __brisel_detail_line_too_many(Evas_Object *probe, const std::string &text, int lines, bool is_small) {
  scoped_text markup(brisel_util_text_to_markup_whole(text.c_str()));
  evas_object_textblock_text_markup_set(probe, (std::string(is_small ? "<label>" : "") + markup.get()).c_str());
  Evas_Textblock_Cursor *cursor = evas_object_textblock_cursor_new(probe);
  int at = evas_textblock_cursor_line_set(cursor, lines) ? evas_textblock_cursor_pos_get(cursor) : -1;
  evas_textblock_cursor_free(cursor);
  return at;
}

/* What the theme says of a length that it has, in pixels of this scale. */
static int __brisel_detail_theme_length(const Evas_Object *edje, const char *name) {
  const char *length = edje_object_data_get(edje, name);
  return (int)(atoi(length ? length : "0") * elm_config_scale_get());
}

/* How many lines leave the mail's text one on the first screen. */
static int __brisel_detail_subject_lines(page_data *page, const Evas_Object *edje, Evas_Object *probe) {
  int line = 0;
  evas_object_textblock_text_markup_set(probe, "X");
  evas_object_textblock_size_formatted_get(probe, nullptr, &line);
  int title = 0;
  edje_object_part_geometry_get(elm_layout_edje_get(page->page_layout), "title", nullptr, nullptr, nullptr, &title);
  int room = page->height - line - title - __brisel_detail_theme_length(edje, "detail.fields.height");
  page->is_tight = 0;
  if (page->mail_data->has_image) {
    room -= __brisel_detail_theme_length(edje, "detail.image.height");
    page->is_tight = room < line * 4 / 5; /* letters are not as high as their line */
    __brisel_detail_signal(page->detail_layout, page->is_tight ? "do-tight-image-field" : "do-roomy-image-field");
  }
  return std::clamp(room / std::max(line, 1), 1, subject_lines_max);
}

/* The subject in as many lines as leave the mail's text room on the first screen; the theme tells what of the view is
   not the subject's. */
static std::string __brisel_detail_fit_subject(page_data *page, const std::string &whole) {
  Evas_Object *edje = elm_layout_edje_get(page->detail_layout);
  edje_object_calc_force(edje); /* the part takes its style now */
  Evas_Object *part = (Evas_Object *)edje_object_part_object_get(edje, part_title);
  int width = page->width - __brisel_detail_theme_length(edje, "detail.title.margins");
  if (!part || width <= 0) return whole;
  Evas_Object *probe = evas_object_textblock_add(evas_object_evas_get(part));
  evas_object_textblock_style_set(probe, evas_object_textblock_style_get(part));
  evas_object_scale_set(probe, evas_object_scale_get(part));
  evas_object_resize(probe, width, width);
  int lines = __brisel_detail_subject_lines(page, edje, probe);
  std::string shown = whole;
  for (int at = __brisel_detail_line_too_many(probe, shown, lines, page->is_tight); at > 0;
       at = __brisel_detail_line_too_many(probe, shown + ellipsis, lines, page->is_tight)) {
    long length = g_utf8_strlen(shown.c_str(), -1);
    shown.resize((size_t)(g_utf8_offset_to_pointer(shown.c_str(), std::min((long)at, length - 1)) - shown.c_str()));
    while (!shown.empty() && strchr(" \n\t", shown.back())) shown.pop_back();
  }
  evas_object_del(probe);
  return shown == whole ? whole : shown + ellipsis;
}

static std::string __brisel_detail_tight(const std::string &text) {
  scoped_text markup(brisel_util_text_to_markup_whole(text.c_str()));
  scoped_text tight(brisel_detail_tight_markup(text.c_str(), markup ? markup.get() : ""));
  return tight ? tight.get() : "";
}

void __brisel_detail_set_subject(page_data *page) {
  const char *subject = page->mail_data->subject;
  const bool has_subject = subject && *subject;
  const std::string whole =
      has_subject ? __brisel_detail_bounded_subject(subject) : brisel_util_get_text("IDS_EMAIL_BODY_HNO_SUBJECT_ABB");
  std::string shown = whole;
  bool is_small = false;
  if (!has_subject || !page->is_subject_whole) {
    const std::string fitted = __brisel_detail_fit_subject(page, shown);
    /* What the application says is smaller, rather than cut or at the cost of the mail's text. */
    is_small = !has_subject && fitted != shown;
    if (has_subject) shown = fitted;
  }
  const bool is_cut = shown != whole;
  shown = __brisel_detail_tight(shown);
  if (is_small || page->is_tight) shown = "<label>" + shown + "</label>";
  const char *sender = page->is_sender_whole ? brisel_view_sender(page->mail_data) : nullptr;
  const std::string above = sender ? __brisel_detail_bounded_subject(sender) : "";
  if (sender) shown = "<sender>" + __brisel_detail_tight(above) + "</sender><br>" + shown;
  elm_object_part_text_set(page->detail_layout, part_title, shown.c_str());
  Evas_Object *part = (Evas_Object *)edje_object_part_object_get(elm_layout_edje_get(page->detail_layout), part_title);
  const std::string name = (sender ? above + "\n" : "") + whole;
  if (part) evas_object_name_set(part, is_cut ? name.c_str() : nullptr); /* for who inspects what was cut */
}

/* --- the sender --- */

/* Where the title cuts the sender, of the canvas; empty where the whole of it stands there, or something else. */
static Eina_Rectangle __brisel_detail_cut_sender(const page_data *page) {
  static const char part_sender[] = "elm.text.title";
  Evas_Object *title = page->page_layout ? elm_object_part_content_get(page->page_layout, "title") : nullptr;
  Evas_Object *part =
      title ? (Evas_Object *)edje_object_part_object_get(elm_layout_edje_get(title), part_sender) : nullptr;
  scoped_text markup(brisel_view_sender_title(page->mail_data));
  if (!part || g_strcmp0(elm_object_part_text_get(title, part_sender), markup.get()) != 0) return {};
  if (!brisel_view_is_cut(part)) return {};
  Eina_Rectangle place = {};
  evas_object_geometry_get(part, &place.x, nullptr, &place.w, nullptr);
  evas_object_geometry_get(title, nullptr, &place.y, nullptr, &place.h);
  return place;
}

/* The page's top has room for all of it, as it has for a long subject. */
static void __brisel_detail_sender_tapped(page_data *page) {
  page->is_sender_whole = !page->is_sender_whole;
  page->tapped = &page->is_sender_whole;
  __brisel_detail_set_subject(page);
  if (page->is_sender_whole) elm_scroller_region_show(page->scroller, 0, 0, 1, 1);
}

/* --- the body --- */

/* Only what stands before the last continuation tag is ever shown. Looked for from the end, by its first letter: a body
   without one may be a megabyte. */
static size_t __brisel_detail_shown_body_length(const char *body, bool is_beginning = false) {
  size_t length = strlen(body);
  /* Half of one may stand where a beginning ends. */
  if (is_beginning)
    for (size_t half = std::min(length, sizeof(tag_start) - 1); half > 0; half--)
      if (strncmp(body + length - half, tag_start, half) == 0) length -= half;
  const char *at = body + length;
  while ((at = (const char *)memrchr(body, *tag_start, (size_t)(at - body))))
    if (strncmp(at, tag_start, sizeof(tag_start) - 1) == 0) return (size_t)(at - body);
  return length;
}

/* As plain text; kept where the shown text does not tell it. */
static void __brisel_detail_make_plain(const page_data *page) {
  const char *body = page->mail_data->body ? page->mail_data->body : "";
  page->text->source = brisel_detail_plain_text(body, __brisel_detail_shown_body_length(body));
}

static void __brisel_detail_fold_body(const page_data *page) {
  detail_text *text = page->text;
  if (text->source.empty()) __brisel_detail_make_plain(page);
  text->shown = brisel_detail_fold(&text->source, text->opened, page->ad);
}

/* A page's parts say nothing to who only listens: it is read as a whole. */
void __brisel_detail_name_page(const page_data *page) {
  if (!brisel_view_is_spoken()) return;
  std::string name;
  if (page->text->source.empty() && !page->text->shown.pieces.empty()) __brisel_detail_make_plain(page);
  const char *body =
      page->text->source.empty() ? brisel_detail_body_get(page->detail_layout, nullptr) : page->text->source.c_str();
  for (const char *text : {brisel_view_sender(page->mail_data), (const char *)page->mail_data->subject,
                           elm_object_part_text_get(page->detail_layout, "detail.time"), body,
                           elm_object_part_text_get(page->detail_layout, "detail.attachment")})
    if (text && *text) name.append(name.empty() ? "" : ", ").append(text);
  brisel_view_set_spoken_name(page->detail_layout, name.c_str());
  brisel_view_say_name(page->detail_layout);
}

/* Takes what can be told by raw, which begins behind what is read. Returns how much that is. */
static size_t __brisel_detail_take(const page_data *page, std::string_view raw) {
  detail_text *text = page->text;
  const bool is_last = text->read + raw.size() == text->size;
  size_t tag = raw.find(tag_start), length = raw.size() - std::min(raw.size(), tail_bytes);
  text->is_odd = text->is_odd || (tag != std::string_view::npos && text->read + tag + tail_bytes < text->size);
  if (text->is_odd) return 0;
  if (is_last) {
    tag = raw.rfind(tag_start);
    length = std::min(tag, raw.size());
    text->is_all_read = true;
    text->is_complete = raw.ends_with(tag_complete);
  } else {
    length = brisel_detail_whole_part(raw.data(), length);
  }
  text->read += length;
  brisel_detail_fold_on(&text->folding, brisel_detail_plain_text(raw.data(), length), is_last, text->opened, page->ad,
                        &text->shown);
  return length;
}

void __brisel_detail_read_body(page_data *page) {
  if (!page->text) page->text = new detail_text();
  detail_text *text = page->text;
  std::vector<size_t> opened = std::move(text->opened);
  *text = {.opened = std::move(opened)};
  if (page->rest == DETAIL_REST_NONE) return __brisel_detail_fold_body(page);
  const char *body = page->mail_data->body ? page->mail_data->body : "";
  text->read = brisel_detail_whole_part(body, __brisel_detail_shown_body_length(body, true));
  brisel_detail_fold_on(&text->folding, brisel_detail_plain_text(body, text->read), false, text->opened, page->ad,
                        &text->shown);
}

static int __brisel_detail_size_cb(const char *piece, size_t length, size_t size, void *data) {
  *(size_t *)data = size;
  return 0;
}

/* A body that changes is longer, or another one from its beginning on. */
bool __brisel_detail_is_as_read(const page_data *page) {
  size_t size = 0;
  return !page->text || !page->text->size ||
         (brisel_db_walk_body_by_mail_id(page->mail_data->mail_id, 0, 0, __brisel_detail_size_cb, &size) == 0 &&
          size == page->text->size);
}

/* From the store to a page. */
struct detail_walk {
  const page_data *page;
  size_t wanted;   /* bytes, or as many as fill a page */
  std::string raw; /* what is not taken yet */
  bool is_other;   /* another body is there than was read */
};

static bool __brisel_detail_is_body(detail_walk *walk, size_t size) {
  detail_text *text = walk->page->text;
  walk->is_other = (text->size && text->size != size) || size < text->read;
  text->size = size;
  return !walk->is_other;
}

static int __brisel_detail_enough_cb(const char *piece, size_t length, size_t size, void *data) {
  detail_walk *walk = (detail_walk *)data;
  const detail_text *text = walk->page->text;
  if (!__brisel_detail_is_body(walk, size)) return 0;
  walk->raw.append(piece, length);
  walk->raw.erase(0, __brisel_detail_take(walk->page, walk->raw));
  return !text->is_odd && (text->read < walk->wanted || !__brisel_detail_is_beginning_enough(walk->page));
}

static bool __brisel_detail_walk(detail_walk *walk, size_t from, size_t most, brisel_body_cb callback) {
  const int result = brisel_db_walk_body_by_mail_id(walk->page->mail_data->mail_id, from, most, callback, walk);
  if (result != 0) BRISEL_ERROR("brisel_db_walk_body_by_mail_id() failed! err:[%d]", result);
  return result == 0 && !walk->is_other;
}

/* Up to so many bytes at least. */
static bool __brisel_detail_read_up_to(const page_data *page, size_t wanted) {
  detail_walk walk = {page, wanted, "", false};
  return __brisel_detail_walk(&walk, page->text->read, SIZE_MAX, __brisel_detail_enough_cb) && !page->text->is_odd;
}

bool __brisel_detail_read_on(const page_data *page) {
  return __brisel_detail_read_up_to(page, 0);
}

static std::vector<text_mark> __brisel_detail_marks(const detail_shown &shown) {
  std::vector<text_mark> marks;
  for (const detail_piece &piece : shown.pieces)
    if (piece.is_fold) marks.push_back({piece.shown, piece.shown_length});
  return marks;
}

void __brisel_detail_show_body(const page_data *page) {
  detail_shown &shown = page->text->shown;
  page->text->folding.given = shown.text.size();
  brisel_detail_body_set(page->detail_layout, std::move(shown.text),
                         __brisel_detail_marks(shown)); /* a long one is not kept twice */
  shown.text.clear();
  __brisel_detail_name_page(page);
}

void __brisel_detail_set_body(page_data *page) {
  const size_t read = page->text ? page->text->read : 0;
  __brisel_detail_read_body(page);
  if (page->rest != DETAIL_REST_NONE && (page->text->read < read || !__brisel_detail_is_beginning_enough(page)))
    __brisel_detail_read_up_to(page, read);
  __brisel_detail_show_body(page);
}

static int __brisel_detail_rest_cb(const char *piece, size_t length, size_t size, void *data) {
  detail_walk *walk = (detail_walk *)data;
  detail_text *text = walk->page->text;
  if (!__brisel_detail_is_body(walk, size)) return 0;
  if (!text->whole_read) {
    const char *beginning = walk->page->mail_data->body ? walk->page->mail_data->body : "";
    walk->is_other = !std::string_view(piece, length).starts_with(beginning);
    text->whole.reset(walk->is_other ? nullptr : (char *)g_try_malloc(size + 1));
  }
  if (!text->whole) return 0;
  char *to = text->whole.get() + text->whole_read;
  if (text->whole_read % step_bytes == 0) platform_pages_get(to, std::min(step_bytes, size - text->whole_read) + 1);
  memcpy(to, piece, length);
  text->whole_read += length;
  return 1;
}

bool __brisel_detail_read_rest(page_data *page, bool *is_other) {
  detail_text *text = page->text;
  detail_walk walk = {page, 0, "", false};
  const bool is_read = __brisel_detail_walk(&walk, text->whole_read, step_bytes, __brisel_detail_rest_cb);
  *is_other = walk.is_other;
  if (!is_read || !text->whole) return false;
  if (!text->is_all_read && text->whole_read > text->read) {
    __brisel_detail_take(page, {text->whole.get() + text->read, text->whole_read - text->read});
    std::string *shown = &text->shown.text;
    text->folding.given += shown->size();
    brisel_detail_body_append(page->detail_layout, *shown, __brisel_detail_marks(text->shown), text->size);
    shown->clear();
  }
  if (text->whole_read < text->size) return true;
  text->whole.get()[text->size] = 0;
  g_free(page->mail_data->body);
  page->mail_data->body = text->whole.release();
  page->rest = DETAIL_REST_NONE;
  text->source.clear(); /* for who only listens it was the beginning's */
  if (text->is_odd)
    __brisel_detail_set_body(page);
  else
    __brisel_detail_name_page(page);
  return true;
}

bool __brisel_detail_has_notice(const page_data *page) {
  if (page->rest == DETAIL_REST_NONE) return !__brisel_detail_ends_with_tag(page->mail_data->body, tag_complete);
  const detail_text *text = page->text; /* what a body ends in stands in its rest */
  return text && text->is_all_read && !text->is_complete;
}

/* --- taps --- */

static bool __brisel_detail_is_inside(Evas_Object *object, int x, int y) {
  int left = 0, top = 0, width = 0, height = 0;
  if (object) evas_object_geometry_get(object, &left, &top, &width, &height);
  return x >= left && x < left + width && y >= top && y < top + height;
}

void __brisel_detail_tapped(brisel_detail_view *view_data, int x, int y) {
  page_data *page = view_data->page_data[BRISEL_DETAIL_CUR_PAGE];
  __brisel_detail_finish_rest(view_data, page); /* what is opened may end in it */
  if (!page->text || !page->detail_layout || !page->scroller) return;
  page->tapped = nullptr;
  page->has_opened = 0;
  const Eina_Rectangle sender = __brisel_detail_cut_sender(page);
  if (eina_rectangle_coords_inside(&sender, x, y)) return __brisel_detail_sender_tapped(page);
  if (!__brisel_detail_is_inside(page->scroller, x, y)) return;
  Evas_Object *edje = elm_layout_edje_get(page->detail_layout);
  if (__brisel_detail_is_inside((Evas_Object *)edje_object_part_object_get(edje, part_title), x, y)) {
    page->is_subject_whole = !page->is_subject_whole;
    page->tapped = &page->is_subject_whole;
    __brisel_detail_set_subject(page);
    return;
  }
  size_t at = brisel_detail_body_line_at(page->detail_layout, y);
  const detail_piece *piece = brisel_detail_piece_at(page->text->shown, at);
  if (!piece || !piece->is_fold) return;
  page->text->opened.push_back(piece->source);
  page->has_opened = 1;
  if (page->rest != DETAIL_REST_NONE) return __brisel_detail_set_body(page); /* the rest could not be read */
  __brisel_detail_fold_body(page);
  __brisel_detail_show_body(page);
}

void __brisel_detail_take_tap_back(page_data *page) {
  if (page->tapped) *page->tapped = !*page->tapped;
  if (page->has_opened && page->text && !page->text->opened.empty()) page->text->opened.pop_back();
  page->tapped = nullptr;
  page->has_opened = 0;
}

std::vector<Eina_Rectangle> __brisel_detail_tap_places(const page_data *page) {
  std::vector<Eina_Rectangle> places;
  if (!page->text || !page->detail_layout || !page->scroller) return places;
  if (const Eina_Rectangle sender = __brisel_detail_cut_sender(page); sender.w > 0) places.push_back(sender);
  Eina_Rectangle view = {}, subject = {};
  evas_object_geometry_get(page->scroller, &view.x, &view.y, &view.w, &view.h);
  Evas_Object *edje = elm_layout_edje_get(page->detail_layout);
  if (Evas_Object *part = (Evas_Object *)edje_object_part_object_get(edje, part_title))
    evas_object_geometry_get(part, &subject.x, &subject.y, &subject.w, &subject.h);
  const char *title = elm_object_part_text_get(page->detail_layout, part_title);
  const bool opens = page->is_subject_whole || (title && strstr(title, ellipsis));
  if (opens && eina_rectangle_intersection(&subject, &view)) places.push_back(subject);
  const detail_piece *last = nullptr;
  for (int y = view.y; y < view.y + view.h; y++) {
    const detail_piece *piece =
        brisel_detail_piece_at(page->text->shown, brisel_detail_body_line_at(page->detail_layout, y));
    if (piece && !piece->is_fold) piece = nullptr;
    if (piece && piece == last) places.back().h++;
    if (piece && piece != last) places.push_back({view.x, y, view.w, 1});
    last = piece;
  }
  return places;
}

/* --- the place that was read --- */

/* By mail, the latest at the end. A place is worth keeping while the mail is still in mind: no longer than the
   application runs, and for no more mails than anybody goes back to. */
constexpr size_t places_max = 64;
static std::vector<std::pair<int, size_t>> places;

void __brisel_detail_keep_place(const page_data *page) {
  if (!page->detail_layout || !page->scroller || !page->text) return;
  int mail_id = page->mail_data->mail_id;
  std::erase_if(places, [mail_id](const auto &place) { return place.first == mail_id; });
  size_t top = brisel_detail_body_top(page->detail_layout);
  if (top == std::string::npos) return;
  if (places.size() == places_max) places.erase(places.begin());
  places.push_back({mail_id, brisel_detail_source_of(page->text->shown, top)});
}

bool __brisel_detail_is_beginning_enough(const page_data *page) {
  const detail_shown &shown = page->text->shown;
  if (page->text->is_all_read) return true;
  for (const auto &[mail_id, source] : places)
    if (mail_id == page->mail_data->mail_id &&
        brisel_detail_place_of(shown, source) + beginning_shown_min > shown.text.size())
      return false;
  return shown.text.size() >= beginning_shown_min ||
         std::count(shown.text.begin(), shown.text.end(), '\n') >= beginning_lines_min;
}

void __brisel_detail_go_to_place(const page_data *page) {
  for (const auto &[mail_id, source] : places)
    if (mail_id == page->mail_data->mail_id)
      brisel_detail_body_go_to(page->detail_layout, brisel_detail_place_of(page->text->shown, source));
}

void brisel_detail_show_on_device(int mail_id, appdata *ad) {
  const auto *view = (const brisel_detail_view *)brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, ad);
  const page_data *page = view ? __brisel_detail_find_page(view, mail_id) : nullptr;
  if (page) __brisel_detail_keep_place(page);
  for (const auto &[id, source] : places)
    if (id == mail_id) launch_host_set_position(mail_id, (int)source);
  brisel_util_show_on_device(&mail_id, 1);
}

/* --- the place among the mails --- */

/* Seconds. */
constexpr double place_told_time = 1.0;

static void __brisel_detail_set_title(const page_data *page, const char *markup) {
  Evas_Object *title = page->page_layout ? elm_object_part_content_get(page->page_layout, "title") : nullptr;
  if (title) elm_object_part_text_set(title, "elm.text.title", markup);
}

void __brisel_detail_set_sender(const brisel_detail_view *view_data, const page_data *page) {
  /* Its turn comes when the time of the place is over. */
  if (view_data->place_timer && view_data->placed_id == page->mail_data->mail_id) return;
  scoped_text sender(brisel_view_sender_title(page->mail_data));
  __brisel_detail_set_title(page, sender.get());
}

void __brisel_detail_end_place(brisel_detail_view *view_data) {
  if (!view_data->place_timer) return;
  ecore_timer_del(view_data->place_timer);
  view_data->place_timer = nullptr;
  if (const page_data *page = __brisel_detail_find_page(view_data, view_data->placed_id))
    __brisel_detail_set_sender(view_data, page);
}

static Eina_Bool __brisel_detail_place_timer_cb(void *data) {
  __brisel_detail_end_place((brisel_detail_view *)data);
  return ECORE_CALLBACK_CANCEL;
}

void __brisel_detail_tell_place(brisel_detail_view *view_data) {
  __brisel_detail_end_place(view_data);
  appdata *ad = view_data->ad;
  int at = 0, count = 0;
  brisel_complete_mail_list(ad);
  for (const GList *node = ad->mail_list; node; node = node->next) {
    count++;
    if (((const item_data *)node->data)->mail_id == view_data->mail_id) at = count;
  }
  if (!at) return;
  scoped_text number(brisel_util_get_localized_number_str(at, ad));
  scoped_text all(brisel_util_get_localized_number_str(count, ad));
  scoped_text half(brisel_replace_str(brisel_util_get_text("IDS_EMAIL_BODY_PS_OF_PS"), "%1$s", number.get()));
  scoped_text text(half ? brisel_replace_str(half.get(), "%2$s", all.get()) : nullptr);
  if (!text) return;
  __brisel_detail_set_title(view_data->page_data[BRISEL_DETAIL_CUR_PAGE], text.get());
  view_data->placed_id = view_data->mail_id;
  view_data->place_timer = ecore_timer_add(place_told_time, __brisel_detail_place_timer_cb, view_data);
}
