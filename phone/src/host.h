/*
 * The host service as the phone calls it.
 * Functions return 0 (or an id), or a host_result below 0 with a one-line reason for people in *error. All but the
 * ones that begin or follow a call wait for the answer. Thread: the one that opened the connection.
 */
#ifndef BRISEL_PHONE_HOST_H
#define BRISEL_PHONE_HOST_H

#include <systemd/sd-bus.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "brisel-bus.h"
#include "carrier.h"

enum host_result {
  HOST_OK = 0,
  HOST_BUSY = 1,     /* another phone is connected; only from host_connect */
  HOST_REFUSED = -1, /* the service said no: nothing was changed */
  HOST_AWAY = -2,    /* no answer: whether it was done is not known */
  HOST_NOBODY = -3,  /* no service, and none could be started, or the name is somebody else's: nothing was changed */
  HOST_LATER = -4    /* the watch cannot write it down now: nothing was changed */
};

/* What each side tells the other of itself before anything else. */
struct phone_identity {
  std::string id, name;
  bool outcomes = false; /* it tells what came of replies */
};
struct watch_identity {
  unsigned version = 1; /* 1: it has no Introduce */
  std::string id, name;
  bool zlib = false;      /* it takes bodies that were made small */
  bool mail_ids = false;  /* it lists its mails without their texts */
  bool free = false;      /* it tells who was refused when the other phone has left */
  bool ack_mails = false; /* a part of a request can be acknowledged */
};

/* A connection to the service. */
struct host_bus {
  sd_bus *bus = nullptr;
  bool peer = false;            /* a stream: the other end is the service's gate, and nobody else is on it */
  std::string owner;            /* the service process: its own name on the session bus, once it was looked at; of a
                                   stream a name that this end made up */
  uint64_t patience = 60000000; /* microseconds that an answer, of a stream any sign of life, is waited for */
  watch_identity watch;         /* once it was introduced */
  /* A stream's own. */
  carrier way;
  uint64_t heard = 0; /* CLOCK_BOOTTIME in microseconds: when something came last */
  size_t on_way = 0;  /* bytes of calls that are not answered */
  int nudge_fd = -1;  /* readable when the network changed: then life is doubted sooner. Not its own */

  host_bus() = default;
  ~host_bus();
  host_bus(const host_bus &) = delete;
  host_bus &operator=(const host_bus &) = delete;
};
using host_bus_holder = std::unique_ptr<host_bus>;

/* One mail as it is handed to the watch. */
struct watch_mail {
  std::string host_tag;
  int host_state = 0;
  int64_t received_time = 0;
  std::string subject, body, from_address, from_name, message_uid;
  int attachment_count = 0;
  bool has_image = false, is_new = true, security_locked = false, is_read = false;
  int account_id = 0;
};

/* One record of the service: every field by its name. */
struct host_record {
  std::map<std::string, int64_t> numbers;
  std::map<std::string, std::string> texts;
  std::vector<std::pair<int, std::string>> contacts;
  int64_t number(const char *name) const {
    auto found = numbers.find(name);
    return found == numbers.end() ? 0 : found->second;
  }
  std::string text(const char *name) const {
    auto found = texts.find(name);
    return found == texts.end() ? std::string() : found->second;
  }
};

/* A change of a stored mail: only what is set. */
struct mail_change {
  int is_read = -1, is_new = -1; /* -1: as it is */
  bool has_subject = false;
  std::string subject;
};

/* Opens the session bus. NULL with a reason. */
host_bus_holder host_open_session(std::string *error);
/* Looks who has the service's name on the session bus, and starts the service when nobody does. Only the host service's
   own program is taken for it: whoever else waits for the name is told nothing. Every call does that when it is due. */
int host_find(host_bus *bus, std::string *error);

/* Starts a stream to the watch and returns at once: what is called waits until it is there. NULL with a reason. */
host_bus_holder host_open_stream(const carrier_address &address, const carrier_keys &keys, std::string *error);
/* The same over a stream that is there already, and is the connection's from now on. */
host_bus_holder host_open_fd(int fd, carrier_kind kind, std::string *error);
/* Ends a stream: every call fails, and its user is told as of any other end. */
void host_hang_up(host_bus *bus);
/* Why a stream ended, or what keeps it from being there, in words for people. */
std::string host_stream_trouble(const host_bus &bus);
/* Whether a stream that ended had reached the watch, which did not want it, or could not. */
bool host_stream_was_answered(const host_bus &bus);

/* Tells who calls, learns who answers (bus->watch), and whether the two can work together. An older service that has no
   such call is no error. */
int host_introduce(host_bus *bus, const phone_identity &me, std::string *error);
/* The same without waiting; the callback hands the answer to host_introduced. Returns 0, or an errno below 0. */
int host_introduce_begin(host_bus *bus, const phone_identity &me, uint64_t patience, sd_bus_message_handler_t callback,
                         void *user_data, sd_bus_slot **slot);
int host_introduced(host_bus *bus, sd_bus_message *answer, std::string *error);

/* Makes this connection the phone. */
int host_connect_begin(host_bus *bus, uint64_t patience, sd_bus_message_handler_t callback, void *user_data,
                       sd_bus_slot **slot);
int host_connected(host_bus *bus, sd_bus_message *answer, std::string *error);
int host_connect(host_bus *bus, std::string *error);
int host_add_account(host_bus *bus, int id, const std::string &address, const std::string &name, uint32_t rgba,
                     std::string *error); /* returns the id */
int host_remove_account(host_bus *bus, int id, std::string *error);
int host_list_accounts(host_bus *bus, std::vector<host_record> *accounts, std::string *error);
int host_set_account_count(host_bus *bus, bool known, std::string *error);
/* All or none. ids: in the order of the mails. */
int host_add_mails(host_bus *bus, const std::vector<const watch_mail *> &mails, std::vector<int> *ids,
                   std::string *error);
/* The same in two steps, so that several calls can be under way. While the answer is waited for, other messages reach
   their callbacks. A call that is dropped without its end is not taken back. */
struct host_call;
struct host_call_closer {
  void operator()(host_call *call) const;
};
using host_call_holder = std::unique_ptr<host_call, host_call_closer>;
host_call_holder host_add_mails_begin(host_bus *bus, const std::vector<const watch_mail *> &mails);
int host_add_mails_end(host_call *call, size_t count, std::vector<int> *ids, std::string *error);
int host_update_mail(host_bus *bus, int id, const mail_change &change, std::string *error);
int host_delete_mails(host_bus *bus, const std::vector<int> &ids, std::string *error);
int host_list_mails(host_bus *bus, std::vector<host_record> *mails, std::string *error);
/* What the watch's mails are known by. An older service tells more than that, which is left out here. */
struct watch_mail_id {
  int mail_id = 0, account_id = 0;
  std::string host_tag, message_uid;
};
int host_list_mail_ids(host_bus *bus, std::vector<watch_mail_id> *mails, std::string *error);
int host_set_templates(host_bus *bus, const std::vector<std::string> &texts, std::string *error);
int host_list_templates(host_bus *bus, std::vector<std::pair<int, std::string>> *templates, std::string *error);
int host_set_status(host_bus *bus, const char *kind, int value, std::string *error);
int host_acknowledge(host_bus *bus, int64_t id, std::string *error);
/* These mails of the request; all of it on a watch that cannot tell them apart. */
int host_acknowledge_mails(host_bus *bus, int64_t id, const std::vector<int> &mail_ids, std::string *error);
/* What came of the request of that uid: outcome_sent, outcome_waits or outcome_refused, and why. */
int host_outcome(host_bus *bus, const std::string &uid, const char *state, const std::string &reason,
                 std::string *error);
int host_answer_more(host_bus *bus, int64_t id, int phone_error, const std::string &piece, bool complete,
                     std::string *error);

#endif
