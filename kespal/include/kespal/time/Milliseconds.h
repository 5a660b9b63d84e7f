#pragma once  // since 0.1

#include <chrono>
#include <cstdint>
#include <ratio>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes::time {

/// The duration of timed waits: one signed 64-bit count of milliseconds.
using Milliseconds = std::chrono::duration<std::int64_t, std::milli>;

}  // namespace kes::time

KES_EXPORT_END
