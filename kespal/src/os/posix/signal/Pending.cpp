#include "signal/Pending.h"

#include <csignal>

#include "kespal/signal/Set.h"

namespace kes::signal {

namespace {

void takeNothing(int) {}

/// Has the signal come upon a handler that does nothing. A sigwait() would wait if another thread was faster,
/// and SIG_IGN would take the signal that is to wake the signal thread.
void take(int signal) noexcept {
  struct sigaction action = {};
  struct sigaction before;
  action.sa_handler = &takeNothing;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  if (::sigaction(signal, &action, &before) != 0) return;
  const Set one{signal};
  ::sigset_t mask;
  if (::pthread_sigmask(SIG_UNBLOCK, &one.native(), &mask) == 0)
    ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  ::sigaction(signal, &before, nullptr);
}

}  // namespace

void takePending() noexcept {
  ::sigset_t signals;
  sigemptyset(&signals);
  if (::sigpending(&signals) != 0) return;
  const Set pending(signals);
  for (const int signal : {SIGPIPE, SIGUSR1, SIGUSR2}) {
    if (pending.contains(signal) && !Set::m_original.contains(signal)) take(signal);
  }
}

}  // namespace kes::signal
