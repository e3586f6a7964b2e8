/* The device's time zone: that of its localtime file, whether a link into the zone database, a copy out of it or a file
   of its own. Any thread. */
#ifndef BRISEL_PLATFORM_ZONE_H
#define BRISEL_PLATFORM_ZONE_H

#include <string>

struct platform_zone {
  std::string name; /* in the zone database, like "Europe/Berlin"; "" when the file is none of it */
  std::string tz;   /* for the environment variable TZ: the name, or ":" and the file's path */
};

/* 0; -1 when there is no readable zone file, and *zone stays as it was. */
int platform_zone_read(platform_zone *zone);

#endif
