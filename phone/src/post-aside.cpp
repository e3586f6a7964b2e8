/* Messages that a server cannot give: see the header. */
#include "post-aside.h"

#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>

#include "platform-files.h"

namespace {

constexpr size_t kAtOnce = 16;
constexpr int kTries = 3;
constexpr int64_t kFirstPause = 300, kLongestPause = 24 * 3600, kGrowth = 4; /* seconds */
constexpr size_t kMost = 1000;
constexpr char kAside[] = "aside.", kAsked[] = "asked.";

std::string file_of(const post_aside &aside, const char *kind) {
  return aside.path + "/" + kind + aside.tag;
}

/* Only the end of a process is to be outlived here, not that of the machine: nothing is synced. */
void write_file(const post_aside &aside, const char *kind, const std::string &text) {
  platform_folder folder(aside.path.c_str());
  std::string name = kind + aside.tag, temporary = "new-" + name;
  if (platform_file_replace(folder.fd, name.c_str(), temporary.c_str(), text.data(), text.size(), false, nullptr) < 0)
    fprintf(stderr, "brisel-phone: %s/%s: %s\n", aside.path.c_str(), name.c_str(), strerror(errno));
}

/* An entry is a line: uid, end, wait, date, folder as in an URL, reason. */
void write_held(const post_aside &aside) {
  std::string text = std::to_string(aside.validity) + "\n";
  g_autofree char *folder = g_uri_escape_string(aside.folder.c_str(), nullptr, FALSE);
  for (const auto &[uid, entry] : aside.held)
    text += std::to_string(uid) + " " + std::to_string(entry.until) + " " + std::to_string(entry.pause) + " " +
            std::to_string(entry.date) + " " + folder + " " + entry.why + "\n";
  if (aside.held.empty())
    unlink(file_of(aside, kAside).c_str());
  else
    write_file(aside, kAside, text);
}

void write_asked(const post_aside &aside, bool under_way) {
  write_file(aside, kAsked,
             std::to_string(aside.validity) + " " + std::to_string(aside.at_once) + " " + std::to_string(aside.uid) +
                 " " + std::to_string(aside.count) + " " + std::to_string(aside.tries) + (under_way ? " 1\n" : " 0\n"));
}

struct held_line {
  uint32_t uid = 0;
  aside_entry entry;
  std::string folder;
};

/* Returns the validity; 0: there is no such file. */
uint32_t read_held(const std::string &file, std::vector<held_line> *lines) {
  std::ifstream in(file);
  uint32_t validity = 0;
  if (!(in >> validity)) return 0;
  for (held_line line; lines->size() < kMost &&
                       in >> line.uid >> line.entry.until >> line.entry.pause >> line.entry.date >> line.folder;) {
    std::getline(in >> std::ws, line.entry.why);
    lines->push_back(line);
  }
  return validity;
}

}  // namespace

void aside_load(post_aside *aside, const std::string &path, const std::string &tag, const std::string &folder,
                uint32_t validity) {
  *aside = {path, tag, folder, validity, {}, kAtOnce};
  std::vector<held_line> lines;
  if (read_held(file_of(*aside, kAside), &lines) == validity)
    for (const held_line &line : lines) aside->held[line.uid] = line.entry;
  else
    unlink(file_of(*aside, kAside).c_str()); /* of a folder that is another now: nobody asks for them any more */
  std::ifstream in(file_of(*aside, kAsked));
  post_aside asked;
  bool under_way = false;
  if (!(in >> asked.validity >> asked.at_once >> asked.uid >> asked.count >> asked.tries >> under_way) ||
      asked.validity != validity)
    return;
  aside->at_once = std::clamp<size_t>(asked.at_once, 1, kAtOnce);
  aside->uid = asked.uid;
  aside->count = asked.count;
  aside->tries = asked.tries;
  if (under_way) aside_failed(aside, false, 0, "who fetches it ends");
}

bool aside_holds(const post_aside &aside, uint32_t uid) {
  auto found = aside.held.find(uid);
  return found != aside.held.end() && found->second.until > time(nullptr);
}

int aside_next(const post_aside &aside, int longest) {
  int64_t now = time(nullptr), next = now + longest;
  for (const auto &[uid, entry] : aside.held) next = std::min(next, entry.until);
  return static_cast<int>(std::max<int64_t>(1, next - now));
}

void aside_begin(post_aside *aside, uint32_t uid, size_t count) {
  if (uid != aside->uid) aside->tries = 0;
  aside->uid = uid;
  aside->count = count;
  write_asked(*aside, true);
}

void aside_failed(post_aside *aside, bool refused, int64_t date, const std::string &why) {
  aside_entry *known = aside->held.count(aside->uid) ? &aside->held[aside->uid] : nullptr;
  bool alone = aside->count == 1;
  if (alone) aside->tries++;
  if (alone && (refused || known || aside->tries >= kTries) && aside->held.size() < kMost) {
    int64_t pause = known ? std::min(known->pause * kGrowth, kLongestPause) : kFirstPause;
    aside->held[aside->uid] = {time(nullptr) + pause, pause, date, why};
    aside->tries = 0;
    aside->holds_more = true;
    write_held(*aside);
  } else {
    aside->at_once = refused ? 1 : std::max<size_t>(1, std::min(aside->at_once, aside->count) / 4);
  }
  write_asked(*aside, false);
}

void aside_came(post_aside *aside, uint32_t uid) {
  if (aside->held.erase(uid) > 0) write_held(*aside);
}

void aside_done(post_aside *aside, const std::set<uint32_t> &missing) {
  if (std::erase_if(aside->held, [&missing](const auto &one) { return !missing.count(one.first); }) > 0)
    write_held(*aside);
  if (aside->uid == 0) return;
  unlink(file_of(*aside, kAsked).c_str());
  aside->at_once = kAtOnce;
  aside->uid = 0;
}

bool aside_is_file(const char *name) {
  return g_str_has_prefix(name, kAside) || g_str_has_prefix(name, kAsked);
}

std::vector<std::pair<std::string, std::string>> aside_list(const std::string &path) {
  std::vector<std::pair<std::string, std::string>> out;
  g_autoptr(GDir) names = g_dir_open(path.c_str(), 0, nullptr);
  for (const char *name = names ? g_dir_read_name(names) : nullptr; name; name = g_dir_read_name(names)) {
    std::vector<held_line> lines;
    if (!g_str_has_prefix(name, kAside)) continue;
    read_held(path + "/" + name, &lines);
    for (const held_line &line : lines) {
      g_autofree char *folder = g_uri_unescape_string(line.folder.c_str(), nullptr);
      g_autoptr(GDateTime) date = g_date_time_new_from_unix_local(line.entry.date);
      g_autofree char *when = line.entry.date > 0 && date ? g_date_time_format(date, " of %F %R") : g_strdup("");
      out.emplace_back(std::string(folder ? folder : "") + ", message " + std::to_string(line.uid) + when,
                       line.entry.why);
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}
