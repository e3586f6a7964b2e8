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
};

struct watch_target {
  std::string name; /* what the user calls it, or its address */
  carrier_address address;
  carrier_keys keys;
  link_pace pace;
};

/* Chooses by the name of a paired watch or by address; empty: the paired one, or the session bus's when none is. With
   several paired ones and no choice whoever needs a watch or its state gets a reason instead. Returns 0, or -1 with a
   reason. */
int watch_choose(const std::string &text, std::string *error);
const watch_target &watch_chosen();
/* The names of the watches to choose from when there was no choice among several; else none. */
const std::vector<std::string> &watch_all();
void watch_set_pace(const link_pace &pace);

/* A connection to the chosen watch's service, introduced, for calls. NULL with a reason. */
host_bus_holder watch_open(std::string *error);

/* Who this phone is: a number made once for it, and the machine's name or `name` when it is not empty. Returns 0, or -1
   with a reason. */
int phone_identity_load(const std::string &name, phone_identity *me, std::string *error);

#endif
