/* The records of the store in memory: lists in a few large blocks, single ones from the heap. common-store.cpp builds
   them; the application makes and frees them by the calls of brisel-common.h. */
#include "records.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "brisel-contact.h"
#include "store-format.h"
#include "text-check.h"

namespace {

/* Blocks double up to a bound: a short list wastes little. A list that needs more is a long one and gets huge pages:
   touching so much memory page by page for the first time costs several times what reading the store does. */
constexpr size_t block_first = 32u << 10, block_last = 512u << 10, block_huge = 4u << 20, huge_page = 2u << 20;

/* The head of a block; what it gives out follows. */
struct block {
  block *next;
  size_t used; /* with this head */
  size_t size;
};

GDestroyNotify contact_free;

block *block_new(size_t bytes) {
  void *place = nullptr;
  if (bytes >= block_huge) {
    bytes = (bytes + huge_page - 1) & ~(huge_page - 1);
    if (posix_memalign(&place, huge_page, bytes) != 0) return nullptr;
    madvise(place, bytes, MADV_HUGEPAGE); /* a hint: without it everything works, more slowly */
  } else {
    place = malloc(bytes);
  }
  if (place) *static_cast<block *>(place) = {nullptr, sizeof(block), bytes};
  return static_cast<block *>(place);
}

}  // namespace

/* Blocks of one kind, the one being filled first. */
struct area {
  block *first;
  size_t next_size;
};

struct slab {
  uint64_t mark; /* tells a slab from a record's own block in full_noti_data.priv */
  area mails;    /* apart from the texts, so that walking over the records touches nothing else */
  area texts;
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
  if (s) *s = {slab_mark, {nullptr, block_first}, {nullptr, block_first}};
  return s;
}

namespace {

void area_free(const area *a) {
  for (block *b = a->first; b;) {
    block *next = b->next;
    free(b);
    b = next;
  }
}

/* A block with room for so many bytes, when the first one has none. */
block *area_grow(area *a, size_t bytes) {
  block *b = a->first;
  /* A text that would leave much of a block unused gets one of its own, behind the one being filled. */
  const bool alone = b && bytes > a->next_size / 8;
  block *fresh = block_new(alone || bytes + sizeof(block) > a->next_size ? bytes + sizeof(block) : a->next_size);
  if (!fresh) return nullptr;
  if (alone) {
    fresh->next = b->next;
    b->next = fresh;
  } else {
    fresh->next = b;
    a->first = fresh;
    a->next_size = a->next_size < block_last ? a->next_size * 2 : block_huge;
  }
  return fresh;
}

inline void *area_alloc(area *a, size_t bytes) {
  bytes = (bytes + alignof(void *) - 1) & ~(alignof(void *) - 1);
  block *b = a->first;
  if (!b || b->size - b->used < bytes) b = area_grow(a, bytes);
  if (!b) return nullptr;
  void *place = reinterpret_cast<char *>(b) + b->used;
  b->used += bytes;
  return place;
}

}  // namespace

void slab_free(slab *s) {
  if (!s) return;
  area_free(&s->mails);
  area_free(&s->texts);
  free(s);
}

slab_mail *slab_add_mail(slab *s) {
  slab_mail *entry = static_cast<slab_mail *>(area_alloc(&s->mails, sizeof(slab_mail)));
  if (!entry) return nullptr;
  *entry = {};
  entry->mail.priv = s;
  entry->cell.data = &entry->mail;
  return entry;
}

namespace {

bool slab_holds(const slab *s, const void *place) {
  const uintptr_t at = reinterpret_cast<uintptr_t>(place);
  for (const block *b = s->texts.first; b; b = b->next) {
    const uintptr_t start = reinterpret_cast<uintptr_t>(b);
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

char *records_text(slab *s, std::string_view text) {
  if (text.empty()) return nullptr;
  const char *chars = text.data();
  size_t size = text.size();
  char *valid = nullptr;
  if (!text_utf8_valid(text)) {
    valid = g_utf8_make_valid(chars, static_cast<gssize>(size));
    chars = valid;
    size = strlen(valid);
  }
  char *copy = static_cast<char *>(s ? area_alloc(&s->texts, size + 1) : g_try_malloc(size + 1));
  if (copy) {
    memcpy(copy, chars, size);
    copy[size] = 0;
  }
  g_free(valid);
  return copy;
}

bool records_set_contacts(slab *s, full_noti_data *mail, std::string_view text) {
  if (text.empty()) return true;
  const std::string line(text);
  if (!text_utf8_valid(line)) return true; /* the service writes no such thing */
  const std::vector<contact_value> contacts = contacts_from_text(line);
  if (contacts.empty()) return true;
  size_t size = contacts.size() * sizeof(contact_number);
  for (const contact_value &contact : contacts) size += contact.number.size() + 1;
  char *place = nullptr;
  if (s) {
    place = static_cast<char *>(area_alloc(&s->texts, size));
  } else if (own_block *own = static_cast<own_block *>(g_try_malloc(sizeof(own_block) + size))) {
    *own = {own_mark, sizeof(own_block) + size};
    mail->priv = own;
    place = reinterpret_cast<char *>(own + 1);
  }
  if (!place) return false;
  contact_number *stored = reinterpret_cast<contact_number *>(place);
  char *number = place + contacts.size() * sizeof(contact_number);
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
