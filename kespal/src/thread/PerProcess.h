#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

#include "kespal/NoCopy.h"

namespace kes::thread {

/// Knows which process it was made in: a forked child inherits a copy that is not its own. The system tells
/// of a fork(); of a child that was made by _Fork() or a bare clone() nobody tells, and to ask for the number
/// of the process costs far more than a lock. So only the operations that end something ask; once one has,
/// all know. A child that shares the memory of its parent (vfork(), CLONE_VM) must use nothing of this.
class ProcessBound : NoCopy {
 public:
  /// Asks the system.
  bool isInherited() const noexcept { return depth_ != askDepth(); }
  /// As far as is known without asking.
  bool isKnownInherited() const noexcept {
    return depth_ != depthOf(m_process.load(std::memory_order_relaxed));
  }

  /// How many forks led to this process; the first has counted itself. Asks the system.
  static std::uint32_t askDepth() noexcept;

 protected:
  ProcessBound() noexcept : depth_(askDepth()) {}
  ~ProcessBound() = default;

 private:
  static std::uint32_t ownNumber() noexcept;
  static std::uint64_t forkFrom(std::uint64_t process, std::uint32_t number) noexcept;
  static constexpr std::uint32_t depthOf(std::uint64_t process) noexcept {
    return static_cast<std::uint32_t>(process >> 32);
  }

  static std::atomic<std::uint64_t> m_process;  ///< its depth, and below that its number; 0 until asked for
  static const int m_counting;                  ///< what the system said to the fork handler that counts them

  const std::uint32_t depth_;
};

/// What the threads of one process share. A forked child has only one of them: a lock that another one held
/// is never released there, and whoever is waited for does not come. So the child leaves the inherited value
/// alone, for ever, and gets one of its own at the first use. Value is a ProcessBound; its inChild() makes
/// the new one, and reads nothing but what is constant or Replaceable. Any thread may call.
template <typename Value>
class PerProcess : NoCopy {
 public:
  explicit PerProcess(std::shared_ptr<Value> first) : current_(new Holder{std::move(first)}) {}
  ~PerProcess() {
    Holder* const last = current_.load();
    if (last->value->isInherited()) {
      leaveAlone(*last);
    } else {
      delete last;
    }
  }

  /// The value of this process; the reference is good while the object lives. Throws std::bad_alloc in a
  /// forked child.
  const std::shared_ptr<Value>& get() const {
    Holder* const holder = current_.load(std::memory_order_acquire);
    return (holder->value->isKnownInherited() ? replace(holder) : holder)->value;
  }
  /// The value as it is, be it another process's: for what never changes in it.
  const Value& peek() const noexcept { return *current_.load(std::memory_order_acquire)->value; }
  /// Whether this process has no value of its own: nothing was started here. Asks the system.
  bool isInherited() const noexcept { return peek().isInherited(); }

 private:
  struct Holder {
    std::shared_ptr<Value> value;
    Holder* next = nullptr;
  };

  Holder* replace(Holder* inherited) const {
    auto own = std::make_unique<Holder>(Holder{inherited->value->inChild()});
    Holder* found = inherited;
    if (!current_.compare_exchange_strong(found, own.get())) return found;  // another thread was faster
    leaveAlone(*inherited);
    return own.release();
  }
  /// Keeps it where a search for leaks finds it.
  static void leaveAlone(Holder& inherited) noexcept { inherited.next = m_inherited.exchange(&inherited); }

  static inline constinit std::atomic<Holder*> m_inherited{nullptr};

  mutable std::atomic<Holder*> current_;
};

/// A value that changes only by being replaced as a whole: a fork, which can come at any moment, leaves the
/// child either the former or the next one. The changes need a lock, as does reading in the same process.
template <typename Value>
class Replaceable : NoCopy {
 public:
  explicit Replaceable(const Value& first = {}) : current_(new Value(first)) {}
  ~Replaceable() { delete current_.load(); }

  const Value& operator*() const noexcept { return *current_.load(std::memory_order_acquire); }
  const Value* operator->() const noexcept { return &**this; }

  void replace(std::unique_ptr<const Value> next) noexcept { delete current_.exchange(next.release()); }

 private:
  std::atomic<const Value*> current_;
};

}  // namespace kes::thread
