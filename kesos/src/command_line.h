#pragma once

#include <cstdlib>

#include "sys/Owner.h"

namespace kes::kesos {

/// What parseProcessCommandline returned.
struct CommandLineTrait {
  using Value = char**;
  static constexpr char** none = nullptr;
  static void free(char** slots) noexcept {
    for (char** slot = slots; *slot != nullptr; ++slot) std::free(*slot);
    std::free(slots);
  }
};
using CommandLine = sys::Owner<CommandLineTrait>;

}  // namespace kes::kesos
