/* "Waiting and sent": what became of the replies, deletions and marks of this watch. Thread: the EFL main loop. */
#ifndef BRISEL_APP_JOURNAL_H
#define BRISEL_APP_JOURNAL_H

#include "brisel-app-data.h"

/* Opens the screen; once, however often it is asked for. 0; -1: no ad; -3: memory or a widget. */
int brisel_journal_draw_view(appdata *ad);
/* Something became of these requests (0: of any): an open screen shows it, and a reply that was refused is told. */
void brisel_journal_update(GSList *ids, appdata *ad);

#endif
