/* The application in process, in the framework's main loop, and its log. Every test program runs in a private
   session. */
#ifndef BRISEL_APP_TEST_H
#define BRISEL_APP_TEST_H

#include "brisel-app-lifecycle.h"
#include "brisel-app-utils.h"
#include "brisel-app.h"
#include "canvas.h"
#include "loop.h"
#include "phone.h"

/* --- the log --- */

/* The lines of the application ("P/TEXT", without file, function and line) since the last mark. */
void log_mark(void);
std::vector<std::string> log_lines(void);
bool logged(const std::string &line);

/* --- the application --- */

/* The state of the application under test; zero between tests. */
extern appdata test_ad;

/* As the framework does it: create, a launch request (extra data may name a mail), terminate. */
void app_start(const char *mail_id = nullptr);
void app_launch(const char *mail_id = nullptr);
void app_relaunch(const char *mail_id); /* the same, and what follows from it is still to come */
void app_stop(void);

/* Ends the phone's connection, and returns when the service has said that there is no link: it would say so after the
   next test has said that there is one. */
void phone_leaves(linked_phone *phone);

/* Reads contacts from the text of a vCard file. */
void import_cards(const std::string &cards);

/* What is on screen. */
/* The model's rows, checked to be the genlist's items in the same order. */
std::vector<int> listed_mails(void);
std::string header_title(void);
/* The text of a part of a genlist item as it is drawn; "" when the item is out of sight. */
std::string drawn_text(Elm_Object_Item *item, const char *part);
Elm_Object_Item *item_of_mail(int mail_id);
bool delete_button_enabled(void);
bool nocontents_on_screen(void);
point middle_of_item(Elm_Object_Item *item);

int views(void);
/* The view stack takes no touch and no further pop while a view slides, and freezes it for that long. */
bool views_stand(void);

/* gtest in the framework's main loop. */
int app_test_main(int argc, char **argv);

#endif
