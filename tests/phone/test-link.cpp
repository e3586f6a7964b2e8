/* What a watch says over a stream, as the phone hears it: cut at every byte, with every byte changed, and with answers
   that no service gives. Each call ends, and a wrong answer is an error. */
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "brisel-body.h"
#include "host.h"
#include "stream-bus.h"

namespace {

constexpr int on_watch = 3; /* mails */

using lie = std::string;

int mail_record(sd_bus_message *m, int id, const lie &told) {
  int r = sd_bus_message_open_container(m, 'a', "{sv}");
  if (r >= 0) r = sd_bus_message_append(m, "{sv}{sv}", "mail_id", "i", id, "subject", "s", "Subject");
  for (int n = 0; r >= 0 && told == "fields" && n < 100; n++)
    r = sd_bus_message_append(m, "{sv}", std::to_string(n).c_str(), "i", n);
  return r < 0 ? r : sd_bus_message_close_container(m);
}

/* The watch's answers. */
int answer_cb(sd_bus_message *call, void *data, sd_bus_error *) {
  const lie &told = *static_cast<lie *>(data);
  const std::string method = sd_bus_message_get_member(call) ? sd_bus_message_get_member(call) : "";
  if (sd_bus_message_is_method_call(call, nullptr, nullptr) <= 0) return 0;
  sd_bus_message *m = nullptr;
  int after = 0, most = 0, r = sd_bus_message_new_method_return(call, &m);
  if (method.starts_with("ListMail")) sd_bus_message_read(call, "ii", &after, &most);
  const int first = told == "without end" ? after + 1 : std::min(after, on_watch) + 1;
  const int last = told == "more" ? 5000 : told == "without end" ? after + most : on_watch;
  if (method == "Introduce") {
    const std::string name = told == "name" ? std::string(100000, '\n') : "Wrist";
    r = sd_bus_message_append(m, "ussas", 2u, "0123456789abcdef0123456789abcdef", name.c_str(), 2, "zlib", "mail_ids");
  } else if (method == "ListAccounts" || method == "ListMails") {
    r = sd_bus_message_open_container(m, 'a', "a{sv}");
    for (int id = first; r >= 0 && id <= last; id++) r = mail_record(m, id, told);
    if (r >= 0) r = sd_bus_message_close_container(m);
  } else if (method == "ListMailIds") {
    r = sd_bus_message_open_container(m, 'a', "(iiss)");
    for (int id = first; r >= 0 && id <= last; id++)
      r = sd_bus_message_append(m, "(iiss)", id, 1, "relay:me",
                                told == "without end" ? std::string(100000, 'u').c_str() : "uid@x");
    if (r >= 0) r = sd_bus_message_close_container(m);
  } else if (method == "ListTemplates") {
    r = sd_bus_message_open_container(m, 'a', "(is)");
    for (int id = 1; r >= 0 && id <= (told == "templates" ? 2000 : 2); id++)
      r = sd_bus_message_append(m, "(is)", id, "Yes");
    if (r >= 0) r = sd_bus_message_close_container(m);
  } else if (method == "AddMails") {
    r = told == "ids" ? sd_bus_message_append(m, "ai", 2, 7, 8) : sd_bus_message_append(m, "ai", 1, 7);
  } else if (told == "refused") {
    const std::string why(100000, 'e');
    const sd_bus_error error = {"com.vextora.brisel.Error.Store", why.c_str(), 0};
    r = sd_bus_reply_method_error(call, &error);
    sd_bus_message_unref(m);
    return r;
  }
  if (r >= 0) r = sd_bus_send(nullptr, m, nullptr);
  sd_bus_message_unref(m);
  return r < 0 ? r : 1;
}

void serve(int fd, lie told) {
  stream_bus_serve(fd, fd, answer_cb, &told);
}

/* Hands on what comes, and keeps what the watch said. */
void pass_on(int watch, int phone, std::string *said) {
  char bytes[65536];
  for (pollfd fds[] = {{watch, POLLIN, 0}, {phone, POLLIN, 0}}; poll(fds, 2, -1) > 0;)
    for (const pollfd &one : fds) {
      if (!one.revents) continue;
      const ssize_t size = read(one.fd, bytes, sizeof bytes);
      if (size <= 0 || write(one.fd == watch ? phone : watch, bytes, static_cast<size_t>(size)) != size) {
        close(watch);
        close(phone);
        return;
      }
      if (one.fd == watch) said->append(bytes, static_cast<size_t>(size));
    }
}

/* What a phone asks, one after the other; how many went well. */
constexpr int all_steps = 8;
int ask(int fd, std::string *error, watch_identity *watch = nullptr) {
  const host_bus_holder bus = host_open_fd(fd, carrier_kind::exec, error);
  if (!bus) return -1;
  bus->patience = 2000000;
  std::vector<host_record> accounts, mails;
  std::vector<watch_mail_id> ids;
  std::vector<std::pair<int, std::string>> templates;
  std::vector<int> added;
  const watch_mail mail = {.message_uid = "new@x"};
  int done = 0;
  const auto step = [&done](int result) {
    done += result == 0;
    return result == 0;
  };
  const bool good =
      step(host_introduce(bus.get(), {std::string(32, 'a'), "phone", true}, error)) &&
      step(host_connect(bus.get(), error)) && step(host_list_accounts(bus.get(), &accounts, error)) &&
      step(host_list_mail_ids(bus.get(), &ids, error)) && step(host_list_mails(bus.get(), &mails, error)) &&
      step(host_list_templates(bus.get(), &templates, error)) &&
      step(host_add_mails(bus.get(), {&mail}, &added, error)) && step(host_acknowledge(bus.get(), 1, error));
  if (watch) *watch = bus->watch;
  if (good && watch) EXPECT_TRUE(mails.size() == on_watch && ids.size() == on_watch && added == std::vector<int>{7});
  return done;
}

/* With a watch that tells a lie; said: what went over the stream. */
int ask_watch(const lie &told, std::string *said, std::string *error, watch_identity *watch = nullptr) {
  int near[2], far[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, near) < 0 || socketpair(AF_UNIX, SOCK_STREAM, 0, far) < 0) return -1;
  std::thread server(serve, far[1], told), between(pass_on, far[0], near[1], said);
  const int done = ask(near[0], error, watch);
  between.join();
  server.join();
  return done;
}

/* With whatever bytes from a watch that then is gone. */
int ask_bytes(const std::string &bytes, std::string *error) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) < 0) return -1;
  EXPECT_EQ(write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  shutdown(ends[1], SHUT_WR);
  const int done = ask(ends[0], error);
  close(ends[1]);
  return done;
}

TEST(Link, CutOrChangedAtEveryByte) {
  std::string said, error;
  watch_identity watch;
  ASSERT_EQ(ask_watch("", &said, &error, &watch), all_steps) << error;
  EXPECT_EQ(ask_bytes(said, &error), all_steps) << error;
  for (size_t size = 0; size < said.size(); size++) {
    error.clear();
    const int done = ask_bytes(said.substr(0, size), &error);
    ASSERT_TRUE(done < all_steps && !error.empty()) << size << " bytes: " << done;
  }
  for (const int change : {1, 0x80, 0xff})
    for (size_t at = 0; at < said.size(); at++) {
      std::string bytes = said;
      bytes[at] = static_cast<char>(bytes[at] ^ change);
      error.clear();
      const int done = ask_bytes(bytes, &error);
      ASSERT_TRUE(done == all_steps || !error.empty()) << at << ": " << done;
    }
  /* A message that claims to be larger than any may be, behind the greeting. */
  const size_t begin = said.find("\r\nl") == std::string::npos ? said.find("\nl") + 1 : said.find("\r\nl") + 2;
  for (const char *size : {"\xff\xff\xff\xff", "\xff\xff\xff\x7f", "\x01\x00\x00\x08"}) {
    std::string bytes = said;
    bytes.replace(begin + 4, 4, size, 4);
    EXPECT_EQ(ask_bytes(bytes, &error), 0) << error;
  }
}

TEST(Link, AnswersThatNoServiceGives) {
  const struct {
    const char *told;
    int done;
    const char *says;
  } rows[] = {{"fields", 2, "cannot be read"},    {"more", 2, "cannot be read"},   {"without end", 3, "cannot be read"},
              {"templates", 5, "cannot be read"}, {"ids", 6, "2 ids for 1 mails"}, {"refused", 1, "eee"}};
  for (const auto &row : rows) {
    std::string said, error;
    EXPECT_EQ(ask_watch(row.told, &said, &error), row.done) << row.told << ": " << error.substr(0, 200);
    EXPECT_NE(error.find(row.says), std::string::npos) << row.told << ": " << error.substr(0, 200);
    EXPECT_LE(error.size(), 1100u) << row.told;
  }
  std::string said, error;
  watch_identity watch;
  EXPECT_EQ(ask_watch("name", &said, &error, &watch), all_steps) << error;
  EXPECT_EQ(watch.name, std::string(64, ' '));
}

}  // namespace
