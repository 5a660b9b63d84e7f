#include "os/Unloads.h"

#include <link.h>

namespace kes::os {

namespace {

// Every object reports the same counter, so the first one ends the walk.
int readCounter(dl_phdr_info* info, std::size_t, void* counter) {
  *static_cast<std::uint64_t*>(counter) = info->dlpi_subs;
  return 1;
}

}  // namespace

std::uint64_t unloads() noexcept {
  std::uint64_t counter = 0;
  ::dl_iterate_phdr(readCounter, &counter);
  return counter;
}

}  // namespace kes::os
