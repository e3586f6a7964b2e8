/* One phone number of a mail's sender, an element of full_noti_data's sender_contact_list. Needs no library. */
#ifndef BRISEL_CONTACT_H
#define BRISEL_CONTACT_H

struct contact_number {
  int type;     /* as the contacts service reports it */
  char *number; /* may be NULL; owned by who made the record */
};

#endif
