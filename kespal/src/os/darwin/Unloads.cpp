#include "os/Unloads.h"

#include <mach-o/dyld.h>

#include <atomic>

namespace kes::os {

namespace {

constinit std::atomic<std::uint64_t> counter{0};

void countRemoval(const mach_header*, std::intptr_t) { counter.fetch_add(1); }

}  // namespace

// The loader counts for nobody, but tells of every removal after the first call.
std::uint64_t unloads() noexcept {
  static const bool listening = (::_dyld_register_func_for_remove_image(countRemoval), true);
  return listening ? counter.load() : 0;
}

}  // namespace kes::os
