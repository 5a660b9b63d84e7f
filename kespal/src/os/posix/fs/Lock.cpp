#include "kespal/fs/Lock.h"

#include <sys/file.h>

#include <cerrno>

#include "error/Report.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"

namespace kes::fs {

namespace {

[[gnu::always_inline]] inline bool tryLock(const Site& site, int fd, int operation) {
  if (::flock(fd, operation | LOCK_NB) == 0) return true;
  if (errno != EWOULDBLOCK) raiseAt(site, OsError(errno));
  return false;
}

}  // namespace

Lock::Lock(std::FILE* stream) { set(stream != nullptr ? ::fileno(stream) : -1); }

void Lock::set(int fd) {
  if (fd == -1) raiseAt(KES_HERE, UsageError("assigned fs::Lock an invalid file"));
  fd_ = fd;
}

void Lock::readLock() const { check(KES_HERE, ::flock(fd_, LOCK_SH)); }

bool Lock::tryReadLock() const { return tryLock(KES_HERE, fd_, LOCK_SH); }

void Lock::writeLock() const { check(KES_HERE, ::flock(fd_, LOCK_EX)); }

bool Lock::tryWriteLock() const { return tryLock(KES_HERE, fd_, LOCK_EX); }

void Lock::unlock() const { check(KES_HERE, ::flock(fd_, LOCK_UN)); }

ScopedLock::~ScopedLock() {
  doReporting({"Exception caught while destroying file lock:\n"}, [this] { lock_.unlock(); });
}

}  // namespace kes::fs
