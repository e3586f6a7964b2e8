/* One folder of one account: see the header. */
#include "post-mirror.h"

#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
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
#include "network.h"
#include "post-aside.h"
#include "post-imap.h"
#include "post-rest.h"

namespace {

constexpr int kRenewal = 29 * 60; /* seconds; servers may end a wait of half an hour */
constexpr int kPoll = 2 * 60;     /* where the server has no way to tell of new mail */
constexpr int kFirstPause = 2, kLongestPause = 300;
constexpr int64_t kLasting = 60; /* a connection that lasted so long was a good one */
constexpr rlim_t kMemory = 512u << 20;
constexpr char kVersion[] = "v2", kLock[] = "/lock", kTrouble[] = "trouble.";

struct local_file {
  std::string path;
  bool seen = false;
  bool gone = false; /* the user deleted it, and the account says that the server shall know */
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
  uint64_t modseq = 0;                  /* the server's count of changes at that time; 0: unknown */
  uint32_t exists = 0;                  /* ... and of messages */
  bool asks_changes = true;             /* until a server that offers to tell them fails to */
  post_aside aside;
  std::set<std::string> asked_in_vain; /* files of texts that were wanted when the connection ended */
  std::string trash;
  bool trash_known = false;
  int changes = -1; /* inotify */
  int net = -1;     /* netlink: this machine's addresses changed */
  int config = -1;  /* inotify: what happens in the folder of the configuration file */
  std::string config_name;
  bool first = true; /* nothing was mirrored before: what comes is not new */
};

void say(const mirror &m, const std::string &text) {
  fprintf(stderr, "brisel-phone: %s (%s): %s\n", m.account.name.c_str(), m.folder.c_str(), text.c_str());
}

std::string tag_of(const std::string &folder) {
  g_autofree char *sum = g_compute_checksum_for_string(G_CHECKSUM_SHA256, folder.c_str(), -1);
  return "imap-" + std::string(sum).substr(0, 8);
}

/* For who asks for the relay's status: why the folder is not followed now. */
void write_trouble(const mirror &m, const std::string &text) {
  std::string file = m.path + "/" + kTrouble + m.tag;
  if (text.empty())
    unlink(file.c_str());
  else
    g_file_set_contents_full(file.c_str(), text.data(), static_cast<gssize>(text.size()),
                             G_FILE_SET_CONTENTS_CONSISTENT, 0600, nullptr);
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
      m->files[uid] = {path, maildir_has_flag(file.name, 'S'), maildir_has_flag(file.name, 'T')};
    else
      m->stale.push_back(path);
  }
  return 0;
}

std::string agreed_path(const mirror &m) {
  return m.path + "/agreed." + m.tag;
}

/* What both sides last had: the only thing that tells which of them changed. Where it is not known (this process may
   have been ended before it wrote it down) a message is read when one side says so. */
void load_agreed(mirror *m) {
  m->agreed.clear();
  m->modseq = 0;
  std::ifstream in(agreed_path(*m));
  std::string version;
  uint32_t validity = 0, uid = 0;
  int seen = 0;
  if (!(in >> version >> validity >> m->modseq >> m->exists) || version != kVersion || validity != m->validity) {
    m->modseq = 0;
    return;
  }
  while (in >> uid >> seen) m->agreed[uid] = seen != 0;
}

int save_agreed(const mirror &m, std::string *error) {
  std::string text = std::string(kVersion) + " " + std::to_string(m.validity) + " " + std::to_string(m.modseq) + " " +
                     std::to_string(m.exists) + "\n";
  for (const auto &[uid, seen] : m.agreed) text += std::to_string(uid) + " " + (seen ? "1\n" : "0\n");
  GError *why = nullptr;
  if (g_file_set_contents_full(agreed_path(m).c_str(), text.c_str(), static_cast<gssize>(text.size()),
                               G_FILE_SET_CONTENTS_CONSISTENT, 0600, &why))
    return 0;
  *error = why->message;
  g_error_free(why);
  return -1;
}

/* Written elsewhere, on disk, then moved in: nobody sees half a message. */
int put_file(const mirror &m, const std::string &base, const std::string &to, int64_t date, const std::string &raw,
             std::string *error) {
  std::string from = m.path + "/tmp/" + base;
  int fd = open(from.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  bool good = fd >= 0;
  for (size_t done = 0; good && done < raw.size();) {
    ssize_t put = write(fd, raw.data() + done, raw.size() - done);
    if (put < 0 && errno == EINTR) continue;
    good = put > 0;
    if (good) done += static_cast<size_t>(put);
  }
  if (good && date > 0) {
    timespec times[2] = {{date, 0}, {date, 0}};
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

int deliver(const mirror &m, const imap_message &message, const std::string &raw, bool cut, std::string *error) {
  std::string base = base_of(m, message.uid);
  /* First of all that it is only a beginning: the relay never takes it for the whole. */
  if (cut && put_file(m, base, m.path + rest_folder + "/" + base, 0, "", error) < 0) return -1;
  bool fresh = !m.first && !message.seen;
  std::string to = m.path + (fresh ? "/new/" + base : "/cur/" + base + (message.seen ? ":2,S" : ":2,"));
  return put_file(m, base, to, message.date, raw, error);
}

void drop(const mirror &m, const std::string &path) {
  unlink(path.c_str());
  std::string rest = m.path + rest_folder + "/" + maildir_base(path.substr(path.rfind('/') + 1));
  unlink(rest.c_str());
  unlink((rest + rest_suffix).c_str());
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
  bool agreed = known != m->agreed.end() && known->second;
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

/* Fetches the texts that somebody wants to read on in. */
int fetch_wanted(mirror *m, mailimap *session, std::string *error) {
  const std::string folder = m->path + rest_folder + "/";
  g_autoptr(GDir) names = g_dir_open(folder.c_str(), 0, nullptr);
  for (const char *name = names ? g_dir_read_name(names) : nullptr; name; name = g_dir_read_name(names)) {
    std::string wanted = name, base = wanted.substr(0, wanted.rfind('.'));
    unsigned validity = 0, uid = 0;
    if (!wanted.ends_with(rest_suffix) || !wanted.starts_with(m->tag + ".")) continue;
    if (sscanf(wanted.c_str() + m->tag.size(), ".%u.%u.", &validity, &uid) == 2 && validity == m->validity) {
      std::vector<imap_mail> mails = {{uid}};
      int code = imap_fetch(session, true, &mails, error);
      /* Asked once, or once more when the connection ended, not for ever: everything else waits behind it. */
      if (code == imap_unreadable || (code < 0 && !m->asked_in_vain.insert(wanted).second))
        unlink((folder + wanted).c_str());
      if (code < 0) return -1;
      const std::string &raw = mails[0].raw;
      if (!raw.empty() && put_file(*m, base, folder + base, 0, raw, error) < 0) return -1;
    }
    m->asked_in_vain.erase(wanted);
    unlink((folder + wanted).c_str());
  }
  return 0;
}

/* What the user deleted leaves the server. */
int remove_deleted(mirror *m, mailimap *session, std::string *error) {
  for (auto file = m->files.begin(); file != m->files.end();) {
    if (!file->second.gone || !m->account.delete_on_server) {
      ++file;
      continue;
    }
    if (!m->trash_known && m->trash.empty() && imap_special_folder(session, "Trash", &m->trash, error) < 0) return -1;
    m->trash_known = true;
    if (imap_remove(session, file->first, m->trash == m->folder ? "" : m->trash, error) < 0) return -1;
    drop(*m, file->second.path);
    m->agreed.erase(file->first);
    file = m->files.erase(file);
  }
  return 0;
}

/* The folder's newest messages, from what is known and what the server says has changed since. Returns 1; 0 when only a
   list tells; or -1. */
int window_from_changes(mirror *m, mailimap *session, const imap_folder &folder, std::vector<imap_message> *messages,
                        std::string *error) {
  if (m->modseq == 0 || folder.modseq == 0 || m->agreed.empty() || !m->asks_changes) return 0;
  if (!m->aside.held.empty()) return 0; /* the server tells of each only once, and they are not here */
  std::map<uint32_t, imap_message> window;
  for (const auto &[uid, seen] : m->agreed) window[uid] = {uid, seen};
  if (imap_tells_changes(session)) {
    std::vector<imap_message> changed;
    std::vector<std::pair<uint32_t, uint32_t>> gone;
    if (imap_list_changes(session, m->agreed.begin()->first, m->modseq, &changed, &gone, error) < 0) {
      m->asks_changes = false;
      return -1;
    }
    for (const auto &[first, last] : gone)
      window.erase(window.lower_bound(first), window.upper_bound(std::max(first, last)));
    for (const imap_message &message : changed) window[message.uid] = message;
  } else if (folder.modseq != m->modseq || folder.exists != m->exists) {
    return 0;
  }
  while (window.size() > m->newest) window.erase(window.begin());
  if (window.size() < std::min(m->newest, folder.exists)) return 0; /* older ones are to follow */
  for (const auto &[uid, message] : window) messages->push_back(message);
  return 1;
}

/* Fetches messages that are not here yet, the first first: that is what somebody waits for. What a server cannot give
   is found out by asking for each alone, and set aside, or nothing behind it would ever come. */
int fetch_new(mirror *m, mailimap *session, const std::vector<imap_message> &messages, std::string *error) {
  for (size_t from = 0; from < messages.size();) {
    std::vector<imap_mail> mails;
    size_t to = from;
    for (bool alone = false; to < messages.size() && mails.size() < m->aside.at_once && !alone; to++) {
      uint32_t uid = messages[to].uid;
      alone = m->aside.held.count(uid) > 0;
      if (alone && !mails.empty()) break;
      if (!aside_holds(m->aside, uid)) mails.push_back({uid});
    }
    if (!mails.empty()) aside_begin(&m->aside, mails[0].uid, mails.size());
    int code = mails.empty() ? 0 : imap_fetch(session, false, &mails, error);
    if (code < 0) {
      auto first = std::find_if(messages.begin(), messages.end(),
                                [&mails](const imap_message &one) { return one.uid == mails[0].uid; });
      aside_failed(&m->aside, code == imap_unreadable, first->date, *error);
      if (mails.size() == 1) *error = "message " + std::to_string(mails[0].uid) + ": " + *error;
      return -1;
    }
    for (size_t n = from; n < to; n++)
      for (const imap_mail &mail : mails) {
        if (mail.uid != messages[n].uid) continue;
        aside_came(&m->aside, mail.uid);
        if (mail.raw.empty()) continue; /* gone meanwhile, or nothing to be read */
        if (deliver(*m, messages[n], mail.raw, mail.cut, error) < 0) return -1;
        m->agreed[mail.uid] = messages[n].seen;
      }
    from = to;
  }
  return 0;
}

/* Brings the mirror to what the server has: `messages`, the oldest first. */
int take_over(mirror *m, mailimap *session, const std::vector<imap_message> &messages, std::string *error) {
  std::set<uint32_t> there, missing;
  std::vector<imap_message> fresh;
  for (auto at = messages.rbegin(); at != messages.rend(); ++at) {
    if (at->deleted || !there.insert(at->uid).second) continue;
    auto file = m->files.find(at->uid);
    if (file == m->files.end()) {
      fresh.push_back(*at);
      missing.insert(at->uid);
    } else if (exchange_mark(m, session, *at, file->second, error) < 0) {
      return -1;
    }
  }
  /* Those that could not be had before come last: they may end the connection again. */
  std::stable_partition(fresh.begin(), fresh.end(),
                        [m](const imap_message &one) { return m->aside.held.count(one.uid) == 0; });
  if (fetch_new(m, session, fresh, error) < 0) return -1;
  aside_done(&m->aside, missing);
  for (const auto &[uid, file] : m->files)
    if (!there.count(uid)) drop(*m, file.path);
  for (const std::string &path : m->stale) drop(*m, path);
  std::erase_if(m->agreed, [&there](const auto &mark) { return !there.count(mark.first); });
  m->first = false;
  return 0;
}

/* Makes mirror and folder equal. */
int mirror_once(mirror *m, mailimap *session, std::string *error) {
  std::vector<imap_message> messages;
  imap_folder folder;
  char drained[4096];
  while (read(m->changes, drained, sizeof drained) > 0) continue; /* what changes from here on is seen next time */
  if (imap_select(session, m->folder, &folder, error) < 0) return -1;
  if (folder.validity != m->validity) {
    m->validity = folder.validity;
    load_agreed(m);
    aside_load(&m->aside, m->path, m->tag, m->folder, m->validity);
  }
  if (list_files(m, error) < 0 || fetch_wanted(m, session, error) < 0 || remove_deleted(m, session, error) < 0)
    return -1;
  int known = window_from_changes(m, session, folder, &messages, error);
  if (known < 0 || (known == 0 && imap_list_newest(session, m->newest, &messages, error) < 0)) return -1;
  m->first = m->first && m->files.empty() && m->stale.empty();
  if (take_over(m, session, messages, error) < 0) return -1;
  m->modseq = folder.modseq;
  m->exists = folder.exists;
  return save_agreed(*m, error);
}

/* Connects and follows until the connection ends. Returns -1 with the reason, or post_refused. */
int follow(mirror *m, bool *worked, std::string *error) {
  std::string secret;
  imap_session session;
  if (post_secret_read(m->account, &secret, error) < 0) return -1;
  if (const int code = imap_open(m->account, secret, &session, error); code < 0) return code;
  std::fill(secret.begin(), secret.end(), '\0');
  for (;;) {
    if (mirror_once(m, session.get(), error) < 0) return -1;
    if (!*worked) say(*m, "follows " + m->account.imap);
    if (!*worked) write_trouble(*m, "");
    *worked = true;
    int longest = imap_can_idle(session.get()) ? kRenewal : kPoll, changed = 0;
    while (changed == 0) {
      int wait = aside_next(m->aside, longest);
      if ((changed = imap_wait(session.get(), m->changes, wait, error)) < 0) return -1;
      if (wait < longest) changed = 1; /* for what was set aside */
    }
  }
}

/* What a process that was ended in the middle of writing left. */
void clear_leftovers(const mirror &m) {
  const std::pair<std::string, std::string> begun[] = {{m.path + "/tmp", m.tag + "."},
                                                       {m.path, "agreed." + m.tag + "."}};
  for (const auto &[folder, start] : begun) {
    g_autoptr(GDir) names = g_dir_open(folder.c_str(), 0, nullptr);
    for (const char *name = names ? g_dir_read_name(names) : nullptr; name; name = g_dir_read_name(names))
      if (g_str_has_prefix(name, start.c_str())) unlink((folder + "/" + name).c_str());
  }
}

int64_t now() {
  timespec time;
  clock_gettime(CLOCK_BOOTTIME, &time);
  return time.tv_sec;
}

/* Whether the configuration file was written since this was asked last: `setup` does so for a new password too. */
bool was_written(const mirror &m) {
  alignas(inotify_event) char events[4096];
  bool written = false;
  for (ssize_t size; (size = read(m.config, events, sizeof events)) > 0;)
    for (const char *at = events; at < events + size;) {
      const auto *event = reinterpret_cast<const inotify_event *>(at);
      written = written || (event->len > 0 && m.config_name == event->name);
      at += sizeof *event + event->len;
    }
  return written;
}

/* Waits before the next try; a new network, or another password, ends that soon. Returns whether there is one. */
bool rest_a_while(const mirror &m, int pause) {
  char drained[8192];
  while (recv(m.net, drained, sizeof drained, 0) > 0) continue;
  const int64_t end = now() + pause;
  pollfd wait[] = {{m.net, POLLIN, 0}, {m.config, POLLIN, 0}};
  for (int64_t left = pause; left > 0 && poll(wait, 2, static_cast<int>(left) * 1000) > 0; left = end - now()) {
    if (wait[0].revents) sleep(1); /* until it has its routes and names */
    if (wait[0].revents || was_written(m)) return true;
  }
  return false;
}

}  // namespace

int post_mirror_create(const std::string &path, std::string *error) {
  for (const char *folder : {"", "/tmp", "/new", "/cur", rest_folder})
    if (g_mkdir_with_parents((path + folder).c_str(), 0700) < 0) {
      *error = path + folder + ": " + strerror(errno);
      return -1;
    }
  return 0;
}

void post_mirror_forget_others(const std::string &path, const std::vector<std::string> &folders) {
  g_autoptr(GDir) names = g_dir_open(path.c_str(), 0, nullptr);
  for (const char *name = names ? g_dir_read_name(names) : nullptr; name; name = g_dir_read_name(names)) {
    bool status = g_str_has_prefix(name, kTrouble) || aside_is_file(name);
    bool followed = std::any_of(folders.begin(), folders.end(), [name](const std::string &folder) {
      return std::string_view(name).ends_with("." + tag_of(folder));
    });
    if (status && !followed) unlink((path + "/" + name).c_str());
  }
}

std::string post_mirror_trouble(const std::string &path) {
  std::string text;
  g_autoptr(GDir) names = g_dir_open(path.c_str(), 0, nullptr);
  for (const char *name = names ? g_dir_read_name(names) : nullptr; name; name = g_dir_read_name(names)) {
    g_autofree char *one = nullptr;
    bool good =
        g_str_has_prefix(name, kTrouble) && g_file_get_contents((path + "/" + name).c_str(), &one, nullptr, nullptr);
    if (good && text.find(one) == std::string::npos) text += (text.empty() ? "" : "; ") + std::string(one);
  }
  return text;
}

bool post_mirror_is_left(const std::string &path) {
  constexpr int kPauseUs = 20000, kTries = 250;
  int lock = open((path + kLock).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  bool left = lock < 0;
  for (int n = 0; !left && n < kTries; n++) {
    left = flock(lock, LOCK_EX | LOCK_NB) == 0;
    if (!left) usleep(kPauseUs);
  }
  if (lock >= 0) close(lock);
  return left;
}

int post_mirror_run(const std::string &config, const std::string &account, const std::string &folder, uint32_t newest) {
  mirror m;
  std::string error;
  signal(SIGPIPE, SIG_IGN);
#if !defined(__SANITIZE_ADDRESS__) /* which reserves far more than it uses */
  rlimit memory = {kMemory, kMemory};
  setrlimit(RLIMIT_AS, &memory); /* whatever a server sends */
#endif
  m.folder = folder;
  m.newest = newest;
  if (post_account_find(config, account, &m.account, &error) < 0) {
    fprintf(stderr, "brisel-phone: %s\n", error.c_str());
    return 1;
  }
  m.path = post_mirror_path(m.account.name);
  m.tag = tag_of(folder);
  m.changes = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (post_mirror_create(m.path, &error) < 0 || m.changes < 0 ||
      inotify_add_watch(m.changes, (m.path + "/cur").c_str(), IN_MOVED_TO) < 0 ||
      inotify_add_watch(m.changes, (m.path + rest_folder).c_str(), IN_CREATE) < 0) {
    say(m, error.empty() ? strerror(errno) : error);
    return 1;
  }
  int lock = open((m.path + kLock).c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (lock < 0 || flock(lock, LOCK_SH) < 0) say(m, m.path + kLock + ": " + strerror(errno)); /* held until the end */
  clear_leftovers(m);
  m.trash = m.account.trash;
  g_autofree char *config_folder = g_path_get_dirname(config.c_str()),
                  *config_name = g_path_get_basename(config.c_str());
  m.config = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  m.config_name = config_name;
  inotify_add_watch(m.config, config_folder, IN_MOVED_TO | IN_CLOSE_WRITE);
  m.net = network_open(RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR);
  std::string told;
  for (int pause = kFirstPause;;) {
    bool worked = false;
    int64_t begun = now();
    error.clear();
    was_written(m); /* what is read from here on is new */
    const bool refused = follow(&m, &worked, &error) == post_refused;
    if (worked) told.clear();
    write_trouble(m, error);
    if (worked && now() - begun > kLasting) pause = kFirstPause;
    if (error != told)
      say(m, error + (refused ? "; tried again when `brisel-phone setup` gave another, else every 5 minutes"
                              : "; tried again until it works"));
    told = error;
    if (m.aside.holds_more) pause = kFirstPause; /* what was behind it can come now */
    m.aside.holds_more = false;
    /* Servers shut out who comes with a wrong password a few times, and all of this user's programs with it. */
    if (refused) pause = kLongestPause;
    pause = rest_a_while(m, pause) ? kFirstPause : std::min(pause * 2, kLongestPause);
  }
}
