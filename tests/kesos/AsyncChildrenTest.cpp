// Programs that nobody waits for, and the end of those who started them.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>

#include "kesos/processes.h"
#include "kespal/proc/Child.h"
#include "shell.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

namespace {

using namespace kes::test;

int startAlone(const std::string& command) {
  return KesOsCreateProcessSw(command.c_str(), KESOS_PROCESS_ASYNC);
}

/// Set while this file is initialised, maybe before the library is.
const bool startedEarly = startAlone("true") == 1;

class AsyncChildrenTest : public testing::Test {
 protected:
  /// As long as the early one runs, its collector would take the children of the test, too.
  void SetUp() override { kes::proc::Child::exit(); }
};

TEST_F(AsyncChildrenTest, OneCanBeStartedBeforeTheProgramsInitialisationIsOver) { EXPECT_TRUE(startedEarly); }

TEST_F(AsyncChildrenTest, WhatRunsAtTheEndOfTheCollectorRunsOnAndNothingIsSaid) {
  KES_SKIP_UNDER_THREAD_SANITIZER("starts no threads in the child of a process that has some");
  const TempDir dir;
  ASSERT_EQ(::mkfifo((dir / "end").c_str(), 0600), 0);
  const auto result = inChild([&dir] {
    for (int round = 0; round < 20; ++round) {
      if (startAlone("cat " + (dir / "end")) != 1) return 1;
      for (int ended = 0; ended < 5; ++ended) startAlone("true");
      kes::proc::Child::exit();
      std::ofstream(dir / "end") << "the end\n";  // opens once the program reads
      while (::waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
      }
    }
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out.size(), 20 * 8U);
}

TEST_F(AsyncChildrenTest, TheCleanerFreesAChildThatStillRuns) {
  struct Counted : kes::proc::Child {
    explicit Counted(int& ends) : Child({"/bin/sleep", "3600"}), ends_(ends) {}
    ~Counted() override { ++ends_; }
    int& ends_;
  };
  int ends = 0;
  auto* const child = new Counted(ends);
  child->setNotify(&_async_child_cleaner);
  child->create();
  const pid_t pid = child->pid();
  kes::proc::Child::exit();
  EXPECT_EQ(ends, 1);
  EXPECT_EQ(::kill(pid, SIGKILL), 0);
  EXPECT_EQ(::waitpid(pid, nullptr, 0), pid);
}

TEST_F(AsyncChildrenTest, AProcessThatLeavesSomeEndsInOrder) {
  KES_SKIP_UNDER_SANITIZERS("says at exit that a thread runs on");
  for (int round = 0; round < 40; ++round) {
    const auto result = inChild([]() -> int {
      startAlone("true");
      std::exit(3);
    });
    ASSERT_EQ(result.exitCode(), 3) << result.err;
    ASSERT_EQ(result.err, "");
  }
}

}  // namespace
