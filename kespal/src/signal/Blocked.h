#pragma once

#include <csignal>

#include "kespal/NoCopy.h"
#include "kespal/signal/Mask.h"

namespace kes::signal {

/// Blocks signals in the calling thread for a scope. The constructor raises OsError.
class Blocked : NoCopy {
 public:
  explicit Blocked(const Set& signals) : before_(Mask::get()) { Mask::call(signals, SIG_BLOCK); }
  ~Blocked() { ::pthread_sigmask(SIG_SETMASK, &before_.native(), nullptr); }

 private:
  const Set before_;
};

}  // namespace kes::signal
