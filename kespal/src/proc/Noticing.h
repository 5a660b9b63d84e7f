#pragma once

#include <csignal>

#include "kespal/NoCopy.h"

namespace kes::proc {

/// While SIGCHLD is ignored, or its handler wants no statuses, a child vanishes at its end, and nobody who
/// waits is told. Changes that, and changes it back unless told otherwise.
class Noticing : NoCopy {
 public:
  Noticing() noexcept {
    if (::sigaction(SIGCHLD, nullptr, &before_) != 0) return;
    struct sigaction action = before_;
    action.sa_flags &= ~SA_NOCLDWAIT;
    const bool ignored =
        action.sa_handler == SIG_IGN;  // whatever its flags say: the system, too, asks no more
    if (ignored) action.sa_handler = SIG_DFL;
    changed_ = ignored || action.sa_flags != before_.sa_flags;
    if (changed_) ::sigaction(SIGCHLD, &action, nullptr);
  }
  ~Noticing() {
    if (changed_) ::sigaction(SIGCHLD, &before_, nullptr);
  }

  void keep() noexcept { changed_ = false; }

 private:
  struct sigaction before_ {};
  bool changed_ = false;
};

}  // namespace kes::proc
