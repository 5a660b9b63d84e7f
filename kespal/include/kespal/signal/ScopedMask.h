#pragma once  // since 0.1

#include <csignal>

#include "kespal/Export.h"
#include "kespal/NoCopy.h"
#include "kespal/signal/Set.h"

KES_EXPORT_BEGIN

namespace kes::signal {

/// Changes the signal mask of the calling thread for a scope, as a rule to block signals. The end of the
/// scope sets the mask that was there before, all of it, whatever was done to it in between; signals that
/// came meanwhile and are blocked no longer arrive then. It ends on the thread that it was made on, and
/// nested ones in the reverse order of their making. Threads that are started meanwhile, and a forked child,
/// inherit the changed mask.
class ScopedMask : NoCopy {
 public:
  /// `how` is SIG_BLOCK, SIG_UNBLOCK or SIG_SETMASK. Raises OsError (EINVAL); the mask is unchanged then.
  explicit ScopedMask(const Set& signals, int how = SIG_BLOCK);
  /// Never throws: a mask that cannot be restored is reported on standard error.
  ~ScopedMask();

 private:
  const Set before_;
};

}  // namespace kes::signal

KES_EXPORT_END
