#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
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
#include "kespal/error/StaticError.h"
#include "kespal/proc/Child.h"
#include "kespal/proc/Collecting.h"
#include "kespal/time/Clock.h"
#include "support/Calls.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/Gate.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"

namespace kes::proc {
namespace {

using namespace std::chrono_literals;
using test::Call;
using test::Collecting;
using test::errorOf;
using test::eventually;
using test::inChild;
using test::made;
using test::Refuse;
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
    const Refuse failing(Call::pthread_join, EINVAL, test::once);
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
    const int before = made(Call::waitid);
    Collecting collecting;
    const pid_t pid = collecting.add(std::nullopt);
    if (!eventually([before] { return made(Call::waitid) > before; })) return 2;
    const Refuse failing(Call::fork, EAGAIN);
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

TEST(ShepherdStopTest, AStopWithoutAThreadLeavesNothingForTheNextStart) {
  for (int round = 1; round <= 20; ++round) {
    Shepherd never;
    never.stop();
    never.start();
    never.stop();
    Collecting collecting;
    collecting.shepherd.stop();
    collecting.shepherd.stop();
    collecting.shepherd.start();
    while (threadNamed("process collect") == 0) std::this_thread::yield();
    const pid_t pid = collecting.add(round);
    int status = 0;
    ASSERT_EQ(errorOf([&] { collecting.shepherd.wait(pid, status); }), "nothing was raised");
    EXPECT_EQ(WEXITSTATUS(status), round);
  }
}

TEST(ShepherdStopTest, AStopWaitsForTheRunThatItFoundAndNotForTheNext) {
  Collecting collecting;
  for (int round = 0; round < 2000; ++round) {
    auto other = std::async(std::launch::async, [&] { collecting.shepherd.stop(); });
    collecting.shepherd.stop();
    collecting.shepherd.start();
    ASSERT_EQ(other.wait_for(120s), std::future_status::ready);
    collecting.shepherd.stop();
    collecting.shepherd.start();
  }
}

TEST(ShepherdStopTest, AStartThatComesTooEarlyDoesNotHideTheEnd) {
  time::ClockBase::init();
  Child child({"/bin/sleep", "3600"});
  for (int round = 0; round < 300; ++round) {
    child.create();
    const pid_t pid = child.pid();
    std::atomic<bool> done{false};
    auto starter = std::async(std::launch::async, [&done] {
      while (!done) {
        try {
          Child::m_shepherd->start();
          return true;
        } catch (const UsageError&) {
          std::this_thread::yield();  // the start holds the lock that the stop wants
        }
      }
      return false;
    });
    Child::m_shepherd->stop();
    done = true;
    const bool serves = starter.get();
    bool raised = false;
    try {
      child.wait(true, 0ms);
    } catch (const RuntimeError&) {
      raised = true;
    }
    ASSERT_NE(raised, serves);
    ::kill(pid, SIGKILL);
    if (serves) {
      EXPECT_TRUE(child.wait().finished);
    } else {
      ::waitpid(pid, nullptr, 0);
    }
    Child::exit();
  }
}

TEST(ShepherdStopTest, AStopThatIsCancelledGoesOnToItsEndAndLeavesNoZombie) {
  const auto result = inChild([] {
    test::SlowToBeTold slow;
    Child ended({"/bin/true"}), left({"/bin/sleep", "3600"});
    left.create();
    ended.setNotify(&slow);
    ended.create();
    if (!eventually([&slow] { return slow.begun.load(); })) return 2;
    const int before = made(Call::fork);
    bool over = false;
    std::thread stopper([&over] {
      Child::m_shepherd->stop();
      over = true;
    });
    if (!eventually([before] { return made(Call::fork) > before; })) return 3;
    ::pthread_cancel(stopper.native_handle());
    slow.hold.open();
    stopper.join();
    const pid_t pid = left.pid();
    ::kill(pid, SIGKILL);
    const bool theOnlyOne = ::waitpid(-1, nullptr, 0) == pid && ::wait(nullptr) == -1;
    Child::exit();
    return over && theOnlyOne ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(ShepherdStopTest, NoChildIsStartedWhileTheCollectorIsBeingEnded) {
  struct Slow : Child::Notification {
    void exited(Child&) override {}
    void released(Child&) override {
      begun.set_value();
      hold.pass();
    }
    test::Gate hold;
    std::promise<void> begun;
  } slow;
  Child left({"/bin/sleep", "3600"}), next({"/bin/true"});
  left.setNotify(&slow);
  left.create();
  const pid_t pid = left.pid();
  auto first = std::async(std::launch::async, [] { Child::exit(); });
  slow.begun.get_future().wait();
  auto second = std::async(std::launch::async, [] { Child::exit(); });
  EXPECT_EQ(errorOf([&next] { next.create(); }), "The process collector has ended");
  EXPECT_EQ(next.pid(), -1);
  slow.hold.open();
  first.get();
  second.get();
  next.create();
  EXPECT_EQ(next.wait().status, 0);
  Child::exit();
  ::kill(pid, SIGKILL);
  EXPECT_EQ(::waitpid(pid, nullptr, 0), pid);
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
      collecting.shepherd.stop();
      for (auto& waiter : waiters) std::cout << waiter.get() << '\n';
    }
    ::kill(pid, SIGKILL);
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

TEST(ShepherdStopTest, ANotificationThatEndsTheCollectorsThreadLeavesNobodyWaiting) {
  KES_SKIP_UNDER_THREAD_SANITIZER("reports races that are not there when a thread ends by unwinding");
  const auto result = inChild([] {
    struct Ender : Child::Notification {
      void exited(Child&) override { ::pthread_exit(nullptr); }
    } ender;
    Child victim({"/bin/true"}), other({"/bin/sleep", "3600"}), late({"/bin/true"});
    other.create(false);
    const pid_t pid = other.pid();
    victim.setNotify(&ender);
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
}

TEST(ShepherdStopTest, ACollectorThatWasStoppedCanBeStartedAgainWithTheChildrenThatWereLeft) {
  Collecting collecting;
  const pid_t left = collecting.add(std::nullopt);
  for (int round = 1; round <= 3; ++round) {
    collecting.shepherd.stop();
    collecting.shepherd.start();
    const pid_t pid = collecting.add(round);
    int status = 0;
    ASSERT_TRUE(collecting.shepherd.wait(pid, status));
    EXPECT_EQ(WEXITSTATUS(status), round);
  }
  ::kill(left, SIGKILL);
  int status = 0;
  EXPECT_TRUE(collecting.shepherd.wait(left, status));
  EXPECT_EQ(status, SIGKILL);
}

TEST(ShepherdStopTest, StoppingDoesNotWaitForAChildAlthoughSigchldIsIgnoredAndLeavesItSo) {
  const auto result = inChild([] {
    const int before = made(Call::waitid);
    Collecting collecting;
    const pid_t pid = collecting.add(std::nullopt);
    if (!eventually([before] { return made(Call::waitid) > before; })) return 2;
    ::signal(SIGCHLD, SIG_IGN);
    auto stopped = std::async(std::launch::async, [&] { collecting.shepherd.stop(); });
    const bool inTime = stopped.wait_for(120s) == std::future_status::ready;
    ::kill(pid, SIGKILL);
    stopped.wait();
    const bool stillIgnored = ::signal(SIGCHLD, SIG_DFL) == SIG_IGN;
    return inTime && stillIgnored ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.err, "");
}

TEST(ShepherdStopTest, TheChildrenThatStillRunAreReleasedAndLeftAlone) {
  struct Cleaner : Child::Notification {
    void exited(Child&) override { ADD_FAILURE() << "it still runs"; }
    void released(Child& child) override {
      onCollector = test::threadNamed("process collect") == static_cast<std::uint64_t>(::gettid());
      EXPECT_NO_THROW(delete &child);
      ++calls;
    }
    bool onCollector = false;
    int calls = 0;
  } cleaner;
  pid_t pids[2];
  for (pid_t& pid : pids) {
    auto* child = new Child({"/bin/sleep", "3600"});
    child->setNotify(&cleaner);
    child->create();
    pid = child->pid();
  }
  Child::exit();
  EXPECT_EQ(cleaner.calls, 2);
  EXPECT_TRUE(cleaner.onCollector);
  for (const pid_t pid : pids) {
    EXPECT_EQ(::kill(pid, SIGKILL), 0);
    EXPECT_EQ(::waitpid(pid, nullptr, 0), pid);
  }
}

TEST(ShepherdStopTest, AStatusThatWasCollectedOutlivesTheCollector) {
  struct Notified : Child::Notification {
    void exited(Child&) override { ended.set_value(); }
    std::promise<void> ended;
  } notified;
  Child child({"/bin/sh", "-c", "exit 3"});
  child.setNotify(&notified);
  child.create();
  notified.ended.get_future().wait();
  Child::exit();
  EXPECT_EQ(child.wait().status, 3 << 8);
}

TEST(ShepherdStopTest, AChildThatOutlivedTheCollectorCanBeSignalledUntilItIsReaped) {
  for (const bool another : {false, true}) {
    Child left({"/bin/sleep", "3600"}), next({"/bin/sleep", "3600"});
    left.create();
    const pid_t pid = left.pid();
    Child::exit();
    if (another) next.create();
    EXPECT_NO_THROW(left.term(0));
    EXPECT_NO_THROW(left.term());
    if (!another) {
      EXPECT_EQ(::waitpid(pid, nullptr, 0), pid);
    }
    EXPECT_TRUE(eventually([&left] {
      try {
        left.kill(0);
        return false;
      } catch (const NoSuchProcessError&) {
        return true;
      }
    }));
    if (another) {
      next.kill();
      next.wait();
    }
    Child::exit();
  }
}

TEST(ShepherdStopTest, AChildThatOutlivedTheCollectorIsNotSignalledOnceItHasEnded) {
  Child left({"/bin/sleep", "3600"});
  left.create();
  const pid_t pid = left.pid();
  Child::exit();
  left.kill();
  siginfo_t ended{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT), 0);
  EXPECT_THROW(left.kill(0), NoSuchProcessError);
  EXPECT_EQ(::waitpid(pid, nullptr, 0), pid);
}

TEST(ShepherdStopTest, AChildThatOutlivedTheCollectorIsNotSignalledOnceItsIdIsAnothers) {
  Child left({"/bin/sleep", "3600"}), next({"/bin/sleep", "3600"});
  left.create();
  const pid_t pid = left.pid();
  Child::exit();
  next.create();
  {
    const Shepherd::Guard guard(Child::m_shepherd->condition());
    Child::m_shepherd->addNoLock(pid, nullptr);  // as if it had been reaped, and a child got its id
  }
  EXPECT_THROW(left.kill(0), NoSuchProcessError);
  ::kill(pid, SIGKILL);
  int status = 0;
  EXPECT_TRUE(Child::m_shepherd->wait(pid, status, nullptr));
  next.kill();
  next.wait();
  Child::exit();
}

TEST(ShepherdStopTest, AChildOfACollectorThatIsGoneIsNotWaitedForInTheNextOne) {
  time::ClockBase::init();
  Child first({"/bin/sleep", "3600"}), second({"/bin/true"});
  first.create(false);
  const pid_t pid = first.pid();
  Child::exit();
  second.create(false);
  EXPECT_EQ(errorOf([&] { first.wait(false, {}); }), "The process collector has ended");
  EXPECT_EQ(first.pid(), -1);
  EXPECT_TRUE(second.wait(false, {}).finished);
  Child::exit();
  ::kill(pid, SIGKILL);
}

}  // namespace
}  // namespace kes::proc
