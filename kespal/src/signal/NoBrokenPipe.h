#pragma once

#include <csignal>

#include "kespal/NoCopy.h"
#include "kespal/signal/Set.h"
#include "sys/NoCancel.h"

namespace kes::signal {

/// While it lives, a write of the calling thread to a pipe that nobody reads fails (EPIPE), and does nothing
/// else: SIGPIPE is blocked, and who has got EPIPE takes it away.
class NoBrokenPipe : NoCopy {
 public:
  NoBrokenPipe() noexcept : wasPending_(isPending()) {
    ::pthread_sigmask(SIG_BLOCK, &brokenPipe_.native(), &before_);
  }
  ~NoBrokenPipe() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

  /// Takes the signal that came with an EPIPE. It is this thread's own, so that nobody can be faster. One
  /// that was pending before stands for both.
  void take() const noexcept {
    const sys::NoCancel untilTaken;
    int taken = 0;
    if (!wasPending_ && isPending()) ::sigwait(&brokenPipe_.native(), &taken);
  }

 private:
  static bool isPending() noexcept {
    ::sigset_t pending;
    return ::sigpending(&pending) == 0 && Set(pending).contains(SIGPIPE);
  }

  const Set brokenPipe_{SIGPIPE};
  const bool wasPending_;
  ::sigset_t before_{};
};

}  // namespace kes::signal
