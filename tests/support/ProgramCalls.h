#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <string>

#include "support/Calls.h"

namespace kes::test {

/// What is wanted and known of the calls of another program, in a file that both have mapped. The program is
/// started with the library behind PROGRAM_CALLS preloaded, which goes by the file that KES_PROGRAM_CALLS
/// names. Only what the program itself and its libraries ask of the C library passes by, not what that asks
/// of itself.
struct ProgramCalls {
  static constexpr std::size_t count = static_cast<std::size_t>(Call::Last);

  std::atomic<int> call{-1};  ///< that is refused, or -1
  std::atomic<int> number{0};
  std::atomic<int> error{0};
  std::atomic<bool> isForGood{false};
  std::atomic<bool> isShort{false};      ///< it moves one byte in place of failing
  std::atomic<bool> isSleepless{false};  ///< whoever wants to sleep has slept already
  std::atomic<int> struck{0};
  std::array<std::atomic<int>, count> made{};
};

}  // namespace kes::test
