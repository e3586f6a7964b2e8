/*
 * The host service as the phone calls it, synchronously. Functions return 0 (or an id), or a host_result below 0 with a
 * one-line reason for people in *error. Thread: the one that opened the connection.
 */
#ifndef BRISEL_PHONE_HOST_H
#define BRISEL_PHONE_HOST_H

#include <systemd/sd-bus.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

constexpr char host_name[] = "com.vextora.brisel.Host";
constexpr char host_path[] = "/com/vextora/brisel/Host";
constexpr char host_phone_interface[] = "com.vextora.brisel.Phone1";

enum host_result {
  HOST_OK = 0,
  HOST_BUSY = 1,     /* another phone is connected; only from host_connect */
  HOST_REFUSED = -1, /* the service said no: nothing was changed */
  HOST_AWAY = -2,    /* no answer: whether it was done is not known */
  HOST_NOBODY = -3   /* no service, and none could be started: nothing was changed */
};

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

/* Opens the session bus. NULL with a reason. Unref with sd_bus_flush_close_unref. */
sd_bus *host_open_bus(std::string *error);

/* Makes this connection the phone. *owner (may be NULL) becomes the service's bus name. */
int host_connect(sd_bus *bus, std::string *owner, std::string *error);
int host_add_account(sd_bus *bus, int id, const std::string &address, const std::string &name, uint32_t rgba,
                     std::string *error); /* returns the id */
int host_remove_account(sd_bus *bus, int id, std::string *error);
int host_list_accounts(sd_bus *bus, std::vector<host_record> *accounts, std::string *error);
int host_set_account_count(sd_bus *bus, bool known, std::string *error);
/* All or none. ids: in the order of the mails. */
int host_add_mails(sd_bus *bus, const std::vector<watch_mail> &mails, std::vector<int> *ids, std::string *error);
int host_update_mail(sd_bus *bus, int id, const mail_change &change, std::string *error);
int host_delete_mails(sd_bus *bus, const std::vector<int> &ids, std::string *error);
int host_list_mails(sd_bus *bus, std::vector<host_record> *mails, std::string *error);
int host_set_templates(sd_bus *bus, const std::vector<std::string> &texts, std::string *error);
int host_list_templates(sd_bus *bus, std::vector<std::pair<int, std::string>> *templates, std::string *error);
int host_set_status(sd_bus *bus, const char *kind, int value, std::string *error);
int host_acknowledge(sd_bus *bus, int64_t id, std::string *error);
int host_answer_more(sd_bus *bus, int64_t id, int phone_error, const std::string &piece, bool complete,
                     std::string *error);

#endif
