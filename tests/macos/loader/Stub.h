#pragma once

#include <cstddef>
#include <cstdint>

namespace loader {

constexpr std::size_t stubRoom = 32;

/// Writes code of at most `stubRoom` bytes that calls `function` with `argument`.
void writeStub(std::uint8_t* place, void (*function)(const char*), const char* argument);

}  // namespace loader
