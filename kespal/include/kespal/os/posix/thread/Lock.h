#pragma once  // since 0.1

#include <pthread.h>

#include <cerrno>
#include <chrono>

#include "kespal/Export.h"
#include "kespal/NoCopy.h"
#include "kespal/error/OsError.h"
#include "kespal/thread/Annotations.h"
#include "kespal/time/Milliseconds.h"

KES_EXPORT_BEGIN

namespace kes::thread {

/// What a lock does when its owner locks it again, or another thread unlocks it.
enum LockKind : int {
  Recursive = 0,   ///< the owner may lock it again, and unlocks it as often
  Normal = 1,      ///< nothing is checked: locking again waits for ever
  ErrorCheck = 2,  ///< both fail, with EDEADLK and EPERM; so does every kind that is not listed here
};

/// The mutex of a Lock. Any thread may call.
class KES_CAPABILITY("lock") LockBase : NoCopy {
 public:
  /// Raises OsError (ENOMEM, EAGAIN) when the system cannot make a mutex.
  explicit LockBase(LockKind kind);
  /// Never throws: a mutex that is still locked gives a warning on standard error.
  ~LockBase();

  /// Waits until the lock is free and takes it. Raises OsError: EDEADLK for the owner of an ErrorCheck
  /// lock, EAGAIN when a Recursive one was taken too often.
  [[gnu::always_inline]] void lock() const KES_ACQUIRE() KES_UNCHECKED {
    checkCode({"include/os/posix/thread/Lock", 21, "lock"}, ::pthread_mutex_lock(&mutex_));
  }

  /// Takes the lock if it is free. False, without any waiting, when somebody holds it: another thread or,
  /// unless the lock is Recursive, the caller. Raises OsError: EAGAIN when a Recursive one was taken too
  /// often.
  bool tryLock() const KES_TRY_ACQUIRE(true) KES_UNCHECKED {
    const int result = ::pthread_mutex_trylock(&mutex_);
    if (result == EBUSY) return false;
    checkCode(KES_HERE, result);
    return true;
  }

  /// Waits until the lock is free, but no longer than this by the monotonic clock, and takes it; a free one
  /// is taken without any time, too. False when the time is over: the lock is not held. No signal and no
  /// cancellation ends the waiting. Raises OsError as lock(). macOS knows no such limit. There the lock is
  /// asked for again, every 10 ms at the latest: who waits without a limit, or asks at the right moment, may
  /// get it first, and the owner of an ErrorCheck lock waits like anybody else.
  bool lockTimed(time::Milliseconds limit) const KES_TRY_ACQUIRE(true);

  /// Releases the lock. Raises OsError: EPERM for who does not own an ErrorCheck or Recursive lock.
  [[gnu::always_inline]] void unlock() const KES_RELEASE() KES_UNCHECKED {
    checkCode({"include/os/posix/thread/Lock", 49, "unlock"}, ::pthread_mutex_unlock(&mutex_));
  }

  // NOLINTBEGIN(readability-identifier-naming): what the standard library asks of a mutex
  /// tryLock() and lockTimed() by the names that std::scoped_lock, std::unique_lock and their kind call; they
  /// raise what those do.
  /// Where an unlocking at the end of a scope fails, those end the program, and the lock analysis of clang
  /// does not see what they hold: LockGuardT reports, and is seen.
  bool try_lock() const KES_TRY_ACQUIRE(true) KES_UNCHECKED { return tryLock(); }
  /// See try_lock() and lockTimed().
  template <typename Rep, typename Period>
  bool try_lock_for(const std::chrono::duration<Rep, Period>& limit) const
      KES_TRY_ACQUIRE(true) KES_UNCHECKED {
    return lockTimed(time::boundedWait(limit));
  }
  /// See try_lock() and lockTimed(): until a moment of any clock, also of one that is set meanwhile.
  template <typename Clock, typename Duration>
  bool try_lock_until(const std::chrono::time_point<Clock, Duration>& deadline) const
      KES_TRY_ACQUIRE(true) KES_UNCHECKED {
    for (auto now = Clock::now(); now < deadline; now = Clock::now()) {
      if (try_lock_for(deadline - now)) return true;
    }
    return tryLock();
  }
  // NOLINTEND(readability-identifier-naming)

 private:
  friend class Condition;  // a wait releases the mutex and takes it again

  mutable ::pthread_mutex_t mutex_;
};

}  // namespace kes::thread

KES_EXPORT_END
