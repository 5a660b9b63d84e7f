#pragma once  // since 0.1

#include "kespal/Export.h"
#include "kespal/os/posix/thread/Lock.h"

KES_EXPORT_BEGIN

namespace kes::thread {

/// A mutual-exclusion lock. Owned by whoever shares something between threads; any thread may lock it, and
/// only the one that did may unlock it. Not to be destroyed while it is locked: that prints a warning.
/// Every operation raises OsError with the code of the failed call. It is a mutex to the standard library,
/// timed waits included. A forked child inherits it as it is: when another thread held it, nobody will ever
/// release it there.
class KES_CAPABILITY("lock") Lock : public LockBase {
 public:
  /// A lock that nobody holds. Raises OsError (ENOMEM, EAGAIN).
  explicit Lock(LockKind kind) : LockBase(kind) {}
  ~Lock() = default;
};

}  // namespace kes::thread

KES_EXPORT_END
