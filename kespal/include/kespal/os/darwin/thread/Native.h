#pragma once  // since 0.1

#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "kespal/Export.h"
#include "kespal/time/Clock.h"

KES_EXPORT_BEGIN

namespace kes::os {

/// For a `catch (...)`, which begins with `if (isForcedUnwind()) throw;`. Never true here: a cancelled thread
/// runs its cleanup handlers and the destructors of its thread-specific data, and nothing on its stack.
inline bool isForcedUnwind() noexcept { return false; }

/// Stores the calling thread's system-wide number, which no other thread ever has.
/// @return 0 or an error number
inline int nativeThreadId(std::uint64_t& id) { return ::pthread_threadid_np(nullptr, &id); }

/// Names the calling thread; the system keeps 63 bytes and refuses longer names, so the rest is cut off.
/// @return 0 or an error number
inline int nameThread(const char* name) {
  char kept[64] = {};
  std::memcpy(kept, name, ::strnlen(name, sizeof kept - 1));
  return ::pthread_setname_np(kept);
}

namespace detail {
inline void releaseMutex(void* mutex) { ::pthread_mutex_unlock(static_cast<::pthread_mutex_t*>(mutex)); }
}  // namespace detail

/// Waits on a condition whose mutex the caller holds. A thread that is cancelled in there wakes up holding
/// the mutex, and as no guard on its stack will run, a cleanup handler releases it.
/// @return 0 or an error number
inline int waitOn(::pthread_cond_t& condition, ::pthread_mutex_t& mutex) {
  int result = 0;
  pthread_cleanup_push(&detail::releaseMutex, &mutex);
  result = ::pthread_cond_wait(&condition, &mutex);
  pthread_cleanup_pop(0);
  return result;
}

/// The same until a moment of the calendar clock, for the calling thread; the nanoseconds have to be 0 to
/// 999,999,999.
/// @return 0, ETIMEDOUT, or an error number
inline int waitUntil(::pthread_cond_t& condition, ::pthread_mutex_t& mutex, const ::timespec& deadline) {
  int result = 0;
  pthread_cleanup_push(&detail::releaseMutex, &mutex);
  result = ::pthread_cond_timedwait(&condition, &mutex, &deadline);
  pthread_cleanup_pop(0);
  return result;
}

/// The same until a moment of the monotonic clock, for the calling thread. The system is told how long that
/// is from now: it has no conditions with another clock. Raises OsError when the clock cannot be read.
/// @return 0, ETIMEDOUT, or an error number
inline int waitUntilSteady(::pthread_cond_t& condition, ::pthread_mutex_t& mutex,
                           const ::timespec& deadline) {
  using std::chrono::nanoseconds, std::chrono::seconds;
  const nanoseconds end = seconds(deadline.tv_sec) + nanoseconds(deadline.tv_nsec);
  const nanoseconds left = end - time::MonotonicClock().sinceEpoch();
  if (left <= nanoseconds::zero()) return ETIMEDOUT;
  const seconds whole = std::chrono::floor<seconds>(left);
  const ::timespec limit{static_cast<::time_t>(whole.count()), static_cast<long>((left - whole).count())};
  int result = 0;
  pthread_cleanup_push(&detail::releaseMutex, &mutex);
  result = ::pthread_cond_timedwait_relative_np(&condition, &mutex, &limit);
  pthread_cleanup_pop(0);
  return result;
}

}  // namespace kes::os

KES_EXPORT_END
