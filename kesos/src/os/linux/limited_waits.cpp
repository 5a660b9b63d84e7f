#include "limited_waits.h"

#include <poll.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "sys/Owner.h"

namespace kes::os {

namespace {

timespec timespecOf(std::chrono::nanoseconds span) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(span);
  return {static_cast<time_t>(seconds.count()), static_cast<long>((span - seconds).count())};
}

/// The moment on CLOCK_MONOTONIC, which is the steady clock here.
timespec fromNow(std::chrono::nanoseconds span) {
  return timespecOf(std::chrono::steady_clock::now().time_since_epoch() + span);
}

}  // namespace

bool lowerWithin(int semid, std::chrono::nanoseconds limit) {
  sembuf operation{0, -1, 0};
  const timespec span = timespecOf(limit);
  return ::semtimedop(semid, &operation, 1, &span) == 0;
}

int lockWithin(pthread_mutex_t& mutex, std::chrono::nanoseconds limit) {
  const timespec end = fromNow(limit);
  return ::pthread_mutex_clocklock(&mutex, CLOCK_MONOTONIC, &end);
}

int waitWithin(pthread_cond_t& condition, pthread_mutex_t& mutex, std::chrono::nanoseconds limit) {
  const timespec end = fromNow(limit);
  return ::pthread_cond_clockwait(&condition, &mutex, CLOCK_MONOTONIC, &end);
}

// A kernel before 5.3, or a sandbox, has no such descriptors: then the caller looks again soon.
void watchChild(pid_t pid, std::chrono::nanoseconds limit) {
  const sys::Descriptor child(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  pollfd wanted{child.get(), POLLIN, 0};
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(limit);
  if (child && ::poll(&wanted, 1, static_cast<int>(milliseconds.count())) >= 0) return;
  const timespec nap = timespecOf(std::min<std::chrono::nanoseconds>(limit, std::chrono::milliseconds(10)));
  ::nanosleep(&nap, nullptr);
}

}  // namespace kes::os
