/* The relay's side of the mirrors: their processes. */
#include <glib.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>

#include "post-account.h"
#include "post-mirror.h"

namespace {

constexpr uint64_t kPause = 10000000; /* microseconds until one that ended is started again */

struct source_unref {
  void operator()(sd_event_source *source) const { sd_event_source_disable_unref(source); }
};
using source_holder = std::unique_ptr<sd_event_source, source_unref>;

struct one_mirror {
  post_mirror_order order;
  sd_event *event = nullptr;
  pid_t pid = -1;
  source_holder child, pause;
};

int start_later_cb(sd_event_source *source, uint64_t time, void *user_data);

void start_later(one_mirror *m) {
  sd_event_source *source = nullptr;
  if (sd_event_add_time_relative(m->event, &source, CLOCK_BOOTTIME, kPause, 0, start_later_cb, m) >= 0)
    m->pause.reset(source);
}

int ended_cb(sd_event_source *source, const siginfo_t *info, void *user_data) {
  auto *m = static_cast<one_mirror *>(user_data);
  m->pid = -1;
  start_later(m);
  return 0;
}

void start(one_mirror *m) {
  std::string newest = std::to_string(m->order.newest);
  const char *arguments[] = {"brisel-phone", "follow-imap",
                             "--config",     m->order.config.c_str(),
                             "--account",    m->order.account.c_str(),
                             "--folder",     m->order.folder.c_str(),
                             "--newest",     newest.c_str(),
                             nullptr};
  pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    close_range(3, ~0u, 0);
    execv("/proc/self/exe", const_cast<char **>(arguments));
    _exit(127);
  }
  sd_event_source *source = nullptr;
  if (pid < 0 || sd_event_add_child(m->event, &source, pid, WEXITED, ended_cb, m) < 0) {
    start_later(m);
    return;
  }
  m->pid = pid;
  m->child.reset(source);
}

int start_later_cb(sd_event_source *source, uint64_t time, void *user_data) {
  start(static_cast<one_mirror *>(user_data));
  return 0;
}

/* What a file holds; empty: nothing that can be read. */
std::string content_of(const std::string &file) {
  g_autofree char *text = nullptr;
  gsize size = 0;
  return g_file_get_contents(file.c_str(), &text, &size, nullptr) ? std::string(text, size) : "";
}

/* In the file's folder something happened. */
int config_changed_cb(sd_event_source *source, const inotify_event *event, void *user_data) {
  if (post_mirrors_outdated(static_cast<post_mirrors *>(user_data)))
    sd_event_exit(sd_event_source_get_event(source), 0);
  return 0;
}

}  // namespace

struct post_mirrors {
  std::vector<std::unique_ptr<one_mirror>> all;
  std::string config, read; /* the configuration file, and what it held */
  source_holder watch;
};

post_mirrors *post_mirrors_start(sd_event *event, const std::vector<post_mirror_order> &orders) {
  auto *mirrors = new post_mirrors;
  std::map<std::string, std::vector<std::string>> folders;
  for (const post_mirror_order &order : orders) folders[order.account].push_back(order.folder);
  for (const auto &[account, followed] : folders) post_mirror_forget_others(post_mirror_path(account), followed);
  for (const post_mirror_order &order : orders) {
    mirrors->all.push_back(std::make_unique<one_mirror>());
    mirrors->all.back()->order = order;
    mirrors->all.back()->event = event;
    start(mirrors->all.back().get());
  }
  if (orders.empty()) return mirrors;
  mirrors->config = orders[0].config;
  mirrors->read = content_of(mirrors->config);
  g_autofree char *folder = g_path_get_dirname(mirrors->config.c_str());
  sd_event_source *source = nullptr;
  if (sd_event_add_inotify(event, &source, folder, IN_MOVED_TO | IN_CLOSE_WRITE, config_changed_cb, mirrors) >= 0)
    mirrors->watch.reset(source);
  return mirrors;
}

bool post_mirrors_outdated(const post_mirrors *mirrors) {
  std::vector<post_account> ignored;
  std::string error;
  return mirrors && !mirrors->config.empty() && content_of(mirrors->config) != mirrors->read &&
         post_accounts_read(mirrors->config, &ignored, &error) == 0;
}

void post_mirrors_begin_again() {
  std::string words = content_of("/proc/self/cmdline");
  std::vector<char *> arguments;
  for (size_t at = 0; at < words.size(); at += strlen(&words[at]) + 1) arguments.push_back(&words[at]);
  arguments.push_back(nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  execv("/proc/self/exe", arguments.data());
}

void post_mirrors_stop(post_mirrors *mirrors) {
  if (!mirrors) return;
  for (const auto &m : mirrors->all)
    if (m->pid > 0) kill(m->pid, SIGTERM);
  for (const auto &m : mirrors->all)
    while (m->pid > 0 && waitpid(m->pid, nullptr, 0) < 0 && errno == EINTR) continue;
  delete mirrors;
}
