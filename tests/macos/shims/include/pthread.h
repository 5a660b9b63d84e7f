#pragma once

#include_next <pthread.h>

#include <cstddef>
#include <cstdint>

// A thread is a pointer over there, and null means the caller; here it is a number.
int pthread_threadid_np(std::nullptr_t self, std::uint64_t* id);

// Waits for a span of time.
int pthread_cond_timedwait_relative_np(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                       const struct timespec* span);

// Over there a thread can only name itself.
int pthread_setname_np(const char* name);
