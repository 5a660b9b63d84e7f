#pragma once

#include <sys/types.h>

#include "kespal/NoCopy.h"
#include "sys/Owner.h"

namespace kes::os {

/// Tells which of some children of this process have ended, and leaves them to be reaped.
class ProcessEnds : NoCopy {
 public:
  /// OsError (EMFILE, ENFILE, ENOMEM).
  ProcessEnds();

  /// Begins to watch a child that nobody has reaped. False when the system has no means or no room for that.
  /// Where a descriptor is needed for it, that is given in `handle`, and ends the watch when it is closed.
  /// Any thread may call.
  bool watch(pid_t pid, sys::Descriptor& handle) noexcept;
  /// Waits until one that is watched has ended, and tells that once: its id. 0 when it was interrupted, or
  /// when so many milliseconds have passed; -1 of them is no limit. -1 with errno when there is no waiting.
  /// An id may have become another child's meanwhile, if somebody else has reaped the first. One thread at a
  /// time.
  pid_t next(int milliseconds);
  /// Ends the next() that goes on, or else the one after this. Any thread may call.
  void interrupt() noexcept;

 private:
  sys::Descriptor queue_;
  sys::Descriptor interruption_;  ///< where the queue cannot be told of one directly
};

}  // namespace kes::os
