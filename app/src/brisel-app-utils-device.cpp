/* The sender in the contacts, and what the phone and its applications are asked for. */
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "brisel-scoped.h"
#include "contacts.h"
#include "host-launch.h"
#include "vconf.h"

/* --- contacts --- */

using scoped_query = std::unique_ptr<contacts_query_s, brisel_release<contacts_query_destroy>>;
using scoped_filter = std::unique_ptr<contacts_filter_s, brisel_release<contacts_filter_destroy>>;

static void _destroy_list_and_records(contacts_list_h list) {
  contacts_list_destroy(list, true);
}
using scoped_contacts_list = std::unique_ptr<contacts_list_s, brisel_release<_destroy_list_and_records>>;

/* Runs the query of a view through a filter that the caller has filled (add_result: how that went). NULL: nothing. */
static scoped_contacts_list _run_contacts_query(const char *view_uri, contacts_filter_h filter, int add_result) {
  contacts_query_h query_handle = nullptr;
  contacts_query_create(view_uri, &query_handle);
  scoped_query query(query_handle);
  if (add_result != CONTACTS_ERROR_NONE) BRISEL_INFO("contacts_filter_add_str() is failed error_code = %d", add_result);
  int result = contacts_query_set_filter(query.get(), filter);
  if (result != CONTACTS_ERROR_NONE) BRISEL_INFO("contacts_query_set_filter() is failed error_code = %d", result);
  contacts_list_h list = nullptr;
  result = contacts_db_get_records_with_query(query.get(), 0, 0, &list);
  if (result != CONTACTS_ERROR_NONE)
    BRISEL_INFO("contacts_db_get_records_with_query() is failed error_code = %d", result);
  return scoped_contacts_list(list);
}

/* The records of the list, in order; the list's own. */
static std::vector<contacts_record_h> _records_of(contacts_list_h list) {
  std::vector<contacts_record_h> records;
  if (!list) return records;
  do {
    contacts_record_h record = nullptr;
    int result = contacts_list_get_current_record_p(list, &record);
    if (result != CONTACTS_ERROR_NONE && result != CONTACTS_ERROR_NO_DATA)
      BRISEL_INFO("contacts_list_get_current_record_p() is fail : %d", result);
    if (record) records.push_back(record);
  } while (contacts_list_next(list) == CONTACTS_ERROR_NONE);
  return records;
}

static bool _has_number(int person_id) {
  contacts_filter_h filter_handle = nullptr;
  contacts_filter_create(_contacts_person_number._uri, &filter_handle);
  scoped_filter filter(filter_handle);
  int added = contacts_filter_add_int(filter.get(), _contacts_person_number.person_id, CONTACTS_MATCH_EQUAL, person_id);
  scoped_contacts_list list = _run_contacts_query(_contacts_person_number._uri, filter.get(), added);
  contacts_record_h record = nullptr;
  return list && contacts_list_get_current_record_p(list.get(), &record) == CONTACTS_ERROR_NONE;
}

/* Of several persons with the address the last one who can be called; when none can, the last one. */
int brisel_util_get_person_id_by_email_address(const char *address) {
  BRISEL_INFO("Enter");
  int person_id = -1;
  /* A mail without a sender address has no contact, like one with an empty address. */
  if (!address || !*address) return person_id;

  contacts_filter_h filter_handle = nullptr;
  contacts_filter_create(_contacts_person_email._uri, &filter_handle);
  scoped_filter filter(filter_handle);
  int added = contacts_filter_add_str(filter.get(), _contacts_person_email.email, CONTACTS_MATCH_FULLSTRING, address);
  scoped_contacts_list list = _run_contacts_query(_contacts_person_email._uri, filter.get(), added);
  std::vector<int> found;
  for (contacts_record_h record : _records_of(list.get())) {
    contacts_record_get_int(record, _contacts_person_email.person_id, &person_id);
    BRISEL_INFO("person_id:%d", person_id);
    found.push_back(person_id);
  }
  const auto callable = std::find_if(found.rbegin(), found.rend(), _has_number);
  if (callable != found.rend()) person_id = *callable;
  BRISEL_INFO("Leave");
  return person_id;
}

GSList *brisel_util_get_phone_number_by_person_id(int person_id) {
  BRISEL_INFO("Enter");
  if (person_id == -1) return nullptr;

  contacts_filter_h filter_handle = nullptr;
  contacts_filter_create(_contacts_person_number._uri, &filter_handle);
  scoped_filter filter(filter_handle);
  int added = contacts_filter_add_int(filter.get(), _contacts_person_number.person_id, CONTACTS_MATCH_EQUAL, person_id);
  BRISEL_INFO("person_id :%d", person_id);
  scoped_contacts_list list = _run_contacts_query(_contacts_person_number._uri, filter.get(), added);
  GSList *numbers = nullptr;
  for (contacts_record_h record : _records_of(list.get())) {
    contact_number *number = (contact_number *)calloc(1, sizeof(contact_number));
    if (!number) break;
    char *text = nullptr;
    contacts_record_get_str_p(record, _contacts_person_number.number, &text);
    if (text) number->number = strdup(text);
    contacts_record_get_int(record, _contacts_person_number.type, &number->type);
    numbers = g_slist_prepend(numbers, number);
  }
  return g_slist_reverse(numbers);
}

void brisel_util_contact_number_free(void *contact) {
  contact_number *number = (contact_number *)contact;
  if (!number) return;
  free(number->number);
  free(number);
}

/* --- the phone and its applications --- */

using scoped_service = std::unique_ptr<service_s, brisel_release<service_destroy>>;

int brisel_util_launch_voice_call(const char *number) {
  service_h handle = nullptr;
  if (service_create(&handle) != SERVICE_ERROR_NONE) {
    BRISEL_ERROR("service_create() failed!");
    return 0;
  }
  scoped_service service(handle);
  if (service_set_app_id(handle, "com.vextora.call") != SERVICE_ERROR_NONE) {
    BRISEL_ERROR("service_set_app_id() failed!");
    return 0;
  }
  if (service_add_extra_data(handle, "launch-type", "MO") != SERVICE_ERROR_NONE ||
      service_add_extra_data(handle, "number", number) != SERVICE_ERROR_NONE) {
    BRISEL_ERROR("service_add_extra_data() failed!");
    return 0;
  }
  if (service_send_launch_request(handle, nullptr, nullptr) != SERVICE_ERROR_NONE) {
    BRISEL_ERROR("service_send_launch_request() failed!");
    return 0;
  }
  return 1;
}

int brisel_util_show_on_device(int *mail_ids, int count) {
  for (int i = 0; i < count; i++) BRISEL_INFO("[%d] ==> [%d]", i, mail_ids[i]);
  BRISEL_INFO("==> count:[%d]", count);
  launch_host_predefined_application("email", mail_ids, count);
  return 1;
}

int brisel_util_bluetooth_connection_popup(appdata *ad, service_reply_cb reply_cb, const char *msg) {
  BRISEL_INFO("Enter");
  if (ad->bt_connected) return ad->bt_connected;
  BRISEL_INFO("Show BT connection popup.");
  service_h handle = nullptr;
  service_create(&handle);
  scoped_service service(handle);
  service_set_app_id(handle, "com.vextora.bt-connection-popup");
  if (msg) service_add_extra_data(handle, "msg", msg);
  /* Before any phone has said how many accounts there are, the screen of the first minute says what to do. A store that
     is only being made cannot be asked yet. */
  int is_count_known = 0;
  if (msg && !strcmp(msg, "refresh") &&
      (brisel_db_is_valid_target_account_count(&is_count_known) != 0 || !is_count_known))
    service_add_extra_data(handle, "window", "none");
  const int result = service_send_launch_request(handle, reply_cb, ad);
  ad->link_popup_came = result == SERVICE_ERROR_NONE;
  if (!ad->link_popup_came) {
    BRISEL_INFO("service_send_launch_request failed, ret = %d", result);
    /* A touch gets an answer; a launch goes on without one. */
    if (!msg || strcmp(msg, "refresh") != 0)
      brisel_create_toast_popup(ad, brisel_util_get_text("IDS_EMAIL_BODY_NO_RESPONSE_TRY_LATER"));
  }
  return ad->bt_connected;
}

int brisel_util_link_is_up_in_reply(service_h reply) {
  char *answer = nullptr;
  service_get_extra_data(reply, "__BT_CONNECTION__", &answer);
  scoped_text held(answer);
  return !answer || strcmp(answer, "Not Connected") != 0;
}

void brisel_util_bt_connect_error_popup_result_cb(service_h request, service_h reply, int result, void *data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)data;
  if (!ad) {
    BRISEL_INFO("user_data is NULL!");
    return;
  }
  if (brisel_util_link_is_up_in_reply(reply))
    BRISEL_INFO("BT Connected. mail_id : %d", ad->mail_id);
  else
    BRISEL_INFO("BT Not Connected");
  elm_win_activate(ad->win_main);
}

int brisel_util_get_reply_method(void) {
  int value = 0;
  if (vconf_get_int(BRISEL_KEY_REPLY_VALUE, &value) < 0)
    BRISEL_WARN("vconf_get_int(BRISEL_VCONFKEY_INT_REPLY_VALUE) failed!");
  BRISEL_INFO("BRISEL_VCONFKEY_INT_REPLY_VALUE [%d]", value);
  int method = value == 3 ? 1 : 0;
  BRISEL_INFO("method [%d]", method);
  return method;
}

void brisel_util_set_reply_method(int method) {
  BRISEL_INFO("method [%d]", method);
  int value = method == 1 ? 3 : method == 2 ? 1 : 0;
  BRISEL_INFO("set_val [%d]", value);
  if (vconf_set_int(BRISEL_KEY_REPLY_VALUE, value) < 0)
    BRISEL_WARN("vconf_set_int(BRISEL_VCONFKEY_INT_REPLY_VALUE) failed!");
}

int brisel_clear_all_new_flag(void) {
  scoped_op op(brisel_op_data_create());
  if (!op) {
    BRISEL_WARN("brisel_op_data_create() failed!");
    return -1;
  }
  op->id_list = g_slist_append(op->id_list, GINT_TO_POINTER(0));
  int result = brisel_ipc_req_cancel(BRISEL_IPC_CLIENT_REQ_TYPE_CLEAR_ALL_NEW_FLAG);
  if (result != 0) {
    BRISEL_ERROR("brisel_ipc_req_cancel() failed! ret:[%d]", result);
    return result;
  }
  result = brisel_ipc_req_clear_all_new_flag(op.get(), nullptr, nullptr);
  if (result != 0) BRISEL_INFO("brisel_ipc_req_clear_all_new_flag() is failed : %d", result);
  return result;
}

static int _request_delete(const std::vector<int> &mail_ids) {
  scoped_op op(brisel_op_data_create());
  if (!op) {
    BRISEL_ERROR("brisel_op_data_create() failed!");
    return BRISEL_COMMON_ERROR_MEMORY;
  }
  for (size_t i = mail_ids.size(); i > 0; i--)
    op->id_list = g_slist_prepend(op->id_list, GINT_TO_POINTER(mail_ids[i - 1]));
  int result = brisel_ipc_req_cancel(BRISEL_IPC_CLIENT_REQ_TYPE_DELETE_NOTIS);
  if (result != 0) {
    BRISEL_ERROR("brisel_ipc_req_cancel() failed! ret:[%d]", result);
    return result;
  }
  result = brisel_ipc_req_delete_notis(op.get(), nullptr, nullptr);
  if (result != 0) BRISEL_WARN("brisel_ipc_req_delete_notis() failed! err:[%d]", result);
  return result;
}

static appdata *offer_place;

void brisel_util_set_offer_place(appdata *ad) {
  offer_place = ad;
}

static int _delete_again(void *data) {
  return _request_delete(*(std::vector<int> *)data);
}

static void _drop_deletion(void *data) {
  delete (std::vector<int> *)data;
}

int brisel_util_request_delete(const int *mail_ids, int count) {
  const std::vector<int> ids(mail_ids, mail_ids + count);
  int result = _request_delete(ids);
  if (result != 0 && offer_place && offer_place->win_main)
    brisel_view_offer_again(offer_place, _delete_again, _drop_deletion, new std::vector<int>(ids));
  return result;
}
