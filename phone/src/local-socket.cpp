#include "local-socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace {

/* The address by way of the folder's descriptor: a path may be longer than an address. Closed by the caller. */
int folder_address(const std::string &path, const char *name, sockaddr_un *address) {
  int folder = path.empty() ? -1 : open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  *address = {};
  address->sun_family = AF_UNIX;
  snprintf(address->sun_path, sizeof address->sun_path, "/proc/self/fd/%d/%s", folder, name);
  return folder;
}

}  // namespace

int local_listen(const std::string &folder, const char *name, int type) {
  sockaddr_un address;
  int at = folder_address(folder, name, &address);
  if (at < 0) return -errno;
  unlinkat(at, name, 0);
  int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  int r = fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0 || listen(fd, 8) < 0
              ? -errno
              : 0;
  close(at);
  if (r < 0 && fd >= 0) close(fd);
  return r < 0 ? r : fd;
}

int local_connect(const std::string &folder, const char *name, int type) {
  sockaddr_un address;
  int at = folder_address(folder, name, &address);
  if (at < 0) return -1;
  int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  bool there = fd >= 0 && connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
  close(at);
  if (fd >= 0 && !there) close(fd);
  return there ? fd : -1;
}
