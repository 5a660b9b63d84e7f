#pragma once  // since 0.1

#include "kespal/Export.h"
#include "kespal/ScopeGuard.h"
#include "kespal/thread/Annotations.h"

KES_EXPORT_BEGIN

namespace kes::thread {

/// Holds a Lock or a Condition locked for a scope. An error of the unlocking at the end of the scope is
/// reported on standard error and goes no further; one of the locking is raised.
template <typename T>
class KES_SCOPED_CAPABILITY LockGuardT : public ObjScopeGuard0<T const, void (T::*)() const> {
 public:
  /// Waits for the lock and takes it.
  explicit LockGuardT(const T& lockable) KES_ACQUIRE(lockable)
      : Guard((lockable.lock(), lockable), &T::unlock) {}
  ~LockGuardT() noexcept(false) KES_RELEASE() = default;

  /// Unlocks before the scope ends; its end will do nothing any more, and neither will a second call.
  void unlock() KES_RELEASE() KES_UNCHECKED {
    this->shoot();
    this->dismiss();
  }

 private:
  using Guard = ObjScopeGuard0<T const, void (T::*)() const>;
};

}  // namespace kes::thread

KES_EXPORT_END
