/* Mails as the phone adds them: read from the bus field by field, and taken into the store in slices, so that nobody
   waits for all of them. phone-bus.cpp puts mails_add() on the bus and reads the fields of a changed mail with it. */
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "brisel-contact-bus.h"
#include "host.h"
#include "store-format.h"

/* Mails of one turn of the loop, and of one transaction: some hundredths of a second. */
constexpr size_t slice_mails = 250;
constexpr size_t slice_bytes = 2u << 20;
/* Text that the packed bodies of one call come to at most. */
constexpr size_t unpacked_max = 64u << 20;
/* Calls that may be under way at once; each holds its message. */
constexpr size_t batches_max = 8;

/* --- one mail --- */

namespace {

int read_contacts(sd_bus_message *m, field_value *value, sd_bus_error *error) {
  std::vector<contact_value> contacts;
  const int r = bus_read_contacts(m, [&](int type, const char *number) {
    contacts.push_back({type, number});
    return contacts.size() > contacts_max ? sd_bus_error_set(error, host_error_invalid, "too many contacts") : 0;
  });
  if (r < 0) return r;
  value->null = contacts.empty();
  if (!contacts_to_text(contacts, &value->text))
    return sd_bus_error_set(error, host_error_invalid, "a contact's number is no number");
  return 0;
}

int read_number(sd_bus_message *m, char type, int64_t *number) {
  union {
    uint8_t y;
    int b;
    int16_t n;
    uint16_t q;
    int32_t i;
    uint32_t u;
    int64_t x;
  } value = {};
  const int r = sd_bus_message_read_basic(m, type, &value);
  switch (type) {
    case 'y':
      *number = value.y;
      break;
    case 'b':
      *number = value.b;
      break;
    case 'n':
      *number = value.n;
      break;
    case 'q':
      *number = value.q;
      break;
    case 'i':
      *number = value.i;
      break;
    case 'u':
      *number = value.u;
      break;
    default:
      *number = value.x;
      break;
  }
  return r;
}

/* Reads the body as a zlib stream. unpacked: bytes that the call's bodies have come to. */
int read_packed_body(sd_bus_message *m, field_value *value, size_t *unpacked, sd_bus_error *error) {
  const void *packed = nullptr;
  size_t size = 0;
  const int r = sd_bus_message_read_array(m, 'y', &packed, &size);
  if (r < 0) return r;
  if (value->set) return sd_bus_error_set(error, host_error_invalid, "a mail has two bodies");
  value->set = true;
  if (!pair_unpack(packed, size, std::min(body_max, unpacked_max - *unpacked), &value->text))
    return sd_bus_error_set(error, host_error_invalid, "body_zlib is no zlib stream of a text, or too much");
  *unpacked += value->text.size();
  value->null = value->text.empty();
  return r;
}

}  // namespace

int mails_read_fields(sd_bus_message *m, mail_values *mail, size_t *unpacked, sd_bus_error *error) {
  int r = sd_bus_message_enter_container(m, 'a', "{sv}");
  if (r <= 0) return r;
  while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
    const char *key = nullptr, *contents = nullptr;
    char type = 0;
    r = sd_bus_message_read_basic(m, 's', &key);
    if (r >= 0) r = sd_bus_message_peek_type(m, &type, &contents);
    if (r >= 0) r = sd_bus_message_enter_container(m, 'v', contents);
    if (r < 0) return r;
    if (unpacked && !strcmp(key, "body_zlib") && !strcmp(contents, "ay")) {
      r = read_packed_body(m, &mail->field[field_body], unpacked, error);
      if (r >= 0) r = sd_bus_message_exit_container(m);
      if (r >= 0) r = sd_bus_message_exit_container(m);
      if (r < 0) return r;
      continue;
    }
    const int index = mail_field_index(key);
    if (index < 0) return sd_bus_error_setf(error, HOST_ERROR "Invalid", "a mail has no field %.64s", key);
    const field_rule &rule = mail_fields[static_cast<size_t>(index)];
    field_value &value = mail->field[static_cast<size_t>(index)];
    const bool is_text = rule.kind == field_kind::text, is_contacts = rule.kind == field_kind::contacts;
    if (value.set && index == static_cast<int>(field_body))
      return sd_bus_error_set(error, host_error_invalid, "a mail has two bodies");
    value.set = true;
    if (is_text && !strcmp(contents, "s")) {
      const char *text = nullptr;
      r = sd_bus_message_read_basic(m, 's', &text);
      if (r >= 0) value.text = text;
      value.null = value.text.empty(); /* no text and an empty one are the same to the application */
    } else if (is_contacts && !strcmp(contents, "a(is)")) {
      r = read_contacts(m, &value, error);
    } else if (!is_text && !is_contacts && strlen(contents) == 1 && strchr("ybnqiux", *contents)) {
      r = read_number(m, *contents, &value.number);
    } else {
      return sd_bus_error_setf(error, HOST_ERROR "Invalid", "%s has a value of the wrong type", rule.name);
    }
    if (r >= 0) r = sd_bus_message_exit_container(m);
    if (r >= 0) r = sd_bus_message_exit_container(m);
    if (r < 0) return r;
  }
  if (r >= 0) r = sd_bus_message_exit_container(m);
  return r < 0 ? r : 1;
}

/* --- many --- */

namespace {

/* Reads the next mails of an array that was entered; *ended when none follow. */
int read_slice(sd_bus_message *m, std::vector<mail_values> *mails, size_t *unpacked, bool *ended, sd_bus_error *error) {
  size_t bytes = 0;
  *ended = false;
  while (mails->size() < slice_mails && bytes < slice_bytes) {
    mail_values mail;
    const int r = mails_read_fields(m, &mail, unpacked, error);
    if (r < 0) return r;
    *ended = r == 0;
    if (*ended) break;
    for (const field_value &value : mail.field) bytes += value.text.size();
    mails->push_back(std::move(mail));
  }
  return 0;
}

int answer_ids(sd_bus_message *m, const std::vector<int> &ids) {
  sd_bus_message *answer = nullptr;
  int r = sd_bus_message_new_method_return(m, &answer);
  if (r >= 0) r = sd_bus_message_append_array(answer, 'i', ids.data(), ids.size() * sizeof(int32_t));
  if (r >= 0) r = sd_bus_send(nullptr, answer, nullptr);
  sd_bus_message_unref(answer);
  return r;
}

/* The first of two readings finds what may not come in, before anything has. */
int check_slice(host *h, mail_batch *batch, std::vector<mail_values> *mails, bool ended, sd_bus_error *error) {
  batch->count += mails->size();
  if (batch->count > mails_max) return sd_bus_error_set(error, host_error_invalid, "too many mails at once");
  const store_status status = store_check_mails(h->st, mails);
  if (status) return host_fail(h, status, error);
  if (!ended) return 0;
  batch->checked = true;
  batch->unpacked = 0;
  const int r = sd_bus_message_rewind(batch->m, 1);
  return r < 0 ? r : sd_bus_message_enter_container(batch->m, 'a', "a{sv}");
}

int add_slice(host *h, mail_batch *batch, std::vector<mail_values> *mails, sd_bus_error *error) {
  std::vector<int> ids;
  const store_status status = store_add_mails(h->st, mails, &ids);
  if (!status) {
    batch->ids.insert(batch->ids.end(), ids.begin(), ids.end());
    host_announce(h);
    return 0;
  }
  const int failed = host_fail(h, status, error);
  /* The disk is full, or the account has gone meanwhile: what came in before goes, as far as it is still there. */
  if (store_take_back_mails(h->st, batch->ids) != store_ok)
    fprintf(stderr, "brisel-hostd: part of a call's mails stays: %s\n", store_error(h->st).c_str());
  host_announce(h);
  return failed;
}

int go_on(host *h);

int batch_cb(sd_event_source *source, void *data) {
  host *h = static_cast<host *>(data);
  mail_batch *batch = &h->batches.front();
  sd_bus_error error = SD_BUS_ERROR_NULL;
  std::vector<mail_values> mails;
  bool ended = false;
  int r = read_slice(batch->m, &mails, &batch->unpacked, &ended, &error);
  const bool adding = batch->checked;
  if (r >= 0) r = adding ? add_slice(h, batch, &mails, &error) : check_slice(h, batch, &mails, ended, &error);
  if (r >= 0 && !(adding && ended)) return go_on(h);
  if (r < 0)
    r = sd_bus_reply_method_errno(batch->m, r, &error);
  else
    r = answer_ids(batch->m, batch->ids);
  if (r < 0) fprintf(stderr, "brisel-hostd: an answer could not be sent: %s\n", strerror(-r));
  sd_bus_error_free(&error);
  sd_bus_message_unref(batch->m);
  h->batches.pop_front();
  return h->batches.empty() ? 0 : go_on(h);
}

/* After whatever else waits has had its turn: of sources with one priority, one that is always ready comes first. */
int go_on(host *h) {
  if (h->batch_turn) return sd_event_source_set_enabled(h->batch_turn, SD_EVENT_ONESHOT);
  const int r = sd_event_add_defer(h->event, &h->batch_turn, batch_cb, h);
  return r < 0 ? r : sd_event_source_set_priority(h->batch_turn, SD_EVENT_PRIORITY_NORMAL + 1);
}

}  // namespace

int mails_add(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  std::vector<mail_values> mails;
  size_t unpacked = 0;
  bool ended = false;
  int r = sd_bus_message_enter_container(m, 'a', "a{sv}");
  if (r >= 0 && h->batches.empty()) r = read_slice(m, &mails, &unpacked, &ended, error);
  if (r < 0) return r;
  if (ended) {
    std::vector<int> ids;
    const store_status status = store_add_mails(h->st, &mails, &ids);
    if (status) return host_fail(h, status, error);
    r = answer_ids(m, ids);
    host_announce(h);
    return r < 0 ? r : 1;
  }
  if (h->batches.size() >= batches_max)
    return sd_bus_error_set(error, host_error_full, "too many calls bring mails already");
  r = sd_bus_message_rewind(m, 1);
  if (r >= 0) r = sd_bus_message_enter_container(m, 'a', "a{sv}");
  if (r < 0) return r;
  h->batches.push_back({sd_bus_message_ref(m)});
  r = go_on(h);
  if (r >= 0) return 1;
  sd_bus_message_unref(m);
  h->batches.pop_back();
  return r;
}

void mails_drop(host *h) {
  sd_event_source_disable_unref(h->batch_turn);
  h->batch_turn = nullptr;
  for (const mail_batch &batch : h->batches) sd_bus_message_unref(batch.m);
  h->batches.clear();
}
