#pragma once

#include <pthread.h>

#include <cerrno>
#include <ctime>

#include "kespal/os/thread/Native.h"
#include "kespal/thread/Lock.h"
#include "kespal/time/Clock.h"

namespace kes::thread {

/// A condition that threads wait for, always together with one lock: its own, or one that was lent to it
/// and must outlive it. Who waits holds the lock and tests what he waits for in a loop. Nobody may be
/// waiting when it is destroyed. Every operation raises OsError with the code of the failed call.
class Condition : NoCopy {
 public:
  /// A condition with a Normal lock of its own.
  Condition();
  /// A condition that uses the caller's lock.
  explicit Condition(Lock& lent);
  /// Never throws: a failure of the system gives a warning on standard error.
  ~Condition();

  [[gnu::always_inline]] void lock() const { lock_->lock(); }
  [[gnu::always_inline]] void unlock() const { lock_->unlock(); }

  /// Releases the lock, waits to be woken, and takes the lock again; it may wake up without a reason.
  void wait() const {
    if (const int result = os::waitOn(condition_, lock_->mutex_); result != 0) [[unlikely]] {
      raiseAt({"include/os/posix/thread/Condition", 42, "wait"}, OsError(result));
    }
  }

  /// The same until a moment of the calendar clock. True when woken, false when the moment has come; what
  /// is waited for may hold in both cases.
  bool waitTimed(const time::RealtimeClock& deadline) const {
    const int result = os::waitUntil(condition_, lock_->mutex_, moment(deadline));
    if (result == ETIMEDOUT) return false;
    if (result != 0) [[unlikely]] {
      raiseAt({"include/os/posix/thread/Condition", 81, "waitTimed"}, OsError(result));
    }
    return true;
  }

  /// Wakes one of the waiting threads; may be called with the lock or without it.
  void signal() const {
    if (const int result = ::pthread_cond_signal(&condition_); result != 0) [[unlikely]] {
      raiseAt({"include/os/posix/thread/Condition", 22, "signal"}, OsError(result));
    }
  }

  /// Wakes all of them.
  void signalAll() const {
    if (const int result = ::pthread_cond_broadcast(&condition_); result != 0) [[unlikely]] {
      raiseAt({"include/os/posix/thread/Condition", 32, "signalAll"}, OsError(result));
    }
  }

 private:
  void init();

  /// The deadline as the system accepts it. An advanced clock value may hold a billion nanoseconds or
  /// negative ones, and with those a timed wait would fail instead of waiting.
  static ::timespec moment(const time::RealtimeClock& deadline) noexcept {
    constexpr long second = 1'000'000'000;
    ::timespec moment{static_cast<::time_t>(deadline.sec()), deadline.nsec()};
    moment.tv_sec += moment.tv_nsec / second;
    moment.tv_nsec %= second;
    if (moment.tv_nsec < 0) {
      moment.tv_nsec += second;
      moment.tv_sec -= 1;
    }
    return moment.tv_sec < 0 ? ::timespec{0, 0} : moment;
  }

  mutable ::pthread_cond_t condition_;
  Lock* lock_;
  bool borrowed_;
};

}  // namespace kes::thread
