/* New mail and refused replies are told: through the session's notification server, and by touch through its feedback
   service. What it tells and when: docs/host-service.md. Nothing here waits for anybody: every call to another program
   is answered later, or never. Thread: the service's event loop. */
#ifndef BRISEL_NOTIFY_H
#define BRISEL_NOTIFY_H

#include <sys/types.h>
#include <systemd/sd-bus.h>

struct host;

/* When the service has its name on the bus. Without memory or a bus that takes matches nothing is told, and a line on
   standard error says so. */
void notify_start(host *h);
/* Notifications stay where they are: the next service knows them. */
void notify_stop(host *h);
/* The life of the process that outlives the killed service, which is the process given. Its exit code. */
int notify_keeper_run(pid_t service);
/* sender, a name on the bus, shows the list of that account's mails; 0: of all; below 0: no list. Forgotten when the
   sender leaves the bus. */
int notify_list_in_view(host *h, const char *sender, int account_id);
/* The store has a refusal that is to be told. */
void notify_reply_refused(host *h);

#endif
