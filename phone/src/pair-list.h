/*
 * The watches that this phone is paired with. Each has a folder below the phone's state: its state, and how it is
 * reached. It is paired from when its record is there, which is written last and taken away first.
 */
#ifndef BRISEL_PHONE_PAIR_LIST_H
#define BRISEL_PHONE_PAIR_LIST_H

#include <string>
#include <vector>

#include "carrier.h"

struct paired_watch {
  std::string name; /* what the user calls it */
  carrier_address address;
  carrier_keys keys; /* files that may not be there (yet) */
  std::string id;    /* the watch's own; empty: it has none */
};

bool pair_name_is_good(const std::string &name);
/* The folder of a watch below the state folder. */
std::string pair_folder(const std::string &name);
/* A record for a watch of this name, with its files' paths. */
paired_watch pair_record(const std::string &name, const carrier_address &address);

/* All, by name. Returns 0, or -1 with a reason: a record that cannot be read. */
int pair_list(std::vector<paired_watch> *watches, std::string *error);
/* Returns 1 found, 0 not, -1 with a reason. */
int pair_find(const std::string &name, paired_watch *watch, std::string *error);
/* Both return 0, or -1 with a reason. Forgetting takes the folder with the state away too. */
int pair_remember(const paired_watch &watch, std::string *error);
int pair_forget(const std::string &name, std::string *error);

#endif
