/* Cards: their lines, what of them is kept, and how to go on behind one that is broken. Called by the import. */
#include "contacts-vcard.h"

#include <algorithm>
#include <iterator>

#include "contacts-vcard-text.h"
#include "contacts.h"
#include "text-check.h"

namespace {

constexpr size_t persons_max = 20000;
constexpr size_t entries_max = 100; /* addresses, and numbers, of one person */
constexpr size_t name_max_bytes = 1024;
constexpr size_t email_max_bytes = 320;
constexpr size_t number_max_bytes = 64;
constexpr int nesting_max = 8;
constexpr size_t troubles_named = 20;

struct reader {
  std::string_view rest;
  size_t line = 0; /* the number of the line read last */
  std::string *trouble;
  size_t troubles = 0;
};

struct card {
  bool old = false; /* 2.1: other rules for folding and escapes */
  std::string formatted_name;
  std::string structured_name;
  std::string organisation;
  vcard_person person;
};

void note(reader *in, size_t line, const char *what) {
  if (++in->troubles > troubles_named) return;
  if (!in->trouble->empty()) *in->trouble += '\n';
  *in->trouble += "line " + std::to_string(line) + ": " + what;
}

/* --- lines --- */

/* Lines end with CR LF, LF or, in cards of old Macs, CR. */
bool next_line(reader *in, std::string_view *line) {
  if (in->rest.empty()) return false;
  const size_t end = std::min(in->rest.find_first_of("\r\n"), in->rest.size());
  *line = in->rest.substr(0, end);
  in->rest.remove_prefix(end);
  in->rest.remove_prefix(in->rest.starts_with("\r\n") ? 2 : in->rest.empty() ? 0 : 1);
  in->line++;
  return true;
}

/* The logical line at the reader: folded lines joined, quoted-printable ones that end in '=' too. */
std::string join_lines(reader *in, std::string_view first, bool old) {
  std::string line(first);
  vcard_property prop;
  const bool soft_breaks = vcard_split_property(line, &prop) && vcard_is_quoted_printable(prop);
  while (!in->rest.empty()) {
    reader ahead = *in;
    std::string_view next;
    next_line(&ahead, &next);
    if (soft_breaks && line.ends_with('=')) {
      line.pop_back();
      line += next;
    } else if (!next.empty() && (next[0] == ' ' || next[0] == '\t')) {
      line += old ? next : next.substr(1);
    } else {
      break;
    }
    *in = ahead;
  }
  return line;
}

/* The rules for the lines depend on the version, which stands inside the card. */
bool card_is_old(std::string_view rest) {
  reader ahead{rest, 0, nullptr};
  std::string_view line;
  while (next_line(&ahead, &line)) {
    if (vcard_same_word(line.substr(0, 8), "VERSION:")) return vcard_trim(line.substr(8)) == "2.1";
    if (vcard_same_word(vcard_trim(line), "END:VCARD") || vcard_same_word(vcard_trim(line), "BEGIN:VCARD")) break;
  }
  return false;
}

/* --- what is kept of a property --- */

int number_type(const vcard_property &prop) {
  constexpr std::string_view others[] = {"CAR", "VIDEO", "ISDN", "PCS", "MAIN", "OTHER"};
  /* A mobile stays a mobile when it is also the one of the office. */
  if (vcard_has_parameter(prop, "TYPE", "CELL") || vcard_has_parameter(prop, "TYPE", "MOBILE"))
    return CONTACTS_NUMBER_TYPE_MOBILE;
  if (vcard_has_parameter(prop, "TYPE", "HOME")) return CONTACTS_NUMBER_TYPE_HOME;
  if (vcard_has_parameter(prop, "TYPE", "WORK")) return CONTACTS_NUMBER_TYPE_WORK;
  const bool other = std::any_of(std::begin(others), std::end(others),
                                 [&](std::string_view word) { return vcard_has_parameter(prop, "TYPE", word); });
  return other ? CONTACTS_NUMBER_TYPE_OTHER : CONTACTS_NUMBER_TYPE_NONE;
}

/* A fax, a pager or a modem answers no call; a number that is one of them and a voice too does. */
bool answers_no_call(const vcard_property &prop) {
  constexpr std::string_view machines[] = {"FAX", "PAGER", "MODEM", "BBS", "TEXTPHONE"};
  constexpr std::string_view voices[] = {"VOICE", "CELL", "MOBILE"};
  const auto named = [&](std::string_view word) { return vcard_has_parameter(prop, "TYPE", word); };
  return std::any_of(std::begin(machines), std::end(machines), named) &&
         std::none_of(std::begin(voices), std::end(voices), named);
}

std::string name_from_parts(const std::vector<std::string> &parts) {
  /* Family, given, additional, prefixes, suffixes: shown in the order in which they are spoken. */
  constexpr size_t order[] = {3, 1, 2, 0, 4};
  std::string name;
  for (const size_t i : order) {
    if (i < parts.size()) name += parts[i] + " ";
  }
  return vcard_clean(name);
}

/* A name that is too long is cut at a character. */
void take_name(std::string name, std::string *place) {
  if (!place->empty()) return;
  size_t size = 0;
  while (size < name.size()) {
    const size_t length = std::max<size_t>(text_utf8_length(std::string_view(name).substr(size)), 1);
    if (size + length > name_max_bytes) break;
    size += length;
  }
  name.resize(size);
  *place = std::move(name);
}

/* Takes `scheme:` off; false when it is not there. */
bool take_scheme(std::string *value, std::string_view scheme) {
  if (!vcard_same_word(std::string_view(*value).substr(0, scheme.size()), scheme)) return false;
  value->erase(0, scheme.size());
  return true;
}

/* NULL when it was taken or holds nothing, else why it is left out. */
const char *take_email(std::string value, vcard_person *person) {
  /* "Anna Berg <anna@example.org>" */
  const size_t open = value.rfind('<');
  const size_t close = open == std::string::npos ? open : value.find('>', open);
  if (close != std::string::npos) value = vcard_clean(value.substr(open + 1, close - open - 1));
  if (take_scheme(&value, "mailto:")) {
    value.erase(std::min(value.find('?'), value.size()));
    value = vcard_clean(vcard_percent_decoded(value));
  }
  if (value.empty()) return nullptr;
  if (value.size() > email_max_bytes) return "the e-mail address is too long and left out";
  if (person->emails.size() == entries_max) return "the person has too many e-mail addresses; this one is left out";
  person->emails.push_back(std::move(value));
  return nullptr;
}

const char *take_number(std::string value, const vcard_property &prop, vcard_person *person) {
  for (const char *other : {"sip:", "sips:", "mailto:", "http:", "https:", "xmpp:"}) {
    std::string rest = value;
    if (take_scheme(&rest, other)) return nullptr; /* nothing that the call application can dial */
  }
  if (take_scheme(&value, "tel:")) {
    value.erase(std::min(value.find(';'), value.size())); /* the URI's own parameters */
    value = vcard_clean(vcard_percent_decoded(value));
  }
  if (value.empty() || answers_no_call(prop)) return nullptr;
  if (value.size() > number_max_bytes) return "the phone number is too long and left out";
  if (person->numbers.size() == entries_max) return "the person has too many phone numbers; this one is left out";
  person->numbers.push_back({std::move(value), number_type(prop)});
  return nullptr;
}

const char *take_property(const vcard_property &prop, card *to) {
  const bool structured = prop.name == "N" || prop.name == "ORG";
  if (!structured && prop.name != "FN" && prop.name != "EMAIL" && prop.name != "TEL") return nullptr;
  std::string text;
  if (!vcard_decode(prop, &text)) return "the text is not in the character set that is named; it is left out";
  if (structured) {
    const std::vector<std::string> parts = vcard_unescape(text, to->old, ';');
    take_name(prop.name == "N" ? name_from_parts(parts) : vcard_clean(parts[0]),
              prop.name == "N" ? &to->structured_name : &to->organisation);
    return nullptr;
  }
  std::string value = vcard_clean(vcard_unescape(text, to->old, '\0')[0]);
  if (prop.name == "EMAIL") return take_email(std::move(value), &to->person);
  if (prop.name == "TEL") return take_number(std::move(value), prop, &to->person);
  take_name(std::move(value), &to->formatted_name);
  return nullptr;
}

/* --- cards --- */

/* False: nothing in it to keep. */
bool finish_card(card *from, std::vector<vcard_person> *persons) {
  vcard_person &person = from->person;
  person.name = !from->formatted_name.empty()    ? from->formatted_name
                : !from->structured_name.empty() ? from->structured_name
                : !from->organisation.empty()    ? from->organisation
                : !person.emails.empty()         ? person.emails[0]
                : !person.numbers.empty()        ? person.numbers[0].number
                                                 : "";
  if (person.name.empty()) return false;
  persons->push_back(std::move(person));
  return true;
}

/* The reader stands behind a "BEGIN:VCARD", and afterwards behind the card's end. A card without one is named; true: it
   ended where the next begins, and the reader stands behind that one's first line. Each line is looked at once, so that
   no file costs more than its size. */
bool read_card(reader *in, std::vector<vcard_person> *persons) {
  card to;
  to.old = card_is_old(in->rest);
  const size_t begin = in->line;
  int nesting = 0; /* a card inside the card (an agent's) is not this person */
  bool too_deep = false, agent = false;
  std::string_view first;
  while (next_line(in, &first)) {
    if (vcard_trim(first).empty()) continue;
    const size_t number = in->line;
    const std::string line = join_lines(in, first, to.old);
    const std::string_view bare = vcard_trim(line);
    if (vcard_same_word(bare, "BEGIN:VCARD")) {
      if (!agent) {
        note(in, begin, "the card that begins here has no end; it is left out");
        return true;
      }
      if (++nesting > nesting_max) too_deep = true;
    } else if (vcard_same_word(bare, "END:VCARD") && nesting-- == 0) {
      if (too_deep) {
        note(in, begin, "the card holds cards too deep inside each other; it is left out");
      } else if (!finish_card(&to, persons)) {
        note(in, begin, "the card that begins here has no name, address or number; it is left out");
      }
      return false;
    }
    /* What has no colon belongs to the line before: a photo that is not indented, a note broken without a sign. */
    vcard_property prop;
    const bool split = vcard_split_property(line, &prop);
    agent = split && prop.name == "AGENT";
    const char *why = split && nesting == 0 ? take_property(prop, &to) : nullptr;
    if (why != nullptr) note(in, number, why);
  }
  note(in, begin, "the card that begins here has no end; it is left out");
  return false;
}

}  // namespace

bool vcard_read(std::string_view bytes, std::vector<vcard_person> *persons, std::string *trouble) {
  trouble->clear();
  std::string text;
  if (bytes.size() > vcard_file_max) {
    *trouble = "the file is larger than 16 MiB";
    return false;
  }
  if (!vcard_file_text(bytes, &text)) {
    *trouble = "the file is not text";
    return false;
  }
  reader in{text, 0, trouble};
  std::string_view line;
  bool any = false, strange = false;
  while (next_line(&in, &line)) {
    const std::string_view bare = vcard_trim(line);
    if (!vcard_same_word(bare, "BEGIN:VCARD")) {
      /* Said once for lines that stand together. */
      if (!bare.empty() && !strange) note(&in, in.line, "a card must begin here; this is passed over");
      strange = !bare.empty();
      continue;
    }
    any = true;
    strange = false;
    while (persons->size() < persons_max && read_card(&in, persons)) continue;
    if (persons->size() < persons_max || in.rest.empty()) continue;
    note(&in, in.line, "the file holds too many cards; the rest is left out");
    break;
  }
  if (in.troubles > troubles_named) *trouble += "\nand " + std::to_string(in.troubles - troubles_named) + " more";
  if (!any) *trouble = "the file holds no vCard";
  return any && (!persons->empty() || in.troubles == 0);
}
