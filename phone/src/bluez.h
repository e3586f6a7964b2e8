/* What the phone asks of BlueZ, on the system bus. Thread: the one that opened the bus. */
#ifndef BRISEL_PHONE_BLUEZ_H
#define BRISEL_PHONE_BLUEZ_H

#include <systemd/sd-bus.h>

#include <string>

#include "brisel-bluez.h"

struct bluez_device {
  std::string path, adapter; /* object paths */
  std::string name;
  bool paired = false;
};

/* Looks for the device with this address. Returns 0, or -1 with a reason: none was ever seen, or no Bluetooth. */
int bluez_find(sd_bus *bus, const std::string &address, bluez_device *device, std::string *error);
/* The first adapter's path. Returns 0, or -1 with a reason. */
int bluez_adapter(sd_bus *bus, std::string *adapter, std::string *error);

#endif
