/* The settings that the application follows: the phone's link, the order of dates, the clock, the system's time. */
#include "brisel-app-core.h"
#include "brisel-app-delete-view.h"
#include "brisel-app-journal.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "vconf.h"

void _brisel_init_vconf_values(appdata *ad) {
  BRISEL_INFO("Enter");
  int result = vconf_get_bool(BRISEL_KEY_BT_CONNECTED, &ad->bt_connected);
  if (result < 0) BRISEL_WARN("vconf_get_bool returns: %d", result);
  brisel_view_show_link(ad->bt_connected);
}

void _brisel_set_date_time_format(appdata *ad) {
  BRISEL_INFO("Enter");
  if (!ad) {
    BRISEL_ERROR("data == NULL");
    return;
  }
  const bool has_locale = brisel_util_has_locale();
  int result = vconf_get_int(BRISEL_KEY_DATE_FORMAT, &ad->date_format);
  if (result < 0) {
    BRISEL_WARN("vconf_get_int returns: %d", result);
    if (has_locale) ad->date_format = brisel_util_locale_date_order(ad->locale);
  }
  if ((unsigned)ad->date_format > 3) {
    BRISEL_WARN("Invalid date_format value(%d)", ad->date_format);
    ad->date_format = 2;
  }
  result = vconf_get_int(BRISEL_KEY_TIME_FORMAT, &ad->time_format);
  if (result < 0) {
    BRISEL_WARN("vconf_get_int returns: %d", result);
    if (has_locale) ad->time_format = brisel_util_locale_has_12_hours(ad->locale);
  }
  BRISEL_INFO("ad->date_format : %d ad->time_format : %d", ad->date_format, ad->time_format);
}

void _brisel_update_time_format_and_views(appdata *ad) {
  BRISEL_INFO("Enter");
  if (!ad) {
    BRISEL_ERROR("data == NULL");
    return;
  }
  brisel_close_icu_pattern_generator(ad);
  brisel_open_icu_pattern_generator(ad);
  _brisel_set_date_time_format(ad);
  brisel_update_mailbox_texts(ad);
  if (ad->naviframe) {
    delete_view_data *delete_view =
        (delete_view_data *)brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DELETE_VIEW, ad);
    if (delete_view && delete_view->genlist) {
      BRISEL_INFO("delete view is also refreshed");
      elm_genlist_realized_items_update(delete_view->genlist);
      brisel_view_name_rows(delete_view->genlist);
      brisel_update_delete_popup(delete_view);
    }
    brisel_detail_update_datetime_format(ad);
    brisel_journal_update(nullptr, ad);
  }
  BRISEL_INFO("Leave");
}

static void _brisel_bt_connected_state_changed_cb(keynode_t *node, void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  if (!ad) {
    BRISEL_ERROR("data == NULL");
    return;
  }
  int connected = 0;
  int result = vconf_get_bool(BRISEL_KEY_BT_CONNECTED, &connected);
  if (result < 0) BRISEL_WARN("vconf_get_bool returns: %d", result);
  BRISEL_INFO("bt_connected : %d", connected);
  if (connected == ad->bt_connected) return;
  ad->bt_connected = connected;
  brisel_view_show_link(connected);
  brisel_detail_update_link(ad);
  if (connected) _link_is_up(ad);
  if (ad->no_account_popup) elm_object_disabled_set(ad->no_account_ok_btn, connected ? EINA_FALSE : EINA_TRUE);
}

static void _brisel_date_time_format_changed_cb(keynode_t *node, void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  if (!ad) {
    BRISEL_ERROR("data == NULL");
    return;
  }
  const int date_format = ad->date_format, time_format = ad->time_format;
  _brisel_set_date_time_format(ad);
  if (ad->date_format != date_format || ad->time_format != time_format) _brisel_update_time_format_and_views(ad);
}

static void _brisel_system_time_changed_cb(keynode_t *node, void *user_data) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)user_data;
  if (!ad) {
    BRISEL_ERROR("data == NULL");
  } else {
    brisel_update_timezone_str();
    _brisel_update_time_format_and_views(ad);
  }
  BRISEL_INFO("Leave");
}

struct settings_watcher {
  const char *key;
  vconf_callback_fn callback;
};
static const settings_watcher settings_watchers[] = {
    {BRISEL_KEY_TIME_CHANGED, _brisel_system_time_changed_cb},
    {BRISEL_KEY_DATE_FORMAT, _brisel_date_time_format_changed_cb},
    {BRISEL_KEY_TIME_FORMAT, _brisel_date_time_format_changed_cb},
    {BRISEL_KEY_BT_CONNECTED, _brisel_bt_connected_state_changed_cb},
};

void _brisel_register_vconf_change_notify(appdata *ad) {
  BRISEL_INFO("Enter");
  for (const settings_watcher &watcher : settings_watchers) vconf_notify_key_changed(watcher.key, watcher.callback, ad);
}

void _brisel_unregister_vconf_change_notify() {
  BRISEL_INFO("Enter");
  for (const settings_watcher &watcher : settings_watchers) vconf_ignore_key_changed(watcher.key, watcher.callback);
}
