#pragma once

#include <signal.h>
#include <sys/types.h>

#include <memory>

#include "kespal/NoCopy.h"
#include "kespal/proc/Shepherd.h"
#include "sys/Owner.h"

namespace kes::proc {

/// What a collector waits on, and so which children it reaps: the one thing in which collectors differ.
class Watch : NoCopy {
 public:
  /// Errors of Shepherd's constructor.
  static std::unique_ptr<Watch> make(Reaping reaping);
  virtual ~Watch() = default;

  /// Waits until a child has ended, and leaves it to be reaped. Tells as waitid() does, and fails as it does.
  /// Tells of no child when it was interrupted, or when it cannot know of each child that runs: those are to
  /// be asked for then, one by one. On the collector's thread, without its lock.
  virtual int look(siginfo_t& ended) = 0;
  /// Whether a child that nobody registered is reaped as well.
  virtual bool takesStrangers() const noexcept = 0;

  // With the collector's lock held.

  /// A child is about to be registered, `alone` when no other runs. Who gets the handle keeps it as long as
  /// the child is to be watched.
  virtual void add(pid_t pid, sys::Descriptor& handle, bool alone) noexcept = 0;
  /// Ends the look that goes on, or else the next. Gives the child that was made for that, which is told of
  /// by look() or reaped by the caller; -1 when there is none.
  virtual pid_t interrupt() = 0;
};

}  // namespace kes::proc
