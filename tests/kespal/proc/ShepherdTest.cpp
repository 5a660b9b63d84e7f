#include "kespal/proc/Shepherd.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <list>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>
#include <vector>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/proc/Child.h"
#include "kespal/time/Clock.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/Gate.h"
#include "support/RaisedAs.h"
#include "support/Sanitizer.h"

namespace {
/// What the next looks for an ended child are made to fail with, one after the other.
std::vector<int> g_waitFailures;
std::atomic<int> g_looks{0}, g_childlessLooks{0};  // that were begun, that found no child at all
std::atomic<bool> g_forkFails{false};
std::atomic<int> g_threadError{0}, g_joinError{0};  // of the next thread's creation, and of its end
}  // namespace

extern "C" int __real_waitid(idtype_t, id_t, siginfo_t*, int);
extern "C" int __wrap_waitid(idtype_t type, id_t id, siginfo_t* info, int options) {  // NOLINT
  if (!g_waitFailures.empty()) {
    errno = g_waitFailures.front();
    g_waitFailures.erase(g_waitFailures.begin());
    return -1;
  }
  ++g_looks;
  const int result = __real_waitid(type, id, info, options);
  if (result == -1 && errno == ECHILD) ++g_childlessLooks;
  return result;
}

extern "C" pid_t __real_fork();
extern "C" pid_t __wrap_fork() {
  if (!g_forkFails) return __real_fork();
  errno = EAGAIN;
  return -1;
}

extern "C" int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*start)(void*), void* argument) {
  if (const int error = g_threadError.exchange(0)) return error;
  return __real_pthread_create(thread, attributes, start, argument);
}

extern "C" int __real_pthread_join(pthread_t, void**);
extern "C" int __wrap_pthread_join(pthread_t thread, void** result) {
  if (const int error = g_joinError.exchange(0)) return error;
  return __real_pthread_join(thread, result);
}

namespace kes::proc {
namespace {

using namespace std::chrono_literals;
using test::errorOf;
using test::inChild;
using time::Milliseconds;

/// A collector that runs, and children that are made by hand.
class Collecting {
 public:
  Collecting() {
    time::ClockBase::init();
    shepherd.start();
  }
  ~Collecting() { shepherd.stop(); }

  /// Forks and registers a child that ends with this code, or never.
  pid_t add(std::optional<int> code) {
    const Shepherd::Guard guard(shepherd.condition());
    const pid_t pid = __real_fork();
    if (pid == 0) {
      if (code) ::_exit(*code);
      for (;;) ::pause();
    }
    shepherd.addNoLock(pid, nullptr);
    return pid;
  }

  Shepherd shepherd;
};

std::string siteOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const Exception& error) {
    return std::string(error.file()) + ':' + std::to_string(error.line()) + ' ' + error.function();
  }
  return "nothing was raised";
}

/// How often a thread of this process gave up the processor by itself.
long sleepsOf(std::uint64_t thread) {
  std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
  for (std::string word; status >> word;) {
    if (word == "voluntary_ctxt_switches:") {
      long count = 0;
      status >> count;
      return count;
    }
  }
  return -1;
}

/// The thread with this name, as far as the system keeps it; 0 when there is none.
std::uint64_t threadNamed(const std::string& name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string comm;
    std::getline(std::ifstream(task.path() / "comm"), comm);
    if (comm == name) return std::stoull(task.path().filename());
  }
  return 0;
}

TEST(ShepherdTest, AStatusIsKeptUntilSomebodyCollectsItAndForgottenThen) {
  Collecting collecting;
  const pid_t pid = collecting.add(4);
  int status = 0;
  ASSERT_TRUE(collecting.shepherd.wait(pid, status, nullptr));
  EXPECT_EQ(WEXITSTATUS(status), 4);
  const Milliseconds none(0);
  EXPECT_FALSE(collecting.shepherd.wait(pid, status, &none));
}

TEST(ShepherdTest, ATimedWaitThatExpiresLeavesTheChildRegistered) {
  Collecting collecting;
  const pid_t pid = collecting.add(std::nullopt);
  int status = 0;
  for (const Milliseconds timeout : {0ms, 30ms})
    EXPECT_FALSE(collecting.shepherd.wait(pid, status, &timeout));
  ::kill(pid, SIGKILL);
  EXPECT_TRUE(collecting.shepherd.wait(pid, status, nullptr));
  EXPECT_EQ(status, SIGKILL);
}

TEST(ShepherdTest, WaitingForACollectorThatWasNeverStartedIsAnError) {
  Shepherd shepherd;
  int status = 0;
  EXPECT_EQ(errorOf([&] { shepherd.wait(1, status, nullptr); }), "Can't get ID for non-existing thread");
}

TEST(ShepherdTest, ItsThreadHasAName) {
  Collecting collecting;
  const pid_t pid = collecting.add(0);
  int status = 0;
  collecting.shepherd.wait(pid, status, nullptr);
  EXPECT_NE(threadNamed("process collect"), 0U);
}

TEST(ShepherdTest, AnIdleCollectorNeverWakesUp) {
  Collecting collecting;
  const pid_t pid = collecting.add(0);
  int status = 0;
  ASSERT_TRUE(collecting.shepherd.wait(pid, status, nullptr));
  const std::uint64_t thread = threadNamed("process collect");
  ASSERT_NE(thread, 0U);
  // It is on its way to the pause when it has handed the status over.
  long before = -1;
  for (long now = sleepsOf(thread); now != before; now = sleepsOf(thread)) {
    before = now;
    std::this_thread::sleep_for(100ms);
  }
  std::this_thread::sleep_for(10s);
  EXPECT_EQ(sleepsOf(thread), before);
}

TEST(ShepherdTest, ANewChildResumesAPausedCollector) {
  Collecting collecting;
  for (int round = 1; round <= 50; ++round) {
    const pid_t pid = collecting.add(round);
    int status = 0;
    ASSERT_TRUE(collecting.shepherd.wait(pid, status, nullptr));
    EXPECT_EQ(WEXITSTATUS(status), round);
  }
}

TEST(ShepherdTest, AChildThatNobodyRegisteredIsReapedAndReported) {
  const auto result = inChild([] {
    Collecting collecting;
    const pid_t kept = collecting.add(std::nullopt);
    const pid_t foreign = __real_fork();
    if (foreign == 0) ::_exit(0);
    while (::kill(foreign, 0) == 0) std::this_thread::sleep_for(1ms);
    std::cout << foreign;
    ::kill(kept, SIGKILL);
    int status = 0;
    collecting.shepherd.wait(kept, status, nullptr);
    return 0;
  });
  EXPECT_EQ(result.err, "process collector: Got info for not registered child: " + result.out + "\n");
}

TEST(ShepherdTest, AWaitThatFailsIsReportedAndTriedAgain) {
  const auto result = inChild([] {
    g_waitFailures = {EINTR, EINTR};
    Collecting collecting;
    const pid_t pid = collecting.add(5);
    int status = 0;
    collecting.shepherd.wait(pid, status, nullptr);
    return WEXITSTATUS(status);
  });
  EXPECT_EQ(result.exitCode(), 5);
  EXPECT_EQ(
      result.err,
      "process collector: Error waiting for childs ...\nprocess collector: Error waiting for childs ...\n");
}

TEST(ShepherdTest, ChildrenThatAreGoneAreReportedOnceAndWaitedOut) {
  const auto result = inChild([] {
    const int before = g_childlessLooks;
    Collecting collecting;
    const pid_t stolen = collecting.add(std::nullopt);
    {
      // Somebody else reaps it, so that the system knows no child while one is registered.
      const Shepherd::Guard guard(collecting.shepherd.condition());
      ::kill(stolen, SIGKILL);
      ::waitpid(stolen, nullptr, 0);
    }
    if (!test::eventually([before] { return g_childlessLooks > before; })) return 1;
    // The next child is collected all the same.
    const pid_t pid = collecting.add(6);
    int status = 0;
    collecting.shepherd.wait(pid, status, nullptr);
    return WEXITSTATUS(status);
  });
  EXPECT_EQ(result.exitCode(), 6);
  // Again once the new child is gone too: the stolen one is still registered.
  EXPECT_THAT(result.err, testing::MatchesRegex("(process collector: Error waiting for childs ...\n){1,2}"));
}

TEST(ShepherdTest, StoppingTakesNoLongerThanASecondWhileAChildSleepsForAnHour) {
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

TEST(ShepherdTest, AnErrorOfStoppingIsReportedAndGoesNoFurther) {
  const auto result = inChild([] {
    Collecting collecting;
    g_joinError = EINVAL;
    collecting.shepherd.stop();
    return 0;
  });
  OsError expected(EINVAL);
  expected.setSite({"src/os/posix/thread/Thread", 190, "join"});
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.err, "Error joining process collector thread:\n" + expected.exStack());
}

TEST(ShepherdTest, ACollectorWhoseThreadIsRefusedIsNotKeptAndTheNextChildTriesAgain) {
  const auto result = inChild([] {
    Child child({"/bin/sh", "-c", "exit 5"});
    g_threadError = EAGAIN;
    std::cout << siteOf([&] { child.create(false); }) << ' ' << child.pid() << ' '
              << (Child::m_shepherd == nullptr);
    child.create(false);
    const int code = WEXITSTATUS(child.wait(false, {}).status);
    Child::exit();
    return code;
  });
  EXPECT_EQ(result.out, "src/os/posix/thread/Thread:173 create -1 1");
  EXPECT_EQ(result.exitCode(), 5);
}

TEST(ShepherdTest, StoppingWithoutAForkWaitsForTheNextChildsEnd) {
  const auto result = inChild([] {
    const int before = g_looks;
    Collecting collecting;
    const pid_t pid = collecting.add(std::nullopt);
    if (!test::eventually([before] { return g_looks > before; })) return 2;
    g_forkFails = true;
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

TEST(ShepherdTest, StoppingLeavesNoZombieOfItsOwn) {
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

TEST(ShepherdTest, StoppingTwiceAndBeforeTheStartIsHarmless) {
  Shepherd never;
  never.stop();
  Collecting collecting;
  collecting.shepherd.stop();
  collecting.shepherd.stop();
}

TEST(ShepherdTest, StoppingSendsThoseWhoWaitAway) {
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

TEST(ShepherdTest, EveryWaiterIsWokenForItsOwnChild) {
  Collecting collecting;
  std::vector<std::future<int>> waiters;
  std::vector<pid_t> pids;
  for (int number = 0; number < 20; ++number) pids.push_back(collecting.add(std::nullopt));
  for (pid_t pid : pids) {
    waiters.push_back(std::async(std::launch::async, [&collecting, pid] {
      int status = 0;
      collecting.shepherd.wait(pid, status, nullptr);
      return status;
    }));
  }
  for (std::size_t number = 0; number < pids.size(); ++number) {
    ::kill(pids[number], number % 2 == 0 ? SIGTERM : SIGKILL);
    EXPECT_EQ(waiters[number].get(), number % 2 == 0 ? SIGTERM : SIGKILL);
  }
}

TEST(ShepherdTest, APidThatIsRegisteredAgainLosesItsStaleResult) {
  Collecting collecting;
  const pid_t pid = collecting.add(1);
  while (::kill(pid, 0) == 0) std::this_thread::sleep_for(1ms);
  {
    // As if a new process had got the number: what is known of the old one must not be its status.
    const Shepherd::Guard guard(collecting.shepherd.condition());
    collecting.shepherd.addNoLock(pid, nullptr);
  }
  int status = 0;
  const Milliseconds moment(30);
  EXPECT_FALSE(collecting.shepherd.wait(pid, status, &moment));
}

TEST(ShepherdTest, ItsOwnThreadGetsAStatusThatIsThereAndAnErrorForOneThatIsNot) {
  struct Asker : Child::Notification {
    void exited(Child&) override {
      int status = 0;
      const auto ask = [&] { Child::m_shepherd->wait(other, status, nullptr); };
      answer.set_value(errorOf(ask) + " @ " + siteOf(ask));
    }
    int other = -1;
    std::promise<std::string> answer;
  } asker;
  time::ClockBase::init();
  Child running({"/bin/sleep", "3600"}), ended({"/bin/true"});
  running.create(false);
  asker.other = running.pid();
  ended.setNotify(&asker);
  ended.create(false);
  EXPECT_EQ(asker.answer.get_future().get(),
            "need no lock but my result's not there?! @ src/proc/Shepherd:124 wait");
  running.kill();
  running.wait();
  Child::exit();
}

TEST(ShepherdTest, AForkThatFailsRaisesOsErrorAndReleasesTheLock) {
  const auto result = inChild([] {
    Child child({"/bin/true"});
    Child::init();
    g_forkFails = true;
    try {
      child.create(false);
    } catch (const OsError& error) {
      std::cout << error.errnum() << ' ' << error.file() << ':' << error.line() << ' ' << error.function();
    }
    g_forkFails = false;
    child.create(false);
    child.wait(false, {});
    Child::exit();
    return 0;
  });
  EXPECT_EQ(result.out, std::to_string(EAGAIN) + " src/os/posix/proc/Child:129 create");
}

TEST(ShepherdTest, AForeignExceptionFromANotificationEndsTheCollectorAndNobodyHangs) {
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

TEST(ShepherdTest, AChildWithANotificationMayBeDestroyedAtAnyMoment) {
  struct Counter : Child::Notification {
    void exited(Child& child) override {
      EXPECT_EQ(&child, alive);
      ++calls;
    }
    std::atomic<Child*> alive{nullptr};
    std::atomic<int> calls{0};
  } counter;
  for (int round = 0; round < 300; ++round) {
    auto child = std::make_unique<Child>(std::list<std::string>{"/bin/true"});
    child->setNotify(&counter);
    counter.alive = child.get();
    child->create(false);
    if (round % 3 == 0) child->wait(false, {});
    if (round % 3 == 1) std::this_thread::sleep_for(std::chrono::microseconds(round * 10));
    child.reset();
    counter.alive = nullptr;
  }
  // Whose status was there had its notification called, which the end of the object waits for.
  EXPECT_GE(counter.calls.load(), 100);
  Child::exit();
}

TEST(ShepherdTest, AnotherNotificationCanBeSetOnlyWhenTheEarlierOneIsOver) {
  struct Slow : Child::Notification {
    void exited(Child&) override {
      begun = true;
      hold.pass();
      ended = true;
    }
    test::Gate hold;
    std::atomic<bool> begun{false}, ended{false};
  } slow;
  Child child({"/bin/true"});
  child.setNotify(&slow);
  child.create(false);
  ASSERT_TRUE(test::eventually([&] { return slow.begun.load(); }));
  EXPECT_TRUE(child.wait(false, {}).finished);  // the status is there already
  auto changed = std::async(std::launch::async, [&] {
    child.setNotify(nullptr);
    return slow.ended.load();
  });
  EXPECT_EQ(changed.wait_for(20ms), std::future_status::timeout);
  slow.hold.open();
  EXPECT_TRUE(changed.get());
  Child::exit();
}

TEST(ShepherdTest, AChildOfACollectorThatIsGoneIsNotWaitedForInTheNextOne) {
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

TEST(ShepherdTest, APidThatIsRegisteredAgainLosesTheNotificationOfItsOldChild) {
  struct Unwanted : Child::Notification {
    void exited(Child&) override { ADD_FAILURE() << "of a child that somebody else has reaped"; }
  } unwanted;
  Collecting collecting;
  Child old({"/bin/true"});
  old.setNotify(&unwanted);
  const pid_t pid = collecting.add(std::nullopt);
  {
    const Shepherd::Guard guard(collecting.shepherd.condition());
    collecting.shepherd.addNoLock(pid, &old);
    collecting.shepherd.addNoLock(pid, nullptr);
  }
  ::kill(pid, SIGKILL);
  int status = 0;
  EXPECT_TRUE(collecting.shepherd.wait(pid, status, nullptr));
}

}  // namespace
}  // namespace kes::proc
