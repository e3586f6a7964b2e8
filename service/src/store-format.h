/* What the store's writer and its readers agree on besides the tables (service/schema): its name and version, the
   fields of a mail, and the forms of texts. Any file of the service and of the common library may include it. */
#ifndef BRISEL_STORE_FORMAT_H
#define BRISEL_STORE_FORMAT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "brisel-body.h"

/* PRAGMA application_id of a store: tells it from any other database. */
constexpr int store_application_id = 0x42524953;
/* PRAGMA user_version that this build reads and writes. */
constexpr int store_version = 7;
constexpr char store_file[] = "store.db";

/* Ids as the changes table keeps them: "3,4,5". */
std::string ids_to_text(const std::vector<int> &ids);
/* Skips what is no positive number. */
std::vector<int> ids_from_text(std::string_view text);

/* One phone number of a sender. */
struct contact_value {
  int type;
  std::string number;
};

/* How the contacts column is written; false when a number is empty, too long, holds control characters, or there are
   too many. */
bool contacts_to_text(const std::vector<contact_value> &contacts, std::string *text);
std::vector<contact_value> contacts_from_text(const std::string &text);

/* --- fields of a mail --- */

enum class field_kind { text, number, flag, time, contacts };

struct field_rule {
  const char *name; /* of the column, and of the key on the bus */
  field_kind kind;
  size_t max; /* bytes of a text, numbers of contacts */
};

/* What is kept of a mail besides its id: the columns of its table in their order, and the body behind them. */
enum mail_field {
  field_host_state,
  field_time,
  field_attachments,
  field_image,
  field_new,
  field_account,
  field_locked,
  field_read,
  field_tag,
  field_subject,
  field_address,
  field_name,
  field_uid,
  field_contacts,
  field_body,
  mail_field_count
};
extern const std::array<field_rule, mail_field_count> mail_fields;
/* "host_state, ..., contacts": all but the body, which has its own table. */
const std::string &mail_columns(void);
/* -1 when there is no such field. */
int mail_field_index(const char *name);

/* --- the journal --- */

/* Seconds that a row which ended is still shown. */
constexpr int64_t journal_ended_kept = 24 * 3600;
/* SQL with the numbers that these marks stand for: [waits], [handed over], [sent], [refused] (brisel_request_state),
   [reply] (brisel_request_kind) and [kept] (journal_ended_kept). */
std::string journal_sql(std::string_view sql);

/* Seconds that a mail may wait to be shown on a phone. Who asked for it has looked at the phone by then, and does
   something else with it. */
constexpr int64_t show_age = 120;

/* Text that every border takes: what is no UTF-8, a zero byte or a code point that a bus refuses becomes U+FFFD. */
std::string clean_text(std::string_view text);

/* The length of a body without the tag at its end. */
size_t body_length(std::string_view body);

#endif
