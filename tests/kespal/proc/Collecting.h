#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "kespal/proc/Child.h"
#include "kespal/proc/Shepherd.h"
#include "support/Gate.h"

namespace kes::test {

/// A collector that runs, and children that are made by hand.
class Collecting {
 public:
  Collecting();
  ~Collecting();

  /// Forks and registers a child that ends with this code, or never; without memory if that is wanted.
  pid_t add(std::optional<int> code, bool starving = false);

  proc::Shepherd shepherd;
};

/// Is told of an end, and takes its time over it.
struct SlowToBeTold : proc::Child::Notification {
  void exited(proc::Child& child) override;

  Gate hold;
  std::atomic<bool> begun{false}, ended{false};
};

/// The thread with this name, as far as the system keeps it; 0 when there is none.
std::uint64_t threadNamed(const std::string& name);

}  // namespace kes::test
