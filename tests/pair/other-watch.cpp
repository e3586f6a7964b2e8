/* A watch with software of another age at the end of a stream, as far as a phone sees of it.
   usage: other-watch AGE LOG; each call is written into the log.
   AGE: first (nothing but what the first version had), least (its version is below what a phone works with), refuses
   (the phone's is), newest (says more than a phone knows), floods (asks for more at once than a watch can have
   waiting, and for what is far too deep, each until it is acknowledged, cannot say it the second time, and calls the
   phone) */
#include <cstdio>
#include <set>
#include <string>

#include "stream-bus.h"

namespace {

struct other_watch {
  std::string age;
  FILE *log;
  int mails = 0, connects = 0;
  std::set<int64_t> waiting;
};

int flood(const other_watch &w, sd_bus *bus) {
  constexpr size_t bytes = 1 << 20;
  const auto request = [](const std::string &value) { return R"({"request":"unheard-of","pad":)" + value + "}"; };
  const std::string long_one = request('"' + std::string(bytes, 'x') + '"'),
                    deep_one = request(std::string(bytes / 2, '[') + std::string(bytes / 2, ']'));
  const auto answered = [](sd_bus_message *m, void *log, sd_bus_error *) {
    return sd_bus_message_is_method_error(m, nullptr) ? 0 : fprintf(static_cast<FILE *>(log), "answered\n");
  };
  int r =
      sd_bus_call_method_async(bus, nullptr, nullptr, "/", "org.freedesktop.DBus.Peer", "Ping", answered, w.log, "");
  for (const int64_t id : w.waiting)
    if (r >= 0)
      r = sd_bus_emit_signal(bus, "/com/vextora/brisel/Host", "com.vextora.brisel.Phone1", "Request", "xsa{sv}", id,
                             (id == 1 ? deep_one : long_one).c_str(), 0);
  return r;
}

int introduce(const other_watch &w, sd_bus_message *m) {
  const sd_bus_error unknown = {SD_BUS_ERROR_UNKNOWN_METHOD, "there is no such method", 0},
                     version = {"com.vextora.brisel.Error.Version", "update it on the phone", 0};
  if (w.age == "first") return sd_bus_reply_method_error(m, &unknown);
  if (w.age == "refuses") return sd_bus_reply_method_error(m, &version);
  return sd_bus_reply_method_return(m, "ussas", w.age == "least" ? 0u : 9u, "0123456789abcdef0123456789abcdef", "Other",
                                    2, "zlib", "thoughts");
}

int call_cb(sd_bus_message *m, void *data, sd_bus_error *) {
  auto *w = static_cast<other_watch *>(data);
  const char *member = sd_bus_message_get_member(m);
  if (!member || sd_bus_message_is_method_call(m, nullptr, nullptr) <= 0) return 0;
  const std::string method = member;
  fprintf(w->log, "%s\n", member);
  if (method == "Introduce") return introduce(*w, m);
  if (method == "AddAccount") return sd_bus_reply_method_return(m, "i", 1);
  if (method.starts_with("List")) return sd_bus_reply_method_return(m, "aa{sv}", 0);
  if (method == "Connect" && w->age == "floods") {
    if (++w->connects == 2) return sd_bus_reply_method_errorf(m, "com.vextora.brisel.Error.Store", "not now");
    const int r = sd_bus_reply_method_return(m, "");
    return r < 0 ? r : flood(*w, sd_bus_message_get_bus(m));
  }
  int64_t id = 0;
  if (method == "Ack" && sd_bus_message_read(m, "x", &id) > 0 && w->waiting.erase(id) && w->waiting.empty())
    fprintf(w->log, "all\n");
  if (method != "AddMails") return sd_bus_reply_method_return(m, "");
  sd_bus_message_enter_container(m, 'a', "a{sv}");
  sd_bus_message_enter_container(m, 'a', "{sv}");
  while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
    const char *key = "";
    sd_bus_message_read(m, "s", &key);
    fprintf(w->log, "with %s\n", key);
    sd_bus_message_skip(m, "v");
    sd_bus_message_exit_container(m);
  }
  return sd_bus_reply_method_return(m, "ai", 1, ++w->mails);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) return 2;
  other_watch w = {argv[1], fopen(argv[2], "a")};
  for (int64_t id = 1; w.age == "floods" && id <= 40; id++) w.waiting.insert(id);
  if (!w.log) return 1;
  setvbuf(w.log, nullptr, _IOLBF, 0);
  stream_bus_serve(0, 1, call_cb, &w);
  return 1;
}
