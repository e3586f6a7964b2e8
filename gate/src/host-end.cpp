/* The host service's end: who it is on the session bus, and the calls that wait for its answers. Besides its own
   connection, the gate calls three methods of the bus itself, before it hears anything from the phone. */
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "brisel-bus.h"
#include "gate.h"
#include "platform-peer.h"

namespace {

constexpr char bus_name[] = "org.freedesktop.DBus", bus_path[] = "/org/freedesktop/DBus";

void (*found)(gate *g);
bool started = false; /* the service was asked for already */

int call_bus(gate *g, const char *method, sd_bus_message_handler_t answered, const char *types, const char *name) {
  sd_bus_message *m = nullptr;
  int r = sd_bus_message_new_method_call(g->host, &m, bus_name, bus_path, bus_name, method);
  if (r >= 0) r = sd_bus_message_append(m, types, name, 0u);
  if (r >= 0) r = sd_bus_call_async(g->host, nullptr, m, answered, g, 0);
  sd_bus_message_unref(m);
  return r;
}

/* What a step of the finding came to. */
int step(gate *g, int r, const char *why) {
  if (r < 0) gate_end(g, why);
  return 0;
}

int failed(gate *g, sd_bus_message *answer, const char *what) {
  const sd_bus_error *error = sd_bus_message_get_error(answer);
  fprintf(stderr, "brisel-gate: %s: %s\n", what, error && error->message ? error->message : "no reason given");
  gate_end(g, "the host service cannot be reached");
  return 0;
}

int process_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *g = static_cast<gate *>(data);
  uint32_t pid = 0;
  if (!*g->service) return 0; /* there is nobody yet */
  if (sd_bus_message_is_method_error(m, nullptr)) return failed(g, m, "the host service left");
  if (sd_bus_message_read(m, "u", &pid) < 0) return step(g, -1, "the bus gives no answer that can be read");
  const std::string program = platform_program_of(static_cast<pid_t>(pid));
  if (!platform_program_is(program, BRISEL_HOSTD, "service/brisel-hostd")) {
    fprintf(stderr, "brisel-gate: %s is taken by %s\n", host_name,
            program.empty() ? "an unknown program" : program.c_str());
    return step(g, -1, "the host service's name is taken by another program");
  }
  found(g);
  return 0;
}

int ask(gate *g);

int started_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *g = static_cast<gate *>(data);
  if (sd_bus_message_is_method_error(m, nullptr)) return failed(g, m, "the host service cannot be started");
  return step(g, ask(g), "the bus cannot be asked");
}

int owner_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *g = static_cast<gate *>(data);
  const char *name = nullptr;
  if (sd_bus_message_is_method_error(m, nullptr)) {
    if (started) return failed(g, m, "the host service left");
    started = true;
    return step(g, call_bus(g, "StartServiceByName", started_cb, "su", host_name), "the bus cannot be asked");
  }
  if (sd_bus_message_read(m, "s", &name) < 0 || strlen(name) >= sizeof g->service)
    return step(g, -1, "the bus gives no answer that can be read");
  strcpy(g->service, name);
  return 0;
}

/* Who has the name, and which process that is, in one go. Should it be another's by the second answer, the bus says so
   between the two. */
int ask(gate *g) {
  const int r = call_bus(g, "GetNameOwner", owner_cb, "s", host_name);
  return r < 0 ? r : call_bus(g, "GetConnectionUnixProcessID", process_cb, "s", host_name);
}

int left_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *g = static_cast<gate *>(data);
  const char *before = nullptr;
  /* The phone comes again and gets the next one: what it asked this one is not known to that. */
  if (sd_bus_message_read(m, "sss", nullptr, &before, nullptr) >= 0 && *g->service && !strcmp(before, g->service))
    gate_end(g, "the host service ended");
  return 0;
}

/* Signals of the service itself, and of nobody who looks like it. */
int from_host_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *g = static_cast<gate *>(data);
  const char *sender = sd_bus_message_get_sender(m);
  if (!g->phone || g->ends || !sender || strcmp(sender, g->service) != 0) return 0;
  if (sd_bus_message_is_signal(m, phone_interface, nullptr) <= 0 || strcmp(sd_bus_message_get_path(m), host_path) != 0)
    return 0;
  return phone_tell(g, m);
}

/* --- calls --- */

int pass_answer(gate *g, sd_bus_message *call, sd_bus_message *answer) {
  if (sd_bus_message_is_method_error(answer, nullptr))
    return sd_bus_reply_method_error(call, sd_bus_message_get_error(answer));
  sd_bus_message *m = nullptr;
  int r = sd_bus_message_new_method_return(call, &m);
  if (r >= 0) r = sd_bus_message_copy(m, answer, 1);
  if (r >= 0) r = sd_bus_send(g->phone, m, nullptr);
  sd_bus_message_unref(m);
  return r;
}

int answered_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *pending = static_cast<pending_call *>(data);
  gate *g = pending->g;
  const int r = pass_answer(g, pending->call, m);
  pending->call = sd_bus_message_unref(pending->call);
  pending->slot = sd_bus_slot_unref(pending->slot);
  g->calls_count--;
  if (r < 0) gate_end(g, "an answer could not be passed on");
  return 0;
}

}  // namespace

int host_start(gate *g, void (*when_found)(gate *g)) {
  found = when_found;
  int r = sd_bus_open_user(&g->host);
  if (r >= 0) r = sd_bus_add_filter(g->host, nullptr, from_host_cb, g);
  if (r >= 0)
    r = sd_bus_match_signal_async(g->host, nullptr, bus_name, bus_path, bus_name, "NameOwnerChanged", left_cb, nullptr,
                                  g);
  if (r >= 0) r = ask(g);
  return r;
}

int host_ask(gate *g, sd_bus_message *call) {
  pending_call *pending = nullptr;
  for (pending_call &one : g->calls)
    if (!one.call) pending = &one;
  if (!pending) return -EBUSY;
  sd_bus_message *m = nullptr;
  /* A message of the gate's own, so that nothing of the phone's but the arguments reaches the bus, each looked at. */
  int r = sd_bus_message_new_method_call(g->host, &m, g->service, host_path, phone_interface,
                                         sd_bus_message_get_member(call));
  if (r >= 0) r = sd_bus_message_set_auto_start(m, 0);
  if (r >= 0) r = sd_bus_message_copy(m, call, 1);
  /* Without a limit of its own: the phone knows how long it waits, and a service that ends is heard of. */
  if (r >= 0) r = sd_bus_call_async(g->host, &pending->slot, m, answered_cb, pending, UINT64_MAX);
  sd_bus_message_unref(m);
  if (r < 0) return r;
  pending->g = g;
  pending->call = sd_bus_message_ref(call);
  g->calls_count++;
  return 0;
}
