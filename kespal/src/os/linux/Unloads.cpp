#include "os/Unloads.h"

#include <link.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>

namespace kes::os {

namespace {

// The loader's lock is not set free in a forked child, which would wait for ever if another thread of its
// parent had just been here. So fork() waits until nobody is. No lock of the system does for this: the C
// library knows the holder by its thread id, which is another in the child.
constinit std::atomic<int> visitors{0};
constexpr int closedForFork = -1;

bool comeIn() {
  int others = visitors.load();
  while (others != closedForFork) {
    if (visitors.compare_exchange_weak(others, others + 1)) return true;
  }
  return false;
}

void goOut() { visitors.fetch_sub(1); }

void keepOut() {
  for (int nobody = 0; !visitors.compare_exchange_weak(nobody, closedForFork); nobody = 0) ::sched_yield();
}

void letIn() { visitors.store(0); }

// Registered before there are threads: a child that is forked meanwhile would wait for ever to do it.
const bool guarded = ::pthread_atfork(keepOut, letIn, letIn) == 0;

// Every object reports the same counter, so the first one ends the walk.
int readCounter(dl_phdr_info* info, std::size_t, void* counter) {
  *static_cast<std::uint64_t*>(counter) = info->dlpi_subs;
  return 1;
}

}  // namespace

std::optional<std::uint64_t> unloads() noexcept {
  if (!guarded || !comeIn()) return std::nullopt;
  std::uint64_t counter = 0;
  ::dl_iterate_phdr(readCounter, &counter);
  goOut();
  return counter;
}

}  // namespace kes::os
