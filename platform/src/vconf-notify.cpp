#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "dlog.h"
#include "file-watch.h"
#include "vconf-store.h"
#include "vconf.h"

struct keynode_t {
  std::string key;
  vconf_value value;
};

namespace {

constexpr const char *log_tag = "VCONF";

struct registration {
  std::string key;
  vconf_callback_fn callback;
  void *user_data;
  uint64_t seen;     /* the write id of the value this registration knows */
  bool dead = false; /* dropped while callbacks run; freed afterwards */
};

/* One watched folder: the one of the lasting settings or the one of the session's. */
struct folder_watch {
  std::string folder;
  file_watch *watch;
};

std::vector<std::unique_ptr<registration>> registrations;
std::vector<folder_watch> folders;
int delivering;

void drop_dead() {
  if (delivering > 0) return;
  std::erase_if(registrations, [](const auto &held) { return held->dead; });
  std::erase_if(folders, [](const folder_watch &held) {
    const bool used = std::any_of(registrations.begin(), registrations.end(), [&held](const auto &one) {
      return vconf_key_folder(one->key.c_str()) == held.folder;
    });
    if (!used) file_watch_del(held.watch);
    return !used;
  });
}

/* exact: an event named this key's file. A value whose write id a registration knows already is no news to it: it was
   written before the registration, or an earlier event has brought it. A key that is gone has no id, so there the
   event itself decides. */
void deliver(const std::string &key, bool exact) {
  const keynode_t node{key, vconf_value_read(key.c_str())};
  const size_t count = registrations.size(); /* one made by a callback waits for the next write */
  for (size_t i = 0; i < count; i++) {
    registration *one = registrations[i].get();
    if (one->dead || one->key != key) continue;
    if (one->seen == node.value.write_id && !(exact && node.value.write_id == 0)) continue;
    one->seen = node.value.write_id;
    keynode_t copy = node;
    one->callback(&copy, one->user_data);
  }
}

void folder_changed_cb(const char *name, void *) {
  std::vector<std::string> keys;
  for (const auto &one : registrations) {
    if (one->dead || (name != nullptr && vconf_key_file(one->key.c_str()) != name)) continue;
    if (std::find(keys.begin(), keys.end(), one->key) == keys.end()) keys.push_back(one->key);
  }
  delivering++;
  for (const std::string &key : keys) deliver(key, name != nullptr);
  delivering--;
  drop_dead();
}

bool watch_folder_of(const char *key) {
  const std::string folder = vconf_key_folder(key);
  if (std::any_of(folders.begin(), folders.end(), [&](const folder_watch &held) { return held.folder == folder; }))
    return true;
  file_watch *watch = folder.empty() ? nullptr : file_watch_add(folder.c_str(), folder_changed_cb, nullptr);
  if (watch == nullptr) {
    __dlog_print(DLOG_ERROR, log_tag, "cannot watch the folder of \"%s\"", key);
    return false;
  }
  folders.push_back({folder, watch});
  return true;
}

}  // namespace

int vconf_notify_key_changed(const char *key, vconf_callback_fn callback, void *user_data) {
  if (!vconf_key_valid(key) || callback == nullptr) return -1;
  for (const auto &one : registrations) {
    if (!one->dead && one->key == key && one->callback == callback && one->user_data == user_data) return -1;
  }
  if (!watch_folder_of(key)) return -1;
  /* Read after the watch began: a write in between is then seen twice at worst, and never missed. */
  registrations.emplace_back(new registration{key, callback, user_data, vconf_value_read(key).write_id});
  return 0;
}

int vconf_ignore_key_changed(const char *key, vconf_callback_fn callback) {
  if (!vconf_key_valid(key) || callback == nullptr) return -1;
  bool found = false;
  for (const auto &one : registrations) {
    if (one->dead || one->key != key || one->callback != callback) continue;
    one->dead = true;
    found = true;
  }
  drop_dead();
  return found ? 0 : -1;
}

const char *vconf_keynode_get_name(const keynode_t *node) {
  return node != nullptr ? node->key.c_str() : nullptr;
}

int vconf_keynode_get_type(const keynode_t *node) {
  return node != nullptr ? node->value.type : VCONF_TYPE_NONE;
}

int vconf_keynode_get_bool(const keynode_t *node) {
  return vconf_keynode_get_type(node) == VCONF_TYPE_BOOL ? node->value.number : 0;
}

int vconf_keynode_get_int(const keynode_t *node) {
  return vconf_keynode_get_type(node) == VCONF_TYPE_INT ? node->value.number : 0;
}

const char *vconf_keynode_get_str(const keynode_t *node) {
  return vconf_keynode_get_type(node) == VCONF_TYPE_STRING ? node->value.text.c_str() : nullptr;
}
