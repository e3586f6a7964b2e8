/* What the service's sides on the bus share: announcing changes, errors, and reading arguments. */
#include "host.h"

#include <cstdio>
#include <cstring>

#include "platform-peer.h"
#include "store-format.h"

/* Names of clients that are remembered; asking the bus again costs a round trip only. */
constexpr size_t clients_kept = 64;

void host_announce(host *h) {
  const int64_t seq = store_last_change(h->st);
  const std::string note = store_take_note(h->st);
  if (!note.empty()) fprintf(stderr, "brisel-hostd: %s\n", note.c_str());
  if (seq == h->announced && note.empty()) return;
  h->announced = seq;
  if (h->store_changed) h->store_changed(h);
  const int r = sd_bus_emit_signal(h->bus, host_path, watch_interface, "Changed", "x", seq);
  if (r < 0) fprintf(stderr, "brisel-hostd: a change could not be announced: %s\n", strerror(-r));
}

int host_fail(const host *h, store_status status, sd_bus_error *error) {
  if (status == store_failed) fprintf(stderr, "brisel-hostd: %s\n", store_error(h->st).c_str());
  const char *name = status == store_invalid ? host_error_invalid
                     : status == store_full  ? host_error_full
                                             : host_error_store;
  return sd_bus_error_set(error, name, store_error(h->st).c_str());
}

std::string host_client_of(host *h, sd_bus_message *m) {
  const char *sender = sd_bus_message_get_sender(m);
  if (!sender) return {};
  const auto known = h->clients.find(sender);
  if (known != h->clients.end()) return known->second;
  sd_bus_creds *creds = nullptr;
  pid_t pid = 0;
  std::string program;
  if (sd_bus_query_sender_creds(m, SD_BUS_CREDS_PID, &creds) >= 0 && sd_bus_creds_get_pid(creds, &pid) >= 0)
    program = platform_program_of(pid);
  sd_bus_creds_unref(creds);
  if (program.empty()) return sender; /* it may have gone meanwhile */
  if (h->clients.size() >= clients_kept) h->clients.clear();
  return h->clients[sender] = program;
}

int host_read_ids(sd_bus_message *m, bool zero_allowed, std::vector<int> *ids, sd_bus_error *error) {
  const void *data = nullptr;
  size_t bytes = 0;
  const int r = sd_bus_message_read_array(m, 'i', &data, &bytes);
  if (r < 0) return r;
  const size_t count = bytes / sizeof(int32_t);
  if (count > ids_max) return sd_bus_error_setf(error, HOST_ERROR "Invalid", "more than %zu ids", ids_max);
  const int32_t *numbers = static_cast<const int32_t *>(data);
  ids->reserve(count);
  for (size_t i = 0; i < count; i++) {
    if (numbers[i] < 0 || (numbers[i] == 0 && !zero_allowed))
      return sd_bus_error_setf(error, HOST_ERROR "Invalid", "%d is no id", numbers[i]);
    ids->push_back(numbers[i]);
  }
  return 0;
}

int host_read_text(sd_bus_message *m, const char *what, size_t max, std::string *text, sd_bus_error *error) {
  const char *chars = nullptr;
  const int r = sd_bus_message_read_basic(m, 's', &chars);
  if (r < 0) return r;
  *text = chars;
  if (text->size() > max)
    return sd_bus_error_setf(error, HOST_ERROR "Invalid", "%s is longer than %zu bytes", what, max);
  return 0;
}
