#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <string>

int pthread_threadid_np(std::nullptr_t, std::uint64_t* id) {
  if (id == nullptr) return EINVAL;
  const pid_t number = ::gettid();
  if (number < 0) return errno;
  *id = static_cast<std::uint64_t>(number);
  return 0;
}

// macOS takes 63 bytes and Linux 15: longer ones are checked as macOS would, and kept as far as Linux does.
int pthread_setname_np(const char* name) {
  const std::string text = name;
  if (text.size() > 63) return ENAMETOOLONG;
  return ::pthread_setname_np(::pthread_self(), text.substr(0, 15).c_str());
}
