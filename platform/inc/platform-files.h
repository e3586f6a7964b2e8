/* Small files that must never be found half-written, and the folders they lie in. Everything that keeps such files
   (settings, requests that wait, drafts) works through these calls, so that there is one place where a disk can fail.
   Names are single names inside the folder, never paths; symbolic links are not followed. Any thread. */
#ifndef BRISEL_PLATFORM_FILES_H
#define BRISEL_PLATFORM_FILES_H

#include <cstddef>
#include <string>

/* A folder for the calls below; closed at the end of its scope. fd is -1, with errno, when it could not be opened. */
struct platform_folder {
  int fd;
  /* path may be NULL (ENOENT). make: with mode 0700 when missing (its parent must be there). lasting: made for good,
     its entry in the parent is synced. */
  explicit platform_folder(const char *path, bool make = false, bool lasting = false);
  ~platform_folder();
  platform_folder(const platform_folder &) = delete;
  platform_folder &operator=(const platform_folder &) = delete;
};

/* Reads a whole regular file of at most `most` bytes. 0; -1 with errno: ENOENT none there, EFBIG larger (what was read
   stays in *bytes), EINVAL not a file, else what the disk said. */
int platform_file_read(int folder_fd, const char *name, size_t most, std::string *bytes);

/* Puts a file of the folder, readable for its owner alone, in the place of the one it had: whoever looks, and whatever
   is killed meanwhile, finds the old bytes or the new. temporary: a name in the folder that nobody else uses; gone
   afterwards, unless the process is killed. lasting: a power cut after the return takes nothing back. 0; -1 with
   errno, and *step (may be NULL) names what failed: the old file then stays, except when only the folder could not be
   synced. */
int platform_file_replace(int folder_fd, const char *name, const char *temporary, const void *bytes, size_t size,
                          bool lasting, const char **step);

/* Makes a file that was put there without `lasting`, and its place in the folder, outlive a power cut. Takes as long as
   the disk does. 0, or -1 with errno. */
int platform_file_sync(int folder_fd, const char *name);

/* Takes a file away; that there was none is fine. lasting as above. 0, or -1 with errno. */
int platform_file_remove(int folder_fd, const char *name, bool lasting);

/* Gives a file another name, over whatever had it. lasting as above. 0, or -1 with errno. */
int platform_file_rename(int folder_fd, const char *name, const char *to, bool lasting);

#endif
