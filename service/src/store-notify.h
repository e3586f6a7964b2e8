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
  bool is_fresh; /* new, unread, and not part of its account's first sync */
};

enum class notice_step { waits, handed_over, stands };

struct notice {
  int mail_id;
  int account_id;
  notice_step step;
  uint32_t number; /* the server's; 0: none yet */
  bool counted;
  bool told_locked;
  std::string server;
  bool is_over; /* the mail is gone or read; that all are seen is said of mails that nobody saw */
  bool locked;  /* the mail is locked now */
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

#endif
