/* The launch flows: what stands between a launch request and the main screen (the phone's link, the number of accounts,
   an account at all), and the mail that a launch names. */
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "brisel-app-core.h"
#include "brisel-app-journal.h"
#include "brisel-app-lifecycle.h"
#include "brisel-app-stage.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "brisel-app.h"
#include "efl_assist.h"

/* The last read of the account count failed: there is no store that can be read. */
static bool store_is_unreadable;
static Evas_Object *store_popup;
/* A launch waits for the phone's link, with no main screen yet. */
static bool waits_for_link;
/* It went on with the link before the link popup answered, and the user after that: the answer closes nothing. */
static bool went_on_with_link;
/* The last launch asked for what waits and was sent, which has not been opened yet. */
static bool journal_is_asked;

static void _go_on(appdata *ad, bool closes_views);

/* --- conditions --- */

bool _check_setup_account_popup_is_needed() {
  int count = 0;
  brisel_db_get_target_account_count(&count);
  BRISEL_INFO("target_account_cnt : %d", count);
  return count == 0;
}

static bool _check_progress_popup_is_needed() {
  int valid = 0;
  int result = brisel_db_is_valid_target_account_count(&valid);
  if (result != 0) BRISEL_WARN("brisel_db_is_valid_target_account_count failed(%d)", result);
  store_is_unreadable = result != 0;
  return valid == 0;
}

/* Whether the count is still to be waited for. The popup about a store that cannot be read goes once it can be. */
static bool _look_at_store() {
  const bool waits = _check_progress_popup_is_needed();
  if (!store_is_unreadable) brisel_widget_ref_drop(&store_popup);
  return waits;
}

int _check_security_lock_mail(int mail_id) {
  if (mail_id < 1) {
    BRISEL_INFO("Invalid mail_id : %d", mail_id);
    return 0;
  }
  scoped_noti mail(brisel_full_noti_data_create());
  if (!mail) {
    BRISEL_ERROR("brisel_db_full_noti_data_create() failed!");
    return 0;
  }
  int result = brisel_db_get_noti_head_by_mail_id(mail_id, mail.get());
  if (result != 0) {
    BRISEL_ERROR("brisel_db_get_full_noti_data_by_mail_id() failed! err:[%d]", result);
    return 0;
  }
  if (!mail->security_locked) return 0;
  BRISEL_INFO("This mail is eas policy locked");
  return 1;
}

/* --- the popups that wait --- */

void _lower_and_exit(appdata *ad) {
  if (ad->win_main) elm_win_lower(ad->win_main);
  app_efl_exit();
}

/* Whether the popup of that field is still to be made; the log says why not. */
static bool _popup_is_missing(appdata *ad, Evas_Object *appdata::*field) {
  if (!ad) {
    BRISEL_ERROR("data is NULL!");
    return false;
  }
  if (ad->*field) BRISEL_INFO("popup is already existed.");
  return !(ad->*field);
}

static bool _close_set_up_popup(appdata *ad) {
  if (!ad) {
    BRISEL_ERROR("data is NULL!");
    return false;
  }
  brisel_util_drop_popup(&ad->no_account_popup);
  return true;
}

static void _set_up_email_popup_ok_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)data;
  if (!_close_set_up_popup(ad)) return;
  int result = brisel_ipc_req_no_account(nullptr, nullptr);
  if (result != 0) BRISEL_WARN("brisel_ipc_req_no_account failed(%d)", result);
  _lower_and_exit(ad);
}

static void _set_up_email_popup_cancel_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)data;
  if (!_close_set_up_popup(ad)) return;
  _lower_and_exit(ad);
}

static void _set_up_email_popup_back_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)data;
  if (ad && ad->win_main) elm_win_lower(ad->win_main);
}

void _create_set_up_email_popup(appdata *ad) {
  BRISEL_INFO("Enter");
  if (!_popup_is_missing(ad, &appdata::no_account_popup)) return;
  if (ad->account_id != 0) {
    BRISEL_INFO("account id reset is needed (%d->0)", ad->account_id);
    ad->account_id = 0;
  }
  ad->no_account_popup = brisel_util_create_basic_2button_popup_with_app_data(
      ad, "IDS_EMAIL_HEADER_SET_UP_EMAIL",
      "IDS_EMAIL_POP_NO_EMAIL_ACCOUNT_HAS_BEEN_SET_UP_TAP_OK_TO_SET_UP_AN_EMAIL_ACCOUNT_ON_YOUR_MOBILE_DEVICE_NOW",
      _set_up_email_popup_back_cb, _set_up_email_popup_cancel_cb, "IDS_EMAIL_SK_CANCEL_ABB", _set_up_email_popup_ok_cb,
      "IDS_COM_SK_OK");
  ad->no_account_ok_btn = elm_object_part_content_get(ad->no_account_popup, "button2");
  if (!ad->bt_connected) elm_object_disabled_set(ad->no_account_ok_btn, EINA_TRUE);
}

static void _connecting_popup_back_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)data;
  brisel_util_drop_popup(&ad->connecting_popup);
  _lower_and_exit(ad);
}

static void _create_connecting_popup(appdata *ad) {
  BRISEL_INFO("Enter");
  if (!_popup_is_missing(ad, &appdata::connecting_popup)) return;
  Evas_Object *popup = brisel_util_popup_add(brisel_stage_get(ad->win_main));
  ea_object_event_callback_add(popup, EA_CALLBACK_BACK, _connecting_popup_back_cb, ad);
  if (Evas_Object *layout = brisel_util_load_edj(popup, BRISEL_EDJ, "brisel/popup/progress.1text")) {
    Evas_Object *bar = elm_progressbar_add(layout);
    elm_object_style_set(bar, "process");
    evas_object_size_hint_align_set(bar, EVAS_HINT_FILL, 0.5);
    evas_object_size_hint_weight_set(bar, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
    evas_object_show(bar);
    elm_progressbar_pulse_set(bar, EINA_TRUE); /* without it the next call does nothing */
    elm_progressbar_pulse(bar, EINA_TRUE);
    elm_object_part_content_set(layout, "swallow.progress", bar);
    elm_object_domain_translatable_part_text_set(layout, "text", BRISEL_DOMAIN, "IDS_EMAIL_POP_CONNECTING_ING");
    elm_object_content_set(popup, layout);
  }
  brisel_view_set_spoken_id(popup, "IDS_EMAIL_POP_CONNECTING_ING");
  evas_object_show(popup);
  ad->connecting_popup = popup;
}

/* --- a store that cannot be read --- */

static void _store_popup_leave_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_widget_ref_drop(&store_popup);
  _lower_and_exit((appdata *)data);
}

static void _store_popup_again_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_widget_ref_drop(&store_popup);
  brisel_db_deinit();
  int result = brisel_db_init();
  if (result != 0) BRISEL_ERROR("brisel_db_init() failed! err:[%d]", result);
  _go_on((appdata *)data, true);
}

/* With a way out and one to try again. Once, however often it is told. */
static void _tell_store_unreadable(appdata *ad) {
  BRISEL_INFO("Enter");
  if (store_popup) return;
  brisel_util_drop_popup(&ad->connecting_popup);
  brisel_widget_ref_set(&store_popup, brisel_util_create_basic_2button_popup_with_app_data(
                                          ad, nullptr, "IDS_EMAIL_POP_THE_EMAILS_ON_THE_ZOLT_CANNOT_BE_READ",
                                          _store_popup_leave_cb, _store_popup_leave_cb, "IDS_EMAIL_SK_CANCEL_ABB",
                                          _store_popup_again_cb, "IDS_EMAIL_SK_TRY_AGAIN"));
}

/* Seconds in which a service that has just started makes its store: what cannot be read is not finished yet. */
constexpr double store_patience = 1.5;
/* Seconds after which nobody should be left looking at a ring: what can be done about it is shown instead. */
constexpr double connecting_patience = 30.0;
static Ecore_Timer *connecting_timer;

static void _stop_connecting_timer() {
  if (connecting_timer) ecore_timer_del(connecting_timer);
  connecting_timer = nullptr;
}

static Eina_Bool _connecting_timer_cb(void *data) {
  appdata *ad = (appdata *)data;
  connecting_timer = nullptr;
  if (!store_is_unreadable) {
    brisel_util_drop_popup(&ad->connecting_popup);
    return ECORE_CALLBACK_CANCEL;
  }
  const bool is_unknown = _look_at_store();
  if (store_is_unreadable) {
    _tell_store_unreadable(ad);
  } else if (is_unknown) {
    connecting_timer = ecore_timer_add(connecting_patience, _connecting_timer_cb, ad);
  } else {
    _count_is_known(ad);
    _go_on(ad, true);
  }
  return ECORE_CALLBACK_CANCEL;
}

void _count_is_known(appdata *ad) {
  _stop_connecting_timer();
  brisel_util_drop_popup(&ad->connecting_popup);
  brisel_widget_ref_drop(&store_popup);
}

static void _wait_for_count(appdata *ad) {
  if (!launched) _show_first_minute(ad);
  if (store_popup) return;
  _create_connecting_popup(ad);
  _stop_connecting_timer();
  connecting_timer =
      ecore_timer_add(store_is_unreadable ? store_patience : connecting_patience, _connecting_timer_cb, ad);
}

/* --- the mail that a launch names --- */

/* The mail a launch request names, or 0: a number that is none, or no mail's, names no mail. */
static int _mail_id_of_text(const char *text) {
  if (!text) return 0;
  errno = 0;
  long id = strtol(text, nullptr, 10);
  return errno || id < 0 || id > INT_MAX ? 0 : (int)id;
}

/* Whether the mail is locked: then the user has been asked. */
static bool _ask_about_locked_mail(appdata *ad, int mail_id) {
  if (!_check_security_lock_mail(mail_id)) return false;
  ad->mail_id = mail_id;
  brisel_create_security_alert_popup(ad);
  return true;
}

static void _draw_mail(appdata *ad, int mail_id) {
  if (brisel_detail_draw_view(mail_id, 0, ad) != 0)
    brisel_create_toast_popup(ad, brisel_util_get_text("IDS_EMAIL_TPOP_THIS_EMAIL_HAS_BEEN_DELETED"));
}

void _open_launched_mail(appdata *ad, int mail_id) {
  if (!_ask_about_locked_mail(ad, mail_id)) _draw_mail(ad, mail_id);
}

static void _show_mail_of_launch(appdata *ad, int mail_id) {
  brisel_delete_sweep_item(ad);
  brisel_util_drop_popup(&ad->security_popup);
  brisel_util_drop_popup(&ad->account_popup);
  if (_ask_about_locked_mail(ad, mail_id)) return;
  BRISEL_INFO("Show detail view first.");
  _draw_mail(ad, mail_id);
  brisel_check_current_mailbox_account_by_mail_id(mail_id, ad);
}

/* --- launch requests --- */

static void _open_asked_journal(appdata *ad) {
  if (!launched || !journal_is_asked) return;
  journal_is_asked = false;
  brisel_journal_draw_view(ad);
}

void _launch(appdata *ad, int mail_id) {
  waits_for_link = false;
  init_brisel(ad, mail_id);
  launched = 1;
  _end_first_minute();
  /* An account may come before the count is known: the popup stays above the new screen, and so does its back key. */
  if (ad->connecting_popup)
    ea_object_event_callback_add(ad->connecting_popup, EA_CALLBACK_BACK, _connecting_popup_back_cb, ad);
  _open_asked_journal(ad);
}

/* What follows once the link has been asked for, whatever came of it. */
static void _go_on(appdata *ad, bool closes_views) {
  waits_for_link = false;
  if (_look_at_store()) {
    _wait_for_count(ad);
  } else if (_check_setup_account_popup_is_needed()) {
    _create_set_up_email_popup(ad);
  } else if (launched) {
    BRISEL_INFO("Already launched.");
    if (closes_views) _brisel_naviframe_pop_to_mailbox(ad);
    brisel_delete_sweep_item(ad);
    brisel_check_mail_on_db(ad);
  } else {
    _launch(ad, 0);
  }
  _open_asked_journal(ad);
  elm_win_activate(ad->win_main);
}

void _link_is_up(appdata *ad) {
  if (!waits_for_link) return;
  went_on_with_link = true;
  _go_on(ad, true);
}

static void _bt_connect_error_popup_result_cb(service_h request, service_h reply, int result, void *data) {
  appdata *ad = (appdata *)data;
  if (brisel_util_link_is_up_in_reply(reply))
    BRISEL_INFO("BT Connected");
  else
    BRISEL_INFO("BT Not Connected");
  _go_on(ad, !went_on_with_link);
  went_on_with_link = false;
}

/* The service does not start on such a store either: no link comes that could be waited for. */
static Eina_Bool _store_timer_cb(void *data) {
  connecting_timer = nullptr;
  _look_at_store();
  if (store_is_unreadable) _tell_store_unreadable((appdata *)data);
  return ECORE_CALLBACK_CANCEL;
}

static void _wait_for_link(appdata *ad) {
  waits_for_link = true;
  _show_first_minute(ad);
  _look_at_store();
  if (!store_is_unreadable) return;
  _stop_connecting_timer();
  connecting_timer = ecore_timer_add(store_patience, _store_timer_cb, ad);
}

static void _reset(appdata *ad, const char *mail_text) {
  journal_is_asked = mail_text && !strcmp(mail_text, BRISEL_EVENT_ID_JOURNAL);
  if (!brisel_util_bluetooth_connection_popup(ad, _bt_connect_error_popup_result_cb, "refresh")) {
    went_on_with_link = false;
    if (!launched) _wait_for_link(ad);
    /* Nobody would answer for a popup that has not come. */
    if (!ad->link_popup_came) _go_on(ad, true);
    return;
  }
  int mail_id = _mail_id_of_text(mail_text);
  waits_for_link = false;
  if (_look_at_store()) {
    _wait_for_count(ad);
  } else if (launched) {
    BRISEL_INFO("Already launched.");
    _brisel_naviframe_pop_to_mailbox(ad);
    if (mail_id > 0) {
      _show_mail_of_launch(ad, mail_id);
    } else if (_check_setup_account_popup_is_needed()) {
      _create_set_up_email_popup(ad);
    } else {
      brisel_delete_sweep_item(ad);
      brisel_check_mail_on_db(ad);
    }
  } else if (_check_setup_account_popup_is_needed()) {
    _create_set_up_email_popup(ad);
  } else {
    _launch(ad, mail_id);
  }
  _open_asked_journal(ad);
  elm_win_activate(ad->win_main);
}

/* Launches that come in one turn of the main loop are one: the last wins. Each would build a view that nobody sees,
   tell the phone of a mail that nobody read, and keep the screen still for all of them. */
static double launch_turn;
static Ecore_Job *waiting_launch;
static scoped_text waiting_text;

static void _waiting_launch_cb(void *data) {
  waiting_launch = nullptr;
  appdata *ad = (appdata *)data;
  launch_turn = ecore_loop_time_get();
  scoped_text text = std::move(waiting_text);
  if (ad->win_main) _reset(ad, text.get());
}

void _forget_launches() {
  _stop_connecting_timer();
  if (waiting_launch) ecore_job_del(waiting_launch);
  waiting_launch = nullptr;
  waiting_text.reset();
}

/* The list, if nothing stands before it: what a launch would have to ask or tell is said when somebody is there. */
int app_prepare(void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  if (ad->win_main && !_check_progress_popup_is_needed() && !_check_setup_account_popup_is_needed()) _launch(ad, 0);
  return 0;
}

int app_reset(service_h service, void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  char *text = nullptr;
  service_get_extra_data(service, BRISEL_EVENT_ID_KEY, &text);
  scoped_text mail_text(text);
  if (!ad->win_main) return 0;
  if (waiting_launch || launch_turn == ecore_loop_time_get()) {
    waiting_text = std::move(mail_text);
    if (!waiting_launch) waiting_launch = ecore_job_add(_waiting_launch_cb, ad);
    return 0;
  }
  launch_turn = ecore_loop_time_get();
  _reset(ad, text);
  return 0;
}
