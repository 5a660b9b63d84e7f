#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "kespal/NoCopy.h"
#include "kespal/proc/StartFailure.h"

namespace kes::proc {

/// Where a forked child leaves for its parent which step failed on its way to the program: a word in memory
/// that both share. It needs no descriptor, nobody waits for it, and an exec takes the child's part away. One
/// that was not opened keeps nothing.
class StartNote : NoCopy {
 public:
  StartNote() = default;
  ~StartNote();

  /// Before the fork. False with errno (ENOMEM) when there is no memory to share.
  bool open() noexcept;
  /// By the child: a store, and nothing else. What is written last stands.
  void write(StartFailure::Step step, int errnum) const noexcept;
  /// By the parent, whenever it likes; all that there will be is there when the child has ended.
  std::optional<StartFailure> read() const noexcept;

 private:
  using Word = std::atomic<std::uint64_t>;
  static_assert(Word::is_always_lock_free, "a lock would be in the memory of one process alone");

  Word* word_ = nullptr;
};

}  // namespace kes::proc
