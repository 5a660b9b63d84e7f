#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <chrono>

/// Waits with a limit, which the systems have or lack. The limit is kept on each: nothing takes longer by
/// more than the system needs to go on, and nothing is given up before. A limit of 0 is one try.
namespace kes::os {

/// Takes one from the semaphore. False with errno: EAGAIN when the time is over, EINTR, or why it failed.
bool lowerWithin(int semid, std::chrono::nanoseconds limit);

/// Locks the mutex.
/// @return 0, ETIMEDOUT or an error number
int lockWithin(pthread_mutex_t& mutex, std::chrono::nanoseconds limit);

/// Waits on a condition whose mutex the caller holds, as waitUntil() does, but by a clock that nobody sets.
/// @return 0, ETIMEDOUT or an error number
int waitWithin(pthread_cond_t& condition, pthread_mutex_t& mutex, std::chrono::nanoseconds limit);

/// Waits for the end of a child. Comes back at any time before, and need not say when it did.
void watchChild(pid_t pid, std::chrono::nanoseconds limit);

}  // namespace kes::os
