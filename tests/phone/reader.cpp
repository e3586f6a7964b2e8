/*
 * Stands for the application in the crash test: it reads the store and makes requests through the common library, as
 * fast as they are answered, until it is killed. One line per request goes to a file before it is made, and one after
 * the service has accepted it: what was accepted must happen, what was only begun may.
 * usage: crash-reader LOG SEED
 */
#include <Ecore.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "brisel-common.h"

namespace {

int log_fd = -1;
std::string seed;
int number = 0;
std::string current;

void note(const std::string &line) {
  std::string text = line + "\n";
  if (write(log_fd, text.data(), text.size()) < 0) _exit(1);
}

Eina_Bool next_cb(void *data);

void accepted_cb(void *response, int error, void *user_data) {
  if (error == 0) note("done " + current);
  ecore_timer_add(0.005, next_cb, nullptr);
}

void reply(const full_noti_data *mail) {
  reply_noti_data *request = brisel_reply_noti_data_create();
  request->host_tag = g_strdup(mail->host_tag);
  request->action = g_strdup("intent.action.email.notifications.reply");
  request->message_uid = g_strdup(mail->message_uid);
  request->recipient = g_strdup_printf("%s%c%s", mail->from_address, 2, mail->from_name ? mail->from_name : "");
  current = "reply r-" + seed + "-" + std::to_string(number);
  request->text = g_strdup(current.c_str() + 6);
  request->mail_id = mail->mail_id;
  request->subject = g_strdup(mail->subject ? mail->subject : "");
  note("begin " + current);
  brisel_ipc_req_reply(request, accepted_cb, nullptr);
  brisel_reply_noti_data_free(request);
}

void remove(const full_noti_data *mail) {
  op_data *request = brisel_op_data_create();
  request->id_list = g_slist_append(nullptr, GINT_TO_POINTER(mail->mail_id));
  current = std::string("delete ") + mail->message_uid;
  note("begin " + current);
  brisel_ipc_req_delete_notis(request, accepted_cb, nullptr);
  brisel_op_data_free(request);
}

void mark_read(const full_noti_data *mail) {
  update_noti_data *request = brisel_update_noti_data_create();
  request->id_list = g_slist_append(nullptr, GINT_TO_POINTER(mail->mail_id));
  request->host_state = mail->host_state;
  current = std::string("read ") + mail->message_uid;
  note("begin " + current);
  brisel_ipc_req_update_ind(request, accepted_cb, nullptr);
  brisel_update_noti_data_free(request);
}

Eina_Bool next_cb(void *data) {
  GSList *list = nullptr;
  int count = 0;
  if (brisel_db_get_full_noti_data_list_by_account_id(0, &list, &count) != 0 || count == 0) {
    ecore_timer_add(0.05, next_cb, nullptr);
    return ECORE_CALLBACK_CANCEL;
  }
  const auto *mail = static_cast<const full_noti_data *>(g_slist_nth_data(list, static_cast<guint>(rand() % count)));
  number++;
  int choice = rand() % 10;
  if (choice < 6)
    reply(mail);
  else if (choice < 8)
    mark_read(mail);
  else
    remove(mail);
  brisel_full_noti_data_list_free(list);
  return ECORE_CALLBACK_CANCEL;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) return 2;
  log_fd = open(argv[1], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  seed = argv[2];
  srand(static_cast<unsigned>(strtoul(argv[2], nullptr, 10)));
  ecore_init();
  if (log_fd < 0 || brisel_db_init() != 0 || brisel_ipc_client_init() != 0) return 1;
  ecore_timer_add(0.0, next_cb, nullptr);
  ecore_main_loop_begin();
  return 0;
}
