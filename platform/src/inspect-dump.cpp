#define EFL_BETA_API_SUPPORT /* for the class of objects that have members */
#include <Eo.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "inspect-priv.h"

/* ordered: people read it too */
using json = nlohmann::ordered_json;

namespace {

struct rect {
  int x = 0;
  int y = 0;
  int w = 0;
  int h = 0;
};

struct color {
  int r = 255;
  int g = 255;
  int b = 255;
  int a = 255; /* channels multiplied by it, as the canvas keeps them */
};

/* One visible text or control, and where in the drawing order it comes. */
struct shown {
  json entry;
  rect area;
  size_t order;
};

/* Something that hides what lies below it. */
struct cover {
  rect area;
  size_t order;
};

struct walk {
  rect window;
  size_t order = 0;
  int layer = 0; /* of what is being visited */
  int layers = 0;
  std::vector<shown> texts;
  std::vector<shown> controls;
  std::vector<cover> covers;
  std::vector<Evas_Object *> stacks;
  json popups = json::array();
};

rect intersect(const rect &one, const rect &two) {
  rect out;
  out.x = std::max(one.x, two.x);
  out.y = std::max(one.y, two.y);
  out.w = std::min(one.x + one.w, two.x + two.w) - out.x;
  out.h = std::min(one.y + one.h, two.y + two.h) - out.y;
  if (out.w < 0 || out.h < 0) out.w = out.h = 0;
  return out;
}

bool contains(const rect &outer, const rect &inner) {
  return inner.x >= outer.x && inner.y >= outer.y && inner.x + inner.w <= outer.x + outer.w &&
         inner.y + inner.h <= outer.y + outer.h;
}

/* What of a text can be seen below something that lies over the whole of its upper or lower part: a list's header lies
   so over a row. */
rect left_of(const rect &text, const rect &over) {
  if (contains(over, text) || over.x > text.x || over.x + over.w < text.x + text.w) return text;
  rect left = text;
  const int over_end = over.y + over.h;
  const int text_end = text.y + text.h;
  if (over.y <= text.y && over_end > text.y) {
    left.y = over_end;
    left.h = text_end - over_end;
  } else if (over.y < text_end && over_end >= text_end) {
    left.h = over.y - text.y;
  }
  return left;
}

rect geometry(const Evas_Object *obj) {
  rect out;
  evas_object_geometry_get(obj, &out.x, &out.y, &out.w, &out.h);
  return out;
}

void tint(color *c, const Evas_Object *by) {
  color other;
  evas_object_color_get(by, &other.r, &other.g, &other.b, &other.a);
  c->r = c->r * other.r / 255;
  c->g = c->g * other.g / 255;
  c->b = c->b * other.b / 255;
  c->a = c->a * other.a / 255;
}

std::string color_text(const color &c) {
  auto straight = [&c](int channel) { return c.a > 0 ? std::clamp((channel * 255 + c.a / 2) / c.a, 0, 255) : 0; };
  char text[16];
  snprintf(text, sizeof(text), "#%02X%02X%02X%02X", straight(c.r), straight(c.g), straight(c.b), c.a);
  return text;
}

/* What is left of area inside every clipper, and the object's colour after theirs; nothing when it cannot be seen. */
std::optional<std::pair<rect, color>> seen(const Evas_Object *obj, const rect &area, const rect &window) {
  if (!evas_object_visible_get(obj)) return std::nullopt;
  color c;
  tint(&c, obj);
  rect left = intersect(area, window);
  for (const Evas_Object *clip = evas_object_clip_get(obj); clip; clip = evas_object_clip_get(clip)) {
    if (!evas_object_visible_get(clip)) return std::nullopt;
    left = intersect(left, geometry(clip));
    tint(&c, clip);
  }
  if (left.w == 0 || left.h == 0 || c.a == 0) return std::nullopt;
  return std::make_pair(left, c);
}

/* --- text blocks: the style in effect where the text begins --- */

struct text_style {
  std::string font;
  double size = 0.0;
  std::string color_word;
};

/* Takes one "key=value" over. */
void read_setting(const std::string &key, const std::string &value, text_style *style) {
  if (key == "font") style->font = value;
  if (key == "font_size") style->size = atof(value.c_str());
  if (key == "color") style->color_word = value;
}

/* "font=Noto Sans font_size=26 color=#fff": a value may be quoted, hold escaped blanks, and, once a theme has gone
   through it, plain ones: a word without a "=" belongs to the value before it. */
void read_format(std::string_view format, text_style *style) {
  std::string key;
  std::string value;
  std::string word;
  char quote = 0;
  auto end_word = [&] {
    const size_t equals = word.find('=');
    if (equals != std::string::npos) {
      read_setting(key, value, style);
      key = word.substr(0, equals);
      value = word.substr(equals + 1);
    } else if (!word.empty() && word != "+") {
      value += " " + word;
    }
    word.clear();
  };
  for (size_t i = 0; i < format.size(); i++) {
    const char c = format[i];
    if (quote ? c == quote : c == '\'' || c == '"')
      quote = quote ? 0 : c;
    else if (!quote && c == ' ')
      end_word();
    else
      word += c == '\\' && i + 1 < format.size() ? format[++i] : c;
  }
  end_word();
  read_setting(key, value, style);
}

/* A style's text: DEFAULT='...' tag='...' … */
std::map<std::string, std::string> read_style(const char *text) {
  std::map<std::string, std::string> tags;
  for (const char *p = text; p && *p;) {
    while (*p == ' ' || *p == '\n') p++;
    const char *equals = strchr(p, '=');
    if (!equals || equals[1] != '\'') break;
    std::string key(p, equals);
    std::string value;
    for (p = equals + 2; *p && *p != '\''; p++) {
      /* Only the quote is this level's; a format keeps its own escapes. */
      if (*p == '\\' && p[1] == '\'') p++;
      value += *p;
    }
    if (*p) p++;
    tags[key] = value;
  }
  return tags;
}

int hex(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

/* #RGB, #RGBA, #RRGGBB, #RRGGBBAA, and the few names that themes use; premultiplied like the canvas's own. */
color read_color(const std::string &word) {
  color c;
  if (word == "black") c = {0, 0, 0, 255};
  if (word == "red") c = {255, 0, 0, 255};
  if (word == "green") c = {0, 255, 0, 255};
  if (word == "blue") c = {0, 0, 255, 255};
  if (word.empty() || word[0] != '#') return c;
  std::string digits = word.substr(1);
  if (digits.size() == 3 || digits.size() == 4) {
    std::string wide;
    for (const char digit : digits) wide += {digit, digit};
    digits = wide;
  }
  if (digits.size() == 6) digits += "ff";
  if (digits.size() != 8) return c;
  int bytes[4];
  for (size_t i = 0; i < 4; i++) {
    const int high = hex(digits[2 * i]);
    const int low = hex(digits[2 * i + 1]);
    if (high < 0 || low < 0) return c;
    bytes[i] = high * 16 + low;
  }
  const int a = bytes[3];
  return {bytes[0] * a / 255, bytes[1] * a / 255, bytes[2] * a / 255, a};
}

text_style style_at_start(Evas_Object *block) {
  text_style style;
  std::map<std::string, std::string> tags;
  if (const Evas_Textblock_Style *ts = evas_object_textblock_style_get(block))
    tags = read_style(evas_textblock_style_get(ts));
  if (const Evas_Textblock_Style *user = evas_object_textblock_style_user_peek(block)) {
    for (const auto &[tag, format] : read_style(evas_textblock_style_get(user)))
      if (tag == "DEFAULT")
        tags[tag] += " " + format;
      else
        tags[tag] = format;
  }
  read_format(tags["DEFAULT"], &style);
  /* The markup opened before the first character. */
  const char *markup = evas_object_textblock_text_markup_get(block);
  std::vector<text_style> outer;
  for (const char *p = markup; p && *p == '<';) {
    const char *end = strchr(p, '>');
    if (!end) break;
    std::string tag(p + 1, end);
    if (tag == "br" || tag == "br/" || tag == "ps" || tag == "ps/") {
      p = end + 1;
      continue;
    }
    if (tag[0] == '/') {
      if (outer.empty()) break;
      style = outer.back();
      outer.pop_back();
      p = end + 1;
      continue;
    }
    outer.push_back(style);
    const auto found = tags.find(tag);
    if (found != tags.end())
      read_format(found->second, &style);
    else if (tag.find('=') != std::string::npos)
      read_format(tag, &style);
    p = end + 1;
  }
  return style;
}

rect block_area(Evas_Object *block) {
  const rect object = geometry(block);
  rect area;
  int x;
  int y;
  int w;
  int h;
  for (int line = 0; evas_object_textblock_line_number_geometry_get(block, line, &x, &y, &w, &h); line++) {
    if (w == 0 && h == 0) continue;
    if (area.w == 0 && area.h == 0) {
      area = {x, y, w, h};
      continue;
    }
    const int right = std::max(area.x + area.w, x + w);
    const int bottom = std::max(area.y + area.h, y + h);
    area.x = std::min(area.x, x);
    area.y = std::min(area.y, y);
    area.w = right - area.x;
    area.h = bottom - area.y;
  }
  area.x += object.x;
  area.y += object.y;
  return area;
}

/* Whether the end of a line gave way to an ellipsis: the toolkit does not tell, so a copy without one is measured. */
bool text_cut(Evas_Object *obj) {
  if (evas_object_text_ellipsis_get(obj) < 0.0) return false;
  const char *font = nullptr;
  Evas_Font_Size size = 0;
  evas_object_text_font_get(obj, &font, &size);
  Evas_Object *copy = evas_object_text_add(evas_object_evas_get(obj));
  evas_object_scale_set(copy, evas_object_scale_get(obj));
  evas_object_text_font_set(copy, font, size);
  evas_object_text_text_set(copy, evas_object_text_text_get(obj));
  const int natural = geometry(copy).w;
  evas_object_del(copy);
  return natural > geometry(obj).w + 1;
}

bool block_cut(Evas_Object *obj) {
  const Evas_Textblock_Style *style = evas_object_textblock_style_get(obj);
  const char *format = style ? evas_textblock_style_get(style) : nullptr;
  if (!format || !strstr(format, "ellipsis=")) return false;
  Evas_Object *copy = evas_object_textblock_add(evas_object_evas_get(obj));
  evas_object_scale_set(copy, evas_object_scale_get(obj));
  evas_object_textblock_style_set(copy, style);
  Evas_Textblock_Style *whole = evas_textblock_style_new();
  evas_textblock_style_set(whole, "DEFAULT='ellipsis=-1'");
  evas_object_textblock_style_user_push(copy, whole);
  evas_object_textblock_text_markup_set(copy, evas_object_textblock_text_markup_get(obj));
  const rect object = geometry(obj);
  evas_object_resize(copy, object.w, object.h);
  int w = 0;
  int h = 0;
  evas_object_textblock_size_formatted_get(copy, &w, &h);
  evas_object_del(copy);
  evas_textblock_style_free(whole);
  /* A block that may take smaller letters is cut when the smallest do not fit either. */
  unsigned int fit = 0;
  unsigned int sizes[64];
  size_t count = 0;
  evas_textblock_fit_options_get(obj, &fit);
  evas_textblock_fit_size_array_get(obj, sizes, &count, std::size(sizes));
  const bool fitted = fit && count > 0 && count <= std::size(sizes);
  const double share = fitted ? double(sizes[0]) / sizes[count - 1] : 1.0;
  return w * share > object.w + 1 || h * share > object.h + 1;
}

/* The layout that the text is a part of. */
rect layout_of(const Evas_Object *obj, const rect &window) {
  const Evas_Object *parent = evas_object_smart_parent_get(obj);
  return parent ? geometry(parent) : window;
}

bool inside_scroller(const Evas_Object *obj) {
  for (const Evas_Object *up = evas_object_smart_parent_get(obj); up; up = evas_object_smart_parent_get(up)) {
    const char *name = efl_isa(up, EFL_CANVAS_GROUP_CLASS) ? efl_class_name_get(up) : nullptr;
    if (name && (!strcmp(name, "Elm.Scroller") || !strcmp(name, "Elm.Genlist") || !strcmp(name, "Elm.Entry")))
      return true;
  }
  return false;
}

json rect_json(const rect &r) {
  return {{"x", r.x}, {"y", r.y}, {"width", r.w}, {"height", r.h}};
}

/* In pixels. Lines above and below a text that only make room for its letters are no higher. */
constexpr int least_line = 4;

bool is_thin_line(const Evas_Textblock_Cursor *cursor) {
  int height = 0;
  return evas_textblock_cursor_line_geometry_get(cursor, nullptr, nullptr, nullptr, &height) >= 0 &&
         height <= least_line;
}

/* From the text itself: what the toolkit gives back as markup after a change of style has its "&" unescaped. */
std::string plain_text(Evas_Object *block) {
  Evas_Textblock_Cursor *start = evas_object_textblock_cursor_new(block);
  Evas_Textblock_Cursor *end = evas_object_textblock_cursor_new(block);
  evas_textblock_cursor_paragraph_first(start);
  evas_textblock_cursor_paragraph_last(end);
  if (is_thin_line(start)) evas_textblock_cursor_line_set(start, 1);
  const int last = evas_textblock_cursor_line_geometry_get(end, nullptr, nullptr, nullptr, nullptr);
  if (last > 0 && is_thin_line(end) && evas_textblock_cursor_line_set(end, last - 1))
    evas_textblock_cursor_line_char_last(end);
  char *plain = evas_textblock_cursor_range_text_get(start, end, EVAS_TEXTBLOCK_TEXT_PLAIN);
  std::string text = plain ? plain : "";
  free(plain);
  evas_textblock_cursor_free(start);
  evas_textblock_cursor_free(end);
  return text;
}

/* --- the canvas --- */

/* What only says which way a text runs is nothing that a person sees. */
std::string without_mark(const std::string &text) {
  return text.starts_with("\u200E") || text.starts_with("\u200F") ? text.substr(strlen("\u200E")) : text;
}

void add_text(walk *w, const Evas_Object *obj, const std::string &text, const rect &whole, const rect &area,
              const color &c, const std::string &font, double size, bool cut) {
  json entry;
  entry["text"] = without_mark(text);
  entry["x"] = area.x;
  entry["y"] = area.y;
  entry["width"] = area.w;
  entry["height"] = area.h;
  entry["color"] = color_text(c);
  entry["font_size"] = std::round(size * 100.0) / 100.0;
  entry["font"] = font;
  entry["whole"] = rect_json(whole);
  entry["layout"] = rect_json(layout_of(obj, w->window));
  entry["cut"] = cut;
  entry["scrolls"] = inside_scroller(obj);
  entry["layer"] = w->layer;
  w->texts.push_back({std::move(entry), area, w->order});
}

void visit_text(walk *w, Evas_Object *obj) {
  const char *text = evas_object_text_text_get(obj);
  if (!text || !*text) return;
  const auto visible = seen(obj, geometry(obj), w->window);
  if (!visible) return;
  const char *font = nullptr;
  Evas_Font_Size size = 0;
  evas_object_text_font_get(obj, &font, &size);
  add_text(w, obj, text, geometry(obj), visible->first, visible->second, font ? font : "",
           size * evas_object_scale_get(obj), text_cut(obj));
}

/* Who shortens a text by itself leaves the whole of it as the object's name. */
void visit_block(walk *w, Evas_Object *obj) {
  const char *shortened = evas_object_name_get(obj);
  const std::string text = shortened ? shortened : plain_text(obj);
  if (text.empty()) return;
  const rect whole = block_area(obj);
  const auto visible = seen(obj, intersect(whole, geometry(obj)), w->window);
  if (!visible) return;
  const text_style style = style_at_start(obj);
  color c = read_color(style.color_word);
  const color by = visible->second;
  c = {c.r * by.r / 255, c.g * by.g / 255, c.b * by.b / 255, c.a * by.a / 255};
  if (c.a == 0) return;
  add_text(w, obj, text, whole, visible->first, c, style.font, style.size * evas_object_scale_get(obj),
           shortened || block_cut(obj));
}

void visit_cover(walk *w, Evas_Object *obj, const char *type) {
  if (evas_object_render_op_get(obj) != EVAS_RENDER_BLEND) return;
  /* A clipper is no paint of its own. */
  if (eina_list_count(evas_object_clipees_get(obj)) > 0) return;
  if (strcmp(type, "image") == 0 && (evas_object_image_alpha_get(obj) || !evas_object_image_filled_get(obj))) return;
  const auto visible = seen(obj, geometry(obj), w->window);
  if (visible && visible->second.a == 255) w->covers.push_back({visible->first, w->order});
}

std::string or_empty(const char *text) {
  return text ? text : "";
}

std::string markup_to_plain(const char *markup) {
  char *plain = elm_entry_markup_to_utf8(markup ? markup : "");
  std::string text = plain ? plain : "";
  free(plain);
  return text;
}

/* After its parts, which are no cover of it. */
void visit_control(walk *w, const Evas_Object *obj) {
  const std::string type = or_empty(elm_object_widget_type_get(obj));
  const std::string kind = type.substr(type.find_last_of("_.") + 1);
  if (kind != "Button" && kind != "Check" && kind != "Radio" && kind != "Entry") return;
  const auto visible = seen(obj, geometry(obj), w->window);
  if (!visible) return;
  json entry = {{"kind", kind}, {"text", markup_to_plain(elm_object_text_get(obj))}};
  entry.update(rect_json(visible->first));
  entry["whole"] = rect_json(geometry(obj));
  entry["scrolls"] = inside_scroller(obj);
  entry["layer"] = w->layer;
  w->controls.push_back({std::move(entry), visible->first, w->order});
}

void visit_widget(walk *w, Evas_Object *obj) {
  const std::string name = or_empty(efl_class_name_get(obj));
  if (name == "Elm.Naviframe" && evas_object_visible_get(obj)) w->stacks.push_back(obj);
  if (name == "Elm.Popup" || name == "Elm.Notify") w->layer = ++w->layers;
  if (name == "Elm.Popup" && evas_object_visible_get(obj)) {
    json popup;
    popup["title"] = markup_to_plain(elm_object_part_text_get(obj, "title,text"));
    popup["text"] = markup_to_plain(elm_object_text_get(obj));
    w->popups.push_back(popup);
  }
}

void visit(walk *w, Evas_Object *obj) {
  w->order++;
  const char *type = evas_object_type_get(obj);
  if (!type) return;
  if (strcmp(type, "text") == 0) {
    visit_text(w, obj);
  } else if (strcmp(type, "textblock") == 0) {
    visit_block(w, obj);
  } else if (strcmp(type, "rectangle") == 0 || strcmp(type, "image") == 0) {
    visit_cover(w, obj, type);
  } else if (efl_isa(obj, EFL_CANVAS_GROUP_CLASS)) {
    const int below = w->layer;
    if (elm_object_widget_check(obj)) visit_widget(w, obj);
    Eina_List *members = evas_object_smart_members_get(obj);
    void *member;
    EINA_LIST_FREE(members, member) visit(w, static_cast<Evas_Object *>(member));
    if (elm_object_widget_check(obj)) visit_control(w, obj);
    w->layer = below;
  }
}

json views(const std::vector<Evas_Object *> &stacks) {
  json out = json::array();
  for (Evas_Object *stack : stacks) {
    Eina_List *items = elm_naviframe_items_get(stack);
    const Elm_Object_Item *top = elm_naviframe_top_item_get(stack);
    void *one;
    EINA_LIST_FREE(items, one) {
      auto *item = static_cast<Elm_Object_Item *>(one);
      json view;
      view["title"] = markup_to_plain(elm_object_item_text_get(item));
      view["title_shown"] = bool(elm_naviframe_item_title_enabled_get(item));
      view["top"] = item == top;
      out.push_back(view);
    }
  }
  return out;
}

/* With what of each is left below what was drawn later. */
json listed(std::vector<shown> &all, const std::vector<cover> &covers) {
  json out = json::array();
  for (shown &one : all) {
    bool covered = false;
    for (const cover &over : covers) {
      if (over.order <= one.order) continue;
      covered = covered || contains(over.area, one.area);
      one.area = left_of(one.area, over.area);
    }
    one.entry["y"] = one.area.y;
    one.entry["height"] = one.area.h;
    one.entry["covered"] = covered;
    out.push_back(std::move(one.entry));
  }
  return out;
}

}  // namespace

std::string inspect_dump(Evas_Object *window) {
  walk w;
  Evas *evas = evas_object_evas_get(window);
  evas_output_size_get(evas, &w.window.w, &w.window.h);
  for (Evas_Object *obj = evas_object_bottom_get(evas); obj; obj = evas_object_above_get(obj)) visit(&w, obj);
  json out;
  out["window"] = {{"width", w.window.w}, {"height", w.window.h}};
  out["views"] = views(w.stacks);
  out["popups"] = w.popups;
  out["texts"] = listed(w.texts, w.covers);
  out["controls"] = listed(w.controls, w.covers);
  return out.dump(-1, ' ', false, json::error_handler_t::replace);
}
