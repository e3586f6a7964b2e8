/* Opening the phone's state and bringing it up to date. */
#include "state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "phone-schema.h"
#include "platform-paths.h"
#include "state-db.h"

namespace {

constexpr int kVersion = sizeof phone_schema_steps / sizeof *phone_schema_steps;
constexpr int kWaitMs = 30000; /* for other commands */
constexpr int kLockPauseUsec = 50000;

std::string used_folder; /* below the state folder */
std::string refused;     /* why none is opened */

/* Takes a state of any earlier version, or a new file, to this one; all of it or nothing. */
int migrate(phone_state *state, std::string *error) {
  int64_t version = 0;
  if (state->db.number("PRAGMA user_version", &version) < 0) return -1;
  if (version == kVersion) return 0;
  return state->db.transaction([&] {
    /* Another command may have done it meanwhile. */
    if (state->db.number("PRAGMA user_version", &version) < 0) return -1;
    if (version < 0 || version > kVersion) {
      *error = "made by a newer version of this program";
      return -1;
    }
    for (; version < kVersion; version++)
      if (state->db.run(phone_schema_steps[version]) < 0) return -1;
    return state->db.run("PRAGMA user_version=" + std::to_string(kVersion));
  });
}

/* The folder holds what people wrote: it is this user's, and nobody else looks in or puts something there. */
bool own_folder(const std::string &path) {
  struct stat info;
  if (lstat(path.c_str(), &info) < 0 || !S_ISDIR(info.st_mode) || info.st_uid != geteuid()) return false;
  return (info.st_mode & 077) == 0 || chmod(path.c_str(), 0700) == 0;
}

/* A page is written for every row and index that a change touches, whatever its size: with the usual 4 KiB a mail that
   comes wrote 78 KiB, with these 28. Only a new file takes it. */
constexpr char kSettings[] = "PRAGMA page_size=1024; PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL";

/* Two commands that make the file at once: the switch of the journal is refused instead of waited for. */
int use_wal(sql_db *db) {
  constexpr int tries_most = 200, pause_us = 20000;
  for (int tries = 0; db->run(kSettings) < 0; tries++) {
    if (db->trouble() != sql_trouble::busy || tries == tries_most) return -1;
    usleep(pause_us);
  }
  return 0;
}

}  // namespace

int state_fail(phone_state *state, const char *what) {
  state->error = std::string(what) + ": " + state->db.error();
  return -1;
}

std::string phone_base_path(const char *name) {
  const char *folder = platform_state_dir();
  if (!folder) return "";
  return name && *name ? std::string(folder) + "/" + name : folder;
}

void phone_state_use(const std::string &folder) {
  used_folder = folder;
}

void phone_state_refuse(const std::string &reason) {
  refused = reason;
}

const std::string &phone_state_refused() {
  return refused;
}

const std::string &phone_state_used() {
  return used_folder;
}

std::string phone_state_path(const char *name) {
  std::string folder = phone_base_path("");
  for (size_t at = 0, end = 0; !folder.empty() && at < used_folder.size(); at = end + 1) {
    end = std::min(used_folder.find('/', at), used_folder.size());
    folder += "/" + used_folder.substr(at, end - at);
    if ((mkdir(folder.c_str(), 0700) < 0 && errno != EEXIST) || !own_folder(folder)) return "";
  }
  return folder.empty() || !name || !*name ? folder : folder + "/" + name;
}

int phone_state_lock(const char *name, std::string *error, int tries) {
  int fd = open(phone_state_path(name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  /* One that was killed while it started a process leaves the lock to that process until it runs. */
  for (int tried = 0; fd >= 0; tried++) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) return fd;
    if (errno != EWOULDBLOCK || tried >= tries) break;
    usleep(kLockPauseUsec);
  }
  if (fd < 0 || errno != EWOULDBLOCK) *error = std::string("the lock ") + name + " cannot be had: " + strerror(errno);
  if (fd >= 0) close(fd);
  return -1;
}

phone_state *phone_state_open(std::string *error) {
  if (!refused.empty()) {
    *error = refused;
    return nullptr;
  }
  std::string path = phone_state_path("phone.db");
  if (path.empty()) {
    *error = "the phone's state folder cannot be made, or is not this user's own";
    return nullptr;
  }
  sql_count_no_memory();
  phone_state_holder state(new phone_state);
  std::string why;
  if (state->db.open(path, sql_access::create, kWaitMs) == 0 && use_wal(&state->db) == 0 &&
      migrate(state.get(), &why) == 0)
    return state.release();
  *error = path + ": " + (why.empty() ? state->db.error() : why);
  return nullptr;
}

void phone_state_close(phone_state *state) {
  delete state;
}

const char *phone_state_error(phone_state *state) {
  return state->error.c_str();
}

int phone_state_note(phone_state *state, const std::function<int()> &work) {
  return state->db.unhurried([&] { return phone_state_change(state, work); }) < 0 ? -1 : 0;
}

int phone_state_change(phone_state *state, const std::function<int()> &work) {
  if (state->db.run("BEGIN IMMEDIATE") < 0) return state_fail(state, "the phone's state cannot be written");
  int result = work();
  if (result == 0 && state->db.run("COMMIT") < 0) result = state_fail(state, "the phone's state cannot be written");
  if (result != 0) state->db.undo();
  return result == 0 ? 0 : -1;
}
