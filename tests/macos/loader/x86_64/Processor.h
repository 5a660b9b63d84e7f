#pragma once

#include <cstdarg>
#include <cstdint>

namespace loader {

// What a Mac with this processor has.
constexpr const char processorName[] = "x86_64";
constexpr std::uint32_t processorNumber = 0x01000007;
constexpr std::uint64_t macPage = 4096, macSmallestStack = 8192;
using MacLongDouble = long double;

/// How the program passes a std::va_list: the address of the same record as here.
struct MacList {
  void* record;
};

/// What is left of a variadic function's arguments, as the program would pass it on.
inline MacList macList(std::va_list& host) { return {host}; }
/// Begins a list for functions of this system, which the caller ends by va_end.
inline void beginHostList(std::va_list& host, MacList mac) {
  va_copy(host, *static_cast<std::va_list*>(mac.record));
}

}  // namespace loader
