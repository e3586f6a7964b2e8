/* What the reader's tests share, on top of the application's: the open reader, swipes, pages. */
#ifndef BRISEL_READER_TEST_H
#define BRISEL_READER_TEST_H

#include "../../app/src/brisel-app-detail-body.h"
#include "../../app/src/brisel-app-detail.h"
#include "app-test.h"

/* The open reader, or NULL. */
brisel_detail_view *reader(void);
page_data *current_page(void);
/* Opens a mail as a tap on its row does, and waits for its neighbours. */
void open_reader(int mail_id);
/* Takes back until the mailbox is there again. */
void close_reader(void);
/* The mail ids of the five slots, 0 where there is no page. */
std::vector<int> slots(void);
/* One finger across the view, to the page after (true) or before; returns once the finger is up. */
void fling(bool to_next);
/* A fling, and then until the shift it starts is done. False when nothing shifts. */
bool swipe(bool to_next);
/* The page that shows most of itself, going by where it is drawn. */
page_data *on_screen(void);
/* The same without a finger: the page beside comes on screen, and comes to rest there. */
void show_page(bool to_next);
/* Until nothing of a touch is under way any more: fingers, pages, and what follows from them. */
void rest_reader(void);
/* The plain text of a part of a mail's layout. */
std::string part_text(const page_data *page, const char *part);
/* A tap on the first line of a part of the current page's mail layout. */
void tap_in_reader(const char *part);
/* The state that the theme is in for a part of the page's mail layout, as its signals left it. */
std::string part_state(const page_data *page, const char *part);
/* Pulls the current page up with a finger, once; false when it was at its end before. */
bool pull_up(void);
/* Pulls until the page is at its end. */
void pull_to_end(void);
/* The current page's distance from its top, and the height of its content, in pixels. */
int scrolled(void);
int content_height(void);
/* Two fingers that move apart (factor above 1) or together, on the middle of the view. */
void pinch(double factor);
void double_tap(void);
/* One account, the mails in it newest first, the phone connected and the mailbox open. Returns the mails' ids. */
std::vector<int> mailbox_with(linked_phone *phone, const std::vector<std::string> &bodies);

#endif
