#pragma once

#include <exception>
#include <ios>
#include <iostream>
#include <optional>

#include "support/NoMemory.h"

namespace kes::test {

// What stands in the way of a report about an exception. For forked children.

struct Speechless : std::exception {
  const char* what() const noexcept override { return nullptr; }
};

/// Throws by `raise` in a thread that has no memory any more.
template <typename Raise>
void throwAndStarve(Raise raise) {
  static std::optional<NoMemory> starving;
  starving.emplace();
  raise();
}

/// Throws a number; whatever is written to std::cerr from now on throws, too.
[[noreturn]] inline void throwAndSpoilTheStream() {
  std::cerr.exceptions(std::ios::badbit | std::ios::failbit | std::ios::eofbit);
  try {
    std::cerr.setstate(std::ios::badbit);
  } catch (const std::ios::failure&) {  // as does everything that is written to it
  }
  throw 7;
}

}  // namespace kes::test
