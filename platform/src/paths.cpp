#include "platform-paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

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

bool make_folder(const std::string &path) {
  struct stat st;
  if (stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string part = path.substr(0, slash);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) break;
  }
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
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
