/*
 * A mailbox that is followed: what the relay needs of one, whatever it is made of. A further kind of mailbox is one
 * more mailbox_kind.
 */
#ifndef BRISEL_PHONE_SOURCES_H
#define BRISEL_PHONE_SOURCES_H

#include <cstdint>
#include <string>
#include <vector>

/* One message as the mailbox lists it. */
struct mailbox_item {
  std::string key;   /* the same for the life of the message, unique in the mailbox */
  std::string place; /* where it is now: only for the mailbox itself */
  int64_t order = 0; /* among messages of one second */
  bool seen = false;
  bool arrived = false; /* no mail program has looked at it yet */
};

struct mailbox_kind {
  /* Is there such a mailbox? Returns 0, or -1 with a one-line reason. */
  int (*check)(const std::string &path, std::string *error);
  /* All messages, in no order. Returns 0, or -1 with a reason; a mailbox that cannot be read is never an empty one. */
  int (*list)(const std::string &path, std::vector<mailbox_item> *items, std::string *error);
  /* At most `max` bytes of a message; *arrival becomes the time of its file, *size its size. */
  int (*read)(const std::string &path, const mailbox_item &item, size_t max, std::string *raw, int64_t *arrival,
              int64_t *size, std::string *error);
  /* Marks it as read for every other program. NULL: this kind is only read. */
  int (*set_seen)(const std::string &path, const mailbox_item &item, std::string *error);
  /* Marks it as deleted for whoever keeps the mailbox. NULL: this kind cannot. */
  int (*set_gone)(const std::string &path, const mailbox_item &item, std::string *error);
  /* The folders whose changes are watched. */
  std::vector<std::string> (*watched)(const std::string &path);
  /* The text that names the message for mail_source_read(). */
  std::string (*source)(const std::string &path, const mailbox_item &item);
};

extern const mailbox_kind maildir_kind, mbox_kind;

#endif
