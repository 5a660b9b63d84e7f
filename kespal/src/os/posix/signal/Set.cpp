#include "kespal/signal/Set.h"

namespace kes::signal {

namespace {

constexpr int lastSignal = 32;

constinit bool g_originalNoted = false;

// Macros serve as sigaddset and its kind on macOS, so nowhere is their scope named.
bool noteStartUpMask() noexcept {
  if (g_originalNoted) return true;
  ::sigset_t mask;
  sigemptyset(&mask);
  if (::pthread_sigmask(SIG_SETMASK, nullptr, &mask) == 0) Set::noteOriginal(Set(mask));
  return g_originalNoted;
}

[[maybe_unused]] const bool g_startUpMaskNoted = noteStartUpMask();

}  // namespace

constinit Set Set::m_original;

void Set::noteOriginal(const Set& mask) noexcept {
  m_original = mask;
  g_originalNoted = true;
}

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
