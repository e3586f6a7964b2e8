/* Launching applications on the paired phone. Thread: the EFL main loop. */
#ifndef BRISEL_PLATFORM_HOST_LAUNCH_H
#define BRISEL_PLATFORM_HOST_LAUNCH_H

/* Asks the phone, through the host service, to open its application of that kind ("email") on the given mails.
   The ids are copied. 0 when handed to the bus, -1 otherwise. The request waits at the service for a phone. */
int launch_host_predefined_application(const char *kind, const int *ids, int count);

#endif
