/* What the file layer does to the disk, step by step, for the layer that makes disks fail (platform/fault/). */
#ifndef BRISEL_PLATFORM_FILES_STEPS_H
#define BRISEL_PLATFORM_FILES_STEPS_H

#include <cstddef>

enum class file_step { make_folder, create, write, sync, rename, remove, sync_folder };

struct file_operation {
  file_step step;
  int folder_fd;    /* of the folder that holds name; -1 for make_folder and the sync of its parent */
  const char *name; /* of the file; the path for make_folder; NULL for sync_folder */
  const char *to;   /* the new name; rename only */
  int fd;           /* of the open file; write and sync only */
  const char *bytes;
  size_t size;
};

struct file_steps {
  /* 0: the step may be done; else it is not, and the number is its errno. */
  int (*before)(const file_operation *operation);
  /* It was done, and without an error. */
  void (*after)(const file_operation *operation);
};

/* NULL in every program but tests of failing disks. */
extern const file_steps *platform_file_steps;

#endif
