#pragma once  // since 0.1

#include <chrono>
#include <cstdint>
#include <ratio>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes::time {

/// The duration of timed waits: one signed 64-bit count of milliseconds.
using Milliseconds = std::chrono::duration<std::int64_t, std::milli>;

/// The limit that a timed wait keeps: the given one, rounded up, but no less than none and no more than a
/// hundred years, so that no sum of times overflows.
template <typename Rep, typename Period>
constexpr Milliseconds boundedWait(const std::chrono::duration<Rep, Period>& limit) noexcept {
  constexpr std::chrono::hours longest(24 * 365 * 100);
  if (!(limit > limit.zero())) return Milliseconds(0);  // what is no number is not more, either
  if (limit > longest) return longest;
  return std::chrono::ceil<Milliseconds>(limit);
}

}  // namespace kes::time

KES_EXPORT_END
