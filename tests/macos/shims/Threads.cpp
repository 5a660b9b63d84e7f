#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>

int pthread_threadid_np(std::nullptr_t, std::uint64_t* id) {
  if (id == nullptr) return EINVAL;
  const pid_t number = ::gettid();
  if (number < 0) return errno;
  *id = static_cast<std::uint64_t>(number);
  return 0;
}

int pthread_cond_timedwait_relative_np(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                       const timespec* span) {
  constexpr long second = 1'000'000'000;
  timespec end;
  ::clock_gettime(CLOCK_MONOTONIC, &end);
  const long nanoseconds = end.tv_nsec + span->tv_nsec;
  end.tv_sec += span->tv_sec + nanoseconds / second;
  end.tv_nsec = nanoseconds % second;
  return ::pthread_cond_clockwait(condition, mutex, CLOCK_MONOTONIC, &end);
}

// macOS takes 63 bytes and Linux 15: longer ones are checked as macOS would, and kept as far as Linux does.
int pthread_setname_np(const char* name) {
  const std::string text = name;
  if (text.size() > 63) return ENAMETOOLONG;
  return ::pthread_setname_np(::pthread_self(), text.substr(0, 15).c_str());
}
