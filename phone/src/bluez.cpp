#include "bluez.h"

#include <cstring>

namespace {

/* Reads the a{sv} of a device; *address: its own. */
int read_device(sd_bus_message *m, bluez_device *device, std::string *address) {
  int r = sd_bus_message_enter_container(m, 'a', "{sv}");
  while (r >= 0 && (r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
    const char *key = nullptr, *text = nullptr;
    int flag = 0;
    r = sd_bus_message_read(m, "s", &key);
    if (r < 0) return r;
    std::string name = key;
    if (name == "Address" || name == "Alias" || name == "Adapter") {
      r = sd_bus_message_read(m, "v", name == "Adapter" ? "o" : "s", &text);
      if (r >= 0) (name == "Address" ? *address : name == "Alias" ? device->name : device->adapter) = text;
    } else if (name == "Paired") {
      r = sd_bus_message_read(m, "v", "b", &flag);
      device->paired = flag != 0;
    } else {
      r = sd_bus_message_skip(m, "v");
    }
    if (r >= 0) r = sd_bus_message_exit_container(m);
  }
  return r < 0 ? r : sd_bus_message_exit_container(m);
}

/* One object with its interfaces. Returns 1 when it is the device. */
int read_object(sd_bus_message *m, const std::string &wanted, bluez_device *device, std::string *adapter) {
  const char *path = nullptr, *interface = nullptr;
  bool found = false;
  int r = sd_bus_message_read(m, "o", &path);
  if (r >= 0) r = sd_bus_message_enter_container(m, 'a', "{sa{sv}}");
  while (r >= 0 && (r = sd_bus_message_enter_container(m, 'e', "sa{sv}")) > 0) {
    r = sd_bus_message_read(m, "s", &interface);
    if (r >= 0 && strcmp(interface, "org.bluez.Device1") == 0) {
      bluez_device one;
      std::string address;
      r = read_device(m, &one, &address);
      one.path = path;
      if (r >= 0 && strcasecmp(address.c_str(), wanted.c_str()) == 0) {
        *device = one;
        found = true;
      }
    } else if (r >= 0) {
      if (strcmp(interface, "org.bluez.Adapter1") == 0 && adapter->empty()) *adapter = path;
      r = sd_bus_message_skip(m, "a{sv}");
    }
    if (r >= 0) r = sd_bus_message_exit_container(m);
  }
  if (r >= 0) r = sd_bus_message_exit_container(m);
  return r < 0 ? r : found;
}

/* Looks through all objects. Returns 1 when the device is there, 0, or -1 with a reason. */
int look_through(sd_bus *bus, const std::string &address, bluez_device *device, std::string *adapter,
                 std::string *error) {
  sd_bus_error why = SD_BUS_ERROR_NULL;
  sd_bus_message *m = nullptr;
  int r =
      sd_bus_call_method(bus, bluez_name, "/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects", &why, &m, "");
  bool found = false;
  if (r >= 0) r = sd_bus_message_enter_container(m, 'a', "{oa{sa{sv}}}");
  while (r >= 0 && (r = sd_bus_message_enter_container(m, 'e', "oa{sa{sv}}")) > 0) {
    r = read_object(m, address, device, adapter);
    found = found || r > 0;
    if (r >= 0) r = sd_bus_message_exit_container(m);
  }
  if (r < 0) *error = std::string("Bluetooth is not there: ") + (why.message ? why.message : strerror(-r));
  sd_bus_error_free(&why);
  sd_bus_message_unref(m);
  return r < 0 ? -1 : found;
}

}  // namespace

int bluez_find(sd_bus *bus, const std::string &address, bluez_device *device, std::string *error) {
  std::string adapter;
  int found = look_through(bus, address, device, &adapter, error);
  if (found == 0) *error = "no Bluetooth device " + address + " was ever seen here";
  return found > 0 ? 0 : -1;
}

int bluez_adapter(sd_bus *bus, std::string *adapter, std::string *error) {
  bluez_device none;
  int found = look_through(bus, "", &none, adapter, error);
  if (found >= 0 && adapter->empty()) *error = "there is no Bluetooth adapter";
  return adapter->empty() ? -1 : 0;
}
