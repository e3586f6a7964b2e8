/* Owns what a reply takes from its mail, and hands replies over. The reply views alone call it. */
#include "brisel-app-journal.h"
#include "brisel-app-option-reply.h"
#include "brisel-app-utils.h"
#include "brisel-reply.h"
#include "brisel-scoped.h"

static constexpr size_t BRISEL_REPLY_FIELD_MAX = 1023; /* bytes of a request's recipient and subject */

static std::string __brisel_option_reply_string(const char *text) {
  return text ? text : "";
}

int brisel_reply_mail_take(int mail_id, const full_noti_data *noti_data, brisel_reply_mail *mail) {
  full_noti_data *record = nullptr;
  if (!noti_data) {
    bool own = false;
    int ret = brisel_option_take_noti_data(mail_id, nullptr, &record, &own);
    if (ret != 0) return ret;
    noti_data = record;
  }
  const scoped_noti read_here(record);
  mail->mail_id = mail_id;
  mail->host_tag = __brisel_option_reply_string(noti_data->host_tag);
  mail->message_uid = __brisel_option_reply_string(noti_data->message_uid);
  mail->address = __brisel_option_reply_string(noti_data->from_address);
  mail->name = __brisel_option_reply_string(noti_data->from_name);
  mail->subject = __brisel_option_reply_string(noti_data->subject);
  return 0;
}

static char *__brisel_option_reply_bounded(const std::string &text) {
  char *copy = g_strdup(text.c_str());
  brisel_util_cut_utf8(copy, BRISEL_REPLY_FIELD_MAX);
  return copy;
}

static char *__brisel_option_reply_recipient(const brisel_reply_mail &mail) {
  return __brisel_option_reply_bounded(mail.name.empty() ? mail.address
                                                         : mail.address + reply_name_separator + mail.name);
}

char *brisel_reply_to_markup(const brisel_reply_mail &mail) {
  const scoped_text who(brisel_util_text_to_markup((mail.name.empty() ? mail.address : mail.name).c_str()));
  return brisel_replace_str(brisel_util_get_text("IDS_EMAIL_BODY_TO_PS"), "%s", who ? who.get() : "");
}

static int __brisel_option_reply_request(const brisel_reply_mail &mail, const char *text) {
  const scoped_reply reply(brisel_reply_noti_data_create());
  if (!reply) {
    BRISEL_ERROR("brisel_reply_noti_data_create() failed!");
    return BRISEL_COMMON_ERROR_MEMORY;
  }
  reply->host_tag = g_strdup(mail.host_tag.c_str());
  reply->action = g_strdup(reply_action);
  reply->message_uid = g_strdup(mail.message_uid.c_str());
  reply->recipient = __brisel_option_reply_recipient(mail);
  reply->text = g_strdup(text ? text : "");
  reply->mail_id = mail.mail_id;
  reply->subject = __brisel_option_reply_bounded(mail.subject);

  int ret = brisel_ipc_req_cancel(BRISEL_IPC_CLIENT_REQ_TYPE_REPLY);
  if (ret != 0) {
    BRISEL_ERROR("brisel_ipc_req_cancel() failed! ret:[%d]", ret);
    return ret;
  }
  ret = brisel_ipc_req_reply(reply.get(), nullptr, nullptr);
  if (ret != 0) BRISEL_WARN("brisel_ipc_req_reply() failed! ret:[%d]", ret);
  return ret;
}

bool __brisel_option_reply_send_reply_message(option_reply_view_data *vd, const char *text) {
  BRISEL_INFO("Enter");
  if (vd->sent) return false;
  if (vd->request_id) return vd->sent = brisel_journal_send_again(vd->request_id, text ? text : "", vd->ad) == 0;
  const char *problem = nullptr;
  if (!reply_has_recipient(vd->mail.address))
    problem = "IDS_EMAIL_POP_THIS_EMAIL_HAS_NO_ADDRESS_TO_REPLY_TO";
  else if (__brisel_option_reply_request(vd->mail, text) != 0)
    problem = "IDS_EMAIL_POP_THIS_COULD_NOT_BE_SAVED_ON_THE_ZOLT";
  vd->sent = !problem;
  if (problem) brisel_create_toast_popup(vd->ad, brisel_util_get_text(problem));
  BRISEL_INFO("Leave");
  return vd->sent;
}
