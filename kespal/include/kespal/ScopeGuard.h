#pragma once  // since 0.1

#include "kespal/Export.h"
#include "kespal/NoCopy.h"
#include "kespal/error/Exception.h"

KES_EXPORT_BEGIN

namespace kes {

/// Base of the scope guards: whether the guard still has to act, and how a library error that its action
/// threw is reported. For the thread whose scope it is.
class ScopeGuardBase : NoCopy {
 public:
  /// The guard will do nothing any more.
  void dismiss() noexcept { dismissed_ = true; }
  bool dismissed() const noexcept { return dismissed_; }  ///< whether it was, or is done

  /// Reports an error caught in a guard: its whole stack text, to standard error, or a shorter one for want
  /// of memory. Throws nothing, and no cancellation starts in it.
  static void handleEx(const Exception& error);

 protected:
  ScopeGuardBase() = default;
  ~ScopeGuardBase() = default;

 private:
  bool dismissed_ = false;
};

/// Calls a member function of an object when the scope is left, unless dismissed before. A kes::Exception
/// from that call is reported and goes no further; anything else propagates, also out of the destructor, and
/// ends the program there if an exception is on its way already.
/// The object must outlive the guard.
template <typename Obj, typename MemFn>
class ObjScopeGuard0 : public ScopeGuardBase {
 public:
  /// Will call `function` on `object`, which stays the caller's.
  ObjScopeGuard0(Obj& object, MemFn function) noexcept : ObjScopeGuard0(&object, function) {}
  ObjScopeGuard0(Obj* object, MemFn function) noexcept : object_(object), function_(function) {}
  /// Acts, unless dismissed.
  ~ObjScopeGuard0() noexcept(false) { shoot(); }

  /// Does now what would be done at the end of the scope, once; again, when it was reported as failed.
  void shoot() {
    if (dismissed()) return;
    try {
      (object_->*function_)();
      dismiss();
    } catch (const Exception& error) {
      handleEx(error);
    }
  }

 private:
  Obj* object_;
  MemFn function_;
};

}  // namespace kes

KES_EXPORT_END
