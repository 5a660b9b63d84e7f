#include "kespal/proc/Shepherd.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kespal/error/OsError.h"
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
using test::Instead;
using test::made;
using test::real;
using test::Refuse;
using test::threadNamed;
using time::Milliseconds;

std::string siteOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const Exception& error) {
    return std::string(error.file()) + ':' + std::to_string(error.line()) + ' ' + error.function();
  }
  return "nothing was raised";
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

TEST(ShepherdTest, AnIdleCollectorDoesNotWakeUpByItself) {
  // It sits in a wait without a limit, which nobody ends: there is no other reason to wake up.
  std::atomic<int> waiting{0};
  const Instead<Call::pthread_cond_wait> pausing(
      [&waiting, test = ::pthread_self()](pthread_cond_t* condition, pthread_mutex_t* mutex) {
        const int another = ::pthread_equal(test, ::pthread_self()) != 0 ? 0 : 1;
        waiting += another;
        const int result = real<Call::pthread_cond_wait>(condition, mutex);
        waiting -= another;
        return result;
      });
  const int timedWaits = made(Call::pthread_cond_timedwait);
  Collecting collecting;
  const pid_t pid = collecting.add(0);
  int status = 0;
  ASSERT_TRUE(collecting.shepherd.wait(pid, status, nullptr));
  EXPECT_TRUE(eventually([&waiting] { return waiting == 1; }));
  EXPECT_EQ(made(Call::pthread_cond_timedwait), timedWaits);
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

/// Holds the next thread up at its start.
class HeldStart : Instead<Call::pthread_create> {
 public:
  explicit HeldStart(const test::Gate& gate)
      : Instead([this, &gate](pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                              void* argument) {
          if (start_ != nullptr) return real<Call::pthread_create>(thread, attributes, start, argument);
          gate_ = &gate;
          start_ = start;
          argument_ = argument;
          return real<Call::pthread_create>(thread, attributes, &HeldStart::startBehindGate,
                                            static_cast<void*>(this));
        }) {}

 private:
  static void* startBehindGate(void* held) {
    const auto& self = *static_cast<const HeldStart*>(held);
    const auto start = self.start_;
    void* const argument = self.argument_;
    self.gate_->pass();
    return start(argument);
  }

  const test::Gate* gate_ = nullptr;
  void* (*start_)(void*) = nullptr;
  void* argument_ = nullptr;
};

TEST(ShepherdTest, AThreadMayBeCancelledThatWaitsWhileTheCollectorStarts) {
  KES_SKIP_UNDER_SANITIZERS("loses track of the stack of a thread that a cancellation unwinds");
  const auto result = inChild([] {
    test::Gate gate;
    const HeldStart held(gate);
    Child child({"/bin/true"});
    child.create();
    const auto wait = [](void* awaited) -> void* {
      ::pthread_cancel(::pthread_self());
      static_cast<Child*>(awaited)->wait();
      return nullptr;
    };
    pthread_t waiter{};
    ::pthread_create(&waiter, nullptr, wait, &child);
    void* end = nullptr;
    ::pthread_join(waiter, &end);
    gate.open();
    Child::exit();
    return end == PTHREAD_CANCELED ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.err, "");
}

TEST(ShepherdTest, AChildThatNobodyRegisteredIsReapedAndReported) {
  const auto result = inChild([] {
    Collecting collecting;
    const pid_t kept = collecting.add(std::nullopt);
    const pid_t foreign = ::fork();
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

/// Forks a child that ends at once, and waits until it has. Nobody has collected it.
pid_t endedChild(int code) {
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(code);
  siginfo_t info;
  ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
  return pid;
}

TEST(ShepherdTest, ChildrenThatEndedTogetherAreCollectedAfterOneLook) {
  Collecting collecting;
  std::vector<pid_t> pids;
  int looks = 0;
  {
    const Shepherd::Guard guard(collecting.shepherd.condition());
    for (int code = 0; code < 10; ++code) pids.push_back(endedChild(code));
    for (const pid_t pid : pids) collecting.shepherd.addNoLock(pid, nullptr);
    looks = made(Call::waitid);
  }
  for (int code = 0; code < 10; ++code) {
    int status = 0;
    EXPECT_TRUE(collecting.shepherd.wait(pids[static_cast<std::size_t>(code)], status));
    EXPECT_EQ(status, code << 8);
  }
  EXPECT_EQ(made(Call::waitid) - looks, 1);
}

TEST(ShepherdTest, NoOthersChildIsCollectedOnceTheLastOfItsOwnIs) {
  Collecting collecting;
  pid_t own = 0, others = 0;
  {
    const Shepherd::Guard guard(collecting.shepherd.condition());
    own = endedChild(0);
    others = endedChild(3);
    collecting.shepherd.addNoLock(own, nullptr);
  }
  int status = 0;
  EXPECT_TRUE(collecting.shepherd.wait(own, status));
  EXPECT_EQ(::waitpid(others, &status, 0), others);
  EXPECT_EQ(status, 3 << 8);
}

TEST(ShepherdTest, AWaitThatFailsIsReportedAndTriedAgain) {
  const auto result = inChild([] {
    const Refuse failing(Call::waitid, EINTR, {.times = 2});
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
    std::atomic<bool> isChildless{false};
    const Instead<Call::waitid> looking([&](idtype_t type, id_t id, siginfo_t* info, int options) {
      const int looked = real<Call::waitid>(type, id, info, options);
      if (looked == -1 && errno == ECHILD) isChildless = true;
      return looked;
    });
    Collecting collecting;
    const pid_t stolen = collecting.add(std::nullopt);
    {
      // Somebody else reaps it, so that the system knows no child while one is registered.
      const Shepherd::Guard guard(collecting.shepherd.condition());
      ::kill(stolen, SIGKILL);
      ::waitpid(stolen, nullptr, 0);
    }
    // Unless the collector had seen its end by then: that tells the status.
    int status = 0;
    const Milliseconds moment(0);
    const auto isKnown = [&] { return collecting.shepherd.wait(stolen, status, &moment); };
    if (!eventually([&] { return isChildless || isKnown(); })) return 1;
    // The next child is collected all the same.
    const pid_t pid = collecting.add(6);
    collecting.shepherd.wait(pid, status, nullptr);
    return WEXITSTATUS(status);
  });
  EXPECT_EQ(result.exitCode(), 6);
  EXPECT_THAT(result.err, testing::MatchesRegex("(process collector: Error waiting for childs ...\n){0,1}"));
}

TEST(ShepherdTest, ACollectorWhoseThreadIsRefusedIsNotKeptAndTheNextChildTriesAgain) {
  const auto result = inChild([] {
    Child child({"/bin/sh", "-c", "exit 5"});
    const Refuse failing(Call::pthread_create, EAGAIN, test::once);
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

TEST(ShepherdTest, AfterAnErrorOfWaitingNobodyIsToldOfTheEnd) {
  struct Told : Child::Notification {
    void exited(Child&) override { ++calls; }
    std::atomic<int> calls{0};
  } told;
  struct Asker : Child::Notification {
    void exited(Child&) override {
      answer.set_value(errorOf([this] { other->wait(); }));
    }
    Child* other = nullptr;
    std::promise<std::string> answer;
  } asker;
  auto forgotten = std::make_unique<Child>(std::list<std::string>{"/bin/sleep", "3600"});
  Child ended({"/bin/true"}), last({"/bin/true"});
  forgotten->setNotify(&told);
  forgotten->create();
  const pid_t pid = forgotten->pid();
  asker.other = forgotten.get();
  ended.setNotify(&asker);
  ended.create();
  EXPECT_EQ(asker.answer.get_future().get(), "need no lock but my result's not there?!");
  forgotten->setArguments({"/bin/true"});
  forgotten->create();
  forgotten->wait();
  forgotten.reset();
  EXPECT_EQ(told.calls, 1);
  last.create();  // so that the collector waits
  ::kill(pid, SIGKILL);
  EXPECT_TRUE(eventually([pid] { return ::kill(pid, 0) == -1; }));
  Child::exit();
  EXPECT_EQ(told.calls, 1);
}

}  // namespace
}  // namespace kes::proc
