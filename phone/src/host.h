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

enum host_result {
  HOST_OK = 0,
  HOST_BUSY = 1,     /* another phone is connected; only from host_connect */
  HOST_REFUSED = -1, /* the service said no: nothing was changed */
  HOST_AWAY = -2,    /* no answer: whether it was done is not known */
  HOST_NOBODY = -3,  /* no service, and none could be started, or the name is somebody else's: nothing was changed */
  HOST_LATER = -4    /* the watch cannot write it down now: nothing was changed */
};

/* A connection to the service. */
struct host_bus {
  sd_bus *bus = nullptr;
  bool peer = false;            /* the other end is the service, and nobody else is on it */
  std::string owner;            /* on the session bus: the service's own name there, once it was looked at */
  uint64_t patience = 60000000; /* microseconds that an answer is waited for */

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

/* Makes this connection the phone. */
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
int host_set_templates(host_bus *bus, const std::vector<std::string> &texts, std::string *error);
int host_list_templates(host_bus *bus, std::vector<std::pair<int, std::string>> *templates, std::string *error);
int host_set_status(host_bus *bus, const char *kind, int value, std::string *error);
int host_acknowledge(host_bus *bus, int64_t id, std::string *error);
int host_answer_more(host_bus *bus, int64_t id, int phone_error, const std::string &piece, bool complete,
                     std::string *error);

#endif
