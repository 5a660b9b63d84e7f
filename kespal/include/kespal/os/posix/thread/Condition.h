#pragma once  // since 0.1

#include <pthread.h>

#include <cerrno>
#include <concepts>
#include <cstdint>
#include <ctime>
#include <memory>
#include <utility>

#include "kespal/Export.h"
#include "kespal/os/thread/Native.h"
#include "kespal/thread/Lock.h"
#include "kespal/time/Clock.h"

KES_EXPORT_BEGIN

namespace kes::thread {

/// A condition that threads wait for, always together with one lock: its own, or one that was lent to it
/// and must outlive it. Who waits holds the lock and tests what he waits for in a loop; the forms with a
/// predicate are that loop: they ask `ready()` with the lock held, before any waiting and after each waking,
/// and throw what it throws. To clang's analysis it is a function of its own, and says KES_REQUIRES. Nobody
/// may be waiting when it is destroyed: the system would wait for him for ever. In a forked child those do
/// not count who waited in the parent. Every operation raises OsError with the code of the failed call.
class KES_CAPABILITY("condition") Condition : NoCopy {
 public:
  /// A condition with a Normal lock of its own. Raises OsError (ENOMEM, EAGAIN) and std::bad_alloc.
  Condition();
  /// A condition that uses the caller's lock.
  explicit Condition(Lock& lent);
  /// Never throws: a failure of the system gives a warning on standard error.
  ~Condition();

  /// Takes, and releases, the lock; as Lock::lock() and Lock::unlock().
  [[gnu::always_inline]] void lock() const KES_ACQUIRE() KES_UNCHECKED { lock_->lock(); }
  [[gnu::always_inline]] void unlock() const KES_RELEASE() KES_UNCHECKED { lock_->unlock(); }  ///< see lock()

  /// Releases the lock, waits to be woken, and takes the lock again; it may wake up without a reason. A
  /// thread that is cancelled in there releases the lock. Raises OsError EPERM for who does not hold an
  /// ErrorCheck lock.
  void wait() const {
    checkCode({"include/os/posix/thread/Condition", 42, "wait"}, os::waitOn(condition_, lock_->mutex_));
  }

  /// The same until a moment of the calendar clock. True when woken, false when the moment has come; what
  /// is waited for may hold in both cases.
  bool waitTimed(const time::RealtimeClock& deadline) const {
    const int result = os::waitUntil(condition_, lock_->mutex_, moment(deadline));
    if (result == ETIMEDOUT) return false;
    checkCode({"include/os/posix/thread/Condition", 81, "waitTimed"}, result);
    return true;
  }

  /// The same until a moment of the monotonic clock, which nobody sets: for time-outs. On macOS it raises,
  /// too, what the reading of that clock does.
  bool waitTimed(const time::MonotonicClock& deadline) const {
    const int result = os::waitUntilSteady(condition_, lock_->mutex_, moment(deadline));
    if (result == ETIMEDOUT) return false;
    checkCode(KES_HERE, result);
    return true;
  }

  /// Waits until `ready()` holds.
  template <std::predicate Ready>
  void wait(Ready ready) const {
    while (!ready()) wait();
  }

  /// The same until a moment of either clock. False when that has come and `ready()` still does not hold.
  template <std::predicate Ready>
  bool waitTimed(const time::RealtimeClock& deadline, Ready ready) const {
    return waitReady(deadline, std::move(ready));
  }
  template <std::predicate Ready>
  bool waitTimed(const time::MonotonicClock& deadline, Ready ready) const {
    return waitReady(deadline, std::move(ready));
  }

  /// The same for no longer than this, by the monotonic clock. Raises what the reading of it does, too.
  template <std::predicate Ready>
  bool waitFor(time::Milliseconds limit, Ready ready) const {
    return waitReady(time::MonotonicClock() + time::boundedWait(limit), std::move(ready));
  }

  /// Wakes one of the waiting threads; may be called with the lock or without it.
  void signal() const {
    checkCode({"include/os/posix/thread/Condition", 22, "signal"}, ::pthread_cond_signal(&condition_));
  }

  /// Wakes all of them.
  void signalAll() const {
    checkCode({"include/os/posix/thread/Condition", 32, "signalAll"}, ::pthread_cond_broadcast(&condition_));
  }

 private:
  void init();
  void leaveAlone() noexcept;

  /// The deadline as the system accepts it. An advanced clock value may hold a billion nanoseconds or
  /// negative ones, and with those a timed wait would fail instead of waiting.
  static ::timespec moment(const time::ClockBase& deadline) noexcept {
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

  template <typename Clock, typename Ready>
  bool waitReady(const Clock& deadline, Ready ready) const {
    while (!ready()) {
      if (!waitTimed(deadline)) return ready();
    }
    return true;
  }

  mutable ::pthread_cond_t condition_;
  std::unique_ptr<Lock> own_;  // null when the lock is lent
  Lock* lock_;
  std::uint32_t forks_;  ///< that led to the process which made it
};

}  // namespace kes::thread

KES_EXPORT_END
