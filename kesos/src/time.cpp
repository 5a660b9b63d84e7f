#include "kesos/time.h"

#include <sys/time.h>

#include <cerrno>

#include "deadline.h"
#include "shutdown.h"

unsigned char fShutdown = 0;

void KesOsSetSystemUp(void) { __atomic_store_n(&fShutdown, 0, __ATOMIC_RELAXED); }

void KesOsSetShutdown(void) { __atomic_store_n(&fShutdown, 1, __ATOMIC_RELAXED); }

int KesOsGetSystemUp(void) { return kes::kesos::shuttingDown() ? 0 : 1; }

unsigned int KesOsGetTimeInmSec(void) {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  return static_cast<unsigned int>(now.tv_sec) * 1000U + static_cast<unsigned int>(now.tv_usec / 1000);
}

time_t KesOsGetTimeInSec(void) { return ::time(nullptr); }

void KesOsSleep(unsigned int ms) {
  timespec remaining{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1'000'000};
  while (::nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}

void setTimespec(timespec* ts, unsigned int ms) {
  constexpr long nanosecondsPerSecond = 1'000'000'000;
  timeval now{};
  if (::gettimeofday(&now, nullptr) != 0) {
    *ts = {0, 0};
    return;
  }
  ts->tv_sec = now.tv_sec + static_cast<time_t>(ms / 1000);
  ts->tv_nsec = now.tv_usec * 1000L + static_cast<long>(ms % 1000) * 1'000'000;
  if (ts->tv_nsec >= nanosecondsPerSecond) {
    ++ts->tv_sec;
    ts->tv_nsec -= nanosecondsPerSecond;
  }
}

namespace kes::kesos {

bool shuttingDown() noexcept { return __atomic_load_n(&fShutdown, __ATOMIC_RELAXED) != 0; }

}  // namespace kes::kesos
