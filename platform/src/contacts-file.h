/* The contacts' file: opening it for one operation, and telling of its changes. For the contacts service alone. */
#ifndef BRISEL_PLATFORM_CONTACTS_FILE_H
#define BRISEL_PLATFORM_CONTACTS_FILE_H

#include <string>
#include <vector>

#include "platform-sql.h"

/* Each returns 0, or -1 with the reason logged. */

/* *db stays closed, with 0, when there are no contacts yet. */
int contacts_file_open_to_read(sql_db *db);
/* Inside a transaction that contacts_file_commit() ends; closing without it undoes everything. */
int contacts_file_open_to_write(sql_db *db);
int contacts_file_commit(sql_db *db);
/* Logs what db says; doing: "read", "write". Always -1. */
int contacts_file_failed(const sql_db &db, const char *doing);

/* Calls changed after every commit of any process, on the main loop. One at a time; false: it cannot be watched. */
bool contacts_file_watch(void (*changed_cb)(void));
void contacts_file_unwatch(void);

/* All spellings under which the file may hold an address: without case, brackets and "mailto:", the domain in Unicode
   and as it goes over the wire. The first is the one to keep. Never empty. */
std::vector<std::string> contacts_address_spellings(const std::string &address);
/* Without case; text must be UTF-8. */
std::string contacts_folded(const std::string &text);

#endif
