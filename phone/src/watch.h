/*
 * Which watch a command means: chosen once, at its start, for the whole process. It decides where the link goes and
 * which state is used. Thread: the main one.
 */
#ifndef BRISEL_PHONE_WATCH_H
#define BRISEL_PHONE_WATCH_H

#include "host.h"

/* How the phone keeps knowing that a stream lives, in seconds. */
struct link_pace {
  unsigned ping_after = pair_ping_after; /* without a word; 0: never */
  unsigned ping_answer = pair_ping_answer, call_answer = pair_call_answer;
  unsigned again_after = 30; /* between two tries to reach it, at most */
};

struct watch_target {
  std::string name; /* what the user calls it, or its address */
  carrier_address address;
  carrier_keys keys;
  link_pace pace;
  std::string phone_name; /* what this phone is called there */
};

/* Chooses by the name of a paired watch or by address; empty: the paired one, or the session bus's when none is. With
   several paired ones and no choice whoever needs a watch or its state gets a reason instead. Returns 0, or -1 with a
   reason. */
int watch_choose(const std::string &text, std::string *error);
const watch_target &watch_chosen();
/* The names of the watches to choose from when there was no choice among several; else none. */
const std::vector<std::string> &watch_all();
void watch_set_pace(const link_pace &pace);
/* Empty: the machine's name. Returns 0, or -1 with a reason. */
int watch_set_phone_name(const std::string &name, std::string *error);

/* A stream to a watch whose state is in use, through whoever of this phone lends one, else one of its own. */
host_bus_holder watch_stream(const carrier_address &address, const carrier_keys &keys, std::string *error);
/* A connection to the chosen watch's service, introduced, for calls. NULL with a reason. */
host_bus_holder watch_open(std::string *error);

/* Who this phone is: a number made once for it, and its name. Returns 0, or -1 with a reason. */
int phone_identity_load(phone_identity *me, std::string *error);

#endif
