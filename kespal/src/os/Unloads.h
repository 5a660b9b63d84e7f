#pragma once

#include <cstdint>
#include <optional>

namespace kes::os {

/// A number that grows whenever code is unloaded from this process: as long as it stays, an address in a
/// loaded library means what it meant before. None while it cannot be read without waiting.
std::optional<std::uint64_t> unloads() noexcept;

}  // namespace kes::os
