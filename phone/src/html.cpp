/* HTML mail as readable text. One pass, no tree: nothing in a document can make it take more than linear time. */
#include <glib.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "html-tags.h"
#include "text.h"

namespace {

constexpr size_t kMaxNesting = 16; /* of lists and quotes as shown; deeper ones stay at this depth */

struct list_level {
  bool ordered;
  long next;
};

struct writer {
  std::string out;
  size_t max;
  int newlines = 0;   /* wanted before the next text */
  bool blank = false; /* wanted before the next text of the same line */
  bool start = true;  /* nothing on this line yet */
  int quote = 0;
  int pre = 0;
  std::string marker; /* of the list item that begins with the next text */
  std::array<list_level, kMaxNesting> lists;
  size_t list_depth = 0;
  int last_quote = 0;        /* of the last line with text: an empty line belongs to the shallower neighbour */
  bool cell_wide = false;    /* the current table cell has more than one line */
  bool cell_start = false;   /* nothing in the current table cell yet */
  bool in_cell = false;      /* one was opened in this row */
  bool cell_follows = false; /* a cell of the same row stands before it */
  bool full() const { return out.size() >= max; }
};

void line_break(writer *w, int count) {
  w->blank = false;
  if (w->cell_start) return; /* a paragraph that opens a cell stays on the row's line */
  if (w->out.empty()) return;
  w->newlines = std::max(w->newlines, count);
}

/* Brings the line to where the next character of text goes. */
void open_line(writer *w) {
  bool opens_cell = w->cell_start;
  if (w->cell_start) {
    if (w->cell_follows && !w->start && w->newlines == 0) w->out += "  ";
    w->cell_start = false;
    w->blank = false;
  }
  if (w->newlines > 0) {
    if (!opens_cell) w->cell_wide = true;
    int quote = std::min(w->quote, w->last_quote);
    for (int i = 0; i < w->newlines; i++) {
      w->out += '\n';
      if (i + 1 < w->newlines)
        for (int depth = 0; depth < quote; depth++) w->out += depth + 1 < quote ? "> " : ">";
    }
    w->newlines = 0;
    w->start = true;
  }
  if (w->start) {
    for (int depth = 0; depth < w->quote; depth++) w->out += "> ";
    w->last_quote = w->quote;
    size_t indent = w->list_depth > 0 ? w->list_depth - 1 : 0;
    w->out.append(indent * 2, ' ');
    if (!w->marker.empty())
      w->out += w->marker;
    else if (w->list_depth > 0)
      w->out += "  ";
    w->marker.clear();
    w->start = false;
    w->blank = false;
  }
  if (w->blank) w->out += ' ';
  w->blank = false;
}

void put_char(writer *w, uint32_t c) {
  if (w->full()) return;
  if (w->pre > 0 && c == '\n') {
    w->newlines = std::min(w->newlines + 1, 3);
    w->blank = false;
    return;
  }
  if (c == '\r' || c == 0xad || c == 0x200b || c == 0x34f || c == 0xfeff || (c < 0x20 && c != '\n' && c != '\t') ||
      (c >= 0x7f && c < 0xa0))
    return;
  bool white = c == ' ' || c == '\n' || c == '\t' || c == 0xa0 || c == 0x2002 || c == 0x2003 || c == 0x2009;
  if (white && w->pre == 0) {
    if (!w->start && w->newlines == 0 && !w->cell_start) w->blank = true;
    return;
  }
  /* A joiner between nothing and nothing is padding. */
  if ((c == 0x200c || c == 0x200d || c == 0x200e || c == 0x200f) && (w->start || w->blank || w->newlines > 0)) return;
  open_line(w);
  text_append_char(&w->out, c == 0xa0 ? ' ' : c);
}

/* All other signs are neither blank nor the start of anything: behind one that has been put they only follow. */
constexpr auto is_no_letter = [](auto c) { return (c <= ' ') | (c >= 0x7f) | (c == '&'); };

void put_text(writer *w, std::string_view text) {
  for (size_t i = 0; i < text.size() && !w->full();) {
    if (text[i] == '&') {
      size_t next = i;
      uint32_t c = html_read_entity(text, &next);
      if (c != 0) {
        put_char(w, c);
        i = next;
        continue;
      }
    }
    auto byte = static_cast<unsigned char>(text[i]);
    if (!is_no_letter(byte)) {
      put_char(w, byte);
      size_t first = i + 1, room = w->full() ? 0 : w->max - w->out.size();
      i = text_words_end(text.substr(0, first + std::min(text.size() - first, room)), first, is_no_letter);
      w->out.append(text, first, i - first);
    } else if (byte < 0x80) {
      put_char(w, byte);
      i++;
    } else {
      gunichar c = g_utf8_get_char_validated(text.data() + i, static_cast<gssize>(text.size() - i));
      if (c == static_cast<gunichar>(-1) || c == static_cast<gunichar>(-2)) {
        i++;
        continue;
      }
      put_char(w, c);
      i += static_cast<size_t>(g_utf8_skip[byte]);
    }
  }
}

bool one_of(std::string_view name, std::initializer_list<std::string_view> names) {
  for (std::string_view candidate : names)
    if (name == candidate) return true;
  return false;
}

bool is_void(const std::string &name) {
  return one_of(name,
                {"br", "img", "hr", "input", "meta", "link", "area", "base", "col", "embed", "source", "track", "wbr"});
}

bool is_unshown(const std::string &name) {
  return one_of(name, {"head", "title", "template", "svg", "object", "iframe", "noframes", "noembed", "audio", "video",
                       "canvas", "select", "datalist", "xml", "map", "applet"});
}

/* What stands in a body and never in a head. */
bool is_of_body(const std::string &name) {
  return one_of(name, {"body",    "p",      "div",  "span",  "table", "tbody", "tr",         "td",     "th", "center",
                       "font",    "a",      "img",  "h1",    "h2",    "h3",    "h4",         "h5",     "h6", "ul",
                       "ol",      "li",     "br",   "hr",    "b",     "i",     "u",          "strong", "em", "big",
                       "section", "header", "main", "small", "pre",   "form",  "blockquote", "article"});
}

void open_list(writer *w, const html_tag &t) {
  line_break(w, w->list_depth == 0 ? 2 : 1);
  if (w->list_depth < kMaxNesting) {
    long first = t.start.empty() ? 1 : strtol(t.start.c_str(), nullptr, 10);
    w->lists[w->list_depth++] = {t.name == "ol", first};
  }
}

void open_item(writer *w) {
  line_break(w, 1);
  w->marker = "• ";
  if (w->list_depth == 0) return;
  list_level *level = &w->lists[w->list_depth - 1];
  if (level->ordered) w->marker = std::to_string(level->next++) + ". ";
}

void close_cell(writer *w) {
  if (!w->cell_wide && w->newlines > 0) w->newlines = 0; /* one paragraph alone does not end the row */
  w->cell_start = false;
}

void on_table_tag(writer *w, const html_tag &t) {
  const std::string &name = t.name;
  if (name == "table") {
    line_break(w, 1);
    if (t.closing) w->cell_wide = true;
  } else if (name == "tr") {
    if (!t.closing) {
      w->cell_start = false;
      line_break(w, 1);
      w->cell_follows = w->in_cell = false;
    } else {
      close_cell(w);
      line_break(w, 1);
      w->cell_follows = w->in_cell = false;
    }
  } else if (name == "td" || name == "th") {
    if (!t.closing) {
      w->cell_follows = w->cell_follows || w->in_cell; /* most writers leave out the ends */
      w->in_cell = true;
      if (w->cell_follows) {
        close_cell(w);
        if (w->cell_wide) line_break(w, 1);
      }
      w->cell_start = true;
      w->cell_wide = false;
    } else {
      close_cell(w);
      w->cell_follows = true;
    }
  }
}

void on_tag(writer *w, const html_tag &t, bool *image) {
  const std::string &name = t.name;
  if (one_of(name, {"p", "h1", "h2", "h3", "h4", "h5", "h6", "dl", "figure", "fieldset"})) {
    line_break(w, 2);
  } else if (one_of(name, {"div", "section", "article", "header", "footer", "main", "nav", "aside", "address", "center",
                           "form", "dt", "caption", "figcaption", "legend", "body", "details", "summary", "option"})) {
    line_break(w, 1);
  } else if (name == "br") {
    if (!w->out.empty()) w->newlines = std::min(w->newlines + 1, 3);
    w->blank = false;
    w->cell_start = false;
  } else if (name == "hr") {
    line_break(w, 1);
    put_text(w, "———");
    line_break(w, 1);
  } else if (name == "ul" || name == "ol" || name == "menu") {
    if (!t.closing) {
      open_list(w, t);
    } else {
      if (w->list_depth > 0) w->list_depth--;
      line_break(w, w->list_depth == 0 ? 2 : 1);
    }
  } else if (name == "li") {
    if (!t.closing) open_item(w);
  } else if (name == "dd") {
    line_break(w, 1);
    if (!t.closing) w->marker = "  ";
  } else if (name == "blockquote") {
    line_break(w, 2);
    if (!t.closing && w->quote < static_cast<int>(kMaxNesting)) w->quote++;
    if (t.closing && w->quote > 0) w->quote--;
  } else if (name == "pre" || name == "xmp" || name == "listing") {
    line_break(w, 2);
    w->pre = t.closing ? 0 : 1;
  } else if (one_of(name, {"table", "tr", "td", "th"})) {
    on_table_tag(w, t);
  } else if (name == "q") {
    put_text(w, t.closing ? "”" : "“");
  } else if (name == "img" && !t.closing) {
    if (t.tiny) return;
    if (image && !t.src.empty()) *image = true;
    if (!t.alt.empty()) {
      put_text(w, "[");
      put_text(w, t.alt);
      put_text(w, "]");
    }
  }
}

}  // namespace

std::string mime_html_to_text(std::string_view html, size_t max, bool *has_image) {
  writer w;
  w.max = max;
  html_absent missing;
  std::string skipping; /* the element whose content is not shown */
  int skip_depth = 0;
  bool in_title = false; /* of a head */
  size_t at = 0;
  while (at < html.size() && !w.full()) {
    size_t open = html.find('<', at);
    if (open == std::string_view::npos) open = html.size();
    /* A head that nobody closed ends where any text stands in it, but for the title's, and where anything of a body
       begins. */
    bool text = std::any_of(html.begin() + static_cast<ptrdiff_t>(at), html.begin() + static_cast<ptrdiff_t>(open),
                            [](char c) { return !html_is_space(c); });
    if (text && skipping == "head" && !in_title) skip_depth = 0;
    if (skip_depth == 0) put_text(&w, html.substr(at, open - at));
    if (open >= html.size()) break;
    at = open + 1;
    char next = at < html.size() ? html[at] : '\0';
    if (next == '!' || next == '?') {
      if (html.substr(at, 3) == "!--" && !missing.comment_end) {
        size_t end = html.find("-->", at + 1);
        if (end != std::string_view::npos) {
          at = end + 3;
          continue;
        }
        missing.comment_end = true;
      }
      size_t end = html.find('>', at);
      at = end == std::string_view::npos ? html.size() : end + 1;
      continue;
    }
    if (!g_ascii_isalpha(next) && !(next == '/' && at + 1 < html.size() && g_ascii_isalpha(html[at + 1]))) {
      if (skip_depth == 0) put_char(&w, '<'); /* a sign, not a tag */
      continue;
    }
    html_tag t;
    at = html_read_tag(html, at, &t, &missing);
    if (!t.closing && one_of(t.name, {"script", "style"})) {
      at = html_skip_raw(html, at, t.name);
      continue;
    }
    if (skip_depth > 0) {
      bool same = t.name == skipping;
      if (same) skip_depth += t.closing ? -1 : 1;
      if (t.name == "title") in_title = !t.closing;
      if (same || t.closing || !one_of(skipping, {"head", "title"}) || !is_of_body(t.name)) continue;
      skip_depth = 0;
    }
    if (!t.closing && !is_void(t.name) && (t.hidden || is_unshown(t.name))) {
      skipping = t.name;
      skip_depth = 1;
      continue;
    }
    on_tag(&w, t, has_image);
  }
  if (w.out.size() > max) w.out.resize(mime_cut(w.out, 0, max));
  while (!w.out.empty() && (html_is_space(w.out.back()))) w.out.pop_back();
  return std::move(w.out);
}

std::string mime_markup_to_text(std::string_view markup) {
  std::string out;
  for (size_t at = 0; at < markup.size();) {
    if (markup[at] == '<' && at + 1 < markup.size() && (g_ascii_isalpha(markup[at + 1]) || markup[at + 1] == '/')) {
      size_t end = markup.find('>', at);
      if (end == std::string_view::npos) {
        out += markup[at++];
        continue;
      }
      std::string name;
      for (size_t i = at + 1; i < end && g_ascii_isalnum(markup[i]); i++) name += g_ascii_tolower(markup[i]);
      if (name == "br" || name == "ps")
        out += '\n';
      else if (name == "tab")
        out += '\t';
      at = end + 1;
      continue;
    }
    if (markup[at] == '&') {
      size_t next = at;
      uint32_t c = html_read_entity(markup, &next);
      if (c != 0) {
        text_append_char(&out, c);
        at = next;
        continue;
      }
    }
    out += markup[at++];
  }
  return out;
}
