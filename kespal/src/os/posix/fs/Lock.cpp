#include "kespal/fs/Lock.h"

#include <sys/file.h>

#include <cerrno>

#include "error/Report.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"

namespace kes::fs {

Lock::Lock(std::FILE* stream) { set(stream != nullptr ? ::fileno(stream) : -1); }

void Lock::set(int fd) {
  if (fd == -1) raiseAt(KES_HERE, UsageError("assigned fs::Lock an invalid file"));
  fd_ = fd;
}

void Lock::readLock() const { check(KES_HERE, ::flock(fd_, LOCK_SH)); }

bool Lock::tryReadLock() const {
  if (::flock(fd_, LOCK_SH | LOCK_NB) == 0) return true;
  if (errno != EWOULDBLOCK) raiseAt(KES_HERE, OsError(errno));
  return false;
}

void Lock::writeLock() const { check(KES_HERE, ::flock(fd_, LOCK_EX)); }

bool Lock::tryWriteLock() const {
  if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) return true;
  if (errno != EWOULDBLOCK) raiseAt(KES_HERE, OsError(errno));
  return false;
}

void Lock::unlock() const { check(KES_HERE, ::flock(fd_, LOCK_UN)); }

ScopedLock::~ScopedLock() {
  doReporting({"Exception caught while destroying file lock:\n"}, [this] { lock_.unlock(); });
}

}  // namespace kes::fs
