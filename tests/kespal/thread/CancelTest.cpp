// Cancelling a thread at every kind of wait. The thread sanitizer does not follow cancelled threads, so
// there these tests are left out.
#include <poll.h>
#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <future>
#include <memory>

#include "kespal/signal/Handler.h"
#include "kespal/signal/Mask.h"
#include "kespal/signal/Sender.h"
#include "kespal/thread/Condition.h"
#include "kespal/thread/LockGuard.h"
#include "kespal/thread/NativeThreads.h"
#include "kespal/thread/Thread.h"
#include "support/Calls.h"
#include "support/Eventually.h"
#include "support/Gate.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"

namespace kes::thread {
namespace {

using namespace test;
using time::Milliseconds;
using time::RealtimeClock;

constexpr const char* osSource = "src/os/posix/thread/Thread";

RealtimeClock farAway() {
  RealtimeClock clock;
  clock += Milliseconds(600'000);
  return clock;
}

using Body = std::function<void()>;

class TestThread : public BasicThread {
 public:
  explicit TestThread(Body& body, bool detached = false)
      : BasicThread([](void* argument) { (*static_cast<Body*>(argument))(); }, "cancel", &body, detached, 0) {
  }
};

class TestCoop : public CoopThread, public CoopThread::ICoopThread {
 public:
  explicit TestCoop(std::function<void(CoopThread&)> body)
      : CoopThread("cancel", nullptr, this), body_(std::move(body)) {}
  using CoopThread::thread;
  void thread(CoopThread& self) override { body_(self); }

 private:
  std::function<void(CoopThread&)> body_;
};

class CancelTest : public testing::Test {
 protected:
  void SetUp() override {
    KES_SKIP_UNDER_THREAD_SANITIZER("does not follow cancelled threads");
    time::ClockBase::init();
  }

  static void expectBuried(BasicThread& thread) {
    EXPECT_EQ(thread.state(), BasicThread::BURIED);
    EXPECT_EQ(BasicThread::activeThreads(), 0);
  }

  /// Kills a thread once its body waits in a call that it makes last.
  static void killInCall(Call call, Body body) {
    TestThread thread(body);
    const int before = made(call);
    const std::int64_t others = BasicThread::activeThreads();
    thread.run();
    ASSERT_TRUE(eventually([&] { return made(call) > before; }));
    thread.kill();
    EXPECT_EQ(thread.state(), BasicThread::BURIED);
    EXPECT_EQ(BasicThread::activeThreads(), others);
  }
};

TEST_F(CancelTest, AThreadThatIsHeldBeforeItsBodyIsKilledWithoutRunningIt) {
  int ran = 0;
  Body body = [&] { ++ran; };
  TestThread thread(body);
  thread.create();
  thread.kill();
  expectBuried(thread);
  EXPECT_EQ(ran, 0);
}

TEST_F(CancelTest, AThreadThatWaitsForItsGoIsKilledThere) {
  // The native thread waits on its condition before the thread is killed.
  int ran = 0;
  Body body = [&] { ++ran; };
  TestThread thread(body);
  const int before = made(Call::pthread_cond_wait);
  thread.create();
  ASSERT_TRUE(eventually([&] { return made(Call::pthread_cond_wait) > before; }));
  thread.kill();
  expectBuried(thread);
  EXPECT_EQ(ran, 0);
}

TEST_F(CancelTest, AKilledBodyReleasesItsLocksAndItsObjects) {
  Lock lock(ErrorCheck);
  const Condition condition(lock);
  auto held = std::make_shared<int>(1);
  killInCall(Call::pthread_cond_wait, [&, held] {
    const auto copy = held;  // NOLINT(performance-unnecessary-copy-initialization): the object of the body
    const LockGuardT<Condition> guard(condition);
    for (;;) condition.wait();
  });
  EXPECT_NO_THROW(lock.lock());
  EXPECT_NO_THROW(lock.unlock());
  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(CancelTest, ATimedWaitIsKilled) {
  const Condition condition;
  killInCall(Call::pthread_cond_timedwait, [&] {
    const LockGuardT<Condition> guard(condition);
    while (condition.waitTimed(farAway())) {
    }
  });
  EXPECT_NO_THROW(condition.lock());
  condition.unlock();
}

TEST_F(CancelTest, AWaitForASignalIsKilled) {
  signal::Mask::call({SIGUSR2}, SIG_BLOCK);
  killInCall(Call::sigwait, [] {
    int signal = 0;
    ::sigwait(&signal::Set{SIGUSR2}.native(), &signal);
  });
}

TEST_F(CancelTest, AWaitForADescriptorIsKilled) {
  std::atomic<bool> inside{false};
  Body body = [&] {
    inside = true;
    ::poll(nullptr, 0, -1);
  };
  TestThread thread(body);
  thread.run();
  ASSERT_TRUE(eventually([&] { return inside.load(); }));
  thread.kill();
  expectBuried(thread);
}

TEST_F(CancelTest, AThreadThatJoinsAnotherIsKilledAndTheOtherCanStillBeJoined) {
  KES_SKIP_UNDER_SANITIZERS("loses track of the stack of a thread that a cancellation unwinds");
  Gate gate;
  Body stay = [&] { gate.pass(); };
  TestThread other(stay);
  other.run();
  Body body = [&] { other.join(); };
  TestThread joiner(body);
  const int before = made(Call::pthread_join);
  joiner.run();
  ASSERT_TRUE(eventually([&] { return made(Call::pthread_join) > before; }));
  ASSERT_TRUE(eventually([&] { return other.state() == BasicThread::RUNNING; }));
  joiner.kill();
  EXPECT_EQ(joiner.state(), BasicThread::BURIED);
  EXPECT_EQ(other.state(), BasicThread::RUNNING);
  gate.open();
  other.join();
  expectBuried(other);
}

TEST_F(CancelTest, AThreadThatWaitsForAnotherJoinerIsKilled) {
  Gate gate;
  Body stay = [&] { gate.pass(); };
  TestThread other(stay);
  other.run();
  auto first = std::async(std::launch::async, [&] { other.join(); });
  ASSERT_TRUE(eventually([] { return made(Call::pthread_join) > 0; }));
  const int before = made(Call::pthread_cond_wait);
  Body body = [&] { other.join(); };
  TestThread joiner(body);
  joiner.run();
  joiner.waitStartOver();
  ASSERT_TRUE(eventually([&] { return made(Call::pthread_cond_wait) > before; }));
  joiner.kill();
  gate.open();
  first.get();
  expectBuried(other);
}

TEST_F(CancelTest, APausedCooperativeThreadIsKilledAndItsWaitersAreWoken) {
  TestCoop coop([](CoopThread& self) { self.pause(); });
  coop.requestPause();
  coop.run();
  coop.waitPaused();
  const int waits = made(Call::pthread_cond_wait);
  auto returned = std::async(std::launch::async, [&] { coop.waitReturned(); });
  auto running = std::async(std::launch::async, [&] { return raisedBy([&] { coop.waitRunning(); }); });
  ASSERT_TRUE(eventually([&] { return made(Call::pthread_cond_wait) >= waits + 2; }));
  coop.kill();
  returned.get();
  EXPECT_EQ(running.get(), usageError("CoopThread has returned", "src/thread/Thread", 277, "waitRunning"));
  expectBuried(coop);
}

TEST_F(CancelTest, ASleepingCooperativeThreadIsKilledAndCanRunAgain) {
  TestCoop coop([](CoopThread& self) { self.sleep(farAway()); });
  for (int i = 0; i < 20; ++i) {
    coop.run();
    coop.waitPaused();
    coop.kill();
    EXPECT_EQ(coop.coopState(), CoopThread::Running);
    EXPECT_EQ(coop.request(), CoopThread::Run);
  }
  expectBuried(coop);
}

TEST_F(CancelTest, ACooperativeThreadThatWaitsForAnotherIsKilledInEachWait) {
  TestCoop other([](CoopThread& self) { self.pause(); });
  other.requestPause();
  other.run();
  other.waitPaused();
  killInCall(Call::pthread_cond_wait, [&] { other.waitRunning(); });
  killInCall(Call::pthread_cond_wait, [&] { other.waitReturned(); });
  EXPECT_EQ(BasicThread::activeThreads(), 1);
  other.requestReturn();
  other.join();
}

TEST_F(CancelTest, ABodyThatRethrowsWhatItDoesNotKnowIsUnwoundToTheEnd) {
  bool passed = false;
  std::atomic<bool> inside{false};
  Body body = [&] {
    try {
      inside = true;
      ::poll(nullptr, 0, -1);
    } catch (...) {
      passed = true;
      throw;
    }
  };
  TestThread thread(body);
  thread.run();
  ASSERT_TRUE(eventually([&] { return inside.load(); }));
  thread.kill();
  EXPECT_TRUE(passed);
  expectBuried(thread);
}

TEST_F(CancelTest, AThreadThatTheSystemHasNoKeyForIsCountedDownWhenItIsKilled) {
  std::atomic<bool> inside{false};
  Body body = [&] {
    inside = true;
    ::poll(nullptr, 0, -1);
  };
  TestThread thread(body);
  const Refuse fault(Call::pthread_setspecific, ENOMEM);
  thread.run();
  ASSERT_TRUE(eventually([&] { return inside.load(); }));
  EXPECT_TRUE(fault.struck());
  thread.kill();
  expectBuried(thread);
}

TEST_F(CancelTest, AFinishedThreadIsJustBuried) {
  Body body = [] {};
  TestThread thread(body);
  thread.run();
  ASSERT_TRUE(eventually([&] { return thread.state() == BasicThread::FINISHED; }));
  const int before = made(Call::pthread_cancel);
  thread.kill();
  EXPECT_EQ(made(Call::pthread_cancel), before);
  expectBuried(thread);
}

TEST_F(CancelTest, ACancellationThatTheSystemRefusesIsRaisedAndLeavesTheThreadAlone) {
  Gate gate;
  Body body = [&] { gate.pass(); };
  TestThread thread(body);
  thread.run();
  {
    const Refuse fault(Call::pthread_cancel, ESRCH, once);
    EXPECT_EQ(raisedBy([&] { thread.kill(); }), osError(ESRCH, osSource, 225, "kill"));
  }
  thread.waitStartOver();
  EXPECT_EQ(thread.state(), BasicThread::RUNNING);
  gate.open();
  thread.join();
}

TEST_F(CancelTest, SeveralThreadsMayKillOneThreadAtOnce) {
  for (int i = 0; i < 50; ++i) {
    Body body = [] { ::poll(nullptr, 0, -1); };
    TestThread thread(body);
    thread.run();
    std::vector<std::thread> killers;
    for (int j = 0; j < 3; ++j) killers.emplace_back([&] { thread.kill(); });
    for (std::thread& killer : killers) killer.join();
    expectBuried(thread);
  }
}

TEST_F(CancelTest, AThreadMayBeKilledWhileItReports) {
  testing::internal::CaptureStderr();
  for (int i = 0; i < 100; ++i) {
    Body body = [] { throw 7; };
    TestThread thread(body);
    thread.run();
    thread.kill();
    expectBuried(thread);
  }
  const std::string printed = testing::internal::GetCapturedStderr();
  std::size_t lines = 0;
  for (std::size_t at = 0; (at = printed.find(" died with an unknown exception\n", at)) != std::string::npos;
       ++at) {
    ++lines;
  }
  EXPECT_LE(lines, 100u);
  EXPECT_TRUE(std::cerr.good());
}

TEST_F(CancelTest, ADetachedThreadIsKilledThoughItCannotBeJoined) {
  Gate gate;
  Body body = [&] {
    gate.pass();
    ::poll(nullptr, 0, -1);
  };
  TestThread thread(body, /*detached=*/true);
  thread.run();
  thread.waitStartOver();
  EXPECT_EQ(raisedBy([&] { thread.kill(); }),
            usageError("Tried to join a detached thread", "src/thread/Thread", 199, "prepareJoin"));
  gate.open();
  EXPECT_TRUE(eventually([] { return BasicThread::activeThreads() == 0; }));
}

TEST_F(CancelTest, ADetachedThreadThatIsKilledBeforeItsGoLeavesNobodyWaiting) {
  Body body = [] {};
  TestThread thread(body, /*detached=*/true);
  thread.create();
  EXPECT_EQ(raisedBy([&] { thread.kill(); }), osError(EINVAL, osSource, 190, "join"));
  EXPECT_TRUE(eventually([] { return BasicThread::activeThreads() == 0; }));
  EXPECT_EQ(thread.state(), BasicThread::FINISHED);
}

TEST_F(CancelTest, ACancellationDuringANotificationEndsTheSignalThreadAndNothingElse) {
  // A thread of an earlier test may be on its way out still, and would take the signal.
  ASSERT_TRUE(aloneInTheEnd());
  signal::Mask::call({SIGUSR1, SIGTERM}, SIG_BLOCK);
  struct Notifier : signal::Handler::INotify {
    void notify(const int&, const siginfo_t&) override {
      ::pthread_cancel(::pthread_self());
      ::pthread_testcancel();
    }
  } notifier;
  signal::Handler handler;
  handler.add(SIGTERM, notifier);
  handler.start(SIGUSR1);
  testing::internal::CaptureStderr();
  signal::Sender::signalProc(SIGTERM, ::getpid());
  EXPECT_TRUE(eventually([] { return BasicThread::activeThreads() == 0; }));
  handler.stop();  // its lock was released
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace kes::thread
