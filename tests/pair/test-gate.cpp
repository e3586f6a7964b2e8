/* brisel-gate over its stream: what a phone may say passes whole, and nothing else passes, grows or disturbs anybody.
   Runs in a private session (brisel-session). */
#include <fcntl.h>
#include <gio/gio.h>
#include <sys/un.h>
#include <zlib.h>

#include <algorithm>
#include <fstream>
#include <list>
#include <memory>
#include <random>
#include <set>

#include "../service/rows.h"
#include "bluez.h"
#include "brisel-body.h"
#include "brisel-settings.h"
#include "driver.h"
#include "phone.h"
#include "platform-paths.h"
#include "vconf.h"

namespace {

constexpr char denied[] = SD_BUS_ERROR_ACCESS_DENIED;

/* A gate with a stream to it, and its end as a phone's. */
struct gated {
  pid_t pid = 0;
  int fd = -1;
  int errors = -1; /* what it says to people */
  sd_bus *bus = nullptr;
  std::string error; /* of the last call, for people */
  std::vector<std::string> signals;
  int64_t request = 0;
  std::vector<int64_t> requests;

  /* A gate that runs already, by this end of its stream. */
  explicit gated(int stream) : fd(stream) { greet_it(); }
  explicit gated(std::vector<const char *> arguments = {}, bool greet = true) {
    int stream[2], said[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, stream));
    EXPECT_EQ(0, pipe2(said, O_CLOEXEC));
    arguments.insert(arguments.begin(), getenv("BRISEL_GATE"));
    arguments.push_back(nullptr);
    pid = fork();
    if (pid == 0) {
      dup2(stream[1], 0);
      dup2(stream[1], 1);
      dup2(said[1], 2);
      execv(arguments[0], const_cast<char **>(arguments.data()));
      _exit(127);
    }
    close(stream[1]);
    close(said[1]);
    fd = stream[0];
    errors = said[0];
    if (greet) greet_it();
  }
  void greet_it() {
    EXPECT_GE(sd_bus_new(&bus), 0);
    EXPECT_GE(sd_bus_set_fd(bus, fd, fd), 0);
    EXPECT_GE(sd_bus_set_anonymous(bus, 1), 0);
    EXPECT_GE(sd_bus_add_filter(bus, nullptr, signal_cb, this), 0);
    EXPECT_GE(sd_bus_start(bus), 0);
    fd = -1;
  }
  ~gated() {
    leave();
    if (errors >= 0) close(errors);
    if (pid > 0) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
  }
  gated(const gated &) = delete;
  gated &operator=(const gated &) = delete;

  static int signal_cb(sd_bus_message *m, void *data, sd_bus_error *) {
    auto *self = static_cast<gated *>(data);
    const char *text = "";
    if (sd_bus_message_is_signal(m, nullptr, nullptr) <= 0) return 0;
    if (sd_bus_message_has_signature(m, "xsa{sv}")) {
      sd_bus_message_read(m, "xs", &self->request, &text);
      self->requests.push_back(self->request);
    }
    self->signals.push_back(sd_bus_message_get_member(m) + std::string(" ") + text);
    return 0;
  }
  void leave() {
    sd_bus_close(bus);
    bus = sd_bus_unref(bus);
    if (fd >= 0) close(fd);
    fd = -1;
  }
  template <typename... T>
  std::string call(const char *to, const char *path, const char *interface, const char *member, const char *types,
                   T... values) {
    sd_bus_error why = SD_BUS_ERROR_NULL;
    bus_message answer;
    const int r = sd_bus_call_method(bus, to, path, interface, member, &why, &answer.m, types, values...);
    const std::string name = r >= 0 ? "" : why.name ? why.name : strerror(-r);
    error = why.message ? why.message : "";
    sd_bus_error_free(&why);
    return name;
  }
  template <typename... T>
  std::string phone(const char *member, const char *types, T... values) {
    return call(nullptr, host_path, phone_interface, member, types, values...);
  }
  std::string ping() { return call(nullptr, "/", "org.freedesktop.DBus.Peer", "Ping", ""); }
  bool hears(size_t count) {
    return until([&] {
      while (sd_bus_process(bus, nullptr) > 0) {
      }
      return signals.size() >= count;
    });
  }
  bool ended() {
    return until([&] { return ready_to_collect(); });
  }
  bool ready_to_collect() {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid;
  }
  std::string status(const std::string &name) const {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
      if (line.starts_with(name + ":")) return line.substr(name.size() + 1);
    return "0";
  }
  /* Whether the signal reaches it: not yet while it is being started. */
  bool catches(int signal) const { return std::stoull(status("SigCgt"), nullptr, 16) >> (signal - 1) & 1; }
  /* Waits for its end: its exit code, and what it said. */
  int code(std::string *said = nullptr) {
    int status = -1;
    if (!ended()) return -1;
    waitpid(pid, &status, 0);
    pid = 0;
    char text[4096];
    ssize_t size;
    while (said && (size = read(errors, text, sizeof text)) > 0) said->append(text, static_cast<size_t>(size));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  void send(const std::string &bytes) const {
    /* It may hang up in the middle. */
    for (size_t at = 0; at < bytes.size();) {
      const ssize_t n = ::send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
      if (n <= 0) return;
      at += static_cast<size_t>(n);
    }
  }
};

constexpr char greeting[] = "\0AUTH ANONYMOUS\r\nBEGIN\r\n";
const std::string hello(greeting, sizeof greeting - 1);

/* The bytes of a call, so that they can be made wrong. */
std::string call_bytes(const char *member, size_t text_size) {
  GDBusMessage *m = g_dbus_message_new_method_call(nullptr, host_path, phone_interface, member);
  if (text_size > 0) {
    const std::string text(text_size, 'x');
    g_dbus_message_set_body(m, g_variant_new_parsed("([{'account_id': <1>, 'subject': <%s>}],)", text.c_str()));
  }
  g_dbus_message_set_byte_order(m, G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN);
  g_dbus_message_set_serial(m, 1);
  gsize size = 0;
  guchar *blob = g_dbus_message_to_blob(m, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
  const std::string bytes(reinterpret_cast<char *>(blob), size);
  g_free(blob);
  g_object_unref(m);
  return bytes;
}

/* The names on the session's bus. */
std::set<std::string> names(test_phone *other) {
  char **list = nullptr;
  EXPECT_GE(sd_bus_list_names(other->bus, &list, nullptr), 0);
  std::set<std::string> found;
  for (char **name = list; *name; name++) found.insert(*name);
  g_strfreev(list);
  return found;
}

struct Gate : testing::Test {
  test_phone other; /* somebody else on the session's bus */
  int account = 0;
  void SetUp() override { account = other.add_account("me@example.org", "Me"); }
  void TearDown() override {
    EXPECT_EQ(1u, other.accounts().size()) << "the service is there, and nothing was added to it";
    other.clear();
  }
};

/* A text that no request had before. */
const char *unique(void) {
  static std::string text;
  static int count = 0;
  text = "gate-" + std::to_string(count++);
  return text.c_str();
}

bool linked(void) {
  int up = 0;
  return vconf_get_bool(BRISEL_KEY_BT_CONNECTED, &up) == 0 && up;
}

/* The same over every way to the gate. */
struct Way : Gate, testing::WithParamInterface<bool> {
  std::unique_ptr<bluez> radio;
  std::unique_ptr<gated> come() {
    if (!GetParam()) return std::make_unique<gated>();
    if (!radio) radio = std::make_unique<bluez>();
    std::string error;
    auto one = std::make_unique<gated>(radio->connect("/org/bluez/hci0/dev_friend", &error));
    EXPECT_EQ("", error);
    return one;
  }
};
INSTANTIATE_TEST_SUITE_P(, Way, testing::Values(false, true),
                         [](const auto &info) { return info.param ? "Bluetooth" : "Stream"; });

TEST_P(Way, WhatAPhoneMaySayPassesWhole) {
  const std::unique_ptr<gated> way = come();
  gated &gate = *way;
  EXPECT_EQ("", gate.ping());
  EXPECT_EQ("", gate.phone("AddMails", "aa{sv}", 1, 3, "account_id", "i", account, "subject", "s", "Grüße 🙂",
                           "body", "s", std::string(body_max - 100, 'b').c_str()));
  EXPECT_EQ("com.vextora.brisel.Error.Invalid", gate.phone("DeleteMails", "ai", 1, 999));
  EXPECT_NE(std::string::npos, gate.error.find("999")) << gate.error;
  EXPECT_EQ("", gate.phone("Connect", ""));
  EXPECT_TRUE(linked());
  EXPECT_EQ("", other.call(watch_interface, "Show", nullptr, "ssai", unique(), "grüße", 1, 7));
  ASSERT_TRUE(gate.hears(1));
  EXPECT_TRUE(gate.signals[0].starts_with("Request {\"request\":\"show\",\"kind\":\"grüße\",\"id_list\":[7]"))
      << gate.signals[0];
  EXPECT_EQ("", gate.phone("Ack", "x", gate.request));
  gate.leave();
  if (gate.pid) EXPECT_EQ(0, gate.code());
  EXPECT_TRUE(until([] { return !linked(); }));
}

TEST_F(Gate, OverBluetoothOnlyPairedPhonesComeAsOftenAsTheyLike) {
  bluez radio;
  EXPECT_EQ(pair_profile, radio.profile.uuid);
  EXPECT_TRUE(radio.profile.authentication);
  std::string error;
  close(radio.connect("/org/bluez/hci0/dev_stranger", &error));
  EXPECT_EQ("org.bluez.Error.Rejected", error);
  for (int turn = 0; turn < 8; turn++) { /* more often than there are places at once */
    int stream = -1;
    EXPECT_TRUE(until([&] {
      if (stream >= 0) close(stream);
      stream = radio.connect("/org/bluez/hci0/dev_friend", &error);
      return error.empty();
    }));
    gated gate(stream);
    EXPECT_EQ("", gate.phone("ListAccounts", ""));
    if (turn < 7) continue;
    EXPECT_LE(
        0, sd_bus_call_method(radio.bus, radio.profile.owner.c_str(), radio.profile.path.c_str(), "org.bluez.Profile1",
                              "RequestDisconnection", nullptr, nullptr, "o", "/org/bluez/hci0/dev_friend"));
    EXPECT_TRUE(until([&] { return sd_bus_process(gate.bus, nullptr) < 0; })) << "BlueZ ends it";
  }
  /* Nobody else hands a stream over. */
  int stream[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, stream));
  EXPECT_EQ(-EACCES, sd_bus_call_method(other.bus, radio.profile.owner.c_str(), radio.profile.path.c_str(),
                                        "org.bluez.Profile1", "NewConnection", nullptr, nullptr, "oha{sv}",
                                        "/org/bluez/hci0/dev_friend", stream[1], 0));
  for (const int end : stream) close(end);
}

/* Calls every method that an object of the session's bus has, as they describe themselves, with nothing else right. */
void call_all(gated *gate, test_phone *other, const char *name, const char *path) {
  bus_message answer;
  const char *xml = "";
  ASSERT_GE(sd_bus_call_method(other->bus, name, path, "org.freedesktop.DBus.Introspectable", "Introspect", nullptr,
                               &answer.m, ""),
            0);
  ASSERT_GE(sd_bus_message_read(answer, "s", &xml), 0);
  std::string interface;
  int tried = 0;
  for (const char *at = xml; (at = strchr(at, '<')); at++) {
    char found[128];
    if (sscanf(at, "<interface name=\"%127[^\"]", found) == 1) interface = found;
    if (sscanf(at, "<method name=\"%127[^\"]", found) != 1) continue;
    if (interface == phone_interface || !strcmp(found, "Ping")) continue;
    for (const char *to : {name, static_cast<const char *>(nullptr)})
      EXPECT_EQ(denied, gate->call(to, path, interface.c_str(), found, "")) << interface << "." << found;
    tried++;
  }
  EXPECT_GT(tried, 5) << xml;
}

TEST_P(Way, NothingElseOfTheBusIsReached) {
  const std::unique_ptr<gated> way = come();
  gated &gate = *way;
  ASSERT_EQ("", gate.phone("Connect", ""));
  const std::set<std::string> before = names(&other);
  call_all(&gate, &other, "org.freedesktop.DBus", "/org/freedesktop/DBus");
  call_all(&gate, &other, host_name, host_path);
  const struct {
    const char *to, *path, *interface, *member, *error;
  } table[] = {
      {"com.vextora.brisel", "/com/vextora/brisel", "org.freedesktop.Application", "Activate", denied},
      {"com.vextora.call", host_path, phone_interface, "ListAccounts", denied},
      {":1.0", "/", phone_interface, "ListAccounts", denied},
      {nullptr, host_path, watch_interface, "NoAccount", denied},
      {nullptr, host_path, "org.freedesktop.DBus.Properties", "GetAll", denied},
      {nullptr, host_path, nullptr, "ListAccounts", denied},
      {nullptr, host_path, phone_interface, "Request", SD_BUS_ERROR_UNKNOWN_METHOD},
      {nullptr, host_path, phone_interface, "connect", SD_BUS_ERROR_UNKNOWN_METHOD},
      {nullptr, host_path, phone_interface, "Ack", SD_BUS_ERROR_INVALID_ARGS},
  };
  for (const auto &row : table)
    EXPECT_EQ(row.error, gate.call(row.to, row.path, row.interface, row.member, "")) << row.member;
  /* Signals and answers that nobody asked for go nowhere; neither does a stranger's signal come in. */
  EXPECT_GE(sd_bus_emit_signal(gate.bus, host_path, watch_interface, "Changed", "x", int64_t{5}), 0);
  for (const std::string &name : before) {
    bus_message m;
    if (name[0] != ':' || sd_bus_message_new_signal(other.bus, &m.m, host_path, phone_interface, "Request") < 0)
      continue;
    sd_bus_message_set_destination(m, name.c_str());
    sd_bus_message_append(m, "xsa{sv}", int64_t{1}, "{\"request\":\"forged\"}", 0);
    EXPECT_GE(sd_bus_send(other.bus, m, nullptr), 0);
  }
  EXPECT_EQ("", other.call(watch_interface, "Show", nullptr, "ssai", unique(), "true", 0));
  ASSERT_TRUE(gate.hears(1));
  EXPECT_NE(std::string::npos, gate.signals[0].find("\"true\"")) << gate.signals[0];
  EXPECT_EQ(before, names(&other));
  EXPECT_EQ("", gate.phone("Ack", "x", gate.request));
}

TEST_F(Gate, BytesThatAreNoneOfAPhoneEndTheirOwnGateOnly) {
  const std::string list = call_bytes("ListAccounts", 0);
  auto with = [&](size_t at, std::initializer_list<unsigned char> bytes) {
    std::string changed = list;
    for (const unsigned char byte : bytes) changed[at++] = static_cast<char>(byte);
    return hello + changed;
  };
  const struct {
    std::string bytes;
    const char *said;
  } table[] = {
      {"GET / HTTP/1.1\r\n\r\n" + list, ""},
      {std::string(5000, 'A'), "greeting"},
      {std::string("\0AUTH NONE\r\nBEGIN\r\n", 19) + list, "greets"},
      {std::string("\0AUTH EXTERNAL\r\nBEGIN\r\nBEGIN\r\n", 31) + list, ""},
      {with(0, {'x'}), "no message"},
      {with(1, {0}), "no message"},
      {with(1, {9}), "no message"},
      {with(3, {2}), "no message"},
      {with(4, {0, 0, 0, 8}), "too large"}, /* 128 MiB of body */
      {with(4, {255, 255, 255, 255}), "too large"} /* 4 GiB */,
      {with(12, {255, 255, 255, 127}), "too large"} /* of header fields */,
  };
  for (const auto &row : table) {
    gated gate({}, false);
    std::string said;
    gate.send(row.bytes);
    if (!*row.said) shutdown(gate.fd, SHUT_WR);
    const int code = gate.code(&said);
    EXPECT_EQ(*row.said ? 1 : code, code) << said;
    EXPECT_NE(-1, code) << row.bytes.substr(0, 40);
    EXPECT_NE(std::string::npos, said.find(row.said)) << row.said << ": " << said;
  }
  /* Damage anywhere in a message: an error, or the end of this gate. */
  const std::string mail = call_bytes("AddMails", 40);
  std::mt19937 random(11);
  for (int round = 0; round < 40; round++) {
    gated gate({}, false);
    std::string damaged;
    for (int copy = 0; copy < 20; copy++) {
      std::string one = mail;
      one[random() % one.size()] ^= static_cast<char>(1 + random() % 255);
      if (random() % 4 == 0) one[36 + random() % (one.size() - 36)] = '\0';
      if (one.find("account_id") == std::string::npos) damaged += one; /* what is whole would be stored */
    }
    gate.send(hello + damaged);
    shutdown(gate.fd, SHUT_WR);
    EXPECT_NE(-1, gate.code());
  }
}

constexpr char ann[] = "0123456789abcdef0123456789abcdef", ben[] = "fedcba9876543210fedcba9876543210";

TEST_F(Gate, TheSamePhoneTakesItsPlaceBackAndAnotherIsToldWhoHasIt) {
  gated first, another, again;
  const struct {
    uint32_t version;
    const char *id, *error;
  } table[] = {{0, ann, host_error_version}, {2, "short", host_error_invalid}, {3, ben, ""}, {2, ben, ""}};
  for (const auto &row : table)
    EXPECT_EQ(row.error, another.phone("Introduce", "ussas", row.version, row.id, "Ben's", 0)) << another.error;
  EXPECT_EQ("", first.phone("Introduce", "ussas", 2, ann, "Its earlier name", 0));
  EXPECT_EQ("", first.phone("Introduce", "ussas", 2, ann, "\nAnn's phone", 2, "zlib", "whatever comes"));
  EXPECT_EQ("", first.phone("Connect", ""));
  EXPECT_EQ(host_error_busy, another.phone("Connect", ""));
  EXPECT_EQ("Ann's phone is linked", another.error);

  const int mail = other.add_mail({.account = account, .body = "one<tag:thisisover500>"});
  std::string failed;
  sd_bus_call_method_async(
      other.bus, nullptr, host_name, host_path, watch_interface, "MoreMsg",
      [](sd_bus_message *m, void *data, sd_bus_error *) {
        *static_cast<std::string *>(data) =
            sd_bus_message_is_method_error(m, nullptr) ? sd_bus_message_get_error(m)->name : "-";
        return 0;
      },
      &failed, "ssi", "more", "uid-0", mail);
  ASSERT_GE(sd_bus_flush(other.bus), 0);
  ASSERT_TRUE(first.hears(1));
  EXPECT_EQ("", again.phone("Introduce", "ussas", 2, ann, "Ann's phone", 0));
  EXPECT_EQ("", again.phone("Connect", ""));
  ASSERT_TRUE(first.hears(2));
  EXPECT_EQ("Replaced ", first.signals[1]);
  EXPECT_EQ(0, first.code());
  EXPECT_TRUE(until([&] { return sd_bus_process(other.bus, nullptr) >= 0 && !failed.empty(); }));
  EXPECT_EQ(host_error_no_phone, failed);
  EXPECT_TRUE(linked());
  EXPECT_EQ("", other.call(watch_interface, "NoAccount", nullptr, "s", "to-the-new-one"));
  ASSERT_TRUE(again.hears(1));
  EXPECT_EQ("", again.phone("Ack", "x", again.request));
  again.leave();
  ASSERT_TRUE(another.hears(1));
  EXPECT_EQ("Free ", another.signals[0]);
  EXPECT_EQ("", another.phone("Connect", ""));
}

/* One mail with its body as a zlib stream, as it is or cut short. */
std::string add_packed(gated *gate, int account, const std::string &body, size_t cut, bool twice) {
  std::string packed(compressBound(body.size()), '\0');
  uLongf size = packed.size();
  compress2(reinterpret_cast<Bytef *>(packed.data()), &size, reinterpret_cast<const Bytef *>(body.data()), body.size(),
            9);
  bus_message m, answer;
  sd_bus_error why = SD_BUS_ERROR_NULL;
  sd_bus_message_new_method_call(gate->bus, &m.m, nullptr, host_path, phone_interface, "AddMails");
  sd_bus_message_open_container(m, 'a', "a{sv}");
  sd_bus_message_open_container(m, 'a', "{sv}");
  sd_bus_message_append(m, "{sv}", "account_id", "i", account);
  if (twice) sd_bus_message_append(m, "{sv}", "body", "s", "one too many");
  sd_bus_message_open_container(m, 'e', "sv");
  sd_bus_message_append(m, "s", "body_zlib");
  sd_bus_message_open_container(m, 'v', "ay");
  sd_bus_message_append_array(m, 'y', packed.data(), size - cut);
  for (int level = 0; level < 4; level++) sd_bus_message_close_container(m);
  const int r = sd_bus_call(gate->bus, m, 0, &why, &answer.m);
  const std::string name = r >= 0 ? "" : why.name ? why.name : strerror(-r);
  sd_bus_error_free(&why);
  return name;
}

TEST_F(Gate, BodiesComePackedAndBounded) {
  gated gate;
  const struct {
    std::string body;
    size_t cut;
    bool twice;
    const char *error;
  } table[] = {
      {"Grüße", 0, false, ""},
      {"", 0, false, ""},
      {std::string(body_max, 'x'), 0, false, ""},
      {std::string(body_max + 1, 'x'), 0, false, host_error_invalid},
      {std::string(200u << 20, 'x'), 0, false, host_error_invalid}, /* 200 KiB of them on the way */
      {"cut", 1, false, host_error_invalid},
      {"cut", 8, false, host_error_invalid},
      {"half a \xC3", 0, false, host_error_invalid},
      {std::string("a\0b", 3), 0, false, host_error_invalid},
      {"two", 0, true, host_error_invalid},
  };
  for (const auto &row : table)
    EXPECT_EQ(row.error, add_packed(&gate, account, row.body, row.cut, row.twice)) << row.body.substr(0, 20);
  EXPECT_EQ("1\n",
            rows_of(std::string(platform_data_dir()) + "/store.db", "SELECT count(*) FROM body WHERE text = 'Grüße'"));
}

/* Programs that are neither side's. */
TEST_F(Gate, ImpostorsAreTakenForNeitherSide) {
  const std::vector<std::string> connect = {"dbus-send",     "--session",
                                            "--print-reply", std::string("--dest=") + host_name,
                                            host_path,       std::string(phone_interface) + ".Connect"};
  const ran stranger = run(connect);
  EXPECT_NE(0, stranger.code);
  EXPECT_NE(std::string::npos, stranger.err.find("dbus-send is no program")) << stranger.err;
  EXPECT_FALSE(linked());
  std::ofstream(std::string(platform_config_dir()) + "/phone-programs") << "/usr/bin/dbus-send\n";
  EXPECT_EQ(0, run(connect).code) << "named by the user";
  unlink((std::string(platform_config_dir()) + "/phone-programs").c_str());

  /* One that waits in line for the service's name gets it when the service dies. */
  test_phone impostor;
  ASSERT_GE(sd_bus_request_name(impostor.bus, host_name, SD_BUS_NAME_QUEUE), 0);
  gated before;
  EXPECT_EQ("", before.phone("Connect", ""));
  const pid_t service = other.service();
  ASSERT_NE(getpid(), service);
  kill(service, SIGKILL);
  std::string said;
  EXPECT_EQ(1, before.code(&said)) << "the service it knew has ended";
  gated after({}, false);
  EXPECT_EQ(1, after.code(&said));
  EXPECT_NE(std::string::npos, said.find("taken by")) << said;
  const ran phone = run({"brisel-phone", "account", "list"});
  EXPECT_NE(0, phone.code);
  EXPECT_NE(std::string::npos, phone.err.find("taken by")) << phone.err;
  ASSERT_GE(sd_bus_release_name(impostor.bus, host_name), 0);
}

/* The address sanitizer keeps what was freed. */
#if defined(__SANITIZE_ADDRESS__)
constexpr long gate_max = 1024 << 10; /* KiB */
#else
constexpr long gate_max = 64 << 10;
#endif

TEST_F(Gate, FloodsStopAtTheGate) {
  const std::string refused = call_bytes("Nothing", 0), asked = call_bytes("ListAccounts", 0);
  const std::string large = call_bytes("AddMails", 7u << 20);
  const std::string *floods[] = {&refused, &asked, &large};
  for (const std::string *flood : floods) {
    gated gate({}, false);
    fcntl(gate.fd, F_SETFL, O_NONBLOCK);
    const int64_t start = g_get_monotonic_time();
    size_t sent = 0, at = 0;
    std::string first = hello + *flood;
    const std::string *source = &first;
    /* Nothing is read: what does not fit into the way to it is not taken either. */
    for (int stalled = 0; stalled < 100 && sent < (48u << 20);) {
      const ssize_t n = ::send(gate.fd, source->data() + at, source->size() - at, MSG_NOSIGNAL);
      pollfd room = {gate.fd, POLLOUT, 0};
      if (n <= 0) stalled += poll(&room, 1, 10) == 0;
      if (n <= 0) continue;
      sent += static_cast<size_t>(n);
      at += static_cast<size_t>(n);
      if (at == source->size()) source = flood, at = 0;
    }
    EXPECT_FALSE(gate.ready_to_collect());
    /* What it takes at once, what comes in that time, and what is on its way. */
    const double allowed = 32 + 8 * static_cast<double>(g_get_monotonic_time() - start) / 1e6 + 1;
    EXPECT_LT(static_cast<double>(sent >> 20), allowed) << "MiB were taken";
    EXPECT_LT(std::stol(gate.status("VmHWM")), gate_max) << sent << " bytes were taken";
    EXPECT_EQ(1u, other.accounts().size()) << "others are served";
    kill(gate.pid, SIGTERM);
    EXPECT_EQ(0, gate.code());
  }
}

TEST_F(Gate, OnlySoManyComeAtOnceAndNobodyTakesThePlacesOfOthers) {
  std::list<gated> all;
  const auto come = [&](const std::string &phone) {
    gated *one = &all.emplace_back(std::vector<const char *>{"--phone", phone.c_str()}, false);
    one->send(hello + call_bytes("ListAccounts", 0));
    pollfd either[] = {{one->fd, POLLIN, 0}, {one->errors, POLLIN, 0}};
    EXPECT_GT(poll(either, 2, -1), 0);
    return either[0].revents && !either[1].revents;
  };
  /* One comes without end: its own oldest give way. */
  for (int n = 0; n < 18; n++) EXPECT_TRUE(come("greedy")) << n;
  const auto ended = [&] {
    return std::count_if(all.begin(), all.end(), [](gated &g) { return g.ready_to_collect(); });
  };
  EXPECT_EQ(2, ended());
  EXPECT_TRUE(all.front().ready_to_collect());
  for (int n = 1; n < 16; n++) EXPECT_TRUE(come(std::to_string(n))) << "there is a place for phone " << n;
  EXPECT_EQ(17, ended()) << "of the greedy one's alone";
  EXPECT_TRUE(come("7")) << "a phone takes its own place back";
  EXPECT_FALSE(come("one more"));
  std::string said;
  EXPECT_EQ(1, all.back().code(&said));
  EXPECT_NE(std::string::npos, said.find("too many")) << said;
}

TEST_F(Gate, EndsInEveryState) {
  enum state { unread, greeted, connected, blocked, frozen };
  for (const state in : {unread, greeted, connected, blocked, frozen})
    for (const int how : {SIGTERM, SIGHUP, SIGINT, 0}) {
      gated gate({}, in != unread);
      if (in == unread) gate.send("\0AUTH");
      if (in >= greeted) EXPECT_EQ("", gate.ping());
      if (in >= connected) EXPECT_EQ("", gate.phone("Connect", ""));
      const pid_t service = in == frozen ? other.service() : 0;
      if (service) kill(service, SIGSTOP);
      if (in >= blocked) /* more than is taken at once, and no answer is read */
        for (int call = 0; call < 100; call++)
          sd_bus_call_method_async(gate.bus, nullptr, nullptr, host_path, phone_interface, "ListAccounts", nullptr,
                                   nullptr, "");
      if (in >= greeted) sd_bus_flush(gate.bus);
      if (how) EXPECT_TRUE(until([&] { return gate.catches(how); }));
      if (how)
        kill(gate.pid, how);
      else
        gate.leave();
      EXPECT_EQ(0, gate.code()) << in << " " << how;
      if (service) kill(service, SIGCONT);
      EXPECT_TRUE(until([] { return !linked(); }));
    }
}

TEST_F(Gate, EndsThoughTheSystemsBusIsSilent) {
  sockaddr_un to = {AF_UNIX, ""};
  snprintf(to.sun_path, sizeof to.sun_path, "%s/silent-bus", platform_runtime_dir());
  const int bus = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(0, bind(bus, reinterpret_cast<const sockaddr *>(&to), sizeof to));
  ASSERT_EQ(0, listen(bus, 1));
  setenv("DBUS_SYSTEM_BUS_ADDRESS", (std::string("unix:path=") + to.sun_path).c_str(), 1);
  gated gate({"--bluetooth"}, false);
  unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  pollfd comes = {bus, POLLIN, 0};
  EXPECT_EQ(1, poll(&comes, 1, -1));
  kill(gate.pid, SIGTERM);
  EXPECT_EQ(0, gate.code());
  close(bus);
}

TEST_F(Gate, ASilentPhoneIsLetGo) {
  const struct {
    std::vector<const char *> arguments;
    bool asked, ends;
  } table[] = {{{"--idle", "0.5"}, false, true},
               {{"--answer", "0.5"}, false, false},
               {{"--answer", "0.5"}, true, true},
               {{"--answer", "0.5", "--no-timers"}, true, false}};
  for (const auto &row : table) {
    gated gate(row.arguments);
    EXPECT_EQ("", gate.phone("Connect", ""));
    if (row.asked) EXPECT_EQ("", other.call(watch_interface, "NoAccount", nullptr, "s", row.arguments.back()));
    std::string said;
    if (row.ends) {
      EXPECT_EQ(1, gate.code(&said));
      EXPECT_NE(std::string::npos, said.find("not heard")) << said;
      EXPECT_TRUE(until([] { return !linked(); }));
    } else {
      poll(nullptr, 0, 1000); /* twice the limit that must not count */
      EXPECT_EQ("", gate.ping());
    }
  }
  for (const size_t came : {9, 3000}) {
    gated half({"--answer", "0.5"}, false);
    half.send(hello + call_bytes("AddMails", 5000).substr(0, came));
    EXPECT_EQ(1, half.code()) << "the rest of a message does not come";
  }
  gated drain;
  EXPECT_EQ("", drain.phone("Connect", ""));
  ASSERT_TRUE(drain.hears(2));
  for (const int64_t id : drain.requests) EXPECT_EQ("", drain.phone("Ack", "x", id));
}

}  // namespace
