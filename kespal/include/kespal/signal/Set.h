#pragma once  // since 0.1

#include <csignal>
#include <initializer_list>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes::signal {

/// A set of signals. A small value without a lock. Only the signals 1 to 32 that the system lets programs
/// use can be added; a set that the system filled in, such as a thread's mask, may hold others too.
class Set {
 public:
  constexpr Set() noexcept = default;
  /// Of these signals, each as by add(); and of what the system filled in.
  Set(std::initializer_list<int> signals) noexcept;
  explicit Set(const ::sigset_t& signals) noexcept : signals_(signals) {}

  /// Adds a signal. Numbers below 1 and above 32 are silently left out.
  void add(int signal) noexcept;
  /// Takes a signal out; one that is not in the set stays out.
  void remove(int signal) noexcept;
  bool contains(int signal) const noexcept;  ///< false also for what is no signal

  const ::sigset_t& native() const noexcept { return signals_; }  ///< for calls of the system

  /// The mask that this process started with, which is what the programs it starts get. Taken when the
  /// program is initialised, and by the runtime object before it changes the mask.
  static Set m_original;
  /// Stores m_original. What is taken when the program is initialised does not replace it: a runtime object
  /// of namespace scope may be there before.
  static void noteOriginal(const Set& mask) noexcept;

 private:
  ::sigset_t signals_{};  // zeros are the empty set on every supported system
};

}  // namespace kes::signal

KES_EXPORT_END
