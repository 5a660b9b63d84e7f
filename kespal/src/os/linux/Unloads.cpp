#include "os/Unloads.h"

#include <link.h>
#include <pthread.h>

#include <mutex>
#include <shared_mutex>

namespace kes::os {

namespace {

// The loader's lock is not set free in a forked child, which would wait for ever if another thread of its
// parent had just been here. So fork() waits until nobody is.
std::shared_mutex here;

void keepOut() { here.lock(); }
void letIn() { here.unlock(); }

// Every object reports the same counter, so the first one ends the walk.
int readCounter(dl_phdr_info* info, std::size_t, void* counter) {
  *static_cast<std::uint64_t*>(counter) = info->dlpi_subs;
  return 1;
}

}  // namespace

std::optional<std::uint64_t> unloads() noexcept {
  static const bool guarded = ::pthread_atfork(keepOut, letIn, letIn) == 0;
  const std::shared_lock lock(here, std::try_to_lock);
  if (!guarded || !lock) return std::nullopt;
  std::uint64_t counter = 0;
  ::dl_iterate_phdr(readCounter, &counter);
  return counter;
}

}  // namespace kes::os
