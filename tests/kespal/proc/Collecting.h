#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kespal/proc/Shepherd.h"
#include "support/Gate.h"

// The calls of a collector to the system come through Collecting.cpp, where they are counted and can fail.

namespace kes::test {

/// What the next looks for an ended child are made to fail with, one after the other.
extern std::vector<int> waitFailures;
extern std::atomic<int> looks, childlessLooks;  ///< that were begun, that found no child at all
extern std::atomic<bool> forkFails;
extern std::atomic<int> forks, clones;           ///< that were tried
extern std::atomic<int> cloneError;              ///< of a child that is to share its parent's memory
extern std::atomic<int> threadError, joinError;  ///< of the next thread's creation, and of its end
extern std::atomic<const Gate*> startGate;       ///< where the next thread is held up at its start

/// A collector that runs, and children that are made by hand.
class Collecting {
 public:
  Collecting();
  ~Collecting();

  /// Forks and registers a child that ends with this code, or never; without memory if that is wanted.
  pid_t add(std::optional<int> code, bool starving = false);

  proc::Shepherd shepherd;
};

/// The thread with this name, as far as the system keeps it; 0 when there is none.
std::uint64_t threadNamed(const std::string& name);

}  // namespace kes::test
