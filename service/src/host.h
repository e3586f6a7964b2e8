/* The host service's parts: the bus objects of both sides around one store and one phone. Thread: the event loop. */
#ifndef BRISEL_HOST_H
#define BRISEL_HOST_H

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <list>
#include <map>
#include <string>
#include <vector>

#include "brisel-bus.h"
#include "store.h"

/* A piece of a body asked for and not answered yet. Several callers may wait for the same mail's: asking the phone
   twice would append the piece twice. */
struct more_request {
  int64_t id;
  int mail_id;
  size_t have;
  std::vector<sd_bus_message *> callers; /* owned */
  sd_event_source *timer;
};

/* A call that brings more mails than one turn of the loop takes. */
struct mail_batch {
  sd_bus_message *m; /* owned */
  bool checked = false;
  size_t count = 0;
  std::vector<int> ids; /* of those that are in the store */
  size_t unpacked = 0;  /* bytes that packed bodies came to */
};

/* A connection that said who it is. */
struct introduced_phone {
  std::string connection; /* its unique name on the bus */
  std::string id;         /* empty: it did not say */
  std::string name;       /* for people */
  bool outcomes = false;  /* it tells what came of replies */
};

struct notifier;

struct host {
  store *st = nullptr;
  sd_bus *bus = nullptr;
  sd_event *event = nullptr;
  int64_t announced = 0; /* the newest change told to clients */
  std::string phone;     /* unique name of the connected phone; empty: none */
  std::string phone_id, phone_name;
  bool phone_tells = false;              /* what came of replies */
  std::vector<std::string> acknowledged; /* uids of replies that a phone has, which is not on disk yet */
  sd_event_source *acknowledged_turn = nullptr;
  std::vector<introduced_phone> introduced;
  sd_bus_track *refused = nullptr; /* connections that are to hear when the phone has left */
  std::string watch_id;
  sd_bus_track *track = nullptr; /* follows the phone's name */
  std::list<more_request> more;
  std::map<std::string, std::string> clients; /* the program of each unique name that asked lately */
  uint64_t more_timeout_usec = 15000000;
  std::list<mail_batch> batches; /* the first one is being taken */
  sd_event_source *batch_turn = nullptr;
  std::string folder;                      /* of the store */
  sd_event_source *folder_watch = nullptr; /* follows what happens in it */
  sd_event_source *file_retry = nullptr;   /* when the store could not be put back */
  uint64_t file_retry_usec = 0;
  notifier *notify = nullptr;               /* notify.h */
  void (*store_changed)(host *h) = nullptr; /* hears of every change that clients are told of */
};

extern const sd_bus_vtable watch_vtable[];
extern const sd_bus_vtable phone_vtable[];

/* --- host.cpp: what both sides use ------------------------------------------------------------------------------- */

/* Tells clients that the store has changed, if it has. */
void host_announce(host *h);
/* Sets *error from what the store said. Returns what a method handler must return. */
int host_fail(const host *h, store_status status, sd_bus_error *error);
/* Whose program sent the message: its path, or its name on the bus when that cannot be told. */
std::string host_client_of(host *h, sd_bus_message *m);
/* Reads an array of ids: at most ids_max, each above 0 unless zero_allowed. */
int host_read_ids(sd_bus_message *m, bool zero_allowed, std::vector<int> *ids, sd_bus_error *error);
/* Reads a string of at most max bytes. */
int host_read_text(sd_bus_message *m, const char *what, size_t max, std::string *text, sd_bus_error *error);

/* --- host-file.cpp ------------------------------------------------------------------------------------------------ */

/* Follows the store's file from now on: notices at once when it is deleted or replaced. 0 or a negative errno. */
int host_follow_file(host *h, const std::string &folder);

/* --- phone-mails.cpp ------------------------------------------------------------------------------------------- */

/* Handles AddMails: at once, or in slices and answered later. */
int mails_add(sd_bus_message *m, void *data, sd_bus_error *error);
/* Reads one a{sv} of a mail's fields; 0 at the array's end. unpacked: bytes that the call's packed bodies have come to;
   NULL where a body cannot be packed. */
int mails_read_fields(sd_bus_message *m, mail_values *mail, size_t *unpacked, sd_bus_error *error);
/* At the end of the service: calls that are under way get no answer. */
void mails_drop(host *h);

/* --- pair.cpp: who is who --- */

inline constexpr char pair_id_file[] = "watch-id"; /* in the folder of the store */

/* Reads this watch's id, or makes one. Below 0 an errno. */
int pair_start(host *h);
/* Writes the id again when it is not there: the next start would make another, and every phone be a stranger. */
void pair_keep_id(const host *h);
/* The method Introduce. */
int pair_introduce(sd_bus_message *m, void *data, sd_bus_error *error);
/* Who a connection said it is. */
introduced_phone pair_identity(const host *h, const char *connection);
/* Refuses a caller whose program may not be the phone. */
int pair_check_program(sd_bus_message *m, sd_bus_error *error);
/* Unpacks a zlib stream to a text of at most `most` bytes. false when it is anything else. */
bool pair_unpack(const void *packed, size_t size, size_t most, std::string *text);

/* --- watch-bus.cpp: the application's requests, whoever makes them ------------------------------------------------ */

struct host_reply_request {
  std::string host_tag, action, message_uid, recipient, text, subject;
  int mail_id = 0;
};

/* Each does what the method of Watch1 does; client: whose program asks; 0, or a negative errno with *error set. */
int host_delete(host *h, const std::string &uid, const std::string &client, const std::vector<int> &ids,
                sd_bus_error *error);
int host_mark_read(host *h, const std::string &uid, const std::string &client, const std::vector<int> &ids,
                   int host_state, sd_bus_error *error);
int host_reply(host *h, const std::string &uid, const std::string &client, const host_reply_request &reply,
               sd_bus_error *error);
/* text: instead of what was written; NULL: the same again. */
int host_repeat(host *h, const std::string &uid, const std::string &client, int64_t id, const std::string *text,
                sd_bus_error *error);

/* --- phone-link.cpp: the connected phone -------------------------------------------------------------------------- */

/* At start: takes back what a service that was killed left saying about its phone. */
void link_reset(host *h);
/* Makes sender the phone, also in the place of an earlier connection of the same one. The caller has answered it
 * before, so that the waiting requests follow the answer. */
int link_connect(host *h, const char *sender, sd_bus_error *error);
void link_send_waiting(host *h);
/* The phone left, or the service ends. */
void link_disconnect(host *h);
/* The connected phone has a request on its disk. A reply of a phone that will tell what came of it is written down with
   that, or after two seconds, or as soon as anybody else could be sent it. */
store_status link_acknowledge(host *h, int64_t id);
/* These mails of the request; the rest of it waits on. */
store_status link_acknowledge_mails(host *h, int64_t id, const std::vector<int> &mail_ids);
/* What came of a reply is on disk, and with it that the phone has it. */
void link_outcome_kept(host *h, const std::string &uid);
/* Sends a request to the phone, if there is one. uid: of a reply; else empty. */
void link_send(host *h, int64_t id, const std::string &json, const std::string &uid);
/* Handles MoreMsg; answers m later. */
int link_ask_more(host *h, sd_bus_message *m, int mail_id, const std::string &message_uid, sd_bus_error *error);
int link_answer_more(host *h, int64_t id, int phone_error, const std::string &piece, bool complete,
                     sd_bus_error *error);

#endif
