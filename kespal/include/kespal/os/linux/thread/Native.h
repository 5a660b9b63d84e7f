#pragma once  // since 0.1

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <exception>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes::os {

/// For a `catch (...)`, which begins with `if (isForcedUnwind()) throw;`: a thread that is cancelled or calls
/// pthread_exit unwinds its stack, and the runtime ends the process when that is not thrown on. There is no
/// object to be caught, since C++ did not throw it.
inline bool isForcedUnwind() noexcept { return std::current_exception() == nullptr; }

/// Stores the calling thread's system-wide number. The numbers of ended threads are used again.
/// @return 0 or an error number
inline int nativeThreadId(std::uint64_t& id) {
  const pid_t number = ::gettid();
  if (number < 0) return errno;
  id = static_cast<std::uint64_t>(number);
  return 0;
}

/// Names the calling thread; the system keeps 15 bytes and refuses longer names, so the rest is cut off.
/// @return 0 or an error number
inline int nameThread(const char* name) {
  char kept[16] = {};
  std::memcpy(kept, name, ::strnlen(name, sizeof kept - 1));
  return ::pthread_setname_np(::pthread_self(), kept);
}

/// Waits on a condition whose mutex the caller holds. A thread that is cancelled in there holds the mutex
/// again while its stack is unwound, and the guards on the stack release it.
/// @return 0 or an error number
inline int waitOn(::pthread_cond_t& condition, ::pthread_mutex_t& mutex) {
  return ::pthread_cond_wait(&condition, &mutex);
}

/// The same until a moment of the calendar clock, for the calling thread; the nanoseconds have to be 0 to
/// 999,999,999.
/// @return 0, ETIMEDOUT, or an error number
inline int waitUntil(::pthread_cond_t& condition, ::pthread_mutex_t& mutex, const ::timespec& deadline) {
  return ::pthread_cond_timedwait(&condition, &mutex, &deadline);
}

/// The same until a moment of the monotonic clock, for the calling thread.
/// @return 0, ETIMEDOUT, or an error number
inline int waitUntilSteady(::pthread_cond_t& condition, ::pthread_mutex_t& mutex,
                           const ::timespec& deadline) {
  return ::pthread_cond_clockwait(&condition, &mutex, CLOCK_MONOTONIC, &deadline);
}

}  // namespace kes::os

KES_EXPORT_END
