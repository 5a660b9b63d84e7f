#pragma once  // since 0.1

#include <pthread.h>

#include "kespal/Export.h"
#include "kespal/NoCopy.h"
#include "kespal/error/OsError.h"
#include "kespal/thread/Annotations.h"

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

  /// Releases the lock. Raises OsError: EPERM for who does not own an ErrorCheck or Recursive lock.
  [[gnu::always_inline]] void unlock() const KES_RELEASE() KES_UNCHECKED {
    checkCode({"include/os/posix/thread/Lock", 49, "unlock"}, ::pthread_mutex_unlock(&mutex_));
  }

 private:
  friend class Condition;  // a wait releases the mutex and takes it again

  mutable ::pthread_mutex_t mutex_;
};

}  // namespace kes::thread

KES_EXPORT_END
