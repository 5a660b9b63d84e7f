#pragma once

#include "kespal/ScopeGuard.h"

namespace kes::thread {

/// Holds a Lock or a Condition locked for a scope. An error of the unlocking at the end of the scope is
/// reported on standard error and goes no further; one of the locking is raised.
template <typename T>
class LockGuardT : public ObjScopeGuard0<T const, void (T::*)() const> {
 public:
  explicit LockGuardT(const T& lockable) : Guard((lockable.lock(), lockable), &T::unlock) {}

  /// Unlocks before the scope ends; its end will do nothing any more, and neither will a second call.
  void unlock() {
    this->shoot();
    this->dismiss();
  }

 private:
  using Guard = ObjScopeGuard0<T const, void (T::*)() const>;
};

}  // namespace kes::thread
