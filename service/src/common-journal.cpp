/* What became of requests, as the application reads it, and what it asks about one of them. */
#include <glib.h>

#include "brisel-common.h"
#include "common-link-priv.h"
#include "reader.h"
#include "records.h"

namespace {

void free_request(gpointer data) {
  auto *entry = static_cast<brisel_request_data *>(data);
  for (char *text : {entry->person, entry->subject, entry->text, entry->reason}) g_free(text);
  g_free(entry);
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
  if (request_id <= 0) return BRISEL_COMMON_ERROR_INVALID;
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
  if (!q) return status;
  GSList *requests = nullptr;
  sql_result r = sql_done;
  while (!status && (r = q->step()) == sql_row) {
    brisel_request_data *entry = g_try_new0(brisel_request_data, 1);
    if (entry) requests = g_slist_prepend(requests, entry);
    if (!entry || !read_request(q, entry)) status = BRISEL_COMMON_ERROR_MEMORY;
  }
  const int done = reader_done(q, status ? sql_done : r);
  if (!status) status = done;
  if (status) {
    brisel_request_data_list_free(requests);
    return status;
  }
  *list = g_slist_reverse(requests);
  return 0;
}

int brisel_ipc_req_repeat_request(int request_id, const char *text, brisel_ipc_response_cb callback, void *user_data) {
  return ask(BRISEL_IPC_CLIENT_REQ_TYPE_REPEAT_REQUEST, request_id, text, callback, user_data);
}

int brisel_ipc_req_drop_request(int request_id, brisel_ipc_response_cb callback, void *user_data) {
  return ask(BRISEL_IPC_CLIENT_REQ_TYPE_DROP_REQUEST, request_id, nullptr, callback, user_data);
}
