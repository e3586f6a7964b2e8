#include "platform-peer.h"

#include <unistd.h>

#include <climits>
#include <string_view>

std::string platform_program_of(pid_t pid) {
  char path[PATH_MAX];
  const ssize_t length = readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), path, sizeof path);
  if (length <= 0 || length == sizeof path) return "";
  std::string program(path, static_cast<size_t>(length));
  constexpr std::string_view gone = " (deleted)";
  if (program.ends_with(gone)) program.resize(program.size() - gone.size());
  return program;
}

bool platform_program_is(const std::string &program, const char *installed, const char *built) {
  if (program.empty()) return false;
  if (program == installed) return true;
  std::string folder = platform_program_of(getpid());
  for (int up = 0; up < 3 && folder.size() > 1; up++) {
    folder.resize(folder.rfind('/'));
    /* What tells a build tree from any other folder. */
    if (access((folder + "/build.ninja").c_str(), F_OK) != 0) continue;
    return *built ? program == folder + "/" + built : program.starts_with(folder + "/");
  }
  return false;
}
