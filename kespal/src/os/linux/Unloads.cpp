#include "os/Unloads.h"

#include <link.h>
#include <pthread.h>

namespace kes::os {

namespace {

// The loader answers under a lock that stays as it is in a forked child: another thread of the parent may
// have held it, in dlopen() for one. So such a child does not ask, and names every frame anew, which takes
// only the lock that fork() sets free.
constinit bool forked = false;

const bool watching = ::pthread_atfork(nullptr, nullptr, [] { forked = true; }) == 0;

// Every object reports the same counter, so the first one ends the walk.
int readCounter(dl_phdr_info* info, std::size_t, void* counter) {
  *static_cast<std::uint64_t*>(counter) = info->dlpi_subs;
  return 1;
}

}  // namespace

std::optional<std::uint64_t> unloads() noexcept {
  if (!watching || forked) return std::nullopt;
  std::uint64_t counter = 0;
  ::dl_iterate_phdr(readCounter, &counter);
  return counter;
}

}  // namespace kes::os
