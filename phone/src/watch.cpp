#include "watch.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "state.h"

namespace {

constexpr char kIdFile[] = "phone-id";
constexpr size_t kIdBytes = 16;

watch_target chosen;

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

}  // namespace

int watch_choose(const std::string &text, std::string *error) {
  watch_target target;
  if (carrier_parse(text.empty() ? "session:" : text, &target.address, error) < 0) return -1;
  target.name = target.address.text();
  target.pace = chosen.pace;
  chosen = target;
  phone_state_use(folder_of(target.address));
  return 0;
}

const watch_target &watch_chosen() {
  return chosen;
}

void watch_set_pace(const link_pace &pace) {
  chosen.pace = pace;
}

host_bus_holder watch_open(std::string *error) {
  if (chosen.address.kind == carrier_kind::session) return host_open_session(error);
  phone_identity me;
  if (phone_identity_load("", &me, error) < 0) return nullptr;
  host_bus_holder bus = host_open_stream(chosen.address, chosen.keys, error);
  if (!bus || host_introduce(bus.get(), me, error) == HOST_OK) return bus;
  *error = chosen.name + ": " + *error;
  return nullptr;
}

int phone_identity_load(const std::string &name, phone_identity *me, std::string *error) {
  std::string path = phone_base_path(kIdFile);
  me->id = path.empty() ? "" : read_id(path);
  if (me->id.empty() && !path.empty() && make_id(path) == 0) me->id = read_id(path);
  me->name = name.empty() ? g_get_host_name() : name;
  if (!me->id.empty()) return 0;
  *error = path.empty() ? "the phone's state folder cannot be made, or is not this user's own"
                        : path + ": cannot be written: " + strerror(errno);
  return -1;
}
