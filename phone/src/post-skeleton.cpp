/* See the header: which parts are read, and the message around them. */
#include "post-skeleton.h"

#include <glib.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr int kMaxDepth = 32, kMaxParts = 1000;
constexpr size_t kMaxMails = 4; /* one in the other, that are looked into */

struct facts {
  std::string type, subtype;
  const mailimap_body_fields *fields = nullptr;
  const mailimap_body_fld_dsp *disposition = nullptr;
};

const char *basic_name(const mailimap_media_basic *media) {
  switch (media->med_type) {
    case MAILIMAP_MEDIA_BASIC_APPLICATION:
      return "application";
    case MAILIMAP_MEDIA_BASIC_AUDIO:
      return "audio";
    case MAILIMAP_MEDIA_BASIC_IMAGE:
      return "image";
    case MAILIMAP_MEDIA_BASIC_MESSAGE:
      return "message";
    case MAILIMAP_MEDIA_BASIC_VIDEO:
      return "video";
    default:
      return media->med_basic_type ? media->med_basic_type : "application";
  }
}

facts facts_of(const mailimap_body_type_1part *part) {
  facts f;
  if (part->bd_type == MAILIMAP_BODY_TYPE_1PART_TEXT) {
    f.type = "text";
    f.subtype = part->bd_data.bd_type_text->bd_media_text;
    f.fields = part->bd_data.bd_type_text->bd_fields;
  } else if (part->bd_type == MAILIMAP_BODY_TYPE_1PART_MSG) {
    f.type = "message";
    f.subtype = "rfc822";
    f.fields = part->bd_data.bd_type_msg->bd_fields;
  } else {
    f.type = basic_name(part->bd_data.bd_type_basic->bd_media_basic);
    f.subtype = part->bd_data.bd_type_basic->bd_media_basic->med_subtype;
    f.fields = part->bd_data.bd_type_basic->bd_fields;
  }
  if (part->bd_ext_1part) f.disposition = part->bd_ext_1part->bd_disposition;
  return f;
}

bool is_attached(const facts &f) {
  return f.disposition && g_ascii_strcasecmp(f.disposition->dsp_type, "attachment") == 0;
}

bool is(const std::string &text, const char *name) {
  return g_ascii_strcasecmp(text.c_str(), name) == 0;
}

/* The first mail that is part of the message. */
struct found_mail {
  std::string part;
  const mailimap_body *inside = nullptr; /* NULL: it stands encoded, and its parts are not known */
};

struct found_text {
  std::string part, subtype;
  uint32_t size = 0;
  bool alternative = false;
};

std::string child_of(const std::string &number, int index) {
  return (number.empty() ? "" : number + ".") + std::to_string(index);
}

std::string boundary_of(const mailimap_body_type_mpart *parts) {
  const mailimap_body_fld_param *list = parts->bd_ext_mpart ? parts->bd_ext_mpart->bd_parameter : nullptr;
  for (clistiter *at = list && list->pa_list ? clist_begin(list->pa_list) : nullptr; at; at = clist_next(at)) {
    auto *one = static_cast<mailimap_single_body_fld_param *>(clist_content(at));
    if (g_ascii_strcasecmp(one->pa_name, "boundary") == 0) return one->pa_value;
  }
  return "";
}

/* Several parts, with nothing that could tell where one ends: what the server makes of them is no help. */
bool is_torn(const mailimap_body *structure) {
  return structure->bd_type == MAILIMAP_BODY_MPART && boundary_of(structure->bd_data.bd_body_mpart).empty();
}

void find_texts(const mailimap_body *body, const std::string &number, bool alternative, int depth,
                std::vector<found_text> *found) {
  if (depth > kMaxDepth || found->size() > 20) return;
  if (body->bd_type == MAILIMAP_BODY_1PART) {
    facts f = facts_of(body->bd_data.bd_body_1part);
    if (is(f.type, "text") && !is_attached(f))
      found->push_back({number, f.subtype, f.fields ? f.fields->bd_size : 0, alternative});
    return;
  }
  if (is_torn(body)) {
    found->push_back({number, "", 0, alternative});
    return;
  }
  const mailimap_body_type_mpart *parts = body->bd_data.bd_body_mpart;
  bool forms = is(parts->bd_media_subtype, "alternative");
  int index = 1;
  for (clistiter *at = clist_begin(parts->bd_list); at && index < kMaxParts; at = clist_next(at), index++)
    find_texts(static_cast<mailimap_body *>(clist_content(at)), child_of(number, index), forms || alternative,
               depth + 1, found);
}

const char *encoding_of(const mailimap_body_fields *fields) {
  if (!fields || !fields->bd_encoding) return "7bit";
  switch (fields->bd_encoding->enc_type) {
    case MAILIMAP_BODY_FLD_ENC_8BIT:
      return "8bit";
    case MAILIMAP_BODY_FLD_ENC_BINARY:
      return "binary";
    case MAILIMAP_BODY_FLD_ENC_BASE64:
      return "base64";
    case MAILIMAP_BODY_FLD_ENC_QUOTED_PRINTABLE:
      return "quoted-printable";
    default:
      return "7bit";
  }
}

bool is_encoded(const mailimap_body_fields *fields) {
  const char *encoding = encoding_of(fields);
  return strcmp(encoding, "base64") == 0 || strcmp(encoding, "quoted-printable") == 0;
}

const mailimap_body_type_msg *mail_in(const mailimap_body *body) {
  const bool mail =
      body->bd_type == MAILIMAP_BODY_1PART && body->bd_data.bd_body_1part->bd_type == MAILIMAP_BODY_TYPE_1PART_MSG;
  return mail ? body->bd_data.bd_body_1part->bd_data.bd_type_msg : nullptr;
}

/* Of the one part that a mail is, where it is not of several. */
std::string number_inside(const mailimap_body *inside, const std::string &number) {
  return inside->bd_type == MAILIMAP_BODY_MPART ? number : number + ".1";
}

bool find_mail(const mailimap_body *body, const std::string &number, int depth, found_mail *mail) {
  if (depth > kMaxDepth) return false;
  if (body->bd_type == MAILIMAP_BODY_1PART) {
    const facts f = facts_of(body->bd_data.bd_body_1part);
    const mailimap_body_type_msg *known = mail_in(body);
    mail->part = number;
    mail->inside = known && !is_encoded(f.fields) ? known->bd_body : nullptr;
    return is(f.type, "message") && is(f.subtype, "rfc822");
  }
  int index = 1;
  for (clistiter *at = clist_begin(body->bd_data.bd_body_mpart->bd_list); at && index < kMaxParts;
       at = clist_next(at), index++)
    if (find_mail(static_cast<mailimap_body *>(clist_content(at)), child_of(number, index), depth + 1, mail))
      return true;
  return false;
}

/* Whether it may be blank: programs that send a mail along write such texts beside it. */
bool may_say_nothing(const found_text &text) {
  constexpr uint32_t blank = 64, blank_html = 2048; /* bytes */
  return text.size <= (is(text.subtype, "html") ? blank_html : blank);
}

/* A value as a quoted word: nothing in it ends the header. */
std::string quoted(const char *value) {
  std::string out = "\"";
  for (const char *c = value; *c; c++) {
    if (*c == '\r' || *c == '\n') continue;
    if (*c == '"' || *c == '\\') out += '\\';
    out += *c;
  }
  return out + "\"";
}

std::string token(const char *value) {
  std::string out;
  for (const char *c = value ? value : ""; *c; c++)
    if (g_ascii_isalnum(*c) || strchr("-_.+*'", *c)) out += *c;
  return out;
}

std::string parameters(const mailimap_body_fld_param *list) {
  std::string out;
  for (clistiter *at = list && list->pa_list ? clist_begin(list->pa_list) : nullptr; at; at = clist_next(at)) {
    auto *one = static_cast<mailimap_single_body_fld_param *>(clist_content(at));
    out += "; " + token(one->pa_name) + "=" + quoted(one->pa_value);
  }
  return out;
}

/* What a header of that name (in small letters, with its colon) says, in all its lines; empty: there is none. */
std::string header_value(const std::string &header, std::string_view name) {
  for (size_t line = 0; line < header.size();) {
    size_t end = header.find('\n', line);
    while (end != std::string::npos && end + 1 < header.size() && (header[end + 1] == ' ' || header[end + 1] == '\t'))
      end = header.find('\n', end + 1);
    end = std::min(end, header.size());
    if (g_ascii_strncasecmp(header.c_str() + line, name.data(), name.size()) == 0)
      return header.substr(line + name.size(), end - line - name.size());
    line = end + 1;
  }
  return "";
}

bool has_message_id(const std::string &header) {
  return header_value(header, "message-id:").find('@') != std::string::npos;
}

/* One part whose type is none ("text", say): it is read as text here, and servers call it something else. */
bool is_of_no_type(const mailimap_body *structure, const std::string &header) {
  const std::string type = header_value(header, "content-type:");
  return structure->bd_type == MAILIMAP_BODY_1PART && !type.empty() && type.find('/') == std::string::npos;
}

struct builder {
  const std::vector<skeleton_text> *texts;
  std::string out;
  int parts = 0;
};

void put_part(builder *b, const mailimap_body *body, const std::string &number, int depth);

/* What stands between the boundaries. */
void put_parts(builder *b, const mailimap_body_type_mpart *parts, const std::string &number, int depth) {
  std::string boundary = boundary_of(parts);
  int index = 1;
  for (clistiter *at = clist_begin(parts->bd_list); at && b->parts < kMaxParts; at = clist_next(at), index++) {
    b->out += "--" + boundary + "\r\n";
    put_part(b, static_cast<mailimap_body *>(clist_content(at)), child_of(number, index), depth + 1);
    b->out += "\r\n";
  }
  b->out += "--" + boundary + "--\r\n";
}

void put_content(builder *b, const std::string &number) {
  for (const skeleton_text &text : *b->texts)
    if (text.part == number && !text.header) b->out += text.content;
}

bool has_content(const builder &b, const std::string &number) {
  return std::any_of(b.texts->begin(), b.texts->end(), [&number](const skeleton_text &text) {
    return !text.header && text.part == number && !text.content.empty();
  });
}

void end_header(std::string *text) {
  if (!text->ends_with("\r\n\r\n") && !text->ends_with("\n\n")) *text += "\r\n";
}

/* The mail that a part is, if its header came. */
void put_mail(builder *b, const mailimap_body_type_msg *mail, const std::string &number, int depth) {
  if (is_torn(mail->bd_body) && has_content(*b, number)) return put_content(b, number); /* it came with its header */
  const auto header = std::find_if(b->texts->begin(), b->texts->end(), [&number](const skeleton_text &text) {
    return text.header && text.part == number && !text.content.empty();
  });
  b->out += header == b->texts->end() ? "Subject: \r\n" : header->content;
  end_header(&b->out);
  if (header == b->texts->end() || depth > kMaxDepth) return;
  const std::string inside = number_inside(mail->bd_body, number);
  if (mail->bd_body->bd_type == MAILIMAP_BODY_MPART)
    put_parts(b, mail->bd_body->bd_data.bd_body_mpart, inside, depth + 1);
  else if (const mailimap_body_type_msg *inner = mail_in(mail->bd_body))
    put_mail(b, inner, inside, depth + 1);
  else
    put_content(b, inside);
}

void put_part(builder *b, const mailimap_body *body, const std::string &number, int depth) {
  b->parts++;
  if (depth > kMaxDepth) return;
  if (body->bd_type == MAILIMAP_BODY_MPART) {
    const mailimap_body_type_mpart *parts = body->bd_data.bd_body_mpart;
    const mailimap_body_fld_param *list = parts->bd_ext_mpart ? parts->bd_ext_mpart->bd_parameter : nullptr;
    b->out += "Content-Type: multipart/" + token(parts->bd_media_subtype) + parameters(list) + "\r\n\r\n";
    if (is_torn(body))
      put_content(b, number);
    else
      put_parts(b, parts, number, depth);
    return;
  }
  facts f = facts_of(body->bd_data.bd_body_1part);
  b->out += "Content-Type: " + token(f.type.c_str()) + "/" + token(f.subtype.c_str()) +
            parameters(f.fields ? f.fields->bd_parameter : nullptr) + "\r\n";
  if (f.disposition)
    b->out +=
        "Content-Disposition: " + token(f.disposition->dsp_type) + parameters(f.disposition->dsp_attributes) + "\r\n";
  if (f.fields && f.fields->bd_id) b->out += "Content-ID: <" + token(f.fields->bd_id) + ">\r\n";
  const mailimap_body_type_msg *mail = mail_in(body);
  if (mail && !is_encoded(f.fields)) {
    b->out += "\r\n";
    put_mail(b, mail, number, depth);
    return;
  }
  if (f.type == "message" && !has_content(*b, number)) {
    b->out += "\r\nSubject: \r\n\r\n";
    return;
  }
  b->out += std::string("Content-Transfer-Encoding: ") + encoding_of(f.fields) + "\r\n\r\n";
  put_content(b, number);
}

}  // namespace

namespace {

void choose_among(std::vector<found_text> found, bool one_kind, bool whole, std::vector<skeleton_text> *texts,
                  bool *cut) {
  uint32_t plain = 0;
  for (const found_text &text : found)
    if (is(text.subtype, "plain") && text.alternative) plain = std::max(plain, text.size);
  /* HTML is many times its words; beside a plain form that can be all of them it is not looked at. */
  std::erase_if(found, [plain](const found_text &text) {
    return text.alternative && is(text.subtype, "html") && plain > 0 && plain * 16 >= text.size && plain > 400;
  });
  /* The beginning will do where it is the beginning of what is shown: of one kind of text, in a message whose identity
     is not made of it. */
  for (const found_text &text : found)
    one_kind = one_kind && text.subtype == found[0].subtype && (is(text.subtype, "plain") || is(text.subtype, "html"));
  *cut = false;
  for (const found_text &text : found) {
    uint32_t most = whole                      ? skeleton_whole_bytes
                    : !one_kind                ? skeleton_text_bytes
                    : is(text.subtype, "html") ? skeleton_html_bytes
                                               : skeleton_plain_bytes;
    if (*cut) break; /* a text behind one that is cut would stand where that goes on */
    texts->push_back({text.part, false, most, ""});
    *cut = one_kind && !whole && text.size > most;
  }
}

}  // namespace

void skeleton_choose(const mailimap_body *structure, const std::string &header, bool whole,
                     std::vector<skeleton_text> *texts, bool *cut) {
  std::vector<found_text> found, inside;
  const bool has_id = has_message_id(header);
  if (is_torn(structure) || is_of_no_type(structure, header))
    return texts->push_back({"", false, skeleton_text_bytes, ""});
  find_texts(structure, "", false, 0, &found);
  choose_among(found, has_id, whole, texts, cut);
  found_mail mail;
  if (!std::all_of(found.begin(), found.end(), may_say_nothing) || !find_mail(structure, "", 0, &mail)) return;
  if (!mail.inside) {
    texts->push_back({mail.part, false, whole ? skeleton_whole_bytes : skeleton_text_bytes, ""});
    return;
  }
  if (mail.part.empty()) mail.part = "1";
  texts->push_back({mail.part, true, skeleton_inner_header_bytes, ""});
  std::string number = number_inside(mail.inside, mail.part);
  const mailimap_body *body = mail.inside;
  for (const mailimap_body_type_msg *inner; (inner = mail_in(body)) && texts->size() < kMaxMails;) {
    texts->push_back({number, true, skeleton_inner_header_bytes, ""});
    body = inner->bd_body;
    number = number_inside(body, number);
  }
  find_texts(body, number, false, 0, &inside);
  bool inside_cut = false;
  choose_among(inside, has_id, whole, texts, &inside_cut);
  *cut = found.empty() && inside_cut;
}

std::string skeleton_build(const mailimap_body *structure, const std::string &header,
                           const std::vector<skeleton_text> &texts) {
  builder b = {&texts, header};
  end_header(&b.out);
  const mailimap_body_type_msg *mail = mail_in(structure);
  if (structure->bd_type == MAILIMAP_BODY_MPART && !is_torn(structure))
    put_parts(&b, structure->bd_data.bd_body_mpart, "", 0);
  else if (mail && !is_encoded(mail->bd_fields))
    put_mail(&b, mail, "1", 0);
  else
    put_content(&b, "");
  return std::move(b.out);
}
