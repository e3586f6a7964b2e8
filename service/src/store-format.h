/* What the store's writer and its readers agree on besides the tables (service/schema). */
#ifndef BRISEL_STORE_FORMAT_H
#define BRISEL_STORE_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "brisel-body.h"

/* PRAGMA application_id of a store: tells it from any other database. */
constexpr int store_application_id = 0x42524953;
/* PRAGMA user_version that this build reads and writes. */
constexpr int store_version = 3;
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

/* Text that every border takes: what is no UTF-8, a zero byte or a code point that a bus refuses becomes U+FFFD. */
std::string clean_text(std::string_view text);

/* The length of a body without the tag at its end. */
size_t body_length(std::string_view body);

#endif
