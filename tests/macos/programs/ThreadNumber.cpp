// Tests that pretend a thread's number or let its call fail know it as gettid(): here that decides about the
// call that macOS has.
#include <pthread.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdint>

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" pid_t __wrap_gettid();
extern "C" int __wrap_pthread_threadid_np(pthread_t thread, std::uint64_t* id);
extern "C" int __wrap_pthread_threadid_np(pthread_t, std::uint64_t* id) {
  const pid_t number = __wrap_gettid();
  if (number < 0) return errno;
  *id = static_cast<std::uint64_t>(number);
  return 0;
}
// NOLINTEND(bugprone-reserved-identifier)
