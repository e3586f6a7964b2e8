/* Building pages: the one that is opened at once, those beside it step by step while the loop is idle, so that no frame
   waits for them. A page stands in its slot from the first step on; what is needed sooner is built to its end then.
   It is built of the beginning of a long body: the rest comes, a piece with each step, when it is the one that is read,
   and so do the buttons below a text that is longer than the screen. Paging and the main file call it. */
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <utility>

#include "brisel-app-detail-body.h"
#include "brisel-app-detail.h"
#include "brisel-app-stage.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"

/* Of a body, for the first screens: a multiple of what they show, so that folds find their ends. */
constexpr int beginning_bytes = 16 << 10;
static const char part_scroller[] = "scroller";

/* --- the steps --- */

/* Without its body, which may be long. */
static bool __brisel_detail_is_in_store(int mail_id) {
  GSList *rows = nullptr;
  int count = 0;
  const int result = brisel_db_get_noti_rows_by_mail_ids(&mail_id, 1, &rows, &count);
  brisel_full_noti_data_list_free(rows);
  return result == 0 && count > 0;
}

int __brisel_detail_read(const brisel_detail_view *view_data, const page_data *page, full_noti_data *mail,
                         unsigned char *rest) {
  const int mail_id = page->mail_data->mail_id;
  const bool is_begun = !page->has_mail || page->rest == DETAIL_REST_IN_STORE;
  *rest = DETAIL_REST_NONE; /* which may be the page's */
  if (!is_begun || page->wanted == INT_MAX || brisel_view_is_spoken() || __brisel_detail_is_waiting(view_data, page))
    return brisel_db_get_full_noti_data_by_mail_id(mail_id, mail);
  int is_whole = 1;
  const int result = brisel_db_get_noti_beginning_by_mail_id(mail_id, page->wanted, mail, &is_whole);
  if (!is_whole) *rest = DETAIL_REST_IN_STORE;
  return result;
}

static bool __brisel_detail_read_mail(const brisel_detail_view *view_data, page_data *page) {
  const int result = __brisel_detail_read(view_data, page, page->mail_data, &page->rest);
  page->has_mail = result == 0;
  if (result != 0) BRISEL_ERROR("brisel_db_get_full_noti_data_by_mail_id() failed! err:[%d]", result);
  return result == 0;
}

/* Of a body that cannot be read in pieces, or was another one in the midst of them. */
static bool __brisel_detail_read_whole(const brisel_detail_view *view_data, page_data *page) {
  __brisel_detail_free_text(page);
  page->wanted = INT_MAX;
  return __brisel_detail_read_mail(view_data, page);
}

page_data *__brisel_detail_draw_bare_page(brisel_detail_view *view_data, int mail_id) {
  BRISEL_INFO("Enter");
  page_data *page = (page_data *)calloc(1, sizeof(page_data));
  if (!page) {
    BRISEL_ERROR("Failed to allocate memory for page_data!");
    return nullptr;
  }
  page->ad = view_data->ad;
  page->more_msg_count = BRISEL_DETAIL_MORE_MSG_MAX;
  page->wanted = beginning_bytes;
  page->mail_data = brisel_full_noti_data_create();
  if (!page->mail_data) {
    BRISEL_ERROR("brisel_db_full_noti_data_create() failed!");
    free(page);
    return nullptr;
  }
  page->mail_data->mail_id = mail_id;
  if (__brisel_detail_is_in_store(mail_id) || __brisel_detail_read_mail(view_data, page)) {
    const char *group = brisel_stage_style() ? "brisel/detail/single_scroller/round" : "brisel/detail/single_scroller";
    if (Evas_Object *root = __brisel_detail_create_layout(view_data->box, group))
      brisel_widget_ref_set(&page->page_layout, root);
    else
      BRISEL_ERROR("__brisel_detail_create_layout_single_scroller() failed!");
  }
  if (page->page_layout) return page;
  __brisel_detail_free_page_data(page);
  return nullptr;
}

static bool __brisel_detail_frame_page(brisel_detail_view *view_data, page_data *page) {
  Evas_Object *title = __brisel_detail_create_layout_detail_view_title(view_data, page);
  if (!title) return false;
  elm_object_part_content_set(page->page_layout, "title", title);
  Evas_Object *scroller = __brisel_detail_create_scroller(page->page_layout);
  if (!scroller) {
    BRISEL_ERROR("__brisel_detail_create_scroller() failed!");
    return false;
  }
  brisel_widget_ref_set(&page->scroller, scroller);
  elm_scroller_bounce_set(scroller, EINA_FALSE, EINA_TRUE);
  elm_scroller_policy_set(scroller, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
  evas_object_smart_callback_add(scroller, "edge,bottom", __brisel_detail_scroller_bottom_hit_cb, view_data);
  elm_object_part_content_set(page->page_layout, part_scroller, scroller);
  return true;
}

static bool __brisel_detail_fill_page(brisel_detail_view *view_data, page_data *page) {
  Evas_Object *detail = __brisel_detail_create_layout(page->scroller, "brisel/detail");
  if (!detail) {
    BRISEL_ERROR("__brisel_detail_create_detail_view_layout() failed!");
    return false;
  }
  brisel_widget_ref_set(&page->detail_layout, detail);
  /* The first page is built before its view has a size. Texts that come into a layout without one would be laid out
     for no width at all, and once more for theirs. */
  evas_object_geometry_get(view_data->page_width > 0 ? view_data->page_scroller_layout : view_data->ad->naviframe,
                           nullptr, nullptr, &page->width, &page->height);
  evas_object_resize(detail, page->width, page->height);
  evas_object_hide(detail); /* until it has its place: it would lie over the page that is read, and take its touches */
  brisel_detail_body_attach(detail, page->scroller);
  __brisel_detail_draw_view_components(view_data, page);
  return true;
}

/* The next step of a page: what it has says which. False when it failed, which is logged. */
static bool __brisel_detail_build_on(brisel_detail_view *view_data, page_data *page) {
  if (page->is_stale) {
    page->is_stale = 0;
    __brisel_detail_renew_page(view_data, page);
    return true;
  }
  if (!page->has_mail) return __brisel_detail_read_mail(view_data, page);
  if (!page->scroller) return __brisel_detail_frame_page(view_data, page);
  if (!page->text) {
    __brisel_detail_read_body(page);
    return true;
  }
  if (!page->detail_layout && page->rest == DETAIL_REST_IN_STORE && !__brisel_detail_is_beginning_enough(page))
    return __brisel_detail_read_on(page) || __brisel_detail_read_whole(view_data, page);
  if (!page->detail_layout) return __brisel_detail_fill_page(view_data, page);
  if (page->is_built)
    __brisel_detail_draw_buttons(view_data, page);
  else
    brisel_detail_body_place(page->detail_layout);
  page->is_built = 1;
  return true;
}

static bool __brisel_detail_is_unbuilt(const page_data *page) {
  return !page->is_built || page->is_stale || __brisel_detail_wants_buttons(page);
}

static bool __brisel_detail_build_whole(brisel_detail_view *view_data, page_data *page) {
  while (__brisel_detail_is_unbuilt(page))
    if (!__brisel_detail_build_on(view_data, page)) return false;
  return true;
}

static bool __brisel_detail_has_rest(const page_data *page) {
  return page->rest != DETAIL_REST_NONE && !page->is_rest_lost;
}

static bool __brisel_detail_is_unfinished(const page_data *page) {
  return page->is_built && (__brisel_detail_has_rest(page) || page->lacks_buttons);
}

/* The next step to what is left of the page that is read. */
static bool __brisel_detail_rest_on(brisel_detail_view *view_data, page_data *page) {
  if (!__brisel_detail_has_rest(page)) {
    __brisel_detail_draw_buttons(view_data, page);
    return true;
  }
  bool is_other = false;
  const bool is_read = __brisel_detail_read_rest(page, &is_other);
  if (is_other) {
    page->is_stale = 1;
    __brisel_detail_finish_page(view_data, page); /* it may have other fields, for which it is laid out anew */
  }
  page->is_rest_lost = !is_read && !is_other;
  if (page->rest == DETAIL_REST_NONE && page->is_built) __brisel_detail_draw_device_notice(page);
  return !page->is_rest_lost;
}

void __brisel_detail_finish_rest(brisel_detail_view *view_data, page_data *page) {
  page->is_rest_lost = 0;
  if (!__brisel_detail_is_unfinished(page)) return;
  while (__brisel_detail_is_unfinished(page)) __brisel_detail_rest_on(view_data, page);
  /* Its end is where it will be. */
  evas_smart_objects_calculate(evas_object_evas_get(page->page_layout));
}

page_data *__brisel_detail_draw_single_layout_by_mail_id(brisel_detail_view *view_data, int mail_id) {
  page_data *page = __brisel_detail_draw_bare_page(view_data, mail_id);
  if (!page || __brisel_detail_build_whole(view_data, page)) return page;
  Evas_Object *layout = page->page_layout;
  __brisel_detail_free_page_data(page);
  evas_object_del(layout);
  return nullptr;
}

bool __brisel_detail_finish_page(brisel_detail_view *view_data, page_data *page) {
  if (__brisel_detail_build_whole(view_data, page)) return true;
  const bool is_current = page == view_data->page_data[BRISEL_DETAIL_CUR_PAGE];
  if (is_current)
    view_data->lacks_page = 1;
  else
    __brisel_detail_lose_page(view_data, page);
  return is_current;
}

/* --- while the loop is idle --- */

/* The one that is turned to first. */
static page_data *__brisel_detail_unbuilt_page(const brisel_detail_view *view_data) {
  for (int slot :
       {BRISEL_DETAIL_NEXT_PAGE, BRISEL_DETAIL_PREV_PAGE, BRISEL_DETAIL_NEXT_NEXT_PAGE, BRISEL_DETAIL_PREV_PREV_PAGE})
    if (page_data *page = view_data->page_data[slot]; page && __brisel_detail_is_unbuilt(page)) return page;
  return nullptr;
}

/* Of the page that is read alone: those beside may never be turned to. */
static page_data *__brisel_detail_unfinished_page(const brisel_detail_view *view_data) {
  page_data *page = view_data->page_data[BRISEL_DETAIL_CUR_PAGE];
  return page && __brisel_detail_is_unfinished(page) ? page : nullptr;
}

/* Deletes the first that it finds, or returns false. */
static bool __brisel_detail_end_leaving(brisel_detail_view *view_data) {
  Evas_Object **end = view_data->leaving + BRISEL_DETAIL_PAGE_MAX;
  Evas_Object **layout = std::find_if(view_data->leaving, end, [](const Evas_Object *one) { return one != nullptr; });
  if (layout == end) return false;
  brisel_widget_ref_drop(layout);
  return true;
}

static Eina_Bool __brisel_detail_build_idler_cb(void *data) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (__brisel_detail_end_leaving(view_data)) return ECORE_CALLBACK_RENEW;
  page_data *page = __brisel_detail_unbuilt_page(view_data);
  page_data *unfinished = page ? nullptr : __brisel_detail_unfinished_page(view_data);
  if (unfinished) __brisel_detail_rest_on(view_data, unfinished);
  if (unfinished) return ECORE_CALLBACK_RENEW;
  if (!page) {
    view_data->build_idler = nullptr;
    return ECORE_CALLBACK_CANCEL;
  }
  if (!__brisel_detail_build_on(view_data, page))
    __brisel_detail_lose_page(view_data, page);
  else if (page->is_built)
    /* Each page is laid out by itself: the next frame would have to do it for all together. */
    evas_smart_objects_calculate(evas_object_evas_get(view_data->box));
  return ECORE_CALLBACK_RENEW;
}

void __brisel_detail_let_go(brisel_detail_view *view_data, Evas_Object *layout) {
  Evas_Object **end = view_data->leaving + BRISEL_DETAIL_PAGE_MAX,
              **place = std::find(view_data->leaving, end, nullptr);
  if (place == end || view_data->is_paused) return evas_object_del(layout);
  brisel_view_set_spoken(layout, false);
  evas_object_hide(layout);
  brisel_widget_ref_set(place, layout);
  if (!view_data->build_idler) view_data->build_idler = ecore_idler_add(__brisel_detail_build_idler_cb, view_data);
}

void __brisel_detail_build_soon(brisel_detail_view *view_data) {
  if (page_data *page = view_data->page_data[BRISEL_DETAIL_CUR_PAGE]) page->is_rest_lost = 0;
  if (!view_data->build_idler && !view_data->is_paused &&
      (__brisel_detail_unbuilt_page(view_data) || __brisel_detail_unfinished_page(view_data)))
    view_data->build_idler = ecore_idler_add(__brisel_detail_build_idler_cb, view_data);
}

void __brisel_detail_stop_building(brisel_detail_view *view_data) {
  if (view_data->build_idler) ecore_idler_del(view_data->build_idler);
  view_data->build_idler = nullptr;
  while (__brisel_detail_end_leaving(view_data)) {
  }
}
