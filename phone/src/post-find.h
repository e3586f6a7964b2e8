/* Finding the servers of an address: what its domain publishes, else the names that most use. */
#ifndef BRISEL_PHONE_POST_FIND_H
#define BRISEL_PHONE_POST_FIND_H

#include "post-account.h"

struct post_found {
  std::string imap, smtp; /* as in post-account.h; empty: nothing was found */
  std::string user;       /* what the domain says the servers call the user; empty: nothing is said */
  /* Of a server only the name service told, which anybody between may have done, and it is outside the domain: to be
     confirmed before a password goes there. Two such servers: "A and B". */
  std::string doubtful;
};

/* Looks for what the account lacks. Returns 0, or -1 with a reason when it could not be looked for: no network, or no
   such domain. */
int post_find_servers(const post_account &account, post_found *found, std::string *error);
/* The address of a server for `scheme` ("imap" or "smtp") from what somebody types: a host, with a port perhaps, or an
   address as in post-account.h. Of a host alone the port is tried out. */
std::string post_find_typed(const post_account &account, const std::string &scheme, const std::string &typed);

#endif
