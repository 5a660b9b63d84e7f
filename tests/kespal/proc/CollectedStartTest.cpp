// What a start asks of the collector, and what is left of one that failed.
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <iostream>
#include <string>
#include <thread>

#include "kespal/error/OsError.h"
#include "kespal/proc/Child.h"
#include "kespal/proc/Collecting.h"
#include "kespal/time/Clock.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"
#include "support/Sanitizer.h"

namespace kes::proc {
namespace {

using namespace std::chrono_literals;
using test::Call;
using test::Collecting;
using test::inChild;
using test::made;
using test::Refuse;

TEST(CollectedStartTest, ASigchldThatIsIgnoredWithAnyFlagsIsNoticed) {
  const auto result = inChild([] {
    time::ClockBase::init();
    struct sigaction ignoring {};
    ignoring.sa_handler = SIG_IGN;
    ignoring.sa_flags = SA_SIGINFO;
    ::sigaction(SIGCHLD, &ignoring, nullptr);
    Child child({"/bin/sh", "-c", "exit 4"});
    child.create();
    const auto state = child.wait(true, 20s);
    Child::exit();
    return state.finished ? WEXITSTATUS(state.status) : 1;
  });
  EXPECT_EQ(result.exitCode(), 4);
}

TEST(CollectedStartTest, WhereNoChildMayShareItsParentsMemoryAPlainForkDoes) {
  for (const int refused : {EPERM, ENOSYS, EINVAL}) {
    const Refuse failing(Call::clone, refused);
    const int before = made(Call::fork);
    Child child({"/bin/sh", "-c", "exit 4"});
    child.create();
    EXPECT_EQ(child.wait().status, 4 << 8);
    EXPECT_EQ(made(Call::fork), before + 1);
  }
  Child::exit();
}

TEST(CollectedStartTest, AStartThatSucceedsTakesNoPlainFork) {
  KES_SKIP_UNDER_SANITIZERS("cannot watch a child that shares its parent's memory: there it is a plain fork");
  const int forks = made(Call::fork), clones = made(Call::clone);
  Child child({"true"});
  child.setEnvironment({"A=1"});
  child.create();
  EXPECT_EQ(child.wait().status, 0);
  EXPECT_EQ(made(Call::fork), forks);
  EXPECT_EQ(made(Call::clone), clones + 1);
  Child::exit();
}

TEST(CollectedStartTest, NothingIsLeftOfAStartThatHadToBeRepeated) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles a signal later, and never if its thread has ended by then");
  const auto result = inChild([] {
    std::atomic<int> ends{0};
    static std::atomic<int>* counter = nullptr;
    counter = &ends;
    ::signal(SIGCHLD, [](int) { ++*counter; });
    Child child({"/no/such/program"});
    errno = EDOM;
    child.create();
    const int errnum = errno;
    const int code = WEXITSTATUS(child.wait().status);
    Child::exit();
    const bool noneLeft = ::waitpid(-1, nullptr, __WALL) == -1 && errno == ECHILD;
    while (ends == 0) std::this_thread::yield();  // another thread may be on its way to the handler
    std::cout << code << ' ' << (errnum == EDOM) << ' ' << noneLeft << ' ' << ends;
    return 0;
  });
  EXPECT_EQ(result.out, "125 1 1 1");
}

TEST(CollectedStartTest, AForkThatFailsRaisesOsErrorAndReleasesTheLock) {
  const auto result = inChild([] {
    Child child({"/bin/true"});
    Child::init();
    try {
      const Refuse noFork(Call::fork, EAGAIN), noClone(Call::clone, EAGAIN);
      child.create(false);
    } catch (const OsError& error) {
      std::cout << error.errnum() << ' ' << error.file() << ':' << error.line() << ' ' << error.function();
    }
    child.create(false);
    child.wait(false, {});
    Child::exit();
    return 0;
  });
  EXPECT_EQ(result.out, std::to_string(EAGAIN) + " src/os/posix/proc/Child:129 create");
}

TEST(CollectedStartTest, WithoutMemoryAStartFailsBeforeAnythingIsForked) {
  Child::init();
  std::size_t refusals = 0;
  {
    Child child({"/bin/true"});
    child.setEnvironment({"A=1"});
    child.setWorkingDirectory("/");
    refusals = test::starve([&child] {
      const int before = made(Call::fork) + made(Call::clone);
      try {
        child.create();
      } catch (const std::bad_alloc&) {
        EXPECT_EQ(made(Call::fork) + made(Call::clone), before);
        EXPECT_EQ(child.pid(), -1);
        throw;
      }
      EXPECT_EQ(child.wait().status, 0);
    });
  }
  EXPECT_GT(refusals, 3U);
  Child::exit();
}

TEST(CollectedStartTest, AChildIsRegisteredAlthoughThereIsNoMemoryAnyMore) {
  Collecting collecting;
  const pid_t pid = collecting.add(7, /*starving=*/true);
  int status = 0;
  EXPECT_TRUE(collecting.shepherd.wait(pid, status));
  EXPECT_EQ(WEXITSTATUS(status), 7);
}
}  // namespace
}  // namespace kes::proc
