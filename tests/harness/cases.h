/* Tables that are easier to read and to add to as text: files of records, whose fields are lines. */
#ifndef BRISEL_HARNESS_CASES_H
#define BRISEL_HARNESS_CASES_H

#include <glib.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

/* The records of a file, each of that many fields: a field is a line with C's escapes ("-": empty), a blank line ends
   a record. */
inline std::vector<std::vector<std::string>> cases_of(const std::string &path, size_t fields) {
  std::vector<std::vector<std::string>> all(1);
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    if (line.empty()) {
      all.emplace_back();
      continue;
    }
    char *plain = g_strcompress(line == "-" ? "" : line.c_str());
    all.back().push_back(plain);
    g_free(plain);
  }
  EXPECT_GT(all.size(), 5u) << path;
  for (const auto &one : all) EXPECT_EQ(one.size(), fields) << path << ": " << (one.empty() ? "" : one.at(0));
  return all;
}

#endif
