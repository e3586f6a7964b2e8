/* What is left to the process that reads foreign mail. Used by the parser process alone. */
#ifndef BRISEL_PHONE_CAGE_H
#define BRISEL_PHONE_CAGE_H

#include "platform-cage.h"

/* Leaves reading the system's files, for charset converters and time zones. Returns the walls that stand. Call it once,
   when everything that the process needs beyond that is open. */
int cage_enter();

#endif
