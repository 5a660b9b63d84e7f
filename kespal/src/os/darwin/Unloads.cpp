#include "os/Unloads.h"

#include <mach-o/dyld.h>

#include <atomic>

namespace kes::os {

namespace {

constinit std::atomic<std::uint64_t> counter{0};

void countRemoval(const mach_header*, std::intptr_t) { counter.fetch_add(1); }

}  // namespace

// The loader counts for nobody, but after the first call here it tells of every removal.
std::optional<std::uint64_t> unloads() noexcept {
  static const bool listening = (::_dyld_register_func_for_remove_image(countRemoval), true);
  return listening ? std::optional(counter.load()) : std::nullopt;
}

}  // namespace kes::os
