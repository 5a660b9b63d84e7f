#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "wire/Wire.h"

namespace kes::driver {

/// Bytes as hexadecimal digits, two each.
std::string toHex(iokit::Bytes bytes);

/// The bytes that such a text stands for, with digits of either case. Throws std::runtime_error for any
/// other.
std::vector<std::uint8_t> fromHex(std::string_view text);

}  // namespace kes::driver
