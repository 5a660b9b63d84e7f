#include "limited_waits.h"

#include <sys/event.h>
#include <sys/sem.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "kespal/os/darwin/thread/Native.h"
#include "sys/Owner.h"

namespace kes::os {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

constexpr nanoseconds longestNap = std::chrono::milliseconds(10);

timespec timespecOf(nanoseconds span) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(span);
  return {static_cast<time_t>(seconds.count()), static_cast<long>((span - seconds).count())};
}

/// Tries until something came of it, with a last try at the end of the time. Neither semaphores nor mutexes
/// can be waited for with a limit here, so that who waits looks every ten milliseconds.
/// @return 0, EINTR when a signal came, or `inVain`
template <typename Try>
int tryWithin(nanoseconds limit, int inVain, Try tryOnce) {
  const Clock::time_point end = Clock::now() + limit;
  for (;;) {
    const Clock::time_point now = Clock::now();
    if (tryOnce()) return 0;
    if (now >= end) return inVain;
    const timespec nap = timespecOf(std::min<nanoseconds>(end - now, longestNap));
    if (::nanosleep(&nap, nullptr) != 0) return EINTR;
  }
}

}  // namespace

bool lowerWithin(int semid, nanoseconds limit) {
  sembuf operation{0, -1, IPC_NOWAIT};
  int errnum = 0;
  const int ended = tryWithin(limit, EAGAIN, [&] {
    errnum = ::semop(semid, &operation, 1) == 0 ? 0 : errno;
    return errnum != EAGAIN;
  });
  errno = ended != 0 ? ended : errnum;
  return errno == 0;
}

int lockWithin(pthread_mutex_t& mutex, nanoseconds limit) {
  const Clock::time_point end = Clock::now() + limit;
  int errnum = 0;
  const auto tryLock = [&] {
    errnum = ::pthread_mutex_trylock(&mutex);
    return errnum != EBUSY;
  };
  int ended = EINTR;  // a signal is nothing to a mutex
  while (ended == EINTR) {
    const nanoseconds rest = std::max<nanoseconds>(end - Clock::now(), nanoseconds::zero());
    ended = tryWithin(rest, ETIMEDOUT, tryLock);
  }
  return ended != 0 ? ended : errnum;
}

int waitWithin(pthread_cond_t& condition, pthread_mutex_t& mutex, nanoseconds limit) {
  const timespec span = timespecOf(limit);
  int result = 0;
  pthread_cleanup_push(&detail::releaseMutex, &mutex);
  result = ::pthread_cond_timedwait_relative_np(&condition, &mutex, &span);
  pthread_cleanup_pop(0);
  return result;
}

// A child that has ended cannot be watched any more, which is as good.
void watchChild(pid_t pid, nanoseconds limit) {
  const sys::Descriptor queue(::kqueue());
  struct kevent wanted {};
  EV_SET(&wanted, static_cast<uintptr_t>(pid), EVFILT_PROC, EV_ADD | EV_ONESHOT, NOTE_EXIT, 0, nullptr);
  struct kevent seen {};
  const timespec span = timespecOf(limit);
  if (queue && ::kevent(queue.get(), &wanted, 1, &seen, 1, &span) >= 0) return;
  const timespec nap = timespecOf(std::min(limit, longestNap));
  ::nanosleep(&nap, nullptr);
}

}  // namespace kes::os
