/* How often each template was sent, as the application records it and whoever offers the most used ones reads it: one
   line per template, "COUNT CHECKSUM", in one small file below the applications' state. Needs GLib. */
#ifndef BRISEL_TEMPLATE_USES_H
#define BRISEL_TEMPLATE_USES_H

#include <glib.h>

#include <cstddef>
#include <map>
#include <sstream>
#include <string>

inline constexpr char brisel_template_uses_file[] = "template-uses";
inline constexpr std::size_t brisel_template_uses_max = 64; /* templates; the least used ones are forgotten */
inline constexpr std::size_t brisel_template_uses_bytes = 64 * 1024;
inline constexpr int brisel_template_uses_count_max = 1000000;

using brisel_template_uses = std::map<std::string, int>;

/* A template goes by a checksum of its text: texts may be of any length, and are nobody's business there. text may be
   NULL. */
inline std::string brisel_template_uses_name(const char *text) {
  char *checksum = g_compute_checksum_for_string(G_CHECKSUM_SHA256, text ? text : "", -1);
  const std::string name = checksum;
  g_free(checksum);
  return name;
}

/* The counts by name; what is no line of the file ends the reading. */
inline brisel_template_uses brisel_template_uses_read(const std::string &bytes) {
  brisel_template_uses uses;
  std::istringstream lines(bytes);
  int count = 0;
  std::string name;
  while (uses.size() < brisel_template_uses_max && lines >> count >> name)
    if (count > 0 && count <= brisel_template_uses_count_max) uses[name] = count;
  return uses;
}

#endif
