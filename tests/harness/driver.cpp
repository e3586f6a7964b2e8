#include "driver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace {

/* A bound for what never comes; nothing is expected to take so long. */
constexpr int patience_ms = 30000;

int exit_code(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

pid_t start(const std::vector<std::string> &words, const std::map<std::string, std::string> &environment, int out,
            int err) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  if (out >= 0) dup2(out, 1);
  if (err >= 0) dup2(err, 2);
  for (const auto &[name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
  std::vector<char *> argv;
  for (const std::string &word : words) argv.push_back(const_cast<char *>(word.c_str()));
  argv.push_back(nullptr);
  execvp(argv[0], argv.data());
  _exit(127);
}

}  // namespace

ran run(const std::vector<std::string> &words, const std::map<std::string, std::string> &environment) {
  int out[2];
  int err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return {-1, "", ""};
  const pid_t pid = start(words, environment, out[1], err[1]);
  close(out[1]);
  close(err[1]);
  ran result{-1, "", ""};
  pollfd ends[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string *texts[2] = {&result.out, &result.err};
  while (ends[0].fd >= 0 || ends[1].fd >= 0) {
    if (poll(ends, 2, -1) < 0) continue;
    for (int i = 0; i < 2; i++) {
      if (ends[i].fd < 0 || ends[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t got = read(ends[i].fd, buffer, sizeof(buffer));
      if (got > 0)
        texts[i]->append(buffer, static_cast<size_t>(got));
      else
        ends[i].fd = -1;
    }
  }
  close(out[0]);
  close(err[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  result.code = exit_code(status);
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
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) return;
  pid_ = start(words, environment, out[1], -1);
  close(out[1]);
  fd_ = out[0];
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
