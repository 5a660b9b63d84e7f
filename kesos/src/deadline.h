#pragma once

#include <algorithm>
#include <chrono>

#include "semaphores.h"

namespace kes::kesos {

/// The end of a wait, by a clock that nobody sets.
class Deadline {
 public:
  using Clock = std::chrono::steady_clock;
  using Span = std::chrono::nanoseconds;

  explicit Deadline(unsigned int timeoutMs)
      : end_(timeoutMs == infinite ? Clock::time_point::max()
                                   : Clock::now() + std::chrono::milliseconds(timeoutMs)) {}

  bool isOver() const { return rest() == Span::zero(); }
  /// The time until then, but no more than `most`.
  Span rest(Span most = std::chrono::hours(1)) const {
    const Clock::time_point now = Clock::now();
    return now >= end_ ? Span::zero() : std::min<Span>(end_ - now, most);
  }

 private:
  Clock::time_point end_;
};

}  // namespace kes::kesos
