/* What the framework's own files share. Thread: the EFL main loop. */
#ifndef BRISEL_PLATFORM_APP_PRIV_H
#define BRISEL_PLATFORM_APP_PRIV_H

#include <Elementary.h>
#include <systemd/sd-bus.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "efl_assist.h"

constexpr char app_log_tag[] = "BRISEL_APPFW";
constexpr char app_interface[] = "com.vextora.Application1";
/* A launch request larger than this is refused: it came from another process. */
constexpr size_t launch_pairs_max = 64;
constexpr size_t launch_bytes_max = 256 * 1024;

/* A received request that wants an answer: answered by the first reply, or when its last handle goes. */
struct launch_call {
  std::vector<sd_bus_message *> messages; /* its own, and of those that it stands for; none: answered */
  launch_call() = default;
  launch_call(const launch_call &) = delete;
  launch_call &operator=(const launch_call &) = delete;
  ~launch_call();
};

struct service_s {
  std::string app_id;
  std::map<std::string, std::string> extra;
  std::shared_ptr<launch_call> call; /* received requests only */
};

/* app_efl.cpp */
const char *app_id(void);
Evas_Object *app_window(void); /* NULL before app_efl_window_attach and after the window's end */
bool app_ready(void);          /* create has succeeded and terminate has not begun */
void app_deliver_launch(service_s *service);
void app_end_if_ahead(const char *why); /* started ahead of its first launch, and not launched yet */
void app_go_background(void);           /* lowers the window and delivers pause before it returns */
void app_go_foreground(void);

/* launch.cpp */
/* "com.vextora.bt-connection-popup" becomes "/com/vextora/bt_connection_popup". */
std::string app_object_path(const char *id);
bool app_is_text(const char *text); /* valid UTF-8, which the bus demands */
/* 1: this process owns the application's name now; 0: another instance took the request; negative: no bus, or failed.
 */
int app_claim_name(const service_s *request, bool wait_only);
/* The same without a request of its own: waits, however long, until no other instance has the name. 1, or negative. */
int app_wait_for_name(void);
int app_bus_start(void); /* offers the application's interfaces; 0, or negative */
/* app-access: turns the toolkit's accessibility on where the session has it; late() says that it came after the start.
 */
void app_access_start(void (*late)(void));
void app_access_stop(void);
void app_bus_stop(void);
void app_bus_release_name(void);
/* Hands over what has arrived, if the application is ready for it: of several the last one, which stands for all. */
void app_launch_flush_pending(void);

/* app-locale.cpp: language, region, time zone. */
struct app_locale_callbacks {
  void (*language_changed)(void);
  void (*region_changed)(void);
};
void app_locale_init(void);                                   /* before elm_init: messages, language, time zone */
void app_locale_start(const app_locale_callbacks *callbacks); /* after elm_init: direction, watchers */
void app_locale_stop(void);

/* app-memory.cpp */
/* Before elm_init: has app-beside.cpp get what the heap will hold at the first picture from the kernel in a few calls.
   At its first touch each page would cost one more entry into the kernel, a thousand of them. */
void app_memory_start(void);

/* app-fonts.cpp */
void app_fonts_start(void); /* before elm_init: names the configuration of the fonts */
/* When environment and language are set: gives app-beside.cpp the configuration to read, and the theme's fonts to look
   up. The toolkit waits for it when it wants a font. */
void app_fonts_read(void);
void app_fonts_stop(void); /* after the toolkit's end, and app_beside_stop */

/* app-beside.cpp: one thread, which does these in turn while the toolkit starts. */
enum app_beside_work { APP_BESIDE_MEMORY, APP_BESIDE_FONTS, APP_BESIDE_APPLICATION, APP_BESIDE_WORKS };
void app_beside_add(app_beside_work which, void (*work)(void *data), void *data); /* before app_beside_start */
void app_beside_start(void);
void app_beside_wait(app_beside_work which); /* until that one is done, if the thread does it */
void app_beside_stop(void);                  /* until all are; so does whoever changes the environment */

/* app-look.cpp: the platform's theme, palette and motion. */
void app_look_start(void);
void app_look_stop(void);

/* assist.cpp */
/* True when somebody took the key. */
bool ea_dispatch(Ea_Callback_Type type);

/* inspect.cpp: only with BRISEL_INSPECT=1. */
int app_inspect_start(sd_bus *bus, const char *path);
void app_inspect_stop(void);
void app_inspect_window(Evas_Object *window); /* counts its frames from now on */
void app_inspect_launched(void);              /* a launch request was handled */
/* Calls done(data) once nothing has been drawn for a moment, or after a bound; at once when inspection is off. */
void app_inspect_settled(void (*done)(void *data), void *data);

#endif
