/* The store as the application reads it: the calls of brisel-common.h that read. The application calls it. */
#include "brisel-common.h"
#include "reader.h"
#include "records.h"
#include "store-format.h"
#include "text-check.h"

namespace {

bool opened;

/* Where a field stands in what the queries give of a whole mail. */
constexpr int column(mail_field field) {
  return 1 + field;
}

bool read_text(slab *s, sql_statement *q, int column, char **text) {
  const std::string_view stored = q->view(column);
  *text = records_text(s, stored);
  return *text || stored.empty();
}

/* Fills an empty record from a row; false when memory is short. */
bool read_row(slab *s, sql_statement *q, full_noti_data *mail) {
  mail->mail_id = q->integer(row_id);
  mail->received_time = static_cast<time_t>(q->number(row_time));
  mail->is_new = q->integer(row_new);
  mail->account_id = q->integer(row_account);
  mail->security_locked = q->integer(row_locked);
  mail->is_read = q->integer(row_read);
  return read_text(s, q, row_subject, &mail->subject) && read_text(s, q, row_address, &mail->from_address) &&
         read_text(s, q, row_name, &mail->from_name);
}

/* The same from a whole mail, all but its body. */
bool read_head(slab *s, sql_statement *q, full_noti_data *mail) {
  mail->mail_id = q->integer(0);
  mail->host_state = q->integer(column(field_host_state));
  mail->received_time = static_cast<time_t>(q->number(column(field_time)));
  mail->attachment_count = q->integer(column(field_attachments));
  mail->has_image = q->integer(column(field_image));
  mail->is_new = q->integer(column(field_new));
  mail->account_id = q->integer(column(field_account));
  mail->security_locked = q->integer(column(field_locked));
  mail->is_read = q->integer(column(field_read));
  return read_text(s, q, column(field_tag), &mail->host_tag) &&
         read_text(s, q, column(field_subject), &mail->subject) &&
         read_text(s, q, column(field_address), &mail->from_address) &&
         read_text(s, q, column(field_name), &mail->from_name) &&
         read_text(s, q, column(field_uid), &mail->message_uid) &&
         records_set_contacts(s, mail, q->view(column(field_contacts)));
}

bool read_mail(slab *s, sql_statement *q, full_noti_data *mail) {
  return read_head(s, q, mail) && read_text(s, q, column(field_body), &mail->body);
}

/* Without the character at the end that is cut, or with none at all. */
size_t length_of_characters(const char *text, size_t length) {
  size_t last = length;
  while (last > 0 && length - last < 4 && (static_cast<unsigned char>(text[last - 1]) & 0xC0) == 0x80) last--;
  return last > 0 && !text_utf8_length({text + last - 1, length - last + 1}) ? last - 1 : length;
}

/* The beginning of the body of the query's row. Its status, as of the calls of this file. */
int read_beginning(sql_statement *q, size_t most, full_noti_data *mail, bool *is_whole) {
  *is_whole = true;
  if (q->view(column(field_body)) == "null") return 0;
  size_t length = 0;
  char *bytes = nullptr;
  const int status = reader_body_beginning(mail->mail_id, most, &bytes, &length, is_whole);
  if (status) return status;
  if (!*is_whole) bytes[length = length_of_characters(bytes, length)] = 0;
  if (length && text_utf8_valid({bytes, length})) {
    mail->body = bytes;
    return 0;
  }
  mail->body = records_text(nullptr, {bytes, length});
  g_free(bytes);
  return mail->body || !length ? 0 : BRISEL_COMMON_ERROR_MEMORY;
}

/* A list of mails while it grows: its cells lie beside its records. */
struct growing_list {
  slab *s = slab_new();
  GSList *first = nullptr, **link = &first;
  int length = 0;

  full_noti_data *add(void) {
    slab_mail *entry = s ? slab_add_mail(s) : nullptr;
    if (!entry) return nullptr;
    *link = &entry->cell;
    link = &entry->cell.next;
    length++;
    return &entry->mail;
  }
  /* Hands it over, or frees it when status is an error. Returns status. */
  int finish(int status, GSList **list, int *count) {
    if (status || !first) {
      first ? brisel_full_noti_data_list_free(first) : slab_free(s);
      return status;
    }
    *list = first;
    *count = length;
    return 0;
  }
};

/* A record for every row that the query gives; the query is done then. */
int read_into(growing_list *mails, sql_statement *q, bool (*read)(slab *, sql_statement *, full_noti_data *)) {
  int status = 0;
  sql_result r = sql_done;
  while (!status && (r = q->step()) == sql_row) {
    full_noti_data *mail = mails->add();
    if (!mail || !read(mails->s, q, mail)) status = BRISEL_COMMON_ERROR_MEMORY;
  }
  const int done = reader_done(q, status ? sql_done : r);
  return status ? status : done;
}

bool read_account(sql_statement *q, account_data *account) {
  account->account_id = q->integer(0);
  account->account_value = q->integer(1);
  return read_text(nullptr, q, 2, &account->email_address) && read_text(nullptr, q, 3, &account->display_name);
}

/* The single number that a query gives for id (not bound when negative). */
int read_number(reader_query which, int id, int *number) {
  sql_statement *q = nullptr;
  const int status = reader_start(which, &q);
  if (!q) return status;
  if (id >= 0) q->bind(id);
  const sql_result r = q->step();
  const int value = r == sql_row ? q->integer(0) : 0;
  const int done = reader_done(q, r);
  if (done) return done;
  if (r != sql_row) return BRISEL_COMMON_ERROR_NOT_FOUND;
  *number = value;
  return 0;
}

/* Readies the query that gives a part of a list: `all` of all mails, the one behind it of an account's. The other
   values as the application gave them. As reader_start(). */
int start_part(reader_query all, int account_id, const brisel_mail_place *after, int most, sql_statement **q) {
  const int status = reader_start(static_cast<reader_query>(all + (account_id ? 1 : 0)), q);
  if (!*q) return status;
  const int limit = most ? most : -1; /* none */
  /* To SQLite all numbers and texts come before bytes: behind such a place is every mail, and what reads a list from
     its start needs no query of its own. */
  after ? (*q)->bind(static_cast<int64_t>(after->received_time), after->mail_id, limit)
        : (*q)->bind(sql_blob{""}, 0, limit);
  if (account_id) (*q)->add(account_id);
  return status;
}

/* The row of one id, which fill makes out of it: 0, or the error. */
template <typename row_fill>
int read_row(reader_query which, int id, const void *out, row_fill fill) {
  if (!out || id <= 0) return BRISEL_COMMON_ERROR_INVALID;
  if (!opened) return BRISEL_COMMON_ERROR_STORE;
  sql_statement *q = nullptr;
  const int status = reader_start(which, &q);
  if (!q) return status ? status : BRISEL_COMMON_ERROR_NOT_FOUND;
  const sql_result r = q->bind(id).step();
  const int read = r == sql_row ? fill(q) : BRISEL_COMMON_ERROR_NOT_FOUND;
  const int done = reader_done(q, read == BRISEL_COMMON_ERROR_STORE ? sql_failed : r);
  return done ? done : read;
}

/* A mail with the first most bytes of its body. */
int read_one(int mail_id, size_t most, full_noti_data *out, bool *is_whole) {
  return read_row(reader_mail, mail_id, out, [=](sql_statement *q) -> int {
    records_clear_mail(out);
    if (!read_head(nullptr, q, out)) return BRISEL_COMMON_ERROR_MEMORY;
    return most ? read_beginning(q, most, out, is_whole) : 0;
  });
}

}  // namespace

int brisel_db_init(void) {
  if (!opened) reader_hold();
  opened = true;
  /* A store that is there must be readable; one that is not there yet is made by the service. */
  sql_statement *q = nullptr;
  const int status = reader_start(reader_account_count, &q);
  return q ? reader_done(q, sql_done) : status;
}

int brisel_db_deinit(void) {
  if (!opened) return BRISEL_COMMON_ERROR_STORE;
  opened = false;
  reader_release();
  return 0;
}

void brisel_db_give_back(void) {
  if (opened) reader_give_back();
}

int brisel_db_get_all_account_count(int *count) {
  if (!count) return BRISEL_COMMON_ERROR_INVALID;
  if (!opened) return BRISEL_COMMON_ERROR_STORE;
  *count = 0;
  return read_number(reader_account_count, -1, count);
}

int brisel_db_get_target_account_count(int *count) {
  /* The phone relays no account that the watch may not show. */
  return brisel_db_get_all_account_count(count);
}

int brisel_db_is_valid_target_account_count(int *valid) {
  if (!valid) return BRISEL_COMMON_ERROR_INVALID;
  if (!opened) return BRISEL_COMMON_ERROR_STORE;
  int status = 0;
  *valid = reader_get_state("account_count_known", 0, &status) == 1;
  return status;
}

int brisel_db_get_all_account_data(GSList **list) {
  if (!list) return BRISEL_COMMON_ERROR_INVALID;
  *list = nullptr;
  if (!opened) return BRISEL_COMMON_ERROR_STORE;
  sql_statement *q = nullptr;
  int status = reader_start(reader_accounts, &q);
  if (!q) return status;
  GSList *accounts = nullptr;
  sql_result r = sql_done;
  while (!status && (r = q->step()) == sql_row) {
    account_data *account = brisel_account_data_create();
    if (account) accounts = g_slist_prepend(accounts, account);
    if (!account || !read_account(q, account)) status = BRISEL_COMMON_ERROR_MEMORY;
  }
  const int done = reader_done(q, status ? sql_done : r);
  if (!status) status = done;
  if (status) {
    brisel_account_data_list_free(accounts);
    return status;
  }
  *list = g_slist_reverse(accounts);
  return 0;
}

int brisel_db_get_account_data_by_account_id(int account_id, account_data *out) {
  return read_row(reader_account, account_id, out, [=](sql_statement *q) -> int {
    records_clear_account(out);
    return read_account(q, out) ? 0 : BRISEL_COMMON_ERROR_MEMORY;
  });
}

int brisel_db_get_full_noti_data_by_mail_id(int mail_id, full_noti_data *out) {
  bool is_whole = false;
  return read_one(mail_id, SIZE_MAX, out, &is_whole);
}

int brisel_db_get_noti_head_by_mail_id(int mail_id, full_noti_data *out) {
  bool is_whole = false;
  return read_one(mail_id, 0, out, &is_whole);
}

int brisel_db_get_noti_beginning_by_mail_id(int mail_id, int most, full_noti_data *out, int *is_whole) {
  if (!is_whole || most <= 0) return BRISEL_COMMON_ERROR_INVALID;
  bool is_all = true;
  const int status = read_one(mail_id, static_cast<size_t>(most), out, &is_all);
  *is_whole = is_all;
  return status;
}

int brisel_db_walk_body_by_mail_id(int mail_id, size_t from, size_t most, brisel_body_cb callback, void *data) {
  return read_row(reader_mail, mail_id, reinterpret_cast<const void *>(callback), [&](sql_statement *q) {
    if (q->view(column(field_body)) != "null") return reader_walk_body(mail_id, from, most, callback, data);
    callback("", 0, 0, data);
    return 0;
  });
}

int brisel_db_get_full_noti_data_list_by_account_id(int account_id, GSList **list, int *count) {
  if (!list || !count || account_id < 0) return BRISEL_COMMON_ERROR_INVALID;
  *list = nullptr;
  *count = 0;
  if (!opened) return BRISEL_COMMON_ERROR_STORE;
  sql_statement *q = nullptr;
  const int status = reader_start(account_id ? reader_mails_of_account : reader_mails, &q);
  if (!q) return status;
  if (account_id) q->bind(account_id);
  growing_list mails;
  return mails.finish(read_into(&mails, q, read_mail), list, count);
}

int brisel_db_get_mail_places_after(int account_id, const brisel_mail_place *after, int most,
                                    brisel_mail_place **places, int *count) {
  if (!places || !count || account_id < 0 || most < 0) return BRISEL_COMMON_ERROR_INVALID;
  *places = nullptr;
  *count = 0;
  if (!opened) return BRISEL_COMMON_ERROR_STORE;
  sql_statement *q = nullptr;
  int status = start_part(reader_places, account_id, after, most, &q);
  if (!q) return status;
  brisel_mail_place *all = nullptr;
  int length = 0, room = 0;
  sql_result r = sql_done;
  while (!status && (r = q->step()) == sql_row) {
    if (length == room) {
      room = room ? room * 2 : 256;
      brisel_mail_place *more = g_try_renew(brisel_mail_place, all, room);
      if (!more) {
        status = BRISEL_COMMON_ERROR_MEMORY;
        break;
      }
      all = more;
    }
    all[length++] = {q->integer(0), static_cast<time_t>(q->number(1)), q->integer(2)};
  }
  const int done = reader_done(q, status ? sql_done : r);
  if (!status) status = done;
  if (status) {
    g_free(all);
    return status;
  }
  *places = all;
  *count = length;
  return 0;
}

int brisel_db_get_noti_rows_after(int account_id, const brisel_mail_place *after, int most, GSList **list, int *count) {
  if (!list || !count || account_id < 0 || most < 0) return BRISEL_COMMON_ERROR_INVALID;
  *list = nullptr;
  *count = 0;
  if (!opened) return BRISEL_COMMON_ERROR_STORE;
  sql_statement *q = nullptr;
  const int status = start_part(reader_rows, account_id, after, most, &q);
  if (!q) return status;
  growing_list mails;
  return mails.finish(read_into(&mails, q, read_row), list, count);
}

int brisel_db_get_noti_rows_by_mail_ids(const int *ids, int ids_count, GSList **list, int *count) {
  if (!list || !count || ids_count < 0 || (ids_count && !ids)) return BRISEL_COMMON_ERROR_INVALID;
  *list = nullptr;
  *count = 0;
  if (!opened) return BRISEL_COMMON_ERROR_STORE;
  growing_list mails;
  int status = mails.s ? 0 : BRISEL_COMMON_ERROR_MEMORY;
  for (int i = 0; !status && i < ids_count;) {
    const bool many = ids_count - i >= reader_many;
    sql_statement *q = nullptr;
    status = reader_start(many ? reader_many_rows : reader_few_rows, &q);
    if (!q) break;
    for (int k = 1; k <= (many ? reader_many : reader_few); k++, i++) i < ids_count ? q->add(ids[i]) : q->add(nullptr);
    status = read_into(&mails, q, read_row);
  }
  return mails.finish(status, list, count);
}

int brisel_db_get_full_noti_data_count_by_account_id(int account_id, int *count) {
  if (!count || account_id < 0) return BRISEL_COMMON_ERROR_INVALID;
  if (!opened) return BRISEL_COMMON_ERROR_STORE;
  *count = 0;
  return account_id ? read_number(reader_mail_count_of_account, account_id, count)
                    : read_number(reader_mail_count, -1, count);
}

int brisel_db_get_all_template_data(GSList **list) {
  if (!list) return BRISEL_COMMON_ERROR_INVALID;
  *list = nullptr;
  if (!opened) return BRISEL_COMMON_ERROR_STORE;
  sql_statement *q = nullptr;
  int status = reader_start(reader_templates, &q);
  if (!q) return status;
  GSList *templates = nullptr;
  sql_result r = sql_done;
  while (!status && (r = q->step()) == sql_row) {
    template_data *entry = g_try_new0(template_data, 1);
    if (entry) {
      templates = g_slist_prepend(templates, entry);
      entry->template_id = q->integer(0);
    }
    if (!entry || !read_text(nullptr, q, 1, &entry->text)) status = BRISEL_COMMON_ERROR_MEMORY;
  }
  const int done = reader_done(q, status ? sql_done : r);
  if (!status) status = done;
  if (status) {
    brisel_template_data_list_free(templates);
    return status;
  }
  *list = g_slist_reverse(templates);
  return 0;
}

int brisel_util_get_account_color(int account_id, unsigned int *rgba) {
  if (!rgba || account_id <= 0) return BRISEL_COMMON_ERROR_INVALID;
  if (!opened) return BRISEL_COMMON_ERROR_STORE;
  sql_statement *q = nullptr;
  const int status = reader_start(reader_account_color, &q);
  if (!q) return status ? status : BRISEL_COMMON_ERROR_NOT_FOUND;
  const sql_result r = q->bind(account_id).step();
  const unsigned int color = r == sql_row ? static_cast<unsigned int>(q->number(0)) : 0;
  const int done = reader_done(q, r);
  if (done) return done;
  if (r != sql_row) return BRISEL_COMMON_ERROR_NOT_FOUND;
  *rgba = color;
  return 0;
}

int brisel_util_get_conn_status(int *status) {
  if (!status) return BRISEL_COMMON_ERROR_INVALID;
  if (!opened) return BRISEL_COMMON_ERROR_STORE;
  int error = 0;
  const int told = reader_get_state("conn_status", -1, &error);
  if (error) return error;
  const int connected = reader_get_state("phone_connected", 0, &error);
  if (error) return error;
  *status = told >= 0 ? told : connected ? 0 : 1;
  return 0;
}

int brisel_util_get_reply_status(int *status) {
  if (!status) return BRISEL_COMMON_ERROR_INVALID;
  if (!opened) return BRISEL_COMMON_ERROR_STORE;
  int error = 0;
  const int told = reader_get_state("reply_status", 0, &error);
  if (error) return error;
  *status = told;
  return 0;
}
