/* Pairing: the commands `pair`, `watches` and `unpair`. Each returns the exit code and tells in one line what is wrong.
   They ask people on the terminal where ssh and BlueZ do. */
#ifndef BRISEL_PHONE_PAIR_H
#define BRISEL_PHONE_PAIR_H

#include <string>

#include "pair-list.h"

/* name: empty for one made from the address. */
int command_pair(const std::string &address, const std::string &name);
int command_watches(bool json);
int command_unpair(const std::string &name);

/* Started by ssh while it pairs: keeps the host key that it is about to check. */
int pair_note_host_key(const std::string &file, const std::string &purpose, const std::string &host,
                       const std::string &type, const std::string &key);

/* --- the ways; each returns 0, or -1 with a reason --- */

/* pair-ssh.cpp: makes a key and brings it to the watch, or takes it away there. */
int pair_ssh_install(const paired_watch &watch, std::string *error);
int pair_ssh_remove(const paired_watch &watch, std::string *error);
/* pair-bluetooth.cpp: bonds with the device, or ends that on this side. */
int pair_bluetooth_bond(const std::string &device, std::string *error);
int pair_bluetooth_forget(const std::string &device, std::string *error);

#endif
