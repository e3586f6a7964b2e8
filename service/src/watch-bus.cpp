/* com.vextora.brisel.Watch1: what the application asks for. hostd.cpp puts it on the bus; nothing else calls it. */
#include <cinttypes>
#include <ctime>
#include <nlohmann/json.hpp>

#include "host.h"
#include "notify.h"
#include "store-format.h"

namespace {

using json_record = nlohmann::ordered_json; /* the fields in the records' order */

std::string to_text(const json_record &json) {
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

/* After the store took the request: clients hear of the change, the phone of the request. */
int taken(host *h, store_status status, int64_t entry, const json_record &json, sd_bus_error *error,
          const std::string &uid = {}) {
  if (status < 0) return host_fail(h, status, error);
  if (status == store_ok) {
    host_announce(h);
    link_send(h, entry, to_text(json), uid);
  }
  return 0;
}

/* The caller hears that it is done, or why not. */
int answer(sd_bus_message *m, int r) {
  return r < 0 ? r : sd_bus_reply_method_return(m, "");
}

int finish(host *h, sd_bus_message *m, store_status status, int64_t entry, const json_record &json,
           sd_bus_error *error) {
  return answer(m, taken(h, status, entry, json, error));
}

int delete_notis(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  std::string uid;
  std::vector<int> ids;
  int r = host_read_text(m, "uid", uid_max, &uid, error);
  if (r >= 0) r = host_read_ids(m, false, &ids, error);
  if (r < 0) return r;
  return answer(m, host_delete(h, uid, host_client_of(h, m), ids, error));
}

int update_ind(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  std::string uid;
  std::vector<int> ids;
  int host_state = 0;
  int r = host_read_text(m, "uid", uid_max, &uid, error);
  if (r >= 0) r = host_read_ids(m, false, &ids, error);
  if (r >= 0) r = sd_bus_message_read_basic(m, 'i', &host_state);
  if (r < 0) return r;
  return answer(m, host_mark_read(h, uid, host_client_of(h, m), ids, host_state, error));
}

int clear_all_new_flag(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  std::string uid;
  std::vector<int> ids;
  int r = host_read_text(m, "uid", uid_max, &uid, error);
  if (r >= 0) r = host_read_ids(m, true, &ids, error);
  if (r < 0) return r;
  const json_record json = {{"request", "clear_all_new_flag"}, {"id_list", ids}};
  int64_t entry = 0;
  const store_status status = store_request_clear_new(h->st, {uid, to_text(json), host_client_of(h, m)}, &entry);
  return finish(h, m, status, entry, json, error);
}

int reply(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  std::string uid;
  host_reply_request reply;
  int r = host_read_text(m, "uid", uid_max, &uid, error);
  if (r >= 0) r = host_read_text(m, "host_tag", token_max, &reply.host_tag, error);
  if (r >= 0) r = host_read_text(m, "action", token_max, &reply.action, error);
  if (r >= 0) r = host_read_text(m, "message_uid", token_max, &reply.message_uid, error);
  if (r >= 0) r = host_read_text(m, "recipient", text_max, &reply.recipient, error);
  if (r >= 0) r = host_read_text(m, "text", text_max, &reply.text, error);
  if (r >= 0) r = sd_bus_message_read_basic(m, 'i', &reply.mail_id);
  if (r >= 0) r = host_read_text(m, "subject", text_max, &reply.subject, error);
  if (r < 0) return r;
  /* The mail may have been deleted while the reply was written: the reply is the user's and is sent all the same. */
  if (reply.mail_id <= 0) return sd_bus_error_setf(error, HOST_ERROR "Invalid", "%d is no mail id", reply.mail_id);
  return answer(m, host_reply(h, uid, host_client_of(h, m), reply, error));
}

int repeat_request(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  std::string uid, text;
  int64_t id = 0;
  int changed = 0;
  int r = host_read_text(m, "uid", uid_max, &uid, error);
  if (r >= 0) r = sd_bus_message_read(m, "xb", &id, &changed);
  if (r >= 0) r = host_read_text(m, "text", text_max, &text, error);
  if (r < 0) return r;
  return answer(m, host_repeat(h, uid, host_client_of(h, m), id, changed ? &text : nullptr, error));
}

int drop_request(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  std::string uid;
  int64_t id = 0;
  int r = host_read_text(m, "uid", uid_max, &uid, error);
  if (r >= 0) r = sd_bus_message_read_basic(m, 'x', &id);
  if (r < 0) return r;
  const store_status status = store_request_drop(h->st, uid, id);
  if (status < 0) return host_fail(h, status, error);
  host_announce(h);
  return answer(m, 0);
}

int no_account(sd_bus_message *m, void *data, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  std::string uid;
  const int r = host_read_text(m, "uid", uid_max, &uid, error);
  if (r < 0) return r;
  json_record json;
  json["request"] = "no_account";
  int64_t entry = 0;
  const store_status status = store_request_relay(h->st, {uid, to_text(json), host_client_of(h, m)}, &entry);
  return finish(h, m, status, entry, json, error);
}

/* positions: how far each mail has been read, in bytes of its text; phones may leave them aside. */
int take_show(sd_bus_message *m, void *data, bool has_positions, sd_bus_error *error) {
  host *h = static_cast<host *>(data);
  std::string uid, kind;
  std::vector<int> ids, positions;
  int r = host_read_text(m, "uid", uid_max, &uid, error);
  if (r >= 0) r = host_read_text(m, "kind", token_max, &kind, error);
  if (r >= 0) r = host_read_ids(m, false, &ids, error);
  if (r >= 0 && has_positions) r = host_read_ids(m, true, &positions, error);
  if (r < 0) return r;
  if (kind.empty()) return sd_bus_error_set(error, HOST_ERROR "Invalid", "kind is empty");
  if (has_positions && positions.size() != ids.size())
    return sd_bus_error_set(error, HOST_ERROR "Invalid", "as many positions as ids are wanted");
  json_record json = {{"request", "show"}, {"kind", kind}, {"id_list", ids}, {"asked", time(nullptr)}};
  if (has_positions) json["position_list"] = positions;
  int64_t entry = 0;
  const store_status status = store_request_relay(h->st, {uid, to_text(json), host_client_of(h, m)}, &entry);
  return finish(h, m, status, entry, json, error);
}

int show(sd_bus_message *m, void *data, sd_bus_error *error) {
  return take_show(m, data, false, error);
}

int show_at(sd_bus_message *m, void *data, sd_bus_error *error) {
  return take_show(m, data, true, error);
}

int more_msg(sd_bus_message *m, void *data, sd_bus_error *error) {
  std::string uid, message_uid;
  int mail_id = 0;
  int r = host_read_text(m, "uid", uid_max, &uid, error);
  if (r >= 0) r = host_read_text(m, "message_uid", token_max, &message_uid, error);
  if (r >= 0) r = sd_bus_message_read_basic(m, 'i', &mail_id);
  if (r < 0) return r;
  return link_ask_more(static_cast<host *>(data), m, mail_id, message_uid, error);
}

int list_in_view(sd_bus_message *m, void *data, sd_bus_error *error) {
  int account_id = 0;
  int r = sd_bus_message_read_basic(m, 'i', &account_id);
  if (r >= 0) r = notify_list_in_view(static_cast<host *>(data), sd_bus_message_get_sender(m), account_id);
  return answer(m, r);
}

/* A phone that never heard which numbers its mails got here knows them by these, and another phone that they are not
   its own. */
void add_names(host *h, const std::vector<int> &ids, json_record *json) {
  std::vector<std::string> tags, uids;
  if (store_mail_names(h->st, ids, &tags, &uids) != store_ok || uids.empty()) return;
  (*json)["host_tag_list"] = tags;
  (*json)["message_uid_list"] = uids;
}

}  // namespace

int host_delete(host *h, const std::string &uid, const std::string &client, const std::vector<int> &ids,
                sd_bus_error *error) {
  json_record json = {{"request", "delete_notis"}, {"id_list", ids}};
  add_names(h, ids, &json);
  int64_t entry = 0;
  const store_status status = store_request_delete(h->st, {uid, to_text(json), client}, ids, &entry);
  return taken(h, status, entry, json, error);
}

int host_mark_read(host *h, const std::string &uid, const std::string &client, const std::vector<int> &ids,
                   int host_state, sd_bus_error *error) {
  json_record json = {{"request", "update_ind"}, {"id_list", ids}, {"host_state", host_state}};
  add_names(h, ids, &json);
  int64_t entry = 0;
  const store_status status = store_request_read(h->st, {uid, to_text(json), client}, ids, &entry);
  return taken(h, status, entry, json, error);
}

int host_reply(host *h, const std::string &uid, const std::string &client, const host_reply_request &reply,
               sd_bus_error *error) {
  const json_record json = {{"request", "reply"},           {"host_tag", reply.host_tag},
                            {"action", reply.action},       {"message_uid", reply.message_uid},
                            {"recipient", reply.recipient}, {"text", reply.text},
                            {"mail_id", reply.mail_id},     {"subject", reply.subject}};
  int64_t entry = 0;
  const reply_words words = {reply.mail_id, reply.recipient, reply.subject, reply.text};
  const store_status status = store_request_reply(h->st, {uid, to_text(json), client}, words, &entry);
  return taken(h, status, entry, json, error, uid);
}

/* As a new request: what a phone refused it knows by the old number. */
int host_repeat(host *h, const std::string &uid, const std::string &client, int64_t id, const std::string *text,
                sd_bus_error *error) {
  std::string old;
  if (store_was_done(h->st, uid)) return 0;
  store_status status = store_reply_json(h->st, id, &old);
  if (status) return host_fail(h, status, error);
  json_record json = json_record::parse(old, nullptr, false);
  if (!json.is_object() || !json.contains("text") || !json["text"].is_string())
    return sd_bus_error_setf(error, HOST_ERROR "Invalid", "reply %" PRId64 " is damaged", id);
  if (text) json["text"] = *text;
  int64_t entry = 0;
  status = store_request_repeat(h->st, {uid, to_text(json), client}, id, json["text"].get<std::string>(), &entry);
  return taken(h, status, entry, json, error, uid);
}

/* Keep com.vextora.brisel.Host.xml the same. */
const sd_bus_vtable watch_vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("DeleteNotis", SD_BUS_ARGS("s", uid, "ai", ids), SD_BUS_NO_RESULT, delete_notis,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("UpdateInd", SD_BUS_ARGS("s", uid, "ai", ids, "i", host_state), SD_BUS_NO_RESULT,
                            update_ind, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("ClearAllNewFlag", SD_BUS_ARGS("s", uid, "ai", ids), SD_BUS_NO_RESULT, clear_all_new_flag,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Reply",
                            SD_BUS_ARGS("s", uid, "s", host_tag, "s", action, "s", message_uid, "s", recipient, "s",
                                        text, "i", mail_id, "s", subject),
                            SD_BUS_NO_RESULT, reply, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("RepeatRequest", SD_BUS_ARGS("s", uid, "x", id, "b", changed, "s", text), SD_BUS_NO_RESULT,
                            repeat_request, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("DropRequest", SD_BUS_ARGS("s", uid, "x", id), SD_BUS_NO_RESULT, drop_request,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("NoAccount", SD_BUS_ARGS("s", uid), SD_BUS_NO_RESULT, no_account,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Show", SD_BUS_ARGS("s", uid, "s", kind, "ai", ids), SD_BUS_NO_RESULT, show,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("ShowAt", SD_BUS_ARGS("s", uid, "s", kind, "ai", ids, "ai", positions), SD_BUS_NO_RESULT,
                            show_at, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("MoreMsg", SD_BUS_ARGS("s", uid, "s", message_uid, "i", mail_id), SD_BUS_RESULT("ai", ids),
                            more_msg, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("ListInView", SD_BUS_ARGS("i", account_id), SD_BUS_NO_RESULT, list_in_view,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_ARGS("Changed", SD_BUS_ARGS("x", seq), 0),
    SD_BUS_VTABLE_END,
};
