/* Finding the servers of an address: what its domain publishes, else the names that most use. */
#ifndef BRISEL_PHONE_POST_FIND_H
#define BRISEL_PHONE_POST_FIND_H

#include <string>

/* Sets *imap and *smtp to addresses as in post-account.h, each empty when nothing was found. */
void post_find_servers(const std::string &address, std::string *imap, std::string *smtp);

#endif
