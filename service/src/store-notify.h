/* What the store knows of notifications: which mails have been looked at, and what stands. Transactions and errors as
   in store.h. */
#ifndef BRISEL_STORE_NOTIFY_H
#define BRISEL_STORE_NOTIFY_H

#include "store.h"

/* Notifications that may stand at once: single ones, and mails that the counting one counts. */
inline constexpr size_t notices_single_max = 16, notices_max = 999;

/* A mail that nobody has looked at yet. */
struct arrival {
  int mail_id;
  int account_id;
  bool is_fresh;       /* new, unread, not part of its account's first sync, and no message that was fresh before */
  std::string message; /* names the message, whichever mail it comes as; empty: nothing does */
};

enum class notice_step { waits, handed_over, stands };

/* A notice of a reply that was refused has the request's id, below zero, in the place of a mail's. */
struct notice {
  int mail_id;
  int account_id;
  notice_step step;
  uint32_t number; /* the server's; 0: none yet */
  bool counted;
  bool told_locked;
  std::string server;
  bool is_over; /* the mail is gone or read (that all are seen is said of mails that nobody saw); a reply that was
                   refused was sent again or dropped */
  bool locked;  /* the mail is locked now */
};

/* What one says of a refused reply. The account and the lock are the answered mail's, 0 once that is gone. */
struct refused_reply {
  int account_id = 0;
  bool locked = false;
  std::string person, reason; /* reason: as the phone says it */
};

/* What a notification says of a mail, and what its buttons need. */
struct noticed_mail {
  int account_id = 0, host_state = 0;
  bool locked = false;
  std::string subject, from_address, from_name, host_tag, message_uid;
};

/* The mails above the last one looked at, by id. now: seconds since the epoch. */
store_status store_notify_arrivals(store *st, int64_t now, std::vector<arrival> *arrivals);
/* They have been looked at; the given ones of them wait to be told from now on, at most notices_max in all. */
store_status store_notify_take(store *st, int64_t now, const std::vector<arrival> &arrivals,
                               const std::vector<int> &to_tell);
/* By mail id. */
store_status store_notify_list(store *st, std::vector<notice> *notices);
/* Writes step, number, counted, told_locked and server of each. */
store_status store_notify_put(store *st, const std::vector<notice> &notices);
store_status store_notify_drop(store *st, const std::vector<int> &ids);
/* store_invalid when there is no such mail. */
store_status store_notify_mail(store *st, int mail_id, noticed_mail *mail);
/* A reply that has just been refused is to be told. Inside a transaction. */
store_status store_notify_refused(store *st, int64_t request_id);
/* store_invalid when there is none of that id that was refused. */
store_status store_notify_refusal(store *st, int request_id, refused_reply *reply);

#endif
