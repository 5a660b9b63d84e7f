#include "kespal/thread/Condition.h"

#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>

#include "kespal/error/OsError.h"
#include "kespal/thread/LockGuard.h"
#include "support/Calls.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"

namespace kes::thread {
namespace {

using namespace test;
using time::Milliseconds;
using time::RealtimeClock;

constexpr const char* source = "src/os/posix/thread/Condition";
constexpr const char* header = "include/os/posix/thread/Condition";

class ConditionTest : public testing::Test {
 protected:
  void SetUp() override { time::ClockBase::init(); }

  static RealtimeClock in(Milliseconds duration) {
    RealtimeClock clock;
    clock += duration;
    return clock;
  }
};

TEST_F(ConditionTest, EachFailingCallOfTheConstructorIsReportedWithItsCodeAndLine) {
  const auto construct = [] { Condition condition; };
  {
    const Refuse fault(Call::pthread_condattr_init, ENOMEM, once);
    EXPECT_EQ(raisedBy(construct), osError(ENOMEM, source, 35, "init"));
  }
  {
    const Refuse fault(Call::pthread_cond_init, EAGAIN, once);
    EXPECT_EQ(raisedBy(construct), osError(EAGAIN, source, 53, "init"));
  }
  {
    const Refuse fault(Call::pthread_condattr_destroy, EINVAL, once);
    EXPECT_EQ(raisedBy(construct), osError(EINVAL, source, 58, "init"));
  }
}

TEST_F(ConditionTest, AConstructorThatFailsReleasesWhatItHad) {
  for (const Call call :
       {Call::pthread_condattr_init, Call::pthread_cond_init, Call::pthread_condattr_destroy}) {
    const int locks = made(Call::pthread_mutex_destroy), conditions = made(Call::pthread_cond_destroy);
    const int attributes = made(Call::pthread_condattr_destroy);
    const Refuse fault(call, EINVAL, once);
    EXPECT_THROW(Condition(), OsError);
    EXPECT_EQ(made(Call::pthread_mutex_destroy), locks + 1) << "its own lock";
    EXPECT_EQ(made(Call::pthread_cond_destroy),
              conditions + (call == Call::pthread_condattr_destroy ? 1 : 0));
    EXPECT_EQ(made(Call::pthread_condattr_destroy),
              attributes + (call == Call::pthread_condattr_init ? 0 : 1));
  }
}

TEST_F(ConditionTest, OperationsReportTheCodeThatWasReturned) {
  const Condition condition;
  const RealtimeClock deadline;
  const auto failing = [&](Call call, int error, auto operation) {
    errno = ENOENT;
    return raisedBy([&] {
      const LockGuardT<Condition> guard(condition);
      const Refuse fault(call, error, once);
      operation();
    });
  };
  EXPECT_EQ(failing(Call::pthread_cond_signal, EINVAL, [&] { condition.signal(); }),
            osError(EINVAL, header, 22, "signal"));
  EXPECT_EQ(failing(Call::pthread_cond_broadcast, EINVAL, [&] { condition.signalAll(); }),
            osError(EINVAL, header, 32, "signalAll"));
  EXPECT_EQ(failing(Call::pthread_cond_wait, EPERM, [&] { condition.wait(); }),
            osError(EPERM, header, 42, "wait"));
  EXPECT_EQ(failing(Call::pthread_cond_timedwait, EINVAL, [&] { condition.waitTimed(deadline); }),
            osError(EINVAL, header, 81, "waitTimed"));
}

TEST_F(ConditionTest, AnErrorCheckLockThatIsNotHeldMakesAWaitFail) {
  KES_SKIP_UNDER_THREAD_SANITIZER("reports the misuse of a lock that is tested here");
  Lock lock(ErrorCheck);
  const Condition condition(lock);
  EXPECT_EQ(raisedBy([&] { condition.wait(); }), osError(EPERM, header, 42, "wait"));
}

TEST_F(ConditionTest, AFailingDestructionPrintsTheWarningAndContinues) {
  testing::internal::CaptureStderr();
  {
    const Condition condition;
    const Refuse fault(Call::pthread_cond_destroy, EBUSY);
    condition.~Condition();
    new (const_cast<Condition*>(&condition)) Condition();
  }
  OsError expected(EBUSY);
  expected.setSite({source, 88, "~Condition"});
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            std::string("WARNING: Destroying condition failed:\n") + expected.what() + "\n");
}

TEST_F(ConditionTest, TheWarningOfADestructorHasABacktraceWhenTheyAreOn) {
  Exception::m_gen_backtraces = true;
  testing::internal::CaptureStderr();
  {
    const Refuse fault(Call::pthread_cond_destroy, EBUSY, once);
    const Condition condition;
  }
  Exception::m_gen_backtraces = false;
  const std::string printed = testing::internal::GetCapturedStderr();
  EXPECT_THAT(printed, testing::StartsWith("WARNING: Destroying condition failed:\n"));
  EXPECT_THAT(printed, testing::HasSubstr("kes::thread::Condition::~Condition()"));
}

TEST_F(ConditionTest, AnOwnLockIsDestroyedBeforeTheCondition) {
  int conditionsThen = -1;
  const int conditions = made(Call::pthread_cond_destroy);
  const After lockDestroyed(Call::pthread_mutex_destroy,
                            [&] { conditionsThen = made(Call::pthread_cond_destroy); });
  { const Condition condition; }
  EXPECT_EQ(conditionsThen, conditions);
  EXPECT_EQ(made(Call::pthread_cond_destroy), conditions + 1);
}

TEST_F(ConditionTest, ALentLockStaysAliveAndAnOwnOneIsFreed) {
  const int before = made(Call::pthread_mutex_destroy);
  Lock lock(Normal);
  { const Condition condition(lock); }
  EXPECT_EQ(made(Call::pthread_mutex_destroy), before);
  EXPECT_NO_THROW(lock.lock());
  EXPECT_NO_THROW(lock.unlock());
  { const Condition condition; }
  EXPECT_EQ(made(Call::pthread_mutex_destroy), before + 1);
}

TEST_F(ConditionTest, LockingAConditionLocksItsLock) {
  KES_SKIP_UNDER_THREAD_SANITIZER("reports the misuse of a lock that is tested here");
  Lock lock(ErrorCheck);
  const Condition condition(lock);
  condition.lock();
  EXPECT_EQ(raisedBy([&] { lock.lock(); }), osError(EDEADLK, "include/os/posix/thread/Lock", 21, "lock"));
  condition.unlock();
  EXPECT_EQ(raisedBy([&] { condition.unlock(); }),
            osError(EPERM, "include/os/posix/thread/Lock", 49, "unlock"));
}

TEST_F(ConditionTest, ADeadlineThatHasPassedEndsAWaitAtOnce) {
  const Condition condition;
  const LockGuardT<Condition> guard(condition);
  EXPECT_FALSE(condition.waitTimed(RealtimeClock()));
  EXPECT_FALSE(condition.waitTimed(in(Milliseconds(-1))));
  EXPECT_FALSE(condition.waitTimed(in(Milliseconds(-100'000))));
}

TEST_F(ConditionTest, AWaitIsNeverOverBeforeItsDeadline) {
  const Condition condition;
  const LockGuardT<Condition> guard(condition);
  for (int i = 0; i < 20; ++i) {
    const RealtimeClock deadline = in(Milliseconds(3));
    while (condition.waitTimed(deadline)) {
    }
    const RealtimeClock now;
    EXPECT_TRUE(now.sec() > deadline.sec() ||
                (now.sec() == deadline.sec() && now.nsec() >= deadline.nsec()) ||
                deadline.nsec() >= 1'000'000'000);
  }
}

// Advancing a clock value leaves nanoseconds of exactly a second, or negative ones, as they come out; the
// system refuses both.
TEST_F(ConditionTest, DeadlinesWithNanosecondsOutOfRangeAreAccepted) {
  const Condition condition;
  const LockGuardT<Condition> guard(condition);
  for (int i = 0; i < 1000; ++i) {
    RealtimeClock clock;
    clock += Milliseconds(-(clock.nsec() / 1'000'000));
    clock += Milliseconds(-1);  // just below zero: a whole second at once would be taken from the seconds
    ASSERT_LT(clock.nsec(), 0);
    ASSERT_FALSE(condition.waitTimed(clock));
  }
}

TEST_F(ConditionTest, ASignalBeforeTheDeadlineWakesTheWaiter) {
  const Condition condition;
  bool ready = false, woken = false;
  std::thread other;
  {
    const LockGuardT<Condition> guard(condition);
    other = std::thread([&] {
      const LockGuardT<Condition> waiting(condition);  // free only once the waiter waits
      ready = true;
      condition.signal();
    });
    const RealtimeClock deadline = in(Milliseconds(60'000));
    do woken = condition.waitTimed(deadline);
    while (woken && !ready);
  }
  EXPECT_TRUE(woken);
  other.join();
}

TEST_F(ConditionTest, SignalAllWakesEveryWaiter) {
  const Condition condition;
  int waiting = 0;
  bool go = false;
  std::vector<std::thread> waiters;
  for (int i = 0; i < 5; ++i) {
    waiters.emplace_back([&] {
      const LockGuardT<Condition> guard(condition);
      ++waiting;
      while (!go) condition.wait();
      --waiting;
    });
  }
  const auto allWait = [&] {
    const LockGuardT<Condition> guard(condition);
    return waiting == 5;
  };
  while (!allWait()) std::this_thread::yield();
  {
    const LockGuardT<Condition> guard(condition);
    go = true;
  }
  condition.signalAll();
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(waiting, 0);
}

TEST_F(ConditionTest, TwoThreadsTakeTurns) {
  const Condition condition;
  int turn = 0;
  const auto play = [&](int mine) {
    for (int i = 0; i < 2000; ++i) {
      {
        const LockGuardT<Condition> guard(condition);
        while (turn % 2 != mine) condition.wait();
        ++turn;
      }
      condition.signal();
    }
  };
  std::thread other([&] { play(1); });
  play(0);
  other.join();
  EXPECT_EQ(turn, 4000);
}

}  // namespace
}  // namespace kes::thread
