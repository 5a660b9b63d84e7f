#pragma once

#include <atomic>

#include "kespal/signal/Set.h"

namespace kes {

/// What the runtime object tells the layers below it, so that they need not know it. The other such value,
/// the signal mask that the process started with, is signal::Set::m_original.
class State {
 public:
  /// The process is about to fork: no thread of the library may be created. Any thread may read it.
  static inline constinit std::atomic<bool> m_fork_pending{false};
};

}  // namespace kes
