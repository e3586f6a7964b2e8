/* The reader's records and inner operations, for its own files and its tests. Thread: the EFL main loop. */
#ifndef BRISEL_APP_DETAIL_H
#define BRISEL_APP_DETAIL_H

#include <vector>

#include "brisel-app-data.h"
#include "brisel-scoped.h"

/* The slots of the page array. "Before" is toward the head of the mailbox list, "after" toward its tail. */
enum brisel_detail_page {
  BRISEL_DETAIL_PREV_PREV_PAGE,
  BRISEL_DETAIL_PREV_PAGE,
  BRISEL_DETAIL_CUR_PAGE, /* never NULL while the view exists */
  BRISEL_DETAIL_NEXT_PAGE,
  BRISEL_DETAIL_NEXT_NEXT_PAGE,
  BRISEL_DETAIL_PAGE_MAX
};

/* How many requests for more text one visit to a page may make. */
#define BRISEL_DETAIL_MORE_MSG_MAX 3

struct detail_text;

/* What of a long body is not on its page yet: pages are built of its beginning. */
enum detail_rest { DETAIL_REST_NONE, DETAIL_REST_IN_STORE };

/* One built page. Its widgets are children of page_layout; the fields of deleted widgets are NULL. */
struct page_data {
  Evas_Object *page_layout;   /* "brisel/detail/single_scroller", packed in the view's box */
  Evas_Object *scroller;      /* vertical */
  Evas_Object *detail_layout; /* "brisel/detail", the scroller's content */
  Evas_Object *progress;      /* shown while more of the body is fetched, or NULL */
  int more_msg_count;         /* requests the page may still make on this visit */
  int reply_status;           /* of the phone, as the buttons were made for it */
  unsigned char is_refused;   /* more was wanted while no phone was there: the notice says so */
  Ecore_Idler *more_msg_idler;
  Ecore_Timer *more_msg_timer; /* applies a received body */
  full_noti_data *mail_data;   /* owned */
  detail_text *text;           /* what is shown of the body; owned */
  appdata *ad;
  int width, height;              /* of the view, as the subject was fitted to it */
  unsigned char is_tight;         /* the notice on images leaves the text no line on the first screen: less around it */
  unsigned char is_subject_whole; /* it was touched: shown in all its lines */
  unsigned char is_sender_whole;  /* the title that cuts it was touched: shown above the subject */
  unsigned char *tapped;          /* which of these two the tap before has turned; a double tap takes that back */
  unsigned char has_opened;       /* the tap before has opened a folded line: the same */
  unsigned char has_mail;         /* until then mail_data has nothing but the id */
  unsigned char is_built;         /* until then what is not there yet is NULL */
  int wanted;                     /* so many bytes of its body as it is built of, while there are more */
  unsigned char is_stale;         /* its mail has changed: read again with the next step */
  unsigned char rest;             /* a detail_rest: mail_data has the beginning of a body until it is read */
  unsigned char is_rest_lost;     /* it could not be read: tried again when the page is turned to or pulled */
  unsigned char lacks_buttons;    /* the end of its text is out of sight, and they have their room alone */
};

struct brisel_detail_view;

/* A request for more text on its way: it outlives the view, which may close before the answer comes. */
struct more_msg_ctx {
  brisel_detail_view *view; /* NULL once the view is closed */
  int mail_id;              /* the page that asked */
};

/* The way of the first finger; times in milliseconds. */
struct detail_stroke {
  struct point {
    int x;
    unsigned time; /* 0: none */
  };
  Evas_Coord_Point start, end;
  unsigned start_time, end_time;
  point recent[16];              /* the latest is the last */
  unsigned char began_at_end;    /* the page showed its end already when the finger came down */
  unsigned char began_in_motion; /* the pages moved */
  unsigned char is_double;       /* the second of a double tap: what it means is done */
};

enum detail_offer { DETAIL_OFFER_BACK, DETAIL_OFFER_ON, DETAIL_OFFER_MORE, detail_offers };

/* The reader's record on the view stack; at most one exists. Starts like every view's record. */
struct brisel_detail_view : brisel_view_head {
  Evas_Object *page_scroller;
  Evas_Object *page_scroller_layout;
  Evas_Object *popup;
  Evas_Object *box;
  Ecore_Timer *page_timer; /* looks which page came to rest */
  Ecore_Timer *pickover_timer;
  Ecore_Timer *place_timer; /* while the title says which mail of how many it is */
  ::page_data *page_data[BRISEL_DETAIL_PAGE_MAX];
  unsigned char is_pickover_registered;
  int font_size;       /* 0 small, 1 normal, 2 large; as the setting says until the first gesture */
  int cur_page_index;  /* of the current page among the packed ones: 0, 1 or 2 */
  int mail_id;         /* of the current page: the one that all actions are for */
  int entered_id;      /* the mail that came to rest last and was told as read */
  int aimed_id;        /* the mail whose page the scroller rests at or moves to */
  int placed_id;       /* the mail whose title says so */
  int page_width;      /* pixels; 0 before the view has a size */
  int *box_page_width; /* the same for the box's layout, which owns it and may outlive the view */
  double seen_at;      /* where the scroller stood when it was last looked at, in pages */
  unsigned char is_paused;
  unsigned char has_neighbors;                   /* they are built once the view has come in */
  unsigned char is_neighbor_update_due;          /* the list changed while a finger was down */
  unsigned char lacks_page;                      /* that could not be built: tried again with the next touch or turn,
                                                    as no event tells when the store can be read again */
  ::page_data *standing[BRISEL_DETAIL_PAGE_MAX]; /* pages to be used again while the slots are filled anew */
  detail_stroke stroke;
  Evas_Object *ring;                            /* around what Tab has come to, or NULL */
  Evas_Object *ringed;                          /* the button in it; NULL: a place on the mail's texts */
  Eina_Rectangle ring_place;                    /* that place, of the canvas */
  int ring_at;                                  /* which of the page's */
  Ecore_Idler *build_idler;                     /* while pages beside are being built */
  Evas_Object *leaving[BRISEL_DETAIL_PAGE_MAX]; /* layouts of pages that were turned away from, to be deleted */
  Ecore_Job *lift_job;
  Ecore_Idler *touch_over_idler;
  Evas_Object *gesture_layer;
  more_msg_ctx *more_msg;    /* the request whose answer is awaited, or NULL */
  Eo *offers[detail_offers]; /* to who only listens; NULL: not made */
};

/* --- what the tests call too --- */

/* Fills the empty slot from node. The node used, or NULL. */
GList *__brisel_detail_update_neighbor(GList *node, int index, brisel_detail_view *view_data);
void __brisel_detail_update_font_size(brisel_detail_view *view_data, int size);
Evas_Event_Flags __brisel_detail_gesture_zoom_start_cb(void *data, void *event_info);
Evas_Event_Flags __brisel_detail_gesture_zoom_end_cb(void *data, void *event_info);
Evas_Event_Flags __brisel_detail_gesture_zoom_abort_cb(void *data, void *event_info);
Evas_Event_Flags __brisel_detail_gesture_double_tab_end_cb(void *data, void *event_info);
void __brisel_detail_scroller_bottom_hit_cb(void *data, Evas_Object *obj, void *event_info);
void __brisel_detail_ipc_more_msg_cb(void *response, int error, void *data);

/* The fingers on the paging scroller: there is one reader. */
struct detail_touch {
  unsigned char is_mouse_down;
  unsigned char is_multi; /* the touch was ever one of two fingers: it turns, asks and taps nothing */
  int other_fingers;
};
extern detail_touch __brisel_detail_touch;

/* --- one page: brisel-app-detail-page.cpp --- */

void __brisel_detail_fill_both_ways(Evas_Object *obj);
void __brisel_detail_signal(Evas_Object *layout, const char *signal);
void __brisel_detail_process_signals(Evas_Object *layout);
brisel_detail_view *__brisel_detail_retrieve_view_data(appdata *ad);
page_data *__brisel_detail_find_page(const brisel_detail_view *view_data, int mail_id);
void __brisel_detail_free_page_data(page_data *page);
void __brisel_detail_update_datetime_string(brisel_detail_view *view_data, time_t time, Evas_Object *layout);
Evas_Object *__brisel_detail_create_layout(Evas_Object *parent, const char *group);
Evas_Object *__brisel_detail_create_scroller(Evas_Object *parent);
/* The notice below a body that goes on, where it does. */
void __brisel_detail_draw_device_notice(page_data *page);
void __brisel_detail_draw_view_components(brisel_detail_view *view_data, page_data *page);
void __brisel_detail_draw_buttons(brisel_detail_view *view_data, page_data *page);
/* Whether the page lacks its buttons where they can be seen without a scroll. */
bool __brisel_detail_wants_buttons(const page_data *page);
Evas_Object *__brisel_detail_create_layout_detail_view_title(brisel_detail_view *view_data, const page_data *page);
void __brisel_detail_update_page_string(brisel_detail_view *view_data, page_data *page);
void __brisel_detail_set_attachment_text(brisel_detail_view *view_data, const page_data *page);
/* The notice below a body that goes on, as it is true now. */
void __brisel_detail_set_device_notice(const brisel_detail_view *view_data, page_data *page);
/* Reads the page's mail again and shows what changed of it. */
void __brisel_detail_renew_page(brisel_detail_view *view_data, page_data *page);

/* --- building it: brisel-app-detail-build.cpp --- */

/* A whole page; NULL when the mail cannot be read or a widget cannot be made, which is logged. */
page_data *__brisel_detail_draw_single_layout_by_mail_id(brisel_detail_view *view_data, int mail_id);
/* The first step of one: a layout with nothing on it, for a mail that is not read yet. */
page_data *__brisel_detail_draw_bare_page(brisel_detail_view *view_data, int mail_id);
/* What is left of a page, now. False when it failed: the page is gone. The current one stays, and is tried again with
   the next touch. */
bool __brisel_detail_finish_page(brisel_detail_view *view_data, page_data *page);
/* Puts the rest of a long body and the buttons below it on their page, now. What cannot be read is logged. */
void __brisel_detail_finish_rest(brisel_detail_view *view_data, page_data *page);
/* Reads the mail into the record: of a long body what the page needs, and what is left then into *rest. The status of
   the store's calls. */
int __brisel_detail_read(const brisel_detail_view *view_data, const page_data *page, full_noti_data *mail,
                         unsigned char *rest);
/* Deletes the layout of a page that has left its slot and the box, in a step of its own. */
void __brisel_detail_let_go(brisel_detail_view *view_data, Evas_Object *layout);
/* What is left of the pages, and of what changed of their mails, while the loop is idle; nothing while the application
 * is paused. */
void __brisel_detail_build_soon(brisel_detail_view *view_data);
void __brisel_detail_stop_building(brisel_detail_view *view_data);

/* --- the mail's own texts on it: brisel-app-detail-text.cpp --- */

void __brisel_detail_set_subject(page_data *page);
/* What who listens is told of the page: its texts as they are now. */
void __brisel_detail_name_page(const page_data *page);
/* Makes the body ready to be shown; shows what is ready; both. */
void __brisel_detail_read_body(page_data *page);
void __brisel_detail_show_body(const page_data *page);
void __brisel_detail_set_body(page_data *page);
/* Of a body whose rest is in the store, of which a piece takes a part of a frame: makes the next piece ready for a page
   that shows nothing yet; puts the next piece on one that does, until mail_data has it all and there is no rest. False
   when that failed, which is logged, or *is_other: another body is there than was read. */
bool __brisel_detail_read_on(const page_data *page);
bool __brisel_detail_read_rest(page_data *page, bool *is_other);
/* Whether what was read of it is still what is there. */
bool __brisel_detail_is_as_read(const page_data *page);
/* Whether the page's body goes on on the phone, as far as that is known. */
bool __brisel_detail_has_notice(const page_data *page);
/* Whether what is ready of a body's beginning fills the page, and has the place that was read. */
bool __brisel_detail_is_beginning_enough(const page_data *page);
void __brisel_detail_free_text(page_data *page);
/* A finger tapped at that place of the canvas: a long subject or sender opens and closes, a folded line opens. */
void __brisel_detail_tapped(brisel_detail_view *view_data, int x, int y);
/* What the last tap did, until the texts are set anew: it was the first of a double tap. */
void __brisel_detail_take_tap_back(page_data *page);
/* What is on screen of where a tap means something, of the canvas, from the top. */
std::vector<Eina_Rectangle> __brisel_detail_tap_places(const page_data *page);
/* Remembers where the page stands, for when its mail is opened again; and goes there. */
void __brisel_detail_keep_place(const page_data *page);
void __brisel_detail_go_to_place(const page_data *page);
/* The page's title is its sender. */
void __brisel_detail_set_sender(const brisel_detail_view *view_data, const page_data *page);
/* The current page's title says for a moment which mail of how many it is; ends at once. */
void __brisel_detail_tell_place(brisel_detail_view *view_data);
void __brisel_detail_end_place(brisel_detail_view *view_data);

/* --- neighbours and turns: brisel-app-detail-paging.cpp --- */

void __brisel_detail_draw_neighbors_cb(void *data, Evas_Object *obj, void *event_info);
void __brisel_detail_box_resize_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info);
void __brisel_detail_page_scroller_scroll_cb(void *data, Evas_Object *obj, void *event_info);
void __brisel_detail_page_layout_resize_cb(void *data, Evas *evas, Evas_Object *obj, void *event_info);
void __brisel_detail_create_layout_page_scroller(brisel_detail_view *view_data);
void __brisel_detail_create_page_scroller(brisel_detail_view *view_data);
void __brisel_detail_create_box(brisel_detail_view *view_data);
/* Takes the page that came to rest over: the one place where that is decided. Does nothing while a finger is down or a
   page moves; it comes back by itself then. */
void __brisel_detail_settle(brisel_detail_view *view_data);
void __brisel_detail_settle_soon(brisel_detail_view *view_data);
/* The pages stand still, x pixels from the first one's left edge. */
void __brisel_detail_hold_pages(brisel_detail_view *view_data, int x);
/* The pages stand at once where they move to. */
void __brisel_detail_stop_pages(brisel_detail_view *view_data);
/* The page that is acted on: the one on screen, or on its way there with no finger on it. */
page_data *__brisel_detail_page_on_screen(brisel_detail_view *view_data);
/* Who listens is told of the current page alone; the window is called by its sender. */
void __brisel_detail_tell_page(brisel_detail_view *view_data);
/* Makes the page that the scroller moves to the current one, at its place on the way. */
void __brisel_detail_turn_to_aimed(brisel_detail_view *view_data);
/* Brings in the page at that place in the box. */
void __brisel_detail_aim_at(brisel_detail_view *view_data, int place);
/* The page at that place, or NULL. */
page_data *__brisel_detail_page_at(const brisel_detail_view *view_data, int place);
/* Where in the box the mail's page is, or -1; where the scroller stands, in pages. */
int __brisel_detail_place_of_mail(const brisel_detail_view *view_data, int mail_id);
double __brisel_detail_place_on_screen(const brisel_detail_view *view_data);
/* A page beside that cannot be built leaves its slot until the next touch. */
void __brisel_detail_lose_page(brisel_detail_view *view_data, page_data *page);
/* Takes over what changed in the list while a finger was down. */
void __brisel_detail_follow_list(brisel_detail_view *view_data);
/* Whether it is due, and the list has no page any more for the mail whose page is at that place, beside the current
 * one.
 */
bool __brisel_detail_has_gone(const brisel_detail_view *view_data, int place);

/* --- the fingers on the pages: brisel-app-detail-touch.cpp --- */

void __brisel_detail_watch_touches(brisel_detail_view *view_data);
void __brisel_detail_leave_touches(brisel_detail_view *view_data);
/* Whether any finger is down. */
bool __brisel_detail_is_held();
/* The place of the page beside the one that is aimed at; that one's own when there is none. */
int __brisel_detail_place_beside(brisel_detail_view *view_data, int way);
void __brisel_detail_unfreeze_all(brisel_detail_view *view_data);

/* --- who only listens: brisel-app-detail-spoken.cpp --- */

/* Offers what can be done on the current page: after anything of that has changed. */
void __brisel_detail_offer(brisel_detail_view *view_data);
void __brisel_detail_end_offers(brisel_detail_view *view_data);

/* --- the keyboard: brisel-app-detail-keys.cpp --- */

void __brisel_detail_watch_keys(brisel_detail_view *view_data);
void __brisel_detail_leave_keys(brisel_detail_view *view_data);
/* To the page beside the one that is aimed at; false when there is none. */
bool __brisel_detail_turn_by(brisel_detail_view *view_data, int way);
void __brisel_detail_drop_ring(brisel_detail_view *view_data);

/* --- more of a body: brisel-app-detail-more.cpp --- */

bool __brisel_detail_ends_with_tag(const char *body, const char *tag);
void __brisel_detail_abandon_more_msg(brisel_detail_view *view_data, bool is_cancelled);
/* Whether more of the page's text is on its way. */
bool __brisel_detail_is_waiting(const brisel_detail_view *view_data, const page_data *page);
/* The page says that it waits. */
void __brisel_detail_show_waiting(const brisel_detail_view *view_data, page_data *page);
/* The rings of the pages that wait turn, or stand still. */
void __brisel_detail_turn_rings(const brisel_detail_view *view_data, bool turns);

/* --- buttons, read indication, pickover: brisel-app-detail-actions.cpp --- */

void __brisel_detail_send_update_ind(brisel_detail_view *view_data);
void __brisel_detail_option_button_clicked_cb(void *data, Evas_Object *obj, void *event_info);
void __brisel_detail_reply_button_clicked_cb(void *data, Evas_Object *obj, void *event_info);
void __brisel_detail_reply_update_required_button_clicked_cb(void *data, Evas_Object *obj, void *event_info);
void __brisel_detail_show_on_device_button_clicked_cb(void *data, Evas_Object *obj, void *event_info);
/* A keyboard's way to delete: the question, and on OK the mail on screen is asked to go. */
void __brisel_detail_ask_to_delete(brisel_detail_view *view_data);
void __brisel_detail_unregister_pickover(brisel_detail_view *view_data);
void __brisel_detail_update_pickover(brisel_detail_view *view_data);

/* --- gestures and sizes: brisel-app-detail-gesture.cpp --- */

void __brisel_detail_gesture_create_gesture_layout(Evas_Object *layout, brisel_detail_view *view_data);

#endif
