#include "pickover.h"

#include <time.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

#include "vconf.h"

namespace {

/* "APPLICATION-ID EXPIRY", the expiry in nanoseconds of the monotonic clock, which all processes share. */
constexpr const char *registration_key = "memory/private/pickover/registration";
constexpr const char *message_key = "file/private/wcontext/service_msg";
constexpr int seconds_max = 3600;
constexpr int64_t ns_per_second = 1000000000;

std::string own; /* this process's registration as it was written; empty: none */

using c_text = std::unique_ptr<char, decltype(&free)>;

int64_t now_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * ns_per_second + now.tv_nsec;
}

}  // namespace

int register_pickover(const char *app_id, int seconds) {
  if (app_id == nullptr || app_id[0] == '\0' || strchr(app_id, ' ') != nullptr) return -1;
  if (seconds < 1 || seconds > seconds_max) return -1;
  const std::string text = std::string(app_id) + " " + std::to_string(now_ns() + seconds * ns_per_second);
  if (vconf_set_str(registration_key, text.c_str()) != 0) return -1;
  own = text;
  return 0;
}

int unregister_pickover(void) {
  if (own.empty()) return -1;
  const std::string was = own;
  own.clear();
  /* Another application may have taken the place meanwhile. */
  const c_text current(vconf_get_str(registration_key), free);
  if (current == nullptr || was != current.get()) return 0;
  return vconf_unset(registration_key);
}

int pickover_take_over(void) {
  const c_text registration(vconf_get_str(registration_key), free);
  if (registration == nullptr) return -1;
  const std::string_view text = registration.get();
  const size_t space = text.find(' ');
  if (space == std::string_view::npos || space == 0) return -1;
  int64_t expiry = 0;
  const auto parsed = std::from_chars(text.data() + space + 1, text.data() + text.size(), expiry);
  if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size()) return -1;
  const int64_t now = now_ns();
  /* Further ahead than any registration can be: it was made before the clock began anew. */
  if (expiry <= now || expiry - now > seconds_max * ns_per_second) return -1;
  return vconf_set_str(message_key, std::string(text.substr(0, space)).c_str());
}
