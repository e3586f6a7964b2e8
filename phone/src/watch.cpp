#include "watch.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "link.h"
#include "pair-list.h"
#include "state.h"

namespace {

constexpr char kIdFile[] = "phone-id";
constexpr size_t kIdBytes = 16;

watch_target chosen;
std::vector<std::string> everyone;

/* An address that nobody gave a name has a state too: what was sent there is of no use anywhere else. */
std::string folder_of(const carrier_address &address) {
  if (address.kind == carrier_kind::session) return "";
  char *sum = g_compute_checksum_for_string(G_CHECKSUM_SHA256, address.text().c_str(), -1);
  std::string folder = "watches/=" + std::string(sum, 32);
  g_free(sum);
  return folder;
}

bool is_id(const std::string &text) {
  return text.size() == kIdBytes * 2 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string read_id(const std::string &path) {
  char text[64] = "";
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  ssize_t size = fd < 0 ? -1 : read(fd, text, sizeof text - 1);
  if (fd >= 0) close(fd);
  std::string id = size > 0 ? std::string(text, static_cast<size_t>(size)) : "";
  while (!id.empty() && id.back() == '\n') id.pop_back();
  return is_id(id) ? id : "";
}

/* Makes the number and gives it its place as a whole, unless another process was faster. Returns 0, or -1 with errno.
 */
int make_id(const std::string &path) {
  unsigned char bytes[kIdBytes];
  char text[kIdBytes * 2 + 2];
  if (getrandom(bytes, sizeof bytes, 0) != sizeof bytes) return -1;
  for (size_t i = 0; i < kIdBytes; i++) snprintf(text + i * 2, 3, "%02x", bytes[i]);
  text[kIdBytes * 2] = '\n';
  std::string own = path + "." + std::to_string(getpid());
  int fd = open(own.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return -1;
  bool good = write(fd, text, kIdBytes * 2 + 1) == kIdBytes * 2 + 1 && fsync(fd) == 0;
  close(fd);
  if (good && link(own.c_str(), path.c_str()) < 0 && (errno != EEXIST || read_id(path).empty()))
    good = rename(own.c_str(), path.c_str()) == 0; /* in the place of one that is damaged */
  int error = errno;
  unlink(own.c_str());
  errno = error;
  return good ? 0 : -1;
}

void use(const std::string &name, const carrier_address &address, const carrier_keys &keys, const std::string &folder) {
  chosen.name = name;
  chosen.address = address;
  chosen.keys = keys;
  phone_state_use(folder);
}

std::string joined(const std::vector<std::string> &names) {
  std::string text;
  for (const std::string &name : names) text += (text.empty() ? "" : " or ") + name;
  return text;
}

}  // namespace

int watch_choose(const std::string &text, std::string *error) {
  std::vector<paired_watch> watches;
  paired_watch one;
  everyone.clear();
  phone_state_refuse("");
  carrier_address address;
  bool by_address = carrier_is_address(text);
  if (by_address && carrier_parse(text, &address, error) < 0) return -1;
  if (pair_list(&watches, error) < 0) {
    if (!text.empty()) return -1;
    phone_state_refuse(*error); /* a command that needs no watch goes on */
    return 0;
  }
  std::erase_if(watches, [&](const paired_watch &watch) {
    return by_address ? watch.address.text() != address.text() : !text.empty() && watch.name != text;
  });
  if (watches.size() == 1 || (by_address && !watches.empty())) {
    use(watches[0].name, watches[0].address, watches[0].keys, pair_folder(watches[0].name));
    return 0;
  }
  if (!by_address && !text.empty()) {
    *error = "no watch is called " + text + " (brisel-phone watches)";
    return -1;
  }
  use(address.text(), address, {}, folder_of(address));
  for (const paired_watch &watch : watches) everyone.push_back(watch.name);
  if (watches.size() > 1) phone_state_refuse("several watches are paired: say which with --watch " + joined(everyone));
  return 0;
}

const std::vector<std::string> &watch_all() {
  return everyone;
}

const watch_target &watch_chosen() {
  return chosen;
}

void watch_set_pace(const link_pace &pace) {
  chosen.pace = pace;
}

int watch_set_phone_name(const std::string &name, std::string *error) {
  if (name.size() > pair_name_max || !g_utf8_validate(name.data(), static_cast<gssize>(name.size()), nullptr)) {
    *error = "the phone's name is a text of at most " + std::to_string(pair_name_max) + " bytes";
    return -1;
  }
  chosen.phone_name = name;
  return 0;
}

host_bus_holder watch_stream(const carrier_address &address, const carrier_keys &keys, std::string *error) {
  int lent = address.kind == carrier_kind::bluetooth ? link_borrow() : -1;
  return lent >= 0 ? host_open_fd(lent, address.kind, error) : host_open_stream(address, keys, error);
}

host_bus_holder watch_open(std::string *error) {
  *error = phone_state_refused();
  if (!error->empty()) return nullptr;
  if (chosen.address.kind == carrier_kind::session) return host_open_session(error);
  phone_identity me;
  if (phone_identity_load(&me, error) < 0) return nullptr;
  /* Once more: who has the only way may have come a moment after it was looked for. */
  for (int look = 0; look < 2; look++) {
    host_bus_holder bus = watch_stream(chosen.address, chosen.keys, error);
    if (bus && host_introduce(bus.get(), me, error) == HOST_OK) return bus;
    if (chosen.address.kind != carrier_kind::bluetooth) break;
  }
  *error = chosen.name + ": " + *error;
  return nullptr;
}

int phone_identity_load(phone_identity *me, std::string *error) {
  std::string path = phone_base_path(kIdFile);
  me->id = path.empty() ? "" : read_id(path);
  if (me->id.empty() && !path.empty() && make_id(path) == 0) me->id = read_id(path);
  me->name = chosen.phone_name.empty() ? g_get_host_name() : chosen.phone_name;
  if (!me->id.empty()) return 0;
  *error = path.empty() ? "the phone's state folder cannot be made, or is not this user's own"
                        : path + ": cannot be written: " + strerror(errno);
  return -1;
}
