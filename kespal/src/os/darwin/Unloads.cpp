#include "os/Unloads.h"

#include <mach-o/dyld.h>

#include <atomic>

namespace kes::os {

namespace {

constinit std::atomic<std::uint64_t> counter{0};

void countRemoval(const mach_header*, std::intptr_t) { counter.fetch_add(1); }

// The loader counts for nobody, but from now on it tells of every removal. Asked before there are threads: a
// child that is forked meanwhile would wait for ever to ask.
const bool listening = (::_dyld_register_func_for_remove_image(countRemoval), true);

}  // namespace

std::optional<std::uint64_t> unloads() noexcept {
  return listening ? std::optional(counter.load()) : std::nullopt;
}

}  // namespace kes::os
