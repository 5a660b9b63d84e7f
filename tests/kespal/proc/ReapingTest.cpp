// A collector that reaps only children that were registered.
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/proc/Child.h"
#include "kespal/proc/Shepherd.h"
#include "kespal/time/Clock.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"

namespace kes::proc {
namespace {

using namespace std::chrono_literals;
using test::Call;
using test::errorOf;
using test::eventually;
using test::made;
using test::Refuse;

class ReapingTest : public testing::Test {
 protected:
  ReapingTest() {
    Child::exit();
    Child::setReaping(Reaping::Registered);
  }
  static void SetUpTestSuite() { time::ClockBase::init(); }
  void TearDown() override {
    Child::exit();
    Child::setReaping(Reaping::EveryChild);
  }
};

int codeOf(const std::string& command) {
  Child child({"/bin/sh", "-c", command});
  child.create();
  return ExitStatus(child.wait().status).exitCode().value_or(-1);
}

/// A child that this library knows nothing of, and that has ended.
pid_t endedStranger(int code) {
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(code);
  siginfo_t info;
  ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
  return pid;
}

TEST_F(ReapingTest, SystemAndPopenGetEveryStatusWhileChildrenRun) {
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> others;
  for (int thread = 0; thread < 3; ++thread) {
    others.emplace_back([&] {
      while (!done) wrong += codeOf("exit 5") == 5 ? 0 : 1;
    });
  }
  for (int round = 0; round < (test::isSanitized ? 30 : 200); ++round) {
    const int code = round % 120;
    EXPECT_EQ(std::system(("exit " + std::to_string(code)).c_str()), code << 8);
    std::FILE* const pipe = ::popen(("exit " + std::to_string(code)).c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    EXPECT_EQ(::pclose(pipe), code << 8);
  }
  done = true;
  for (std::thread& other : others) other.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(ReapingTest, AChildThatNobodyRegisteredIsLeftToWhoeverStartedIt) {
  const pid_t stranger = endedStranger(3);
  EXPECT_EQ(codeOf("exit 4"), 4);
  int status = 0;
  EXPECT_EQ(::waitpid(stranger, &status, 0), stranger);
  EXPECT_EQ(status, 3 << 8);
}

TEST_F(ReapingTest, TheChoiceIsMadeBeforeThereIsACollectorAndAForkKeepsIt) {
  Child::init();
  EXPECT_EQ(errorOf([] { Child::setReaping(Reaping::EveryChild); }),
            "Can't change which children are reaped: there is a process collector");
  if (!test::threadSanitizer) {
    const auto result = test::inChild([] {
      const pid_t stranger = endedStranger(3);
      const bool collected = codeOf("exit 4") == 4 && ::waitpid(stranger, nullptr, 0) == stranger;
      Child::exit();
      return collected ? 0 : 1;
    });
    EXPECT_EQ(result.exitCode(), 0) << result.err;
  }
  Child::exit();
  EXPECT_EQ(errorOf([] { Child::setReaping(Reaping::EveryChild); }), "nothing was raised");
}

TEST_F(ReapingTest, AForkWithoutExecTakesNothingFromTheCollectorOfItsParent) {
  Child before({"/bin/sleep", "3600"});
  before.create();
  const auto result = test::inChild([] {
    for (int fd = 3; fd < 256; ++fd) ::close(fd);
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(codeOf("exit 4"), 4);
  EXPECT_EQ(before.terminate(600s).text(), "killed by SIGTERM");
}

TEST_F(ReapingTest, ChildrenThatTheSystemDoesNotWatchAreCollectedAllTheSame) {
  for (const auto& [call, error] : {std::pair{Call::syscall, ENOSYS}, std::pair{Call::syscall, EMFILE},
                                    std::pair{Call::epoll_ctl, ENOSPC}}) {
    Child watched({"/bin/sleep", "3600"}), unwatched({"/bin/sleep", "3600"});
    watched.create();
    const Refuse refuse(call, error);
    EXPECT_EQ(codeOf("exit 4"), 4);
    unwatched.create();
    EXPECT_EQ(watched.terminate(600s).text(), "killed by SIGTERM");
    EXPECT_EQ(unwatched.terminate(600s).text(), "killed by SIGTERM");
    EXPECT_GE(refuse.struck(), 2);
  }
}

TEST_F(ReapingTest, AfterAChildThatCouldNotBeWatchedTheCollectorSleepsAgain) {
  {
    const Refuse refuse(Call::syscall, EMFILE);
    EXPECT_EQ(codeOf("exit 4"), 4);
  }
  Child child({"/bin/sleep", "3600"});
  child.create();
  std::atomic<int> limit{0};
  const test::Instead<Call::epoll_wait> waiting([&](int queue, epoll_event* events, int most, int timeout) {
    limit = timeout;
    return test::real<Call::epoll_wait>(queue, events, most, timeout);
  });
  Child next({"/bin/true"});
  next.create();
  next.wait();
  EXPECT_TRUE(eventually([&limit] { return limit == -1; }));
  EXPECT_EQ(child.terminate(600s).text(), "killed by SIGTERM");
}

TEST_F(ReapingTest, ACollectorWhoseDescriptorsAreGoneGoesOn) {
  const Refuse refuse(Call::epoll_wait, EBADF);
  EXPECT_EQ(codeOf("exit 4"), 4);
  Child running({"/bin/sleep", "3600"});
  running.create();
  const pid_t pid = running.pid();
  Child::exit();
  EXPECT_EQ(::kill(pid, SIGKILL), 0);
  EXPECT_EQ(::waitpid(pid, nullptr, 0), pid);
}

TEST_F(ReapingTest, ACollectorThatGetsNoDescriptorsIsNotMade) {
  for (const Call call : {Call::epoll_create1, Call::eventfd, Call::epoll_ctl}) {
    Child child({"/bin/true"});
    {
      const Refuse refuse(call, ENOMEM);
      EXPECT_EQ(test::raisedAs<OsError>([&] { child.create(); }).errnum(), ENOMEM);
    }
    EXPECT_EQ(Child::m_shepherd, nullptr);
    EXPECT_EQ(child.pid(), -1);
    child.create();
    EXPECT_EQ(child.wait().status, 0);
    Child::exit();
  }
}

TEST_F(ReapingTest, WhoWaitsForAChildThatSomebodyElseReapsIsToldSoAtOnce) {
  Child stolen({"/bin/sleep", "3600"}), running({"/bin/sleep", "3600"});
  running.create();
  stolen.create();
  testing::internal::CaptureStderr();
  const test::Before stealing(Call::waitid, [pid = stolen.pid()] { ::waitpid(pid, nullptr, 0); });
  stolen.kill();
  EXPECT_EQ(errorOf([&] { stolen.wait(); }), "The process collector does not know this child");
  EXPECT_EQ(running.terminate(600s).text(), "killed by SIGTERM");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "process collector: Error waiting for childs ...\n");
}

TEST_F(ReapingTest, AChildWhoseEndADebuggerGetsFirstIsCollectedWhenItIsThere) {
  Child child({"/bin/sleep", "3600"});
  child.create();
  std::atomic<int> heldBack{3};
  const test::Instead<Call::waitid> debugging([&](idtype_t type, id_t id, siginfo_t* info, int options) {
    if (heldBack-- <= 0) return test::real<Call::waitid>(type, id, info, options);
    info->si_pid = 0;
    return 0;
  });
  EXPECT_EQ(child.terminate(600s).text(), "killed by SIGTERM");
  EXPECT_LE(heldBack, 0);
}

TEST_F(ReapingTest, StoppingMakesNoChildAndLeavesThoseThatRun) {
  Child running({"/bin/sleep", "3600"});
  running.create();
  const pid_t pid = running.pid();
  const int forks = made(Call::fork);
  Child::exit();
  EXPECT_EQ(made(Call::fork), forks);
  EXPECT_EQ(::kill(pid, SIGKILL), 0);
  EXPECT_EQ(::waitpid(pid, nullptr, 0), pid);
}

TEST_F(ReapingTest, NoDescriptorIsLeftWhenTheCollectorIsGone) {
  const auto before = test::openDescriptors();
  {
    std::list<Child> running;
    for (int number = 0; number < 10; ++number) {
      running.emplace_back(std::list<std::string>{"/bin/sleep", "3600"}).create();
      EXPECT_EQ(codeOf("exit 4"), 4);
    }
    const auto during = test::openDescriptors();
    EXPECT_EQ(during.size(), before.size() + 2 + running.size());
    for (Child& child : running) child.kill();
    Child::exit();
  }
  EXPECT_EQ(test::openDescriptors(), before);
  while (::waitpid(-1, nullptr, 0) > 0) {
  }
}

}  // namespace
}  // namespace kes::proc
