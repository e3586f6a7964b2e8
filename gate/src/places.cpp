/* How many gates there are at once, and which of them gives way. main.cpp calls it before anything comes of a phone. */
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>
#include <tuple>

#include "gate.h"
#include "platform-paths.h"

namespace {

/* Each gate holds a few mebibytes, and an ssh key opens as many connections as it likes: so many have a place at once,
   held by a lock that ends with the process. */
constexpr unsigned places_max = 16;
constexpr int leave_ms = 200; /* that a gate may take to give way; it has nothing to put away */
constexpr size_t name_max = 128;

struct place {
  int pid = 0;               /* of the gate that has it; 0: it is not known */
  uint64_t since = 0;        /* microseconds */
  char phone[name_max] = ""; /* whose it is */
};

int open_file(const std::string &name) {
  const char *folder = platform_runtime_dir();
  return folder ? open((folder + ("/" + name)).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600) : -1;
}

bool lock(int file) {
  return file >= 0 && flock(file, LOCK_EX | LOCK_NB) == 0;
}

/* Into the file that is locked now: for those who look for a place later. */
void sign(int file, const char *phone) {
  char text[name_max + 64];
  const int size = snprintf(text, sizeof text, "%d %" PRIu64 " %s\n", getpid(), gate_now(), phone);
  if (ftruncate(file, 0) < 0 || pwrite(file, text, static_cast<size_t>(size), 0) == size) return;
  if (ftruncate(file, 0) < 0) fprintf(stderr, "brisel-gate: its place cannot be signed: %s\n", strerror(errno));
}

place read_place(int file) {
  place one;
  char text[name_max + 64] = "";
  if (pread(file, text, sizeof text - 1, 0) <= 0 ||
      sscanf(text, "%d %" SCNu64 " %127[^\n]", &one.pid, &one.since, one.phone) < 2)
    return {};
  return one;
}

/* The places are shared out evenly: whose phone has most of them, counting the new one, gives up its oldest, which is
   what it left behind when its link was cut, if it did. -1: everybody has as few. */
int who_gives_way(const place *places, const char *phone) {
  int chosen = -1;
  std::tuple<unsigned, bool, uint64_t> most = {1, true, UINT64_MAX};
  for (unsigned i = 0; i < places_max; i++) {
    if (places[i].pid <= 0) continue;
    const bool mine = !strcmp(places[i].phone, phone);
    unsigned count = mine;
    for (const place &one : std::span(places, places_max)) count += one.pid > 0 && !strcmp(one.phone, places[i].phone);
    const std::tuple claim = {count, mine, UINT64_MAX - places[i].since};
    if (claim > most) chosen = static_cast<int>(i), most = claim;
  }
  return chosen;
}

/* Ends the gate that holds the lock of that file, and takes the lock. */
bool take_over(int file, const place &of) {
  const int process = static_cast<int>(syscall(SYS_pidfd_open, of.pid, 0));
  /* While the lock is held, it is this process that holds it. */
  if (process >= 0 && !lock(file)) {
    pollfd end = {process, POLLIN, 0};
    syscall(SYS_pidfd_send_signal, process, SIGTERM, nullptr, 0);
    if (poll(&end, 1, leave_ms) == 0) {
      syscall(SYS_pidfd_send_signal, process, SIGKILL, nullptr, 0);
      poll(&end, 1, leave_ms);
    }
  }
  if (process >= 0) close(process);
  return lock(file);
}

/* One after the other: *turn is held while somebody looks. */
bool look(const char *phone) {
  int files[places_max], mine = -1;
  place places[places_max];
  for (unsigned i = 0; i < places_max; i++) files[i] = -1;
  for (unsigned i = 0; i < places_max && mine < 0; i++) {
    files[i] = open_file("gate." + std::to_string(i));
    if (lock(files[i]))
      mine = static_cast<int>(i);
    else
      places[i] = read_place(files[i]);
  }
  if (mine < 0) mine = who_gives_way(places, phone);
  const bool taken = mine >= 0 && (places[mine].pid == 0 || take_over(files[mine], places[mine]));
  if (taken) sign(files[mine], phone);
  for (unsigned i = 0; i < places_max; i++)
    if (files[i] >= 0 && (!taken || static_cast<int>(i) != mine)) close(files[i]);
  return taken;
}

}  // namespace

bool place_take(const char *phone) {
  if (!platform_runtime_dir()) return true; /* then there is no session to reach either */
  const int turn = open_file("gate.turn");
  if (turn >= 0) flock(turn, LOCK_EX);
  const bool taken = look(std::string(phone).substr(0, name_max - 1).c_str());
  if (turn >= 0) close(turn);
  if (!taken) fprintf(stderr, "brisel-gate: too many phones are connected already\n");
  return taken;
}
