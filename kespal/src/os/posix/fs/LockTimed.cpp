#include <time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "kespal/error/OsError.h"
#include "kespal/fs/Lock.h"

namespace kes::fs {

namespace {

using std::chrono::steady_clock;
using time::Milliseconds;

constexpr Milliseconds firstNap(1), longestNap(20);

void nap(steady_clock::duration span) {
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(span).count();
  const timespec duration{0, static_cast<long>(nanoseconds)};
  check(KES_HERE, ::nanosleep(&duration, nullptr));
}

template <typename TryLock>
bool lockTimed(Milliseconds limit, TryLock tryLock) {
  const auto start = steady_clock::now();
  const steady_clock::duration allowed = time::boundedWait(limit);
  for (steady_clock::duration span = firstNap;;
       span = std::min<steady_clock::duration>(2 * span, longestNap)) {
    if (tryLock()) return true;
    const auto left = allowed - (steady_clock::now() - start);
    if (left <= steady_clock::duration::zero()) return false;
    nap(std::min<steady_clock::duration>(span, left));
  }
}

}  // namespace

bool Lock::readLockTimed(Milliseconds limit) const {
  return lockTimed(limit, [this] { return tryReadLock(); });
}

bool Lock::writeLockTimed(Milliseconds limit) const {
  return lockTimed(limit, [this] { return tryWriteLock(); });
}

}  // namespace kes::fs
