#include "fault-vfs.h"

#include <sqlite3.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

namespace {

struct fault_file {
  sqlite3_file base;
  char *path; /* NULL for temporary files and the shared memory of the log */
  sqlite3_file *real;
};

sqlite3_vfs *real_vfs;
sqlite3_vfs vfs;
sqlite3_io_methods methods;
fault_mode mode;
int chosen, counted;
bool struck;
std::map<std::string, std::string> synced; /* what a power loss would leave of each file */

/* SQLITE_OK when the step may be done. */
int step(int error) {
  counted++;
  if (mode == fault_none || counted < chosen || (mode == fault_once && counted > chosen)) return SQLITE_OK;
  struck = true;
  if (mode == fault_kill) raise(SIGKILL);
  return error;
}

fault_file *of(sqlite3_file *file) {
  return reinterpret_cast<fault_file *>(file);
}
sqlite3_file *real(sqlite3_file *file) {
  return of(file)->real;
}

std::string content(const char *path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

int fault_open(sqlite3_vfs *, const char *path, sqlite3_file *file, int flags, int *out) {
  fault_file *f = of(file);
  *f = {};
  f->real = static_cast<sqlite3_file *>(calloc(1, static_cast<size_t>(real_vfs->szOsFile)));
  const int r = real_vfs->xOpen(real_vfs, path, f->real, flags, out);
  if (r != SQLITE_OK) {
    free(f->real);
    return r;
  }
  f->path = path ? strdup(path) : nullptr;
  if (path && !synced.count(path)) synced[path] = content(path);
  f->base.pMethods = &methods;
  return r;
}

int fault_close(sqlite3_file *file) {
  const int r = real(file)->pMethods->xClose(real(file));
  free(of(file)->real);
  free(of(file)->path);
  return r;
}

int fault_delete(sqlite3_vfs *, const char *path, int sync) {
  const int r = step(SQLITE_IOERR_DELETE);
  if (r != SQLITE_OK) return r;
  synced.erase(path); /* a directory entry that comes back would be harmless here, one that stays gone is the test */
  return real_vfs->xDelete(real_vfs, path, sync);
}

int fault_write(sqlite3_file *file, const void *data, int bytes, sqlite3_int64 at) {
  const int r = step(SQLITE_IOERR_WRITE);
  if (r != SQLITE_OK) {
    /* A write that fails may have come halfway. */
    if (bytes > 1) real(file)->pMethods->xWrite(real(file), data, bytes / 2, at);
    return r;
  }
  return real(file)->pMethods->xWrite(real(file), data, bytes, at);
}

int fault_truncate(sqlite3_file *file, sqlite3_int64 size) {
  const int r = step(SQLITE_IOERR_TRUNCATE);
  return r != SQLITE_OK ? r : real(file)->pMethods->xTruncate(real(file), size);
}

int fault_sync(sqlite3_file *file, int flags) {
  const int r = step(SQLITE_IOERR_FSYNC);
  /* What is synced is remembered here; the real disk's sync would only take time. */
  if (r == SQLITE_OK && of(file)->path) synced[of(file)->path] = content(of(file)->path);
  return r;
}

}  // namespace

void fault_install(void) {
  real_vfs = sqlite3_vfs_find(nullptr);
  vfs = *real_vfs;
  vfs.zName = "fault";
  vfs.szOsFile = sizeof(fault_file);
  vfs.xOpen = fault_open;
  vfs.xDelete = fault_delete;
  methods = {
      2,
      fault_close,
      [](sqlite3_file *f, void *to, int n, sqlite3_int64 at) { return real(f)->pMethods->xRead(real(f), to, n, at); },
      fault_write,
      fault_truncate,
      fault_sync,
      [](sqlite3_file *f, sqlite3_int64 *size) { return real(f)->pMethods->xFileSize(real(f), size); },
      [](sqlite3_file *f, int lock) { return real(f)->pMethods->xLock(real(f), lock); },
      [](sqlite3_file *f, int lock) { return real(f)->pMethods->xUnlock(real(f), lock); },
      [](sqlite3_file *f, int *out) { return real(f)->pMethods->xCheckReservedLock(real(f), out); },
      [](sqlite3_file *f, int op, void *arg) { return real(f)->pMethods->xFileControl(real(f), op, arg); },
      [](sqlite3_file *f) { return real(f)->pMethods->xSectorSize(real(f)); },
      [](sqlite3_file *f) { return real(f)->pMethods->xDeviceCharacteristics(real(f)); },
      [](sqlite3_file *f, int page, int size, int extend, void volatile **out) {
        return real(f)->pMethods->xShmMap(real(f), page, size, extend, out);
      },
      [](sqlite3_file *f, int at, int n, int flags) { return real(f)->pMethods->xShmLock(real(f), at, n, flags); },
      [](sqlite3_file *f) { real(f)->pMethods->xShmBarrier(real(f)); },
      [](sqlite3_file *f, int remove) { return real(f)->pMethods->xShmUnmap(real(f), remove); },
      nullptr,
      nullptr};
  sqlite3_vfs_register(&vfs, 1);
}

void fault_arm(fault_mode new_mode, int new_step) {
  mode = new_mode;
  chosen = new_step;
  counted = 0;
  struck = false;
  if (new_mode != fault_none) synced.clear();
}

bool fault_struck(void) {
  return struck;
}

void fault_lose_unsynced(void) {
  for (const auto &[path, bytes] : synced) {
    unlink((path + "-shm").c_str());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  }
}
