#pragma once

#include <cstddef>

namespace kes::test {

/// The calling thread gets no memory from operator new while the object lives, once it has had `before`
/// allocations; other threads do. What the exception machinery takes for itself is not affected.
class NoMemory {
 public:
  explicit NoMemory(std::size_t before = 0) noexcept;
  ~NoMemory();
  NoMemory(const NoMemory&) = delete;
  NoMemory& operator=(const NoMemory&) = delete;

  /// Whether an allocation was refused so far.
  static bool refused() noexcept;

  /// Has somebody else decide, too, whether there is memory: true means there is none.
  static void ask(bool (*refuses)());
};

/// Calls `action` with no memory at all, then after one allocation, after two, and so on, until it ran
/// without a refusal; gives the number of refused runs. `action` may throw std::bad_alloc and nothing else.
template <typename Action>
std::size_t starve(Action action);

}  // namespace kes::test

#include <new>

template <typename Action>
std::size_t kes::test::starve(Action action) {
  for (std::size_t before = 0;; ++before) {
    const NoMemory starving(before);
    try {
      action();
    } catch (const std::bad_alloc&) {
    }
    if (!NoMemory::refused()) return before;
  }
}
