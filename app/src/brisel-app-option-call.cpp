/* The sender's phone numbers, each a tap away from a call. */
#include <cstring>

#include "brisel-app-option-common.h"
#include "brisel-app-utils.h"
#include "brisel-app.h"
#include "contacts.h"

struct option_call_view_data : brisel_view_head {
  Evas_Object *layout;
  Evas_Object *genlist;
  Ecore_Timer *pop_timer; /* runs while a launched call is taking the screen */
  bool own_noti_data;
  int mail_id;
  full_noti_data *noti_data; /* borrowed unless own_noti_data; NULL once the view was popped */
};

struct option_call_item_data {
  int index; /* in sender_contact_list */
  option_call_view_data *view_data;
};

static constexpr double BRISEL_CALL_POP_SECONDS = 1.0;

static void __brisel_option_call_gl_sel_contacts(void *data, Evas_Object *obj, void *event_info);

/* NULL when the list has become shorter since the row was made, or its view was popped. */
static const contact_number *__brisel_option_call_contact(const option_call_item_data *row) {
  full_noti_data *noti_data = row ? row->view_data->noti_data : nullptr;
  return noti_data ? (contact_number *)g_slist_nth_data(noti_data->sender_contact_list, (guint)row->index) : nullptr;
}

static const char *__brisel_option_call_type_id(int type) {
  switch (type) {
    case CONTACTS_NUMBER_TYPE_HOME:
      return "IDS_COM_BODY_HOME";
    case CONTACTS_NUMBER_TYPE_MOBILE:
      return "IDS_COM_BODY_MOBILE";
    case CONTACTS_NUMBER_TYPE_WORK:
      return "IDS_COM_BODY_WORK";
    default:
      return "IDS_EMAIL_BODY_OTHERS";
  }
}

static char *__brisel_option_call_gl_text_get_contacts(void *data, Evas_Object *obj, const char *part) {
  const option_call_item_data *row = (option_call_item_data *)data;
  if (row && !row->view_data->noti_data) return nullptr;
  const contact_number *contact = __brisel_option_call_contact(row);
  if (!contact) {
    BRISEL_ERROR("Failed to get phone number from sender_contact_list!");
    return nullptr;
  }
  // A number comes from a contact card, which may hold anything: it is shown as text.
  if (!strcmp(part, "elm.text") || !strcmp(part, "elm.text.1")) return brisel_util_text_to_markup(contact->number);
  if (!strcmp(part, "elm.text.2")) return strdup(brisel_util_get_text(__brisel_option_call_type_id(contact->type)));
  return nullptr;
}

static void __brisel_option_call_gl_del(void *data, Evas_Object *obj) {
  free(data);
}

static void __brisel_option_call_gl_realized_cb(void *data, Evas_Object *obj, void *event_info) {
  brisel_view_hide_last_bottomline(obj, (Elm_Object_Item *)event_info);
}

static option_call_item_data *__brisel_option_call_make_contacts_list_data(int index, option_call_view_data *vd) {
  option_call_item_data *row = (option_call_item_data *)calloc(1, sizeof *row);
  if (!row) {
    BRISEL_ERROR("Failed to allocate memory item_data!");
    return nullptr;
  }
  row->index = index;
  row->view_data = vd;
  return row;
}

static void __brisel_option_call_append_rows(option_call_view_data *vd, Evas_Object *genlist) {
  static constexpr Elm_Genlist_Item_Class row_class =
      brisel_view_row_class("2text.1", __brisel_option_call_gl_text_get_contacts, nullptr, __brisel_option_call_gl_del);
  int count = (int)g_slist_length(vd->noti_data->sender_contact_list);
  for (int i = 0; i < count; i++) {
    option_call_item_data *row = __brisel_option_call_make_contacts_list_data(i, vd);
    if (!row) continue;
    if (!brisel_view_add_row(genlist, nullptr, &row_class, row, __brisel_option_call_gl_sel_contacts, row)) free(row);
  }
}

/* Shows the numbers as they are now; without one the view has no use. */
static void __brisel_option_call_show_current_numbers(option_call_view_data *vd) {
  if (vd->noti_data->sender_contact_list) {
    const int focused = brisel_view_focused_place(vd->genlist);
    elm_genlist_clear(vd->genlist);
    __brisel_option_call_append_rows(vd, vd->genlist);
    brisel_view_refocus_row(vd->genlist, focused);
  } else {
    BRISEL_INFO("Call numbers are empty!");
    brisel_util_pop_view(vd->ad->naviframe);
  }
}

/* The option list below registered for the same change first and has looked the sender up again by now: changes are
   told in the order of the registrations. */
static void __brisel_option_call_contacts_db_changed_cb(const char *view_uri, void *data) {
  BRISEL_INFO("Enter");
  __brisel_option_call_show_current_numbers((option_call_view_data *)data);
  BRISEL_INFO("Leave");
}

static Eina_Bool __brisel_option_call_view_pop_timer_cb(void *data) {
  BRISEL_INFO("Enter");
  option_call_view_data *vd = (option_call_view_data *)data;
  vd->pop_timer = nullptr;
  brisel_util_pop_view(vd->ad->naviframe);
  return ECORE_CALLBACK_CANCEL;
}

static void __brisel_option_call_gl_sel_contacts(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  option_call_item_data *row = (option_call_item_data *)data;
  option_call_view_data *vd = row->view_data;
  const contact_number *contact = __brisel_option_call_contact(row);
  elm_genlist_item_selected_set((Elm_Object_Item *)event_info, EINA_FALSE);
  // A second tap while a call is being put through would dial twice.
  if (!vd->noti_data || vd->pop_timer) return;
  if (!contact || !contact->number) {
    // The number went away under the finger: nothing is dialled, and what is left is shown.
    BRISEL_ERROR("Failed to get phone number from sender_contact_list!");
    if (!contact) __brisel_option_call_show_current_numbers(vd);
    return;
  }
  if (brisel_util_launch_voice_call(contact->number))
    vd->pop_timer = ecore_timer_add(BRISEL_CALL_POP_SECONDS, __brisel_option_call_view_pop_timer_cb, vd);
  else
    brisel_util_pop_view(vd->ad->naviframe);
  BRISEL_INFO("Leave");
}

static Evas_Object *__brisel_option_call_create_layout(Evas_Object *parent) {
  return brisel_option_create_layout(parent);
}

static Evas_Object *__brisel_option_call_create_bg(Evas_Object *layout, Evas_Object *win) {
  return brisel_option_create_bg(layout, win);
}

static Evas_Object *__brisel_option_call_create_genlist(Evas_Object *layout, option_call_view_data *vd) {
  Evas_Object *genlist = brisel_view_new_list(layout, __brisel_option_call_gl_realized_cb);
  if (!genlist) return nullptr;
  __brisel_option_call_append_rows(vd, genlist);
  elm_object_part_content_set(layout, "elm.swallow.content", genlist);
  return genlist;
}

/* Frees an owned mail and, once the list can ask for no more texts, the record. */
static void __brisel_option_call_free(option_call_view_data *vd) {
  if (vd->own_noti_data) brisel_full_noti_data_free(vd->noti_data);
  vd->noti_data = nullptr;
  brisel_option_free_with_list(vd, &vd->layout, &vd->genlist);
}

static Eina_Bool __brisel_option_call_view_pop_cb(void *data, Elm_Object_Item *item) {
  BRISEL_INFO("Enter");
  option_call_view_data *vd = (option_call_view_data *)data;
  brisel_option_leave_contacts(__brisel_option_call_contacts_db_changed_cb, vd);
  if (vd->pop_timer) ecore_timer_del(vd->pop_timer);
  vd->pop_timer = nullptr;
  __brisel_option_call_free(vd);
  BRISEL_INFO("Leave");
  return EINA_TRUE;
}

static int __brisel_option_call_give_up(option_call_view_data *vd, int ret) {
  return brisel_option_give_up(vd, __brisel_option_call_free, ret);
}

int brisel_option_call_draw_view(int mail_id, appdata *ad, full_noti_data *noti_data) {
  BRISEL_INFO("Enter");
  option_call_view_data *vd;
  if (!brisel_view_new_record(ad, BRISEL_VIEW_TYPE_OPTION_CALL_VIEW, &vd)) return ad ? -3 : -2;
  vd->mail_id = mail_id;
  int ret = brisel_option_take_noti_data(mail_id, noti_data, &vd->noti_data, &vd->own_noti_data);
  if (ret != 0) return __brisel_option_call_give_up(vd, ret);

  Evas_Object *layout = __brisel_option_call_create_layout(ad->naviframe);
  if (!layout) {
    BRISEL_ERROR("__brisel_option_call_create_layout() failed!");
    return __brisel_option_call_give_up(vd, -3);
  }
  brisel_widget_ref_set(&vd->layout, layout);
  if (!__brisel_option_call_create_bg(layout, ad->win_main)) {
    BRISEL_ERROR("__brisel_option_call_create_bg() failed!");
    return __brisel_option_call_give_up(vd, -3);
  }
  Evas_Object *genlist = __brisel_option_call_create_genlist(layout, vd);
  if (!genlist) {
    BRISEL_ERROR("__brisel_option_call_create_genlist() failed!");
    return __brisel_option_call_give_up(vd, -3);
  }
  brisel_widget_ref_set(&vd->genlist, genlist);

  const scoped_text title(brisel_view_sender_title(vd->noti_data));
  brisel_view_push(ad, layout, title.get(), nullptr, __brisel_option_call_view_pop_cb, vd);
  brisel_option_follow_contacts(__brisel_option_call_contacts_db_changed_cb, vd);
  BRISEL_INFO("Leave");
  return 0;
}
