#include <cerrno>
#include <ctime>

// Preloaded into the tool: the calendar cannot be read, so that appending a packet raises an error.
extern "C" int clock_gettime(clockid_t id, timespec* now) noexcept {
  if (id == CLOCK_REALTIME) {
    errno = EPERM;
    return -1;
  }
  *now = {};
  return 0;
}
