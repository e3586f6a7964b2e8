/* The main screen. Thread: the EFL main loop. */
#ifndef BRISEL_APP_H
#define BRISEL_APP_H

#include "brisel-app-data.h"

/* Set once the main screen is built; process-wide. */
extern unsigned char launched;

/* Builds the screen tree and opens mail_id when it is above 0. 0, or -1 when the window or main layout is missing. */
int init_brisel(appdata *ad, int mail_id);

#endif
