/*
 * Connections over Bluetooth, for all of this phone's processes. BlueZ takes a profile from one program of the machine
 * only, so one has it for the links to all watches: the switchboard, which the first that needs it starts, and which
 * ends soon after the last has left. Thread: any.
 */
#ifndef BRISEL_PHONE_SWITCHBOARD_H
#define BRISEL_PHONE_SWITCHBOARD_H

#include <string>

/* Waits for a connection to the device, which must be paired with. Returns 0, or -1 with a one-line reason. *line: the
   connection. *call: ends when the connection has to end, and is kept open as long as it is used. The caller closes
   both. */
int switchboard_connect(const std::string &address, int *line, int *call, std::string *error);

#endif
