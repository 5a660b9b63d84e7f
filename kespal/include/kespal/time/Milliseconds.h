#pragma once  // since 0.1

#include <chrono>
#include <cstdint>
#include <ratio>

namespace kes::time {

/// The duration of timed waits: one signed 64-bit count of milliseconds.
using Milliseconds = std::chrono::duration<std::int64_t, std::milli>;

}  // namespace kes::time
