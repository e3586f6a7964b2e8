#include "driver.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace {

/* A bound for what never comes; nothing is expected to take so long. */
constexpr int patience_ms = 30000;

int exit_code(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/* Words and environment as the C library wants them. */
struct command {
  std::vector<char *> argv;
  char **envp = g_get_environ();
  command(const std::vector<std::string> &words, const std::map<std::string, std::string> &environment) {
    for (const std::string &word : words) argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    for (const auto &[name, value] : environment) envp = g_environ_setenv(envp, name.c_str(), value.c_str(), TRUE);
  }
  ~command() { g_strfreev(envp); }
};

}  // namespace

ran run(const std::vector<std::string> &words, const std::map<std::string, std::string> &environment) {
  const command one(words, environment);
  char *out = nullptr, *err = nullptr;
  int status = 0;
  if (!g_spawn_sync(nullptr, const_cast<char **>(one.argv.data()), one.envp, G_SPAWN_SEARCH_PATH, nullptr, nullptr,
                    &out, &err, &status, nullptr))
    return {127, "", words[0] + " cannot be started"};
  const ran result = {exit_code(status), out, err};
  g_free(out);
  g_free(err);
  return result;
}

ran watch(const std::vector<std::string> &words) {
  std::vector<std::string> all{"brisel-watchctl", "--app", "com.vextora.probe"};
  all.insert(all.end(), words.begin(), words.end());
  return run(all);
}

void must(const std::vector<std::string> &words) {
  const ran result = watch(words);
  EXPECT_EQ(result.code, 0) << words[0] << ": " << result.err;
}

nlohmann::json dump(void) {
  const ran result = watch({"dump"});
  EXPECT_EQ(result.code, 0) << result.err;
  return nlohmann::json::parse(result.out, nullptr, false);
}

child::child(const std::vector<std::string> &words, const std::map<std::string, std::string> &environment) {
  const command one(words, environment);
  const int flags = G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_CHILD_INHERITS_STDIN;
  EXPECT_TRUE(g_spawn_async_with_pipes(nullptr, const_cast<char **>(one.argv.data()), one.envp,
                                       static_cast<GSpawnFlags>(flags), nullptr, nullptr, &pid_, nullptr, &fd_, nullptr,
                                       nullptr))
      << words[0];
}

child::~child() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    wait();
  }
  close(fd_);
}

std::string child::line(void) {
  for (;;) {
    const size_t end = rest_.find('\n');
    if (end != std::string::npos) {
      std::string found = rest_.substr(0, end);
      rest_.erase(0, end + 1);
      return found;
    }
    pollfd ready{fd_, POLLIN, 0};
    if (poll(&ready, 1, patience_ms) <= 0) return "(none)";
    char buffer[4096];
    const ssize_t got = read(fd_, buffer, sizeof(buffer));
    if (got <= 0) return "(end)";
    rest_.append(buffer, static_cast<size_t>(got));
  }
}

std::vector<std::string> child::until(const std::string &marker) {
  std::vector<std::string> lines;
  for (;;) {
    std::string next = line();
    if (next == marker) return lines;
    lines.push_back(next);
    if (next == "(none)" || next == "(end)") {
      ADD_FAILURE() << "waited in vain for: " << marker;
      return lines;
    }
  }
}

void child::signal(int number) {
  kill(pid_, number);
}

int child::wait(void) {
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return exit_code(status);
}
