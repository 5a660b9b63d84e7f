#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

/// A fuzz target: called with input after input, on which nothing may crash.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// What does not hold is a finding.
inline void require(bool holds) {
  if (!holds) std::abort();
}
