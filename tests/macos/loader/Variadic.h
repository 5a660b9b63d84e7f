#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Processor.h"

namespace loader {

/// The variable arguments of a call, as functions of this system take them.
class HostArguments {
 public:
  explicit HostArguments(MacList mac) { beginHostList(list, mac); }
  HostArguments(const HostArguments&) = delete;
  HostArguments& operator=(const HostArguments&) = delete;
  ~HostArguments() { va_end(list); }

  template <typename T>
  T next() {
    return va_arg(list, T);
  }

  std::va_list list;
};

template <auto function>
struct VariadicEntry;

/// What the program calls in the place of a function that takes its variable arguments as a list. The fixed
/// ones are integers and pointers; in C they lie in registers on either side, from the first on.
template <typename Result, typename... Parameters, Result (*function)(Parameters...)>
struct VariadicEntry<function> {
  static Result enter(std::uint64_t first, ...) {
    std::uint64_t fixed[count] = {first};
    std::va_list rest;
    va_start(rest, first);
    for (std::size_t i = 1; i < count; ++i) fixed[i] = va_arg(rest, std::uint64_t);
    const Result result = call(fixed, macList(rest), std::make_index_sequence<count>());
    va_end(rest);
    return result;
  }

 private:
  static constexpr std::size_t count = sizeof...(Parameters) - 1, registers = 6;
  static_assert(count >= 1 && count <= registers);

  template <typename T>
  static T argument(std::uint64_t value) {
    if constexpr (std::is_pointer_v<T>) {
      return reinterpret_cast<T>(value);
    } else {
      static_assert(std::is_integral_v<T>);
      return static_cast<T>(value);
    }
  }

  template <std::size_t... index>
  static Result call(const std::uint64_t* fixed, MacList variable, std::index_sequence<index...>) {
    using Types = std::tuple<Parameters...>;
    return function(argument<std::tuple_element_t<index, Types>>(fixed[index])..., variable);
  }
};

/// For a table of calls: `{"snprintf", variadic<print>}, {"vsnprintf", print}` with a function `print` whose
/// last parameter is a MacList.
template <auto function>
constexpr auto& variadic = VariadicEntry<function>::enter;

}  // namespace loader
