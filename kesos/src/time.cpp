#include "kesos/time.h"

#include <sys/time.h>

#include <cstdint>
#include <exception>

#include "kespal/time/Clock.h"
#include "sys/Retry.h"
#include "waits.h"

unsigned char fShutdown = 0;

extern "C" {

std::uint64_t g_kesos_inittime = 0;  // second of the steady clock at first use; 0: not yet set
}

namespace {

/// Whole seconds of the steady clock; 0 when it cannot be read. The clock services are obtained here in a
/// program that has no runtime object to do it.
std::uint64_t monotonicSeconds() {
  try {
    if (kes::time::OsClock::MONOTONIC == 0) kes::time::ClockBase::init();
    const kes::time::MonotonicClock now;
    return now.sec() + static_cast<std::uint64_t>(now.nsec()) / 1'000'000'000;
  } catch (const std::exception&) {
    return 0;
  }
}

}  // namespace

void KesOsInit(void) {
  if (__atomic_load_n(&g_kesos_inittime, __ATOMIC_RELAXED) != 0) return;
  __atomic_store_n(&g_kesos_inittime, monotonicSeconds(), __ATOMIC_RELAXED);
}

unsigned int KesOsGetUpTime(void) {
  KesOsInit();
  const std::uint64_t start = __atomic_load_n(&g_kesos_inittime, __ATOMIC_RELAXED);
  const std::uint64_t now = monotonicSeconds();
  return start == 0 || now == 0 ? 0 : static_cast<unsigned int>(now - start);
}

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
  kes::sys::retry([&remaining] { return ::nanosleep(&remaining, &remaining); });
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
