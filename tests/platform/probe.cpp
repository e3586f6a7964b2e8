/*
 * An application on the framework that tells on standard output what reaches it, one line per event. The scene is
 * chosen by the extra data "scene" of a launch request.
 */
#include <Elementary.h>
#include <libintl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "app_efl.h"
#include "efl_assist.h"

namespace {

Evas_Object *win;
Evas_Object *scene; /* the content of the window */
service_h kept;     /* a request to be answered later */

[[gnu::format(printf, 1, 2)]] void tell(const char *format, ...) {
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
  putchar('\n');
  fflush(stdout);
}

std::string extra(service_h service, const char *key) {
  char *value = nullptr;
  service_get_extra_data(service, key, &value);
  std::string text = value ? value : "";
  free(value);
  return text;
}

Evas_Object *fill(Evas_Object *obj) {
  evas_object_size_hint_weight_set(obj, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_size_hint_align_set(obj, EVAS_HINT_FILL, EVAS_HINT_FILL);
  elm_win_resize_object_add(win, obj);
  evas_object_show(obj);
  return obj;
}

/* --- what is drawn --- */

void page_scene(void) {
  scene = fill(evas_object_rectangle_add(evas_object_evas_get(win)));
  evas_object_color_set(scene, 0, 80, 120, 255);
}

Evas_Object *put_text(Evas_Object *parent, const char *text, int x, int y) {
  Evas_Object *obj = evas_object_text_add(evas_object_evas_get(parent));
  evas_object_text_font_set(obj, "Sans", 20);
  evas_object_text_text_set(obj, text);
  evas_object_color_set(obj, 255, 0, 0, 255);
  evas_object_move(obj, x, y);
  evas_object_show(obj);
  return obj;
}

/* Every way in which a text may be seen or not. */
void text_scene(void) {
  Evas *evas = evas_object_evas_get(win);
  scene = fill(elm_box_add(win));
  put_text(win, "plain", 10, 10);
  evas_object_hide(put_text(win, "hidden", 10, 40));
  evas_object_color_set(put_text(win, "clear", 10, 70), 0, 0, 0, 0);
  put_text(win, "outside", 10, 5000);
  Evas_Object *clip = evas_object_rectangle_add(evas);
  evas_object_geometry_set(clip, 0, 0, 50, 400);
  evas_object_color_set(clip, 128, 128, 128, 128);
  evas_object_show(clip);
  evas_object_clip_set(put_text(win, "half clipped and tinted", 10, 100), clip);
  evas_object_clip_set(put_text(win, "clipped away", 60, 130), clip);
  put_text(win, "under", 10, 160);
  Evas_Object *cover = evas_object_rectangle_add(evas);
  evas_object_geometry_set(cover, 0, 155, 300, 40);
  evas_object_color_set(cover, 0, 0, 0, 255);
  evas_object_show(cover);
  Evas_Object *block = evas_object_textblock_add(evas);
  Evas_Textblock_Style *style = evas_textblock_style_new();
  evas_textblock_style_set(
      style, "DEFAULT='font=Sans font_size=24 color=#00ff0080' big='+ font_size=30' thin='+ font_size=1'");
  evas_object_textblock_style_set(block, style);
  evas_textblock_style_free(style);
  evas_object_textblock_text_markup_set(
      block, "<thin><br/></thin><big>a &lt;b&gt; &amp; &eacute;</big><br/>second<thin><br/> </thin>");
  evas_object_geometry_set(block, 10, 200, 300, 100);
  evas_object_show(block);
}

/* --- keys --- */

Evas_Object *key_objects[3];

void key_taken(void *data, Evas_Object *obj, void *event_info) {
  tell("key %s", static_cast<const char *>(data));
}

/* Takes itself away: the next key falls through. */
void key_once(void *data, Evas_Object *obj, void *event_info) {
  tell("key %s", static_cast<const char *>(data));
  const void *back = ea_object_event_callback_del(obj, EA_CALLBACK_BACK, key_once);
  tell("removed %s", back == data ? "with its data" : "without its data");
}

void key_scene(void) {
  scene = fill(elm_box_add(win));
  for (Evas_Object *&obj : key_objects) {
    obj = evas_object_rectangle_add(evas_object_evas_get(win));
    evas_object_color_set(obj, 0, 0, 0, 255);
    evas_object_resize(obj, 10, 10);
    evas_object_show(obj);
  }
  ea_object_event_callback_add(key_objects[0], EA_CALLBACK_BACK, key_taken, const_cast<char *>("bottom"));
  ea_object_event_callback_add(key_objects[0], EA_CALLBACK_MORE, key_taken, const_cast<char *>("more"));
  ea_object_event_callback_add(key_objects[1], EA_CALLBACK_BACK, key_taken, const_cast<char *>("middle"));
  ea_object_event_callback_add(key_objects[2], EA_CALLBACK_BACK, key_once, const_cast<char *>("old"));
  ea_object_event_callback_add(key_objects[2], EA_CALLBACK_BACK, key_once, const_cast<char *>("top"));
}

/* --- launches --- */

void replied(service_h request, service_h reply, int result, void *data) {
  tell("reply %d %s", result, extra(reply, "__BT_CONNECTION__").c_str());
}

void send(const std::string &id) {
  service_h request;
  service_create(&request);
  int r = service_set_app_id(request, id.c_str());
  if (r == 0) r = service_send_launch_request(request, replied, nullptr);
  service_destroy(request);
  tell("sent %d", r);
}

void show_scene(const std::string &name) {
  if (scene) evas_object_del(scene);
  scene = nullptr;
  if (name == "page") page_scene();
  if (name == "text") text_scene();
  if (name == "key") key_scene();
}

void action(const std::string &name) {
  if (name == "lower") elm_win_lower(win);
  if (name == "lower-twice") {
    elm_win_lower(win);
    elm_win_lower(win);
  }
  if (name == "lower-activate") {
    elm_win_lower(win);
    elm_win_activate(win);
  }
  if (name == "activate") elm_win_activate(win);
  if (name == "hide") evas_object_hide(win);
  if (name == "show") evas_object_show(win);
  if (name == "iconify") elm_win_iconified_set(win, EINA_TRUE);
  if (name == "restore") elm_win_iconified_set(win, EINA_FALSE);
  if (name == "hide-key") evas_object_hide(key_objects[1]);
  if (name == "delete-key") evas_object_del(key_objects[1]);
  if (name == "zone") tell("zone %s %ld", getenv("TZ"), -timezone);
  if (name == "exit") app_efl_exit();
  if (name == "destroy") evas_object_del(win); /* as when another client does it */
}

/* --- the lifecycle --- */

bool create(void *data) {
  const char *awaited = getenv("PROBE_CREATE_AWAITS");
  while (awaited && access(awaited, F_OK) != 0) { /* the loop turns, as when an application waits for something */
    ecore_main_loop_iterate();
    usleep(5000);
  }
  if (getenv("PROBE_CREATE_FAILS")) return false;
  win = elm_win_util_standard_add("probe", "probe");
  app_efl_window_attach(win);
  app_efl_window_show();
  int w;
  int h;
  evas_object_geometry_get(win, nullptr, nullptr, &w, &h);
  tell("create %dx%d %s", w, h, dgettext("brisel", "IDS_EMAIL_BODY_NO_EMAILS"));
  return true;
}

void terminate(void *data) {
  tell("terminate");
  if (kept) service_destroy(kept);
}

int pause(void *data) {
  tell("pause");
  return 0;
}

/* As the application does it: that must not bring another resume. */
int resume(void *data) {
  tell("resume");
  elm_win_activate(win);
  return 0;
}

int prepare(void *data) {
  tell("prepare, %s", evas_object_visible_get(win) ? "in sight" : "out of sight");
  return 0;
}

int launched(service_h service, void *data) {
  tell("service scene=%s do=%s x=%s", extra(service, "scene").c_str(), extra(service, "do").c_str(),
       extra(service, "x").c_str());
  if (!extra(service, "scene").empty()) show_scene(extra(service, "scene"));
  action(extra(service, "do"));
  if (!extra(service, "send").empty()) send(extra(service, "send"));
  if (extra(service, "do") == "keep") service_clone(&kept, service);
  if (extra(service, "do") == "answer" && kept) {
    service_h reply;
    service_create(&reply);
    service_add_extra_data(reply, "answer", "late");
    const int first = service_reply_to_launch_request(reply, kept, SERVICE_RESULT_SUCCEEDED);
    const int second = service_reply_to_launch_request(reply, kept, SERVICE_RESULT_SUCCEEDED);
    tell("answered %d %d", first, second);
    service_destroy(reply);
  }
  return 0;
}

int language_changed(void *data) {
  tell("language %s mirrored %d %s", getenv("LANGUAGE"), elm_config_mirrored_get(),
       dgettext("brisel", "IDS_EMAIL_BODY_NO_EMAILS"));
  /* The neutral locales must not switch translation off. */
  elm_language_set("C");
  tell("after C %s", dgettext("brisel", "IDS_EMAIL_BODY_NO_EMAILS"));
  return 0;
}

int region_changed(void *data) {
  tell("region");
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  app_event_callback_s callbacks = {};
  callbacks.create = create;
  callbacks.terminate = terminate;
  callbacks.pause = pause;
  callbacks.resume = resume;
  callbacks.service = launched;
  callbacks.language_changed = language_changed;
  callbacks.region_format_changed = region_changed;
  callbacks.prepare = prepare;
  app_efl_id_set("com.vextora.probe");
  return app_efl_main(&argc, &argv, &callbacks, nullptr);
}
