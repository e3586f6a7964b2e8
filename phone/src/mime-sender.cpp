/* Who a mail is from and where an answer goes. The address is what stands in angle brackets; what stands before it is a
   name and never an address, whatever it looks like. Used by mime-message.cpp. */
#include <glib.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "gmime-holders.h"
#include "mime-headers.h"

namespace {

constexpr size_t kMaxAddress = 320, kMaxName = 1024;

struct mailbox {
  std::string address, name;
};

/* What a list of addresses looks like from its start to the first address in angle brackets. */
struct outline {
  size_t open = std::string::npos, close = std::string::npos; /* the brackets */
  size_t start = 0;                                           /* of this mailbox: behind the colon of a group */
  bool address_before = false;                                /* one without brackets comes first */
};

/* Quoted words and comments hide everything in them, unless they have no end. */
outline find_angle(std::string_view text, bool quotes) {
  outline found;
  bool quoted = false;
  int comments = 0;
  for (size_t i = 0; i < text.size(); i++) {
    char c = text[i];
    if (c == '\\' && (quoted || comments > 0)) {
      i++;
    } else if (quotes && c == '"' && comments == 0) {
      quoted = !quoted;
    } else if (quoted) {
      continue;
    } else if (c == '(') {
      comments++;
    } else if (c == ')' && comments > 0) {
      comments--;
    } else if (comments > 0) {
      continue;
    } else if (c == '<') {
      found.open = i;
      found.close = text.find('>', i);
      return found;
    } else if (c == ':') {
      found.start = i + 1;
      found.address_before = false;
    } else if (c == '@' && text.substr(0, i).find_last_of(",;") == std::string_view::npos) {
      /* "a@b <c@d>" names one mailbox, "a@b, <c@d>" two. */
      size_t end = text.find_first_of(",<", i);
      found.address_before = found.address_before || (end != std::string_view::npos && text[end] == ',');
    }
  }
  return found;
}

void replace_all(std::string *text, std::string_view from, std::string_view to) {
  for (size_t at = 0; (at = text->find(from, at)) != std::string::npos; at += to.size())
    text->replace(at, from.size(), to);
}

/* A name as it stands in a header: quotes and their escapes resolved, comments left out where there is more. */
std::string bare_name(std::string_view text) {
  std::string out, comment;
  bool quoted = false;
  int comments = 0;
  for (size_t i = 0; i < text.size(); i++) {
    char c = text[i];
    std::string *to = comments > 0 ? &comment : &out;
    if (c == '\\' && i + 1 < text.size() && (quoted || comments > 0))
      *to += text[++i];
    else if (c == '"' && comments == 0)
      quoted = !quoted;
    else if (c == '(' && !quoted && comments++ == 0)
      continue;
    else if (c == ')' && !quoted && comments > 0 && --comments == 0)
      continue;
    else
      *to += c;
  }
  return out.find_first_not_of(" \t\r\n") == std::string::npos ? comment : out;
}

/* Quotes that a program put around what was quoted already. */
std::string without_quotes(std::string name) {
  while (name.size() >= 2 && (name.front() == '\'' || name.front() == '"') && name.back() == name.front())
    name = name.substr(1, name.size() - 2);
  if (!name.empty() && std::count(name.begin(), name.end(), '"') == 1) std::erase(name, '"');
  return mime_clean_line(name, kMaxName);
}

std::string decoded_name(std::string_view text, const std::string &charset) {
  /* What an encoded word says may hold quotes of its own; they are no syntax. */
  std::string name = without_quotes(mime_clean_line(header_decode(bare_name(text), charset), kMaxName));
  while (name.ends_with(';') || name.ends_with(':') || name.ends_with(',')) name.pop_back();
  return name;
}

bool is_address(std::string_view text) {
  size_t at = text.find('@');
  return at != std::string_view::npos && at > 0 && at + 1 < text.size() &&
         text.find_first_of(" \t<>,") == std::string_view::npos;
}

/* One that shows another address than its own deceives, in signs that look alike too. "Ann <a@b>" stays "Ann". */
std::string no_address(std::string name) {
  std::unique_ptr<char, decltype(&g_free)> plain(g_utf8_normalize(name.c_str(), -1, G_NORMALIZE_ALL), g_free);
  std::string seen = plain ? plain.get() : name;
  size_t open = seen.rfind('<');
  bool shows = open != std::string::npos && seen.ends_with('>') && seen.find('@', open) != std::string::npos;
  if (shows) name = seen = mime_clean_line(std::string_view(seen).substr(0, open), kMaxName);
  return is_address(seen) ? "" : name;
}

/* Takes the place of "=?" while the library parses addresses, so that it leaves encoded words alone. */
constexpr char kWordMark[] = "=~{~";

/* The first one that has a domain, the first of all when none has. */
bool first_mailbox(InternetAddressList *list, const std::string &charset, bool with_domain, mailbox *found,
                   int depth = 0) {
  int count = list ? internet_address_list_length(list) : 0;
  for (int i = 0; i < count && i < 100; i++) {
    InternetAddress *entry = internet_address_list_get_address(list, i);
    if (INTERNET_ADDRESS_IS_MAILBOX(entry)) {
      const char *text = internet_address_mailbox_get_addr(INTERNET_ADDRESS_MAILBOX(entry));
      const char *display = internet_address_get_name(entry);
      if (with_domain && !(text && strchr(text, '@'))) continue;
      found->address = mime_clean_line(text ? text : "", kMaxAddress);
      std::string words = display ? display : "";
      replace_all(&words, kWordMark, "=?");
      found->name = without_quotes(mime_clean_line(header_decode(words, charset), kMaxName));
      return true;
    }
    if (depth < 3 && INTERNET_ADDRESS_IS_GROUP(entry) &&
        first_mailbox(internet_address_group_get_members(INTERNET_ADDRESS_GROUP(entry)), charset, with_domain, found,
                      depth + 1))
      return true;
  }
  return false;
}

bool library_mailbox(std::string value, const std::string &charset, mailbox *found) {
  replace_all(&value, "=?", kWordMark);
  object_holder<InternetAddressList> list(internet_address_list_parse(header_options(), value.c_str()));
  return list && (first_mailbox(list.get(), charset, true, found) || first_mailbox(list.get(), charset, false, found));
}

/* The first mailbox of an address header. Returns false when there is none. */
bool read_mailbox(const std::string &value, const std::string &charset, mailbox *found) {
  outline o = find_angle(value, true);
  if (o.open == std::string::npos && value.find('"') != std::string::npos) o = find_angle(value, false);
  size_t last_quote = value.rfind('"');
  std::string behind_quote = last_quote == std::string::npos
                                 ? ""
                                 : mime_clean_line(std::string_view(value).substr(last_quote + 1), kMaxAddress);
  if (o.open == std::string::npos && is_address(behind_quote)) { /* a name and an address without brackets */
    found->address = behind_quote;
    found->name = decoded_name(std::string_view(value).substr(0, last_quote + 1), charset);
  } else if (o.open == std::string::npos || o.close == std::string::npos || o.address_before) {
    if (!library_mailbox(value, charset, found)) return false;
  } else {
    std::string inside = value.substr(o.open + 1, o.close - o.open - 1);
    size_t route = inside.find(':'); /* "<@relay:a@b>" of old */
    if (inside.starts_with('@') && route != std::string::npos) inside.erase(0, route + 1);
    found->address = mime_clean_line(header_decode(inside, charset), kMaxAddress);
    found->name = decoded_name(std::string_view(value).substr(o.start, o.open - o.start), charset);
    std::string behind = value.substr(o.close + 1);
    if (found->name.empty() && behind.find_first_not_of(" \t\r\n") == behind.find('(')) /* "<a@b> (Ann)" */
      found->name = decoded_name(behind.substr(0, std::min(behind.find(','), behind.size())), charset);
  }
  /* "root (Cron Daemon)": the comment is a name where nothing else is. */
  size_t comment = value.find('(');
  if (found->name.empty() && o.open == std::string::npos && comment != std::string::npos &&
      value.find('"') == std::string::npos)
    found->name = decoded_name(value.substr(comment, value.find(')', comment) - comment + 1), charset);
  found->name = no_address(found->name);
  return !found->address.empty() || !found->name.empty();
}

/* A sender that is no mailbox at all is still who it says it is from. */
void take_anything(const std::string &text, mime_mail *mail) {
  std::string name = mime_clean_line(text, kMaxAddress);
  (name.find('@') == std::string::npos ? mail->from_name : mail->from_address) = name;
}

}  // namespace

void header_read_sender(GMimeMessage *message, const std::string &charset, mime_mail *mail) {
  mailbox from, answer;
  if (read_mailbox(header_raw(message, "From"), charset, &from) ||
      read_mailbox(header_raw(message, "Sender"), charset, &from)) {
    mail->from_address = from.address;
    mail->from_name = from.name;
  } else {
    take_anything(header_decode(header_raw(message, "From"), charset), mail);
  }
  bool elsewhere = read_mailbox(header_raw(message, "Reply-To"), charset, &answer) && !answer.address.empty();
  mail->reply_to = elsewhere ? answer.address : mail->from_address;
}
