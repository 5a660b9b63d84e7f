#include <cstdint>
#include <exception>

#include "kesos/time.h"
#include "kespal/time/Clock.h"

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
  return start == 0 || now < start ? 0 : static_cast<unsigned int>(now - start);
}
