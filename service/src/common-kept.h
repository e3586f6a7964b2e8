/* Requests that no service has taken over yet, kept on the disk: whoever handed them over may be killed.
   common-link.cpp calls it; nothing else may. Thread: the main loop. */
#ifndef BRISEL_COMMON_KEPT_H
#define BRISEL_COMMON_KEPT_H

#include <string>
#include <vector>

/* Types besides a brisel_ipc_client_req_type. */
inline constexpr int kept_no_account = -1, kept_show = -2;

struct kept_request {
  int type;
  std::string uid;
  std::vector<int> ids; /* of kept_show: of each mail, and behind them how far each was read, or nothing */
  int host_state = 0;   /* of a reply: whether a service may have it, see below; of kept_show: when it was asked */
  std::vector<std::string>
      texts;       /* of a reply: six, in the order of its record, the subject last; of kept_show: kind */
  int mail_id = 0; /* of kept_show: how many mails */
};

/* A reply's host_state: no service can have it yet, so that it may be changed or dropped here. */
inline constexpr int kept_with_nobody = 1;
/* Where these stand among a reply's texts. */
inline constexpr size_t kept_reply_recipient = 3, kept_reply_text = 4, kept_reply_subject = 5;

/* The method of the service that takes a request of that type; NULL: there is no such type. */
const char *kept_member(int type);
/* All that wait, instead of what was kept before. lasting: through a power cut too, which may take long. false after a
   line in the log: what was kept before is then still there. */
bool kept_save(const std::vector<const kept_request *> &requests, bool lasting);
/* Makes what was saved last through a power cut, on a thread: the main loop waits for no disk. */
void kept_sync(void);
/* Waits for it. */
void kept_sync_end(void);
/* What an earlier life of the application left, oldest first. */
std::vector<kept_request> kept_load(void);
void kept_forget(void);

#endif
