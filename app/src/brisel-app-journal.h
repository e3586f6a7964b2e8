/* "Waiting and sent": what became of the replies, deletions and marks of this watch. Thread: the EFL main loop. */
#ifndef BRISEL_APP_JOURNAL_H
#define BRISEL_APP_JOURNAL_H

#include "brisel-app-data.h"

/* Opens the screen; once, however often it is asked for. 0; -1: no ad; -3: memory or a widget. */
int brisel_journal_draw_view(appdata *ad);
/* Something became of these requests: an open screen shows it, and a reply that was refused is told. NULL: nothing did;
   the texts and times of an open screen are made anew. */
void brisel_journal_update(GSList *ids, appdata *ad);
/* Sends a reply again, with another text when text is not NULL; the user is told when that fails, now or later. 0, or a
   BRISEL_COMMON_ERROR_*: not asked for. */
int brisel_journal_send_again(int request_id, const char *text, appdata *ad);

#endif
