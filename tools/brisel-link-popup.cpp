/*
 * The phone-link popup's stand-in: waits for the link to the phone and tells the application that asked.
 * "__BT_CONNECTION__" of the answer is "Connected" or, when the user gives up, "Not Connected".
 */
#include <cstdlib>
#include <cstring>
#include <vector>

#include "brisel-bus.h"
#include "brisel-settings.h"
#include "bus-loop.h"
#include "dlog.h"
#include "standin.h"
#include "vconf.h"

namespace {

constexpr char log_tag[] = "BRISEL_LINK";
constexpr char answer_key[] = "__BT_CONNECTION__";

standin_window window;
std::vector<service_h> waiting;
sd_bus_track *asker; /* who waits without our window; NULL: nobody does */

bool linked(void) {
  int value = 0;
  return vconf_get_bool(BRISEL_KEY_BT_CONNECTED, &value) == 0 && value;
}

void answer(service_h request, bool connected) {
  service_h reply;
  service_create(&reply);
  service_add_extra_data(reply, answer_key, connected ? "Connected" : "Not Connected");
  if (service_reply_to_launch_request(reply, request, SERVICE_RESULT_SUCCEEDED) != SERVICE_ERROR_NONE)
    __dlog_print(DLOG_WARN, log_tag, "the answer cannot be given");
  service_destroy(reply);
}

void answer_all(bool connected) {
  for (service_h request : waiting) {
    answer(request, connected);
    service_destroy(request);
  }
  waiting.clear();
  app_efl_exit();
}

void link_changed_cb(keynode_t *node, void *data) {
  if (linked()) answer_all(true);
}

/* Nobody would see us, or end us. */
int asker_gone_cb(sd_bus_track *track, void *data) {
  if (!evas_object_visible_get(window.win)) answer_all(false);
  return 0;
}

void wait_without_window(void) {
  if (asker || !bus_loop_session() || sd_bus_track_new(bus_loop_session(), &asker, asker_gone_cb, nullptr) < 0) return;
  sd_bus_track_add_name(asker, application_name);
}

void cancel_cb(void) {
  answer_all(false);
}

bool create_cb(void *data) {
  if (!standin_create(&window, "brisel-link-popup", cancel_cb)) return false;
  standin_set(&window, "No phone", "Connect your phone. This closes by itself once the phone is linked.", "Cancel");
  vconf_notify_key_changed(BRISEL_KEY_BT_CONNECTED, link_changed_cb, nullptr);
  return true;
}

void terminate_cb(void *data) {
  vconf_ignore_key_changed(BRISEL_KEY_BT_CONNECTED, link_changed_cb);
  for (service_h request : waiting) {
    answer(request, linked());
    service_destroy(request);
  }
  waiting.clear();
  sd_bus_track_unref(asker);
}

int launched_cb(service_h service, void *data) {
  if (linked()) {
    answer(service, true);
    if (waiting.empty()) app_efl_exit();
    return 0;
  }
  service_h kept;
  service_clone(&kept, service);
  waiting.push_back(kept);
  /* Who says all that there is to say waits with us, and for no window. */
  char *wanted = nullptr;
  service_get_extra_data(service, "window", &wanted);
  const bool is_silent = wanted && strcmp(wanted, "none") == 0;
  free(wanted);
  if (is_silent) {
    wait_without_window();
    return 0;
  }
  evas_object_show(window.win);
  elm_win_activate(window.win);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  int code;
  if (standin_options(argc, argv, "brisel-link-popup", "Waits for the link to the phone and tells who asked for it.",
                      &code))
    return code;
  app_event_callback_s callbacks = {};
  callbacks.create = create_cb;
  callbacks.terminate = terminate_cb;
  callbacks.service = launched_cb;
  app_efl_id_set("com.vextora.bt-connection-popup");
  return app_efl_main(&argc, &argv, &callbacks, nullptr);
}
