#include "brisel-app-option-common.h"

static void __brisel_widget_free_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  free(data);
}

void brisel_option_free_with_list(void *record, Evas_Object **layout, Evas_Object **genlist) {
  Evas_Object *list = *genlist;
  brisel_widget_ref_clear(genlist);
  brisel_widget_ref_clear(layout);
  if (list)
    evas_object_event_callback_add(list, EVAS_CALLBACK_DEL, __brisel_widget_free_cb, record);
  else
    free(record);
}

Evas_Object *brisel_option_create_layout(Evas_Object *parent) {
  if (!parent) {
    BRISEL_ERROR("Invalid parameter: parent is NULL!");
    return nullptr;
  }
  Evas_Object *layout = elm_layout_add(parent);
  if (!layout) {
    BRISEL_ERROR("elm_layout_add() failed!");
    return nullptr;
  }
  elm_layout_theme_set(layout, "layout", "application", "noindicator");
  brisel_view_expand(layout);
  evas_object_show(layout);
  return layout;
}

Evas_Object *brisel_option_create_bg(Evas_Object *layout, Evas_Object *win) {
  if (!layout) {
    BRISEL_ERROR("Invalid parameter: parent is NULL!");
    return nullptr;
  }
  Evas_Object *bg = elm_bg_add(layout);
  if (!bg) {
    BRISEL_ERROR("elm_bg_add() failed!");
    return nullptr;
  }
  brisel_view_expand(bg);
  elm_win_resize_object_add(win, bg);
  evas_object_show(bg);
  elm_object_part_content_set(layout, "elm.swallow.bg", bg);
  return bg;
}

void brisel_option_follow_contacts(contacts_db_changed_cb changed_cb, void *data) {
  if (contacts_db_add_changed_cb(_contacts_person._uri, changed_cb, data) != CONTACTS_ERROR_NONE)
    BRISEL_ERROR("contacts_db_add_changed_cb() failed!!!!");
}

void brisel_option_leave_contacts(contacts_db_changed_cb changed_cb, void *data) {
  const int ct_ret = contacts_db_remove_changed_cb(_contacts_person._uri, changed_cb, data);
  if (ct_ret != CONTACTS_ERROR_NONE) BRISEL_WARN("contacts_db_remove_changed_cb() failed! ct_ret:[%d]", ct_ret);
}

int brisel_option_take_noti_data(int mail_id, full_noti_data *borrowed, full_noti_data **record, bool *own) {
  *record = borrowed;
  *own = false;
  if (borrowed) return 0;

  scoped_noti noti_data(brisel_full_noti_data_create());
  if (!noti_data) {
    BRISEL_ERROR("brisel_db_full_noti_data_create() failed!");
    return -3;
  }
  int ret = brisel_db_get_noti_head_by_mail_id(mail_id, noti_data.get());
  if (ret != 0) {
    BRISEL_ERROR("brisel_db_get_full_noti_data_by_mail_id() failed! err:[%d]", ret);
    return ret;
  }
  *record = noti_data.release();
  *own = true;
  return 0;
}
