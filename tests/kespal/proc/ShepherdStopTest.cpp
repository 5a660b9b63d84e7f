#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <future>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kespal/error/OsError.h"
#include "kespal/proc/Child.h"
#include "kespal/proc/Collecting.h"
#include "kespal/time/Clock.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/RaisedAs.h"
#include "support/Sanitizer.h"

namespace kes::proc {
namespace {

using namespace std::chrono_literals;
using test::Collecting;
using test::errorOf;
using test::eventually;
using test::forkFails;
using test::inChild;
using test::joinError;
using test::looks;
using test::threadNamed;

TEST(ShepherdStopTest, StoppingTakesNoLongerThanASecondWhileAChildSleepsForAnHour) {
  const auto result = inChild([] {
    auto soonest = std::chrono::steady_clock::duration::max();
    for (int round = 0; round < 5; ++round) {  // a busy machine may hold up one or the other
      Collecting collecting;
      const pid_t pid = collecting.add(std::nullopt);
      const auto before = std::chrono::steady_clock::now();
      collecting.shepherd.stop();
      soonest = std::min(soonest, std::chrono::steady_clock::now() - before);
      const bool alive = ::kill(pid, 0) == 0;
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
      if (!alive) return 1;
    }
    return soonest < 1s ? 0 : 2;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.err, "");
}

TEST(ShepherdStopTest, AnErrorOfStoppingIsReportedAndGoesNoFurther) {
  const auto result = inChild([] {
    Collecting collecting;
    joinError = EINVAL;
    collecting.shepherd.stop();
    return 0;
  });
  OsError expected(EINVAL);
  expected.setSite({"src/os/posix/thread/Thread", 190, "join"});
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.err, "Error joining process collector thread:\n" + expected.exStack());
}

TEST(ShepherdStopTest, StoppingWithoutAForkWaitsForTheNextChildsEnd) {
  const auto result = inChild([] {
    const int before = looks;
    Collecting collecting;
    const pid_t pid = collecting.add(std::nullopt);
    if (!eventually([before] { return looks > before; })) return 2;
    forkFails = true;
    std::thread killer([pid] {
      std::this_thread::sleep_for(50ms);
      ::kill(pid, SIGKILL);
    });
    collecting.shepherd.stop();
    const bool reaped = ::waitpid(pid, nullptr, WNOHANG) == -1 && errno == ECHILD;
    killer.join();
    return reaped ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(ShepherdStopTest, StoppingLeavesNoZombieOfItsOwn) {
  const auto result = inChild([] {
    Collecting collecting;
    const pid_t pid = collecting.add(std::nullopt);
    collecting.shepherd.stop();
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    return ::wait(nullptr) == -1 && errno == ECHILD ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(ShepherdStopTest, StoppingTwiceAndBeforeTheStartIsHarmless) {
  Shepherd never;
  never.stop();
  Collecting collecting;
  collecting.shepherd.stop();
  collecting.shepherd.stop();
}

TEST(ShepherdStopTest, StoppingSendsThoseWhoWaitAway) {
  const auto result = inChild([] {
    std::vector<std::future<std::string>> waiters;
    pid_t pid = -1;
    {
      Collecting collecting;
      pid = collecting.add(std::nullopt);
      std::promise<void> ready[3];
      for (auto& each : ready) {
        waiters.push_back(std::async(std::launch::async, [&collecting, &each, pid] {
          each.set_value();
          int status = 0;
          return errorOf([&] { collecting.shepherd.wait(pid, status, nullptr); });
        }));
      }
      for (auto& each : ready) each.get_future().wait();
      while (threadNamed("process collect") == 0) std::this_thread::yield();
    }
    ::kill(pid, SIGKILL);
    for (auto& waiter : waiters) std::cout << waiter.get() << '\n';
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
  // Who came too late to wait at all finds no thread to wait for.
  std::istringstream lines(result.out);
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    EXPECT_TRUE(line == "The process collector has ended" || line == "Can't get ID for non-existing thread")
        << line;
  }
  EXPECT_EQ(count, 3);
}

TEST(ShepherdStopTest, AForeignExceptionFromANotificationEndsTheCollectorAndNobodyHangs) {
  KES_SKIP_UNDER_THREAD_SANITIZER(
      "writes out the streams however a process ends, so that a fork repeats them");
  const auto result = inChild([] {
    struct Thrower : Child::Notification {
      void exited(Child&) override { throw 42; }
    } thrower;
    Child victim({"/bin/true"}), other({"/bin/sleep", "3600"}), late({"/bin/true"});
    other.create(false);
    const pid_t pid = other.pid();
    victim.setNotify(&thrower);
    victim.create(false);
    std::cout << errorOf([&] { other.wait(false, {}); }) << other.pid() << '\n'
              << errorOf([&] { late.create(false); }) << '\n';
    Child::exit();
    late.create(false);
    std::cout << late.wait(false, {}).finished;
    Child::exit();
    ::kill(pid, SIGKILL);
    return 0;
  });
  EXPECT_EQ(result.out, "The process collector has ended-1\nThe process collector has ended\n1")
      << result.err;
  EXPECT_THAT(result.err,
              testing::ContainsRegex("Thread process collector \\([0-9]+\\) died with an unknown exception"));
}

TEST(ShepherdStopTest, AChildOfACollectorThatIsGoneIsNotWaitedForInTheNextOne) {
  time::ClockBase::init();
  Child first({"/bin/sleep", "3600"}), second({"/bin/true"});
  first.create(false);
  const pid_t pid = first.pid();
  Child::exit();
  second.create(false);
  EXPECT_THROW(first.kill(), NoSuchProcessError);
  EXPECT_EQ(errorOf([&] { first.wait(false, {}); }), "The process collector does not know this child");
  EXPECT_EQ(first.pid(), -1);
  EXPECT_TRUE(second.wait(false, {}).finished);
  Child::exit();
  ::kill(pid, SIGKILL);
}

}  // namespace
}  // namespace kes::proc
