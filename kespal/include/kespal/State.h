#pragma once

#include "kespal/ForkPending.h"

namespace kes {

/// The former name of ForkPending.
class State {
 public:
  static inline constinit std::atomic<bool>& m_fork_pending = ForkPending::m_pending;
};

}  // namespace kes
