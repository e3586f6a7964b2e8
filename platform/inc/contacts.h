/*
 * The contacts service: persons, their e-mail addresses and phone numbers.
 * Thread: the EFL main loop. Errors: CONTACTS_ERROR_NONE (0), else a negative code.
 * Handles are opaque; each is destroyed by its own destroy call.
 */
#ifndef BRISEL_PLATFORM_CONTACTS_H
#define BRISEL_PLATFORM_CONTACTS_H

enum contacts_error {
  CONTACTS_ERROR_NONE = 0,
  CONTACTS_ERROR_INVALID_PARAMETER = -1,
  CONTACTS_ERROR_OUT_OF_MEMORY = -2,
  CONTACTS_ERROR_DB = -3,      /* the contacts file cannot be opened, read or written, or is no contacts file */
  CONTACTS_ERROR_NO_DATA = -4, /* the list has no (further) record */
  CONTACTS_ERROR_NOT_CONNECTED = -5
};

struct contacts_query_s;
struct contacts_filter_s;
struct contacts_list_s;
struct contacts_record_s;
typedef contacts_query_s *contacts_query_h;
typedef contacts_filter_s *contacts_filter_h;
typedef contacts_list_s *contacts_list_h;
typedef contacts_record_s *contacts_record_h;

enum contacts_match_str_flag { CONTACTS_MATCH_EXACTLY, CONTACTS_MATCH_FULLSTRING };
/* FULLSTRING ignores case, angle brackets, and whether a domain is written in Unicode or in its ASCII form. */
enum contacts_match_int_flag { CONTACTS_MATCH_EQUAL };

/* A phone number's type as records report it; 0: none given. */
enum contacts_number_type {
  CONTACTS_NUMBER_TYPE_NONE = 0,
  CONTACTS_NUMBER_TYPE_HOME = 1,
  CONTACTS_NUMBER_TYPE_MOBILE = 2,
  CONTACTS_NUMBER_TYPE_WORK = 3,
  CONTACTS_NUMBER_TYPE_OTHER = 4
};

/* A view of the database: its uri and the ids of its properties. */
struct contacts_view_person_s {
  const char *_uri;
  unsigned id, display_name;
};
struct contacts_view_person_email_s {
  const char *_uri;
  unsigned person_id, display_name, email;
};
struct contacts_view_person_number_s {
  const char *_uri;
  unsigned person_id, display_name, number, type;
};
extern const contacts_view_person_s _contacts_person;
extern const contacts_view_person_email_s _contacts_person_email;
extern const contacts_view_person_number_s _contacts_person_number;

int contacts_connect2(void);
int contacts_disconnect2(void);

int contacts_query_create(const char *view_uri, contacts_query_h *query);
int contacts_query_destroy(contacts_query_h query);
int contacts_filter_create(const char *view_uri, contacts_filter_h *filter);
int contacts_filter_destroy(contacts_filter_h filter);
int contacts_filter_add_str(contacts_filter_h filter, unsigned property, int match_flag, const char *value);
int contacts_filter_add_int(contacts_filter_h filter, unsigned property, int match_flag, int value);
int contacts_query_set_filter(contacts_query_h query, contacts_filter_h filter); /* copies the filter */
/* offset and limit in records; limit 0: all. Records come by person id, then in the order they were added. */
int contacts_db_get_records_with_query(contacts_query_h query, int offset, int limit, contacts_list_h *list);

/* A fresh list stands on its first record. */
int contacts_list_get_current_record_p(contacts_list_h list, contacts_record_h *record); /* the list's own */
int contacts_list_next(contacts_list_h list); /* CONTACTS_ERROR_NO_DATA past the last */
int contacts_list_destroy(contacts_list_h list, bool destroy_records);
int contacts_record_get_int(contacts_record_h record, unsigned property, int *value);
int contacts_record_get_str_p(contacts_record_h record, unsigned property,
                              char **value); /* the record's own; may be NULL */

/* callback runs on the main loop after any process changed the contacts, once per commit at most; callbacks run in the
   order of registration. The pair (callback, user_data) identifies a registration. Safe to remove inside a callback. */
typedef void (*contacts_db_changed_cb)(const char *view_uri, void *user_data);
int contacts_db_add_changed_cb(const char *view_uri, contacts_db_changed_cb callback, void *user_data);
int contacts_db_remove_changed_cb(const char *view_uri, contacts_db_changed_cb callback, void *user_data);

/* --- for tools: no main loop needed --- */

/* Imports every vCard (2.1, 3.0 or 4.0) of the file in one transaction. *count: persons added; who is there already,
   with that name and an address or a number of the card, gets what the card has more and counts as none. Faxes and
   other numbers that answer no call are left out. error (may be NULL): the reason, which the caller frees with free();
   with CONTACTS_ERROR_NONE NULL, or a line for each card or part of one that was left out. */
int contacts_import_vcard_file(const char *path, int *count, char **error);
/* Removes every person with that address (case ignored). *count: persons removed. */
int contacts_remove_by_email(const char *address, int *count);
/* Calls fn for each person with its addresses and numbers as a JSON object text, by person id. */
int contacts_for_each(void (*fn)(const char *json, void *user_data), void *user_data);

#endif
