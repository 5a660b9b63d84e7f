#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <chrono>

#include "kespal/thread/Lock.h"

namespace kes::thread {

using std::chrono::nanoseconds;
using std::chrono::seconds;

bool LockBase::lockTimed(time::Milliseconds limit) const {
  // The steady clock of the standard library is the monotonic one here.
  const nanoseconds end = (std::chrono::steady_clock::now() + time::boundedWait(limit)).time_since_epoch();
  const auto whole = std::chrono::floor<seconds>(end);
  const ::timespec deadline{whole.count(), (end - whole).count()};
  const int result = ::pthread_mutex_clocklock(&mutex_, CLOCK_MONOTONIC, &deadline);
  if (result == ETIMEDOUT) return false;
  checkCode(KES_HERE, result);
  return true;
}

}  // namespace kes::thread
