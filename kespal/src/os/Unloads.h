#pragma once

#include <cstdint>

namespace kes::os {

/// A number that grows whenever code is unloaded from this process. As long as it stays, an address in a
/// loaded library means what it meant before.
std::uint64_t unloads() noexcept;

}  // namespace kes::os
