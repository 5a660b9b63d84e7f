#pragma once

#include <pthread.h>

namespace kes::kesos {

/// Holds a POSIX mutex for the life of a scope. Unlike the standard library's mutexes, a POSIX mutex of
/// static duration is never destroyed: threads may still use it while the process exits.
class MutexGuard {
 public:
  explicit MutexGuard(pthread_mutex_t& mutex) : mutex_(mutex) { ::pthread_mutex_lock(&mutex_); }
  ~MutexGuard() { ::pthread_mutex_unlock(&mutex_); }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

 private:
  pthread_mutex_t& mutex_;
};

}  // namespace kes::kesos
