/* The main screen: conformant, layout, the view stack with the mailbox at its bottom. */
#include "brisel-app.h"

#include "brisel-app-core.h"
#include "brisel-app-journal.h"
#include "brisel-app-stage.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "brisel-scoped.h"

unsigned char launched;

static Eina_Bool _pop_cb(void *data, Elm_Object_Item *item) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)data;
  if (ad && ad->win_main) {
    brisel_delete_sweep_item(ad);
    brisel_clear_all_new_flag();
    elm_win_lower(ad->win_main);
  }
  return EINA_FALSE;
}

static void _delete_view_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)data;
  brisel_delete_sweep_item(ad);
  brisel_crete_delete_view(ad);
}

static void _journal_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  appdata *ad = (appdata *)data;
  brisel_delete_sweep_item(ad);
  brisel_journal_draw_view(ad);
}

/* Without a more key: the mailbox's title, whose envelope says whether the phone is linked. */
static void _title_clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  if (event_info == elm_naviframe_bottom_item_get(obj)) _journal_cb(data, obj, event_info);
}

static int _create_conform(appdata *ad) {
  ad->conform = nullptr;
  if (!ad->win_main) return -1;
  ad->conform = elm_conformant_add(ad->win_main);
  evas_object_size_hint_weight_set(ad->conform, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  brisel_stage_put(ad->win_main, ad->conform);
  evas_object_show(ad->conform);
  return 0;
}

static int _create_layout_main(appdata *ad) {
  ad->layout_main = elm_layout_add(ad->conform);
  if (!ad->layout_main) {
    BRISEL_WARN("layout is NULL");
    return -1;
  }
  elm_layout_theme_set(ad->layout_main, "layout", "application", "default");
  evas_object_size_hint_weight_set(ad->layout_main, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_show(ad->layout_main);
  elm_object_content_set(ad->conform, ad->layout_main);
  elm_win_conformant_set(ad->win_main, EINA_TRUE);
  return 0;
}

static void _create_naviframe_layout(appdata *ad) {
  ad->naviframe = elm_naviframe_add(ad->layout_main);
  // The device has a back key: no view has a back button.
  elm_naviframe_prev_btn_auto_pushed_set(ad->naviframe, EINA_FALSE);
  elm_object_part_content_set(ad->layout_main, "elm.swallow.content", ad->naviframe);
  _register_naviframe_callbacks(ad);
  evas_object_show(ad->naviframe);
}

static Evas_Object *_create_nocontents_layout(appdata *ad) {
  Evas_Object *layout = elm_layout_add(ad->naviframe);
  elm_layout_theme_set(layout, "layout", "nocontents", "full");
  elm_object_domain_translatable_part_text_set(layout, "elm.text", BRISEL_DOMAIN, "IDS_EMAIL_BODY_NO_EMAILS");
  return layout;
}

static void _create_view_layout(appdata *ad) {
  int count = 0;
  brisel_db_get_full_noti_data_count_by_account_id(0, &count);
  ad->delete_btn = brisel_view_title_button(ad->naviframe, "b_email_history_delete_normal.png", _delete_view_cb, ad);
  if (ad->delete_btn) brisel_view_set_spoken_id(ad->delete_btn, "IDS_EMAIL_BODY_DELETE");
  brisel_create_mailbox_list_view(ad->win_main, ad);
  ad->nocontents_layout = _create_nocontents_layout(ad);

  bool empty = count < 1;
  Elm_Object_Item *item =
      elm_naviframe_item_push(ad->naviframe, nullptr, nullptr, ad->delete_btn,
                              empty ? ad->nocontents_layout : ad->mailbox_genlist, brisel_stage_style());
  elm_object_item_domain_translatable_text_set(item, BRISEL_DOMAIN, "IDS_HS_MBODY_EMAIL_M_APPLICATION_NAME_ABB3");
  if (empty) {
    evas_object_hide(ad->mailbox_genlist);
    elm_naviframe_item_title_enabled_set(item, EINA_FALSE, EINA_FALSE);
    ad->nocontents_shown = 1;
  }

  if (Evas_Object *icon = brisel_view_title_icon(ad->naviframe))
    elm_object_item_part_content_set(item, "elm.swallow.icon", icon);
  elm_naviframe_item_pop_cb_set(item, _pop_cb, ad);
  if (Evas_Object *more = brisel_view_more_button(item, _journal_cb, ad))
    brisel_view_set_spoken_id(more, "IDS_EMAIL_HEADER_WAITING_AND_SENT");
  evas_object_smart_callback_add(ad->naviframe, "title,clicked", _title_clicked_cb, ad);
  _update_window_title(ad);
}

int init_brisel(appdata *ad, int mail_id) {
  BRISEL_INFO("Enter");
  if (!ad) return -1;
  if (_create_conform(ad) < 0 || _create_layout_main(ad) < 0) return -1;
  if (ad->no_account_popup) {
    BRISEL_INFO("no account popup is existed. remove it.");
    brisel_util_drop_popup(&ad->no_account_popup);
  }
  _create_naviframe_layout(ad);

  if (ad->account_cnt == 1) {
    GSList *list = nullptr;
    brisel_db_get_all_account_data(&list);
    scoped_account_list accounts(list);
    if (list && list->data) {
      ad->account_id = ((account_data *)list->data)->account_id;
      BRISEL_INFO("ad->account_id  : %d", ad->account_id);
    }
  }
  /* A mail covers the list before it is ever seen. */
  ad->list_is_covered = mail_id > 0;
  if (ad->naviframe) _create_view_layout(ad);

  if (mail_id < 1) return 0;
  BRISEL_INFO("mail_id : %d", mail_id);
  _open_launched_mail(ad, mail_id);
  ad->list_is_covered = false;
  if (!brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, ad)) brisel_make_first_rows(ad);
  return 0;
}
