/* The life cycle: the window, and what is opened and closed with the application. */
#include "brisel-app-lifecycle.h"

#include <libintl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "brisel-app-core.h"
#include "brisel-app-journal.h"
#include "brisel-app-reply-drafts.h"
#include "brisel-app-stage.h"
#include "brisel-app-touch.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "brisel-scoped.h"
#include "contacts.h"
#include "platform-paths.h"
#include "plexo.h"
#include "vconf.h"

/* Whether app_create came as far as the services: what was never opened needs no closing. */
static bool services_open;

static void _brisel_quit_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  elm_exit();
}

static void _window_resize_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  evas_object_geometry_get(obj, nullptr, nullptr, &ad->root_w, &ad->root_h);
  BRISEL_INFO("ad->root_w : %d ad->root_h : %d", ad->root_w, ad->root_h);
  brisel_fit_mailbox_rows(ad);
}

/* While their parents stand: from a popup that goes with them the toolkit moves the focus on to what has gone. */
static void _drop_popups(appdata *ad) {
  for (Evas_Object **popup : {&ad->security_popup, &ad->account_popup, &ad->connecting_popup, &ad->no_account_popup})
    brisel_util_drop_popup(popup);
  _end_first_minute();
}

/* The window closes itself when its user asks: the views in it are freed while they still stand, and nothing points
   to a widget that went with the window. */
static void _window_deleted_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  appdata *ad = (appdata *)data;
  brisel_delete_sweep_item(ad);
  _forget_launches();
  _drop_popups(ad);
  _clear_all_naviframe_view_data(ad);
  if (ad->sweep_timer) ecore_timer_del(ad->sweep_timer);
  ad->sweep_timer = nullptr;
  ad->sweep_item = ad->blocked_item = nullptr;
  ad->no_account_ok_btn = ad->delete_btn = nullptr;
  /* Its rows leave the model with it, and must not search the model for themselves one by one. */
  brisel_free_mail_list(ad);
  brisel_util_drop_popup(&ad->nocontents_layout);
  brisel_util_drop_popup(&ad->mailbox_genlist);
  ad->win_main = ad->conform = ad->layout_main = ad->naviframe = nullptr;
  ad->evas = nullptr;
  brisel_tell_list_in_view(ad);
}

/* The connection that a display was tried with, below zero: none. It stays until the toolkit has its own: an X server
   that loses its last client begins anew, and refuses who comes meanwhile. */
static int tried = -1;

static void _stop_trying() {
  if (tried >= 0) close(tried);
  tried = -1;
}

/* Whether somebody listens there: what a display that has gone leaves in its folder is no display. */
static bool _answers(const std::string &path) {
  sockaddr_un at = {};
  at.sun_family = AF_UNIX;
  if (path.size() >= sizeof at.sun_path) return false;
  path.copy(at.sun_path, path.size());
  _stop_trying();
  tried = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  return tried >= 0 && connect(tried, (const sockaddr *)&at, sizeof at) == 0;
}

static bool _wayland_is_there() {
  const char *name = getenv("WAYLAND_DISPLAY"), *runtime = getenv("XDG_RUNTIME_DIR");
  if (!name || !*name) return false;
  return *name == '/' ? _answers(name) : runtime && _answers(std::string(runtime) + "/" + name);
}

static bool _x11_is_there() {
  const char *name = getenv("DISPLAY");
  if (!name || !*name) return false;
  /* A display of another machine, or over its own ways, is believed. */
  return *name != ':' || _answers("/tmp/.X11-unix/X" + std::string(name + 1, strcspn(name + 1, ".")));
}

/* Whether a window can be had. The toolkit would say so too, in two hundred lines. */
static bool _display_is_there() {
  if (getenv("ELM_ENGINE") || getenv("ELM_DISPLAY")) return true; /* somebody knows better */
  if (_x11_is_there()) return true;
  if (!_wayland_is_there()) return false;
  unsetenv("DISPLAY"); /* the toolkit would go by it, whatever it says */
  return true;
}

static Evas_Object *_brisel_create_win(appdata *ad) {
  if (!_display_is_there()) {
    _stop_trying();
    fprintf(stderr, "brisel: there is no display to show mail on; DISPLAY or WAYLAND_DISPLAY must name one.\n");
    return nullptr;
  }
  Evas_Object *win = elm_win_util_standard_add("brisel", "brisel");
  _stop_trying();
  if (!win) {
    fprintf(stderr, "brisel: the display gives no window.\n");
    return nullptr;
  }
  elm_win_autodel_set(win, EINA_TRUE);
  if (elm_win_wm_rotation_supported_get(win)) {
    int rotations[4] = {0, 90, 180, 270};
    elm_win_wm_rotation_available_rotations_set(win, rotations, 4);
  }
  evas_object_smart_callback_add(win, "delete,request", _brisel_quit_cb, nullptr);
  return win;
}

/* The toolkit gives the focus of a new window to nothing that keys reach. */
static void _place_focus_cb(void *data) {
  const appdata *ad = (appdata *)data;
  if (ad->naviframe) brisel_view_focus_list(ad->naviframe);
}

static int _try_again_cb(void *data) {
  brisel_ipc_client_try_again();
  return 0; /* it is said again when it does not go through */
}

/* Whatever the user has asked for is kept, but has come no further than that. The new flags are nobody's wish. */
static void _trouble_cb(int request_type, void *user_data) {
  appdata *ad = (appdata *)user_data;
  if (request_type < 0) return brisel_view_withdraw_offer(_try_again_cb);
  BRISEL_WARN("the store cannot take a request of type %d now", request_type);
  if (request_type == BRISEL_IPC_CLIENT_REQ_TYPE_CLEAR_ALL_NEW_FLAG || !ad->win_main) return;
  brisel_view_offer_again(ad, _try_again_cb, nullptr, nullptr);
}

void app_starting(void *user_data) {
  brisel_util_read_formats_ahead();
}

bool app_create(void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  ad->win_main = _brisel_create_win(ad);
  if (!ad->win_main) return false;
  evas_object_event_callback_add(ad->win_main, EVAS_CALLBACK_RESIZE, _window_resize_cb, ad);
  evas_object_event_callback_add(ad->win_main, EVAS_CALLBACK_DEL, _window_deleted_cb, ad);
  ad->evas = evas_object_evas_get(ad->win_main);
  brisel_touch_watch(ad->win_main, _place_focus_cb, ad);
  app_efl_window_attach(ad->win_main);
  brisel_stage_make(ad->win_main);
  app_efl_window_show();

  /* The device's texts are UTF-8 whatever the locale's own encoding is. Preset replies have a catalogue of their own.
   */
  for (const char *domain : {BRISEL_DOMAIN, BRISEL_MESSAGE_DOMAIN}) {
    bindtextdomain(domain, platform_path(BRISEL_LOCALE_DIR));
    bind_textdomain_codeset(domain, "UTF-8");
  }
  /* The toolkit looks up there what pressing its widgets is called by a screen reader. */
  textdomain(BRISEL_DOMAIN);
  _set_window_title(ad);
  brisel_view_give_rows_actions();
  plexo_initialize();
  services_open = true;
  brisel_full_noti_data_set_contact_free(brisel_util_contact_number_free);
  int result = brisel_db_init();
  if (result != 0) BRISEL_ERROR("brisel_db_init() failed! err:[%d]", result);
  brisel_reply_drafts_forget_gone();
  result = brisel_ipc_client_init();
  if (result != 0) BRISEL_ERROR("brisel_ipc_client_init() failed! err:[%d]", result);
  _brisel_ipc_subscribe(ad);
  brisel_util_set_offer_place(ad);
  brisel_ipc_client_set_trouble_cb(_trouble_cb, ad);
  brisel_util_init_timezone();
  brisel_open_icu_pattern_generator(ad);
  _brisel_init_vconf_values(ad);
  _brisel_set_date_time_format(ad);
  _brisel_register_vconf_change_notify(ad);
  brisel_db_get_all_account_count(&ad->account_cnt);
  BRISEL_INFO("ad->account_cnt : %d", ad->account_cnt);
  result = contacts_connect2();
  if (result != 0) BRISEL_INFO("contacts_svc_connect2 failed : ct_err = [%d]", result);
  BRISEL_INFO("Leave");
  return true;
}

static void _clear_genlist_item_class(Elm_Genlist_Item_Class **itc) {
  if (!*itc) return;
  (*itc)->item_style = nullptr;
  (*itc)->func.text_get = nullptr;
  (*itc)->func.content_get = nullptr;
  (*itc)->func.del = nullptr;
  elm_genlist_item_class_free(*itc);
  *itc = nullptr;
}

static void _clear_all_genlist_item_class(appdata *ad) {
  _clear_genlist_item_class(&ad->itc_group);
  _clear_genlist_item_class(&ad->itc_mail);
  _clear_genlist_item_class(&ad->itc_mail_below);
}

void app_terminate(void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  /* Without a window nothing was opened, the store included. */
  if (!services_open) return;
  services_open = false;
  brisel_util_set_offer_place(nullptr);
  brisel_ipc_client_set_trouble_cb(nullptr, nullptr);
  _forget_launches();
  /* The screen said "Deleted": leaving means it. */
  brisel_delete_sweep_item(ad);
  if (ad->sweep_timer) ecore_timer_del(ad->sweep_timer);
  ad->sweep_timer = nullptr;
  /* The rows free their records through their class: they go before it is emptied, and without each searching the
     model for itself. */
  brisel_free_mail_list(ad);
  if (ad->mailbox_genlist) {
    app_efl_forget_focus(ad->mailbox_genlist);
    elm_genlist_clear(ad->mailbox_genlist);
  }
  _clear_all_genlist_item_class(ad);
  _drop_popups(ad);
  _clear_all_naviframe_view_data(ad);
  free(ad->locale);
  ad->locale = nullptr;
  brisel_close_icu_pattern_generator(ad);
  brisel_util_drop_popup(&ad->nocontents_layout);
  brisel_util_drop_popup(&ad->mailbox_genlist);
  int result = contacts_disconnect2();
  if (result != 0) BRISEL_INFO("contacts_svc_disconnect2 failed : ct_err = [%d]", result);
  plexo_finalize();
  _brisel_unregister_vconf_change_notify();
  result = brisel_db_deinit();
  if (result != 0) BRISEL_ERROR("brisel_db_deinit() failed! err:[%d]", result);
  _brisel_ipc_unsubscribe();
  result = brisel_ipc_client_deinit();
  if (result != 0) BRISEL_ERROR("brisel_ipc_client_deinit() failed! err:[%d]", result);
}

/* Hands the open reader to fn, or says that there is none. */
static void _with_detail_view(appdata *ad, void (*fn)(view_data *)) {
  view_data *vd = brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, ad);
  if (vd)
    fn(vd);
  else
    BRISEL_WARN("view_data for BRISEL_VIEW_TYPE_DETAIL_VIEW is NULL!");
}

int app_pause(void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  ad->paused = 1;
  brisel_tell_list_in_view(ad);
  brisel_delete_sweep_item(ad);
  brisel_view_stop_lists();
  _with_detail_view(ad, brisel_detail_unregister_pickover);
  return 0;
}

int app_resume(void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  ad->paused = 0;
  brisel_tell_list_in_view(ad);
  /* It may be another day. */
  brisel_update_mailbox_texts(ad);
  brisel_check_mail_on_db(ad);
  elm_win_activate(ad->win_main);
  _with_detail_view(ad, brisel_detail_register_pickover);
  return 0;
}

int app_lang_changed(void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  scoped_text language(vconf_get_str(BRISEL_KEY_LANGUAGE));
  /* Without one it may be a screen reader that has come: all is named for it. */
  if (!language && !brisel_view_is_spoken()) return 0;
  elm_language_set(language.get());
  brisel_name_mailbox_rows(ad);
  if (ad->naviframe) _set_window_title(ad);
  brisel_tell_list_in_view(ad);
  brisel_journal_update(nullptr, ad);
  brisel_detail_update_string(ad);
  return 0;
}

int app_region_changed(void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  if (ad) _brisel_update_time_format_and_views(ad);
  BRISEL_INFO("Leave");
  return 0;
}
