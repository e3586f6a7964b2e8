/* More of a body: asking the phone at the end of a page, the ring while it is awaited, the text put behind what is
   there. Paging, pages and the main file call it. */
#include "brisel-app-detail.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "brisel-app-detail-body.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "brisel-body.h"

constexpr double body_apply_delay = 0.5;
static const char part_process[] = "detail.process";
static const char part_progress_bg[] = "detail.progress_bg";

bool __brisel_detail_ends_with_tag(const char *body, const char *tag) {
  return body && g_str_has_suffix(body, tag);
}

/* Cancels the awaited answer. Its context goes with it, or stays for an answer that cannot be stopped. */
void __brisel_detail_abandon_more_msg(brisel_detail_view *view_data, bool is_cancelled) {
  more_msg_ctx *context = view_data->more_msg;
  view_data->more_msg = nullptr;
  if (!context) return;
  context->view = nullptr;
  if (is_cancelled) free(context);
}

static bool __brisel_detail_may_ask_for_more(const char *body) {
  return __brisel_detail_ends_with_tag(body, tag_more) || !body || !strstr(body, tag_start);
}

/* Events on the veil behind the progress bar stay there while text is on its way. */
static void __brisel_detail_veil_events(const page_data *page, bool propagate) {
  Evas_Object *veil = elm_object_part_content_get(page->detail_layout, part_progress_bg);
  if (!veil)
    veil = (Evas_Object *)edje_object_part_object_get(elm_layout_edje_get(page->detail_layout), part_progress_bg);
  if (veil) evas_object_propagate_events_set(veil, propagate);
}

static void __brisel_detail_show_progress(const brisel_detail_view *view_data, page_data *page) {
  brisel_widget_ref_drop(&page->progress);
  Evas_Object *progress = brisel_create_progress_popup(view_data->ad, "process/groupindex");
  if (!progress) return;
  brisel_widget_ref_set(&page->progress, progress);
  elm_object_part_content_set(page->detail_layout, part_process, progress);
}

bool __brisel_detail_is_waiting(const brisel_detail_view *view_data, const page_data *page) {
  return page->more_msg_idler || page->more_msg_timer ||
         (view_data->more_msg && view_data->more_msg->mail_id == page->mail_data->mail_id);
}

void __brisel_detail_show_waiting(const brisel_detail_view *view_data, page_data *page) {
  __brisel_detail_signal(page->detail_layout, "do-process-device-field");
  __brisel_detail_process_signals(page->detail_layout);
  __brisel_detail_show_progress(view_data, page);
  elm_layout_signal_emit(page->detail_layout, "start,progress", "");
  __brisel_detail_veil_events(page, false);
}

void __brisel_detail_turn_rings(const brisel_detail_view *view_data, bool turns) {
  for (const page_data *page : view_data->page_data)
    if (page && page->progress) elm_progressbar_pulse(page->progress, turns);
}

static void __brisel_detail_stop_progress(page_data *page) {
  brisel_widget_ref_drop(&page->progress);
  elm_layout_signal_emit(page->detail_layout, "stop,progress", "");
  __brisel_detail_veil_events(page, true);
}

/* The page waits for nothing any more: its notice is back and the user may ask again. */
static void __brisel_detail_stop_more_msg(page_data *page) {
  __brisel_detail_stop_progress(page);
  __brisel_detail_signal(page->detail_layout, "do-show-device-field");
  __brisel_detail_process_signals(page->detail_layout);
}

/* Sends the request for the page. False when nothing was sent; what failed is logged. */
static bool __brisel_detail_send_more_msg(brisel_detail_view *view_data, const page_data *page) {
  scoped_more_msg request(brisel_more_msg_req_data_create());
  if (!request) {
    BRISEL_ERROR("brisel_more_msg_req_data_create() failed!");
    return false;
  }
  request->message_uid = g_strdup(page->mail_data->message_uid);
  request->mail_id = page->mail_data->mail_id;
  bool sent = false;
  int result = brisel_ipc_req_cancel(BRISEL_IPC_CLIENT_REQ_TYPE_MORE_MSG);
  if (result != 0) {
    BRISEL_ERROR("brisel_ipc_req_cancel() failed! ret:[%d]", result);
  } else {
    /* An answer that a page swiped away was waiting for will not come now. */
    if (view_data->more_msg) {
      page_data *waiting = __brisel_detail_find_page(view_data, view_data->more_msg->mail_id);
      if (waiting && waiting->detail_layout && waiting != page) __brisel_detail_stop_more_msg(waiting);
    }
    __brisel_detail_abandon_more_msg(view_data, true);
    more_msg_ctx *context = (more_msg_ctx *)calloc(1, sizeof(more_msg_ctx));
    if (context) {
      context->view = view_data;
      context->mail_id = request->mail_id;
      view_data->more_msg = context;
      result = brisel_ipc_req_more_msg(request.get(), __brisel_detail_ipc_more_msg_cb, context);
      sent = result == 0;
      if (!sent) {
        BRISEL_ERROR("brisel_ipc_req_more_msg() failed! ret:[%d]", result);
        __brisel_detail_abandon_more_msg(view_data, true);
      }
    }
  }
  return sent;
}

static Eina_Bool __brisel_detail_more_msg_ind(void *data) {
  BRISEL_INFO("Enter");
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  /* A swipe may have come between the edge and this idler: it is the page that owns the idler that asked. */
  page_data *page = view_data->page_data[BRISEL_DETAIL_CUR_PAGE];
  for (page_data *owner : view_data->page_data)
    if (owner && owner->more_msg_idler) page = owner;
  page->more_msg_idler = nullptr;
  if (!__brisel_detail_may_ask_for_more(page->mail_data->body)) return ECORE_CALLBACK_CANCEL;

  __brisel_detail_show_waiting(view_data, page);
  /* What could not be sent will never be answered: the page must not go on waiting. */
  if (!__brisel_detail_send_more_msg(view_data, page)) __brisel_detail_stop_more_msg(page);
  return ECORE_CALLBACK_CANCEL;
}

void __brisel_detail_scroller_bottom_hit_cb(void *data, Evas_Object *obj, void *event_info) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  if (!view_data || !view_data->ad || __brisel_detail_touch.is_multi) return;
  if (view_data->is_paused) return; /* nobody pulls: the page is only made to stand still */
  page_data *page = view_data->page_data[BRISEL_DETAIL_CUR_PAGE];
  /* Only the current page's own edge counts, and only when it is the end of the text rather than of a guess. */
  if (!page || !page->detail_layout || (obj && obj != page->scroller) ||
      !brisel_detail_body_end_is_known(page->detail_layout))
    return;
  if (page->rest != DETAIL_REST_NONE) return __brisel_detail_build_soon(view_data);
  /* One pull reaches the edge more than once when the page bounces off it. While the page waits already, that is no
     wish for another request: it would throw away the answer on its way and use up the visit's share. */
  if (__brisel_detail_is_waiting(view_data, page)) return;
  if (view_data->ad->bt_connected != 1) {
    page->is_refused = 1;
    __brisel_detail_set_device_notice(view_data, page);
    return;
  }
  if (page->more_msg_count <= 0) return;
  page->more_msg_count--;
  page->more_msg_idler = ecore_idler_add(__brisel_detail_more_msg_ind, view_data);
}

static Eina_Bool __brisel_detail_add_more_messages_cb(void *data) {
  BRISEL_INFO("Enter");
  page_data *page = (page_data *)data;
  page->more_msg_timer = nullptr;
  if (!page->detail_layout) return ECORE_CALLBACK_CANCEL;
  __brisel_detail_stop_progress(page);
  if (!page->mail_data) {
    BRISEL_ERROR("mail_data is NULL!");
    return ECORE_CALLBACK_CANCEL;
  }
  if (page->mail_data->body && *page->mail_data->body) __brisel_detail_set_body(page);
  if (__brisel_detail_ends_with_tag(page->mail_data->body, tag_complete)) {
    BRISEL_INFO("There is no more mail_body!");
    __brisel_detail_signal(page->detail_layout, "do-hide-device-field");
  } else {
    __brisel_detail_signal(page->detail_layout, "do-show-device-field");
  }
  __brisel_detail_process_signals(page->detail_layout);
  return ECORE_CALLBACK_CANCEL;
}

/* Reads the mail again after an answer and prepares its page to show it. When that fails the page goes back to its
   notice: it must not look as if text were still on its way. */
static void __brisel_detail_take_more_msg(brisel_detail_view *view_data, page_data *page, int mail_id) {
  scoped_noti mail(brisel_full_noti_data_create());
  if (!mail) {
    BRISEL_ERROR("brisel_db_full_noti_data_create() failed!");
    __brisel_detail_signal(page->detail_layout, "do-show-device-field");
    return;
  }
  BRISEL_INFO("mail_id : %d", mail_id);
  int result = brisel_db_get_full_noti_data_by_mail_id(mail_id, mail.get());
  if (result != 0) {
    BRISEL_ERROR("brisel_db_get_full_noti_data_by_mail_id() failed! err:[%d]", result);
    __brisel_detail_signal(page->detail_layout, "do-show-device-field");
    return;
  }
  if (mail->body && *mail->body) {
    std::swap(page->mail_data->body, mail->body);
    page->rest = DETAIL_REST_NONE;
  }
  __brisel_detail_offer(view_data);
  __brisel_detail_show_progress(view_data, page);
  page->more_msg_timer = ecore_timer_add(body_apply_delay, __brisel_detail_add_more_messages_cb, page);
}

void __brisel_detail_ipc_more_msg_cb(void *response, int error, void *data) {
  more_msg_ctx *context = (more_msg_ctx *)data;
  if (!context) {
    BRISEL_ERROR("Invalid parameter: data is NULL!");
    return;
  }
  BRISEL_INFO("BRISEL_IPC_CLIENT_REQ_TYPE_MORE_MSG");
  brisel_detail_view *view_data = context->view;
  int asked_id = context->mail_id;
  if (view_data && view_data->more_msg == context) view_data->more_msg = nullptr;
  free(context);
  /* The answer is for the page that asked. When the view is closed or the page far away by now, there is nothing to
     do: the store has the text, and the page is built from it when the user comes back. */
  page_data *page = view_data ? __brisel_detail_find_page(view_data, asked_id) : nullptr;
  if (!page || !page->detail_layout) return;

  if (page->more_msg_timer) {
    ecore_timer_del(page->more_msg_timer);
    page->more_msg_timer = nullptr;
  }
  __brisel_detail_stop_progress(page);
  if (error) {
    BRISEL_INFO("__brisel_detail_ipc_more_msg_cb() failed! [%d]", error);
    __brisel_detail_signal(page->detail_layout, "do-show-device-field");
    return;
  }
  const brisel_ipc_event *event = (const brisel_ipc_event *)response;
  if (!event || !event->id_list) {
    __brisel_detail_signal(page->detail_layout, "do-show-device-field");
    return;
  }
  int mail_id = GPOINTER_TO_INT(event->id_list->data);
  if (mail_id != asked_id) {
    /* An answer about another mail says nothing about this one. */
    __brisel_detail_signal(page->detail_layout, "do-show-device-field");
    return;
  }
  __brisel_detail_take_more_msg(view_data, page, mail_id);
}
