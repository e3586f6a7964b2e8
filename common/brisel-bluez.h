/* BlueZ, as both sides of a pair speak with it: the profile that each registers. Needs sd-bus. */
#ifndef BRISEL_BLUEZ_H
#define BRISEL_BLUEZ_H

#include <systemd/sd-bus.h>

#include <cstring>

#include "brisel-bus.h"

inline constexpr char bluez_name[] = "org.bluez", bluez_rejected[] = "org.bluez.Error.Rejected";
inline constexpr char bluez_profile_interface[] = "org.bluez.Profile1";

/* What BlueZ asks of a profile: a connection is there, it has to end, the profile is not wanted any more. */
template <sd_bus_message_handler_t connection, sd_bus_message_handler_t end, sd_bus_message_handler_t release>
inline constexpr sd_bus_vtable bluez_profile[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("NewConnection", "oha{sv}", "", connection, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("RequestDisconnection", "o", "", end, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Release", "", "", release, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

/* Only BlueZ speaks to a profile: its name belongs to root alone on the system's bus. */
inline int bluez_alone_cb(sd_bus_message *m, void *data, sd_bus_error *error) {
  if (sd_bus_message_is_method_call(m, bluez_profile_interface, nullptr) <= 0) return 0;
  sd_bus_creds *creds = nullptr;
  const char *owner = nullptr, *sender = sd_bus_message_get_sender(m);
  const int r = sd_bus_get_name_creds(sd_bus_message_get_bus(m), bluez_name, SD_BUS_CREDS_UNIQUE_NAME, &creds);
  const bool good = r >= 0 && sd_bus_creds_get_unique_name(creds, &owner) >= 0 && sender && !strcmp(owner, sender);
  sd_bus_creds_unref(creds);
  return good ? 0 : sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED, "this is for BlueZ alone");
}

/* Puts a profile's object at `path`, and hears of BlueZ itself: came_cb is called when it came or went. */
inline int bluez_serve_profile(sd_bus *bus, const char *path, const sd_bus_vtable *profile,
                               sd_bus_message_handler_t came_cb, void *data) {
  int r = sd_bus_add_filter(bus, nullptr, bluez_alone_cb, nullptr);
  if (r >= 0) r = sd_bus_add_object_vtable(bus, nullptr, path, bluez_profile_interface, profile, data);
  if (r < 0) return r;
  return sd_bus_add_match_async(bus, nullptr,
                                "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
                                "member='NameOwnerChanged',arg0='org.bluez'",
                                came_cb, nullptr, data);
}

/* Asks BlueZ to take the profile, from bonded devices and encrypted, and does not start BlueZ. As a server it listens
   on any channel that is free, which its record tells phones, and has the user's agent asked about devices that the
   user does not trust. */
inline int bluez_register_profile(sd_bus *bus, const char *path, bool server, sd_bus_message_handler_t answered_cb,
                                  void *data) {
  sd_bus_message *m = nullptr;
  int r =
      sd_bus_message_new_method_call(bus, &m, bluez_name, "/org/bluez", "org.bluez.ProfileManager1", "RegisterProfile");
  if (r >= 0) r = sd_bus_message_set_auto_start(m, 0);
  if (r >= 0) r = sd_bus_message_append(m, "os", path, pair_profile);
  if (r >= 0 && server)
    r = sd_bus_message_append(m, "a{sv}", 5, "Name", "s", "Brisel", "Role", "s", "server", "RequireAuthentication", "b",
                              1, "Channel", "q", 0, "RequireAuthorization", "b", 1);
  else if (r >= 0)
    r = sd_bus_message_append(m, "a{sv}", 3, "Name", "s", "Brisel", "Role", "s", "client", "RequireAuthentication", "b",
                              1);
  if (r >= 0) r = sd_bus_call_async(bus, nullptr, m, answered_cb, data, 0);
  sd_bus_message_unref(m);
  return r;
}

#endif
