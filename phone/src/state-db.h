/* The phone's state from inside: only the files state-*.cpp may include it, so that SQL stands nowhere else. */
#ifndef BRISEL_PHONE_STATE_DB_H
#define BRISEL_PHONE_STATE_DB_H

#include <string>

#include "platform-sql.h"
#include "state.h"

struct phone_state {
  sql_db db;
  std::string error;
  size_t request_bytes = 0; /* of those that came since it was looked how many are kept */
  /* Kept ready: they run for every mail that is relayed. */
  sql_statement add_mail, set_mail_id, write_row;
};

/* The statement that is kept, ready for values. */
inline sql_statement *state_kept(phone_state *state, sql_statement *kept, const char *sql) {
  if (!kept->is_prepared()) kept->prepare(&state->db, sql);
  return kept;
}

/* Keeps what the database says, behind what could not be done. Returns -1. */
int state_fail(phone_state *state, const char *what);

#endif
