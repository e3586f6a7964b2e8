/* What stands for BlueZ in the gate's tests, and how they wait. */
#ifndef BRISEL_TESTS_BLUEZ_H
#define BRISEL_TESTS_BLUEZ_H

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "bluez-profile.h"

/* Waits until done() holds; false when it does not for very long. */
inline bool until(const std::function<bool()> &done) {
  for (int turn = 0; turn < 6000; turn++) {
    if (done()) return true;
    poll(nullptr, 0, 5);
  }
  return false;
}

/* BlueZ as far as a program without a radio can stand for it, on the session's bus in the place of the system's: takes
   the profile, knows who is paired, and hands connections over. */
struct bluez {
  sd_bus *bus = nullptr;
  pid_t gate = 0;
  bluez_profile profile;

  static int paired_cb(sd_bus *, const char *path, const char *, const char *, sd_bus_message *reply, void *,
                       sd_bus_error *) {
    return sd_bus_message_append(reply, "b", !strstr(path, "stranger"));
  }
  bluez() {
    static const sd_bus_vtable device[] = {SD_BUS_VTABLE_START(0), SD_BUS_PROPERTY("Paired", "b", paired_cb, 0, 0),
                                           SD_BUS_VTABLE_END};
    EXPECT_GE(sd_bus_open_user(&bus), 0);
    EXPECT_GE(
        sd_bus_add_object_vtable(bus, nullptr, "/org/bluez", "org.bluez.ProfileManager1", bluez_profiles, &profile), 0);
    for (const char *path : {"/org/bluez/hci0/dev_friend", "/org/bluez/hci0/dev_stranger"})
      EXPECT_GE(sd_bus_add_object_vtable(bus, nullptr, path, "org.bluez.Device1", device, this), 0);
    gate = fork();
    if (gate == 0) {
      setenv("DBUS_SYSTEM_BUS_ADDRESS", getenv("DBUS_SESSION_BUS_ADDRESS"), 1);
      execl(getenv("BRISEL_GATE"), "brisel-gate", "--bluetooth", nullptr);
      _exit(127);
    }
    poll(nullptr, 0, 50); /* mostly it is there first, and has to wait for BlueZ */
    EXPECT_GE(sd_bus_request_name(bus, "org.bluez", 0), 0);
    EXPECT_TRUE(process([this] { return !profile.path.empty(); }));
  }
  ~bluez() {
    kill(gate, SIGTERM);
    EXPECT_EQ(gate, waitpid(gate, nullptr, 0));
    sd_bus_flush_close_unref(bus);
  }
  bool process(const std::function<bool()> &done) {
    return until([&] {
      while (sd_bus_process(bus, nullptr) > 0) {
      }
      return done();
    });
  }
  /* A phone comes: this end of its stream; `error` tells how the gate took it. */
  int connect(const char *device, std::string *error) {
    int stream[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, stream));
    std::string answer = "none";
    sd_bus_call_method_async(
        bus, nullptr, profile.owner.c_str(), profile.path.c_str(), "org.bluez.Profile1", "NewConnection",
        [](sd_bus_message *m, void *data, sd_bus_error *) {
          const sd_bus_error *why = sd_bus_message_get_error(m);
          *static_cast<std::string *>(data) = why ? why->name : "";
          return 0;
        },
        &answer, "oha{sv}", device, stream[1], 0);
    EXPECT_TRUE(process([&] { return answer != "none"; }));
    close(stream[1]);
    *error = answer;
    return stream[0];
  }
};

#endif
