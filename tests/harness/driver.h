/* Runs programs for the tests: the probe application and the tools, all real, on the session that the test runs in. */
#ifndef BRISEL_TESTS_PLATFORM_DRIVER_H
#define BRISEL_TESTS_PLATFORM_DRIVER_H

#include <sys/types.h>

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

struct ran {
  int code; /* exit code, or 128 + signal */
  std::string out;
  std::string err;
};

/* Runs a program to its end. */
ran run(const std::vector<std::string> &words, const std::map<std::string, std::string> &environment = {});
/* brisel-watchctl, at the probe. */
ran watch(const std::vector<std::string> &words);
/* The same, which must succeed. */
void must(const std::vector<std::string> &words);
nlohmann::json dump(void);

/* A program that runs beside the test and whose output lines are read one by one. Ends with the object. */
class child {
 public:
  explicit child(const std::vector<std::string> &words, const std::map<std::string, std::string> &environment = {});
  ~child();
  child(const child &) = delete;
  child &operator=(const child &) = delete;
  /* The next line; "(none)" when none comes for long, "(end)" when the program has closed its output. */
  std::string line(void);
  /* Everything said since, once `marker` has been provoked: waits for that line and returns the ones before it. */
  std::vector<std::string> until(const std::string &marker);
  void signal(int number);
  int wait(void);

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  std::string rest_;
};

#endif
