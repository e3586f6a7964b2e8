/* The watch notification client library. New mail is told by the host service; the application says what its user sees
   already. Thread: the EFL main loop. 0 on success. */
#ifndef BRISEL_PLATFORM_PLEXO_H
#define BRISEL_PLATFORM_PLEXO_H

int plexo_initialize(void);
int plexo_finalize(void);

/* Between the two: the list of that account's mails (0: of all accounts) is in view, below 0: no list is. Notifications
   of what can be seen there are withdrawn, and new ones not made. Each service that comes is told anew; one that is
   away is not started for it. */
void plexo_list_in_view(int account_id);

#endif
