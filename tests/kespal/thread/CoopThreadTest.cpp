#include "kespal/thread/CoopThread.h"

#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "kespal/error/StaticError.h"
#include "support/Calls.h"
#include "support/Eventually.h"
#include "support/Gate.h"
#include "support/Raised.h"

namespace kes::thread {
namespace {

using namespace test;
using time::Milliseconds;
using time::RealtimeClock;

constexpr const char* source = "src/thread/Thread";

RealtimeClock in(Milliseconds duration) {
  RealtimeClock clock;
  clock += duration;
  return clock;
}

/// A cooperative thread whose body is a function object.
class TestCoop : public CoopThread, public CoopThread::ICoopThread {
 public:
  explicit TestCoop(std::function<void(CoopThread&)> body)
      : CoopThread("coop", nullptr, this), body_(std::move(body)) {}
  void thread(CoopThread& self) override { body_(self); }

  using CoopThread::requestPauseIfRun;
  using CoopThread::thread;

 private:
  std::function<void(CoopThread&)> body_;
};

class CoopThreadTest : public testing::Test {
 protected:
  void SetUp() override { time::ClockBase::init(); }
};

/// A body that pauses when it is asked to, and returns when it is asked to.
void obey(CoopThread& self) {
  while (self.request() != CoopThread::Return) {
    self.pause();
    std::this_thread::yield();
  }
}

TEST_F(CoopThreadTest, PausesRunsOnAndReturnsAsItIsAsked) {
  TestCoop coop(obey);
  coop.run();
  for (int i = 0; i < 100; ++i) {
    coop.requestPause();
    coop.waitPaused();
    EXPECT_EQ(coop.coopState(), CoopThread::Paused);
    coop.requestRun();
    coop.waitRunning();
    EXPECT_EQ(coop.coopState(), CoopThread::Running);
  }
  coop.requestReturn();
  coop.waitReturned();
  EXPECT_EQ(coop.coopState(), CoopThread::Returned);
  coop.join();
}

TEST_F(CoopThreadTest, RunsItsUserRatherThanItself) {
  struct User : CoopThread::ICoopThread {
    void thread(CoopThread& self) override { seen = &self; }
    CoopThread* seen = nullptr;
  } user;
  CoopThread coop("coop", &user);
  coop.run();
  coop.join();
  EXPECT_EQ(user.seen, &coop);
}

TEST_F(CoopThreadTest, ARequestMadeBeforeTheRunIsNotLost) {
  std::vector<CoopThread::Request> seen;
  TestCoop coop([&](CoopThread& self) { seen.push_back(self.request()); });
  coop.requestReturn();
  coop.run();
  coop.join();
  coop.requestPause();
  coop.run();
  coop.join();
  EXPECT_EQ(seen, (std::vector{CoopThread::Return, CoopThread::Pause}));
}

TEST_F(CoopThreadTest, BuryingTheThreadForgetsWhatWasAskedOfIt) {
  TestCoop coop(obey);
  coop.run();
  coop.requestReturn();
  coop.join();
  EXPECT_EQ(coop.request(), CoopThread::Run);
  EXPECT_EQ(coop.coopState(), CoopThread::Running);
  coop.run();
  coop.requestPause();
  coop.waitPaused();  // a left-over request to return would have ended the second run
  coop.requestReturn();
  coop.join();
}

TEST_F(CoopThreadTest, ThePauseThatAThreadAsksOfItselfDoesNotOverwriteOtherRequests) {
  TestCoop coop(obey);
  EXPECT_TRUE(coop.requestPauseIfRun());
  EXPECT_EQ(coop.request(), CoopThread::Pause);
  EXPECT_TRUE(coop.requestPauseIfRun());
  coop.requestReturn();
  EXPECT_FALSE(coop.requestPauseIfRun());
  EXPECT_EQ(coop.request(), CoopThread::Return);
}

TEST_F(CoopThreadTest, AThreadMayAskItselfToPauseAndWaitToBeWoken) {
  TestCoop coop([](CoopThread& self) {
    self.requestPause();
    self.pause();
  });
  coop.run();
  coop.waitPaused();
  coop.requestRun();
  coop.waitReturned();
  coop.join();
}

TEST_F(CoopThreadTest, NobodyCanWaitForOneself) {
  std::vector<Raised> raised;
  TestCoop coop([&](CoopThread& self) {
    raised.push_back(raisedBy([&] { self.waitRunning(); }));
    raised.push_back(raisedBy([&] { self.waitPaused(); }));
    raised.push_back(raisedBy([&] { self.waitReturned(); }));
  });
  coop.run();
  coop.join();
  EXPECT_EQ(raised, (std::vector{
                        usageError("Can't wait on myself to enter running state", source, 265, "waitRunning"),
                        usageError("Can't wait on myself to pause", source, 309, "waitPaused"),
                        usageError("Can't wait on myself to return", source, 289, "waitReturned")}));
}

TEST_F(CoopThreadTest, ASleepWhoseDeadlineHasPassedIsOverAfterOneTimedWait) {
  bool woken = true;
  TestCoop coop([&](CoopThread& self) { woken = self.sleep(RealtimeClock()); });
  const int before = made(Call::pthread_cond_timedwait);
  coop.run();
  coop.join();
  EXPECT_FALSE(woken);
  EXPECT_EQ(made(Call::pthread_cond_timedwait), before + 1);
}

TEST_F(CoopThreadTest, ASleepWithARequestPendingIsOverBeforeItBegan) {
  for (const bool pause : {true, false}) {
    bool woken = true;
    TestCoop coop([&](CoopThread& self) { woken = self.sleep(in(Milliseconds(60'000))); });
    pause ? coop.requestPause() : coop.requestReturn();
    const int before = made(Call::pthread_cond_timedwait);
    coop.run();
    coop.join();
    EXPECT_FALSE(woken);
    EXPECT_EQ(made(Call::pthread_cond_timedwait), before);
  }
}

TEST_F(CoopThreadTest, ARequestToReturnCutsASleepShort) {
  bool woken = false;
  CoopThread::CoopState after{};
  TestCoop coop([&](CoopThread& self) {
    woken = self.sleep(in(Milliseconds(600'000)));
    after = self.coopState();
  });
  coop.run();
  coop.waitPaused();
  coop.requestReturn();
  coop.join();
  EXPECT_TRUE(woken);
  EXPECT_EQ(after, CoopThread::Running);
}

TEST_F(CoopThreadTest, ARequestToRunWakesASleeperThatSleepsOn) {
  bool woken = false;
  TestCoop coop([&](CoopThread& self) { woken = self.sleep(in(Milliseconds(600'000))); });
  const int before = made(Call::pthread_cond_timedwait);
  coop.run();
  coop.waitPaused();
  coop.requestRun();
  EXPECT_TRUE(eventually([&] { return made(Call::pthread_cond_timedwait) >= before + 2; }));
  EXPECT_EQ(coop.coopState(), CoopThread::Paused);
  coop.requestReturn();
  coop.join();
  EXPECT_TRUE(woken);
}

TEST_F(CoopThreadTest, ARequestToPauseWakesNobodySoThatASleepRunsToItsDeadline) {
  // A busy machine may let a sleep pass before the request is made; then a longer one is tried.
  for (Milliseconds length(200);; length *= 2) {
    ASSERT_LT(length, Milliseconds(60'000));
    bool woken = true;
    const RealtimeClock deadline = in(length);
    TestCoop coop([&](CoopThread& self) { woken = self.sleep(deadline); });
    const int before = made(Call::pthread_cond_timedwait);
    coop.run();
    const bool asleep = raisedBy([&] { coop.waitPaused(); }) == Raised();
    const int wakeUps = made(Call::pthread_cond_broadcast) + made(Call::pthread_cond_signal);
    coop.requestPause();
    const int wakeUpsThen = made(Call::pthread_cond_broadcast) + made(Call::pthread_cond_signal);
    const bool inTime = asleep && coop.coopState() == CoopThread::Paused;
    coop.waitReturned();
    coop.join();
    EXPECT_FALSE(woken);
    if (!inTime) continue;
    EXPECT_EQ(wakeUpsThen, wakeUps);
    EXPECT_EQ(made(Call::pthread_cond_timedwait), before + 1);
    break;
  }
}

TEST_F(CoopThreadTest, ASleeperThatIsWokenAfterARequestToPauseTellsThatItWasCutShort) {
  bool woken = false;
  TestCoop coop([&](CoopThread& self) { woken = self.sleep(in(Milliseconds(600'000))); });
  coop.run();
  coop.waitPaused();
  // The wake-up comes of a request to run, which is replaced by one to pause, as a rule before the sleeper
  // can look at it.
  while (coop.coopState() == CoopThread::Paused) {
    coop.requestRun();
    coop.requestPause();
  }
  coop.join();
  EXPECT_TRUE(woken);
}

TEST_F(CoopThreadTest, ABodyThatThrowsWakesWhoWaitsForItsReturn) {
  testing::internal::CaptureStderr();
  Gate gate;
  TestCoop coop([&](CoopThread&) {
    gate.pass();
    throw std::runtime_error("x");
  });
  coop.run();
  auto returned = std::async(std::launch::async, [&] { coop.waitReturned(); });
  auto paused = std::async(std::launch::async, [&] { return raisedBy([&] { coop.waitPaused(); }); });
  gate.open();
  returned.get();
  EXPECT_EQ(paused.get(), usageError("CoopThread has returned", source, 321, "waitPaused"));
  coop.join();
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("died with std::exception: x\n"));
}

TEST_F(CoopThreadTest, ThreeWaitersAreAllWokenByOneChange) {
  const auto three = [](auto wait) {
    std::vector<std::future<void>> waiters;
    for (int i = 0; i < 3; ++i) waiters.push_back(std::async(std::launch::async, wait));
    return waiters;
  };
  for (int i = 0; i < 50; ++i) {
    TestCoop coop(obey);
    coop.run();
    auto paused = three([&] { coop.waitPaused(); });
    coop.requestPause();
    for (auto& waiter : paused) waiter.get();
    auto running = three([&] { coop.waitRunning(); });
    coop.requestRun();
    for (auto& waiter : running) waiter.get();
    auto returned = three([&] { coop.waitReturned(); });
    coop.requestReturn();
    for (auto& waiter : returned) waiter.get();
    coop.join();
  }
}

TEST_F(CoopThreadTest, WaitersOfARunThatWasBuriedMeanwhileAreNotLeftToTheNextRun) {
  for (int i = 0; i < 200; ++i) {
    TestCoop coop(obey);
    coop.run();
    std::vector<std::future<void>> waiters;
    for (int j = 0; j < 3; ++j) {
      waiters.push_back(std::async(std::launch::async, [&] {
        try {
          coop.waitReturned();
        } catch (const RuntimeError&) {
          // It came between the creation and the go of the second run.
        }
      }));
    }
    coop.requestReturn();
    coop.join();
    coop.run();  // the next run begins before the waiters have looked
    coop.requestReturn();
    for (auto& waiter : waiters) waiter.get();
    coop.join();
  }
}

TEST_F(CoopThreadTest, TheObjectMayBeDestroyedAsSoonAsAWaiterKnowsThatTheBodyHasReturned) {
  for (int i = 0; i < 300; ++i) {
    auto coop = std::make_unique<TestCoop>(obey);
    coop->run();
    coop->requestReturn();
    coop->waitReturned();
    coop.reset();
  }
}

}  // namespace
}  // namespace kes::thread
