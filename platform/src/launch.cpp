#include <Ecore.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "app-priv.h"
#include "app_efl.h"
#include "bus-loop.h"
#include "dlog.h"
#include "keypad.h"
#include "text-check.h"

namespace {

/* How long the bus itself may take to say who is there. It answers at once or is in trouble. */
constexpr uint64_t bus_answer_usec = 2000000;
constexpr char bus_name[] = "org.freedesktop.DBus";
constexpr char bus_path[] = "/org/freedesktop/DBus";
constexpr uint32_t name_is_taken = 3; /* what the bus answers to who asks for a name that another one has */

sd_bus_slot *application_slot;
sd_bus_slot *desktop_slot;
sd_bus_slot *name_slot; /* the name is asked for again */
/* The request that arrived last and was not handed over yet: while create goes on, or until the loop's next turn. Those
   of one turn are joined, for opening what nobody will see takes its time and has its consequences. */
std::unique_ptr<service_s> pending;
Ecore_Job *pending_job;

/* --- texts and paths --- */

const char *error_text(const sd_bus_error *error, int r) {
  if (error && error->message && *error->message) return error->message;
  return strerror(r < 0 ? -r : EIO);
}

/* --- records on the wire --- */

int append_extra(sd_bus_message *m, const std::map<std::string, std::string> &extra) {
  int r = sd_bus_message_open_container(m, 'a', "{ss}");
  for (const auto &[key, value] : extra)
    if (r >= 0) r = sd_bus_message_append(m, "{ss}", key.c_str(), value.c_str());
  return r < 0 ? r : sd_bus_message_close_container(m);
}

/* -E2BIG for more than anybody sends in earnest. */
int read_extra(sd_bus_message *m, std::map<std::string, std::string> *extra) {
  int r = sd_bus_message_enter_container(m, 'a', "{ss}");
  if (r < 0) return r;
  size_t bytes = 0;
  const char *key;
  const char *value;
  while ((r = sd_bus_message_read(m, "{ss}", &key, &value)) > 0) {
    bytes += strlen(key) + strlen(value);
    if (extra->size() >= launch_pairs_max || bytes > launch_bytes_max) return -E2BIG;
    (*extra)[key] = value;
  }
  return r < 0 ? r : sd_bus_message_exit_container(m);
}

int send_answer(sd_bus_message *call, int result, const std::map<std::string, std::string> &extra) {
  sd_bus_message *answer = nullptr;
  int r = sd_bus_message_new_method_return(call, &answer);
  if (r >= 0 && sd_bus_message_is_method_call(call, app_interface, nullptr)) {
    r = sd_bus_message_append(answer, "i", result);
    if (r >= 0) r = append_extra(answer, extra);
  }
  if (r >= 0) r = sd_bus_send(nullptr, answer, nullptr);
  sd_bus_message_unref(answer);
  return r;
}

/* 0, or the last error. */
int answer_all(launch_call *call, int result, const std::map<std::string, std::string> &extra) {
  int failed = 0;
  for (sd_bus_message *message : std::exchange(call->messages, {})) {
    if (const int r = send_answer(message, result, extra); r < 0) failed = r;
    sd_bus_message_unref(message);
  }
  return failed;
}

/* --- received requests --- */

void pending_cb(void *data) {
  pending_job = nullptr;
  app_launch_flush_pending();
}

/* Takes the request in; it is answered when the application is done with it. */
int receive(sd_bus_message *m, std::unique_ptr<service_s> service) {
  service->app_id = app_id();
  if (pending) service->call = pending->call;
  if (sd_bus_message_get_expect_reply(m)) {
    if (!service->call) service->call = std::make_shared<launch_call>();
    service->call->messages.push_back(sd_bus_message_ref(m));
  }
  pending = std::move(service);
  if (app_ready() && !pending_job) pending_job = ecore_job_add(pending_cb, nullptr);
  return 1;
}

int launch_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto service = std::make_unique<service_s>();
  const int r = read_extra(m, &service->extra);
  if (r >= 0) return receive(m, std::move(service));
  return sd_bus_error_set(error, SD_BUS_ERROR_LIMITS_EXCEEDED, "The launch request's extra data is too large");
}

int pause_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  app_launch_flush_pending();
  app_go_background();
  return sd_bus_reply_method_return(m, nullptr);
}

int resume_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  app_launch_flush_pending();
  app_go_foreground();
  return sd_bus_reply_method_return(m, nullptr);
}

int quit_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  app_launch_flush_pending();
  app_efl_exit();
  return sd_bus_reply_method_return(m, nullptr);
}

void answer_settled_cb(void *data) {
  auto *m = static_cast<sd_bus_message *>(data);
  sd_bus_reply_method_return(m, nullptr);
  sd_bus_message_unref(m);
}

int key_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  const char *key;
  const int r = sd_bus_message_read(m, "s", &key);
  if (r < 0) return r;
  app_launch_flush_pending();
  if (strcmp(key, "back") == 0)
    ea_dispatch(EA_CALLBACK_BACK);
  else if (strcmp(key, "more") == 0)
    ea_dispatch(EA_CALLBACK_MORE);
  else
    return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "There is no such key");
  app_inspect_settled(answer_settled_cb, sd_bus_message_ref(m));
  return 1;
}

int keypad_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  int show;
  const int r = sd_bus_message_read(m, "b", &show);
  if (r < 0) return r;
  app_launch_flush_pending();
  if (!app_window()) return sd_bus_error_set(error, SD_BUS_ERROR_FAILED, "There is no window");
  show ? keypad_show() : keypad_hide();
  app_inspect_settled(answer_settled_cb, sd_bus_message_ref(m));
  return 1;
}

int activate_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  return receive(m, std::make_unique<service_s>());
}

/* A desktop may hand files or addresses over; the application gets the first as extra data and may ignore it. */
int open_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  int r = sd_bus_message_enter_container(m, 'a', "s");
  const char *uri = nullptr;
  if (r >= 0) r = sd_bus_message_read(m, "s", &uri);
  if (r < 0) return r;
  auto service = std::make_unique<service_s>();
  if (uri && strlen(uri) <= launch_bytes_max) service->extra["uri"] = uri;
  return receive(m, std::move(service));
}

int activate_action_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  const char *action;
  int r = sd_bus_message_read(m, "s", &action);
  if (r < 0) return r;
  if (strcmp(action, "launch") != 0)
    return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "The application has no such action");
  auto service = std::make_unique<service_s>();
  const char *contents;
  r = sd_bus_message_enter_container(m, 'a', "v");
  if (r >= 0) r = sd_bus_message_peek_type(m, nullptr, &contents);
  if (r > 0 && strcmp(contents, "a{ss}") == 0) {
    r = sd_bus_message_enter_container(m, 'v', "a{ss}");
    if (r >= 0) r = read_extra(m, &service->extra);
  } else if (r > 0) {
    r = -EINVAL;
  }
  if (r >= 0) return receive(m, std::move(service));
  return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "The launch action takes one record of texts");
}

const sd_bus_vtable application_table[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Launch", "a{ss}", "ia{ss}", launch_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Pause", "", "", pause_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Resume", "", "", resume_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Quit", "", "", quit_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Key", "s", "", key_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Keypad", "b", "", keypad_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

const sd_bus_vtable desktop_table[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Activate", "a{sv}", "", activate_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Open", "asa{sv}", "", open_cb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("ActivateAction", "sava{sv}", "", activate_action_cb, SD_BUS_VTABLE_UNPRIVILEGED), SD_BUS_VTABLE_END};

int offer_tables(sd_bus *bus) {
  const std::string path = app_object_path(app_id());
  int r = sd_bus_add_object_vtable(bus, &application_slot, path.c_str(), app_interface, application_table, nullptr);
  if (r >= 0)
    r = sd_bus_add_object_vtable(bus, &desktop_slot, path.c_str(), "org.freedesktop.Application", desktop_table,
                                 nullptr);
  if (r >= 0) r = app_inspect_start(bus, path.c_str());
  if (r < 0) __dlog_print(DLOG_ERROR, app_log_tag, "the application cannot be reached on the bus: %s", strerror(-r));
  return r;
}

int name_cb(sd_bus_message *m, void *data, sd_bus_error *unused) {
  name_slot = sd_bus_slot_unref(name_slot);
  uint32_t answer = name_is_taken;
  const int r = -sd_bus_message_get_errno(m);
  if (r < 0 || sd_bus_message_read(m, "u", &answer) < 0)
    __dlog_print(DLOG_ERROR, app_log_tag, "the name %s cannot be had again: %s", app_id(), strerror(-r));
  if (r < 0 || answer != name_is_taken || !app_ready()) return 0;
  /* Started while this one could not be found: whoever asks for the application is shown that one. */
  __dlog_print(DLOG_INFO, app_log_tag, "another instance has come meanwhile: this one ends");
  app_efl_exit();
  return 0;
}

void bus_watch_cb(bool connected, void *data) {
  if (connected) {
    sd_bus *bus = bus_loop_session();
    if (!app_ready() || offer_tables(bus) < 0) return;
    app_inspect_window(app_window());
    const int r = sd_bus_request_name_async(bus, &name_slot, app_id(), 0, name_cb, nullptr);
    if (r < 0) __dlog_print(DLOG_ERROR, app_log_tag, "the name %s is not asked for: %s", app_id(), strerror(-r));
    return;
  }
  /* Dead with their connection. The application goes on alone until there is a bus again: what it shows is still true
     and its store is there. */
  application_slot = sd_bus_slot_unref(application_slot);
  desktop_slot = sd_bus_slot_unref(desktop_slot);
  name_slot = sd_bus_slot_unref(name_slot);
  app_inspect_stop();
  app_end_if_ahead("nobody could launch it any more");
}

/* --- sent requests --- */

struct sent_request {
  service_s request;
  service_reply_cb callback;
  void *data;
};

int sent_cb(sd_bus_message *m, void *data, sd_bus_error *unused) {
  auto *sent = static_cast<sent_request *>(data);
  service_s reply;
  reply.app_id = sent->request.app_id;
  int result = SERVICE_RESULT_FAILED;
  int r;
  if (const sd_bus_error *error = sd_bus_message_get_error(m)) {
    __dlog_print(DLOG_WARN, app_log_tag, "%s gave no answer: %s", sent->request.app_id.c_str(), error_text(error, 0));
  } else if ((r = sd_bus_message_read(m, "i", &result)) < 0 || (r = read_extra(m, &reply.extra)) < 0) {
    __dlog_print(DLOG_WARN, app_log_tag, "%s gave a broken answer: %s", sent->request.app_id.c_str(), strerror(-r));
    result = SERVICE_RESULT_FAILED;
    reply.extra.clear();
  }
  if (sent->callback) sent->callback(&sent->request, &reply, result, sent->data);
  return 1;
}

void sent_free_cb(void *data) {
  delete static_cast<sent_request *>(data);
}

/* Whether somebody would answer to the name: it is owned, or the bus can start its owner. */
int reachable(sd_bus *bus, const char *name) {
  sd_bus_message *answer = nullptr;
  sd_bus_message *m = nullptr;
  int owned = 0;
  int r = sd_bus_message_new_method_call(bus, &m, bus_name, bus_path, bus_name, "NameHasOwner");
  if (r >= 0) r = sd_bus_message_append(m, "s", name);
  if (r >= 0) r = sd_bus_call(bus, m, bus_answer_usec, nullptr, &answer);
  if (r >= 0) r = sd_bus_message_read(answer, "b", &owned);
  sd_bus_message_unref(answer);
  sd_bus_message_unref(m);
  if (r < 0 || owned) return r < 0 ? r : 1;

  answer = nullptr;
  m = nullptr;
  bool found = false;
  r = sd_bus_message_new_method_call(bus, &m, bus_name, bus_path, bus_name, "ListActivatableNames");
  if (r >= 0) r = sd_bus_call(bus, m, bus_answer_usec, nullptr, &answer);
  if (r >= 0) r = sd_bus_message_enter_container(answer, 'a', "s");
  const char *one;
  while (r >= 0 && !found && (r = sd_bus_message_read(answer, "s", &one)) > 0) found = strcmp(one, name) == 0;
  sd_bus_message_unref(answer);
  sd_bus_message_unref(m);
  return r < 0 ? r : found;
}

}  // namespace

launch_call::~launch_call() {
  /* Nobody can answer any more, so the senders must not wait any longer. */
  answer_all(this, SERVICE_RESULT_CANCELED, {});
}

std::string app_object_path(const char *id) {
  std::string path = std::string("/") + id;
  for (char &c : path) {
    if (c == '.') c = '/';
    if (c == '-') c = '_';
  }
  return path;
}

bool app_is_text(const char *text) {
  return text && text_utf8_valid(text);
}

/* --- the public interface --- */

int service_create(service_h *service) {
  if (!service) return SERVICE_ERROR_INVALID_PARAMETER;
  *service = new service_s;
  return SERVICE_ERROR_NONE;
}

int service_clone(service_h *clone, service_h service) {
  if (!clone || !service) return SERVICE_ERROR_INVALID_PARAMETER;
  *clone = new service_s(*service);
  return SERVICE_ERROR_NONE;
}

int service_destroy(service_h service) {
  if (!service) return SERVICE_ERROR_INVALID_PARAMETER;
  delete service;
  return SERVICE_ERROR_NONE;
}

int service_set_app_id(service_h service, const char *id) {
  if (!service || !id || !sd_bus_service_name_is_valid(id) || id[0] == ':') return SERVICE_ERROR_INVALID_PARAMETER;
  service->app_id = id;
  return SERVICE_ERROR_NONE;
}

int service_add_extra_data(service_h service, const char *key, const char *value) {
  if (!service || !key || !*key || !app_is_text(key) || !app_is_text(value)) return SERVICE_ERROR_INVALID_PARAMETER;
  service->extra[key] = value;
  return SERVICE_ERROR_NONE;
}

int service_get_extra_data(service_h service, const char *key, char **value) {
  if (value) *value = nullptr;
  if (!service || !key || !value) return SERVICE_ERROR_INVALID_PARAMETER;
  const auto found = service->extra.find(key);
  if (found == service->extra.end()) return SERVICE_ERROR_KEY_NOT_FOUND;
  *value = strdup(found->second.c_str());
  return *value ? SERVICE_ERROR_NONE : SERVICE_ERROR_OUT_OF_MEMORY;
}

int service_send_launch_request(service_h service, service_reply_cb reply_cb, void *user_data) {
  if (!service || service->app_id.empty()) return SERVICE_ERROR_INVALID_PARAMETER;
  sd_bus *bus = bus_loop_session();
  if (!bus) return SERVICE_ERROR_LINK;
  const int there = reachable(bus, service->app_id.c_str());
  if (there < 0) {
    __dlog_print(DLOG_ERROR, app_log_tag, "the bus does not answer: %s", strerror(-there));
    return SERVICE_ERROR_LINK;
  }
  if (!there) {
    __dlog_print(DLOG_WARN, app_log_tag, "there is no application %s", service->app_id.c_str());
    return SERVICE_ERROR_APP_NOT_FOUND;
  }
  auto *sent = new sent_request{{service->app_id, service->extra, nullptr}, reply_cb, user_data};
  sd_bus_message *m = nullptr;
  sd_bus_slot *slot = nullptr;
  int r = sd_bus_message_new_method_call(bus, &m, service->app_id.c_str(),
                                         app_object_path(service->app_id.c_str()).c_str(), app_interface, "Launch");
  if (r >= 0) r = append_extra(m, service->extra);
  /* An answer may need a person's decision, so it has all the time there is; the bus itself tells when the other
     application ends. */
  if (r >= 0) r = sd_bus_call_async(bus, &slot, m, sent_cb, sent, UINT64_MAX);
  sd_bus_message_unref(m);
  if (r < 0) {
    delete sent;
    __dlog_print(DLOG_ERROR, app_log_tag, "the launch request cannot be sent: %s", strerror(-r));
    return SERVICE_ERROR_LINK;
  }
  sd_bus_slot_set_destroy_callback(slot, sent_free_cb);
  sd_bus_slot_set_floating(slot, 1);
  sd_bus_slot_unref(slot);
  return SERVICE_ERROR_NONE;
}

int service_reply_to_launch_request(service_h reply, service_h request, int result) {
  if (!request || !request->call || request->call->messages.empty()) return SERVICE_ERROR_INVALID_PARAMETER;
  const int r = answer_all(request->call.get(), result, reply ? reply->extra : std::map<std::string, std::string>());
  return r < 0 ? SERVICE_ERROR_LINK : SERVICE_ERROR_NONE;
}

/* --- for the framework --- */

int app_wait_for_name(void) {
  sd_bus *bus = bus_loop_open();
  if (!bus) return -ENOTCONN;
  int r = sd_bus_request_name(bus, app_id(), SD_BUS_NAME_QUEUE);
  while (r == 0) {
    sd_bus_message *m = nullptr;
    const char *name;
    r = sd_bus_process(bus, &m);
    /* At once: what comes after it is for the application. */
    const bool mine = r > 0 && m && sd_bus_message_is_signal(m, bus_name, "NameAcquired") &&
                      sd_bus_message_read(m, "s", &name) > 0 && strcmp(name, app_id()) == 0;
    sd_bus_message_unref(m);
    if (mine) return 1;
    if (r == 0) r = sd_bus_wait(bus, UINT64_MAX);
    if (r >= 0 || r == -EINTR) r = 0;
  }
  if (r < 0) __dlog_print(DLOG_ERROR, app_log_tag, "the name %s cannot be waited for: %s", app_id(), strerror(-r));
  return r;
}

int app_claim_name(const service_s *request, bool wait_only) {
  /* The other instance may be just about to end: then its name is free a moment later. */
  for (int attempt = 0; attempt < 3; attempt++) {
    sd_bus *bus = bus_loop_open();
    if (!bus) return -ENOTCONN;
    int r = sd_bus_request_name(bus, app_id(), 0);
    if (r >= 0) return 1;
    if (r == -EALREADY) return 1;
    if (r != -EEXIST) {
      __dlog_print(DLOG_ERROR, app_log_tag, "the name %s cannot be had: %s", app_id(), strerror(-r));
      return r;
    }
    /* Started by the bus for a request that the running instance is getting anyway. */
    if (wait_only) return 0;
    sd_bus_message *m = nullptr;
    sd_bus_message *answer = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    r = sd_bus_message_new_method_call(bus, &m, app_id(), app_object_path(app_id()).c_str(), app_interface, "Launch");
    if (r >= 0) r = append_extra(m, request->extra);
    if (r >= 0) r = sd_bus_message_set_auto_start(m, 0);
    if (r >= 0) r = sd_bus_call(bus, m, 0, &error, &answer);
    const bool gone = sd_bus_error_has_name(&error, SD_BUS_ERROR_NO_REPLY) ||
                      sd_bus_error_has_name(&error, SD_BUS_ERROR_SERVICE_UNKNOWN);
    if (r < 0)
      __dlog_print(gone ? DLOG_WARN : DLOG_ERROR, app_log_tag, "the running instance did not take the request: %s",
                   error_text(&error, r));
    sd_bus_error_free(&error);
    sd_bus_message_unref(answer);
    sd_bus_message_unref(m);
    if (r >= 0) return 0;
    if (!gone) return r;
  }
  return -ESRCH;
}

int app_bus_start(void) {
  sd_bus *bus = bus_loop_session();
  if (!bus) return -ENOTCONN;
  const int r = offer_tables(bus);
  bus_loop_watch_add(bus_watch_cb, nullptr);
  return r;
}

void app_launch_flush_pending(void) {
  while (pending && app_ready()) {
    const std::unique_ptr<service_s> service = std::move(pending);
    app_deliver_launch(service.get());
  }
}

void app_bus_release_name(void) {
  sd_bus *bus = application_slot ? bus_loop_open() : nullptr;
  if (bus) sd_bus_release_name(bus, app_id());
}

void app_bus_stop(void) {
  bus_loop_watch_del(bus_watch_cb, nullptr);
  if (pending_job) ecore_job_del(pending_job);
  pending_job = nullptr;
  pending.reset();
  app_inspect_stop();
  application_slot = sd_bus_slot_unref(application_slot);
  desktop_slot = sd_bus_slot_unref(desktop_slot);
  name_slot = sd_bus_slot_unref(name_slot);
  bus_loop_shutdown();
}
