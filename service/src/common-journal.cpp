/* What became of requests, as the application reads it, and what it asks about one of them. */
#include <glib.h>

#include <algorithm>
#include <set>
#include <string>

#include "brisel-common.h"
#include "brisel-reply.h"
#include "common-link-priv.h"
#include "reader.h"
#include "records.h"

namespace {

constexpr int uid_column = 12; /* of reader_requests */

void free_request(gpointer data) {
  auto *entry = static_cast<brisel_request_data *>(data);
  for (char *text : {entry->person, entry->subject, entry->text, entry->reason}) g_free(text);
  g_free(entry);
}

/* --- what the store's rows do not say: what was asked about them, and what no service has yet --- */

void set_text(char **text, const std::string &value) {
  g_free(*text);
  *text = g_strdup(value.c_str());
}

void fill_from_reply(brisel_request_data *entry, const request &r) {
  const std::string &recipient = r.texts[kept_reply_recipient];
  const size_t name = recipient.find(reply_name_separator);
  entry->kind = BRISEL_REQUEST_KIND_REPLY;
  entry->mail_id = r.mail_id;
  entry->mail_count = 1;
  entry->can_change = common_is_here_only(&r);
  set_text(&entry->person, name == std::string::npos ? recipient : recipient.substr(name + 1));
  set_text(&entry->subject, r.texts[kept_reply_subject]);
  set_text(&entry->text, r.texts[kept_reply_text]);
}

void fill_from_mails(brisel_request_data *entry, const request &r) {
  entry->kind = r.type == BRISEL_IPC_CLIENT_REQ_TYPE_UPDATE_IND ? BRISEL_REQUEST_KIND_READ : BRISEL_REQUEST_KIND_DELETE;
  entry->mail_id = r.ids.front();
  entry->mail_count = static_cast<int>(r.ids.size());
  GSList *mails = nullptr;
  int count = 0;
  if (brisel_db_get_noti_rows_by_mail_ids(&entry->mail_id, 1, &mails, &count) != 0 || !mails) return;
  const auto *mail = static_cast<const full_noti_data *>(mails->data);
  const bool has_name = mail->from_name && *mail->from_name;
  for (const auto &[to, from] : {std::pair(&entry->person, has_name ? mail->from_name : mail->from_address),
                                 std::pair(&entry->subject, mail->subject)})
    set_text(to, from ? from : "");
  brisel_full_noti_data_list_free(mails);
}

GSList *find_entry(GSList *list, int request_id) {
  while (list && static_cast<brisel_request_data *>(list->data)->request_id != request_id) list = list->next;
  return list;
}

GSList *as_asked(GSList *list, const request &r) {
  GSList *cell = find_entry(list, r.ids.front());
  if (!cell) return list;
  auto *entry = static_cast<brisel_request_data *>(cell->data);
  if (r.type == BRISEL_IPC_CLIENT_REQ_TYPE_DROP_REQUEST) {
    free_request(entry);
    return g_slist_delete_link(list, cell);
  }
  entry->state = BRISEL_REQUEST_STATE_WAITS;
  entry->can_change = 0;
  set_text(&entry->reason, "");
  if (!r.texts.empty()) set_text(&entry->text, r.texts[0]);
  return list;
}

/* Behind what waits at the service, which is older. uids: of what the service has. */
GSList *with_what_waits_here(GSList *list, const std::set<std::string> &uids) {
  GSList *here = nullptr;
  for (const request *r : common_waiting()) {
    const bool is_reply = r->type == BRISEL_IPC_CLIENT_REQ_TYPE_REPLY;
    const bool is_of_mails =
        r->type == BRISEL_IPC_CLIENT_REQ_TYPE_DELETE_NOTIS || r->type == BRISEL_IPC_CLIENT_REQ_TYPE_UPDATE_IND;
    if (r->type >= BRISEL_IPC_CLIENT_REQ_TYPE_DROP_REQUEST) list = as_asked(list, *r);
    if ((!is_reply && (!is_of_mails || r->ids.empty())) || uids.contains(r->uid)) continue;
    auto *entry = g_new0(brisel_request_data, 1);
    entry->request_id = -r->number;
    is_reply ? fill_from_reply(entry, *r) : fill_from_mails(entry, *r);
    here = g_slist_prepend(here, entry);
  }
  const auto is_over = [](const brisel_request_data *entry) {
    return entry->state == BRISEL_REQUEST_STATE_HANDED_OVER || entry->state == BRISEL_REQUEST_STATE_SENT;
  };
  gint at = 0;
  for (GSList *cell = list; cell && !is_over(static_cast<brisel_request_data *>(cell->data)); cell = cell->next) at++;
  for (GSList *cell = here; cell; cell = cell->next) list = g_slist_insert(list, cell->data, at);
  g_slist_free(here);
  return list;
}

/* false when memory is short. */
bool read_request(sql_statement *q, brisel_request_data *entry) {
  int column = 0;
  for (int *number :
       {&entry->request_id, &entry->kind, &entry->state, &entry->mail_id, &entry->mail_count, &entry->can_change})
    *number = q->integer(column++);
  entry->created = static_cast<time_t>(q->number(column++));
  entry->changed = static_cast<time_t>(q->number(column++));
  for (char **text : {&entry->person, &entry->subject, &entry->text, &entry->reason}) {
    const std::string_view stored = q->view(column++);
    *text = records_text(nullptr, stored);
    if (!*text && !stored.empty()) return false;
  }
  return true;
}

int ask(int type, int request_id, const char *text, brisel_ipc_response_cb callback, void *user_data) {
  if (request_id == 0) return BRISEL_COMMON_ERROR_INVALID;
  if (request_id < 0)
    return type == BRISEL_IPC_CLIENT_REQ_TYPE_DROP_REQUEST ? common_drop_waiting(-request_id)
                                                           : common_change_waiting(-request_id, text);
  request r;
  r.type = type;
  r.ids = {request_id};
  if (text) r.texts.push_back(common_bus_text(text));
  r.callback = callback;
  r.user_data = user_data;
  return common_enqueue(std::move(r));
}

}  // namespace

void brisel_request_data_list_free(GSList *list) {
  g_slist_free_full(list, free_request);
}

int brisel_db_get_all_request_data(GSList **list) {
  if (!list) return BRISEL_COMMON_ERROR_INVALID;
  *list = nullptr;
  sql_statement *q = nullptr;
  int status = reader_start(reader_requests, &q);
  GSList *requests = nullptr;
  std::set<std::string> uids;
  sql_result r = sql_done;
  while (q && !status && (r = q->step()) == sql_row) {
    brisel_request_data *entry = g_try_new0(brisel_request_data, 1);
    if (entry) requests = g_slist_prepend(requests, entry);
    if (!entry || !read_request(q, entry)) status = BRISEL_COMMON_ERROR_MEMORY;
    uids.emplace(q->view(uid_column));
  }
  const int done = q ? reader_done(q, status ? sql_done : r) : 0;
  if (!status) status = done;
  if (status) {
    brisel_request_data_list_free(requests);
    return status;
  }
  *list = with_what_waits_here(g_slist_reverse(requests), uids);
  return 0;
}

int brisel_ipc_req_repeat_request(int request_id, const char *text, brisel_ipc_response_cb callback, void *user_data) {
  return ask(BRISEL_IPC_CLIENT_REQ_TYPE_REPEAT_REQUEST, request_id, text, callback, user_data);
}

int brisel_ipc_req_drop_request(int request_id, brisel_ipc_response_cb callback, void *user_data) {
  return ask(BRISEL_IPC_CLIENT_REQ_TYPE_DROP_REQUEST, request_id, nullptr, callback, user_data);
}
