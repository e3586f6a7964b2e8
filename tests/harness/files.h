/* Whole files. */
#ifndef BRISEL_HARNESS_FILES_H
#define BRISEL_HARNESS_FILES_H

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

inline void put_file(const std::filesystem::path &path, const std::string &bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

/* "" when there is none. */
inline std::string get_file(const std::filesystem::path &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

#endif
