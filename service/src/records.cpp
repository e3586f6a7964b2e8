#include "records.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "store-format.h"

/* The same as the application's contact_number: a phone number of a sender. */
struct stored_contact {
  int type;
  char *number;
};

namespace {

/* Large enough to go back to the system when freed. */
constexpr size_t block_bytes = 256u << 10;
/* Longer texts get a block of their own, so that little of a block is wasted. */
constexpr size_t large_bytes = 32u << 10;

struct block {
  block *next;
  size_t used;
  size_t size;
  alignas(std::max_align_t) char data[];
};

GDestroyNotify contact_free;

block *block_new(size_t size) {
  block *b = static_cast<block *>(malloc(sizeof(block) + size));
  if (b) *b = {nullptr, 0, size};
  return b;
}

/* Whether every byte is ASCII: most texts are, and this is many times faster than a full check. */
bool is_ascii(const char *text, size_t bytes) {
  size_t i = 0;
  for (; i + sizeof(uint64_t) <= bytes; i += sizeof(uint64_t)) {
    uint64_t word;
    memcpy(&word, text + i, sizeof(word));
    if (word & 0x8080808080808080u) return false;
  }
  for (; i < bytes; i++)
    if (text[i] & 0x80) return false;
  return true;
}

}  // namespace

struct slab {
  uint64_t mark; /* tells a slab from a record's own block in full_noti_data.priv */
  block *first;  /* the one being filled */
};

/* The numbers of one record that is not part of a list. */
struct own_block {
  uint64_t mark;
  size_t size; /* with this header */
};

constexpr uint64_t slab_mark = 0x6C6973746D61696C;
constexpr uint64_t own_mark = 0x6F6E656D61696C73;

slab *slab_new(void) {
  slab *s = static_cast<slab *>(calloc(1, sizeof(slab)));
  if (s) s->mark = slab_mark;
  return s;
}

void slab_free(slab *s) {
  if (!s) return;
  for (block *b = s->first; b;) {
    block *next = b->next;
    free(b);
    b = next;
  }
  free(s);
}

void *slab_alloc(slab *s, size_t bytes) {
  bytes = (bytes + alignof(void *) - 1) & ~(alignof(void *) - 1);
  block *b = s->first;
  if (b && b->size - b->used >= bytes) {
    void *place = b->data + b->used;
    b->used += bytes;
    return place;
  }
  if (bytes > large_bytes && b) {
    block *large = block_new(bytes);
    if (!large) return nullptr;
    large->used = bytes;
    large->next = b->next;
    b->next = large; /* behind the one being filled */
    return large->data;
  }
  block *fresh = block_new(bytes > block_bytes ? bytes : block_bytes);
  if (!fresh) return nullptr;
  fresh->next = b;
  fresh->used = bytes;
  s->first = fresh;
  return fresh->data;
}

namespace {

bool slab_holds(const slab *s, const void *place) {
  const uintptr_t at = reinterpret_cast<uintptr_t>(place);
  for (const block *b = s->first; b; b = b->next) {
    const uintptr_t start = reinterpret_cast<uintptr_t>(b->data);
    if (at >= start && at < start + b->used) return true;
  }
  return false;
}

bool priv_holds(const void *priv, const void *place) {
  if (!priv) return false;
  if (*static_cast<const uint64_t *>(priv) == slab_mark) return slab_holds(static_cast<const slab *>(priv), place);
  const uintptr_t at = reinterpret_cast<uintptr_t>(place), start = reinterpret_cast<uintptr_t>(priv);
  return at >= start && at < start + static_cast<const own_block *>(priv)->size;
}

/* The application may have put a list of its own in place of the store's. */
void free_contacts(full_noti_data *mail) {
  for (GSList *cell = mail->sender_contact_list; cell; cell = cell->next)
    if (cell->data && !priv_holds(mail->priv, cell->data) && contact_free) contact_free(cell->data);
  g_slist_free(mail->sender_contact_list);
  mail->sender_contact_list = nullptr;
}

}  // namespace

char *records_text(slab *s, const unsigned char *text, int bytes) {
  if (!text || bytes <= 0) return nullptr;
  const char *chars = reinterpret_cast<const char *>(text);
  size_t size = static_cast<size_t>(bytes);
  char *valid = nullptr;
  if (!is_ascii(chars, size) && !g_utf8_validate(chars, bytes, nullptr)) {
    valid = g_utf8_make_valid(chars, bytes);
    chars = valid;
    size = strlen(valid);
  }
  char *copy = static_cast<char *>(s ? slab_alloc(s, size + 1) : g_try_malloc(size + 1));
  if (copy) {
    memcpy(copy, chars, size);
    copy[size] = 0;
  }
  g_free(valid);
  return copy;
}

bool records_set_contacts(slab *s, full_noti_data *mail, const unsigned char *text, int bytes) {
  if (s) mail->priv = s;
  if (!text || bytes <= 0) return true;
  const std::string line(reinterpret_cast<const char *>(text), static_cast<size_t>(bytes));
  if (!g_utf8_validate(line.data(), bytes, nullptr)) return true; /* the service writes no such thing */
  const std::vector<contact_value> contacts = contacts_from_text(line);
  if (contacts.empty()) return true;
  size_t size = contacts.size() * sizeof(stored_contact);
  for (const contact_value &contact : contacts) size += contact.number.size() + 1;
  char *place = nullptr;
  if (s) {
    place = static_cast<char *>(slab_alloc(s, size));
  } else if (own_block *own = static_cast<own_block *>(g_try_malloc(sizeof(own_block) + size))) {
    *own = {own_mark, sizeof(own_block) + size};
    mail->priv = own;
    place = reinterpret_cast<char *>(own + 1);
  }
  if (!place) return false;
  stored_contact *stored = reinterpret_cast<stored_contact *>(place);
  char *number = place + contacts.size() * sizeof(stored_contact);
  for (const contact_value &contact : contacts) {
    stored->type = contact.type;
    stored->number = number;
    memcpy(number, contact.number.c_str(), contact.number.size() + 1);
    number += contact.number.size() + 1;
    /* Cells from the heap: the application frees them with g_slist_free when it puts another list here. */
    mail->sender_contact_list = g_slist_prepend(mail->sender_contact_list, stored++);
  }
  mail->sender_contact_list = g_slist_reverse(mail->sender_contact_list);
  return true;
}

void records_clear_mail(full_noti_data *mail) {
  free_contacts(mail);
  for (char *text : {mail->host_tag, mail->subject, mail->body, mail->from_address, mail->from_name, mail->message_uid})
    g_free(text);
  g_free(mail->priv);
  *mail = {};
}

void records_clear_account(account_data *account) {
  g_free(account->email_address);
  g_free(account->display_name);
  *account = {};
}

/* --- the interface ------------------------------------------------------------------------------------------------ */

full_noti_data *brisel_full_noti_data_create(void) {
  return g_try_new0(full_noti_data, 1);
}

void brisel_full_noti_data_free(full_noti_data *data) {
  if (!data) return;
  records_clear_mail(data);
  g_free(data);
}

void brisel_full_noti_data_list_free(GSList *list) {
  if (!list) return;
  slab *s = static_cast<slab *>(static_cast<full_noti_data *>(list->data)->priv);
  for (GSList *cell = list; cell; cell = cell->next) {
    full_noti_data *mail = static_cast<full_noti_data *>(cell->data);
    if (mail->sender_contact_list) free_contacts(mail);
  }
  slab_free(s);
}

void brisel_full_noti_data_set_contact_free(GDestroyNotify free_function) {
  contact_free = free_function;
}

account_data *brisel_account_data_create(void) {
  return g_try_new0(account_data, 1);
}

void brisel_account_data_free(account_data *data) {
  if (!data) return;
  records_clear_account(data);
  g_free(data);
}

void brisel_account_data_list_free(GSList *list) {
  g_slist_free_full(list, [](gpointer data) { brisel_account_data_free(static_cast<account_data *>(data)); });
}

void brisel_template_data_list_free(GSList *list) {
  g_slist_free_full(list, [](gpointer data) {
    template_data *entry = static_cast<template_data *>(data);
    if (entry) g_free(entry->text);
    g_free(entry);
  });
}

op_data *brisel_op_data_create(void) {
  return g_try_new0(op_data, 1);
}

void brisel_op_data_free(op_data *data) {
  if (data) g_slist_free(data->id_list);
  g_free(data);
}

more_msg_req_data *brisel_more_msg_req_data_create(void) {
  return g_try_new0(more_msg_req_data, 1);
}

void brisel_more_msg_req_data_free(more_msg_req_data *data) {
  if (data) g_free(data->message_uid);
  g_free(data);
}

update_noti_data *brisel_update_noti_data_create(void) {
  return g_try_new0(update_noti_data, 1);
}

void brisel_update_noti_data_free(update_noti_data *data) {
  if (data) g_slist_free(data->id_list);
  g_free(data);
}

reply_noti_data *brisel_reply_noti_data_create(void) {
  return g_try_new0(reply_noti_data, 1);
}

void brisel_reply_noti_data_free(reply_noti_data *data) {
  if (!data) return;
  for (char *text : {data->host_tag, data->action, data->message_uid, data->recipient, data->text, data->subject})
    g_free(text);
  g_free(data);
}
