#include "kespal/signal/Set.h"

namespace kes::signal {

namespace {

constexpr int lastSignal = 32;

Set startUpMask() noexcept {
  ::sigset_t mask;
  sigemptyset(&mask);
  ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return Set(mask);
}

}  // namespace

Set Set::m_original = startUpMask();

Set::Set(std::initializer_list<int> signals) noexcept : Set() {
  for (const int signal : signals) add(signal);
}

// Signals that the C library keeps to itself are refused by sigaddset; they stay out as well.
void Set::add(int signal) noexcept {
  if (signal >= 1 && signal <= lastSignal) sigaddset(&signals_, signal);
}

void Set::remove(int signal) noexcept {
  if (signal >= 1) sigdelset(&signals_, signal);
}

bool Set::contains(int signal) const noexcept { return signal >= 1 && sigismember(&signals_, signal) == 1; }

}  // namespace kes::signal
