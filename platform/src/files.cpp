#include "platform-files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace {

bool write_all(int fd, const char *bytes, size_t size) {
  while (size > 0) {
    const ssize_t done = write(fd, bytes, size);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    bytes += done;
    size -= static_cast<size_t>(done);
  }
  return true;
}

}  // namespace

int platform_file_replace(int folder_fd, const char *name, const char *temporary, const void *bytes, size_t size,
                          bool lasting, const char **step) {
  const char *failed = "create";
  const int file = openat(folder_fd, temporary, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  bool good = file >= 0;
  if (good) {
    failed = "write";
    good = write_all(file, static_cast<const char *>(bytes), size);
  }
  if (good && lasting) {
    failed = "sync";
    good = fsync(file) == 0;
  }
  if (good) {
    failed = "rename";
    good = renameat(folder_fd, temporary, folder_fd, name) == 0;
  }
  int error = errno;
  if (!good && file >= 0) unlinkat(folder_fd, temporary, 0);
  if (file >= 0) close(file);
  if (good && lasting) {
    failed = "sync the folder of";
    good = fsync(folder_fd) == 0;
    error = errno;
  }
  if (good) return 0;
  errno = error;
  if (step) *step = failed;
  return -1;
}
