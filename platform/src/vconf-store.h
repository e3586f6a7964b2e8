/* How the settings store keeps a value: one file per key. Shared by the store itself and by its notifications. */
#ifndef BRISEL_PLATFORM_VCONF_STORE_H
#define BRISEL_PLATFORM_VCONF_STORE_H

#include <cstdint>
#include <string>

struct vconf_value {
  int type = 0;          /* enum vconf_type; VCONF_TYPE_NONE: missing or unreadable */
  uint64_t write_id = 0; /* differs for every write; 0: no file */
  int number = 0;        /* bool and int */
  std::string text;      /* string */
};

/* The folder that holds the key's file ("" when there is none) and the file's name in it. */
std::string vconf_key_folder(const char *key);
std::string vconf_key_file(const char *key);
vconf_value vconf_value_read(const char *key);

#endif
