#include "fault.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>

#include "files-steps.h"

namespace {

using bytes_or_none = std::optional<std::string>;

fault_plan plan;
int counted;
bool struck;

/* --- a plan from outside --- */

std::string followed, followed_line, followed_only;

bytes_or_none content(const std::string &path);

/* The line says: kind, step, 1 for from then on, and a part of the paths that count. */
void look_at_plan(void) {
  const std::string line = content(followed).value_or("");
  if (line == followed_line) return;
  followed_line = line;
  static constexpr const char *kinds[] = {"none", "full", "io", "power", "kill"};
  std::istringstream words(line);
  std::string kind;
  fault_plan next;
  words >> kind >> next.step >> next.from_then_on >> followed_only;
  for (int k = fault_none; k <= fault_kill; k++)
    if (kind == kinds[k]) next.kind = static_cast<fault_kind>(k);
  if (!followed_only.empty()) next.only = followed_only.c_str();
  fault_arm(next);
}

/* Whoever wrote the plan sees that its step was reached. */
void tell_struck(void) {
  if (!followed.empty()) std::ofstream(followed + ".struck", std::ios::app) << getpid() << "\n";
}

bool is_due(const char *path, bool needs_room) {
  if (!followed.empty()) look_at_plan();
  if (plan.kind == fault_none || (plan.kind == fault_full && !needs_room)) return false;
  if (plan.only && (!path || !strstr(path, plan.only))) return false;
  counted++;
  const bool goes_on = plan.from_then_on || plan.kind == fault_power;
  if (counted < plan.step || (!goes_on && counted > plan.step)) return false;
  struck = true;
  tell_struck();
  return true;
}

bytes_or_none content(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return std::string{std::istreambuf_iterator<char>(in), {}};
}

void put(const std::string &path, const bytes_or_none &bytes) {
  if (!bytes) {
    unlink(path.c_str());
  } else {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << *bytes;
  }
}

/* --- SQLite --- */

struct fault_file {
  sqlite3_file base;
  char *path; /* NULL for temporary files and the shared memory of the log */
  sqlite3_file *real;
};

sqlite3_vfs *real_vfs;
sqlite3_vfs vfs;
sqlite3_io_methods methods;
std::map<std::string, std::string> synced; /* what a power loss would leave of each file */
std::set<fault_file *> open_files;

fault_file *of(sqlite3_file *file) {
  return reinterpret_cast<fault_file *>(file);
}

sqlite3_file *real(sqlite3_file *file) {
  return of(file)->real;
}

/* Through SQLite's own descriptor: closing another one would drop its locks. */
std::string content_of(sqlite3_file *file) {
  sqlite3_int64 size = 0;
  if (file->pMethods->xFileSize(file, &size) != SQLITE_OK) return "";
  std::string bytes(static_cast<size_t>(size), '\0');
  if (size > 0) file->pMethods->xRead(file, bytes.data(), static_cast<int>(size), 0);
  return bytes;
}

/* SQLITE_OK when the step may be done. */
int sql_step(const char *path, bool needs_room, int error) {
  if (!is_due(path, needs_room)) return SQLITE_OK;
  if (plan.kind == fault_kill) raise(SIGKILL);
  return plan.kind == fault_full ? SQLITE_FULL : error;
}

int fault_open(sqlite3_vfs *, const char *path, sqlite3_file *file, int flags, int *out) {
  fault_file *f = of(file);
  *f = {};
  if (path && (flags & SQLITE_OPEN_CREATE) && access(path, F_OK) != 0) {
    const int r = sql_step(path, true, SQLITE_CANTOPEN);
    if (r != SQLITE_OK) return r;
  }
  f->real = static_cast<sqlite3_file *>(calloc(1, static_cast<size_t>(real_vfs->szOsFile)));
  const int r = real_vfs->xOpen(real_vfs, path, f->real, flags, out);
  if (r != SQLITE_OK) {
    free(f->real);
    return r;
  }
  f->path = path ? strdup(path) : nullptr;
  if (path && plan.kind == fault_power) synced.try_emplace(path, content_of(f->real));
  open_files.insert(f);
  f->base.pMethods = &methods;
  return r;
}

int fault_close(sqlite3_file *file) {
  const int r = real(file)->pMethods->xClose(real(file));
  open_files.erase(of(file));
  free(of(file)->real);
  free(of(file)->path);
  return r;
}

int fault_delete(sqlite3_vfs *, const char *path, int sync) {
  const int r = sql_step(path, false, SQLITE_IOERR_DELETE);
  if (r != SQLITE_OK) return r;
  synced.erase(path); /* a directory entry that comes back would be harmless here, one that stays gone is the test */
  return real_vfs->xDelete(real_vfs, path, sync);
}

int fault_write(sqlite3_file *file, const void *data, int bytes, sqlite3_int64 at) {
  const bool kills = plan.kind == fault_kill;
  if (kills) plan.kind = fault_io; /* killed below, after half of it */
  const int r = sql_step(of(file)->path, true, SQLITE_IOERR_WRITE);
  if (kills) plan.kind = fault_kill;
  if (r == SQLITE_OK) return real(file)->pMethods->xWrite(real(file), data, bytes, at);
  if (bytes > 1) real(file)->pMethods->xWrite(real(file), data, bytes / 2, at);
  if (kills) raise(SIGKILL);
  return r;
}

int fault_truncate(sqlite3_file *file, sqlite3_int64 size) {
  const int r = sql_step(of(file)->path, false, SQLITE_IOERR_TRUNCATE);
  return r != SQLITE_OK ? r : real(file)->pMethods->xTruncate(real(file), size);
}

int fault_sync(sqlite3_file *file, int flags) {
  const int r = sql_step(of(file)->path, false, SQLITE_IOERR_FSYNC);
  /* What is synced is remembered here; the real disk's sync would only take time. */
  if (r == SQLITE_OK && of(file)->path && plan.kind == fault_power) synced[of(file)->path] = content_of(real(file));
  return r;
}

void install_sqlite(void) {
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

/* --- the platform's files --- */

/* A name in a folder: what is there, as far as its bytes were synced, and what a power loss would leave. The entry
   itself lasts only from the folder's sync on. */
struct entry {
  bytes_or_none now, lasting;
};
std::map<std::string, entry> entries; /* by path */

std::string folder_path(int fd) {
  char path[PATH_MAX];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t size = readlink(link.c_str(), path, sizeof path);
  return size > 0 ? std::string(path, static_cast<size_t>(size)) + "/" : "?/";
}

std::string path_of(const file_operation *op) {
  if (op->step == file_step::make_folder) return op->name;
  return folder_path(op->folder_fd) + (op->name ? op->name : "");
}

entry *entry_of(const std::string &path) {
  auto [it, added] = entries.try_emplace(path);
  if (added) it->second.now = it->second.lasting = content(path);
  return &it->second;
}

int before_file_step(const file_operation *op) {
  const std::string path = path_of(op);
  if (op->name && op->step != file_step::make_folder) entry_of(path);
  if (op->to) entry_of(folder_path(op->folder_fd) + op->to);
  const bool needs_room =
      op->step == file_step::make_folder || op->step == file_step::create || op->step == file_step::write;
  if (!is_due(path.c_str(), needs_room)) return 0;
  if (op->step == file_step::write && op->size > 1 && write(op->fd, op->bytes, op->size / 2) < 0) return EIO;
  if (plan.kind == fault_kill) raise(SIGKILL);
  return plan.kind == fault_full ? ENOSPC : EIO;
}

void after_file_step(const file_operation *op) {
  const std::string path = path_of(op);
  switch (op->step) {
    case file_step::create:
      entry_of(path)->now = "";
      break;
    case file_step::sync:
      entry_of(path)->now = content(path);
      break;
    case file_step::rename:
      entry_of(folder_path(op->folder_fd) + op->to)->now = entry_of(path)->now;
      entry_of(path)->now = std::nullopt;
      break;
    case file_step::remove:
      entry_of(path)->now = std::nullopt;
      break;
    case file_step::sync_folder:
      for (auto &[name, one] : entries)
        if (name.starts_with(path) && name.find('/', path.size()) == std::string::npos) one.lasting = one.now;
      break;
    case file_step::make_folder:
    case file_step::write:
      break;
  }
}

constexpr file_steps steps = {before_file_step, after_file_step};

/* A program as it is, linked with this layer for a test, follows the plan of whoever started it. */
const struct follower {
  follower(void) {
    const char *path = getenv("BRISEL_FAULT_PLAN");
    if (!path) return;
    followed = path;
    fault_install();
  }
} follow_plan;

}  // namespace

void fault_install(void) {
  if (real_vfs) return;
  install_sqlite();
  platform_file_steps = &steps;
}

void fault_arm(const fault_plan &next) {
  plan = next;
  counted = 0;
  struck = false;
  if (plan.kind == fault_none) return;
  synced.clear();
  entries.clear();
  if (plan.kind != fault_power) return;
  for (const fault_file *f : open_files)
    if (f->path) synced[f->path] = content_of(f->real);
}

bool fault_struck(void) {
  return struck;
}

int fault_steps(void) {
  return counted;
}

void fault_lose_unsynced(void) {
  for (const auto &[path, bytes] : synced) {
    unlink((path + "-shm").c_str());
    put(path, bytes);
  }
  for (const auto &[path, one] : entries) put(path, one.lasting);
}
