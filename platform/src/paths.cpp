#include "platform-paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "dlog.h"

namespace {

constexpr char device_res[] = "/usr/apps/com.vextora.brisel/res";
constexpr char device_localtime[] = "/opt/etc/localtime";

/* Results live as long as the process; a map node never moves. */
std::mutex lock;
std::map<std::string, std::string> kept;

const char *keep(const std::string &key, const std::string &value) {
  auto [it, added] = kept.try_emplace(key, value);
  /* The environment may change before the platform is up (a test does that); what was handed out stays valid. */
  if (!added && it->second != value) return keep(key + '\n', value);
  return it->second.c_str();
}

const char *environment(const char *name) {
  const char *value = getenv(name);
  return value && *value ? value : nullptr;
}

/* Whether nobody but the user and root can put something else in the place of what is below this folder. A group that
   only the user is in (of the same number) may write, and whoever may add to a folder with the sticky bit. */
bool is_trusted(const struct stat &info) {
  if (!S_ISDIR(info.st_mode) || (info.st_uid != 0 && info.st_uid != geteuid())) return false;
  if (info.st_mode & S_ISVTX) return true;
  const bool own_group = info.st_gid == geteuid() || info.st_gid == 0;
  return (info.st_mode & S_IWOTH) == 0 && ((info.st_mode & S_IWGRP) == 0 || own_group);
}

/* Makes the folder with what is missing above it, for the user alone; an existing one is mended. False, logged, when it
   or a folder above it could be turned into another by somebody else. */
bool make_folder(const std::string &path) {
  struct stat st;
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string part = path.substr(0, slash);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST && errno != EROFS) {
      if (stat(part.c_str(), &st) != 0) return false;
    }
    if (slash == std::string::npos) break;
  }
  std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), free);
  if (!real) return false;
  std::string whole = real.get();
  if (stat(whole.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
  if (st.st_uid == geteuid() && (st.st_mode & 077) != 0) chmod(whole.c_str(), 0700);
  bool mine = true;
  while (true) {
    const bool there = stat(whole.c_str(), &st) == 0;
    if (!there || !is_trusted(st) || (mine && (st.st_uid != geteuid() || (st.st_mode & 077) != 0))) {
      __dlog_print(DLOG_ERROR, "BRISEL_PATHS", "\"%s\" is not used: others may change \"%s\"", path.c_str(),
                   whole.c_str());
      return false;
    }
    mine = false;
    const size_t slash = whole.rfind('/');
    if (whole == "/") return true;
    whole.erase(slash == 0 ? 1 : slash);
  }
}

/* The folder that an XDG variable names, else its default below the home folder; a relative value counts as unset. */
const char *state_folder(const char *variable, const char *below_home, const char *own) {
  std::string base;
  const char *value = environment(variable);
  if (value && value[0] == '/') {
    base = value;
  } else if (below_home) {
    const char *home = environment("HOME");
    if (!home || home[0] != '/') return nullptr;
    base = std::string(home) + below_home;
  } else {
    base = "/tmp/brisel-runtime-" + std::to_string(getuid());
    /* A folder in a shared place is trusted only when it is ours alone. */
    struct stat st;
    if (mkdir(base.c_str(), 0700) != 0 && errno != EEXIST) return nullptr;
    if (lstat(base.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != getuid() || (st.st_mode & 077))
      return nullptr;
  }
  const std::string path = base + own;
  const std::lock_guard<std::mutex> guard(lock);
  /* Looked at once; afterwards it only has to be there. */
  struct stat there;
  if (kept.count("dir:" + path) != 0 && stat(path.c_str(), &there) == 0) return kept["dir:" + path].c_str();
  if (!make_folder(path)) return nullptr;
  return keep("dir:" + path, path);
}

}  // namespace

const char *platform_path(const char *path) {
  if (!path) return nullptr;
  const std::lock_guard<std::mutex> guard(lock);
  if (strncmp(path, device_res, strlen(device_res)) == 0 &&
      (path[strlen(device_res)] == '/' || !path[strlen(device_res)])) {
    const char *res = environment("BRISEL_RES_DIR");
    return keep(path, std::string(res ? res : device_res) + (path + strlen(device_res)));
  }
  if (strcmp(path, device_localtime) == 0) {
    const char *link = environment("BRISEL_LOCALTIME");
    if (link) return keep(path, link);
    return keep(path, access(path, F_OK) == 0 ? path : "/etc/localtime");
  }
  return keep(path, path);
}

const char *platform_data_dir(void) {
  return state_folder("XDG_DATA_HOME", "/.local/share", "/brisel");
}
const char *platform_config_dir(void) {
  return state_folder("XDG_CONFIG_HOME", "/.config", "/brisel");
}
const char *platform_runtime_dir(void) {
  return state_folder("XDG_RUNTIME_DIR", nullptr, "/brisel");
}
const char *platform_state_dir(void) {
  return state_folder("XDG_STATE_HOME", "/.local/state", "/brisel-phone");
}
const char *platform_app_state_dir(void) {
  return state_folder("XDG_STATE_HOME", "/.local/state", "/brisel");
}
