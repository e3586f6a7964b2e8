/* What the store's writer and its readers agree on besides the tables (service/schema). */
#ifndef BRISEL_STORE_FORMAT_H
#define BRISEL_STORE_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/* PRAGMA application_id of a store: tells it from any other database. */
constexpr int store_application_id = 0x42524953;
/* PRAGMA user_version that this build reads and writes. */
constexpr int store_version = 2;
constexpr char store_file[] = "store.db";

/* The tag at a body's end: more text is to be had, or the body is whole. */
constexpr std::string_view tag_more = "<tag:thisisover500>";
constexpr std::string_view tag_complete = "<tag:thisisover-1>";
constexpr std::string_view tag_start = "<tag:thisisover";

/* Bounds, in bytes, of what anyone may put into the store. */
constexpr size_t body_max = 4u << 20;
constexpr size_t text_max = 16u << 10; /* subject, names, addresses, templates */
constexpr size_t token_max = 4u << 10; /* host_tag, message_uid */
constexpr size_t number_max = 128;     /* one phone number */
constexpr size_t contacts_max = 64;    /* numbers of one sender */
constexpr size_t mails_max = 20000;    /* mails of one call */
constexpr size_t ids_max = 100000;     /* ids of one call */
constexpr size_t templates_max = 1000;
constexpr size_t uid_max = 128;

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

/* The length of a body without the tag at its end. */
size_t body_length(std::string_view body);

#endif
