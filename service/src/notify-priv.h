/* What the files notify*.cpp share; nobody else includes it. */
#ifndef BRISEL_NOTIFY_PRIV_H
#define BRISEL_NOTIFY_PRIV_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host.h"
#include "store-notify.h"

/* What became of a notification. */
enum class notify_outcome {
  stands,
  refused, /* the server wants none of it */
  silent,  /* it may have been shown: the server did not answer, or vanished */
  absent   /* there is no server */
};

struct notifier {
  host *h = nullptr;
  sd_event_source *timer = nullptr; /* a change waits to be looked at */
  sd_bus_slot *owner_slot = nullptr, *signal_slot = nullptr, *call_slot = nullptr;
  bool took_over = false;         /* what an earlier service told has been told anew by this one */
  bool server_is_missing = false; /* none there, or it does not answer; until one appears or mail comes */
  std::string server;             /* the one whose abilities are known, as notice::server names it; empty: none */
  std::string server_name;        /* its name on the bus */
  bool has_actions = false, has_body = false, has_markup = false;
  std::vector<int> flight; /* the mails of the notification on its way: one at a time, so that a server that hangs holds
                              up one call */
  std::vector<std::string> flight_keys;              /* its buttons' */
  std::map<uint32_t, std::vector<std::string>> keys; /* the buttons' of what this service told the server */
  uint64_t settled_at = 0;                           /* monotonic: before, nothing new is told */
  uint64_t silent_until = 0;                         /* monotonic: mails that come together make one sound */
  std::string words;                                 /* as notify_words() says, for what stands */
  sd_event_source *settings_watch = nullptr;         /* follows the folder of the settings, or the one above it */
  sd_bus_track *viewer = nullptr;
  int viewed_account = -1;
  int keeper = -1; /* the pipe to the process that outlives this one; below zero: there is none */
};

/* How the mails of an account are told of. */
enum class notify_way { off, quiet, on };
enum class notify_extent { nothing, sender, all };

struct notify_button {
  std::string key, label;
};

/* What a notification is about, as the names of categories, sounds and feedback put it. */
struct notify_event {
  const char *category, *name;
};
inline constexpr notify_event notify_new_mail = {"email.arrived", "message-new-email"},
                              notify_refused = {"email.bounced", "dialog-warning"};

/* What a server is given. */
struct notify_message {
  const notify_event *event = &notify_new_mail;
  std::string summary, body; /* plain text */
  std::vector<notify_button> buttons;
};

/* --- notify.cpp ------------------------------------------------------------------------------------------------- */

/* Looks at the store soon: what comes meanwhile is looked at with it. */
void notify_look_soon(notifier *n);
/* What became of the notification on its way; number: the server's, when it stands. */
void notify_answered(notifier *n, notify_outcome outcome, uint32_t number);
/* The server, as notice::server names it, says that it is gone, for whatever reason. */
void notify_closed(notifier *n, const std::string &server, uint32_t number);
void notify_pressed(notifier *n, const std::string &server, uint32_t number, const std::string &key);
/* What is known of the server has come. */
void notify_go_on(notifier *n);

/* --- notify-server.cpp: the programs that show and sound ---------------------------------------------------------- */

/* Hears of servers that come and go. */
int notify_server_watch(notifier *n);
/* Hears what the server says of notifications, or no more. */
void notify_server_listen(notifier *n, bool wanted);
/* Asks who it is and what it can do; may start it. notify_go_on() follows, with server empty when there is none. */
int notify_server_ask(notifier *n, bool may_start);
/* replaces: the number of one to put this in the place of, or 0. notify_answered() follows. */
int notify_server_tell(notifier *n, const notify_message &message, uint32_t replaces, bool is_quiet, bool has_sound);
void notify_server_close(notifier *n, uint32_t number);
void notify_feedback(notifier *n, const notify_event *event);

/* --- notify-keeper.cpp: who starts the next service --------------------------------------------------------------- */

void notify_keeper_want(notifier *n, bool wanted);

/* --- notify-text.cpp: what is said -------------------------------------------------------------------------------- */

void notify_language(void);
/* Names the language and the region that texts are written for now. */
std::string notify_words(void);
/* Has notify_look_soon() called when those change. */
void notify_follow_words(notifier *n);
notify_way notify_way_of(int account_id);
notify_message notify_text_single(notifier *n, int mail_id, const noticed_mail &mail);
notify_message notify_text_refused(const refused_reply &reply);
/* mails: the newest ones of them, newest first. */
notify_message notify_text_counted(size_t count, const std::vector<noticed_mail> &mails);

/* --- notify-actions.cpp: what a button does ----------------------------------------------------------------------- */

inline constexpr char notify_key_open[] = "default", notify_key_read[] = "mark-read", notify_key_delete[] = "delete",
                      notify_key_again[] = "send-again", notify_key_reply[] = "reply:"; /* the text to send follows */

/* The texts that may be sent from a notification, as they are sent: at most two, the most used ones. */
std::vector<std::string> notify_replies(notifier *n);
/* Whether a reply to the mail has somebody to go to, and the phone sends replies. */
bool notify_can_reply(notifier *n, const noticed_mail &mail);
/* ids: newest first; one below zero is a refused reply's. */
void notify_do(notifier *n, const std::string &key, const std::vector<int> &ids);

#endif
