/*
 * The application framework: the lifecycle, one instance per session, launch requests in and out.
 * Thread: the EFL main loop, for every function and callback here but the work of app_efl_beside.
 */
#ifndef BRISEL_PLATFORM_APP_EFL_H
#define BRISEL_PLATFORM_APP_EFL_H

#include <Evas.h>

/* A launch request or a reply: an application id and extra data (text pairs). */
struct service_s;
typedef service_s *service_h;

enum service_result { SERVICE_RESULT_SUCCEEDED = 0, SERVICE_RESULT_FAILED = -1, SERVICE_RESULT_CANCELED = -2 };

enum service_error {
  SERVICE_ERROR_NONE = 0,
  SERVICE_ERROR_INVALID_PARAMETER = -1,
  SERVICE_ERROR_OUT_OF_MEMORY = -2,
  SERVICE_ERROR_APP_NOT_FOUND = -3, /* no such application: neither running nor startable from the bus */
  SERVICE_ERROR_KEY_NOT_FOUND = -4,
  SERVICE_ERROR_LINK = -5 /* the bus is gone */
};

/* The lifecycle table, in the framework's order; NULL: nothing to do. Each gets the user data of app_efl_main. */
struct app_event_callback_s {
  bool (*create)(void *user_data);    /* false: the framework exits */
  void (*terminate)(void *user_data); /* always called after a successful or failed create */
  int (*pause)(void *user_data);
  int (*resume)(void *user_data);
  int (*service)(service_h service, void *user_data); /* a launch request; the handle is the framework's */
  int (*low_memory)(void *user_data);
  int (*low_battery)(void *user_data);
  int (*device_orientation)(int degrees, void *user_data);
  int (*language_changed)(void *user_data);
  int (*region_format_changed)(void *user_data);
  /* Started ahead of its first launch request (--prepare): what the first picture needs can be made out of sight.
     Paused until then. */
  int (*prepare)(void *user_data);
  /* Before the toolkit starts, once it is clear that this instance is the one: the place for app_efl_beside. */
  void (*starting)(void *user_data);
};

/* Runs the application: initialises EFL, takes the bus name of the application's id, calls create, delivers the
   launch request of the command line (KEY=VALUE arguments are extra data; with the argument --service there is none:
   the bus brings it; with --prepare there is none before somebody launches the application), runs the main loop and
   calls terminate. When another instance holds the name, the launch request, if there is one, goes to it and the call
   returns 0 at once; with --prepare it first waits, blocked, for that one's end. A missing bus is logged; the
   application then runs alone, but not with --prepare, where nobody could launch it. One that waits for its launch ends
   when the bus goes or its program's file is replaced. It also ends when its window is destroyed. Returns 0; 2,
   with a line on standard error, for an argument that is none of these; or 1 when there was no bus to wait at, the
   toolkit does not start or create failed. */
int app_efl_main(int *argc, char ***argv, app_event_callback_s *callbacks, void *user_data);
/* Has work(data) done by a thread of the framework's while the toolkit starts: what takes long the first time and needs
   nothing of the toolkit's. From the starting callback only, once. It reads environment and locale as they are then
   (who changes the environment waits for its end) and changes neither; data has to stay until app_efl_main returns.
   Without a thread it is not done. */
void app_efl_beside(void (*work)(void *data), void *data);
/* Names the application before app_efl_main; com.vextora.brisel when never called. id is copied. */
void app_efl_id_set(const char *id);
/* Ends the main loop after the current callback. */
void app_efl_exit(void);

/* Gives the freed memory that the C library still holds back to the system: after much was read, and by itself at every
   pause. Some milliseconds at most. */
void app_efl_memory_trim(void);
/* The same once the objects that were deleted until now have gone: the canvas keeps them for two pictures, and so many
   are drawn. */
void app_efl_memory_trim_drawn(void);

/* Names the application's main window right after its creation, before it is shown: the framework gives it its
   size (the environment variable BRISEL_WINDOW_SIZE, "WxH", default 320x320 times the scale factor) and follows its
   visibility for pause and resume. The window stays the caller's. */
void app_efl_window_attach(Evas_Object *win);
/* Shows the main window: at once, or, when the application was started ahead of its first launch, with that launch. */
void app_efl_window_show(void);

/* What has the focus in the window of a widget, as the toolkit's own elm_object_focused_object_get() says it, or NULL.
   That one first makes the classes of two kinds of widgets that nobody here has, for good. */
Evas_Object *app_efl_focused(const Evas_Object *widget);
/* Before the rows of a genlist go: none of them has the focus any more. The toolkit would give it from row to row, and
   tell of a fault at the last one. */
void app_efl_forget_focus(Evas_Object *list);

/* --- launch requests --- */

typedef void (*service_reply_cb)(service_h request, service_h reply, int result, void *user_data);

int service_create(service_h *service); /* free with service_destroy */
/* A handle of the caller's own with the same content: for a request received by the service callback that is to be
   answered later. Free with service_destroy; a received request whose last handle goes unanswered is answered with
   SERVICE_RESULT_CANCELED, one that nobody cloned with SERVICE_RESULT_SUCCEEDED and no data. */
int service_clone(service_h *clone, service_h service);
int service_destroy(service_h service); /* a sent request may be destroyed at once: the framework kept a copy */
int service_set_app_id(service_h service, const char *app_id);
int service_add_extra_data(service_h service, const char *key, const char *value); /* replaces an old value */
/* *value: a heap copy that the caller frees with free(); NULL when there is none. */
int service_get_extra_data(service_h service, const char *key, char **value);
/* Sends the request to its application, starting it from the bus when needed. reply_cb (may be NULL) runs later
   on the main loop, once: with the target's reply, or with SERVICE_RESULT_FAILED and an empty reply when the
   target ended without one. Both handles belong to the framework and are valid during the callback.
   SERVICE_ERROR_APP_NOT_FOUND, at the call, when there is no such application. Blocks only for the bus's own word on
   who is there, at most two seconds with a bus in trouble; never for the other application. */
int service_send_launch_request(service_h service, service_reply_cb reply_cb, void *user_data);
/* Answers a launch request received by the service callback, once: the reply's extra data and result reach the sender's
   reply callback. reply may be NULL (no data). SERVICE_ERROR_INVALID_PARAMETER for a request that wants no answer or
   has one. */
int service_reply_to_launch_request(service_h reply, service_h request, int result);

#endif
