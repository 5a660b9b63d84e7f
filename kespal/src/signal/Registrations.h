#pragma once

#include <map>
#include <set>

#include "kespal/signal/Handler.h"
#include "kespal/signal/Set.h"

namespace kes::signal {

/// Who is told about which signal, and what the signal thread waits for: the signals that somebody registered
/// for, and the management signal. A value.
class Registrations {
 public:
  const Set& waitSet() const noexcept { return waitSet_; }

  void add(int signal, Handler::INotify& notifier);
  /// Takes one registration back; false when there is none.
  bool remove(int signal, Handler::INotify& notifier);

  /// Waits for the management signal; for it no longer, unless somebody registered for it.
  void manage(int mgmSignal) noexcept { waitSet_.add(mgmSignal); }
  void leave(int mgmSignal) noexcept {
    if (!notifiers_.contains(mgmSignal)) waitSet_.remove(mgmSignal);
  }

  /// Tells the notifiers of a signal. What they throw is reported.
  void tell(int signal, const siginfo_t& info) const;

 private:
  std::map<int, std::multiset<Handler::INotify*>> notifiers_;
  Set waitSet_;
};

}  // namespace kes::signal
