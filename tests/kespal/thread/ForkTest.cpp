// Thread objects in a forked child, where their native threads do not exist.
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <thread>

#include "kespal/thread/Condition.h"
#include "kespal/thread/LockGuard.h"
#include "kespal/thread/NativeThreads.h"
#include "kespal/thread/Subject.h"
#include "kespal/thread/Thread.h"
#include "support/Calls.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/Gate.h"
#include "support/NoMemory.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"

namespace kes::thread {
namespace {

using namespace test;

using Body = std::function<void()>;

class TestThread : public BasicThread {
 public:
  explicit TestThread(Body& body, bool detached = false)
      : BasicThread([](void* argument) { (*static_cast<Body*>(argument))(); }, "fork", &body, detached, 0) {}
};

/// In a child that does not live long enough to be waited for if it hangs.
ChildResult inBriefChild(const std::function<int()>& body) {
  return inChild([&] {
    ::alarm(120);
    return body();
  });
}

class ForkTest : public testing::TestWithParam<Life> {
 protected:
  void SetUp() override {
    KES_SKIP_UNDER_THREAD_SANITIZER("does not follow threads that a fork left behind");
    subject_.emplace(GetParam());
  }

  BasicThread& thread() { return subject_->thread(); }

  std::optional<Subject> subject_;
};

TEST_P(ForkTest, TheObjectCanBeDestroyedInTheChild) {
  const ChildResult child = inBriefChild([&] {
    const NoMemory starving;
    subject_->destroy();
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal() << child.err;
}

TEST_P(ForkTest, JoiningAndKillingInTheChildWaitForNothingAndRaiseNothing) {
  const ChildResult child = inBriefChild([&] {
    const NoMemory starving;
    thread().join();
    thread().kill();
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal() << child.err;
}

TEST_P(ForkTest, TheThreadIsBuriedInTheChildAndCanBeStartedAnew) {
  if (isSanitized && (GetParam() == Life::Created || GetParam() == Life::Starting)) {
    GTEST_SKIP() << "a sanitizer leaves a lock of its own taken in a fork while a thread starts";
  }
  const ChildResult child = inBriefChild([&] {
    subject_->openAll();  // the child's thread may meet gates that the parent's has not passed yet
    const int before = subject_->ran();
    const bool buried = thread().state() == BasicThread::BURIED && BasicThread::activeThreads() == 0;
    thread().run();
    if (GetParam() < Life::HeldDetached) thread().join();
    const bool ran =
        eventually([&] { return subject_->ran() == before + 1 && BasicThread::activeThreads() == 0; });
    return buried && ran && thread().name() == "subject" ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal() << child.err;
}

TEST_P(ForkTest, ALockThatNobodyHoldsInTheChildIsNotWaitedFor) {
  Gate held, release;
  const After holding(Call::pthread_mutex_lock, [&] {
    held.open();
    release.pass();
  });
  std::thread holder([&] { thread().state(); });
  held.pass();
  const ChildResult child = inBriefChild([&] {
    subject_->openAll();  // the child's thread may meet gates that the parent's has not passed yet
    thread().join();
    thread().kill();
    thread().run();
    subject_->destroy();
    return 0;
  });
  release.open();
  holder.join();
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal() << child.err;
}

constexpr const char* names[] = {"Buried",   "Created",      "Starting",       "Running",
                                 "Finished", "HeldDetached", "RunningDetached"};

INSTANTIATE_TEST_SUITE_P(EveryState, ForkTest,
                         testing::Values(Life::Buried, Life::Created, Life::Starting, Life::Running,
                                         Life::Finished, Life::HeldDetached, Life::RunningDetached),
                         [](const auto& test) { return names[static_cast<int>(test.param)]; });

struct Pauser : CoopThread::ICoopThread {
  void thread(CoopThread& self) override {
    while (self.request() != CoopThread::Return) self.pause();
  }
};

TEST(CoopForkTest, ACooperativeThreadIsBuriedInTheChildAndObeysThereOnceItIsStartedAnew) {
  KES_SKIP_UNDER_THREAD_SANITIZER("does not follow threads that a fork left behind");
  Pauser body;
  CoopThread coop("coop", &body);
  coop.requestPause();
  coop.run();
  coop.waitPaused();
  const ChildResult child = inBriefChild([&] {
    coop.waitReturned();
    std::cout << raisedBy([&] { coop.waitPaused(); }).text << ", " << coop.request() << coop.coopState();
    coop.requestPause();
    coop.run();
    coop.waitPaused();
    coop.requestReturn();
    coop.join();
    return 0;
  });
  EXPECT_EQ(child.out, "Thread is already buried, 00");
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal() << child.err;
  EXPECT_EQ(coop.coopState(), CoopThread::Paused);  // the parent's thread knows nothing of it
  coop.requestReturn();
  coop.join();
}

TEST(CoopForkTest, SeveralThreadsOfTheChildMayBeTheFirstToUseAnObject) {
  KES_SKIP_UNDER_THREAD_SANITIZER("does not follow threads that a fork left behind");
  Pauser body;
  CoopThread coop("coop", &body);
  for (int i = 0; i < 20; ++i) {
    const ChildResult child = inBriefChild([&] {
      std::vector<std::thread> users;
      std::atomic<int> runs{0};
      Gate go;
      for (int j = 0; j < 4; ++j) {
        users.emplace_back([&] {
          go.pass();
          coop.requestReturn();
          if (raisedBy([&] { coop.run(); }).type.empty()) ++runs;
        });
      }
      go.open();
      for (std::thread& user : users) user.join();
      coop.requestReturn();
      coop.join();
      return runs.load();
    });
    ASSERT_EQ(child.exitCode(), 1) << "signal " << child.signal() << child.err;
  }
}

TEST(ConditionForkTest, AConditionThatSomebodyOfTheParentWaitsForCanBeDestroyedInTheChild) {
  KES_SKIP_UNDER_THREAD_SANITIZER("does not follow threads that a fork left behind");
  auto condition = std::make_unique<Condition>();
  bool isOver = false;
  std::atomic<bool> waits{false};
  std::thread waiter([&] {
    const LockGuardT<Condition> guard(*condition);
    waits = true;
    while (!isOver) condition->wait();
  });
  EXPECT_TRUE(eventually([&] { return waits.load(); }));
  ChildResult child;
  {
    const LockGuardT<Condition> guard(*condition);  // which the waiter has given up for its wait
    child = inBriefChild([&] {
      condition->unlock();
      condition.reset();
      return 7;
    });
    isOver = true;
    condition->signalAll();
  }
  waiter.join();
  EXPECT_EQ(child.exitCode(), 7);
  EXPECT_EQ(child.err, "");
}

TEST(CoopForkTest, AThreadThatForksEndsInTheChildAsInTheParent) {
  KES_SKIP_UNDER_SANITIZERS("watches how a thread ends a process");
  std::atomic<pid_t> pid{0};
  Body body = [&] {
    pid = ::fork();
    if (pid == 0) ::alarm(120);
  };
  TestThread thread(body);
  thread.run();
  thread.join();
  int status = -1;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_EQ(status, 0);  // its only thread has returned
  EXPECT_TRUE(aloneInTheEnd());
}

TEST(CoopForkTest, ACooperativeThreadThatForksEndsInTheChildAlthoughAnotherHeldItsLock) {
  KES_SKIP_UNDER_SANITIZERS("watches how a thread ends a process");
  struct Forker : CoopThread::ICoopThread {
    void thread(CoopThread&) override {
      start.pass();
      pid = ::fork();
      if (pid == 0) ::alarm(120);
    }
    Gate start;
    std::atomic<pid_t> pid{0};
  } body;
  CoopThread coop("coop", &body);
  coop.run();
  coop.id();
  Gate held, release;
  const After holding(Call::pthread_mutex_lock, [&] {
    held.open();
    release.pass();
  });
  std::thread holder([&] { coop.request(); });
  held.pass();
  body.start.open();
  EXPECT_TRUE(eventually([&] { return body.pid != 0; }));
  release.open();
  holder.join();
  coop.join();
  int status = -1;
  ASSERT_EQ(::waitpid(body.pid, &status, 0), body.pid);
  EXPECT_EQ(status, 0);  // its only thread has returned
}

/// Makes a child without the fork handlers, of which nobody tells the library.
template <typename Body>
int exitOfSilentChild(Body body) {
  const auto pid = static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
  if (pid == 0) {
    ::alarm(120);
    ::_exit(body());
  }
  int status = -1;
  ::waitpid(pid, &status, 0);
  return status;
}

TEST_P(ForkTest, AChildOfWhichNobodyTellsMayEndTheThreadAsAnyOther) {
  for (const bool destroying : {false, true}) {
    EXPECT_EQ(exitOfSilentChild([&] {
                if (destroying) {
                  subject_->destroy();
                  return 0;
                }
                thread().join();
                thread().kill();
                return thread().state() == BasicThread::BURIED ? 0 : 1;
              }),
              0);
  }
}

TEST(CoopForkTest, AChildOfAChildHasAThreadOfItsOwnAgain) {
  KES_SKIP_UNDER_THREAD_SANITIZER("does not follow threads that a fork left behind");
  Pauser body;
  CoopThread coop("coop", &body);
  const auto runsAndReturns = [&] {
    coop.requestPause();
    coop.run();
    coop.waitPaused();
    return 0;
  };
  runsAndReturns();
  const ChildResult child = inBriefChild([&] {
    runsAndReturns();
    return inBriefChild([&] { return runsAndReturns(); }).exitCode();
  });
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal() << child.err;
  coop.requestReturn();
  coop.join();
}

}  // namespace
}  // namespace kes::thread
