/* What the files of the reply views share: the record of both views, the copy of the mail that is answered, the limit
   of a typed reply. Only brisel-app-option-reply*.cpp use it, and the
   journal, which has a reply changed. Thread: the EFL main loop. */
#ifndef BRISEL_APP_OPTION_REPLY_H
#define BRISEL_APP_OPTION_REPLY_H

#include <string>

#include "brisel-app-option-common.h"

inline constexpr int BRISEL_TYPED_REPLY_MAX = 35; /* characters */

/* What a reply takes from its mail. A copy: who opened the view may let go of the mail while the user still writes. */
struct brisel_reply_mail {
  int mail_id = 0;
  std::string host_tag;
  std::string message_uid;
  std::string address; /* "": none */
  std::string name;    /* "": none */
  std::string subject;
};

/* Both reply views; deleted by their pop callback. */
struct option_reply_view_data : brisel_view_head {
  Evas_Object *layout = nullptr;
  Evas_Object *nocontent_layout = nullptr; /* templates: shown when there are none */
  Evas_Object *emoticon_layout = nullptr;  /* typed reply */
  Evas_Object *content_obj = nullptr;      /* templates: the list; typed reply: the entry */
  Evas_Object *popup = nullptr;            /* templates: the question before sending */
  brisel_reply_mail mail;
  int request_id = 0; /* not 0: the text of a reply on its way is changed, and no draft is kept */
  bool sent = false;  /* nothing more goes out while the view leaves */
  bool typed = false; /* the typed view, wholly built */
  std::string text;   /* typed reply: what stands in the entry, kept as the mail's draft; "" once it is sent */
  std::string chosen; /* templates: the text, as the store has it, that the question is about */
  GSList *template_list = nullptr;    /* template_data, owned */
  Ecore_Job *take_back_job = nullptr; /* typed reply: the start of a character whose rest was refused is to go */
  int take_back = 0;                  /* its code points */
  Ecore_Job *keep_job = nullptr;      /* typed reply: the draft is to be written */
};

/* --- both views: brisel-app-option-reply.cpp --- */

/* The steps that both begin with: record, mail, base layout, background. 0 and *out, or the view's result. */
int brisel_reply_begin(int mail_id, appdata *ad, const full_noti_data *noti_data, option_reply_view_data **out);
/* Deletes what was built of a view that cannot be finished; returns ret. */
int brisel_reply_give_up(option_reply_view_data *vd, int ret);
/* The pop callback of both. data: option_reply_view_data. */
Eina_Bool __brisel_option_reply_view_pop_cb(void *data, Elm_Object_Item *item);

/* --- sending: brisel-app-option-reply-send.cpp --- */

/* The mail as a reply needs it: of noti_data, or read by mail_id when that is NULL. 0; -3: no memory; else the store's
   error. */
int brisel_reply_mail_take(int mail_id, const full_noti_data *noti_data, brisel_reply_mail *mail);
/* "To Ann" in the language of now: markup, the caller frees it with free(). */
char *brisel_reply_to_markup(const brisel_reply_mail &mail);
/* Sends text (markup) as the reply to the view's mail. false: it is not kept anywhere, and the user was told why by a
   toast; the view stays, so that it can be tried again. */
bool __brisel_option_reply_send_reply_message(option_reply_view_data *vd, const char *text);

/* --- a reply on its way: brisel-app-option-reply-typed.cpp --- */

/* The typed view on a reply that can be changed, with its text; Send sends it in place of what was handed over. The
   request is not kept. Results as of brisel_option_reply_emoticons_draw_view. */
int brisel_option_reply_change_draw_view(const brisel_request_data *request, appdata *ad);

/* --- which templates are used: brisel-app-option-reply-usage.cpp --- */

/* Counts that the template was sent. text: as the store has it. */
void brisel_reply_usage_add(const std::string &text);
/* The same list, the most used first, unless the setting keeps the phone's order. */
GSList *brisel_reply_usage_sort(GSList *templates);

/* --- drafts: brisel-app-option-reply-draft.cpp --- */

/* What was typed as the reply to the mail and not sent, plain text; "": nothing. */
std::string brisel_reply_draft_load(const brisel_reply_mail &mail);
/* Keeps text instead of what was kept; "" forgets it, and so does a mail that is gone. lasting: through a power cut
   too. false, logged: the disk refused it. */
bool brisel_reply_draft_save(const brisel_reply_mail &mail, const std::string &text, bool lasting);

/* --- the typed view's keypad and limit: brisel-app-option-reply-typed.cpp, -limit.cpp --- */

/* "virtualkeypad,size,changed" of the conformant. data: option_reply_view_data; event_info: Evas_Coord_Rectangle. */
void __brisel_virtualkeypad_size_changed_cb(void *data, Evas_Object *obj, void *event_info);
/* "transition,finished" of the view stack, once, for the typed view. data: option_reply_view_data. */
void __brisel_option_reply_stands_cb(void *data, Evas_Object *obj, void *event_info);
/* Keeps the entry to BRISEL_TYPED_REPLY_MAX characters, each whole or not at all; "maxlength,reached" tells of what was
   refused. */
void brisel_reply_limit_entry(option_reply_view_data *vd, Evas_Object *entry);

#endif
