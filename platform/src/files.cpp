#include "platform-files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "files-steps.h"

const file_steps *platform_file_steps;

namespace {

/* Every step that changes the disk goes through here. work returns 0 or -1 with errno. */
template <typename F>
int do_step(const file_operation &operation, F work) {
  const int refused = platform_file_steps ? platform_file_steps->before(&operation) : 0;
  if (refused) {
    errno = refused;
    return -1;
  }
  const int result = work();
  if (result == 0 && platform_file_steps) platform_file_steps->after(&operation);
  return result;
}

int write_all(int folder_fd, const char *name, int fd, const char *bytes, size_t size) {
  return do_step({file_step::write, folder_fd, name, nullptr, fd, bytes, size}, [&] {
    while (size > 0) {
      const ssize_t done = write(fd, bytes, size);
      if (done < 0 && errno == EINTR) continue;
      if (done <= 0) return -1;
      bytes += done;
      size -= static_cast<size_t>(done);
    }
    return 0;
  });
}

int sync_folder(int folder_fd) {
  return do_step({file_step::sync_folder, folder_fd, nullptr, nullptr, folder_fd, nullptr, 0},
                 [&] { return fsync(folder_fd); });
}

int open_directory(const char *path) {
  return open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

int make_folder(const char *path, bool lasting) {
  const int made = do_step({file_step::make_folder, -1, path, nullptr, -1, nullptr, 0},
                           [&] { return mkdir(path, 0700) == 0 || errno == EEXIST ? 0 : -1; });
  if (made != 0) return -1;
  if (!lasting) return 0;
  const std::string whole = path;
  const size_t slash = whole.rfind('/');
  const int parent = open_directory(slash == std::string::npos ? "." : whole.substr(0, slash + 1).c_str());
  if (parent < 0) return -1;
  const int synced = sync_folder(parent);
  const int error = errno;
  close(parent);
  errno = error;
  return synced;
}

}  // namespace

platform_folder::platform_folder(const char *path, bool make, bool lasting) : fd(-1) {
  if (path == nullptr || *path == '\0') {
    errno = ENOENT;
    return;
  }
  fd = open_directory(path);
  if (fd < 0 && errno == ENOENT && make && make_folder(path, lasting) == 0) fd = open_directory(path);
}

platform_folder::~platform_folder() {
  if (fd >= 0) close(fd);
}

int platform_file_read(int folder_fd, const char *name, size_t most, std::string *bytes) {
  bytes->clear();
  /* Not blocking: a FIFO in the file's place must not hold up the reader. */
  const int file = openat(folder_fd, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (file < 0) return -1;
  struct stat info {};
  int error = fstat(file, &info) != 0 ? errno : S_ISREG(info.st_mode) ? 0 : EINVAL;
  if (error == 0 && static_cast<size_t>(info.st_size) > most) error = EFBIG;
  size_t size = 0;
  ssize_t got = 1;
  while (error == 0 && got != 0 && size <= most) {
    if (size == bytes->size()) bytes->resize(std::min(most, std::max(static_cast<size_t>(info.st_size), 2 * size)) + 1);
    got = read(file, bytes->data() + size, bytes->size() - size);
    if (got < 0 && errno != EINTR) error = errno;
    if (got > 0) size += static_cast<size_t>(got);
  }
  bytes->resize(size);
  if (error == 0 && size > most) error = EFBIG;
  close(file);
  errno = error;
  return error == 0 ? 0 : -1;
}

int platform_file_replace(int folder_fd, const char *name, const char *temporary, const void *bytes, size_t size,
                          bool lasting, const char **step) {
  const char *failed = "create";
  int file = -1;
  bool good = do_step({file_step::create, folder_fd, temporary, nullptr, -1, nullptr, 0}, [&] {
                file = openat(folder_fd, temporary, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
                return file >= 0 ? 0 : -1;
              }) == 0;
  if (good) {
    failed = "write";
    good = write_all(folder_fd, temporary, file, static_cast<const char *>(bytes), size) == 0;
  }
  if (good && lasting) {
    failed = "sync";
    good =
        do_step({file_step::sync, folder_fd, temporary, nullptr, file, nullptr, 0}, [&] { return fsync(file); }) == 0;
  }
  if (good) {
    failed = "rename";
    good = platform_file_rename(folder_fd, temporary, name, false) == 0;
  }
  int error = errno;
  if (!good && file >= 0) unlinkat(folder_fd, temporary, 0);
  if (file >= 0) close(file);
  if (good && lasting) {
    failed = "sync the folder of";
    good = sync_folder(folder_fd) == 0;
    error = errno;
  }
  if (good) return 0;
  errno = error;
  if (step) *step = failed;
  return -1;
}

int platform_file_sync(int folder_fd, const char *name) {
  const int file = openat(folder_fd, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (file < 0) return -1;
  const int synced =
      do_step({file_step::sync, folder_fd, name, nullptr, file, nullptr, 0}, [&] { return fsync(file); });
  const int error = errno;
  close(file);
  errno = error;
  return synced == 0 ? sync_folder(folder_fd) : -1;
}

int platform_file_remove(int folder_fd, const char *name, bool lasting) {
  const int removed = do_step({file_step::remove, folder_fd, name, nullptr, -1, nullptr, 0},
                              [&] { return unlinkat(folder_fd, name, 0); });
  if (removed != 0) return errno == ENOENT ? 0 : -1;
  return lasting ? sync_folder(folder_fd) : 0;
}

int platform_file_rename(int folder_fd, const char *name, const char *to, bool lasting) {
  const int renamed = do_step({file_step::rename, folder_fd, name, to, -1, nullptr, 0},
                              [&] { return renameat(folder_fd, name, folder_fd, to); });
  if (renamed != 0) return -1;
  return lasting ? sync_folder(folder_fd) : 0;
}
