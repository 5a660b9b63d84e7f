#pragma once

#include <new>
#include <string>
#include <utility>

namespace kes {

/// A text of the whole program that is good at any time: a static object of a program may need it before the
/// library's own are made, or after their end. It is made when it is first needed, or when the program is
/// initialised, and never destroyed. One thread makes it.
struct StaticText {
  constexpr StaticText() noexcept : unmade() {}
  ~StaticText() {}

  /// Makes the text, unless it is there. Gives true, for a static object that does it in time.
  bool make(const std::string& first = "") {
    if (!std::exchange(made, true)) new (&text) std::string(first);
    return true;
  }

  union {
    char unmade;
    std::string text;
  };
  bool made = false;
};

}  // namespace kes
