/* Who is who: this watch's own id and name, phones that said who they are, and which programs may be the phone. */
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "brisel-settings.h"
#include "host.h"
#include "platform-files.h"
#include "platform-paths.h"
#include "platform-peer.h"
#include "store-format.h"
#include "vconf.h"

namespace {

constexpr char programs_file[] = "phone-programs";
constexpr size_t programs_max = 64u << 10; /* bytes of that file */
constexpr size_t introduced_max = 16;      /* connections; the oldest are forgotten */
constexpr size_t capabilities_max = 64;

bool is_id(const std::string &text) {
  return text.size() == pair_id_size && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

/* One line that can be shown, without what would move it about. */
std::string clean_name(const std::string &text, const char *fallback) {
  std::string name = text;
  std::replace_if(
      name.begin(), name.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, ' ');
  name.erase(0, name.find_first_not_of(' '));
  return name.empty() ? fallback : name;
}

std::string name_of_watch(void) {
  char machine[pair_name_max + 1] = "";
  char *chosen = vconf_get_str(BRISEL_KEY_DEVICE_NAME);
  std::string name = chosen ? chosen : "";
  free(chosen);
  if (name.empty() && gethostname(machine, sizeof machine - 1) == 0) name = machine;
  while (name.size() > pair_name_max || clean_text(name) != name) name.pop_back();
  return clean_name(name, "watch");
}

int read_capabilities(sd_bus_message *m, bool *outcomes, sd_bus_error *error) {
  int r = sd_bus_message_enter_container(m, 'a', "s");
  size_t count = 0;
  while (r >= 0) {
    const char *text = nullptr;
    r = sd_bus_message_read_basic(m, 's', &text);
    if (r <= 0) break;
    if (++count > capabilities_max || strlen(text) > pair_name_max)
      return sd_bus_error_set(error, host_error_invalid, "too many capabilities");
    *outcomes = *outcomes || strcmp(text, pair_outcomes) == 0;
  }
  return r < 0 ? r : sd_bus_message_exit_container(m);
}

/* Whether the user has named the program as one that may be the phone: a path on each line. */
bool is_named_program(const std::string &program) {
  const platform_folder folder(platform_config_dir());
  std::string text;
  if (folder.fd < 0 || platform_file_read(folder.fd, programs_file, programs_max, &text) != 0) return false;
  return ("\n" + text + "\n").find("\n" + program + "\n") != std::string::npos;
}

bool read_id(const platform_folder &folder, std::string *id) {
  return platform_file_read(folder.fd, pair_id_file, pair_id_size, id) == 0 && is_id(*id);
}

int write_id(const platform_folder &folder, const std::string &id) {
  const int r = platform_file_replace(folder.fd, pair_id_file, "watch-id.new", id.data(), id.size(), true, nullptr);
  return r == 0 ? 0 : -errno;
}

}  // namespace

int pair_start(host *h) {
  const platform_folder folder(platform_data_dir());
  if (folder.fd < 0) return -errno;
  if (read_id(folder, &h->watch_id)) return 0;
  sd_id128_t fresh;
  char text[SD_ID128_STRING_MAX];
  const int r = sd_id128_randomize(&fresh);
  if (r < 0) return r;
  h->watch_id = sd_id128_to_string(fresh, text);
  return write_id(folder, h->watch_id);
}

void pair_keep_id(const host *h) {
  const platform_folder folder(h->folder.c_str());
  std::string id;
  if (h->watch_id.empty() || read_id(folder, &id)) return;
  const int r = write_id(folder, h->watch_id);
  if (r < 0) fprintf(stderr, "brisel-hostd: the watch's id cannot be written again: %s\n", strerror(-r));
}

int pair_introduce(sd_bus_message *m, void *data, sd_bus_error *error) {
  auto *h = static_cast<host *>(data);
  uint32_t version = 0;
  bool outcomes = false;
  std::string id, name;
  int r = sd_bus_message_read_basic(m, 'u', &version);
  if (r >= 0) r = host_read_text(m, "phone_id", pair_id_size, &id, error);
  if (r >= 0) r = host_read_text(m, "phone_name", pair_name_max, &name, error);
  if (r >= 0) r = read_capabilities(m, &outcomes, error);
  if (r < 0) return r;
  if (!is_id(id)) return sd_bus_error_set(error, host_error_invalid, "phone_id is not 32 hexadecimal digits");
  if (version < pair_version_least)
    return sd_bus_error_set(error, host_error_version,
                            "the phone's brisel-phone is too old for this watch: update it on the phone");
  const char *sender = sd_bus_message_get_sender(m);
  std::erase_if(h->introduced, [&](const introduced_phone &one) { return one.connection == sender; });
  if (h->introduced.size() >= introduced_max) h->introduced.erase(h->introduced.begin());
  h->introduced.push_back({sender, id, clean_name(name, "another phone"), outcomes});
  return sd_bus_reply_method_return(m, "ussas", pair_version, h->watch_id.c_str(), name_of_watch().c_str(), 4,
                                    pair_zlib, pair_mail_ids, pair_free, pair_ack_mails);
}

introduced_phone pair_identity(const host *h, const char *connection) {
  for (const introduced_phone &one : h->introduced)
    if (one.connection == connection) return one;
  return {connection, "", "another phone", false};
}

int pair_check_program(sd_bus_message *m, sd_bus_error *error) {
  sd_bus_creds *creds = nullptr;
  pid_t pid = 0;
  int r = sd_bus_query_sender_creds(m, SD_BUS_CREDS_PID, &creds);
  if (r >= 0) r = sd_bus_creds_get_pid(creds, &pid);
  sd_bus_creds_unref(creds);
  const std::string program = r < 0 ? "" : platform_program_of(pid);
  /* From a build tree any program of that tree: its tests stand for phones. */
  if (platform_program_is(program, BRISEL_PHONE, "") || platform_program_is(program, BRISEL_GATE, "") ||
      (!program.empty() && is_named_program(program)))
    return 0;
  return sd_bus_error_setf(error, HOST_ERROR "Invalid", "%s is no program that may be the phone; see brisel-hostd(8)",
                           program.empty() ? "an unknown program" : program.c_str());
}

bool pair_unpack(const void *packed, size_t size, size_t most, std::string *text) {
  z_stream z = {};
  if (inflateInit(&z) != Z_OK) return false;
  z.next_in = static_cast<Bytef *>(const_cast<void *>(packed));
  z.avail_in = static_cast<uInt>(size);
  int r = Z_OK;
  while (r == Z_OK && text->size() <= most) {
    char piece[16384];
    z.next_out = reinterpret_cast<Bytef *>(piece);
    z.avail_out = sizeof piece;
    r = inflate(&z, Z_NO_FLUSH);
    text->append(piece, sizeof piece - z.avail_out);
  }
  inflateEnd(&z);
  return r == Z_STREAM_END && z.avail_in == 0 && text->size() <= most && text->find('\0') == std::string::npos &&
         clean_text(*text) == *text;
}
