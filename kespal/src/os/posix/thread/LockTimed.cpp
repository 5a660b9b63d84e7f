#include <time.h>

#include <algorithm>
#include <chrono>

#include "kespal/thread/Lock.h"
#include "sys/NoCancel.h"

namespace kes::thread {

namespace {

using std::chrono::microseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

/// A lock is mostly held for less than the first of these.
constexpr nanoseconds firstNap = microseconds(50), longestNap = std::chrono::milliseconds(10);

/// May be shorter, as a signal ends it: the lock is asked for again all the same.
void nap(nanoseconds span) {
  const ::timespec duration{0, static_cast<long>(span.count())};
  ::nanosleep(&duration, nullptr);
}

}  // namespace

// Where the system has no lock with a limit to the waiting.
bool LockBase::lockTimed(time::Milliseconds limit) const {
  const sys::NoCancel untilKnown;  // no other way to a lock ends by a cancellation
  const auto start = steady_clock::now();
  const nanoseconds allowed = time::boundedWait(limit);
  for (nanoseconds span = firstNap;; span = std::min(2 * span, longestNap)) {
    if (tryLock()) return true;
    const nanoseconds left = allowed - (steady_clock::now() - start);
    if (left <= nanoseconds::zero()) return false;
    nap(std::min(span, left));
  }
}

}  // namespace kes::thread
