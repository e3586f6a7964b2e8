/* Which mails have pages, and which page is the current one: the page array, the box, the paging scroller and where it
   stands. One function, __brisel_detail_settle, decides from what is on screen after every touch, scroll, timer and
   resize; whoever acts on a mail asks __brisel_detail_page_on_screen. The main file, touches and gestures call it. */
#define EFL_BETA_API_SUPPORT /* for a place between two pages */
#include "brisel-app-detail.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "brisel-app-stage.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"

/* Seconds from the moment another page shows most until the one that came to rest is taken over. */
constexpr double page_shift_delay = 0.2;
/* A page that is let go must have come to rest by then, wherever the finger left it. */
constexpr double page_settle_time = page_shift_delay;
/* Nearer than this, in pixels, no slide is seen. It would stay at its last pixel for longer than the time after which
   the page is looked at and, as it stands beside its place, brought in anew: for ever. */
constexpr double least_slide = 4;
static const char part_scroller[] = "scroller";

detail_touch __brisel_detail_touch;

static GList *__brisel_detail_get_list_by_mail_id(int mail_id, GList *list) {
  for (GList *node = list; node; node = node->next) {
    const item_data *row = (item_data *)node->data;
    if (row && row->mail_id == mail_id) return node;
  }
  return nullptr;
}

/* --- slots, and places in the box --- */

/* How many pages stand before the slot's. */
static int __brisel_detail_place_of_slot(const brisel_detail_view *view_data, int slot) {
  int place = 0;
  for (int i = 0; i < slot; i++)
    if (view_data->page_data[i]) place++;
  return place;
}

page_data *__brisel_detail_page_at(const brisel_detail_view *view_data, int place) {
  for (page_data *page : view_data->page_data)
    if (page && place-- == 0) return page;
  return nullptr;
}

int __brisel_detail_place_of_mail(const brisel_detail_view *view_data, int mail_id) {
  for (int slot = 0; slot < BRISEL_DETAIL_PAGE_MAX; slot++) {
    const page_data *page = view_data->page_data[slot];
    if (page && page->mail_data->mail_id == mail_id) return __brisel_detail_place_of_slot(view_data, slot);
  }
  return -1;
}

/* Whether the box has the size that its pages need. Until then the scroller stands where it can, not where it should.
 */
static bool __brisel_detail_is_box_laid_out(const brisel_detail_view *view_data) {
  int width = 0;
  if (view_data->box) evas_object_geometry_get(view_data->box, nullptr, nullptr, &width, nullptr);
  return view_data->page_width > 0 &&
         width == view_data->page_width * __brisel_detail_place_of_slot(view_data, BRISEL_DETAIL_PAGE_MAX);
}

double __brisel_detail_place_on_screen(const brisel_detail_view *view_data) {
  int x = 0;
  elm_scroller_region_get(view_data->page_scroller, &x, nullptr, nullptr, nullptr);
  return view_data->page_width > 0 ? (double)x / view_data->page_width : 0;
}

/* The scroller shows no place that its content has not reached yet, so the box takes its new size first. */
static void __brisel_detail_lay_box_out(brisel_detail_view *view_data) {
  elm_box_recalculate(view_data->box);
  evas_smart_objects_calculate(evas_object_evas_get(view_data->box));
}

void __brisel_detail_hold_pages(brisel_detail_view *view_data, int x) {
  elm_scroller_region_show(view_data->page_scroller, x, 0, view_data->page_width, 1);
  /* That ends a movement, but at a whole page. */
  elm_interface_scrollable_content_pos_set(view_data->page_scroller, x, 0, EINA_TRUE);
}

/* Jumps to the current page. */
static void __brisel_detail_show_current_page(brisel_detail_view *view_data) {
  view_data->cur_page_index = __brisel_detail_place_of_slot(view_data, BRISEL_DETAIL_CUR_PAGE);
  view_data->aimed_id = view_data->mail_id;
  if (!view_data->page_scroller || !view_data->box) return;
  __brisel_detail_lay_box_out(view_data);
  elm_scroller_page_show(view_data->page_scroller, view_data->cur_page_index, 0);
}

void __brisel_detail_aim_at(brisel_detail_view *view_data, int place) {
  page_data *page = __brisel_detail_page_at(view_data, place);
  if (!page || !__brisel_detail_finish_page(view_data, page)) return;
  view_data->aimed_id = page->mail_data->mail_id;
  view_data->seen_at = -1; /* until its first frame it stands still, and that may take long */
  if (std::abs(__brisel_detail_place_on_screen(view_data) - place) * view_data->page_width < least_slide)
    elm_scroller_page_show(view_data->page_scroller, place, 0);
  else
    elm_scroller_page_bring_in(view_data->page_scroller, place, 0);
}

/* --- the box --- */

/* Lays the box out: every page as wide as the view and as high, whatever its content asks for, and the box exactly as
   wide as its pages, so that the scroller finds them at whole pages. A box's own layout would let wide content push
   the pages out of step. The width is the box's own record: the box slides out when the view has ended. */
static void __brisel_detail_box_layout_cb(Evas_Object *box, Evas_Object_Box_Data *priv, void *data) {
  const int width = *(const int *)data;
  int x = 0, y = 0, height = 0, count = 0;
  evas_object_geometry_get(box, &x, &y, nullptr, &height);
  for (Eina_List *cell = priv->children; cell; cell = cell->next, count++) {
    Evas_Object *page = ((Evas_Object_Box_Option *)eina_list_data_get(cell))->obj;
    evas_object_move(page, x + count * width, y);
    evas_object_resize(page, width, height);
  }
  evas_object_size_hint_min_set(box, count * width, 0);
}

static void __brisel_detail_drop_page(brisel_detail_view *view_data, page_data *page) {
  Evas_Object *layout = page->page_layout;
  if (layout && view_data->box) elm_box_unpack(view_data->box, layout);
  __brisel_detail_free_page_data(page);
  if (layout) __brisel_detail_let_go(view_data, layout);
}

/* The box holds the slots' pages in their order. Those that it has stay in it: to take all out and put them in again is
   a quarter of what a turned page costs at once. */
static void __brisel_detail_pack(brisel_detail_view *view_data) {
  Eina_List *packed = elm_box_children_get(view_data->box);
  Evas_Object *before = nullptr;
  for (const page_data *page : view_data->page_data) {
    if (!page) continue;
    if (!eina_list_data_find(packed, page->page_layout)) {
      if (before)
        elm_box_pack_after(view_data->box, page->page_layout, before);
      else
        elm_box_pack_start(view_data->box, page->page_layout);
    }
    before = page->page_layout;
  }
  eina_list_free(packed);
  Eina_List *cell = packed = elm_box_children_get(view_data->box);
  bool is_right = true;
  for (const page_data *page : view_data->page_data) {
    if (!page) continue;
    is_right = is_right && cell && eina_list_data_get(cell) == page->page_layout;
    cell = eina_list_next(cell);
  }
  is_right = is_right && !cell;
  eina_list_free(packed);
  if (is_right) return;
  elm_box_unpack_all(view_data->box);
  for (const page_data *page : view_data->page_data)
    if (page) elm_box_pack_end(view_data->box, page->page_layout);
}

/* --- which mails have pages --- */

void __brisel_detail_tell_page(brisel_detail_view *view_data) {
  page_data *current = view_data->page_data[BRISEL_DETAIL_CUR_PAGE];
  if (!current) return;
  for (const page_data *page : view_data->page_data)
    if (page) brisel_view_set_spoken(page->page_layout, page == current);
  if (brisel_view_is_spoken()) __brisel_detail_finish_rest(view_data, current);
  const char *sender = brisel_view_sender(current->mail_data);
  brisel_view_set_name(view_data, sender ? sender : "");
  __brisel_detail_offer(view_data);
}

/* A page that stands already, out of those that were there before the slots are filled anew. */
static page_data *__brisel_detail_take_standing(brisel_detail_view *view_data, int mail_id) {
  for (page_data *&page : view_data->standing) {
    if (!page || page->mail_data->mail_id != mail_id) continue;
    page_data *found = page;
    page = nullptr;
    return found;
  }
  return nullptr;
}

GList *__brisel_detail_update_neighbor(GList *node, int index, brisel_detail_view *view_data) {
  if (index == BRISEL_DETAIL_CUR_PAGE) {
    BRISEL_WARN("Invalid parameter: index is for current page");
    return nullptr;
  }
  bool before = index < BRISEL_DETAIL_CUR_PAGE;
  while (node && ((item_data *)node->data)->security_locked) node = before ? node->prev : node->next;
  if (!node) return nullptr;
  int mail_id = ((item_data *)node->data)->mail_id;
  page_data *page = __brisel_detail_take_standing(view_data, mail_id);
  view_data->page_data[index] = page ? page : __brisel_detail_draw_bare_page(view_data, mail_id);
  return node;
}

/* The box has other pages than before: what is on screen, so many pages from the current one, stays where it is, and a
   page that moved there moves on to where it was aimed at. */
static void __brisel_detail_stand(brisel_detail_view *view_data, double off) {
  view_data->cur_page_index = __brisel_detail_place_of_slot(view_data, BRISEL_DETAIL_CUR_PAGE);
  if (__brisel_detail_place_of_mail(view_data, view_data->aimed_id) < 0) view_data->aimed_id = view_data->mail_id;
  __brisel_detail_lay_box_out(view_data);
  const int last = __brisel_detail_place_of_slot(view_data, BRISEL_DETAIL_PAGE_MAX) - 1;
  const double place = std::clamp(view_data->cur_page_index + off, 0.0, (double)last);
  __brisel_detail_hold_pages(view_data, (int)(place * view_data->page_width + 0.5));
  const int aimed = __brisel_detail_place_of_mail(view_data, view_data->aimed_id);
  if (__brisel_detail_is_held() || !__brisel_detail_is_box_laid_out(view_data) ||
      __brisel_detail_place_on_screen(view_data) == aimed)
    return;
  __brisel_detail_aim_at(view_data, aimed);
  __brisel_detail_settle_soon(view_data);
}

/* Makes a page that stands the current one, and fills the slots around it by the list: what stands and is still wanted
   stays as it is. What is on screen stays at its place. When the list does not hold the current mail (any more), the
   pages that stand are all there is to turn to. */
static void __brisel_detail_arrange(brisel_detail_view *view_data, page_data *current) {
  if (!__brisel_detail_finish_page(view_data, current)) return;
  page_data **pages = view_data->page_data, **standing = view_data->standing;
  int mail_id = current->mail_data->mail_id;
  double off = __brisel_detail_place_on_screen(view_data) - __brisel_detail_place_of_mail(view_data, mail_id);
  memcpy(standing, pages, sizeof(view_data->page_data));
  memset(pages, 0, sizeof(view_data->page_data));
  int old_slot = (int)(std::find(standing, standing + BRISEL_DETAIL_PAGE_MAX, current) - standing);
  pages[BRISEL_DETAIL_CUR_PAGE] = current;
  standing[old_slot] = nullptr;
  brisel_complete_mail_list_around(mail_id, BRISEL_DETAIL_PAGE_MAX - BRISEL_DETAIL_CUR_PAGE - 1, view_data->ad);
  view_data->lacks_page = !current->is_built;
  const auto fill = [&](GList *node, int slot) {
    GList *used = __brisel_detail_update_neighbor(node, slot, view_data);
    if (used && !pages[slot]) view_data->lacks_page = 1;
    return used;
  };
  if (GList *node = __brisel_detail_get_list_by_mail_id(mail_id, view_data->ad->mail_list)) {
    GList *prev = fill(node->prev, BRISEL_DETAIL_PREV_PAGE), *next = fill(node->next, BRISEL_DETAIL_NEXT_PAGE);
    fill(prev ? prev->prev : nullptr, BRISEL_DETAIL_PREV_PREV_PAGE);
    fill(next ? next->next : nullptr, BRISEL_DETAIL_NEXT_NEXT_PAGE);
  } else {
    BRISEL_ERROR("__brisel_detail_get_list_by_mail_id() failed! for mail_id:[%d]", mail_id);
    for (int slot = 0; slot < BRISEL_DETAIL_PAGE_MAX; slot++) {
      int from = slot + old_slot - BRISEL_DETAIL_CUR_PAGE;
      if (from < 0 || from >= BRISEL_DETAIL_PAGE_MAX || !standing[from]) continue;
      pages[slot] = standing[from];
      standing[from] = nullptr;
    }
  }
  for (page_data *&page : view_data->standing) {
    if (page) __brisel_detail_drop_page(view_data, page);
    page = nullptr;
  }
  __brisel_detail_pack(view_data);
  view_data->mail_id = mail_id;
  view_data->ad->mail_id = mail_id;
  view_data->is_neighbor_update_due = 0;
  view_data->has_neighbors = 1;
  __brisel_detail_stand(view_data, off);
  __brisel_detail_build_soon(view_data);
  __brisel_detail_tell_page(view_data);
}

void __brisel_detail_lose_page(brisel_detail_view *view_data, page_data *page) {
  const double off =
      __brisel_detail_place_on_screen(view_data) - __brisel_detail_place_of_mail(view_data, view_data->mail_id);
  *std::find(view_data->page_data, view_data->page_data + BRISEL_DETAIL_PAGE_MAX, page) = nullptr;
  __brisel_detail_drop_page(view_data, page);
  view_data->lacks_page = 1;
  __brisel_detail_stand(view_data, off);
}

void __brisel_detail_turn_to_aimed(brisel_detail_view *view_data) {
  page_data *aimed = __brisel_detail_find_page(view_data, view_data->aimed_id);
  if (aimed && aimed != view_data->page_data[BRISEL_DETAIL_CUR_PAGE]) __brisel_detail_arrange(view_data, aimed);
}

void __brisel_detail_follow_list(brisel_detail_view *view_data) {
  if (view_data->is_neighbor_update_due || !view_data->has_neighbors || view_data->lacks_page)
    __brisel_detail_arrange(view_data, view_data->page_data[BRISEL_DETAIL_CUR_PAGE]);
}

bool __brisel_detail_has_gone(const brisel_detail_view *view_data, int place) {
  const page_data *page = view_data->is_neighbor_update_due ? __brisel_detail_page_at(view_data, place) : nullptr;
  if (!page || page == view_data->page_data[BRISEL_DETAIL_CUR_PAGE]) return false;
  const GList *node = __brisel_detail_get_list_by_mail_id(page->mail_data->mail_id, view_data->ad->mail_list);
  return !node || ((const item_data *)node->data)->security_locked;
}

/* --- coming to rest --- */

static Eina_Bool __brisel_detail_page_timer_cb(void *data) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  view_data->page_timer = nullptr;
  __brisel_detail_settle(view_data);
  return ECORE_CALLBACK_CANCEL;
}

void __brisel_detail_stop_pages(brisel_detail_view *view_data) {
  if (view_data->page_timer) ecore_timer_del(view_data->page_timer);
  view_data->page_timer = nullptr;
  if (__brisel_detail_is_held()) return; /* the lift comes back here */
  const int place = __brisel_detail_place_of_mail(view_data, view_data->aimed_id);
  if (place >= 0 && __brisel_detail_is_box_laid_out(view_data) && __brisel_detail_place_on_screen(view_data) != place)
    elm_scroller_page_show(view_data->page_scroller, place, 0);
  __brisel_detail_turn_to_aimed(view_data);
}

void __brisel_detail_settle_soon(brisel_detail_view *view_data) {
  if (view_data->is_paused)
    __brisel_detail_stop_pages(view_data);
  else if (!view_data->page_timer)
    view_data->page_timer = ecore_timer_add(page_shift_delay, __brisel_detail_page_timer_cb, view_data);
}

/* A page that came to rest is the one that is read: only now it counts as visited. */
static void __brisel_detail_enter_page(brisel_detail_view *view_data) {
  page_data *page = view_data->page_data[BRISEL_DETAIL_CUR_PAGE];
  if (view_data->is_paused || view_data->entered_id == view_data->mail_id) return;
  view_data->entered_id = view_data->mail_id;
  page->more_msg_count = BRISEL_DETAIL_MORE_MSG_MAX;
  if (!page->mail_data->is_read) __brisel_detail_send_update_ind(view_data);
  __brisel_detail_update_pickover(view_data);
  __brisel_detail_tell_place(view_data);
  brisel_view_say(page->detail_layout);
}

void __brisel_detail_settle(brisel_detail_view *view_data) {
  /* The lift, or the box when it has its size, comes back here. */
  if (__brisel_detail_is_held() || !__brisel_detail_is_box_laid_out(view_data)) return;
  double stood_at = view_data->seen_at, place = __brisel_detail_place_on_screen(view_data);
  int nearest = (int)(place + 0.5);
  view_data->seen_at = place;
  if (place != nearest ||
      (place != stood_at && nearest != __brisel_detail_place_of_mail(view_data, view_data->aimed_id))) {
    /* On its way; or left between two pages by whatever stopped it. */
    if (place == stood_at) __brisel_detail_aim_at(view_data, nearest);
    __brisel_detail_settle_soon(view_data);
    return;
  }
  page_data *shown = __brisel_detail_page_at(view_data, nearest);
  if (!shown) return;
  view_data->aimed_id = shown->mail_data->mail_id;
  if (shown != view_data->page_data[BRISEL_DETAIL_CUR_PAGE] || view_data->is_neighbor_update_due)
    __brisel_detail_arrange(view_data, shown);
  __brisel_detail_enter_page(view_data);
}

page_data *__brisel_detail_page_on_screen(brisel_detail_view *view_data) {
  /* Under a finger the page is the one that it was put down on. */
  if (!__brisel_detail_is_held()) __brisel_detail_turn_to_aimed(view_data);
  return view_data->page_data[BRISEL_DETAIL_CUR_PAGE];
}

/* --- what comes from outside --- */

void __brisel_detail_draw_neighbors_cb(void *data, Evas_Object *obj, void *event_info) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  evas_object_smart_callback_del_full(view_data->ad->naviframe, "transition,finished",
                                      __brisel_detail_draw_neighbors_cb, view_data);
  if (view_data->has_neighbors) return; /* a touch was quicker */
  __brisel_detail_arrange(view_data, view_data->page_data[BRISEL_DETAIL_CUR_PAGE]);
  __brisel_detail_show_current_page(view_data);
}

int brisel_detail_update_neighbors(int mail_id, appdata *ad) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = __brisel_detail_retrieve_view_data(ad);
  if (!view_data) return 0;
  /* Pages are not pulled away from under a finger: its lift brings them up to date. */
  view_data->is_neighbor_update_due = 1;
  __brisel_detail_settle(view_data);
  return 0;
}

void brisel_detail_follow_screen(appdata *ad) {
  brisel_detail_view *view_data =
      (brisel_detail_view *)brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, ad);
  if (view_data) __brisel_detail_page_on_screen(view_data);
}

Eina_Bool brisel_detail_shows_mail(int mail_id, appdata *ad) {
  const brisel_detail_view *view_data =
      (const brisel_detail_view *)brisel_util_retrieve_view_data(BRISEL_VIEW_TYPE_DETAIL_VIEW, ad);
  return view_data && __brisel_detail_find_page(view_data, mail_id) ? EINA_TRUE : EINA_FALSE;
}

void __brisel_detail_box_resize_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (view_data->page_timer || !__brisel_detail_is_box_laid_out(view_data)) return;
  if (!__brisel_detail_touch.is_mouse_down)
    elm_scroller_page_show(view_data->page_scroller, view_data->cur_page_index, 0);
  if (view_data->is_neighbor_update_due) __brisel_detail_settle_soon(view_data);
}

void __brisel_detail_page_scroller_scroll_cb(void *data, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  /* A finger may be quicker than the idle loop. */
  const double place = __brisel_detail_place_on_screen(view_data);
  for (double seen : {std::floor(place), std::ceil(place)})
    if (page_data *page = __brisel_detail_page_at(view_data, (int)seen))
      if (!__brisel_detail_finish_page(view_data, page)) return;
  if (!__brisel_detail_touch.is_mouse_down && __brisel_detail_is_box_laid_out(view_data))
    __brisel_detail_settle_soon(view_data);
}

void __brisel_detail_page_layout_resize_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (!view_data->page_scroller) return;
  int width = 0, height = 0, old_width = view_data->page_width;
  evas_object_geometry_get(obj, nullptr, nullptr, &width, &height);
  view_data->page_width = width;
  if (view_data->box) *view_data->box_page_width = width;
  elm_scroller_page_size_set(view_data->page_scroller, width, height);
  for (page_data *page : view_data->page_data) {
    if (!page || !page->detail_layout || (page->width == width && page->height == height)) continue;
    page->width = width;
    page->height = height;
    __brisel_detail_set_subject(page);
  }
  if (view_data->has_neighbors) __brisel_detail_build_soon(view_data); /* a larger view may show their ends */
  if (width == old_width || !view_data->page_data[BRISEL_DETAIL_CUR_PAGE]) return;
  /* Pages that were packed for another width, or before there was one. */
  elm_box_recalculate(view_data->box);
  elm_scroller_page_show(view_data->page_scroller, view_data->cur_page_index, 0);
  __brisel_detail_settle_soon(view_data);
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
  brisel_stage_set_style(scroller, nullptr);
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
  __brisel_detail_watch_touches(view_data);
  elm_object_part_content_set(view_data->page_scroller_layout, part_scroller, scroller);
}

void __brisel_detail_create_box(brisel_detail_view *view_data) {
  Evas_Object *box = elm_box_add(view_data->page_scroller);
  if (!box) {
    BRISEL_ERROR("elm_box_add() failed!");
    return;
  }
  int *width = (int *)calloc(1, sizeof(int));
  if (!width) {
    BRISEL_ERROR("Failed to allocate memory for the box's width!");
    evas_object_del(box);
    return;
  }
  *width = view_data->page_width;
  view_data->box_page_width = width;
  brisel_widget_ref_set(&view_data->box, box);
  elm_box_horizontal_set(box, EINA_TRUE);
  elm_box_layout_set(box, __brisel_detail_box_layout_cb, width, free);
  __brisel_detail_fill_both_ways(box);
  evas_object_event_callback_add(box, EVAS_CALLBACK_RESIZE, __brisel_detail_box_resize_cb, view_data);
  elm_object_content_set(view_data->page_scroller, box);
}
