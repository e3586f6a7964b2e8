/* One folder of one account: see the header. */
#include "post-mirror.h"

#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <map>
#include <set>

#include "maildir-names.h"
#include "post-imap.h"

namespace {

constexpr int kRenewal = 20 * 60; /* seconds; servers may end a wait of half an hour */
constexpr int kPoll = 2 * 60;     /* where the server has no way to tell of new mail */
constexpr int kFirstPause = 5, kLongestPause = 300;
constexpr rlim_t kMemory = 512u << 20;

struct local_file {
  std::string path;
  bool seen = false;
};

struct mirror {
  post_account account;
  std::string folder, path;
  uint32_t newest = 200;
  uint32_t validity = 0;
  std::string tag;                      /* of this folder's files */
  std::map<uint32_t, local_file> files; /* of the folder's present validity, by uid */
  std::vector<std::string> stale;       /* of an earlier one */
  std::map<uint32_t, bool> agreed;      /* seen, as server and mirror last had it */
  int changes = -1;                     /* inotify */
  bool first = true;                    /* nothing was mirrored before: what comes is not new */
};

void say(const mirror &m, const std::string &text) {
  fprintf(stderr, "brisel-phone: %s (%s): %s\n", m.account.name.c_str(), m.folder.c_str(), text.c_str());
}

/* A base name tells folder, validity and uid: no list is kept beside the files. */
std::string base_of(const mirror &m, uint32_t uid) {
  return m.tag + "." + std::to_string(m.validity) + "." + std::to_string(uid);
}

int list_files(mirror *m, std::string *error) {
  m->files.clear();
  m->stale.clear();
  std::vector<maildir_file> all;
  if (maildir_list(m->path, &all, error) < 0) return -1;
  for (const maildir_file &file : all) {
    unsigned validity = 0, uid = 0;
    if (!file.base.starts_with(m->tag + ".") ||
        sscanf(file.base.c_str() + m->tag.size(), ".%u.%u", &validity, &uid) != 2)
      continue;
    std::string path = m->path + "/" + file.folder + "/" + file.name;
    if (validity == m->validity)
      m->files[uid] = {path, maildir_has_flag(file.name, 'S')};
    else
      m->stale.push_back(path);
  }
  return 0;
}

std::string agreed_path(const mirror &m) {
  return m.path + "/agreed." + m.tag;
}

/* What both sides last had: the only thing that tells which of them changed. Without it the server counts. */
void load_agreed(mirror *m) {
  m->agreed.clear();
  std::ifstream in(agreed_path(*m));
  uint32_t validity = 0, uid = 0;
  int seen = 0;
  if (!(in >> validity) || validity != m->validity) return;
  while (in >> uid >> seen) m->agreed[uid] = seen != 0;
}

int save_agreed(const mirror &m, std::string *error) {
  std::string text = std::to_string(m.validity) + "\n";
  for (const auto &[uid, seen] : m.agreed) text += std::to_string(uid) + " " + (seen ? "1\n" : "0\n");
  GError *why = nullptr;
  if (g_file_set_contents_full(agreed_path(m).c_str(), text.c_str(), static_cast<gssize>(text.size()),
                               G_FILE_SET_CONTENTS_CONSISTENT, 0600, &why))
    return 0;
  *error = why->message;
  g_error_free(why);
  return -1;
}

/* Written elsewhere, on disk, then moved in: the relay never sees half a message. */
int deliver(const mirror &m, const imap_message &message, const std::string &raw, std::string *error) {
  std::string base = base_of(m, message.uid), from = m.path + "/tmp/" + base;
  bool fresh = !m.first && !message.seen;
  std::string to = m.path + (fresh ? "/new/" + base : "/cur/" + base + (message.seen ? ":2,S" : ":2,"));
  int fd = open(from.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  bool good = fd >= 0;
  for (size_t done = 0; good && done < raw.size();) {
    ssize_t put = write(fd, raw.data() + done, raw.size() - done);
    if (put < 0 && errno == EINTR) continue;
    good = put > 0;
    if (good) done += static_cast<size_t>(put);
  }
  if (good && message.date > 0) {
    timespec times[2] = {{message.date, 0}, {message.date, 0}};
    futimens(fd, times);
  }
  good = good && fsync(fd) == 0;
  if (fd >= 0) good = close(fd) == 0 && good;
  good = good && rename(from.c_str(), to.c_str()) == 0;
  if (good) return 0;
  *error = m.path + ": " + strerror(errno);
  unlink(from.c_str());
  return -1;
}

/* Renames a file so that its name says `seen`. */
void mark_file(const local_file &file, bool seen) {
  size_t slash = file.path.rfind('/');
  std::string folder = file.path.substr(0, file.path.rfind('/', slash - 1)), name = file.path.substr(slash + 1), flags;
  size_t colon = name.rfind(":2,");
  if (colon != std::string::npos) flags = name.substr(colon + 3);
  std::erase(flags, 'S');
  if (seen) flags += 'S';
  std::sort(flags.begin(), flags.end());
  rename(file.path.c_str(), (folder + "/cur/" + maildir_base(name) + ":2," + flags).c_str());
}

/* Each side's change of a mark goes to the other. Returns 0, or -1 when the connection is no good. */
int exchange_mark(mirror *m, mailimap *session, const imap_message &message, const local_file &file,
                  std::string *error) {
  auto known = m->agreed.find(message.uid);
  bool agreed = known == m->agreed.end() ? file.seen : known->second;
  bool seen = message.seen;
  if (file.seen && !seen && !agreed) {
    if (imap_add_flag(session, message.uid, false, error) < 0) return -1;
    seen = true;
  } else if (file.seen != seen) {
    mark_file(file, seen);
  }
  m->agreed[message.uid] = seen;
  return 0;
}

/* Makes mirror and folder equal. */
int mirror_once(mirror *m, mailimap *session, std::string *error) {
  std::vector<imap_message> messages;
  uint32_t validity = 0;
  if (imap_select(session, m->folder, &validity, error) < 0) return -1;
  if (validity != m->validity) {
    m->validity = validity;
    load_agreed(m);
  }
  if (imap_list_newest(session, m->newest, &messages, error) < 0) return -1;
  char drained[4096];
  while (read(m->changes, drained, sizeof drained) > 0) continue; /* what changes from here on is seen next time */
  if (list_files(m, error) < 0) return -1;
  m->first = m->first && m->files.empty() && m->stale.empty();
  std::set<uint32_t> there;
  /* Newest first: that is what somebody waits for. */
  for (auto at = messages.rbegin(); at != messages.rend(); ++at) {
    if (!there.insert(at->uid).second) continue;
    auto file = m->files.find(at->uid);
    if (file != m->files.end()) {
      if (exchange_mark(m, session, *at, file->second, error) < 0) return -1;
      continue;
    }
    std::string raw;
    if (imap_fetch(session, at->uid, &raw, error) < 0) return -1;
    if (raw.empty()) continue; /* gone meanwhile, or nothing that can be read */
    if (deliver(*m, *at, raw, error) < 0) return -1;
    m->agreed[at->uid] = at->seen;
  }
  for (const auto &[uid, file] : m->files)
    if (!there.count(uid)) unlink(file.path.c_str());
  for (const std::string &path : m->stale) unlink(path.c_str());
  std::erase_if(m->agreed, [&there](const auto &mark) { return !there.count(mark.first); });
  m->first = false;
  return save_agreed(*m, error);
}

/* Connects and follows until the connection ends. Returns -1 with the reason. */
int follow(mirror *m, bool *worked, std::string *error) {
  std::string secret;
  imap_session session;
  if (post_secret_read(m->account, &secret, error) < 0 || imap_open(m->account, secret, &session, error) < 0) return -1;
  std::fill(secret.begin(), secret.end(), '\0');
  for (;;) {
    if (mirror_once(m, session.get(), error) < 0) return -1;
    if (!*worked) say(*m, "follows " + m->account.imap);
    *worked = true;
    int longest = mailimap_has_idle(session.get()) ? kRenewal : kPoll;
    if (imap_wait(session.get(), m->changes, longest, error) < 0) return -1;
  }
}

}  // namespace

int post_mirror_create(const std::string &path, std::string *error) {
  for (const char *folder : {"", "/tmp", "/new", "/cur"})
    if (g_mkdir_with_parents((path + folder).c_str(), 0700) < 0) {
      *error = path + folder + ": " + strerror(errno);
      return -1;
    }
  return 0;
}

int post_mirror_run(const std::string &config, const std::string &account, const std::string &folder, uint32_t newest) {
  mirror m;
  std::string error;
  signal(SIGPIPE, SIG_IGN);
  rlimit memory = {kMemory, kMemory};
  setrlimit(RLIMIT_AS, &memory); /* whatever a server sends */
  m.folder = folder;
  m.newest = newest;
  if (post_account_find(config, account, &m.account, &error) < 0) {
    fprintf(stderr, "brisel-phone: %s\n", error.c_str());
    return 1;
  }
  m.path = post_mirror_path(m.account.name);
  g_autofree char *sum = g_compute_checksum_for_string(G_CHECKSUM_SHA256, folder.c_str(), -1);
  m.tag = "imap-" + std::string(sum).substr(0, 8);
  m.changes = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (post_mirror_create(m.path, &error) < 0 || m.changes < 0 ||
      inotify_add_watch(m.changes, (m.path + "/cur").c_str(), IN_MOVED_TO) < 0) {
    say(m, error.empty() ? strerror(errno) : error);
    return 1;
  }
  std::string told;
  for (int pause = kFirstPause;;) {
    bool worked = false;
    error.clear();
    follow(&m, &worked, &error);
    if (worked) {
      pause = kFirstPause;
      told.clear();
    }
    if (error != told) say(m, error + "; tried again until it works");
    told = error;
    sleep(static_cast<unsigned>(pause));
    pause = std::min(pause * 2, kLongestPause);
  }
}
