#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kes::driver {

/// The result code of that name (kIOReturn..., MACH_SEND_INVALID_DEST), or nothing.
std::optional<std::uint32_t> resultNamed(std::string_view name);

}  // namespace kes::driver
