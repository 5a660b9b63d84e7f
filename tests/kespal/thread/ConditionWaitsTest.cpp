// The waits of a condition by the monotonic clock, and those with a predicate.
#include <cerrno>
#include <chrono>
#include <thread>

#include "kespal/error/OsError.h"
#include "kespal/thread/Condition.h"
#include "kespal/thread/CppThread.h"
#include "kespal/thread/LockGuard.h"
#include "support/Calls.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"

namespace kes::thread {
namespace {

using namespace std::chrono_literals;
using namespace test;
using time::Milliseconds;
using time::MonotonicClock;
using time::RealtimeClock;

constexpr const char* header = "include/os/posix/thread/Condition";

class ConditionWaitsTest : public testing::Test {
 protected:
  void SetUp() override { time::ClockBase::init(); }

  /// Sets the flag as soon as somebody waits, which is when the lock is free.
  std::thread setWhenWaitedFor(bool& flag) {
    return std::thread([this, &flag] {
      const LockGuardT<Condition> guard(condition);
      flag = true;
      condition.signal();
    });
  }

  const Condition condition;
};

TEST_F(ConditionWaitsTest, ADeadlineOfTheMonotonicClockThatHasPassedEndsAWaitAtOnce) {
  const LockGuardT<Condition> guard(condition);
  EXPECT_FALSE(condition.waitTimed(MonotonicClock()));
  EXPECT_FALSE(condition.waitTimed(MonotonicClock() - 100s));
  EXPECT_FALSE(condition.waitTimed(MonotonicClock(MonotonicClock::time_point())));
}

TEST_F(ConditionWaitsTest, AWaitByTheMonotonicClockIsNeverOverBeforeItsDeadline) {
  const LockGuardT<Condition> guard(condition);
  for (int i = 0; i < 20; ++i) {
    const MonotonicClock deadline = MonotonicClock() + 3ms;
    while (condition.waitTimed(deadline)) {
    }
    EXPECT_GE(MonotonicClock(), deadline);
  }
}

TEST_F(ConditionWaitsTest, EachKindOfDeadlineIsWaitedForByItsOwnClock) {
  clockid_t clock = -1;
  timespec seen{}, calendar{};
  const Instead<Call::pthread_cond_clockwait> steady(
      [&](pthread_cond_t*, pthread_mutex_t*, clockid_t asked, const timespec* end) {
        return clock = asked, seen = *end, ETIMEDOUT;
      });
  const Instead<Call::pthread_cond_timedwait> wall(
      [&](pthread_cond_t*, pthread_mutex_t*, const timespec* end) { return calendar = *end, ETIMEDOUT; });
  const LockGuardT<Condition> guard(condition);
  EXPECT_FALSE(condition.waitTimed(MonotonicClock(MonotonicClock::time_point(7s + 8ns))));
  EXPECT_EQ(clock, CLOCK_MONOTONIC);
  EXPECT_TRUE(seen.tv_sec == 7 && seen.tv_nsec == 8);
  EXPECT_FALSE(condition.waitTimed(RealtimeClock(RealtimeClock::time_point(9s))));
  EXPECT_TRUE(calendar.tv_sec == 9 && calendar.tv_nsec == 0);
}

TEST_F(ConditionWaitsTest, MonotonicDeadlinesWithNanosecondsOutOfRangeAreAccepted) {
  const LockGuardT<Condition> guard(condition);
  const MonotonicClock start(MonotonicClock::time_point(1s));
  EXPECT_FALSE(condition.waitTimed(start - 1ms));
  EXPECT_FALSE(condition.waitTimed(MonotonicClock(MonotonicClock::time_point(999ms)) + 1ms));
}

TEST_F(ConditionWaitsTest, AFailingWaitByTheMonotonicClockReportsTheCodeThatWasReturned) {
  const LockGuardT<Condition> guard(condition);
  const MonotonicClock deadline;
  const Refuse fault(Call::pthread_cond_clockwait, EINVAL, once);
  errno = ENOENT;
  EXPECT_EQ(raisedBy([&] { condition.waitTimed(deadline); }), osError(EINVAL, header, 0, "waitTimed"));
}

TEST_F(ConditionWaitsTest, ASignalBeforeAMonotonicDeadlineWakesTheWaiter) {
  bool ready = false, woken = false;
  std::thread other;
  {
    const LockGuardT<Condition> guard(condition);
    other = setWhenWaitedFor(ready);
    const MonotonicClock deadline = MonotonicClock() + 1h;
    do woken = condition.waitTimed(deadline);
    while (woken && !ready);
  }
  other.join();
  EXPECT_TRUE(woken);
}

TEST_F(ConditionWaitsTest, WhatHoldsAlreadyIsNotWaitedFor) {
  const int waits = made(Call::pthread_cond_wait);
  const LockGuardT<Condition> guard(condition);
  condition.wait([] { return true; });
  EXPECT_TRUE(condition.waitTimed(MonotonicClock(), [] { return true; }));
  EXPECT_TRUE(condition.waitTimed(RealtimeClock(), [] { return true; }));
  EXPECT_TRUE(condition.waitFor(0ms, [] { return true; }));
  EXPECT_EQ(made(Call::pthread_cond_wait), waits);
}

TEST_F(ConditionWaitsTest, AWakingWithoutAReasonIsNotTheEndOfAWaitWithAPredicate) {
  int wakings = 0, asked = 0;
  const auto woken = [&] { return ++wakings, 0; };
  const Instead<Call::pthread_cond_wait> plain([&](pthread_cond_t*, pthread_mutex_t*) { return woken(); });
  const Instead<Call::pthread_cond_timedwait> wall(
      [&](pthread_cond_t*, pthread_mutex_t*, const timespec*) { return woken(); });
  const Instead<Call::pthread_cond_clockwait> steady(
      [&](pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*) { return woken(); });
  const auto thirdTime = [&] { return ++asked % 3 == 0; };
  const LockGuardT<Condition> guard(condition);
  condition.wait(thirdTime);
  EXPECT_EQ(wakings, 2);
  EXPECT_TRUE(condition.waitTimed(RealtimeClock(), thirdTime));
  EXPECT_TRUE(condition.waitTimed(MonotonicClock(), thirdTime));
  EXPECT_TRUE(condition.waitFor(1h, thirdTime));
  EXPECT_EQ(wakings, 8);
}

TEST_F(ConditionWaitsTest, WhatDoesNotHoldWhenTheTimeIsOverIsSaid) {
  const LockGuardT<Condition> guard(condition);
  const auto never = [] { return false; };
  const MonotonicClock start;
  EXPECT_FALSE(condition.waitTimed(RealtimeClock() + 5ms, never));
  EXPECT_FALSE(condition.waitTimed(MonotonicClock() + 5ms, never));
  EXPECT_FALSE(condition.waitFor(10ms, never));
  EXPECT_GE(MonotonicClock() - start, 15ms);
  EXPECT_FALSE(condition.waitFor(Milliseconds::min(), never));
}

TEST_F(ConditionWaitsTest, WhatHoldsAtLastWhenTheTimeIsOverCounts) {
  const LockGuardT<Condition> guard(condition);
  int asked = 0;
  EXPECT_TRUE(condition.waitTimed(MonotonicClock(), [&] { return ++asked == 2; }));
  EXPECT_EQ(asked, 2);
}

TEST_F(ConditionWaitsTest, ALimitMayBeAsLongAsItGets) {
  bool ready = false;
  std::thread other;
  {
    const LockGuardT<Condition> guard(condition);
    other = setWhenWaitedFor(ready);
    EXPECT_TRUE(condition.waitFor(Milliseconds::max(), [&] { return ready; }));
  }
  other.join();
}

TEST_F(ConditionWaitsTest, AConditionWakesWhoeverWaitsWithAPredicate) {
  bool ready = false;
  std::thread other;
  {
    const LockGuardT<Condition> guard(condition);
    other = setWhenWaitedFor(ready);
    condition.wait([&] { return ready; });
  }
  other.join();
}

TEST_F(ConditionWaitsTest, WhatAPredicateThrowsEndsTheWaitWithTheLockHeld) {
  Lock lock(ErrorCheck);
  const Condition lent(lock);
  {
    const LockGuardT<Condition> guard(lent);
    EXPECT_THROW(lent.wait([]() -> bool { throw 1; }), int);
    EXPECT_EQ(raisedBy([&] { lock.lock(); }).errnum, EDEADLK) << "it is still held";
  }
  EXPECT_TRUE(lock.tryLock());
  lock.unlock();
}

TEST_F(ConditionWaitsTest, AThreadThatIsCancelledInAWaitByTheMonotonicClockLeavesTheLockFree) {
  KES_SKIP_UNDER_SANITIZERS("loses its way in the stack of a cancelled thread");
  struct Waiting : CppThread::IThread {
    explicit Waiting(const Condition& own) : condition(own) {}
    void thread(CppThread&) override {
      const LockGuardT<Condition> guard(condition);
      waiting = true;
      condition.signalAll();
      condition.waitFor(1h, [] { return false; });
    }
    const Condition& condition;
    bool waiting = false;
  } body(condition);
  CppThread thread("waiting", &body);
  thread.run();
  {
    const LockGuardT<Condition> guard(condition);
    condition.wait([&] { return body.waiting; });
  }
  thread.kill();
  const LockGuardT<Condition> guard(condition);
}

}  // namespace
}  // namespace kes::thread
