/*
 * brisel-common: the store and the host link, as the application uses them.
 *
 * This header is the whole interface. The library behind it (libbrisel-common, in service/) reads the
 * store directly and read-only; every change goes to the host service as a request and comes back as an event.
 *
 * Thread: the EFL main loop, for every function and every callback here.
 * Errors: every call returns an int status; 0 is success, anything else a BRISEL_COMMON_ERROR_* code.
 * Memory: a record comes from its *_create (empty: strings and lists NULL, numbers 0; NULL when memory is
 *   short) and goes with its *_free, which also frees every string and list it holds. Every *_free accepts NULL.
 *   Strings that the caller puts into a record are heap copies (g_strdup); the record's free releases them.
 *   Lists are GSLists; a list of records goes as a whole with the matching *_list_free (records and cells).
 *   A list of ids holds plain ints in the cells (GINT_TO_POINTER).
 * Ids: a mail id is positive; an account id is positive, and account id 0 means all accounts.
 * Times: seconds since the epoch. Text: UTF-8, valid, without NUL.
 */
#ifndef BRISEL_COMMON_H
#define BRISEL_COMMON_H

#include <cstddef>
#include <ctime>

#include <glib.h>

/* What the calls return when they fail. The application only logs them. */
enum brisel_common_error {
  BRISEL_COMMON_ERROR_NONE = 0,
  BRISEL_COMMON_ERROR_INVALID = -1,   /* a NULL or out-of-range argument */
  BRISEL_COMMON_ERROR_NOT_FOUND = -2, /* no such mail or account */
  BRISEL_COMMON_ERROR_STORE = -3,     /* the store is not open, unreadable, or not a store */
  BRISEL_COMMON_ERROR_LINK = -4,      /* the host link is not open, or the bus is gone */
  BRISEL_COMMON_ERROR_MEMORY = -5,
  BRISEL_COMMON_ERROR_NO_PHONE = -6, /* answered to a more-message callback: no phone is connected */
  BRISEL_COMMON_ERROR_TIMEOUT = -7,  /* the phone did not answer in time */
  BRISEL_COMMON_ERROR_REMOTE = -8    /* the phone or the service answered with an error */
};

/* One mail notification. */
struct full_noti_data {
  char *host_tag; /* opaque text of the host; copied unchanged into a reply request */
  int mail_id;
  int host_state;              /* opaque value of the host; copied unchanged into a read indication */
  time_t received_time;        /* seconds since the epoch */
  char *subject;               /* NULL or empty: none */
  GSList *sender_contact_list; /* contact_number records of the application, or NULL. The record's free
                                  releases the cells, and the records through the function that
                                  brisel_full_noti_data_set_contact_free() named. */
  char *body; /* as relayed so far; may end in a continuation tag, "<tag:thisisover%d>". The text is complete:
                 a line that begins with ">" is quoted, a line "--" begins the signature, addresses
                 stand whole; what of that is folded away is the reader's matter */
  char *from_address;
  char *from_name; /* NULL or empty: none */
  int attachment_count;
  int has_image; /* non-zero: the mail holds images that the watch does not show */
  int is_new;    /* non-zero: not yet seen on the watch */
  int account_id;
  int security_locked; /* non-zero: policy forbids showing the content on the watch */
  char *message_uid;   /* the phone's own identifier; carried by more-message and reply requests */
  int is_read;         /* 0: unread */
  void *priv;          /* the library's own; never touched by the application */
};

struct account_data {
  int account_id;
  int account_value;
  char *email_address;
  char *display_name;
  void *priv;
};

struct template_data {
  int template_id; /* -1: the entry is not a usable template */
  char *text;      /* a message id of the text domain "message" for presets, else the text itself */
};

struct op_data {
  GSList *id_list; /* of int; for clearing all new flags a list holding the single value 0 */
};

struct more_msg_req_data {
  char *message_uid;
  int mail_id;
};

struct update_noti_data {
  GSList *id_list; /* of int */
  int host_state;
};

struct reply_noti_data {
  char *host_tag;
  char *action; /* "intent.action.email.notifications.reply" */
  char *message_uid;
  char *recipient; /* address, byte 0x02, display name; only the address when there is no name */
  char *text;
  int mail_id;
  char *subject;
};

/* A mail's place in a list: what must be known of it before its row is drawn. */
struct brisel_mail_place {
  int mail_id;
  time_t received_time;
  int security_locked;
};

/* The numbers are on disk. */
enum brisel_request_kind {
  BRISEL_REQUEST_KIND_REPLY = 1,
  BRISEL_REQUEST_KIND_DELETE = 2,
  BRISEL_REQUEST_KIND_READ = 3
};
enum brisel_request_state {
  BRISEL_REQUEST_STATE_WAITS = 0,       /* for the phone */
  BRISEL_REQUEST_STATE_HANDED_OVER = 1, /* the end of a deletion or mark; a reply is with the phone, perhaps for a
                                           reason that the phone told */
  BRISEL_REQUEST_STATE_SENT = 2,
  BRISEL_REQUEST_STATE_REFUSED = 3 /* a reply that is not sent as it is */
};

/* A reply, deletion or mark of this watch, and what became of it. */
struct brisel_request_data {
  int request_id; /* below zero while no service has it; another one once the request is repeated */
  int kind, state;
  int mail_id;          /* of several mails the first; it may be gone */
  int mail_count;       /* how many the request is about */
  int can_change;       /* non-zero: it can be repeated, changed or dropped */
  char *person;         /* whom a reply goes to, or who sent the (first) mail; NULL or empty: not known */
  char *subject, *text; /* text: of a reply, as it was handed over */
  char *reason;         /* one line of the phone, or outcome_no_address of brisel-bus.h; NULL or empty: none */
  time_t created, changed;
};

/* Handed to event and more-message callbacks; owned by the library for the duration of the callback. */
struct brisel_ipc_event {
  GSList *id_list; /* of int: mail ids, or account ids for account events; NULL for the count status */
};

enum brisel_ipc_client_event_type {
  BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD = 0,
  BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE = 1,
  BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE = 2,
  BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD = 3,
  BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE = 4,
  BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_COUNT_STATUS = 5,
  BRISEL_IPC_CLIENT_EVENT_TYPE_REQUEST = 6 /* something became of requests: their ids; 0: of any */
};

enum brisel_ipc_client_req_type {
  BRISEL_IPC_CLIENT_REQ_TYPE_DELETE_NOTIS = 0,
  BRISEL_IPC_CLIENT_REQ_TYPE_UPDATE_IND = 1,
  BRISEL_IPC_CLIENT_REQ_TYPE_REPLY = 2,
  BRISEL_IPC_CLIENT_REQ_TYPE_CLEAR_ALL_NEW_FLAG = 4,
  BRISEL_IPC_CLIENT_REQ_TYPE_MORE_MSG = 5,
  BRISEL_IPC_CLIENT_REQ_TYPE_DROP_REQUEST = 6,
  BRISEL_IPC_CLIENT_REQ_TYPE_REPEAT_REQUEST = 7
};

/* event: valid during the callback only; reserved: always NULL; user_data: as subscribed. */
typedef void (*brisel_ipc_event_cb)(brisel_ipc_event *event, void *reserved, void *user_data);
/* response: a brisel_ipc_event whose first id is the mail's, or NULL on error; error: 0 or a BRISEL_COMMON_ERROR_*. */
typedef void (*brisel_ipc_response_cb)(void *response, int error, void *user_data);

/* --- records ------------------------------------------------------------------------------------------- */

full_noti_data *brisel_full_noti_data_create(void);
void brisel_full_noti_data_free(full_noti_data *data);
void brisel_full_noti_data_list_free(GSList *list);
/* Names the function that frees one element of sender_contact_list; NULL (the default) frees the cells only. */
void brisel_full_noti_data_set_contact_free(GDestroyNotify contact_free);
account_data *brisel_account_data_create(void);
void brisel_account_data_free(account_data *data);
void brisel_account_data_list_free(GSList *list);
void brisel_template_data_list_free(GSList *list);
void brisel_request_data_list_free(GSList *list);
op_data *brisel_op_data_create(void);
void brisel_op_data_free(op_data *data);
more_msg_req_data *brisel_more_msg_req_data_create(void);
void brisel_more_msg_req_data_free(more_msg_req_data *data);
update_noti_data *brisel_update_noti_data_create(void);
void brisel_update_noti_data_free(update_noti_data *data);
reply_noti_data *brisel_reply_noti_data_create(void);
void brisel_reply_noti_data_free(reply_noti_data *data);

/* --- store: read-only, synchronous, between brisel_db_init and brisel_db_deinit -------------------------- */

/* Opens the store. A store that does not exist yet is not an error: it reads as empty until the service makes it. */
int brisel_db_init(void);
int brisel_db_deinit(void);
/* At rest: frees what was kept to read faster, a quarter of a megabyte at the most. */
void brisel_db_give_back(void);
int brisel_db_get_all_account_count(int *count);
/* Accounts that the watch may show mail of. */
int brisel_db_get_target_account_count(int *count);
/* *valid: 1 when the target account count is known, 0 while the host has not reported it. */
int brisel_db_is_valid_target_account_count(int *valid);
/* *list: account_data in the store's order; free with brisel_account_data_list_free. */
int brisel_db_get_all_account_data(GSList **list);
/* Fills a record made by brisel_account_data_create (its old strings are freed). */
int brisel_db_get_account_data_by_account_id(int account_id, account_data *out);
/* Fills a record made by brisel_full_noti_data_create (its old strings are freed). */
int brisel_db_get_full_noti_data_by_mail_id(int mail_id, full_noti_data *out);
/* The same without its body, which may be megabytes. */
int brisel_db_get_noti_head_by_mail_id(int mail_id, full_noti_data *out);
/* The same with the beginning of its body: up to the last character that is whole within most bytes. *is_whole: 0 when
   there is more of it, perhaps a continuation tag, and the rest was not read. */
int brisel_db_get_noti_beginning_by_mail_id(int mail_id, int most, full_noti_data *out, int *is_whole);
/* Its body in pieces, which take no memory of its size: from a byte on, most bytes at most, handed to the callback
   (which reads nothing else meanwhile) until that returns 0. Once at least, with a length of 0 where there is nothing.
   A character may be cut. size: of the whole body, which may be another one with the next call. */
typedef int (*brisel_body_cb)(const char *piece, size_t length, size_t size, void *data);
int brisel_db_walk_body_by_mail_id(int mail_id, size_t from, size_t most, brisel_body_cb callback, void *data);
/* *list: newest first by received_time, equal times by ascending mail id (the order in which live insertion
   places them); free with brisel_full_noti_data_list_free, never record by record. account_id 0: all. */
int brisel_db_get_full_noti_data_list_by_account_id(int account_id, GSList **list, int *count);
int brisel_db_get_full_noti_data_count_by_account_id(int account_id, int *count);
/* For lists, which show no bodies: reading these is most of what reading whole mails costs. *places: of mails in the
   order of the list above, from an index alone; g_free. In parts: most of them at most (0: all), from the first on
   (after NULL) or behind one of an earlier part. Between two parts mails may come and go. */
int brisel_db_get_mail_places_after(int account_id, const brisel_mail_place *after, int most,
                                    brisel_mail_place **places, int *count);
/* Records of which only what a list shows is filled: id, time, account, is_new, is_read, security_locked, subject and
   the sender's name and address. To be freed with brisel_full_noti_data_list_free. In such parts, or of certain mails
   in the order of ids, what is gone left out. In parts it takes three quarters of the time, the places not counted. */
int brisel_db_get_noti_rows_after(int account_id, const brisel_mail_place *after, int most, GSList **list, int *count);
int brisel_db_get_noti_rows_by_mail_ids(const int *ids, int ids_count, GSList **list, int *count);
/* *list: template_data in display order; free with brisel_template_data_list_free. */
int brisel_db_get_all_template_data(GSList **list);
/* *list: brisel_request_data; first what waits (here, too, where no service has it yet) or was refused, oldest first,
   then the rest, newest change first. What ended is kept for a day. Free with brisel_request_data_list_free. */
int brisel_db_get_all_request_data(GSList **list);

/* --- host link -------------------------------------------------------------------------------------------- */

/* Connects to the session bus and follows the service: it may start, stop and restart at any time. */
int brisel_ipc_client_init(void);
int brisel_ipc_client_deinit(void);
/* One callback per event type; a second subscription replaces the first. Events raised while the service was
   away are delivered when it is back: the store numbers its changes. When it no longer has them all, or is another
   store, events are made from what is there: every mail and account is then told as gone, changed or new, also those to
   which nothing happened. */
int brisel_ipc_client_event_subscribe(int event_type, brisel_ipc_event_cb callback, void *user_data);
int brisel_ipc_client_event_unsubscribe(int event_type);
/* Called when the store cannot take a request now, for its disk is full or failing; once for each. The request stays
   kept and goes out again by itself; it goes out at once, and may be told again, after brisel_ipc_client_try_again.
   callback NULL: nobody is told. request_type: a brisel_ipc_client_req_type; -1 when all that was told has gone out. */
typedef void (*brisel_ipc_trouble_cb)(int request_type, void *user_data);
void brisel_ipc_client_set_trouble_cb(brisel_ipc_trouble_cb callback, void *user_data);
void brisel_ipc_client_try_again(void);
/* Withdraws a request of this type whose answer is still awaited: its callback never runs. What was handed over
   and expects no answer (a delete, a reply) is never withdrawn: it would be lost. 0: a new request may be sent. */
int brisel_ipc_req_cancel(int request_type);
/* The request functions copy what they need; the caller frees its record at once, whatever the result.
   0: accepted; it reaches the service as soon as there is one, exactly once, even if the application is killed
   meanwhile. callback NULL: no answer wanted. */
int brisel_ipc_req_delete_notis(op_data *data, brisel_ipc_response_cb callback, void *user_data);
int brisel_ipc_req_clear_all_new_flag(op_data *data, brisel_ipc_response_cb callback, void *user_data);
int brisel_ipc_req_update_ind(update_noti_data *data, brisel_ipc_response_cb callback, void *user_data);
int brisel_ipc_req_more_msg(more_msg_req_data *data, brisel_ipc_response_cb callback, void *user_data);
int brisel_ipc_req_reply(reply_noti_data *data, brisel_ipc_response_cb callback, void *user_data);
int brisel_ipc_req_no_account(brisel_ipc_response_cb callback, void *user_data);
/* A reply that the phone refused, or that no phone was ever offered: sent again, with another text when text is not
   NULL, or dropped for good. callback's error is BRISEL_COMMON_ERROR_REMOTE when the phone may have it by now; it is
   not called for one that no service has, about which the result says all. */
int brisel_ipc_req_repeat_request(int request_id, const char *text, brisel_ipc_response_cb callback, void *user_data);
int brisel_ipc_req_drop_request(int request_id, brisel_ipc_response_cb callback, void *user_data);

/* --- utilities --------------------------------------------------------------------------------------------- */

/* *rgba: 0xRRGGBBAA. */
int brisel_util_get_account_color(int account_id, unsigned int *rgba);
/* *status: 0 when the phone is reachable now. */
int brisel_util_get_conn_status(int *status);
/* *status: 0 reply supported, 1 the phone's software must be updated first, 2 or more no reply. */
int brisel_util_get_reply_status(int *status);

#endif
