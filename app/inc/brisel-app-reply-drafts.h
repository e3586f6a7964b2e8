/* The drafts of replies, as far as others than the typed view need to know. Thread: the EFL main loop. */
#ifndef BRISEL_APP_REPLY_DRAFTS_H
#define BRISEL_APP_REPLY_DRAFTS_H

/* Lets go of the drafts whose mail is gone from the store. Called when the application starts, and whenever mails
   went. */
void brisel_reply_drafts_forget_gone(void);

#endif
