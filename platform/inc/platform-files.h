/* Files that must never be found half-written. Any thread. */
#ifndef BRISEL_PLATFORM_FILES_H
#define BRISEL_PLATFORM_FILES_H

#include <cstddef>

/* Puts a file of the folder in the place of the one it had: whoever looks, and whatever is killed meanwhile, finds the
   old bytes or the new. temporary: a name in the folder that nobody else uses; gone afterwards, unless the process is
   killed. lasting: a power cut after the return takes nothing back. 0; -1 with errno, and *step (may be NULL) names
   what failed: the old file then stays, except when only the folder could not be synced. */
int platform_file_replace(int folder_fd, const char *name, const char *temporary, const void *bytes, size_t size,
                          bool lasting, const char **step);

#endif
