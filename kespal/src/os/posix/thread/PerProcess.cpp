#include "thread/PerProcess.h"

#include <pthread.h>
#include <unistd.h>

namespace kes::thread {

constinit std::atomic<std::uint64_t> ProcessBound::m_process{0};

// When the program is initialised, not at the first use: a fork in the middle of that would leave the child
// waiting for its end. It fails only for want of memory, at a time when no program gets far without.
const int ProcessBound::m_counting =
    ::pthread_atfork(nullptr, nullptr, [] { m_process = forkFrom(m_process, ownNumber()); });

// The fork handler does not compare the numbers: the first process of a container has the same as that of
// another one which it makes.
std::uint32_t ProcessBound::askDepth() noexcept {
  const std::uint32_t number = ownNumber();
  std::uint64_t known = m_process.load();
  while (static_cast<std::uint32_t>(known) != number) {
    const std::uint64_t next = forkFrom(known, number);
    if (m_process.compare_exchange_weak(known, next)) known = next;
  }
  return depthOf(known);
}

std::uint32_t ProcessBound::ownNumber() noexcept { return static_cast<std::uint32_t>(::getpid()); }

std::uint64_t ProcessBound::forkFrom(std::uint64_t process, std::uint32_t number) noexcept {
  return std::uint64_t{depthOf(process) + 1} << 32 | number;
}

}  // namespace kes::thread
