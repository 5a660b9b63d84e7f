#pragma once  // since 0.1

#include <cerrno>
#include <csignal>

#include "kespal/Export.h"
#include "kespal/error/OsError.h"
#include "kespal/signal/Set.h"

KES_EXPORT_BEGIN

namespace kes::signal {

/// The signal mask of the calling thread. Any thread may call; both operations raise OsError.
class Mask {
 public:
  /// The signals that the calling thread blocks.
  static Set get() {
    ::sigset_t mask;
    sigemptyset(&mask);
    if (const int result = ::pthread_sigmask(SIG_SETMASK, nullptr, &mask); result != 0) {
      errno = result;  // the call returns its error; who looks at errno shall see the same
      raiseAt(KES_HERE, OsError(result));
    }
    return Set(mask);
  }

  /// Changes the calling thread's mask: `how` is SIG_BLOCK, SIG_UNBLOCK or SIG_SETMASK.
  static void call(const Set& set, int how) {
    if (const int result = ::pthread_sigmask(how, &set.native(), nullptr); result != 0) {
      errno = result;
      raiseAt(callSite, OsError(result));
    }
  }
  /// Where call() raises its errors, for who can only report one.
  static constexpr Site callSite = KES_HERE_IN("call");
};

}  // namespace kes::signal

KES_EXPORT_END
