/*
 * The store's only writer. Each call is one transaction: when it returns store_ok, its outcome is on disk; when it
 * returns anything else, nothing was changed and store_error() says why in one line.
 * No call throws, keeps a pointer given to it, or knows the bus. Thread: any one.
 */
#ifndef BRISEL_STORE_H
#define BRISEL_STORE_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "store-format.h"

struct store;

enum store_status {
  store_ok = 0,
  store_done = 1,     /* a request of that uid was done before: nothing to do */
  store_invalid = -1, /* an argument breaks a rule, or names no mail or account */
  store_failed = -2,  /* the file could not be read or written */
  store_full = -3     /* what waits for a phone has reached its bound */
};

/* --- fields of a mail ------------------------------------------------------------------------------------------ */

struct field_value {
  bool set = false;
  bool null = false;
  int64_t number = 0;
  std::string text;
};

struct mail_values {
  int mail_id = 0; /* of a mail that was read */
  std::array<field_value, mail_field_count> field;
};

struct account_value_record {
  int account_id;
  int account_value;
  std::string email_address;
  std::string display_name;
  uint32_t color;
};

/* --- opening --------------------------------------------------------------------------------------------------- */

/* Opens the store, makes it when there is none or the file is empty, and brings an older one up to date. Refuses, and
   leaves as it is, a file that is no store, is newer than this build, or is in use by another service. On failure NULL,
   with *why a one-line text. */
store *store_open(const std::string &path, std::string *why);
/* NULL is allowed. */
void store_close(store *st);
const std::string &store_error(const store *st);

/* Whether the file that is open is still the one of its name. */
bool store_file_is_there(const store *st);
/* Puts it back when it was deleted, or turns to the store that has taken its place; every call that writes does so
   first. store_failed: it cannot be done now, and until it can nothing else is. */
store_status store_keep_file(store *st);
/* What became of the file, in one line for whoever looks after the service; empty when nothing has since the last. */
std::string store_take_note(store *st);

/* The number of the newest change. */
int64_t store_last_change(store *st);

/* --- the phone's side ------------------------------------------------------------------------------------------ */

/* *id: 0 for a new one; an account that exists takes the new values. */
store_status store_add_account(store *st, int *id, const std::string &address, const std::string &name, uint32_t rgba);
store_status store_remove_account(store *st, int id);
store_status store_list_accounts(store *st, std::vector<account_value_record> *accounts);
store_status store_set_account_count_known(store *st, bool known);
/* Fills in what was left out, and checks what store_add_mails() would; nothing is added. */
store_status store_check_mails(store *st, std::vector<mail_values> *mails);
store_status store_add_mails(store *st, std::vector<mail_values> *mails, std::vector<int> *ids);
store_status store_update_mail(store *st, int mail_id, const mail_values &values);
/* As far as they are still there. */
store_status store_take_back_mails(store *st, const std::vector<int> &ids);
store_status store_delete_mails(store *st, const std::vector<int> &ids);
/* Stops before limit mails, or before bytes are exceeded (one mail at least). */
store_status store_list_mails(store *st, int after_id, size_t limit, size_t bytes, std::vector<mail_values> *mails);
/* The same of nothing but how a mail is known to the phone. */
struct mail_name {
  int mail_id = 0, account_id = 0;
  std::string host_tag, message_uid;
};
store_status store_list_mail_ids(store *st, int after_id, size_t limit, size_t bytes, std::vector<mail_name> *mails);
store_status store_set_templates(store *st, const std::vector<std::string> &texts);
store_status store_list_templates(store *st, std::vector<std::pair<int, std::string>> *templates);
/* key: "reply_status", "conn_status" or "phone_connected". */
store_status store_set_state(store *st, const char *key, int value);
/* fallback when it was never set or cannot be read. */
int store_get_state(store *st, const char *key, int fallback);

/* --- the application's side ------------------------------------------------------------------------------------- */

/* A request that waits for a phone. */
struct outbox_entry {
  int64_t id;
  std::string json;
  std::string uid; /* of a reply, by which the phone tells what came of it; else empty */
};

struct store_request {
  std::string uid;
  std::string json;
  std::string client = {}; /* whose program asks */
};

/* Of each mail what its phone calls it: host_tag and message_uid, empty for one that is not there. Nothing at all when
   none has a name, or all together are too long to go along with a request. */
store_status store_mail_names(store *st, const std::vector<int> &ids, std::vector<std::string> *tags,
                              std::vector<std::string> *uids);
/* Each does its work, puts the json into the outbox and remembers the uid, all in one transaction; *entry gets the
   outbox's id. store_done when the uid is known already. */
store_status store_request_delete(store *st, const store_request &asked, const std::vector<int> &ids, int64_t *entry);
store_status store_request_read(store *st, const store_request &asked, const std::vector<int> &ids, int64_t *entry);
store_status store_request_clear_new(store *st, const store_request &asked, int64_t *entry);
/* No work besides telling the phone. */
store_status store_request_relay(store *st, const store_request &asked, int64_t *entry);

struct reply_words {
  int mail_id = 0;
  std::string recipient, subject, text; /* recipient: address, byte 0x02, name; or the address alone */
};
store_status store_request_reply(store *st, const store_request &asked, const reply_words &reply, int64_t *entry);

store_status store_outbox(store *st, std::vector<outbox_entry> *entries);
/* What is asked by a request that waits; empty for an id that is not there. */
store_status store_outbox_json(store *st, int64_t id, std::string *json);
/* A phone has a part of it: json is the rest. */
store_status store_outbox_set_json(store *st, int64_t id, const std::string &json);
/* The phone has it. An id that is not there (any more) is no error. */
store_status store_outbox_remove(store *st, int64_t id);
/* The uid of the request, if it is a reply that the phone does not have yet. */
std::string store_outbox_reply(store *st, int64_t id);
/* The phone has all of these replies, named by their uids. */
store_status store_outbox_remove_replies(store *st, const std::vector<std::string> &uids);
/* An id for a request that does not wait; unlike any other, for ever. */
store_status store_new_request_id(store *st, int64_t *id);

/* --- what became of requests: store-journal.cpp --------------------------------------------------------------------- */

/* Whether a phone is connected: from then on it may have what waits, which is neither dropped nor sent anew. */
store_status store_phone_came(store *st);
void store_phone_left(store *st);
/* The request of a reply that was refused or never offered to a phone; store_invalid for any other. */
store_status store_reply_json(store *st, int64_t id, std::string *json);
/* Sends such a reply as a new request, json with text, or drops it for good. */
store_status store_request_repeat(store *st, const store_request &asked, int64_t id, const std::string &text,
                                  int64_t *entry);
/* Whether a request of that uid is among the latest that were done. */
bool store_was_done(store *st, const std::string &uid);
store_status store_request_drop(store *st, const std::string &uid, int64_t id);
enum class reply_outcome { waits = 1, sent = 2, refused = 3 }; /* as brisel_request_state */
/* What the phone says came of the reply of that uid, and why. Again, or for one that is forgotten here: no error.
   A refusal that was not known before is to be told from then on (store-notify.h): *refused. */
store_status store_set_outcome(store *st, const std::string &uid, reply_outcome outcome, const std::string &reason,
                               bool *refused);

/* The body and the message uid of a mail. */
store_status store_get_body(store *st, int mail_id, std::string *body, std::string *message_uid);
/* Appends piece behind the have bytes of the body's text and sets the tag. store_invalid when the body is no longer
   that long. What would not fit is left out, and the body then counts as complete. */
store_status store_append_body(store *st, int mail_id, size_t have, const std::string &piece, bool complete);

#endif
