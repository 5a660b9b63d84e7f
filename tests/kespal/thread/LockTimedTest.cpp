// Locks that are tried, or waited for no longer than some time; and as a mutex of the standard library.
#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <thread>

#include "kespal/error/OsError.h"
#include "kespal/thread/Condition.h"
#include "kespal/thread/Lock.h"
#include "kespal/thread/LockGuard.h"
#include "kespal/time/Clock.h"
#include "support/Calls.h"
#include "support/Gate.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"

namespace kes::thread {
namespace {

using namespace std::chrono_literals;
using namespace test;
using std::chrono::steady_clock;
using time::Milliseconds;

constexpr LockKind everyKind[] = {Recursive, Normal, ErrorCheck};

/// Another thread that holds a lock until it is told not to.
class Holder {
 public:
  explicit Holder(const Lock& lock)
      : thread_([this, &lock] {
          const LockGuardT<Lock> guard(lock);
          held_.open();
          given_.pass();
        }) {
    held_.pass();
  }
  ~Holder() { release(); }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  void release() {
    given_.open();
    if (thread_.joinable()) thread_.join();
  }

 private:
  Gate held_, given_;
  std::thread thread_;
};

/// Runs something in another thread, to its end.
template <typename Action>
void elsewhere(Action action) {
  std::thread(action).join();
}

bool isFree(const Lock& lock) {
  bool isFree = false;
  elsewhere([&] {
    isFree = lock.tryLock();
    if (isFree) lock.unlock();
  });
  return isFree;
}

TEST(LockTryTest, AFreeLockIsTaken) {
  for (const LockKind kind : everyKind) {
    const Lock lock(kind);
    EXPECT_TRUE(lock.tryLock());
    EXPECT_FALSE(isFree(lock));
    lock.unlock();
    EXPECT_TRUE(isFree(lock));
  }
}

TEST(LockTryTest, ALockThatAnotherThreadHoldsIsNotWaitedFor) {
  for (const LockKind kind : everyKind) {
    const Lock lock(kind);
    const Holder holder(lock);
    EXPECT_FALSE(lock.tryLock());
  }
}

TEST(LockTryTest, ItsOwnerTakesOnlyARecursiveOneAgain) {
  for (const LockKind kind : everyKind) {
    const Lock lock(kind);
    lock.lock();
    EXPECT_EQ(lock.tryLock(), kind == Recursive);
    if (kind == Recursive) lock.unlock();
    EXPECT_FALSE(isFree(lock));
    lock.unlock();
    EXPECT_TRUE(isFree(lock));
  }
}

TEST(LockTryTest, AnyOtherAnswerThanBusyIsRaised) {
  const Lock lock(Normal);
  const Refuse fault(Call::pthread_mutex_trylock, EAGAIN, once);
  EXPECT_EQ(raisedBy([&] { (void)lock.tryLock(); }),
            osError(EAGAIN, "include/os/posix/thread/Lock", 0, "tryLock"));
  EXPECT_TRUE(isFree(lock));
}

TEST(LockTimedTest, AFreeLockIsTakenWithoutAnyTime) {
  for (const LockKind kind : everyKind) {
    const Lock lock(kind);
    for (const Milliseconds limit : {Milliseconds(0), Milliseconds(-5), Milliseconds::min()}) {
      EXPECT_TRUE(lock.lockTimed(limit));
      EXPECT_FALSE(isFree(lock));
      lock.unlock();
    }
  }
}

TEST(LockTimedTest, ALockThatAnotherThreadHoldsIsGivenUpWhenTheTimeIsOverAndNotBefore) {
  for (const LockKind kind : everyKind) {
    const Lock lock(kind);
    const Holder holder(lock);
    const auto start = steady_clock::now();
    EXPECT_FALSE(lock.lockTimed(30ms));
    EXPECT_GE(steady_clock::now() - start, 30ms);
    EXPECT_FALSE(lock.lockTimed(0ms));
    EXPECT_FALSE(lock.lockTimed(Milliseconds::min()));
  }
}

TEST(LockTimedTest, ALockThatBecomesFreeMeanwhileIsTakenHoweverLongTheLimitIs) {
  for (const Milliseconds limit : {Milliseconds(60'000), Milliseconds::max()}) {
    const Lock lock(Normal);
    Holder holder(lock);
    std::atomic<bool> asked = false, taken = false;
    std::thread waiting([&] {
      asked = true;
      taken = lock.lockTimed(limit);
      if (taken) lock.unlock();
    });
    while (!asked) std::this_thread::yield();
    holder.release();
    waiting.join();
    EXPECT_TRUE(taken);
  }
}

TEST(LockTimedTest, TheTimeIsThatOfTheMonotonicClock) {
  if (isSanitized) GTEST_SKIP() << "a build with sanitizers asks again and again instead";
  const Lock lock(Normal);
  clockid_t asked = -1;
  const Instead<Call::pthread_mutex_clocklock> noting(
      [&](pthread_mutex_t*, clockid_t clock, const timespec*) { return asked = clock, ETIMEDOUT; });
  EXPECT_FALSE(lock.lockTimed(1h));
  EXPECT_EQ(asked, CLOCK_MONOTONIC);
}

TEST(LockTimedTest, AnErrorOfTheSystemIsRaised) {
  const Lock lock(Recursive);
  const Refuse fault(Call::pthread_mutex_clocklock, EAGAIN, once);
  const Refuse other(Call::pthread_mutex_trylock, EAGAIN, once);  // what a build with sanitizers asks
  const Raised raised = raisedBy([&] { (void)lock.lockTimed(1s); });
  EXPECT_EQ(raised.type, "kes::OsError");
  EXPECT_EQ(raised.errnum, EAGAIN);
  EXPECT_EQ(fault.struck() + other.struck(), 1);
}

TEST(LockTimedTest, TheOwnerOfAnErrorCheckLockIsToldSo) {
  if (isSanitized) GTEST_SKIP() << "a build with sanitizers asks again and again, and learns nothing else";
  const Lock lock(ErrorCheck);
  const LockGuardT<Lock> guard(lock);
  EXPECT_EQ(raisedBy([&] { (void)lock.lockTimed(10s); }),
            osError(EDEADLK, "src/os/linux/thread/LockTimed", 0, "lockTimed"));
}

TEST(LockTimedTest, ASignalDoesNotEndTheWaiting) {
  const Lock lock(Normal);
  Holder holder(lock);
  struct sigaction action = {}, before;
  action.sa_handler = [](int) {};
  ::sigaction(SIGUSR1, &action, &before);
  std::atomic<bool> asked = false, taken = false;
  std::thread waiting([&] {
    asked = true;
    taken = lock.lockTimed(60s);
    if (taken) lock.unlock();
  });
  while (!asked) std::this_thread::yield();
  for (int i = 0; i < 100; ++i) ::pthread_kill(waiting.native_handle(), SIGUSR1);
  holder.release();
  waiting.join();
  ::sigaction(SIGUSR1, &before, nullptr);
  EXPECT_TRUE(taken);
}

TEST(LockTimedTest, TheWaitingIsNoPlaceToBeCancelledAt) {
  KES_SKIP_UNDER_SANITIZERS("loses its way in the stack of a cancelled thread");
  const Lock lock(Normal);
  Holder holder(lock);
  struct Waiting {
    const Lock& lock;
    std::atomic<bool> asked{false}, taken{false};
  } waiting{lock};
  pthread_t thread;
  ASSERT_EQ(::pthread_create(
                &thread, nullptr,
                [](void* argument) -> void* {
                  auto& own = *static_cast<Waiting*>(argument);
                  ::pthread_cancel(::pthread_self());
                  own.asked = true;
                  own.taken = own.lock.lockTimed(60s);
                  if (own.taken) own.lock.unlock();
                  return nullptr;
                },
                &waiting),
            0);
  while (!waiting.asked) std::this_thread::yield();
  holder.release();
  void* result = nullptr;
  ::pthread_join(thread, &result);
  EXPECT_EQ(result, nullptr);
  EXPECT_TRUE(waiting.taken);
}

TEST(StandardMutexTest, TheGuardsOfTheStandardLibraryHoldALock) {
  Lock lock(ErrorCheck);
  {
    const std::lock_guard guard(lock);
    EXPECT_FALSE(isFree(lock));
  }
  {
    const std::scoped_lock guard(lock);
    EXPECT_FALSE(isFree(lock));
  }
  {
    std::unique_lock guard(lock);
    EXPECT_FALSE(isFree(lock));
    guard.unlock();
    EXPECT_TRUE(isFree(lock));
  }
  EXPECT_TRUE(isFree(lock));
}

TEST(StandardMutexTest, SeveralLocksAreTakenTogetherInWhateverOrder) {
  Lock one(Normal), other(Normal);
  long count = 0;
  const auto add = [&count](Lock& first, Lock& second) {
    for (int i = 0; i < 2000; ++i) {
      const std::scoped_lock both(first, second);
      ++count;
    }
  };
  std::thread thread([&] { add(one, other); });
  add(other, one);
  thread.join();
  EXPECT_EQ(count, 4000);
}

TEST(StandardMutexTest, AUniqueLockTriesAndWaitsForSomeTime) {
  Lock lock(Normal);
  EXPECT_TRUE(std::unique_lock(lock, std::try_to_lock).owns_lock());
  EXPECT_TRUE(std::unique_lock(lock, 5us).owns_lock());
  EXPECT_TRUE(std::unique_lock(lock, std::chrono::hours::max()).owns_lock());
  const Holder holder(lock);
  EXPECT_FALSE(std::unique_lock(lock, std::try_to_lock).owns_lock());
  const auto start = steady_clock::now();
  EXPECT_FALSE(std::unique_lock(lock, 20ms).owns_lock());
  EXPECT_GE(steady_clock::now() - start, 20ms);
}

TEST(StandardMutexTest, AUniqueLockWaitsUntilAMomentOfAnyClock) {
  time::ClockBase::init();
  Lock lock(Normal);
  EXPECT_TRUE(std::unique_lock(lock, steady_clock::time_point::min()).owns_lock()) << "it is free";
  const Holder holder(lock);
  const auto end = steady_clock::now() + 20ms;
  EXPECT_FALSE(std::unique_lock(lock, end).owns_lock());
  EXPECT_GE(steady_clock::now(), end);
  const auto later = std::chrono::system_clock::now() + 5ms;
  EXPECT_FALSE(std::unique_lock(lock, later).owns_lock());
  const time::MonotonicClock deadline = time::MonotonicClock() + 5ms;
  EXPECT_FALSE(std::unique_lock(lock, deadline.toTimePoint()).owns_lock());
  EXPECT_GE(time::MonotonicClock(), deadline);
}

TEST(StandardMutexTest, EveryTimeIsGivenUpForALockThatIsHeld) {
  Lock lock(Normal);
  const Holder holder(lock);
  EXPECT_FALSE(lock.try_lock());
  EXPECT_FALSE(lock.try_lock_for(-1s));
  EXPECT_FALSE(lock.try_lock_until(steady_clock::time_point::min()));
  EXPECT_FALSE(lock.try_lock_until(steady_clock::now()));
}

}  // namespace
}  // namespace kes::thread
