/* The view stack: finding a view's record, leaving views one by one or all at once, and the keys that work on it. */
#include "brisel-app-core.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "brisel-scoped.h"
#include "efl_assist.h"
#include "plexo.h"

/* The stack takes no pop while its top view is still sliding in, and says nothing: such a pop waits for the view to
   stand. A view that has gone otherwise by then is not on top any more. */
static Elm_Object_Item *view_to_pop;
/* A view is on its way out. */
static bool is_popping;

view_data *brisel_util_retrieve_view_data(int view_type, appdata *ad) {
  if (!ad) {
    BRISEL_ERROR("Invalid parameter: data is NULL!");
    return nullptr;
  }
  Eina_List *items = ad->naviframe ? elm_naviframe_items_get(ad->naviframe) : nullptr;
  if (!items) {
    BRISEL_ERROR("elm_naviframe_items_get() failed!");
    return nullptr;
  }
  view_data *found = nullptr;
  void *item = nullptr;
  EINA_LIST_FREE(items, item) {
    brisel_view_head *head = (brisel_view_head *)elm_object_item_data_get((Elm_Object_Item *)item);
    if (head && head->view_type == view_type) found = (view_data *)head;
  }
  BRISEL_INFO("Leave");
  return found;
}

/* Deletes the item of a view and frees the view's record; other items stay. */
static void _remove_view_item(Elm_Object_Item *item) {
  brisel_view_head *head = (brisel_view_head *)elm_object_item_data_get(item);
  if (!head || head->navi_item != item) return;
  Elm_Naviframe_Item_Pop_Cb pop_cb = head->pop_cb;
  elm_object_item_del(item);
  if (pop_cb) pop_cb(head, item);
}

void _brisel_naviframe_pop_to_mailbox(appdata *ad) {
  BRISEL_INFO("Enter");
  Eina_List *items = ad->naviframe ? elm_naviframe_items_get(ad->naviframe) : nullptr;
  if (!items) return;
  Elm_Object_Item *bottom = elm_naviframe_bottom_item_get(ad->naviframe);
  if (eina_list_count(items) > 1 && bottom) {
    BRISEL_INFO("Remove naviframe items, navi_item_cnt : %d", (int)eina_list_count(items));
    void *item = nullptr;
    EINA_LIST_FREE(items, item) {
      if (item == bottom)
        BRISEL_INFO("This is mailbox naviframe item.");
      else
        _remove_view_item((Elm_Object_Item *)item);
    }
    ad->mail_id = 0;
    _update_window_title(ad);
    brisel_view_focus_list(ad->naviframe);
  }
  eina_list_free(items);
}

void _clear_all_naviframe_view_data(appdata *ad) {
  Eina_List *items = ad->naviframe ? elm_naviframe_items_get(ad->naviframe) : nullptr;
  void *item = nullptr;
  EINA_LIST_FREE(items, item) _remove_view_item((Elm_Object_Item *)item);
}

void brisel_util_pop_view(Evas_Object *naviframe) {
  Elm_Object_Item *top = elm_naviframe_top_item_get(naviframe), *bottom = elm_naviframe_bottom_item_get(naviframe);
  const brisel_view_head *head = top && top != bottom ? (brisel_view_head *)elm_object_item_data_get(top) : nullptr;
  appdata *ad = head ? head->ad : nullptr;
  elm_naviframe_item_pop(naviframe);
  if (top == bottom) return;
  if (top == elm_naviframe_top_item_get(naviframe)) {
    view_to_pop = top;
    return;
  }
  is_popping = true;
  /* No mail is open any more: what becomes of the one that was closes nothing that is opened from here. */
  if (ad && elm_naviframe_top_item_get(naviframe) == bottom) ad->mail_id = 0;
}

static void _transition_finished_cb(void *data, Evas_Object *obj, void *event_info) {
  Elm_Object_Item *waiting = view_to_pop;
  view_to_pop = nullptr;
  is_popping = false;
  _update_window_title((appdata *)data);
  if (waiting && elm_naviframe_top_item_get(obj) == waiting) brisel_util_pop_view(obj);
  brisel_view_focus_list(obj);
  /* What pages and their texts took goes back to the system, not only to the next page. */
  if (elm_naviframe_top_item_get(obj) != elm_naviframe_bottom_item_get(obj)) return;
  brisel_db_give_back();
  app_efl_memory_trim_drawn();
}

/* A second press of Back while a view slides out is meant for that view: it must not reach the mailbox and send the
   application away. */
static void _naviframe_back_cb(void *data, Evas_Object *obj, void *event_info) {
  if (is_popping && elm_naviframe_top_item_get(obj) == elm_naviframe_bottom_item_get(obj)) return;
  brisel_util_pop_view(obj);
}

static void _naviframe_more_cb(void *data, Evas_Object *obj, void *event_info) {
  Elm_Object_Item *top = elm_naviframe_top_item_get(obj);
  if (!top) return;
  Evas_Object *button = elm_object_item_part_content_get(top, "toolbar_more_btn");
  if (button)
    evas_object_smart_callback_call(button, "clicked", nullptr);
  else
    elm_object_item_signal_emit(top, "elm,action,more_event", "");
}

/* --- who listens is told of what can be seen, and of no view below it --- */

static appdata *told;       /* whose stack it is; NULL: there is none */
static Evas_Object *ground; /* what fills the window before; NULL: nothing */

/* What the stack puts a view's title and content on. */
static Evas_Object *_page_of(Elm_Object_Item *item) {
  const Evas_Object *content = item ? elm_object_item_part_content_get(item, "elm.swallow.content") : nullptr;
  return content ? elm_object_parent_widget_get(content) : nullptr;
}

static void _tell_below(bool is_covered) {
  if (ground) brisel_view_set_spoken(ground, !is_covered);
  if (!told) return;
  Elm_Object_Item *top = elm_naviframe_top_item_get(told->naviframe);
  Eina_List *items = elm_naviframe_items_get(told->naviframe);
  void *item = nullptr;
  EINA_LIST_FREE(items, item)
  if (Evas_Object *page = _page_of((Elm_Object_Item *)item)) brisel_view_set_spoken(page, item == top && !is_covered);
  Elm_Object_Item *bottom = elm_naviframe_bottom_item_get(told->naviframe);
  const Evas_Object *shown = bottom ? elm_object_item_part_content_get(bottom, "elm.swallow.content") : nullptr;
  for (Evas_Object *content : {told->mailbox_genlist, told->nocontents_layout})
    if (content) brisel_view_set_spoken(content, content == shown);
  /* Without mails the title is hidden. */
  if (told->delete_btn) brisel_view_set_spoken(told->delete_btn, shown != told->nocontents_layout);
}

void _tell_ground(Evas_Object *screen) {
  brisel_widget_ref_set(&ground, screen);
  brisel_view_tell(_tell_below);
}

void brisel_tell_list_in_view(appdata *ad) {
  told = ad->naviframe ? ad : nullptr;
  brisel_view_tell(_tell_below);
  const bool in_view = ad->naviframe && !ad->paused &&
                       elm_naviframe_top_item_get(ad->naviframe) == elm_naviframe_bottom_item_get(ad->naviframe);
  plexo_list_in_view(in_view ? ad->account_id : -1);
}

void _set_window_title(appdata *ad) {
  Elm_Object_Item *top = ad->naviframe ? elm_naviframe_top_item_get(ad->naviframe) : nullptr;
  const char *markup = top ? elm_object_item_text_get(top) : nullptr;
  scoped_text title(markup && *markup ? elm_entry_markup_to_utf8(markup) : nullptr);
  Evas_Object *page = _page_of(top);
  if (page && title) brisel_view_set_spoken_name(page, title.get());
  const char *name = page ? brisel_view_spoken_name(page) : nullptr;
  elm_win_title_set(ad->win_main, name ? name : brisel_util_get_text("IDS_HS_MBODY_EMAIL_M_APPLICATION_NAME_ABB3"));
}

void brisel_view_set_name(const brisel_view_head *head, const char *name) {
  if (Evas_Object *page = _page_of(head->navi_item)) brisel_view_set_spoken_name(page, name);
  if (brisel_view_on_top(head)) _set_window_title(head->ad);
}

void _update_window_title(appdata *ad) {
  _set_window_title(ad);
  brisel_tell_list_in_view(ad);
}

void _register_naviframe_callbacks(appdata *ad) {
  Evas_Object *naviframe = ad->naviframe;
  view_to_pop = nullptr;
  is_popping = false;
  evas_object_smart_callback_add(naviframe, "transition,finished", _transition_finished_cb, ad);
  ea_object_event_callback_add(naviframe, EA_CALLBACK_BACK, _naviframe_back_cb, nullptr);
  ea_object_event_callback_add(naviframe, EA_CALLBACK_MORE, _naviframe_more_cb, nullptr);
}
