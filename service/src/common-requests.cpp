/* The application's requests, each put into a record for the queue of common-link.cpp. The application calls it. */
#include "brisel-common.h"
#include "common-link-priv.h"

namespace {

std::vector<int> ids_of_list(const GSList *list) {
  std::vector<int> ids;
  for (; list; list = list->next) ids.push_back(GPOINTER_TO_INT(list->data));
  return ids;
}

int enqueue_ids(int type, const GSList *ids, brisel_ipc_response_cb callback, void *user_data) {
  request r;
  r.type = type;
  r.ids = ids_of_list(ids);
  r.callback = callback;
  r.user_data = user_data;
  return common_enqueue(std::move(r));
}

}  // namespace

int brisel_ipc_req_delete_notis(op_data *data, brisel_ipc_response_cb callback, void *user_data) {
  if (!data || !data->id_list) return BRISEL_COMMON_ERROR_INVALID;
  return enqueue_ids(BRISEL_IPC_CLIENT_REQ_TYPE_DELETE_NOTIS, data->id_list, callback, user_data);
}

int brisel_ipc_req_clear_all_new_flag(op_data *data, brisel_ipc_response_cb callback, void *user_data) {
  if (!data) return BRISEL_COMMON_ERROR_INVALID;
  return enqueue_ids(BRISEL_IPC_CLIENT_REQ_TYPE_CLEAR_ALL_NEW_FLAG, data->id_list, callback, user_data);
}

int brisel_ipc_req_update_ind(update_noti_data *data, brisel_ipc_response_cb callback, void *user_data) {
  if (!data || !data->id_list) return BRISEL_COMMON_ERROR_INVALID;
  request r;
  r.type = BRISEL_IPC_CLIENT_REQ_TYPE_UPDATE_IND;
  r.ids = ids_of_list(data->id_list);
  r.host_state = data->host_state;
  r.callback = callback;
  r.user_data = user_data;
  return common_enqueue(std::move(r));
}

int brisel_ipc_req_reply(reply_noti_data *data, brisel_ipc_response_cb callback, void *user_data) {
  if (!data || data->mail_id <= 0) return BRISEL_COMMON_ERROR_INVALID;
  request r;
  r.type = BRISEL_IPC_CLIENT_REQ_TYPE_REPLY;
  for (const char *text : {data->host_tag, data->action, data->message_uid, data->recipient, data->text, data->subject})
    r.texts.push_back(common_bus_text(text));
  r.mail_id = data->mail_id;
  r.ids = {data->mail_id};
  r.callback = callback;
  r.user_data = user_data;
  return common_enqueue(std::move(r));
}

int brisel_ipc_req_no_account(brisel_ipc_response_cb callback, void *user_data) {
  request r;
  r.type = kept_no_account;
  r.callback = callback;
  r.user_data = user_data;
  return common_enqueue(std::move(r));
}
