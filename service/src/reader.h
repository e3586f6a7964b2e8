/* Inside libbrisel-common: the read-only connection to the store, shared by the store calls and the host link.
   Thread: the EFL main loop. */
#ifndef BRISEL_READER_H
#define BRISEL_READER_H

#include <cstddef>

#include "brisel-common.h"
#include "platform-sql.h"

enum reader_query {
  reader_account_count,
  reader_accounts,
  reader_account,
  reader_account_color,
  reader_mail, /* all but its body */
  reader_mails,
  reader_mails_of_account,
  reader_few_rows,
  reader_many_rows,
  reader_rows, /* behind a place, as the places */
  reader_rows_of_account,
  reader_places,
  reader_places_of_account,
  reader_mail_count,
  reader_mail_count_of_account,
  reader_templates,
  reader_state,
  reader_last_change,
  reader_changes,
  reader_mail_range,
  reader_mail_ids,
  reader_requests,
  reader_query_count
};

/* The columns of a row: what a list shows of a mail, and nothing else of it is read. */
enum row_column { row_id, row_time, row_new, row_account, row_locked, row_read, row_subject, row_address, row_name };

/* Mails whose rows one run of reader_few_rows and reader_many_rows gives: its values are their ids, NULL where fewer
   are wanted. The rows of each run cost a fixed part; to ready the query for many costs as much as two hundred rows. */
inline constexpr int reader_few = 16, reader_many = 64;

/* One user more or less of the connection; it closes with the last. */
void reader_hold(void);
void reader_release(void);
/* At rest: the pages of the store that are kept for the next query are freed. */
void reader_give_back(void);

/* Readies a query for its values. 0 with *query set, to be given back with reader_done(); 0 with *query NULL when there
   is no store yet, which reads as empty; else a BRISEL_COMMON_ERROR_*. */
int reader_start(reader_query which, sql_statement **query);
/* While a query stands on a mail's row: the first bytes of its body, most at most, ended by a zero byte; to be freed
   with g_free. *length: how many they are; *is_whole: all of them. 0 or a BRISEL_COMMON_ERROR_*. */
int reader_body_beginning(int mail_id, size_t most, char **bytes, size_t *length, bool *is_whole);
/* The same of all of it, as brisel_db_walk_body_by_mail_id() hands it on. */
int reader_walk_body(int mail_id, size_t from, size_t most, brisel_body_cb callback, void *data);
/* Ends a query. result: what its last step returned. 0, or BRISEL_COMMON_ERROR_STORE when that was an error. */
int reader_done(sql_statement *query, sql_result result);

/* Looks whether the file is still the one that is open, and turns to the new one if there is one. */
void reader_check_file(void);

/* How often the file turned out to be another store than the one open before: grows, never shrinks. A store that the
   service has put back is the same one. */
int reader_files_replaced(void);

/* value when the key was never set, or on any error. *status: as of reader_start. */
int reader_get_state(const char *key, int fallback, int *status);

#endif
