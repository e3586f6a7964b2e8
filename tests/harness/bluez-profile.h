/* What the stand-ins for BlueZ share: the profile that a program registers, and that a second one cannot. */
#ifndef BRISEL_TESTS_BLUEZ_PROFILE_H
#define BRISEL_TESTS_BLUEZ_PROFILE_H

#include <systemd/sd-bus.h>

#include <cstring>
#include <string>

struct bluez_profile {
  std::string path, uuid, owner;
  bool authentication = false;
};

inline bool bluez_on_bus(sd_bus *bus, const std::string &name) {
  sd_bus_creds *creds = nullptr;
  const bool there = !name.empty() && sd_bus_get_name_creds(bus, name.c_str(), SD_BUS_CREDS_PID, &creds) >= 0;
  sd_bus_creds_unref(creds);
  return there;
}

/* RegisterProfile; data: the bluez_profile. */
inline int bluez_register_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *profile = static_cast<bluez_profile *>(data);
  const char *path = "", *uuid = "", *key = "";
  if (bluez_on_bus(sd_bus_message_get_bus(m), profile->owner))
    return sd_bus_error_set(error, "org.bluez.Error.NotPermitted", "UUID already registered");
  *profile = {};
  sd_bus_message_read(m, "os", &path, &uuid);
  sd_bus_message_enter_container(m, 'a', "{sv}");
  while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
    int value = 0;
    sd_bus_message_read(m, "s", &key);
    if (!strcmp(key, "RequireAuthentication"))
      profile->authentication = sd_bus_message_read(m, "v", "b", &value) >= 0 && value;
    else
      sd_bus_message_skip(m, "v");
    sd_bus_message_exit_container(m);
  }
  profile->path = path, profile->uuid = uuid, profile->owner = sd_bus_message_get_sender(m);
  return sd_bus_reply_method_return(m, "");
}

inline constexpr sd_bus_vtable bluez_profiles[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("RegisterProfile", "osa{sv}", "", bluez_register_cb, SD_BUS_VTABLE_UNPRIVILEGED), SD_BUS_VTABLE_END};

#endif
