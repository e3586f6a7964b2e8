/* Tables that are easier to read and to add to as text. */
#ifndef BRISEL_HARNESS_CASES_H
#define BRISEL_HARNESS_CASES_H

#include <glib.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
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

/* A row of a table: its fields as texts, numbers, lists of words. */
struct case_row {
  std::vector<std::string> fields;
  const std::string &operator[](size_t i) const { return fields.at(i); }
  /* NULL where the table says "(null)". */
  const char *text(size_t i) const { return fields.at(i) == "(null)" ? nullptr : fields.at(i).c_str(); }
  int number(size_t i) const { return std::stoi(fields.at(i)); }
  std::vector<std::string> words(size_t i) const {
    std::istringstream in(fields.at(i));
    return {std::istream_iterator<std::string>(in), {}};
  }
};

/* The rows below "# NAME" in a file, up to the next such line: fields stand between " | " on one line, with C's escapes
   ("-": empty). Blank lines are passed over; a row of another length, or a table without any, is a failure. */
inline std::vector<case_row> table_of(const std::string &path, const std::string &name, size_t fields) {
  std::vector<case_row> rows;
  std::ifstream in(path);
  bool here = false;
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("# ")) here = line.substr(2) == name;
    if (!here || line.empty() || line.starts_with("# ")) continue;
    char **parts = g_strsplit(line.c_str(), " | ", -1);
    case_row row;
    for (char **part = parts; *part != nullptr; part++) {
      char *plain = g_strcompress(strcmp(g_strstrip(*part), "-") == 0 ? "" : *part);
      row.fields.push_back(plain);
      g_free(plain);
    }
    g_strfreev(parts);
    EXPECT_EQ(row.fields.size(), fields) << path << ": " << line;
    if (row.fields.size() == fields) rows.push_back(row);
  }
  EXPECT_FALSE(rows.empty()) << path << ": " << name;
  return rows;
}

#endif
