/* Which mails have pages, and the turn from one to the next: the page array, the box, the paging scroller and the
   finger on it. The main file and gestures call it. */
#include "brisel-app-detail.h"

#include <cstring>

#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"

/* Seconds. */
constexpr double page_shift_delay = 0.2;
/* A page that is let go must have come to rest when the shift comes, wherever the finger left it. */
constexpr double page_settle_time = page_shift_delay;
/* A stroke sideways that ends within this many milliseconds turns the page, however short it was. */
constexpr unsigned flick_time = 300;
static const char part_scroller[] = "scroller";

detail_touch __brisel_detail_touch;

static bool __brisel_detail_is_at_end(const page_data *page) {
  if (!page || !page->scroller) return false;
  int content = 0, top = 0, view = 0;
  evas_object_geometry_get(page->detail_layout, nullptr, nullptr, nullptr, &content);
  elm_scroller_region_get(page->scroller, nullptr, &top, nullptr, &view);
  return top + view >= content;
}

static GList *__brisel_detail_get_list_by_mail_id(int mail_id, GList *list) {
  for (GList *node = list; node; node = node->next) {
    const item_data *row = (item_data *)node->data;
    if (row && row->mail_id == mail_id) return node;
  }
  return nullptr;
}

static bool __brisel_detail_is_before(int index) {
  return index < BRISEL_DETAIL_CUR_PAGE;
}

static void __brisel_detail_drop_page(brisel_detail_view *view_data, int index) {
  page_data *page = view_data->page_data[index];
  if (!page) return;
  view_data->page_data[index] = nullptr;
  Evas_Object *layout = page->page_layout;
  if (layout && view_data->box) elm_box_unpack(view_data->box, layout);
  __brisel_detail_free_page_data(page);
  if (layout) evas_object_del(layout);
}

/* Lays the box out: every page as wide as the view and as high, whatever its content asks for, and the box exactly as
   wide as its pages, so that the scroller finds them at whole pages. A box's own layout would let wide content push
   the pages out of step. */
static void __brisel_detail_box_layout_cb(Evas_Object *box, Evas_Object_Box_Data *priv, void *data) {
  int x = 0, y = 0, height = 0, width = 0, count = 0;
  evas_object_geometry_get(box, &x, &y, nullptr, &height);
  elm_scroller_page_size_get((Evas_Object *)data, &width, nullptr);
  for (Eina_List *cell = priv->children; cell; cell = cell->next, count++) {
    Evas_Object *page = ((Evas_Object_Box_Option *)eina_list_data_get(cell))->obj;
    evas_object_move(page, x + count * width, y);
    evas_object_resize(page, width, height);
  }
  evas_object_size_hint_min_set(box, count * width, 0);
}

static void __brisel_detail_fit_box(brisel_detail_view *view_data) {
  if (view_data->box) elm_box_recalculate(view_data->box);
}

GList *__brisel_detail_update_neighbor(GList *node, int index, brisel_detail_view *view_data) {
  if (index == BRISEL_DETAIL_CUR_PAGE) {
    BRISEL_WARN("Invalid parameter: index is for current page");
    return nullptr;
  }
  bool before = __brisel_detail_is_before(index);
  __brisel_detail_drop_page(view_data, index);
  while (node && ((item_data *)node->data)->security_locked) node = before ? node->prev : node->next;
  if (node) {
    page_data *page = __brisel_detail_draw_single_layout_by_mail_id(view_data, ((item_data *)node->data)->mail_id);
    view_data->page_data[index] = page;
    if (page && before) elm_box_pack_start(view_data->box, page->page_layout);
    if (page && !before) elm_box_pack_end(view_data->box, page->page_layout);
  }
  __brisel_detail_fit_box(view_data);
  return node;
}

static void __brisel_detail_show_current_page(brisel_detail_view *view_data) {
  page_data **pages = view_data->page_data;
  view_data->cur_page_index = !pages[BRISEL_DETAIL_PREV_PAGE] ? 0 : pages[BRISEL_DETAIL_PREV_PREV_PAGE] ? 2 : 1;
  if (!view_data->page_scroller || !view_data->box) return;
  /* The scroller shows no place that its content has not reached yet, so the box takes its new size first. */
  elm_box_recalculate(view_data->box);
  evas_smart_objects_calculate(evas_object_evas_get(view_data->box));
  elm_scroller_page_show(view_data->page_scroller, view_data->cur_page_index, 0);
}

/* The slots on one side of the current page, from the mail's node in the list outward. */
static void __brisel_detail_build_side(brisel_detail_view *view_data, GList *node, bool before) {
  int near_slot = before ? BRISEL_DETAIL_PREV_PAGE : BRISEL_DETAIL_NEXT_PAGE;
  int far_slot = before ? BRISEL_DETAIL_PREV_PREV_PAGE : BRISEL_DETAIL_NEXT_NEXT_PAGE;
  GList *used = __brisel_detail_update_neighbor(before ? node->prev : node->next, near_slot, view_data);
  GList *further = !used ? nullptr : before ? used->prev : used->next;
  __brisel_detail_update_neighbor(further, far_slot, view_data);
}

static void __brisel_detail_build_neighbors(brisel_detail_view *view_data, int mail_id) {
  GList *node = __brisel_detail_get_list_by_mail_id(mail_id, view_data->ad->mail_list);
  if (node) {
    /* Near pages first on both sides: a page's place in the box follows from those already there. */
    GList *prev = __brisel_detail_update_neighbor(node->prev, BRISEL_DETAIL_PREV_PAGE, view_data);
    GList *next = __brisel_detail_update_neighbor(node->next, BRISEL_DETAIL_NEXT_PAGE, view_data);
    __brisel_detail_update_neighbor(prev ? prev->prev : nullptr, BRISEL_DETAIL_PREV_PREV_PAGE, view_data);
    __brisel_detail_update_neighbor(next ? next->next : nullptr, BRISEL_DETAIL_NEXT_NEXT_PAGE, view_data);
  }
  __brisel_detail_show_current_page(view_data);
}

void __brisel_detail_draw_neighbors_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  evas_object_smart_callback_del_full(view_data->ad->naviframe, "transition,finished",
                                      __brisel_detail_draw_neighbors_cb, view_data);
  __brisel_detail_build_neighbors(view_data, view_data->mail_id);
}

int brisel_detail_update_neighbors(int mail_id, appdata *ad) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = __brisel_detail_retrieve_view_data(ad);
  if (!view_data) return 0;
  /* Pages are not pulled away from under a finger, nor while one is on its way in: the shift that is due, or the
     finger's lift, brings the neighbours up to date. */
  if (__brisel_detail_touch.is_mouse_down || __brisel_detail_touch.is_page_moving) {
    view_data->is_neighbor_update_due = 1;
    return 0;
  }
  __brisel_detail_build_neighbors(view_data, mail_id);
  return 0;
}

Eina_Bool brisel_detail_shows_mail(int mail_id, appdata *ad) {
  const brisel_detail_view *view_data =
      (const brisel_detail_view *)brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, ad);
  return view_data && __brisel_detail_find_page(view_data, mail_id) ? EINA_TRUE : EINA_FALSE;
}

/* Takes the page of a mail that became the current one into use. */
static void __brisel_detail_enter_page(brisel_detail_view *view_data, int mail_id, int is_read) {
  view_data->mail_id = mail_id;
  view_data->ad->mail_id = mail_id;
  if (!is_read) __brisel_detail_send_update_ind(view_data);
  __brisel_detail_update_pickover(view_data);
}

static Eina_Bool __brisel_detail_shift(brisel_detail_view *view_data, bool to_next) {
  page_data **pages = view_data->page_data;
  int near_slot = to_next ? BRISEL_DETAIL_NEXT_PAGE : BRISEL_DETAIL_PREV_PAGE;
  int far_slot = to_next ? BRISEL_DETAIL_NEXT_NEXT_PAGE : BRISEL_DETAIL_PREV_PREV_PAGE;
  view_data->page_timer = nullptr;

  if (pages[near_slot]) {
    __brisel_detail_update_neighbor(nullptr, to_next ? BRISEL_DETAIL_PREV_PREV_PAGE : BRISEL_DETAIL_NEXT_NEXT_PAGE,
                                    view_data);
    int mail_id = pages[near_slot]->mail_data->mail_id;
    int is_read = pages[near_slot]->mail_data->is_read;
    if (to_next)
      memmove(&pages[0], &pages[1], sizeof(pages[0]) * (BRISEL_DETAIL_PAGE_MAX - 1));
    else
      memmove(&pages[1], &pages[0], sizeof(pages[0]) * (BRISEL_DETAIL_PAGE_MAX - 1));
    pages[far_slot] = nullptr;
    __brisel_detail_enter_page(view_data, mail_id, is_read);

    GList *list = view_data->ad->mail_list;
    int near_id = pages[near_slot] ? pages[near_slot]->mail_data->mail_id : -1;
    GList *node = __brisel_detail_get_list_by_mail_id(near_id, list);
    if (pages[near_slot] && !node)
      BRISEL_ERROR("__brisel_detail_get_list_by_mail_id() failed! for mail_id:[%d]", near_id);
    if (node) {
      __brisel_detail_update_neighbor(to_next ? node->next : node->prev, far_slot, view_data);
    } else if (GList *current = __brisel_detail_get_list_by_mail_id(mail_id, list)) {
      /* The mail beside this one has left the list, or could not be shown when its page was due: paging goes on with
         what follows in the list now. When the current mail has left it too, there is nothing to go on with and the
         shift ends without an outer page. */
      __brisel_detail_build_side(view_data, current, !to_next);
    }
  }

  if (view_data->is_neighbor_update_due && !__brisel_detail_touch.is_mouse_down) {
    view_data->is_neighbor_update_due = 0;
    __brisel_detail_build_neighbors(view_data, view_data->mail_id);
  } else {
    __brisel_detail_show_current_page(view_data);
  }
  pages[BRISEL_DETAIL_CUR_PAGE]->more_msg_count = BRISEL_DETAIL_MORE_MSG_MAX;
  __brisel_detail_touch.is_page_moving = 0;
  return ECORE_CALLBACK_CANCEL;
}

Eina_Bool __brisel_detail_page_to_next_timer_cb(void *data) {
  BRISEL_INFO("Enter");
  return __brisel_detail_shift((brisel_detail_view *)data, true);
}

Eina_Bool __brisel_detail_page_to_previous_timer_cb(void *data) {
  BRISEL_INFO("Enter");
  return __brisel_detail_shift((brisel_detail_view *)data, false);
}

/* Whether the box has the size that its pages need. Until then the scroller stands where it can, not where it should.
 */
static bool __brisel_detail_is_box_laid_out(const brisel_detail_view *view_data) {
  int width = 0, page_width = 0, count = 0;
  for (const page_data *page : view_data->page_data)
    if (page) count++;
  if (view_data->box) evas_object_geometry_get(view_data->box, nullptr, nullptr, &width, nullptr);
  elm_scroller_page_size_get(view_data->page_scroller, &page_width, nullptr);
  return page_width > 0 && width == page_width * count;
}

void __brisel_detail_box_resize_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (!__brisel_detail_touch.is_mouse_down && !__brisel_detail_touch.is_page_moving &&
      __brisel_detail_is_box_laid_out(view_data))
    elm_scroller_page_show(view_data->page_scroller, view_data->cur_page_index, 0);
}

void __brisel_detail_page_scroller_scroll_cb(void *data, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (__brisel_detail_touch.is_mouse_down || __brisel_detail_touch.is_page_moving ||
      !__brisel_detail_is_box_laid_out(view_data))
    return;
  int page = 0;
  elm_scroller_current_page_get(obj, &page, nullptr);
  if (page == view_data->cur_page_index) return;
  view_data->page_timer = ecore_timer_add(page_shift_delay,
                                          view_data->cur_page_index > page ? __brisel_detail_page_to_previous_timer_cb
                                                                           : __brisel_detail_page_to_next_timer_cb,
                                          view_data);
  __brisel_detail_touch.is_page_moving = 1;
}

void __brisel_detail_page_scroller_mouse_down_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  __brisel_detail_touch.is_mouse_down = 1;
  const Evas_Event_Mouse_Down *event = (const Evas_Event_Mouse_Down *)event_info;
  view_data->pressed_at = event->canvas;
  view_data->pressed_time = event->timestamp;
  view_data->pressed_at_end = __brisel_detail_is_at_end(view_data->page_data[BRISEL_DETAIL_CUR_PAGE]);
}

/* An edge is told when it is reached: never on a page that fits into the view, and not again on one that stays at its
   end. Pulling such a page up asks for more text. */
static void __brisel_detail_pull(brisel_detail_view *view_data) {
  page_data *page = view_data->page_data[BRISEL_DETAIL_CUR_PAGE];
  if (view_data->pressed_at_end && page && page->scroller)
    __brisel_detail_scroller_bottom_hit_cb(view_data, page->scroller, nullptr);
}

/* The scroller goes to the page that shows most when the finger leaves it. A quick stroke means the next page even when
   little of it shows yet. */
static void __brisel_detail_flick(brisel_detail_view *view_data, bool to_next) {
  int target = view_data->cur_page_index + (to_next ? 1 : -1), last = -1;
  for (const page_data *page : view_data->page_data)
    if (page) last++;
  if (target >= 0 && target <= last) elm_scroller_page_bring_in(view_data->page_scroller, target, 0);
}

static void __brisel_detail_check_stroke(brisel_detail_view *view_data, const Evas_Event_Mouse_Up *event) {
  if (__brisel_detail_touch.is_page_moving || elm_object_scroll_freeze_get(view_data->page_scroller) > 0) return;
  int left = view_data->pressed_at.x - event->canvas.x, up = view_data->pressed_at.y - event->canvas.y;
  int long_enough = 2 * elm_config_finger_size_get();
  if (up >= long_enough && up > abs(left)) __brisel_detail_pull(view_data);
  if (abs(left) >= long_enough && abs(left) > abs(up) && event->timestamp - view_data->pressed_time <= flick_time)
    __brisel_detail_flick(view_data, left > 0);
}

static Eina_Bool __brisel_detail_neighbor_timer_cb(void *data) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  view_data->neighbor_timer = nullptr;
  if (!view_data->is_neighbor_update_due || __brisel_detail_touch.is_mouse_down || __brisel_detail_touch.is_page_moving)
    return ECORE_CALLBACK_CANCEL;
  view_data->is_neighbor_update_due = 0;
  __brisel_detail_build_neighbors(view_data, view_data->mail_id);
  return ECORE_CALLBACK_CANCEL;
}

void __brisel_detail_page_scroller_mouse_up_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  __brisel_detail_touch.is_mouse_down = 0;
  __brisel_detail_check_stroke(view_data, (const Evas_Event_Mouse_Up *)event_info);
  if (view_data->is_neighbor_update_due && !view_data->neighbor_timer)
    view_data->neighbor_timer =
        ecore_timer_add(page_settle_time + page_shift_delay, __brisel_detail_neighbor_timer_cb, view_data);
}

void __brisel_detail_page_layout_resize_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (!view_data->page_scroller) return;
  int width = 0, height = 0, old_width = 0;
  evas_object_geometry_get(obj, nullptr, nullptr, &width, &height);
  elm_scroller_page_size_get(view_data->page_scroller, &old_width, nullptr);
  elm_scroller_page_size_set(view_data->page_scroller, width, height);
  if (width == old_width || !view_data->page_data[BRISEL_DETAIL_CUR_PAGE]) return;
  /* Pages that were packed for another width, or before there was one. */
  __brisel_detail_fit_box(view_data);
  elm_scroller_page_show(view_data->page_scroller, view_data->cur_page_index, 0);
}

void __brisel_detail_create_layout_page_scroller(brisel_detail_view *view_data) {
  Evas_Object *layout = __brisel_detail_create_layout(view_data->ad->naviframe, "brisel/detail/page_scroller");
  if (!layout) return;
  brisel_widget_ref_set(&view_data->page_scroller_layout, layout);
  /* Nothing in the reader takes the keyboard's focus. It would go to a button of some page, and the scroller would
     bring that page into view: the reader would turn to a mail that nobody asked for, and tell the phone that it is
     read. */
  elm_object_tree_focus_allow_set(layout, EINA_FALSE);
  evas_object_event_callback_add(layout, EVAS_CALLBACK_RESIZE, __brisel_detail_page_layout_resize_cb, view_data);
}

void __brisel_detail_create_page_scroller(brisel_detail_view *view_data) {
  Evas_Object *scroller = __brisel_detail_create_scroller(view_data->ad->naviframe);
  if (!scroller) return;
  brisel_widget_ref_set(&view_data->page_scroller, scroller);
  /* A stroke to the left shows the next mail in every language, and the pages lie accordingly. A mirrored scroller
     would count them from the other side. */
  elm_object_mirrored_automatic_set(scroller, EINA_FALSE);
  elm_object_mirrored_set(scroller, EINA_FALSE);
  elm_scroller_loop_set(scroller, EINA_FALSE, EINA_FALSE);
  elm_scroller_page_relative_set(scroller, 1.0, 0.0);
  elm_scroller_page_scroll_limit_set(scroller, 1, 0);
  elm_scroller_bounce_set(scroller, EINA_TRUE, EINA_FALSE);
  elm_scroller_policy_set(scroller, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_OFF);
  elm_config_scroll_page_scroll_friction_set(page_settle_time);
  evas_object_smart_callback_add(scroller, "scroll", __brisel_detail_page_scroller_scroll_cb, view_data);
  evas_object_event_callback_add(scroller, EVAS_CALLBACK_MOUSE_DOWN, __brisel_detail_page_scroller_mouse_down_cb,
                                 view_data);
  evas_object_event_callback_add(scroller, EVAS_CALLBACK_MOUSE_UP, __brisel_detail_page_scroller_mouse_up_cb,
                                 view_data);
  elm_object_part_content_set(view_data->page_scroller_layout, part_scroller, scroller);
}

void __brisel_detail_create_box(brisel_detail_view *view_data) {
  Evas_Object *box = elm_box_add(view_data->page_scroller);
  if (!box) {
    BRISEL_ERROR("elm_box_add() failed!");
    return;
  }
  brisel_widget_ref_set(&view_data->box, box);
  elm_box_horizontal_set(box, EINA_TRUE);
  elm_box_layout_set(box, __brisel_detail_box_layout_cb, view_data->page_scroller, nullptr);
  __brisel_detail_fill_both_ways(box);
  evas_object_event_callback_add(box, EVAS_CALLBACK_RESIZE, __brisel_detail_box_resize_cb, view_data);
  elm_object_content_set(view_data->page_scroller, box);
}
