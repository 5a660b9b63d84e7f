#pragma once

#include <cstdlib>
#include <memory>

namespace kes::kesos {

/// Frees what parseProcessCommandline returned.
struct FreeCommandLine {
  void operator()(char** slots) const {
    for (char** slot = slots; *slot != nullptr; ++slot) std::free(*slot);
    std::free(slots);
  }
};
using CommandLine = std::unique_ptr<char*, FreeCommandLine>;

}  // namespace kes::kesos
