/* Inside libbrisel-common: how the records of the store are built. Thread: the EFL main loop. */
#ifndef BRISEL_RECORDS_H
#define BRISEL_RECORDS_H

#include <cstddef>
#include <string_view>

#include "brisel-common.h"

/* A record and its list cell side by side. */
struct slab_mail {
  full_noti_data mail;
  GSList cell;
};

/* A list's memory: everything of it lies in a few large blocks, which go with the list. */
struct slab;
slab *slab_new(void);
void slab_free(slab *s);
/* An empty record in its cell, not linked to any other. NULL when memory is short. */
slab_mail *slab_add_mail(slab *s);

/* Copies a text of the store, made valid where it is not; NULL for an empty one. From s, or from the heap when s is
 * NULL. */
char *records_text(slab *s, std::string_view text);

/* Sets sender_contact_list from the contacts column. The numbers lie in s, or in a block of the record's own. */
bool records_set_contacts(slab *s, full_noti_data *mail, std::string_view text);
/* Frees what a record holds and empties it. */
void records_clear_mail(full_noti_data *mail);
void records_clear_account(account_data *account);

#endif
