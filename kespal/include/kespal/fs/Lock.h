#pragma once  // since 0.1

#include <cstdio>

#include "kespal/Export.h"
#include "kespal/NoCopy.h"
#include "kespal/time/Milliseconds.h"

KES_EXPORT_BEGIN

namespace kes::fs {

/// An advisory lock on a whole file, through a descriptor that somebody else owns and keeps open. It
/// belongs to the open file description: duplicated descriptors share it, and closing the last of them
/// releases it. It serialises processes, not the threads of one. Each operation raises OsError; waiting is
/// ended by a signal handler (EINTR) and not resumed. A thread that is cancelled while it waits goes on
/// waiting, unless it does so with a limit.
class Lock {
 public:
  Lock() noexcept = default;
  /// Takes the descriptor of a standard stream. UsageError when it has none.
  explicit Lock(std::FILE* stream);

  /// Takes a descriptor. UsageError for -1.
  void set(int fd);

  /// Takes the lock together with other readers; waits for a writer.
  void readLock() const;
  /// The same without waiting: false when a writer holds the lock.
  bool tryReadLock() const;
  /// Takes the lock alone; waits for all others.
  void writeLock() const;
  /// The same without waiting: false when anybody holds the lock.
  bool tryWriteLock() const;
  /// The two with a limit to the waiting: false when it is over, which may be at once, and the lock is not
  /// held. The system knows no such limit, so the lock is asked for again, every 20 ms at the latest: who
  /// waits without a limit, or asks at the right moment, may get it first. The time is that of the monotonic
  /// clock.
  bool readLockTimed(time::Milliseconds limit) const;
  bool writeLockTimed(time::Milliseconds limit) const;  ///< see readLockTimed()
  /// Gives the lock back; one that is not held is no error.
  void unlock() const;

 private:
  int fd_ = -1;
};

/// Gives a lock, taken before by whoever makes this object, back at the end of a scope. A failure goes to
/// standard error. For the thread whose scope it is.
class ScopedLock : NoCopy {
 public:
  /// Of the lock's descriptor; the object need not live on.
  explicit ScopedLock(const Lock& lock) noexcept : lock_(lock) {}
  ~ScopedLock();

 private:
  Lock lock_;
};

}  // namespace kes::fs

KES_EXPORT_END
