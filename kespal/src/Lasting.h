#pragma once

#include <new>
#include <utility>

namespace kes {

/// A thing of the whole program that is good at any time: a static object of a program may need it before the
/// library's own are made, or after their end. It is made when it is first needed, or when the program is
/// initialised, and never destroyed. One thread makes it, and no fork can come in between.
template <typename Value>
struct Lasting {
  constexpr Lasting() noexcept : unmade() {}
  ~Lasting() {}

  /// Makes the thing, unless it is there. Gives true, for a static object that does it in time.
  template <typename... From>
  bool make(From&&... from) {
    if (made) return true;
    new (&value) Value(std::forward<From>(from)...);
    return made = true;
  }

  union {
    char unmade;
    Value value;
  };
  bool made = false;
};

}  // namespace kes
