/* One change to what is kept, under every fault of the disk at every step of it. For tests with GoogleTest that link
   brisel_fault_dep. */
#ifndef TESTS_HARNESS_FAULTS_H
#define TESTS_HARNESS_FAULTS_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>

#include "fault.h"

struct fault_change {
  std::function<void()> prepare;      /* makes the state before, on a disk that works */
  std::function<bool()> change;       /* true: acknowledged. Runs in a process of its own, and again after the fault */
  std::function<std::string()> state; /* what a reader finds now */
  std::string before, after;          /* the two states there may be */
  std::function<void()> closed = {};  /* looks at what a fault left, before the change runs again; may be empty */
  int stride = 1;                     /* tries every so many steps */
};

/* The old state or the new one, whole; what was acknowledged is the new one, after a power loss too; what failed works
   when the disk does. Returns how many faults there were. */
inline int outlive_every_fault(const fault_change &one) {
  enum { acknowledged, reported, not_reached };
  const struct {
    const char *what;
    fault_plan plan;
  } rows[] = {{"full once", {.kind = fault_full}},  {"full", {.kind = fault_full, .from_then_on = true}},
              {"failing once", {.kind = fault_io}}, {"failing", {.kind = fault_io, .from_then_on = true}},
              {"power", {.kind = fault_power}},     {"killed", {.kind = fault_kill}}};
  fault_install();
  int faults = 0, first = 0;
  for (const auto &row : rows) {
    fault_plan plan = row.plan;
    for (plan.step = 1 + first++ % one.stride; plan.step < 1000; plan.step += one.stride) {
      one.prepare();
      const std::string where = std::string(row.what) + " at step " + std::to_string(plan.step);
      EXPECT_EQ(one.state(), one.before) << "before " << where;
      const pid_t child = fork();
      if (child == 0) {
        fault_arm(plan);
        const bool done = one.change();
        const bool struck = fault_struck();
        if (plan.kind == fault_power) fault_lose_unsynced();
        _exit(!struck ? not_reached : done ? acknowledged : reported);
      }
      int status = 0;
      EXPECT_EQ(waitpid(child, &status, 0), child);
      const bool ended = WIFEXITED(status);
      const std::string now = one.state();
      const bool must_be_new = ended && WEXITSTATUS(status) != reported;
      EXPECT_TRUE(now == one.after || (!must_be_new && now == one.before)) << where << ": " << now;
      if (one.closed) one.closed();
      if (ended && WEXITSTATUS(status) == not_reached) break;
      faults++;
      EXPECT_TRUE(one.change()) << "after " << where;
      EXPECT_EQ(one.state(), one.after) << "after " << where;
      if (testing::Test::HasFailure()) return faults;
    }
  }
  const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
  printf("# %s.%s: outlived %d faults\n", test->test_suite_name(), test->name(), faults);
  return faults;
}

#endif
