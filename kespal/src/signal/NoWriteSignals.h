#pragma once

#include <csignal>

#include "kespal/NoCopy.h"
#include "kespal/signal/Set.h"
#include "sys/NoCancel.h"

namespace kes::signal {

/// While it lives, a write of the calling thread that is refused fails, and does nothing else: what comes of
/// a pipe that nobody reads (SIGPIPE, with EPIPE) and of a file at the limit of its size (SIGXFSZ, with
/// EFBIG) is blocked, and who has got the error takes the signal away. Takes neither memory nor locks.
class NoWriteSignals : NoCopy {
 public:
  NoWriteSignals() noexcept : before_(pending()) {
    held_ = ::pthread_sigmask(SIG_BLOCK, &kinds().native(), &mask_) == 0;
  }
  ~NoWriteSignals() {
    if (held_) ::pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
  }

  /// Takes the signal that came with the error. It is this thread's own, so that nobody can be faster. One
  /// that was pending before stands for both.
  void take() const noexcept {
    const sys::NoCancel untilTaken;
    const Set now = pending();
    int taken = 0;
    for (const int kind : {SIGPIPE, SIGXFSZ}) {
      const Set one{kind};
      if (held_ && now.contains(kind) && !before_.contains(kind)) ::sigwait(&one.native(), &taken);
    }
  }

 private:
  static Set kinds() noexcept { return {SIGPIPE, SIGXFSZ}; }
  static Set pending() noexcept {
    ::sigset_t signals{};
    ::sigpending(&signals);
    return Set(signals);
  }

  const Set before_;  ///< pending then
  bool held_ = false;
  ::sigset_t mask_{};
};

}  // namespace kes::signal
