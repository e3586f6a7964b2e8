/* Finds the name of the device's time zone. Called by the framework and by whoever formats times. */
#include "platform-zone.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string_view>

#include "platform-files.h"
#include "platform-paths.h"

namespace fs = std::filesystem;

namespace {

constexpr char database[] = "/usr/share/zoneinfo/";
constexpr size_t zone_file_max = 65536;

bool read_zone_file(const std::string &path, std::string *bytes) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return false;
  const platform_folder folder(path.substr(0, slash + 1).c_str());
  return folder.fd >= 0 && platform_file_read(folder.fd, path.c_str() + slash + 1, zone_file_max, bytes) == 0 &&
         bytes->starts_with("TZif");
}

/* The zone that a path into a zone database means; "" when it means none that is there. The trees posix/ and right/
   hold the same zones once more. */
std::string name_in_path(const std::string &path) {
  constexpr std::string_view folder = "/zoneinfo/";
  const size_t found = path.find(folder);
  if (found == std::string::npos) return "";
  std::string name = path.substr(found + folder.size());
  for (const std::string_view tree : {"posix/", "right/"})
    if (name.starts_with(tree)) name.erase(0, tree.size());
  struct stat info;
  const bool there = !name.empty() && name.find("..") == std::string::npos &&
                     stat((database + name).c_str(), &info) == 0 && S_ISREG(info.st_mode);
  return there ? name : "";
}

/* The zone whose file holds the same bytes; of several the first that names a place. */
std::string name_by_content(const std::string &bytes) {
  std::string best;
  std::error_code error;
  fs::recursive_directory_iterator all(database, error);
  for (const fs::recursive_directory_iterator end; !error && all != end; all.increment(error)) {
    const std::string name = all->path().string().substr(sizeof(database) - 1);
    if (name == "posix" || name == "right") all.disable_recursion_pending();
    if (!all->is_regular_file(error) || all->file_size(error) != bytes.size() || name == "localtime") continue;
    const auto rank = [](const std::string &one) {
      return (one.find('/') == std::string::npos) + one.starts_with("Etc/") + 2 * one.starts_with("posix");
    };
    const bool better = best.empty() || rank(name) < rank(best) || (rank(name) == rank(best) && name < best);
    std::string other;
    if (better && read_zone_file(all->path().string(), &other) && other == bytes) best = name;
  }
  return best;
}

}  // namespace

int platform_zone_read(platform_zone *zone) {
  const char *link = platform_path("/opt/etc/localtime");
  char target[PATH_MAX];
  const ssize_t size = readlink(link, target, sizeof(target) - 1);
  std::string name = size > 0 ? name_in_path(std::string(target, static_cast<size_t>(size))) : "";
  if (name.empty()) {
    std::string bytes;
    if (!realpath(link, target) || !read_zone_file(target, &bytes)) return -1;
    name = name_in_path(target);
    if (name.empty()) name = name_by_content(bytes);
  }
  zone->tz = name.empty() ? std::string(":") + link : name;
  zone->name = std::move(name);
  return 0;
}
