#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstring>

namespace loader {

// What a Mac with this processor has.
constexpr const char processorName[] = "arm64";
constexpr std::uint32_t processorNumber = 0x0100000C;
constexpr std::uint64_t macPage = 16384, macSmallestStack = 16384;
using MacLongDouble = double;

/// How the program passes a std::va_list: it has all variable arguments on its stack, 8 bytes each, and
/// that is the address of the next.
struct MacList {
  void* next;
};

/// A list of this system: arguments that came in registers, of which `integersLeft` and `vectorsLeft` bytes
/// below these ends are unused, negative numbers; and those on the stack, which lie as over there.
struct HostList {
  void* stack;
  void *integersEnd, *vectorsEnd;
  int integersLeft, vectorsLeft;
};
static_assert(sizeof(HostList) == sizeof(std::va_list));

/// What is left of a variadic function's arguments, as the program would pass it on.
inline MacList macList(const std::va_list& host) {
  HostList list;
  std::memcpy(&list, &host, sizeof list);
  return {list.stack};
}
/// Begins a list for functions of this system, which the caller ends by va_end.
inline void beginHostList(std::va_list& host, MacList mac) {
  const HostList list{mac.next, nullptr, nullptr, 0, 0};
  std::memcpy(&host, &list, sizeof list);
}

}  // namespace loader
