#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace loader {

/// The name of a call, of what the linker calls it: without the leading underscore and without the suffix
/// that selects a variant of a function.
std::string callName(const std::string& linkerName);

/// Calls `place(segment, offset)` for every pointer that moves with the image.
void forEachRebase(const std::uint8_t* code, const std::uint8_t* end,
                   const std::function<void(unsigned segment, std::uint64_t offset)>& place);

/// Calls `place(segment, offset, symbol, addend)` for every pointer to a symbol, whose name is that of
/// callName().
void forEachBind(const std::uint8_t* code, const std::uint8_t* end,
                 const std::function<void(unsigned segment, std::uint64_t offset, const std::string& symbol,
                                          std::int64_t addend)>& place);

}  // namespace loader
