/* Ticking several mails and deleting them from the watch at once. */
#include "brisel-app-delete-view.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

#include "brisel-app-stage.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "brisel-app.h"
#include "brisel-scoped.h"

/* A row; owned by its genlist item. */
struct delete_item_data {
  int mail_id;
  int account_id;
  int received_time; /* seconds since the epoch */
  char *sender;      /* owned */
  Evas_Object *check;
  unsigned char check_state; /* the check box writes it by itself */
  Elm_Object_Item *it;
  delete_view_data *view_data;
};

/* --- rows --- */

/* What follows from the rows and from which of them are selected. */
static void _recount(delete_view_data *vd) {
  vd->total_mail_cnt = (int)g_slist_length(vd->item_list);
  vd->selected_cnt = (int)g_slist_length(vd->selected_list);
  vd->select_all = vd->selected_cnt > 0 && vd->selected_cnt == vd->total_mail_cnt ? 1 : 0;
  elm_object_disabled_set(vd->delete_btn, vd->selected_cnt == 0);
}

static void _update_check_info_for_delete_view(delete_item_data *row) {
  if (!row) {
    BRISEL_WARN("item_data is NULL");
    return;
  }
  delete_view_data *vd = row->view_data;
  if (!vd) {
    BRISEL_WARN("view_data is NULL");
    return;
  }
  if (row->check_state == 1)
    vd->selected_list = g_slist_append(vd->selected_list, row);
  else if (!vd->selected_list)
    BRISEL_INFO("view_data->selected_list is NULL");
  else
    vd->selected_list = g_slist_remove(vd->selected_list, row);
  brisel_view_say_tick(row->it, row->check_state == 1);
  _recount(vd);
}

static void _check_changed_cb(void *data, Evas_Object *obj, void *event_info) {
  delete_item_data *row = (delete_item_data *)data;
  if (!row) {
    BRISEL_WARN("data is NULL");
    return;
  }
  row->check_state = elm_check_state_get(obj);
  _update_check_info_for_delete_view(row);
}

static void _gl_delete_view_mail_sel(void *data, Evas_Object *obj, void *event_info) {
  if (!event_info) {
    BRISEL_WARN("event_info is NULL");
    return;
  }
  elm_genlist_item_selected_set((Elm_Object_Item *)event_info, EINA_FALSE);
  delete_item_data *row = (delete_item_data *)data;
  if (!row) {
    BRISEL_WARN("data is NULL");
    return;
  }
  unsigned char state = row->check_state ? 0 : 1;
  if (row->check) {
    elm_check_state_set(row->check, state);
    state = elm_check_state_get(row->check);
  }
  row->check_state = state;
  _update_check_info_for_delete_view(row);
}

static char *_gl_text_get(void *data, Evas_Object *obj, const char *part) {
  delete_item_data *row = (delete_item_data *)data;
  if (!row) {
    BRISEL_WARN("data is NULL");
    return nullptr;
  }
  if (!strcmp(part, "elm.text.1")) return brisel_util_text_to_markup(row->sender);
  if (!strcmp(part, "elm.text.2") && row->view_data)
    return brisel_util_get_mailbox_date_time_str(row->received_time, row->view_data->ad);
  return nullptr;
}

static Evas_Object *_gl_icon_get(void *data, Evas_Object *obj, const char *part) {
  delete_item_data *row = (delete_item_data *)data;
  if (!row) {
    BRISEL_WARN("data is NULL");
    return nullptr;
  }
  if (!strcmp(part, "elm.swallow.colorbar")) return brisel_util_create_color_bar(obj, row->account_id);
  if (strcmp(part, "elm.icon") != 0) return nullptr;
  Evas_Object *check = elm_check_add(obj);
  brisel_widget_ref_set(&row->check, check);
  elm_check_state_pointer_set(check, &row->check_state);
  elm_object_focus_allow_set(check, EINA_FALSE); /* keys tick the row */
  brisel_view_set_spoken(check, false);
  evas_object_smart_callback_add(check, "changed", _check_changed_cb, row);
  evas_object_size_hint_align_set(check, EVAS_HINT_FILL, EVAS_HINT_FILL);
  evas_object_size_hint_weight_set(check, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_propagate_events_set(check, EINA_FALSE);
  return check;
}

static void _gl_delete_view_del(void *data, Evas_Object *obj) {
  delete_item_data *row = (delete_item_data *)data;
  if (!row) return;
  if (row->check) {
    /* The box may outlive its row for a moment. */
    elm_check_state_pointer_set(row->check, nullptr);
    evas_object_smart_callback_del_full(row->check, "changed", _check_changed_cb, row);
    brisel_widget_ref_clear(&row->check);
  }
  free(row->sender);
  free(row);
}

static Elm_Genlist_Item_Class *_new_row_class() {
  return brisel_view_new_row_class("2text.1icon.1", _gl_text_get, _gl_icon_get, _gl_delete_view_del);
}

static void _gl_delete_view_realized_cb(void *data, Evas_Object *obj, void *event_info) {
  brisel_view_hide_last_bottomline(obj, (Elm_Object_Item *)event_info);
}

static delete_item_data *_row_of_mail(const full_noti_data *noti_data, delete_view_data *vd) {
  delete_item_data *row = (delete_item_data *)calloc(1, sizeof *row);
  if (!row) {
    BRISEL_ERROR("memory allocation failed.");
    return nullptr;
  }
  const char *sender = noti_data->from_name && noti_data->from_name[0] ? noti_data->from_name : noti_data->from_address;
  row->mail_id = noti_data->mail_id;
  row->account_id = noti_data->account_id;
  row->received_time = (int)CLAMP(noti_data->received_time, (time_t)INT_MIN, (time_t)INT_MAX);
  row->sender = sender ? strdup(sender) : nullptr;
  row->check_state = 0;
  row->view_data = vd;
  return row;
}

static delete_item_data *_make_delete_list_data(GSList *node, delete_view_data *vd) {
  if (!node) {
    BRISEL_ERROR("noti_list is NULL");
    return nullptr;
  }
  return _row_of_mail((full_noti_data *)node->data, vd);
}

/* The last row; next NULL, or the row before next. false, with the record freed, when it cannot be added. */
static bool _add_row(delete_view_data *vd, Evas_Object *gl, const Elm_Genlist_Item_Class *itc, delete_item_data *row,
                     const delete_item_data *next) {
  row->it = next ? elm_genlist_item_insert_before(gl, itc, row, nullptr, next->it, ELM_GENLIST_ITEM_NONE,
                                                  _gl_delete_view_mail_sel, row)
                 : elm_genlist_item_append(gl, itc, row, nullptr, ELM_GENLIST_ITEM_NONE, _gl_delete_view_mail_sel, row);
  if (!row->it) {
    _gl_delete_view_del(row, gl);
    return false;
  }
  brisel_view_name_row(row->it);
  return true;
}

/* --- the confirmation --- */

static void _delete_popup_cancel_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  delete_view_data *vd = (delete_view_data *)data;
  brisel_widget_ref_drop(&vd->popup);
}

static void _delete_popup_ok_cb(void *data, Evas_Object *obj, void *event_info) {
  delete_view_data *vd = (delete_view_data *)data;
  BRISEL_INFO("view_data->selected_cnt : %d", vd->selected_cnt);
  if (vd->selected_cnt > 0) {
    std::vector<int> ids;
    for (GSList *cell = vd->selected_list; cell && (int)ids.size() < vd->selected_cnt; cell = cell->next)
      ids.push_back(((delete_item_data *)cell->data)->mail_id);
    brisel_util_request_delete(ids.data(), (int)ids.size());
  }
  brisel_widget_ref_drop(&vd->popup);
  brisel_widget_ref_drop(&vd->genlist);
  brisel_util_pop_view(vd->ad->naviframe);
}

static void _set_delete_popup_text(delete_view_data *vd) {
  if (vd->selected_cnt == 1) {
    brisel_view_popup_translate(vd->popup, nullptr, "IDS_ST_POP_1_ITEM_WILL_BE_DELETED_FROM_THE_ZOLT_ONLY");
    return;
  }
  char *text =
      brisel_util_get_count_text("IDS_ST_POP_PD_ITEMS_WILL_BE_DELETED_FROM_THE_ZOLT_ONLY", vd->selected_cnt, vd->ad);
  elm_object_text_set(vd->popup, text);
  free(text);
}

void brisel_update_delete_popup(delete_view_data *vd) {
  if (vd->popup) _set_delete_popup_text(vd);
}

static void _mailbox_delete_popup_language_changed_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_update_delete_popup((delete_view_data *)data);
}

static void _create_delete_popup(delete_view_data *vd) {
  BRISEL_INFO("Enter");
  if (vd->selected_cnt < 1) {
    BRISEL_INFO("selected_cnt : 0!!");
    return;
  }
  brisel_widget_ref_drop(&vd->popup);
  Evas_Object *popup = brisel_view_delete_popup(vd->ad->naviframe, _delete_popup_cancel_cb, _delete_popup_ok_cb, vd);
  if (!popup) return;
  brisel_widget_ref_set(&vd->popup, popup);
  _set_delete_popup_text(vd);
  evas_object_smart_callback_add(popup, "language,changed", _mailbox_delete_popup_language_changed_cb, vd);
  evas_object_show(popup);
}

/* --- buttons --- */

static void _select_all_btn_select_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  delete_view_data *vd = (delete_view_data *)data;
  if (!vd) {
    BRISEL_WARN("view_data is NULL");
    return;
  }
  vd->select_all = vd->select_all ? 0 : 1;
  BRISEL_INFO("select_all : %d", vd->select_all);
  GSList *changed = nullptr; /* last first: appending would walk the list for every mail */
  for (GSList *cell = vd->item_list; cell; cell = cell->next) {
    delete_item_data *row = (delete_item_data *)cell->data;
    if (row->check_state == vd->select_all) continue;
    row->check_state = vd->select_all;
    brisel_view_say_tick(row->it, vd->select_all);
    changed = g_slist_prepend(changed, row);
  }
  if (vd->select_all) {
    vd->selected_list = g_slist_concat(vd->selected_list, g_slist_reverse(changed));
  } else {
    g_slist_free(changed);
    g_slist_free(vd->selected_list);
    vd->selected_list = nullptr;
  }
  vd->selected_cnt = (int)g_slist_length(vd->selected_list);
  elm_object_disabled_set(vd->delete_btn, !vd->select_all);
  if (vd->genlist) elm_genlist_realized_items_update(vd->genlist);
  BRISEL_INFO("Leave");
}

static void _cancel_btn_clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  delete_view_data *vd = (delete_view_data *)data;
  brisel_util_pop_view(vd->ad->naviframe);
}

static void _delete_btn_clicked_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  _create_delete_popup((delete_view_data *)data);
}

static Evas_Object *_create_select_all_btn(Evas_Object *parent, delete_view_data *vd) {
  Evas_Object *btn = elm_button_add(parent);
  if (!btn) {
    BRISEL_ERROR("elm_button_add() failed!");
    return nullptr;
  }
  elm_object_style_set(btn, "naviframe/title_icon");
  Evas_Object *img = brisel_util_load_image(btn, "b_email_ic_menu_selectall_normal.png");
  if (!img) {
    BRISEL_ERROR("elm_image_add() failed!");
    evas_object_del(btn);
    return nullptr;
  }
  evas_object_size_hint_aspect_set(img, EVAS_ASPECT_CONTROL_BOTH, 1, 1);
  elm_image_resizable_set(img, EINA_TRUE, EINA_TRUE);
  elm_object_content_set(btn, img);
  evas_object_smart_callback_add(btn, "clicked", _select_all_btn_select_cb, vd);
  brisel_view_set_spoken_id(btn, "IDS_EMAIL_BODY_SELECT_ALL");
  evas_object_show(btn);
  return btn;
}

static Evas_Object *_create_text_btn(Evas_Object *layout, const char *part, const char *id, Evas_Smart_Cb clicked_cb,
                                     delete_view_data *vd) {
  Evas_Object *btn = elm_button_add(layout);
  brisel_stage_set_style(btn, nullptr);
  elm_object_domain_translatable_text_set(btn, BRISEL_DOMAIN, id);
  evas_object_size_hint_weight_set(btn, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  elm_object_part_content_set(layout, part, btn);
  evas_object_smart_callback_add(btn, "clicked", clicked_cb, vd);
  return btn;
}

static void _delete_key_cb(void *data, Evas *e, Evas_Object *obj, void *event_info) {
  const delete_view_data *vd = (delete_view_data *)data;
  const Evas_Event_Key_Down *event = (Evas_Event_Key_Down *)event_info;
  if (strcmp(event->key, "Delete") != 0 && strcmp(event->key, "KP_Delete") != 0) return;
  if (vd->delete_btn && !elm_object_disabled_get(vd->delete_btn)) _delete_btn_clicked_cb(data, obj, nullptr);
}

/* --- the view --- */

static void _mailbox_delete_list_language_changed_cb(void *data, Evas_Object *obj, void *event_info) {
  elm_genlist_realized_items_update(obj);
  brisel_view_name_rows(obj);
}

static bool _is_ticked(Elm_Object_Item *it) {
  const delete_item_data *row = (delete_item_data *)elm_object_item_data_get(it);
  return row && row->check_state == 1;
}

static Evas_Object *_create_delete_list_view(delete_view_data *vd) {
  BRISEL_INFO("Enter");
  Evas_Object *gl = elm_genlist_add(vd->layout);
  if (!gl) {
    BRISEL_WARN("gl is NULL");
    return nullptr;
  }
  elm_genlist_mode_set(gl, ELM_LIST_COMPRESS);
  elm_object_part_content_set(vd->layout, "genlist", gl);
  evas_object_smart_callback_add(gl, "language,changed", _mailbox_delete_list_language_changed_cb, nullptr);
  evas_object_smart_callback_add(gl, "realized", _gl_delete_view_realized_cb, nullptr);
  evas_object_event_callback_add(gl, EVAS_CALLBACK_KEY_DOWN, _delete_key_cb, vd);
  brisel_view_set_row_ticks(gl, _is_ticked);
  brisel_view_list_keys(gl);
  brisel_stage_reach(gl);
  elm_scroller_policy_set(gl, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
  elm_genlist_homogeneous_set(gl, EINA_TRUE);
  evas_object_size_hint_align_set(gl, EVAS_HINT_FILL, EVAS_HINT_FILL);
  evas_object_size_hint_weight_set(gl, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);

  g_slist_free(vd->selected_list);
  vd->selected_list = nullptr;
  g_slist_free(vd->item_list);
  vd->item_list = nullptr;

  GSList *noti_list = nullptr;
  int mail_cnt = 0;
  /* The list without bodies; a failure is told as that of the list. */
  const int err = brisel_db_get_noti_rows_after(vd->account_id, nullptr, 0, &noti_list, &mail_cnt);
  if (err != 0) BRISEL_INFO("brisel_db_get_full_noti_data_list_by_account_id() failed! err:[%d]", err);

  Elm_Genlist_Item_Class *itc = _new_row_class();
  GSList *rows = nullptr; /* last first: appending would walk the list for every mail */
  for (GSList *node = noti_list; node && itc; node = node->next) {
    delete_item_data *row = _make_delete_list_data(node, vd);
    if (row && _add_row(vd, gl, itc, row, nullptr)) rows = g_slist_prepend(rows, row);
  }
  vd->item_list = g_slist_reverse(rows);
  vd->total_mail_cnt = (int)g_slist_length(vd->item_list);
  BRISEL_INFO("mail_cnt = %d, view_data->total_mail_cnt : %d", mail_cnt, vd->total_mail_cnt);
  brisel_full_noti_data_list_free(noti_list);
  evas_object_show(gl);
  if (itc) elm_genlist_item_class_free(itc);
  return gl;
}

/* --- live --- */

/* The list without the cells whose row is among the ids; for the list of all rows the rows go, too. */
static GSList *_without(GSList *list, GHashTable *ids, bool delete_rows) {
  for (GSList **link = &list; *link;) {
    delete_item_data *row = (delete_item_data *)(*link)->data;
    if (!g_hash_table_contains(ids, GINT_TO_POINTER(row->mail_id))) {
      link = &(*link)->next;
      continue;
    }
    *link = g_slist_delete_link(*link, *link);
    if (delete_rows) brisel_view_delete_row(row->it);
  }
  return list;
}

static GHashTable *_set_of(GSList *ids) {
  GHashTable *set = g_hash_table_new(nullptr, nullptr);
  for (; ids; ids = ids->next) g_hash_table_add(set, ids->data);
  return set;
}

/* The records of those of the mails that belong here and have no row yet, newest first. */
static std::vector<delete_item_data *> _read_added(delete_view_data *vd, GSList *ids) {
  std::vector<delete_item_data *> rows;
  GHashTable *there = g_hash_table_new(nullptr, nullptr);
  for (GSList *cell = vd->item_list; cell; cell = cell->next)
    g_hash_table_add(there, GINT_TO_POINTER(((delete_item_data *)cell->data)->mail_id));
  for (; ids; ids = ids->next) {
    scoped_noti mail(brisel_full_noti_data_create());
    if (!mail || brisel_db_get_noti_head_by_mail_id(GPOINTER_TO_INT(ids->data), mail.get()) != 0) continue;
    if (vd->account_id != 0 && vd->account_id != mail->account_id) continue;
    if (!g_hash_table_add(there, ids->data)) continue;
    if (delete_item_data *row = _row_of_mail(mail.get(), vd)) rows.push_back(row);
  }
  g_hash_table_destroy(there);
  std::stable_sort(rows.begin(), rows.end(), [](const delete_item_data *a, const delete_item_data *b) {
    return a->received_time > b->received_time;
  });
  return rows;
}

/* Before the first older row, as in the mailbox. */
static void _insert_rows(delete_view_data *vd, GSList *ids) {
  Elm_Genlist_Item_Class *itc = _new_row_class();
  if (!itc) return;
  GSList **link = &vd->item_list;
  for (delete_item_data *row : _read_added(vd, ids)) {
    while (*link && ((delete_item_data *)(*link)->data)->received_time >= row->received_time) link = &(*link)->next;
    Elm_Object_Item *last = *link ? nullptr : elm_genlist_last_item_get(vd->genlist);
    if (!_add_row(vd, vd->genlist, itc, row, *link ? (delete_item_data *)(*link)->data : nullptr)) continue;
    if (last) elm_object_item_signal_emit(last, "elm,state,bottomline,show", "");
    *link = g_slist_prepend(*link, row);
  }
  elm_genlist_item_class_free(itc);
}

void brisel_update_delete_view(int update_type, GSList *id_list, appdata *ad) {
  BRISEL_INFO("Enter");
  delete_view_data *vd = (delete_view_data *)brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DELETE_VIEW, ad);
  if (!vd || !vd->genlist) return;
  if (update_type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD) {
    _insert_rows(vd, id_list);
  } else if (update_type == BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE) {
    GHashTable *gone = _set_of(id_list);
    vd->selected_list = _without(vd->selected_list, gone, false);
    vd->item_list = _without(vd->item_list, gone, true);
    g_hash_table_destroy(gone);
    brisel_view_hide_last_bottomline(vd->genlist, elm_genlist_last_item_get(vd->genlist));
  } else {
    return;
  }
  _recount(vd);
  /* The question counts what its OK deletes. */
  if (vd->popup && vd->selected_cnt == 0) brisel_widget_ref_drop(&vd->popup);
  brisel_update_delete_popup(vd);
}

static Eina_Bool _brisel_delete_view_pop_cb(void *data, Elm_Object_Item *item) {
  BRISEL_INFO("Enter");
  delete_view_data *vd = (delete_view_data *)data;
  g_slist_free(vd->selected_list);
  g_slist_free(vd->item_list);
  brisel_widget_ref_drop(&vd->popup);
  brisel_widget_ref_drop(&vd->genlist);
  brisel_widget_ref_clear(&vd->delete_btn);
  brisel_widget_ref_clear(&vd->layout);
  free(vd);
  BRISEL_INFO("Leave");
  return EINA_TRUE;
}

int brisel_crete_delete_view(appdata *ad) {
  BRISEL_INFO("Enter");
  delete_view_data *vd;
  if (!brisel_view_new_record(ad, BRISEL_VIEW_TYPE_DELETE_VIEW, &vd)) return ad ? -3 : -1;
  vd->select_all = 0;
  vd->account_id = ad->account_id;

  Evas_Object *layout = brisel_util_load_edj(ad->naviframe, BRISEL_EDJ,
                                             brisel_stage_style() ? "brisel/delete_view/round" : "brisel/delete_view");
  if (!layout) {
    free(vd);
    BRISEL_ERROR("elm_layout_add failed");
    return -1;
  }
  evas_object_show(layout);
  brisel_widget_ref_set(&vd->layout, layout);
  brisel_widget_ref_set(&vd->genlist, _create_delete_list_view(vd));
  Evas_Object *select_all_btn = _create_select_all_btn(ad->naviframe, vd);
  _create_text_btn(layout, "btn1", "IDS_COM_SK_CANCEL", _cancel_btn_clicked_cb, vd);
  brisel_widget_ref_set(&vd->delete_btn,
                        _create_text_btn(layout, "btn2", "IDS_EMAIL_BODY_DELETE", _delete_btn_clicked_cb, vd));
  elm_object_disabled_set(vd->delete_btn, EINA_TRUE);

  Elm_Object_Item *item = brisel_view_push(ad, layout, nullptr, select_all_btn, _brisel_delete_view_pop_cb, vd);
  elm_object_item_domain_translatable_text_set(item, BRISEL_DOMAIN, "IDS_EMAIL_BODY_DELETE");
  BRISEL_INFO("Leave");
  return 0;
}
